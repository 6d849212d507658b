// Renaming and moving an entry: its records move, its data and open files stay.
#include <cerrno>
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "fs/velt_dirent.h"
#include "fs/velt_endian.h"
#include "fs/velt_file.h"

namespace velt {

static constexpr const char kLogTag[] = "VELT.DirEntry";

// Points the ".." record of `dir` at its new parent (cluster 0 for the root), so that other
// FAT tools walk the tree the way we do.
static void relinkDotDot(VELT* velt, VELT::DirEntry& dir, const VELT::DirEntry& new_parent) {
  const uint32_t cluster = new_parent.parent_ != nullptr ? new_parent.start_cluster_ : 0;
  std::shared_ptr<VELT::DirEntry> dotdot;
  {
    std::lock_guard lock(dir.children_mutex_);
    for (const auto& c : dir.children_) {
      if (c->short_name_ == "..") {
        dotdot = c;
        break;
      }
    }
  }
  // Without an entry for it, ".." is where it is created: the second slot.
  int64_t off = dotdot != nullptr ? dotdot->dir_ent_disk_off_ : dir.entryIndexToDiskOffset(1);
  if (off == 0) return;
  uint8_t record[DIR_RECORD_SIZE];
  if (velt->read(record, DIR_RECORD_SIZE, off) < DIR_RECORD_SIZE ||
      memcmp(record, "..         ", 11) != 0) {
    LOGE("[%s] no \"..\" record to update\n", dir.getPath().c_str());
    return;
  }
  putLe16(record + rec::kClusterHigh, static_cast<uint16_t>(cluster >> 16));
  putLe16(record + rec::kClusterLow, static_cast<uint16_t>(cluster & 0xFFFF));
  if (velt->write(record, DIR_RECORD_SIZE, off, true) != DIR_RECORD_SIZE) {
    int e = errno ? errno : EIO;
    LOGE("[%s] move error %d(%s)\n", dir.getPath().c_str(), e, strerror(e));
    return;
  }
  if (dotdot != nullptr) {
    dotdot->start_cluster_ = cluster;
  }
}

// The card offsets of an entry's long-name records, as far as they are known.
static std::vector<int64_t> longNameOffsets(const VELT::DirEntry& entry) {
  const int count = std::min<int>(entry.lfn_ent_count_, entry.lfn_disk_offsets_.size());
  std::vector<int64_t> out;
  for (int k = 0; k < count; ++k) out.push_back(entry.lfn_disk_offsets_[k]);
  return out;
}

// Marks the records at `offsets` (long-name records of this directory) deleted, in the entry
// map and on the card.
static void deleteRecordsAt(VELT* velt, VELT::DirEntry& dir, const std::vector<int64_t>& offsets,
                            const std::string& path) {
  for (int64_t off : offsets) {
    if (off <= 0) continue;
    {
      std::lock_guard lock(dir.map_mutex_);
      int index = dir.__diskOffsetToEntryIndex(off);
      if (index >= 0 && static_cast<size_t>(index) < dir.entry_map_.size()) {
        dir.entry_map_[index] = DIR_ENTRY_DELETED;
      }
    }
    uint8_t record[DIR_RECORD_SIZE];
    if (velt->read(record, DIR_RECORD_SIZE, off) < DIR_RECORD_SIZE) continue;
    record[rec::kLfnSeq] = DIR_ENTRY_DELETED;
    if (velt->write(record, DIR_RECORD_SIZE, off, true) != DIR_RECORD_SIZE) {
      int e = errno ? errno : EIO;
      LOGE("[%s] move error %d(%s)\n", path.c_str(), e, strerror(e));
    }
  }
}

int VELT::DirEntry::moveChild(const std::shared_ptr<DirEntry>& child,
                              const std::shared_ptr<DirEntry>& to_parent, const char* new_name) {
  if (to_parent == nullptr) {
    NERIO_ASSERT_TEXT("to_parent != nullptr");
    return -EINVAL;
  }
  if (child->dir_ent_disk_off_ == 0) {
    NERIO_ASSERT_TEXT("child->dir_ent_disk_off_ != 0ll");
    LOGE("moving \"%s\" dir_ent_disk_off_ is 0!\n", child->getPath().c_str());
    return -EINVAL;
  }
  if (loadClusterMap() < 0 || to_parent->loadClusterMap() < 0) {
    LOGE("moving \"%s\" loadClusterMap failed\n", child->getPath().c_str());
    return -EINVAL;
  }
  if (velt_->isInVELTFolder(child)) {
    LOGE("[%s] reserved from-entry can not be moved!\n", child->name_.c_str());
    return -1;
  }
  if (velt_->isInVELTFolder(to_parent)) {
    LOGE("[%s] entry can not be moved to the reserved entry!\n", child->name_.c_str());
    return -1;
  }
  if (new_name == nullptr || new_name[0] == '\0') return -EINVAL;

  // Everything that can be refused is settled before the card changes: the new short name,
  // the long-name records and the slots in the destination. Then the new records are written,
  // and only once they are on the card are the old ones marked deleted: a power cut in between
  // leaves the entry under one of its two names, never under none.
  try {
    ShortNameReservation name_hold;
    std::string short_name;
    if (name_hold.reserve(to_parent.get(), new_name, child.get(), &short_name) < 0) {
      return -EINVAL;
    }
    std::vector<uint16_t> units;
    int lfn_count = 0;
    if (short_name != new_name) {
      lfn_count = longNameRecordCount(new_name, &units);
      if (lfn_count < 0) return lfn_count;
      if (lfn_count > kLfnRecordsMax) {
        LOGE("[%s] name too long: %d long-name records\n", new_name, lfn_count);
        return -ENAMETOOLONG;
      }
      if (lfn_count < 1 || lfn_count >= 0x1f)
        NERIO_ASSERT_TEXT("lfn_count > 0 && lfn_count < 0x1f");
    }
    const int slots = lfn_count + 1;
    const int first = to_parent->alloc(slots, true);
    if (first < 0) {
      NERIO_ASSERT_TEXT("entry_index >= 0");
      return -ENOSPC;
    }

    // A close, commit or touch of the entry writes its record where the entry says it is,
    // under its files_mutex_: the switch to the new record is made under it too, or such a
    // write could bring the old record back after it was marked deleted.
    std::lock_guard files_lock(child->files_mutex_);
    // A record the close left owed goes out first, and reaches the card before the new ones: a
    // power cut in between finds the file whole under its old name.
    if (velt_->settleRecord(*child) && velt_->sync() != 0) {
      to_parent->giveBackSlots(first, slots, 0, nullptr);
      return -EIO;
    }

    // What the old records were, to mark them deleted afterwards (or to go back to).
    const int64_t old_off = child->dir_ent_disk_off_;
    const std::string old_name = child->name_;
    const std::string old_short(child->short_name_.c_str());
    const std::vector<int64_t> old_lfn = longNameOffsets(*child);
    uint8_t old_record[DIR_RECORD_SIZE];
    child->buildRecord(old_record);
    const int32_t old_lfn_count = child->lfn_ent_count_;
    const uint16_t old_times[3] = {child->access_date_, child->write_date_, child->write_time_};
    const time_t old_stamps[2] = {child->accessed_, child->modified_};
    auto restore = [&]() {
      setChildNames(*child, old_name.c_str(), old_short.c_str());
      child->lfn_ent_count_ = old_lfn_count;
      child->lfn_disk_offsets_.assign(old_lfn.data(), old_lfn.size());
      child->keepRecord(old_record);
      child->access_date_ = old_times[0];
      child->write_date_ = old_times[1];
      child->write_time_ = old_times[2];
      child->accessed_ = old_stamps[0];
      child->modified_ = old_stamps[1];
    };

    setChildNames(*child, new_name, short_name.c_str());
    // A rename leaves the write time alone: tools that set it and then rename (rsync) rely on
    // that.
    time_t now = time(nullptr);
    child->access_date_ = timeToFatDate(now);
    child->accessed_ = now;
    child->lfn_ent_count_ = 0;
    child->lfn_disk_offsets_.clear();

    uint8_t record[DIR_RECORD_SIZE];
    memcpy(record, old_record, DIR_RECORD_SIZE);
    child->fillRecord(record);
    record[rec::kCaseFlags] = 0;  // the old name's letter case is not the new short name's
    int written = 0;
    if (lfn_count > 0 && to_parent->writeLongNameRecords(child, units, lfn_count, first, record,
                                                         nullptr, &written) < 0) {
      to_parent->giveBackSlots(first, slots, written, nullptr);
      restore();
      return -EIO;
    }
    const int idx = first + lfn_count;
    to_parent->claimReservedSlot(idx, record[rec::kName]);
    const int64_t new_off = to_parent->entryIndexToDiskOffset(idx);
    if (new_off == 0 || to_parent->write(idx, record) != DIR_RECORD_SIZE) {
      to_parent->giveBackSlots(first, slots, written + 1, nullptr);
      restore();
      return -EIO;
    }
    child->keepRecord(record);
    // The new records reach the card before the old ones are marked deleted.
    velt_->sync();

    uint8_t old_name11[11];
    shortNameToName83(old_short.c_str(), old_name11);
    if (changeEntryMapValue(child, old_off, old_name11[0], DIR_ENTRY_DELETED) < 0) {
      LOGE("moving \"%s\" changeEntryMapValue failed\n", child->getPath().c_str());
    }
    rec::markDeleted(old_record, old_short.c_str());
    int result = 0;
    if (velt_->write(old_record, DIR_RECORD_SIZE, old_off, true) != DIR_RECORD_SIZE) {
      int e = errno ? errno : EIO;
      LOGE("[%s] move error %d(%s)\n", child->getPath().c_str(), e, strerror(e));
      result = -EIO;
    }
    deleteRecordsAt(velt_, *this, old_lfn, child->getPath());

    removeChild(child, false);
    child->dir_ent_disk_off_ = new_off;
    to_parent->addChild(child);
    name_hold.release();
    if (child->isDir() && to_parent.get() != this) relinkDotDot(velt_, *child, *to_parent);
    return result;
  } catch (const std::bad_alloc&) {
    LOGE("got exception when moving [%s]\n", child->getPath().c_str());
    return -ENOMEM;
  }
}

// The file keeps its entry object (and its open files); only its records change. Each step is
// flushed before the next one relies on it, so that a cut anywhere leaves the target's name with
// its old file or the new one, and the new one under at least one name:
//  1. the source's record is marked as a rename's source (one byte of its own record);
//  2. the target's short-name record takes the source's chain, size, times and attributes in
//     place (one record in one sector: all or nothing; its long name stays valid, the short name
//     and so the checksum do not change). Two records now share a chain, and the load keeps the
//     unmarked one;
//  3. the source's records are marked deleted and the target's old chain is freed (nothing on
//     the card reaches it any more, whichever of these writes lands).
int VELT::DirEntry::replaceChild(const std::shared_ptr<DirEntry>& child,
                                 const std::shared_ptr<DirEntry>& to_parent,
                                 const std::shared_ptr<DirEntry>& target) {
  if (to_parent == nullptr || target == nullptr || target == child || child->parent_ != this ||
      target->parent_ != to_parent.get() || child->isDir() || target->isDir()) {
    NERIO_ASSERT_TEXT("a file of this folder onto another file");
    return -EINVAL;
  }
  if (child->dir_ent_disk_off_ == 0 || target->dir_ent_disk_off_ == 0) return -EINVAL;
  if (loadClusterMap() < 0 || to_parent->loadClusterMap() < 0) {
    LOGE("replacing \"%s\" loadClusterMap failed\n", target->getPath().c_str());
    return -EINVAL;
  }
  if (velt_->isInVELTFolder(child) || velt_->isInVELTFolder(target)) return -EPERM;

  try {
    // Closes and commits write a record where its entry says it is, under files_mutex_; an
    // open target is refused as an unlink refuses it (closing handles keep its chain until the
    // last goes), and stays unopened until it is gone.
    std::scoped_lock files_lock(child->files_mutex_, target->files_mutex_);
    const bool keep_chain = !target->files_.empty();
    if (int e = target->busyUnlessClosing(true); e < 0) return e;
    const std::string path = target->getPath();
    auto failed = [&path](const char* what) {
      int e = errno ? errno : EIO;
      LOGE("[%s] replace error while %s %d(%s)\n", path.c_str(), what, e, strerror(e));
      return -EIO;
    };
    // Records closes left owed go out first and reach the card before anything moves: a power
    // cut in between finds both files as their closes left them.
    const bool settled = velt_->settleRecord(*child);
    if ((velt_->settleRecord(*target) || settled) && velt_->sync() != 0) {
      return failed("settling the records");
    }
    const int64_t src_off = child->dir_ent_disk_off_;
    const int64_t dst_off = target->dir_ent_disk_off_;
    uint8_t src_record[DIR_RECORD_SIZE], dst_record[DIR_RECORD_SIZE];
    uint8_t src_name11[11], dst_name11[11];
    shortNameToName83(child->short_name_.c_str(), src_name11);
    shortNameToName83(target->short_name_.c_str(), dst_name11);
    if (velt_->read(src_record, DIR_RECORD_SIZE, src_off) < DIR_RECORD_SIZE ||
        velt_->read(dst_record, DIR_RECORD_SIZE, dst_off) < DIR_RECORD_SIZE) {
      return failed("reading the records");
    }
    if (memcmp(src_record, src_name11, 11) != 0 || memcmp(dst_record, dst_name11, 11) != 0) {
      LOGE("[%s] the records on the card are not the entries' ones\n", path.c_str());
      return -EIO;
    }

    src_record[rec::kCreateTenths] = rec::kRenameSource;
    if (velt_->write(src_record, DIR_RECORD_SIZE, src_off, true) != DIR_RECORD_SIZE ||
        velt_->sync() != 0) {
      return failed("marking the source");
    }

    // A rename leaves the write time alone (rsync sets it before it renames).
    time_t now = time(nullptr);
    child->access_date_ = timeToFatDate(now);
    child->accessed_ = now;
    uint8_t record[DIR_RECORD_SIZE];
    child->buildRecord(record);
    memcpy(record + rec::kName, dst_record + rec::kName, 11);
    record[rec::kCaseFlags] = dst_record[rec::kCaseFlags];
    if (velt_->write(record, DIR_RECORD_SIZE, dst_off, true) != DIR_RECORD_SIZE ||
        velt_->sync() != 0) {
      return failed("writing the target's record");
    }
    target->removed_ = keep_chain ? kRemovedKeepingChain : kRemoved;

    // The target's name holds the file now: the entry takes the target's place in the tree.
    const uint32_t old_chain = target->start_cluster_;
    const std::string src_short(child->short_name_.c_str());
    const std::vector<int64_t> src_lfn = longNameOffsets(*child);
    const std::string dst_name = target->name_;
    const std::string dst_short(target->short_name_.c_str());
    const int32_t dst_lfn_count = target->lfn_ent_count_;
    const std::vector<int64_t> dst_lfn = longNameOffsets(*target);

    removeChild(child, false);
    to_parent->removeChild(target, true);
    child->name_ = dst_name.c_str();
    child->short_name_ = dst_short.c_str();
    child->lfn_ent_count_ = dst_lfn_count;
    child->lfn_disk_offsets_.assign(dst_lfn.data(), dst_lfn.size());
    child->keepRecord(record);
    child->dir_ent_disk_off_ = dst_off;
    to_parent->addChild(child);

    int result = 0;
    if (changeEntryMapValue(child, src_off, src_name11[0], DIR_ENTRY_DELETED) < 0) {
      LOGE("replacing \"%s\" changeEntryMapValue failed\n", path.c_str());
    }
    rec::markDeleted(src_record, src_short.c_str());
    if (velt_->write(src_record, DIR_RECORD_SIZE, src_off, true) != DIR_RECORD_SIZE) {
      result = failed("deleting the source's record");
    }
    deleteRecordsAt(velt_, *this, src_lfn, path);
    if (!keep_chain && old_chain >= 2 && old_chain != child->start_cluster_) {
      velt_->pbr_->freeClusterChains(old_chain, false);
    }
    return result;
  } catch (const std::bad_alloc&) {
    LOGE("got exception when replacing [%s]\n", target->getPath().c_str());
    return -ENOMEM;
  }
}

}  // namespace velt
