// The direct channel's wire format: record header, splice payload, write parameter and the
// marker search that finds the start of a record in a byte stream. Shared by the daemon's
// threads (velt_pipe.cpp), the client library and the tests.
//
// A record is a 28-byte little-endian header followed by `length` - 28 bytes of payload:
//   0 marker FD EC B9 A8 | 4 u32 length | 8 i32 fd | 12 u32 op | 16 i64 offset | 24 param
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

namespace velt {

constexpr const char kDirectRequestPipe[] = "/tmp/veltw";  // client -> daemon
constexpr const char kDirectReplyPipe[] = "/tmp/velts";    // daemon -> client
// Taken (flock, exclusive) by a client for as long as it uses the pipes: one client at a time.
constexpr const char kDirectLockFile[] = "/tmp/veltw.lock";

constexpr uint8_t kDirectMarker[4] = {0xFD, 0xEC, 0xB9, 0xA8};
constexpr uint32_t kDirectHeaderSize = 28;
constexpr uint32_t kDirectSpliceSize = 16;  // VELT_DIRECT_SPLICE

// Header field offsets.
namespace direct_hdr {
constexpr int kMarker = 0, kLength = 4, kFd = 8, kOp = 12, kOffset = 16, kParam = 24;
}

// Flag bits of param_ (for writes: after the receiver has split off new_size_offset).
enum : uint32_t {
  kDirectFlagEvent = 0x1,   // close: the file's writes travel in the event queue
  kDirectFlagReady = 0x2,   // write: take it without waiting for further appends
  kDirectFlagUnlink = 0x4,  // close: delete the file afterwards
  kDirectFlagSecure = 0x8,  // write: publish a taken-over reserved file after the write
};

// Write merging: a queued write grows by appends for this long after its last append...
constexpr uint64_t kDirectGrowUs = 33334;
// ...up to this many bytes.
constexpr uint32_t kDirectMergeMax = 0xFFFFF;
// A normal request waiting this long is taken ahead of a stream of event requests.
constexpr uint64_t kDirectFairnessUs = 333330;
// Largest payload the receiver buffers; a longer one is read and dropped like one that finds
// no memory (no client needs more; a stray length must not make the daemon take gigabytes).
constexpr uint32_t kDirectPayloadMax = 64u << 20;
// Receiver's wait for data before it looks at the stop flag again.
constexpr int kDirectSelectUs = 300000;
// Requests of a queue the worker looks at to find one it may take.
constexpr int kDirectScanMax = 64;
// Worker's longest sleep while only growing writes are queued.
constexpr uint64_t kDirectIdleWaitUs = 100000;

struct DirectHeader {
  uint32_t length = kDirectHeaderSize;  // whole record, header included
  int32_t fd = 0;
  uint32_t op = 0;
  int64_t offset = 0;
  uint32_t param = 0;  // raw word: writes carry new_size_offset low, flags high
};

// Writes the marker and the fields into out[0..28).
void encodeDirectHeader(const DirectHeader& header, uint8_t* out);
// Reads the fields of in[0..28); the marker is not looked at (see hasDirectMarker).
DirectHeader decodeDirectHeader(const uint8_t* in);
bool hasDirectMarker(const uint8_t* in);

// The write parameter: new_size_offset in the low 16 bits, flags in the high 16 bits.
constexpr uint32_t directWriteParam(uint32_t new_size_offset, uint32_t flags) {
  return (new_size_offset & 0xFFFF) | ((flags & 0xFFFF) << 16);
}
constexpr uint32_t directWriteNewSizeOffset(uint32_t param) {
  return param & 0xFFFF;
}
constexpr uint32_t directWriteFlags(uint32_t param) {
  return param >> 16;
}

// A queued write as merging sees it: where it starts, the bytes it holds, the provisional tail
// its last record ended with, and its flags.
struct DirectQueuedWrite {
  uint32_t op = 0;
  int32_t fd = 0;
  int64_t offset = 0;
  uint32_t size = 0;
  uint32_t tail = 0;
  uint32_t flags = 0;
};
// The merge rule: a write record of `size` bytes (op, fd, offset) is appended to `queued` when
// both are writes of the same file and operation, `queued` is not ready, the record starts
// where queued's provisional tail starts, and the two together stay within kDirectMergeMax.
bool directWriteContinues(const DirectQueuedWrite& queued, uint32_t op, int32_t fd,
                          int64_t offset, uint32_t size);

// VELT_DIRECT_SPLICE, the 16-byte payload of the splice operations.
struct DirectSplice {
  uint32_t out_fd = 0;
  int64_t out_offset = 0;
  uint32_t size = 0;  // most bytes to copy
};
void encodeDirectSplice(const DirectSplice& splice, uint8_t* out);
// False unless `size` is exactly kDirectSpliceSize.
bool decodeDirectSplice(const uint8_t* in, size_t size, DirectSplice* splice);

// Operation classes.
bool isDirectWriteOp(uint32_t op);                       // 1, 2
bool isDirectReadOp(uint32_t op);                        // 7, 8
bool isDirectControlOp(uint32_t op);                     // 5, 6: open, create
bool isDirectEventQueueOp(uint32_t op, uint32_t param);  // travels in the event queue

// Finds the record marker in a byte stream, one byte at a time. A byte that breaks a partial
// match restarts the search and is not itself tried as the first marker byte.
class DirectMarkerSearch {
 public:
  // True when `byte` completes the marker (the search starts over afterwards).
  bool push(uint8_t byte);
  void reset() { matched_ = 0; }
  int matched() const { return matched_; }

 private:
  int matched_ = 0;
};

// Scans bytes for the marker, going on from where `search` stands. True when a marker ends in
// them; `*used` is then the index just past it, otherwise `size` (a partial match is kept).
bool findDirectMarker(DirectMarkerSearch& search, const uint8_t* data, size_t size, size_t* used);

// What a record's 28 header bytes say about it.
enum class DirectHeaderCheck {
  kOk,
  kBrokenMarker,  // not a record: back to the marker search
  kShortLength,   // length below the header's own: back to the marker search
  kTooLarge,      // payload above kDirectPayloadMax: answered with -EFBIG and skipped
};
DirectHeaderCheck checkDirectHeader(const uint8_t* in, DirectHeader* header);

// The channel's framing: finds the marker, takes each record's header, and goes back to the
// marker search on a header that is not a record. The receiver feeds it from the pipe;
// parseDirectStream from a byte string.
class DirectFramer {
 public:
  enum class Step {
    kMore,    // bytes taken, no header yet
    kSynced,  // a marker found: the rest of its header comes next
    kHeader,  // a header taken (*check kOk or kTooLarge): its payload comes next
    kBroken,  // a header that is not a record (*check says why): searching again
  };
  // The bytes the next step needs at least (fewer only while it looks for a marker).
  size_t wanted() const;
  // Takes from data[0, size), which holds at least wanted() bytes; *used says how many.
  Step step(const uint8_t* data, size_t size, size_t* used, DirectHeader* header,
            DirectHeaderCheck* check);
  // The stream ended (a client went away): the next one is searched for a marker.
  void lose();

 private:
  enum class State { kSearching, kMarkerFound, kSynced };
  State state_ = State::kSearching;
  DirectMarkerSearch search_;
};

// The receiver's framing over a byte string, without a volume or a pipe: calls `record` for
// every record it would take, in order (the payload may end short at the end of the bytes).
struct DirectStreamCounts {
  size_t records = 0;    // taken, too large ones included
  size_t skipped = 0;    // bytes passed over while looking for a marker
  size_t broken = 0;     // headers that sent the search back (broken marker, short length)
  size_t too_large = 0;  // records answered with -EFBIG
};
DirectStreamCounts parseDirectStream(
    const uint8_t* data, size_t size,
    const std::function<void(const DirectHeader&, const uint8_t* payload, size_t payload_size)>&
        record);

}  // namespace velt
