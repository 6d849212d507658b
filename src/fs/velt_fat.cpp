// The in-memory FAT: loading and comparing the copies, the counted FAT lock that batches entry
// writes, allocation, freeing and chain walks. Every walk is bounded by num_clusters_ steps, so
// a chain that loops back on itself ends like a broken one.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>
#include <vector>

#include "fs/velt.h"
#include "fs/velt_pbr.h"

namespace velt {

static constexpr const char kLogTag[] = "VELT.PBR";

bool PBR::readFatCopy(uint32_t copy, uint32_t* table) {
  const size_t bytes = static_cast<size_t>(bytes_per_sector_) * fat_sectors_;
  return velt_->read(table, static_cast<int>(bytes),
                     sectorOffset(reserved_sectors_ + copy * fat_sectors_)) ==
         static_cast<int>(bytes);
}

// FAT1 could not be read whole: it is read sector by sector, and the sectors the card cannot
// give are taken from FAT2. False when a sector is unreadable in every copy.
bool PBR::patchFat1(std::vector<uint32_t>* fat2, bool fat2_read) {
  const uint32_t per_sector = bytes_per_sector_ / 4;
  uint32_t patched = 0;
  for (uint32_t s = 0; s < fat_sectors_; ++s) {
    uint32_t* dst = fat1_.data() + static_cast<size_t>(s) * per_sector;
    if (velt_->read(dst, static_cast<int>(bytes_per_sector_),
                    sectorOffset(reserved_sectors_ + s)) == static_cast<int>(bytes_per_sector_)) {
      continue;
    }
    uint32_t* alt = fat2->data() + static_cast<size_t>(s) * per_sector;
    if (!fat2_read &&
        (num_fats_ < 2 ||
         velt_->read(alt, static_cast<int>(bytes_per_sector_),
                     sectorOffset(reserved_sectors_ + fat_sectors_ + s)) !=
             static_cast<int>(bytes_per_sector_))) {
      LOGE("FAT sector %u unreadable in every copy\n", s);
      return false;
    }
    memcpy(dst, alt, bytes_per_sector_);
    ++patched;
  }
  LOGW("FAT1: %u unreadable sectors taken from FAT2\n", patched);
  return true;
}

int PBR::loadFATs() {
  fat_damaged_ = fat_unreadable_ = false;
  try {
    fat1_.assign(fat_clusters_, 0);
    fat1_flags_.assign((fat_clusters_ + 7) / 8, 0);
    // The card is little-endian; so is every host this runs on (checked at compile time).
    static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "FAT images are little-endian");
    std::vector<uint32_t> fat2;
    if (num_fats_ > 1) fat2.assign(fat_clusters_, 0);
    const bool fat1_read = readFatCopy(0, fat1_.data());
    const bool fat2_read = num_fats_ > 1 && readFatCopy(1, fat2.data());
    if (!fat1_read) {
      int err = errno;
      LOGE("FAT1 read error: %d(%s)\n", err, strerror(err));
      fat_damaged_ = fat_unreadable_ = true;
      if (num_fats_ < 2 || !patchFat1(&fat2, fat2_read)) return -1;
    }
    if (num_fats_ > 1 && !fat2_read) {
      // Rewritten from FAT1 once the tree is built.
      int err = errno;
      LOGE("FAT2 read error: %d(%s)\n", err, strerror(err));
      fat_damaged_ = fat_unreadable_ = true;
    }
    if (num_fats_ > 1 && fat2_read) {
      int mismatched = 0;
      for (uint32_t c = 0; c < num_clusters_; ++c) {
        if (fat1_[c] == fat2[c]) continue;
        fat_damaged_ = true;
        if (c >= 2) ++mismatched;
      }
      if (mismatched > 0) {
        NERIO_ASSERT(fat_damaged_);
        LOGE("mismatched FAT cluster entries#%d found\n", mismatched);
      }
    }
  } catch (const std::bad_alloc&) {
    LOGE("got exception when creating FAT tables!\n");
    return -1;
  }
  return 0;
}

bool PBR::fatDamageReachesFiles() {
  if (!fat_damaged_) return false;
  if (fat_unreadable_ || num_fats_ < 2) return true;
  std::vector<uint32_t> fat2;
  try {
    fat2.assign(fat1_.size(), 0);
  } catch (const std::bad_alloc&) {
    return true;
  }
  if (!readFatCopy(1, fat2.data())) return true;
  std::lock_guard<std::mutex> lock(fat_mutex_);
  for (uint32_t c = 0; c < num_clusters_; ++c) {
    if (fat1_[c] != fat2[c] && (c < 2 || isClusterUsed(c))) return true;
  }
  return false;
}

uint32_t PBR::clusterToSector(uint32_t cluster) const {
  if (cluster < 2) NERIO_ASSERT_TEXT("cluster_number >= 2");
  return data_start_sector_ + (cluster - 2) * sectors_per_cluster_;
}

uint32_t PBR::__nextCluster(uint32_t c) {
  if (c >= num_clusters_) {
    NERIO_ASSERT_MSG(num_clusters_ > c, ": %d > %d(0x%08x)\n", num_clusters_, c, c);
    return FAT_EOC;
  }
  return __entry(c);
}

bool PBR::__isValidCluster(uint32_t c) {
  if (c < num_clusters_) return true;
  NERIO_ASSERT_MSG(num_clusters_ > c, ": %d > %d(0x%08x)\n", num_clusters_, c, c);
  return false;
}

void PBR::lockFAT() {
  std::lock_guard<std::mutex> lock(fat_mutex_);
  ++fat_locked_count_;
}

void PBR::unlockFAT(bool flush) {
  std::lock_guard<std::mutex> lock(fat_mutex_);
  --fat_locked_count_;
  if (fat_locked_count_ < 0) {
    static constexpr const char kLogTag[] = "";
    NERIO_ASSERT_MSG(fat_locked_count_ >= 0, ": %d >= 0\n", fat_locked_count_);
  }
  if (fat_locked_count_ == 0 && flush) {
    __flushFATs();
    updateFSInfo();
  }
}

int PBR::updateFATs() {
  NERIO_ASSERT(fat1_.size() > 0);
  if (fat_locked_count_ != 0) {
    __markAllFATDirty();
    return 0;
  }
  size_t bytes = static_cast<size_t>(bytes_per_sector_) * fat_sectors_;
  for (uint32_t i = 0; i < num_fats_; ++i) {
    if (velt_->write(fat1_.data(), static_cast<uint32_t>(bytes),
                     sectorOffset(reserved_sectors_ + i * fat_sectors_), true) <
            static_cast<int>(bytes) ||
        velt_->flush() != 0) {
      int err = errno;
      LOGE("sync FAT table[%d]: %d(%s)\n", i, err, strerror(err));
      return -1;
    }
  }
  std::fill(dirty_fat_sectors_.begin(), dirty_fat_sectors_.end(), 0);
  dirty_fat_count_ = 0;
  fat_damaged_ = false;
  return 0;
}

void PBR::__markFATSectorDirty(uint32_t fat_sector) {
  if (fat_sector >= fat_sectors_) return;
  if (dirty_fat_sectors_.size() * 64 < fat_sectors_) dirty_fat_sectors_.resize((fat_sectors_ + 63) / 64, 0);
  uint64_t bit = uint64_t{1} << (fat_sector % 64);
  uint64_t& word = dirty_fat_sectors_[fat_sector / 64];
  if ((word & bit) == 0) {
    word |= bit;
    ++dirty_fat_count_;
  }
}

void PBR::__markAllFATDirty() {
  for (uint32_t s = 0; s < fat_sectors_; ++s) __markFATSectorDirty(s);
}

int PBR::__syncFATEntry(uint32_t c) {
  if (c >= num_clusters_) {
    NERIO_ASSERT_MSG(num_clusters_ > c, ": %d > %d\n", num_clusters_, c);
    return -1;
  }
  __markFATSectorDirty(static_cast<uint32_t>(4ull * c / bytes_per_sector_));
  if (fat_locked_count_ > 0) return 0;
  if (__flushFATs() != 0) {
    int err = errno;
    LOGE("flusing FAT table entry of cluster %d failed: %d(%s)\n", c, err, strerror(err));
    return -1;
  }
  return 0;
}

int PBR::__flushFATs() {
  if (dirty_fat_count_ == 0) return 0;
  // Runs of consecutive dirty sectors: [start, start + length).
  std::vector<std::pair<uint32_t, uint32_t>> runs;
  for (size_t w = 0; w < dirty_fat_sectors_.size(); ++w) {
    uint64_t word = dirty_fat_sectors_[w];
    while (word != 0) {
      uint32_t s = static_cast<uint32_t>(w * 64 + __builtin_ctzll(word));
      word &= word - 1;
      if (!runs.empty() && runs.back().first + runs.back().second == s) {
        ++runs.back().second;
      } else {
        runs.emplace_back(s, 1);
      }
    }
  }
  // Copy by copy, each finished on the card before the next begins: a write torn by a power cut
  // damages one copy at most.
  bool failed = false;
  for (uint32_t i = 0; i < num_fats_ && !failed; ++i) {
    for (const auto& [start, n] : runs) {
      const uint32_t entry = start * bytes_per_sector_ / 4;
      const uint32_t bytes = n * bytes_per_sector_;
      if (velt_->write(&fat1_[entry], bytes,
                       sectorOffset(reserved_sectors_ + i * fat_sectors_ + start),
                       true) < static_cast<int>(bytes)) {
        int err = errno;
        LOGE("flusing FAT table entry of cluster %d failed: %d(%s)\n", entry, err, strerror(err));
        failed = true;
        break;
      }
    }
    if (!failed && velt_->flush() != 0) {
      int err = errno;
      LOGE("flusing FAT table[%d] failed: %d(%s)\n", i, err, strerror(err));
      failed = true;
    }
  }
  if (failed) {
    errno = EIO;
    return -1;
  }
  std::fill(dirty_fat_sectors_.begin(), dirty_fat_sectors_.end(), 0);
  dirty_fat_count_ = 0;
  return 0;
}

int PBR::flushFATs() {
  std::lock_guard<std::mutex> lock(fat_mutex_);
  return __flushFATs();
}

int64_t PBR::scanRange(uint32_t from, uint32_t to, bool avoid) {
  const auto now = std::chrono::steady_clock::now();
  for (uint32_t c = from; c < to; ++c) {
    if (__entry(c) != 0) continue;
    uint32_t skip_to = c;
    for (const FreedRun& run : recent_frees_) {
      if (avoid && c >= run.first && c < run.end && now - run.when < kRecentFreeTime)
        skip_to = std::max(skip_to, run.end - 1);
    }
    if (skip_to == c) return c;
    c = skip_to;
  }
  return -1;
}

int64_t PBR::scanFreeCluster() {
  uint32_t start = next_free_cluster_number_;
  // Recently freed clusters only when nothing else is free.
  const uint32_t low = root_cluster_ + 1;
  const uint32_t from = std::max<uint32_t>(start, 2);
  if (!recent_only_) {
    int64_t found = from < num_clusters_ ? scanRange(from, num_clusters_, true) : -1;
    if (found < 0) found = scanRange(low, std::min(from, num_clusters_), true);
    if (found >= 0) return found;
    recent_only_ = true;  // a full card scans the table twice only once per batch of frees
  }
  if (start < num_clusters_) {
    if (int64_t found = scanRange(from, num_clusters_, false); found >= 0) return found;
  }
  LOGW("the end of the fat table reaches. started @ %d / %d, retry from the begin...\n", start,
       num_clusters_);
  next_free_cluster_number_ = low;
  return scanRange(low, num_clusters_, false);
}

void PBR::takeCluster(uint32_t c) {
  next_free_cluster_number_ = c + 1 >= num_clusters_ ? root_cluster_ + 1 : c + 1;
  if (free_cluster_count_ > 0) --free_cluster_count_;
}

void PBR::zeroCluster(uint32_t c) {
  NERIO_ASSERT(zeros_.size() == cluster_length_);
  velt_->write(zeros_.data(), cluster_length_, sectorOffset(clusterToSector(c)), true);
}

int64_t PBR::allocCluster(bool zero) {
  std::lock_guard<std::mutex> lock(fat_mutex_);
  int64_t found = scanFreeOrDeferred();
  if (found < 0) {
    LOGI("FAT table is full, no clusters available!!!\n");
    __releaseUnusedClusters(false);
    return FAT_EOC;
  }
  uint32_t c = static_cast<uint32_t>(found);
  __setEntry(c, FAT_EOC);
  if (isClusterUsed(c)) NERIO_ASSERT_TEXT("isFatClusterUsed(fat1_flags_, cluster_number) == false");
  setUsedBit(c);
  if (__syncFATEntry(c) != 0) return -1;
  takeCluster(c);
  if (zero) zeroCluster(c);
  return c;
}

int64_t PBR::allocClusters(uint32_t prev, int count, bool zero, uint32_t* out) {
  std::lock_guard<std::mutex> lock(fat_mutex_);
  if (prev >= num_clusters_) {
    NERIO_ASSERT_MSG(num_clusters_ > prev, ": %d > %d\n", num_clusters_, prev);
    return -1;
  }
  if (count < 1) return FAT_EOC;
  std::vector<uint32_t> own;
  if (out == nullptr) {
    try {
      own.resize(static_cast<size_t>(count));
    } catch (const std::bad_alloc&) {
      return -1;
    }
    out = own.data();
  }
  // Take the clusters as one chain of their own (each marked as it is taken, so that the scan
  // passes over it); when the table runs out, the ones taken so far still join the chain.
  int taken = 0;
  for (; taken < count; ++taken) {
    int64_t found = scanFreeOrDeferred();
    if (found < 0) {
      LOGI("FAT table is full, no clusters available!!!\n");
      __releaseUnusedClusters(false);
      break;
    }
    const auto c = static_cast<uint32_t>(found);
    takeCluster(c);
    if (isClusterUsed(c)) NERIO_ASSERT_TEXT("isFatClusterUsed(fat1_flags_, next_cluster_number) == false");
    setUsedBit(c);
    __setEntry(c, FAT_EOC);
    if (taken > 0) __setEntry(out[taken - 1], c);
    out[taken] = c;
  }
  for (int k = taken; k < count; ++k) out[k] = FAT_EOC;
  if (taken == 0) return FAT_EOC;
  // On the card the zeros come before the entries, and the new chain, ended, before the link to
  // it: a power cut leaves at most lost clusters (the next load frees them), never a chain that
  // runs into a free or unzeroed cluster.
  if (zero) {
    for (int i = 0; i < taken; ++i) zeroCluster(out[i]);
    velt_->sync();
  }
  for (int i = 0; i < taken; ++i)
    __markFATSectorDirty(static_cast<uint32_t>(4ull * out[i] / bytes_per_sector_));
  if (fat_locked_count_ == 0 && __flushFATs() != 0) {
    // Nothing links to them: they go back, and their sectors, still dirty, say so at the next
    // flush (whatever of them reached the card are lost clusters until then).
    for (int i = 0; i < taken; ++i) {
      __setEntry(out[i], 0);
      __setUsed(out[i], false);
      ++free_cluster_count_;
      next_free_cluster_number_ = std::min(next_free_cluster_number_, out[i]);
      out[i] = FAT_EOC;
    }
    LOGE("flusing FAT table entries of %d new clusters failed\n", taken);
    return -1;
  }
  __setEntry(prev, out[0]);
  // Linked in memory even when this write fails: the caller's map takes them, in step with the
  // table that a later flush writes.
  if (__syncFATEntry(prev) != 0) return -1;
  return taken == count ? out[0] : FAT_EOC;
}

int PBR::endOfCluster(uint32_t c) {
  std::lock_guard<std::mutex> lock(fat_mutex_);
  if (c >= num_clusters_) return -1;
  __setEntry(c, FAT_EOC);
  if (!isClusterUsed(c)) NERIO_ASSERT_TEXT("isFatClusterUsed(fat1_flags_, cluster_number)");
  setUsedBit(c);
  return __syncFATEntry(c) == 0 ? 0 : -1;
}

void PBR::noteFreed(uint32_t c) {
  const auto now = std::chrono::steady_clock::now();
  FreedRun& last = recent_frees_[recent_last_];
  if (last.end == c && last.end > last.first && now - last.when < kRecentFreeTime) {
    last.end = c + 1;
    last.when = now;
    return;
  }
  recent_last_ = (recent_last_ + 1) % recent_frees_.size();
  recent_frees_[recent_last_] = {c, c + 1, now};
  recent_only_ = false;
}

int PBR::__freeCluster(uint32_t c) {
  if (c >= num_clusters_) return -1;
  noteFreed(c);
  if (static_cast<int64_t>(next_free_cluster_number_) > static_cast<int64_t>(c)) {
    next_free_cluster_number_ = c;
  }
  ++free_cluster_count_;
  __setEntry(c, 0);
  fat1_flags_[c / 8] &= static_cast<uint8_t>(~(1u << (c % 8)));
  return __syncFATEntry(c);
}

int PBR::freeCluster(uint32_t c) {
  std::lock_guard<std::mutex> lock(fat_mutex_);
  return __freeCluster(c);
}

void PBR::__freeChain(uint32_t first, bool zero) {
  if (first < 2 || first >= FAT_EOC) return;
  if (first >= num_clusters_) {
    NERIO_ASSERT_MSG(num_clusters_ > first, ": %d > %d(0x%08x)\n", num_clusters_, first, first);
    return;
  }
  uint32_t cur = first;
  for (uint32_t steps = 0; steps < num_clusters_; ++steps) {
    uint32_t next = __entry(cur);
    if (next == 0) break;
    if (zero) zeroCluster(cur);
    __freeCluster(cur);
    if (next < 2 || next > FAT_BAD) break;
    if (next >= num_clusters_) {
      NERIO_ASSERT_MSG(num_clusters_ > next, ": %d > %d(0x%08x)\n", num_clusters_, next, next);
      break;
    }
    cur = next;
  }
}

int PBR::freeClusterChains(uint32_t first, bool zero) {
  lockFAT();
  {
    std::lock_guard<std::mutex> lock(fat_mutex_);
    __freeChain(first, zero);
  }
  unlockFAT(true);
  return 0;
}

void PBR::deferFree(uint32_t first) {
  if (first < 2 || first >= num_clusters_) return;
  // Nothing else reaches a removed file's chain: it cannot change between the count and the list.
  const auto clusters = static_cast<uint32_t>(std::max<int64_t>(getClusterCount(first), 0));
  std::lock_guard<std::mutex> lock(fat_mutex_);
  try {
    deferred_.push_back({first, clusters});
  } catch (const std::bad_alloc&) {
    // Left taken: the next load frees what no record reaches.
    LOGE("chain %u not freed: no memory\n", first);
    return;
  }
  deferred_clusters_ += clusters;
}

std::vector<PBR::DeferredChain> PBR::takeDeferred() {
  std::lock_guard<std::mutex> lock(fat_mutex_);
  return std::exchange(deferred_, {});
}

void PBR::__freeDeferred(const std::vector<DeferredChain>& chains) {
  for (const DeferredChain& d : chains) {
    __freeChain(d.first, false);
    deferred_clusters_ -= std::min(deferred_clusters_, d.clusters);
  }
}

void PBR::freeDeferred(const std::vector<DeferredChain>& chains) {
  if (chains.empty()) return;
  lockFAT();
  {
    std::lock_guard<std::mutex> lock(fat_mutex_);
    __freeDeferred(chains);
  }
  unlockFAT(true);
}

void PBR::restoreDeferred(const std::vector<DeferredChain>& chains) {
  std::lock_guard<std::mutex> lock(fat_mutex_);
  try {
    deferred_.insert(deferred_.end(), chains.begin(), chains.end());
  } catch (const std::bad_alloc&) {
    for (const DeferredChain& d : chains) deferred_clusters_ -= std::min(deferred_clusters_, d.clusters);
  }
}

uint32_t PBR::freeOrDeferredCount() {
  std::lock_guard<std::mutex> lock(fat_mutex_);
  return free_cluster_count_ + deferred_clusters_;
}

int64_t PBR::scanFreeOrDeferred() {
  int64_t found = scanFreeCluster();
  if (found >= 0 || deferred_.empty()) return found;
  // Under the FAT lock no chain joins the list meanwhile: the sync puts all their records'
  // removals on the card.
  if (velt_->sync() != 0) return -1;
  __freeDeferred(std::exchange(deferred_, {}));
  return scanFreeCluster();
}

bool PBR::checkClusterChains(uint32_t first, size_t size) {
  std::lock_guard<std::mutex> lock(fat_mutex_);
  uint32_t cur = first, prev = 0;
  size_t total = 0;
  for (uint32_t steps = 0;; ++steps) {
    if (cur < 2 || cur > FAT_BAD) {
      if (size <= total) return true;
      LOGE("cluster chain starting from %d(%08x) insufficient space for %zu bytes.\n", first, first,
           size);
      LOGE("xcluster %d(%08x), cur %d(0x%08x). checked total %zu. %zd more needs.\n", prev, prev,
           cur, cur, total, static_cast<ssize_t>(size - total));
      return false;
    }
    if (cur == FAT_BAD) {
      LOGI("bad cluster detected @ cluster %08x -> %08x\n", prev, cur);
      return false;
    }
    if (cur >= num_clusters_) {
      NERIO_ASSERT_MSG(num_clusters_ > cur && cur >= 2, ": %d > %d(0x%08x) >= 2\n", num_clusters_,
                       cur, cur);
      LOGE("out of range cluster number %d(0x%08x)\n", cur, cur);
      return false;
    }
    if (steps >= num_clusters_) {
      LOGE("out of range cluster number %d(0x%08x)\n", cur, cur);
      return false;
    }
    prev = cur;
    cur = __entry(cur);
    total += cluster_length_;
  }
}

int64_t PBR::getClusterCount(uint32_t first) {
  std::lock_guard<std::mutex> lock(fat_mutex_);
  int64_t count = 0;
  uint32_t cur = first, prev = 0;
  while (isChainCluster(cur)) {
    if (cur == FAT_BAD) {
      LOGI("bad cluster detected @ cluster %08x -> %08x\n", prev, cur);
      return -1;
    }
    if (cur >= num_clusters_ || count >= num_clusters_) {
      if (cur >= num_clusters_) {
        NERIO_ASSERT_MSG(num_clusters_ > cur && cur >= 2, ": %d > %d(0x%08x) >= 2\n",
                         num_clusters_, cur, cur);
      }
      LOGE("out of range cluster number %d(0x%08x)\n", cur, cur);
      return -1;
    }
    ++count;
    prev = cur;
    cur = __entry(cur);
  }
  return count;
}

int PBR::setClusterChainUsed(uint32_t first) {
  std::lock_guard<std::mutex> lock(fat_mutex_);
  NERIO_ASSERT(fat1_flags_.size() > 0);
  uint32_t cur = first, prev = 0;
  uint32_t steps = 0;
  while (isChainCluster(cur)) {
    if (cur == FAT_BAD) {
      LOGI("bad cluster detected @ cluster %08x -> %08x\n", prev, cur);
      return -1;
    }
    if (cur >= num_clusters_ || steps++ >= num_clusters_) {
      if (cur >= num_clusters_) {
        NERIO_ASSERT_MSG(num_clusters_ > cur && cur >= 2, ": %d > %d(0x%08x) >= 2\n",
                         num_clusters_, cur, cur);
      }
      LOGE("out of range cluster number %d(0x%08x)\n", cur, cur);
      return -1;
    }
    setUsedBit(cur);
    prev = cur;
    cur = __nextCluster(cur);
  }
  return 0;
}

int PBR::__releaseUnusedClusters(bool write_fsinfo) {
  if (num_clusters_ <= 2) {
    free_cluster_count_ = 0;
    next_free_cluster_number_ = 0;
  } else {
    uint32_t count = 0, first = 0;
    bool changed = false;
    for (uint32_t c = 2; c < num_clusters_; ++c) {
      if (isClusterUsed(c)) continue;
      if (__entry(c) != 0) {
        changed = true;
        __setEntry(c, 0);
        __markFATSectorDirty(static_cast<uint32_t>(4ull * c / bytes_per_sector_));
      }
      if (count == 0) first = c;
      ++count;
    }
    free_cluster_count_ = count;
    next_free_cluster_number_ = first;
    if (changed && fat_locked_count_ == 0) __flushFATs();
  }
  return write_fsinfo ? updateFSInfo() : 0;
}

int PBR::releaseUnusedClusters(bool write_fsinfo) {
  std::lock_guard<std::mutex> lock(fat_mutex_);
  return __releaseUnusedClusters(write_fsinfo);
}

int PBR::fixFATEntry(uint32_t c, uint32_t value) {
  std::lock_guard<std::mutex> lock(fat_mutex_);
  if (c >= num_clusters_) return -1;
  uint32_t old = __entry(c);
  LOGI("fix fat entry [%d(0x%08x)] %d(0x%08x) -> %d(0x%08x)\n", c, c, old, old, value, value);
  __setEntry(c, value);
  __syncFATEntry(c);
  __flushFATs();
  return 0;
}

}  // namespace velt
