// One file or folder of the volume, and the 32-byte directory records it is stored in.
//
// A directory owns its children through shared pointers; a child points back to its directory
// with a plain pointer. Each entry keeps the clusters of its chain (cluster map) and, for a
// directory, one byte per 32-byte slot (entry map), so that no operation walks the FAT or scans
// the card to find data or free slots.
#pragma once

#include <array>
#include <cstdint>
#include <ctime>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "fs/velt.h"
#include "fs/velt_compact.h"

namespace velt {

constexpr int DIR_RECORD_SIZE = 32;
constexpr uint8_t DIR_ENTRY_RESERVED_CHAR = 6;  // slot taken by a running creation
constexpr uint8_t DIR_ENTRY_DELETED = 0xE5;
constexpr uint8_t DIR_ENTRY_FREE = 0x00;
constexpr int VELT_LFN_ENTRY_COUNT_MAX = 3;  // long-name records of a reserved file
constexpr int kLfnRecordsMax = 20;  // long-name records an entry can have (260 code units)
constexpr int kLfnCharsPerRecord = 13;

enum : uint8_t {
  kAttrReadOnly = 0x01,
  kAttrHidden = 0x02,
  kAttrSystem = 0x04,
  kAttrVolumeId = 0x08,
  kAttrDirectory = 0x10,
  kAttrArchive = 0x20,
  kAttrLongName = 0x0F,
};

// Short-name record fields.
namespace rec {
constexpr int kName = 0, kAttr = 11, kCaseFlags = 12, kCreateTenths = 13, kCreateTime = 14,
              kCreateDate = 16, kAccessDate = 18, kClusterHigh = 20, kWriteTime = 22,
              kWriteDate = 24, kClusterLow = 26, kSize = 28;
// Long-name record fields.
constexpr int kLfnSeq = 0, kLfnChars1 = 1, kLfnAttr = 11, kLfnType = 12, kLfnChecksum = 13,
              kLfnChars2 = 14, kLfnCluster = 26, kLfnChars3 = 28;
constexpr uint8_t kLfnLast = 0x40;  // added to the sequence of the record farthest from the name
// Creation tenths (valid 0 to 199) of a file record that a replacing rename is moving onto another
// record: where a cut leaves both pointing at one chain, the load keeps the other one.
constexpr uint8_t kRenameSource = 0xFF;
// Marks a short-name record deleted; the name's first letter survives in the creation tenths.
inline void markDeleted(uint8_t* record, const char* short_name) {
  record[kName] = DIR_ENTRY_DELETED;
  record[kCreateTenths] = static_cast<uint8_t>(short_name[0]);
}
}  // namespace rec

// Name rules, short names and FAT times (velt_dirent_names.cpp).
bool isValidFileName(const char* name);
bool isValidShortName(const char* name);
bool isShortNameByte(uint8_t byte);
uint8_t shortNameChecksum(const uint8_t* name11);
// "README.TXT" -> "README  TXT". A first byte 0xE5 is stored as 0x05.
void shortNameToName83(const char* short_name, uint8_t* out11);
time_t fatToTime(uint16_t date, uint16_t time);
uint16_t timeToFatDate(time_t t);
uint16_t timeToFatTime(time_t t);
// UTF-8 -> UTF-16 code units of a long name, with the terminator unit added when the count is
// not a multiple of 13. False when the text is not valid UTF-8.
bool longNameUnits(const std::string& name, std::vector<uint16_t>* units, size_t* name_units);
// Builds the long-name record of sequence `seq` (1-based, without the last-record bit).
void buildLfnRecord(const std::vector<uint16_t>& units, int seq, bool last, uint8_t checksum,
                    uint8_t* out32);
// The code units a long-name record holds, in order (terminator and padding included).
void lfnRecordUnits(const uint8_t* record, uint16_t* out13);
// Long-name records a name needs; `units` receives its UTF-16 code units with the terminator.
// -EINVAL when the name is not valid UTF-8.
int longNameRecordCount(const char* name, std::vector<uint16_t>* units);
// A unique 8.3 short name for `file_name` ("REPORT.PDF", "MYDOCU~1.DOC"); `taken` tells
// whether a candidate is in use. -1 when the name is not valid UTF-8.
int makeShortName(const char* file_name, const std::function<bool(const std::string&)>& taken,
                  std::string* short_name);

// Holds a short name chosen for a directory until the entry that carries it has joined the
// directory, so that concurrent creators and moves never choose the same one.
class ShortNameReservation {
 public:
  ShortNameReservation() = default;
  ~ShortNameReservation();
  ShortNameReservation(const ShortNameReservation&) = delete;
  ShortNameReservation& operator=(const ShortNameReservation&) = delete;
  // Chooses and holds a unique short name in `dir` (an `ignore`d child does not count).
  int reserve(VELT::DirEntry* dir, const char* file_name, const VELT::DirEntry* ignore,
              std::string* short_name);
  void release();

 private:
  const VELT::DirEntry* dir_ = nullptr;
  std::string name_;
};

// A reserved file of a reserved folder (its preallocated records and clusters).
struct ReservedFile {
  int64_t dir_ent_disk_off = 0;
  int32_t lfn_count = 0;
  int64_t lfn_disk_offsets[VELT_LFN_ENTRY_COUNT_MAX] = {};
  uint32_t start_cluster = 0;
  int32_t entry_index_ = 0;
  uint32_t taken_time = 0;  // time of the last takeover
  bool used_ = false;
  uint32_t size = 0;
};

// Name index of a large directory: one key per child name (the long name, and the short name
// when it differs), the hash of its case-folded text above the child's position, sorted. A
// lookup checks the names of the candidates its hash gives, so a key that lags behind a rename
// can only miss, never answer wrongly.
struct ChildIndex {
  std::vector<uint64_t> keys;
  size_t count = 0;  // children the keys describe; another size means the index is stale
};

// Children in record order (a vector: 16 bytes a child, rather than a list's 48), with the name
// index of a directory large enough to need one.
struct ChildList : std::vector<std::shared_ptr<VELT::DirEntry>> {
  std::unique_ptr<ChildIndex> index;
};

class VELT::DirEntry {
 public:
  explicit DirEntry(VELT* velt);
  ~DirEntry();
  DirEntry(const DirEntry&) = delete;
  DirEntry& operator=(const DirEntry&) = delete;

  bool isDir() const { return is_dir_; }
  bool isArchive() const { return !is_dir_ && !is_volume_; }
  bool isDotEntry() const { return short_name_ == "." || short_name_ == ".."; }

  // Records.
  int init(const char* name, const char* short_name, uint8_t attr, const uint8_t* record);
  int touch(time_t atime, time_t mtime);
  int update(bool is_accessed, bool is_modified, uint8_t* record_out);
  int update2(bool is_accessed, bool is_modified);
  std::string getPath() const;
  // Stamps access (and modification) times with the current time, in memory.
  void stampNow(bool is_accessed, bool is_modified);
  // Fills bytes 0..11 and 14..31 of a short-name record from the members. While a close owes
  // the record, it is first put on the card where the entry says it is (VELT::settleRecord).
  void fillRecord(uint8_t* record);
  // The whole short-name record as the card should hold it (fillRecord and bytes 12 and 13).
  void buildRecord(uint8_t* record) {
    fillRecord(record);
    record[rec::kCaseFlags] = case_flags_;
    record[rec::kCreateTenths] = create_tenths_;
  }
  // Keeps bytes 12 and 13 of `record` (what the other members do not hold).
  void keepRecord(const uint8_t* record) {
    case_flags_ = record[rec::kCaseFlags];
    create_tenths_ = record[rec::kCreateTenths];
  }
  // The pointer that owns this entry (held by its directory, or the volume for the root); empty
  // once the entry has left the tree.
  std::shared_ptr<DirEntry> shared_from_this();

  // Cluster map and entry map (velt_dirent_map.cpp).
  int loadClusterMap();
  int __clusterNumberToIndex(uint32_t cluster);
  int __diskOffsetToEntryIndex(int64_t disk_off);
  int diskOffsetToEntryIndex(int64_t disk_off);
  int64_t entryIndexToDiskOffset(int entry_index);
  int changeEntryMapValue(const std::shared_ptr<DirEntry>& entry, int64_t disk_off, uint8_t org,
                          uint8_t value);
  int alloc(int request_dir_entry_count, bool reserve_it);
  int64_t getCluster(uint32_t cluster_map_index, bool allocate);
  // The cluster at `cluster_map_index` of the chain and, in *count, how many of the chain's
  // next clusters (at most max_count, at least 1) follow it on the card without a gap: one
  // look at the map for a whole run. FAT_EOC past the chain's end, -1 when the map cannot load.
  int64_t clusterRun(uint32_t cluster_map_index, uint32_t max_count, uint32_t* count);
  int allocClusters(int count, bool set_zeros);
  int write(int entry_index, const uint8_t* record);
  // Packs the directory's records from slot 0 (with a volume-label record when given), frees
  // the clusters no longer needed and reads the directory again.
  int rebuildDirCluster(const char* volume_label);

  // Children (velt_dirent_children.cpp).
  int addChild(const std::shared_ptr<DirEntry>& child);
  int removeChild(const std::shared_ptr<DirEntry>& child, bool release);
  int getChildCount();
  // The child named `name` (long or short name, any letter case); first in record order.
  std::shared_ptr<DirEntry> findChild(const char* name);
  // Renames `child` (a child of this directory) in memory, its index keys with it.
  void setChildNames(DirEntry& child, const char* name, const char* short_name);
  // Drops the name index (it is built again on the next lookup): a child's names were set
  // behind it.
  void dropChildIndex();
  void clear();
  void removeAllChildren();
  // Empty on failure; `error` (when given) then holds a negative errno.
  std::shared_ptr<DirEntry> createChild(const char* file_name, bool reserved, bool is_dir,
                                        uint8_t* entry_buffer, int* error = nullptr);
  // Whether a child other than `ignore` has the short name `candidate` (letter case as stored).
  bool hasShortName(const std::string& candidate, const DirEntry* ignore);
  int delChild(const std::shared_ptr<DirEntry>& child);
  // Slot helpers of creation, deletion and moves. claimReservedSlot turns a slot taken by alloc
  // into `value`; giveBackSlots returns the slots of a failed creation (those already written, or
  // followed by records in use, are marked deleted); writeLongNameRecords places `entry`'s
  // long-name records from slot `first` on (into `entry_buffer` when given).
  int claimReservedSlot(int entry_index, uint8_t value);
  // Marks the long-name records of `child` (a child of this directory) deleted on the card and
  // in the map, so that no orphaned long name is left behind its deleted short-name record.
  void deleteLongNameRecords(const DirEntry& child);
  void giveBackSlots(int first, int count, int written, uint8_t* entry_buffer);
  int writeLongNameRecords(const std::shared_ptr<DirEntry>& entry,
                           const std::vector<uint16_t>& units, int lfn_count, int first,
                           const uint8_t* name11, uint8_t* entry_buffer, int* written);

  // Moving (velt_dirent_move.cpp): called on the directory holding `child`; renames it into
  // `to_parent` (this directory or another) without touching its data. 0 or a negative value.
  int moveChild(const std::shared_ptr<DirEntry>& child, const std::shared_ptr<DirEntry>& to_parent,
                const char* new_name);
  // Renames the file `child` onto the file `target` of `to_parent`: target's record takes over
  // child's chain, then child's records are deleted, then target's old chain is freed. -EBUSY
  // while target is open.
  int replaceChild(const std::shared_ptr<DirEntry>& child, const std::shared_ptr<DirEntry>& to_parent,
                   const std::shared_ptr<DirEntry>& target);

  // Open files of this entry (velt_dirent_files.cpp).
  int addFile(const std::shared_ptr<File>& file);
  int removeFile(const std::shared_ptr<File>& file);
  // Frees the clusters a removal kept for open files once the last of them has gone.
  void freeKeptChain();
  // With files_mutex_ held: 0 when no handle is open on this file, or when every open one is
  // closing (its release on the way) and `closing_ok`; else -EBUSY, logged.
  int busyUnlessClosing(bool closing_ok) const;
  // Completes the parked reads that the data written so far can serve; caller holds
  // files_mutex_. Returns how many were completed.
  int checkFiles();

  // Reserved folders and reserved files (velt_dirent_reserved.cpp).
  int createReservedFolder(ReservedFolderDesc* desc);  // on the root
  int secure(uint32_t bytes, uint8_t* record_out);
  int secure2();
  int getVELTFileIndex(int64_t disk_off);
  std::shared_ptr<DirEntry> findVELTChild(int64_t disk_off);
  int removeVELTFile(int64_t disk_off, uint8_t* first_char);
  // createChild's path for a file created in a reserved folder (this): takes over a free
  // reserved file, else the oldest idle one. Empty on failure with `error` set.
  std::shared_ptr<DirEntry> takeOverReservedFile(const char* file_name, uint8_t* entry_buffer,
                                                 int* error);
  // delChild's path for a file of a reserved folder (this), reserved_mutex_ held: gives the
  // records and clusters back to the reserved file instead of freeing them.
  int __delReservedChild(const std::shared_ptr<DirEntry>& child);

  // Laid out by size to keep padding out: the whole tree stays in memory. Members only a
  // directory (or an open file) fills are held out of line (OutOfLine).
  EntryName name_;
  VELT* velt_;  // owning volume, not owned
  DirEntry* parent_ = nullptr;  // containing directory, not owned
  ReservedFolderDesc* velt_folder_ = nullptr;  // set on a reserved folder
  int64_t size_ = 0;
  int64_t real_size_ = 0;  // valid data; below size_ while a reserved file is filled
  int64_t dir_ent_disk_off_ = 0;  // card offset of the short-name record; 0 for the root
  // Card offsets of the long-name records, by sequence number - 1 (element 0 sits next to the
  // short-name record). Only as long as the entry has long-name records.
  LfnOffsets lfn_disk_offsets_;
  // Long-name records built by a reserved-file takeover, in slot order; rare, so out of line.
  std::unique_ptr<std::array<std::array<uint8_t, DIR_RECORD_SIZE>, kLfnRecordsMax>> lfn_records_;
  OutOfLine<std::vector<uint32_t>> cluster_map_;
  OutOfLine<std::vector<uint8_t>> entry_map_;
  OutOfLine<ChildList> children_;
  OutOfLine<std::vector<ReservedFile>> velt_reserved_files_;
  OutOfLine<std::list<std::shared_ptr<File>>> files_;
  int32_t lfs_entry_start_index_ = -1;
  uint32_t start_cluster_ = 0;
  // Inode number the mount shows; given on first use, never reused while the daemon runs.
  uint32_t ino_ = 0;
  Stamp created_, accessed_, modified_;
  EntryMutex map_mutex_;  // cluster_map_loaded_, cluster_map_, entry_map_
  EntryMutex children_mutex_;  // children_
  EntryMutex files_mutex_;  // files_; held while size_ and real_size_ grow
  uint16_t create_time_, create_date_, access_date_, write_date_, write_time_;
  ShortName short_name_;
  uint8_t case_flags_ = 0;  // byte 12 of the short-name record
  uint8_t create_tenths_ = 0;  // byte 13
  uint8_t attr_ = 0;
  int8_t lfn_ent_count_ = 0;  // long-name records, at most kLfnRecordsMax
  bool is_dir_ = false;
  bool is_volume_ = false;
  bool valid_ = true;
  bool read_only_ = false;
  bool cluster_map_dirty_ = false;
  bool is_reserved_ = false;
  bool is_secured_ = false;
  bool cluster_map_loaded_ = false;  // guarded by map_mutex_
  // Set, under files_mutex_, once the entry's records leave the card (deleted, or replaced by a
  // rename): its open files write no record any more. kRemovedKeepingChain: its clusters stay
  // allocated for the open files and go with the last of them.
  uint8_t removed_ = 0;
  static constexpr uint8_t kRemoved = 1, kRemovedKeepingChain = 2;
};

}  // namespace velt
