// The commit interval: a thread that commits growing open files on its own, so that a power cut
// costs a recording at most the last interval.
#include <chrono>
#include <vector>

#include "fs/velt.h"
#include "fs/velt_file.h"
#include "fs/velt_pbr.h"

namespace velt {

static constexpr const char kLogTag[] = "VELT";

int VELT::commitOpenFiles() {
  std::vector<std::shared_ptr<File>> files;
  {
    std::lock_guard<std::mutex> lock(files_mutex_);
    files.reserve(open_files_.size());
    for (auto& [handle, file] : open_files_) {
      if (file != nullptr && !file->dir_mode_) files.push_back(file);
    }
  }
  int committed = 0;
  for (auto& file : files) {
    if (!file->needsCommit()) continue;
    bool publish;
    {
      std::lock_guard<std::mutex> lock(file->mutex_);
      // A recording through the mount becomes visible with its first commit; a channel client
      // decides for itself when to publish.
      publish = !file->direct_ && file->written_;
    }
    if (file->commit(publish) == 0) ++committed;
  }
  freeRemovedChains();
  return committed;
}

int VELT::freeRemovedChains() {
  if (pbr_ == nullptr) return 0;
  std::vector<PBR::DeferredChain> chains = pbr_->takeDeferred();
  if (chains.empty()) return 0;
  if (sync() != 0) {
    LOGE("removed files' clusters kept: sync failed\n");
    pbr_->restoreDeferred(chains);
    return -1;
  }
  pbr_->freeDeferred(chains);
  return 0;
}

void VELT::startCommitter(int seconds) {
  if (seconds <= 0 || commit_thread_.joinable()) return;
  {
    std::lock_guard<std::mutex> lock(commit_mutex_);
    commit_stop_ = false;
  }
  commit_thread_ = std::thread([this, seconds] {
    std::unique_lock<std::mutex> lock(commit_mutex_);
    while (!commit_stop_) {
      if (commit_cv_.wait_for(lock, std::chrono::seconds(seconds), [this] { return commit_stop_; }))
        break;
      lock.unlock();
      commitOpenFiles();
      lock.lock();
    }
  });
  LOGI("open files are committed every %d s\n", seconds);
}

void VELT::stopCommitter() {
  {
    std::lock_guard<std::mutex> lock(commit_mutex_);
    commit_stop_ = true;
  }
  commit_cv_.notify_all();
  if (commit_thread_.joinable() && commit_thread_.get_id() != std::this_thread::get_id()) {
    commit_thread_.join();
  }
}

}  // namespace velt
