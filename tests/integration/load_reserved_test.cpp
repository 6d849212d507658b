// Reserved folders checked at load time. A VELT card with one reserved folder (two files taken
// over and published, the rest free) is loaded and its reserved-file table compared with the
// records on the card; then every fatal irregularity is made by editing the card: the folder is
// dropped at load, its record deleted, and the folder made anew with fresh reserved files, while
// exclusive mode refuses the card and writes nothing.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "card_volume.h"
#include "fat_records.h"
#include "fs/velt.h"
#include "fs/velt_dirent.h"
#include "velt_fsck.h"

using velt::VELT;
using velt::test::CardImage;
using velt::test::CardSpec;
using velt::test::FatImage;
using velt::test::Loaded;

namespace {

// Descriptor fields (offsets inside a descriptor of the format information).
constexpr int kCount = 20, kUsed = 24, kStart = 28;
constexpr uint32_t kFileBytes = 1u << 20;

CardSpec spec() {
  CardSpec s;
  s.size_mb = 64;
  s.sectors_per_cluster = 1;  // enough clusters for mtools to take it for FAT32
  return s;
}

// Formats the card with folder REC (10 % in 1 MiB files), then takes over two reserved files
// and publishes them: "clip number one of the day.avi" (three long-name records) and "c.avi" (one
// record behind two fillers).
void makeVeltCard(const CardImage& card) {
  ASSERT_EQ(velt::test::formatCard(card, velt::test::formatInfo({{"REC", 10, 1}})), 0);
  Loaded l = velt::test::loadCard(card);
  ASSERT_EQ(l.error, 0) << l.log;
  auto folder = l.volume->findEntry("/REC");
  ASSERT_NE(folder, nullptr);
  for (const char* name : {"clip number one of the day.avi", "c.avi"}) {
    auto e = l.volume->newEntry(folder, name, false);
    ASSERT_NE(e, nullptr) << name;
    ASSERT_EQ(e->secure2(), 0) << name;
  }
}

// The folder's records on the card: slot i of group g is slots[2 + 4 g + i].
struct Folder {
  FatImage::Entry record;  // the folder's own entry in the root
  std::vector<int64_t> slots;
  int64_t slot(int group, int i) const { return slots[2 + 4 * group + i]; }
  int64_t sfn(int group) const { return slot(group, 3); }
};

Folder folderOf(const FatImage& img) {
  Folder f;
  f.record = *img.find(img.rootCluster(), "REC");
  f.slots = img.records(f.record.cluster);
  return f;
}

// A short-name record taken from a group, made visible again (a used file).
std::string visibleSfn(const FatImage& img, const Folder& f, int group) {
  std::string r = img.record(f.sfn(group));
  r[0] = 'V';
  return r;
}

struct FatalCase {
  const char* what;
  const char* message;
  int descriptor_count;  // what the descriptor says after the damage; 0: unchanged
  std::function<void(const FatImage&, const Folder&, int files)> damage;
};

const std::vector<FatalCase>& fatalCases() {
  using Img = const FatImage&;
  using F = const Folder&;
  static const std::vector<FatalCase> cases = {
      {"descriptor counts one file more", "Reserved folder's file count is not correct", 1,
       [](Img img, F, int files) { img.setDescriptorField(0, kCount, files + 1); }},
      {"descriptor counts one file less", "Reserved folder has too much reserved files", -1,
       [](Img img, F, int files) { img.setDescriptorField(0, kCount, files - 1); }},
      {"used file with two long-name records",
       "Reserved folder's has wrong LFN entry count, 2 (3 required)", 0,
       [](Img img, F f, int files) {
         std::string sfn = visibleSfn(img, f, files - 1);
         auto lfn = velt::test::lfnRecords("two records name.avi",
                                           velt::test::nameChecksum(sfn.substr(0, 11)));
         img.putRecord(f.slot(files - 1, 0), lfn[0]);
         img.putRecord(f.slot(files - 1, 1), lfn[1]);
         img.putRecord(f.slot(files - 1, 2), sfn);
         img.putRecord(f.slot(files - 1, 3), std::string(32, '\0'));
       }},
      {"free file with two long-name records",
       "Reserved folder has the deleted invalid file entry: lfn#2 != 3", 0,
       [](Img img, F f, int files) {
         std::string sfn = img.record(f.sfn(files - 1));
         img.putRecord(f.slot(files - 1, 0), img.record(f.slot(files - 1, 1)));
         img.putByte(f.slot(files - 1, 0), 0x42);
         img.putRecord(f.slot(files - 1, 1), img.record(f.slot(files - 1, 2)));
         img.putRecord(f.slot(files - 1, 2), sfn);
         img.putRecord(f.slot(files - 1, 3), std::string(32, '\0'));
       }},
      {"free file whose long-name records were deleted", "REC] has the deleted dirctory entry", 0,
       [](Img img, F f, int) { img.putByte(f.slot(2, 0), 0xE5); }},
      {"folder inside the folder", "Reserved folder has a directory entry. FATAL error", 0,
       [](Img img, F f, int) { img.putByte(f.sfn(0) + 11, 0x10); }},
      {"file without long name", "Reserved folder's file entry has no LFN entries", 0,
       [](Img img, F f, int files) {
         std::string sfn = visibleSfn(img, f, files - 1);
         img.putRecord(f.slot(files - 1, 0), sfn);
         for (int i = 1; i < 4; ++i) img.putRecord(f.slot(files - 1, i), std::string(32, '\0'));
       }},
      {"empty record after long-name records", "has FATAL error @ 1", 0,
       [](Img img, F f, int files) { img.putRecord(f.sfn(files - 1), std::string(32, '\0')); }},
      {"start record with order 21", "has FATAL error @ 2", 0,
       [](Img img, F f, int) { img.putByte(f.slot(0, 0), 0x40 | 21); }},
      {"continuation without a start record", "has FATAL error @ 3", 0,
       [](Img img, F f, int) { img.putByte(f.slot(0, 0), 0x03); }},
      {"continuation with another checksum", "has FATAL error @ 4", 0,
       [](Img img, F f, int) {
         img.putByte(f.slot(0, 1) + 13, img.byteAt(f.slot(0, 1) + 13) ^ 1);
       }},
      {"long-name record with a first cluster", "has FATAL error @ 5", 0,
       [](Img img, F f, int) { img.putByte(f.slot(0, 2) + 26, 1); }},
      {"sequence that stops before order 1", "has FATAL error @ 6", 0,
       [](Img img, F f, int files) {
         std::string sfn = visibleSfn(img, f, files - 1);
         img.putRecord(f.slot(files - 1, 2), sfn);
         img.putRecord(f.slot(files - 1, 3), std::string(32, '\0'));
       }},
      {"comma in a short name", "has FATAL error @ 7", 0,
       [](Img img, F f, int) { img.putByte(f.sfn(0) + 3, ','); }},
      {"forbidden character in a long name", "has FATAL error @ 8", 0,
       [](Img img, F f, int) { img.putByte(f.slot(0, 0) + 1, '*'); }},
      {"long-name checksum of another short name", "has FATAL error @ 9", 0,
       [](Img img, F f, int) {
         for (int i = 0; i < 3; ++i)
           img.putByte(f.slot(0, i) + 13, img.byteAt(f.slot(0, i) + 13) ^ 0x11);
       }},
      {"used file whose size exceeds its chain", "has FATAL error @ 10", 0,
       [](Img img, F f, int) {
         std::string r = img.record(f.sfn(0));
         velt::test::putLe(&r, 28, 0x7FFFFF00, 4);
         img.putRecord(f.sfn(0), r);
       }},
      {"used file with a chain shorter than a reserved file",
       "REC/clip number one of the day.avi] has bad cluster chains", 0,
       [](Img img, F f, int) {
         std::string r = img.record(f.sfn(0));
         uint32_t first = (velt::test::getLe(r, 20, 2) << 16) | velt::test::getLe(r, 26, 2);
         velt::test::putLe(&r, 28, 0, 4);
         img.putRecord(f.sfn(0), r);
         img.setFat(first, 0x0FFFFFF8);
       }},
      {"free file without clusters", "Reserved file cluster chains broken, start cluster 0", 0,
       [](Img img, F f, int) {
         std::string r = img.record(f.sfn(2));
         velt::test::putLe(&r, 20, 0, 2);
         velt::test::putLe(&r, 26, 0, 2);
         img.putRecord(f.sfn(2), r);
       }},
      {"four long-name start records",
       "LFN extended for reserved file failed, lfn_order 1, new lfn# 4", 0,
       [](Img img, F f, int files) {
         std::string filler(32, '\xFF');
         filler[0] = 0x41;
         filler[11] = 0x0F;
         filler[12] = 0;
         filler[13] = 0;
         filler[26] = filler[27] = 0;
         std::string sfn = img.record(f.sfn(files - 1));
         for (int i = 0; i < 4; ++i) img.putRecord(f.slot(files - 1, i), filler);
         img.putRecord(f.slot(files - 1, 3) + 32, sfn);
       }},
  };
  return cases;
}

class ReservedLoad : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(pristine_.ok()) << pristine_.error();
    ASSERT_NO_FATAL_FAILURE(makeVeltCard(pristine_));
    FatImage img(pristine_);
    files_ = static_cast<int>(img.descriptorValue(0, kCount));
    ASSERT_GE(files_, 4);
  }
  // A copy of the pristine card.
  std::unique_ptr<CardImage> copy() {
    auto card = std::make_unique<CardImage>(spec());
    EXPECT_TRUE(card->ok() && card->copyFrom(pristine_));
    return card;
  }

  CardImage pristine_{spec()};
  int files_ = 0;
};

}  // namespace

TEST_F(ReservedLoad, TableIsRebuiltFromTheRecords) {
  FatImage img(pristine_);
  Folder f = folderOf(img);
  Loaded l = velt::test::loadCard(pristine_);
  ASSERT_EQ(l.error, 0) << l.log;
  EXPECT_EQ(l.log.find("FATAL"), std::string::npos) << l.log;
  auto folder = l.volume->findEntry("/REC");
  ASSERT_NE(folder, nullptr);
  ASSERT_NE(folder->velt_folder_, nullptr);
  EXPECT_EQ(folder->velt_folder_->used, 2);
  EXPECT_EQ(folder->velt_folder_->start_cluster, f.record.cluster);
  std::set<std::string> names;
  for (const auto& c : folder->children_) names.insert(c->name_);
  EXPECT_EQ(names, (std::set<std::string>{".", "..", "clip number one of the day.avi", "c.avi"}));

  ASSERT_EQ(folder->velt_reserved_files_.size(), static_cast<size_t>(files_));
  for (int g = 0; g < files_; ++g) {
    SCOPED_TRACE("reserved file " + std::to_string(g));
    const velt::ReservedFile& rf = folder->velt_reserved_files_[g];
    EXPECT_EQ(rf.used_, g < 2);
    EXPECT_EQ(rf.dir_ent_disk_off, f.sfn(g));
    EXPECT_EQ(rf.entry_index_, 2 + 4 * g + 3);
    EXPECT_EQ(rf.lfn_count, 3);
    // Slot 0 sits next to the short-name record: for "c.avi" that is its own record, and
    // slots 1 and 2 are the two fillers in front of it.
    for (int k = 0; k < 3; ++k) EXPECT_EQ(rf.lfn_disk_offsets[k], f.slot(g, 2 - k));
    EXPECT_EQ(rf.size, kFileBytes);
    std::string r = img.record(f.sfn(g));
    EXPECT_EQ(rf.start_cluster, (velt::test::getLe(r, 20, 2) << 16) | velt::test::getLe(r, 26, 2));
    EXPECT_TRUE(l.volume->pbr_->isClusterUsed(rf.start_cluster));
    EXPECT_EQ(img.chain(rf.start_cluster).size(), kFileBytes / img.clusterBytes());
  }
  auto c = l.volume->findEntry("/REC/c.avi");
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(c->lfn_ent_count_, 3);
  l.volume.reset();
  EXPECT_TRUE(velt::test::fsckShowsOnlyReservedFiles(pristine_));
}

TEST_F(ReservedLoad, SavedCountsAreReconciledAndAMovedFolderIsKept) {
  auto card = copy();
  FatImage img(*card);
  Folder f = folderOf(img);
  img.setDescriptorField(0, kUsed, 5);
  img.setDescriptorField(0, kStart, f.record.cluster + 7);
  Loaded l = velt::test::loadCard(*card);
  ASSERT_EQ(l.error, 0) << l.log;
  EXPECT_NE(l.log.find("used count mismatched. saved#5, detected#2"), std::string::npos) << l.log;
  EXPECT_NE(l.log.find("moved? cluster mismatach"), std::string::npos) << l.log;
  EXPECT_EQ(l.log.find("try to create it now"), std::string::npos) << l.log;
  auto folder = l.volume->findEntry("/REC");
  ASSERT_NE(folder, nullptr);
  EXPECT_EQ(folder->velt_folder_->used, 2);
  EXPECT_EQ(folder->velt_reserved_files_.size(), static_cast<size_t>(files_));
  l.volume.reset();
  // The reconciled count reached the card.
  EXPECT_EQ(img.descriptorValue(0, kUsed), 2u);
  EXPECT_EQ(img.byteAt(f.record.sfn), 'R');
}

TEST_F(ReservedLoad, FatalDamageDropsTheFolderAndMakesItAnew) {
  for (const FatalCase& c : fatalCases()) {
    SCOPED_TRACE(c.what);
    const int count = files_ + c.descriptor_count;

    // Exclusive mode: refused, nothing written.
    {
      auto card = copy();
      FatImage img(*card);
      c.damage(img, folderOf(img), files_);
      std::string before = card->contents();
      Loaded x = velt::test::loadCard(*card, velt::kVELTOpExclusive);
      EXPECT_EQ(x.error, velt::kVELTNeedFormat) << x.log;
      EXPECT_NE(x.log.find(c.message), std::string::npos) << x.log;
      x.volume.reset();
      EXPECT_TRUE(card->contents() == before) << "exclusive mode wrote to the card";
    }

    // Mount mode: the folder is dropped, then made again from its descriptor.
    auto card = copy();
    FatImage img(*card);
    Folder old = folderOf(img);
    c.damage(img, old, files_);
    Loaded l = velt::test::loadCard(*card);
    ASSERT_EQ(l.error, 0) << l.log;
    EXPECT_NE(l.log.find(c.message), std::string::npos) << l.log;
    EXPECT_NE(l.log.find("REC] failed, mark deleted one"), std::string::npos) << l.log;
    EXPECT_NE(l.log.find("VELT reserved folder \"/REC\" not found, try to create it now"),
              std::string::npos)
        << l.log;
    auto folder = l.volume->findEntry("/REC");
    ASSERT_NE(folder, nullptr);
    ASSERT_NE(folder->velt_folder_, nullptr);
    EXPECT_EQ(folder->children_.size(), 2u) << "only . and ..";
    EXPECT_EQ(folder->velt_reserved_files_.size(), static_cast<size_t>(count));
    for (const auto& rf : folder->velt_reserved_files_) EXPECT_FALSE(rf.used_);
    EXPECT_EQ(folder->velt_folder_->used, 0);
    EXPECT_EQ(folder->velt_folder_->start_cluster, folder->start_cluster_);
    l.volume.reset();
    EXPECT_EQ(img.byteAt(old.record.sfn), 0xE5) << "the damaged folder's record";
    EXPECT_EQ(img.descriptorValue(0, kStart), folderOf(img).record.cluster);

    // The new folder passes the checks, and fsck.fat sees nothing but reserved files.
    Loaded again = velt::test::loadCard(*card);
    ASSERT_EQ(again.error, 0) << again.log;
    EXPECT_EQ(again.log.find("FATAL"), std::string::npos) << again.log;
    EXPECT_EQ(again.log.find("modified, flush now"), std::string::npos) << again.log;
    again.volume.reset();
    EXPECT_TRUE(velt::test::fsckShowsOnlyReservedFiles(*card));
  }
}

TEST_F(ReservedLoad, MissingFolderIsMadeAgainExceptInExclusiveMode) {
  auto card = copy();
  FatImage img(*card);
  Folder old = folderOf(img);
  // Another FAT tool removes the folder: it sees the two published files and nothing else, so
  // the free reserved files' chains stay behind, reached by nothing.
  auto r = card->mtools("mdeltree ::/REC");
  ASSERT_EQ(r.status, 0) << r.err;
  const uint32_t lost = (velt::test::getLe(img.record(old.sfn(files_ - 1)), 20, 2) << 16) |
                        velt::test::getLe(img.record(old.sfn(files_ - 1)), 26, 2);
  ASSERT_NE(img.fat(lost), 0u);

  std::string before = card->contents();
  Loaded x = velt::test::loadCard(*card, velt::kVELTOpExclusive);
  EXPECT_EQ(x.error, velt::kVELTNeedFormat) << x.log;
  EXPECT_NE(x.log.find("VELT reserved folder \"/REC\" not found\n"), std::string::npos) << x.log;
  EXPECT_EQ(x.log.find("try to create it now"), std::string::npos) << x.log;
  EXPECT_TRUE(card->contents() == before) << "exclusive mode wrote to the card";

  Loaded l = velt::test::loadCard(*card);
  ASSERT_EQ(l.error, 0) << l.log;
  EXPECT_NE(l.log.find("VELT reserved folder \"/REC\" not found\n"), std::string::npos);
  EXPECT_NE(l.log.find("VELT reserved folder \"/REC\" not found, try to create it now..."),
            std::string::npos);
  EXPECT_NE(l.log.find("       REC   10%     1 MB #" + std::to_string(files_)), std::string::npos)
      << l.log;
  auto folder = l.volume->findEntry("/REC");
  ASSERT_NE(folder, nullptr);
  EXPECT_EQ(folder->velt_reserved_files_.size(), static_cast<size_t>(files_));
  l.volume.reset();
  EXPECT_EQ(img.descriptorValue(0, kUsed), 0u);
  EXPECT_TRUE(velt::test::fsckShowsOnlyReservedFiles(*card));
}
