// A block driver held in memory that records every request and can answer short or fail on cue.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "fs/velt.h"

namespace velt_test {

struct DriverRequest {
  char kind;  // 'r', 'w' or 'f' (flush)
  uint32_t start;
  int count;
  bool operator==(const DriverRequest& o) const {
    return kind == o.kind && start == o.start && count == o.count;
  }
};

class FakeDriver : public velt::BlockDriver {
 public:
  explicit FakeDriver(uint32_t sectors)
      : disk_(std::make_shared<std::vector<uint8_t>>(static_cast<size_t>(sectors) * 512, 0)),
        data_(*disk_) {}

  int readSectors(uint32_t start, int count, void* buffer) override;
  int writeSectors(uint32_t start, int count, const void* buffer) override;
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
  std::deque<int> read_answers_;
  std::deque<int> write_answers_;
};

// A volume with transfer buffers and a fake driver plugged in, without any device file
// (the device descriptor is /dev/null, so size requests reach the fake).
struct FakeVolume {
  explicit FakeVolume(uint32_t sectors);
  // Lays a FAT32 file system (in memory only) over the fake card: MBR and PBR formatted.
  bool formatInMemory();
  std::shared_ptr<velt::VELT> volume;
  FakeDriver* driver;                          // owned by the volume
  std::shared_ptr<std::vector<uint8_t>> disk;  // the driver's sectors
};

// A 64 MiB fake card formatted in memory (16 KiB clusters: 512 slots each) with an empty root,
// marked used as loading leaves it.
struct FakeCard {
  FakeCard();
  ~FakeCard();                   // deletes the replies a test produced and did not take
  std::string rec(int64_t off);  // the 32-byte record at a card offset
  std::string slot(velt::VELT::DirEntry& dir, int index);
  size_t perCluster() const { return pbr->cluster_length_ / 32; }
  // A child of `dir` (the root by default); a failure fails the test.
  std::shared_ptr<velt::VELT::DirEntry> create(const char* name, bool is_dir = false,
                                               std::shared_ptr<velt::VELT::DirEntry> dir = nullptr);
  // Everything the card holds, pending writes included.
  std::vector<uint8_t> snapshot();

  FakeVolume f;
  velt::VELT* v;
  velt::PBR* pbr;
  std::shared_ptr<velt::VELT::DirEntry> root;
};

}  // namespace velt_test
