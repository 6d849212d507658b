// Buffered I/O on absolute card offsets. Reads go to the driver in runs of uncached sectors;
// writes gather in a 1 MiB buffer that always starts on a 64 KiB boundary, so the card sees
// large aligned writes.
#include <algorithm>
#include <cstring>

#include "fs/velt.h"

namespace velt {

static constexpr const char kLogTag[] = "VELT";

namespace {

constexpr int64_t kWriteAlign = 0x10000;  // the write buffer starts on a 64 KiB boundary
constexpr int kBufferSectors = static_cast<int>(VELT_BUFFER_SIZE / VELT_SECTOR_SIZE);

}  // namespace

// Overlays what the pending write buffer holds for [offset, offset + size) onto dst, so that a
// read never returns card content older than a completed write.
static void overlayPendingWrite(const VELT& v, uint8_t* dst, int size, int64_t offset) {
  if (v.write_start_sector_ < 0 || v.write_ptr_ == 0) return;
  int64_t buf_start = v.write_start_sector_ * VELT_SECTOR_SIZE;
  // Whole sectors of the buffer are current (a partial last sector is completed on write).
  int64_t buf_end = buf_start + ((static_cast<int64_t>(v.write_ptr_) + VELT_SECTOR_SIZE - 1) /
                                 VELT_SECTOR_SIZE) * VELT_SECTOR_SIZE;
  int64_t from = std::max(offset, buf_start);
  int64_t to = std::min(offset + size, buf_end);
  if (from >= to) return;
  memcpy(dst + (from - offset), v.write_buffer_ + (from - buf_start), static_cast<size_t>(to - from));
}

int VELT::__read(void* dst_ptr, int size, int64_t offset) {
  if (size < 1) return 0;
  if (driver_ == nullptr || read_buffer_ == nullptr) return -1;
  uint8_t* const dst_start = static_cast<uint8_t*>(dst_ptr);
  uint8_t* dst = dst_start;
  int64_t position = offset;
  int64_t to_scan = size;
  int64_t to_deliver = size;
  bool run_pending = false;
  int64_t run_start = 0;
  int run_skip = 0;
  uint8_t sector_data[VELT_SECTOR_SIZE];

  // Fetches a run of uncached sectors; false when the driver failed.
  auto fetch = [&](int64_t start, int64_t count, int skip) -> bool {
    while (count > 0 && to_deliver > 0) {
      int ask = static_cast<int>(std::min<int64_t>(count, kBufferSectors));
      int got = driver_->readSectors(static_cast<uint32_t>(start), ask, read_buffer_);
      if (got < 1) return false;
      if (got > ask) got = ask;
      int64_t n = std::min<int64_t>(static_cast<int64_t>(got) * VELT_SECTOR_SIZE - skip, to_deliver);
      memcpy(dst, read_buffer_ + skip, static_cast<size_t>(n));
      dst += n;
      to_deliver -= n;
      start += got;
      count -= got;
      skip = 0;
    }
    return true;
  };

  while (to_scan > 0) {
    int64_t sector = position / VELT_SECTOR_SIZE;
    int in_sector = static_cast<int>(position % VELT_SECTOR_SIZE);
    int64_t n = std::min<int64_t>(VELT_SECTOR_SIZE - in_sector, to_scan);
    if (lookupCache(static_cast<uint32_t>(sector), sector_data) != 0) {
      if (!run_pending) {
        run_pending = true;
        run_start = sector;
        run_skip = in_sector;
      }
      position += n;
      to_scan -= n;
      continue;
    }
    if (run_pending) {
      int64_t count = sector - run_start;
      if (!(count > 0 && to_deliver > 0)) NERIO_ASSERT_TEXT("sector_count > 0 && size > 0");
      if (!fetch(run_start, count, run_skip)) return -1;
      run_pending = false;
    }
    int64_t copy = std::min<int64_t>(VELT_SECTOR_SIZE - in_sector, to_deliver);
    NERIO_ASSERT_MSG(copy > 0, ": %zd > 0\n", static_cast<ssize_t>(copy));
    if (copy > 0) {
      memcpy(dst, sector_data + in_sector, static_cast<size_t>(copy));
      dst += copy;
      to_deliver -= copy;
    }
    position += copy > 0 ? copy : n;
    to_scan -= copy > 0 ? copy : n;
  }
  if (run_pending) {
    int64_t count = (offset + size - 1) / VELT_SECTOR_SIZE + 1 - run_start;
    if (count < 1) {
      NERIO_ASSERT_TEXT("sector_count > 0");
    } else if (!fetch(run_start, count, run_skip)) {
      return -1;
    }
  }
  if (to_deliver != 0) NERIO_ASSERT_TEXT("size == 0");
  int delivered = static_cast<int>(dst - dst_start);
  overlayPendingWrite(*this, dst_start, delivered, offset);
  return delivered;
}

int VELT::read(void* dst, int size, int64_t offset) {
  std::lock_guard<std::mutex> lock(io_mutex_);
  return __read(dst, size, offset);
}

int VELT::__flush() {
  if (write_start_sector_ < 0) return -1;
  int count = static_cast<int>((write_ptr_ + VELT_SECTOR_SIZE - 1) / VELT_SECTOR_SIZE);
  if (static_cast<size_t>(count) * VELT_SECTOR_SIZE > VELT_BUFFER_SIZE) {
    NERIO_ASSERT_MSG(static_cast<size_t>(count) * VELT_SECTOR_SIZE <= VELT_BUFFER_SIZE,
                     ": %d*512 = %d <= %d\n", count, count * VELT_SECTOR_SIZE,
                     static_cast<int>(VELT_BUFFER_SIZE));
    count = kBufferSectors;
  }
  if (count == 0) {
    write_ptr_ = 0;
    write_start_sector_ = -1;
    return 0;
  }
  int result = driver_ != nullptr
                   ? driver_->writeSectors(static_cast<uint32_t>(write_start_sector_), count,
                                           write_buffer_)
                   : -1;
  write_ptr_ = 0;
  write_start_sector_ = -1;
  if (result != count) {
    NERIO_ASSERT_MSG(result == count, ": %d == %d\n", result, count);
    return -1;
  }
  return 0;
}

int VELT::flush() {
  std::lock_guard<std::mutex> lock(io_mutex_);
  return __flush();
}

int VELT::write(const void* src_ptr, uint32_t len, int64_t off, bool cache) {
  if (len == 0) return 0;
  const uint8_t* src = static_cast<const uint8_t*>(src_ptr);
  const int64_t end = off + static_cast<int64_t>(len) - 1;
  const int64_t end_sector = end / VELT_SECTOR_SIZE;
  const int end_offset = static_cast<int>(end % VELT_SECTOR_SIZE);
  std::lock_guard<std::mutex> lock(io_mutex_);
  if (driver_ == nullptr || write_buffer_ == nullptr) return -1;

  // Place the write buffer.
  bool continues = write_start_sector_ >= 0 &&
                   off == write_start_sector_ * VELT_SECTOR_SIZE + static_cast<int64_t>(write_ptr_);
  if (!continues) {
    if (write_start_sector_ >= 0) __flush();
    if (off % kWriteAlign != 0) {
      int64_t aligned_offset = off - off % kWriteAlign;
      int64_t lookahead_size = off - aligned_offset;
      NERIO_ASSERT(aligned_offset < off);
      NERIO_ASSERT(lookahead_size < static_cast<int64_t>(VELT_BUFFER_SIZE));
      int64_t read_size = (lookahead_size + VELT_SECTOR_SIZE - 1) / VELT_SECTOR_SIZE * VELT_SECTOR_SIZE;
      read_size = std::min<int64_t>(read_size, VELT_BUFFER_SIZE);
      int got = __read(write_buffer_, static_cast<int>(read_size), aligned_offset);
      if (got != read_size) {
        NERIO_ASSERT_MSG(got == read_size, ": %zd == %zd\n", static_cast<ssize_t>(got),
                         static_cast<ssize_t>(read_size));
        return -1;
      }
      write_ptr_ = static_cast<uint32_t>(lookahead_size);
      write_start_sector_ = aligned_offset / VELT_SECTOR_SIZE;
      NERIO_ASSERT(write_ptr_ < VELT_BUFFER_SIZE);
      NERIO_ASSERT(write_start_sector_ * 512ll + write_ptr_ == off);
    }
  }

  int64_t remaining = len;
  while (remaining > 0) {
    int64_t sector = off / VELT_SECTOR_SIZE;
    int in_sector = static_cast<int>(off % VELT_SECTOR_SIZE);
    int64_t n;
    if (write_start_sector_ < 0) {
      NERIO_ASSERT(write_ptr_ == 0);
      n = std::min<int64_t>(VELT_SECTOR_SIZE - in_sector, remaining);
      if (in_sector != 0 || n != VELT_SECTOR_SIZE) {
        if (lookupCache(static_cast<uint32_t>(sector), write_buffer_) != 0) {
          if (driver_->readSectors(static_cast<uint32_t>(sector), 1, write_buffer_) != 1) {
            LOGE("write.io_read error\n");
            return -1;
          }
        }
      }
      write_ptr_ = static_cast<uint32_t>(in_sector);
      memcpy(write_buffer_ + write_ptr_, src, static_cast<size_t>(n));
      write_start_sector_ = sector;
      write_ptr_ += static_cast<uint32_t>(n);
      if (cache) {
        updateCache(static_cast<uint32_t>(sector), write_buffer_);
      } else {
        dropCache(static_cast<uint32_t>(sector));
      }
    } else {
      NERIO_ASSERT_MSG(write_start_sector_ * 512ll + write_ptr_ == off,
                       ": %lld*512 (%lld) + %d == %jd\n",
                       static_cast<long long>(write_start_sector_),
                       static_cast<long long>(write_start_sector_ * 512ll),
                       static_cast<int>(write_ptr_), static_cast<intmax_t>(off));
      n = std::min<int64_t>(static_cast<int64_t>(VELT_BUFFER_SIZE) - write_ptr_, remaining);
      memcpy(write_buffer_ + write_ptr_, src, static_cast<size_t>(n));
      int64_t completed = (in_sector + n) / VELT_SECTOR_SIZE;
      for (int64_t i = 0; i < completed; ++i) {
        int64_t s = sector + i;
        if (cache) {
          updateCache(static_cast<uint32_t>(s),
                      write_buffer_ + (s - write_start_sector_) * VELT_SECTOR_SIZE);
        } else {
          dropCache(static_cast<uint32_t>(s));
        }
      }
      write_ptr_ += static_cast<uint32_t>(n);
    }
    off += n;
    src += n;
    remaining -= n;
    if (write_ptr_ >= VELT_BUFFER_SIZE) __flush();
  }
  NERIO_ASSERT_MSG(off == end_sector * 512ll + end_offset + 1, ": %jd == %lld*512(%lld) + %d + 1\n",
                   static_cast<intmax_t>(off), static_cast<long long>(end_sector),
                   static_cast<long long>(end_sector * 512ll), end_offset);

  // Complete a partial last sector from its current content so a flush writes whole sectors.
  if (write_start_sector_ >= 0 && write_ptr_ % VELT_SECTOR_SIZE != 0) {
    NERIO_ASSERT(write_start_sector_ + write_ptr_ / 512 == end_sector);
    uint8_t* tail = write_buffer_ + (write_ptr_ / VELT_SECTOR_SIZE) * VELT_SECTOR_SIZE;
    uint32_t tail_sector = static_cast<uint32_t>(write_start_sector_ + write_ptr_ / VELT_SECTOR_SIZE);
    if (lookupCache(tail_sector, sector_buffer_) != 0) {
      if (driver_->readSectors(tail_sector, 1, sector_buffer_) != 1) {
        LOGE("write.io_read error\n");
        return -1;
      }
    }
    uint32_t from = write_ptr_ % VELT_SECTOR_SIZE;
    memcpy(tail + from, sector_buffer_ + from, VELT_SECTOR_SIZE - from);
    if (cache) {
      updateCache(tail_sector, tail);
    } else {
      dropCache(tail_sector);
    }
  }

  if (write_start_sector_ >= 0) {
    bool has_cache;
    {
      std::lock_guard<std::mutex> cache_lock(cache_mutex_);
      has_cache = cache_pool_ != nullptr;
    }
    if (!has_cache) __flush();
  }
  return static_cast<int>(len);
}

}  // namespace velt
