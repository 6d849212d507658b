#include "fake_driver.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "fs/velt_dirent.h"

namespace velt_test {

namespace {

// The sectors a request moves: the next queued answer (<= 0: a failure), at most `count`.
int answer(std::deque<int>* answers, int count) {
  if (answers->empty()) return count;
  const int n = answers->front();
  answers->pop_front();
  return std::min(n, count);
}

}  // namespace

int FakeDriver::readSectors(uint32_t start, int count, void* buffer) {
  requests.push_back({'r', start, count});
  const int n = answer(&read_answers_, count);
  const size_t from = static_cast<size_t>(start) * 512, bytes = static_cast<size_t>(n) * 512;
  if (n < 1 || from + bytes > data_.size()) return n < 1 ? n : -1;
  memcpy(buffer, data_.data() + from, bytes);
  return n;
}

int FakeDriver::writeSectors(uint32_t start, int count, const void* buffer) {
  requests.push_back({'w', start, count});
  const int n = answer(&write_answers_, count);
  const size_t from = static_cast<size_t>(start) * 512, bytes = static_cast<size_t>(n) * 512;
  if (n < 1 || from + bytes > data_.size()) return n < 1 ? n : -1;
  memcpy(data_.data() + from, buffer, bytes);
  return n;
}

FakeVolume::FakeVolume(uint32_t sectors) {
  volume = std::make_shared<velt::VELT>("/dev/mmcblk0p1", 1, velt::kVELTOpMount, 0);
  auto fake = std::make_unique<FakeDriver>(sectors);
  driver = fake.get();
  disk = fake->disk_;
  volume->driver_ = std::move(fake);
  volume->device_fd_ = open("/dev/null", O_RDONLY | O_CLOEXEC);
  volume->allocBuffers();
}

bool FakeVolume::formatInMemory() {
  auto& v = *volume;
  v.mbr_ = new velt::MBR(&v);
  if (v.mbr_->format() != 0) return false;
  velt::Partition p;
  if (v.mbr_->getFAT32Partition(1, &p) < 0) return false;
  v.pbr_ = new velt::PBR(&v, 1, &p);
  // 16 KiB clusters whatever the size: the fakes are far too small for a real FAT32.
  v.pbr_->format_sectors_per_cluster_ = 32;
  return v.pbr_->format() == 0;
}

FakeCard::FakeCard() : f(131072) {
  EXPECT_TRUE(f.formatInMemory());
  v = f.volume.get();
  pbr = v->pbr_;
  root = std::make_shared<velt::VELT::DirEntry>(v);
  root->is_dir_ = true;
  root->attr_ = velt::kAttrDirectory;
  root->start_cluster_ = pbr->root_cluster_;
  pbr->setClusterChainUsed(pbr->root_cluster_);  // reached by the tree, as loading marks it
  EXPECT_EQ(root->loadClusterMap(), 0);
  root->entry_map_.assign(perCluster(), 0);
  v->root_ = root;
}

FakeCard::~FakeCard() {
  std::lock_guard<std::mutex> lock(v->response_mutex_);
  for (auto* item : v->responses_) delete item;
  v->responses_.clear();
}

std::string FakeCard::rec(int64_t off) {
  std::string r(32, '\0');
  EXPECT_EQ(v->read(r.data(), 32, off), 32);
  return r;
}

std::string FakeCard::slot(velt::VELT::DirEntry& dir, int index) {
  return rec(dir.entryIndexToDiskOffset(index));
}

std::shared_ptr<velt::VELT::DirEntry> FakeCard::create(const char* name, bool is_dir,
                                                       std::shared_ptr<velt::VELT::DirEntry> dir) {
  int err = 0;
  auto e = (dir ? dir : root)->createChild(name, false, is_dir, nullptr, &err);
  EXPECT_NE(e, nullptr) << name << ": " << err;
  return e;
}

std::vector<uint8_t> FakeCard::snapshot() {
  v->flush();
  return *f.disk;
}

}  // namespace velt_test
