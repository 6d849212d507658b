// Sector I/O over a fake driver: the read runs, the pending write buffer, driver failures and
// the sector cache.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <vector>

#include "fake_driver.h"

using velt::VELT;
using velt_test::DriverRequest;
using velt_test::FakeVolume;

namespace {

void fillCard(FakeVolume& f) {
  for (size_t i = 0; i < f.driver->data_.size(); ++i) f.driver->data_[i] = (i / 512) * 31 + i;
}
std::vector<uint8_t> bytes(size_t n, uint8_t seed) {
  std::vector<uint8_t> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(seed + i * 13);
  return v;
}
std::vector<uint8_t> pattern(uint32_t sector) { return bytes(512, sector * 7 & 0xFF); }

}  // namespace

TEST(BufferedRead, RequestPatternsShortAnswersAndFailures) {
  FakeVolume f(8192);
  fillCard(f);
  auto& v = *f.volume;
  auto& reqs = f.driver->requests;
  std::vector<uint8_t> out(10 * 512);
  EXPECT_EQ(v.read(out.data(), 0, 100), 0);
  EXPECT_TRUE(reqs.empty());
  // One run of uncached sectors is one request; the caller gets exactly its bytes.
  ASSERT_EQ(v.read(out.data(), 1000, 100), 1000);
  EXPECT_EQ(reqs, (std::vector<DriverRequest>{{'r', 0, 3}}));
  EXPECT_EQ(0, memcmp(out.data(), f.driver->data_.data() + 100, 1000));
  // A cached sector splits the run and is copied from the cache.
  reqs.clear();
  ASSERT_EQ(v.createCache(1 << 20), 0);
  std::vector<uint8_t> cached_sector(512, 0xAB);
  ASSERT_EQ(v.updateCache(11, cached_sector.data()), 0);
  ASSERT_EQ(v.read(out.data(), 3 * 512, 10 * 512), 3 * 512);
  EXPECT_EQ(reqs, (std::vector<DriverRequest>{{'r', 10, 1}, {'r', 12, 1}}));
  EXPECT_EQ(0, memcmp(out.data(), f.driver->data_.data() + 10 * 512, 512));
  EXPECT_EQ(0, memcmp(out.data() + 512, cached_sector.data(), 512));
  EXPECT_EQ(0, memcmp(out.data() + 1024, f.driver->data_.data() + 12 * 512, 512));
  // A short answer is continued; a failure after it fails the whole read.
  reqs.clear();
  v.destroyCache();
  f.driver->queueReadAnswer(4);
  ASSERT_EQ(v.read(out.data(), 10 * 512, 20 * 512), 10 * 512);
  EXPECT_EQ(reqs, (std::vector<DriverRequest>{{'r', 20, 10}, {'r', 24, 6}}));
  EXPECT_EQ(0, memcmp(out.data(), f.driver->data_.data() + 20 * 512, 10 * 512));
  // A failure after a successful short answer still fails the whole read.
  reqs.clear();
  f.driver->queueReadAnswer(4);
  f.driver->queueReadAnswer(0);
  EXPECT_EQ(v.read(out.data(), 10 * 512, 20 * 512), -1);
  EXPECT_EQ(reqs.size(), 2u);
  // Runs longer than the transfer buffer go in buffer-sized requests.
  reqs.clear();
  std::vector<uint8_t> big(3000 * 512);
  ASSERT_EQ(v.read(big.data(), static_cast<int>(big.size()), 0), static_cast<int>(big.size()));
  EXPECT_EQ(reqs, (std::vector<DriverRequest>{{'r', 0, 2048}, {'r', 2048, 952}}));
  EXPECT_EQ(0, memcmp(big.data(), f.driver->data_.data(), big.size()));
}

// The buffer stays pending across contiguous writes whether or not a sector cache exists, and
// writes only the sectors that carry data.
TEST(BufferedWrite, SmallWritesStayPendingAndCostTheirSectors) {
  for (bool with_cache : {false, true}) {
    SCOPED_TRACE(with_cache ? "with cache" : "without cache");
    FakeVolume f(16384);
    fillCard(f);
    auto expect = f.driver->data_;
    auto& v = *f.volume;
    auto& reqs = f.driver->requests;
    ASSERT_EQ(with_cache ? v.createCache(1 << 20) : 0, 0);
    auto write = [&](const std::vector<uint8_t>& data, int64_t at, size_t size) {
      ASSERT_EQ(v.write(data.data(), static_cast<uint32_t>(size), at, true), static_cast<int>(size));
      memcpy(expect.data() + at, data.data(), size);
    };
    // 4 bytes at 64 KiB + 4: the sector is read once, nothing before it, one sector written.
    write(bytes(4, 1), 0x10000 + 4, 4);
    EXPECT_EQ(reqs, (std::vector<DriverRequest>{{'r', 128, 1}}));
    EXPECT_EQ(v.flush(), 0);
    EXPECT_EQ(reqs, (std::vector<DriverRequest>{{'r', 128, 1}, {'w', 128, 1}}));
    EXPECT_EQ(f.driver->data_, expect);
    // Directory-record sized writes far from a 64 KiB boundary: each sector is read once (the
    // first as the buffer starts, the next to complete it) and written once; a write elsewhere
    // sends the pending sectors first.
    reqs.clear();
    for (int i = 0; i < 4; ++i) write(bytes(32, 7), 0x20000 + 7 * 512 + 448 + 32 * i, 32);
    EXPECT_EQ(reqs, (std::vector<DriverRequest>{{'r', 263, 1}, {'r', 264, 1}}));
    write(bytes(512, 3), 0x30000, 512);
    EXPECT_EQ(reqs, (std::vector<DriverRequest>{{'r', 263, 1}, {'r', 264, 1}, {'w', 263, 2}}));
    EXPECT_EQ(v.flush(), 0);
    EXPECT_EQ(f.driver->data_, expect);
    // A contiguous stream of 3 MiB in 4 KiB pieces goes out as full-buffer requests.
    reqs.clear();
    auto stream = bytes(3 << 20, 9);
    for (size_t o = 0; o < stream.size(); o += 4096) {
      ASSERT_EQ(v.write(stream.data() + o, 4096, 0x100000 + static_cast<int64_t>(o), false), 4096);
    }
    EXPECT_EQ(reqs, (std::vector<DriverRequest>{
                        {'w', 2048, 2048}, {'w', 4096, 2048}, {'w', 6144, 2048}}));
    EXPECT_EQ(0, memcmp(f.driver->data_.data() + 0x100000, stream.data(), stream.size()));
  }
}

TEST(BufferedWrite, ReadsSeeThePendingBufferEvenWhenTheCacheCannotHoldIt) {
  FakeVolume f(8192);
  fillCard(f);
  auto& v = *f.volume;
  ASSERT_EQ(v.createCache(1024), 0);  // two entries: most written sectors are not cached
  auto data = bytes(40 * 512 + 100, 5);
  ASSERT_EQ(v.write(data.data(), static_cast<uint32_t>(data.size()), 0x10000 + 300, true),
            static_cast<int>(data.size()));
  ASSERT_GE(v.write_start_sector_, 0) << "the data must still be pending for this test";
  std::vector<uint8_t> out(data.size() + 600);
  ASSERT_EQ(v.read(out.data(), static_cast<int>(out.size()), 0x10000),
            static_cast<int>(out.size()));
  EXPECT_EQ(0, memcmp(out.data(), f.driver->data_.data() + 0x10000, 300));
  EXPECT_EQ(0, memcmp(out.data() + 300, data.data(), data.size()));
  EXPECT_EQ(0, memcmp(out.data() + 300 + data.size(),
                      f.driver->data_.data() + 0x10000 + 300 + data.size(), 300));
}

TEST(BufferedWrite, FailuresStaleCopiesAndTheUnload) {
  FakeVolume f(8192);
  auto& v = *f.volume;
  ASSERT_EQ(v.createCache(1 << 20), 0);
  auto data = bytes(1024, 3), other = bytes(512, 2);
  ASSERT_EQ(v.write(data.data(), 1024, 0, true), 1024);
  f.driver->queueWriteAnswer(1);  // short: a failure for writes
  EXPECT_EQ(v.flush(), -1);
  EXPECT_EQ(v.write_start_sector_, -1) << "the buffer is emptied even after a failure";
  EXPECT_EQ(v.flush(), 0);
  // A write whose flush of the pending buffer fails fails too.
  ASSERT_EQ(v.write(data.data(), 1024, 0, true), 1024);
  f.driver->queueWriteAnswer(-1);
  EXPECT_EQ(v.write(data.data(), 512, 0x10000, true), -1);
  // A write that bypasses the cache drops the cached copy of its sector.
  ASSERT_EQ(v.write(data.data(), 512, 0, true), 512);
  ASSERT_EQ(v.flush(), 0);
  ASSERT_EQ(v.write(other.data(), 512, 0, false), 512);
  ASSERT_EQ(v.flush(), 0);
  std::vector<uint8_t> out(512);
  ASSERT_EQ(v.read(out.data(), 512, 0), 512);
  EXPECT_EQ(out, other);
  // The unload writes out what is pending.
  f.driver->requests.clear();
  ASSERT_EQ(v.write(data.data(), 1024, 0x8000, true), 1024);
  EXPECT_TRUE(f.driver->requests.empty());
  {
    std::lock_guard<std::mutex> lock(v.mutex_);
    v.unload();
  }
  EXPECT_EQ(0, memcmp(f.disk->data() + 0x8000, data.data(), data.size()));
  // Without a cache, a partial sector needs the sector's content; a failed read fails the write.
  FakeVolume g(8192);
  g.driver->queueReadAnswer(0);
  EXPECT_EQ(g.volume->write(data.data(), 10, 0x10000, true), -1);
}

TEST(SectorCache, VictimAnywhereInItsBucketChain) {
  // Three sectors of one bucket are stored; the chain is newest first. Each case makes a
  // different one of them the oldest, so the victim sits at the end, middle or head.
  for (int victim_pos = 0; victim_pos < 3; ++victim_pos) {
    VELT v("/dev/mmcblk0p1", 1, 0, 0);
    ASSERT_EQ(v.createCache(1536), 0);  // 3 entries
    std::vector<uint32_t> chain = {100};
    const uint32_t mask = static_cast<uint32_t>(v.cache_hash_size_ - 1);
    for (uint32_t s = 101; chain.size() < 3; ++s) {
      if ((VELT::cacheHash(s) & mask) == (VELT::cacheHash(100) & mask)) chain.push_back(s);
    }
    // Store order decides age; the chain order is reverse store order.
    std::vector<uint32_t> order = chain;
    std::rotate(order.begin(), order.begin() + victim_pos, order.end());
    for (uint32_t s : order) ASSERT_EQ(v.updateCache(s, pattern(s).data()), 0);
    ASSERT_EQ(v.updateCache(7, pattern(7).data()), 0);
    for (uint32_t s : {chain[0], chain[1], chain[2], 7u}) {
      uint8_t buf[512];
      const bool victim = s == order[0];
      ASSERT_EQ(v.lookupCache(s, buf), victim ? -1 : 0) << s << " case " << victim_pos;
      EXPECT_TRUE(victim || memcmp(buf, pattern(s).data(), 512) == 0) << s;
    }
  }
}
