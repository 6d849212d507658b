// Which reserved file a creation in a reserved folder takes over, and what deletion gives back.
// Publication, bytes, names as other readers see them and what the folder refuses are the random
// model tests' (tests/e2e/reserved_test.cpp) and the power-cut sweeps'.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "card_volume.h"
#include "fat_records.h"
#include "fs/velt_file.h"
#include "velt_fsck.h"

namespace velt::test {
namespace {

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
    return FatImage(card).descriptorValue(0, 24);
  };
  const PBR& pbr = *v.pbr_;
  const int64_t fat_at = pbr.sectorOffset(pbr.reserved_sectors_);
  const size_t fat_bytes = static_cast<size_t>(pbr.fat_sectors_) * pbr.num_fats_ * 512;
  const std::string fat_before = onCard(fat_at, fat_bytes);

  int error = 0;
  EXPECT_EQ(create(std::string(36, 'n') + ".avi", &error), nullptr);  // four records
  EXPECT_EQ(error, -ENAMETOOLONG);
  std::vector<std::shared_ptr<VELT::DirEntry>> files;
  for (const char* name : {"a.avi", "b.avi", "c.avi"}) {
    files.push_back(create(name));
    ASSERT_NE(files.back(), nullptr) << name;
    EXPECT_EQ(slotOf(files.back()), static_cast<int>(files.size()) - 1) << name;
    EXPECT_EQ(files.back()->start_cluster_, table[files.size() - 1].start_cluster) << name;
  }
  // Hidden until published: deleted to other readers, hidden and archive to this one.
  const std::string r = onCard(files[0]->dir_ent_disk_off_, DIR_RECORD_SIZE);
  EXPECT_EQ(static_cast<uint8_t>(r[0]), DIR_ENTRY_DELETED);
  EXPECT_EQ(static_cast<uint8_t>(r[11]), 0x22);
  EXPECT_EQ(usedOnCard(), 3u);
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
  // Loaded again: only the published file is in use; the others existed only in memory.
  folder.reset();
  l.volume.reset();
  l = loadCard(card);
  ASSERT_NE(l.volume, nullptr) << l.error;
  folder = l.volume->findEntry("/REC");
  ASSERT_NE(folder, nullptr);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(folder->velt_reserved_files_[i].used_, i == 0) << i;
  EXPECT_EQ(folder->velt_folder_->used, 1);
}

}  // namespace
}  // namespace velt::test
