// The stricter rules of the directory scan inside a reserved folder: matching the folder with
// its descriptor, finding every reserved file (used ones are children, free ones are deleted
// records whose long names and clusters stay), and reconciling the counts. Nothing is repaired
// here: any irregularity fails the folder's load, and the tree builder recreates the folder.
#include <strings.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "fs/velt_endian.h"
#include "fs/velt_load.h"

namespace velt {

static constexpr const char kLogTag[] = "VELT";

int DirScan::fatal(ReservedFatal code) {
  LOGE("Reserved folder [%s] has FATAL error @ %d\n", path().c_str(), static_cast<int>(code));
  return -1;
}

int DirScan::matchReservedFolder() {
  velt_folder_ = nullptr;
  reserved_file_size_ = 0;
  // Only folders right under the root can be reserved ones.
  if (cur_->parent_ == nullptr || cur_->parent_->parent_ != nullptr) return 0;
  FormatInfo& info = velt_->format_info_;
  const uint32_t folders =
      std::min<uint32_t>(info.folder_count, static_cast<uint32_t>(VELT_MAX_RESERVED_FOLDERS));
  ReservedFolderDesc* desc = nullptr;
  for (uint32_t i = 0; i < folders && desc == nullptr; ++i) {
    std::string name(info.folders[i].name,
                     strnlen(info.folders[i].name, sizeof(info.folders[i].name)));
    if (!name.empty() && strcasecmp(name.c_str(), cur_->name_.c_str()) == 0)
      desc = &info.folders[i];
  }
  if (desc == nullptr) return 0;

  velt_folder_ = desc;
  cur_->velt_folder_ = desc;
  if (desc->start_cluster != start_cluster_) {
    VELT_REPORT(false, "velt_folder->start_cluster == start_cluster", ": [%s] %d == %d\n",
                path().c_str(), desc->start_cluster, start_cluster_);
    LOGI("VELT reserved folder [%s] moved? cluster mismatach: %d (configured) != %d (current)\n",
         path().c_str(), desc->start_cluster, start_cluster_);
  }
  reserved_file_size_ = desc->size_mb << 20;
  if (desc->count > 0) {
    // Every reserved file owns at least one cluster: a larger count is damage, not a layout.
    if (desc->count > pbr_->num_clusters_) return fatal(kFatalCountTooLarge);
    try {
      cur_->velt_reserved_files_.clear();
      cur_->velt_reserved_files_.resize(desc->count);
    } catch (const std::bad_alloc&) {
      return fatal(kFatalNoMemory);
    }
    for (ReservedFile& f : cur_->velt_reserved_files_) f.entry_index_ = -1;
  }
  return 0;
}

int DirScan::joinSequence(int index, int ord) {
  // A takeover with a short name puts filler records (order 1, checksum 0) in front of the
  // real sequence; the real one arrives last and takes the low slots.
  if (ord < 1 || ord + lfn_ent_count_ > VELT_LFN_ENTRY_COUNT_MAX || lfn_xord_ != 1) {
    LOGE("LFN extended for reserved file failed, lfn_order %d, new lfn# %d, FATAL\n", ord,
         ord + lfn_ent_count_);
    return -1;
  }
  for (int k = lfn_ent_count_ - 1; k >= 0; --k) slots_[k + ord] = slots_[k];
  for (int k = 0; k < ord; ++k) slots_[k] = LfnSlot();
  return openSequence(index, ord);
}

int DirScan::reservedShortName(bool is_file, const std::string& base, int ext_len) {
  if (is_file) {
    if (!lfn_mode_) {
      LOGE("Reserved folder's file entry has no LFN entries. FATAL error\n");
      return -1;
    }
    if (lfn_xord_ != 1) return fatal(kFatalIncompleteSequence);
    if (lfn_ent_count_ != VELT_LFN_ENTRY_COUNT_MAX) {
      LOGE("Reserved folder's has wrong LFN entry count, %d (%d required), FATAL error\n",
           lfn_ent_count_, VELT_LFN_ENTRY_COUNT_MAX);
      return -1;
    }
    lfn_valid_ = true;
    return 0;
  }
  const bool dot = ext_len == 0 && (base == "." || base == "..");
  if (!dot) {
    LOGE("Reserved folder has a directory entry. FATAL error\n");
    return -1;
  }
  // A dot record never carries a long name.
  if (lfn_mode_) return fatal(kFatalDotWithLongName);
  return 0;
}

int DirScan::checkCapacity() {
  const size_t size = cur_->velt_reserved_files_.size();
  if (static_cast<size_t>(detected_reserved_file_count_) + 1 <= size) return 0;
  VELT_REPORT(false, "cur->velt_reserved_files_.size() >= detected_reserved_file_count",
              ": %d >= %d\n", static_cast<int>(size), detected_reserved_file_count_ + 1);
  LOGE("Reserved folder has too much reserved files, FATAL error!\n");
  return -1;
}

void DirScan::fillReservedFile(ReservedFile* f, int64_t off, uint32_t cluster, int index,
                               uint32_t time, bool used) {
  f->dir_ent_disk_off = off;
  f->lfn_count = lfn_ent_count_;
  for (int k = 0; k < VELT_LFN_ENTRY_COUNT_MAX; ++k) {
    f->lfn_disk_offsets[k] = k < lfn_ent_count_ ? slots_[k].off : 0;
  }
  f->start_cluster = cluster;
  f->entry_index_ = index;
  f->taken_time = time;
  f->used_ = used;
  f->size = reserved_file_size_;
}

int DirScan::recordUsedFile(const std::shared_ptr<VELT::DirEntry>& entry, int index) {
  if (!pbr_->checkClusterChains(entry->start_cluster_, reserved_file_size_)) {
    LOGE("Reserved folder's file [%s] has bad cluster chains\n", entry->getPath().c_str());
    cur_->removeChild(entry, true);
    return -1;
  }
  if (checkCapacity() != 0) return -1;
  fillReservedFile(&cur_->velt_reserved_files_[detected_reserved_file_count_],
                   entry->dir_ent_disk_off_, entry->start_cluster_, index,
                   static_cast<uint32_t>(entry->created_), true);
  ++detected_reserved_file_count_;
  ++detected_used_count_;
  return 0;
}

int DirScan::freeReservedFile(int index) {
  const uint8_t* p = rec(index);
  if ((p[rec::kAttr] & (kAttrDirectory | kAttrVolumeId)) != 0) {
    LOGI("Reserved folder [%s] has the deleted dirctory entry, FATAL error!\n", path().c_str());
    // Neighbours within what has been read so far (the current cluster's end).
    int from = std::max(0, index - 2);
    int to = std::min({entry_count_ - 1, index + 2, (index / per_cluster_ + 1) * per_cluster_ - 1});
    dumpRecords("BnFEntries", rec(from), (to - from + 1) * DIR_RECORD_SIZE);
    dumpRecords("InvEntry", p, DIR_RECORD_SIZE);
    return -1;
  }
  if (!lfn_mode_ || lfn_ent_count_ != VELT_LFN_ENTRY_COUNT_MAX) {
    LOGI("Reserved folder has the deleted invalid file entry: lfn#%d != %d, FATAL error\n",
         lfn_ent_count_, VELT_LFN_ENTRY_COUNT_MAX);
    return -1;
  }
  if (lfn_xord_ != 1) return fatal(kFatalFreeFileIncomplete);
  if (reserved_file_size_ == 0) NERIO_ASSERT_TEXT("reserved_file_size != 0");
  const uint32_t first =
      (static_cast<uint32_t>(le16(p + rec::kClusterHigh)) << 16) | le16(p + rec::kClusterLow);
  if (!pbr_->checkClusterChains(first, reserved_file_size_)) {
    LOGI("Reserved file cluster chains broken, start cluster %d(0x%08x), FATAL error!\n", first,
         first);
    return -1;
  }
  if (checkCapacity() != 0) return -1;
  fillReservedFile(&cur_->velt_reserved_files_[detected_reserved_file_count_], recordOffset(index),
                   first, index, 0, false);
  ++detected_reserved_file_count_;
  resetLfn();
  return 0;
}

int DirScan::checkFileCount() {
  if (static_cast<int64_t>(velt_folder_->count) == detected_reserved_file_count_) return 0;
  VELT_REPORT(
      false, "velt_folder->count == detected_reserved_file_count",
      ": %s %d (defined) == %d (detected)\n",
      std::string(velt_folder_->name, strnlen(velt_folder_->name, sizeof(velt_folder_->name)))
          .c_str(),
      static_cast<int>(velt_folder_->count), detected_reserved_file_count_);
  LOGI("Reserved folder's file count is not correct\n");
  return -1;
}

void DirScan::reconcileReservedFolder() {
  if (velt_folder_->used != detected_used_count_) {
    LOGI("\"%s\" used count mismatched. saved#%d, detected#%d\n", path().c_str(),
         velt_folder_->used, detected_used_count_);
    velt_folder_->used = detected_used_count_;
  }
  if (cur_->velt_reserved_files_.size() != velt_folder_->count) {
    NERIO_ASSERT_TEXT("cur->velt_reserved_files_.size() == velt_folder->count");
  }
  // Free reserved files are no children, but their clusters stay taken.
  for (const ReservedFile& f : cur_->velt_reserved_files_)
    pbr_->setClusterChainUsed(f.start_cluster);
}

}  // namespace velt
