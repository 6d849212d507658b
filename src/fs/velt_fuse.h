// The FUSE front end: start-up options and the callbacks of the high-level FUSE interface.
//
// Every callback works on the process-wide volume (VELTFuse::volume()), which exists from
// __init to __destroy; a callback that finds no volume answers its no-volume error. Callbacks
// run concurrently on the library's worker threads and hold a shared reference to every entry
// and open file they touch until they return.
#pragma once

#ifndef FUSE_USE_VERSION
#define FUSE_USE_VERSION 35
#endif
#include <fuse.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

namespace velt {

class VELT;

// Program version; major and minor are also the on-card VELT version this build writes.
constexpr int kVELTVersionMajor = 3;
constexpr int kVELTVersionMinor = 9;
constexpr int kVELTVersionPatch = 20;

constexpr const char kDefaultDevicePath[] = "/dev/mmcblk0p1";
constexpr const char kDefaultMountPath[] = "/mnt/extsd";
constexpr int kDefaultCommitSeconds = 5;

// Filled by the option parser. The strings are heap copies: the parser frees the previous value
// when an option replaces it.
struct VELTOptions {
  char* cache_size_text = nullptr;  // "-c 16M" / "-o cache=16M"; null when not given
  int32_t cache_size = 0;           // bytes; 0 disables the sector cache
  char* device_path = nullptr;      // partition device, /dev/mmcblk<disk>p<partition>
  char* mount_path = nullptr;       // the mount point once known
  // Direct channel: bytes its queued requests and unsent replies may hold before the receiver
  // stops reading ("-o channel_mem=64M", K or M), and the longest a queued write waits for
  // appends ("-o channel_age=MS"). 0 keeps the defaults.
  char* channel_mem_text = nullptr;
  int32_t channel_mem = 0;
  unsigned channel_age_ms = 0;
  int commit_seconds = kDefaultCommitSeconds;  // "-o commit=5"; 0: open files wait for fsync
};

// Option keys handed to velt_opt_proc.
enum : int {
  kVELTOptKeyHelp = 0,
  kVELTOptKeyVersion = 1,
};

// The option table for fuse_opt_parse, terminated by FUSE_OPT_END.
extern const struct fuse_opt kVELTOptionSpecs[];

// fuse_opt_parse callback: prints help or version (and the library's) and exits; keeps every
// other argument for the later parsers.
int velt_opt_proc(void* data, const char* arg, int key, struct fuse_args* outargs);

// Cache size text -> bytes. The text is a decimal number followed by K or M (upper case only);
// empty or null means 0. Returns false for anything else or for a size beyond INT32_MAX, with
// `shown` set to the text the error message quotes (the number without a recognised suffix).
bool parseCacheSize(const char* text, int32_t* size, std::string* shown);

// True when the second field of a line of the mount table `table` equals `mount_point`.
bool is_mounted_point(const char* mount_point, const char* table = "/proc/mounts");

// Text shown for a result code of VELT::create.
const char* resultCodeText(int code);

class VELTFuse {
 public:
  // The operations table handed to fuse_new / fuse_main_real.
  static const struct fuse_operations& operations();

  // Lookups and listing.
  static int __getattr(const char* path, struct stat* st, struct fuse_file_info* fi);
  static int __access(const char* path, int mask);
  static int __opendir(const char* path, struct fuse_file_info* fi);
  static int __readdir(const char* path, void* buf, fuse_fill_dir_t filler, off_t offset,
                       struct fuse_file_info* fi, enum fuse_readdir_flags flags);
  static int __releasedir(const char* path, struct fuse_file_info* fi);
  static int __utimens(const char* path, const struct timespec tv[2], struct fuse_file_info* fi);

  // File data.
  static int __open(const char* path, struct fuse_file_info* fi);
  static int __read(const char* path, char* buf, size_t size, off_t offset,
                    struct fuse_file_info* fi);
  static int __write(const char* path, const char* buf, size_t size, off_t offset,
                     struct fuse_file_info* fi);
  static int __flush(const char* path, struct fuse_file_info* fi);
  static int __release(const char* path, struct fuse_file_info* fi);
  static int __fsync(const char* path, int datasync, struct fuse_file_info* fi);

  // Namespace changes.
  static int __mkdir(const char* path, mode_t mode);
  static int __create(const char* path, mode_t mode, struct fuse_file_info* fi);
  static int __unlink(const char* path);
  static int __rmdir(const char* path);
  static int __rename(const char* from, const char* to, unsigned int flags);

  // Attributes and sizes.
  static int __statfs(const char* path, struct statvfs* st);
  static int __chmod(const char* path, mode_t mode, struct fuse_file_info* fi);
  static int __chown(const char* path, uid_t uid, gid_t gid, struct fuse_file_info* fi);
  static int __truncate(const char* path, off_t size, struct fuse_file_info* fi);
  static int __fallocate(const char* path, int mode, off_t offset, off_t length,
                         struct fuse_file_info* fi);

  // Control commands on open files (velt_fuse_ioctl.cpp).
  static int __ioctl(const char* path, unsigned int cmd, void* arg, struct fuse_file_info* fi,
                     unsigned int flags, void* data);

  // The largest read the kernel sends, given to the library at mount ("-omax_read") and again
  // in __init: with its header a reply fits the largest pipe the kernel lets the library make,
  // so that card bytes are spliced into it (a 1 MiB read comes as two).
  static constexpr unsigned kMaxRead = 512 * 1024;

  // Volume lifetime.
  static void* __init(struct fuse_conn_info* conn, struct fuse_config* cfg);
  static void __destroy(void* private_data);
  // Cuts the volume's kernel-cache hooks once the loop has ended: the library frees the tables
  // they use before it calls __destroy, while the channel's threads still run.
  static void detachFromKernel();
  // Closes every file still open through the mount as its release would (record, size,
  // publication): the daemon is stopping with files open.
  static void closeOpenFiles(VELT& velt);

  // A reference to the process-wide volume; empty before __init, after __destroy and after a
  // failed creation.
  static std::shared_ptr<VELT> volume();
  // Replaces the process-wide volume (tests drive the callbacks without a mount).
  static void setVolume(std::shared_ptr<VELT> volume);

  // The process-wide option record; main fills it, __init reads it.
  static VELTOptions options_;

 private:
  static std::mutex velt_mutex_;  // guards velt_ (replaced by __init/__destroy, read by all)
  static std::shared_ptr<VELT> velt_;
};

}  // namespace velt
