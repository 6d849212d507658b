// Cluster map (the entry's chain in order) and entry map (one byte per directory slot).
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include "fs/velt_dirent.h"
#include "fs/velt_endian.h"

namespace velt {

static constexpr const char kLogTag[] = "VELT.DirEntry";

int VELT::DirEntry::loadClusterMap() {
  std::lock_guard lock(map_mutex_);
  if (cluster_map_loaded_ && !cluster_map_dirty_) return 0;
  if (start_cluster_ == 0 || isEOC(start_cluster_)) {
    if (start_cluster_ != 0) NERIO_ASSERT_TEXT("start_cluster_ == 0");
    return 0;
  }
  PBR* pbr = velt_->pbr_;
  int64_t cluster_count = pbr->getClusterCount(start_cluster_);
  if (cluster_count < 1) {
    NERIO_ASSERT_TEXT("cluster_count > 0");
    cluster_count = 1;
  }
  try {
    cluster_map_.assign(static_cast<size_t>(cluster_count), 0);
  } catch (const std::bad_alloc&) {
    LOGE("[%s]: failed to create cluster map\n", getPath().c_str());
    return -1;
  }
  cluster_map_[0] = start_cluster_;
  int64_t current_size = pbr->cluster_length_;
  for (size_t i = 1;; ++i) {
    uint32_t next;
    {
      std::lock_guard<std::mutex> fat_lock(pbr->fat_mutex_);
      next = pbr->__nextCluster(cluster_map_[i - 1]);
    }
    if (next == 0 || isEOC(next)) {
      if (static_cast<int64_t>(i) != cluster_count) NERIO_ASSERT_TEXT("i == cluster_count");
      if (next == 0) pbr->fixFATEntry(cluster_map_[i - 1], FAT_EOC);
      cluster_map_.resize(i);
      break;
    }
    if (i >= cluster_map_.size()) {
      NERIO_ASSERT_MSG(i < cluster_map_.size(), ": %d < %d, fat[%d(0x%08x)] = %d(0x%08x)\n",
                       static_cast<int>(i), static_cast<int>(cluster_map_.size()),
                       cluster_map_[i - 1], cluster_map_[i - 1], next, next);
      LOGE("[%s] fat table broken\n", getPath().c_str());
      return -1;
    }
    cluster_map_[i] = next;
    current_size += pbr->cluster_length_;
  }
  if (current_size < size_) NERIO_ASSERT_TEXT("current_size >= size_");
  cluster_map_loaded_ = true;
  cluster_map_dirty_ = false;
  return 0;
}

int VELT::DirEntry::__clusterNumberToIndex(uint32_t cluster) {
  for (size_t i = 0; i < cluster_map_.size(); ++i) {
    if (cluster_map_[i] == cluster) return static_cast<int>(i);
  }
  LOGE("cluster number %d is not found in the cluster_map[entries#%d] of [%s]: ", cluster,
       static_cast<int>(cluster_map_.size()), getPath().c_str());
  printf("\n[%s] cluster map: { ", getPath().c_str());
  for (uint32_t c : cluster_map_) printf("%d ", c);
  printf("}\n");
  fflush(stdout);
  nerio::printBacktrace(10);
  return -1;
}

int VELT::DirEntry::__diskOffsetToEntryIndex(int64_t disk_off) {
  if (!isDir()) NERIO_ASSERT_TEXT("isDir()");
  PBR* pbr = velt_->pbr_;
  int64_t part_off = static_cast<int64_t>(pbr->partition_.lba) * pbr->partition_.bytes_per_sector;
  int64_t sector = (disk_off - part_off) / pbr->bytes_per_sector_;
  if (sector < pbr->data_start_sector_) {
    NERIO_ASSERT_MSG(sector >= pbr->data_start_sector_, ": %d >= %d\n", static_cast<int>(sector),
                     pbr->data_start_sector_);
    return -1;
  }
  uint32_t cluster =
      static_cast<uint32_t>((sector - pbr->data_start_sector_) / pbr->sectors_per_cluster_ + 2);
  int64_t cluster_offset = disk_off - velt_->clusterOffset(cluster);
  if (cluster_offset < 0 || cluster_offset >= pbr->cluster_length_) {
    NERIO_ASSERT_MSG(cluster_offset >= 0 && cluster_offset < velt_->pbr_->cluster_length_,
                     ": %d >= 0 && %d < %d\n", static_cast<int>(cluster_offset),
                     static_cast<int>(cluster_offset), pbr->cluster_length_);
  }
  if (cluster_offset % DIR_RECORD_SIZE != 0) NERIO_ASSERT_TEXT("(cluster_offset % 32) == 0");
  int cluster_index = __clusterNumberToIndex(cluster);
  if (cluster_index < 0) {
    NERIO_ASSERT_MSG(cluster_index >= 0, ": %d >= 0\n", cluster_index);
    return -1;
  }
  int64_t entry_index =
      (static_cast<int64_t>(cluster_index) * pbr->cluster_length_ + cluster_offset) /
      DIR_RECORD_SIZE;
  if (entry_index < 0 || entry_index >= static_cast<int64_t>(entry_map_.size())) {
    NERIO_ASSERT_TEXT("entry_index >= 0 && entry_index < entry_map_.size()");
  }
  return static_cast<int>(entry_index);
}

int VELT::DirEntry::diskOffsetToEntryIndex(int64_t disk_off) {
  std::lock_guard lock(map_mutex_);
  return __diskOffsetToEntryIndex(disk_off);
}

int64_t VELT::DirEntry::entryIndexToDiskOffset(int entry_index) {
  if (velt_ == nullptr || velt_->pbr_ == nullptr || velt_->pbr_->cluster_length_ == 0) {
    NERIO_ASSERT_TEXT("velt_ && velt_->pbr_ && velt_->pbr_->cluster_length_ > 0");
    return 0;
  }
  if (!isDir()) NERIO_ASSERT_TEXT("isDir()");
  if (start_cluster_ < 2 || isEOC(start_cluster_)) {
    NERIO_ASSERT_TEXT("start_cluster_ >= 2 && isEOC(start_cluster_) == false");
    return 0;
  }
  const uint32_t len = velt_->pbr_->cluster_length_;
  int64_t byte = static_cast<int64_t>(entry_index) * DIR_RECORD_SIZE;
  int64_t cluster = getCluster(static_cast<uint32_t>(byte / len), false);
  if (cluster < 2 || isEOC(static_cast<uint32_t>(cluster))) return 0;
  return velt_->clusterOffset(static_cast<uint32_t>(cluster)) + byte % len;
}

int VELT::DirEntry::changeEntryMapValue(const std::shared_ptr<DirEntry>& entry, int64_t disk_off,
                                        uint8_t org, uint8_t value) {
  std::lock_guard lock(map_mutex_);
  if (disk_off == 0) {
    NERIO_ASSERT_TEXT("disk_off != 0ll");
    return -1;
  }
  if (disk_off < 0) return -1;
  int index = __diskOffsetToEntryIndex(disk_off);
  std::string entry_path = entry ? entry->getPath() : std::string();
  if (index < 0 || static_cast<size_t>(index) >= entry_map_.size()) {
    NERIO_ASSERT_MSG(index >= 0 && entry_map_.size() > static_cast<size_t>(index),
                     ": [%s]'s entry [%s], %d >= 0 && %d > %d\n", getPath().c_str(),
                     entry_path.c_str(), index, static_cast<int>(entry_map_.size()), index);
    LOGE("[%s] can't get entry ([%s]) index from disk offset %jd\n", getPath().c_str(),
         entry_path.c_str(), static_cast<intmax_t>(disk_off));
    return -1;
  }
  if (entry_map_[index] != org) {
    NERIO_ASSERT_MSG(entry_map_[index] == org, ": [%s]'s [%s] @ %jd [%d] %02x == %02x\n",
                     getPath().c_str(), entry_path.c_str(), static_cast<intmax_t>(disk_off), index,
                     entry_map_[index], org);
  }
  entry_map_[index] = value;
  return 0;
}

// First run of `count` free slots from `from`; -1 when none.
static int findFreeRun(const std::vector<uint8_t>& map, size_t from, int count, size_t* stop) {
  size_t run = 0;
  for (size_t i = from; i < map.size(); ++i) {
    if (map[i] == DIR_ENTRY_FREE) {
      if (++run == static_cast<size_t>(count)) return static_cast<int>(i + 1 - run);
    } else {
      run = 0;
    }
  }
  *stop = map.size() - run;  // where a run reaching the end began
  return -1;
}

int VELT::DirEntry::alloc(int request_dir_entry_count, bool reserve_it) {
  const int per_cluster = static_cast<int>(velt_->pbr_->cluster_length_ / DIR_RECORD_SIZE);
  if (!reserve_it) NERIO_ASSERT_TEXT("reserve_it == true");
  if (!isDir()) NERIO_ASSERT_MSG(isDir(), ": [%s] is not directory\n", getPath().c_str());
  if (velt_folder_ != nullptr) {
    LOGE("[%s] reserved folder: no records but its reserved files\n", getPath().c_str());
    return -1;
  }
  if (request_dir_entry_count > per_cluster || request_dir_entry_count < 1) {
    NERIO_ASSERT_MSG(request_dir_entry_count <= per_cluster, ": %d <= %d\n",
                     request_dir_entry_count, per_cluster);
    return -1;
  }
  // Each growth adds one zero-filled cluster of free slots. Concurrent creators may take the
  // new slots before this one looks again, so a few growths are allowed, each scan going on
  // from where the previous one stopped.
  constexpr int kGrowths = 8;
  size_t stop = 0;
  for (int pass = 0; pass <= kGrowths; ++pass) {
    {
      std::lock_guard lock(map_mutex_);
      int first = findFreeRun(entry_map_, stop, request_dir_entry_count, &stop);
      if (first >= 0) {
        if (reserve_it) {
          for (int i = 0; i < request_dir_entry_count; ++i) {
            entry_map_[first + i] = DIR_ENTRY_RESERVED_CHAR;
          }
        }
        return first;
      }
    }
    if (pass == kGrowths || allocClusters(1, true) < 0) break;
  }
  LOGE("alloc(#%d) FAILED\n", request_dir_entry_count);
  return -1;
}

int64_t VELT::DirEntry::getCluster(uint32_t cluster_map_index, bool allocate) {
  if (loadClusterMap() < 0) return -1;
  std::unique_lock lock(map_mutex_);
  if (!cluster_map_loaded_ && start_cluster_ != 0) NERIO_ASSERT_TEXT("cluster_map_loaded_");
  if (cluster_map_index < cluster_map_.size()) {
    uint32_t c = cluster_map_[cluster_map_index];
    if (isEOC(c)) NERIO_ASSERT_TEXT("isEOC(cluster_map_[cluster_map_index]) == false");
    return c;
  }
  int64_t needed =
      static_cast<int64_t>(cluster_map_index) + 1 - static_cast<int64_t>(cluster_map_.size());
  if (needed <= 0) NERIO_ASSERT_TEXT("cluster_count > 0");
  if (!allocate) {
    LOGI("[%s] cluster map index out of range: index %d map size %d (read lookahead?)\n",
         getPath().c_str(), cluster_map_index, static_cast<int>(cluster_map_.size()));
    return FAT_EOC;
  }
  if (is_reserved_ && !is_dir_) {
    LOGI(
        "[%s] reserved file need more clusters#%d (new index %d, current map size %zd), real "
        "size %jd, size %jd!!!\n",
        getPath().c_str(), static_cast<int>(needed), cluster_map_index, cluster_map_.size(),
        static_cast<intmax_t>(real_size_), static_cast<intmax_t>(size_));
  }
  lock.unlock();
  int r = allocClusters(static_cast<int>(needed), is_dir_);
  if (r < 0) return r == -ENOSPC ? -ENOSPC : -1;
  lock.lock();
  if (cluster_map_index >= cluster_map_.size()) {
    NERIO_ASSERT_TEXT("cluster_map_.size() > cluster_map_index");
    return -1;
  }
  return cluster_map_[cluster_map_index];
}

int64_t VELT::DirEntry::clusterRun(uint32_t cluster_map_index, uint32_t max_count,
                                    uint32_t* count) {
  *count = 1;
  std::unique_lock lock(map_mutex_);
  if (!cluster_map_loaded_ || cluster_map_dirty_) {
    lock.unlock();
    if (loadClusterMap() < 0) return -1;
    lock.lock();
  }
  if (cluster_map_index >= cluster_map_.size()) {
    LOGI("[%s] cluster map index out of range: index %d map size %d\n", getPath().c_str(),
         cluster_map_index, static_cast<int>(cluster_map_.size()));
    return FAT_EOC;
  }
  const uint32_t first = cluster_map_[cluster_map_index];
  const size_t end =
      std::min<size_t>(cluster_map_.size(), size_t{cluster_map_index} + std::max(max_count, 1u));
  uint32_t n = 1;
  while (cluster_map_index + n < end && cluster_map_[cluster_map_index + n] == first + n) ++n;
  *count = n;
  return first;
}

int VELT::DirEntry::allocClusters(int count, bool set_zeros) {
  if (velt_ == nullptr || velt_->pbr_ == nullptr) {
    NERIO_ASSERT_TEXT("velt_ && velt_->pbr_");
    return -1;
  }
  PBR* pbr = velt_->pbr_;
  const size_t per_cluster = pbr->cluster_length_ / DIR_RECORD_SIZE;
  if (loadClusterMap() < 0) return -1;
  std::lock_guard lock(map_mutex_);
  if (start_cluster_ == 0) {
    int64_t c = pbr->allocCluster(set_zeros);
    if (c < 0 || isEOC(static_cast<uint32_t>(c))) {
      NERIO_ASSERT_TEXT("isEOC(start_cluster_) == false");
      start_cluster_ = 0;
      LOGE("[%s] write error: no cluster available\n", getPath().c_str());
      return c < 0 ? -1 : -ENOSPC;
    }
    start_cluster_ = static_cast<uint32_t>(c);
    if (!entry_map_.empty()) NERIO_ASSERT_TEXT("entry_map_.size() == 0");
    if (!cluster_map_.empty()) NERIO_ASSERT_TEXT("cluster_map_.size() == 0");
    cluster_map_.push_back(start_cluster_);
    cluster_map_loaded_ = true;
    cluster_map_dirty_ = false;
    if (is_dir_) {
      if (!set_zeros) NERIO_ASSERT_TEXT("set_zeros");
      entry_map_.insert(entry_map_.end(), per_cluster, DIR_ENTRY_FREE);
    }
    --count;
  }
  if (count < 1) return 0;
  if (cluster_map_.empty()) {
    NERIO_ASSERT_TEXT("cluster_map_.size() > 0");
    return -1;
  }
  uint32_t last = cluster_map_.back();
  {
    std::lock_guard<std::mutex> fat_lock(pbr->fat_mutex_);
    if (!isEOC(pbr->__nextCluster(last))) NERIO_ASSERT_TEXT("isEOC(next_cluster_number)");
  }
  std::vector<uint32_t> added;
  try {
    added.assign(static_cast<size_t>(count), 0);
  } catch (const std::bad_alloc&) {
    LOGE("got exception when creating cluster map #%d\n", count);
    return -1;
  }
  int64_t first = pbr->allocClusters(last, count, set_zeros, added.data());
  if (first < 0 || isEOC(static_cast<uint32_t>(first))) {
    // Clusters taken before the table ran out stay linked: keep the map in step with the FAT.
    for (uint32_t c : added) {
      if (c < 2 || isEOC(c)) continue;
      cluster_map_.push_back(c);
      if (is_dir_) entry_map_.insert(entry_map_.end(), per_cluster, DIR_ENTRY_FREE);
    }
    LOGE("[%s] write error: no cluster available\n", getPath().c_str());
    return first < 0 ? -1 : -ENOSPC;
  }
  cluster_map_.insert(cluster_map_.end(), added.begin(), added.end());
  if (is_dir_) {
    if (!set_zeros) NERIO_ASSERT_TEXT("set_zeros");
    entry_map_.insert(entry_map_.end(), per_cluster * static_cast<size_t>(count), DIR_ENTRY_FREE);
  }
  return 0;
}

int VELT::DirEntry::write(int entry_index, const uint8_t* record) {
  // The offset's lookup checks the volume, its cluster size and that this is a folder (0: no
  // such record).
  int64_t offset = entryIndexToDiskOffset(entry_index);
  if (offset <= 0) return -EINVAL;
  if (velt_->write(record, DIR_RECORD_SIZE, offset, true) == DIR_RECORD_SIZE) {
    return DIR_RECORD_SIZE;
  }
  int err = errno ? errno : EIO;
  LOGE("[%s] dir ent write error: %d(%s)\n", getPath().c_str(), err, strerror(err));
  return -err;
}

int VELT::DirEntry::rebuildDirCluster(const char* volume_label) {
  PBR* pbr = velt_->pbr_;
  if (!(isDir() && pbr->checkClusterChains(start_cluster_))) {
    NERIO_ASSERT_TEXT("isDir() && velt_->pbr_->checkClusterChains(start_cluster_)");
  }
  const int64_t cluster_count = pbr->getClusterCount(start_cluster_);
  if (cluster_count <= 0) {
    std::lock_guard lock(children_mutex_);
    if (!children_.empty()) NERIO_ASSERT_TEXT("children_.size() == 0");
    return 0;
  }
  std::vector<uint8_t> records;
  try {
    std::vector<std::shared_ptr<DirEntry>> children;
    {
      std::lock_guard lock(children_mutex_);
      children = children_;
    }
    uint8_t r[DIR_RECORD_SIZE];
    auto append = [&](int64_t off) {
      if (velt_->read(r, DIR_RECORD_SIZE, off) < DIR_RECORD_SIZE) {
        LOGE("read error @ %jd\n", static_cast<intmax_t>(off));
        return false;
      }
      records.insert(records.end(), r, r + DIR_RECORD_SIZE);
      return true;
    };
    for (const auto& child : children) {
      if (child->dir_ent_disk_off_ == 0) continue;
      for (int k = child->lfn_ent_count_ - 1; k >= 0; --k) {
        if (static_cast<size_t>(k) >= child->lfn_disk_offsets_.size()) continue;
        if (!append(child->lfn_disk_offsets_[k])) return -1;
      }
      if (!append(child->dir_ent_disk_off_)) return -1;
    }
    if (volume_label != nullptr) {
      size_t len = strlen(volume_label);
      if (len > 11) NERIO_ASSERT_TEXT("strlen(volume_label) <= 11");
      uint8_t label[DIR_RECORD_SIZE] = {};
      memset(label, ' ', 11);
      memcpy(label, volume_label, len < 11 ? len : 11);
      label[rec::kAttr] = kAttrVolumeId;
      time_t now = time(nullptr);
      putLe16(label + rec::kWriteTime, timeToFatTime(now));
      putLe16(label + rec::kWriteDate, timeToFatDate(now));
      records.insert(records.end(), label, label + DIR_RECORD_SIZE);
    }
    records.insert(records.end(), DIR_RECORD_SIZE, 0);  // end of directory
  } catch (const std::bad_alloc&) {
    LOGE("got exception when rebuilding [%s]\n", getPath().c_str());
    return -1;
  }

  const size_t len = pbr->cluster_length_;
  const int64_t new_cluster_count = static_cast<int64_t>((records.size() + len - 1) / len);
  if (new_cluster_count > cluster_count) {
    NERIO_ASSERT_MSG(new_cluster_count <= cluster_count, "%d <= %d\n",
                     static_cast<int>(new_cluster_count), static_cast<int>(cluster_count));
    return -1;
  }
  uint32_t cluster = start_cluster_;
  uint32_t next = 0;
  for (int64_t i = 0; i < new_cluster_count; ++i) {
    const int64_t off = velt_->clusterOffset(cluster);
    if (pbr->zeros_.size() != len) {
      NERIO_ASSERT_TEXT("velt_->pbr_->zeros_.size() == velt_->pbr_->cluster_length_");
    } else if (velt_->write(pbr->zeros_.data(), static_cast<uint32_t>(len), off, true) !=
               static_cast<int>(len)) {
      LOGE("cluster %d write error\n", cluster);
      return -1;
    }
    const size_t from = static_cast<size_t>(i) * len;
    const uint32_t piece = static_cast<uint32_t>(std::min(records.size() - from, len));
    if (velt_->write(records.data() + from, piece, off, true) != static_cast<int>(piece)) {
      LOGE("cluster %d write error\n", cluster);
      return -1;
    }
    {
      std::lock_guard<std::mutex> fat_lock(pbr->fat_mutex_);
      next = pbr->__nextCluster(cluster);
    }
    if (i + 1 < new_cluster_count) {
      cluster = next;
    } else if (!isEOC(next)) {
      pbr->endOfCluster(cluster);
    }
  }
  // The clusters that followed are no longer part of the directory.
  for (int64_t counted = new_cluster_count; counted < cluster_count && isChainCluster(next);
       ++counted) {
    uint32_t after;
    {
      std::lock_guard<std::mutex> fat_lock(pbr->fat_mutex_);
      after = pbr->__nextCluster(next);
    }
    pbr->freeCluster(next);
    next = after;
  }

  // The records moved: the children and maps are read again from the card (the load clears
  // them first).
  return velt_->loadDirEntries(this, start_cluster_, false, 0);
}

}  // namespace velt
