// The card's master boot record: four primary partition entries in sector 0.
#pragma once

#include <cstdint>

namespace velt {

class VELT;

struct Partition {
  int32_t index = 0;  // slot 0..3
  bool valid = false;
  bool active = false;
  uint8_t type = 0;
  uint32_t lba = 0;  // first sector
  uint32_t bytes_per_sector = 0;  // found by probing
  uint32_t total_sectors = 0;
};

constexpr uint8_t kPartitionTypeFAT32CHS = 0x0B;
constexpr uint8_t kPartitionTypeFAT32LBA = 0x0C;
constexpr uint32_t kPartitionStartSector = 2048;

class MBR {
 public:
  explicit MBR(VELT* velt);
  ~MBR() = default;

  int read();
  // Slot index of partition `number` (from 1) when it is an accepted FAT32 entry, else -1.
  int getFAT32Partition(int number, Partition* out = nullptr) const;
  // Turns entry `number` into a FAT32-LBA entry spanning the device; written at once.
  int makeFAT32(int number);
  // Builds a one-partition table in memory.
  int format();
  int write();

  uint32_t disk_signature_ = 0;
  VELT* velt_;  // owner, not owned
  int32_t partition_count_ = 0;
  Partition partitions_[4];
  bool valid_ = false;
  bool dirty_ = false;
  uint8_t sector_[512] = {};

 private:
  uint32_t probeBytesPerSector(uint32_t lba);
};

}  // namespace velt
