// The commit interval: a thread that commits growing open files on its own, so that a power cut
// costs a recording at most the last interval. The same thread writes the records that closes
// owe, a few milliseconds after the first of them.
#include <chrono>
#include <vector>

#include "fs/velt.h"
#include "fs/velt_dirent.h"
#include "fs/velt_file.h"
#include "fs/velt_pbr.h"

namespace velt {

static constexpr const char kLogTag[] = "VELT";

// How long owed records wait for more closes to share their sync.
static constexpr auto kOwedRecordDelay = std::chrono::milliseconds(20);

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
  writeOwedRecords();
  freeRemovedChains();
  return committed;
}

void VELT::oweRecord(const std::shared_ptr<DirEntry>& entry) {
  bool first;
  {
    std::lock_guard<std::mutex> lock(owed_mutex_);
    first = owed_records_.empty();
    // The count before any sync that could have started after the data was handed over.
    owed_records_.insert_or_assign(
        entry.get(), std::make_pair(entry, sync_count_.load(std::memory_order_acquire)));
    records_owed_.store(true, std::memory_order_release);
  }
  if (first) {
    std::lock_guard<std::mutex> lock(commit_mutex_);
    commit_cv_.notify_all();
  }
}

bool VELT::settleRecord(DirEntry& entry) {
  if (!records_owed_.load(std::memory_order_acquire)) return false;
  {
    std::unique_lock<std::mutex> lock(owed_mutex_);
    for (;;) {
      auto it = owed_records_.find(&entry);
      if (it == owed_records_.end()) return false;
      if (sync_count_.load(std::memory_order_acquire) > it->second.second) {
        owed_records_.erase(it);
        records_owed_.store(!owed_records_.empty(), std::memory_order_release);
        break;
      }
      lock.unlock();
      if (sync() != 0) {
        // Kept owed: the next pass tries again. Whatever the caller writes now may run ahead
        // of its data; the card is failing anyway.
        LOGE("[%s] sync before the record failed\n", entry.getPath().c_str());
        return false;
      }
      lock.lock();
    }
  }
  writeEntryRecord(*this, entry);  // builds the record: owes nothing any more
  return true;
}

int VELT::writeOwedRecords() {
  if (!records_owed_.load(std::memory_order_acquire)) return 0;
  std::vector<std::shared_ptr<DirEntry>> entries;
  {
    std::lock_guard<std::mutex> lock(owed_mutex_);
    entries.reserve(owed_records_.size());
    for (auto& [key, owed] : owed_records_) entries.push_back(owed.first);
  }
  if (sync() != 0) {
    LOGE("%zu closed files' records kept back: sync failed\n", entries.size());
    return -1;
  }
  for (auto& entry : entries) {
    // Under files_mutex_, as a close would write it: a rename or removal meanwhile has settled
    // the record itself or taken it off the card.
    std::lock_guard lock(entry->files_mutex_);
    settleRecord(*entry);
  }
  // The records reach the card now rather than with whatever syncs next.
  return sync() == 0 ? 0 : -1;
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
  if (commit_thread_.joinable()) return;
  {
    std::lock_guard<std::mutex> lock(commit_mutex_);
    commit_stop_ = false;
  }
  commit_thread_ = std::thread([this, seconds] {
    using Clock = std::chrono::steady_clock;
    auto next_commit = Clock::now() + std::chrono::seconds(seconds);
    auto stop_or_owed = [this] {
      return commit_stop_ || records_owed_.load(std::memory_order_acquire);
    };
    auto stop = [this] { return commit_stop_; };
    std::unique_lock<std::mutex> lock(commit_mutex_);
    while (!commit_stop_) {
      if (seconds > 0) {
        commit_cv_.wait_until(lock, next_commit, stop_or_owed);
      } else {
        commit_cv_.wait(lock, stop_or_owed);
      }
      if (commit_stop_) break;
      if (records_owed_.load(std::memory_order_acquire)) {
        // Closes that follow within the delay share the sync; after a failed one, a longer
        // pause.
        if (commit_cv_.wait_for(lock, kOwedRecordDelay, stop)) break;
        lock.unlock();
        const bool failed = writeOwedRecords() != 0;
        lock.lock();
        if (failed && commit_cv_.wait_for(lock, std::chrono::seconds(1), stop)) break;
      }
      if (seconds > 0 && Clock::now() >= next_commit) {
        lock.unlock();
        commitOpenFiles();
        lock.lock();
        next_commit = Clock::now() + std::chrono::seconds(seconds);
      }
    }
  });
  if (seconds > 0) LOGI("open files are committed every %d s\n", seconds);
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
