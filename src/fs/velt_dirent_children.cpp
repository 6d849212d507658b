// Children of a directory: attaching and looking them up, creating a file or directory with
// its long-name and short-name records, unique 8.3 names, and deletion.
#include <strings.h>
#include <utf8.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <functional>
#include <new>

#include "fs/velt_dirent.h"
#include "fs/velt_endian.h"
#include "fs/velt_file.h"

namespace velt {

static constexpr const char kLogTag[] = "VELT.DirEntry";

// ---- Name index ----

namespace {

// A directory gets a name index from this many children on; below it a scan is as fast.
constexpr size_t kIndexFrom = 64;
constexpr uint64_t kPositionMask = 0xFFFFFFFFu;

// Hash of a name folded the way strcasecmp compares it (byte by byte through tolower), so that
// names it finds equal hash alike.
uint32_t foldedHash(const char* name) {
  uint32_t h = 2166136261u;
  for (const unsigned char* p = reinterpret_cast<const unsigned char*>(name); *p != 0; ++p) {
    h = (h ^ static_cast<uint32_t>(tolower(*p))) * 16777619u;
  }
  return h;
}

void insertKey(ChildIndex& index, uint32_t hash, size_t position) {
  const uint64_t key = (static_cast<uint64_t>(hash) << 32) | position;
  index.keys.insert(std::upper_bound(index.keys.begin(), index.keys.end(), key), key);
}

void indexChild(ChildIndex& index, const VELT::DirEntry& child, size_t position) {
  insertKey(index, foldedHash(child.name_.c_str()), position);
  if (strcasecmp(child.name_.c_str(), child.short_name_.c_str()) != 0) {
    insertKey(index, foldedHash(child.short_name_.c_str()), position);
  }
}

// Removes the keys of the child at `position`; the children after it move down one place.
void unindexChild(ChildIndex& index, size_t position) {
  auto out = index.keys.begin();
  for (uint64_t key : index.keys) {
    const uint64_t at = key & kPositionMask;
    if (at == position) continue;
    *out++ = at > position ? key - 1 : key;  // the hash order is unchanged
  }
  index.keys.erase(out, index.keys.end());
}

}  // namespace

void VELT::DirEntry::setChildNames(DirEntry& child, const char* name, const char* short_name) {
  std::lock_guard lock(children_mutex_);
  child.name_ = name;
  child.short_name_ = short_name;
  if (children_.empty() || children_.get().index == nullptr) return;
  ChildList& list = children_.get();
  ChildIndex& index = *list.index;
  auto it = std::find_if(list.begin(), list.end(), [&](const auto& c) { return c.get() == &child; });
  if (index.count != list.size() || it == list.end()) {
    list.index.reset();
    return;
  }
  const uint64_t position = static_cast<uint64_t>(it - list.begin());
  std::erase_if(index.keys, [&](uint64_t key) { return (key & kPositionMask) == position; });
  indexChild(index, child, position);
}

void VELT::DirEntry::dropChildIndex() {
  std::lock_guard lock(children_mutex_);
  if (!children_.empty()) children_.get().index.reset();
}

int VELT::DirEntry::addChild(const std::shared_ptr<DirEntry>& child) {
  std::lock_guard lock(children_mutex_);
  if (child->parent_ != nullptr) {
    NERIO_ASSERT_TEXT("child->parent_ == nullptr");
    if (child->parent_ == this) return -1;
  }
  child->parent_ = this;
  ChildList& list = children_.get();
  list.push_back(child);
  if (ChildIndex* index = list.index.get(); index != nullptr) {
    if (index->count + 1 == list.size()) {
      indexChild(*index, *child, list.size() - 1);
      index->count = list.size();
    } else {
      list.index.reset();
    }
  }
  return 0;
}

int VELT::DirEntry::removeChild(const std::shared_ptr<DirEntry>& child, bool release) {
  std::lock_guard lock(children_mutex_);
  if (child->parent_ != this) NERIO_ASSERT_TEXT("child->parent_ == this");
  auto it = std::find(children_.begin(), children_.end(), child);
  if (it == children_.end()) {
    child->parent_ = nullptr;
    return -1;
  }
  if (release) child->clear();
  ChildList& list = children_.get();
  if (ChildIndex* index = list.index.get(); index != nullptr) {
    if (index->count == list.size()) {
      unindexChild(*index, static_cast<size_t>(it - list.begin()));
      index->count = list.size() - 1;
    } else {
      list.index.reset();
    }
  }
  children_.erase(it);
  child->parent_ = nullptr;
  return 0;
}

int VELT::DirEntry::getChildCount() {
  std::lock_guard lock(children_mutex_);
  int count = 0;
  for (const auto& child : children_) {
    if (child->isDotEntry()) continue;
    if (!child->isDir() && !child->isArchive())
      NERIO_ASSERT_TEXT("child->isDir() || child->isArchive()");
    ++count;
  }
  return count;
}

namespace {

// The first child in record order, among those whose long or short name hashes like `name` (any
// letter case), that `match` accepts. Caller holds dir.children_mutex_.
template <class Match>
std::shared_ptr<VELT::DirEntry> findNamed(VELT::DirEntry& dir, const char* name, Match match) {
  if (dir.children_.size() < kIndexFrom) {
    for (const auto& child : dir.children_) {
      if (match(*child)) return child;
    }
    return nullptr;
  }
  ChildList& list = dir.children_.get();
  std::unique_ptr<ChildIndex>& index = list.index;
  if (index == nullptr || index->count != list.size()) {
    index = std::make_unique<ChildIndex>();
    std::vector<uint64_t>& keys = index->keys;
    keys.reserve(list.size() * 2);
    for (size_t i = 0; i < list.size(); ++i) {
      const VELT::DirEntry& child = *list[i];
      keys.push_back((uint64_t{foldedHash(child.name_.c_str())} << 32) | i);
      if (strcasecmp(child.name_.c_str(), child.short_name_.c_str()) != 0) {
        keys.push_back((uint64_t{foldedHash(child.short_name_.c_str())} << 32) | i);
      }
    }
    std::sort(keys.begin(), keys.end());
    keys.shrink_to_fit();
    index->count = list.size();
  }
  const uint64_t hash = foldedHash(name);
  // Keys of one hash are in position order: the first match is the first in record order.
  for (auto it = std::lower_bound(index->keys.begin(), index->keys.end(), hash << 32);
       it != index->keys.end() && (*it >> 32) == hash; ++it) {
    const auto& child = list[*it & kPositionMask];
    if (match(*child)) return child;
  }
  return nullptr;
}

}  // namespace

// Taken under children_mutex_ although path walks are serialised by the volume: creators
// append to children_ without holding the volume's mutex.
std::shared_ptr<VELT::DirEntry> VELT::DirEntry::findChild(const char* name) {
  std::lock_guard lock(children_mutex_);
  return findNamed(*this, name, [name](const DirEntry& child) {
    return strcasecmp(child.name_.c_str(), name) == 0 ||
           strcasecmp(child.short_name_.c_str(), name) == 0;
  });
}

bool VELT::DirEntry::hasShortName(const std::string& candidate, const DirEntry* ignore) {
  std::lock_guard lock(children_mutex_);
  return findNamed(*this, candidate.c_str(), [&](const DirEntry& child) {
           return &child != ignore && child.short_name_ == candidate;
         }) != nullptr;
}

std::shared_ptr<VELT::DirEntry> VELT::DirEntry::shared_from_this() {
  DirEntry* parent = parent_;
  if (parent == nullptr) return velt_->root_.get() == this ? velt_->root_ : nullptr;
  std::lock_guard lock(parent->children_mutex_);
  for (const auto& child : parent->children_) {
    if (child.get() == this) return child;
  }
  return nullptr;
}

void VELT::DirEntry::removeAllChildren() {
  std::lock_guard lock(children_mutex_);
  std::vector<std::shared_ptr<DirEntry>> children;
  children.swap(children_.get());
  children_.release();
  for (const auto& child : children) {
    // A child kept alive elsewhere (an open file) must not point at a released directory.
    child->parent_ = nullptr;
    child->clear();
  }
}

void VELT::DirEntry::clear() {
  removeAllChildren();
  {
    std::lock_guard lock(map_mutex_);
    cluster_map_loaded_ = false;
    cluster_map_dirty_ = false;
    cluster_map_.release();
    entry_map_.release();
  }
  velt_folder_ = nullptr;
  velt_reserved_files_.release();
}

// ---- Short names ----

// Short names chosen by creations and moves that have not yet added their entry: a second
// creator in the same directory must not pick the same name meanwhile.
namespace {
struct PendingName {
  const VELT::DirEntry* dir;
  std::string name;
};
std::mutex g_pending_mutex;  // g_pending; taken before a directory's children_mutex_
std::vector<PendingName> g_pending;
}  // namespace

ShortNameReservation::~ShortNameReservation() {
  release();
}

void ShortNameReservation::release() {
  if (dir_ == nullptr) return;
  std::lock_guard<std::mutex> lock(g_pending_mutex);
  for (auto it = g_pending.begin(); it != g_pending.end(); ++it) {
    if (it->dir == dir_ && it->name == name_) {
      g_pending.erase(it);
      break;
    }
  }
  dir_ = nullptr;
}

int ShortNameReservation::reserve(VELT::DirEntry* dir, const char* file_name,
                                  const VELT::DirEntry* ignore, std::string* short_name) {
  release();
  // Held while the candidates are tried: no other creation or move picks a name meanwhile.
  std::lock_guard<std::mutex> lock(g_pending_mutex);
  int r = makeShortName(
      file_name,
      [dir, ignore](const std::string& candidate) {
        for (const auto& p : g_pending) {
          if (p.dir == dir && p.name == candidate) return true;
        }
        return dir->hasShortName(candidate, ignore);
      },
      short_name);
  if (r < 0) return r;
  g_pending.push_back({dir, *short_name});
  dir_ = dir;
  name_ = *short_name;
  return 0;
}

// ---- Slots ----

int VELT::DirEntry::claimReservedSlot(int entry_index, uint8_t value) {
  std::lock_guard lock(map_mutex_);
  if (entry_index < 0 || static_cast<size_t>(entry_index) >= entry_map_.size()) return -1;
  if (entry_map_[entry_index] != DIR_ENTRY_RESERVED_CHAR) {
    NERIO_ASSERT_TEXT("entry_map_[entry_index] == DIR_ENTRY_RESERVED_CHAR");
  }
  entry_map_[entry_index] = value;
  return 0;
}

void VELT::DirEntry::deleteLongNameRecords(const DirEntry& child) {
  const int count = std::min<int>(child.lfn_ent_count_, child.lfn_disk_offsets_.size());
  for (int k = 0; k < count; ++k) {
    const int64_t off = child.lfn_disk_offsets_[k];
    if (off <= 0) continue;
    {
      std::lock_guard lock(map_mutex_);
      int index = __diskOffsetToEntryIndex(off);
      if (index >= 0 && static_cast<size_t>(index) < entry_map_.size()) {
        entry_map_[index] = DIR_ENTRY_DELETED;
      }
    }
    uint8_t record[DIR_RECORD_SIZE];
    if (velt_->read(record, DIR_RECORD_SIZE, off) < DIR_RECORD_SIZE) continue;
    record[rec::kLfnSeq] = DIR_ENTRY_DELETED;
    if (velt_->write(record, DIR_RECORD_SIZE, off, true) != DIR_RECORD_SIZE) {
      int e = errno ? errno : EIO;
      LOGE("[%s] delete error %d(%s)\n", child.getPath().c_str(), e, strerror(e));
    }
  }
}

void VELT::DirEntry::giveBackSlots(int first, int count, int written, uint8_t* entry_buffer) {
  std::vector<int> marked;
  {
    std::lock_guard lock(map_mutex_);
    // Records further on: a free (zero) record in front of them would end the directory for
    // other FAT readers, so these slots are marked deleted instead.
    bool later_in_use = false;
    for (size_t i = static_cast<size_t>(first + count); i < entry_map_.size(); ++i) {
      if (entry_map_[i] != DIR_ENTRY_FREE) {
        later_in_use = true;
        break;
      }
    }
    for (int i = 0; i < count; ++i) {
      size_t slot = static_cast<size_t>(first + i);
      if (slot >= entry_map_.size()) break;
      if (i < written || later_in_use) {
        entry_map_[slot] = DIR_ENTRY_DELETED;
        marked.push_back(first + i);
      } else {
        entry_map_[slot] = DIR_ENTRY_FREE;
      }
    }
  }
  uint8_t deleted[DIR_RECORD_SIZE] = {DIR_ENTRY_DELETED};
  for (int slot : marked) {
    if (entry_buffer != nullptr) {
      memcpy(entry_buffer + static_cast<size_t>(slot) * DIR_RECORD_SIZE, deleted, DIR_RECORD_SIZE);
    } else {
      write(slot, deleted);
    }
  }
}

int VELT::DirEntry::writeLongNameRecords(const std::shared_ptr<DirEntry>& entry,
                                         const std::vector<uint16_t>& units, int lfn_count,
                                         int first, const uint8_t* name11, uint8_t* entry_buffer,
                                         int* written) {
  const uint8_t checksum = shortNameChecksum(name11);
  entry->lfn_ent_count_ = lfn_count;
  int64_t offsets[kLfnRecordsMax];
  for (int i = 0; i < lfn_count; ++i)
    offsets[lfn_count - 1 - i] = entryIndexToDiskOffset(first + i);
  entry->lfn_disk_offsets_.assign(offsets, static_cast<size_t>(lfn_count));
  for (int i = 0; i < lfn_count; ++i) {
    const int slot = first + i;
    const int seq = lfn_count - i;
    uint8_t lfn[DIR_RECORD_SIZE];
    buildLfnRecord(units, seq, i == 0, checksum, lfn);
    claimReservedSlot(slot, lfn[rec::kLfnSeq]);
    if (entry_buffer == nullptr) {
      int r = write(slot, lfn);
      if (r != DIR_RECORD_SIZE) return r < 0 ? r : -EIO;
    } else {
      memcpy(entry_buffer + static_cast<size_t>(slot) * DIR_RECORD_SIZE, lfn, DIR_RECORD_SIZE);
    }
    ++*written;
  }
  return 0;
}

int longNameRecordCount(const char* name, std::vector<uint16_t>* units) {
  if (!longNameUnits(name, units, nullptr)) {
    LOGE("[%s] failed to convert\n", name);
    return -EINVAL;
  }
  return static_cast<int>((units->size() + kLfnCharsPerRecord - 1) / kLfnCharsPerRecord);
}

// ---- Creation ----

std::shared_ptr<VELT::DirEntry> VELT::DirEntry::createChild(const char* file_name, bool reserved,
                                                            bool is_dir, uint8_t* entry_buffer,
                                                            int* error) {
  int ignored = 0;
  int& err = error != nullptr ? *error : ignored;
  err = 0;
  auto fail = [&err](int e) {
    err = e;
    return std::shared_ptr<DirEntry>();
  };

  if (!isDir()) NERIO_ASSERT_TEXT("isDir()");
  if (loadClusterMap() < 0) return fail(-EIO);
  if (file_name == nullptr || file_name[0] == '\0') return fail(-EINVAL);
  if (!isValidFileName(file_name)) NERIO_ASSERT_TEXT("isValidFileName(file_name)");
  const bool is_dot = strcmp(file_name, ".") == 0 || strcmp(file_name, "..") == 0;

  if (velt_->op_mode_ == kVELTOpFormat && velt_folder_ != nullptr) {
    NERIO_ASSERT_MSG(velt_folder_ == nullptr, ": %p == nullptr\n",
                     static_cast<void*>(velt_folder_));
  }
  // A file in a reserved folder takes over one of the folder's reserved files instead.
  if (!is_dir && !is_dot && velt_folder_ != nullptr) {
    return takeOverReservedFile(file_name, entry_buffer, error);
  }

  try {
    ShortNameReservation name_hold;
    std::string short_name;
    if (is_dot) {
      short_name = file_name;
    } else if (name_hold.reserve(this, file_name, nullptr, &short_name) < 0) {
      return fail(-EINVAL);
    }
    if (!isValidFileName(short_name.c_str())) NERIO_ASSERT_TEXT("isValidFileName(short_name)");

    // Long-name records: none for a dot entry or a name that is its own short name.
    std::vector<uint16_t> units;
    int lfn_count = 0;
    if (!is_dot && (reserved || short_name != file_name)) {
      lfn_count = longNameRecordCount(file_name, &units);
      if (lfn_count < 0) return fail(lfn_count);
      if (reserved && lfn_count < VELT_LFN_ENTRY_COUNT_MAX) lfn_count = VELT_LFN_ENTRY_COUNT_MAX;
      if (lfn_count > (reserved ? VELT_LFN_ENTRY_COUNT_MAX : kLfnRecordsMax)) {
        LOGE("[%s] name too long: %d long-name records\n", file_name, lfn_count);
        return fail(-ENAMETOOLONG);
      }
      if (lfn_count < 1 || lfn_count >= 0x1f)
        NERIO_ASSERT_TEXT("lfn_count > 0 && lfn_count < 0x1f");
    }

    std::shared_ptr<DirEntry> entry;
    try {
      entry = std::make_shared<DirEntry>(velt_);
    } catch (const std::bad_alloc&) {
      LOGE("got exception when creating a new child\n");
      return fail(-ENOMEM);
    }
    entry->name_ = file_name;
    entry->short_name_ = short_name;
    entry->size_ = entry->real_size_ = 0;
    entry->is_dir_ = is_dir;
    entry->read_only_ = false;
    entry->is_volume_ = false;
    entry->valid_ = true;
    entry->cluster_map_dirty_ = true;

    const DirEntry* times_from = nullptr;
    if (strcmp(file_name, ".") == 0) {
      entry->start_cluster_ = start_cluster_;
      times_from = this;
    } else if (strcmp(file_name, "..") == 0) {
      // The root is recorded as cluster 0.
      entry->start_cluster_ =
          (parent_ != nullptr && parent_->parent_ != nullptr) ? parent_->start_cluster_ : 0;
      times_from = parent_ != nullptr ? parent_ : this;
    }
    if (times_from != nullptr) {
      entry->create_time_ = times_from->create_time_;
      entry->create_date_ = times_from->create_date_;
      entry->access_date_ = times_from->access_date_;
      entry->write_date_ = times_from->write_date_;
      entry->write_time_ = times_from->write_time_;
      entry->created_ = times_from->created_;
      entry->accessed_ = times_from->accessed_;
      entry->modified_ = times_from->modified_;
    } else {
      time_t now = time(nullptr);
      entry->create_date_ = entry->access_date_ = entry->write_date_ = timeToFatDate(now);
      entry->create_time_ = entry->write_time_ = timeToFatTime(now);
      entry->created_ = entry->accessed_ = entry->modified_ = now;
    }

    uint8_t attr = is_dir ? kAttrDirectory : kAttrArchive;
    if (!is_dot && file_name[0] == '.') attr |= kAttrHidden;
    if (strcmp(file_name, ".veltq") == 0) attr |= kAttrSystem;
    entry->attr_ = attr;

    uint8_t record[DIR_RECORD_SIZE] = {};
    shortNameToName83(short_name.c_str(), record + rec::kName);

    const int slots = lfn_count + 1;
    const int first = alloc(slots, true);
    if (first < 0) {
      NERIO_ASSERT_TEXT("entry_index >= 0");
      return fail(-ENOSPC);
    }
    // Records of files and dot entries go to the caller's buffer when one is given.
    uint8_t* buffer = (entry_buffer != nullptr && (!is_dir || is_dot)) ? entry_buffer : nullptr;
    int written = 0;
    auto undo = [&](int e) {
      if (!is_dot && entry->start_cluster_ != 0) {
        velt_->pbr_->freeClusterChains(entry->start_cluster_, false);
        entry->start_cluster_ = 0;
      }
      giveBackSlots(first, slots, written, buffer);
      return fail(e);
    };

    // A new folder is complete on the card (its cluster with "." and "..", its FAT entry)
    // before any record names it, so a power cut leaves it either absent or whole. Its FAT
    // entry goes out now even while writers hold the FAT lock.
    const bool folder_first = is_dir && !is_dot && entry_buffer == nullptr;
    if (folder_first) {
      int r = entry->allocClusters(1, true);
      if (r < 0) return undo(r == -ENOSPC ? -ENOSPC : -EIO);
      if (isEOC(entry->start_cluster_)) NERIO_ASSERT_TEXT("isEOC(entry->start_cluster_) == false");
      entry->parent_ = this;  // ".." points here; attached for real below
      entry->createChild(".", false, true, nullptr);
      entry->createChild("..", false, true, nullptr);
      entry->parent_ = nullptr;
      velt_->pbr_->flushFATs();
      if (velt_->sync() != 0) return undo(-EIO);
    }
    if (lfn_count > 0) {
      int r = writeLongNameRecords(entry, units, lfn_count, first, record, buffer, &written);
      if (r < 0) return undo(r);
    }
    // A plain file stays without clusters until data arrives (its first write allocates one):
    // an empty file with a cluster is an error to other FAT tools.
    if (!is_dot && !folder_first && (is_dir || reserved)) {
      if (entry->start_cluster_ != 0) NERIO_ASSERT_TEXT("entry->start_cluster_ == 0");
      int r = entry->allocClusters(1, is_dir);
      if (r < 0) return undo(r == -ENOSPC ? -ENOSPC : -EIO);
      if (isEOC(entry->start_cluster_)) NERIO_ASSERT_TEXT("isEOC(entry->start_cluster_) == false");
    }

    entry->fillRecord(record);
    record[rec::kCaseFlags] = 0;
    record[rec::kCreateTenths] = 0;
    entry->keepRecord(record);

    const int slot = first + lfn_count;
    claimReservedSlot(slot, record[rec::kName]);
    entry->dir_ent_disk_off_ = entryIndexToDiskOffset(slot);
    if (entry->dir_ent_disk_off_ == 0) return undo(-EIO);
    if (buffer != nullptr) {
      memcpy(buffer + static_cast<size_t>(slot) * DIR_RECORD_SIZE, record, DIR_RECORD_SIZE);
    } else {
      int r = write(slot, record);
      if (r != DIR_RECORD_SIZE) return undo(r < 0 ? r : -EIO);
    }
    ++written;

    addChild(entry);
    name_hold.release();
    if (is_dir && !is_dot && !folder_first) {
      entry->createChild(".", false, true, entry_buffer);
      entry->createChild("..", false, true, entry_buffer);
    }
    return entry;
  } catch (const std::bad_alloc&) {
    LOGE("got exception when creating a new child\n");
    return fail(-ENOMEM);
  }
}

// ---- Deletion ----

int VELT::DirEntry::delChild(const std::shared_ptr<DirEntry>& child) {
  if (child->dir_ent_disk_off_ == 0) {
    NERIO_ASSERT_TEXT("child->dir_ent_disk_off_ != 0ll");
    return -EINVAL;
  }
  if (loadClusterMap() < 0) return -EINVAL;
  // A file of a reserved folder is deleted only while it still holds its reserved file, and
  // nobody opens or recycles it meanwhile.
  std::unique_lock<std::mutex> reserved_lock;
  if (velt_folder_ != nullptr && child->isArchive()) {
    reserved_lock = std::unique_lock<std::mutex>(velt_->reserved_mutex_);
    if (findVELTChild(child->dir_ent_disk_off_) != child) return -ENOENT;
  }
  if (child->isDir()) {
    if (child->velt_folder_ != nullptr) {
      LOGE("VELT reserved folder can not be deleted\n");
      return -EACCES;
    }
    int count = child->getChildCount();
    if (count >= 1) {
      LOGE("[%s] is not empty. %d valid entries exist\n", child->getPath().c_str(), count);
      return -ENOTEMPTY;
    }
  }
  // An open file is busy, unless every handle on it is closing (its release not yet here): then
  // the name goes now and the clusters with the last release. Recordings of reserved folders
  // and files of the channel are never closing.
  bool keep_chain = false;
  if (child->isArchive()) {
    std::lock_guard lock(child->files_mutex_);
    keep_chain = !child->files_.empty();
    if (int e = child->busyUnlessClosing(velt_folder_ == nullptr); e < 0) return e;
    child->removed_ = keep_chain ? kRemovedKeepingChain : kRemoved;
  }
  // A failed removal leaves the entry as it was, its open files writing its record again.
  auto failed = [&child](int error) {
    std::lock_guard lock(child->files_mutex_);
    child->removed_ = 0;
    return error;
  };

  uint8_t name11[11];
  shortNameToName83(child->short_name_.c_str(), name11);
  if (changeEntryMapValue(child, child->dir_ent_disk_off_, name11[0], DIR_ENTRY_DELETED) < 0) {
    return failed(-1);
  }
  time_t now = time(nullptr);
  child->access_date_ = timeToFatDate(now);
  child->accessed_ = now;

  uint8_t record[DIR_RECORD_SIZE] = {};
  if (velt_->read(record, DIR_RECORD_SIZE, child->dir_ent_disk_off_) < DIR_RECORD_SIZE) {
    int e = errno ? errno : EIO;
    LOGE("[%s] delete error %d(%s)\n", child->getPath().c_str(), e, strerror(e));
    return failed(-e);
  }
  child->fillRecord(record);  // byte 12 stays as read
  rec::markDeleted(record, child->short_name_.c_str());
  child->keepRecord(record);
  if (velt_->write(record, DIR_RECORD_SIZE, child->dir_ent_disk_off_, true) != DIR_RECORD_SIZE) {
    int e = errno ? errno : EIO;
    LOGE("[%s] delete error %d(%s)\n", child->getPath().c_str(), e, strerror(e));
    return failed(-e);
  }

  if (velt_folder_ != nullptr && child->isArchive()) {
    // The records and clusters stay with the reserved file.
    __delReservedChild(child);
  } else {
    deleteLongNameRecords(*child);
    // The chain is freed only once no record on the card points at it any more: it waits,
    // still taken, for the next sync (velt_->freeRemovedChains), so that a run of removals
    // costs the card one sync and one write of each FAT sector.
    if (!keep_chain) velt_->pbr_->deferFree(child->start_cluster_);
  }
  removeChild(child, true);
  return 0;
}

}  // namespace velt
