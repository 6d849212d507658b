// Building the tree at load time (root entry, every directory, unreached clusters freed,
// missing reserved folders recreated) and reducing it to the root for a format.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <list>
#include <new>
#include <string>
#include <vector>

#include "fs/velt.h"
#include "fs/velt_dirent.h"
#include "fs/velt_endian.h"
#include "fs/velt_load.h"

namespace velt {

static constexpr const char kLogTag[] = "VELT";

namespace {

std::string folderName(const ReservedFolderDesc& desc) {
  return std::string(desc.name, strnlen(desc.name, sizeof(desc.name)));
}

// Loads the tree from the root with every repair held back in `repairs`.
int loadHeldBack(VELT& v, LoadRepairs* repairs) {
  v.load_repairs_ = repairs;
  int r = v.loadDirEntries(v.root_.get(), v.pbr_->root_cluster_, v.op_mode_ == kVELTOpFormat, 0);
  v.load_repairs_ = nullptr;
  if (r == 0) r = claimFreeReservedFiles(v, repairs);
  return r;
}

// Clusters the FAT holds as taken.
uint32_t usedClusters(VELT& v) {
  PBR& pbr = *v.pbr_;
  std::lock_guard<std::mutex> lock(pbr.fat_mutex_);
  uint32_t used = 0;
  for (uint32_t c = 2; c < pbr.num_clusters_; ++c) used += pbr.__entry(c) != 0;
  return used;
}

// Clusters the FAT holds as taken that no entry reached, beyond the tails cut off files.
uint32_t lostClusters(VELT& v, const LoadRepairs& repairs) {
  PBR& pbr = *v.pbr_;
  std::lock_guard<std::mutex> lock(pbr.fat_mutex_);
  uint64_t lost = 0;
  for (uint32_t c = 2; c < pbr.num_clusters_; ++c) {
    lost += pbr.__entry(c) != 0 && !pbr.isClusterUsed(c);
  }
  return static_cast<uint32_t>(lost > repairs.trimmed ? lost - repairs.trimmed : 0);
}

// Lost chains of a few interrupted writes are repaired; a load that would give back most of
// what the card holds went wrong somewhere (a root in the wrong place, a FAT copy of garbage).
constexpr uint32_t kWholesaleMinClusters = 16;
// A folder deleted with its reserved files (or a cut in the middle of a large deletion) leaves
// long chains behind too, on a card whose structures are sound, and so does a cut while the
// first long recording of an empty card was linked: the loss counts as wholesale only with a
// sign of damage besides, FAT copies that differ where files reach, boot sectors that differ,
// or repairs beyond a few.
constexpr int kWholesaleMinRepairs = 4;
bool bootCopiesDiffer(VELT& v) {
  const PBR& pbr = *v.pbr_;
  const int64_t backup =
      static_cast<int64_t>(pbr.partition_.lba + 6) * pbr.partition_.bytes_per_sector;
  uint8_t sector[512];
  return v.read(sector, 512, backup) == 512 && memcmp(sector, pbr.boot_sector_, 512) != 0;
}
bool wholesaleLoss(VELT& v, const LoadRepairs& repairs) {
  const uint32_t lost = lostClusters(v, repairs);
  if (lost < kWholesaleMinClusters || lost <= usedClusters(v) / 2) return false;
  return repairs.count >= kWholesaleMinRepairs || bootCopiesDiffer(v) ||
         v.pbr_->fatDamageReachesFiles();
}

// Reads the layout again from a fresh boot sector and FAT: the backup boot sector instead of the
// primary one, or the second FAT copy standing in for the first.
bool reloadLayout(VELT& v, bool backup_boot, bool second_fat) {
  PBR* old = v.pbr_;
  PBR* alt = new (std::nothrow) PBR(&v, old->partition_no_, &old->partition_);
  if (alt == nullptr) return false;
  const FormatInfo info = v.format_info_;
  bool ok = alt->read(backup_boot) == 0;
  if (ok && second_fat) {
    const int64_t bytes = static_cast<int64_t>(alt->bytes_per_sector_) * alt->fat_sectors_;
    ok = alt->num_fats_ > 1 && bytes <= static_cast<int64_t>(alt->fat1_.size()) * 4 &&
         v.read(alt->fat1_.data(), static_cast<int>(bytes),
                alt->sectorOffset(alt->reserved_sectors_ + alt->fat_sectors_)) == bytes;
    alt->fat_damaged_ = true;  // the first copy is written from the second
  }
  if (!ok) {
    delete alt;
    v.format_info_ = info;
    return false;
  }
  v.root_->clear();
  v.pbr_ = alt;
  delete old;
  v.initRootEntry(v.root_);
  return true;
}

// Reloads the layout from the backup boot sector when it differs from the primary one.
bool switchToBackupBootSector(VELT& v) {
  if (!bootCopiesDiffer(v)) return false;
  LOGW("the primary boot sector leads to a wholesale loss: trying the backup\n");
  return reloadLayout(v, true, false);
}

// Entries 0 and 1 hold the media byte and the volume's state flags, not a chain; other systems
// judge a FAT copy by entry 0.
void mendReservedEntries(PBR& pbr) {
  std::lock_guard<std::mutex> lock(pbr.fat_mutex_);
  const uint32_t want[2] = {0x0FFFFF00u | (pbr.media_ & 0xFF), 0x0FFFFFFFu};
  for (uint32_t c = 0; c < 2 && c < pbr.fat1_.size(); ++c) {
    if (pbr.__entry(c) == want[c]) continue;
    LOGW("repair: FAT entry %u was %08x: set to %08x\n", c, pbr.__entry(c), want[c]);
    pbr.__setEntry(c, want[c]);
    pbr.__syncFATEntry(c);
  }
}

// Writes what the load held back: repaired folders, cut FAT entries, the unreached clusters
// freed, FSInfo when its free count was wrong, and the primary boot sector when the backup
// had to stand in for it.
void commitRepairs(VELT& v, LoadRepairs* repairs) {
  PBR& pbr = *v.pbr_;
  const uint32_t len = pbr.cluster_length_;
  for (const LoadRepairs::DirWrite& d : repairs->dirs) {
    for (size_t ci = 0; ci < d.chain.size(); ++ci) {
      if (v.write(d.data.data() + ci * len, len, v.clusterOffset(d.chain[ci]), true) <
          static_cast<int>(len)) {
        LOGE("cluster %d write error\n", d.chain[ci]);
      }
    }
  }
  // Records of rename sources whose target took their file: after the folders, which may
  // hold them still.
  for (int64_t off : repairs->dropped) {
    uint8_t record[DIR_RECORD_SIZE];
    if (v.read(record, DIR_RECORD_SIZE, off) != DIR_RECORD_SIZE) continue;
    record[0] = DIR_ENTRY_DELETED;
    if (v.write(record, DIR_RECORD_SIZE, off, true) != DIR_RECORD_SIZE) {
      LOGE("record at %lld write error\n", static_cast<long long>(off));
    }
  }
  mendReservedEntries(pbr);
  {
    std::lock_guard<std::mutex> lock(pbr.fat_mutex_);
    for (uint32_t c : repairs->fat_cuts) pbr.__syncFATEntry(c);
  }
  const uint32_t counted_before = le32(pbr.fsinfo_ + 488);
  pbr.releaseUnusedClusters(false);
  // The reserved folders' counts are reconciled by the load; FSInfo carries them.
  bool info_changed = false;
  if (v.format_info_.valid() && pbr.is_velt_partition_) {
    uint8_t info[VELT_FORMAT_INFO_SIZE];
    v.format_info_.encode(info);
    info_changed = memcmp(info, pbr.fsinfo_ + 4, sizeof(info)) != 0;
  }
  if (counted_before != pbr.free_cluster_count_) {
    LOGW("repair: FSInfo free count %u set to %u\n", counted_before, pbr.free_cluster_count_);
  }
  if (pbr.fsinfo_damaged_ || pbr.fsinfo_rebuilt_ || info_changed ||
      counted_before != pbr.free_cluster_count_) {
    pbr.updateFSInfo();
  }
  if (pbr.pbr_damaged_ && v.op_mode_ == kVELTOpMount) {
    const int64_t boot = static_cast<int64_t>(pbr.partition_.lba) * pbr.partition_.bytes_per_sector;
    if (v.write(pbr.boot_sector_, 512, boot, true) == 512) {
      LOGW("repair: primary boot sector restored from its backup\n");
    }
  }
}

}  // namespace

int VELT::buildRoot() {
  if (mbr_ == nullptr || pbr_ == nullptr) {
    NERIO_ASSERT_TEXT("mbr_ != nullptr && pbr_ != nullptr");
    return -1;
  }
  if (root_ != nullptr) {
    NERIO_ASSERT_TEXT("root_ == nullptr");
    root_->clear();
    root_.reset();
  }
  try {
    root_ = std::make_shared<DirEntry>(this);
  } catch (const std::bad_alloc&) {
    LOGE("got exception when creating a root entry!\n");
    return -1;
  }
  initRootEntry(root_);

  const bool exclusive = op_mode_ == kVELTOpExclusive;
  int result = 0;
  if (op_mode_ == kVELTOpFormat && (partition_created_ || (extra_ & 1) == 0)) {
    // A format that keeps nothing: no cluster is reached, so all become free.
    pbr_->releaseUnusedClusters(true);
  } else {
    LoadRepairs repairs;
    int r = loadHeldBack(*this, &repairs);
    if (r == 0 && op_mode_ == kVELTOpMount && wholesaleLoss(*this, repairs)) {
      // The primary boot sector may be what leads astray (a wrong root, a wrong FAT size):
      // the backup gets its chance before the card is given up on.
      if (!pbr_->pbr_damaged_ && switchToBackupBootSector(*this)) {
        repairs = LoadRepairs();
        r = loadHeldBack(*this, &repairs);
      }
      if (r == 0 && repair_wholesale_ && pbr_->fat_damaged_ && wholesaleLoss(*this, repairs)) {
        // The checker's repair: the second FAT copy stands in when it loses less.
        const uint32_t lost_first = lostClusters(*this, repairs);
        const bool backup_boot = pbr_->pbr_damaged_;
        LoadRepairs second;
        if (reloadLayout(*this, backup_boot, true)) {
          r = loadHeldBack(*this, &second);
          if (r == 0 && lostClusters(*this, second) < lost_first) {
            LOGW("repair: the first FAT copy leads to a wholesale loss: the second one is used\n");
            repairs = std::move(second);
          } else if (reloadLayout(*this, backup_boot, false)) {
            repairs = LoadRepairs();
            r = loadHeldBack(*this, &repairs);
          } else {
            r = -1;
          }
        }
      }
      if (r == 0 && !repair_wholesale_ && wholesaleLoss(*this, repairs)) {
        LOGE("the load would free %u of the %u clusters the FAT holds: nothing is freed or "
             "repaired, the card is served read-only (check it with fsck)\n",
             lostClusters(*this, repairs), usedClusters(*this));
        read_only_ = true;
        return 0;
      }
    }
    if (exclusive) {
      if (r != 0) return r;
      if (!pbr_->is_velt_partition_) return 0;
    } else if (r == 0) {
      commitRepairs(*this, &repairs);
    } else {
      // A tree that could not be read reaches nothing: freeing what it did not mark would
      // wipe the card. Leave the card as it is and let the mount fail.
      LOGE("root directory not loaded (%d), nothing repaired, unreached clusters kept\n", r);
      result = r;
    }
  }

  bool check_folders = result == 0 && pbr_->is_velt_partition_;
  if (check_folders && op_mode_ == kVELTOpFormat) {
    // The format lays the reserved folders down itself.
    if (pbr_->fat_damaged_) {
      LOGW("clear damaged FATs\n");
      pbr_->updateFATs();
    }
    return 0;
  }

  if (check_folders) {
    NERIO_ASSERT(format_info_.magic1 == VELT_FSINFO_MAGIC1 &&
                 format_info_.magic2 == VELT_FSINFO_MAGIC2);
    const uint32_t folders =
        std::min<uint32_t>(format_info_.folder_count, VELT_MAX_RESERVED_FOLDERS);
    for (uint32_t i = 0; i < folders; ++i) {
      const ReservedFolderDesc& d = format_info_.folders[i];
      printf("%10s %4d%% %5d MB #%-4d -%-4d %d\n", folderName(d).c_str(), d.percent, d.size_mb,
             d.count, d.used, d.start_cluster);
    }
    fflush(stdout);

    bool missing = false;
    for (uint32_t i = 0; i < folders; ++i) {
      std::string path = "/" + folderName(format_info_.folders[i]);
      if (findEntry(path.c_str()) == nullptr) {
        LOGW("VELT reserved folder \"%s\" not found\n", path.c_str());
        missing = true;
      }
    }
    if (missing) {
      if (exclusive) return -EBADF;
      lockFAT();
      for (uint32_t i = 0; i < folders; ++i) {
        std::string path = "/" + folderName(format_info_.folders[i]);
        if (findEntry(path.c_str()) != nullptr) continue;
        LOGW("VELT reserved folder \"%s\" not found, try to create it now...\n", path.c_str());
        int r = root_->createReservedFolder(&format_info_.folders[i]);
        if (r != 0) {
          result = r;
          break;
        }
      }
      pbr_->releaseUnusedClusters(false);
      unlockFAT();
    }
  }
  if (check_folders && !exclusive) restoreReservedFiles();

  if (exclusive) return result;
  if (pbr_->fat_damaged_) {
    LOGW("clear damaged FATs\n");
    pbr_->updateFATs();
  }
  return result;
}

int VELT::rebuildRoot(bool keep_files) {
  if (root_ == nullptr) return 0;
  {
    std::lock_guard<std::mutex> lock(files_mutex_);
    if (!open_files_.empty()) {
      LOGE("file(s) exist.\n");
      return -1;
    }
  }
  lockFAT();
  NERIO_ASSERT(pbr_->bytes_per_sector_ != 0 && pbr_->fat_sectors_);
  const size_t entries = static_cast<size_t>(pbr_->bytes_per_sector_) * pbr_->fat_sectors_ / 4;
  std::vector<uint32_t> fat;
  std::vector<uint8_t> flags;
  try {
    fat.assign(entries, 0);
    flags.assign((entries + 7) / 8, 0);
  } catch (const std::bad_alloc&) {
    LOGE("failed to allocate FAT table\n");
    unlockFAT();
    return -1;
  }
  if (entries >= 2) {
    fat[0] = 0x0FFFFF00 | (pbr_->media_ & 0xFF);
    fat[1] = 0xFFFFFFFF;
  }
  // Copies a chain from the current FAT into the new one, marking its clusters used.
  auto keepChain = [&](uint32_t first) {
    std::lock_guard<std::mutex> lock(pbr_->fat_mutex_);
    uint32_t c = first;
    for (uint32_t steps = 0;
         isChainCluster(c) && c < pbr_->num_clusters_ && c < entries && steps < pbr_->num_clusters_;
         ++steps) {
      fat[c] = pbr_->fat1_[c];
      flags[c / 8] |= static_cast<uint8_t>(1u << (c % 8));
      c = pbr_->__entry(c);
    }
  };

  NERIO_ASSERT(pbr_->checkClusterChains(root_->start_cluster_));
  keepChain(root_->start_cluster_);

  std::list<std::shared_ptr<DirEntry>> dropped;
  {
    std::lock_guard lock(root_->children_mutex_);
    for (auto it = root_->children_.begin(); it != root_->children_.end();) {
      const std::shared_ptr<DirEntry>& child = *it;
      if (keep_files && child->isArchive()) {
        uint32_t cluster_number = child->start_cluster_;
        NERIO_ASSERT(pbr_->checkClusterChains(cluster_number, child->size_));
        keepChain(cluster_number);
        ++it;
        continue;
      }
      child->parent_ = nullptr;
      dropped.push_back(child);
      it = root_->children_.erase(it);
    }
  }
  // Emptied outside the root's lock: clear takes the child's own locks.
  for (auto& child : dropped) child->clear();
  dropped.clear();

  {
    std::lock_guard<std::mutex> lock(pbr_->fat_mutex_);
    pbr_->fat1_.swap(fat);
    pbr_->fat1_flags_.swap(flags);
    pbr_->__markAllFATDirty();
  }

  const bool with_label = op_mode_ == kVELTOpFormat && !volume_label_.empty();
  int r = root_->rebuildDirCluster(with_label ? volume_label_.c_str() : nullptr);
  unlockFAT();
  pbr_->releaseUnusedClusters(true);
  if (r != 0) return r;
  const uint32_t folders = std::min<uint32_t>(format_info_.folder_count, VELT_MAX_RESERVED_FOLDERS);
  for (uint32_t i = 0; i < folders; ++i) root_->createReservedFolder(&format_info_.folders[i]);
  return 0;
}

}  // namespace velt
