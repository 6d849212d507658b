// The volume: one mounted FAT32 partition of the card, with or without the VELT layout.
//
// The class is split over several source files by concern (see the section markers below);
// each section lists the members that its files own. Lock order: an entry's map_mutex_ before
// fat_mutex_ (PBR) before io_mutex_ before cache_mutex_; reserved_mutex_ before a reserved
// folder's children_mutex_; an entry's files_mutex_ before a file's mutex_ before a work
// item's mutex before response_mutex_.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <thread>
#include <unordered_map>

#include "fs/velt_driver.h"
#include "fs/velt_format_info.h"
#include "fs/velt_mbr.h"
#include "fs/velt_pbr.h"
#include "utils/Log.h"

namespace velt {

// Direct-channel operations (op_ of a record).
enum : uint32_t {
  kDirectOpWrite = 1,
  kDirectOpWriteEvent = 2,
  kDirectOpClose = 3,
  kDirectOpError = 4,
  kDirectOpOpen = 5,
  kDirectOpCreate = 6,
  kDirectOpRead = 7,
  kDirectOpReadEvent = 8,
  kDirectOpGetRealSize = 9,
  kDirectOpGetSize = 10,
  kDirectOpSplice = 11,
  kDirectOpSpliceEvent = 12,
};

class DirectBuffers;  // the channel's payload memory (velt_pipe_work.h)

// One direct-channel record inside the daemon, request or reply. Made with new; data_ is owned
// by the item: from `buffers` when given (counted against the channel's memory bound), else
// malloc'ed (velt_pipe.cpp).
struct VELTWorkItem {
  VELTWorkItem(int32_t fd, uint32_t op, int64_t offset, int32_t param, uint32_t payload_size,
               DirectBuffers* buffers = nullptr);
  ~VELTWorkItem();
  VELTWorkItem(const VELTWorkItem&) = delete;
  VELTWorkItem& operator=(const VELTWorkItem&) = delete;
  // Appends a write's continuation (or any payload); false when memory runs out.
  bool appendData(const void* data, uint32_t size, uint32_t new_size_offset);
  // Allocates a reply buffer of `size` bytes; false when memory runs out.
  bool allocData(uint32_t size);
  // Frees the payload; the item stays (a reply without data).
  void releaseData();
  // Counts `size` bytes for the reply a queued read will need (from `buffers` only), or gives
  // that count back.
  void reserveReply(uint32_t size);
  void releaseReply();

  std::mutex mutex_;  // data_, data_length_ and size_ during an append or a release
  int32_t fd_ = 0;
  uint32_t op_ = 0;
  int64_t offset_ = 0;
  uint32_t data_length_ = 0;  // bytes allocated
  uint32_t size_ = 0;         // bytes of valid data
  uint8_t* data_ = nullptr;
  int32_t param_ = 0;  // flags in requests, result in replies
  uint32_t new_size_offset_ = 0;  // provisional tail of a write
  uint64_t created_ = 0;  // monotonic microseconds of arrival
  uint64_t updated_ = 0;  // monotonic microseconds of the last append
  DirectBuffers* buffers_ = nullptr;  // where data_ comes from; null: malloc
  uint32_t reserved_ = 0;  // bytes counted in buffers_ for a reply not made yet
  // The receiver is reading a continuation into data_ (request_mutex_): the worker leaves the
  // item alone meanwhile.
  bool filling_ = false;
};

constexpr size_t VELT_BUFFER_SIZE = 0x100000;  // bytes in each transfer buffer
constexpr int VELT_SECTOR_SIZE = 512;

enum VELTState : int {
  kVELTStateUnloaded = 0,
  kVELTStateLoading = 1,
  kVELTStateLoaded = 2,
};

enum VELTOpMode : int {
  kVELTOpMount = 0,
  kVELTOpFormat = 1,
  kVELTOpExclusive = 2,
};

enum VELTResult : int {
  kVELTOk = 0,
  kVELTNeedFormat = 1,
  kVELTNoFAT32Partition = 2,
  kVELTNoDevice = 3,
  kVELTRetry = 4,
  kVELTBadMBR = 5,
  kVELTNoVolumeSize = 6,
  kVELTBadPBR = 7,
  kVELTNotVELT = 8,
  kVELTBadVELT = 9,
};

struct LoadRepairs;  // velt_load.h

class VELT : public std::enable_shared_from_this<VELT> {
 public:
  class DirEntry;  // velt_dirent.h
  class File;      // velt_file.h

  // ===== Core: creation, initialisation, teardown (velt.cpp) =====
  static std::shared_ptr<VELT> create(const std::string& device_path, int64_t cache_size,
                                      int op_mode, int extra, int* error);
  VELT(const std::string& device_path, int partition_number, int op_mode, int extra);
  virtual ~VELT();
  VELT(const VELT&) = delete;
  VELT& operator=(const VELT&) = delete;

  int init();
  void unload();  // caller holds mutex_
  bool isFormattingOp() const { return op_mode_ == kVELTOpFormat; }
  void setMountPoint(const std::string& path) { mount_point_ = path; }
  const char* stripMountPoint(const char* path) const;
  std::shared_ptr<File> getFile(int handle);

  // ===== Block I/O: driver, sector cache, buffered I/O (velt_driver, velt_cache, velt_io) =====
  // Card size from the driver in bytes: -1 with the device closed, 0 when the request fails.
  int64_t getDiskSize();
  // Allocates the three page-aligned transfer buffers; the volume's result code on failure.
  int allocBuffers();

  struct CacheEntry {
    CacheEntry* prev;  // previous entry of the same bucket, null at the head
    CacheEntry* next;  // next entry of the same bucket, null at the end
    uint32_t sector;
    uint8_t data[VELT_SECTOR_SIZE];
  };
  static uint32_t cacheHash(uint32_t sector);
  int __createCache(int64_t size_bytes);
  int createCache(int64_t size_bytes);
  void __destroyCache();
  void destroyCache();
  int lookupCache(uint32_t sector, void* dst);
  int updateCache(uint32_t sector, const void* src);
  // Drops a sector's copy (a write that does not cache its sectors makes the copy stale).
  void dropCache(uint32_t sector);
  int __updateCache(uint32_t sector, const void* src);  // caller holds cache_mutex_
  void __dropCache(uint32_t sector);                    // caller holds cache_mutex_
  void dumpCache(int line);

  // Buffered I/O on absolute card offsets.
  int __read(void* dst, int size, int64_t offset);
  int read(void* dst, int size, int64_t offset);
  // Small writes gather in the write buffer; a write that reaches at least kUncopiedWrite bytes
  // past the next 64 KiB boundary completes the buffer to that boundary and sends the aligned
  // rest to the card from src.
  static constexpr int64_t kUncopiedWrite = 256 * 1024;
  int write(const void* src, uint32_t len, int64_t offset, bool cache);
  // Writes the pending buffer out: 0 (also when nothing was pending), or -1 with errno EIO when
  // the driver failed; the buffer is empty afterwards either way.
  int __flush();
  int flush();
  void resetWriteBuffer();  // caller holds io_mutex_
  // Stores (cache) or drops the copies of sectors [first, first + count), whose new content is
  // at src; caller holds io_mutex_.
  void cacheSectors(int64_t first, int64_t count, const uint8_t* src, bool cache);
  bool fetchSector(int64_t sector, uint8_t* dst);  // caller holds io_mutex_
  // Writes out the pending write buffer, then has the backing store put everything written so
  // far on the card: the barrier between steps whose order must survive a power cut. 0, or -1
  // with errno EIO.
  int sync();

  // ===== Card layout: MBR, PBR, FSInfo, FAT (velt_mbr, velt_pbr, velt_fat, velt_mkfs) =====
  // Init steps from the partition table to the version check; a result code.
  int loadCardLayout();
  // The counted FAT lock: while held, FAT and FSInfo writes are deferred; the release that
  // brings the count to 0 writes every FAT copy and FSInfo.
  void lockFAT() {
    if (pbr_ != nullptr) pbr_->lockFAT();
  }
  void unlockFAT() {
    if (pbr_ != nullptr) pbr_->unlockFAT(true);
  }
  uint32_t clusterToSector(uint32_t cluster) const { return pbr_->clusterToSector(cluster); }
  // Absolute card offset of a cluster's first byte.
  int64_t clusterOffset(uint32_t cluster) const {
    return pbr_->sectorOffset(pbr_->clusterToSector(cluster));
  }
  bool isVELTPartition() const { return pbr_ != nullptr && pbr_->is_velt_partition_; }

  // ===== Mount points (velt_mount.cpp) =====
  // 1 when the mount table lists the device (or any instance of the daemon); sets mount_point_.
  // `table` is the mount table to read (tests give their own).
  int findMountedPoint(const char* table = "/proc/mounts");
  // 0 when nothing is (or remains) mounted, -1 when the mount could not be removed.
  int umount();
  // Copies the 12-byte signature, zero-terminated; its string length, or -1.
  int getSignature(char* buf, size_t size);

  // ===== Entry factories and path resolution (velt_tree.cpp) =====
  // Resolves a volume path ("/" and "" name the root); names compare without regard to case.
  std::shared_ptr<DirEntry> findEntry(const char* path);
  void initRootEntry(const std::shared_ptr<DirEntry>& root);
  // Empty on failure; `error` (when given) then holds the cause as a negative errno.
  std::shared_ptr<DirEntry> newEntry(const std::shared_ptr<DirEntry>& parent, const char* name,
                                     bool is_dir, int* error = nullptr);
  // Registers a new open file under the next handle; empty on failure.
  std::shared_ptr<File> newFile(bool dir_mode, bool for_write, bool direct,
                                const std::shared_ptr<DirEntry>& entry);
  // The descriptor of the reserved folder that is `entry` or directly holds it, or null.
  ReservedFolderDesc* entryToVELTFolder(const DirEntry* entry);
  ReservedFolderDesc* entryToVELTFolder(const std::shared_ptr<DirEntry>& entry) {
    return entryToVELTFolder(entry.get());
  }
  bool isInVELTFolder(const std::shared_ptr<DirEntry>& entry) {
    return entryToVELTFolder(entry.get()) != nullptr;
  }
  int getDirectFiles(std::list<std::shared_ptr<File>>& files);
  int listRootFiles(std::list<std::string>& names);
  // Takes an open file out of the table and its entry's open-file list; -ENOENT when unknown.
  int freeFile(uint32_t handle);

  // ===== Tree loading, building, reserved-folder checks (velt_load*.cpp, velt_build.cpp) =====
  // Reads one directory into `cur` (children, entry map) and loads its subdirectories;
  // irregular records are repaired in a working copy that is written back whole. 0, -1, or
  // -EBADF when a repair is needed in kVELTOpExclusive mode (nothing is written then).
  int loadDirEntries(DirEntry* cur, uint32_t start_cluster, bool formatting, int32_t depth);
  // Creates root_, loads the tree, frees unreached clusters, recreates missing reserved folders.
  int buildRoot();
  // Reduces the tree to the root (and its files when keep_files) and rebuilds the FAT around it.
  int rebuildRoot(bool keep_files);
  // Gives the reserved files that the load found without a usable chain a new one (once the
  // whole tree is loaded, so that no cluster still in use is taken). 0 or a negative errno.
  int restoreReservedFiles();

  // ===== Volume formatting (velt_format.cpp) =====
  // Lays down the VELT layout on a volume created in kVELTOpFormat: marks the boot record,
  // rebuilds the root and the FAT, creates the reserved folders with as many reserved files as
  // each one's share of the free space holds, and writes the MBR and the boot sectors (the FATs
  // and FSInfo follow when the format's FAT lock is released at unload). 0, or -1.
  // `mode` is kVELTFormatModeN or kVELTFormatModeP; `label` (at most 11 bytes) may be null.
  int format(const FormatInfo& info, uint32_t mode, const char* label);
  std::string volume_label_;  // label the format writes into the root; empty for none
  bool skip_umount_ = false;  // the caller made sure nothing is mounted: format unmounts nothing
  // True when the card behind `device_path` is in use: its partition node is mounted, or a
  // running daemon serves the same card (the same driver device after VELT_ROOT). `where` then
  // says by what. `mounts` and `proc` are the mount table and process directory to read.
  static bool isCardInUse(const std::string& device_path, std::string* where,
                          const char* mounts = "/proc/mounts", const char* proc = "/proc");
  // The same for a card or partition named by its own path (an image file or a device node):
  // mounted from that path, or served by a daemon whose driver device is that file.
  static bool isImageInUse(const std::string& path, std::string* where,
                           const char* mounts = "/proc/mounts", const char* proc = "/proc");

  // ===== Kernel caches (set by the front end, velt_tree.cpp) =====
  // Called with the path of an entry whose size, visibility or existence changed other than
  // through a callback of the front end (the direct channel, publication, recycling), so that
  // the attributes the kernel cached for it are dropped. Must not block on entry locks.
  void invalidateKernelCache(const DirEntry* entry);
  void invalidateKernelCache(const std::string& path);
  bool hasKernelCache();
  // Installs the hook, or cuts it with an empty one. The front end cuts it before the kernel
  // link's tables are freed; the cut waits for a call in flight, and no call starts after it.
  void setKernelInvalidate(std::function<void(const std::string&)> hook);
  std::shared_mutex kernel_invalidate_mutex_;  // guards kernel_invalidate_; held while it runs
  std::function<void(const std::string&)> kernel_invalidate_;

  // ===== Direct channel (velt_pipe.cpp) =====
  // Creates the pipes and starts the channel's threads; -1 when one already runs.
  int startDirectWriter();  // used by the front end
  // Stops and joins the channel's threads; nothing when they do not run.
  void stopDirectWriter();  // used by the volume core
  // Hands a finished item to the replier; -1 (item not taken) while the channel stops.
  int postDirectResponse(VELTWorkItem* item);
  // Requests waiting in normal_requests_ and in event_requests_, one consistent snapshot.
  void getDirectQueueLengths(uint32_t* normal_count, uint32_t* event_count);
  // Thread bodies: receiver, replier, worker.
  void pipe_reader();
  void pipe_writer();
  void direct_worker();
  // The next request to carry out, by queue priority, or null; caller holds request_mutex_.
  VELTWorkItem* __fetchRequest();
  // Writes out and drops the queued requests of `file` (all queues' requests when null); with
  // close_all also closes that file (every direct file when null). Takes request_mutex_.
  void flushAllRequests(const std::shared_ptr<File>& file, bool event, bool close_all);
  // Receiver's hand-over: merges a write into the growing write it continues, or queues the
  // item. Caller holds request_mutex_; the item is owned by the queues afterwards. True when
  // the worker has something new to look at.
  bool __queueRequest(VELTWorkItem* item);
  // The queue a request travels in. Caller holds request_mutex_.
  std::list<VELTWorkItem*>* __queueOf(uint32_t op, int32_t param);
  // The queued write that a write of `size` bytes at `offset` continues and may be appended
  // to, or null. Caller holds request_mutex_.
  VELTWorkItem* __mergeTarget(uint32_t op, int32_t fd, int64_t offset, uint32_t size);
  // A write that may still grow (or is being filled) and so is not taken yet.
  bool __mayGrow(const VELTWorkItem* request, uint64_t now) const;
  // The first request of `queue` the worker may take now, or end().
  std::list<VELTWorkItem*>::iterator __firstTakeable(std::list<VELTWorkItem*>& queue,
                                                     uint64_t now);
  // Microseconds until a queued write stops growing (at most an idle wait).
  uint64_t __nextFetchDelay() const;
  // Carries out one request; the reply to send, or null when the item was released or parked.
  VELTWorkItem* executeDirectRequest(VELTWorkItem* item);
  // Appends a reply to responses_ and wakes the replier (also while stopping).
  void queueDirectResponse(VELTWorkItem* item);

  // ===== Commit interval (velt_commit.cpp) =====
  // Every `seconds` (0: never), open files that were written since their last commit are
  // committed by a thread of the volume, so a power cut loses at most that much of a recording
  // in progress. The thread also writes the records closes owe (below), whatever `seconds`.
  // Stopped by stopCommitter and by unload.
  void startCommitter(int seconds);
  void stopCommitter();
  // One pass of that thread: commits every open file with uncommitted data, then writes the
  // owed records; how many files it committed.
  int commitOpenFiles();
  // Frees the chains of removed files once a sync has put their records' removal on the card
  // (the commit thread, unload, and an allocation that finds nothing else free). 0 or -1.
  int freeRemovedChains();

  // ===== Records owed by closes (velt_commit.cpp) =====
  // The last close of a file written since its last commit does not sync the card for its
  // record: the record is owed, and goes out after the next sync (writeOwedRecords: the commit
  // thread a few milliseconds after the close, commitOpenFiles and unload), so that closes
  // coming close together share one sync. Any record of such an entry built before then (a
  // rename, a touch, a truncation, a later close) first settles it (settleRecord). Caller of
  // oweRecord holds the entry's files_mutex_, after the file's data and chain were handed to
  // the card.
  void oweRecord(const std::shared_ptr<DirEntry>& entry);
  // What the close left owed, done now: once a sync has put everything written before the
  // record became owed on the card, the record goes out where the entry says it is (not for a
  // removed entry). Nothing when the entry owes nothing. Whether it owed one (the record may
  // still sit in the write buffer). Caller holds its files_mutex_.
  bool settleRecord(DirEntry& entry);
  // Syncs, writes every owed record, syncs again. 0, or -1 when a sync failed (the records
  // stay owed).
  int writeOwedRecords();

  // ===== Data members =====
  std::mutex mutex_;  // guards state_; serialises path walks
  int state_ = kVELTStateUnloaded;
  int64_t disk_size_ = 0;  // partition size in bytes
  int device_fd_ = -1;
  int bytes_per_sector_ = VELT_SECTOR_SIZE;
  std::string device_path_;
  std::string mount_point_;
  int partition_number_ = 0;
  std::mutex reserved_mutex_;  // reserved-file accounting and its FSInfo writes
  int op_mode_ = kVELTOpMount;
  FormatInfo format_info_;
  int format_mode_ = kVELTFormatUnknownMode;
  int extra_ = 0;  // kVELTOpFormat: bit 0 keeps the root's files
  MBR* mbr_ = nullptr;  // owned
  PBR* pbr_ = nullptr;  // owned; holds the counted FAT lock
  std::shared_ptr<DirEntry> root_;
  std::mutex files_mutex_;  // guards next_file_handle_ and open_files_
  int next_file_handle_ = 3;
  std::unordered_map<uint32_t, std::shared_ptr<File>> open_files_{10};
  std::mutex io_mutex_;  // buffered I/O, flushes and the transfer buffers
  uint8_t* read_buffer_ = nullptr;
  uint8_t* write_buffer_ = nullptr;
  uint8_t* sector_buffer_ = nullptr;
  bool partition_created_ = false;  // a format operation had to create the partition entry
  // The load found damage too wide to repair safely: nothing is written to the card.
  std::atomic<bool> read_only_{false};
  // Set by the checker: repair even what looks like wholesale damage instead of going read-only.
  bool repair_wholesale_ = false;
  LoadRepairs* load_repairs_ = nullptr;  // repairs the tree build holds back (velt_load.h)

  // Block I/O members.
  std::unique_ptr<BlockDriver> driver_;  // backend behind device_fd_
  int64_t write_start_sector_ = -1;  // first sector of the pending write buffer; -1 when empty
  uint32_t write_ptr_ = 0;  // bytes of the write buffer that carry data
  // Bytes at the start of the write buffer that were never filled (the buffer is placed on a
  // 64 KiB boundary but data may begin later); a multiple of the sector size, never written.
  uint32_t write_skip_ = 0;
  std::mutex cache_mutex_;  // the sector cache; always taken after io_mutex_
  int32_t cache_size_ = 0;  // entries; kept over a release so a reset rebuilds the same size
  int32_t cache_hash_size_ = 0;  // buckets, a power of two >= 1024
  CacheEntry* cache_pool_ = nullptr;
  CacheEntry* next_cache_entry_ = nullptr;
  CacheEntry** cache_lrus_ = nullptr;  // replacement ring of cache_size_ + 1 slots
  int32_t start_lru_index_ = 0;
  int32_t end_lru_index_ = 0;
  CacheEntry** cache_hash_table_ = nullptr;

  // Card layout members.

  // Commit interval members.
  std::thread commit_thread_;
  std::mutex commit_mutex_;  // commit_stop_
  std::condition_variable commit_cv_;
  bool commit_stop_ = false;
  // Successful syncs so far, counted under io_mutex_.
  std::atomic<uint64_t> sync_count_{0};
  // Owed records: the entry, kept alive until its record is out, and the sync count when it
  // became owed (a sync counted after that one covers its data).
  std::mutex owed_mutex_;
  std::unordered_map<const DirEntry*, std::pair<std::shared_ptr<DirEntry>, uint64_t>>
      owed_records_;
  std::atomic<bool> records_owed_{false};  // owed_records_ is not empty

  // Direct channel members.
  std::atomic<bool> direct_stop_{false};  // stop request for the three threads
  std::atomic<bool> responder_open_{false};  // "/tmp/velts" is open
  std::atomic<bool> receiver_open_{false};   // "/tmp/veltw" is open
  std::thread pipe_reader_thread_;
  // VELT_BUFFER_SIZE bytes (made at start): payloads that cannot be buffered are read into it
  // and dropped.
  std::unique_ptr<uint8_t[]> drain_buffer_;
  std::thread pipe_writer_thread_;
  std::mutex response_mutex_;  // responses_, responder_reset_, responder_retry_; taken last
  std::condition_variable response_cv_;
  std::list<VELTWorkItem*> responses_;
  // Set by the receiver when its client went away: the replier drops the connection, and with
  // it stale replies, before the next client is served.
  bool responder_reset_ = false;
  // Set by the receiver when requests arrive while the replier waits for a reader: the client
  // has its reading end open by now, so the replier tries again at once.
  bool responder_retry_ = false;
  std::thread direct_worker_thread_;
  std::mutex request_mutex_;  // the three request queues, last_normal_fetch_, direct_busy_,
                              // items' filling_
  std::condition_variable request_cv_;  // wakes the worker
  std::condition_variable direct_idle_cv_;  // signalled when the worker finishes a request
  std::list<VELTWorkItem*> control_requests_;  // open and create
  std::list<VELTWorkItem*> normal_requests_;
  std::list<VELTWorkItem*> event_requests_;
  uint64_t last_normal_fetch_ = 0;  // microseconds, direct_clock_
  bool direct_busy_ = false;  // the worker carries out a request taken from a queue
  uint32_t splice_buffer_size_ = 0;
  uint8_t* splice_buffer_ = nullptr;  // malloc'ed; only grows
  // Clock of the scheduling decisions in microseconds; empty means nerio::monotonicMicros.
  // Tests drive it.
  std::function<uint64_t()> direct_clock_;
  // Payload memory of the channel's items; its byte count is what the receiver bounds.
  std::shared_ptr<DirectBuffers> direct_buffers_;
  // The receiver stops reading requests while the items hold more bytes than this.
  int64_t direct_held_max_ = 64ll << 20;
  // A queued write is taken once it is this old, however it still grows (microseconds).
  uint64_t direct_max_age_us_ = 1000000;
  // Times the receiver stopped reading because of direct_held_max_, and its reads of the
  // request pipe.
  std::atomic<uint64_t> direct_pauses_{0};
  std::atomic<uint64_t> direct_reads_{0};
};

}  // namespace velt
