// The reserved region of the FAT32 partition: boot sector and its backup, FSInfo with the
// format-information record, and the FAT copies (kept whole in memory).
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <vector>

#include "fs/velt_mbr.h"

namespace velt {

class VELT;

constexpr uint32_t FAT_EOC = 0x0FFFFFF8;  // the end-of-chain value this system writes
constexpr uint32_t FAT_BAD = 0x0FFFFFF7;
constexpr uint32_t FAT_ENTRY_MASK = 0x0FFFFFFF;  // the top 4 bits are reserved: kept, never read
constexpr uint32_t kMaxClusters = FAT_BAD;  // one past the highest cluster number FAT32 allows
constexpr uint32_t FSINFO_LEAD_SIGNATURE = 0x41615252;
constexpr uint32_t FSINFO_STRUCT_SIGNATURE = 0x61417272;
// Fewer data clusters make other FAT tools read a volume as FAT16 (or refuse it).
constexpr uint32_t FAT32_MIN_CLUSTERS = 65525;

class PBR {
 public:
  PBR(VELT* velt, int partition_no, const Partition* partition = nullptr);
  ~PBR() = default;

  // Loads and validates boot sector, FATs and FSInfo; `backup_only` skips the primary boot
  // sector and reads the backup at once.
  int read(bool backup_only = false);
  int write();
  // Writes FSInfo (and its backup); deferred while the FAT lock is held unless `force`.
  int updateFSInfo(bool force = false);
  int markVELT(const char* label);
  int format();
  uint32_t calcSecorsPerCluster() const;
  // The cluster size a format gives the partition: the table's, halved while that leaves
  // fewer than FAT32_MIN_CLUSTERS clusters; 0 when even one sector per cluster does.
  uint32_t chooseSectorsPerCluster() const;
  // Puts 63 sectors per track and 255 heads (where the boot sector has none) and the partition's
  // start as hidden sectors into the boot sector image.
  void setConventionalGeometry();
  // The smallest partition, in sectors, that a format accepts.
  static uint32_t minimumFAT32Sectors();

  // FAT table and allocation. Names with two underscores expect fat_mutex_ held.
  void lockFAT();
  void unlockFAT(bool flush);
  // Writes every copy whole (a repair or a fresh format); while the FAT is locked it marks every
  // sector dirty instead, for the last release to write.
  int updateFATs();
  // Marks the entry's FAT sector dirty; written at once when the FAT is not locked.
  int __syncFATEntry(uint32_t cluster);
  // Writes the dirty FAT sectors, on every copy, merged into runs, one copy after the other;
  // 0, or -1 when a write failed (the sectors stay dirty then).
  int __flushFATs();
  int flushFATs();
  void __markFATSectorDirty(uint32_t fat_sector);
  void __markAllFATDirty();
  bool __isFATDirty() const { return dirty_fat_count_ > 0; }
  int64_t allocCluster(bool zero);
  int64_t allocClusters(uint32_t prev, int count, bool zero, uint32_t* out = nullptr);
  int endOfCluster(uint32_t cluster);
  int __freeCluster(uint32_t cluster);
  int freeCluster(uint32_t cluster);
  int freeClusterChains(uint32_t first, bool zero);
  // Removed files' chains wait here, still taken, until the records that pointed at them are on
  // the card: deferFree holds one back, takeDeferred hands the waiting ones to a caller that
  // syncs and then gives them to freeDeferred (or back to restoreDeferred when the sync failed).
  struct DeferredChain {
    uint32_t first;
    uint32_t clusters;
  };
  void deferFree(uint32_t first);
  std::vector<DeferredChain> takeDeferred();
  void freeDeferred(const std::vector<DeferredChain>& chains);
  void restoreDeferred(const std::vector<DeferredChain>& chains);
  uint32_t freeOrDeferredCount();  // free clusters, counting the chains held back
  bool checkClusterChains(uint32_t first, size_t size = 0);
  int64_t getClusterCount(uint32_t first);
  int setClusterChainUsed(uint32_t first);
  int __releaseUnusedClusters(bool write_fsinfo);
  int releaseUnusedClusters(bool write_fsinfo);
  int fixFATEntry(uint32_t cluster, uint32_t value);

  // An entry as chains read it (28 bits), and a change that keeps the entry's reserved top bits.
  uint32_t __entry(uint32_t c) const { return fat1_[c] & FAT_ENTRY_MASK; }
  void __setEntry(uint32_t c, uint32_t v) {
    fat1_[c] = (fat1_[c] & ~FAT_ENTRY_MASK) | (v & FAT_ENTRY_MASK);
  }
  void __setUsed(uint32_t c, bool used) {
    if (used)
      setUsedBit(c);
    else
      fat1_flags_[c / 8] &= static_cast<uint8_t>(~(1u << (c % 8)));
  }
  uint32_t __nextCluster(uint32_t cluster);
  bool __isValidCluster(uint32_t cluster);
  uint32_t clusterToSector(uint32_t cluster) const;
  bool isClusterUsed(uint32_t cluster) const {
    return cluster / 8 < fat1_flags_.size() && (fat1_flags_[cluster / 8] >> (cluster % 8)) & 1;
  }
  // Absolute card offset of a partition-relative sector.
  int64_t sectorOffset(uint32_t sector) const {
    return static_cast<int64_t>(sector) * bytes_per_sector_ +
           static_cast<int64_t>(partition_.lba) * partition_.bytes_per_sector;
  }

  bool pbr_damaged_ = false;
  bool fsinfo_damaged_ = false;
  bool fat_damaged_ = false;
  bool fat_unreadable_ = false;  // a FAT copy could not be read whole at load
  // Whether the FAT copies disagree beyond an update that a power cut interrupted: a copy could
  // not be read, or they differ in an entry the load reached (or in entries 0 and 1). Copies
  // that differ only where no file reaches are a chain being linked or freed when power went.
  bool fatDamageReachesFiles();
  int32_t partition_no_ = 0;
  bool is_velt_partition_ = false;
  char oem_name_[8] = {};
  uint32_t bytes_per_sector_ = 0;
  uint32_t sectors_per_cluster_ = 0;
  uint32_t reserved_sectors_ = 0;
  uint32_t num_fats_ = 0;
  uint32_t media_ = 0;
  uint32_t total_sectors_ = 0;
  uint32_t fat_sectors_ = 0;
  uint32_t ext_flags_ = 0;
  uint32_t root_cluster_ = 0;
  uint32_t fsinfo_sector_ = 0;
  uint32_t backup_boot_sector_ = 0;
  uint32_t volume_id_ = 0;
  char volume_label_[11] = {};
  char fs_type_[8] = {};
  uint32_t data_sectors_ = 0;
  uint32_t num_clusters_ = 0;  // one past the highest usable cluster
  uint32_t data_start_sector_ = 0;
  uint32_t fat_clusters_ = 0;  // entries one FAT copy holds
  uint32_t cluster_length_ = 0;  // bytes per cluster
  uint32_t free_cluster_count_ = 0;  // free on the card: the chains held back are not
  uint32_t next_free_cluster_number_ = 0;  // FSInfo hint and allocation cursor
  // Sectors per cluster a format must use instead of choosing by size (0: choose). Only test
  // cards in memory, too small for a real FAT32, ask for one.
  uint32_t format_sectors_per_cluster_ = 0;
  VELT* velt_;  // owner, not owned
  Partition partition_;

  int32_t fat_locked_count_ = 0;
  std::mutex fat_mutex_;  // the FAT members below, the lock count, free count and cursor
  std::vector<uint32_t> fat1_;
  std::vector<uint8_t> fat1_flags_;  // bitmap of clusters reached by the tree
  // Bitmap of FAT sectors (relative to a copy's start) changed since they were last written.
  std::vector<uint64_t> dirty_fat_sectors_;
  uint32_t dirty_fat_count_ = 0;  // bits set in dirty_fat_sectors_
  std::vector<uint8_t> zeros_;  // one cluster of zeros
  // Runs of clusters freed in the last kRecentFreeTime, which allocation passes over while any
  // other cluster is free: a read's reply may still be on its way from a freed cluster (the
  // kernel copies the card's pages after the read has let go of its locks), and must not meet
  // another file's bytes there. Under fat_mutex_; the oldest run makes room for a new one.
  struct FreedRun {
    uint32_t first = 0, end = 0;  // [first, end)
    std::chrono::steady_clock::time_point when;
  };
  static constexpr std::chrono::milliseconds kRecentFreeTime{1000};
  std::array<FreedRun, 8> recent_frees_{};
  size_t recent_last_ = 0;    // the run a free extends
  bool recent_only_ = false;  // nothing else was free at the last look; until the next free

  bool valid_ = false;
  bool fsinfo_rebuilt_ = false;  // neither FSInfo copy was usable; the load writes a new one
  uint8_t boot_sector_[512] = {};
  uint8_t fsinfo_[512] = {};
  // FSInfo as last written to the card (both places); an unchanged FSInfo is not rewritten.
  uint8_t fsinfo_written_[512] = {};
  bool fsinfo_written_valid_ = false;

 private:
  int loadBootSector(bool backup_only);
  bool hasBackupFsInfo() const;
  bool fsinfoUnreadable(uint32_t sector);
  void resetFsInfo();
  int loadFATs();
  bool readFatCopy(uint32_t copy, uint32_t* table);
  bool patchFat1(std::vector<uint32_t>* fat2, bool fat2_read);
  int64_t scanFreeCluster();  // -1 when the FAT is full
  // scanFreeCluster, and when nothing is free, the chains held back are synced and freed first.
  int64_t scanFreeOrDeferred();
  void __freeChain(uint32_t first, bool zero);
  void __freeDeferred(const std::vector<DeferredChain>& chains);
  std::vector<DeferredChain> deferred_;  // guarded by fat_mutex_
  uint32_t deferred_clusters_ = 0;       // clusters in deferred_ and in chains being freed
  // First free cluster in [from, to), passing over recent frees when `avoid`; -1 for none.
  int64_t scanRange(uint32_t from, uint32_t to, bool avoid);
  void noteFreed(uint32_t c);
  void takeCluster(uint32_t c);
  void zeroCluster(uint32_t c);
  void setUsedBit(uint32_t c) { fat1_flags_[c / 8] |= static_cast<uint8_t>(1u << (c % 8)); }
  int readSector(uint32_t sector, uint8_t* buf);
};

inline bool isEOC(uint32_t cluster) { return cluster >= FAT_EOC; }
// A chain continues only through these values.
inline bool isChainCluster(uint32_t cluster) { return cluster >= 2 && cluster <= FAT_BAD; }

}  // namespace velt
