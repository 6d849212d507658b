// One open file or directory of the volume: the object behind a FUSE file handle and behind a
// direct-channel file number. Reads and writes go straight to the entry's clusters, one buffered
// transfer per run of consecutive clusters.
//
// Lock order: the entry's files_mutex_ before mutex_ (a reader that parks or completes a pending
// read holds both and calls __read); mutex_ is released before close takes the entry's
// files_mutex_; the PBR's fat_mutex_ last.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "fs/velt.h"

namespace velt {

// Bytes [offset, offset + length) of the card.
struct CardRun {
  int64_t offset;
  int64_t length;
};

// The descriptor from which the runs can be read as the card holds them, when what a read
// through the volume would return is exactly that: the backend has such a descriptor and no
// byte of the runs waits in the write buffer (the sector cache only ever holds what the card or
// the write buffer holds). -1 otherwise. Takes the volume's io_mutex_.
int cardFdFor(VELT& velt, const std::vector<CardRun>& runs);

class VELT::File : public std::enable_shared_from_this<VELT::File> {
 public:
  static constexpr uint32_t kClosedFileNo = 0xFFFFFFFF;

  // Made only by VELT::newFile. A write-mode file that is not direct holds one count of the
  // volume's FAT lock until it is closed or destroyed.
  File(VELT* velt, uint32_t file_no, bool dir_mode, bool for_write, bool direct, DirEntry* entry);
  virtual ~File();
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  int64_t fileSize();
  // Bytes read (0 at or past the end of the file), or a negative errno. __read expects mutex_
  // held.
  int read(void* buf, size_t size, int64_t off);
  int __read(void* buf, size_t size, int64_t off);
  // A read of up to `size` bytes at `off` as runs of card bytes, in file order, clamped as read
  // clamps: the bytes they cover or a negative errno. *fd is the descriptor to read the runs
  // from (cardFdFor), or -1 when the bytes must be read through memory (read) instead; only a
  // read with a descriptor counts as done.
  int readRuns(size_t size, int64_t off, std::vector<CardRun>* runs, int* fd);
  // Bytes written, or a negative errno. write also raises the entry's sizes and serves the
  // entry's waiting readers; __write takes mutex_ itself and leaves the sizes alone.
  int write(const void* buf, size_t size, int64_t off);
  // On a failure after part of the data went out, *partial (when given) says how much.
  int __write(const void* buf, size_t size, int64_t off, int64_t* partial = nullptr);
  int flush();
  // Makes everything this file holds survive a power cut, each step on the card before the
  // next begins: its data; its FAT entries on every copy (deferred entries of other writers go
  // along); its directory record with size, first cluster and times (with `publish`, a
  // taken-over reserved file not yet visible is published here); FSInfo. 0, or -EIO.
  int commit(bool publish);
  // True when data was written since the last commit.
  bool needsCommit();
  // 0 when this close released the file, -1 when it was already closed, -EIO when the file's
  // data or record could not be written.
  int close();
  // Bit 1: cache the sectors this file writes; bit 0: read cache mode (kept only).
  void setCacheMode(int mode);
  // Moves the channel position; returns the previous one.
  int64_t setPosition(int64_t pos);
  void setUsage(bool accessed, bool written);
  // Sets the file's size (truncate, ftruncate, O_TRUNC); see truncateEntry.
  int truncate(int64_t size);

  std::mutex mutex_;  // every member below during an operation
  uint32_t dir_mode_ = 0;
  uint32_t file_no_ = kClosedFileNo;  // kClosedFileNo once closed
  bool for_write_ = false;
  VELT* velt_ = nullptr;       // owning volume, not owned
  DirEntry* entry_ = nullptr;  // the entry; kept alive by entry_ref_
  // Keeps a removed entry (an unlinked folder still open, say) valid until the last handle goes.
  std::shared_ptr<DirEntry> entry_ref_;
  int64_t direct_offset_ = 0;  // byte after the last successful read or write
  uint8_t written_ = 0;
  uint8_t uncommitted_ = 0;  // data written since the last commit
  uint8_t accessed_ = 0;
  // Flushed by a close() and not read or written since: its release is on the way, and the
  // kernel may send it only after an unlink of the file that the closer made next.
  std::atomic<bool> closing_{false};
  uint8_t direct_ = 0;      // opened by the direct channel
  uint8_t fat_locked_ = 0;  // holds one count of the FAT lock
  int error_ = 0;           // errno of the last failed data write; sticks
  int open_count_ = 1;
  uint8_t write_cache_ = 1;
  uint8_t read_cache_ = 1;
  // A direct-channel read parked until the entry's data reaches its offset; owned by the file
  // while parked, completed by the entry's checkFiles or torn down by the channel.
  VELTWorkItem* pending_request_ = nullptr;
};

// Size changes of a file entry. Shrinking cuts the cluster chain (end of chain after the last
// cluster still needed) and frees the rest; growing allocates and zero-fills. The record takes
// the new size and write time. A file of a reserved folder keeps its clusters: size 0 restarts
// its recording, any other size is -EPERM. 0 or a negative errno.
int truncateEntry(VELT& velt, VELT::DirEntry& entry, int64_t size);
// Makes the file at least `end` bytes long (zero-filled), taking all missing clusters in one
// allocation so that they are contiguous where the card allows. 0 or a negative errno.
int allocateEntry(VELT& velt, VELT::DirEntry& entry, int64_t end);
// Writes the entry's short-name record from its members (size, first cluster, times,
// attributes). 0 or a negative errno.
int writeEntryRecord(VELT& velt, VELT::DirEntry& entry);

}  // namespace velt
