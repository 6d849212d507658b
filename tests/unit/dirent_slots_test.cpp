// Directory slots over a fake card: first-fit allocation, runs across a cluster boundary,
// growth of a full directory, and reservation under concurrent creators.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "fake_driver.h"
#include "fs/velt_dirent.h"
#include "fs/velt_endian.h"

using velt::VELT;
using Card = velt_test::FakeCard;

TEST(DirentSlots, FirstFitAndItsLimits) {
  Card c;
  auto& map = c.root->entry_map_;
  const uint8_t head[] = {0x41, 0x00, 0x00, 0x52, 0x00, 0x00, 0x00};
  std::copy(std::begin(head), std::end(head), map.begin());
  EXPECT_EQ(c.root->alloc(3, true), 4);
  EXPECT_EQ(std::vector<uint8_t>(map.begin(), map.begin() + 8),
            std::vector<uint8_t>({0x41, 0, 0, 0x52, 6, 6, 6, 0}));
  // The gap of two takes the next pair; a single slot still fits at the lowest index.
  EXPECT_EQ(c.root->alloc(2, true), 1);
  EXPECT_EQ(c.root->alloc(1, true), 7);

  // More slots than a cluster holds: refused without growing the directory.
  const size_t clusters = c.root->cluster_map_.size();
  const uint32_t free_before = c.pbr->free_cluster_count_;
  EXPECT_EQ(c.root->alloc(static_cast<int>(c.perCluster()) + 1, true), -1);
  EXPECT_EQ(c.root->cluster_map_.size(), clusters);
  EXPECT_EQ(c.pbr->free_cluster_count_, free_before);
}

TEST(DirentSlots, RunAcrossAClusterBoundary) {
  Card c;
  const int per = static_cast<int>(c.perCluster());
  ASSERT_EQ(c.root->allocClusters(1, true), 0);
  ASSERT_EQ(c.root->entry_map_.size(), 2u * per);
  // Everything but the last two slots of the first cluster is in use.
  std::fill(c.root->entry_map_.begin(), c.root->entry_map_.begin() + per - 2, 0x20);
  EXPECT_EQ(c.root->alloc(3, true), per - 2);
  c.root->giveBackSlots(per - 2, 3, 0, nullptr);

  // A name of 25 characters needs 2 long-name records and the short-name record: slots
  // per-2, per-1 in the first cluster and slot 0 of the second.
  int err = 0;
  auto e = c.root->createChild("abcdefghijklmnopqrstuvwxy", false, false, nullptr, &err);
  ASSERT_NE(e, nullptr) << err;
  const int64_t second = c.v->clusterOffset(c.root->cluster_map_[1]);
  EXPECT_EQ(e->dir_ent_disk_off_, second);
  EXPECT_EQ(e->lfn_ent_count_, 2);
  EXPECT_EQ(e->lfn_disk_offsets_[1], c.root->entryIndexToDiskOffset(per - 2));
  EXPECT_EQ(e->lfn_disk_offsets_[0], c.root->entryIndexToDiskOffset(per - 1));
  EXPECT_EQ(static_cast<uint8_t>(c.slot(*c.root, per - 2)[0]), 0x42);
  EXPECT_EQ(static_cast<uint8_t>(c.slot(*c.root, per - 1)[0]), 0x01);
  EXPECT_EQ(c.slot(*c.root, per).substr(0, 11), "ABCDEF~1   ");
  EXPECT_EQ(c.root->entry_map_[per - 2], 0x42);
  EXPECT_EQ(c.root->entry_map_[per], 'A');
  EXPECT_EQ(c.root->diskOffsetToEntryIndex(e->dir_ent_disk_off_), per);
}

TEST(DirentSlots, AFullDirectoryGrowsByOneZeroedCluster) {
  struct Row {
    const char* what;
    int free_at_end;  // free slots left at the end of the full cluster
    int request;
    int expected;  // relative to the first slot of the new cluster
  } rows[] = {
      {"no free slot", 0, 2, 0},
      {"a run begins in the old cluster", 1, 3, -1},
      {"a single slot left fits without growing", 1, 1, 0},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.what);
    Card c;
    const int per = static_cast<int>(c.perCluster());
    std::fill(c.root->entry_map_.begin(), c.root->entry_map_.end() - r.free_at_end, 0x20);
    // The cluster the growth will take, dirty on the card beforehand.
    uint32_t next = std::max<uint32_t>(c.pbr->next_free_cluster_number_, 2);
    while (c.pbr->fat1_[next] != 0) ++next;
    const int64_t next_off = c.v->clusterOffset(next);
    std::fill_n(c.f.disk->begin() + next_off, c.pbr->cluster_length_, 0xAA);
    const uint32_t free_before = c.pbr->free_cluster_count_;

    int first = c.root->alloc(r.request, true);
    if (r.request <= r.free_at_end) {
      // Fits without growing.
      EXPECT_EQ(first, per - r.free_at_end);
      EXPECT_EQ(c.root->cluster_map_.size(), 1u);
      continue;
    }
    EXPECT_EQ(first, per + r.expected);
    ASSERT_EQ(c.root->cluster_map_.size(), 2u);
    EXPECT_EQ(c.root->cluster_map_[1], next);
    EXPECT_EQ(c.pbr->fat1_[c.root->start_cluster_], next);
    EXPECT_TRUE(velt::isEOC(c.pbr->fat1_[next]));
    EXPECT_EQ(c.pbr->free_cluster_count_, free_before - 1);
    EXPECT_EQ(c.root->entry_map_.size(), 2u * per);
    std::vector<uint8_t> cluster(c.pbr->cluster_length_);
    ASSERT_EQ(c.v->read(cluster.data(), static_cast<int>(cluster.size()), next_off),
              static_cast<int>(cluster.size()));
    EXPECT_TRUE(std::all_of(cluster.begin(), cluster.end(), [](uint8_t b) { return b == 0; }));
  }
}

TEST(DirentSlots, ConcurrentReservationsNeverShareASlot) {
  Card c;
  constexpr int kThreads = 6, kEach = 200;
  std::vector<std::vector<int>> got(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kEach; ++i) got[t].push_back(c.root->alloc(1 + (i + t) % 4, true));
    });
  }
  for (auto& th : threads) th.join();
  std::vector<int> owner(c.root->entry_map_.size(), -1);
  for (int t = 0; t < kThreads; ++t) {
    for (int i = 0; i < kEach; ++i) {
      const int first = got[t][i];
      ASSERT_GE(first, 0);
      for (int k = 0; k < 1 + (i + t) % 4; ++k) {
        ASSERT_EQ(owner[first + k], -1) << "slot " << first + k << " handed out twice";
        owner[first + k] = t;
        EXPECT_EQ(c.root->entry_map_[first + k], velt::DIR_ENTRY_RESERVED_CHAR);
      }
    }
  }
}

TEST(DirentSlots, ConcurrentCreatorsGetDistinctSlotsAndShortNames) {
  Card c;
  constexpr int kThreads = 4, kEach = 60;
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kEach; ++i) {
        std::string name =
            "Concurrent recording " + std::to_string(t) + "-" + std::to_string(i) + ".data";
        if (c.root->createChild(name.c_str(), false, i % 7 == 0, nullptr) == nullptr) ++failures;
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(c.root->getChildCount(), kThreads * kEach);

  std::set<int64_t> slots;
  std::set<std::string> short_names;
  std::set<uint32_t> clusters;
  for (const auto& e : c.root->children_) {
    EXPECT_TRUE(short_names.insert(e->short_name_).second) << e->short_name_;
    if (e->isDir()) {
      EXPECT_TRUE(clusters.insert(e->start_cluster_).second);
    } else {
      EXPECT_EQ(e->start_cluster_, 0u);
    }
    EXPECT_TRUE(slots.insert(e->dir_ent_disk_off_).second);
    for (int k = 0; k < e->lfn_ent_count_; ++k) {
      EXPECT_TRUE(slots.insert(e->lfn_disk_offsets_[k]).second);
    }
    // The card holds the entry's own records.
    std::string r(32, '\0');
    ASSERT_EQ(c.v->read(r.data(), 32, e->dir_ent_disk_off_), 32);
    EXPECT_EQ(0, memcmp(r.data(), e->record_, 32)) << e->name_;
    ASSERT_EQ(c.v->read(r.data(), 32, e->lfn_disk_offsets_[0]), 32);
    EXPECT_EQ(static_cast<uint8_t>(r[13]),
              velt::shortNameChecksum(reinterpret_cast<const uint8_t*>(e->record_)));
  }
  // No slot is left reserved.
  for (uint8_t b : c.root->entry_map_) EXPECT_NE(b, velt::DIR_ENTRY_RESERVED_CHAR);
}
