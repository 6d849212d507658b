// Open files: data reads and writes by cluster runs, growth, close and the FAT-lock count.
#include "fs/velt_file.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstring>

#include "fs/velt_dirent.h"

namespace velt {

static constexpr const char kLogTag[] = "VELT.File";

namespace {

// errno of a failed transfer; the buffered I/O does not always leave one behind.
int transferErrno() {
  return errno != 0 ? errno : EIO;
}

// Walks the clusters behind `size` bytes at file offset `off` and calls
// transfer(buffer position, card offset, length, last) once per run of consecutive clusters.
// lookup(cluster index) gives the cluster or a negative errno; so does transfer (or 0).
template <class Lookup, class Transfer>
int forEachRun(const VELT& velt, int64_t off, int64_t size, Lookup lookup, Transfer transfer) {
  const int64_t cluster_length = velt.pbr_->cluster_length_;
  uint32_t index = static_cast<uint32_t>(off / cluster_length);
  int64_t in_cluster = off % cluster_length;
  int64_t done = 0, run_start = 0, run_offset = 0, run_length = 0;
  uint32_t prev = 0;
  while (done < size) {
    const int64_t cluster = lookup(index);
    if (cluster < 0) return static_cast<int>(cluster);
    const int64_t n = std::min<int64_t>(cluster_length - in_cluster, size - done);
    if (run_length > 0 && static_cast<uint32_t>(cluster) == prev + 1) {
      run_length += n;
    } else {
      if (run_length > 0) {
        int r = transfer(run_start, run_offset, run_length, false);
        if (r < 0) return r;
      }
      run_start = done;
      run_offset = velt.clusterOffset(static_cast<uint32_t>(cluster)) + in_cluster;
      run_length = n;
    }
    prev = static_cast<uint32_t>(cluster);
    done += n;
    in_cluster = 0;
    ++index;
  }
  return run_length > 0 ? transfer(run_start, run_offset, run_length, true) : 0;
}

}  // namespace

VELT::File::File(VELT* velt, uint32_t file_no, bool dir_mode, bool for_write, bool direct,
                 DirEntry* entry)
    : dir_mode_(dir_mode ? 1 : 0),
      file_no_(file_no),
      for_write_(for_write),
      velt_(velt),
      entry_(entry),
      direct_(direct ? 1 : 0) {
  if (velt_ == nullptr) NERIO_ASSERT_TEXT("velt_ != nullptr");
  if (for_write_ && !direct_ && velt_ != nullptr) {
    velt_->lockFAT();
    fat_locked_ = 1;
  }
}

VELT::File::~File() {
  if (fat_locked_) {
    if (velt_ == nullptr) {
      NERIO_ASSERT_TEXT("velt_ != nullptr");
    } else {
      velt_->unlockFAT();
    }
    fat_locked_ = 0;
  }
}

int64_t VELT::File::fileSize() {
  std::lock_guard<std::mutex> lock(mutex_);
  return entry_ != nullptr ? std::atomic_ref<int64_t>(entry_->size_).load(std::memory_order_acquire)
                           : 0;
}

int VELT::File::read(void* buf, size_t size, int64_t off) {
  std::lock_guard<std::mutex> lock(mutex_);
  return __read(buf, size, off);
}

int VELT::File::__read(void* buf, size_t size, int64_t off) {
  if (velt_ == nullptr || velt_->pbr_ == nullptr || velt_->pbr_->cluster_length_ == 0) {
    NERIO_ASSERT_TEXT("velt_ && velt_->pbr_ && velt_->pbr_->cluster_length_ > 0");
    return -ENODEV;
  }
  if (file_no_ == kClosedFileNo || entry_ == nullptr) return -EBADF;
  if (size == 0) return 0;
  if (off < 0) return -EINVAL;
  // A writer on another handle raises the size under the entry's files_mutex_, which may not be
  // taken here (it comes before this file's mutex_): read it atomically.
  const int64_t entry_size =
      std::atomic_ref<int64_t>(entry_->size_).load(std::memory_order_acquire);
  if (entry_size < off) {
    NERIO_ASSERT_MSG(entry_size >= off, ": handle %d, entry %p, %zu >= %jd\n",
                     static_cast<int>(file_no_), static_cast<void*>(entry_),
                     static_cast<size_t>(entry_size), static_cast<intmax_t>(off));
    return -EAGAIN;
  }
  // One call moves at most what an int can count.
  size = std::min<size_t>(size, 0x7FFFF000);
  size = static_cast<size_t>(std::min<int64_t>(static_cast<int64_t>(size), entry_size - off));
  if (size == 0) return 0;

  const uint32_t num_clusters = velt_->pbr_->num_clusters_;
  uint8_t* dst = static_cast<uint8_t*>(buf);
  auto lookup = [&](uint32_t index) -> int64_t {
    int64_t cluster = entry_->getCluster(index, false);
    // Cluster 2 is the root directory's and never holds file data.
    if (cluster <= 2 || cluster >= num_clusters) {
      if (cluster != 2) {
        static constexpr const char kLogTag[] = "";
        NERIO_ASSERT_TEXT("cluster_number >= 2");
      }
      return -EINVAL;
    }
    return cluster;
  };
  auto readRun = [&](int64_t at, int64_t card_off, int64_t length, bool) -> int {
    errno = 0;
    if (velt_->read(dst + at, static_cast<int>(length), card_off) == length) return 0;
    int err = transferErrno();
    LOGE("[%s] read(%d bytes) error: %d(%s)\n", entry_->getPath().c_str(), static_cast<int>(length),
         err, strerror(err));
    return -err;
  };
  int r = forEachRun(*velt_, off, static_cast<int64_t>(size), lookup, readRun);
  if (r < 0) return r;
  accessed_ = 1;
  direct_offset_ = off + static_cast<int64_t>(size);
  return static_cast<int>(size);
}

int VELT::File::__write(const void* buf, size_t size, int64_t off) {
  if (velt_ == nullptr || velt_->pbr_ == nullptr || velt_->pbr_->cluster_length_ == 0) {
    NERIO_ASSERT_TEXT("velt_ && velt_->pbr_ && velt_->pbr_->cluster_length_ > 0");
    return -ENODEV;
  }
  std::lock_guard<std::mutex> lock(mutex_);
  if (error_ != 0) return -error_;
  if (entry_ == nullptr || entry_->parent_ == nullptr) {
    NERIO_ASSERT_TEXT("entry_ && entry_->parent_ != nullptr");
    return -EBADF;
  }
  if (!entry_->isArchive() || !entry_->parent_->isDir()) {
    NERIO_ASSERT_MSG(entry_->isArchive() && entry_->parent_->isDir(), ": %d && %d (%p %s)\n",
                     entry_->isArchive(), entry_->parent_->isDir(), static_cast<void*>(entry_),
                     entry_->getPath().c_str());
  }
  if (size == 0) return 0;
  if (off < 0) return -EINVAL;
  size = std::min<size_t>(size, 0x7FFFF000);
  // A FAT32 file ends below 4 GiB.
  if (off + static_cast<int64_t>(size) > 0xFFFFFFFFll) return -EFBIG;

  const uint8_t* src = static_cast<const uint8_t*>(buf);
  const bool cache = write_cache_ != 0;
  auto lookup = [&](uint32_t index) -> int64_t {
    int64_t cluster = entry_->getCluster(index, true);
    if (cluster == -1) return -EIO;
    if (cluster < 2 || cluster >= FAT_EOC) {
      LOGE("[%s] write error: no cluster available\n", entry_->getPath().c_str());
      return -ENOSPC;
    }
    return cluster;
  };
  auto writeRun = [&](int64_t at, int64_t card_off, int64_t length, bool last) -> int {
    errno = 0;
    if (velt_->write(src + at, static_cast<uint32_t>(length), card_off, cache) == length) return 0;
    int err = transferErrno();
    if (last) {
      LOGE("[%s] write(%d bytes, write %d @ %jd) error: %d(%s)\n", entry_->getPath().c_str(),
           static_cast<int>(length), static_cast<int>(at), static_cast<intmax_t>(card_off), err,
           strerror(err));
    } else {
      LOGE("[%s] write(%d bytes) error: %d(%s)\n", entry_->getPath().c_str(),
           static_cast<int>(length), err, strerror(err));
    }
    error_ = err;  // sticks: later writes fail at once
    return -err;
  };
  int r = forEachRun(*velt_, off, static_cast<int64_t>(size), lookup, writeRun);
  if (r < 0) return r;
  written_ = 1;
  uncommitted_ = 1;
  accessed_ = 1;
  direct_offset_ = off + static_cast<int64_t>(size);
  return static_cast<int>(size);
}

int VELT::File::write(const void* buf, size_t size, int64_t off) {
  int result = __write(buf, size, off);
  if (result > 0 && entry_ != nullptr) {
    int64_t end = off + result;
    std::lock_guard lock(entry_->files_mutex_);
    std::atomic_ref<int64_t>(entry_->size_)
        .store(std::max(entry_->size_, end), std::memory_order_release);
    if (entry_->real_size_ < end) {
      entry_->real_size_ = end;
      entry_->checkFiles();
    }
  }
  // The kernel learns of sizes changed through the mount itself; not of the channel's.
  if (result > 0 && direct_ && velt_ != nullptr) velt_->invalidateKernelCache(entry_);
  return result;
}

int VELT::File::flush() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!written_) return 0;
  if (velt_ == nullptr || velt_->pbr_ == nullptr) {
    written_ = 0;
    return 0;
  }
  velt_->pbr_->flushFATs();
  written_ = 0;
  return 0;
}

bool VELT::File::needsCommit() {
  std::lock_guard<std::mutex> lock(mutex_);
  return uncommitted_ != 0 && file_no_ != kClosedFileNo;
}

int VELT::File::commit(bool publish) {
  if (velt_ == nullptr || velt_->pbr_ == nullptr || entry_ == nullptr) return -EIO;
  VELT& v = *velt_;
  PBR& pbr = *v.pbr_;
  bool modified;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    modified = uncommitted_ != 0;
    uncommitted_ = 0;
  }
  bool ok = true;
  // The card may reorder writes between flushes: each step reaches the card before the next
  // one points at it.
  auto step = [&v, &ok] {
    if (v.sync() != 0) ok = false;
  };

  step();  // data
  pbr.flushFATs();
  step();  // chains

  if (!dir_mode_ && entry_->isArchive() && entry_->dir_ent_disk_off_ != 0) {
    std::lock_guard lock(entry_->files_mutex_);
    if (entry_->is_reserved_ && !entry_->is_secured_) {
      // Unpublished recordings stay invisible until asked for.
      if (publish && entry_->secure2() < 0) ok = false;
    } else if (entry_->update2(true, modified) < 0) {
      ok = false;
    }
  }
  step();  // directory record

  {
    std::lock_guard<std::mutex> reserved_lock(v.reserved_mutex_);
    std::lock_guard<std::mutex> fat_lock(pbr.fat_mutex_);
    if (pbr.updateFSInfo(true) != 0) ok = false;
  }
  step();  // free count
  if (!ok) {
    std::lock_guard<std::mutex> lock(mutex_);
    uncommitted_ = 1;  // still owed
  }
  return ok ? 0 : -EIO;
}

int VELT::File::close() {
  uint32_t handle;
  bool update;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (file_no_ == kClosedFileNo) return -1;
    if (--open_count_ > 0) return 0;
    update = (accessed_ || written_) && entry_ != nullptr &&
             (!entry_->is_reserved_ || entry_->is_secured_);
    handle = file_no_;
    file_no_ = kClosedFileNo;
  }
  int result = velt_ != nullptr ? velt_->freeFile(handle) : -ENODEV;
  bool uncommitted;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    uncommitted = uncommitted_ != 0;
    uncommitted_ = 0;
  }
  if (update && velt_ != nullptr) {
    if ((written_ || uncommitted) && velt_->pbr_ != nullptr) {
      PBR* pbr = velt_->pbr_;
      pbr->flushFATs();
      // A writer without a FAT-lock count (an existing file opened again, a direct file) took
      // its clusters with the FAT written at once; the free count in FSInfo must follow. While
      // others hold counts this is deferred to the last release.
      if (!fat_locked_) {
        std::lock_guard<std::mutex> fat_lock(pbr->fat_mutex_);
        pbr->updateFSInfo();
      }
    }
    // New data and its chain reach the card before the record that points at them.
    if (uncommitted && velt_->sync() != 0) result = -EIO;
    std::lock_guard lock(entry_->files_mutex_);
    entry_->update2(accessed_ != 0, written_ != 0 || uncommitted);
    // Data still pending in the write buffer goes out now; losing it must reach the closer.
    if (velt_->flush() != 0 && result == 0) result = -EIO;
  }
  if (fat_locked_) {
    if (velt_ == nullptr) {
      NERIO_ASSERT_TEXT("velt_ != nullptr");
    } else {
      velt_->unlockFAT();
    }
    fat_locked_ = 0;
  }
  return result;
}

void VELT::File::setCacheMode(int mode) {
  write_cache_ = (mode >> 1) & 1;
  read_cache_ = mode & 1;
}

int64_t VELT::File::setPosition(int64_t pos) {
  std::lock_guard<std::mutex> lock(mutex_);
  int64_t previous = direct_offset_;
  direct_offset_ = pos;
  return previous;
}

void VELT::File::setUsage(bool accessed, bool written) {
  std::lock_guard<std::mutex> lock(mutex_);
  accessed_ |= accessed ? 1 : 0;
  written_ |= written ? 1 : 0;
}

}  // namespace velt
