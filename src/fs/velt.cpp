// The volume object: creation, initialisation and teardown.
#include "fs/velt.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "fs/velt_dirent.h"
#include "fs/velt_file.h"

namespace velt {

static constexpr const char kLogTag[] = "VELT";
static constexpr const char kDriverDevice[] = "/dev/velt";

namespace {

// Reads a run of decimal digits; no digits reads as 0.
const char* readNumber(const char* p, int* value) {
  long v = 0;
  while (*p >= '0' && *p <= '9') {
    if (v < 100000000) v = v * 10 + (*p - '0');
    ++p;
  }
  *value = static_cast<int>(v);
  return p;
}

}  // namespace

std::shared_ptr<VELT> VELT::create(const std::string& device_path, int64_t cache_size, int op_mode,
                                   int extra, int* error) {
  int dummy = 0;
  if (error == nullptr) error = &dummy;
  *error = -22;
  static constexpr const char kPrefix[] = "/dev/mmcblk";
  const char* path = device_path.c_str();
  if (strncmp(path, kPrefix, sizeof(kPrefix) - 1) != 0) {
    LOGE("\"%s\" invalid. must be in /dev/mmcblk#p# format.\n", path);
    return nullptr;
  }
  int disk = 0;
  const char* p = readNumber(path + sizeof(kPrefix) - 1, &disk);
  if (*p != 'p') {
    LOGE("\"%s\" invalid. must be in /dev/mmcblk%dp# format.\n", path, disk);
    return nullptr;
  }
  int partition = 0;
  readNumber(p + 1, &partition);
  char canonical[64];
  snprintf(canonical, sizeof(canonical), "/dev/mmcblk%dp%d", disk, partition);
  if (device_path != canonical) {
    LOGE("\"%s\" invalid. must be in /dev/mmcblk#p# format.\n", path);
    return nullptr;
  }

  std::shared_ptr<VELT> velt;
  try {
    velt = std::make_shared<VELT>(device_path, partition, op_mode, extra);
  } catch (const std::exception&) {
    LOGE("create VELT object failed\n");
    return nullptr;
  }
  NERIO_ASSERT(velt != nullptr);
  if (velt == nullptr) return nullptr;

  *error = velt->init();
  if (*error != 0) return nullptr;
  if (cache_size >= 1 && op_mode == kVELTOpMount) velt->createCache(cache_size);
  return velt;
}

VELT::VELT(const std::string& device_path, int partition_number, int op_mode, int extra)
    : device_path_(device_path),
      partition_number_(partition_number),
      op_mode_(op_mode),
      extra_(extra) {}

VELT::~VELT() {
  // The channel's worker may be finishing a request that walks a path under mutex_: stop it
  // before taking the mutex (unload's own stop then finds nothing running).
  stopDirectWriter();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    unload();
  }
  free(read_buffer_);
  free(write_buffer_);
  free(sector_buffer_);
  read_buffer_ = write_buffer_ = sector_buffer_ = nullptr;
  {
    std::lock_guard<std::mutex> lock(files_mutex_);
    open_files_.clear();
  }
  root_.reset();
}

int VELT::allocBuffers() {
  static constexpr const char* kWhat[] = {"read", "write", "sector"};
  uint8_t** buffers[] = {&read_buffer_, &write_buffer_, &sector_buffer_};
  for (int i = 0; i < 3; ++i) {
    if (*buffers[i] != nullptr) continue;
    void* p = nullptr;
    if (posix_memalign(&p, 4096, VELT_BUFFER_SIZE) != 0 || p == nullptr) {
      LOGE("can't alloc page-aligned %s buffer!\n", kWhat[i]);
      return kVELTRetry;
    }
    *buffers[i] = static_cast<uint8_t*>(p);
  }
  return kVELTOk;
}

int VELT::init() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (state_ != kVELTStateUnloaded) {
      NERIO_ASSERT_TEXT("state_ == kVELTStateUnloaded");
      LOGE("wrong state %d\n", state_);
      return -1;
    }
    state_ = kVELTStateLoading;
  }
  auto fail = [this](int code) {
    std::lock_guard<std::mutex> lock(mutex_);
    unload();
    return code;
  };

  // Exclusive work must not share the card with a live mount; a mount that stays is reported
  // by umount and the card is opened all the same.
  if (op_mode_ == kVELTOpExclusive) umount();

  // A driver plugged in before init (the offline checker's, which keeps every write in memory)
  // is used as it is.
  if (driver_ == nullptr) {
    std::string device = platformPath(kDriverDevice);
    device_fd_ = open(device.c_str(), O_RDWR | O_LARGEFILE | O_CLOEXEC);
    if (device_fd_ < 0) {
      int err = errno;
      LOGE("\"%s\" open failed: %d(%s)\n", kDriverDevice, err, strerror(err));
      return fail(kVELTNoDevice);
    }
    driver_ = makeBlockDriver(device_fd_);
    if (driver_ == nullptr) {
      LOGE("\"%s\" open failed: %d(%s)\n", kDriverDevice, ENODEV, strerror(ENODEV));
      return fail(kVELTNoDevice);
    }
  }
  int result = allocBuffers();
  if (result != kVELTOk) return fail(result);

  result = loadCardLayout();
  if (result != kVELTOk) return fail(result);

  if (buildRoot() != 0) {
    LOG_PLAIN(nerio::kLogError, "[%s] Root failed (need format!)\n", device_path_.c_str());
    return fail(kVELTNeedFormat);
  }

  std::lock_guard<std::mutex> lock(mutex_);
  state_ = kVELTStateLoaded;
  return kVELTOk;
}

void VELT::unload() {
  stopCommitter();
  stopDirectWriter();

  // Open files go before the tree: they point at its entries, and a writer's FAT-lock count
  // must be given back while the PBR can still write the FATs.
  std::unordered_map<uint32_t, std::shared_ptr<File>> files;
  {
    std::lock_guard<std::mutex> lock(files_mutex_);
    files.swap(open_files_);
  }
  for (auto& [handle, file] : files) {
    if (file != nullptr && file->entry_ != nullptr) file->entry_->removeFile(file);
  }
  files.clear();
  // Their closes may owe records; the entries they keep go with the tree.
  if (!read_only_) writeOwedRecords();
  {
    std::lock_guard<std::mutex> lock(owed_mutex_);
    owed_records_.clear();
    records_owed_ = false;
  }
  root_.reset();
  if (!read_only_) freeRemovedChains();

  delete mbr_;
  mbr_ = nullptr;
  if (pbr_ != nullptr) {
    // A format operation held one FAT lock count since init: this release writes the FATs.
    if (isFormattingOp()) pbr_->unlockFAT(true);
    delete pbr_;
    pbr_ = nullptr;
  }

  // A write still in the buffer reaches the card before the device closes.
  if (driver_ != nullptr && write_buffer_ != nullptr) {
    std::lock_guard<std::mutex> lock(io_mutex_);
    if (write_start_sector_ >= 0) __flush();
  }
  driver_.reset();
  if (device_fd_ >= 0) {
    close(device_fd_);
    device_fd_ = -1;
  }
  state_ = kVELTStateUnloaded;
  disk_size_ = 0;
  destroyCache();
}

int VELT::loadCardLayout() {
  const char* path = device_path_.c_str();
  mbr_ = new (std::nothrow) MBR(this);
  if (mbr_ == nullptr) return kVELTBadMBR;
  if (mbr_->read() != 0 && !isFormattingOp()) {
    LOG_PLAIN(nerio::kLogError, "[%s] MBR failed\n", path);
    return kVELTBadMBR;
  }
  if (!mbr_->valid_) {
    if (!isFormattingOp()) {
      NERIO_ASSERT_TEXT("mbr_->valid_ || isFormattingOp()");
      NERIO_ASSERT_TEXT("mbr_->valid_");
      LOG_PLAIN(nerio::kLogError, "[%s] MBR failed\n", path);
      return kVELTBadMBR;
    }
    mbr_->format();
    if (!mbr_->valid_) {
      NERIO_ASSERT_TEXT("mbr_->valid_ == true");
      LOG_PLAIN(nerio::kLogError, "[%s] MBR failed\n", path);
      return kVELTBadMBR;
    }
  }

  Partition partition;
  if (mbr_->getFAT32Partition(partition_number_, &partition) < 0) {
    LOG_PLAIN(nerio::kLogError, "[%s] has no FAT32 partition!\n", path);
    if (!isFormattingOp()) return kVELTNoFAT32Partition;
    if (mbr_->makeFAT32(partition_number_) != 0 ||
        mbr_->getFAT32Partition(partition_number_, &partition) < 0) {
      return kVELTNoFAT32Partition;
    }
    partition_created_ = true;
  }

  disk_size_ = static_cast<int64_t>(partition.total_sectors) * partition.bytes_per_sector;
  if (disk_size_ <= 0) {
    NERIO_ASSERT_TEXT("disk_size_ > 0ll");
    LOG_PLAIN(nerio::kLogError, "can't get the volume size\n");
    return kVELTNoVolumeSize;
  }

  pbr_ = new (std::nothrow) PBR(this, partition_number_, &partition);
  if (pbr_ == nullptr) return kVELTBadPBR;
  if (isFormattingOp()) {
    pbr_->lockFAT();
    if (partition_created_ || (extra_ & kVELTFormatFresh) != 0)
      pbr_->valid_ = false;
    else
      pbr_->read();
  } else if (pbr_->read() != 0) {
    LOG_PLAIN(nerio::kLogError, "[%s] PBR failed\n", path);
    return kVELTBadPBR;
  }
  if (!mbr_->valid_ && !isFormattingOp()) NERIO_ASSERT_TEXT("mbr_->valid_ || isFormattingOp()");
  if (!pbr_->valid_) {
    if (!isFormattingOp()) {
      NERIO_ASSERT_TEXT("pbr_->valid_");
      LOG_PLAIN(nerio::kLogError, "[%s] PBR failed\n", path);
      return kVELTBadPBR;
    }
    pbr_->format();
    if (!pbr_->valid_) {
      NERIO_ASSERT_TEXT("pbr_->valid_ == true");
      LOG_PLAIN(nerio::kLogError, "[%s] PBR failed\n", path);
      return kVELTBadPBR;
    }
  }

  if (op_mode_ == kVELTOpExclusive && !pbr_->is_velt_partition_) return kVELTNotVELT;
  if (pbr_->is_velt_partition_ && !isFormattingOp() &&
      format_info_.version_major != VELT_VERSION_MAJOR) {
    LOG_PLAIN(nerio::kLogError,
              "[%s] VELT major version mismatch. this disk has %d.%d, current version is %d.%d.\n",
              path, format_info_.version_major, format_info_.version_minor, VELT_VERSION_MAJOR,
              VELT_VERSION_MINOR);
    return kVELTBadVELT;
  }
  return kVELTOk;
}

int64_t VELT::getDiskSize() {
  if (device_fd_ < 0 || driver_ == nullptr) return -1;
  int64_t sectors = driver_->sizeInSectors();
  if (sectors < 0) return 0;
  return sectors * VELT_SECTOR_SIZE;
}

const char* VELT::stripMountPoint(const char* path) const {
  if (path == nullptr || mount_point_.empty()) return path;
  if (strstr(path, mount_point_.c_str()) == nullptr) return path;
  if (strlen(path) < mount_point_.size()) return path;
  return path + mount_point_.size();
}

std::shared_ptr<VELT::File> VELT::getFile(int handle) {
  std::lock_guard<std::mutex> lock(files_mutex_);
  auto it = open_files_.find(static_cast<uint32_t>(handle));
  if (it == open_files_.end()) return nullptr;
  return it->second;
}

}  // namespace velt
