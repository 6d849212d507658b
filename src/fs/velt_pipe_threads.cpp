// The direct channel's threads: the receiver reads request records from the request pipe and
// queues them, the worker carries them out, the replier writes replies to the reply pipe. A
// teardown of the connection (client gone) waits until the worker is between requests, writes
// every queued write, closes every direct file and resets the replier so that the next client
// starts on a clean reply pipe.
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <list>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <vector>

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
constexpr int kReplyWaitMs = 1000;     // longest single wait for a client that does not read
constexpr int kResetAckWaitMs = 2000;  // receiver's wait for the replier to drop a connection
constexpr int kPauseWaitMs = 20;       // receiver's look at the memory bound while paused
constexpr int kLentLookMaxMs = 100;    // replier's longest wait between looks at lent replies

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

// A pipe that holds several records of a megabyte, so that the two sides of a stream rarely
// wait for each other; beyond the system's limit for everyone (root may), a megabyte.
void growPipe(int fd) {
  if (fcntl(fd, F_SETPIPE_SZ, static_cast<int>(4 * VELT_BUFFER_SIZE)) < 0) {
    fcntl(fd, F_SETPIPE_SZ, static_cast<int>(VELT_BUFFER_SIZE));
  }
}

bool ownFifo(const struct stat& st) {
  return S_ISFIFO(st.st_mode) && st.st_uid == geteuid();
}

// Makes `path` a named pipe of this process's user: anything else found there (a link, a
// regular file, another user's pipe) is removed first. 0, or -1 when that fails.
int preparePipe(const char* label, const std::string& path) {
  struct stat st;
  if (lstat(path.c_str(), &st) == 0) {
    if (ownFifo(st)) return 0;
    LOGW("[%s] is not the daemon's named pipe (mode %o, owner %d): replaced\n", label,
         static_cast<unsigned>(st.st_mode), static_cast<int>(st.st_uid));
    int r = S_ISDIR(st.st_mode) ? rmdir(path.c_str()) : unlink(path.c_str());
    if (r != 0 && errno != ENOENT) {
      int err = errno;
      LOGE("[%s] can not be removed: %d(%s)\n", label, err, strerror(err));
      return -1;
    }
  }
  if (mkfifo(path.c_str(), 0666) != 0) {
    int err = errno;
    if (err == EEXIST) return 0;  // made meanwhile: the open checks what it got
    LOGI("[%s] can not be created: %d(%s)\n", label, err, strerror(err));
    return -1;
  }
  chmod(path.c_str(), 0666);  // whatever the umask, any local client may connect
  return 0;
}

// Opens one of the channel's pipes after checking it; what was opened is checked again, so a
// swap between the check and the open is caught before a byte moves. -1 with errno set.
int openPipe(const char* label, int flags) {
  const std::string path = platformPath(label);
  for (int attempt = 0; attempt < 2; ++attempt) {
    preparePipe(label, path);
    int fd = ::open(path.c_str(), flags | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) return -1;
    struct stat st;
    if (fstat(fd, &st) == 0 && ownFifo(st)) return fd;
    ::close(fd);
  }
  errno = EPERM;
  return -1;
}

// The lock file that clients take before they use the pipes: a regular file of the daemon's
// user that anyone may open for reading.
void prepareLockFile() {
  const std::string path = platformPath(kDirectLockFile);
  struct stat st;
  if (lstat(path.c_str(), &st) == 0) {
    if (S_ISREG(st.st_mode) && st.st_uid == geteuid()) return;
    LOGW("[%s] is not the daemon's lock file (mode %o, owner %d): replaced\n", kDirectLockFile,
         static_cast<unsigned>(st.st_mode), static_cast<int>(st.st_uid));
    if ((S_ISDIR(st.st_mode) ? rmdir(path.c_str()) : unlink(path.c_str())) != 0) return;
  }
  int fd = ::open(path.c_str(), O_RDONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (fd >= 0) {
    fchmod(fd, 0644);
    ::close(fd);
  }
}

// The request pipe as the receiver reads it: bytes read ahead into a staging area, and payload
// reads that go straight to their destination, picking up the next header in the same call.
class RequestStream {
 public:
  static constexpr size_t kStageSize = 256u << 10;
  // A payload rest of at least this many bytes is read straight into its item.
  static constexpr size_t kStraightMin = 16u << 10;

  RequestStream(int fd, const std::atomic<bool>& stop, std::atomic<uint64_t>& reads,
                uint8_t* drain, size_t drain_size)
      : fd_(fd), stop_(stop), reads_(reads), drain_(drain), drain_size_(drain_size),
        stage_(new uint8_t[kStageSize]) {}

  const uint8_t* data() const { return stage_.get() + pos_; }
  size_t available() const { return end_ - pos_; }
  void consume(size_t n) { pos_ += n; }

  // At least `n` bytes staged: 1; the client went away: 0; failure or stop: -1 (logged).
  int need(size_t n) {
    while (available() < n) {
      int r = fill(nullptr, 0, nullptr);
      if (r <= 0) return r;
    }
    return 1;
  }

  // `size` bytes of payload into `dest`: 1, 0 or -1 as need().
  int payload(uint8_t* dest, size_t size) {
    // After a large payload the next header is read on its own, so that the payload behind it
    // goes straight to its item too instead of through the stage; small records keep the bulk
    // reads that take many of them at once.
    large_ = size >= kStraightMin;
    size_t done = std::min(size, available());
    memcpy(dest, data(), done);
    consume(done);
    while (done < size) {
      const size_t rest = size - done;
      if (rest < kStraightMin) {
        int r = need(rest);
        if (r <= 0) return r;
        memcpy(dest + done, data(), rest);
        consume(rest);
        break;
      }
      size_t got = 0;
      int r = fill(dest + done, rest, &got);
      if (r <= 0) return r;
      done += got;
    }
    return 1;
  }

  // Reads and drops `size` bytes: 1, 0 or -1 as need().
  int skip(uint64_t size) {
    uint64_t left = size;
    while (left > 0) {
      size_t n = static_cast<size_t>(std::min<uint64_t>(left, available()));
      consume(n);
      left -= n;
      if (left == 0) break;
      size_t got = 0;
      int r = drain_ != nullptr && left >= kStraightMin
                  ? fill(drain_, static_cast<size_t>(std::min<uint64_t>(left, drain_size_)), &got)
                  : fill(nullptr, 0, nullptr);
      if (r <= 0) return r;
      left -= got;
    }
    return 1;
  }

  // The stream is lost: read ahead in bulk again while the marker is looked for.
  void bulkReads() { large_ = false; }

  // Waits up to `ms` for the client to hang up; true when it has.
  bool hungUp(int ms) {
    struct pollfd pfd = {fd_, 0, 0};
    return poll(&pfd, 1, ms) > 0 && (pfd.revents & (POLLHUP | POLLERR)) != 0;
  }

 private:
  // One read: into `dest` (up to dest_size, count in *got) and then into the stage (only a
  // header's worth after a destination). 1, 0 or -1 as need().
  int fill(uint8_t* dest, size_t dest_size, size_t* got) {
    for (;;) {
      if (may_be_empty_) {
        if (stop_) return -1;
        struct pollfd pfd = {fd_, POLLIN, 0};
        int r = poll(&pfd, 1, kDirectSelectUs / 1000);
        if (r == 0) continue;
        if (r < 0) {
          int err = errno;
          if (err == EINTR) continue;
          LOGE("select() error: %d(%s)\n", err, strerror(err));
          return -1;
        }
      }
      if (pos_ == end_) {
        pos_ = end_ = 0;
      } else if (end_ + kDirectHeaderSize > kStageSize || (dest == nullptr && pos_ > 0)) {
        memmove(stage_.get(), data(), available());
        end_ -= pos_;
        pos_ = 0;
      }
      struct iovec parts[2];
      int count = 0;
      if (dest != nullptr) parts[count++] = {dest, dest_size};
      const size_t room = kStageSize - end_;
      const bool header_only = dest != nullptr || large_;
      parts[count++] = {stage_.get() + end_,
                        header_only ? std::min<size_t>(room, kDirectHeaderSize * 4) : room};
      const size_t asked = (dest != nullptr ? dest_size : 0) + parts[count - 1].iov_len;
      ssize_t n = readv(fd_, parts, count);
      ++reads_;
      if (n > 0) {
        may_be_empty_ = static_cast<size_t>(n) < asked;
        size_t to_dest = dest != nullptr ? std::min(static_cast<size_t>(n), dest_size) : 0;
        if (got != nullptr) *got = to_dest;
        end_ += static_cast<size_t>(n) - to_dest;
        return 1;
      }
      if (n == 0) {
        LOGI("disconnected\n");
        return 0;
      }
      int err = errno;
      if (err == EAGAIN) {
        may_be_empty_ = true;
        continue;
      }
      if (err == EINTR) continue;
      LOGE("read error %d(%s)\n", err, strerror(err));
      return -1;
    }
  }

  int fd_;
  const std::atomic<bool>& stop_;
  std::atomic<uint64_t>& reads_;
  uint8_t* drain_;
  size_t drain_size_;
  std::unique_ptr<uint8_t[]> stage_;
  size_t pos_ = 0;
  size_t end_ = 0;
  bool may_be_empty_ = true;  // the last read did not fill what it asked for: poll first
  bool large_ = false;        // the last payload was read straight: stage only headers
};

// Writes all of the parts to the reply pipe, or with `lend` hands it their pages (vmsplice);
// `*written` counts the bytes that went in. Waits for a slow reader at most kReplyWaitMs at a
// time and gives up when the channel stops. 0 or -1.
int writeFully(int fd, struct iovec* parts, int count, bool lend, const std::atomic<bool>& stop,
               uint64_t* written) {
  while (count > 0) {
    ssize_t n = lend ? vmsplice(fd, parts, static_cast<unsigned long>(count), SPLICE_F_NONBLOCK)
                     : writev(fd, parts, count);
    if (n > 0) {
      *written += static_cast<uint64_t>(n);
      size_t left = static_cast<size_t>(n);
      while (count > 0 && left >= parts->iov_len) {
        left -= parts->iov_len;
        ++parts;
        --count;
      }
      if (count > 0) {
        parts->iov_base = static_cast<uint8_t*>(parts->iov_base) + left;
        parts->iov_len -= left;
      }
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

// Read replies whose payload the reply pipe took as pages of the reply's own buffer instead of
// a copy. Such a buffer is the client's to read until the pipe has let go of it: it goes back
// for reuse only once the pipe's unread count (FIONREAD) shows that every byte written up to
// its end has been read. The bytes were read from the card under the file's locks, so what the
// client gets is the file as it was then, whatever happens to the card afterwards.
class LentReplies {
 public:
  explicit LentReplies(DirectBuffers* buffers) : buffers_(buffers) {}
  ~LentReplies() { forget(); }
  LentReplies(const LentReplies&) = delete;
  LentReplies& operator=(const LentReplies&) = delete;

  // A lent buffer is held whole until the client has read it, and counted against the memory
  // bound meanwhile: only payloads that fill at least half of a mapped buffer are lent (a
  // pooled megabyte lent for 64 KiB would hold sixteen times the bytes the pipe has). The
  // others, and malloc'ed ones, are copied.
  static bool lends(const VELTWorkItem& item, uint32_t payload) {
    return item.buffers_ != nullptr && item.data_length_ >= DirectBuffers::kSmallMax &&
           static_cast<uint64_t>(payload) * 2 >= item.data_length_;
  }
  bool empty() const { return lent_.empty(); }
  // Bytes put into the pipe so far, lent or copied.
  uint64_t* written() { return &written_; }
  // Takes over the item's buffer, lent up to the bytes written so far.
  void keep(VELTWorkItem* item) {
    std::lock_guard<std::mutex> lock(item->mutex_);
    lent_.push_back({item->data_, item->data_length_, written_});
    item->data_ = nullptr;
    item->size_ = item->data_length_ = 0;
  }
  // Gives back the buffers the client has read.
  void reclaim(int fd) {
    int unread = 0;
    if (lent_.empty() || ioctl(fd, FIONREAD, &unread) != 0) return;
    const uint64_t read = written_ - static_cast<uint64_t>(unread);
    while (!lent_.empty() && lent_.front().end <= read) {
      buffers_->put(lent_.front().data, lent_.front().capacity);
      lent_.pop_front();
    }
  }
  // The connection ends: buffers still lent stay the pipe's, never to be reused.
  void forget() {
    for (const Lent& l : lent_) buffers_->abandon(l.data, l.capacity);
    lent_.clear();
  }

 private:
  struct Lent {
    uint8_t* data;
    uint32_t capacity;
    uint64_t end;  // written_ just past its last byte
  };
  DirectBuffers* buffers_;
  std::deque<Lent> lent_;
  uint64_t written_ = 0;
};

// Reads and drops what a client that went away left unread in the reply pipe.
void drainReplyPipe(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return;
  struct stat st;
  if (fstat(fd, &st) == 0 && ownFifo(st)) {
    uint8_t scratch[4096];
    while (read(fd, scratch, sizeof(scratch)) > 0) {
    }
  }
  ::close(fd);
}

// Drops what only a client that went away could collect: its queued and parked reads and the
// replies not sent yet. Its other requests stay queued.
void dropClientReads(VELT& v) {
  std::vector<VELTWorkItem*> dropped;
  {
    std::lock_guard<std::mutex> lock(v.request_mutex_);
    for (std::list<VELTWorkItem*>* queue : {&v.normal_requests_, &v.event_requests_}) {
      for (auto it = queue->begin(); it != queue->end();) {
        if (*it != nullptr && isDirectReadOp((*it)->op_)) {
          dropped.push_back(*it);
          it = queue->erase(it);
        } else {
          ++it;
        }
      }
    }
  }
  {
    std::lock_guard<std::mutex> lock(v.response_mutex_);
    dropped.insert(dropped.end(), v.responses_.begin(), v.responses_.end());
    v.responses_.clear();
  }
  for (VELTWorkItem* item : dropped) delete item;
  std::list<std::shared_ptr<VELT::File>> files;
  v.getDirectFiles(files);
  for (const std::shared_ptr<VELT::File>& file : files) direct::takePendingRead(v, *file, false);
}

// A write as merging builds it: bytes so far, its provisional tail and its flags.
struct MergedWrite {
  uint32_t size = 0;
  uint32_t tail = 0;  // new_size_offset of the last record taken
  uint32_t flags = 0;
  uint32_t peak = 0;  // most bytes it held at once (a short record over a long tail shrinks it)
};

// Takes the whole records at the front of the staged bytes `staged[0, available)` that merging
// would append to `write` (a write of `first`'s file and operation at `offset`), as long as
// they fit in `capacity` bytes; copies their payloads into `data` unless it is null (a dry run
// that measures). Returns the staged bytes they span. A stream of small records thus costs the
// queues' lock once per read of the pipe instead of twice per record.
size_t takeStagedContinuations(const uint8_t* staged, size_t available, const DirectHeader& first,
                               int64_t offset, uint8_t* data, uint32_t capacity,
                               MergedWrite* write) {
  size_t used = 0;
  while (available - used >= kDirectHeaderSize) {
    DirectHeader next;
    if (checkDirectHeader(staged + used, &next) != DirectHeaderCheck::kOk) break;
    const uint32_t payload = next.length - kDirectHeaderSize;
    const DirectQueuedWrite queued{first.op,    first.fd,    offset,
                                   write->size, write->tail, write->flags};
    if (!directWriteContinues(queued, next.op, next.fd, next.offset, payload)) break;
    const uint32_t at = write->size - write->tail;
    if (available - used - kDirectHeaderSize < payload ||
        static_cast<uint64_t>(at) + payload > capacity) {
      break;
    }
    if (data != nullptr) memcpy(data + at, staged + used + kDirectHeaderSize, payload);
    used += kDirectHeaderSize + payload;
    write->size = at + payload;
    write->peak = std::max(write->peak, write->size);
    write->tail = directWriteNewSizeOffset(next.param);
    write->flags |= directWriteFlags(next.param);
  }
  return used;
}

// Reads one record's payload and hands it to the queues: 0, or -1 when the connection ended.
int receiveRecord(VELT& v, RequestStream& in, const DirectHeader& h) {
  const uint32_t payload = h.length - kDirectHeaderSize;
  int32_t param = static_cast<int32_t>(h.param);
  uint32_t new_size_offset = 0;
  if (isDirectWriteOp(h.op)) {
    new_size_offset = directWriteNewSizeOffset(h.param);
    param = static_cast<int32_t>(directWriteFlags(h.param));
  }
  DirectBuffers* buffers = v.direct_buffers_.get();

  // A continuation of a queued write is read straight into that write's buffer.
  if (isDirectWriteOp(h.op) && payload > 0) {
    VELTWorkItem* target = nullptr;
    uint32_t at = 0;
    {
      std::lock_guard<std::mutex> lock(v.request_mutex_);
      target = v.__mergeTarget(h.op, h.fd, h.offset, payload);
      if (target != nullptr) {
        at = target->size_ - target->new_size_offset_;
        if (static_cast<uint64_t>(at) + payload <= target->data_length_) {
          target->filling_ = true;
        } else {
          target = nullptr;
        }
      }
    }
    if (target != nullptr) {
      int r = in.payload(target->data_ + at, payload);
      MergedWrite merged{at + payload, new_size_offset, static_cast<uint32_t>(param), 0};
      if (r > 0) {
        in.consume(takeStagedContinuations(in.data(), in.available(), h, target->offset_,
                                           target->data_, target->data_length_, &merged));
      }
      // Woken only when the write is due: otherwise the worker already waits for it. Decided
      // under the same lock that ends the filling: once it is released the worker may take the
      // write and free it.
      bool due = r <= 0;
      {
        std::lock_guard<std::mutex> lock(v.request_mutex_);
        target->filling_ = false;
        const uint64_t now = channelNow(v);
        if (r > 0) {
          std::lock_guard<std::mutex> item_lock(target->mutex_);
          target->size_ = merged.size;
          target->new_size_offset_ = merged.tail;
          target->param_ |= static_cast<int32_t>(merged.flags);
          target->updated_ = now;
        }
        if (!due) due = !v.__mayGrow(target, now);
      }
      if (due) v.request_cv_.notify_one();
      return r > 0 ? 0 : -1;
    }
  }

  // A write whose continuations are staged behind it already is queued with them.
  MergedWrite merged{payload, new_size_offset, static_cast<uint32_t>(param), payload};
  if (isDirectWriteOp(h.op) && payload > 0 && in.available() >= payload) {
    takeStagedContinuations(in.data() + payload, in.available() - payload, h, h.offset, nullptr,
                            UINT32_MAX, &merged);
  }
  VELTWorkItem* item = nullptr;
  try {
    item = new VELTWorkItem(h.fd, h.op, h.offset, param, 0, buffers);
    if (payload > 0 && !item->allocData(merged.peak)) {
      delete item;
      item = nullptr;
    }
  } catch (const std::exception&) {
    item = nullptr;
  }
  if (item == nullptr) {
    LOGE("got exception when creating direct writer buffer %zd bytes\n",
         static_cast<ssize_t>(payload));
    return in.skip(payload) > 0 ? 0 : -1;
  }
  item->new_size_offset_ = new_size_offset;
  if (payload > 0 && in.payload(item->data_, payload) <= 0) {
    delete item;
    return -1;
  }
  if (isDirectWriteOp(h.op) && payload > 0) {
    MergedWrite taken{payload, new_size_offset, static_cast<uint32_t>(param), payload};
    in.consume(takeStagedContinuations(in.data(), in.available(), h, h.offset, item->data_,
                                       item->data_length_, &taken));
    item->size_ = taken.size;
    item->new_size_offset_ = taken.tail;
    item->param_ = static_cast<int32_t>(taken.flags);
  }
  item->created_ = item->updated_ = channelNow(v);
  // A queued read counts as the reply it will make, so that reads nobody collects stop the
  // receiver before their replies pile up.
  if (isDirectReadOp(h.op) && param > 0) {
    item->reserveReply(static_cast<uint32_t>(std::min(param, direct::kReadMax)));
  }
  bool wake;
  {
    std::lock_guard<std::mutex> lock(v.request_mutex_);
    wake = v.__queueRequest(item);
  }
  if (wake) v.request_cv_.notify_one();
  if (!v.responder_open_) {
    std::lock_guard<std::mutex> lock(v.response_mutex_);
    v.responder_retry_ = true;
    v.response_cv_.notify_all();
  }
  return 0;
}


}  // namespace

void VELT::pipe_reader() {
  DirectFramer framer;
  for (;;) {
    receiver_open_ = false;
    int fd = openPipe(kDirectRequestPipe, O_RDONLY | O_NONBLOCK);
    if (fd < 0) {
      int err = errno;
      LOGE("[%s] open receiver error: %d(%s)\n", kDirectRequestPipe, err, strerror(err));
      return;
    }
    // Room for a few merged writes in the pipe; a refusal only costs speed.
    growPipe(fd);
    receiver_open_ = true;
    if (direct_stop_) {
      ::close(fd);
      receiver_open_ = false;
      return;
    }
    RequestStream in(fd, direct_stop_, direct_reads_, drain_buffer_.get(),
                     drain_buffer_ != nullptr ? VELT_BUFFER_SIZE : 0);
    bool hung_up = false;
    bool paused = false;
    while (!direct_stop_) {
      // Back-pressure: while the channel holds too much, the client's writes wait in the pipe;
      // what a client that has gone away left there waits too, until its writes make room.
      if (direct_buffers_->held() > direct_held_max_) {
        if (!paused) {
          paused = true;
          ++direct_pauses_;
        }
        if (!hung_up) {
          hung_up = in.hungUp(kPauseWaitMs);
        } else {
          std::this_thread::sleep_for(std::chrono::milliseconds(kPauseWaitMs));
        }
        // A client that has gone away reads no replies: its reads go, its writes stay queued
        // and make room as the worker puts them on the card.
        if (hung_up) dropClientReads(*this);
        continue;
      }
      paused = false;
      if (in.need(framer.wanted()) <= 0) break;
      size_t used = 0;
      DirectHeader h;
      DirectHeaderCheck check = DirectHeaderCheck::kOk;
      const DirectFramer::Step step = framer.step(in.data(), in.available(), &used, &h, &check);
      in.consume(used);
      if (step == DirectFramer::Step::kMore) continue;
      if (step == DirectFramer::Step::kSynced) {
        LOGI("data synced.\n");
        continue;
      }
      if (step == DirectFramer::Step::kBroken) {
        if (check == DirectHeaderCheck::kBrokenMarker) {
          LOGE("data sync broken!\n");
        } else {
          // A length shorter than the header itself: the stream is not where it seems to be.
          NERIO_ASSERT_TEXT("(ssize_t)size >= 0");
        }
        in.bulkReads();
        continue;
      }
      if (check == DirectHeaderCheck::kTooLarge) {
        // The client learns that its record was not taken; the stream stays in step.
        LOGE("record of %u bytes is too large, refused\n", h.length);
        try {
          queueDirectResponse(
              new VELTWorkItem(h.fd, kDirectOpError, h.offset, -EFBIG, 0, direct_buffers_.get()));
        } catch (const std::exception&) {
          LOGE("got exception when creating direct response\n");
        }
        if (in.skip(h.length - kDirectHeaderSize) <= 0) break;
        continue;
      }
      // Still gone (a next client may have opened the pipe meanwhile): nobody awaits the read.
      if (hung_up && isDirectReadOp(h.op) && (hung_up = in.hungUp(0))) {
        if (in.skip(h.length - kDirectHeaderSize) <= 0) break;
        continue;
      }
      if (receiveRecord(*this, in, h) < 0) break;
    }
    ::close(fd);
    receiver_open_ = false;
    framer.lose();
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
      fd = openPipe(kDirectReplyPipe, O_WRONLY | O_NONBLOCK);
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
    // Room for a few read replies in the pipe; a refusal only costs speed.
    growPipe(fd);
    responder_open_ = true;
    if (direct_stop_) {
      ::close(fd);
      responder_open_ = false;
      return;
    }
    // The descriptor stays non-blocking: a write waits for the client in bounded steps, so a
    // client that stops reading cannot hold up a stop.
    LentReplies lent(direct_buffers_.get());
    bool broken = false;
    int look_ms = 1;
    for (;;) {
      VELTWorkItem* item = nullptr;
      bool took = false;
      {
        std::unique_lock<std::mutex> lock(response_mutex_);
        auto due = [this] { return !responses_.empty() || direct_stop_ || responder_reset_; };
        // While replies are lent, the pipe is looked at now and then for buffers to give back.
        if (lent.empty()) {
          response_cv_.wait(lock, due);
        } else {
          response_cv_.wait_for(lock, std::chrono::milliseconds(look_ms), due);
        }
        if (responder_reset_ || (direct_stop_ && responses_.empty())) break;
        if (!responses_.empty()) {
          took = true;
          item = responses_.front();
          responses_.pop_front();
        }
      }
      lent.reclaim(fd);
      if (!took) {  // only a look at the lent replies
        look_ms = std::min(look_ms * 2, kLentLookMaxMs);
        continue;
      }
      if (item == nullptr) {
        NERIO_ASSERT_TEXT("work_item != nullptr");
        continue;
      }
      look_ms = 1;
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
      struct iovec parts[2] = {{header, sizeof(header)}, {item->data_, payload}};
      if (LentReplies::lends(*item, payload)) {
        // The header is copied (its memory is this thread's stack), the payload lent; the
        // buffer is the pipe's from then on, even when only part of it went in.
        broken = writeFully(fd, parts, 1, false, direct_stop_, lent.written()) < 0 ||
                 writeFully(fd, parts + 1, 1, true, direct_stop_, lent.written()) < 0;
        lent.keep(item);
      } else {
        broken = writeFully(fd, parts, payload > 0 ? 2 : 1, false, direct_stop_,
                            lent.written()) < 0;
      }
      delete item;
      if (broken || direct_stop_) break;
    }
    // Bytes left in the pipe belong to a client that is gone.
    drainReplyPipe(path);
    lent.reclaim(fd);
    lent.forget();
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
      // Only writes that may still grow: sleep until the first of them is due (the receiver
      // wakes the worker sooner when one becomes ready).
      const uint64_t delay = std::max<uint64_t>(__nextFetchDelay(), 200);
      request_cv_.wait_for(lock, std::chrono::microseconds(delay));
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
    preparePipe(pipe, platformPath(pipe));
  }
  prepareLockFile();
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
  if (direct_buffers_ == nullptr) direct_buffers_ = std::make_shared<DirectBuffers>();
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
