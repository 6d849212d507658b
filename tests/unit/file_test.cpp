// Open files on a fake card: transfers per cluster run, clipping, growth and errors.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <tuple>
#include <vector>

#include "fake_driver.h"
#include "fs/velt_dirent.h"
#include "fs/velt_file.h"

using velt::FAT_EOC;
using Entry = velt::VELT::DirEntry;

namespace {

uint8_t patternByte(int64_t i) {
  return static_cast<uint8_t>((i * 131 + (i >> 9) * 7) & 0xFF);
}

// A formatted 8 MiB fake card with a root entry, without a cache (every write reaches the
// driver at once).
struct Card {
  velt_test::FakeVolume f{16384};
  velt::VELT& v = *f.volume;
  std::shared_ptr<Entry> root;
  uint32_t len = 0;
  Card() {
    EXPECT_TRUE(f.formatInMemory());
    root = std::make_shared<Entry>(&v);
    v.initRootEntry(root);
    v.root_ = root;
    v.pbr_->setClusterChainUsed(v.pbr_->root_cluster_);
    v.pbr_->is_velt_partition_ = false;  // plain FAT32
    v.pbr_->updateFSInfo();
    len = v.pbr_->cluster_length_;
  }
  // A file of the root whose record sits in slot `slot` of the root's first cluster.
  std::shared_ptr<Entry> addFile(const char* name, int slot) {
    auto e = std::make_shared<Entry>(&v);
    e->name_ = name;
    e->short_name_ = name;
    e->attr_ = velt::kAttrArchive;
    e->parent_ = root.get();
    e->dir_ent_disk_off_ = v.clusterOffset(v.pbr_->root_cluster_) + 32 * slot;
    root->children_.push_back(e);
    return e;
  }
  // Links `chain` in the FAT, gives it to `e` with `size` bytes and puts the pattern on the
  // card at the file offsets the clusters hold.
  void layChain(const std::shared_ptr<Entry>& e, const std::vector<uint32_t>& chain, int64_t size) {
    for (size_t i = 0; i < chain.size(); ++i) {
      v.pbr_->fat1_[chain[i]] = i + 1 < chain.size() ? chain[i + 1] : FAT_EOC;
      int64_t at = v.clusterOffset(chain[i]);
      for (uint32_t b = 0; b < len; ++b) (*f.disk)[at + b] = patternByte(i * len + b);
    }
    v.pbr_->setClusterChainUsed(chain.front());
    e->start_cluster_ = chain.front();
    e->size_ = e->real_size_ = size;
  }
};

}  // namespace

// A read takes one transfer per run of consecutive clusters, stops at the end of the file and
// refuses positions beyond it.
TEST(OpenFile, ReadsOneTransferPerRunAndClipsAtTheEnd) {
  Card c;
  struct Row {
    std::vector<uint32_t> chain;
    int64_t from;  // in bytes from the start of the file
    int64_t tail;  // bytes left unread at the end of the chain
    int transfers;
  } rows[] = {
      {{5, 6, 7, 9}, 100, 100, 2}, {{19, 17, 15}, 1, 1, 3}, {{20, 21, 40, 41, 42, 11}, 7000, 300, 3},
  };
  std::shared_ptr<velt::VELT::File> file;
  for (const auto& r : rows) {
    SCOPED_TRACE("chain from " + std::to_string(r.chain.front()));
    auto e = c.addFile("F", 1 + static_cast<int>(&r - rows));
    const int64_t size = static_cast<int64_t>(r.chain.size()) * c.len - r.tail;
    c.layChain(e, r.chain, size);
    file = c.v.newFile(false, false, false, e);
    ASSERT_NE(file, nullptr);
    c.f.driver->requests.clear();
    std::vector<uint8_t> buf(size);
    ASSERT_EQ(file->read(buf.data(), size, r.from), size - r.from);
    EXPECT_EQ(std::count_if(c.f.driver->requests.begin(), c.f.driver->requests.end(),
                            [](const auto& q) { return q.kind == 'r'; }),
              r.transfers);
    for (int64_t i = 0; i < size - r.from; ++i) {
      ASSERT_EQ(buf[i], patternByte(r.from + i)) << "byte " << r.from + i;
    }
    EXPECT_EQ(file->direct_offset_, size);
  }
  const int64_t size = 6 * c.len - 300;  // the last file's
  const std::tuple<int64_t, size_t, int> clips[] = {
      {size - 10, 100, 10}, {size, 100, 0}, {size + 1, 100, -EAGAIN}, {c.len - 1, 2, 2},
      {-1, 10, -EINVAL}};
  for (const auto& [off, want, result] : clips) {
    std::vector<uint8_t> buf(want + 1, 0xEE);
    EXPECT_EQ(file->read(buf.data(), want, off), result) << off;
    for (int i = 0; i < result; ++i) EXPECT_EQ(buf[i], patternByte(off + i));
    EXPECT_TRUE(result < 0 || buf[result] == 0xEE) << "nothing beyond the answer";
  }
  // A chain that claims the root directory's cluster holds no file data.
  auto bad = c.addFile("B", 9);
  bad->start_cluster_ = c.v.pbr_->root_cluster_;
  bad->size_ = 10;
  auto bad_file = c.v.newFile(false, false, false, bad);
  ASSERT_NE(bad_file, nullptr);
  uint8_t b[10];
  EXPECT_EQ(bad_file->read(b, 10, 0), -EINVAL);
  ASSERT_EQ(file->close(), 0);
  EXPECT_EQ(file->read(b, 10, 0), -EBADF);
}

TEST(OpenFile, FailedWriteSticksButAFullCardDoesNot) {
  Card c;
  auto e = c.addFile("F", 1);
  auto file = c.v.newFile(false, true, false, e);
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
  EXPECT_EQ(file->write(data.data(), 100, 50 * c.len), first);
  EXPECT_EQ(c.f.driver->requests.size(), before) << "a failed file touches the card no more";
  EXPECT_EQ(e->size_, 1000);
  // A card with no free cluster: -ENOSPC, and no sticky error.
  auto e2 = c.addFile("G", 2);
  auto file2 = c.v.newFile(false, true, false, e2);
  ASSERT_NE(file2, nullptr);
  ASSERT_EQ(file2->write(data.data(), 10, 0), 10);
  uint32_t last = 0;
  for (uint32_t k = 2; k < c.v.pbr_->num_clusters_; ++k) {
    if (c.v.pbr_->fat1_[k] != 0) continue;
    c.v.pbr_->fat1_[k] = FAT_EOC;  // taken by something else, as a loaded tree would
    c.v.pbr_->setClusterChainUsed(last = k);
  }
  EXPECT_EQ(file2->write(data.data(), 10, c.len + 5), -ENOSPC);
  EXPECT_EQ(file2->error_, 0);
  EXPECT_EQ(file2->write(data.data(), 10, 20), 10) << "a write inside the chain still works";
  c.v.pbr_->fat1_[last] = 0;
  c.v.pbr_->fat1_flags_[last / 8] &= static_cast<uint8_t>(~(1u << (last % 8)));
  EXPECT_EQ(file2->write(data.data(), 10, c.len + 5), 10);
  EXPECT_EQ(e2->size_, c.len + 15);
}
