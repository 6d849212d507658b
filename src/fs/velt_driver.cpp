#include "fs/velt_driver.h"

#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace velt {

namespace {

constexpr uint32_t kIocWrite = 1u;
constexpr uint32_t kIocRead = 2u;

constexpr uint32_t ioc(uint32_t dir, uint32_t nr, uint32_t size) {
  return (dir << 30) | (size << 16) | (static_cast<uint32_t>('o') << 8) | nr;
}

constexpr uint32_t kRequestSize = sizeof(void*) == 8 ? 16u : 12u;

void putLe32(uint8_t* p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
  p[2] = static_cast<uint8_t>(v >> 16);
  p[3] = static_cast<uint8_t>(v >> 24);
}

// The companion driver's character device.
class IoctlDriver : public BlockDriver {
 public:
  explicit IoctlDriver(int fd) : fd_(fd) {}
  int readSectors(uint32_t start, int count, void* buffer) override {
    uint8_t record[16];
    encodeSectorRequest(record, start, count, buffer);
    return ioctl(fd_, veltIoctlRead(), record);
  }
  int writeSectors(uint32_t start, int count, const void* buffer) override {
    uint8_t record[16];
    encodeSectorRequest(record, start, count, buffer);
    return ioctl(fd_, veltIoctlWrite(), record);
  }
  int64_t sizeInSectors() override {
    uint32_t sectors = 0;
    if (ioctl(fd_, veltIoctlGetSize(), &sectors) < 0) return -1;
    return sectors;
  }

 private:
  int fd_;
};

// A card image or a block device, read and written in whole sectors.
class PositionalDriver : public BlockDriver {
 public:
  PositionalDriver(int fd, bool block_device) : fd_(fd), block_device_(block_device) {}
  int readSectors(uint32_t start, int count, void* buffer) override {
    if (count < 1) return -1;
    size_t want = static_cast<size_t>(count) * kDriverSectorSize;
    off_t at = static_cast<off_t>(start) * kDriverSectorSize;
    size_t got = 0;
    auto* out = static_cast<uint8_t*>(buffer);
    while (got < want) {
      ssize_t n = pread(fd_, out + got, want - got, at + static_cast<off_t>(got));
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      got += static_cast<size_t>(n);
    }
    int sectors = static_cast<int>(got / kDriverSectorSize);
    return sectors > 0 ? sectors : -1;
  }
  int writeSectors(uint32_t start, int count, const void* buffer) override {
    if (count < 1) return -1;
    size_t want = static_cast<size_t>(count) * kDriverSectorSize;
    off_t at = static_cast<off_t>(start) * kDriverSectorSize;
    size_t done = 0;
    const auto* in = static_cast<const uint8_t*>(buffer);
    while (done < want) {
      ssize_t n = pwrite(fd_, in + done, want - done, at + static_cast<off_t>(done));
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      done += static_cast<size_t>(n);
    }
    return static_cast<int>(done / kDriverSectorSize);
  }
  int64_t sizeInSectors() override {
    if (block_device_) {
      uint64_t bytes = 0;
      if (ioctl(fd_, BLKGETSIZE64, &bytes) < 0) return -1;
      return static_cast<int64_t>(bytes / kDriverSectorSize);
    }
    struct stat st;
    if (fstat(fd_, &st) != 0) return -1;
    return st.st_size / kDriverSectorSize;
  }
  int flush() override {
    while (fdatasync(fd_) != 0) {
      if (errno != EINTR) return -1;
    }
    return 0;
  }
  int cardFd() const override { return fd_; }

 private:
  int fd_;
  bool block_device_;
};

}  // namespace

uint32_t veltIoctlWrite() { return ioc(kIocWrite, 3, kRequestSize); }
uint32_t veltIoctlRead() { return ioc(kIocRead, 4, kRequestSize); }
uint32_t veltIoctlGetSize() { return ioc(kIocRead, 5, 4); }

size_t encodeSectorRequest(uint8_t* out, uint32_t start_sector, int32_t sector_count,
                           const void* buffer) {
  putLe32(out, start_sector);
  putLe32(out + 4, static_cast<uint32_t>(sector_count));
  auto address = reinterpret_cast<uintptr_t>(buffer);
  putLe32(out + 8, static_cast<uint32_t>(address));
  if (kRequestSize == 16) putLe32(out + 12, static_cast<uint32_t>(static_cast<uint64_t>(address) >> 32));
  return kRequestSize;
}

std::unique_ptr<BlockDriver> makeBlockDriver(int fd) {
  struct stat st;
  if (fstat(fd, &st) != 0) return nullptr;
  if (S_ISCHR(st.st_mode)) return std::make_unique<IoctlDriver>(fd);
  if (S_ISREG(st.st_mode)) return std::make_unique<PositionalDriver>(fd, false);
  if (S_ISBLK(st.st_mode)) return std::make_unique<PositionalDriver>(fd, true);
  return nullptr;
}

std::string platformPath(const std::string& path) {
  const char* root = getenv("VELT_ROOT");
  if (root == nullptr || root[0] == '\0') return path;
  struct stat st;
  if (stat(root, &st) != 0 || !S_ISDIR(st.st_mode)) return path;
  std::string base(root);
  while (base.size() > 1 && base.back() == '/') base.pop_back();
  if (!path.empty() && path[0] == '/') return base + path;
  return base + "/" + path;
}

}  // namespace velt
