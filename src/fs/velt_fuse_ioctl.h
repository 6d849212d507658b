// Control commands issued with ioctl on any open file of the mount (type 'E'). The records are
// fixed-size and in the machine's byte order; FUSE copies them in and out.
#pragma once

#include <cstdint>

namespace velt {

// u32 mode: bit 1 = write through the sector cache, bit 0 = read cache mode.
constexpr unsigned int VELT_IOC_SET_CACHE_MODE = 0x40044500;
// Out: u32 waiting normal requests, u32 waiting event requests of the direct channel.
constexpr unsigned int VELT_IOC_GET_QUEUE_LENGTHS = 0x80084504;
// In: u32 handle at 0 (4 reserved bytes follow); out: int64 size at 8.
constexpr unsigned int VELT_IOC_GET_FILE_SIZE = 0xC0104503;
// i32 sector-cache size in bytes; 0 switches the cache off, 1..1023 and negatives are refused.
constexpr unsigned int VELT_IOC_SET_CACHE_SIZE = 0x40044505;

constexpr int kVELTMinCacheSize = 1024;

struct VELTFileSizeRecord {
  uint32_t handle;
  uint32_t reserved;
  int64_t size;
};
static_assert(sizeof(VELTFileSizeRecord) == 16, "the record's size is part of the command");

struct VELTQueueLengthsRecord {
  uint32_t normal;
  uint32_t event;
};
static_assert(sizeof(VELTQueueLengthsRecord) == 8, "the record's size is part of the command");

}  // namespace velt
