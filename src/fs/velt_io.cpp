// Buffered I/O on absolute card offsets. Reads go to the driver in runs of uncached sectors;
// writes gather in a 1 MiB buffer placed on a 64 KiB boundary, so that a stream reaches the card
// as large aligned writes, while a small write costs only the sectors it changes. The buffer
// stays pending across contiguous writes and goes to the card when it is full, when a write does
// not continue it, and at an explicit flush. A large write (the mount's and the channel's
// pieces of a stream reach a megabyte) is not copied: the pending buffer is completed to the
// next boundary and written, and the aligned rest goes to the card from the caller's memory in
// pieces of up to 1 MiB; only what is left behind the last boundary gathers in the buffer.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

#include "fs/velt.h"
#include "fs/velt_file.h"

namespace velt {

static constexpr const char kLogTag[] = "VELT";

namespace {

constexpr int64_t kWriteAlign = 0x10000;  // the write buffer starts on a 64 KiB boundary
constexpr int kBufferSectors = static_cast<int>(VELT_BUFFER_SIZE / VELT_SECTOR_SIZE);

// Card write accounting for benchmarks: when VELT_WRITE_STATS names a file, every write request
// rewrites it with the running totals "requests sectors\n". Off (and free) otherwise.
class WriteStats {
 public:
  WriteStats() {
    const char* path = getenv("VELT_WRITE_STATS");
    if (path != nullptr && *path != '\0') fd_ = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  }
  ~WriteStats() {
    if (fd_ >= 0) close(fd_);
  }
  void note(int sectors) {
    if (fd_ < 0) return;
    requests_ += 1;
    sectors_ += static_cast<uint64_t>(sectors);
    char line[64];
    int n = snprintf(line, sizeof(line), "%20llu %20llu\n", static_cast<unsigned long long>(requests_),
                     static_cast<unsigned long long>(sectors_));
    if (n > 0 && pwrite(fd_, line, static_cast<size_t>(n), 0) < 0) {
      close(fd_);
      fd_ = -1;
    }
  }

 private:
  int fd_ = -1;
  uint64_t requests_ = 0;  // guarded by the volume's io_mutex_, like every driver write
  uint64_t sectors_ = 0;
};

WriteStats& writeStats() {
  static WriteStats stats;
  return stats;
}

}  // namespace

// Overlays what the pending write buffer holds for [offset, offset + size) onto dst, so that a
// read never returns card content older than a completed write.
static void overlayPendingWrite(const VELT& v, uint8_t* dst, int size, int64_t offset) {
  if (v.write_start_sector_ < 0 || v.write_ptr_ <= v.write_skip_) return;
  const int64_t buf_start = v.write_start_sector_ * VELT_SECTOR_SIZE;
  // Whole sectors from the skip on are current (a partial last sector is completed on write).
  const int64_t buf_end = buf_start + ((static_cast<int64_t>(v.write_ptr_) + VELT_SECTOR_SIZE - 1) /
                                       VELT_SECTOR_SIZE) * VELT_SECTOR_SIZE;
  const int64_t from = std::max(offset, buf_start + v.write_skip_);
  const int64_t to = std::min(offset + size, buf_end);
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
  // Without a cache no sector is looked up (a cache made meanwhile starts empty).
  bool cached;
  {
    std::lock_guard<std::mutex> lock(cache_mutex_);
    cached = cache_pool_ != nullptr;
  }

  const bool direct_any = driver_->cardFd() >= 0;
  // Fetches a run of uncached sectors; false when the driver failed.
  auto fetch = [&](int64_t start, int64_t count, int skip) -> bool {
    while (count > 0 && to_deliver > 0) {
      int ask = static_cast<int>(std::min<int64_t>(count, kBufferSectors));
      // Whole sectors go straight to the destination, without the copy through the transfer
      // buffer, when it is page-aligned or the backend reads into any memory (a descriptor).
      if (skip == 0 && (direct_any || (reinterpret_cast<uintptr_t>(dst) & 4095) == 0) &&
          static_cast<int64_t>(ask) * VELT_SECTOR_SIZE <= to_deliver) {
        int got = driver_->readSectors(static_cast<uint32_t>(start), ask, dst);
        if (got < 1) return false;
        if (got > ask) got = ask;
        const int64_t n = static_cast<int64_t>(got) * VELT_SECTOR_SIZE;
        dst += n;
        to_deliver -= n;
        start += got;
        count -= got;
        continue;
      }
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
    if (!cached || lookupCache(static_cast<uint32_t>(sector), sector_data) != 0) {
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

int cardFdFor(VELT& v, const std::vector<CardRun>& runs) {
  std::lock_guard<std::mutex> lock(v.io_mutex_);
  if (v.driver_ == nullptr) return -1;
  const int fd = v.driver_->cardFd();
  if (fd < 0 || v.write_start_sector_ < 0 || v.write_ptr_ <= v.write_skip_) return fd;
  // The pending range as overlayPendingWrite sees it.
  const int64_t buf_start = v.write_start_sector_ * VELT_SECTOR_SIZE;
  const int64_t from = buf_start + v.write_skip_;
  const int64_t to = buf_start + ((static_cast<int64_t>(v.write_ptr_) + VELT_SECTOR_SIZE - 1) /
                                  VELT_SECTOR_SIZE) * VELT_SECTOR_SIZE;
  for (const CardRun& run : runs) {
    if (run.offset < to && run.offset + run.length > from) return -1;
  }
  return fd;
}

int VELT::read(void* dst, int size, int64_t offset) {
  std::lock_guard<std::mutex> lock(io_mutex_);
  return __read(dst, size, offset);
}

void VELT::resetWriteBuffer() {
  write_ptr_ = 0;
  write_skip_ = 0;
  write_start_sector_ = -1;
}

int VELT::__flush() {
  if (write_start_sector_ < 0) return 0;
  int count = static_cast<int>((write_ptr_ + VELT_SECTOR_SIZE - 1) / VELT_SECTOR_SIZE);
  if (static_cast<size_t>(count) * VELT_SECTOR_SIZE > VELT_BUFFER_SIZE) {
    NERIO_ASSERT_MSG(static_cast<size_t>(count) * VELT_SECTOR_SIZE <= VELT_BUFFER_SIZE,
                     ": %d*512 = %d <= %d\n", count, count * VELT_SECTOR_SIZE,
                     static_cast<int>(VELT_BUFFER_SIZE));
    count = kBufferSectors;
  }
  const int skip = static_cast<int>(write_skip_ / VELT_SECTOR_SIZE);
  count -= skip;
  if (count <= 0) {
    resetWriteBuffer();
    return 0;
  }
  int result = driver_ != nullptr
                   ? driver_->writeSectors(static_cast<uint32_t>(write_start_sector_ + skip), count,
                                           write_buffer_ + write_skip_)
                   : -1;
  if (result == count) writeStats().note(count);
  // What the card holds of these sectors is unknown after a failure: the cache's copies go, so
  // that it never holds bytes the card does not.
  if (result != count) cacheSectors(write_start_sector_ + skip, count, nullptr, false);
  // The buffer is emptied even after a failure: the caller learns of the loss from the result.
  resetWriteBuffer();
  if (result != count) {
    NERIO_ASSERT_MSG(result == count, ": %d == %d\n", result, count);
    errno = EIO;
    return -1;
  }
  return 0;
}

int VELT::flush() {
  std::lock_guard<std::mutex> lock(io_mutex_);
  return __flush();
}

// Writes whole sectors from src straight to the card (the write buffer is empty), keeping the
// sector cache in step; false (errno EIO) when the driver failed.
static bool writeDirect(VELT& v, int64_t first, int count, const uint8_t* src, bool cache) {
  int done = 0;
  while (done < count) {
    const int ask = std::min(count - done, kBufferSectors);
    const int result =
        v.driver_->writeSectors(static_cast<uint32_t>(first + done), ask, src + done * VELT_SECTOR_SIZE);
    if (result != ask) {
      // The pieces before this one are on the card; what it holds in this one is unknown now,
      // so no copy of it may be trusted.
      v.cacheSectors(first, done, src, cache);
      v.cacheSectors(first + done, ask, nullptr, false);
      LOGE("write.io_write error\n");
      errno = EIO;
      return false;
    }
    writeStats().note(ask);
    done += ask;
  }
  v.cacheSectors(first, count, src, cache);
  return true;
}

// Current content of one sector into dst, from the cache or the card; false on a driver failure.
bool VELT::fetchSector(int64_t sector, uint8_t* dst) {
  if (lookupCache(static_cast<uint32_t>(sector), dst) == 0) return true;
  if (driver_->readSectors(static_cast<uint32_t>(sector), 1, dst) == 1) return true;
  LOGE("write.io_read error\n");
  errno = EIO;
  return false;
}

int VELT::write(const void* src_ptr, uint32_t len, int64_t off, bool cache) {
  if (len == 0) return 0;
  if (off < 0) return -1;
  if (read_only_) {
    errno = EROFS;
    return -1;
  }
  const uint8_t* src = static_cast<const uint8_t*>(src_ptr);
  std::lock_guard<std::mutex> lock(io_mutex_);
  if (driver_ == nullptr || write_buffer_ == nullptr) return -1;

  // The sector that holds the buffer's partial last byte when its content beyond is known.
  int64_t valid_tail = -1;
  if (write_start_sector_ >= 0) {
    const bool continues =
        off == write_start_sector_ * VELT_SECTOR_SIZE + static_cast<int64_t>(write_ptr_);
    if (!continues) {
      if (__flush() != 0) return -1;
    } else if (write_ptr_ % VELT_SECTOR_SIZE != 0) {
      valid_tail = write_start_sector_ + write_ptr_ / VELT_SECTOR_SIZE;
    }
  }

  int64_t remaining = len;
  while (remaining > 0) {
    const int64_t sector = off / VELT_SECTOR_SIZE;
    const int in_sector = static_cast<int>(off % VELT_SECTOR_SIZE);
    const int64_t to_boundary = (kWriteAlign - off % kWriteAlign) % kWriteAlign;
    // Enough behind the next boundary to go out uncopied: the buffer (a contiguous one ends at
    // off) is completed to that boundary and written first.
    const bool uncopied = remaining - to_boundary >= kUncopiedWrite;
    if (uncopied && to_boundary == 0) {
      if (write_start_sector_ >= 0 && __flush() != 0) return -1;
      const int64_t n = remaining - remaining % kWriteAlign;
      if (!writeDirect(*this, sector, static_cast<int>(n / VELT_SECTOR_SIZE), src, cache)) return -1;
      off += n;
      src += n;
      remaining -= n;
      continue;
    }
    if (write_start_sector_ < 0) {
      // A new buffer on the 64 KiB boundary at or below off; nothing before off is read.
      write_start_sector_ = (off - off % kWriteAlign) / VELT_SECTOR_SIZE;
      write_skip_ = static_cast<uint32_t>((sector - write_start_sector_) * VELT_SECTOR_SIZE);
      write_ptr_ = static_cast<uint32_t>(off - write_start_sector_ * VELT_SECTOR_SIZE);
      if (in_sector != 0 || in_sector + remaining < VELT_SECTOR_SIZE) {
        if (!fetchSector(sector, write_buffer_ + write_skip_)) {
          resetWriteBuffer();
          return -1;
        }
        valid_tail = sector;
      }
    }
    // The buffer ends on a boundary, so an uncopied write's boundary lies within it.
    const int64_t n =
        uncopied
            ? to_boundary
            : std::min<int64_t>(static_cast<int64_t>(VELT_BUFFER_SIZE) - write_ptr_, remaining);
    memcpy(write_buffer_ + write_ptr_, src, static_cast<size_t>(n));
    cacheSectors(sector, (in_sector + n) / VELT_SECTOR_SIZE,
                 write_buffer_ + (sector - write_start_sector_) * VELT_SECTOR_SIZE, cache);
    write_ptr_ += static_cast<uint32_t>(n);
    off += n;
    src += n;
    remaining -= n;
    if ((uncopied || write_ptr_ >= VELT_BUFFER_SIZE) && __flush() != 0) return -1;
  }

  // Complete a partial last sector from its current content so that a flush writes whole
  // sectors; a later contiguous write overwrites the completed bytes.
  if (write_start_sector_ >= 0 && write_ptr_ % VELT_SECTOR_SIZE != 0) {
    const int64_t tail_sector = write_start_sector_ + write_ptr_ / VELT_SECTOR_SIZE;
    uint8_t* tail = write_buffer_ + (write_ptr_ / VELT_SECTOR_SIZE) * VELT_SECTOR_SIZE;
    if (tail_sector != valid_tail) {
      if (!fetchSector(tail_sector, sector_buffer_)) {
        // Keep what earlier writes left pending; this write's last partial sector is lost.
        write_ptr_ -= write_ptr_ % VELT_SECTOR_SIZE;
        if (write_ptr_ <= write_skip_) resetWriteBuffer();
        return -1;
      }
      const uint32_t from = write_ptr_ % VELT_SECTOR_SIZE;
      memcpy(tail + from, sector_buffer_ + from, VELT_SECTOR_SIZE - from);
    }
    cacheSectors(tail_sector, 1, tail, cache);
  }
  return static_cast<int>(len);
}

int VELT::sync() {
  std::lock_guard<std::mutex> lock(io_mutex_);
  if (driver_ == nullptr) {
    errno = EIO;
    return -1;
  }
  bool ok = write_start_sector_ < 0 || __flush() == 0;
  if (driver_->flush() != 0) ok = false;
  if (!ok) errno = EIO;
  if (ok) sync_count_.fetch_add(1, std::memory_order_release);
  return ok ? 0 : -1;
}

}  // namespace velt
