#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "fake_driver.h"

using velt::VELT;

namespace {

std::vector<uint8_t> pattern(uint32_t sector) {
  std::vector<uint8_t> s(512);
  for (int i = 0; i < 512; ++i) s[i] = static_cast<uint8_t>(sector * 7 + i);
  return s;
}

bool cached(VELT& v, uint32_t sector) {
  uint8_t buf[512];
  return v.lookupCache(sector, buf) == 0;
}

// Sectors that land in the same bucket as `sector`.
std::vector<uint32_t> sameBucket(const VELT& v, uint32_t sector, int count) {
  std::vector<uint32_t> found;
  uint32_t mask = static_cast<uint32_t>(v.cache_hash_size_ - 1);
  uint32_t want = VELT::cacheHash(sector) & mask;
  for (uint32_t s = sector + 1; found.size() < static_cast<size_t>(count); ++s) {
    if ((VELT::cacheHash(s) & mask) == want) found.push_back(s);
  }
  return found;
}

}  // namespace

TEST(SectorCache, AbsentCacheMissesAndCreateTwiceKeepsTheFirst) {
  VELT v("/dev/mmcblk0p1", 1, 0, 0);
  uint8_t buf[512] = {};
  EXPECT_EQ(v.lookupCache(1, buf), -1);
  EXPECT_EQ(v.updateCache(1, buf), -1);

  ASSERT_EQ(v.createCache(4096), 0);
  auto data = pattern(5);
  ASSERT_EQ(v.updateCache(5, data.data()), 0);
  EXPECT_EQ(v.createCache(1 << 20), -1);
  EXPECT_EQ(v.cache_size_, 8);
  ASSERT_EQ(v.lookupCache(5, buf), 0);
  EXPECT_EQ(0, memcmp(buf, data.data(), 512));

  v.destroyCache();
  EXPECT_EQ(v.lookupCache(5, buf), -1);
  EXPECT_EQ(v.cache_size_, 8) << "size is kept for a later rebuild";
}

TEST(SectorCache, ReplacesInOrderOfFirstStore) {
  VELT v("/dev/mmcblk0p1", 1, 0, 0);
  ASSERT_EQ(v.createCache(2048), 0);  // 4 entries
  for (uint32_t s = 10; s <= 13; ++s) ASSERT_EQ(v.updateCache(s, pattern(s).data()), 0);
  EXPECT_TRUE(cached(v, 10));  // a hit does not make 10 younger
  ASSERT_EQ(v.updateCache(14, pattern(14).data()), 0);
  EXPECT_FALSE(cached(v, 10));
  for (uint32_t s = 11; s <= 14; ++s) EXPECT_TRUE(cached(v, s)) << s;

  // Overwriting 11 keeps its place: it is still the next victim, with the new content meanwhile.
  auto fresh = pattern(99);
  ASSERT_EQ(v.updateCache(11, fresh.data()), 0);
  uint8_t buf[512];
  ASSERT_EQ(v.lookupCache(11, buf), 0);
  EXPECT_EQ(0, memcmp(buf, fresh.data(), 512));
  ASSERT_EQ(v.updateCache(15, pattern(15).data()), 0);
  EXPECT_FALSE(cached(v, 11));
  for (uint32_t s = 12; s <= 15; ++s) EXPECT_TRUE(cached(v, s)) << s;
}

TEST(SectorCache, VictimAnywhereInItsBucketChain) {
  // Three sectors of one bucket are stored; the chain is newest first. Each case makes a
  // different one of them the oldest, so the victim sits at the end, middle or head.
  for (int victim_pos = 0; victim_pos < 3; ++victim_pos) {
    VELT v("/dev/mmcblk0p1", 1, 0, 0);
    ASSERT_EQ(v.createCache(1536), 0);  // 3 entries
    auto others = sameBucket(v, 100, 2);
    std::vector<uint32_t> chain = {100, others[0], others[1]};
    // Store order decides age; the chain order is reverse store order.
    std::vector<uint32_t> order = chain;
    std::rotate(order.begin(), order.begin() + victim_pos, order.end());
    for (uint32_t s : order) ASSERT_EQ(v.updateCache(s, pattern(s).data()), 0);
    uint32_t oldest = order[0];
    ASSERT_EQ(v.updateCache(7, pattern(7).data()), 0);
    for (uint32_t s : chain) {
      uint8_t buf[512];
      if (s == oldest) {
        EXPECT_NE(v.lookupCache(s, buf), 0) << "victim " << s;
      } else {
        ASSERT_EQ(v.lookupCache(s, buf), 0) << "survivor " << s << " case " << victim_pos;
        EXPECT_EQ(0, memcmp(buf, pattern(s).data(), 512));
      }
    }
    EXPECT_TRUE(cached(v, 7));
  }
}

TEST(SectorCache, CorruptedChainResetsToAnEmptyUsableCache) {
  VELT v("/dev/mmcblk0p1", 1, 0, 0);
  ASSERT_EQ(v.createCache(4096), 0);
  auto others = sameBucket(v, 20, 1);
  ASSERT_EQ(v.updateCache(20, pattern(20).data()), 0);
  ASSERT_EQ(v.updateCache(others[0], pattern(others[0]).data()), 0);
  // The head of the bucket is the newest entry; point its next outside the pool.
  uint32_t bucket = VELT::cacheHash(20) & static_cast<uint32_t>(v.cache_hash_size_ - 1);
  VELT::CacheEntry* head = v.cache_hash_table_[bucket];
  ASSERT_NE(head, nullptr);
  VELT::CacheEntry bogus{};
  head->next = &bogus;

  uint8_t buf[512];
  EXPECT_EQ(v.lookupCache(20, buf), -1);
  ASSERT_NE(v.cache_pool_, nullptr);
  EXPECT_EQ(v.cache_size_, 8);
  EXPECT_FALSE(cached(v, others[0]));
  ASSERT_EQ(v.updateCache(20, pattern(20).data()), 0);
  EXPECT_TRUE(cached(v, 20));
}
