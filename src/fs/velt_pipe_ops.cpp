// The direct channel's operations on the volume, as the worker carries them out: open and
// create, write, read (served, parked or refused), the size queries, splice and close.
#include <cerrno>
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fs/velt.h"
#include "fs/velt_dirent.h"
#include "fs/velt_file.h"
#include "fs/velt_pipe.h"
#include "fs/velt_pipe_work.h"
#include "utils/Utils.h"

namespace velt {

static constexpr const char kLogTag[] = "VELT.Direct";

namespace direct {

// Frees an item's payload; the item itself stays (it becomes a reply without data).
void releaseData(VELTWorkItem* item) {
  item->releaseData();
}

VELTWorkItem* makeErrorReply(VELTWorkItem* item, int result) {
  releaseData(item);
  item->op_ = kDirectOpError;
  item->param_ = result;
  return item;
}

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
    // Clusters allocated for this request stay in the FAT's dirty sectors instead of one FAT
    // write per cluster or per request: as for a file written through the mount, the chain
    // reaches the card before anything points at it (a commit, a secured write, the close).
    PBR* pbr = file.velt_ != nullptr ? file.velt_->pbr_ : nullptr;
    if (pbr != nullptr) pbr->lockFAT();
    result = file.write(request->data_, request->size_, request->offset_);
    if (pbr != nullptr) pbr->unlockFAT(false);
    if (result < 0) return result;
  }
  if ((static_cast<uint32_t>(request->param_) & kDirectFlagSecure) != 0) {
    // Published means on the card: data, chain, records and free count, in that order.
    int committed = file.commit(true);
    if (committed < 0) return committed;
  }
  return result;
}

}  // namespace direct

using namespace direct;

namespace {

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
  request->releaseReply();  // the buffer made below takes its place
  std::lock_guard files_lock(entry->files_mutex_);
  std::lock_guard<std::mutex> file_lock(file.mutex_);
  if (file.pending_request_ != nullptr) {
    request->param_ = -EBUSY;
    return request;
  }
  if (wanted <= 0) {
    request->param_ = 0;
    return request;
  }
  if (entry->real_size_ > request->offset_) {
    // Served from the card straight into the reply's own buffer, no larger than the data.
    const int64_t available = entry->real_size_ - request->offset_;
    const uint32_t count =
        static_cast<uint32_t>(std::min<int64_t>(std::min(wanted, kReadMax), available));
    if (!request->allocData(count)) {
      LOGE("no memory for direct read %d bytes\n", static_cast<int>(count));
      request->param_ = -ENOMEM;
      return request;
    }
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
  // Parked without a buffer: the completion makes one of the size it then serves.
  request->param_ = std::min(wanted, kReadMax);
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
    std::lock_guard files_lock(entry->files_mutex_);
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
  std::shared_ptr<VELT::DirEntry> self = entry->shared_from_this();
  int deleted = self ? parent->delChild(self) : -ENOENT;
  velt.invalidateKernelCache(path);
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
        std::lock_guard lock(file->entry_->files_mutex_);
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

}  // namespace velt
