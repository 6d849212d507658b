#include "fs/velt_mbr.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "fs/velt.h"
#include "fs/velt_endian.h"

namespace velt {

static constexpr const char kLogTag[] = "VELT.MBR";

namespace {
constexpr int kDiskIdOffset = 440;
constexpr int kEntriesOffset = 446;
constexpr int kEntrySize = 16;
// Entry fields.
constexpr int kStatus = 0, kType = 4, kFirstSector = 8, kSectorCount = 12;

bool hasSignature(const uint8_t* sector) { return sector[510] == 0x55 && sector[511] == 0xAA; }
}  // namespace

MBR::MBR(VELT* velt) : velt_(velt) { NERIO_ASSERT(velt_ != nullptr); }

uint32_t MBR::probeBytesPerSector(uint32_t lba) {
  static constexpr uint32_t kSizes[] = {512, 128, 256, 1024, 2048, 4096};
  uint8_t buf[512];
  for (uint32_t size : kSizes) {
    int64_t offset = static_cast<int64_t>(lba) * size;
    if (velt_->read(buf, 512, offset) == 512 && hasSignature(buf)) return size;
  }
  return 0;
}

int MBR::read() {
  if (velt_->read(sector_, 512, 0) < 512) {
    int err = errno;
    LOGE("MBR read error: %d(%s)\n", err, strerror(err));
    return -1;
  }
  if (!hasSignature(sector_)) {
    LOGE("MBR signature failed: %02x %02x, should be 55 aa\n", sector_[510], sector_[511]);
    return -1;
  }
  disk_signature_ = le32(sector_ + kDiskIdOffset);
  partition_count_ = 0;
  for (int i = 0; i < 4; ++i) {
    const uint8_t* e = sector_ + kEntriesOffset + i * kEntrySize;
    Partition& p = partitions_[i];
    p.index = i;
    p.valid = false;
    p.type = e[kType];
    if (p.type == 0) break;
    p.active = e[kStatus] == 0x80;
    p.lba = le32(e + kFirstSector);
    if (p.lba == 0) {
      NERIO_ASSERT_TEXT("partitions_[i].lba != 0");
      LOGI("partition[%d] lab is zero, ignore this parition!\n", i);
      continue;
    }
    p.total_sectors = le32(e + kSectorCount);
    if (p.total_sectors == 0) {
      LOGI("partition[%d] total sectors# is zero, ignore this parition!\n", i);
      continue;
    }
    p.bytes_per_sector = probeBytesPerSector(p.lba);
    if (p.bytes_per_sector == 0) {
      LOGI("partition[%d] bytes/sector is zero, set default %d!\n", i, 512);
      p.bytes_per_sector = 512;
    }
    // Driver requests carry 32-bit sector numbers: a partition reaching past 2^32 sectors
    // would have its writes wrap to the start of the card.
    const uint64_t end = (static_cast<uint64_t>(p.lba) + p.total_sectors) * p.bytes_per_sector /
                         kDriverSectorSize;
    if (end > (uint64_t{1} << 32)) {
      LOGE("partition[%d] ends at sector %llu, beyond the 2^32 sectors the card can be "
           "addressed with: refused\n",
           i, static_cast<unsigned long long>(end));
      continue;
    }
    p.valid = true;
    ++partition_count_;
  }
  valid_ = true;
  return 0;
}

int MBR::getFAT32Partition(int number, Partition* out) const {
  int slot = number - 1;
  if (slot < 0 || slot >= partition_count_) return -1;
  const Partition& p = partitions_[slot];
  if (!p.valid || (p.type != kPartitionTypeFAT32CHS && p.type != kPartitionTypeFAT32LBA)) return -1;
  if (out != nullptr) *out = p;
  return slot;
}

int MBR::makeFAT32(int number) {
  int slot = number - 1;
  if (slot < 0 || slot >= partition_count_ || !partitions_[slot].valid) return -1;
  int fd = open(platformPath(velt_->device_path_).c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return -1;
  uint64_t size = 0;
  int rc = ioctl(fd, BLKGETSIZE64, &size);
  int err = errno;
  // A partition image (a regular file standing for the node) is as large as the file.
  struct stat st;
  if (rc < 0 && fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
    size = static_cast<uint64_t>(st.st_size);
    rc = 0;
  }
  close(fd);
  if (rc < 0 || size == 0) {
    if (rc >= 0) err = 0;
    LOGE("failed to get the disk size of %s: error %d(%s)\n", velt_->device_path_.c_str(), err,
         strerror(err));
    return -1;
  }
  Partition& p = partitions_[slot];
  p.type = kPartitionTypeFAT32LBA;
  p.active = false;
  p.lba = kPartitionStartSector;
  p.bytes_per_sector = 512;
  p.total_sectors = static_cast<uint32_t>(size / 512 - kPartitionStartSector);
  uint8_t* e = sector_ + kEntriesOffset + slot * kEntrySize;
  e[kStatus] = 0x00;
  e[kType] = kPartitionTypeFAT32LBA;
  putLe32(e + kFirstSector, kPartitionStartSector);
  putLe32(e + kSectorCount, p.total_sectors);
  if (velt_->write(sector_, 512, 0, true) < 512) {
    int werr = errno;
    LOGE("MBR write error: %d(%s)\n", werr, strerror(werr));
    return -1;
  }
  return 0;
}

int MBR::format() {
  int64_t size = velt_->getDiskSize();
  if (size <= 0) {
    NERIO_ASSERT_TEXT("disk_size != 0ll");
    return -1;
  }
  for (Partition& p : partitions_) p = Partition();
  Partition& p = partitions_[0];
  p.valid = true;
  p.active = false;
  p.type = kPartitionTypeFAT32LBA;
  p.lba = kPartitionStartSector;
  p.bytes_per_sector = 512;
  p.total_sectors = static_cast<uint32_t>(size / 512 - kPartitionStartSector);
  partition_count_ = 1;
  memset(sector_, 0, sizeof(sector_));
  uint8_t* e = sector_ + kEntriesOffset;
  e[kStatus] = 0x00;
  e[kType] = kPartitionTypeFAT32LBA;
  putLe32(e + kFirstSector, kPartitionStartSector);
  putLe32(e + kSectorCount, p.total_sectors);
  memcpy(sector_ + kDiskIdOffset, "VELT", 4);
  sector_[510] = 0x55;
  sector_[511] = 0xAA;
  valid_ = true;
  dirty_ = true;
  return 0;
}

int MBR::write() {
  NERIO_ASSERT(velt_ != nullptr);
  if (!valid_) {
    if (format() != 0) return -1;
    dirty_ = true;
  } else if (!dirty_) {
    return 0;
  }
  if (velt_->write(sector_, 512, 0, true) < 512) {
    int err = errno;
    LOGE("MBR write error: %d(%s)\n", err, strerror(err));
    return -1;
  }
  dirty_ = false;
  return 0;
}

}  // namespace velt
