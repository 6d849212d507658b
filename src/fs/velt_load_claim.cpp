// Chain ownership while the tree is loaded at mount time. Every cluster belongs to the first
// entry that reaches it: a later chain that runs into it is cut before it, a chain that runs
// into a free, bad or out-of-range cluster or loops is cut where it goes wrong, and a file keeps
// no more clusters than its size needs. A folder is loaded only from clusters nobody else owns,
// and only when they begin with its "." and ".." records, so a repair never writes into another
// entry's data. Each repair logs one line "[path] what was done".
#include <strings.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include "fs/velt_endian.h"
#include "fs/velt_load.h"

namespace velt {

static constexpr const char kLogTag[] = "VELT";

namespace {

// Deeper trees cannot be reached through a mount (PATH_MAX) and would only exhaust the stack.
constexpr int32_t kMaxFolderDepth = 2048;
// FAT allows a folder 65536 records.
constexpr uint64_t kMaxFolderBytes = 65536 * 32;

constexpr char kDotName[] = ".          ";
constexpr char kDotDotName[] = "..         ";

uint32_t recordCluster(const uint8_t* r) {
  return (static_cast<uint32_t>(le16(r + rec::kClusterHigh)) << 16) | le16(r + rec::kClusterLow);
}
void setRecordCluster(uint8_t* r, uint32_t c) {
  putLe16(r + rec::kClusterHigh, static_cast<uint16_t>(c >> 16));
  putLe16(r + rec::kClusterLow, static_cast<uint16_t>(c & 0xFFFF));
}
// Entry paths of the root's children come with a doubled slash.
std::string clean(std::string path) {
  if (path.rfind("//", 0) == 0) path.erase(0, 1);
  return path;
}
std::string childPath(const std::string& dir, const std::string& name) {
  std::string d = clean(dir);
  return d == "/" ? d + name : d + "/" + name;
}

bool vacant(const uint8_t* r) { return r[0] == DIR_ENTRY_FREE || r[0] == DIR_ENTRY_DELETED; }

// A dot record as FAT32 wants it: the name and a folder's attributes.
bool isDot(const uint8_t* r, const char* name) {
  const uint8_t attr = r[rec::kAttr] & 0x3F;
  return memcmp(r, name, 11) == 0 && attr != kAttrLongName && (attr & kAttrDirectory) != 0 &&
         (attr & kAttrVolumeId) == 0;
}

bool isReservedFolderName(const VELT& v, const std::string& name) {
  const FormatInfo& info = v.format_info_;
  const uint32_t n = std::min<uint32_t>(info.folder_count, VELT_MAX_RESERVED_FOLDERS);
  for (uint32_t i = 0; i < n; ++i) {
    std::string f(info.folders[i].name, strnlen(info.folders[i].name, sizeof(info.folders[i].name)));
    if (!f.empty() && strcasecmp(f.c_str(), name.c_str()) == 0) return true;
  }
  return false;
}

}  // namespace

uint64_t DirScan::folderMaxClusters() const {
  return (kMaxFolderBytes + pbr_->cluster_length_ - 1) / pbr_->cluster_length_;
}

void DirScan::noteRepair(const char* fmt, ...) {
  char what[256];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(what, sizeof(what), fmt, ap);
  va_end(ap);
  LOGW("repair: %s\n", what);
  repaired_ = true;
  if (velt_->load_repairs_ != nullptr) ++velt_->load_repairs_->count;
}

DirScan::Claim DirScan::claim(uint32_t first, uint64_t max_clusters, bool take, bool keep_list) {
  Claim c;
  LoadRepairs* lr = velt_->load_repairs_;
  std::lock_guard<std::mutex> lock(pbr_->fat_mutex_);
  const uint32_t n = pbr_->num_clusters_;
  if (first < 2 || first >= n) {
    c.first_bad = "is out of range";
    return c;
  }
  const uint32_t v = pbr_->__entry(first);
  if (v == 0 || v == 1) {
    c.first_bad = "is free in the FAT";
    return c;
  }
  if (v == FAT_BAD) {
    c.first_bad = "is marked bad";
    return c;
  }
  if (take && pbr_->isClusterUsed(first)) {
    c.first_bad = "belongs to another entry";
    c.first_shared = lr != nullptr && lr->starts.count(first) != 0;
    return c;
  }
  // A walk that takes nothing still has to notice a loop.
  std::unordered_set<uint32_t> seen;
  uint32_t cur = first;
  for (;;) {
    if (take) {
      pbr_->__setUsed(cur, true);
      if (keep_list) c.taken.push_back(cur);
    } else {
      seen.insert(cur);
    }
    ++c.clusters;
    const uint32_t next = pbr_->__entry(cur);
    if (next >= FAT_EOC) break;
    const char* why = nullptr;
    bool trim = false;
    if (next == 0) {
      why = "runs into a free cluster";
    } else if (next == FAT_BAD) {
      why = "runs into a bad cluster";
    } else if (next == 1 || next >= n) {
      why = "runs out of range";
    } else if (take ? pbr_->isClusterUsed(next) : seen.count(next) != 0) {
      why = "runs into a cluster already used";
    } else if (c.clusters >= max_clusters) {
      why = "is longer than its size";
      trim = true;
    }
    if (why == nullptr) {
      cur = next;
      continue;
    }
    c.cut_after = cur;
    c.cut_old = pbr_->fat1_[cur];
    c.cut_why = why;
    pbr_->__setEntry(cur, FAT_EOC);
    if (lr != nullptr) {
      lr->fat_cuts.push_back(cur);
      if (trim) {
        // The tail a power cut left behind a file's size is no sign of wholesale damage.
        uint64_t tail = 0;
        for (uint32_t t = next; isChainCluster(t) && t < n && !pbr_->isClusterUsed(t) && tail < n;
             t = pbr_->__entry(t)) {
          ++tail;
        }
        lr->trimmed += tail;
      }
    }
    break;
  }
  return c;
}

void DirScan::releaseClaim(const Claim& c) {
  LoadRepairs* lr = velt_->load_repairs_;
  std::lock_guard<std::mutex> lock(pbr_->fat_mutex_);
  for (uint32_t cl : c.taken) pbr_->__setUsed(cl, false);
  if (c.cut_after != 0) {
    pbr_->fat1_[c.cut_after] = c.cut_old;
    if (lr != nullptr) {
      for (size_t i = lr->fat_cuts.size(); i > 0; --i) {
        if (lr->fat_cuts[i - 1] == c.cut_after) {
          lr->fat_cuts.erase(lr->fat_cuts.begin() + static_cast<std::ptrdiff_t>(i - 1));
          break;
        }
      }
    }
  }
}

void DirScan::deleteWithLongName(int index) {
  markDeleted(index);
  if (lfn_valid_) markSlots(lfn_xord_, lfn_ent_count_);
  modified_ = true;
}

// A folder's first cluster begins with "." and "..". Missing or damaged ones are written again
// (a folder made by a mkdir that the power cut short); a name record in their slot is moved to a
// vacant slot of the first cluster first. Clusters that hold neither and something else are not
// a folder at all. Reserved folders mend their dot records with their groups.
int DirScan::checkDotRecords() {
  const char* const names[2] = {kDotName, kDotDotName};
  bool ok[2], named[2];
  for (int i = 0; i < 2; ++i) {
    ok[i] = isDot(rec(i), names[i]);
    named[i] = memcmp(rec(i), names[i], 11) == 0;
  }
  if (ok[0] && ok[1]) return 0;
  if (!named[0] && !named[1] && !(vacant(rec(0)) && vacant(rec(1)))) return kLoadNotAFolder;
  if (reserved()) return 0;
  const uint32_t parent =
      cur_->parent_ == nullptr || cur_->parent_->parent_ == nullptr ? 0
                                                                     : cur_->parent_->start_cluster_;
  for (int i = 0; i < 2; ++i) {
    if (ok[i]) continue;
    uint8_t* r = rec(i);
    const bool name_record = !vacant(r) && !named[i] && (r[rec::kAttr] & 0x3F) != kAttrLongName;
    if (name_record) {
      int to = -1;
      for (int k = 2; k < per_cluster_ && to < 0; ++k) {
        if (rec(k)[0] == DIR_ENTRY_DELETED) to = k;
      }
      for (int k = 2; k < per_cluster_ && to < 0; ++k) {
        if (rec(k)[0] == DIR_ENTRY_FREE) to = k;
      }
      if (to < 0) {
        LOGE("[%s] a name record holds the %s slot and no slot is vacant: left as it is\n",
             clean(path()).c_str(), names[i][1] == '.' ? "\"..\"" : "\".\"");
        continue;
      }
      memcpy(rec(to), r, DIR_RECORD_SIZE);
      memcpy(wrec(to), r, DIR_RECORD_SIZE);
      noteRepair("[%s] name record in slot %d moved to slot %d", clean(path()).c_str(), i, to);
    }
    uint8_t d[DIR_RECORD_SIZE] = {};
    memcpy(d, names[i], 11);
    d[rec::kAttr] = kAttrDirectory;
    setRecordCluster(d, i == 0 ? start_cluster_ : parent);
    memcpy(rec(i), d, DIR_RECORD_SIZE);
    memcpy(wrec(i), d, DIR_RECORD_SIZE);
    noteRepair("[%s] had no %s record: written", clean(path()).c_str(),
               i == 0 ? "\".\"" : "\"..\"");
    modified_ = true;
  }
  return 0;
}

// A file's record before its entry is made: its chain is claimed, cut where it goes wrong, and
// its size made to fit. 1 when the record was deleted (a second record of the same file).
int DirScan::fileRecord(int index, uint8_t* w, const std::string& name) {
  const uint32_t start = recordCluster(w);
  const uint32_t size = le32(w + rec::kSize);
  const uint32_t cl = pbr_->cluster_length_;
  const std::string where = childPath(path(), name);
  if (start == 0) {
    if (size != 0) {
      putLe32(w + rec::kSize, 0);
      noteRepair("[%s] has no clusters: size %u set to 0", where.c_str(), size);
      modified_ = true;
    }
    return 0;
  }
  const uint64_t need = (static_cast<uint64_t>(size) + cl - 1) / cl;
  if (need == 0) {
    setRecordCluster(w, 0);
    noteRepair("[%s] is empty but holds clusters from %u: they are freed", where.c_str(), start);
    modified_ = true;
    return 0;
  }
  Claim c = claim(start, need, true, false);
  if (c.first_shared && takeOverRenameSource(start, where)) c = claim(start, need, true, false);
  if (c.first_bad != nullptr) {
    if (c.first_shared) {
      noteRepair("[%s] is a second record of another entry's clusters: deleted", where.c_str());
      deleteWithLongName(index);
      return 1;
    }
    noteRepair("[%s] first cluster %u %s: cut to size 0", where.c_str(), start, c.first_bad);
    setRecordCluster(w, 0);
    putLe32(w + rec::kSize, 0);
    modified_ = true;
    return 0;
  }
  velt_->load_repairs_->starts.insert(start);
  if (c.cut_after != 0) {
    noteRepair("[%s] chain %s: cut after cluster %u", where.c_str(), c.cut_why, c.cut_after);
  }
  const uint64_t have = static_cast<uint64_t>(c.clusters) * cl;
  if (size > have) {
    putLe32(w + rec::kSize, static_cast<uint32_t>(have));
    noteRepair("[%s] size %u is beyond its %u clusters: cut to %llu", where.c_str(), size,
               c.clusters, static_cast<unsigned long long>(have));
    modified_ = true;
  }
  return 0;
}

// A replacing rename cut short after the target's record took the source's chain: the source
// (loaded first, its record marked) gives the chain up, its records are deleted, and the chain
// is free to be claimed again by the target. False when `start` is no such source's.
bool DirScan::takeOverRenameSource(uint32_t start, const std::string& where) {
  LoadRepairs* lr = velt_->load_repairs_;
  auto it = lr->rename_sources.find(start);
  if (it == lr->rename_sources.end()) return false;
  LoadRepairs::RenameSource source = std::move(it->second);
  lr->rename_sources.erase(it);
  std::shared_ptr<VELT::DirEntry> entry = source.entry.lock();
  VELT::DirEntry* dir = entry != nullptr ? entry->parent_ : nullptr;
  if (dir == nullptr || entry->start_cluster_ != start) return false;
  noteRepair("[%s] is the target of a rename cut short: [%s] deleted", where.c_str(),
             clean(entry->getPath()).c_str());
  for (const auto& [off, slot] : source.records) {
    lr->dropped.push_back(off);
    if (slot >= 0 && static_cast<size_t>(slot) < dir->entry_map_.size())
      dir->entry_map_[static_cast<size_t>(slot)] = DIR_ENTRY_DELETED;
  }
  dir->removeChild(entry, true);
  std::lock_guard<std::mutex> lock(pbr_->fat_mutex_);
  const uint32_t n = pbr_->num_clusters_;
  for (uint32_t cur = start, steps = 0; cur >= 2 && cur < n && steps < n; ++steps) {
    if (!pbr_->isClusterUsed(cur)) break;
    pbr_->__setUsed(cur, false);
    cur = pbr_->__entry(cur);
  }
  return true;
}

// A folder's record (dot records included) before its entry is made. The chain is only checked
// here; it is claimed when the folder is loaded, after the files of this folder. 1 when the
// record was deleted.
int DirScan::folderRecord(int index, uint8_t* w, bool dot, const std::string& name) {
  const std::string where = childPath(path(), name);
  const uint32_t size = le32(w + rec::kSize);
  if (size != 0) {
    putLe32(w + rec::kSize, 0);
    noteRepair("[%s] is a folder with size %u: set to 0", where.c_str(), size);
    modified_ = true;
  }
  if (dot) {
    const bool self = name == ".";
    if (cur_->parent_ == nullptr || index != (self ? 0 : 1)) {
      noteRepair("[%s] stray \"%s\" record: deleted", clean(path()).c_str(), name.c_str());
      deleteWithLongName(index);
      return 1;
    }
    const uint32_t want = self ? start_cluster_
                          : cur_->parent_->parent_ == nullptr ? 0
                                                              : cur_->parent_->start_cluster_;
    const uint32_t have = recordCluster(w);
    if (have != want) {
      setRecordCluster(w, want);
      noteRepair("[%s] \"%s\" pointed at cluster %u: set to %u", clean(path()).c_str(), name.c_str(),
                 have, want);
      modified_ = true;
    }
    return 0;
  }
  const uint32_t start = recordCluster(w);
  if (start == 0) {
    noteRepair("[%s] is a folder without clusters: deleted", where.c_str());
    deleteWithLongName(index);
    return 1;
  }
  Claim c = claim(start, folderMaxClusters(), false, false);
  if (c.first_bad != nullptr) {
    noteRepair("[%s] folder's first cluster %u %s: deleted", where.c_str(), start, c.first_bad);
    deleteWithLongName(index);
    return 1;
  }
  if (c.cut_after != 0) {
    noteRepair("[%s] chain %s: cut after cluster %u", where.c_str(), c.cut_why, c.cut_after);
  }
  return 0;
}

// The folders of this folder, loaded once its own files have claimed their clusters.
int DirScan::loadPending() {
  LoadRepairs* lr = velt_->load_repairs_;
  std::vector<PendingDir> pending;
  pending.swap(pending_);
  // Reserved folders first: their chains are fixed in length, so a file chain running into one
  // is what the damage cut, not the reserved file.
  if (depth_ == 0) {
    std::stable_partition(pending.begin(), pending.end(), [this](const PendingDir& pd) {
      return isReservedFolderName(*velt_, pd.entry->name_);
    });
  }
  for (PendingDir& pd : pending) {
    const std::shared_ptr<VELT::DirEntry>& child = pd.entry;
    const uint32_t start = child->start_cluster_;
    const std::string where = clean(child->getPath());
    auto drop = [&] {
      markDeleted(pd.index);
      for (uint8_t* p : pd.lfn) p[0] = DIR_ENTRY_DELETED;
      cur_->removeChild(child, true);
      modified_ = true;
    };
    Claim c = claim(start, folderMaxClusters(), true, true);
    if (c.first_bad != nullptr) {
      noteRepair("[%s] folder's first cluster %u %s: deleted", where.c_str(), start,
                 c.first_shared ? "is another entry's" : c.first_bad);
      drop();
      continue;
    }
    if (c.cut_after != 0) {
      noteRepair("[%s] chain %s: cut after cluster %u", where.c_str(), c.cut_why, c.cut_after);
    }
    lr->starts.insert(start);
    int r = -1;
    if (depth_ + 1 > kMaxFolderDepth) {
      LOGE("[%s] nested deeper than %d\n", where.c_str(), kMaxFolderDepth);
    } else {
      r = velt_->loadDirEntries(child.get(), start, false, depth_ + 1);
    }
    if (isHardLoadError(r) || r == -EBADF) return r;
    if (r >= 0) continue;
    releaseClaim(c);
    lr->starts.erase(start);
    LOGE("loading [%s] failed, mark deleted one\n", where.c_str());
    if (r == kLoadNotAFolder) {
      noteRepair("[%s] holds no \".\" or \"..\" record, it is no folder: deleted", where.c_str());
    } else {
      noteRepair("[%s] could not be loaded: deleted", where.c_str());
    }
    drop();
  }
  return 0;
}

}  // namespace velt
