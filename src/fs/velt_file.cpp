// Open files: data reads and writes by cluster runs, growth, close and the FAT-lock count.
#include "fs/velt_file.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <ctime>
#include <vector>

#include "fs/velt_dirent.h"
#include "fs/velt_endian.h"

namespace velt {

static constexpr const char kLogTag[] = "VELT.File";

namespace {

// errno of a failed transfer; the buffered I/O does not always leave one behind.
int transferErrno() {
  return errno != 0 ? errno : EIO;
}

// Walks the clusters behind `size` bytes at file offset `off` and calls
// transfer(buffer position, card offset, length, last) once per run of consecutive clusters.
// lookup(cluster index, clusters still wanted, count) gives the cluster or a negative errno and
// may set *count (1 when it does not) to the number of consecutive clusters it found there;
// transfer gives 0 or a negative errno. When a lookup fails after some clusters were found, the
// run so far is still transferred and *partial (when given) tells how many bytes that covered.
template <class Lookup, class Transfer>
int forEachRun(const VELT& velt, int64_t off, int64_t size, Lookup lookup, Transfer transfer,
               int64_t* partial = nullptr) {
  const int64_t cluster_length = velt.pbr_->cluster_length_;
  uint32_t index = static_cast<uint32_t>(off / cluster_length);
  int64_t in_cluster = off % cluster_length;
  int64_t done = 0, run_start = 0, run_offset = 0, run_length = 0;
  int64_t next = -1;  // the cluster that would carry the run on
  while (done < size) {
    const auto wanted =
        static_cast<uint32_t>((in_cluster + size - done + cluster_length - 1) / cluster_length);
    uint32_t count = 1;
    const int64_t cluster = lookup(index, wanted, &count);
    if (cluster < 0) {
      if (partial != nullptr && run_length > 0 &&
          transfer(run_start, run_offset, run_length, true) == 0) {
        *partial = done;
      }
      return static_cast<int>(cluster);
    }
    const int64_t n = std::min<int64_t>(count * cluster_length - in_cluster, size - done);
    if (run_length > 0 && cluster == next) {
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
    next = cluster + count;
    done += n;
    in_cluster = 0;
    index += count;
  }
  return run_length > 0 ? transfer(run_start, run_offset, run_length, true) : 0;
}

// A lookup for forEachRun over a write: its first look takes every cluster the write still
// lacks in one allocation (consecutive where the card allows), then runs come from the map.
// When the allocation stops short (the card is full or failed), the clusters it did take are in
// the chain and carry the write as far as they reach.
auto growingLookup(VELT::DirEntry& entry) {
  return [&entry, grown = false](uint32_t index, uint32_t wanted, uint32_t* count) mutable {
    if (!grown) {
      grown = true;
      if (entry.getCluster(index + wanted - 1, true) == -1) return int64_t{-EIO};
    }
    const int64_t cluster = entry.clusterRun(index, wanted, count);
    if (cluster == -1) return int64_t{-EIO};
    if (cluster < 2 || cluster >= FAT_EOC) return int64_t{-ENOSPC};
    return cluster;
  };
}

// Zeros for filling holes and grown files.
const uint8_t* zeroBlock() {
  static const std::vector<uint8_t> zeros(VELT_BUFFER_SIZE, 0);
  return zeros.data();
}

// Writes zeros over [from, to) of the entry, allocating clusters as needed. 0 or a negative
// errno; *reached is how far the zeros got.
int writeZeros(VELT& velt, VELT::DirEntry& entry, int64_t from, int64_t to, int64_t* reached) {
  *reached = from;
  while (*reached < to) {
    const int64_t n = std::min<int64_t>(to - *reached, VELT_BUFFER_SIZE);
    auto lookup = growingLookup(entry);
    auto writeRun = [&](int64_t, int64_t card_off, int64_t length, bool) -> int {
      errno = 0;
      if (velt.write(zeroBlock(), static_cast<uint32_t>(length), card_off, true) == length)
        return 0;
      return -EIO;
    };
    int64_t partial = 0;
    int r = forEachRun(velt, *reached, n, lookup, writeRun, &partial);
    if (r < 0) {
      *reached += partial;
      return r;
    }
    *reached += n;
  }
  return 0;
}

// Cuts the entry's chain after the clusters `size` bytes need and frees the rest: the last kept
// cluster is marked end of chain before the tail is freed.
int trimChain(VELT& velt, VELT::DirEntry& entry, int64_t size) {
  PBR* pbr = velt.pbr_;
  if (entry.loadClusterMap() < 0) return -EIO;
  const int64_t cluster_length = pbr->cluster_length_;
  const size_t keep = static_cast<size_t>((size + cluster_length - 1) / cluster_length);
  uint32_t tail = 0;
  {
    std::lock_guard lock(entry.map_mutex_);
    if (keep >= entry.cluster_map_.size()) return 0;
    tail = entry.cluster_map_[keep];
    if (keep == 0) {
      entry.start_cluster_ = 0;
      entry.cluster_map_.release();
      entry.cluster_map_loaded_ = false;
    } else {
      if (pbr->endOfCluster(entry.cluster_map_[keep - 1]) < 0) return -EIO;
      entry.cluster_map_.get().resize(keep);
    }
  }
  pbr->freeClusterChains(tail, false);
  return 0;
}

// FAT sectors and the free count after a size change made without the FAT lock.
void settleFAT(VELT& velt) {
  PBR* pbr = velt.pbr_;
  pbr->flushFATs();
  std::lock_guard<std::mutex> reserved_lock(velt.reserved_mutex_);
  std::lock_guard<std::mutex> fat_lock(pbr->fat_mutex_);
  pbr->updateFSInfo();
}

// A grown file's zeros and then its longer chain reach the card before the record that claims
// them: the FAT's writes may be held back by other writers, and the card may reorder writes
// between flushes. -EIO when a step failed (the record must then not be written).
int chainBeforeRecord(VELT& velt) {
  if (velt.sync() != 0 || velt.pbr_->flushFATs() != 0) return -EIO;
  return velt.sync() == 0 ? 0 : -EIO;
}

// Pending card writes reach the card; -EIO when they could not.
int flushPending(VELT& velt) {
  std::lock_guard<std::mutex> lock(velt.io_mutex_);
  if (velt.write_start_sector_ < 0) return 0;
  return velt.__flush() == 0 ? 0 : -EIO;
}

// Marks the entry modified now: write time and the archive bit (written by the next record
// write, at close at the latest). Caller holds the entry's files_mutex_.
void markModified(VELT::DirEntry& entry) {
  const time_t now = time(nullptr);
  entry.modified_ = now;
  entry.write_date_ = timeToFatDate(now);
  entry.write_time_ = timeToFatTime(now);
  entry.attr_ |= kAttrArchive;
}

// Writes the entry's record as of `size` bytes, stamped like a close. A write racing a commit
// may raise the size past what the commit's data step put on the card: the record must not
// claim those bytes yet. Caller holds the entry's files_mutex_.
int writeRecordOfSize(VELT& velt, VELT::DirEntry& entry, int64_t size, bool modified) {
  if (entry.removed_) return 0;
  uint8_t r[DIR_RECORD_SIZE];
  entry.buildRecord(r);
  if (entry.update(true, modified, r) < 0) return -EIO;
  putLe32(r + rec::kSize, static_cast<uint32_t>(size));
  if (size == 0) {
    // The first cluster came with a write the commit does not cover.
    putLe16(r + rec::kClusterHigh, 0);
    putLe16(r + rec::kClusterLow, 0);
  }
  errno = 0;
  if (velt.write(r, DIR_RECORD_SIZE, entry.dir_ent_disk_off_, true) != DIR_RECORD_SIZE) {
    LOGE("[%s] update error %d(%s)\n", entry.getPath().c_str(), EIO, strerror(EIO));
    return -EIO;
  }
  return 0;
}

// The runs of card bytes behind a read of up to `size` bytes at `off` of the file, clamped to
// its size: transfer(buffer position, card offset, length) once per run of consecutive
// clusters, each run found with one look at the cluster map. The bytes covered (0 at or past
// the end) or a negative errno. Caller holds the file's mutex_.
template <class Transfer>
int forEachReadRun(VELT::File& file, size_t size, int64_t off, Transfer transfer) {
  VELT* velt = file.velt_;
  if (velt == nullptr || velt->pbr_ == nullptr || velt->pbr_->cluster_length_ == 0) {
    NERIO_ASSERT_TEXT("velt_ && velt_->pbr_ && velt_->pbr_->cluster_length_ > 0");
    return -ENODEV;
  }
  if (file.file_no_ == VELT::File::kClosedFileNo || file.entry_ == nullptr) return -EBADF;
  if (off < 0) return -EINVAL;
  VELT::DirEntry& entry = *file.entry_;
  // A writer on another handle raises the size under the entry's files_mutex_, which may not be
  // taken here (it comes before the file's mutex_): it is read once, atomically. The bytes it
  // covers are in the write buffer or on the card, their clusters in the map.
  const int64_t entry_size = std::atomic_ref<int64_t>(entry.size_).load(std::memory_order_acquire);
  // One call moves at most what an int can count.
  size = std::min<size_t>(size, 0x7FFFF000);
  size = static_cast<size_t>(std::clamp<int64_t>(entry_size - off, 0, static_cast<int64_t>(size)));
  if (size == 0) return 0;
  const int64_t num_clusters = velt->pbr_->num_clusters_;
  auto lookup = [&entry, num_clusters](uint32_t index, uint32_t wanted, uint32_t* count) {
    const int64_t first = entry.clusterRun(index, wanted, count);
    // A truncate on another handle shrank the chain after the size was read.
    if (first == FAT_EOC) return int64_t{-ERANGE};
    // Cluster 2 is the root directory's and never holds file data.
    if (first <= 2 || first + *count > num_clusters) {
      if (first != 2) {
        static constexpr const char kLogTag[] = "";
        NERIO_ASSERT_TEXT("cluster_number >= 2");
      }
      return int64_t{-EINVAL};
    }
    return first;
  };
  int last = 0;  // the last transfer's result
  auto run = [&transfer, &last](int64_t at, int64_t card_off, int64_t length, bool) {
    return last = transfer(at, card_off, length);
  };
  int64_t partial = 0;
  int r = forEachRun(*velt, off, static_cast<int64_t>(size), lookup, run, &partial);
  // Past the end of a shortened chain: what it still holds is the answer.
  if (r == -ERANGE) return last < 0 ? last : static_cast<int>(partial);
  return r < 0 ? r : static_cast<int>(size);
}

}  // namespace

int writeEntryRecord(VELT& velt, VELT::DirEntry& entry) {
  if (entry.is_reserved_ && !entry.is_secured_) return 0;  // published later, times in memory
  if (entry.dir_ent_disk_off_ == 0) return 0;              // the root has no record
  if (entry.removed_) return 0;
  uint8_t record[DIR_RECORD_SIZE];
  entry.buildRecord(record);
  errno = 0;
  if (velt.write(record, DIR_RECORD_SIZE, entry.dir_ent_disk_off_, true) != DIR_RECORD_SIZE) {
    LOGE("[%s] update error %d(%s)\n", entry.getPath().c_str(), EIO, strerror(EIO));
    return -EIO;
  }
  return 0;
}

// Grows the entry to `size` with zeros; on a full card the chain is cut back to what the
// size covers. Caller checked that the entry is an ordinary file.
static int growEntry(VELT& velt, VELT::DirEntry& entry, int64_t size) {
  const int64_t old_size = std::atomic_ref<int64_t>(entry.size_).load(std::memory_order_acquire);
  if (size <= old_size) return 0;
  int64_t reached = old_size;
  int r = writeZeros(velt, entry, old_size, size, &reached);
  {
    std::lock_guard lock(entry.files_mutex_);
    const int64_t now_size = std::max(entry.size_, r < 0 ? reached : size);
    std::atomic_ref<int64_t>(entry.size_).store(now_size, std::memory_order_release);
    if (entry.real_size_ < now_size) entry.real_size_ = now_size;
    markModified(entry);
  }
  if (r < 0) trimChain(velt, entry, std::atomic_ref<int64_t>(entry.size_).load());
  return r;
}

// A recording: taken over in this session, or loaded from the card inside a reserved folder
// (its record spans the whole reserved file, which it must keep).
static bool inReservedFolder(VELT& velt, const VELT::DirEntry& entry) {
  return entry.is_reserved_ || (!entry.is_dir_ && velt.entryToVELTFolder(&entry) != nullptr);
}

int truncateEntry(VELT& velt, VELT::DirEntry& entry, int64_t size) {
  if (velt.pbr_ == nullptr || velt.pbr_->cluster_length_ == 0) return -ENODEV;
  if (entry.is_dir_) return -EISDIR;
  if (!entry.isArchive()) return -EINVAL;
  if (size < 0) return -EINVAL;
  if (size > 0xFFFFFFFFll) return -EFBIG;
  if (inReservedFolder(velt, entry)) {
    // A reserved file keeps its clusters and its whole size on the card; only a fresh start of
    // its recording is allowed: the data written so far counts for nothing.
    if (size != 0) return std::atomic_ref<int64_t>(entry.size_).load() == size ? 0 : -EPERM;
    std::lock_guard lock(entry.files_mutex_);
    entry.real_size_ = 0;
    markModified(entry);
    return 0;
  }
  int r = 0;
  const int64_t old_size = std::atomic_ref<int64_t>(entry.size_).load(std::memory_order_acquire);
  if (size > old_size) {
    r = growEntry(velt, entry, size);
    if (int c = chainBeforeRecord(velt); c < 0) return c;
  } else {
    {
      std::lock_guard lock(entry.files_mutex_);
      std::atomic_ref<int64_t>(entry.size_).store(size, std::memory_order_release);
      entry.real_size_ = std::min(entry.real_size_, size);
      markModified(entry);
    }
    r = trimChain(velt, entry, size);
  }
  int w;
  {
    std::lock_guard lock(entry.files_mutex_);
    w = writeEntryRecord(velt, entry);
  }
  settleFAT(velt);
  int f = flushPending(velt);
  return r < 0 ? r : (w < 0 ? w : f);
}

int allocateEntry(VELT& velt, VELT::DirEntry& entry, int64_t end) {
  if (velt.pbr_ == nullptr || velt.pbr_->cluster_length_ == 0) return -ENODEV;
  if (entry.is_dir_) return -EISDIR;
  if (!entry.isArchive() || end < 0) return -EINVAL;
  if (end > 0xFFFFFFFFll) return -EFBIG;
  const int64_t cluster_length = velt.pbr_->cluster_length_;
  const int64_t clusters = (end + cluster_length - 1) / cluster_length;
  if (entry.loadClusterMap() < 0) return -EIO;
  if (inReservedFolder(velt, entry)) {
    // A reserved file has its clusters already; it cannot take more.
    return clusters <= static_cast<int64_t>(entry.cluster_map_.size()) ? 0 : -EPERM;
  }
  if (end <= std::atomic_ref<int64_t>(entry.size_).load(std::memory_order_acquire)) return 0;
  // All missing clusters in one allocation: the allocator hands out consecutive free clusters.
  if (clusters > 0) {
    int64_t last = entry.getCluster(static_cast<uint32_t>(clusters - 1), true);
    if (last < 2 || last >= FAT_EOC) {
      trimChain(velt, entry, std::atomic_ref<int64_t>(entry.size_).load());
      settleFAT(velt);
      return last == -1 ? -EIO : -ENOSPC;
    }
  }
  int r = growEntry(velt, entry, end);
  if (int c = chainBeforeRecord(velt); c < 0) return c;
  int w;
  {
    std::lock_guard lock(entry.files_mutex_);
    w = writeEntryRecord(velt, entry);
  }
  settleFAT(velt);
  int f = flushPending(velt);
  return r < 0 ? r : (w < 0 ? w : f);
}

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
  if (entry_ != nullptr && velt_ != nullptr) entry_->freeKeptChain();
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
  uint8_t* dst = static_cast<uint8_t*>(buf);
  auto readRun = [&](int64_t at, int64_t card_off, int64_t length) -> int {
    errno = 0;
    if (velt_->read(dst + at, static_cast<int>(length), card_off) == length) return 0;
    int err = transferErrno();
    LOGE("[%s] read(%d bytes) error: %d(%s)\n", entry_->getPath().c_str(), static_cast<int>(length),
         err, strerror(err));
    return -err;
  };
  const int n = forEachReadRun(*this, size, off, readRun);
  if (n > 0) {
    accessed_ = 1;
    direct_offset_ = off + n;
  }
  return n;
}

int VELT::File::readRuns(size_t size, int64_t off, std::vector<CardRun>* runs, int* fd) {
  *fd = -1;
  runs->clear();
  std::lock_guard<std::mutex> lock(mutex_);
  auto note = [runs](int64_t, int64_t card_off, int64_t length) {
    runs->push_back({card_off, length});
    return 0;
  };
  const int n = forEachReadRun(*this, size, off, note);
  if (n <= 0) return n;
  *fd = cardFdFor(*velt_, *runs);
  if (*fd >= 0) {
    accessed_ = 1;
    direct_offset_ = off + n;
  }
  return n;
}

int VELT::File::__write(const void* buf, size_t size, int64_t off, int64_t* partial) {
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
  auto lookup = [&, clusters = growingLookup(*entry_)](uint32_t index, uint32_t wanted,
                                                       uint32_t* count) mutable {
    const int64_t cluster = clusters(index, wanted, count);
    if (cluster == -ENOSPC)
      LOGE("[%s] write error: no cluster available\n", entry_->getPath().c_str());
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
  int r = forEachRun(*velt_, off, static_cast<int64_t>(size), lookup, writeRun, partial);
  if (r < 0) {
    if (partial != nullptr && *partial > 0) written_ = accessed_ = 1;
    return r;
  }
  written_ = 1;
  uncommitted_ = 1;
  accessed_ = 1;
  direct_offset_ = off + static_cast<int64_t>(size);
  return static_cast<int>(size);
}

int VELT::File::write(const void* buf, size_t size, int64_t off) {
  if (entry_ != nullptr && velt_ != nullptr && !direct_ && size > 0 && !entry_->is_reserved_ &&
      velt_->pbr_ != nullptr && velt_->pbr_->cluster_length_ > 0) {
    // A write beyond the end leaves a hole that must read as zeros, as must the rest of the
    // last cluster, which still holds whatever the card had there.
    const int64_t old_size =
        std::atomic_ref<int64_t>(entry_->size_).load(std::memory_order_acquire);
    if (off > old_size) {
      {
        std::lock_guard<std::mutex> lock(mutex_);
        if (error_ != 0) return -error_;  // a failed file touches the card no more
      }
      int r = growEntry(*velt_, *entry_, off);
      if (r < 0) return r;
    }
  }
  int64_t partial = 0;
  int result = __write(buf, size, off, &partial);
  if (result == -ENOSPC && partial > 0) result = static_cast<int>(partial);  // a short write
  if (result > 0 && entry_ != nullptr) {
    int64_t end = off + result;
    std::lock_guard lock(entry_->files_mutex_);
    std::atomic_ref<int64_t>(entry_->size_)
        .store(std::max(entry_->size_, end), std::memory_order_release);
    markModified(*entry_);
    if (entry_->real_size_ < end) {
      entry_->real_size_ = end;
      entry_->checkFiles();
    }
  }
  if (result > 0) {
    // Owed again after the size is raised: a commit that cleared the flag meanwhile took the
    // size before this write's and leaves it to the next commit.
    std::lock_guard<std::mutex> lock(mutex_);
    uncommitted_ = 1;
  }
  // The kernel learns of sizes changed through the mount itself; not of the channel's.
  if (result > 0 && direct_ && velt_ != nullptr) velt_->invalidateKernelCache(entry_);
  if (result == -ENOSPC && entry_ != nullptr && velt_ != nullptr && !entry_->is_reserved_) {
    // Clusters taken for the part that did not fit go back: the chain matches the size.
    trimChain(*velt_, *entry_, std::atomic_ref<int64_t>(entry_->size_).load());
  }
  return result;
}

int VELT::File::flush() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!written_ || velt_ == nullptr || velt_->pbr_ == nullptr) return error_ != 0 ? -EIO : 0;
  // written_ stays set: the close still has to stamp the record.
  velt_->pbr_->flushFATs();
  if (flushPending(*velt_) < 0) error_ = EIO;
  return error_ != 0 ? -EIO : 0;
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
  // A write raises the size only once its bytes are in the write buffer and its clusters in
  // the FAT: what this size covers, the data and chain steps below put on the card.
  const int64_t size = std::atomic_ref<int64_t>(entry_->size_).load(std::memory_order_acquire);
  bool ok = true;
  // The card may reorder writes between flushes: each step reaches the card before the next
  // one points at it.
  auto step = [&v, &ok] {
    if (v.sync() != 0) ok = false;
  };

  step();  // data
  pbr.flushFATs();
  step();  // chains

  if (!dir_mode_) {
    // The publication mark is the entry's, under its files_mutex_: another handle (a mount
    // flush, a channel write) may be publishing the file.
    std::lock_guard lock(entry_->files_mutex_);
    const bool has_record = entry_->isArchive() && entry_->dir_ent_disk_off_ != 0;
    if (has_record && entry_->is_reserved_ && !entry_->is_secured_) {
      // Unpublished recordings stay invisible until asked for.
      if (publish && entry_->secure2() < 0) ok = false;
    } else if (has_record &&
               writeRecordOfSize(v, *entry_, entry_->is_reserved_ ? entry_->size_ : size,
                                 modified) < 0) {
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
  bool update, written;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (file_no_ == kClosedFileNo) return -1;
    if (--open_count_ > 0) return 0;
    update = (accessed_ || written_) && entry_ != nullptr;
    written = written_ != 0;
    handle = file_no_;
    file_no_ = kClosedFileNo;
  }
  if (update) {
    // Another handle of the entry may be publishing it (a mount flush, a channel write): the
    // publication mark is the entry's, under its files_mutex_.
    std::lock_guard lock(entry_->files_mutex_);
    update = !entry_->is_reserved_ || entry_->is_secured_;
  }
  int result = velt_ != nullptr ? velt_->freeFile(handle) : -ENODEV;
  bool uncommitted;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    uncommitted = uncommitted_ != 0;
    uncommitted_ = 0;
  }
  if (update && velt_ != nullptr) {
    if ((written || uncommitted) && velt_->pbr_ != nullptr) {
      PBR* pbr = velt_->pbr_;
      pbr->flushFATs();
      // A writer without a FAT-lock count (a file of the channel) took its clusters with the
      // FAT written at once; the free count in FSInfo must follow. While others hold counts
      // this is deferred to the last release.
      if (!fat_locked_) {
        std::lock_guard<std::mutex> fat_lock(pbr->fat_mutex_);
        pbr->updateFSInfo();
      }
    }
    std::lock_guard lock(entry_->files_mutex_);
    if (uncommitted && !entry_->removed_ && entry_ref_ != nullptr) {
      // New data and its chain reach the card before the record that points at them: the
      // record is owed until a sync, which closes coming close together share. The write time
      // was taken by the writes themselves (a utimens since then stands); the close stamps the
      // access date.
      entry_->stampNow(true, false);
      // Data still pending in the write buffer goes out now; losing it must reach the closer.
      if (velt_->flush() != 0 && result == 0) result = -EIO;
      velt_->oweRecord(entry_ref_);
    } else {
      if (uncommitted && velt_->sync() != 0) result = -EIO;
      // Size, first cluster and times; the close stamps the access date.
      if (entry_->update2(true, false) < 0 && result == 0) result = -EIO;
      if (velt_->flush() != 0 && result == 0) result = -EIO;
    }
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

int VELT::File::truncate(int64_t size) {
  if (velt_ == nullptr || entry_ == nullptr) return -EBADF;
  int r = truncateEntry(*velt_, *entry_, size);
  if (r == 0) setUsage(true, true);
  return r;
}

void VELT::File::setUsage(bool accessed, bool written) {
  std::lock_guard<std::mutex> lock(mutex_);
  accessed_ |= accessed ? 1 : 0;
  written_ |= written ? 1 : 0;
}

}  // namespace velt
