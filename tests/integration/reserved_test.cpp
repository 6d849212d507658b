// Files of a reserved folder: takeover of free and of the oldest idle reserved files, deletion,
// publication with secure2, what the card shows other FAT tools after each step, and what users
// and clients do to the folder through the front ends.
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

  std::string mdirRec() { return card_->mtools("mdir -a ::/REC").out; }

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

TEST_F(ReservedTest, FreeFilesAreTakenLowestFirstAndDeletionGivesThemBack) {
  const auto& table = folder_->velt_reserved_files_;
  std::vector<std::shared_ptr<VELT::DirEntry>> taken;
  for (const char* name : {"one.avi", "two.avi", "three.avi"}) {
    taken.push_back(create(name));
    ASSERT_NE(taken.back(), nullptr) << name;
  }
  for (int i = 0; i < 3; ++i) {
    SCOPED_TRACE(i);
    const auto& e = taken[i];
    EXPECT_EQ(slotOf(e), i);
    EXPECT_TRUE(table[i].used_);
    EXPECT_EQ(e->start_cluster_, table[i].start_cluster);
    EXPECT_EQ(e->size_, kFileBytes);
    EXPECT_EQ(e->real_size_, 0);
    EXPECT_TRUE(e->is_reserved_);
    EXPECT_FALSE(e->is_secured_);
    // Hidden on the card: deleted to other readers, marked hidden, the new short name after
    // its first byte, the reserved file's chain and size.
    std::string r = record(e->dir_ent_disk_off_);
    uint8_t name11[11];
    shortNameToName83(e->short_name_.c_str(), name11);
    EXPECT_EQ(static_cast<uint8_t>(r[0]), 0xE5);
    EXPECT_EQ(r.substr(1, 10), std::string(reinterpret_cast<char*>(name11) + 1, 10));
    EXPECT_EQ(static_cast<uint8_t>(r[11]), 0x22);
    const uint8_t* p = reinterpret_cast<const uint8_t*>(r.data());
    EXPECT_EQ((static_cast<uint32_t>(le16(p + 20)) << 16) | le16(p + 26), table[i].start_cluster);
    EXPECT_EQ(le32(p + 28), kFileBytes);
  }
  EXPECT_FALSE(table[3].used_);
  EXPECT_EQ(folder_->velt_folder_->used, 3);
  EXPECT_EQ(usedOnCard(), 3);
  EXPECT_EQ(mdirRec().find("AVI"), std::string::npos) << "taken files stay hidden until secured";
  EXPECT_TRUE(fsckHolds());

  // Deleting "two" frees reserved file 2 but keeps its clusters.
  const std::string fat_before = fatCopies();
  const uint32_t start = taken[1]->start_cluster_;
  ASSERT_EQ(folder_->delChild(taken[1]), 0);
  EXPECT_FALSE(table[1].used_);
  EXPECT_EQ(folder_->velt_folder_->used, 2);
  EXPECT_EQ(usedOnCard(), 2);
  EXPECT_TRUE(folder_->findChild("two.avi") == nullptr);
  EXPECT_EQ(fatCopies(), fat_before) << "a deleted reserved file keeps its chain";
  EXPECT_EQ(volume_->pbr_->getClusterCount(start), kFileBytes / volume_->pbr_->cluster_length_);
  EXPECT_TRUE(fsckHolds());

  // The next file takes the lowest free one, file 2, not file 4.
  auto again = create("again.avi");
  ASSERT_NE(again, nullptr);
  EXPECT_EQ(slotOf(again), 1);
  EXPECT_EQ(again->start_cluster_, start);
  EXPECT_EQ(usedOnCard(), 3);
  EXPECT_TRUE(fsckHolds());

  // Never published, the three files exist only in memory: loaded again, every reserved file
  // is free and the recorded count is put right.
  load();
  for (int i = 0; i < 4; ++i) EXPECT_FALSE(folder_->velt_reserved_files_[i].used_) << i;
  EXPECT_EQ(folder_->velt_folder_->used, 0);
  EXPECT_EQ(folder_->getChildCount(), 0);
}

TEST_F(ReservedTest, RecyclesTheOldestIdleFile) {
  auto& table = folder_->velt_reserved_files_;
  std::vector<std::shared_ptr<VELT::DirEntry>> files;
  for (const char* name : {"a.avi", "b.avi", "c.avi", "d.avi"}) {
    files.push_back(create(name));
    ASSERT_NE(files.back(), nullptr);
  }
  // Takeover times: files 2 and 3 are the oldest, taken in the same second.
  const uint32_t times[4] = {300, 100, 100, 200};
  for (int i = 0; i < 4; ++i) table[i].taken_time = times[i];
  const std::string fat_before = fatCopies();

  // Equal times: the lower index goes first.
  auto e = create("e.avi");
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(slotOf(e), 1);
  EXPECT_TRUE(folder_->findChild("b.avi") == nullptr) << "the previous occupant left the folder";
  EXPECT_EQ(table[1].taken_time, static_cast<uint32_t>(e->created_));
  EXPECT_EQ(folder_->velt_folder_->used, 4);
  EXPECT_EQ(usedOnCard(), 4);

  // The oldest (file 3) is open: the next oldest idle one, file 4, is recycled.
  auto open3 = volume_->newFile(false, false, false, files[2]);
  ASSERT_NE(open3, nullptr);
  auto f = create("f.avi");
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(slotOf(f), 3);
  EXPECT_TRUE(folder_->findChild("c.avi") != nullptr);
  EXPECT_TRUE(folder_->findChild("d.avi") == nullptr);

  // All open: nothing to take.
  std::vector<std::shared_ptr<VELT::File>> open{open3};
  for (const auto& entry : {files[0], e, f}) {
    open.push_back(volume_->newFile(false, false, false, entry));
    ASSERT_NE(open.back(), nullptr);
  }
  const auto table_before = table;
  int error = 0;
  std::string log;
  EXPECT_EQ(create("g.avi", &error, &log), nullptr);
  EXPECT_EQ(error, -ENOSPC);
  EXPECT_NE(log.find("cannot create the reserved file: no freed reserved files!!!\n"),
            std::string::npos)
      << log;
  for (int i = 0; i < 4; ++i) EXPECT_EQ(table[i].taken_time, table_before[i].taken_time) << i;
  for (const auto& file : open) file->close();

  EXPECT_EQ(fatCopies(), fat_before) << "recycling allocates nothing";
  EXPECT_TRUE(fsckHolds());
}

TEST_F(ReservedTest, DataLandsInThePreallocatedClusters) {
  const std::string fat_before = fatCopies();
  auto entry = create("clip.avi");
  ASSERT_NE(entry, nullptr);
  const uint32_t cluster = volume_->pbr_->cluster_length_;
  std::string data(3 * cluster + 1000, '\0');
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7 + i / 251);
  auto file = volume_->newFile(false, true, false, entry);
  ASSERT_NE(file, nullptr);
  ASSERT_EQ(file->write(data.data(), data.size(), 0), static_cast<int>(data.size()));
  file->close();

  // The reserved file's chain is contiguous, so the data is one run from its first cluster.
  volume_->flush();
  EXPECT_EQ(card_->readBytes(volume_->clusterOffset(entry->start_cluster_), data.size()), data);
  EXPECT_EQ(fatCopies(), fat_before) << "writing allocates nothing";
  EXPECT_TRUE(fsckHolds());
}

TEST_F(ReservedTest, Secure2PublishesNamesOfOneTwoAndThreeRecords) {
  struct Case {
    const char* name;
    int records;
  } cases[] = {
      {"a.avi", 1},
      {"clip_0123456789.avi", 2},
      {"camera_front_2024-01-01_12.avi", 3},
  };
  std::vector<std::shared_ptr<VELT::DirEntry>> entries;
  for (const Case& c : cases) {
    entries.push_back(create(c.name));
    ASSERT_NE(entries.back(), nullptr) << c.name;
  }
  for (size_t i = 0; i < entries.size(); ++i) {
    // Closing a file of an unpublished entry rewrites nothing.
    const std::string before = record(entries[i]->dir_ent_disk_off_);
    EXPECT_EQ(entries[i]->update2(true, true), 0);
    EXPECT_EQ(record(entries[i]->dir_ent_disk_off_), before);
  }
  std::string listing = mdirRec();
  for (const Case& c : cases) EXPECT_EQ(listing.find(c.name), std::string::npos) << listing;
  EXPECT_TRUE(fsckHolds());

  for (size_t i = 0; i < entries.size(); ++i) {
    const auto& e = entries[i];
    SCOPED_TRACE(cases[i].name);
    ASSERT_EQ(e->secure2(), 0);
    EXPECT_TRUE(e->is_secured_);
    EXPECT_EQ(e->secure2(), -1) << "a second publication is refused";
    std::string r = record(e->dir_ent_disk_off_);
    uint8_t name11[11];
    shortNameToName83(e->short_name_.c_str(), name11);
    EXPECT_EQ(r.substr(0, 11), std::string(reinterpret_cast<char*>(name11), 11));
    EXPECT_EQ(static_cast<uint8_t>(r[11]), 0x20);
    // The group: fillers in the low slots (still taken in the slot map), then the name's records.
    const int fillers = 3 - cases[i].records;
    const int first = e->lfs_entry_start_index_;
    for (int k = 0; k < 3; ++k) {
      std::string lfn = record(folder_->entryIndexToDiskOffset(first + k));
      const uint8_t* p = reinterpret_cast<const uint8_t*>(lfn.data());
      if (k < fillers) {
        EXPECT_EQ(p[0], 0x41) << k;
        EXPECT_EQ(p[13], 0) << k;
        EXPECT_EQ(folder_->entry_map_[first + k], 0x41) << k;
      } else {
        const int seq = 3 - k;
        EXPECT_EQ(p[0], seq | (k == fillers ? 0x40 : 0)) << k;
        EXPECT_EQ(p[13], shortNameChecksum(name11)) << k;
      }
    }
  }
  listing = mdirRec();
  for (const Case& c : cases) {
    EXPECT_NE(listing.find(std::string(" 67108864 ")), std::string::npos) << listing;
    EXPECT_NE(listing.find(std::string(" ") + c.name + "\n"), std::string::npos) << listing;
  }
  EXPECT_TRUE(fsckHolds());

  // Loaded again: the same names, each with three long-name records counted.
  load();
  std::set<std::string> names;
  {
    std::lock_guard lock(folder_->children_mutex_);
    for (const auto& child : folder_->children_) {
      if (child->isDotEntry()) continue;
      names.insert(child->name_);
      EXPECT_EQ(child->lfn_ent_count_, 3) << child->name_;
      EXPECT_TRUE(folder_->velt_reserved_files_[slotOf(child)].used_) << child->name_;
    }
  }
  EXPECT_EQ(names, (std::set<std::string>{cases[0].name, cases[1].name, cases[2].name}));
  EXPECT_TRUE(fsckHolds());
}

TEST_F(ReservedTest, NameTooLongForThreeRecordsChangesNothing) {
  const std::string fat_before = fatCopies();
  int error = 0;
  const std::string name = std::string(36, 'n') + ".avi";  // 40 units: four records
  EXPECT_EQ(create(name.c_str(), &error), nullptr);
  EXPECT_EQ(error, -ENAMETOOLONG);
  for (const auto& f : folder_->velt_reserved_files_) EXPECT_FALSE(f.used_);
  EXPECT_EQ(folder_->velt_folder_->used, 0);
  EXPECT_EQ(usedOnCard(), 0);
  EXPECT_EQ(folder_->getChildCount(), 0);
  // 39 units still fit.
  EXPECT_NE(create((std::string(35, 'n') + ".avi").c_str()), nullptr);
  EXPECT_EQ(fatCopies(), fat_before);
  EXPECT_TRUE(fsckHolds());
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
  const auto& table = folder_->velt_reserved_files_;

  struct Row {
    const char* what;
    std::function<void()> run;
  };
  const std::vector<Row> rows = {
      {"a folder made in the reserved folder",
       [&] {
         EXPECT_EQ(VELTFuse::__mkdir("/REC/sub", 0755), -EPERM);
         EXPECT_EQ(VELTFuse::__rmdir("/REC/sub"), -ENOENT);
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
      {"open and deletion of a file recycled meanwhile",
       [&] {
         std::vector<std::shared_ptr<VELT::DirEntry>> idle;
         for (const char* name : {"x.avi", "y.avi", "z.avi"}) {
           idle.push_back(create(name));
           ASSERT_NE(idle.back(), nullptr) << name;
           ASSERT_EQ(idle.back()->secure2(), 0);
         }
         ASSERT_EQ(folder_->velt_folder_->used, 4);
         auto fresh = create("fresh.avi");
         ASSERT_NE(fresh, nullptr);
         std::shared_ptr<VELT::DirEntry> gone;
         for (const auto& e : idle) {
           if (folder_->findChild(e->name_.c_str()) == nullptr) gone = e;
         }
         ASSERT_NE(gone, nullptr) << "one idle file was recycled";
         ASSERT_EQ(gone->start_cluster_, fresh->start_cluster_);
         // A path resolved before the recycling must not open the new recording's clusters.
         EXPECT_EQ(volume_->newFile(false, false, false, gone), nullptr);
         // Nor may its deletion give the new recording's reserved file back.
         EXPECT_EQ(folder_->delChild(gone), -ENOENT);
         EXPECT_TRUE(table[folder_->getVELTFileIndex(fresh->dir_ent_disk_off_)].used_);
         EXPECT_EQ(folder_->velt_folder_->used, 4);
         auto busy = volume_->newFile(false, false, false, fresh);  // not to be recycled now
         ASSERT_NE(busy, nullptr);
         auto next = create("next.avi");
         ASSERT_NE(next, nullptr);
         EXPECT_NE(next->start_cluster_, fresh->start_cluster_) << "one chain, two files";
         busy->close();
         ASSERT_EQ(fresh->secure2(), 0);
         ASSERT_EQ(next->secure2(), 0);
         keeper->close();  // the last mount writer: nobody holds a FAT-lock count now
       }},
      {"a channel write that drops the last FAT-lock count",
       [&] {
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
  EXPECT_EQ(names.count("fresh.avi") + names.count("next.avi"), 2u);
  EXPECT_EQ(card_->type("/REC/keep.avi").substr(0, data.size()), data);
}

}  // namespace
}  // namespace velt::test
