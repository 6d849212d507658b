// Sector I/O over a fake driver (read runs, the sector cache, the write buffer, failures) and
// open files on a fake card (transfers per cluster run, clipping, growth, sticky errors): the
// requests and error paths that the content checks of the integration tests cannot see.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <tuple>
#include <vector>

#include "fake_driver.h"
#include "fs/velt_dirent.h"
#include "fs/velt_file.h"

using velt::FAT_EOC;
using Entry = velt::VELT::DirEntry;
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
uint8_t patternByte(int64_t i) { return static_cast<uint8_t>(i * 131 + (i >> 9) * 7); }

// A file of the fake card's root laid over `chain`, with `size` bytes; the card holds the
// pattern at the file offsets the clusters hold.
std::shared_ptr<Entry> layFile(velt_test::FakeCard& c, const char* name,
                               const std::vector<uint32_t>& chain, int64_t size) {
  auto e = c.create(name);
  const uint32_t len = c.pbr->cluster_length_;
  for (size_t i = 0; i < chain.size(); ++i) {
    c.pbr->fat1_[chain[i]] = i + 1 < chain.size() ? chain[i + 1] : FAT_EOC;
    const int64_t at = c.v->clusterOffset(chain[i]);
    for (uint32_t b = 0; b < len; ++b) (*c.f.disk)[at + b] = patternByte(i * len + b);
  }
  c.pbr->setClusterChainUsed(chain.front());
  e->start_cluster_ = chain.front();
  e->size_ = e->real_size_ = size;
  return e;
}

}  // namespace

TEST(BufferedRead, RequestPatternsShortAnswersAndFailures) {
  FakeVolume f(8192);
  fillCard(f);
  auto& v = *f.volume;
  auto& reqs = f.driver->requests;
  std::vector<uint8_t> out(10 * 512);
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
  memcpy(f.driver->data_.data() + 11 * 512, cached_sector.data(), 512);
  EXPECT_EQ(0, memcmp(out.data(), f.driver->data_.data() + 10 * 512, 3 * 512));
  // A short answer is continued; a failure after it fails the whole read.
  reqs.clear();
  v.destroyCache();
  f.driver->queueReadAnswer(4);
  ASSERT_EQ(v.read(out.data(), 10 * 512, 20 * 512), 10 * 512);
  EXPECT_EQ(reqs, (std::vector<DriverRequest>{{'r', 20, 10}, {'r', 24, 6}}));
  EXPECT_EQ(0, memcmp(out.data(), f.driver->data_.data() + 20 * 512, 10 * 512));
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
    auto& v = *f.volume;
    auto& reqs = f.driver->requests;
    ASSERT_EQ(with_cache ? v.createCache(1 << 20) : 0, 0);
    auto write = [&](const std::vector<uint8_t>& data, int64_t at, size_t size) {
      ASSERT_EQ(v.write(data.data(), static_cast<uint32_t>(size), at, true), static_cast<int>(size));
    };
    // 4 bytes at 64 KiB + 4: the sector is read once, nothing before it, one sector written.
    write(bytes(4, 1), 0x10000 + 4, 4);
    EXPECT_EQ(reqs, (std::vector<DriverRequest>{{'r', 128, 1}}));
    EXPECT_EQ(v.flush(), 0);
    EXPECT_EQ(reqs, (std::vector<DriverRequest>{{'r', 128, 1}, {'w', 128, 1}}));
    // Directory-record sized writes far from a 64 KiB boundary: each sector is read once (the
    // first as the buffer starts, the next to complete it) and written once; a write elsewhere
    // sends the pending sectors first.
    reqs.clear();
    for (int i = 0; i < 4; ++i) write(bytes(32, 7), 0x20000 + 7 * 512 + 448 + 32 * i, 32);
    EXPECT_EQ(reqs, (std::vector<DriverRequest>{{'r', 263, 1}, {'r', 264, 1}}));
    write(bytes(512, 3), 0x30000, 512);
    EXPECT_EQ(reqs, (std::vector<DriverRequest>{{'r', 263, 1}, {'r', 264, 1}, {'w', 263, 2}}));
    EXPECT_EQ(v.flush(), 0);
    // A contiguous stream of 3 MiB in 4 KiB pieces goes out as full-buffer requests.
    reqs.clear();
    auto stream = bytes(3 << 20, 9);
    for (size_t o = 0; o < stream.size(); o += 4096) {
      ASSERT_EQ(v.write(stream.data() + o, 4096, 0x100000 + static_cast<int64_t>(o), false), 4096);
    }
    EXPECT_EQ(reqs, (std::vector<DriverRequest>{
                        {'w', 2048, 2048}, {'w', 4096, 2048}, {'w', 6144, 2048}}));
    // Megabyte pieces 12 KiB past a boundary (the mount's writes where the data area is so
    // placed): each completes the buffer to the next boundary and sends the aligned rest from
    // the caller's memory; the 12 KiB behind the last boundary wait for the next piece.
    reqs.clear();
    for (int64_t o = 0; o < 2 * 0x100000; o += 0x100000) {
      ASSERT_EQ(v.write(stream.data() + o, 0x100000, 0x400000 + 0x3000 + o, false), 0x100000);
    }
    EXPECT_EQ(
        reqs,
        (std::vector<DriverRequest>{
            {'w', 8192 + 24, 104}, {'w', 8320, 1920}, {'w', 10240, 128}, {'w', 10368, 1920}}));
    EXPECT_EQ(v.flush(), 0);
    EXPECT_EQ(0, memcmp(f.driver->data_.data() + 0x400000 + 0x3000, stream.data(), 2 * 0x100000));
  }
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
  // A large aligned write goes to the card piece by piece: when a later piece fails, the cached
  // copies of the pieces before it show what they now hold on the card.
  std::vector<uint8_t> big = bytes(2 << 20, 5), seen(512);
  ASSERT_EQ(v.write(other.data(), 512, 0x100000, true), 512);
  ASSERT_EQ(v.flush(), 0);
  f.driver->queueWriteAnswer(2048);
  f.driver->queueWriteAnswer(-1);
  EXPECT_EQ(v.write(big.data(), static_cast<uint32_t>(big.size()), 0x100000, true), -1);
  ASSERT_EQ(v.read(seen.data(), 512, 0x100000), 512);
  EXPECT_EQ(0, memcmp(seen.data(), big.data(), 512));
  // The unload writes out what is pending.
  ASSERT_EQ(v.write(data.data(), 1024, 0x8000, true), 1024);
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

// A read takes one transfer per run of consecutive clusters, stops at the end of the file and
// answers nothing beyond it. (The bytes of fragmented files are the integration model's.)
TEST(OpenFile, ReadsOneTransferPerRunAndClipsAtTheEnd) {
  velt_test::FakeCard c;
  const int64_t len = c.pbr->cluster_length_;
  const int64_t size = 6 * len - 300;
  auto file = c.v->newFile(false, false, false, layFile(c, "F", {20, 21, 40, 41, 42, 11}, size));
  ASSERT_NE(file, nullptr);
  std::vector<uint8_t> buf(size);
  c.f.driver->requests.clear();
  ASSERT_EQ(file->read(buf.data(), size, 7000), size - 7000);
  EXPECT_EQ(std::count_if(c.f.driver->requests.begin(), c.f.driver->requests.end(),
                          [](const auto& q) { return q.kind == 'r'; }),
            3) << "runs 20-21, 40-42, 11";
  for (int64_t i = 0; i < size - 7000; ++i) ASSERT_EQ(buf[i], patternByte(7000 + i)) << i;
  EXPECT_EQ(file->direct_offset_, size);
  const std::tuple<int64_t, size_t, int> clips[] = {
      {size - 10, 100, 10}, {size, 100, 0}, {size + 1, 100, 0}, {len - 1, 2, 2},
      {-1, 10, -EINVAL}};
  for (const auto& [off, want, result] : clips) {
    std::vector<uint8_t> buf(want + 1, 0xEE);
    EXPECT_EQ(file->read(buf.data(), want, off), result) << off;
    for (int i = 0; i < result; ++i) EXPECT_EQ(buf[i], patternByte(off + i));
    EXPECT_TRUE(result < 0 || buf[result] == 0xEE) << "nothing beyond the answer";
  }
  // A truncate on another handle may shorten the chain under a read that took the size before;
  // a chain that claims the root directory's cluster holds no file data.
  file->entry_->size_ = size + 3 * len;
  EXPECT_EQ(file->read(buf.data(), 2 * len, 6 * len - 10), 10);
  file->entry_->cluster_map_[0] = c.pbr->root_cluster_;
  EXPECT_EQ(file->read(buf.data(), 10, 0), -EINVAL);
  ASSERT_EQ(file->close(), 0);
  EXPECT_EQ(file->read(buf.data(), 10, 0), -EBADF);
}

// (That a full card is no sticky error is the daemon test's FullCard.)
TEST(OpenFile, FailedWriteSticks) {
  velt_test::FakeCard c;
  const int64_t len = c.pbr->cluster_length_;
  auto e = c.create("F");
  auto file = c.v->newFile(false, true, false, e);
  ASSERT_NE(file, nullptr);
  std::vector<uint8_t> data(3000, 0x11);
  ASSERT_EQ(file->write(data.data(), 1000, 0), 1000);
  // A write that starts inside a sector must read the sector first; make that read fail.
  c.f.driver->queueReadAnswer(0);
  int first = file->write(data.data(), 100, 1000);
  ASSERT_LT(first, 0);
  EXPECT_EQ(file->error_, -first);
  size_t before = c.f.driver->requests.size();
  EXPECT_EQ(file->write(data.data(), 100, 1000), first);
  EXPECT_EQ(file->write(data.data(), 100, 50 * len), first);
  EXPECT_EQ(c.f.driver->requests.size(), before) << "a failed file touches the card no more";
  EXPECT_EQ(e->size_, 1000);
  // A channel file writes the FAT as it grows (once no mount writer holds it back). When the
  // new clusters' entries cannot reach the card, the clusters go back and nothing links to
  // them; a later write takes them again.
  file->close();
  auto g = c.create("G");
  auto channel = c.v->newFile(false, true, true, g);
  const std::vector<uint8_t> big(3 * len, 0x22);
  ASSERT_EQ(channel->write(big.data(), 1000, 0), 1000);
  const uint32_t free_before = c.pbr->free_cluster_count_;
  c.f.driver->queueWriteAnswer(-1);
  EXPECT_EQ(channel->write(big.data(), big.size(), 1000), -EIO);
  EXPECT_EQ(c.pbr->free_cluster_count_, free_before);
  EXPECT_EQ(c.pbr->getClusterCount(g->start_cluster_), 1);
  EXPECT_EQ(g->cluster_map_.size(), 1u);
  EXPECT_EQ(channel->write(big.data(), big.size(), 1000), static_cast<int>(big.size()));
  EXPECT_EQ(c.pbr->getClusterCount(g->start_cluster_), 4);
}
