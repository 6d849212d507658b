// Shared by the fuzz targets, the libFuzzer entry points and the replay of regression inputs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "fs/velt.h"

namespace velt::fuzz {

// A card held in memory behind the volume's block-driver interface.
class MemoryDriver : public BlockDriver {
 public:
  explicit MemoryDriver(std::shared_ptr<std::vector<uint8_t>> disk) : disk_(std::move(disk)) {}
  int readSectors(uint32_t start, int count, void* buffer) override;
  int writeSectors(uint32_t start, int count, const void* buffer) override;
  int64_t sizeInSectors() override { return static_cast<int64_t>(disk_->size() / 512); }

 private:
  std::shared_ptr<std::vector<uint8_t>> disk_;
};

// Mounts the card the way the daemon does (partition 1), with the driver above; empty when the
// mount refuses it.
std::shared_ptr<VELT> mountMemoryCard(std::shared_ptr<std::vector<uint8_t>> disk);

// The targets: a whole card image, and a byte stream sent to the channel's request pipe.
int fuzzCard(const uint8_t* data, size_t size);
int fuzzChannel(const uint8_t* data, size_t size);

}  // namespace velt::fuzz
