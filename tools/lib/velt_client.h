// A client of velt.fuse's direct channel: the two named pipes, records in both directions, and
// the operations with their replies.
//
// Replies arrive in the order the daemon finishes requests, not in the order they were sent.
// The client therefore tags every request that gets a reply (open and create carry a tag in
// fd, size queries and closes in offset) and keeps replies it is not waiting for yet; error
// replies of writes, closes and splices are collected for takeErrors().
//
// One client at a time: connect() takes an exclusive lock on the lock file beside the pipes
// (flock) and fails with -EBUSY while another client holds it; disconnect() lets it go. The
// pipes are refused unless they are named pipes (a link or a regular file in their place is
// not followed).
//
// Sending is thread-safe (a record goes out whole); receiving replies is for one thread at a
// time. connect() ignores SIGPIPE for the process so that a daemon that goes away shows up as
// an error, not a signal.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

struct iovec;

#include "fs/velt_pipe.h"

namespace velt::client {

struct Reply {
  DirectHeader header;
  std::vector<uint8_t> payload;
};

class DirectClient {
 public:
  DirectClient() = default;
  ~DirectClient();
  DirectClient(const DirectClient&) = delete;
  DirectClient& operator=(const DirectClient&) = delete;

  // Opens the reply pipe, then the request pipe, waiting up to timeout_ms for the daemon's
  // receiver. The paths honour VELT_ROOT. 0 or a negative errno.
  int connect(int timeout_ms = 5000);
  void disconnect();
  bool connected() const { return request_fd_ >= 0 && reply_fd_ >= 0; }

  // One record; header.length is set from the payload size. 0 or a negative errno.
  int send(DirectHeader header, const void* payload, size_t size);
  // With `bytes` > 0, small records (below 16 KiB) are gathered and sent together once that
  // many bytes are waiting, and before any wait for a reply (flush() sends them at once). A stream
  // of small records then costs the daemon a wake-up per batch instead of one per record.
  void setBatching(size_t bytes) { batch_bytes_ = bytes; }
  int flush();
  // Bytes as they are, for tests of the daemon's framing.
  int sendRaw(const void* bytes, size_t size);
  // The next reply record, finding the marker again after stray bytes. timeout_ms < 0 waits
  // for ever. 0, -ETIMEDOUT, or -EPIPE when the daemon closed the reply pipe.
  int receive(Reply* reply, int timeout_ms);

  // Operations with a reply: the result as the daemon gives it (file number, 0 or size), or a
  // negative errno (-ETIMEDOUT when no reply came in time).
  int open(const std::string& path, int cache_mode = 0, int timeout_ms = -1);
  int create(const std::string& path, int cache_mode = 0, int timeout_ms = -1);
  // Reads up to `size` bytes at `offset` into `out`; a read beyond the data written so far
  // waits in the daemon until the data arrives.
  int read(int fd, int64_t offset, int32_t size, std::vector<uint8_t>* out, bool event = false,
           int timeout_ms = -1);
  // The two halves of read, for keeping several reads of data already written in flight (a
  // file holds at most one read that waits for data; a second one is refused with -EBUSY).
  int sendRead(int fd, int64_t offset, int32_t size, bool event = false);
  int waitRead(int fd, int64_t offset, std::vector<uint8_t>* out, bool event = false,
               int timeout_ms = -1);
  // As waitRead, but the bytes go to the descriptor `out` (*bytes says how many). A large
  // payload moves from the reply pipe to a regular file or a character device without passing
  // through this process (splice); to anything else it is copied, for the daemon lends the
  // pipe its reply buffers: a pipe or socket that took those pages over would show whatever
  // the daemon puts in them next. The daemon's result, or -errno of `out` with *out_failed set.
  int waitReadTo(int fd, int64_t offset, int out, size_t* bytes, bool* out_failed,
                 bool event = false, int timeout_ms = -1);
  int64_t getSize(int fd, bool real_size, int timeout_ms = -1);

  // Operations without a reply on success; 0 when sent.
  int write(int fd, int64_t offset, const void* data, uint32_t size, uint32_t new_size_offset = 0,
            uint32_t flags = 0, bool event = false);
  // What `in` holds up to its end, written at `offset` on as consecutive writes of `record`
  // bytes each (the last may be shorter; an empty input makes one empty write); `first_flags`
  // go with the first record only. The records are laid out in the client's own memory and
  // `in` is read straight into their payloads; the pipe then takes that memory's pages rather
  // than a copy of them (vmsplice), and a page is used again only once the daemon has read it.
  // Each byte is thus copied once on this side. Bytes sent, or a negative errno (with
  // *input_failed set when reading `in` failed).
  int64_t writeFrom(int in, int fd, int64_t offset, uint32_t record, uint32_t first_flags = 0,
                    bool event = false, bool* input_failed = nullptr);
  int splice(int in_fd, int64_t in_offset, uint32_t out_fd, int64_t out_offset, uint32_t size,
             bool event = false);
  int close(int fd, uint32_t flags = 0);

  // Waits until every request sent on fd's normal queue before has been carried out; returns
  // the first error reply that arrived for fd meanwhile, or 0.
  int sync(int fd, int timeout_ms = -1);
  // Sends a close and waits for it to be carried out; its error or 0.
  int closeAndWait(int fd, uint32_t flags = 0, int timeout_ms = -1);
  // Error replies (op kDirectOpError) of requests that have no reply of their own.
  std::vector<Reply> takeErrors();

 private:
  int openRequestPipe(int timeout_ms);
  // Receives until `match` accepts a reply; others are kept. 0 or a negative errno.
  // With `hand_over`, a reply it accepts whose large payload is still in the pipe comes back
  // with only the bytes read so far; the rest (pending_ bytes) is left for takePending().
  int waitFor(const std::function<bool(const Reply&)>& match, Reply* reply, int timeout_ms,
              bool hand_over = false);
  int receiveRecord(Reply* reply, int timeout_ms, const std::function<bool(const Reply&)>* hand_over);
  // The reply to the read of `fd` at `offset`, or its error reply (waitFor's hand_over).
  int readReply(int fd, int64_t offset, bool event, int timeout_ms, bool hand_over, Reply* reply);
  // Moves the pending_ payload bytes from the pipe to `out` (after an output failure they are
  // read and dropped, the stream stays in step). 0 or a negative errno of the pipe;
  // *out_error: the output's.
  int takePending(int out, int timeout_ms, size_t* moved, int* out_error);
  size_t pending_ = 0;
  int nextTag() { return ++tag_; }

  int lock_fd_ = -1;
  int request_fd_ = -1;
  int reply_fd_ = -1;
  std::atomic<int> tag_{0};
  std::mutex send_mutex_;    // one record at a time into the request pipe; batch_
  size_t batch_bytes_ = 0;
  static constexpr size_t kBatchRecordMax = 16u << 10;  // larger records are sent at once
  std::vector<uint8_t> batch_;  // records gathered, not sent yet
  int __flush();
  // Bytes put into the request pipe since connect(): the daemon has read every byte up to
  // sent_ minus what the pipe still holds.
  uint64_t sent_ = 0;
  // Lends [data, data + size) to the request pipe: 0 or a negative errno. Caller holds
  // send_mutex_.
  int __sendLent(const uint8_t* data, size_t size);
  // Waits until the daemon has read the bytes sent before `mark` (a value of sent_): 0, or
  // -EPIPE when it went away first.
  int waitTaken(uint64_t mark);
  // A reply record being read straight into its payload (from kStraightMin bytes on).
  static constexpr size_t kStraightMin = 64u << 10;
  Reply partial_;
  size_t partial_got_ = 0;
  bool partial_active_ = false;
  // Payload buffers given back by readers, reused so that a stream of reads needs no new
  // memory.
  std::vector<std::vector<uint8_t>> spare_;
  void recycle(std::vector<uint8_t>&& buffer);
  // Writes the parts whole; a pipe that the daemon dropped for a moment is opened again when
  // nothing of them went out yet. Caller holds send_mutex_.
  int __sendParts(struct iovec* parts, int count);
  std::vector<uint8_t> in_;  // received bytes; records start at in_pos_
  size_t in_pos_ = 0;
  size_t in_end_ = 0;
  std::deque<Reply> kept_;   // replies nobody waited for yet
};

}  // namespace velt::client
