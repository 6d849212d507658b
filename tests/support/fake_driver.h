// A block driver held in memory that records every request and can answer short or fail on cue.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "fs/velt.h"
#include "fs/velt_dirent.h"

namespace velt_test {

struct DriverRequest {
  char kind;  // 'r', 'w' or 'f' (flush)
  uint32_t start;
  int count;
  bool operator==(const DriverRequest& o) const = default;
};

class FakeDriver : public velt::BlockDriver {
 public:
  explicit FakeDriver(uint32_t sectors)
      : disk_(std::make_shared<std::vector<uint8_t>>(static_cast<size_t>(sectors) * 512, 0)),
        data_(*disk_) {}

  int readSectors(uint32_t start, int count, void* buffer) override {
    return transfer('r', &read_answers_, start, count,
                    [&](uint8_t* at, size_t n) { memcpy(buffer, at, n); });
  }
  int writeSectors(uint32_t start, int count, const void* buffer) override {
    return transfer('w', &write_answers_, start, count,
                    [&](uint8_t* at, size_t n) { memcpy(at, buffer, n); });
  }
  int64_t sizeInSectors() override {
    return reported_sectors >= 0 ? reported_sectors : static_cast<int64_t>(data_.size() / 512);
  }
  int64_t reported_sectors = -1;  // a card size to report instead of the held sectors
  // Recorded as {'f', 0, 0}.
  int flush() override {
    requests.push_back({'f', 0, 0});
    return 0;
  }

  // The next read (or write) answers with this many sectors (<= 0: a failure) instead.
  void queueReadAnswer(int sectors) { read_answers_.push_back(sectors); }
  void queueWriteAnswer(int sectors) { write_answers_.push_back(sectors); }

  std::vector<DriverRequest> requests;
  // The card's sectors; shared so that a test can still look at them after the volume has
  // released its driver.
  std::shared_ptr<std::vector<uint8_t>> disk_;
  std::vector<uint8_t>& data_;

 private:
  // Records the request and moves the sectors of the next queued answer (<= 0: a failure), at
  // most `count`.
  template <typename Move>
  int transfer(char kind, std::deque<int>* answers, uint32_t start, int count, Move move) {
    requests.push_back({kind, start, count});
    int n = count;
    if (!answers->empty()) n = std::min(answers->front(), count), answers->pop_front();
    const size_t from = static_cast<size_t>(start) * 512, bytes = static_cast<size_t>(n) * 512;
    if (n < 1 || from + bytes > data_.size()) return n < 1 ? n : -1;
    move(data_.data() + from, bytes);
    return n;
  }
  std::deque<int> read_answers_;
  std::deque<int> write_answers_;
};

// A volume with transfer buffers and a fake driver plugged in, without any device file
// (the device descriptor is /dev/null, so size requests reach the fake).
struct FakeVolume {
  explicit FakeVolume(uint32_t sectors)
      : volume(std::make_shared<velt::VELT>("/dev/mmcblk0p1", 1, velt::kVELTOpMount, 0)) {
    auto fake = std::make_unique<FakeDriver>(sectors);
    driver = fake.get();
    disk = fake->disk_;
    volume->driver_ = std::move(fake);
    volume->device_fd_ = open("/dev/null", O_RDONLY | O_CLOEXEC);
    volume->allocBuffers();
  }
  // Lays a FAT32 file system (in memory only) over the fake card: MBR and PBR formatted.
  bool formatInMemory() {
    auto& v = *volume;
    v.mbr_ = new velt::MBR(&v);
    velt::Partition p;
    if (v.mbr_->format() != 0 || v.mbr_->getFAT32Partition(1, &p) < 0) return false;
    v.pbr_ = new velt::PBR(&v, 1, &p);
    // 16 KiB clusters whatever the size: the fakes are far too small for a real FAT32.
    v.pbr_->format_sectors_per_cluster_ = 32;
    return v.pbr_->format() == 0;
  }
  std::shared_ptr<velt::VELT> volume;
  FakeDriver* driver;                          // owned by the volume
  std::shared_ptr<std::vector<uint8_t>> disk;  // the driver's sectors
};

// A 64 MiB fake card formatted in memory (16 KiB clusters: 512 slots each) with an empty root,
// marked used as loading leaves it.
struct FakeCard {
  FakeCard() : f(131072) {
    EXPECT_TRUE(f.formatInMemory());
    v = f.volume.get();
    pbr = v->pbr_;
    root = std::make_shared<velt::VELT::DirEntry>(v);
    root->is_dir_ = true;
    root->attr_ = velt::kAttrDirectory;
    root->start_cluster_ = pbr->root_cluster_;
    pbr->setClusterChainUsed(pbr->root_cluster_);  // reached by the tree, as loading marks it
    EXPECT_EQ(root->loadClusterMap(), 0);
    root->entry_map_.assign(pbr->cluster_length_ / 32, 0);
    v->root_ = root;
  }
  // Deletes the replies a test produced and did not take.
  ~FakeCard() {
    std::lock_guard<std::mutex> lock(v->response_mutex_);
    for (auto* item : v->responses_) delete item;
    v->responses_.clear();
  }
  // The 32-byte record in slot `index` of `dir`.
  std::string slot(velt::VELT::DirEntry& dir, int index) {
    std::string r(32, '\0');
    EXPECT_EQ(v->read(r.data(), 32, dir.entryIndexToDiskOffset(index)), 32);
    return r;
  }
  // A child of `dir` (the root by default); a failure fails the test.
  std::shared_ptr<velt::VELT::DirEntry> create(
      const char* name, bool is_dir = false, std::shared_ptr<velt::VELT::DirEntry> dir = nullptr) {
    int err = 0;
    auto e = (dir ? dir : root)->createChild(name, false, is_dir, nullptr, &err);
    EXPECT_NE(e, nullptr) << name << ": " << err;
    return e;
  }
  // Everything the card holds, pending writes included.
  std::vector<uint8_t> snapshot() {
    v->flush();
    return *f.disk;
  }

  FakeVolume f;
  velt::VELT* v;
  velt::PBR* pbr;
  std::shared_ptr<velt::VELT::DirEntry> root;
};

}  // namespace velt_test
