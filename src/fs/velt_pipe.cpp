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

// ===== Work item =====

VELTWorkItem::VELTWorkItem(int32_t fd, uint32_t op, int64_t offset, int32_t param,
                           uint32_t payload_size)
    : fd_(fd),
      op_(op),
      offset_(offset),
      data_length_(payload_size),
      size_(payload_size),
      param_(param) {
  if (payload_size > 0) {
    data_ = static_cast<uint8_t*>(malloc(payload_size));
    if (data_ == nullptr) {
      NERIO_ASSERT_TEXT("data_ != nullptr");
      data_length_ = size_ = 0;
      throw std::bad_alloc();
    }
  }
  created_ = updated_ = nerio::monotonicMicros();
}

VELTWorkItem::~VELTWorkItem() {
  std::lock_guard<std::mutex> lock(mutex_);
  size_ = data_length_ = 0;
  free(data_);
  data_ = nullptr;
}

bool VELTWorkItem::appendData(const void* data, uint32_t size, uint32_t new_size_offset) {
  std::lock_guard<std::mutex> lock(mutex_);
  const bool is_write = isDirectWriteOp(op_);
  if (!is_write) NERIO_ASSERT_TEXT("op_ == kDirectOpWrite || op_ == kDirectOpWriteEvent");
  if (size <= new_size_offset) NERIO_ASSERT_TEXT("size > new_size_offset");
  // A write's provisional tail is overwritten by its continuation.
  const uint32_t at = is_write ? size_ - std::min(new_size_offset_, size_) : size_;
  const uint64_t grown = static_cast<uint64_t>(data_length_) + size;
  if (grown > UINT32_MAX) return false;
  if (size > 0) {
    auto* new_data = static_cast<uint8_t*>(realloc(data_, grown));
    if (new_data == nullptr) {
      NERIO_ASSERT_TEXT("new_data");
      return false;
    }
    data_ = new_data;
    data_length_ = static_cast<uint32_t>(grown);
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
    free(data_);
    data_ = nullptr;
  }
  size_ = data_length_ = size;
  updated_ = nerio::monotonicMicros();
  if (size == 0) return true;
  data_ = static_cast<uint8_t*>(malloc(size));
  if (data_ == nullptr) {
    NERIO_ASSERT_TEXT("data_ != nullptr");
    size_ = data_length_ = 0;
    return false;
  }
  return true;
}

// ===== Queues =====

void VELT::__queueRequest(VELTWorkItem* item) {
  std::list<VELTWorkItem*>* queue = &normal_requests_;
  if (isDirectControlOp(item->op_)) {
    queue = &control_requests_;
  } else if (isDirectEventQueueOp(item->op_, static_cast<uint32_t>(item->param_))) {
    queue = &event_requests_;
  }
  try {
    if (isDirectWriteOp(item->op_) && item->size_ > 0) {
      VELTWorkItem* last = nullptr;
      for (auto it = queue->rbegin(); it != queue->rend(); ++it) {
        if (*it != nullptr && (*it)->op_ == item->op_ && (*it)->fd_ == item->fd_) {
          last = *it;
          break;
        }
      }
      if (last != nullptr) {
        const int64_t next = last->offset_ + last->size_ - last->new_size_offset_;
        const uint64_t merged =
            static_cast<uint64_t>(last->size_) + item->size_ - last->new_size_offset_;
        if (item->offset_ == next && merged <= kDirectMergeMax &&
            last->appendData(item->data_, item->size_, item->new_size_offset_)) {
          last->param_ |= item->param_;
          last->updated_ = channelNow(*this);
          delete item;
          return;
        }
        last->param_ |= kDirectFlagReady;
      }
      queue->push_back(item);
      return;
    }
    queue->push_back(item);
    if (item->op_ == kDirectOpClose) {
      // The file's writes need not wait for appends any more.
      for (VELTWorkItem* queued : *queue) {
        if (queued != nullptr && queued->fd_ == item->fd_) queued->param_ |= kDirectFlagReady;
      }
    }
  } catch (const std::exception&) {
    LOGE("got exception when creating direct writer buffer %zd bytes\n",
         static_cast<ssize_t>(item->size_));
    delete item;
  }
}

VELTWorkItem* VELT::__fetchRequest() {
  const uint64_t now = channelNow(*this);
  auto growing = [&](const VELTWorkItem* request) {
    return request != nullptr && isDirectWriteOp(request->op_) &&
           (static_cast<uint32_t>(request->param_) & kDirectFlagReady) == 0 && !direct_stop_ &&
           now < request->updated_ + kDirectGrowUs;
  };
  auto take = [](std::list<VELTWorkItem*>& queue) {
    VELTWorkItem* request = queue.front();
    queue.pop_front();
    if (request == nullptr) NERIO_ASSERT_TEXT("request != nullptr");
    return request;
  };
  if (!control_requests_.empty()) return take(control_requests_);
  if (!event_requests_.empty()) {
    // A steady stream of event requests must not starve the normal queue.
    if (!normal_requests_.empty() && now > last_normal_fetch_ + kDirectFairnessUs &&
        (normal_requests_.front() == nullptr ||
         now > normal_requests_.front()->updated_ + kDirectFairnessUs)) {
      last_normal_fetch_ = now;
      return take(normal_requests_);
    }
    if (!growing(event_requests_.front())) return take(event_requests_);
  }
  if (!normal_requests_.empty()) {
    if (growing(normal_requests_.front())) return nullptr;
    last_normal_fetch_ = now;
    return take(normal_requests_);
  }
  return nullptr;
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
      if (request != nullptr && file != nullptr && request->fd_ != file_no) {
        ++it;
        continue;
      }
      it = queue->erase(it);
      if (request == nullptr) continue;
      ++removed;
      if (isDirectWriteOp(request->op_) && request->data_ != nullptr && request->size_ > 0) {
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
