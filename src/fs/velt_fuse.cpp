// The FUSE callbacks: lookups, listing, file data and namespace changes, and the volume's
// lifetime (__init / __destroy).
//
// Every callback answers FUSE exactly once with 0, a count or a negative errno. Exceptions
// (allocation failures) are caught here and never reach the library.
#include "fs/velt_fuse.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <exception>
#include <new>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

#include "fs/velt.h"
#include "fs/velt_dirent.h"
#include "fs/velt_file.h"
#include "utils/Log.h"
// After velt_fuse.h, which chooses the library API version.
#include <fuse_lowlevel.h>
#include <linux/fuse.h>

static constexpr const char kLogTag[] = "VELT.Fuse";

namespace velt {

using DirEntryPtr = std::shared_ptr<VELT::DirEntry>;
using FilePtr = std::shared_ptr<VELT::File>;

VELTOptions VELTFuse::options_;
std::mutex VELTFuse::velt_mutex_;
std::shared_ptr<VELT> VELTFuse::velt_;

namespace {

// The answer to an exception that reached a callback: a log line and an errno. Called from a
// catch block, so the exception is still current.
int exceptionAnswer(const char* function) {
  try {
    throw;
  } catch (const std::bad_alloc&) {
    nerio::logPrint(nerio::kLogError, kLogTag, function, NERIO_FILE_, __LINE__, "out of memory\n");
    return -ENOMEM;
  } catch (const std::exception& e) {
    nerio::logPrint(nerio::kLogError, kLogTag, function, NERIO_FILE_, __LINE__, "exception: %s\n",
                    e.what());
  } catch (...) {
    nerio::logPrint(nerio::kLogError, kLogTag, function, NERIO_FILE_, __LINE__,
                    "unknown exception\n");
  }
  return -EIO;
}

// Path resolution works on its own copy: findEntry cuts components in place.
DirEntryPtr resolve(VELT& volume, const std::string& path) {
  std::string copy(path);
  return volume.findEntry(copy.data());
}

// Splits at the last '/': false when there is none. The parent of "/name" is "" (the root).
bool splitPath(const char* path, std::string* parent, std::string* leaf) {
  const char* end = strrchr(path, '/');
  if (end == nullptr) return false;
  parent->assign(path, end - path);
  leaf->assign(end + 1);
  return true;
}

// The negated errno of a failed call, never 0.
int lastError(int fallback) {
  return errno != 0 ? -errno : fallback;
}

// How long the kernel may trust a name or attributes it was given (seconds).
constexpr double kKernelCacheSeconds = 1.0;

// True when `path` spells the entry's stored names exactly ("/dir/a.txt", not "/DIR/A.TXT").
bool isStoredSpelling(const VELT::DirEntry& entry, std::string_view path) {
  for (const VELT::DirEntry* e = &entry; e->parent_ != nullptr; e = e->parent_) {
    size_t slash = path.rfind('/');
    if (slash == std::string_view::npos || path.substr(slash + 1) != e->name_) return false;
    path = path.substr(0, slash);
  }
  return path.empty() || path == "/";
}

// One entry has several names (any letter case, its 8.3 alias), and the kernel keeps each name
// it looked up, with its attributes, for kKernelCacheSeconds. The spellings other than the
// stored one are noted here as they are answered, so that a change made through one name can
// drop what the kernel holds for the others.
class Spellings {
 public:
  void seen(uint32_t ino, const char* path) {
    const auto now = Clock::now();
    std::lock_guard lock(mutex_);
    if (seen_.size() >= prune_at_) {
      std::erase_if(seen_, [now](const auto& item) { return now - item.second.when > kLife; });
      prune_at_ = std::max(kPruneAt, 2 * seen_.size());
    }
    auto& names = seen_[ino];
    names.when = now;
    if (std::find(names.paths.begin(), names.paths.end(), path) == names.paths.end()) {
      if (names.paths.size() >= kPathsPerEntry) names.paths.erase(names.paths.begin());
      names.paths.emplace_back(path);
    }
  }
  // The spellings of `ino` the kernel may still hold.
  std::vector<std::string> of(uint32_t ino) {
    std::lock_guard lock(mutex_);
    auto it = seen_.find(ino);
    if (it == seen_.end() || Clock::now() - it->second.when > kLife) return {};
    return it->second.paths;
  }

 private:
  using Clock = std::chrono::steady_clock;
  // The kernel's clock and ours differ a little: a name is kept for twice the cache time.
  static constexpr auto kLife = std::chrono::duration_cast<Clock::duration>(
      std::chrono::duration<double>(2 * kKernelCacheSeconds));
  static constexpr size_t kPruneAt = 256;
  static constexpr size_t kPathsPerEntry = 16;
  size_t prune_at_ = kPruneAt;
  struct Names {
    Clock::time_point when;
    std::vector<std::string> paths;
  };
  std::mutex mutex_;
  std::unordered_map<uint32_t, Names> seen_;
};

Spellings& spellings() {
  static Spellings instance;
  return instance;
}

// Drops names from the kernel's name cache, each given as the kernel spells its path: the name
// `leaf` under the kernel's node of its folder. That node's number is read from a file handle
// of the folder's path through the mount itself, so the work runs on its own thread: the call
// that asked has answered first, and the kernel, which holds the folder locked while that call
// runs, never waits on the daemon.
class NameDropper {
 public:
  void start(struct fuse_session* session, const std::string& mount_point) {
    std::lock_guard lock(mutex_);
    if (thread_.joinable() || session == nullptr) return;
    session_ = session;
    mount_point_ = mount_point;
    stopping_ = false;
    thread_ = std::thread([this] { run(); });
  }
  void stop() {
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
      queue_.clear();
    }
    wake_.notify_all();
    if (thread_.joinable()) thread_.join();
    session_ = nullptr;
  }
  void drop(const std::vector<std::string>& paths) {
    {
      std::lock_guard lock(mutex_);
      if (!thread_.joinable() || stopping_) return;
      queue_.insert(queue_.end(), paths.begin(), paths.end());
    }
    wake_.notify_one();
  }

 private:
  void run() {
    std::unique_lock lock(mutex_);
    for (;;) {
      wake_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
      if (stopping_) return;
      std::string path = std::move(queue_.front());
      queue_.pop_front();
      lock.unlock();
      dropOne(path);
      lock.lock();
    }
  }

  void dropOne(const std::string& path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos || slash + 1 >= path.size()) return;
    const std::string leaf = path.substr(slash + 1);
    fuse_ino_t folder = FUSE_ROOT_ID;
    if (slash > 0) {
      // The kernel's own walk to the folder: where it fails, no name below can be reached.
      struct {
        struct file_handle head;
        uint32_t words[8];
      } handle;
      handle.head.handle_bytes = sizeof(handle.words);
      int mount_id = 0;
      const std::string dir = mount_point_ + path.substr(0, slash);
      if (name_to_handle_at(AT_FDCWD, dir.c_str(), &handle.head, &mount_id, 0) != 0 ||
          handle.head.handle_bytes < 2 * sizeof(uint32_t)) {
        return;
      }
      uint32_t words[2];
      memcpy(words, handle.head.f_handle, sizeof(words));
      folder = (static_cast<fuse_ino_t>(words[0]) << 32) | words[1];
    }
    // ENOENT: the kernel holds no such name, nothing to drop.
    fuse_lowlevel_notify_inval_entry(session_, folder, leaf.c_str(), leaf.size());
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::string> queue_;
  bool stopping_ = false;
  std::thread thread_;
  struct fuse_session* session_ = nullptr;
  std::string mount_point_;
};

NameDropper& nameDropper() {
  static NameDropper instance;
  return instance;
}

// The entry's inode number: one per entry, whatever spelling reached it, given on first use
// and never handed out again while the daemon runs. The root is 1.
ino_t inodeOf(const VELT& velt, VELT::DirEntry& entry) {
  if (&entry == velt.root_.get()) return 1;
  static std::atomic<uint32_t> next{2};
  std::atomic_ref<uint32_t> ino(entry.ino_);
  uint32_t current = ino.load(std::memory_order_acquire);
  if (current != 0) return current;
  uint32_t mine = next.fetch_add(1);
  if (ino.compare_exchange_strong(current, mine)) return mine;
  return current;
}

// The names of `entry` other than `used` that the kernel may hold: its stored path and the
// other spellings it was looked up by. Taken before a change, dropped after it (dropNames).
std::vector<std::string> otherNames(VELT& velt, VELT::DirEntry& entry, const char* used) {
  std::vector<std::string> names = spellings().of(static_cast<uint32_t>(inodeOf(velt, entry)));
  if (&entry != velt.root_.get()) names.push_back(entry.getPath());
  std::erase_if(names, [used](const std::string& n) { return used != nullptr && n == used; });
  return names;
}

// Drops the kernel's cached attributes of those names at once: their next use asks again, and
// a name that no longer resolves answers ESTALE (onPath), on which the kernel looks it up
// afresh. A name that was removed or now stands for another entry (`gone`) also leaves the
// kernel's name cache, shortly after the call answers: a walk through it (a removed file's name
// used as a folder's) would otherwise trust it.
void dropNames(VELT& velt, const std::vector<std::string>& names, bool gone = false) {
  for (const std::string& name : names) velt.invalidateKernelCache(name);
  if (gone) nameDropper().drop(names);
}

// The attributes the kernel is given for `entry`, by getattr and by a listing alike.
void fillStat(VELT& velt, VELT::DirEntry& entry, struct stat* st) {
  memset(st, 0, sizeof(*st));
  st->st_ino = inodeOf(velt, entry);
  st->st_mode = (entry.is_dir_ ? S_IFDIR : S_IFREG) | (entry.read_only_ ? 0555 : 0777);
  st->st_nlink = 1;
  // Size and times change under the entry's files_mutex_ (writes, closes, publication).
  int64_t size;
  time_t times[3];
  {
    std::lock_guard lock(entry.files_mutex_);
    size = entry.is_reserved_ && !entry.is_secured_ ? 0 : entry.size_;
    times[0] = entry.created_;
    times[1] = entry.accessed_;
    times[2] = entry.modified_;
  }
  st->st_size = size;
  int64_t cluster_length = velt.pbr_ != nullptr ? velt.pbr_->cluster_length_ : 0;
  st->st_blksize = cluster_length;
  if (cluster_length > 0) {
    // 512-byte units, as du and POSIX count them.
    int64_t clusters = (size + cluster_length - 1) / cluster_length;
    st->st_blocks = clusters * (cluster_length / 512);
  }
  st->st_ctime = times[0];
  st->st_atime = times[1];
  st->st_mtime = times[2];
}

// A folder handle's listing: the folder's children as they stood when it began (offset 0), so
// that a reader who removes or renames entries between reads neither misses nor repeats the
// others (the kernel resumes at an offset, and the children's positions shift). The entries
// are only compared with the folder's live children, never followed: one that has left the
// folder is skipped, and one whose memory a new child of the folder took is that child, listed
// as it is now.
struct Listed {
  DirEntryPtr entry;  // empty for "." and ".." of the root
  std::string name;
  ino_t ino = 0;      // of a dot entry
  uint64_t next = 0;  // the offset after this entry
};

class Listing {
 public:
  explicit Listing(VELT::DirEntry& dir) : dir_(dir) {
    std::lock_guard lock(dir.children_mutex_);
    order_.reserve(dir.children_.size());
    for (const DirEntryPtr& child : dir.children_) order_.push_back(child.get());
  }
  const VELT::DirEntry* dir() const { return &dir_; }

  // The entries from `offset` on. A readdirplus reply holds no more than the smallest buffer
  // the kernel reads with: the library counts a lookup of each entry before it knows whether
  // the entry fits, and one left out of the reply would never be forgotten.
  std::vector<Listed> next(VELT& velt, uint64_t offset, bool plus) {
    std::vector<Listed> batch;
    size_t room = plus ? kPlusReplyBytes : SIZE_MAX;
    auto fits = [&](const std::string& name) {
      const size_t bytes = FUSE_DIRENT_ALIGN(FUSE_NAME_OFFSET_DIRENTPLUS + name.size());
      if (bytes > room && !batch.empty()) return false;
      room -= std::min(room, bytes);
      return true;
    };
    const uint64_t dots = &dir_ == velt.root_.get() ? 2 : 0;  // the root has no records of them
    for (; offset < dots; ++offset) {
      Listed dot{nullptr, offset == 0 ? "." : "..", 1, offset + 1};
      if (!fits(dot.name)) return batch;
      batch.push_back(std::move(dot));
    }
    std::lock_guard lock(dir_.children_mutex_);
    const auto& live = dir_.children_;
    for (uint64_t i = offset - dots; i < order_.size(); ++i) {
      const DirEntryPtr* child = find(live, order_[i]);
      if (child == nullptr || (*child)->is_volume_) continue;
      Listed item{*child, (*child)->name_, 0, i + dots + 1};
      if ((*child)->isDotEntry()) {
        const VELT::DirEntry* target = (*child)->short_name_ == "." ? &dir_ : dir_.parent_;
        item.entry = nullptr;
        item.ino = inodeOf(velt, *const_cast<VELT::DirEntry*>(target != nullptr ? target : &dir_));
      }
      if (!fits(item.name)) break;
      batch.push_back(std::move(item));
    }
    return batch;
  }

 private:
  static constexpr size_t kPlusReplyBytes = 4096;

  // `entry` among the live children, looked for from where the last one stood: the survivors
  // keep their order, so that is where it usually is.
  template <class Children>
  const DirEntryPtr* find(const Children& live, const VELT::DirEntry* entry) {
    const size_t n = live.size();
    for (size_t k = 0; k < n; ++k) {
      const size_t at = (hint_ + k) % n;
      if (live[at].get() == entry) {
        hint_ = at + 1;
        return &live[at];
      }
    }
    return nullptr;
  }

  VELT::DirEntry& dir_;
  std::vector<const VELT::DirEntry*> order_;
  size_t hint_ = 0;
};

// The listings of open folder handles, by handle.
class Listings {
 public:
  // The handle's listing, begun afresh at offset 0 (a rewind reads the folder again).
  std::shared_ptr<Listing> of(uint64_t handle, VELT::DirEntry& dir, bool restart) {
    std::lock_guard lock(mutex_);
    std::shared_ptr<Listing>& listing = by_handle_[handle];
    if (!listing || restart || listing->dir() != &dir) listing = std::make_shared<Listing>(dir);
    return listing;
  }
  void forget(uint64_t handle) {
    std::lock_guard lock(mutex_);
    by_handle_.erase(handle);
  }

 private:
  std::mutex mutex_;
  std::unordered_map<uint64_t, std::shared_ptr<Listing>> by_handle_;
};

Listings& listings() {
  static Listings instance;
  return instance;
}

// What a callback works on: the volume and, as the call needs them, the entry its path names
// and the open file of its handle. When one is missing, `error` is the callback's answer.
struct Call {
  std::shared_ptr<VELT> velt;
  DirEntryPtr entry;
  FilePtr file;
  int error = 0;
};

// The volume, or `no_volume` while there is none. A call that changes the card is refused
// with EROFS while the card is served read-only (the load found it too damaged to repair).
Call onVolume(int no_volume, bool changes = false) {
  Call c;
  c.velt = VELTFuse::volume();
  if (!c.velt) {
    c.error = no_volume;
  } else if (changes && c.velt->read_only_) {
    c.error = -EROFS;
  }
  return c;
}

// The volume and the entry `path` names. The kernel sends a path only for a name it holds;
// when that name no longer resolves (it was changed through another spelling meanwhile), the
// answer is ESTALE, on which the kernel looks the name up afresh and retries once.
Call onPath(const char* path, int no_volume, bool changes = false) {
  Call c = onVolume(no_volume, changes);
  if (c.error == 0) {
    c.entry = resolve(*c.velt, path);
    if (!c.entry) c.error = -ESTALE;
  }
  return c;
}

// The volume and the open file of the call's handle, or `no_handle` for an unknown handle.
Call onHandle(const struct fuse_file_info* fi, int no_volume, int no_handle, bool changes = false) {
  Call c = onVolume(no_volume, changes);
  if (c.error == 0) {
    c.file = fi != nullptr ? c.velt->getFile(static_cast<int>(fi->fh)) : nullptr;
    if (!c.file) {
      NERIO_ASSERT(c.file != nullptr);
      c.error = no_handle;
    }
  }
  return c;
}

// Runs a callback's body; an exception becomes its errno answer.
template <class Body>
int guarded(const char* function, Body&& body) {
  try {
    return body();
  } catch (...) {
    return exceptionAnswer(function);
  }
}

}  // namespace

std::shared_ptr<VELT> VELTFuse::volume() {
  std::lock_guard<std::mutex> lock(velt_mutex_);
  return velt_;
}

void VELTFuse::setVolume(std::shared_ptr<VELT> volume) {
  std::shared_ptr<VELT> old;
  {
    std::lock_guard<std::mutex> lock(velt_mutex_);
    old.swap(velt_);
    velt_ = std::move(volume);
  }
  // The old volume (if this was its last reference) unloads outside the lock.
}

// ---- Lookups and listing ----

int VELTFuse::__getattr(const char* path, struct stat* st, struct fuse_file_info* /*fi*/) {
  return guarded(__func__, [&] {
    Call c = onVolume(-ENODEV);
    if (c.error != 0) return c.error;
    VELT& velt = *c.velt;
    // Lookups come here too, so a name that does not resolve is simply absent.
    DirEntryPtr entry = resolve(velt, path);
    if (!entry) return -ENOENT;
    fillStat(velt, *entry, st);
    if (!isStoredSpelling(*entry, path)) spellings().seen(static_cast<uint32_t>(st->st_ino), path);
    return 0;
  });
}

int VELTFuse::__access(const char* path, int /*mask*/) {
  return guarded(__func__, [&] { return onPath(path, -ENODEV).error; });
}

int VELTFuse::__opendir(const char* path, struct fuse_file_info* fi) {
  return guarded(__func__, [&] {
    Call c = onPath(path, -ENODEV);
    if (c.error != 0) return c.error;
    errno = 0;
    FilePtr file = c.velt->newFile(true, false, false, c.entry);
    if (!file) return lastError(-ENOMEM);
    fi->fh = file->file_no_;
    return 0;
  });
}

int VELTFuse::__readdir(const char* /*path*/, void* buf, fuse_fill_dir_t filler, off_t offset,
                        struct fuse_file_info* fi, enum fuse_readdir_flags flags) {
  return guarded(__func__, [&] {
    Call c = onHandle(fi, -ENODEV, -EBADF);
    if (c.error != 0) return c.error;
    VELT::DirEntry* dir = c.file->entry_;
    if (dir == nullptr || offset < 0) return -EBADF;
    VELT& velt = *c.velt;
    const bool plus = (flags & FUSE_READDIR_PLUS) != 0;
    std::shared_ptr<Listing> listing = listings().of(fi->fh, *dir, offset == 0);
    std::vector<Listed> batch = listing->next(velt, static_cast<uint64_t>(offset), plus);

    // Attributes are read now, after the kernel asked: a change it learns of later (a write, an
    // invalidation) is newer than they are, so they never overwrite it.
    struct stat st;
    for (const Listed& item : batch) {
      memset(&st, 0, sizeof(st));
      if (item.entry == nullptr) {  // "." or ".."
        st.st_ino = item.ino;
        st.st_mode = S_IFDIR;
      } else if (plus) {
        fillStat(velt, *item.entry, &st);
      } else {
        st.st_ino = inodeOf(velt, *item.entry);
        st.st_mode = item.entry->is_dir_ ? S_IFDIR : S_IFREG;
      }
      if (item.entry != nullptr && item.entry->is_reserved_) {
        std::lock_guard lock(item.entry->files_mutex_);  // publication may be under way
        if (!item.entry->is_secured_) continue;
      }
      // The library skips its lookup for the dot entries, so they go with the flag too.
      const auto fill_flags = plus ? FUSE_FILL_DIR_PLUS : static_cast<enum fuse_fill_dir_flags>(0);
      if (filler(buf, item.name.c_str(), &st, static_cast<off_t>(item.next), fill_flags) != 0) {
        break;  // the reply is full; the kernel asks again from this entry
      }
    }
    return 0;
  });
}

int VELTFuse::__releasedir(const char* /*path*/, struct fuse_file_info* fi) {
  return guarded(__func__, [&] {
    Call c = onHandle(fi, -ENODEV, -EBADF);
    if (c.error != 0) return c.error;
    listings().forget(fi->fh);
    return c.velt->freeFile(static_cast<uint32_t>(fi->fh));
  });
}

int VELTFuse::__utimens(const char* path, const struct timespec tv[2],
                        struct fuse_file_info* /*fi*/) {
  return guarded(__func__, [&] {
    Call c = onPath(path, -EINVAL, true);
    if (c.error != 0) return c.error;
    VELT::DirEntry& entry = *c.entry;
    time_t now = time(nullptr);
    time_t keep[2];
    {
      std::lock_guard lock(entry.files_mutex_);
      keep[0] = entry.accessed_;
      keep[1] = entry.modified_;
    }
    time_t seconds[2];
    for (int i = 0; i < 2; ++i) {
      if (tv[i].tv_nsec == UTIME_OMIT) {
        seconds[i] = keep[i];  // the caller leaves this time alone
      } else if (tv[i].tv_sec == 0 || tv[i].tv_nsec == UTIME_NOW) {
        seconds[i] = now;
      } else {
        seconds[i] = tv[i].tv_sec;
      }
    }
    if (entry.dir_ent_disk_off_ == 0) {
      // The root has no record on the card: its times live in memory only.
      std::lock_guard lock(entry.files_mutex_);
      entry.accessed_ = seconds[0];
      entry.modified_ = seconds[1];
      return 0;
    }
    int r = entry.touch(seconds[0], seconds[1]);
    if (r == 0) dropNames(*c.velt, otherNames(*c.velt, entry, path));
    return r;
  });
}

// ---- File data ----

int VELTFuse::__open(const char* path, struct fuse_file_info* fi) {
  return guarded(__func__, [&] {
    Call c = onPath(path, -ENODEV);
    if (c.error != 0) return c.error;
    errno = 0;
    // A writer holds the FAT's writes back until its close or fsync, as a creator does: an
    // append would otherwise write the FAT's sectors for every cluster it takes.
    const bool for_write = !c.entry->is_dir_ && (fi->flags & O_ACCMODE) != O_RDONLY;
    FilePtr file = c.velt->newFile(c.entry->is_dir_, for_write, false, c.entry);
    if (!file) return lastError(-ENOMEM);
    file->setUsage(true, false);
    if ((fi->flags & O_TRUNC) && (fi->flags & O_ACCMODE) != O_RDONLY && !c.entry->is_dir_) {
      int r = file->truncate(0);
      if (r < 0) {
        file->close();
        return r;
      }
    }
    fi->fh = file->file_no_;
    return 0;
  });
}

// The open file of a read's handle, in use again (no longer closing).
static Call onRead(const struct fuse_file_info* fi) {
  Call c = onHandle(fi, -ENODEV, -EBADF);
  if (c.error != 0) return c;
  c.file->closing_ = false;
  if (c.file->entry_ == nullptr) c.error = -EBADF;
  return c;
}

int VELTFuse::__read(const char* /*path*/, char* buf, size_t size, off_t offset,
                     struct fuse_file_info* fi) {
  return guarded(__func__, [&] {
    Call c = onRead(fi);
    return c.error != 0 ? c.error : c.file->read(buf, size, offset);
  });
}

constexpr size_t kSpliceMin = 8192;

// __read for the library's buffer interface. Bytes the card holds as they stand go back as runs
// of the card's descriptor (one per run of consecutive clusters), which the kernel moves into
// the reply without a copy through this process; the rest, and backends without a descriptor,
// are read through memory as __read does. The library frees the reply and its memory.
static int readBuffers(const char* /*path*/, struct fuse_bufvec** bufp, size_t size, off_t offset,
                       struct fuse_file_info* fi) {
  return guarded("__read_buf", [&] {
    Call c = onRead(fi);
    if (c.error != 0) return c.error;
    // Kept by the thread: a request's runs cost no allocation once it has seen as many.
    thread_local std::vector<CardRun> runs;
    int fd = -1;
    // The library splices only replies of two pages or more; smaller ones are copied anyway.
    const int n =
        size >= kSpliceMin ? c.file->readRuns(size, offset, &runs, &fd) : static_cast<int>(size);
    if (n < 0) return n;
    const size_t count = n > 0 && fd >= 0 ? runs.size() : 1;
    auto* reply = static_cast<struct fuse_bufvec*>(
        malloc(sizeof(struct fuse_bufvec) + (count - 1) * sizeof(struct fuse_buf)));
    if (reply == nullptr) return -ENOMEM;
    *reply = FUSE_BUFVEC_INIT(0);
    if (n > 0 && fd >= 0) {
      reply->count = count;
      for (size_t i = 0; i < count; ++i) {
        reply->buf[i] = FUSE_BUFVEC_INIT(static_cast<size_t>(runs[i].length)).buf[0];
        reply->buf[i].flags = static_cast<enum fuse_buf_flags>(FUSE_BUF_IS_FD | FUSE_BUF_FD_SEEK);
        reply->buf[i].fd = fd;
        reply->buf[i].pos = runs[i].offset;
      }
    } else if (n > 0) {
      void* mem = malloc(static_cast<size_t>(n));
      const int got = mem == nullptr ? -ENOMEM : c.file->read(mem, static_cast<size_t>(n), offset);
      if (got < 0) {
        free(mem);
        free(reply);
        return got;
      }
      reply->buf[0].mem = mem;
      reply->buf[0].size = static_cast<size_t>(got);
    }
    *bufp = reply;
    return 0;
  });
}

int VELTFuse::__write(const char* /*path*/, const char* buf, size_t size, off_t offset,
                      struct fuse_file_info* fi) {
  return guarded(__func__, [&] {
    Call c = onHandle(fi, -EINVAL, -ENOENT, true);
    if (c.error != 0) return c.error;
    c.file->closing_ = false;
    VELT::DirEntry* entry = c.file->entry_;
    if ((fi->flags & O_APPEND) && entry != nullptr && !entry->is_reserved_) {
      // The kernel puts an append at the end of the file as its name last showed it, and a
      // change through another name of the file may have moved the end since.
      std::lock_guard lock(entry->files_mutex_);
      offset = entry->size_;
    }
    return c.file->write(buf, size, offset);
  });
}

// A mount has no way to ask for publication, so a reserved file taken over through it is
// published when its writer closes it (flush comes with every close(), release only later):
// otherwise the recording would vanish at the next mount.
static void publishReservedFile(VELT::File& file) {
  VELT::DirEntry* entry = file.entry_;
  if (entry == nullptr || !entry->is_reserved_) return;
  // The entry's files_mutex_ before the file's mutex_; the publication mark is the entry's.
  std::lock_guard lock(entry->files_mutex_);
  {
    std::lock_guard<std::mutex> file_lock(file.mutex_);
    if (file.direct_ || !file.written_) return;
  }
  if (entry->is_secured_) return;
  int result = entry->secure2();
  if (result < 0) LOGE("\"%s\" publish failed: %d\n", entry->getPath().c_str(), result);
}

int VELTFuse::__flush(const char* path, struct fuse_file_info* fi) {
  return guarded(__func__, [&] {
    Call c = onHandle(fi, -EINVAL, -EBADF);
    if (c.error != 0) return c.error;
    publishReservedFile(*c.file);
    int r = c.file->flush();
    // The file's size and time changed under this name; the kernel's others are stale.
    bool written;
    {
      std::lock_guard<std::mutex> lock(c.file->mutex_);
      written = c.file->written_ != 0;
    }
    if (written && c.file->entry_ != nullptr) {
      dropNames(*c.velt, otherNames(*c.velt, *c.file->entry_, path));
    }
    c.file->closing_ = true;  // until the handle is used again
    return r;
  });
}

int VELTFuse::__release(const char* /*path*/, struct fuse_file_info* fi) {
  return guarded(__func__, [&] {
    Call c = onHandle(fi, -ENODEV, -EBADF);
    if (c.error != 0) return c.error;
    publishReservedFile(*c.file);
    int result = c.file->close();
    return result == -1 ? 0 : result;
  });
}

// fsync and fdatasync alike: the size and first cluster in the record are what makes the data
// reachable, so both commit the whole file.
int VELTFuse::__fsync(const char* /*path*/, int /*datasync*/, struct fuse_file_info* fi) {
  return guarded(__func__, [&] {
    Call c = onHandle(fi, -ENODEV, -EBADF);
    if (c.error != 0) return c.error;
    bool publish;
    {
      std::lock_guard<std::mutex> lock(c.file->mutex_);
      publish = !c.file->direct_ && c.file->written_;
    }
    return c.file->commit(publish);
  });
}

// ---- Namespace changes ----

int VELTFuse::__mkdir(const char* path, mode_t /*mode*/) {
  return guarded(__func__, [&] {
    Call c = onVolume(-ENODEV, true);
    if (c.error != 0) return c.error;
    VELT& velt = *c.velt;
    std::string parent_path, leaf;
    if (!splitPath(path, &parent_path, &leaf)) {
      NERIO_ASSERT_TEXT("end != nullptr");
      return -EINVAL;
    }
    DirEntryPtr parent = resolve(velt, parent_path);
    if (!parent) return -ENOENT;
    if (!parent->is_dir_) return -ENOTDIR;
    // A reserved folder holds its reserved files and nothing else.
    if (velt.entryToVELTFolder(parent) != nullptr) return -EPERM;
    if (parent->findChild(leaf.c_str())) return -EEXIST;
    int error = 0;
    DirEntryPtr entry = velt.newEntry(parent, leaf.c_str(), true, &error);
    if (!entry) return error < 0 ? error : -EIO;
    // The directory's first cluster was taken with the FAT written at once; the free count in
    // FSInfo must follow, or other FAT tools find it wrong. While open writers hold FAT-lock
    // counts this does nothing and their last release writes it.
    if (PBR* pbr = velt.pbr_) {
      std::lock_guard<std::mutex> reserved_lock(velt.reserved_mutex_);
      std::lock_guard<std::mutex> fat_lock(pbr->fat_mutex_);
      pbr->updateFSInfo();
    }
    return 0;
  });
}

int VELTFuse::__create(const char* path, mode_t /*mode*/, struct fuse_file_info* fi) {
  return guarded(__func__, [&] {
    Call c = onVolume(-ENODEV, true);
    if (c.error != 0) return c.error;
    VELT& velt = *c.velt;
    if (DirEntryPtr existing = resolve(velt, path)) {
      LOGE("[%s] already created.\n", existing->getPath().c_str());
      return -EEXIST;
    }
    std::string parent_path, leaf;
    if (!splitPath(path, &parent_path, &leaf)) {
      NERIO_ASSERT_TEXT("end != nullptr");
      return -EINVAL;
    }
    DirEntryPtr parent = resolve(velt, parent_path);
    if (!parent) return -ENOENT;
    if (!parent->is_dir_) return -ENOTDIR;
    int error = 0;
    DirEntryPtr entry = velt.newEntry(parent, leaf.c_str(), false, &error);
    if (!entry) return error < 0 ? error : -EIO;
    errno = 0;
    FilePtr file = velt.newFile(false, true, false, entry);
    if (!file) return lastError(-ENOMEM);
    file->setUsage(true, true);
    fi->fh = file->file_no_;
    return 0;
  });
}

// unlink and rmdir: `dir` tells which kind of entry the call removes.
static int removeEntry(const char* function, const char* path, bool dir, int no_volume) {
  return guarded(function, [&] {
    Call c = onPath(path, no_volume, true);
    if (c.error != 0) return c.error;
    DirEntryPtr entry = c.entry;
    const bool is_dir = entry->is_dir_ || entry->is_volume_;
    if (entry->parent_ == nullptr || is_dir != dir) return -EINVAL;
    std::vector<std::string> names = otherNames(*c.velt, *entry, path);
    DirEntryPtr parent = entry->parent_->shared_from_this();
    if (!parent) return -ENOENT;
    const int r = parent->delChild(entry);
    if (r == 0) dropNames(*c.velt, names, true);
    return r;
  });
}

int VELTFuse::__unlink(const char* path) {
  return removeEntry(__func__, path, false, -EINVAL);
}

int VELTFuse::__rmdir(const char* path) {
  return removeEntry(__func__, path, true, -ENODEV);
}

int VELTFuse::__rename(const char* from, const char* to, unsigned int flags) {
  return guarded(__func__, [&] {
    Call c = onVolume(-ENODEV, true);
    if (c.error != 0) return c.error;
    VELT& velt = *c.velt;
    NERIO_ASSERT(from && to);
    if (from == nullptr || to == nullptr) return -EINVAL;
    // There is no atomic exchange of two entries.
    if (flags & RENAME_EXCHANGE) return -EINVAL;
    if (strcmp(from, to) == 0) return 0;

    DirEntryPtr source = resolve(velt, from);
    if (!source) {
      LOGE("\"%s\" not found\n", from);
      return -ESTALE;  // the kernel's name is stale: it looks it up again (onPath)
    }
    std::string from_parent_path, from_leaf;
    if (!splitPath(from, &from_parent_path, &from_leaf)) {
      NERIO_ASSERT_TEXT("leaf != nullptr");
      LOGE("\"%s\" invalid path, no path delimeter found.\n", from);
      return -EINVAL;
    }
    DirEntryPtr from_parent_entry = resolve(velt, from_parent_path);
    if (!from_parent_entry || source->parent_ != from_parent_entry.get()) {
      NERIO_ASSERT_TEXT("from_parent_entry != nullptr");
      LOGE("\"%s\" no parent entry.\n", from);
      return -ENOENT;
    }
    if (velt.isInVELTFolder(source)) {
      LOGE("reserved [%s] -> [%s] not allowed\n", from, to);
      return -EPERM;
    }

    std::string to_parent_path, to_leaf;
    if (!splitPath(to, &to_parent_path, &to_leaf)) {
      NERIO_ASSERT_TEXT("leaf != nullptr");
      return -EINVAL;
    }
    DirEntryPtr to_parent_entry = resolve(velt, to_parent_path);
    if (!to_parent_entry) {
      NERIO_ASSERT_TEXT("to_parent_entry != nullptr");
      LOGE("\"%s\" no parent entry.\n", to);
      return -ENOENT;
    }
    if (!to_parent_entry->is_dir_) return -ENOTDIR;
    // Neither the destination's folder nor any of its ancestors may be the source: a folder
    // never moves into its own subtree.
    for (const VELT::DirEntry* p = to_parent_entry.get(); p != nullptr; p = p->parent_) {
      if (p == source.get()) {
        LOGE("from %s == to %s ???\n", from, to);
        return -EINVAL;
      }
    }
    DirEntryPtr to_entry = to_parent_entry->findChild(to_leaf.c_str());
    if ((to_entry && velt.isInVELTFolder(to_entry)) || velt.isInVELTFolder(to_parent_entry)) {
      LOGE("a file or folder can not be moved to the reserved VELT folder!\n");
      return -EPERM;
    }

    // The kernel moves the name it renamed; the source's other names, and those of a replaced
    // destination, are stale once the rename is done.
    std::vector<std::string> stale = otherNames(velt, *source, from);
    if (to_entry == source) {
      // Another spelling of the source itself. A change of letter case renames; an 8.3 alias
      // or the same name in other case does nothing, as for a second link to one file. (GNU
      // mv never gets here for a change of case: the kernel refuses its no-replace rename
      // onto a name that resolves, and mv then sees one inode under both names.)
      if (to_leaf == source->name_ || strcasecmp(to_leaf.c_str(), source->name_.c_str()) != 0) {
        return 0;
      }
      int moved = from_parent_entry->moveChild(source, to_parent_entry, to_leaf.c_str());
      if (moved == 0) dropNames(velt, stale, true);
      return moved;
    }

    std::string new_name = to_leaf;
    if (to_entry) {
      // A caller that asked not to replace must not lose the destination.
      if (flags & RENAME_NOREPLACE) return -EEXIST;
      if (to_entry->is_volume_) return -EPERM;
      // A folder that holds the source (another spelling of an ancestor) is not empty.
      for (const VELT::DirEntry* p = source->parent_; p != nullptr; p = p->parent_) {
        if (p == to_entry.get()) return -ENOTEMPTY;
      }
      if (to_entry->is_dir_) {
        if (!source->is_dir_) return -EISDIR;
        if (to_entry->getChildCount() > 0) return -ENOTEMPTY;
      } else if (source->is_dir_) {
        return -ENOTDIR;
      }
      // An existing name keeps its stored spelling.
      new_name = to_entry->name_;
      std::vector<std::string> replaced = otherNames(velt, *to_entry, to);
      stale.insert(stale.end(), replaced.begin(), replaced.end());
      // A file takes over the other file's record, so that the name is never missing. (An empty
      // folder goes first: a cut in between loses only it.)
      int result = to_entry->is_dir_ ? to_parent_entry->delChild(to_entry) : 0;
      if (result != 0) {
        LOGE("\"%s\" failed to delete before moving\n", to_entry->getPath().c_str());
        return result;
      }
    }
    int moved = to_entry && !to_entry->is_dir_
                    ? from_parent_entry->replaceChild(source, to_parent_entry, to_entry)
                    : from_parent_entry->moveChild(source, to_parent_entry, new_name.c_str());
    if (moved == 0) {
      dropNames(velt, stale, true);
      // The kernel now holds the moved entry under the name the caller gave.
      if (!isStoredSpelling(*source, to)) {
        spellings().seen(static_cast<uint32_t>(inodeOf(velt, *source)), to);
      }
    }
    // A destination folder that grew took its cluster with the FAT written at once; the free
    // count in FSInfo follows, as after mkdir.
    if (moved == 0 && velt.pbr_ != nullptr) {
      std::lock_guard<std::mutex> reserved_lock(velt.reserved_mutex_);
      std::lock_guard<std::mutex> fat_lock(velt.pbr_->fat_mutex_);
      velt.pbr_->updateFSInfo();
    }
    // A rename that returned survives a power cut.
    if (moved == 0 && velt.sync() != 0) return -EIO;
    return moved;
  });
}

// ---- Attributes and sizes ----

int VELTFuse::__statfs(const char* /*path*/, struct statvfs* st) {
  return guarded(__func__, [&] {
    Call c = onVolume(-ENODEV);
    if (c.error != 0) return c.error;
    PBR* pbr = c.velt->pbr_;
    if (pbr == nullptr) return -ENODEV;
    memset(st, 0, sizeof(*st));
    // Removed files' chains are as good as free: the first allocation that needs them frees them.
    const uint32_t free_clusters = pbr->freeOrDeferredCount();
    const uint32_t data_clusters = pbr->num_clusters_ > 2 ? pbr->num_clusters_ - 2 : 0;
    st->f_bsize = pbr->cluster_length_;
    st->f_frsize = pbr->cluster_length_;
    st->f_blocks = data_clusters;
    st->f_bfree = std::min(free_clusters, data_clusters);
    st->f_bavail = st->f_bfree;
    st->f_namemax = 255;
    return 0;
  });
}

// The owner-write bit is the FAT read-only attribute; everything else a FAT card cannot keep
// is accepted and left alone.
int VELTFuse::__chmod(const char* path, mode_t mode, struct fuse_file_info* /*fi*/) {
  return guarded(__func__, [&] {
    Call c = onPath(path, -ENODEV);
    if (c.error != 0) return c.error;
    VELT::DirEntry& entry = *c.entry;
    const bool read_only = (mode & S_IWUSR) == 0;
    if (entry.dir_ent_disk_off_ == 0 || entry.is_volume_ || entry.read_only_ == read_only) {
      return 0;
    }
    if (c.velt->read_only_) return -EROFS;
    time_t times[2];
    {
      std::lock_guard lock(entry.files_mutex_);
      entry.read_only_ = read_only;
      if (read_only) {
        entry.attr_ |= kAttrReadOnly;
      } else {
        entry.attr_ &= static_cast<uint8_t>(~kAttrReadOnly);
      }
      times[0] = entry.accessed_;
      times[1] = entry.modified_;
      if (entry.is_reserved_ && !entry.is_secured_) return 0;  // written at publication
    }
    int r = entry.touch(times[0], times[1]);
    if (r == 0) dropNames(*c.velt, otherNames(*c.velt, entry, path));
    return r;
  });
}

int VELTFuse::__chown(const char* path, uid_t /*uid*/, gid_t /*gid*/,
                      struct fuse_file_info* /*fi*/) {
  return guarded(__func__, [&] { return onPath(path, -ENODEV).error; });
}

int VELTFuse::__truncate(const char* path, off_t size, struct fuse_file_info* fi) {
  return guarded(__func__, [&] {
    if (fi != nullptr) {
      Call c = onVolume(-ENODEV);
      if (c.error != 0) return c.error;
      if (FilePtr file = c.velt->getFile(static_cast<int>(fi->fh))) {
        int r = file->truncate(size);
        if (file->entry_ != nullptr) dropNames(*c.velt, otherNames(*c.velt, *file->entry_, path));
        return r;
      }
    }
    if (path == nullptr) return -EBADF;
    Call c = onPath(path, -ENODEV);
    if (c.error != 0) return c.error;
    int r = truncateEntry(*c.velt, *c.entry, size);
    dropNames(*c.velt, otherNames(*c.velt, *c.entry, path));
    return r;
  });
}

int VELTFuse::__fallocate(const char* /*path*/, int mode, off_t offset, off_t length,
                          struct fuse_file_info* fi) {
  return guarded(__func__, [&] {
    Call c = onVolume(-ENODEV);
    if (c.error != 0) return c.error;
    if (mode != 0) return -EOPNOTSUPP;
    if (offset < 0 || length <= 0) return -EINVAL;
    c = onHandle(fi, -ENODEV, -EBADF);
    if (c.error != 0 || c.file->entry_ == nullptr) return c.error != 0 ? c.error : -EBADF;
    int r = allocateEntry(*c.velt, *c.file->entry_, offset + length);
    if (r == 0) c.file->setUsage(true, true);
    return r;
  });
}

// ---- Volume lifetime ----

void* VELTFuse::__init(struct fuse_conn_info* conn, struct fuse_config* cfg) {
  // Every read and write reaches the callbacks with the caller's own size and offset; file data
  // is not cached in the kernel. Inode numbers are the entries' own (one per entry, whatever
  // spelling reached it); removed files are removed, never hidden under another name; the
  // truncation of an open comes with the open itself.
  cfg->use_ino = 1;
  cfg->hard_remove = 1;
  if (conn != nullptr && (conn->capable & FUSE_CAP_ATOMIC_O_TRUNC)) {
    conn->want |= FUSE_CAP_ATOMIC_O_TRUNC;
  }
  // Card bytes are answered from the card's descriptor (readBuffers): the kernel splices them
  // into the reply. Pages are copied, never moved, so the card's own stay where they are.
  if (conn != nullptr && (conn->capable & FUSE_CAP_SPLICE_WRITE)) {
    conn->want |= FUSE_CAP_SPLICE_WRITE;
  }
  if (conn != nullptr) conn->max_read = kMaxRead;
  // Every read of a folder hands out its entries' attributes (readdirplus), not only the first:
  // `ls -l` stats each chunk of names before it reads the next, and the kernel, asked to
  // choose, would read the rest without them and look each name up again.
  if (conn != nullptr && (conn->capable & FUSE_CAP_READDIRPLUS)) {
    conn->want |= FUSE_CAP_READDIRPLUS;
    conn->want &= ~FUSE_CAP_READDIRPLUS_AUTO;
  }
  cfg->direct_io = 1;
  cfg->kernel_cache = 0;
  cfg->nullpath_ok = 0;
  // Names and attributes are cached for a second: the kernel sees every change made through the
  // mount, and the volume reports the others (kernel_invalidate_ below). Names that do not
  // exist are not cached, since the direct channel creates files behind the kernel's back.
  cfg->entry_timeout = kKernelCacheSeconds;
  cfg->negative_timeout = 0;
  cfg->attr_timeout = kKernelCacheSeconds;

  int error = -22;
  std::shared_ptr<VELT> velt;
  try {
    velt = VELT::create(options_.device_path != nullptr ? options_.device_path : kDefaultDevicePath,
                        options_.cache_size, kVELTOpMount, 0, &error);
  } catch (const std::exception& e) {
    LOGE("exception: %s\n", e.what());
    velt.reset();
  }
  if (!velt) {
    LOGE("VELT::create() failed, err %d (%s)\n", error, resultCodeText(error));
    fputs("VELT init failed\n", stderr);
    fflush(stderr);
    struct fuse_context* context = fuse_get_context();
    if (context != nullptr && context->fuse != nullptr) fuse_exit(context->fuse);
    setVolume(nullptr);
    return nullptr;
  }
  setVolume(velt);
  if (struct fuse_context* context = fuse_get_context(); context != nullptr && context->fuse) {
    struct fuse* fuse = context->fuse;
    // Drops only cached attributes (file data is never cached; no dentry or directory lock), so
    // it is safe from any thread.
    velt->setKernelInvalidate(
        [fuse](const std::string& path) { fuse_invalidate_path(fuse, path.c_str()); });
    if (options_.mount_path != nullptr) {
      nameDropper().start(fuse_get_session(fuse), options_.mount_path);
    }
  }

  velt->setMountPoint(options_.mount_path != nullptr ? options_.mount_path : kDefaultMountPath);
  if (options_.channel_mem > 0) velt->direct_held_max_ = options_.channel_mem;
  if (options_.channel_age_ms > 0) velt->direct_max_age_us_ = options_.channel_age_ms * 1000ull;
  velt->startDirectWriter();
  velt->startCommitter(options_.commit_seconds);

  int64_t free_bytes = 0;
  if (velt->pbr_ != nullptr) {
    free_bytes = static_cast<int64_t>(velt->pbr_->free_cluster_count_) *
                 static_cast<int64_t>(velt->pbr_->cluster_length_);
  }
  printf("  free space: %jd bytes (%d MB, %d GB)\n", static_cast<intmax_t>(free_bytes),
         static_cast<int>(free_bytes >> 20), static_cast<int>(free_bytes >> 30));
  fflush(stdout);
  return velt.get();
}

void VELTFuse::detachFromKernel() {
  if (std::shared_ptr<VELT> velt = volume()) velt->setKernelInvalidate(nullptr);
  nameDropper().stop();
}

void VELTFuse::__destroy(void* private_data) {
  std::shared_ptr<VELT> old;
  {
    std::lock_guard<std::mutex> lock(velt_mutex_);
    void* velt_object = private_data;
    if (velt_.get() != velt_object) NERIO_ASSERT_TEXT("velt_.get() == velt_object");
    old.swap(velt_);
  }
  nameDropper().stop();
  if (old) closeOpenFiles(*old);
  // Dropping the last reference unloads the volume: channel stopped, tree released, device
  // closed, cache freed.
  old.reset();
}

void VELTFuse::closeOpenFiles(VELT& velt) {
  std::vector<FilePtr> files;
  {
    std::lock_guard<std::mutex> lock(velt.files_mutex_);
    for (const auto& [handle, file] : velt.open_files_) {
      // The channel's files are closed by the channel as it stops.
      if (file != nullptr && !file->direct_) files.push_back(file);
    }
  }
  for (const FilePtr& file : files) {
    try {
      if (file->dir_mode_) {
        velt.freeFile(file->file_no_);
        continue;
      }
      publishReservedFile(*file);
      file->flush();
      if (file->close() < -1 && file->entry_ != nullptr) {
        LOGE("[%s] close at shutdown failed\n", file->entry_->getPath().c_str());
      }
    } catch (...) {
      exceptionAnswer(__func__);
    }
  }
}

const struct fuse_operations& VELTFuse::operations() {
  static const struct fuse_operations ops = [] {
    struct fuse_operations o;
    memset(&o, 0, sizeof(o));
    o.getattr = __getattr;
    o.mkdir = __mkdir;
    o.unlink = __unlink;
    o.rmdir = __rmdir;
    o.rename = __rename;
    o.open = __open;
    o.read = __read;
    o.read_buf = readBuffers;
    o.write = __write;
    o.flush = __flush;
    o.release = __release;
    o.fsync = __fsync;
    o.opendir = __opendir;
    o.readdir = __readdir;
    o.releasedir = __releasedir;
    o.init = __init;
    o.destroy = __destroy;
    o.access = __access;
    o.create = __create;
    o.utimens = __utimens;
    o.ioctl = __ioctl;
    o.statfs = __statfs;
    o.chmod = __chmod;
    o.chown = __chown;
    o.truncate = __truncate;
    o.fallocate = __fallocate;
    return o;
  }();
  return ops;
}

}  // namespace velt
