// Open files of an entry, and the channel reads parked on them until data arrives.
#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "fs/velt_dirent.h"
#include "fs/velt_file.h"

namespace velt {

static constexpr const char kLogTag[] = "VELT.DirEntry";

VELT::DirEntry::~DirEntry() {
  removeAllChildren();
  {
    std::lock_guard lock(map_mutex_);
    cluster_map_.release();
    std::vector<uint8_t>().swap(entry_map_);
  }
  if (!files_.empty()) {
    NERIO_ASSERT_MSG(files_.empty() == true, ": %s (this %p)\n", getPath().c_str(),
                     static_cast<void*>(this));
    for (const auto& file : files_) {
      if (file == nullptr) continue;
      LOGW("    file no: %d ref#%d\n", file->file_no_, file->open_count_);
    }
    NERIO_ASSERT(files_.empty());
    // The files stay alive through their own owners; only this list's references go.
    files_.clear();
  }
}

int VELT::DirEntry::addFile(const std::shared_ptr<File>& file) {
  std::lock_guard lock(files_mutex_);
  if (std::find(files_.begin(), files_.end(), file) != files_.end()) {
    LOGI("file no %d already added to the open file list of [%s]\n",
         file ? static_cast<int>(file->file_no_) : -1, getPath().c_str());
    return -1;
  }
  files_.push_back(file);
  return 0;
}

int VELT::DirEntry::removeFile(const std::shared_ptr<File>& file) {
  std::lock_guard lock(files_mutex_);
  auto it = std::find(files_.begin(), files_.end(), file);
  if (it == files_.end()) return -1;
  files_.erase(it);
  return 0;
}

int VELT::DirEntry::busyUnlessClosing(bool closing_ok) const {
  for (const auto& file : files_) {
    if (closing_ok && file->closing_) continue;
    LOGE("[%s] is busy, opened files#%d\n", getPath().c_str(), static_cast<int>(files_.size()));
    return -EBUSY;
  }
  return 0;
}

void VELT::DirEntry::freeKeptChain() {
  uint32_t chain;
  {
    std::lock_guard lock(files_mutex_);
    if (removed_ != kRemovedKeepingChain || !files_.empty()) return;
    removed_ = kRemoved;
    chain = start_cluster_;
  }
  // The deleted record went out before the data still buffered; the chain waits, still taken,
  // until a sync has put both on the card (VELT::freeRemovedChains).
  if (chain != 0) velt_->pbr_->deferFree(chain);
}

// Gives a parked request its data (or its failure) and hands it to the replier. The request
// is the replier's afterwards, or freed here when the channel no longer takes replies.
static void completeRequest(VELT* velt, VELT::File& file, VELTWorkItem* request, int result) {
  if (result > 0) {
    request->param_ = 0;
    if (static_cast<int64_t>(request->size_) < result)
      NERIO_ASSERT_TEXT("request->size_ >= result");
    request->size_ = static_cast<uint32_t>(result);
  } else {
    request->releaseData();
    request->param_ = result;
  }
  if (velt->postDirectResponse(request) < 0) {
    LOGE("post pending read request complete failed: fd %d\n", file.file_no_);
    delete request;
  }
}

int VELT::DirEntry::checkFiles() {
  int completed = 0;
  // A completed file stays listed: it is still open, for deletion and for recycling alike.
  for (const auto& file : files_) {
    if (file == nullptr) continue;
    std::lock_guard<std::mutex> file_lock(file->mutex_);
    VELTWorkItem* request = file->pending_request_;
    if (request == nullptr) continue;
    if (static_cast<int64_t>(file->file_no_) != request->fd_) {
      NERIO_ASSERT_TEXT("file->file_no_ == request->fd_");
    }
    int64_t available = real_size_ - request->offset_;
    if (available < 1) continue;
    // A parked read holds no buffer; param_ is the size it wants.
    const uint32_t count = static_cast<uint32_t>(
        std::min<int64_t>(available, std::max<int32_t>(request->param_, 0)));
    int result = count == 0 ? 0 : -ENOMEM;
    if (count > 0 && request->allocData(count)) {
      result = file->__read(request->data_, count, request->offset_);
    }
    request->param_ = result;
    file->pending_request_ = nullptr;
    completeRequest(velt_, *file, request, result);
    ++completed;
  }
  return completed;
}

}  // namespace velt
