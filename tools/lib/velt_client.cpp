#include "velt_client.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <thread>

#include "fs/velt.h"
#include "fs/velt_driver.h"

namespace velt::client {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kNoFile = -1;  // file numbers start at 3
constexpr size_t kReadAhead = 64u << 10;  // bytes read at once while no large payload is due

// Writes all of [data, data + size) to `out`: 0 or -errno.
int writeAll(int out, const uint8_t* data, size_t size) {
  while (size > 0) {
    ssize_t n = ::write(out, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return n < 0 ? -errno : -EIO;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return 0;
}

// Milliseconds left until `deadline`; -1 for none.
int remainingMs(bool forever, Clock::time_point deadline) {
  if (forever) return -1;
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

// Waits until the reply pipe has bytes (or an interruption asks to look again): 0, -ETIMEDOUT,
// -EPIPE when the daemon closed its end, or another negative errno.
int waitReadable(int fd, bool forever, Clock::time_point deadline) {
  struct pollfd pfd = {fd, POLLIN, 0};
  int r = poll(&pfd, 1, remainingMs(forever, deadline));
  if (r < 0) return errno == EINTR ? 0 : -errno;
  if (r == 0) return -ETIMEDOUT;
  // Hung up without data: the daemon closed its end.
  if ((pfd.revents & POLLIN) == 0 && (pfd.revents & (POLLHUP | POLLERR)) != 0) return -EPIPE;
  return 0;
}

int clearNonBlocking(int fd) {
  int flags = fcntl(fd, F_GETFL);
  if (flags < 0 || fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) < 0) return -errno;
  return 0;
}

// Opens one of the daemon's pipes; anything but a named pipe is refused (-ELOOP for a link,
// -ENOTSUP otherwise).
int openPipe(const std::string& path, int flags) {
  int fd = ::open(path.c_str(), flags | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) return -errno;
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISFIFO(st.st_mode)) {
    ::close(fd);
    return -ENOTSUP;
  }
  return fd;
}

}  // namespace

DirectClient::~DirectClient() {
  disconnect();
}

void DirectClient::disconnect() {
  flush();
  batch_.clear();
  if (request_fd_ >= 0) ::close(request_fd_);
  if (reply_fd_ >= 0) ::close(reply_fd_);
  if (lock_fd_ >= 0) ::close(lock_fd_);  // lets the lock go
  request_fd_ = reply_fd_ = lock_fd_ = -1;
  in_.clear();
  in_pos_ = in_end_ = 0;
  partial_ = Reply();
  partial_got_ = 0;
  partial_active_ = false;
  pending_ = 0;
  kept_.clear();
}

int DirectClient::openRequestPipe(int timeout_ms) {
  const std::string path = platformPath(kDirectRequestPipe);
  const bool forever = timeout_ms < 0;
  const auto deadline = Clock::now() + std::chrono::milliseconds(forever ? 0 : timeout_ms);
  for (;;) {
    // Non-blocking so that a daemon that is not there costs a timeout, not a hang.
    int fd = openPipe(path, O_WRONLY | O_NONBLOCK);
    if (fd >= 0) {
      int r = clearNonBlocking(fd);
      if (r < 0) {
        ::close(fd);
        return r;
      }
      request_fd_ = fd;
      return 0;
    }
    if (fd != -ENXIO && fd != -ENOENT) return fd;
    if (!forever && Clock::now() >= deadline) return -ETIMEDOUT;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

int DirectClient::connect(int timeout_ms) {
  disconnect();
  signal(SIGPIPE, SIG_IGN);
  // One client at a time: the lock file beside the pipes, held until disconnect().
  const std::string lock_path = platformPath(kDirectLockFile);
  lock_fd_ = ::open(lock_path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (lock_fd_ < 0 && errno == ENOENT) {
    lock_fd_ = ::open(lock_path.c_str(), O_RDONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644);
  }
  if (lock_fd_ < 0) return -errno;
  if (flock(lock_fd_, LOCK_EX | LOCK_NB) != 0) {
    int err = errno == EWOULDBLOCK ? EBUSY : errno;
    disconnect();
    return -err;
  }
  const std::string reply_path = platformPath(kDirectReplyPipe);
  // Reading end first: the daemon's replier connects once a reader exists. Opened
  // non-blocking so that the open itself never waits; reads wait in poll.
  reply_fd_ = openPipe(reply_path, O_RDONLY | O_NONBLOCK);
  if (reply_fd_ < 0) {
    int err = reply_fd_;
    reply_fd_ = -1;
    disconnect();
    return err;
  }
  int r = openRequestPipe(timeout_ms);
  if (r < 0) {
    disconnect();
    return r;
  }
  return 0;
}

int DirectClient::sendRaw(const void* bytes, size_t size) {
  std::lock_guard<std::mutex> lock(send_mutex_);
  if (request_fd_ < 0) return -ENOTCONN;
  const auto* p = static_cast<const uint8_t*>(bytes);
  size_t put = 0;
  while (put < size) {
    ssize_t n = ::write(request_fd_, p + put, size - put);
    if (n > 0) {
      put += static_cast<size_t>(n);
      sent_ += static_cast<uint64_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    return n < 0 ? -errno : -EIO;
  }
  return 0;
}

int DirectClient::__sendParts(struct iovec* parts, int count) {
  size_t put = 0;
  for (int attempt = 0;;) {
    ssize_t n = ::writev(request_fd_, parts, count);
    if (n > 0) {
      put += static_cast<size_t>(n);
      sent_ += static_cast<uint64_t>(n);
      size_t left = static_cast<size_t>(n);
      while (count > 0 && left >= parts->iov_len) {
        left -= parts->iov_len;
        ++parts;
        --count;
      }
      if (count == 0) return 0;
      parts->iov_base = static_cast<uint8_t*>(parts->iov_base) + left;
      parts->iov_len -= left;
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    int err = n < 0 ? errno : EIO;
    // The daemon's receiver drops the pipe for a moment after a previous client left; records
    // not begun yet can go again once it is back.
    if (err == EPIPE && put == 0 && attempt++ < 3) {
      ::close(request_fd_);
      request_fd_ = -1;
      int r = openRequestPipe(2000);
      if (r < 0) return r;
      continue;
    }
    return -err;
  }
}

int DirectClient::__flush() {
  if (batch_.empty()) return 0;
  struct iovec part = {batch_.data(), batch_.size()};
  int r = __sendParts(&part, 1);
  batch_.clear();
  return r;
}

int DirectClient::flush() {
  std::lock_guard<std::mutex> lock(send_mutex_);
  if (request_fd_ < 0) return batch_.empty() ? 0 : -ENOTCONN;
  return __flush();
}

int DirectClient::send(DirectHeader header, const void* payload, size_t size) {
  std::lock_guard<std::mutex> lock(send_mutex_);
  if (request_fd_ < 0) return -ENOTCONN;
  if (size > UINT32_MAX - kDirectHeaderSize) return -EINVAL;
  header.length = static_cast<uint32_t>(kDirectHeaderSize + size);
  uint8_t bytes[kDirectHeaderSize];
  encodeDirectHeader(header, bytes);
  if (batch_bytes_ > 0 && header.length < std::min<size_t>(batch_bytes_, kBatchRecordMax)) {
    batch_.insert(batch_.end(), bytes, bytes + sizeof(bytes));
    const auto* p = static_cast<const uint8_t*>(payload);
    if (size > 0) batch_.insert(batch_.end(), p, p + size);
    return batch_.size() >= batch_bytes_ ? __flush() : 0;
  }
  int r = __flush();
  if (r < 0) return r;
  struct iovec parts[2] = {{bytes, sizeof(bytes)}, {const_cast<void*>(payload), size}};
  return __sendParts(parts, size > 0 ? 2 : 1);
}

void DirectClient::recycle(std::vector<uint8_t>&& buffer) {
  if (buffer.capacity() >= kStraightMin && spare_.size() < 8) spare_.push_back(std::move(buffer));
}

int DirectClient::receive(Reply* reply, int timeout_ms) {
  return receiveRecord(reply, timeout_ms, nullptr);
}

int DirectClient::receiveRecord(Reply* reply, int timeout_ms,
                                const std::function<bool(const Reply&)>* hand_over) {
  if (reply_fd_ < 0) return -ENOTCONN;
  // A reply may answer a request still gathered here.
  if (int r = flush(); r < 0) return r;
  // The rest of a payload handed over and not taken (a timeout): dropped, the stream stays
  // in step.
  if (pending_ > 0) {
    size_t moved = 0;
    int out_error = 0;
    if (int r = takePending(-1, timeout_ms, &moved, &out_error); r < 0) return r;
  }
  const bool forever = timeout_ms < 0;
  const auto deadline = Clock::now() + std::chrono::milliseconds(forever ? 0 : timeout_ms);
  for (;;) {
    if (partial_active_) {
      // A large payload goes from the pipe straight into the reply, together with the next
      // header (into in_).
      std::vector<uint8_t>& payload = partial_.payload;
      if (partial_got_ == payload.size()) {
        *reply = std::move(partial_);
        partial_ = Reply();
        partial_active_ = false;
        return 0;
      }
      if (in_pos_ == in_end_) in_pos_ = in_end_ = 0;
      if (in_.size() - in_end_ < kDirectHeaderSize) {
        memmove(in_.data(), in_.data() + in_pos_, in_end_ - in_pos_);
        in_end_ -= in_pos_;
        in_pos_ = 0;
        if (in_.size() < in_end_ + kDirectHeaderSize) in_.resize(in_end_ + kReadAhead);
      }
      struct iovec parts[2] = {
          {payload.data() + partial_got_, payload.size() - partial_got_},
          {in_.data() + in_end_, kDirectHeaderSize}};
      ssize_t n = ::readv(reply_fd_, parts, 2);
      if (n > 0) {
        const size_t into = std::min(static_cast<size_t>(n), payload.size() - partial_got_);
        partial_got_ += into;
        in_end_ += static_cast<size_t>(n) - into;
        continue;
      }
      // 0: no writer (not yet there, or gone): the poll below tells which.
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 && errno != EAGAIN) return -errno;
    } else {
      // Drop whatever precedes a marker, then take a whole record when it is there.
      bool have_header = false;
      DirectMarkerSearch search;
      size_t used = 0;
      const bool found =
          findDirectMarker(search, in_.data() + in_pos_, in_end_ - in_pos_, &used);
      if (!found) {
        // Keep a possible marker prefix at the end.
        in_pos_ = in_end_ - static_cast<size_t>(search.matched());
      } else {
        in_pos_ += used - sizeof(kDirectMarker);
        if (in_end_ - in_pos_ >= kDirectHeaderSize) {
          DirectHeader h = decodeDirectHeader(in_.data() + in_pos_);
          if (h.length < kDirectHeaderSize) {
            ++in_pos_;  // not a record: look for the next marker
            continue;
          }
          have_header = true;
          const size_t size = h.length - kDirectHeaderSize;
          const size_t here = std::min<size_t>(in_end_ - in_pos_ - kDirectHeaderSize, size);
          if (here < size && size >= kStraightMin && hand_over != nullptr) {
            reply->header = h;
            reply->payload.clear();
            if ((*hand_over)(*reply)) {
              const uint8_t* from = in_.data() + in_pos_ + kDirectHeaderSize;
              reply->payload.assign(from, from + here);
              in_pos_ += kDirectHeaderSize + here;
              pending_ = size - here;
              return 0;
            }
          }
          if (here == size || size >= kStraightMin) {
            Reply& out = here == size ? *reply : partial_;
            out.header = h;
            if (size >= kStraightMin && !spare_.empty()) {
              out.payload = std::move(spare_.back());
              spare_.pop_back();
            }
            out.payload.resize(size);
            if (here > 0) memcpy(out.payload.data(), in_.data() + in_pos_ + kDirectHeaderSize, here);
            in_pos_ += kDirectHeaderSize + here;
            if (here == size) return 0;
            partial_got_ = here;
            partial_active_ = true;
            continue;
          }
        }
      }
      // Room behind what is kept; kept bytes move to the front only when it is too small.
      if (in_pos_ == in_end_) in_pos_ = in_end_ = 0;
      if (in_.size() - in_end_ < kReadAhead && in_pos_ > 0) {
        memmove(in_.data(), in_.data() + in_pos_, in_end_ - in_pos_);
        in_end_ -= in_pos_;
        in_pos_ = 0;
      }
      if (in_.size() < in_end_ + kReadAhead) in_.resize(in_end_ + kReadAhead);
      // A payload that may be handed over is left in the pipe: only a header is read ahead.
      const size_t ask =
          hand_over != nullptr && !have_header ? kDirectHeaderSize : in_.size() - in_end_;
      ssize_t n = ::read(reply_fd_, in_.data() + in_end_, ask);
      if (n > 0) {
        in_end_ += static_cast<size_t>(n);
        continue;
      }
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 && errno != EAGAIN) return -errno;
    }
    if (int r = waitReadable(reply_fd_, forever, deadline); r < 0) return r;
  }
}

int DirectClient::takePending(int out, int timeout_ms, size_t* moved, int* out_error) {
  const bool forever = timeout_ms < 0;
  const auto deadline = Clock::now() + std::chrono::milliseconds(forever ? 0 : timeout_ms);
  // Only into what copies the pages at once (see waitReadTo).
  struct stat st;
  bool by_splice = out >= 0 && fstat(out, &st) == 0 && (S_ISREG(st.st_mode) || S_ISCHR(st.st_mode));
  in_pos_ = in_end_ = 0;  // nothing else is buffered while a payload is pending
  if (in_.size() < kReadAhead) in_.resize(kReadAhead);
  while (pending_ > 0) {
    ssize_t n;
    if (by_splice && *out_error == 0) {
      n = ::splice(reply_fd_, nullptr, out, nullptr, pending_, SPLICE_F_NONBLOCK);
      if (n > 0) {
        pending_ -= static_cast<size_t>(n);
        *moved += static_cast<size_t>(n);
        continue;
      }
      // Refused (EINVAL: an output that takes no splice, or appends) or failed: copying
      // tells the pipe's errors from the output's.
      if (n < 0 && errno != EAGAIN && errno != EINTR) {
        by_splice = false;
        continue;
      }
    } else {
      n = ::read(reply_fd_, in_.data(), std::min(pending_, in_.size()));
      if (n > 0) {
        pending_ -= static_cast<size_t>(n);
        if (out >= 0 && *out_error == 0) {
          *out_error = -writeAll(out, in_.data(), static_cast<size_t>(n));
          if (*out_error == 0) *moved += static_cast<size_t>(n);
        }
        continue;
      }
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno != EAGAIN) return -errno;
    if (int r = waitReadable(reply_fd_, forever, deadline); r < 0) return r;
  }
  return 0;
}

int DirectClient::waitFor(const std::function<bool(const Reply&)>& match, Reply* reply,
                          int timeout_ms, bool hand_over) {
  for (auto it = kept_.begin(); it != kept_.end(); ++it) {
    if (match(*it)) {
      *reply = std::move(*it);
      kept_.erase(it);
      return 0;
    }
  }
  const bool forever = timeout_ms < 0;
  const auto deadline = Clock::now() + std::chrono::milliseconds(forever ? 0 : timeout_ms);
  for (;;) {
    Reply next;
    int r = receiveRecord(&next, remainingMs(forever, deadline), hand_over ? &match : nullptr);
    if (r < 0) return r;
    if (match(next)) {
      *reply = std::move(next);
      return 0;
    }
    kept_.push_back(std::move(next));
  }
}

namespace {

int openOrCreate(DirectClient& client, uint32_t op, int tag, const std::string& path,
                 int cache_mode) {
  DirectHeader h;
  h.fd = tag;
  h.op = op;
  h.param = static_cast<uint32_t>(cache_mode & 3);
  return client.send(h, path.c_str(), path.size() + 1);
}

}  // namespace

int DirectClient::open(const std::string& path, int cache_mode, int timeout_ms) {
  const int tag = nextTag();
  int r = openOrCreate(*this, kDirectOpOpen, tag, path, cache_mode);
  if (r < 0) return r;
  Reply reply;
  r = waitFor([&](const Reply& x) { return x.header.op == kDirectOpOpen && x.header.fd == tag; },
              &reply, timeout_ms);
  return r < 0 ? r : static_cast<int32_t>(reply.header.param);
}

int DirectClient::create(const std::string& path, int cache_mode, int timeout_ms) {
  const int tag = nextTag();
  int r = openOrCreate(*this, kDirectOpCreate, tag, path, cache_mode);
  if (r < 0) return r;
  Reply reply;
  r = waitFor([&](const Reply& x) { return x.header.op == kDirectOpCreate && x.header.fd == tag; },
              &reply, timeout_ms);
  return r < 0 ? r : static_cast<int32_t>(reply.header.param);
}

int DirectClient::sendRead(int fd, int64_t offset, int32_t size, bool event) {
  DirectHeader h;
  h.fd = fd;
  h.op = event ? kDirectOpReadEvent : kDirectOpRead;
  h.offset = offset;
  h.param = static_cast<uint32_t>(size);
  return send(h, nullptr, 0);
}

int DirectClient::readReply(int fd, int64_t offset, bool event, int timeout_ms, bool hand_over,
                            Reply* reply) {
  const uint32_t op = event ? kDirectOpReadEvent : kDirectOpRead;
  return waitFor(
      [&](const Reply& x) {
        return x.header.fd == fd && x.header.offset == offset &&
               (x.header.op == op || x.header.op == kDirectOpError);
      },
      reply, timeout_ms, hand_over);
}

int DirectClient::waitRead(int fd, int64_t offset, std::vector<uint8_t>* out, bool event,
                           int timeout_ms) {
  Reply reply;
  int r = readReply(fd, offset, event, timeout_ms, false, &reply);
  if (r < 0) return r;
  if (out != nullptr) {
    // The caller's old buffer is kept for the next reply: no new memory per read.
    out->swap(reply.payload);
    recycle(std::move(reply.payload));
  }
  return static_cast<int32_t>(reply.header.param);
}

int DirectClient::waitReadTo(int fd, int64_t offset, int out, size_t* bytes, bool* out_failed,
                             bool event, int timeout_ms) {
  *bytes = 0;
  *out_failed = false;
  Reply reply;
  int r = readReply(fd, offset, event, timeout_ms, true, &reply);
  if (r < 0) return r;
  int out_error = -writeAll(out, reply.payload.data(), reply.payload.size());
  if (out_error == 0) *bytes = reply.payload.size();
  recycle(std::move(reply.payload));
  if (pending_ > 0) r = takePending(out, timeout_ms, bytes, &out_error);
  if (r < 0) return r;
  if (out_error != 0) {
    *out_failed = true;
    return -out_error;
  }
  return static_cast<int32_t>(reply.header.param);
}

int DirectClient::read(int fd, int64_t offset, int32_t size, std::vector<uint8_t>* out, bool event,
                       int timeout_ms) {
  int r = sendRead(fd, offset, size, event);
  if (r < 0) return r;
  return waitRead(fd, offset, out, event, timeout_ms);
}

int64_t DirectClient::getSize(int fd, bool real_size, int timeout_ms) {
  DirectHeader h;
  h.fd = fd;
  h.op = real_size ? kDirectOpGetRealSize : kDirectOpGetSize;
  h.offset = -nextTag();  // comes back only in an error reply
  int r = send(h, nullptr, 0);
  if (r < 0) return r;
  Reply reply;
  r = waitFor(
      [&](const Reply& x) {
        return x.header.fd == fd && (x.header.op == h.op || (x.header.op == kDirectOpError &&
                                                             x.header.offset == h.offset));
      },
      &reply, timeout_ms);
  if (r < 0) return r;
  if (reply.header.op == kDirectOpError) return static_cast<int32_t>(reply.header.param);
  return reply.header.offset;
}

int DirectClient::write(int fd, int64_t offset, const void* data, uint32_t size,
                        uint32_t new_size_offset, uint32_t flags, bool event) {
  DirectHeader h;
  h.fd = fd;
  h.op = event ? kDirectOpWriteEvent : kDirectOpWrite;
  h.offset = offset;
  h.param = directWriteParam(new_size_offset, flags);
  return send(h, data, size);
}

int DirectClient::__sendLent(const uint8_t* data, size_t size) {
  size_t put = 0;
  while (put < size) {
    struct iovec part = {const_cast<uint8_t*>(data + put), size - put};
    ssize_t n = ::vmsplice(request_fd_, &part, 1, 0);
    if (n > 0) {
      put += static_cast<size_t>(n);
      sent_ += static_cast<uint64_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno == EINVAL && put == 0) {
      // Not a pipe that takes pages: copied like any other record.
      struct iovec whole = {const_cast<uint8_t*>(data), size};
      return __sendParts(&whole, 1);
    }
    return n < 0 ? -errno : -EIO;
  }
  return 0;
}

int DirectClient::waitTaken(uint64_t mark) {
  for (int pause_us = 50;; pause_us = std::min(pause_us * 2, 5000)) {
    {
      std::lock_guard<std::mutex> lock(send_mutex_);
      if (request_fd_ < 0) return -ENOTCONN;
      int unread = 0;
      if (ioctl(request_fd_, FIONREAD, &unread) != 0) return -errno;
      // The pipe holds the newest `unread` bytes; everything before them has been read.
      if (sent_ - static_cast<uint64_t>(unread) >= mark) return 0;
      // A daemon that went away reads nothing more.
      struct pollfd pfd = {request_fd_, 0, 0};
      if (poll(&pfd, 1, 0) > 0 && (pfd.revents & POLLERR) != 0) return -EPIPE;
    }
    std::this_thread::sleep_for(std::chrono::microseconds(pause_us));
  }
}

int64_t DirectClient::writeFrom(int in, int fd, int64_t offset, uint32_t record,
                                uint32_t first_flags, bool event, bool* input_failed) {
  if (input_failed != nullptr) *input_failed = false;
  if (record == 0 || record > kDirectPayloadMax) return -EINVAL;
  int pipe_size = 0;
  {
    std::lock_guard<std::mutex> lock(send_mutex_);
    if (request_fd_ < 0) return -ENOTCONN;
    if (int r = __flush(); r < 0) return r;
    pipe_size = fcntl(request_fd_, F_GETPIPE_SZ);
  }
  const uint32_t op = event ? kDirectOpWriteEvent : kDirectOpWrite;
  // Slabs of about a megabyte of whole records, header and payload side by side as they go on
  // the wire. The pipe holds at most its size in bytes, so with that much and two slabs more
  // in the ring, a slab's turn comes round only after the daemon has read it (checked anyway).
  constexpr size_t kSlabTarget = 1u << 20;
  const size_t stride = kDirectHeaderSize + static_cast<size_t>(record);
  const size_t per_slab = std::max<size_t>(1, kSlabTarget / stride);
  const size_t slab_size = per_slab * stride;
  if (pipe_size <= 0) pipe_size = 1 << 16;
  const size_t slabs = static_cast<size_t>(pipe_size) / slab_size + 3;
  // Mapped memory: once unmapped, pages the pipe still holds stay as they were until read.
  // A ring of a few megabytes is populated at once rather than a page fault at a time.
  const size_t ring_size = slabs * slab_size;
  void* ring = mmap(nullptr, ring_size, PROT_READ | PROT_WRITE,
                    MAP_PRIVATE | MAP_ANONYMOUS | (ring_size <= (16u << 20) ? MAP_POPULATE : 0),
                    -1, 0);
  if (ring == MAP_FAILED) return -ENOMEM;
  auto* base = static_cast<uint8_t*>(ring);
  std::vector<uint64_t> sent_mark(slabs, 0);
  std::vector<struct iovec> slots;
  int64_t total = 0;
  int64_t result = 0;
  for (size_t turn = 0;; ++turn) {
    const size_t k = turn % slabs;
    uint8_t* slab = base + k * slab_size;
    if (int r = waitTaken(sent_mark[k]); r < 0) {
      result = r;
      break;
    }
    // The input goes straight into the payloads.
    size_t got = 0;
    bool end = false;
    while (got < per_slab * record && !end) {
      slots.clear();
      for (size_t i = got / record; i < per_slab && slots.size() < IOV_MAX; ++i) {
        const size_t from = i == got / record ? got % record : 0;
        slots.push_back({slab + i * stride + kDirectHeaderSize + from, record - from});
      }
      ssize_t n = ::readv(in, slots.data(), static_cast<int>(slots.size()));
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) {
        result = -errno;
        if (input_failed != nullptr) *input_failed = true;
        break;
      }
      if (n == 0) end = true;
      got += static_cast<size_t>(n);
    }
    if (result < 0) break;
    if (got == 0 && total > 0) break;
    // The headers in front of the payloads; the last record may be short.
    size_t wire = 0;
    for (size_t i = 0; i * record < got || (got == 0 && i == 0); ++i) {
      const size_t n = std::min<size_t>(record, got - i * record);
      DirectHeader h;
      h.fd = fd;
      h.op = op;
      h.offset = offset + total + static_cast<int64_t>(i * record);
      h.param = directWriteParam(0, total == 0 && i == 0 ? first_flags : 0u);
      h.length = static_cast<uint32_t>(kDirectHeaderSize + n);
      encodeDirectHeader(h, slab + i * stride);
      wire = i * stride + kDirectHeaderSize + n;
      if (got == 0) break;
    }
    {
      std::lock_guard<std::mutex> lock(send_mutex_);
      int r = request_fd_ < 0 ? -ENOTCONN : __sendLent(slab, wire);
      sent_mark[k] = sent_;
      if (r < 0) {
        result = r;
        break;
      }
    }
    total += static_cast<int64_t>(got);
    if (end || got == 0) break;
  }
  munmap(ring, ring_size);
  return result < 0 ? result : total;
}

int DirectClient::splice(int in_fd, int64_t in_offset, uint32_t out_fd, int64_t out_offset,
                         uint32_t size, bool event) {
  DirectHeader h;
  h.fd = in_fd;
  h.op = event ? kDirectOpSpliceEvent : kDirectOpSplice;
  h.offset = in_offset;
  DirectSplice s;
  s.out_fd = out_fd;
  s.out_offset = out_offset;
  s.size = size;
  uint8_t payload[kDirectSpliceSize];
  encodeDirectSplice(s, payload);
  return send(h, payload, sizeof(payload));
}

int DirectClient::close(int fd, uint32_t flags) {
  DirectHeader h;
  h.fd = fd;
  h.op = kDirectOpClose;
  h.offset = -nextTag();
  h.param = flags;
  return send(h, nullptr, 0);
}

int DirectClient::sync(int fd, int timeout_ms) {
  int64_t r = getSize(fd, false, timeout_ms);
  if (r < 0 && r != -EBADF) return static_cast<int>(r);
  for (auto it = kept_.begin(); it != kept_.end(); ++it) {
    if (it->header.op == kDirectOpError && it->header.fd == fd) {
      int err = static_cast<int32_t>(it->header.param);
      kept_.erase(it);
      return err;
    }
  }
  return r == -EBADF ? -EBADF : 0;
}

int DirectClient::closeAndWait(int fd, uint32_t flags, int timeout_ms) {
  DirectHeader h;
  h.fd = fd;
  h.op = kDirectOpClose;
  h.offset = -nextTag();
  h.param = flags;
  int r = send(h, nullptr, 0);
  if (r < 0) return r;
  // A close drops the file's requests queued behind it, so the barrier is a size query of a
  // number that is never a file: its -EBADF answer comes after the close is done, and a failed
  // close answers before it.
  int64_t after = getSize(kNoFile, false, timeout_ms);
  if (after != -EBADF && after < 0) return static_cast<int>(after);
  for (auto it = kept_.begin(); it != kept_.end(); ++it) {
    if (it->header.op == kDirectOpError && it->header.fd == fd && it->header.offset == h.offset) {
      int err = static_cast<int32_t>(it->header.param);
      kept_.erase(it);
      return err;
    }
  }
  return 0;
}

std::vector<Reply> DirectClient::takeErrors() {
  std::vector<Reply> errors;
  for (auto it = kept_.begin(); it != kept_.end();) {
    if (it->header.op == kDirectOpError) {
      errors.push_back(std::move(*it));
      it = kept_.erase(it);
    } else {
      ++it;
    }
  }
  return errors;
}

}  // namespace velt::client
