// A client of velt.fuse's direct channel: the two named pipes, records in both directions, and
// the operations with their replies.
//
// Replies arrive in the order the daemon finishes requests, not in the order they were sent.
// The client therefore tags every request that gets a reply (open and create carry a tag in
// fd, size queries and closes in offset) and keeps replies it is not waiting for yet; error
// replies of writes, closes and splices are collected for takeErrors().
//
// A client object is not thread-safe. connect() ignores SIGPIPE for the process so that a
// daemon that goes away shows up as an error, not a signal. A record of at most PIPE_BUF
// (4,096) bytes reaches the request pipe in one piece, so several clients may send such
// records at the same time; only one of them may read replies (the others drop their reply
// pipe once they have what they need, see dropReplyPipe).
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <vector>

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
  // Closes the reading end of the reply pipe: from now on this client only sends.
  void dropReplyPipe();
  bool connected() const { return request_fd_ >= 0 && reply_fd_ >= 0; }

  // One record; header.length is set from the payload size. 0 or a negative errno.
  int send(DirectHeader header, const void* payload, size_t size);
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
  int64_t getSize(int fd, bool real_size, int timeout_ms = -1);

  // Operations without a reply on success; 0 when sent.
  int write(int fd, int64_t offset, const void* data, uint32_t size, uint32_t new_size_offset = 0,
            uint32_t flags = 0, bool event = false);
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
  int waitFor(const std::function<bool(const Reply&)>& match, Reply* reply, int timeout_ms);
  int nextTag() { return ++tag_; }

  int request_fd_ = -1;
  int reply_fd_ = -1;
  int tag_ = 0;
  std::vector<uint8_t> in_;  // received bytes not yet made into records
  std::deque<Reply> kept_;   // replies nobody waited for yet
};

}  // namespace velt::client
