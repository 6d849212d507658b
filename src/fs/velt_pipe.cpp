// The direct channel: wire format, work items, and the request and reply queues.
//
// Hand-over between the threads (velt_pipe_threads.cpp): the receiver parses records into work
// items and queues them (merging contiguous writes) under request_mutex_; the worker takes one
// item at a time by queue priority and carries it out (velt_pipe_ops.cpp) without that mutex;
// replies go to responses_ under response_mutex_, from which the replier writes them.
#include "fs/velt_pipe.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <sys/mman.h>

#include <new>
#include <vector>

#include "fs/velt.h"
#include "fs/velt_endian.h"
#include "fs/velt_file.h"
#include "fs/velt_pipe_work.h"
#include "utils/Utils.h"

namespace velt {

static constexpr const char kLogTag[] = "VELT.Direct";

using namespace direct;

namespace {

int64_t le64s(const uint8_t* p) {
  return static_cast<int64_t>(static_cast<uint64_t>(le32(p)) |
                              (static_cast<uint64_t>(le32(p + 4)) << 32));
}
void putLe64(uint8_t* p, int64_t v) {
  putLe32(p, static_cast<uint32_t>(static_cast<uint64_t>(v)));
  putLe32(p + 4, static_cast<uint32_t>(static_cast<uint64_t>(v) >> 32));
}

}  // namespace

// ===== Wire format =====

void encodeDirectHeader(const DirectHeader& header, uint8_t* out) {
  memcpy(out + direct_hdr::kMarker, kDirectMarker, sizeof(kDirectMarker));
  putLe32(out + direct_hdr::kLength, header.length);
  putLe32(out + direct_hdr::kFd, static_cast<uint32_t>(header.fd));
  putLe32(out + direct_hdr::kOp, header.op);
  putLe64(out + direct_hdr::kOffset, header.offset);
  putLe32(out + direct_hdr::kParam, header.param);
}

DirectHeader decodeDirectHeader(const uint8_t* in) {
  DirectHeader header;
  header.length = le32(in + direct_hdr::kLength);
  header.fd = static_cast<int32_t>(le32(in + direct_hdr::kFd));
  header.op = le32(in + direct_hdr::kOp);
  header.offset = le64s(in + direct_hdr::kOffset);
  header.param = le32(in + direct_hdr::kParam);
  return header;
}

bool hasDirectMarker(const uint8_t* in) {
  return memcmp(in + direct_hdr::kMarker, kDirectMarker, sizeof(kDirectMarker)) == 0;
}

void encodeDirectSplice(const DirectSplice& splice, uint8_t* out) {
  putLe32(out, splice.out_fd);
  putLe64(out + 4, splice.out_offset);
  putLe32(out + 12, splice.size);
}

bool decodeDirectSplice(const uint8_t* in, size_t size, DirectSplice* splice) {
  if (in == nullptr || size != kDirectSpliceSize) return false;
  splice->out_fd = le32(in);
  splice->out_offset = le64s(in + 4);
  splice->size = le32(in + 12);
  return true;
}

bool directWriteContinues(const DirectQueuedWrite& queued, uint32_t op, int32_t fd,
                          int64_t offset, uint32_t size) {
  if (!isDirectWriteOp(op) || queued.op != op || queued.fd != fd || size == 0) return false;
  // A ready write is on its way to the card (a close may be writing it right now).
  if ((queued.flags & kDirectFlagReady) != 0 || queued.tail > queued.size) return false;
  const uint32_t at = queued.size - queued.tail;
  return offset == queued.offset + at && static_cast<uint64_t>(at) + size <= kDirectMergeMax;
}

bool isDirectWriteOp(uint32_t op) {
  return op == kDirectOpWrite || op == kDirectOpWriteEvent;
}
bool isDirectReadOp(uint32_t op) {
  return op == kDirectOpRead || op == kDirectOpReadEvent;
}
bool isDirectControlOp(uint32_t op) {
  return op == kDirectOpOpen || op == kDirectOpCreate;
}
bool isDirectEventQueueOp(uint32_t op, uint32_t param) {
  if (op == kDirectOpClose) return (param & kDirectFlagEvent) != 0;
  return op == kDirectOpWriteEvent || op == kDirectOpReadEvent || op == kDirectOpSpliceEvent;
}

bool DirectMarkerSearch::push(uint8_t byte) {
  if (byte == kDirectMarker[matched_]) {
    if (++matched_ < static_cast<int>(sizeof(kDirectMarker))) return false;
    matched_ = 0;
    return true;
  }
  matched_ = 0;
  return false;
}

bool findDirectMarker(DirectMarkerSearch& search, const uint8_t* data, size_t size, size_t* used) {
  size_t i = 0;
  while (i < size) {
    if (search.matched() == 0) {
      // Nothing matched: every byte up to the next first marker byte leaves it so.
      const void* first = memchr(data + i, kDirectMarker[0], size - i);
      if (first == nullptr) break;
      i = static_cast<size_t>(static_cast<const uint8_t*>(first) - data);
    }
    if (search.push(data[i++])) {
      *used = i;
      return true;
    }
  }
  *used = size;
  return false;
}

DirectHeaderCheck checkDirectHeader(const uint8_t* in, DirectHeader* header) {
  *header = decodeDirectHeader(in);
  if (!hasDirectMarker(in)) return DirectHeaderCheck::kBrokenMarker;
  if (header->length < kDirectHeaderSize) return DirectHeaderCheck::kShortLength;
  if (header->length - kDirectHeaderSize > kDirectPayloadMax) return DirectHeaderCheck::kTooLarge;
  return DirectHeaderCheck::kOk;
}

size_t DirectFramer::wanted() const {
  switch (state_) {
    case State::kSearching: return 1;
    case State::kMarkerFound: return kDirectHeaderSize - sizeof(kDirectMarker);
    case State::kSynced: break;
  }
  return kDirectHeaderSize;
}

void DirectFramer::lose() {
  state_ = State::kSearching;
  search_.reset();
}

DirectFramer::Step DirectFramer::step(const uint8_t* data, size_t size, size_t* used,
                                      DirectHeader* header, DirectHeaderCheck* check) {
  if (state_ == State::kSearching) {
    if (!findDirectMarker(search_, data, size, used)) return Step::kMore;
    state_ = State::kMarkerFound;
    return Step::kSynced;
  }
  uint8_t bytes[kDirectHeaderSize];
  if (state_ == State::kMarkerFound) {
    memcpy(bytes, kDirectMarker, sizeof(kDirectMarker));
    memcpy(bytes + sizeof(kDirectMarker), data, kDirectHeaderSize - sizeof(kDirectMarker));
    *used = kDirectHeaderSize - sizeof(kDirectMarker);
  } else {
    memcpy(bytes, data, kDirectHeaderSize);
    *used = kDirectHeaderSize;
  }
  *check = checkDirectHeader(bytes, header);
  if (*check == DirectHeaderCheck::kBrokenMarker || *check == DirectHeaderCheck::kShortLength) {
    lose();
    return Step::kBroken;
  }
  state_ = State::kSynced;
  return Step::kHeader;
}

DirectStreamCounts parseDirectStream(
    const uint8_t* data, size_t size,
    const std::function<void(const DirectHeader&, const uint8_t*, size_t)>& record) {
  DirectStreamCounts counts;
  DirectFramer framer;
  size_t at = 0;
  while (at < size && size - at >= framer.wanted()) {
    size_t used = 0;
    DirectHeader h;
    DirectHeaderCheck check = DirectHeaderCheck::kOk;
    const DirectFramer::Step step = framer.step(data + at, size - at, &used, &h, &check);
    at += used;
    if (step == DirectFramer::Step::kMore) {
      counts.skipped += used;
    } else if (step == DirectFramer::Step::kSynced) {
      counts.skipped += used - std::min<size_t>(used, sizeof(kDirectMarker));
    } else if (step == DirectFramer::Step::kBroken) {
      ++counts.broken;
    } else {
      if (check == DirectHeaderCheck::kTooLarge) ++counts.too_large;
      const size_t here = std::min<size_t>(h.length - kDirectHeaderSize, size - at);
      ++counts.records;
      record(h, data + at, here);
      at += here;
    }
  }
  return counts;
}

// ===== Payload memory =====

namespace {

size_t pageRound(size_t size) {
  const size_t page = 4096;
  return (size + page - 1) / page * page;
}

uint8_t* mapBytes(size_t size) {
  // Populated at once: a payload fills all of it, one fault per page would cost more.
  void* p = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE,
                 -1, 0);
  return p == MAP_FAILED ? nullptr : static_cast<uint8_t*>(p);
}

}  // namespace

DirectBuffers::~DirectBuffers() {
  for (uint8_t* p : idle_) munmap(p, kPooledSize);
}

uint8_t* DirectBuffers::get(uint32_t size, uint32_t* capacity) {
  uint8_t* data = nullptr;
  size_t cap = size;
  if (size < kSmallMax) {
    data = static_cast<uint8_t*>(malloc(size > 0 ? size : 1));
  } else if (size <= kPooledSize) {
    cap = kPooledSize;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (!idle_.empty()) {
        data = idle_.back();
        idle_.pop_back();
      }
    }
    if (data == nullptr) {
      data = mapBytes(cap);
      if (data != nullptr) mapped_ += static_cast<int64_t>(cap);
    }
  } else {
    cap = pageRound(size);
    data = mapBytes(cap);
    if (data != nullptr) mapped_ += static_cast<int64_t>(cap);
  }
  if (data == nullptr) return nullptr;
  *capacity = static_cast<uint32_t>(cap);
  held_ += static_cast<int64_t>(cap);
  return data;
}

void DirectBuffers::put(uint8_t* data, uint32_t capacity) {
  if (data == nullptr) return;
  held_ -= static_cast<int64_t>(capacity);
  if (capacity < kSmallMax) {
    free(data);
    // Many small payloads at once leave the heap large; give it back once the channel is
    // nearly idle again.
    if ((freed_small_ += capacity) > (8 << 20) && held() < kPooledSize) {
      freed_small_ = 0;
      malloc_trim(0);
    }
    return;
  }
  if (capacity == kPooledSize) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (static_cast<int>(idle_.size()) < kIdleKept) {
      idle_.push_back(data);
      return;
    }
  }
  munmap(data, capacity);
  mapped_ -= static_cast<int64_t>(capacity);
}

void DirectBuffers::abandon(uint8_t* data, uint32_t capacity) {
  if (data == nullptr) return;
  if (capacity < kSmallMax) {
    put(data, capacity);
    return;
  }
  held_ -= static_cast<int64_t>(capacity);
  munmap(data, capacity);
  mapped_ -= static_cast<int64_t>(capacity);
}

int DirectBuffers::idleCount() {
  std::lock_guard<std::mutex> lock(mutex_);
  return static_cast<int>(idle_.size());
}

// ===== Work item =====

namespace {

// A buffer of at least `size` bytes from `buffers`, or from malloc without one.
uint8_t* takeBuffer(DirectBuffers* buffers, uint32_t size, uint32_t* capacity) {
  if (buffers != nullptr) return buffers->get(size, capacity);
  auto* data = static_cast<uint8_t*>(malloc(size > 0 ? size : 1));
  if (data != nullptr) *capacity = size;
  return data;
}

void giveBuffer(DirectBuffers* buffers, uint8_t* data, uint32_t capacity) {
  if (buffers != nullptr) {
    buffers->put(data, capacity);
  } else {
    free(data);
  }
}

}  // namespace

VELTWorkItem::VELTWorkItem(int32_t fd, uint32_t op, int64_t offset, int32_t param,
                           uint32_t payload_size, DirectBuffers* buffers)
    : fd_(fd), op_(op), offset_(offset), param_(param), buffers_(buffers) {
  if (payload_size > 0) {
    uint32_t capacity = 0;
    data_ = takeBuffer(buffers_, payload_size, &capacity);
    if (data_ == nullptr) {
      NERIO_ASSERT_TEXT("data_ != nullptr");
      throw std::bad_alloc();
    }
    data_length_ = capacity;
    size_ = payload_size;
  }
  if (buffers_ != nullptr) buffers_->addItem();
  created_ = updated_ = nerio::monotonicMicros();
}

VELTWorkItem::~VELTWorkItem() {
  releaseData();
  releaseReply();
  if (buffers_ != nullptr) buffers_->dropItem();
}

void VELTWorkItem::reserveReply(uint32_t size) {
  if (buffers_ == nullptr) return;
  releaseReply();
  reserved_ = size;
  buffers_->reserve(size);
}

void VELTWorkItem::releaseReply() {
  if (buffers_ != nullptr && reserved_ > 0) buffers_->reserve(-static_cast<int64_t>(reserved_));
  reserved_ = 0;
}

void VELTWorkItem::releaseData() {
  std::lock_guard<std::mutex> lock(mutex_);
  giveBuffer(buffers_, data_, data_length_);
  data_ = nullptr;
  size_ = data_length_ = 0;
}

bool VELTWorkItem::appendData(const void* data, uint32_t size, uint32_t new_size_offset) {
  std::lock_guard<std::mutex> lock(mutex_);
  const bool is_write = isDirectWriteOp(op_);
  if (!is_write) NERIO_ASSERT_TEXT("op_ == kDirectOpWrite || op_ == kDirectOpWriteEvent");
  if (size <= new_size_offset) NERIO_ASSERT_TEXT("size > new_size_offset");
  // A write's provisional tail is overwritten by its continuation.
  const uint32_t at = is_write ? size_ - std::min(new_size_offset_, size_) : size_;
  const uint64_t needed = static_cast<uint64_t>(at) + size;
  if (needed > UINT32_MAX) return false;
  if (size > 0) {
    if (needed > data_length_) {
      uint32_t capacity = 0;
      uint8_t* grown = takeBuffer(buffers_, static_cast<uint32_t>(needed), &capacity);
      if (grown == nullptr) {
        NERIO_ASSERT_TEXT("new_data");
        return false;
      }
      if (at > 0) memcpy(grown, data_, at);
      giveBuffer(buffers_, data_, data_length_);
      data_ = grown;
      data_length_ = capacity;
    }
    memcpy(data_ + at, data, size);
  }
  size_ = at + size;
  new_size_offset_ = new_size_offset;
  updated_ = nerio::monotonicMicros();
  return true;
}

bool VELTWorkItem::allocData(uint32_t size) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (data_ != nullptr) {
    NERIO_ASSERT_TEXT("data_ == nullptr");
    giveBuffer(buffers_, data_, data_length_);
    data_ = nullptr;
  }
  size_ = data_length_ = 0;
  updated_ = nerio::monotonicMicros();
  if (size == 0) return true;
  uint32_t capacity = 0;
  data_ = takeBuffer(buffers_, size, &capacity);
  if (data_ == nullptr) {
    NERIO_ASSERT_TEXT("data_ != nullptr");
    return false;
  }
  size_ = size;
  data_length_ = capacity;
  return true;
}

// ===== Queues =====

std::list<VELTWorkItem*>* VELT::__queueOf(uint32_t op, int32_t param) {
  if (isDirectControlOp(op)) return &control_requests_;
  if (isDirectEventQueueOp(op, static_cast<uint32_t>(param))) return &event_requests_;
  return &normal_requests_;
}

VELTWorkItem* VELT::__mergeTarget(uint32_t op, int32_t fd, int64_t offset, uint32_t size) {
  if (!isDirectWriteOp(op) || size == 0) return nullptr;
  std::list<VELTWorkItem*>* queue = __queueOf(op, 0);
  for (auto it = queue->rbegin(); it != queue->rend(); ++it) {
    VELTWorkItem* last = *it;
    if (last == nullptr || last->op_ != op || last->fd_ != fd) continue;
    if (last->filling_ || last->data_ == nullptr) return nullptr;
    const DirectQueuedWrite queued{last->op_, last->fd_, last->offset_, last->size_,
                                   last->new_size_offset_, static_cast<uint32_t>(last->param_)};
    return directWriteContinues(queued, op, fd, offset, size) ? last : nullptr;
  }
  return nullptr;
}

bool VELT::__queueRequest(VELTWorkItem* item) {
  std::list<VELTWorkItem*>* queue = __queueOf(item->op_, item->param_);
  try {
    if (isDirectWriteOp(item->op_) && item->size_ > 0) {
      VELTWorkItem* last = __mergeTarget(item->op_, item->fd_, item->offset_, item->size_);
      if (last != nullptr && last->appendData(item->data_, item->size_, item->new_size_offset_)) {
        last->param_ |= item->param_;
        last->updated_ = channelNow(*this);
        delete item;
        return (static_cast<uint32_t>(last->param_) & kDirectFlagReady) != 0;
      }
      // The newest write of the file will not grow any more.
      for (auto it = queue->rbegin(); it != queue->rend(); ++it) {
        if (*it != nullptr && (*it)->op_ == item->op_ && (*it)->fd_ == item->fd_) {
          if (!(*it)->filling_) (*it)->param_ |= kDirectFlagReady;
          break;
        }
      }
      queue->push_back(item);
      return true;
    }
    queue->push_back(item);
    // Any other request about a file (a close, a read, a size query) means its client wants
    // the file as sent so far: its writes need not wait for appends any more.
    for (VELTWorkItem* queued : *queue) {
      if (queued != nullptr && queued->fd_ == item->fd_ && queued != item &&
          (item->op_ == kDirectOpClose || isDirectWriteOp(queued->op_)) && !queued->filling_) {
        queued->param_ |= kDirectFlagReady;
      }
    }
    return true;
  } catch (const std::exception&) {
    LOGE("got exception when creating direct writer buffer %zd bytes\n",
         static_cast<ssize_t>(item->size_));
    delete item;
    return false;
  }
}

namespace {

bool isReady(const VELTWorkItem* request) {
  return (static_cast<uint32_t>(request->param_) & kDirectFlagReady) != 0;
}

}  // namespace

bool VELT::__mayGrow(const VELTWorkItem* request, uint64_t now) const {
  if (request == nullptr || !isDirectWriteOp(request->op_)) return false;
  if (request->filling_) return true;
  if (isReady(request) || direct_stop_) return false;
  return now < request->updated_ + kDirectGrowUs && now < request->created_ + direct_max_age_us_;
}

std::list<VELTWorkItem*>::iterator VELT::__firstTakeable(std::list<VELTWorkItem*>& queue,
                                                         uint64_t now) {
  // A write that may still grow holds back the later requests of its file only; requests of
  // other files go past it. A splice touches two files, so nothing goes past a held-back
  // write to reach one.
  int32_t held[kDirectScanMax];
  int held_count = 0;
  int scanned = 0;
  for (auto it = queue.begin(); it != queue.end() && scanned < kDirectScanMax; ++it, ++scanned) {
    VELTWorkItem* request = *it;
    if (request == nullptr) return it;
    if (held_count > 0 &&
        (request->op_ == kDirectOpSplice || request->op_ == kDirectOpSpliceEvent)) {
      break;
    }
    bool blocked = false;
    for (int i = 0; i < held_count && !blocked; ++i) blocked = held[i] == request->fd_;
    if (blocked) continue;
    if (__mayGrow(request, now)) {
      held[held_count++] = request->fd_;
      continue;
    }
    return it;
  }
  return queue.end();
}

VELTWorkItem* VELT::__fetchRequest() {
  const uint64_t now = channelNow(*this);
  auto take = [](std::list<VELTWorkItem*>& queue, std::list<VELTWorkItem*>::iterator it) {
    VELTWorkItem* request = *it;
    queue.erase(it);
    if (request == nullptr) NERIO_ASSERT_TEXT("request != nullptr");
    return request;
  };
  if (!control_requests_.empty()) return take(control_requests_, control_requests_.begin());
  auto normal = normal_requests_.empty() ? normal_requests_.end()
                                         : __firstTakeable(normal_requests_, now);
  if (!event_requests_.empty()) {
    // A steady stream of event requests must not starve the normal queue.
    if (normal != normal_requests_.end() && now > last_normal_fetch_ + kDirectFairnessUs &&
        (*normal == nullptr || now > (*normal)->updated_ + kDirectFairnessUs)) {
      last_normal_fetch_ = now;
      return take(normal_requests_, normal);
    }
    auto event = __firstTakeable(event_requests_, now);
    if (event != event_requests_.end()) return take(event_requests_, event);
  }
  if (normal != normal_requests_.end()) {
    last_normal_fetch_ = now;
    return take(normal_requests_, normal);
  }
  return nullptr;
}

uint64_t VELT::__nextFetchDelay() const {
  const uint64_t now = channelNow(*this);
  uint64_t delay = kDirectIdleWaitUs;
  for (const auto* queue : {&normal_requests_, &event_requests_}) {
    int scanned = 0;
    for (auto it = queue->begin(); it != queue->end() && scanned < kDirectScanMax; ++it, ++scanned) {
      const VELTWorkItem* request = *it;
      // The receiver wakes the worker when it finishes filling an item that is due.
      if (request == nullptr || !__mayGrow(request, now) || request->filling_) continue;
      const uint64_t due =
          std::min(request->updated_ + kDirectGrowUs, request->created_ + direct_max_age_us_);
      delay = std::min(delay, due > now ? due - now : 0);
    }
  }
  return delay;
}

void VELT::flushAllRequests(const std::shared_ptr<File>& file, bool event, bool close_all) {
  int32_t file_no = -1;
  if (file != nullptr) {
    std::lock_guard<std::mutex> lock(file->mutex_);
    file_no = static_cast<int32_t>(file->file_no_);
  }
  std::unique_lock<std::mutex> lock(request_mutex_);
  // A teardown must not close a file under a request the worker is carrying out.
  if (close_all) direct_idle_cv_.wait(lock, [this] { return !direct_busy_; });

  std::vector<std::list<VELTWorkItem*>*> queues;
  if (file != nullptr) {
    queues.push_back(event ? &event_requests_ : &normal_requests_);
  } else {
    // Opens of a client that went away would only make files nobody closes.
    queues = {&control_requests_, &event_requests_, &normal_requests_};
  }
  int removed = 0;
  for (std::list<VELTWorkItem*>* queue : queues) {
    if (queue == nullptr) {
      NERIO_ASSERT_TEXT("q != nullptr");
      continue;
    }
    for (auto it = queue->begin(); it != queue->end();) {
      VELTWorkItem* request = *it;
      if (request != nullptr &&
          ((file != nullptr && request->fd_ != file_no) || request->filling_)) {
        ++it;
        continue;
      }
      it = queue->erase(it);
      if (request == nullptr) continue;
      ++removed;
      if (isDirectWriteOp(request->op_) && request->data_ != nullptr) {  // never an empty buffer
        std::shared_ptr<File> target = file != nullptr ? file : directFile(*this, request->fd_);
        if (target != nullptr) writeRequest(*target, request);
      }
      delete request;
    }
  }
  if (!close_all) return;

  std::list<std::shared_ptr<File>> files;
  if (file != nullptr) {
    files.push_back(file);
  } else {
    getDirectFiles(files);
  }
  LOGW("pending requests#%d, still open files#%d\n", removed, static_cast<int>(files.size()));
  for (const std::shared_ptr<File>& open : files) {
    LOGW("close pending file(no %d) \"%s\" \n", static_cast<int>(open->file_no_),
         entryPath(*open).c_str());
    takePendingRead(*this, *open, false);
    open->close();
  }
}

void VELT::getDirectQueueLengths(uint32_t* normal_count, uint32_t* event_count) {
  std::lock_guard<std::mutex> lock(request_mutex_);
  if (normal_count != nullptr) *normal_count = static_cast<uint32_t>(normal_requests_.size());
  if (event_count != nullptr) *event_count = static_cast<uint32_t>(event_requests_.size());
}

void VELT::queueDirectResponse(VELTWorkItem* item) {
  try {
    std::lock_guard<std::mutex> lock(response_mutex_);
    responses_.push_back(item);
  } catch (const std::exception&) {
    LOGE("got exception when creating direct response\n");
    delete item;
    return;
  }
  response_cv_.notify_one();
}

int VELT::postDirectResponse(VELTWorkItem* item) {
  if (direct_stop_) return -1;
  if (item == nullptr) return -1;
  queueDirectResponse(item);
  return 0;
}

}  // namespace velt
