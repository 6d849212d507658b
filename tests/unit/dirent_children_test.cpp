// Directory entries over a fake card: new entries, failed and refused creations, deletions and
// moves, concurrent creators, entries read from a record (what succeeds is the models' to judge).
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "fake_driver.h"
#include "fs/velt_dirent.h"
#include "fs/velt_endian.h"
#include "fs/velt_file.h"

using velt::VELT;
using Card = velt_test::FakeCard;
using Entry = std::shared_ptr<VELT::DirEntry>;

// Short names, attributes (a leading dot hides) and a new directory's own cluster.
TEST(DirentChildren, NewEntriesTakeTheirShortNameAttributesAndClusters) {
  Card c;
  struct Row {
    const char* name;
    bool is_dir;
    const char* short_name;
    uint8_t attr;
  } rows[] = {
      {"README.TXT", false, "README.TXT", 0x20}, {"readme.txt", false, "READ~1.TXT", 0x20},
      {".veltq", false, "~1.VEL", 0x26},         {".cfg", true, "~1.CFG", 0x12},
      {"DATA", true, "DATA", 0x10},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.name);
    Entry e = c.create(r.name, r.is_dir);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->short_name_, r.short_name);
    EXPECT_EQ(e->attr_, r.attr);
    // A directory gets its cluster at once, an empty file none until its first write.
    EXPECT_EQ(e->start_cluster_ != 0, r.is_dir);
    EXPECT_LE(std::abs(e->modified_ - time(nullptr)), 5);
  }
}

TEST(DirentChildren, ACreationThatFindsNoClusterGivesBackItsSlots) {
  // The long-name record was written, so the slots are marked deleted on the card (a free
  // record would hide the record further on) and in the map.
  Card full;
  int err = 0;
  Entry after = full.create("z");
  ASSERT_NE(after, nullptr);
  const int fs = after->lfn_ent_count_ + 1;  // first free slot
  full.root->entry_map_[fs + 3] = 'Z';       // a record further on
  for (uint32_t k = 2; k < full.pbr->num_clusters_; ++k) {
    if (full.pbr->fat1_[k] != 0) continue;
    full.pbr->fat1_[k] = velt::FAT_EOC;
    full.pbr->fat1_flags_[k / 8] |= static_cast<uint8_t>(1u << (k % 8));
  }
  EXPECT_EQ(full.root->createChild("no room.txt", false, true, nullptr, &err), nullptr);
  EXPECT_EQ(err, -ENOSPC);
  for (int k : {fs, fs + 1}) {
    EXPECT_EQ(full.root->entry_map_[k], velt::DIR_ENTRY_DELETED);
    EXPECT_EQ(static_cast<uint8_t>(full.slot(*full.root, k)[0]), velt::DIR_ENTRY_DELETED);
  }
  EXPECT_EQ(full.root->getChildCount(), 1);
}

TEST(DirentChildren, RefusedCreationsDeletionsAndMovesLeaveTheCardUnchanged) {
  Card c;
  Entry open = c.create("open.txt"), rec = c.create("rec", true), plain = c.create("plain.txt");
  Entry inside = c.create("inside.txt", false, rec);  // made before the folder is reserved
  ASSERT_TRUE(open && rec && plain && inside);
  auto file = std::make_shared<VELT::File>(c.v, 7, false, false, true, open.get());
  ASSERT_EQ(open->addFile(file), 0);
  c.pbr->is_velt_partition_ = true;
  c.v->format_info_.magic1 = velt::VELT_FSINFO_MAGIC1;
  c.v->format_info_.magic2 = velt::VELT_FSINFO_MAGIC2;
  c.v->format_info_.folder_count = 1;
  strcpy(c.v->format_info_.folders[0].name, "REC");
  ASSERT_TRUE(c.v->isInVELTFolder(rec));
  velt::ReservedFolderDesc desc;
  rec->velt_folder_ = &desc;
  const auto card = c.snapshot();
  const auto map = c.root->entry_map_;
  EXPECT_EQ(c.root->delChild(open), -EBUSY);
  EXPECT_EQ(c.root->delChild(rec), -EACCES);
  // Nothing moves into or out of a reserved folder, nor is one renamed; a name too long for
  // 20 records is refused.
  EXPECT_EQ(c.root->moveChild(plain, rec, "plain.txt"), -1);
  EXPECT_EQ(rec->moveChild(inside, c.root, "out.txt"), -1);
  EXPECT_EQ(c.root->moveChild(rec, c.root, "renamed"), -1);
  EXPECT_EQ(c.root->moveChild(plain, c.root, std::string(300, 's').c_str()), -ENAMETOOLONG);
  // Names of more than 20 long-name records or not UTF-8 are refused too.
  int err = 0;
  EXPECT_EQ(c.root->createChild(std::string(261, 'n').c_str(), false, false, nullptr, &err),
            nullptr);
  EXPECT_EQ(err, -ENAMETOOLONG);
  EXPECT_EQ(c.root->createChild("bad\xc3", false, false, nullptr, &err), nullptr);
  EXPECT_EQ(err, -EINVAL);
  EXPECT_EQ(c.snapshot(), card);
  EXPECT_EQ(c.root->entry_map_, map);
  EXPECT_EQ(c.root->getChildCount(), 3);
  EXPECT_EQ(inside->parent_, rec.get());
  rec->velt_folder_ = nullptr;
  EXPECT_EQ(open->removeFile(file), 0);
}

TEST(DirentSlots, ConcurrentCreatorsGetDistinctSlotsAndShortNames) {
  Card c;
  constexpr int kThreads = 4, kEach = 60;
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kEach; ++i) {
        std::string name = "Concurrent recording " + std::to_string(t) + "-" +
                           std::to_string(i) + ".data";
        if (c.root->createChild(name.c_str(), false, i % 7 == 0, nullptr) == nullptr) ++failures;
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(c.root->getChildCount(), kThreads * kEach);
  std::set<int64_t> slots;
  std::set<std::string> short_names;
  for (const auto& e : c.root->children_) {
    EXPECT_TRUE(short_names.insert(e->short_name_).second) << e->short_name_;
    EXPECT_TRUE(slots.insert(e->dir_ent_disk_off_).second);
    for (int k = 0; k < e->lfn_ent_count_; ++k) {
      EXPECT_TRUE(slots.insert(e->lfn_disk_offsets_[k]).second);
    }
  }
  for (uint8_t b : c.root->entry_map_) EXPECT_NE(b, velt::DIR_ENTRY_RESERVED_CHAR);
}

// An entry read from a record keeps every field, so that rewriting it changes nothing; records
// no system writes are refused.
TEST(DirentRecords, InitFromARecord) {
  Card c;
  const uint32_t cl = static_cast<uint32_t>(c.pbr->allocCluster(false));  // a one-cluster chain
  struct Row {
    uint8_t attr;
    uint32_t cluster, size;
    bool valid, is_dir, is_volume;
  } rows[] = {
      {0x21, cl, 100, true, false, false},         {0x20, 0, 0, true, false, false},
      {0x10, cl, 0, true, true, false},            {0x08, 0, 0, true, false, true},
      {0x10, cl, 5, false, true, false},           // a directory with a size
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(testing::Message() << "attr " << int(r.attr) << " cluster " << r.cluster);
    // Created 2010-05-06 07:08:10, read on the 8th, written on the 7th at 09:08:10 (no two
    // fields alike), lower-case flags as another system may leave them.
    uint8_t raw[32] = {'N', 'A', 'M', 'E', ' ', ' ', ' ', ' ', 'T', 'X', 'T', r.attr, 0x18, 77};
    const uint16_t date = (30 << 9) | (5 << 5) | 7, time = (9 << 11) | (8 << 5) | 5;
    for (auto [at, v] : {std::pair<int, int>{14, time - (2 << 11)}, {16, date - 1}, {18, date + 1},
                         {22, time}, {24, date}})
      velt::putLe16(&raw[at], static_cast<uint16_t>(v));
    velt::putLe16(&raw[20], static_cast<uint16_t>(r.cluster >> 16));
    velt::putLe16(&raw[26], static_cast<uint16_t>(r.cluster & 0xFFFF));
    velt::putLe32(&raw[28], r.size);
    Entry e = std::make_shared<VELT::DirEntry>(c.v);
    EXPECT_EQ(e->init("name.txt", "NAME.TXT", r.attr, raw), r.valid ? 0 : -1);
    EXPECT_EQ(e->valid_, r.valid);
    EXPECT_EQ(e->is_dir_, r.is_dir);
    EXPECT_EQ(e->is_volume_, r.is_volume);
    if (!r.valid) continue;
    EXPECT_EQ(e->start_cluster_, r.cluster);
    EXPECT_EQ(e->real_size_, r.size);
    EXPECT_EQ(e->modified_, velt::fatToTime(date, time));
    uint8_t built[32];
    e->buildRecord(built);
    EXPECT_EQ(0, memcmp(built, raw, 32));
  }
}
