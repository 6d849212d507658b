// The scan of one directory at load time: its records, the long-name state machine, repairs
// made in a working copy, and the stricter rules of reserved folders. Private to the loader
// (velt_load.cpp, velt_load_reserved.cpp).
#pragma once

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "fs/velt.h"
#include "fs/velt_dirent.h"

namespace velt {

constexpr int FAT32_LFN_ENTRY_COUNT_MAX = 20;  // largest long-name order accepted

// Results of a directory load beyond 0 and -1 (damage: the parent deletes the folder's record).
// A card that cannot be read, or memory that runs out, fails the whole mount: nothing is
// repaired on the strength of what could not be seen.
constexpr int kLoadReadError = -EIO;
constexpr int kLoadNoMemory = -ENOMEM;
constexpr int kLoadNotAFolder = -ENOTDIR;  // the clusters hold no "." and ".." records
inline bool isHardLoadError(int r) { return r == kLoadReadError || r == kLoadNoMemory; }

// Cluster numbers as one bit each. The load notes every entry's first cluster; a hash node per
// entry would leave the heap full of small holes among the tree's entries once the load is over.
class ClusterSet {
 public:
  void insert(uint32_t c) {
    const size_t word = c / 64;
    if (word >= bits_.size()) bits_.resize(std::max(word + 1, bits_.size() * 2));
    bits_[word] |= uint64_t{1} << (c % 64);
  }
  size_t count(uint32_t c) const {
    const size_t word = c / 64;
    return word < bits_.size() ? (bits_[word] >> (c % 64)) & 1 : 0;
  }
  void erase(uint32_t c) {
    if (c / 64 < bits_.size()) bits_[c / 64] &= ~(uint64_t{1} << (c % 64));
  }

 private:
  std::vector<uint64_t> bits_;
};

// What the mount-time tree build holds back until it has seen the whole card: directories to
// write back and FAT entries cut. They reach the card only when the load is judged sound.
struct LoadRepairs {
  struct DirWrite {
    std::vector<uint32_t> chain;
    std::vector<uint8_t> data;
  };
  std::vector<DirWrite> dirs;
  std::vector<uint32_t> fat_cuts;        // clusters whose entry became an end of chain
  ClusterSet starts;                     // first clusters of the entries loaded so far
  uint64_t trimmed = 0;                  // clusters cut off file chains beyond their size
  // Files whose record a replacing rename marked as its source, by first cluster: a record
  // found later with the same first cluster is the rename's target and takes the file over.
  struct RenameSource {
    std::weak_ptr<VELT::DirEntry> entry;
    std::vector<std::pair<int64_t, int>> records;  // card offset and slot: name record, long name
  };
  std::unordered_map<uint32_t, RenameSource> rename_sources;
  std::vector<int64_t> dropped;          // records to mark deleted once the folders are written
  int count = 0;                         // repairs made
};

// Free reserved files hold no data: their chains are claimed once every entry of the card has
// claimed its own, so that a cluster a free reserved file shares with a file stays the file's.
// A chain that cannot be had whole is dropped (restoreReservedFiles gives the reserved file a new
// one). -EBADF in exclusive mode when that would be needed.
int claimFreeReservedFiles(VELT& v, LoadRepairs* repairs);

// Prints `size` bytes as offset, hex and characters, 16 a line, to standard output.
void dumpRecords(const char* label, const uint8_t* data, int size);

// Identifies a failed check in "Reserved folder [%s] has FATAL error @ %d". The numbers are
// part of the log format: never renumber, only append.
enum ReservedFatal : int {
  kFatalEmptyInSequence = 1,
  kFatalBadStartOrder = 2,
  kFatalOrphanContinuation = 3,
  kFatalBrokenSequence = 4,
  kFatalLfnCluster = 5,
  kFatalIncompleteSequence = 6,
  kFatalShortNameChars = 7,
  kFatalLongNameChars = 8,
  kFatalChecksum = 9,
  kFatalInit = 10,
  kFatalCountTooLarge = 11,
  kFatalFreeFileIncomplete = 12,
  kFatalNoMemory = 13,
  kFatalDotWithLongName = 14,
  kFatalFolderTooShort = 15,
};

// Report-only check with the expression text given separately (the text names the quantity,
// not this code's variable).
#define VELT_REPORT(cond, text, fmt, ...)                                                   \
  do {                                                                                      \
    if (!(cond))                                                                            \
      ::nerio::assertFailedWithMessage(text, kLogTag, __func__, NERIO_FILE_, __LINE__, fmt, \
                                       ##__VA_ARGS__);                                      \
  } while (0)

class DirScan {
 public:
  DirScan(VELT* velt, VELT::DirEntry* cur, uint32_t start_cluster, bool formatting, int32_t depth);
  int run();

 private:
  struct LfnSlot {
    int64_t off = 0;       // card offset of the record
    uint8_t* p = nullptr;  // the record in the working copy
  };

  int prepare();
  int readChain();
  int record(int index);
  int emptyRecord(int index);
  int longNameRecord(int index);
  int openSequence(int index, int ord);
  int collect(int index, int ord);
  int shortNameRecord(int index);
  int loadSubdirectory(const std::shared_ptr<VELT::DirEntry>& child, int index);

  // Chain ownership at mount time (velt_load_claim.cpp): every cluster belongs to the first
  // entry that reaches it; later chains are cut before it.
  struct Claim {
    uint32_t clusters = 0;     // clusters the entry keeps
    const char* first_bad = nullptr;  // why the first cluster cannot be used (null: usable)
    bool first_shared = false;        // the first cluster is another entry's first cluster
    uint32_t cut_after = 0;    // cluster whose entry became an end of chain (0: no cut)
    uint32_t cut_old = 0;      // its raw entry before
    const char* cut_why = nullptr;
    std::vector<uint32_t> taken;  // clusters marked (folders only, for a rollback)
  };
  Claim claim(uint32_t first, uint64_t max_clusters, bool take, bool keep_list);
  void releaseClaim(const Claim& c);
  void noteRepair(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  uint64_t folderMaxClusters() const;
  int checkDotRecords();
  int fileRecord(int index, uint8_t* w, const std::string& name);
  bool takeOverRenameSource(uint32_t start, const std::string& where);
  int folderRecord(int index, uint8_t* w, bool dot, const std::string& name);
  void deleteWithLongName(int index);
  int loadPending();

  struct PendingDir {
    std::shared_ptr<VELT::DirEntry> entry;
    int index;
    std::vector<uint8_t*> lfn;  // its long-name records in the working copy
  };
  std::vector<PendingDir> pending_;
  bool claims_ = false;  // a mount-time build: chains are claimed as entries are found
  bool repaired_ = false;  // a repair that exclusive mode must refuse
  int finish();
  int writeBack();

  // Repair helpers.
  void markDeleted(int index) {
    work_[static_cast<size_t>(index) * DIR_RECORD_SIZE] = DIR_ENTRY_DELETED;
  }
  void markSlots(int from, int to);
  void applyRepairRule();
  void resetLfn();
  bool sequenceBelongsTo(int index) const;

  uint8_t* rec(int index) { return data_.data() + static_cast<size_t>(index) * DIR_RECORD_SIZE; }
  uint8_t* wrec(int index) { return work_.data() + static_cast<size_t>(index) * DIR_RECORD_SIZE; }
  int64_t recordOffset(int index) const;
  bool reserved() const { return velt_folder_ != nullptr; }
  std::string path() const { return cur_->getPath(); }

  // Reserved folders (velt_load_reserved.cpp): judged group by group after the whole folder
  // is read; repairs go to the working copy like any other.
  int fatal(ReservedFatal code);
  int matchReservedFolder();
  int scanReservedFolder();
  int sequenceLength(int short_slot, uint8_t checksum) const;
  void deleteSlots(int from, int to);
  bool claimChain(uint32_t first, int64_t bytes, std::vector<uint8_t>* claimed);
  bool loadRecording(int group, int short_slot, std::vector<uint8_t>* claimed);
  bool loadFreeFile(int group, int short_slot, std::vector<uint8_t>* claimed);
  void giveBackGroup(int group, int short_slot);
  void fillReservedFile(ReservedFile* file, int short_slot, uint32_t cluster, uint32_t time,
                        bool used);
  void reconcileReservedFolder();

  VELT* velt_;
  PBR* pbr_;
  VELT::DirEntry* cur_;
  uint32_t start_cluster_;
  bool formatting_;
  int32_t depth_;

  std::vector<uint32_t> chain_;  // the directory's clusters in chain order
  std::vector<uint8_t> data_;    // clusters as read; parsing reads only this
  std::vector<uint8_t> work_;    // working copy; repairs go here and are written back
  int entry_count_ = 0;
  int per_cluster_ = 0;  // records per cluster
  bool modified_ = false;

  bool lfn_mode_ = false;
  bool lfn_valid_ = false;
  int lfn_ent_count_ = 0;
  int lfn_ord_ = 0;
  int lfn_xord_ = 0;
  uint8_t lfn_chksum_ = 0;
  LfnSlot slots_[FAT32_LFN_ENTRY_COUNT_MAX];
  std::vector<uint16_t> lfn_units_;

  ReservedFolderDesc* velt_folder_ = nullptr;
  uint32_t reserved_file_size_ = 0;
  int detected_used_count_ = 0;
};

}  // namespace velt
