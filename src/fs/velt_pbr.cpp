// Boot sector, FSInfo and the VELT mark.
#include "fs/velt_pbr.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include "fs/velt.h"
#include "fs/velt_endian.h"

namespace velt {

static constexpr const char kLogTag[] = "VELT.PBR";

namespace {

// Boot sector fields.
constexpr int kOemName = 3, kBytesPerSector = 11, kSectorsPerCluster = 13, kReservedSectors = 14,
              kNumFats = 16, kRootEntryCount = 17, kMedia = 21, kTotalSectors32 = 32,
              kFatSectors = 36, kExtFlags = 40, kRootCluster = 44, kFsInfoSector = 48,
              kBackupBootSector = 50, kVolumeId = 67, kVolumeLabel = 71, kFsType = 82;
// FSInfo fields.
constexpr int kLeadSignature = 0, kFormatInfo = 4, kStructSignature = 484, kFreeCount = 488,
              kNextFree = 492;
constexpr uint32_t kBackupBootFixed = 6;

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

int PBR::read() {
  if (partition_.lba == 0) NERIO_ASSERT_TEXT("partition_.lba != 0");
  int64_t boot_offset = static_cast<int64_t>(partition_.lba) * partition_.bytes_per_sector;
  if (velt_->read(boot_sector_, 512, boot_offset) < 512) {
    int err = errno;
    LOGE("PBR read error: %d(%s)\n", err, strerror(err));
    pbr_damaged_ = true;
  } else if (!hasSignature(boot_sector_)) {
    LOGE("PBR signature failed: %02x %02x, should be 55 aa\n", boot_sector_[510],
         boot_sector_[511]);
    pbr_damaged_ = true;
  }
  if (pbr_damaged_) {
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
    LOGI("PBR primary damaged!\n");
  }

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
  total_sectors_ = le32(boot_sector_ + kTotalSectors32);
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
    if (readSector(backup_boot_sector_ + 1, fsinfo_) < 512) {
      int err = errno;
      LOGE("PBR backup FSInfo read error: %d(%s)\n", err, strerror(err));
      return -1;
    }
    if (!hasSignature(fsinfo_)) {
      LOGE("PBR backup FSInfo signature failed: %02x %02x, should be 55 aa\n", fsinfo_[510],
           fsinfo_[511]);
      return -1;
    }
    if (le32(fsinfo_ + kLeadSignature) != FSINFO_LEAD_SIGNATURE ||
        le32(fsinfo_ + kStructSignature) != FSINFO_STRUCT_SIGNATURE) {
      LOGE("PBR backup FSInfo tag1 tag2 failed: %08x %08x\n", le32(fsinfo_ + kLeadSignature),
           le32(fsinfo_ + kStructSignature));
      return -1;
    }
    LOGI("PBR primary FSInfo damaged!\n");
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
  if (velt_->write(fsinfo_, 512, sectorOffset(backup_boot_sector_ + 1), true) < 512) {
    int err = errno;
    LOGE("PBR backup FSInfo write error: %d(%s)\n", err, strerror(err));
    return -1;
  }
  memcpy(fsinfo_written_, fsinfo_, sizeof(fsinfo_));
  fsinfo_written_valid_ = true;
  return 0;
}

}  // namespace velt
