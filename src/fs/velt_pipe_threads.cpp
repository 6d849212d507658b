// The direct channel's threads: the receiver reads request records from the request pipe and
// queues them, the worker carries them out, the replier writes replies to the reply pipe. A
// teardown of the connection (client gone) waits until the worker is between requests, writes
// every queued write, closes every direct file and resets the replier so that the next client
// starts on a clean reply pipe.
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "fs/velt.h"
#include "fs/velt_pipe.h"
#include "fs/velt_pipe_work.h"
#include "utils/Utils.h"

namespace velt {

static constexpr const char kLogTag[] = "VELT.Direct";

using direct::channelNow;

namespace {

constexpr int kRealTimePriority = 99;
constexpr uint32_t kSpliceBufferStart = 0x80000;
constexpr int kRetryWaitMs = 10;       // EAGAIN on a partial record
constexpr int kReplyWaitMs = 1000;     // longest single wait for a client that does not read
constexpr int kResetAckWaitMs = 2000;  // receiver's wait for the replier to drop a connection

// 1 readable, 0 timeout, -1 error (errno set).
int waitReadable(int fd, int timeout_us) {
  fd_set set;
  FD_ZERO(&set);
  FD_SET(fd, &set);
  struct timeval tv;
  tv.tv_sec = timeout_us / 1000000;
  tv.tv_usec = timeout_us % 1000000;
  int r = select(fd + 1, &set, nullptr, nullptr, &tv);
  if (r < 0) return -1;
  return r > 0 ? 1 : 0;
}

// Runs a thread body; nothing thrown leaves the thread.
template <typename Body>
void runGuarded(const char* label, Body body) {
  try {
    body();
  } catch (const std::exception& e) {
    LOGE("%s ended by exception: %s\n", label, e.what());
  } catch (...) {
    LOGE("%s ended by exception\n", label);
  }
}

// Reads exactly `size` bytes from the request pipe. `header_base` >= 0 marks a header read
// (bytes of it already read); EAGAIN is then reported. 0, or -1 after the failure was logged
// (or when the channel stops meanwhile).
int readFully(int fd, uint8_t* buffer, size_t size, int header_base,
              const std::atomic<bool>& stop) {
  size_t got = 0;
  while (got < size) {
    ssize_t n = read(fd, buffer + got, size - got);
    if (n > 0) {
      got += static_cast<size_t>(n);
      continue;
    }
    if (n == 0) {
      LOGI("disconnected\n");
      return -1;
    }
    int err = errno;
    if (err == EINTR) continue;
    if (err == EAGAIN) {
      if (header_base >= 0) {
        LOGI("read got EAGAIN %d of %d\n", header_base + static_cast<int>(got),
             static_cast<int>(kDirectHeaderSize));
      }
      if (stop) return -1;
      // Waits for the rest of the record, at most one retry interval.
      waitReadable(fd, kRetryWaitMs * 1000);
      continue;
    }
    LOGE("read error %d(%s)\n", err, strerror(err));
    return -1;
  }
  return 0;
}

// Writes all of `size` bytes to the reply pipe; waits for a slow reader at most
// kReplyWaitMs at a time and gives up when the channel stops. 0 or -1.
int writeFully(int fd, const uint8_t* data, size_t size, const std::atomic<bool>& stop) {
  size_t put = 0;
  while (put < size) {
    ssize_t n = write(fd, data + put, size - put);
    if (n > 0) {
      put += static_cast<size_t>(n);
      continue;
    }
    int err = n < 0 ? errno : EIO;
    if (err == EINTR) continue;
    if (err == EAGAIN) {
      if (stop) return -1;
      struct pollfd pfd = {fd, POLLOUT, 0};
      poll(&pfd, 1, kReplyWaitMs);
      continue;
    }
    if (err == EPIPE) {
      // SIGPIPE is blocked in this thread: take the pending one so it never fires later.
      sigset_t set;
      sigemptyset(&set);
      sigaddset(&set, SIGPIPE);
      struct timespec zero = {0, 0};
      sigtimedwait(&set, nullptr, &zero);
    }
    LOGE("write error %d(%s)\n", err, strerror(err));
    return -1;
  }
  return 0;
}

// Reads and drops what a client that went away left unread in the reply pipe.
void drainReplyPipe(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return;
  uint8_t scratch[4096];
  while (read(fd, scratch, sizeof(scratch)) > 0) {
  }
  ::close(fd);
}

}  // namespace

void VELT::pipe_reader() {
  const std::string path = platformPath(kDirectRequestPipe);
  bool synced = false;
  DirectMarkerSearch search;
  uint8_t header[kDirectHeaderSize];
  for (;;) {
    receiver_open_ = false;
    int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
      int err = errno;
      LOGE("[%s] open receiver error: %d(%s)\n", kDirectRequestPipe, err, strerror(err));
      return;
    }
    // Room for a whole merged write in the pipe; a refusal only costs speed.
    fcntl(fd, F_SETPIPE_SZ, static_cast<int>(VELT_BUFFER_SIZE));
    receiver_open_ = true;
    if (direct_stop_) {
      ::close(fd);
      receiver_open_ = false;
      return;
    }
    while (!direct_stop_) {
      int ready = waitReadable(fd, kDirectSelectUs);
      if (ready == 0) continue;
      if (ready < 0) {
        int err = errno;
        if (err == EINTR) continue;
        LOGE("select() error: %d(%s)\n", err, strerror(err));
        break;
      }
      if (!synced) {
        uint8_t byte;
        ssize_t n = ::read(fd, &byte, 1);
        if (n != 1) {
          int err = n < 0 ? errno : 0;
          if (err == EAGAIN || err == EINTR) continue;
          LOGE("read error %d(%s)\n", err, strerror(err));
          break;
        }
        if (!search.push(byte)) continue;
        LOGI("data synced.\n");
        memcpy(header, kDirectMarker, sizeof(kDirectMarker));
        if (readFully(fd, header + 4, kDirectHeaderSize - 4, 4, direct_stop_) < 0) break;
        synced = true;
      } else {
        if (readFully(fd, header, kDirectHeaderSize, 0, direct_stop_) < 0) {
          synced = false;
          break;
        }
        if (!hasDirectMarker(header)) {
          LOGE("data sync broken!\n");
          synced = false;
          search.reset();
          continue;
        }
      }

      const DirectHeader h = decodeDirectHeader(header);
      if (h.length < kDirectHeaderSize) {
        // A length shorter than the header itself: the stream is not where it seems to be.
        NERIO_ASSERT_TEXT("(ssize_t)size >= 0");
        synced = false;
        search.reset();
        continue;
      }
      const uint32_t payload = h.length - kDirectHeaderSize;
      int32_t param = static_cast<int32_t>(h.param);
      uint32_t new_size_offset = 0;
      if (isDirectWriteOp(h.op)) {
        new_size_offset = directWriteNewSizeOffset(h.param);
        param = static_cast<int32_t>(directWriteFlags(h.param));
      }
      VELTWorkItem* item = nullptr;
      if (payload <= kDirectPayloadMax) {
        try {
          item = new VELTWorkItem(h.fd, h.op, h.offset, param, payload);
        } catch (const std::exception&) {
          item = nullptr;
        }
      }
      if (item == nullptr) {
        LOGE("got exception when creating direct writer buffer %zd bytes\n",
             static_cast<ssize_t>(payload));
        uint8_t small[4096];
        uint8_t* drain = drain_buffer_ != nullptr ? drain_buffer_.get() : small;
        const size_t piece = drain_buffer_ != nullptr ? VELT_BUFFER_SIZE : sizeof(small);
        uint32_t left = payload;
        bool ok = true;
        while (left > 0 && ok) {
          const size_t n = std::min<size_t>(left, piece);
          ok = readFully(fd, drain, n, -1, direct_stop_) == 0;
          left -= static_cast<uint32_t>(n);
        }
        if (!ok) break;
        continue;
      }
      item->new_size_offset_ = new_size_offset;
      item->created_ = item->updated_ = channelNow(*this);
      if (payload > 0 && readFully(fd, item->data_, payload, -1, direct_stop_) < 0) {
        delete item;
        break;
      }
      {
        std::lock_guard<std::mutex> lock(request_mutex_);
        __queueRequest(item);
      }
      request_cv_.notify_one();
      if (!responder_open_) {
        std::lock_guard<std::mutex> lock(response_mutex_);
        responder_retry_ = true;
        response_cv_.notify_all();
      }
    }
    ::close(fd);
    receiver_open_ = false;
    // Whatever the client sent reaches the card; its files are closed.
    flushAllRequests(nullptr, false, true);
    if (direct_stop_) return;

    // The next client must not read replies meant for this one.
    std::unique_lock<std::mutex> lock(response_mutex_);
    for (VELTWorkItem* stale : responses_) delete stale;
    responses_.clear();
    if (responder_open_) {
      responder_reset_ = true;
      response_cv_.notify_all();
      response_cv_.wait_for(lock, std::chrono::milliseconds(kResetAckWaitMs),
                            [this] { return !responder_reset_ || direct_stop_; });
    }
  }
}

void VELT::pipe_writer() {
  const std::string path = platformPath(kDirectReplyPipe);
  // A client that goes away must cost a write error, not the process.
  sigset_t pipe_signal;
  sigemptyset(&pipe_signal);
  sigaddset(&pipe_signal, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe_signal, nullptr);

  for (;;) {
    responder_open_ = false;
    int fd = -1;
    for (;;) {
      {
        std::lock_guard<std::mutex> lock(response_mutex_);
        if (responder_reset_) {
          responder_reset_ = false;
          response_cv_.notify_all();
        }
      }
      fd = ::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
      if (fd >= 0) break;
      int err = errno;
      if (err != ENXIO) {
        LOGE("[%s] open responder error: %d(%s)\n", kDirectReplyPipe, err, strerror(err));
      }
      if (direct_stop_) return;
      std::unique_lock<std::mutex> lock(response_mutex_);
      response_cv_.wait_for(lock, std::chrono::seconds(1), [this] {
        return direct_stop_ || responder_reset_ || responder_retry_;
      });
      responder_retry_ = false;
      if (direct_stop_) return;
    }
    // Room for a whole read reply in the pipe; a refusal only costs speed.
    fcntl(fd, F_SETPIPE_SZ, static_cast<int>(VELT_BUFFER_SIZE));
    responder_open_ = true;
    if (direct_stop_) {
      ::close(fd);
      responder_open_ = false;
      return;
    }
    // The descriptor stays non-blocking: a write waits for the client in bounded steps, so a
    // client that stops reading cannot hold up a stop.
    bool broken = false;
    for (;;) {
      VELTWorkItem* item = nullptr;
      {
        std::unique_lock<std::mutex> lock(response_mutex_);
        response_cv_.wait(
            lock, [this] { return !responses_.empty() || direct_stop_ || responder_reset_; });
        if (responder_reset_ || responses_.empty()) break;
        item = responses_.front();
        responses_.pop_front();
      }
      if (item == nullptr) {
        NERIO_ASSERT_TEXT("work_item != nullptr");
        continue;
      }
      const uint32_t payload = item->data_ != nullptr ? item->size_ : 0;
      if (payload > 0 && !isDirectReadOp(item->op_)) {
        NERIO_ASSERT_TEXT(
            "work_item->op_ == kDirectOpRead || work_item->op_ == kDirectOpReadEvent");
      }
      DirectHeader h;
      h.length = kDirectHeaderSize + payload;
      h.fd = item->fd_;
      h.op = item->op_;
      h.offset = item->offset_;
      h.param = static_cast<uint32_t>(item->param_);
      uint8_t header[kDirectHeaderSize];
      encodeDirectHeader(h, header);
      if (writeFully(fd, header, sizeof(header), direct_stop_) < 0 ||
          (payload > 0 && writeFully(fd, item->data_, payload, direct_stop_) < 0)) {
        broken = true;
      }
      delete item;
      if (broken || direct_stop_) break;
    }
    // Bytes left in the pipe belong to a client that is gone.
    drainReplyPipe(path);
    ::close(fd);
    responder_open_ = false;
    {
      std::lock_guard<std::mutex> lock(response_mutex_);
      for (VELTWorkItem* stale : responses_) delete stale;
      responses_.clear();
      if (responder_reset_) {
        responder_reset_ = false;
        response_cv_.notify_all();
      }
    }
    if (direct_stop_) return;
  }
}

void VELT::direct_worker() {
  std::unique_lock<std::mutex> lock(request_mutex_);
  auto empty = [this] {
    return control_requests_.empty() && normal_requests_.empty() && event_requests_.empty();
  };
  for (;;) {
    request_cv_.wait(lock, [&] { return !empty() || direct_stop_; });
    // Queues empty here means a stop; a stop with requests left lets them finish first.
    if (empty()) break;
    VELTWorkItem* item = __fetchRequest();
    if (item == nullptr) {
      // Only writes that may still grow: look again shortly.
      request_cv_.wait_for(lock, std::chrono::milliseconds(kRetryWaitMs));
      continue;
    }
    direct_busy_ = true;
    lock.unlock();
    VELTWorkItem* reply = executeDirectRequest(item);
    if (reply != nullptr) queueDirectResponse(reply);
    lock.lock();
    direct_busy_ = false;
    direct_idle_cv_.notify_all();
  }
}

int VELT::startDirectWriter() {
  std::lock_guard<std::mutex> state_lock(mutex_);
  for (const char* pipe : {kDirectRequestPipe, kDirectReplyPipe}) {
    const std::string path = platformPath(pipe);
    struct stat st;
    if (stat(path.c_str(), &st) == 0) continue;
    if (mkfifo(path.c_str(), 0666) != 0) {
      int err = errno;
      LOGI("[%s] can not be created: %d(%s)\n", pipe, err, strerror(err));
    } else {
      chmod(path.c_str(), 0666);  // whatever the umask, any local client may connect
    }
  }
  if (pipe_reader_thread_.joinable()) {
    LOGI("direct pipe reader already started\n");
    return -1;
  }
  if (pipe_writer_thread_.joinable()) {
    LOGI("direct pipe writer already started\n");
    return -1;
  }
  if (direct_worker_thread_.joinable()) {
    LOGI("direct writer already started\n");
    return -1;
  }
  free(splice_buffer_);
  splice_buffer_ = static_cast<uint8_t*>(malloc(kSpliceBufferStart));
  splice_buffer_size_ = splice_buffer_ != nullptr ? kSpliceBufferStart : 0;
  if (splice_buffer_ == nullptr) NERIO_ASSERT_TEXT("splice_buffer_ != nullptr");
  if (drain_buffer_ == nullptr) drain_buffer_.reset(new (std::nothrow) uint8_t[VELT_BUFFER_SIZE]);
  {
    std::lock_guard<std::mutex> lock(request_mutex_);
    last_normal_fetch_ = channelNow(*this);
    direct_busy_ = false;
  }
  {
    std::lock_guard<std::mutex> lock(response_mutex_);
    responder_reset_ = false;
  }
  direct_stop_ = false;

  struct Start {
    std::thread* thread;
    void (VELT::*body)();
    const char* label;
  } starts[] = {
      {&pipe_reader_thread_, &VELT::pipe_reader, "velt-pipe-reader"},
      {&pipe_writer_thread_, &VELT::pipe_writer, "velt-pipe-writer"},
      {&direct_worker_thread_, &VELT::direct_worker, "velt-direct-writer"},
  };
  for (const Start& s : starts) {
    try {
      *s.thread = std::thread([this, s] { runGuarded(s.label, [this, s] { (this->*s.body)(); }); });
    } catch (const std::exception& e) {
      LOGE("%s could not be started: %s\n", s.label, e.what());
      continue;
    }
    // Failure is logged; the thread then keeps the ordinary policy.
    nerio::setThreadPriority(s.label, s.thread->native_handle(), kRealTimePriority);
  }
  return 0;
}

void VELT::stopDirectWriter() {
  direct_stop_ = true;
  // The worker finishes what is queued and ends before the receiver's last flush, so that
  // flush never closes a file under a running request.
  if (direct_worker_thread_.joinable()) {
    {
      std::lock_guard<std::mutex> lock(request_mutex_);
      request_cv_.notify_all();
    }
    direct_worker_thread_.join();
  }
  if (pipe_reader_thread_.joinable()) pipe_reader_thread_.join();
  if (pipe_writer_thread_.joinable()) {
    {
      std::lock_guard<std::mutex> lock(response_mutex_);
      response_cv_.notify_all();
    }
    pipe_writer_thread_.join();
  }
  // Requests that no thread took any more (the receiver was not running) and replies that
  // arrived after the replier ended.
  bool leftovers;
  {
    std::lock_guard<std::mutex> lock(request_mutex_);
    leftovers = !control_requests_.empty() || !normal_requests_.empty() || !event_requests_.empty();
  }
  if (leftovers) flushAllRequests(nullptr, false, false);
  {
    std::lock_guard<std::mutex> lock(response_mutex_);
    for (VELTWorkItem* stale : responses_) delete stale;
    responses_.clear();
  }
  free(splice_buffer_);
  splice_buffer_ = nullptr;
  splice_buffer_size_ = 0;
}

}  // namespace velt
