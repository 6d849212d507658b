// The direct channel: work items, the receiver, worker and replier threads, and the operations
// they carry out on the volume's open files.
//
// Hand-over between the threads: the receiver parses records into work items and queues them
// (merging contiguous writes) under request_mutex_; the worker takes one item at a time by
// queue priority and carries it out without that mutex; replies go to responses_ under
// response_mutex_, from which the replier writes them. A teardown of the connection (client
// gone) waits until the worker is between requests, writes every queued write, closes every
// direct file and resets the replier so that the next client starts on a clean reply pipe.
#include "fs/velt_pipe.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "fs/velt.h"
#include "fs/velt_dirent.h"
#include "fs/velt_endian.h"
#include "fs/velt_file.h"
#include "utils/Utils.h"

namespace velt {

static constexpr const char kLogTag[] = "VELT.Direct";

namespace {

constexpr int kRealTimePriority = 99;
constexpr uint32_t kSpliceBufferStart = 0x80000;
constexpr int kRetryWaitMs = 10;       // EAGAIN on a partial record
constexpr int kReplyWaitMs = 1000;     // longest single wait for a client that does not read
constexpr int kResetAckWaitMs = 2000;  // receiver's wait for the replier to drop a connection

int64_t le64s(const uint8_t* p) {
  return static_cast<int64_t>(static_cast<uint64_t>(le32(p)) |
                              (static_cast<uint64_t>(le32(p + 4)) << 32));
}
void putLe64(uint8_t* p, int64_t v) {
  putLe32(p, static_cast<uint32_t>(static_cast<uint64_t>(v)));
  putLe32(p + 4, static_cast<uint32_t>(static_cast<uint64_t>(v) >> 32));
}

// Frees an item's payload; the item itself stays (it becomes a reply without data).
void releaseData(VELTWorkItem* item) {
  std::lock_guard<std::mutex> lock(item->mutex_);
  free(item->data_);
  item->data_ = nullptr;
  item->size_ = 0;
  item->data_length_ = 0;
}

VELTWorkItem* makeErrorReply(VELTWorkItem* item, int result) {
  releaseData(item);
  item->op_ = kDirectOpError;
  item->param_ = result;
  return item;
}

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

// ===== Operations on the volume =====

namespace {

uint64_t channelNow(const VELT& velt) {
  return velt.direct_clock_ ? velt.direct_clock_() : nerio::monotonicMicros();
}

// The open direct file with this number, or empty. FUSE handles are not the channel's.
std::shared_ptr<VELT::File> directFile(VELT& velt, int32_t fd) {
  std::shared_ptr<VELT::File> file = velt.getFile(fd);
  if (file == nullptr || !file->direct_ || file->entry_ == nullptr) return nullptr;
  return file;
}

std::string entryPath(const VELT::File& file) {
  return file.entry_ != nullptr ? file.entry_->getPath() : std::string();
}

// Takes a parked read off a file. With `answer` the client gets an empty reply carrying
// -EBADF (its file went away); otherwise the request is dropped.
void takePendingRead(VELT& velt, VELT::File& file, bool answer) {
  VELTWorkItem* request;
  {
    std::lock_guard<std::mutex> lock(file.mutex_);
    request = file.pending_request_;
    file.pending_request_ = nullptr;
  }
  if (request == nullptr) return;
  if (!answer) {
    delete request;
    return;
  }
  releaseData(request);
  request->param_ = -EBADF;
  velt.queueDirectResponse(request);
}

// Writes a request's data at its offset; with the secure flag a taken-over reserved file is
// published afterwards. Bytes written or a negative errno.
int writeRequest(VELT::File& file, VELTWorkItem* request) {
  int result = 0;
  if (request->size_ > 0 && request->data_ != nullptr) {
    file.setPosition(request->offset_);
    {
      std::lock_guard<std::mutex> lock(file.mutex_);
      if (request->offset_ != file.direct_offset_) {
        NERIO_ASSERT_TEXT("request->offset_ == file->direct_offset_");
      }
    }
    // Clusters allocated for this request reach the FAT together, right after the data,
    // instead of one FAT write per cluster.
    PBR* pbr = file.velt_ != nullptr ? file.velt_->pbr_ : nullptr;
    if (pbr != nullptr) pbr->lockFAT();
    result = file.write(request->data_, request->size_, request->offset_);
    if (pbr != nullptr) {
      pbr->unlockFAT(false);
      pbr->flushFATs();
    }
    if (result < 0) return result;
  }
  if ((static_cast<uint32_t>(request->param_) & kDirectFlagSecure) != 0) {
    VELT::DirEntry* entry = file.entry_;
    if (entry != nullptr && entry->is_reserved_ && !entry->is_secured_) entry->secure2();
  }
  return result;
}

// The path of an open or create request, as a volume path; null (with -EINVAL) when it is
// empty or outside the mount point.
const char* requestPath(VELT& velt, VELTWorkItem* request, std::string* text) {
  if (request->data_ == nullptr || request->size_ == 0) return nullptr;
  const char* raw = reinterpret_cast<const char*>(request->data_);
  text->assign(raw, strnlen(raw, request->size_));
  if (text->empty()) return nullptr;
  const std::string& mount = velt.mount_point_;
  if (mount.empty()) return text->c_str();
  if (text->compare(0, mount.size(), mount) != 0) return nullptr;
  if (text->size() > mount.size() && (*text)[mount.size()] != '/') return nullptr;
  return velt.stripMountPoint(text->c_str());
}

// Open (create false) or create; the new file number or a negative errno.
int openRequest(VELT& velt, VELTWorkItem* request, bool create) {
  // A volume that is going away takes no new files (its unload may hold the path lock).
  if (velt.direct_stop_) return -ENODEV;
  std::string text;
  const char* path = requestPath(velt, request, &text);
  if (path == nullptr) return -EINVAL;
  const int cache_mode = request->param_ & 3;
  if (!create) {
    std::shared_ptr<VELT::DirEntry> entry = velt.findEntry(path);
    if (entry == nullptr) return -ENOENT;
    if (entry->isDir()) return -EISDIR;
    std::shared_ptr<VELT::File> file = velt.newFile(false, false, true, entry);
    if (file == nullptr) return -ENOMEM;
    file->setUsage(true, false);
    file->setCacheMode(cache_mode);
    return static_cast<int>(file->file_no_);
  }
  const char* end = strrchr(path, '/');
  if (end == nullptr) {
    NERIO_ASSERT_TEXT("end != nullptr");
    return -EINVAL;
  }
  std::string folder(path, static_cast<size_t>(end - path));
  if (folder.empty()) folder = "/";
  std::string name(end + 1);
  std::shared_ptr<VELT::DirEntry> parent = velt.findEntry(folder.c_str());
  if (parent == nullptr) return -ENOENT;
  if (!parent->isDir()) return -ENOTDIR;
  // A second entry of the same long name would be a broken folder for every FAT reader.
  if (!name.empty() && parent->findChild(name.c_str()) != nullptr) return -EEXIST;
  std::shared_ptr<VELT::DirEntry> entry = velt.newEntry(parent, name.c_str(), false);
  if (entry == nullptr) {
    LOGE("\"%s\" creation failed.\n", name.c_str());
    return -EINVAL;
  }
  std::shared_ptr<VELT::File> file = velt.newFile(false, true, true, entry);
  if (file == nullptr) return -ENOMEM;
  file->setCacheMode(cache_mode);
  return static_cast<int>(file->file_no_);
}

// A read: the reply, or null when the request was parked on the file.
VELTWorkItem* readRequest(VELT::File& file, VELTWorkItem* request) {
  VELT::DirEntry* entry = file.entry_;
  const int32_t wanted = request->param_;
  releaseData(request);  // a read carries no payload; anything sent is ignored
  std::lock_guard<std::mutex> files_lock(entry->files_mutex_);
  std::lock_guard<std::mutex> file_lock(file.mutex_);
  if (file.pending_request_ != nullptr) {
    request->param_ = -EBUSY;
    return request;
  }
  if (wanted <= 0) {
    request->param_ = 0;
    return request;
  }
  if (!request->allocData(static_cast<uint32_t>(wanted))) {
    LOGE("no memory for direct read %d bytes\n", wanted);
    request->param_ = -ENOMEM;
    return request;
  }
  if (entry->real_size_ > request->offset_) {
    const int64_t available = entry->real_size_ - request->offset_;
    const size_t count = static_cast<size_t>(std::min<int64_t>(wanted, available));
    int result = file.__read(request->data_, count, request->offset_);
    if (result > 0) {
      if (static_cast<int64_t>(request->size_) < result) {
        NERIO_ASSERT_TEXT("response->size_ >= result");
      }
      request->size_ = static_cast<uint32_t>(std::min<int64_t>(result, request->size_));
      request->param_ = 0;
    } else {
      releaseData(request);
      request->param_ = result;
    }
    return request;
  }
  LOGW("read (%d, %d @ %jd) pending (file entry size: %lld, real size: %lld)\n",
       static_cast<int>(file.file_no_), wanted, static_cast<intmax_t>(request->offset_),
       static_cast<long long>(entry->size_), static_cast<long long>(entry->real_size_));
  file.pending_request_ = request;
  return nullptr;
}

// A splice; bytes written to the output file, 0, or a negative errno.
int spliceRequest(VELT& velt, VELT::File& in, VELTWorkItem* request) {
  DirectSplice splice;
  if (!decodeDirectSplice(request->data_, request->size_, &splice)) {
    NERIO_ASSERT_TEXT("request->size_ == sizeof(VELT_DIRECT_SPLICE)");
    return -EINVAL;
  }
  std::shared_ptr<VELT::File> out = directFile(velt, static_cast<int32_t>(splice.out_fd));
  if (out == nullptr) {
    NERIO_ASSERT_MSG(out != nullptr, ": splice out file no %d not found\n",
                     static_cast<int>(splice.out_fd));
    return -EBADF;
  }
  if (splice.size == 0) return 0;
  int result;
  {
    VELT::DirEntry* entry = in.entry_;
    std::lock_guard<std::mutex> files_lock(entry->files_mutex_);
    std::lock_guard<std::mutex> file_lock(in.mutex_);
    if (entry->real_size_ <= request->offset_) return -EINVAL;
    const uint32_t count =
        static_cast<uint32_t>(std::min<int64_t>(splice.size, entry->real_size_ - request->offset_));
    if (velt.splice_buffer_size_ < count) {
      auto* grown = static_cast<uint8_t*>(realloc(velt.splice_buffer_, count));
      if (grown == nullptr) return -ENOMEM;
      velt.splice_buffer_ = grown;
      velt.splice_buffer_size_ = count;
    }
    result = in.__read(velt.splice_buffer_, count, request->offset_);
  }
  if (result <= 0) return result < 0 ? result : -EIO;
  out->setPosition(splice.out_offset);
  return out->write(velt.splice_buffer_, static_cast<size_t>(result), splice.out_offset);
}

// A close, after the file's queued requests; with the unlink flag the entry is deleted.
int closeRequest(VELT& velt, const std::shared_ptr<VELT::File>& file, VELTWorkItem* request) {
  const uint32_t flags = static_cast<uint32_t>(request->param_);
  velt.flushAllRequests(file, (flags & kDirectFlagEvent) != 0, false);
  takePendingRead(velt, *file, true);
  VELT::DirEntry* entry = file->entry_;
  const std::string path = entry->getPath();
  int result = file->close();
  if (result == -1) result = -EBADF;  // closed meanwhile
  if ((flags & kDirectFlagUnlink) == 0) return result;
  LOGW("\"%s\" unlink on close\n", path.c_str());
  VELT::DirEntry* parent = entry->parent_;
  if (parent == nullptr || entry->isDir()) {
    LOGE("\"%s\" unlink failed, root?%d or dir?%d\n", path.c_str(), parent == nullptr,
         entry->isDir());
    return result < 0 ? result : -EINVAL;
  }
  int deleted = parent->delChild(entry->shared_from_this());
  return result < 0 ? result : (deleted < 0 ? deleted : 0);
}

}  // namespace

VELTWorkItem* VELT::executeDirectRequest(VELTWorkItem* item) {
  if (item == nullptr) return nullptr;
  try {
    if (isDirectControlOp(item->op_)) {
      int result = openRequest(*this, item, item->op_ == kDirectOpCreate);
      releaseData(item);
      item->param_ = result;
      return item;
    }
    std::shared_ptr<File> file = directFile(*this, item->fd_);
    if (file == nullptr) {
      NERIO_ASSERT_MSG(file != nullptr, ": file no %d not found\n", item->fd_);
      return makeErrorReply(item, -EBADF);
    }
    int result = 0;
    switch (item->op_) {
      case kDirectOpWrite:
      case kDirectOpWriteEvent:
        result = writeRequest(*file, item);
        break;
      case kDirectOpClose:
        result = closeRequest(*this, file, item);
        break;
      case kDirectOpSplice:
      case kDirectOpSpliceEvent:
        result = spliceRequest(*this, *file, item);
        break;
      case kDirectOpRead:
      case kDirectOpReadEvent:
        return readRequest(*file, item);
      case kDirectOpGetRealSize:
      case kDirectOpGetSize: {
        releaseData(item);
        std::lock_guard<std::mutex> lock(file->entry_->files_mutex_);
        item->offset_ =
            item->op_ == kDirectOpGetRealSize ? file->entry_->real_size_ : file->entry_->size_;
        item->param_ = 0;
        return item;
      }
      default:  // kDirectOpError and unknown operations: nothing to do
        break;
    }
    if (result < 0) return makeErrorReply(item, result);
    delete item;
    return nullptr;
  } catch (const std::exception& e) {
    // Allocation failures only; the item was neither parked nor released.
    LOGE("got exception when carrying out direct op %u: %s\n", item->op_, e.what());
    return makeErrorReply(item, -ENOMEM);
  }
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

// ===== Threads =====

namespace {

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
