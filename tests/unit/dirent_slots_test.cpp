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
    uint8_t built[32];
    e->buildRecord(built);
    EXPECT_EQ(0, memcmp(r.data(), built, 32)) << e->name_;
    ASSERT_EQ(c.v->read(r.data(), 32, e->lfn_disk_offsets_[0]), 32);
    EXPECT_EQ(static_cast<uint8_t>(r[13]), velt::shortNameChecksum(built));
  }
  // No slot is left reserved.
  for (uint8_t b : c.root->entry_map_) EXPECT_NE(b, velt::DIR_ENTRY_RESERVED_CHAR);
}
