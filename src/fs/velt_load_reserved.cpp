// The directory scan of a reserved folder. Its layout is fixed when the folder is made: "." and
// "..", then one group of four slots per reserved file (three long-name records in front of the
// short-name record). Each group is judged on its own, so damage or a publication cut short
// costs at most that group's reserved file and never a recording of another group:
//
// - a visible file record is a recording: it loads under its long name when the records in
//   front of it spell one for it, otherwise under its short name (those records are deleted);
// - a deleted file record is a free reserved file (also a file taken over but not published);
//   long-name records in front of it that do not form one sequence are deleted;
// - anything else, or a chain that is short, broken, looping or shared with another reserved
//   file of the folder, makes the group a free reserved file without clusters: its records are
//   rewritten as deleted ones and restoreReservedFiles gives it a new chain once the whole tree
//   is loaded (before that, no cluster is known to be free).
//
// Only a folder too short to hold its groups fails to load (and is then recreated).
#include <strings.h>
#include <utf8.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <new>

#include "fs/velt_endian.h"
#include "fs/velt_load.h"

namespace velt {

static constexpr const char kLogTag[] = "VELT";

namespace {

constexpr int kGroupSlots = VELT_LFN_ENTRY_COUNT_MAX + 1;
constexpr int kFirstGroupSlot = 2;  // after "." and ".."

bool isLongNameRecord(const uint8_t* r) {
  return r[0] != DIR_ENTRY_FREE && r[0] != DIR_ENTRY_DELETED &&
         (r[rec::kAttr] & 0x3F) == kAttrLongName;
}

// The record a takeover puts in front of a name shorter than three records.
bool isFillerRecord(const uint8_t* r) {
  if (r[rec::kLfnSeq] != (rec::kLfnLast | 1) || (r[rec::kLfnAttr] & 0x3F) != kAttrLongName ||
      r[rec::kLfnChecksum] != 0 || r[rec::kLfnType] != 0 || le16(r + rec::kLfnCluster) != 0) {
    return false;
  }
  uint16_t units[kLfnCharsPerRecord];
  lfnRecordUnits(r, units);
  return std::all_of(units, units + kLfnCharsPerRecord, [](uint16_t u) { return u == 0xFFFF; });
}

// Records that no reader takes for a name.
bool isHarmless(const uint8_t* r) { return r[0] == DIR_ENTRY_DELETED || isFillerRecord(r); }

bool isFileRecord(const uint8_t* r) {
  return (r[rec::kAttr] & 0x3F) != kAttrLongName &&
         (r[rec::kAttr] & (kAttrDirectory | kAttrVolumeId)) == 0;
}

bool isDotRecord(const uint8_t* r, bool dotdot) {
  static const uint8_t kDot[11] = {'.', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' '};
  static const uint8_t kDotDot[11] = {'.', '.', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' '};
  return memcmp(r, dotdot ? kDotDot : kDot, 11) == 0 && (r[rec::kAttr] & 0x3F) == kAttrDirectory;
}

void buildDotRecord(uint8_t* r, bool dotdot, uint32_t cluster) {
  memset(r, 0, DIR_RECORD_SIZE);
  memset(r, ' ', 11);
  r[0] = '.';
  if (dotdot) r[1] = '.';
  r[rec::kAttr] = kAttrDirectory;
  putLe16(r + rec::kClusterHigh, static_cast<uint16_t>(cluster >> 16));
  putLe16(r + rec::kClusterLow, static_cast<uint16_t>(cluster & 0xFFFF));
}

// A field of a short name without its padding; false when it holds a byte no short name has.
bool shortField(const uint8_t* p, int width, std::string* out) {
  int len = width;
  while (len > 0 && p[len - 1] == ' ') --len;
  out->assign(reinterpret_cast<const char*>(p), static_cast<size_t>(len));
  for (int i = 0; i < len; ++i) {
    if (!isShortNameByte(p[i])) return false;
  }
  return true;
}

}  // namespace

int DirScan::fatal(ReservedFatal code) {
  LOGE("Reserved folder [%s] has FATAL error @ %d\n", path().c_str(), static_cast<int>(code));
  return -1;
}

// Runs once per scan (its own members start empty), after prepare() cleared the folder's
// reserved state.
int DirScan::matchReservedFolder() {
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
  // Every reserved file owns at least one cluster: a larger count is damage, not a layout.
  if (desc->count > pbr_->num_clusters_) return fatal(kFatalCountTooLarge);
  try {
    cur_->velt_reserved_files_.resize(desc->count);
  } catch (const std::bad_alloc&) {
    return fatal(kFatalNoMemory);
  }
  for (ReservedFile& f : cur_->velt_reserved_files_) f.entry_index_ = -1;
  return 0;
}

int DirScan::sequenceLength(int s, uint8_t checksum) const {
  for (int k = 1; k <= VELT_LFN_ENTRY_COUNT_MAX; ++k) {
    const uint8_t* r = work_.data() + static_cast<size_t>(s - k) * DIR_RECORD_SIZE;
    if (!isLongNameRecord(r) || (r[rec::kLfnSeq] & ~(rec::kLfnLast | 0x1F)) != 0 ||
        (r[rec::kLfnSeq] & 0x1F) != k || r[rec::kLfnChecksum] != checksum ||
        r[rec::kLfnType] != 0 || le16(r + rec::kLfnCluster) != 0) {
      return 0;
    }
    if ((r[rec::kLfnSeq] & rec::kLfnLast) != 0) return k;
  }
  return 0;
}

void DirScan::deleteSlots(int from, int to) {
  for (int i = from; i <= to; ++i) {
    uint8_t* r = wrec(i);
    if (isHarmless(r)) continue;
    r[0] = DIR_ENTRY_DELETED;
    modified_ = true;
  }
}

bool DirScan::claimChain(uint32_t first, int64_t bytes, std::vector<uint8_t>* claimed) {
  const int64_t cl = pbr_->cluster_length_;
  const int64_t need = std::max<int64_t>(1, (std::max<int64_t>(bytes, 1) + cl - 1) / cl);
  std::vector<uint32_t> taken;
  uint32_t cut_at = 0;
  bool ok = true;
  {
    std::lock_guard<std::mutex> lock(pbr_->fat_mutex_);
    uint32_t cur = first;
    for (;;) {
      // At mount time a cluster another entry claimed first is no more this chain's.
      const bool usable = cur >= 2 && cur < pbr_->num_clusters_ && !(*claimed)[cur] &&
                          pbr_->__entry(cur) != 0 && pbr_->__entry(cur) != FAT_BAD &&
                          !(claims_ && pbr_->isClusterUsed(cur));
      if (!usable) {
        // Enough of the chain stands: keep it and end it at its last good cluster.
        ok = static_cast<int64_t>(taken.size()) >= need;
        if (ok && !isEOC(cur)) cut_at = taken.back();
        break;
      }
      (*claimed)[cur] = 1;
      if (claims_) pbr_->__setUsed(cur, true);
      taken.push_back(cur);
      const uint32_t next = pbr_->__entry(cur);
      if (isEOC(next)) {
        ok = static_cast<int64_t>(taken.size()) >= need;
        break;
      }
      cur = next;
    }
    if (!ok) {
      for (uint32_t c : taken) {
        (*claimed)[c] = 0;
        if (claims_) pbr_->__setUsed(c, false);
      }
      return false;
    }
    if (cut_at != 0 && claims_) {
      // Held back with the load's other repairs.
      pbr_->__setEntry(cut_at, FAT_EOC);
      velt_->load_repairs_->fat_cuts.push_back(cut_at);
    }
  }
  if (cut_at != 0 && claims_) {
    noteRepair("[%s] chain of cluster %u ended at cluster %u", path().c_str(), first, cut_at);
  } else if (cut_at != 0 && velt_->op_mode_ != kVELTOpExclusive) {
    LOGW("[%s] chain of cluster %u ended at cluster %u\n", path().c_str(), first, cut_at);
    pbr_->fixFATEntry(cut_at, FAT_EOC);
  }
  return true;
}

bool DirScan::loadRecording(int g, int s, std::vector<uint8_t>* claimed) {
  const uint8_t* r = wrec(s);
  std::string base, ext;
  uint8_t first = r[0] == 0x05 ? DIR_ENTRY_DELETED : r[0];
  uint8_t name11[11];
  memcpy(name11, r, 11);
  name11[0] = first;
  if (!shortField(name11, 8, &base) || !shortField(name11 + 8, 3, &ext) || base.empty()) {
    return false;
  }
  const std::string short_name = ext.empty() ? base : base + "." + ext;
  const uint32_t cluster =
      (static_cast<uint32_t>(le16(r + rec::kClusterHigh)) << 16) | le16(r + rec::kClusterLow);
  const int64_t size = std::max<int64_t>(le32(r + rec::kSize), reserved_file_size_);
  if (!claimChain(cluster, size, claimed)) return false;

  // The long name, when the records in front spell one for this short name.
  std::string name;
  const int n = sequenceLength(s, shortNameChecksum(r));
  if (n > 0) {
    std::vector<uint16_t> units;
    for (int k = 1; k <= n; ++k) {
      uint16_t part[kLfnCharsPerRecord];
      lfnRecordUnits(wrec(s - k), part);
      units.insert(units.end(), part, part + kLfnCharsPerRecord);
    }
    auto end = std::find(units.begin(), units.end(), 0);
    try {
      utf8::utf16to8(units.begin(), end, std::back_inserter(name));
    } catch (const utf8::exception&) {
      name.clear();
    }
    if (name == "." || name == ".." || !isValidFileName(name.c_str())) name.clear();
  }
  const int named = name.empty() ? 0 : n;
  if (named == 0) {
    std::string lower_base = base, lower_ext = ext;
    if (r[rec::kCaseFlags] & 0x08)
      for (char& c : lower_base) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    if (r[rec::kCaseFlags] & 0x10)
      for (char& c : lower_ext) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    name = lower_ext.empty() ? lower_base : lower_base + "." + lower_ext;
    LOGW("[%s] recording %s has no long name, kept under its short name\n", path().c_str(),
         short_name.c_str());
  }
  deleteSlots(s - VELT_LFN_ENTRY_COUNT_MAX, s - 1 - named);

  std::shared_ptr<VELT::DirEntry> entry;
  try {
    entry = std::make_shared<VELT::DirEntry>(velt_);
    int64_t offsets[VELT_LFN_ENTRY_COUNT_MAX];
    for (int k = 0; k < VELT_LFN_ENTRY_COUNT_MAX; ++k) offsets[k] = recordOffset(s - 1 - k);
    entry->lfn_disk_offsets_.assign(offsets, VELT_LFN_ENTRY_COUNT_MAX);
  } catch (const std::bad_alloc&) {
    LOGE("got exception when creating DirEntry!\n");
    return false;
  }
  entry->lfn_ent_count_ = VELT_LFN_ENTRY_COUNT_MAX;
  entry->dir_ent_disk_off_ = recordOffset(s);
  cur_->addChild(entry);
  if (entry->init(name.c_str(), short_name.c_str(), r[rec::kAttr], r) != 0) {
    cur_->removeChild(entry, true);
    return false;
  }
  fillReservedFile(&cur_->velt_reserved_files_[g], s, entry->start_cluster_,
                   static_cast<uint32_t>(entry->created_), true);
  ++detected_used_count_;
  return true;
}

bool DirScan::loadFreeFile(int g, int s, std::vector<uint8_t>* claimed) {
  const uint8_t* r = wrec(s);
  const uint32_t cluster =
      (static_cast<uint32_t>(le16(r + rec::kClusterHigh)) << 16) | le16(r + rec::kClusterLow);
  // At mount time the chain is claimed after the whole tree (claimFreeReservedFiles).
  if (!claims_ && reserved_file_size_ > 0 && !claimChain(cluster, reserved_file_size_, claimed)) {
    return false;
  }
  // The records in front carry an old or half-written name: harmless as long as they form one
  // sequence, so that no reader joins them with anything else.
  const uint8_t* nearest = wrec(s - 1);
  const int n = isLongNameRecord(nearest) ? sequenceLength(s, nearest[rec::kLfnChecksum]) : 0;
  if (n == 0) {
    deleteSlots(s - VELT_LFN_ENTRY_COUNT_MAX, s - 1);
  } else {
    deleteSlots(s - VELT_LFN_ENTRY_COUNT_MAX, s - 1 - n);
  }
  fillReservedFile(&cur_->velt_reserved_files_[g], s, reserved_file_size_ > 0 ? cluster : 0, 0,
                   false);
  return true;
}

void DirScan::giveBackGroup(int g, int s) {
  LOGW("[%s] reserved file %d unusable, given back as a free one\n", path().c_str(), g + 1);
  deleteSlots(s - VELT_LFN_ENTRY_COUNT_MAX, s - 1);
  uint8_t* r = wrec(s);
  // A deleted record without clusters: restoreReservedFiles gives it its chain.
  memset(r, 0, DIR_RECORD_SIZE);
  static const char kName[] = "ELT_RSVAVI";
  r[0] = DIR_ENTRY_DELETED;
  memcpy(r + 1, kName, 10);
  r[rec::kAttr] = kAttrArchive;
  modified_ = true;
  fillReservedFile(&cur_->velt_reserved_files_[g], s, 0, 0, false);
}

int DirScan::scanReservedFolder() {
  const int records = static_cast<int>(chain_.size()) * per_cluster_;
  const int count = static_cast<int>(cur_->velt_reserved_files_.size());
  const int groups_end = kFirstGroupSlot + count * kGroupSlots;
  if (records < groups_end) {
    LOGE("[%s] holds %d records, too few for %d reserved files\n", path().c_str(), records, count);
    return fatal(kFatalFolderTooShort);
  }

  // "." and "..": rewritten when damaged, the groups behind them are what matters.
  for (int i = 0; i < kFirstGroupSlot; ++i) {
    const bool dotdot = i == 1;
    if (!isDotRecord(wrec(i), dotdot)) {
      LOGW("[%s] damaged %s record rewritten\n", path().c_str(), dotdot ? "\"..\"" : "\".\"");
      buildDotRecord(wrec(i), dotdot, dotdot ? 0 : start_cluster_);
      modified_ = true;
    }
    std::shared_ptr<VELT::DirEntry> dot;
    try {
      dot = std::make_shared<VELT::DirEntry>(velt_);
    } catch (const std::bad_alloc&) {
      LOGE("got exception when creating DirEntry!\n");
      return -1;
    }
    dot->dir_ent_disk_off_ = recordOffset(i);
    cur_->addChild(dot);
    const char* name = dotdot ? ".." : ".";
    if (dot->init(name, name, kAttrDirectory, wrec(i)) != 0) cur_->removeChild(dot, true);
  }

  std::vector<uint8_t> claimed;
  try {
    claimed.assign(pbr_->num_clusters_, 0);
  } catch (const std::bad_alloc&) {
    return fatal(kFatalNoMemory);
  }
  // Recordings first, so that a chain two groups claim stays with the recording.
  std::vector<bool> done(static_cast<size_t>(count), false);
  for (int g = 0; g < count; ++g) {
    const int s = kFirstGroupSlot + g * kGroupSlots + VELT_LFN_ENTRY_COUNT_MAX;
    const uint8_t* r = wrec(s);
    if (r[0] == DIR_ENTRY_FREE || r[0] == DIR_ENTRY_DELETED || !isFileRecord(r)) continue;
    if (!loadRecording(g, s, &claimed)) {
      LOGE("[%s] recording in reserved file %d is damaged\n", path().c_str(), g + 1);
      giveBackGroup(g, s);
    }
    done[g] = true;
  }
  for (int g = 0; g < count; ++g) {
    if (done[g]) continue;
    const int s = kFirstGroupSlot + g * kGroupSlots + VELT_LFN_ENTRY_COUNT_MAX;
    const uint8_t* r = wrec(s);
    if (r[0] != DIR_ENTRY_DELETED || !isFileRecord(r) || !loadFreeFile(g, s, &claimed)) {
      giveBackGroup(g, s);
    }
  }

  // Nothing else belongs in a reserved folder; what another writer left there goes.
  for (int i = groups_end; i < records; ++i) {
    uint8_t* r = wrec(i);
    if (r[0] == DIR_ENTRY_FREE || r[0] == DIR_ENTRY_DELETED) continue;
    LOGW("[%s] stray record at slot %d removed\n", path().c_str(), i);
    r[0] = DIR_ENTRY_DELETED;
    modified_ = true;
  }
  for (int i = 0; i < records; ++i) cur_->entry_map_[i] = wrec(i)[0];
  return 0;
}

void DirScan::fillReservedFile(ReservedFile* f, int s, uint32_t cluster, uint32_t time,
                               bool used) {
  f->dir_ent_disk_off = recordOffset(s);
  f->lfn_count = VELT_LFN_ENTRY_COUNT_MAX;
  for (int k = 0; k < VELT_LFN_ENTRY_COUNT_MAX; ++k) f->lfn_disk_offsets[k] = recordOffset(s - 1 - k);
  f->start_cluster = cluster;
  f->entry_index_ = s;
  f->taken_time = time;
  f->used_ = used;
  f->size = reserved_file_size_;
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
    if (f.start_cluster != 0 && !(claims_ && !f.used_)) pbr_->setClusterChainUsed(f.start_cluster);
}

int claimFreeReservedFiles(VELT& v, LoadRepairs* repairs) {
  if (v.root_ == nullptr || v.pbr_ == nullptr) return 0;
  PBR& pbr = *v.pbr_;
  std::vector<std::shared_ptr<VELT::DirEntry>> folders;
  {
    std::lock_guard lock(v.root_->children_mutex_);
    for (const auto& child : v.root_->children_) {
      if (child->velt_folder_ != nullptr) folders.push_back(child);
    }
  }
  const bool exclusive = v.op_mode_ == kVELTOpExclusive;
  for (const auto& folder : folders) {
    const std::string path = folder->getPath();
    for (size_t g = 0; g < folder->velt_reserved_files_.size(); ++g) {
      ReservedFile& f = folder->velt_reserved_files_[g];
      if (f.used_ || f.start_cluster == 0) continue;
      const uint64_t need =
          std::max<uint64_t>(1, (static_cast<uint64_t>(f.size) + pbr.cluster_length_ - 1) /
                                    pbr.cluster_length_);
      std::vector<uint32_t> taken;
      uint32_t cut_at = 0;
      bool whole = false;
      {
        std::lock_guard<std::mutex> lock(pbr.fat_mutex_);
        for (uint32_t cur = f.start_cluster;;) {
          if (cur < 2 || cur >= pbr.num_clusters_ || pbr.isClusterUsed(cur) ||
              pbr.__entry(cur) == 0 || pbr.__entry(cur) == FAT_BAD) {
            whole = taken.size() >= need;
            if (whole && !isEOC(cur)) cut_at = taken.back();
            break;
          }
          pbr.__setUsed(cur, true);
          taken.push_back(cur);
          cur = pbr.__entry(cur);
          if (isEOC(cur)) {
            whole = taken.size() >= need;
            break;
          }
        }
        if (!whole) {
          for (uint32_t c : taken) pbr.__setUsed(c, false);
        } else if (cut_at != 0 && !exclusive) {
          pbr.__setEntry(cut_at, FAT_EOC);
          repairs->fat_cuts.push_back(cut_at);
        }
      }
      if (whole && cut_at == 0) continue;
      if (exclusive) {
        if (!whole) return -EBADF;
        continue;
      }
      ++repairs->count;
      if (whole) {
        LOGW("repair: [%s] chain of free reserved file %zu ended at cluster %u\n", path.c_str(),
             g + 1, cut_at);
      } else {
        LOGW("repair: [%s] free reserved file %zu has no chain of its own from cluster %u: it gets "
             "a new one\n", path.c_str(), g + 1, f.start_cluster);
        f.start_cluster = 0;
      }
    }
  }
  return 0;
}

int VELT::restoreReservedFiles() {
  if (root_ == nullptr || pbr_ == nullptr || op_mode_ == kVELTOpExclusive) return 0;
  std::vector<std::shared_ptr<DirEntry>> folders;
  {
    std::lock_guard lock(root_->children_mutex_);
    for (const auto& child : root_->children_) {
      if (child->velt_folder_ != nullptr) folders.push_back(child);
    }
  }
  int result = 0;
  std::lock_guard<std::mutex> reserved_lock(reserved_mutex_);
  for (const auto& folder : folders) {
    for (ReservedFile& f : folder->velt_reserved_files_) {
      if (f.used_ || f.start_cluster != 0 || f.size == 0) continue;
      const int count = static_cast<int>((f.size + pbr_->cluster_length_ - 1) / pbr_->cluster_length_);
      lockFAT();
      int64_t first = pbr_->allocCluster(false);
      bool ok = first >= 2 && !isEOC(static_cast<uint32_t>(first));
      if (ok && count > 1) {
        int64_t r = pbr_->allocClusters(static_cast<uint32_t>(first), count - 1, false);
        ok = r >= 2 && !isEOC(static_cast<uint32_t>(r));
      }
      if (!ok && first >= 2 && !isEOC(static_cast<uint32_t>(first))) {
        pbr_->freeClusterChains(static_cast<uint32_t>(first), false);
      }
      // The chain reaches the FAT before the record that names it.
      unlockFAT();
      if (!ok) {
        LOGE("[%s] no room to restore a reserved file\n", folder->getPath().c_str());
        result = -ENOSPC;
        continue;
      }
      flush();
      uint8_t r[DIR_RECORD_SIZE];
      if (read(r, DIR_RECORD_SIZE, f.dir_ent_disk_off) < DIR_RECORD_SIZE) {
        result = -EIO;
        continue;
      }
      putLe16(r + rec::kClusterHigh, static_cast<uint16_t>(first >> 16));
      putLe16(r + rec::kClusterLow, static_cast<uint16_t>(first & 0xFFFF));
      putLe32(r + rec::kSize, f.size);
      if (write(r, DIR_RECORD_SIZE, f.dir_ent_disk_off, true) != DIR_RECORD_SIZE) {
        result = -EIO;
        continue;
      }
      f.start_cluster = static_cast<uint32_t>(first);
      LOGI("[%s] reserved file restored at cluster %u\n", folder->getPath().c_str(),
           f.start_cluster);
    }
  }
  return result;
}

}  // namespace velt
