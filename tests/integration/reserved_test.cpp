// Files of a reserved folder through the library: which reserved file a creation takes over,
// what deletion gives back, and what users and clients once did to the folder.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "card_volume.h"
#include "fs/velt.h"
#include "fs/velt_dirent.h"
#include "fs/velt_endian.h"
#include "fs/velt_file.h"
#include "fs/velt_fuse.h"
#include "fs/velt_pipe.h"
#include "velt_fsck.h"

namespace velt::test {
namespace {

constexpr uint32_t kFileBytes = 64u << 20;

// A 1100 MiB card formatted with one reserved folder REC of four 64 MiB files (25% of the
// space), loaded for use.
class ReservedTest : public ::testing::Test {
 protected:
  void SetUp() override {
    CardSpec spec;
    spec.size_mb = 1100;
    spec.format = false;
    card_ = std::make_unique<CardImage>(spec);
    ASSERT_TRUE(card_->ok()) << card_->error();
    scope_ = std::make_unique<CardImage::RootScope>(*card_);
    ASSERT_EQ(formatCard(*card_, formatInfo({{"REC", 25, kFileBytes >> 20}})), 0);
    load();
  }

  void load() {
    folder_.reset();
    volume_.reset();
    Loaded l = loadCard(*card_);
    volume_ = std::move(l.volume);
    ASSERT_NE(volume_, nullptr) << l.error;
    folder_ = volume_->findEntry("/REC");
    ASSERT_NE(folder_, nullptr);
    ASSERT_NE(folder_->velt_folder_, nullptr);
    ASSERT_EQ(folder_->velt_reserved_files_.size(), 4u);
  }

  std::shared_ptr<VELT::DirEntry> create(const char* name, int* error = nullptr,
                                         std::string* log = nullptr) {
    if (log != nullptr) testing::internal::CaptureStdout();
    auto entry = folder_->createChild(name, false, false, nullptr, error);
    if (log != nullptr) *log = testing::internal::GetCapturedStdout();
    return entry;
  }

  // Index of the reserved file an entry took over, -1 when none.
  int slotOf(const std::shared_ptr<VELT::DirEntry>& entry) {
    return folder_->getVELTFileIndex(entry->dir_ent_disk_off_);
  }

  // The folder's used count as FSInfo holds it on the card.
  int32_t usedOnCard() {
    volume_->flush();
    std::string fsinfo = card_->readBytes(card_->partitionOffset() + 512, 512);
    FormatInfo info;
    info.decode(reinterpret_cast<const uint8_t*>(fsinfo.data()) + 4);
    return info.folders[0].used;
  }

  std::string record(int64_t offset) {
    volume_->flush();
    return card_->readBytes(offset, DIR_RECORD_SIZE);
  }

  std::string fatCopies() {
    volume_->flush();
    PBR* pbr = volume_->pbr_;
    return card_->readBytes(pbr->sectorOffset(pbr->reserved_sectors_),
                            static_cast<size_t>(pbr->fat_sectors_) * pbr->num_fats_ * 512);
  }

  ::testing::AssertionResult fsckHolds() {
    return fsckShowsOnlyReservedFiles(*card_, expectedReservedReport(*volume_, *card_));
  }

  void TearDown() override {
    folder_.reset();
    volume_.reset();
    scope_.reset();
  }

  std::unique_ptr<CardImage> card_;
  std::unique_ptr<CardImage::RootScope> scope_;
  std::shared_ptr<VELT> volume_;
  std::shared_ptr<VELT::DirEntry> folder_;
};

// Which reserved file a creation takes: the lowest free one, else the oldest idle one (equal
// times: the lower index), never an open one; none of it allocates a cluster. Publication,
// bytes and names as other readers see them are the model test's (tests/e2e/reserved_test.cpp).
TEST_F(ReservedTest, TakeoverChoosesTheLowestFreeThenTheOldestIdleFile) {
  auto& table = folder_->velt_reserved_files_;
  const std::string fat_before = fatCopies();
  int error = 0;
  EXPECT_EQ(create((std::string(36, 'n') + ".avi").c_str(), &error), nullptr);  // four records
  EXPECT_EQ(error, -ENAMETOOLONG);
  std::vector<std::shared_ptr<VELT::DirEntry>> files;
  for (const char* name : {"a.avi", "b.avi", "c.avi"}) {
    files.push_back(create(name));
    ASSERT_NE(files.back(), nullptr) << name;
    EXPECT_EQ(slotOf(files.back()), static_cast<int>(files.size()) - 1) << name;
    EXPECT_EQ(files.back()->start_cluster_, table[files.size() - 1].start_cluster) << name;
  }
  // Hidden until published: deleted to other readers, hidden and archive to this one.
  const std::string r = record(files[0]->dir_ent_disk_off_);
  EXPECT_EQ(static_cast<uint8_t>(r[0]), DIR_ENTRY_DELETED);
  EXPECT_EQ(static_cast<uint8_t>(r[11]), 0x22);
  EXPECT_EQ(usedOnCard(), 3);
  // Data goes into the reserved file's own clusters.
  const std::string data = patternBytes(3 * volume_->pbr_->cluster_length_ + 1000, 3);
  auto writer = volume_->newFile(false, true, false, files[0]);
  ASSERT_NE(writer, nullptr);
  ASSERT_EQ(writer->write(data.data(), data.size(), 0), static_cast<int>(data.size()));
  writer->close();
  // The filler slots of a published group stay taken in the slot map.
  ASSERT_EQ(files[0]->secure2(), 0);
  for (int k = 0; k < 2; ++k) {
    EXPECT_EQ(folder_->entry_map_[files[0]->lfs_entry_start_index_ + k], 0x41) << k;
  }

  // A deletion gives the file back with its chain; the lowest free file is taken next.
  ASSERT_EQ(folder_->delChild(files[1]), 0);
  EXPECT_FALSE(table[1].used_);
  EXPECT_EQ(usedOnCard(), 2);
  files[1] = create((std::string(35, 'n') + ".avi").c_str());  // 39 units: three records
  ASSERT_NE(files[1], nullptr);
  EXPECT_EQ(slotOf(files[1]), 1);
  files.push_back(create("d.avi"));
  ASSERT_NE(files.back(), nullptr);
  EXPECT_EQ(usedOnCard(), 4);

  // Full. Files 2 and 3 are the oldest, taken in the same second.
  const uint32_t times[4] = {300, 100, 100, 200};
  for (int i = 0; i < 4; ++i) table[i].taken_time = times[i];
  auto e = create("e.avi");
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(slotOf(e), 1);
  EXPECT_EQ(table[1].taken_time, static_cast<uint32_t>(e->created_));
  // A path resolved before the recycling opens nothing, and its deletion gives nothing back.
  EXPECT_EQ(volume_->newFile(false, false, false, files[1]), nullptr);
  EXPECT_EQ(folder_->delChild(files[1]), -ENOENT);
  EXPECT_TRUE(table[1].used_);
  std::vector<std::shared_ptr<VELT::File>> open{volume_->newFile(false, false, false, files[2])};
  ASSERT_NE(open[0], nullptr);
  auto f = create("f.avi");  // the oldest (file 3) is open: file 4 goes
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(slotOf(f), 3);
  EXPECT_TRUE(folder_->findChild("c.avi") != nullptr);
  EXPECT_TRUE(folder_->findChild("d.avi") == nullptr);
  for (const auto& entry : {files[0], e, f}) {
    open.push_back(volume_->newFile(false, false, false, entry));
  }
  std::string log;
  EXPECT_EQ(create("g.avi", &error, &log), nullptr);
  EXPECT_EQ(error, -ENOSPC);
  EXPECT_NE(log.find("cannot create the reserved file: no freed reserved files!!!\n"),
            std::string::npos)
      << log;
  for (const auto& file : open) file->close();

  EXPECT_EQ(fatCopies(), fat_before) << "reserved files allocate nothing";
  volume_->flush();
  EXPECT_EQ(card_->readBytes(volume_->clusterOffset(table[0].start_cluster), data.size()), data);
  EXPECT_TRUE(fsckHolds());
  // Loaded again: only the published file is in use; the others existed only in memory.
  load();
  for (int i = 0; i < 4; ++i) EXPECT_EQ(folder_->velt_reserved_files_[i].used_, i == 0) << i;
  EXPECT_EQ(folder_->velt_folder_->used, 1);
}

// What users and clients once did to a reserved folder, each as a row: every row must leave a
// card that the next load takes as it is, with every recording published before it.
TEST_F(ReservedTest, NothingUsersDoBreaksTheFolder) {
  VELTFuse::setVolume(volume_);
  // A recording that must survive everything; kept open so that no recycling takes it.
  auto keep = create("keep.avi");
  ASSERT_NE(keep, nullptr);
  const std::string data = patternBytes(5000, 7);
  auto keeper = volume_->newFile(false, true, false, keep);
  ASSERT_NE(keeper, nullptr);
  ASSERT_EQ(keeper->write(data.data(), data.size(), 0), static_cast<int>(data.size()));
  ASSERT_EQ(keep->secure2(), 0);

  struct Row {
    const char* what;
    std::function<void()> run;
  };
  const std::vector<Row> rows = {
      {"a folder made in the reserved folder",
       [&] {
         EXPECT_EQ(VELTFuse::__mkdir("/REC/sub", 0755), -EPERM);
         EXPECT_EQ(VELTFuse::__rmdir("/REC/sub"), -ESTALE);  // a name the kernel would not hold
         EXPECT_EQ(folder_->createChild("sub2", false, true, nullptr), nullptr);
       }},
      {"touch on a file taken over and not published",
       [&] {
         auto t = create("t.avi");
         ASSERT_NE(t, nullptr);
         const struct timespec times[2] = {{1000000000, 0}, {1000000000, 0}};
         EXPECT_EQ(VELTFuse::__utimens("/REC/t.avi", times, nullptr), 0);
         EXPECT_EQ(t->modified_, 1000000000);
         const std::string r = record(t->dir_ent_disk_off_);
         EXPECT_EQ(static_cast<uint8_t>(r[0]), DIR_ENTRY_DELETED) << "still hidden on the card";
         EXPECT_EQ(static_cast<uint8_t>(r[11]), 0x22);
         EXPECT_EQ(folder_->delChild(t), 0);
       }},
      {"a channel write that drops the last FAT-lock count",
       [&] {
         keeper->close();  // the last mount writer: nobody else holds a FAT-lock count
         const std::string path = "/plain.bin";
         auto* create_request =
             new VELTWorkItem(1, kDirectOpCreate, 0, 0, static_cast<uint32_t>(path.size() + 1));
         memcpy(create_request->data_, path.c_str(), path.size() + 1);
         std::unique_ptr<VELTWorkItem> created(volume_->executeDirectRequest(create_request));
         ASSERT_NE(created, nullptr);
         const int fd = created->param_;
         ASSERT_GE(fd, 3);
         const std::string bytes = patternBytes(3 * volume_->pbr_->cluster_length_, 9);
         auto* write_request = new VELTWorkItem(fd, kDirectOpWrite, 0, 0,
                                                static_cast<uint32_t>(bytes.size()));
         memcpy(write_request->data_, bytes.data(), bytes.size());
         std::unique_ptr<VELTWorkItem> written(volume_->executeDirectRequest(write_request));
         EXPECT_EQ(written, nullptr) << "a write is answered only when it fails";
         volume_->flush();
         const std::string fsinfo = card_->readBytes(
             volume_->pbr_->sectorOffset(volume_->pbr_->fsinfo_sector_) + 488, 4);
         EXPECT_EQ(le32(reinterpret_cast<const uint8_t*>(fsinfo.data())),
                   volume_->pbr_->free_cluster_count_)
             << "the free count on the card follows the channel's allocations";
         std::unique_ptr<VELTWorkItem> closed(
             volume_->executeDirectRequest(new VELTWorkItem(fd, kDirectOpClose, 0, 0, 0)));
       }},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    row.run();
    EXPECT_TRUE(fsckHolds());
  }
  VELTFuse::setVolume(nullptr);

  folder_.reset();
  volume_.reset();
  Loaded l = loadCard(*card_);
  ASSERT_EQ(l.error, 0) << l.log;
  for (const char* repair : {"try to create it now", "unusable", "modified, flush now"}) {
    EXPECT_EQ(l.log.find(repair), std::string::npos) << repair << "\n" << l.log;
  }
  volume_ = l.volume;
  folder_ = volume_->findEntry("/REC");
  ASSERT_NE(folder_, nullptr);
  std::set<std::string> names;
  for (const auto& child : folder_->children_) names.insert(child->name_);
  EXPECT_EQ(names.count("keep.avi"), 1u);
  EXPECT_EQ(card_->type("/REC/keep.avi").substr(0, data.size()), data);
}

}  // namespace
}  // namespace velt::test
