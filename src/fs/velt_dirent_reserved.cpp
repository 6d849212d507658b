// Reserved folders: folders filled at format time with preallocated files (recorded as deleted
// entries so that other FAT readers see an empty folder) that new files take over instead of
// allocating clusters.
//
// A reserved file occupies four slots: three long-name records and its short-name record. A
// file taken over keeps the slots and the cluster chain; its name reaches the card only when
// secure2 publishes it.
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <new>

#include "fs/velt_dirent.h"
#include "fs/velt_endian.h"
#include "fs/velt_file.h"

namespace velt {

static constexpr const char kLogTag[] = "VELT.DirEntry";

// Reports a failed check under the given expression text, with an explanation.
#define ASSERT_TEXT_MSG(text, fmt, ...)                                                 \
  ::nerio::assertFailedWithMessage(text, kLogTag, __func__, NERIO_FILE_, __LINE__, fmt, \
                                   ##__VA_ARGS__)

namespace {

constexpr int kReservedGroupSlots = VELT_LFN_ENTRY_COUNT_MAX + 1;
constexpr uint8_t kAttrHiddenArchive = kAttrArchive | kAttrHidden;  // taken, not yet secured

// Sequence byte of a filler record: a one-record start that no short name owns (checksum 0).
constexpr uint8_t kFillerSeq = rec::kLfnLast | 1;

void buildFillerRecord(uint8_t* out) {
  memset(out, 0xFF, DIR_RECORD_SIZE);
  out[rec::kLfnSeq] = kFillerSeq;
  out[rec::kLfnAttr] = kAttrLongName;
  out[rec::kLfnType] = 0;
  out[rec::kLfnChecksum] = 0;
  putLe16(out + rec::kLfnCluster, 0);
}

// The first byte the card stores for a short name (0xE5 is kept as 0x05).
uint8_t storedFirstByte(const std::string& short_name) {
  uint8_t name11[11];
  shortNameToName83(short_name.c_str(), name11);
  return name11[0];
}

std::string descriptorName(const ReservedFolderDesc* desc) {
  return std::string(desc->name, strnlen(desc->name, sizeof(desc->name)));
}

}  // namespace

int VELT::DirEntry::createReservedFolder(ReservedFolderDesc* desc) {
  if (desc == nullptr) {
    NERIO_ASSERT_TEXT("velt_folder != nullptr");
    return -1;
  }
  if (parent_ != nullptr) {
    NERIO_ASSERT_TEXT("parent_ == nullptr");
    return -1;
  }
  const std::string name = descriptorName(desc);
  const int count = static_cast<int>(desc->count);
  const size_t slots = static_cast<size_t>(count > 0 ? count : 0) * kReservedGroupSlots + 2;

  // The folder's slots are assembled here and written in cluster-sized pieces at the end.
  std::vector<uint8_t> buffer;
  try {
    buffer.assign(slots * DIR_RECORD_SIZE, 0);
  } catch (const std::bad_alloc&) {
    NERIO_ASSERT_TEXT("entry_buffer != nullptr");
  }
  uint8_t* entry_buffer = buffer.empty() ? nullptr : buffer.data();

  std::shared_ptr<DirEntry> folder = createChild(name.c_str(), false, true, entry_buffer);
  if (folder == nullptr) {
    NERIO_ASSERT_TEXT("child != nullptr");
    LOGE("[%s] creation failed\n", name.c_str());
    return -1;
  }
  {
    std::lock_guard lock(folder->children_mutex_);
    int entry_index = static_cast<int>(folder->children_.size());
    if (entry_index != 2) NERIO_ASSERT_TEXT("entry_index == 2");
  }

  // The files below are made the ordinary way; the folder becomes reserved at the end.
  folder->velt_folder_ = nullptr;
  desc->start_cluster = folder->start_cluster_;
  desc->used = 0;
  folder->velt_reserved_files_.clear();

  velt_->lockFAT();
  const uint32_t bytes = desc->size_mb << 20;
  std::vector<std::shared_ptr<DirEntry>> files;
  bool complete = true;
  for (int i = 1; i <= count; ++i) {
    char file_name[64];
    snprintf(file_name, sizeof(file_name), "VELT_RESERVED_FILE_20170705_%06d.avi", i);
    std::shared_ptr<DirEntry> file = folder->createChild(file_name, true, false, entry_buffer);
    if (file == nullptr) {
      NERIO_ASSERT_TEXT("file != nullptr");
      LOGE("[%s] reserved file[%d] creation failed\n", name.c_str(), i);
      complete = false;
      break;
    }
    const int entry_index = 2 + (i - 1) * kReservedGroupSlots + VELT_LFN_ENTRY_COUNT_MAX;
    const int idx = folder->diskOffsetToEntryIndex(file->dir_ent_disk_off_);
    if (idx != entry_index) {
      ASSERT_TEXT_MSG("child->diskOffsetToEntryIndex(file->dir_ent_disk_off_) == entry_index",
                      ": %d == %d\n", idx, entry_index);
    }
    uint8_t* record = nullptr;
    if (entry_buffer != nullptr && idx >= 0 && static_cast<size_t>(idx) < slots) {
      record = entry_buffer + static_cast<size_t>(idx) * DIR_RECORD_SIZE;
    }
    if (file->secure(bytes, record) < 0) {
      LOGE("[%s] reserved file[%d] secure space %d bytes failed\n", name.c_str(), i,
           static_cast<int>(bytes));
    }
    if (record != nullptr) {
      // Free reserved files are deleted records: other readers see an empty folder.
      record[0] = DIR_ENTRY_DELETED;
      std::lock_guard lock(folder->map_mutex_);
      if (static_cast<size_t>(idx) < folder->entry_map_.size()) {
        folder->entry_map_[idx] = DIR_ENTRY_DELETED;
      }
    }

    if (file->lfn_ent_count_ > VELT_LFN_ENTRY_COUNT_MAX) {
      NERIO_ASSERT_TEXT("file->lfn_ent_count_ <= VELT_LFN_ENTRY_COUNT_MAX");
    }
    ReservedFile velt_file;
    velt_file.dir_ent_disk_off = file->dir_ent_disk_off_;
    velt_file.lfn_count = file->lfn_ent_count_;
    for (int k = 0; k < VELT_LFN_ENTRY_COUNT_MAX; ++k) {
      if (static_cast<size_t>(k) < file->lfn_disk_offsets_.size()) {
        velt_file.lfn_disk_offsets[k] = file->lfn_disk_offsets_[k];
      }
    }
    velt_file.start_cluster = file->start_cluster_;
    velt_file.entry_index_ = folder->diskOffsetToEntryIndex(file->dir_ent_disk_off_);
    if (velt_file.entry_index_ < 0) NERIO_ASSERT_TEXT("velt_file.entry_index_ >= 0");
    velt_file.taken_time = static_cast<uint32_t>(file->created_);
    velt_file.used_ = false;
    velt_file.size = bytes;
    try {
      folder->velt_reserved_files_.push_back(velt_file);
      files.push_back(file);
    } catch (const std::bad_alloc&) {
      LOGE("[%s] reserved file[%d] creation failed\n", name.c_str(), i);
      complete = false;
      break;
    }
  }

  if (complete && entry_buffer != nullptr) {
    const size_t per_cluster = velt_->pbr_->cluster_length_ / DIR_RECORD_SIZE;
    for (size_t slot = 0; slot < slots; slot += per_cluster) {
      const size_t current_count = std::min(slots - slot, per_cluster);
      const int64_t offset = folder->entryIndexToDiskOffset(static_cast<int>(slot));
      const uint32_t length = static_cast<uint32_t>(current_count * DIR_RECORD_SIZE);
      int written = offset > 0
                        ? velt_->write(entry_buffer + slot * DIR_RECORD_SIZE, length, offset, true)
                        : -1;
      if (written != static_cast<int>(length)) {
        NERIO_ASSERT_TEXT("length == current_count * 32");
      }
    }
  }
  if (complete) folder->loadClusterMap();

  folder->velt_folder_ = desc;
  for (const auto& file : files) {
    if (file->parent_ == this) NERIO_ASSERT_TEXT("file->parent_ != this");
    folder->removeChild(file, true);
  }
  velt_->unlockFAT();
  return 0;
}

int VELT::DirEntry::secure(uint32_t bytes, uint8_t* record_out) {
  if (velt_ == nullptr || velt_->pbr_ == nullptr || velt_->pbr_->cluster_length_ == 0) {
    NERIO_ASSERT_TEXT("velt_ && velt_->pbr_ && velt_->pbr_->cluster_length_ > 0");
    return -EINVAL;
  }
  if (bytes == 0) return 0;
  if (!isArchive() || parent_ == nullptr || !parent_->isDir()) {
    NERIO_ASSERT_TEXT("isArchive() && parent_->isDir()");
  }
  const uint32_t last_index = (bytes - 1) / velt_->pbr_->cluster_length_;
  const int64_t cluster = getCluster(last_index, true);
  if (cluster >= 1 && cluster <= FAT_BAD) {
    {
      std::lock_guard lock(files_mutex_);
      size_ = bytes;
    }
    return update(true, true, record_out);
  }
  LOGE("[%s] secure %d bytes error: no cluster available\n", getPath().c_str(),
       static_cast<int>(bytes));
  return -ENOSPC;
}

int VELT::DirEntry::secure2() {
  if (!is_reserved_) NERIO_ASSERT_TEXT("is_reserved_ == true");
  if (removed_) return 0;  // deleted before it was published
  if (is_secured_) {
    LOGI("\"%s\" already secured\n", name_.c_str());
    return -1;
  }
  if (lfs_entry_start_index_ == -1) {
    NERIO_ASSERT_TEXT("lfs_entry_start_index_ != -1");
    LOGE("\"%s\" lfs_entry_start_index_ invalid!\n", name_.c_str());
    return -1;
  }
  if (parent_ == nullptr) {
    NERIO_ASSERT_TEXT("parent_ != nullptr");
    LOGE("\"%s\" has no parent!\n", name_.c_str());
    return -1;
  }
  if (lfn_records_ != nullptr) {
    for (int i = 0; i < lfn_ent_count_ && i < kLfnRecordsMax; ++i) {
      parent_->write(lfs_entry_start_index_ + i, (*lfn_records_)[i].data());
    }
  }
  is_secured_ = true;
  int result = update2(true, true);
  velt_->invalidateKernelCache(this);  // size and visibility changed
  return result;
}

int VELT::DirEntry::getVELTFileIndex(int64_t disk_off) {
  if (velt_folder_ == nullptr || velt_reserved_files_.empty()) {
    ASSERT_TEXT_MSG("velt_folder_ != nullptr && velt_reserved_files_.size() > 0",
                    ": %p != nullptr && %zd > 0\n", static_cast<void*>(velt_folder_),
                    velt_reserved_files_.size());
    if (velt_reserved_files_.empty()) return -1;
  }
  for (size_t i = 0; i < velt_reserved_files_.size(); ++i) {
    if (velt_reserved_files_[i].dir_ent_disk_off == disk_off) return static_cast<int>(i);
  }
  return -1;
}

// The child of this reserved folder whose short-name record lies at disk_off; with `take`, it
// also leaves children_. Caller holds nothing of this entry.
static std::shared_ptr<VELT::DirEntry> lookUpVELTChild(VELT::DirEntry* folder, int64_t disk_off,
                                                       bool take, uint8_t* first_char) {
  if (folder->velt_folder_ == nullptr) {
    ASSERT_TEXT_MSG("velt_folder_ != nullptr",
                    "WARN: this call should be applied to velt folder only!\n");
  }
  std::lock_guard lock(folder->children_mutex_);
  for (auto it = folder->children_.begin(); it != folder->children_.end(); ++it) {
    const std::shared_ptr<VELT::DirEntry>& child = *it;
    if (child->dir_ent_disk_off_ != disk_off) continue;
    if (!child->isArchive()) NERIO_ASSERT_TEXT("child->isArchive()");
    std::shared_ptr<VELT::DirEntry> found = child;
    if (take) {
      if (first_char != nullptr) *first_char = storedFirstByte(found->short_name_);
      folder->children_.erase(it);  // its parent_ stays: open files may still ask for it
    }
    return found;
  }
  LOGE("[%s] no child found of dir_ent_disk_off %jd\n", folder->getPath().c_str(),
       static_cast<intmax_t>(disk_off));
  return nullptr;
}

std::shared_ptr<VELT::DirEntry> VELT::DirEntry::findVELTChild(int64_t disk_off) {
  return lookUpVELTChild(this, disk_off, false, nullptr);
}

int VELT::DirEntry::removeVELTFile(int64_t disk_off, uint8_t* first_char) {
  std::shared_ptr<DirEntry> gone = lookUpVELTChild(this, disk_off, true, first_char);
  if (gone == nullptr) return -1;
  // Its records now belong to whoever takes the reserved file next: a record a close still owes
  // it must not go out over theirs.
  std::lock_guard lock(gone->files_mutex_);
  if (gone->removed_ == 0) gone->removed_ = kRemoved;
  return 0;
}

// Whether anybody has the entry open.
static bool isOpen(VELT::DirEntry& entry) {
  std::lock_guard lock(entry.files_mutex_);
  return !entry.files_.empty();
}

std::shared_ptr<VELT::DirEntry> VELT::DirEntry::takeOverReservedFile(const char* file_name,
                                                                     uint8_t* entry_buffer,
                                                                     int* error) {
  (void)entry_buffer;  // a takeover writes its one record itself
  int dummy = 0;
  if (error == nullptr) error = &dummy;
  *error = -EIO;
  if (velt_folder_ == nullptr) {
    NERIO_ASSERT_TEXT("velt_folder_ != nullptr");
    *error = -EINVAL;
    return nullptr;
  }

  // The name must fit the three long-name slots: refuse before anything changes.
  std::vector<uint16_t> units;
  if (!longNameUnits(file_name, &units, nullptr)) {
    LOGE("[%s] failed to convert\n", file_name);
    *error = -EINVAL;
    return nullptr;
  }
  const int needed = static_cast<int>((units.size() + kLfnCharsPerRecord - 1) / kLfnCharsPerRecord);
  if (needed > VELT_LFN_ENTRY_COUNT_MAX || needed < 1) {
    *error = needed < 1 ? -EINVAL : -ENAMETOOLONG;
    return nullptr;
  }

  // Held until the entry is a child, so that a concurrent creation picks another short name.
  ShortNameReservation name_hold;
  std::string short_name;
  if (name_hold.reserve(this, file_name, nullptr, &short_name) < 0) {
    *error = -EINVAL;
    return nullptr;
  }
  if (!isValidFileName(short_name.c_str())) NERIO_ASSERT_TEXT("isValidFileName(short_name)");
  std::shared_ptr<DirEntry> entry;
  try {
    entry = std::make_shared<DirEntry>(velt_);
    entry->lfn_records_ =
        std::make_unique<std::array<std::array<uint8_t, DIR_RECORD_SIZE>, kLfnRecordsMax>>();
    entry->lfn_disk_offsets_.assign(VELT_LFN_ENTRY_COUNT_MAX, 0);
  } catch (const std::bad_alloc&) {
    LOGE("got exception when creating a new child\n");
    *error = -ENOMEM;
    return nullptr;
  }
  entry->name_ = file_name;
  entry->short_name_ = short_name;
  entry->size_ = entry->real_size_ = 0;
  entry->is_dir_ = entry->is_volume_ = entry->read_only_ = false;
  entry->valid_ = true;
  entry->cluster_map_dirty_ = true;
  const time_t now = time(nullptr);
  entry->create_date_ = entry->access_date_ = entry->write_date_ = timeToFatDate(now);
  entry->create_time_ = entry->write_time_ = timeToFatTime(now);
  entry->created_ = entry->accessed_ = entry->modified_ = now;

  const size_t table_size = velt_reserved_files_.size();
  if (table_size != velt_folder_->count) {
    ASSERT_TEXT_MSG("velt_reserved_files_.size() == velt_folder_->count", ": %d == %d\n",
                    static_cast<int>(table_size), static_cast<int>(velt_folder_->count));
  }
  if (table_size == 0 || velt_folder_->count == 0) {
    LOGE("[%s] VELT foler has no reserved files\n", getPath().c_str());
    *error = -ENOSPC;
    return nullptr;
  }

  int chosen = -1;
  uint8_t expected_char = DIR_ENTRY_DELETED;
  {
    std::lock_guard<std::mutex> lock(velt_->reserved_mutex_);
    for (size_t i = 0; i < velt_reserved_files_.size(); ++i) {
      if (!velt_reserved_files_[i].used_) {
        chosen = static_cast<int>(i);
        break;
      }
    }
    const bool was_free = chosen >= 0;
    if (!was_free) {
      if (velt_folder_->used != static_cast<int32_t>(velt_reserved_files_.size())) {
        NERIO_ASSERT_TEXT("velt_folder_->used == velt_reserved_files_.size()");
      }
      // Recycle the file taken over longest ago that nobody has open; equal times keep the
      // lower index.
      for (size_t i = 0; i < velt_reserved_files_.size(); ++i) {
        if (chosen >= 0 && static_cast<int32_t>(velt_reserved_files_[i].taken_time) >=
                               static_cast<int32_t>(velt_reserved_files_[chosen].taken_time)) {
          continue;
        }
        std::shared_ptr<DirEntry> candidate =
            findVELTChild(velt_reserved_files_[i].dir_ent_disk_off);
        if (candidate == nullptr) {
          NERIO_ASSERT_TEXT("candiate != nullptr");
          continue;
        }
        if (!isOpen(*candidate)) chosen = static_cast<int>(i);
      }
      if (chosen < 0) {
        NERIO_ASSERT_TEXT("oldest_index != -1");
        LOGE("cannot create the reserved file: no freed reserved files!!!\n");
        *error = -ENOSPC;
        return nullptr;
      }
    }

    ReservedFile& velt_file = velt_reserved_files_[chosen];
    entry->start_cluster_ = velt_file.start_cluster;
    entry->size_ = velt_file.size;
    entry->lfn_ent_count_ = velt_file.lfn_count;
    if (entry->lfn_ent_count_ != VELT_LFN_ENTRY_COUNT_MAX) {
      NERIO_ASSERT_TEXT("entry->lfn_ent_count_ == VELT_LFN_ENTRY_COUNT_MAX");
    }
    entry->real_size_ = 0;
    entry->lfn_disk_offsets_.assign(velt_file.lfn_disk_offsets, VELT_LFN_ENTRY_COUNT_MAX);
    entry->dir_ent_disk_off_ = velt_file.dir_ent_disk_off;
    velt_file.taken_time = static_cast<uint32_t>(entry->created_);
    if (was_free) {
      velt_file.used_ = true;
      // The new count reaches the card before the file's record does. The count goes into
      // every FSInfo write, some of which hold only fat_mutex_: it changes under both locks.
      PBR* pbr = velt_->pbr_;
      std::lock_guard<std::mutex> fat_lock(pbr->fat_mutex_);
      velt_folder_->used += 1;
      pbr->updateFSInfo();
    } else {
      if (!velt_file.used_) NERIO_ASSERT_TEXT("velt_reserved_files_[oldest_index].used_ == true");
      if (velt_->hasKernelCache()) {
        if (auto recycled = findVELTChild(velt_file.dir_ent_disk_off)) {
          velt_->invalidateKernelCache(recycled.get());
        }
      }
      removeVELTFile(velt_file.dir_ent_disk_off, &expected_char);
    }
  }

  const ReservedFile& velt_file = velt_reserved_files_[chosen];
  const int idx = diskOffsetToEntryIndex(entry->dir_ent_disk_off_);
  size_t map_size;
  {
    std::lock_guard lock(map_mutex_);
    map_size = entry_map_.size();
  }
  if (idx != velt_file.entry_index_ || idx < 0 || static_cast<size_t>(idx) >= map_size) {
    ASSERT_TEXT_MSG("assert_index == entry_index", ": %d(%jd) == %d\n", idx,
                    static_cast<intmax_t>(entry->dir_ent_disk_off_), velt_file.entry_index_);
    LOGE("[%s] bad SFN entry index %d\n", getPath().c_str(), idx);
    return nullptr;
  }
  const int lfn_count = entry->lfn_ent_count_;
  const int first = idx - lfn_count;
  const int lowest = lfn_count >= 1 && lfn_count <= VELT_LFN_ENTRY_COUNT_MAX
                         ? diskOffsetToEntryIndex(entry->lfn_disk_offsets_[lfn_count - 1])
                         : -1;
  if (first < 0 || lfn_count < 1 || lfn_count > VELT_LFN_ENTRY_COUNT_MAX || first != lowest) {
    ASSERT_TEXT_MSG("entry_index >= 0 && entry->lfn_ent_count_ >= 1 && entry_index == assert_index",
                    ": %d == %d(%jd)\n", first, lowest,
                    static_cast<intmax_t>(lfn_count >= 1 && lfn_count <= VELT_LFN_ENTRY_COUNT_MAX
                                              ? entry->lfn_disk_offsets_[lfn_count - 1]
                                              : 0));
    LOGE("[%s] bad entry index %d\n", getPath().c_str(), first);
    return nullptr;
  }

  uint8_t name11[11];
  shortNameToName83(short_name.c_str(), name11);
  const uint8_t checksum = shortNameChecksum(name11);
  entry->lfs_entry_start_index_ = first;

  // Records in slot order: fillers in the low slots, then the name from its last part down.
  const int fillers = lfn_count - needed;
  for (int k = 0; k < fillers; ++k) {
    buildFillerRecord((*entry->lfn_records_)[k].data());
    std::lock_guard lock(map_mutex_);
    entry_map_[first + k] = kFillerSeq;  // the group keeps its slots, fillers included
  }
  for (int k = 0; k < needed; ++k) {
    const int seq = needed - k;
    uint8_t* out = (*entry->lfn_records_)[fillers + k].data();
    buildLfnRecord(units, seq, k == 0, checksum, out);
    std::lock_guard lock(map_mutex_);
    entry_map_[first + fillers + k] = out[rec::kLfnSeq];
  }

  entry->attr_ = kAttrArchive;
  entry->is_reserved_ = true;
  entry->is_secured_ = false;
  uint8_t record[DIR_RECORD_SIZE] = {};
  entry->fillRecord(record);
  record[rec::kCaseFlags] = 0;
  record[rec::kCreateTenths] = 0;
  entry->keepRecord(record);
  if (first + lfn_count != idx) {
    ASSERT_TEXT_MSG("entry_index == diskOffsetToEntryIndex(entry->dir_ent_disk_off_)",
                    ": %d == %d\n", first + lfn_count, idx);
  }
  {
    std::lock_guard lock(map_mutex_);
    if (entry_map_[idx] != expected_char) {
      ASSERT_TEXT_MSG("entry_map_[entry_index] == entry_index_char", ": 0x%02x == 0x%02x\n",
                      entry_map_[idx], expected_char);
    }
    entry_map_[idx] = name11[0];
  }

  // Hidden until secure2: deleted to other readers, hidden to this system's listing.
  record[0] = DIR_ENTRY_DELETED;
  record[rec::kAttr] = kAttrHiddenArchive;
  if (write(idx, record) != DIR_RECORD_SIZE) return nullptr;
  addChild(entry);
  *error = 0;
  return entry;
}

int VELT::DirEntry::__delReservedChild(const std::shared_ptr<DirEntry>& child) {
  if (velt_folder_ == nullptr || child == nullptr) {
    NERIO_ASSERT_TEXT("velt_folder_ != nullptr && child != nullptr");
    return -EINVAL;
  }
  const int index = getVELTFileIndex(child->dir_ent_disk_off_);
  if (index >= 0) {
    if (!velt_reserved_files_[index].used_) {
      NERIO_ASSERT_TEXT("velt_reserved_files_[index].used_ == true");
    }
    velt_reserved_files_[index].used_ = false;
  }
  // The record was already marked deleted: a failed FSInfo write is logged and the count is
  // put right at the next load.
  PBR* pbr = velt_->pbr_;
  std::lock_guard<std::mutex> fat_lock(pbr->fat_mutex_);  // the count: see the takeover
  velt_folder_->used -= 1;
  if (velt_folder_->used < 0) {
    ASSERT_TEXT_MSG("velt_folder->used >= 0", ": %d >= 0\n", velt_folder_->used);
    velt_folder_->used = 0;
  }
  pbr->updateFSInfo();
  return 0;
}

}  // namespace velt
