// Boot sector, FSInfo and the VELT mark.
#include "fs/velt_pbr.h"

#include <cerrno>
#include <cstdio>
#include <algorithm>
#include <cstring>
#include <new>
#include <string>

#include "fs/velt.h"
#include "fs/velt_endian.h"

namespace velt {

static constexpr const char kLogTag[] = "VELT.PBR";

namespace {

// Boot sector fields.
constexpr int kOemName = 3, kBytesPerSector = 11, kSectorsPerCluster = 13, kReservedSectors = 14,
              kNumFats = 16, kRootEntryCount = 17, kTotalSectors16 = 19, kMedia = 21, kTotalSectors32 = 32,
              kFatSectors = 36, kExtFlags = 40, kRootCluster = 44, kFsInfoSector = 48,
              kBackupBootSector = 50, kVolumeId = 67, kVolumeLabel = 71, kFsType = 82;
// FSInfo fields.
constexpr int kLeadSignature = 0, kFormatInfo = 4, kStructSignature = 484, kFreeCount = 488,
              kNextFree = 492;
constexpr uint32_t kBackupBootFixed = 6;
constexpr uint32_t kMaxClusterBytes = 65536;

// Small volumes may keep their size in the 16-bit field and leave the 32-bit one 0.
uint32_t totalSectors(const uint8_t* b) {
  const uint32_t total = le32(b + kTotalSectors32);
  return total != 0 ? total : le16(b + kTotalSectors16);
}

bool hasSignature(const uint8_t* s) { return s[510] == 0x55 && s[511] == 0xAA; }

const char* markFor(int mode, bool report) {
  if (mode == kVELTFormatModeN) return "VELT1.0N";
  if (mode == kVELTFormatModeP) return "VELT1.0P";
  (void)report;
  return "VELT1.0X";
}

}  // namespace

PBR::PBR(VELT* velt, int partition_no, const Partition* partition)
    : partition_no_(partition_no), velt_(velt) {
  NERIO_ASSERT(velt_ != nullptr);
  if (partition != nullptr) partition_ = *partition;
}

int PBR::readSector(uint32_t sector, uint8_t* buf) {
  return velt_->read(buf, 512, sectorOffset(sector));
}

namespace {

// What FAT32 allows of the boot sector's geometry, judged before any of it sizes a buffer or
// addresses a sector. Empty when usable, else what is wrong. `card_sectors` is the card's size
// in 512-byte sectors, 0 when unknown.
std::string checkGeometry(const uint8_t* b, const Partition& part, int64_t card_sectors) {
  const uint32_t bps = le16(b + kBytesPerSector);
  const uint32_t spc = b[kSectorsPerCluster];
  const uint32_t reserved = le16(b + kReservedSectors);
  const uint32_t fats = b[kNumFats];
  const uint32_t total = totalSectors(b);
  const uint32_t fat_sectors = le32(b + kFatSectors);
  const uint32_t root = le32(b + kRootCluster);
  const uint32_t fsinfo = le16(b + kFsInfoSector);
  const uint32_t backup = le16(b + kBackupBootSector);
  char why[160];
  auto bad = [&why](const char* fmt, auto... args) {
    snprintf(why, sizeof(why), fmt, args...);
    return std::string(why);
  };
  if (bps != 512 && bps != 1024 && bps != 2048 && bps != 4096)
    return bad("%u bytes per sector", bps);
  if (spc == 0 || (spc & (spc - 1)) != 0 || spc * bps > kMaxClusterBytes)
    return bad("%u sectors per cluster", spc);
  if (fats < 1 || fats > 2) return bad("%u FAT copies", fats);
  if (reserved < 2) return bad("%u reserved sectors", reserved);
  if (fsinfo == 0 || fsinfo >= reserved) return bad("FSInfo at sector %u", fsinfo);
  if (backup != 0 && backup != 0xFFFF &&
      (backup >= reserved || backup == fsinfo || backup + 1 == fsinfo))
    return bad("backup boot sector at %u", backup);
  if (total == 0) return bad("%u sectors", total);
  // The file system must lie inside its partition.
  const uint64_t fs_bytes = static_cast<uint64_t>(total) * bps;
  if (fs_bytes > static_cast<uint64_t>(part.total_sectors) * part.bytes_per_sector)
    return bad("%u sectors of %u bytes, larger than the partition", total, bps);
  if (fat_sectors == 0) return bad("%u sectors per FAT", fat_sectors);
  const uint64_t meta = reserved + static_cast<uint64_t>(fats) * fat_sectors;
  if (meta >= total) return bad("%u sectors per FAT", fat_sectors);
  // Every FAT copy must be on the card to be read.
  if (card_sectors > 0) {
    const uint64_t fat_end = static_cast<uint64_t>(part.lba) * part.bytes_per_sector + meta * bps;
    if (fat_end > static_cast<uint64_t>(card_sectors) * 512)
      return bad("FATs end beyond the card (%u sectors per FAT)", fat_sectors);
  }
  const uint64_t clusters = (total - meta) / spc + 2;
  const uint64_t fat_entries = static_cast<uint64_t>(fat_sectors) * bps / 4;
  const uint64_t usable = std::min<uint64_t>({clusters, fat_entries, kMaxClusters});
  if (root < 2 || root >= usable) return bad("root cluster %u", root);
  return std::string();
}

}  // namespace

int PBR::loadBootSector(bool backup_only) {
  const int64_t boot_offset = static_cast<int64_t>(partition_.lba) * partition_.bytes_per_sector;
  const int64_t card_sectors = velt_->driver_ != nullptr ? velt_->driver_->sizeInSectors() : 0;
  bool damaged = backup_only;
  if (!backup_only) {
    if (velt_->read(boot_sector_, 512, boot_offset) < 512) {
      int err = errno;
      LOGE("PBR read error: %d(%s)\n", err, strerror(err));
      damaged = true;
    } else if (!hasSignature(boot_sector_)) {
      LOGE("PBR signature failed: %02x %02x, should be 55 aa\n", boot_sector_[510],
           boot_sector_[511]);
      damaged = true;
    } else if (le16(boot_sector_ + kRootEntryCount) == 0) {
      std::string why = checkGeometry(boot_sector_, partition_, card_sectors);
      if (!why.empty()) {
        LOGE("PBR fields out of range: %s\n", why.c_str());
        damaged = true;
      }
    }
  }
  if (damaged) {
    pbr_damaged_ = true;
    int64_t backup_offset =
        static_cast<int64_t>(partition_.lba + kBackupBootFixed) * partition_.bytes_per_sector;
    if (velt_->read(boot_sector_, 512, backup_offset) < 512) {
      int err = errno;
      LOGE("PBR backup read error: %d(%s)\n", err, strerror(err));
      return -1;
    }
    if (!hasSignature(boot_sector_)) {
      LOGE("PBR backup signature failed: %02x %02x, should be 55 aa\n", boot_sector_[510],
           boot_sector_[511]);
      return -1;
    }
    if (le16(boot_sector_ + kRootEntryCount) == 0) {
      std::string why = checkGeometry(boot_sector_, partition_, card_sectors);
      if (!why.empty()) {
        LOGE("PBR backup fields out of range: %s\n", why.c_str());
        return -1;
      }
    }
    LOGI("PBR primary damaged!\n");
  }
  return 0;
}

bool PBR::hasBackupFsInfo() const {
  // 0 and 0xFFFF mean "no backup"; a backup FSInfo outside the reserved area would land on
  // the first FAT.
  return backup_boot_sector_ != 0 && backup_boot_sector_ != 0xFFFF &&
         backup_boot_sector_ + 1 < reserved_sectors_ && backup_boot_sector_ + 1 != fsinfo_sector_;
}

bool PBR::fsinfoUnreadable(uint32_t sector) {
  uint8_t probe[512];
  if (readSector(sector, probe) < 512) return true;
  return false;
}

void PBR::resetFsInfo() {
  // Both copies are unusable: the signatures are put back and the counts marked unknown (the
  // load counts the free clusters and writes them); the format record bytes are kept as read.
  LOGW("FSInfo rebuilt: counts unknown until the load has counted the clusters\n");
  if (readSector(fsinfo_sector_, fsinfo_) < 512) memset(fsinfo_, 0, sizeof(fsinfo_));
  putLe32(fsinfo_ + kLeadSignature, FSINFO_LEAD_SIGNATURE);
  putLe32(fsinfo_ + kStructSignature, FSINFO_STRUCT_SIGNATURE);
  putLe32(fsinfo_ + kFreeCount, 0xFFFFFFFF);
  putLe32(fsinfo_ + kNextFree, 0xFFFFFFFF);
  memset(fsinfo_ + 496, 0, 14);
  fsinfo_[510] = 0x55;
  fsinfo_[511] = 0xAA;
  fsinfo_rebuilt_ = true;
}

int PBR::read(bool backup_only) {
  if (partition_.lba == 0) NERIO_ASSERT_TEXT("partition_.lba != 0");
  if (loadBootSector(backup_only) != 0) return -1;

  uint16_t root_entries = le16(boot_sector_ + kRootEntryCount);
  if (root_entries != 0) {
    NERIO_ASSERT_MSG(root_entries == 0, ": %d\n", root_entries);
    LOGE("This partition is not type of FAT32!\n");
    return -1;
  }

  memcpy(oem_name_, boot_sector_ + kOemName, sizeof(oem_name_));
  if (memcmp(oem_name_, "VELT1.0N", 8) == 0 || memcmp(oem_name_, "VELT1.0P", 8) == 0) {
    printf("VELT detected.\n");
    is_velt_partition_ = true;
    velt_->format_mode_ = oem_name_[7] == 'N' ? kVELTFormatModeN : kVELTFormatModeP;
  } else {
    printf("FAT32 detected.\n");
  }
  fflush(stdout);

  bytes_per_sector_ = le16(boot_sector_ + kBytesPerSector);
  sectors_per_cluster_ = boot_sector_[kSectorsPerCluster];
  reserved_sectors_ = le16(boot_sector_ + kReservedSectors);
  num_fats_ = boot_sector_[kNumFats];
  media_ = boot_sector_[kMedia];
  total_sectors_ = totalSectors(boot_sector_);
  fat_sectors_ = le32(boot_sector_ + kFatSectors);
  ext_flags_ = le16(boot_sector_ + kExtFlags);
  root_cluster_ = le32(boot_sector_ + kRootCluster);
  fsinfo_sector_ = le16(boot_sector_ + kFsInfoSector);
  backup_boot_sector_ = le16(boot_sector_ + kBackupBootSector);
  volume_id_ = le32(boot_sector_ + kVolumeId);
  memcpy(volume_label_, boot_sector_ + kVolumeLabel, sizeof(volume_label_));
  memcpy(fs_type_, boot_sector_ + kFsType, sizeof(fs_type_));

  if (bytes_per_sector_ == 0 || sectors_per_cluster_ == 0) {
    NERIO_ASSERT_MSG(bytes_per_sector_ != 0 && sectors_per_cluster_ != 0,
                     ": %d != 0 && %d != 0\n", bytes_per_sector_, sectors_per_cluster_);
    return -1;
  }
  cluster_length_ = sectors_per_cluster_ * bytes_per_sector_;
  NERIO_ASSERT(cluster_length_ > 0);
  try {
    zeros_.assign(cluster_length_, 0);
  } catch (const std::exception&) {
    LOGE("got exception when creating a cluster zeros, %d bytes\n", cluster_length_);
    return -1;
  }
  uint64_t meta = static_cast<uint64_t>(reserved_sectors_) +
                  static_cast<uint64_t>(num_fats_) * fat_sectors_;
  if (meta >= total_sectors_) {
    LOGE("This partition is not type of FAT32!\n");
    return -1;
  }
  data_sectors_ = total_sectors_ - static_cast<uint32_t>(meta);
  data_start_sector_ = static_cast<uint32_t>(meta);
  num_clusters_ = data_sectors_ / sectors_per_cluster_ + 2;
  fat_clusters_ = static_cast<uint32_t>(static_cast<uint64_t>(bytes_per_sector_) * fat_sectors_ / 4);
  if (num_clusters_ > fat_clusters_) {
    NERIO_ASSERT_MSG(fat_clusters_ >= num_clusters_, ": %d >= %d\n", fat_clusters_, num_clusters_);
    LOGI("fat size is smaller than total data clusters, set data clusters# to fat size: %d -> %d\n",
         num_clusters_, fat_clusters_);
    num_clusters_ = fat_clusters_;
  }
  // Cluster numbers have 28 bits; the values from the top of that range mark bad and end.
  num_clusters_ = std::min(num_clusters_, kMaxClusters);
  if (loadFATs() != 0) return -1;

  fsinfo_damaged_ = false;
  if (readSector(fsinfo_sector_, fsinfo_) < 512) {
    int err = errno;
    LOGE("PBR FSInfo read error: %d(%s)\n", err, strerror(err));
    fsinfo_damaged_ = true;
  } else if (!hasSignature(fsinfo_)) {
    LOGE("PBR FSInfo signature failed: %02x %02x, should be 55 aa\n", fsinfo_[510], fsinfo_[511]);
    fsinfo_damaged_ = true;
  } else if (le32(fsinfo_ + kLeadSignature) != FSINFO_LEAD_SIGNATURE ||
             le32(fsinfo_ + kStructSignature) != FSINFO_STRUCT_SIGNATURE) {
    LOGE("PBR FSInfo tag1 tag2 failed: %08x %08x\n", le32(fsinfo_ + kLeadSignature),
         le32(fsinfo_ + kStructSignature));
    fsinfo_damaged_ = true;
  }
  if (fsinfo_damaged_) {
    if (!hasBackupFsInfo()) {
      if (fsinfoUnreadable(fsinfo_sector_)) return -1;
      resetFsInfo();
    } else if (readSector(backup_boot_sector_ + 1, fsinfo_) < 512) {
      int err = errno;
      LOGE("PBR backup FSInfo read error: %d(%s)\n", err, strerror(err));
      return -1;
    } else if (!hasSignature(fsinfo_)) {
      LOGE("PBR backup FSInfo signature failed: %02x %02x, should be 55 aa\n", fsinfo_[510],
           fsinfo_[511]);
      resetFsInfo();
    } else if (le32(fsinfo_ + kLeadSignature) != FSINFO_LEAD_SIGNATURE ||
               le32(fsinfo_ + kStructSignature) != FSINFO_STRUCT_SIGNATURE) {
      LOGE("PBR backup FSInfo tag1 tag2 failed: %08x %08x\n", le32(fsinfo_ + kLeadSignature),
           le32(fsinfo_ + kStructSignature));
      resetFsInfo();
    } else {
      LOGI("PBR primary FSInfo damaged!\n");
    }
  }

  if (is_velt_partition_) {
    FormatInfo info;
    info.decode(fsinfo_ + kFormatInfo);
    if (info.valid()) {
      velt_->format_info_ = info;
    } else {
      LOGI("VELT FSInfo invalid, operate in normal FAT32 mode\n");
      is_velt_partition_ = false;
    }
  }
  free_cluster_count_ = le32(fsinfo_ + kFreeCount);
  next_free_cluster_number_ = le32(fsinfo_ + kNextFree);
  valid_ = true;
  return 0;
}

int PBR::markVELT(const char* label) {
  if (!valid_) {
    NERIO_ASSERT_TEXT("valid_");
    LOGE("PBR invalid\n");
    return -1;
  }
  if (!velt_->isFormattingOp()) {
    NERIO_ASSERT_TEXT("velt_->isFormattingOp()");
    LOGE("not in formatting mode\n");
    return -1;
  }
  int mode = velt_->format_mode_;
  if (mode != kVELTFormatModeN && mode != kVELTFormatModeP && mode != kVELTFormatUnknownMode) {
    NERIO_ASSERT_TEXT("mode == kVELTFormatUnknownMode");
  }
  memcpy(oem_name_, markFor(mode, true), 8);
  memcpy(boot_sector_ + kOemName, oem_name_, 8);
  if (label != nullptr) {
    size_t len = strlen(label);
    if (len > sizeof(volume_label_)) {
      LOGE("invalid volume label\n");
      return -1;
    }
    memset(volume_label_, ' ', sizeof(volume_label_));
    memcpy(volume_label_, label, len);
    memcpy(boot_sector_ + kVolumeLabel, volume_label_, sizeof(volume_label_));
  }
  if (velt_->format_info_.valid()) {
    velt_->format_info_.encode(fsinfo_ + kFormatInfo);
  } else {
    NERIO_ASSERT_TEXT("format_info != nullptr");
  }
  is_velt_partition_ = true;
  return 0;
}

int PBR::write() {
  NERIO_ASSERT(velt_ != nullptr);
  if (!velt_->isFormattingOp() || velt_->format_mode_ == kVELTFormatUnknownMode) {
    LOGE(" PBR write disallowed in case of normal using\n");
    return -1;
  }
  if (!valid_) {
    if (format() != 0) return -1;
    valid_ = true;
  }
  int64_t boot_offset = static_cast<int64_t>(partition_.lba) * partition_.bytes_per_sector;
  if (velt_->write(boot_sector_, 512, boot_offset, true) < 512) {
    int err = errno;
    LOGE("PBR write error: %d(%s)\n", err, strerror(err));
    return -1;
  }
  if (velt_->write(boot_sector_, 512, sectorOffset(backup_boot_sector_), true) < 512) {
    int err = errno;
    LOGE("PBR backup write error: %d(%s)\n", err, strerror(err));
    return -1;
  }
  updateFATs();
  updateFSInfo();
  return 0;
}

int PBR::updateFSInfo(bool force) {
  NERIO_ASSERT(velt_ != nullptr);
  if (fat_locked_count_ != 0 && !force) return 0;
  if (!valid_) {
    LOGE("PBR invalid\n");
    return -1;
  }
  if (velt_->format_info_.valid()) {
    velt_->format_info_.encode(fsinfo_ + kFormatInfo);
  } else if (is_velt_partition_) {
    NERIO_ASSERT_TEXT("is_velt_partition_ == false || format_info != nullptr");
  }
  putLe32(fsinfo_ + kFreeCount, free_cluster_count_);
  putLe32(fsinfo_ + kNextFree, next_free_cluster_number_);
  // Both places already hold exactly this: nothing to write.
  if (fsinfo_written_valid_ && memcmp(fsinfo_written_, fsinfo_, sizeof(fsinfo_)) == 0) return 0;
  fsinfo_written_valid_ = false;
  if (velt_->write(fsinfo_, 512, sectorOffset(fsinfo_sector_), true) < 512) {
    int err = errno;
    LOGE("PBR FSInfo write error: %d(%s)\n", err, strerror(err));
    return -1;
  }
  if (hasBackupFsInfo() &&
      velt_->write(fsinfo_, 512, sectorOffset(backup_boot_sector_ + 1), true) < 512) {
    int err = errno;
    LOGE("PBR backup FSInfo write error: %d(%s)\n", err, strerror(err));
    return -1;
  }
  memcpy(fsinfo_written_, fsinfo_, sizeof(fsinfo_));
  fsinfo_written_valid_ = true;
  return 0;
}

}  // namespace velt
