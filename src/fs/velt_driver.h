// Block driver backends: the only code that moves sectors between memory and the card.
//
// The companion driver's character device answers three ioctl requests; where there is no such
// driver, a card image (regular file) or the card's own block device is read and written with
// positional I/O under the same contract:
//   read:  answers 1..count sectors (fewer is a short answer, not a failure); < 1 is a failure;
//   write: answers exactly count, anything else is a failure;
//   size:  the card size in sectors, or -1;
//   flush: what the writes answered so far is on the card (or the backend cannot tell); 0 or -1.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace velt {

constexpr uint32_t kDriverSectorSize = 512;

class BlockDriver {
 public:
  virtual ~BlockDriver() = default;
  virtual int readSectors(uint32_t start_sector, int sector_count, void* buffer) = 0;
  virtual int writeSectors(uint32_t start_sector, int sector_count, const void* buffer) = 0;
  virtual int64_t sizeInSectors() = 0;
  // Writes may sit in a cache below us and reach the card in any order until this returns.
  virtual int flush() { return 0; }
  // A descriptor whose bytes at sector * 512 are the card's, for readers that move card bytes
  // without a copy through memory (the kernel's splice); -1 when the backend has none.
  virtual int cardFd() const { return -1; }
};

// Request codes of the companion driver (type 'o'). On a 64-bit host the request record carries
// a 64-bit buffer address and the codes encode its 16-byte size.
uint32_t veltIoctlWrite();
uint32_t veltIoctlRead();
uint32_t veltIoctlGetSize();

// Encodes the request record (start sector, count, buffer address) in the host's layout;
// returns its size in bytes (12 on a 32-bit host, 16 on a 64-bit host).
size_t encodeSectorRequest(uint8_t* out, uint32_t start_sector, int32_t sector_count,
                           const void* buffer);

// Picks the backend for an open descriptor by its file type: a character device speaks the
// driver's ioctl protocol, a regular file or block device is used with pread/pwrite. The
// descriptor stays owned by the caller. Null when the type is none of these.
std::unique_ptr<BlockDriver> makeBlockDriver(int fd);

// Resolves a platform path ("/dev/velt", the partition node, the channel's pipes) under the
// directory named by VELT_ROOT when that variable names a directory; otherwise unchanged.
std::string platformPath(const std::string& path);

}  // namespace velt
