// Laying down a new FAT32 file system in memory: geometry, boot sector, FAT and FSInfo images.
#include <cstdlib>
#include <cstring>
#include <new>

#include "fs/velt.h"
#include "fs/velt_endian.h"
#include "fs/velt_mbr.h"
#include "fs/velt_pbr.h"

namespace velt {

static constexpr const char kLogTag[] = "VELT.PBR";

namespace {
constexpr uint32_t kReserved = 32;
constexpr uint64_t k8GiB = 0x200000000ull;
constexpr uint64_t k32GiB = 0x800000000ull;
// Conventional disk geometry: what every FAT tool expects to find, whatever the card.
constexpr uint16_t kSectorsPerTrack = 63;
constexpr uint16_t kHeads = 255;
// Boot sector fields written here and nowhere else.
constexpr int kSectorsPerTrackField = 24, kHeadsField = 26, kHiddenSectorsField = 28;

// FAT size in sectors for a volume of `total` sectors with `spc` sectors per cluster: large
// enough that every data cluster, and the two reserved entries, have their entry.
uint32_t fatSectorsFor(uint32_t total, uint32_t spc, uint32_t* data_clusters) {
  const uint32_t c = 128 * spc;
  uint32_t fat = (total - kReserved + c + 1) / (c + 2);
  uint32_t clusters = 0;
  for (;;) {
    if (kReserved + 2ull * fat >= total) {
      clusters = 0;
      break;
    }
    clusters = (total - kReserved - 2 * fat) / spc;
    if (clusters + 2 <= 128ull * fat) break;
    ++fat;
  }
  if (data_clusters != nullptr) *data_clusters = clusters;
  return fat;
}
}  // namespace

uint32_t PBR::calcSecorsPerCluster() const {
  uint64_t size = static_cast<uint64_t>(partition_.total_sectors) * partition_.bytes_per_sector;
  if (size == 0) {
    NERIO_ASSERT_TEXT("disk_size != 0ll");
    return 32;
  }
  if (size <= k8GiB) return 32;
  if (size <= k32GiB) return 64;
  return 128;
}

uint32_t PBR::chooseSectorsPerCluster() const {
  if (format_sectors_per_cluster_ != 0) return format_sectors_per_cluster_;
  // Below FAT32_MIN_CLUSTERS clusters other FAT tools take the volume for a FAT16 one: halve
  // the table's cluster size until the count is reached, down to one sector per cluster.
  for (uint32_t spc = calcSecorsPerCluster(); spc >= 1; spc /= 2) {
    uint32_t clusters = 0;
    fatSectorsFor(partition_.total_sectors, spc, &clusters);
    if (clusters >= FAT32_MIN_CLUSTERS) return spc;
  }
  return 0;
}

int PBR::format() {
  NERIO_ASSERT(velt_ != nullptr);
  MBR* mbr = velt_->mbr_;
  if (mbr == nullptr || !mbr->valid_) {
    NERIO_ASSERT_TEXT("mbr != nullptr && mbr->valid_");
    return -1;
  }
  if (mbr->getFAT32Partition(partition_no_, &partition_) < 0) {
    LOGE("PBR FAT32 partition not found\n");
    return -1;
  }
  if (partition_.total_sectors == 0) {
    NERIO_ASSERT_TEXT("partition_.total_sectors != 0");
    LOGE("PBR total sectors is 0\n");
    return -1;
  }
  const char* mark = "VELT1.0X";
  if (velt_->isFormattingOp()) {
    int mode = velt_->format_mode_;
    if (mode == kVELTFormatModeN) {
      mark = "VELT1.0N";
    } else if (mode == kVELTFormatModeP) {
      mark = "VELT1.0P";
    } else if (mode != kVELTFormatUnknownMode) {
      NERIO_ASSERT_TEXT("mode == kVELTFormatUnknownMode");
    }
  }
  memcpy(oem_name_, mark, 8);

  if (partition_.total_sectors <= kReserved + 2 * 2) {
    LOGE("PBR total sectors is 0\n");
    return -1;
  }
  const uint32_t spc = chooseSectorsPerCluster();
  if (spc == 0) {
    LOGE("the partition is too small for FAT32: %u KiB, it needs at least %u KiB\n",
         partition_.total_sectors / 2, minimumFAT32Sectors() / 2);
    return -1;
  }
  bytes_per_sector_ = 512;
  sectors_per_cluster_ = spc;
  reserved_sectors_ = kReserved;
  num_fats_ = 2;
  media_ = 0xF8;
  cluster_length_ = 512 * sectors_per_cluster_;
  try {
    zeros_.assign(cluster_length_, 0);
  } catch (const std::exception&) {
    LOGE("got exception when creating a cluster zeros, %d bytes\n", cluster_length_);
    return -1;
  }
  total_sectors_ = partition_.total_sectors;
  fat_sectors_ = fatSectorsFor(total_sectors_, sectors_per_cluster_, nullptr);
  root_cluster_ = 2;
  backup_boot_sector_ = 6;
  ext_flags_ = 0;
  fsinfo_sector_ = 1;
  volume_id_ = static_cast<uint32_t>(rand());
  memset(volume_label_, ' ', sizeof(volume_label_));
  memcpy(fs_type_, "FAT32   ", 8);
  data_sectors_ = total_sectors_ - kReserved - 2 * fat_sectors_;
  num_clusters_ = data_sectors_ / sectors_per_cluster_ + 2;
  data_start_sector_ = kReserved + 2 * fat_sectors_;

  memset(boot_sector_, 0, sizeof(boot_sector_));
  boot_sector_[0] = 0xEB;
  boot_sector_[1] = 0x58;
  boot_sector_[2] = 0x90;
  memcpy(boot_sector_ + 3, oem_name_, 8);
  putLe16(boot_sector_ + 11, static_cast<uint16_t>(bytes_per_sector_));
  boot_sector_[13] = static_cast<uint8_t>(sectors_per_cluster_);
  putLe16(boot_sector_ + 14, static_cast<uint16_t>(reserved_sectors_));
  boot_sector_[16] = static_cast<uint8_t>(num_fats_);
  boot_sector_[21] = static_cast<uint8_t>(media_);
  setConventionalGeometry();
  putLe32(boot_sector_ + 32, total_sectors_);
  putLe32(boot_sector_ + 36, fat_sectors_);
  putLe16(boot_sector_ + 40, static_cast<uint16_t>(ext_flags_));
  putLe32(boot_sector_ + 44, root_cluster_);
  putLe16(boot_sector_ + 48, static_cast<uint16_t>(fsinfo_sector_));
  putLe16(boot_sector_ + 50, static_cast<uint16_t>(backup_boot_sector_));
  boot_sector_[66] = 0x29;
  putLe32(boot_sector_ + 67, volume_id_);
  memcpy(boot_sector_ + 71, volume_label_, sizeof(volume_label_));
  memcpy(boot_sector_ + 82, fs_type_, sizeof(fs_type_));
  boot_sector_[510] = 0x55;
  boot_sector_[511] = 0xAA;
  is_velt_partition_ = true;

  fat_clusters_ = bytes_per_sector_ * fat_sectors_ / 4;
  if (num_clusters_ > fat_clusters_) {
    NERIO_ASSERT_MSG(fat_clusters_ >= num_clusters_, ": %d >= %d\n", fat_clusters_, num_clusters_);
    LOGI("fat size is smaller than total data clusters, set data clusters# to fat size: %d -> %d\n",
         num_clusters_, fat_clusters_);
    num_clusters_ = fat_clusters_;
  }
  try {
    // The whole table starts clear: nothing of an earlier file system survives.
    fat1_.assign(fat_clusters_, 0);
    fat1_flags_.assign((fat_clusters_ + 7) / 8, 0);
  } catch (const std::exception&) {
    LOGE("got exception when creating a FAT table\n");
    return -1;
  }
  fat1_[0] = 0x0FFFFF00u | media_;
  fat1_[1] = 0xFFFFFFFFu;
  fat1_[root_cluster_] = FAT_EOC;
  next_free_cluster_number_ = 2;
  free_cluster_count_ = num_clusters_ - 3;

  memset(fsinfo_, 0, sizeof(fsinfo_));
  putLe32(fsinfo_, FSINFO_LEAD_SIGNATURE);
  putLe32(fsinfo_ + 484, FSINFO_STRUCT_SIGNATURE);
  fsinfo_[510] = 0x55;
  fsinfo_[511] = 0xAA;
  if (velt_->format_info_.valid()) velt_->format_info_.encode(fsinfo_ + 4);
  putLe32(fsinfo_ + 488, free_cluster_count_);
  putLe32(fsinfo_ + 492, next_free_cluster_number_);

  pbr_damaged_ = fsinfo_damaged_ = fat_damaged_ = false;
  valid_ = true;
  return 0;
}

void PBR::setConventionalGeometry() {
  // Zero heads or sectors per track make some FAT tools refuse the volume; hidden sectors tell
  // where the partition starts.
  if (le16(boot_sector_ + kSectorsPerTrackField) == 0 || le16(boot_sector_ + kHeadsField) == 0) {
    putLe16(boot_sector_ + kSectorsPerTrackField, kSectorsPerTrack);
    putLe16(boot_sector_ + kHeadsField, kHeads);
  }
  putLe32(boot_sector_ + kHiddenSectorsField, partition_.lba);
}

uint32_t PBR::minimumFAT32Sectors() {
  // One-sector clusters: the reserved area, two FATs of FAT32_MIN_CLUSTERS + 2 entries each,
  // and the clusters themselves.
  const uint32_t fat = (FAT32_MIN_CLUSTERS + 2 + 127) / 128;
  return kReserved + 2 * fat + FAT32_MIN_CLUSTERS;
}

}  // namespace velt
