// Reserved folders. Which reserved file a creation takes over and what deletion gives back;
// publication, bytes, names as other readers see them and what the folder refuses are the random
// model tests' (tests/e2e/reserved_test.cpp) and the power-cut sweeps'. Then the folder checked at
// load time, on a VELT card whose folder REC holds two published recordings ("clip number one of
// the day.avi" with three long-name records, "c.avi" with one behind two fillers) and free 1 MiB
// files: publications cut short, damaged records, chains and folders each cost at most the
// reserved file they touch (a folder removed altogether is a row of the damaged-card table).
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "card_volume.h"
#include "fat_records.h"
#include "fs/velt_file.h"
#include "velt_fsck.h"

namespace velt::test {
namespace {

constexpr int kCount = 20, kUsed = 24, kStart = 28;  // descriptor fields of the format info
constexpr uint32_t kFileBytes = 1u << 20;

// The folder's records on the card: slot i of group g is slots[2 + 4 g + i].
struct Folder {
  FatImage::Entry record;  // the folder's own entry in the root
  std::vector<int64_t> slots;
  int64_t slot(int group, int i) const { return slots[2 + 4 * group + i]; }
  int64_t sfn(int group) const { return slot(group, 3); }
};

Folder folderOf(const FatImage& img) {
  Folder f{*img.find(img.rootCluster(), "REC"), {}};
  f.slots = img.records(f.record.cluster);
  return f;
}

// One change a cut or damage leaves in the folder, and what the load must make of the group it
// touches (-1: none): the recording under `name`, or ("") a free reserved file. Every other
// recording keeps its name and bytes, the folder is never made anew, and the next load finds
// nothing to repair.
struct GroupCase {
  std::string what;
  int group;
  std::string name;
  std::function<void(const FatImage&, const Folder&)> change;
};

// Records of group `group` before and after publishing `name`, which takes that group over.
struct Publication {
  std::string name, short_name;
  std::string before[4], after[4];
};

TEST(ReservedLoad, DamageOrACutCostsAtMostOneReservedFile) {
  using Img = const FatImage&;
  using F = const Folder&;
  CardImage pristine(smallClusterCard(64)), card(smallClusterCard(64));
  ASSERT_TRUE(pristine.ok() && card.ok()) << pristine.error();
  ASSERT_EQ(formatCard(pristine, formatInfo({{"REC", 10, 1}})), 0);
  // Recordings of the pristine card and their bytes as another FAT reader sees them.
  const std::vector<std::string> recordings = {"clip number one of the day.avi", "c.avi"};
  {
    Loaded l = loadCard(pristine);
    ASSERT_EQ(l.error, 0) << l.log;
    for (unsigned i = 0; i < 2; ++i)
      ASSERT_NO_FATAL_FAILURE(
          publishRecording(*l.volume, "/REC", recordings[i], patternBytes(5000, i + 1)));
  }
  const int files = static_cast<int>(FatImage(pristine).descriptorValue(0, kCount));
  ASSERT_GE(files, 4);
  std::map<std::string, std::string> bytes;
  for (const auto& name : recordings) bytes[name] = pristine.type("/REC/" + name);
  const std::string clip_short = "CLIPNU~1.AVI";

  // Publications of a three-record name and of a one-record name behind two fillers, in group 2.
  std::vector<Publication> publications;
  for (const char* name : {"new recording number two.avi", "n.avi"}) {
    ASSERT_TRUE(card.copyFrom(pristine));
    Publication p;
    p.name = name;
    {
      Loaded l = loadCard(card);
      ASSERT_EQ(l.error, 0) << l.log;
      auto e = l.volume->newEntry(l.volume->findEntry("/REC"), name, false);
      ASSERT_NE(e, nullptr);
      p.short_name = e->short_name_;
      l.volume->flush();
      FatImage img(card);
      Folder f = folderOf(img);
      for (int i = 0; i < 4; ++i) p.before[i] = img.record(f.slot(2, i));
      ASSERT_EQ(e->secure2(), 0);
    }
    FatImage img(card);
    Folder f = folderOf(img);
    for (int i = 0; i < 4; ++i) p.after[i] = img.record(f.slot(2, i));
    publications.push_back(p);
  }

  std::vector<GroupCase> cases = {
      {"untouched", -1, "", [](Img, F) {}},
      {"saved counts wrong, folder moved", -1, "",
       [](Img img, F f) {
         img.setDescriptorField(0, kUsed, 5);
         img.setDescriptorField(0, kStart, f.record.cluster + 7);
       }},
  };
  // Publication cut short: any subset of its four record writes reached the card.
  for (const Publication& p : publications) {
    const int own = p.name.size() > 13 ? 3 : 1;  // records the name itself needs
    for (int mask = 0; mask < 16; ++mask) {
      bool named = true;
      for (int i = 3 - own; i < 3; ++i) named = named && (mask & (1 << i));
      std::string expect = !(mask & 8) ? "" : named ? p.name : p.short_name;
      cases.push_back({p.name + " published writes " + std::to_string(mask), 2, expect,
                       [p, mask](Img img, F f) {
                         for (int i = 0; i < 4; ++i)
                           img.putRecord(f.slot(2, i),
                                         (mask & (1 << i)) ? p.after[i] : p.before[i]);
                       }});
    }
  }
  // One damaged record of a recording (group 0), of one behind fillers (group 1), of a free one.
  const std::vector<std::pair<std::string, std::function<void(Img, int64_t)>>> damages = {
      {"zeroed", [](Img img, int64_t off) { img.putRecord(off, std::string(32, '\0')); }},
      {"overwritten", [](Img img, int64_t off) { img.putRecord(off, std::string(32, '\xA7')); }},
      {"made a folder", [](Img img, int64_t off) { img.putByte(off + 11, 0x10); }},
  };
  // Each slot of each kind of group, the kinds of damage taking turns.
  for (int slot = 0; slot < 4; ++slot) {
    for (int kind = 0; kind < 3; ++kind) {
      const auto& [how, d] = damages[(slot + kind) % damages.size()];
      const std::string at = " slot " + std::to_string(slot) + " " + how;
      const int group = kind == 2 ? 3 : kind;
      std::string name = slot == 3 || kind == 2 ? ""
                         : kind == 0            ? clip_short
                         : slot == 2            ? "C.AVI"
                                                : "c.avi";
      const char* kinds[] = {"recording", "recording behind fillers", "free file"};
      cases.push_back({kinds[kind] + at, group, name,
                       [d, group, slot](Img img, F f) { d(img, f.slot(group, slot)); }});
    }
  }
  cases.push_back({"free file pointing at a recording's chain", 3, "", [](Img img, F f) {
                     img.setFirstCluster(f.sfn(3), img.firstCluster(f.sfn(1)));
                   }});
  cases.push_back({"damaged dot record", 3, "",
                   [](Img img, F f) { img.putRecord(f.slots[0], std::string(32, '\0')); }});
  cases.push_back({"records behind the reserved files", 3, "", [files](Img img, F f) {
                     std::string dir = img.record(f.sfn(0));
                     dir[0] = 'S';
                     dir[11] = 0x10;
                     ASSERT_LT(static_cast<size_t>(2 + 4 * files), f.slots.size());
                     img.putRecord(f.slots[2 + 4 * files], dir);
                   }});

  for (const GroupCase& c : cases) {
    SCOPED_TRACE(c.what);
    ASSERT_TRUE(card.copyFrom(pristine));
    FatImage img(card);
    c.change(img, folderOf(img));
    Loaded l = loadCard(card);
    ASSERT_EQ(l.error, 0) << l.log;
    EXPECT_EQ(l.log.find("try to create it now"), std::string::npos) << l.log;
    auto folder = l.volume->findEntry("/REC");
    ASSERT_NE(folder, nullptr);
    ASSERT_EQ(folder->velt_reserved_files_.size(), static_cast<size_t>(files));
    std::set<std::string> names;
    for (const auto& child : folder->children_) names.insert(child->name_);
    std::set<std::string> expected = {".", ".."};
    for (int g = 0; g < 2; ++g)
      if (g != c.group) expected.insert(recordings[g]);
    if (!c.name.empty()) expected.insert(c.name);
    EXPECT_EQ(names, expected) << l.log;
    const auto& table = folder->velt_reserved_files_;
    for (int g = 0; g < files; ++g) {
      EXPECT_EQ(table[g].used_, g == c.group ? !c.name.empty() : g < 2) << g;
      EXPECT_EQ(table[g].dir_ent_disk_off, folderOf(img).sfn(g)) << g;
      EXPECT_EQ(img.chain(table[g].start_cluster).size(), kFileBytes / img.clusterBytes()) << g;
    }
    EXPECT_EQ(folder->velt_folder_->used,
              std::count_if(table.begin(), table.end(), [](auto& rf) { return rf.used_; }));
    l.volume.reset();

    Loaded again = loadCard(card);
    ASSERT_EQ(again.error, 0) << again.log;
    EXPECT_EQ(repairLines(again.log), "") << "the second load repaired again";
    EXPECT_TRUE(fsckShowsOnlyReservedFiles(card, expectedReservedReport(*again.volume, card)));
    again.volume.reset();
    for (int g = 0; g < 2; ++g)
      EXPECT_TRUE(g == c.group || card.type("/REC/" + recordings[g]) == bytes[recordings[g]]) << g;
  }
}

// The lowest free file, else the oldest idle one (equal times: the lower index), never an open
// one; none of it allocates a cluster. On a 1100 MiB card, REC holds four 64 MiB files.
TEST(ReservedFolder, TakeoverChoosesTheLowestFreeThenTheOldestIdleFile) {
  CardSpec spec;
  spec.size_mb = 1100;
  spec.format = false;
  CardImage card(spec);
  ASSERT_TRUE(card.ok()) << card.error();
  CardImage::RootScope scope(card);
  ASSERT_EQ(formatCard(card, formatInfo({{"REC", 25, 64}})), 0);
  Loaded l = loadCard(card);
  ASSERT_NE(l.volume, nullptr) << l.error;
  VELT& v = *l.volume;
  auto folder = v.findEntry("/REC");
  ASSERT_NE(folder, nullptr);
  auto& table = folder->velt_reserved_files_;
  ASSERT_EQ(table.size(), 4u);
  auto create = [&](const std::string& name, int* error = nullptr) {
    return folder->createChild(name.c_str(), false, false, nullptr, error);
  };
  auto slotOf = [&](const auto& e) { return folder->getVELTFileIndex(e->dir_ent_disk_off_); };
  auto onCard = [&](int64_t offset, size_t size) {
    v.flush();
    return card.readBytes(offset, size);
  };
  auto usedOnCard = [&] {  // the folder's count as the format information on the card holds it
    v.flush();
    return FatImage(card).descriptorValue(0, kUsed);
  };
  const PBR& pbr = *v.pbr_;
  const int64_t fat_at = pbr.sectorOffset(pbr.reserved_sectors_);
  const size_t fat_bytes = static_cast<size_t>(pbr.fat_sectors_) * pbr.num_fats_ * 512;
  const std::string fat_before = onCard(fat_at, fat_bytes);

  int error = 0;
  std::vector<std::shared_ptr<VELT::DirEntry>> files;
  for (const char* name : {"a.avi", "b.avi", "c.avi"}) {
    files.push_back(create(name));
    ASSERT_NE(files.back(), nullptr) << name;
    EXPECT_EQ(slotOf(files.back()), static_cast<int>(files.size()) - 1) << name;
    EXPECT_EQ(files.back()->start_cluster_, table[files.size() - 1].start_cluster) << name;
  }
  EXPECT_EQ(usedOnCard(), 3u);  // on the card before any record is
  // Data goes into the reserved file's own clusters; the filler slots of a published group stay
  // taken in the slot map.
  const std::string data = patternBytes(3 * pbr.cluster_length_ + 1000, 3);
  auto writer = v.newFile(false, true, false, files[0]);
  ASSERT_NE(writer, nullptr);
  ASSERT_EQ(writer->write(data.data(), data.size(), 0), static_cast<int>(data.size()));
  writer->close();
  ASSERT_EQ(files[0]->secure2(), 0);
  for (int k = 0; k < 2; ++k) {
    EXPECT_EQ(folder->entry_map_[files[0]->lfs_entry_start_index_ + k], 0x41) << k;
  }

  // A deletion gives the file back with its chain; the lowest free file is taken next.
  ASSERT_EQ(folder->delChild(files[1]), 0);
  EXPECT_FALSE(table[1].used_);
  EXPECT_EQ(usedOnCard(), 2u);
  files[1] = create(std::string(35, 'n') + ".avi");  // 39 units: three records
  ASSERT_NE(files[1], nullptr);
  EXPECT_EQ(slotOf(files[1]), 1);
  files.push_back(create("d.avi"));
  ASSERT_NE(files.back(), nullptr);
  EXPECT_EQ(usedOnCard(), 4u);

  // Full. Files 2 and 3 are the oldest, taken in the same second.
  const uint32_t times[4] = {300, 100, 100, 200};
  for (int i = 0; i < 4; ++i) table[i].taken_time = times[i];
  auto e = create("e.avi");
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(slotOf(e), 1);
  EXPECT_EQ(table[1].taken_time, static_cast<uint32_t>(e->created_));
  // A path resolved before the recycling opens nothing, and its deletion gives nothing back.
  EXPECT_EQ(v.newFile(false, false, false, files[1]), nullptr);
  EXPECT_EQ(folder->delChild(files[1]), -ENOENT);
  EXPECT_TRUE(table[1].used_);
  std::vector<std::shared_ptr<VELT::File>> open{v.newFile(false, false, false, files[2])};
  ASSERT_NE(open[0], nullptr);
  auto f = create("f.avi");  // the oldest (file 3) is open: file 4 goes
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(slotOf(f), 3);
  EXPECT_NE(folder->findChild("c.avi"), nullptr);
  EXPECT_EQ(folder->findChild("d.avi"), nullptr);
  for (const auto& entry : {files[0], e, f}) open.push_back(v.newFile(false, false, false, entry));
  testing::internal::CaptureStdout();
  EXPECT_EQ(create("g.avi", &error), nullptr);
  const std::string log = testing::internal::GetCapturedStdout();
  EXPECT_EQ(error, -ENOSPC);
  EXPECT_NE(log.find("cannot create the reserved file: no freed reserved files!!!\n"),
            std::string::npos)
      << log;
  for (const auto& file : open) file->close();

  EXPECT_EQ(onCard(fat_at, fat_bytes), fat_before) << "reserved files allocate nothing";
  EXPECT_EQ(onCard(v.clusterOffset(table[0].start_cluster), data.size()), data);
  EXPECT_TRUE(fsckShowsOnlyReservedFiles(card, expectedReservedReport(v, card)));
}

}  // namespace
}  // namespace velt::test
