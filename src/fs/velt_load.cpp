// Loading one directory from the card: every record is read, long names are rebuilt, children
// are created and subdirectories loaded. Irregular records are marked deleted in a working copy
// of the directory, which is written back whole at the end of the scan.
#include "fs/velt_load.h"

#include <utf8.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include "fs/velt_endian.h"

namespace velt {

static constexpr const char kLogTag[] = "VELT";

namespace {

// Deeper trees cannot be reached through a mount (PATH_MAX) and would only exhaust the stack.
constexpr int32_t kMaxDirectoryDepth = 2048;
// A directory larger than this (in records) is not a directory but a damaged chain; FAT itself
// allows 65536 records.
constexpr int64_t kMaxDirectoryRecords = int64_t{1} << 21;

void toLower(std::string* s) {
  for (char& c : *s) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
}
void toUpper(std::string* s) {
  for (char& c : *s) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
}

// A case-byte flag FAT32 readers take as "no short name": never set on a record they accept.
constexpr uint8_t kCaseNoShortName = 0x20;

// isValidShortName stops at a NUL; a NUL inside the field is just as invalid.
bool validShortField(const std::string& s) {
  return s.find('\0') == std::string::npos && isValidShortName(s.c_str());
}

}  // namespace

void dumpRecords(const char* label, const uint8_t* data, int size) {
  std::string out;
  char line[128];
  snprintf(line, sizeof(line), "dump of %s, __data=%p, __size=%d:\n", label,
           static_cast<const void*>(data), size);
  out += line;
  for (int off = 0; off < size; off += 16) {
    int n = std::min(16, size - off);
    int len = snprintf(line, sizeof(line), "   %08x  ", off);
    for (int i = 0; i < n; ++i)
      len += snprintf(line + len, sizeof(line) - len, "%02x ", data[off + i]);
    len += snprintf(line + len, sizeof(line) - len, "  ");
    for (int i = 0; i < n; ++i) {
      uint8_t c = data[off + i];
      line[len++] = (c < 32 || c > 126) ? '.' : static_cast<char>(c);
    }
    line[len++] = '\n';
    out.append(line, len);
  }
  fputs(out.c_str(), stdout);
  fflush(stdout);
}

int VELT::loadDirEntries(DirEntry* cur, uint32_t start_cluster, bool formatting, int32_t depth) {
  try {
    auto scan = std::make_unique<DirScan>(this, cur, start_cluster, formatting, depth);
    return scan->run();
  } catch (const std::bad_alloc&) {
    LOGE("got exception when loading directory entries (cluster %d)\n", start_cluster);
    return kLoadNoMemory;
  }
}

DirScan::DirScan(VELT* velt, VELT::DirEntry* cur, uint32_t start_cluster, bool formatting,
                 int32_t depth)
    : velt_(velt),
      pbr_(velt->pbr_),
      cur_(cur),
      start_cluster_(start_cluster),
      formatting_(formatting),
      depth_(depth) {
  claims_ = velt->load_repairs_ != nullptr;
}

int DirScan::run() {
  int r = prepare();
  if (r != 0) return r;
  r = readChain();
  if (r != 0) return r;
  if (reserved()) {
    r = scanReservedFolder();
    if (r != 0) return r;
  }
  return finish();
}

int DirScan::prepare() {
  if (cur_ == nullptr) {
    NERIO_ASSERT_TEXT("cur");
    return -1;
  }
  if (pbr_ == nullptr) {
    NERIO_ASSERT_TEXT("pbr_");
    return -1;
  }
  cur_->clear();
  if (depth_ == 0 && claims_) {
    Claim c = claim(start_cluster_, folderMaxClusters(), true, false);
    if (c.first_bad != nullptr) {
      LOGE("[%s] wrong cluster chains.\n", path().c_str());
      return -1;
    }
    if (c.cut_after != 0) {
      noteRepair("[/] chain %s: cut after cluster %u", c.cut_why, c.cut_after);
    }
    velt_->load_repairs_->starts.insert(start_cluster_);
  } else if (depth_ == 0 && !pbr_->checkClusterChains(start_cluster_)) {
    LOGE("[%s] wrong cluster chains.\n", path().c_str());
    return -1;
  }
  int64_t clusters = pbr_->getClusterCount(start_cluster_);
  if (!cur_->isDir()) {
    NERIO_ASSERT_TEXT("cur->isDir()");
    nerio::printBacktrace(10);
  }
  int r = matchReservedFolder();
  if (r != 0) return r;

  NERIO_ASSERT(pbr_->cluster_length_ != 0);
  per_cluster_ = static_cast<int>(pbr_->cluster_length_ / DIR_RECORD_SIZE);
  int64_t records = clusters > 0 ? clusters * per_cluster_ : 0;
  if (records <= 0) {
    VELT_REPORT(false, "entry_count > 0",
                ": [%s] start cluster 0x%08x, clusters#%d, entries#%d > 0\n", path().c_str(),
                start_cluster_, static_cast<int>(clusters), 0);
    return -1;
  }
  size_t bytes = static_cast<size_t>(clusters) * pbr_->cluster_length_;
  std::lock_guard lock(cur_->map_mutex_);
  try {
    if (records > kMaxDirectoryRecords) throw std::bad_alloc();
    data_.assign(bytes, 0);
    work_.assign(bytes, 0);
  } catch (const std::bad_alloc&) {
    LOGE("got exception when creating cluster data: %d bytes\n", static_cast<int>(bytes));
    return records > kMaxDirectoryRecords ? -1 : kLoadNoMemory;
  }
  try {
    cur_->entry_map_.assign(static_cast<size_t>(records), 0);
  } catch (const std::bad_alloc&) {
    LOGE("got exception when resizing VELTFile map table...\n");
    return kLoadNoMemory;
  }
  entry_count_ = static_cast<int>(records);
  chain_.reserve(static_cast<size_t>(clusters));
  return 0;
}

int DirScan::readChain() {
  const uint32_t len = pbr_->cluster_length_;
  const int clusters = entry_count_ / per_cluster_;
  uint32_t cluster = start_cluster_;
  for (int ci = 0; ci < clusters; ++ci) {
    uint8_t* dst = data_.data() + static_cast<size_t>(ci) * len;
    if (velt_->read(dst, static_cast<int>(len), velt_->clusterOffset(cluster)) <
        static_cast<int>(len)) {
      LOGE("cluster %d read error\n", cluster);
      return kLoadReadError;
    }
    memcpy(work_.data() + static_cast<size_t>(ci) * len, dst, len);
    chain_.push_back(cluster);
    if (ci == 0 && claims_ && cur_->parent_ != nullptr) {
      int r = checkDotRecords();
      if (r != 0) return r;
    }
    for (int k = 0; k < per_cluster_; ++k) {
      int r = record(ci * per_cluster_ + k);
      if (r < 0) return r;
    }
    {
      std::lock_guard<std::mutex> lock(pbr_->fat_mutex_);
      cluster = pbr_->__nextCluster(cluster);
    }
    if (!isChainCluster(cluster)) break;
  }
  return claims_ ? loadPending() : 0;
}

int64_t DirScan::recordOffset(int index) const {
  return velt_->clusterOffset(chain_[index / per_cluster_]) +
         static_cast<int64_t>(index % per_cluster_) * DIR_RECORD_SIZE;
}

void DirScan::markSlots(int from, int to) {
  for (int k = std::max(from, 1); k <= std::min(to, FAT32_LFN_ENTRY_COUNT_MAX); ++k) {
    if (slots_[k - 1].p != nullptr) slots_[k - 1].p[0] = DIR_ENTRY_DELETED;
  }
}

void DirScan::applyRepairRule() {
  if (velt_->op_mode_ == kVELTOpExclusive) {
    LOGI("skip this entry (not error)\n");
  } else {
    modified_ = true;
  }
}

void DirScan::resetLfn() {
  lfn_ent_count_ = 0;
  for (LfnSlot& s : slots_) s = LfnSlot();
  lfn_valid_ = false;
  lfn_mode_ = false;
}

int DirScan::record(int index) {
  const uint8_t* p = rec(index);
  cur_->entry_map_[index] = p[0];
  if (reserved()) return 0;  // judged group by group once the whole folder is read
  switch (p[0]) {
    case DIR_ENTRY_FREE:
      return emptyRecord(index);
    case DIR_ENTRY_DELETED:
      if (lfn_mode_) {
        // The name's record was deleted and its long name left behind.
        LOGI("orphaned long-name records, mark deleted ones (order %d~%d)\n", lfn_xord_,
             lfn_ent_count_);
        markSlots(lfn_xord_, lfn_ent_count_);
        applyRepairRule();
      }
      resetLfn();
      return 0;
    default:
      if ((p[rec::kAttr] & 0x3F) == kAttrLongName) return longNameRecord(index);
      return shortNameRecord(index);
  }
}

int DirScan::emptyRecord(int /*index*/) {
  if (lfn_mode_) {
    LOGI("Empty(last) entry met while LFN valid, mark deleted ones (order %d~%d)\n", lfn_xord_,
         lfn_ent_count_);
    VELT_REPORT(lfn_xord_ > 0 && lfn_ent_count_ >= lfn_xord_,
                "lfn_xord > 0 && lfn_ent_count >= lfn_xord", ": %d > 0 && %d >= %d\n", lfn_xord_,
                lfn_ent_count_, lfn_xord_);
    markSlots(lfn_xord_, lfn_ent_count_);
    applyRepairRule();
    resetLfn();
    return 0;
  }
  for (LfnSlot& s : slots_) s = LfnSlot();
  return 0;
}

int DirScan::longNameRecord(int index) {
  const uint8_t* p = rec(index);
  int ord = p[0];
  if ((ord & rec::kLfnLast) == 0) {
    // Continuation: must extend the open sequence by the next lower order.
    lfn_ord_ = ord;
    if (!lfn_mode_) {
      NERIO_ASSERT_TEXT("lfn_mode");
      LOGI("invalid LFN order number %d (no start flag), mark it deleted one\n", ord);
      dumpRecords("InvLFN", p, DIR_RECORD_SIZE);
      markDeleted(index);
      applyRepairRule();
      return 0;
    }
    VELT_REPORT(lfn_chksum_ == p[rec::kLfnChecksum], "lfn_chksum == p[13]",
                ": LFN check mismatach %02x == %02x\n", lfn_chksum_, p[rec::kLfnChecksum]);
    VELT_REPORT(ord + 1 == lfn_xord_, "lfn_ord + 1 == lfn_xord", ": %d + 1 == %d\n", ord,
                lfn_xord_);
    VELT_REPORT(ord > 0 && ord < lfn_xord_, "lfn_ord > 0 && lfn_ord < lfn_xord",
                ": %d > 0 && %d <= %d\n", ord, ord, lfn_xord_);
    if (lfn_chksum_ != p[rec::kLfnChecksum] || ord + 1 != lfn_xord_ || ord < 1) {
      LOGI("invalid LFN order number seq %d, mark it deleted one\n", ord);
      dumpRecords("InvLFN", p, DIR_RECORD_SIZE);
      markDeleted(index);
      LOGI("and mark deleted ones (order %d~%d)\n", lfn_xord_, lfn_ent_count_);
      markSlots(lfn_xord_, lfn_ent_count_);
      applyRepairRule();
      resetLfn();
      return 0;
    }
    slots_[ord - 1] = LfnSlot{recordOffset(index), wrec(index)};
    return collect(index, ord);
  }

  // Start record: the farthest record from the short name, with the sequence's length.
  ord &= 0xBF;
  lfn_ord_ = ord;
  if (!lfn_mode_) {
    VELT_REPORT(lfn_ent_count_ == 0, "lfn_ent_count == 0", ": %d == 0\n", lfn_ent_count_);
    lfn_ent_count_ = 0;
  } else {
    // The open sequence never reached its short-name record.
    VELT_REPORT(lfn_xord_ <= lfn_ent_count_, "lfn_xord > 0 && lfn_ent_count >= lfn_xord",
                ": %d > 0 && %d >= %d\n", lfn_xord_, lfn_ent_count_, lfn_xord_);
    uint8_t* xp = lfn_ent_count_ >= 1 && lfn_ent_count_ <= FAT32_LFN_ENTRY_COUNT_MAX
                      ? slots_[lfn_ent_count_ - 1].p
                      : nullptr;
    LOGI("invEntries of [%s]: lfn ord %d lfn xord %d, lfn entries#%d, org_p %p, xp %p\n",
         path().c_str(), ord, lfn_xord_, lfn_ent_count_, static_cast<void*>(wrec(index)),
         static_cast<void*>(xp));
    if (lfn_xord_ <= lfn_ent_count_) {
      if (xp != nullptr && xp < wrec(index)) {
        dumpRecords("invEntries.old", xp, static_cast<int>(wrec(index) - xp) + DIR_RECORD_SIZE);
      }
      markSlots(lfn_xord_, lfn_ent_count_);
    }
    applyRepairRule();
    resetLfn();
  }
  if (ord >= 1 && ord <= FAT32_LFN_ENTRY_COUNT_MAX) return openSequence(index, ord);

  VELT_REPORT(false, "lfn_ord > 0 && lfn_ord <= FAT32_LFN_ENTRY_COUNT_MAX",
              ": %d > 0 && %d <= %d\n", ord, ord, FAT32_LFN_ENTRY_COUNT_MAX);
  LOGI("invalid LFN order number, mark it deleted one\n");
  dumpRecords("InvLFN", p, DIR_RECORD_SIZE);
  markDeleted(index);
  modified_ = true;
  return 0;
}

int DirScan::openSequence(int index, int ord) {
  slots_[ord - 1] = LfnSlot{recordOffset(index), wrec(index)};
  lfn_ent_count_ += ord;
  lfn_chksum_ = rec(index)[rec::kLfnChecksum];
  try {
    lfn_units_.assign(static_cast<size_t>(kLfnCharsPerRecord) * ord, 0);
  } catch (const std::bad_alloc&) {
    LOGE("got exception when creating lfn buffer: %d lfns, %d words\n", ord,
         kLfnCharsPerRecord * ord);
    return kLoadNoMemory;
  }
  lfn_valid_ = false;
  return collect(index, ord);
}

int DirScan::collect(int index, int ord) {
  const uint8_t* p = rec(index);
  uint16_t cluster_lo_zero = le16(p + rec::kLfnCluster);
  if (cluster_lo_zero != 0 || p[rec::kLfnType] != 0) {
    VELT_REPORT(false, "cluster_lo_zero == 0 && p[12] == 0", ": %d == 0\n", cluster_lo_zero);
    LOGI("LFN FstClusLO is not zero, mark all LFNs as deleted (order %d~%d)\n", ord,
         lfn_ent_count_);
    markSlots(ord, lfn_ent_count_);
    applyRepairRule();
    resetLfn();
    lfn_xord_ = ord;
    return 0;
  }
  size_t at = static_cast<size_t>(kLfnCharsPerRecord) * (ord - 1);
  if (at + kLfnCharsPerRecord <= lfn_units_.size()) lfnRecordUnits(p, lfn_units_.data() + at);
  lfn_mode_ = true;
  lfn_xord_ = ord;
  return 0;
}

int DirScan::shortNameRecord(int index) {
  uint8_t* p = rec(index);
  const uint8_t attr = p[rec::kAttr];
  const bool is_file = (attr & (kAttrDirectory | kAttrVolumeId)) == 0;
  const bool is_label = (attr & 0x3F) == kAttrVolumeId;
  const uint8_t calc_chksum = shortNameChecksum(p);
  if (p[0] == 0x05) p[0] = DIR_ENTRY_DELETED;  // a name starting with 0xE5, as stored

  int name_len = 8;
  while (name_len > 0 && p[name_len - 1] == ' ') p[--name_len] = 0;
  int ext_len = 3;
  while (ext_len > 0 && p[8 + ext_len - 1] == ' ') p[8 + --ext_len] = 0;
  if (name_len == 0) {
    p[0] = 0;
    NERIO_ASSERT_TEXT("name_len > 0");
    dumpRecords("dir.Bad", p, DIR_RECORD_SIZE);
  }
  std::string base(reinterpret_cast<const char*>(p), name_len);
  std::string ext(reinterpret_cast<const char*>(p + 8), ext_len);

  if (lfn_mode_) {
    if (lfn_xord_ == 1) {
      lfn_valid_ = true;
    } else {
      LOGI("incomplete LFN entries, mark deleted ones (order %d~%d)\n", lfn_xord_, lfn_ent_count_);
      markSlots(lfn_xord_, lfn_ent_count_);
      applyRepairRule();
      lfn_ent_count_ = 0;
      lfn_valid_ = false;
    }
  }

  const bool dot = base == "." || base == "..";
  bool bad = false;
  if (!dot && !validShortField(base)) {
    LOGE("SFN name has invalid character, mark all as deleted ones\n");
    bad = true;
  }
  if (ext_len > 0 && !validShortField(ext)) {
    LOGE("SFN ext has invalid character, mark all as deleted ones\n");
    bad = true;
  }
  if (bad) {
    markDeleted(index);
    if (lfn_valid_) {
      LOGE("SFN has invalid character, mark all as deleted ones (order %d~%d)\n", lfn_xord_,
           lfn_ent_count_);
      markSlots(lfn_xord_, lfn_ent_count_);
    }
    modified_ = true;
    resetLfn();
    return 0;
  }

  if (!is_label) {
    toUpper(&base);
    toUpper(&ext);
  }
  std::string short_name = ext.empty() ? base : base + "." + ext;

  std::shared_ptr<VELT::DirEntry> entry;
  try {
    entry = std::make_shared<VELT::DirEntry>(velt_);
  } catch (const std::bad_alloc&) {
    LOGE("got exception when creating DirEntry!\n");
    return kLoadNoMemory;
  }

  std::string name;
  if (!lfn_valid_) {
    if ((p[rec::kCaseFlags] & 0x08) && !base.empty()) toLower(&base);
    if ((p[rec::kCaseFlags] & 0x10) && !ext.empty()) toLower(&ext);
    name = ext.empty() ? base : base + "." + ext;
  } else {
    for (size_t i = lfn_units_.size(); i > 0 && lfn_units_[i - 1] == 0xFFFF; --i) {
      lfn_units_[i - 1] = 0;
    }
    auto end = std::find(lfn_units_.begin(), lfn_units_.end(), 0);
    bool converted = true;
    try {
      utf8::utf16to8(lfn_units_.begin(), end, std::back_inserter(name));
    } catch (const utf8::exception&) {
      converted = false;
    }
    // An empty or dot long name would shadow its directory in path lookups.
    if (!converted || !isValidFileName(name.c_str()) || name.empty() || name == "." ||
        name == "..") {
      LOGE("LFN has invalid character, mark all as deleted ones (order %d~%d)\n", lfn_xord_,
           lfn_ent_count_);
      markDeleted(index);
      markSlots(lfn_xord_, lfn_ent_count_);
      modified_ = true;
      resetLfn();
      return 0;
    }
    if (lfn_chksum_ != calc_chksum) {
      VELT_REPORT(false, "lfn_chksum == calc_chksum", ": 0x%02x == 0x%02x\n", lfn_chksum_,
                  calc_chksum);
      LOGI("[%s] chksum mismatched: lfn == calc, 0x%02x == 0x%02x\n", name.c_str(), lfn_chksum_,
           calc_chksum);
      LOGE("LFN checksum error, mark all LFNs as deleted ones (order %d~%d)\n", lfn_xord_,
           lfn_ent_count_);
      markDeleted(index);
      markSlots(lfn_xord_, lfn_ent_count_);
      modified_ = true;
      resetLfn();
      return 0;
    }
    entry->lfn_ent_count_ = lfn_ent_count_;
    int64_t offsets[kLfnRecordsMax];
    for (int k = 0; k < lfn_ent_count_; ++k) offsets[k] = slots_[k].off;
    entry->lfn_disk_offsets_.assign(offsets, static_cast<size_t>(lfn_ent_count_));
  }

  bool rename_source = false;
  if (claims_ && !reserved() && !is_label &&
      (attr & (kAttrDirectory | kAttrVolumeId)) != (kAttrDirectory | kAttrVolumeId)) {
    int dropped = 0;
    if ((wrec(index)[rec::kCaseFlags] & kCaseNoShortName) != 0) {
      // Other systems take such a record for a broken short name (or, for a dot, clear it).
      wrec(index)[rec::kCaseFlags] &= static_cast<uint8_t>(~kCaseNoShortName);
      noteRepair("[%s] record of \"%s\" flagged as having no short name: flag cleared",
                 path().c_str(), name.c_str());
      modified_ = true;
    }
    if (is_file) {
      rename_source = wrec(index)[rec::kCreateTenths] == rec::kRenameSource;
      if (rename_source) {
        wrec(index)[rec::kCreateTenths] = 0;
        modified_ = true;
      }
      dropped = fileRecord(index, wrec(index), name);
    } else if ((attr & kAttrDirectory) != 0) {
      dropped = folderRecord(index, wrec(index), dot, name);
    }
    if (dropped != 0) {
      resetLfn();
      return 0;
    }
  }

  entry->dir_ent_disk_off_ = recordOffset(index);
  cur_->addChild(entry);
  if (entry->init(name.c_str(), short_name.c_str(), attr, wrec(index)) != 0) {
    markDeleted(index);
    if (lfn_valid_) markSlots(lfn_xord_, lfn_ent_count_);
    cur_->removeChild(entry, true);
    modified_ = true;
    resetLfn();
    return 0;
  }

  if (rename_source && entry->start_cluster_ != 0) {
    LoadRepairs::RenameSource& source = velt_->load_repairs_->rename_sources[entry->start_cluster_];
    source.entry = entry;
    source.records.clear();
    source.records.emplace_back(recordOffset(index), index);
    if (lfn_valid_) {
      for (int k = std::max(lfn_xord_, 1); k <= std::min(lfn_ent_count_, FAT32_LFN_ENTRY_COUNT_MAX);
           ++k) {
        if (slots_[k - 1].p == nullptr) continue;
        source.records.emplace_back(slots_[k - 1].off,
                                    static_cast<int>((slots_[k - 1].p - work_.data()) / DIR_RECORD_SIZE));
      }
    }
  }

  const uint32_t child_cluster = entry->start_cluster_;
  if (claims_ && entry->isDir() && !dot && !(formatting_ && cur_ == velt_->root_.get())) {
    PendingDir pd{entry, index, {}};
    if (lfn_valid_) {
      for (int k = std::max(lfn_xord_, 1); k <= std::min(lfn_ent_count_, FAT32_LFN_ENTRY_COUNT_MAX);
           ++k) {
        if (slots_[k - 1].p != nullptr) pd.lfn.push_back(slots_[k - 1].p);
      }
    }
    pending_.push_back(std::move(pd));
  } else if (entry->isDir() && !dot && child_cluster != 0 && child_cluster != start_cluster_ &&
             child_cluster != cur_->start_cluster_) {
    if (formatting_ && cur_ == velt_->root_.get()) {
      cur_->removeChild(entry, true);
    } else {
      int r = loadSubdirectory(entry, index);
      if (r != 0) return r;
    }
  }
  resetLfn();
  return 0;
}

int DirScan::loadSubdirectory(const std::shared_ptr<VELT::DirEntry>& child, int index) {
  int r = -1;
  const VELT::DirEntry* loop = nullptr;
  for (const VELT::DirEntry* a = cur_; a != nullptr && loop == nullptr; a = a->parent_) {
    if (a->start_cluster_ == child->start_cluster_) loop = a;
  }
  if (loop != nullptr) {
    LOGE("[%s] points back at [%s] (cluster %d)\n", child->getPath().c_str(),
         loop->getPath().c_str(), child->start_cluster_);
  } else if (depth_ + 1 > kMaxDirectoryDepth) {
    LOGE("[%s] nested deeper than %d\n", child->getPath().c_str(), kMaxDirectoryDepth);
  } else {
    r = velt_->loadDirEntries(child.get(), child->start_cluster_, false, depth_ + 1);
  }
  if (r >= 0) return 0;
  if (isHardLoadError(r)) return r;

  LOGE("loading [%s] failed, mark deleted one\n", child->getPath().c_str());
  markDeleted(index);
  if (lfn_valid_) {
    VELT_REPORT(lfn_xord_ > 0 && lfn_ent_count_ >= lfn_xord_,
                "lfn_xord > 0 && lfn_ent_count >= lfn_xord", ": %d > 0 && %d >= %d\n", lfn_xord_,
                lfn_ent_count_, lfn_xord_);
    for (int i = std::max(lfn_xord_, 1); i <= std::min(lfn_ent_count_, FAT32_LFN_ENTRY_COUNT_MAX);
         ++i) {
      if (slots_[i - 1].p == nullptr) {
        NERIO_ASSERT_TEXT("lfn_ent_disk_offsets[i - 1].p != nullptr");
        continue;
      }
      slots_[i - 1].p[0] = DIR_ENTRY_DELETED;
    }
  }
  cur_->removeChild(child, true);
  modified_ = true;
  return 0;
}

int DirScan::finish() {
  VELT_REPORT(!lfn_mode_ && !lfn_valid_, "lfn_mode == false && lfn_valid == false", "\n");
  if (lfn_mode_ && !reserved()) {
    // A long name at the very end of the folder, without its name record.
    LOGI("orphaned long-name records, mark deleted ones (order %d~%d)\n", lfn_xord_,
         lfn_ent_count_);
    markSlots(lfn_xord_, lfn_ent_count_);
    applyRepairRule();
    resetLfn();
  }
  if (velt_->op_mode_ == kVELTOpExclusive && repaired_) return -EBADF;
  if (modified_) {
    if (velt_->op_mode_ == kVELTOpExclusive) return -EBADF;
    LOGW("[%s] modified, flush now\n", path().c_str());
    int r = writeBack();
    if (r != 0) return r;
  }
  if (claims_ && !reserved()) return 0;  // every chain was claimed as it was found
  std::vector<uint32_t> clusters;
  {
    std::lock_guard lock(cur_->children_mutex_);
    clusters.reserve(cur_->children_.size());
    for (const auto& child : cur_->children_) clusters.push_back(child->start_cluster_);
  }
  for (uint32_t c : clusters) pbr_->setClusterChainUsed(c);
  pbr_->setClusterChainUsed(start_cluster_);
  if (reserved()) reconcileReservedFolder();
  return 0;
}

int DirScan::writeBack() {
  const uint32_t len = pbr_->cluster_length_;
  // At mount time the tree build writes the repaired folders once it has judged the whole card.
  for (size_t ci = 0; ci < chain_.size() && !claims_; ++ci) {
    if (velt_->write(work_.data() + ci * len, len, velt_->clusterOffset(chain_[ci]), true) <
        static_cast<int>(len)) {
      LOGE("cluster %d write error\n", chain_[ci]);
      return -1;
    }
  }
  if (claims_) {
    try {
      velt_->load_repairs_->dirs.push_back(LoadRepairs::DirWrite{chain_, work_});
    } catch (const std::bad_alloc&) {
      LOGE("got exception when keeping a repaired folder\n");
      return kLoadNoMemory;
    }
  }
  // The slot map follows the card: repaired records are deleted ones now.
  for (size_t i = 0; i < cur_->entry_map_.size() && i * DIR_RECORD_SIZE < work_.size(); ++i) {
    if (work_[i * DIR_RECORD_SIZE] == DIR_ENTRY_DELETED) cur_->entry_map_[i] = DIR_ENTRY_DELETED;
  }
  return 0;
}

}  // namespace velt
