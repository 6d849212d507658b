// velt.fuse: serves one FAT32 partition of the card at a mount point.
//
// Start-up: crash handler, options (ours before the library's), banner, device and mount-point
// checks, then mount, daemonise and run the FUSE loop until the file system is unmounted. The
// volume itself is created by the init callback, after mounting.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fs/velt.h"
#include "fs/velt_driver.h"
#include "fs/velt_fuse.h"
// After velt_fuse.h, which chooses the library API version.
#include <fuse_lowlevel.h>

#include "fs/velt_fuse_signal.h"
#include "utils/Log.h"

namespace velt {

namespace {

// Lets the library print its own help or version for the same command line.
void runLibraryWith(struct fuse_args* outargs, const char* option) {
  fuse_opt_add_arg(outargs, option);
  const struct fuse_operations& ops = VELTFuse::operations();
  fuse_main_real(outargs->argc, outargs->argv, &ops, sizeof(ops), nullptr);
}

// VELT_ROOT as an absolute path: the daemon changes directory when it goes to the background,
// and must then still find the card it was started for. False (with a message) when the
// variable is set but names no usable directory: never fall back to the real devices.
bool makeRootAbsolute() {
  const char* root = getenv("VELT_ROOT");
  if (root == nullptr || root[0] == '\0') return true;
  char* absolute = realpath(root, nullptr);
  struct stat st;
  if (absolute == nullptr || stat(absolute, &st) != 0 || !S_ISDIR(st.st_mode)) {
    fprintf(stderr, "error: VELT_ROOT [%s] is not a usable directory\n", root);
    free(absolute);
    return false;
  }
  setenv("VELT_ROOT", absolute, 1);
  free(absolute);
  return true;
}

// Takes an exclusive lock on the card (its image or device node) for the daemon's life, so that
// a second daemon never serves the same card. -1 when another daemon holds it; otherwise the
// descriptor (or -2 when the card cannot be opened: the volume's own open reports that).
int lockCard(const std::string& card) {
  int fd = open(card.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return -2;
  if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
    int err = errno;
    close(fd);
    return err == EWOULDBLOCK ? -1 : -2;
  }
  return fd;
}

}  // namespace

int velt_opt_proc(void* /*data*/, const char* /*arg*/, int key, struct fuse_args* outargs) {
  switch (key) {
    case kVELTOptKeyHelp:
      fprintf(stderr,
              "usage: %s [options] <mountpoint>\n\n"
              "general options:\n"
              "    -o opt,[opt...]  mount options\n"
              "    -h   --help      print help\n"
              "    -V   --version   print version\n\n"
              "VELT options:\n"
              "    -d BLKDEV PATH   device path, default /dev/mmcblk0p1\n"
              "    -c CASH SIZE     internal cache size(K,M). 0 to disable cache. default "
              "disabled. \"-c 16M\" set 16MB-cache.\n"
              "    -o channel_mem=SIZE  memory the direct channel may hold before it stops\n"
              "                     reading requests (K,M; default 64M)\n"
              "    -o channel_age=MS    longest a queued channel write waits for appends\n"
              "                     (default 1000)\n"
              "    -o commit=SECONDS    put open files' new data on the card every SECONDS,\n"
              "                     as fsync would (default 5; 0: only fsync and close)\n\n",
              outargs->argv[0]);
      runLibraryWith(outargs, "-h");
      exit(1);
    case kVELTOptKeyVersion:
      fprintf(stderr, "VELT version %d.%d.%d\n", kVELTVersionMajor, kVELTVersionMinor,
              kVELTVersionPatch);
      runLibraryWith(outargs, "--version");
      exit(0);
    default:
      return 1;  // for the library's parsers
  }
}

}  // namespace velt

using velt::VELTFuse;

int main(int argc, char* argv[]) {
  velt::install_sigfault();

  static char cwd[4096];
  if (getcwd(cwd, sizeof(cwd)) != nullptr) nerio::setProgramDirectory(cwd);
  umask(0);

  const struct fuse_operations& ops = VELTFuse::operations();
  velt::VELTOptions& options = VELTFuse::options_;
  options.device_path = strdup(velt::kDefaultDevicePath);
  options.mount_path = strdup(velt::kDefaultMountPath);
  auto free_options = [&options]() {
    free(options.cache_size_text);
    free(options.channel_mem_text);
    free(options.device_path);
    free(options.mount_path);
    options = velt::VELTOptions();
  };

  struct fuse_args args = FUSE_ARGS_INIT(argc, argv);
  if (fuse_opt_parse(&args, &options, velt::kVELTOptionSpecs, velt::velt_opt_proc) != 0) {
    // The parser has printed why.
    fuse_opt_free_args(&args);
    free_options();
    return 1;
  }

  if (options.commit_seconds < 0) {
    fprintf(stderr, "commit interval \"%d\" is invalid\n", options.commit_seconds);
    fuse_opt_free_args(&args);
    free_options();
    return 1;
  }

  std::string shown;
  if (!velt::parseCacheSize(options.cache_size_text, &options.cache_size, &shown)) {
    fprintf(stderr, "size \"%s\" is invalid\n", shown.c_str());
    fuse_opt_free_args(&args);
    free_options();
    return 1;
  }

  if (!velt::parseCacheSize(options.channel_mem_text, &options.channel_mem, &shown) ||
      (options.channel_mem_text != nullptr && options.channel_mem < (1 << 20))) {
    fprintf(stderr, "channel_mem \"%s\" is invalid (at least 1M)\n",
            options.channel_mem_text != nullptr ? options.channel_mem_text : "");
    fuse_opt_free_args(&args);
    free_options();
    return 1;
  }

  if (!velt::makeRootAbsolute()) {
    fuse_opt_free_args(&args);
    free_options();
    return 1;
  }

  printf("     version: %d.%d.%d\n", velt::kVELTVersionMajor, velt::kVELTVersionMinor,
         velt::kVELTVersionPatch);
  printf("  cache size: %d%s\n", options.cache_size, options.cache_size == 0 ? "(disabled)" : "");
  printf("    dev path: %s\n", options.device_path);
  printf("mounted path: %s\n", options.mount_path);
  fflush(stdout);

  struct stat st;
  if (stat(velt::platformPath(options.device_path).c_str(), &st) != 0) {
    fprintf(stderr, "[%s] not found\n", options.device_path);
    fuse_opt_free_args(&args);
    free_options();
    return 1;
  }

  struct fuse_cmdline_opts opts;
  memset(&opts, 0, sizeof(opts));
  if (fuse_parse_cmdline(&args, &opts) != 0) {
    fuse_opt_free_args(&args);
    free_options();
    return 1;
  }
  auto free_all = [&]() {
    free(opts.mountpoint);
    fuse_opt_free_args(&args);
    free_options();
  };
  if (opts.mountpoint == nullptr) {
    fprintf(stderr, "error: no mountpoint specified\n");
    free_all();
    return 1;
  }
  if (velt::is_mounted_point(opts.mountpoint)) {
    fprintf(stderr, "error: mountpoint [%s] already mounted\n", opts.mountpoint);
    free_all();
    return 1;
  }
  free(options.mount_path);
  options.mount_path = strdup(opts.mountpoint);

  // Held (never closed) until the process ends, across daemonising.
  const std::string card = velt::platformPath("/dev/velt");
  if (velt::lockCard(card) == -1) {
    fprintf(stderr, "error: card [%s] is already served by another velt.fuse\n", card.c_str());
    free_all();
    return 1;
  }

  // Last, so that it stands whatever the command line said: __init asks for the same.
  const std::string max_read = "-omax_read=" + std::to_string(VELTFuse::kMaxRead);
  if (fuse_opt_add_arg(&args, max_read.c_str()) != 0) {
    free_all();
    return 1;
  }
  struct fuse* fuse = fuse_new(&args, &ops, sizeof(ops), nullptr);
  if (fuse == nullptr) {
    free_all();
    return 1;
  }
  if (fuse_mount(fuse, opts.mountpoint) != 0) {
    fuse_destroy(fuse);
    free_all();
    return 1;
  }
  if (fuse_daemonize(opts.foreground) != 0) {
    fuse_unmount(fuse);
    fuse_destroy(fuse);
    free_all();
    return 1;
  }
  struct fuse_session* session = fuse_get_session(fuse);
  if (fuse_set_signal_handlers(session) != 0) {
    fuse_unmount(fuse);
    fuse_destroy(fuse);
    free_all();
    return 1;
  }

  // The loop answers 0 when unmounted, the signal's number when a signal ended it (a clean
  // stop as well: every open file is closed at destroy) and a negative errno on failure.
  int loop;
  if (opts.singlethread) {
    loop = fuse_loop(fuse);
  } else {
    struct fuse_loop_config config;
    memset(&config, 0, sizeof(config));
    config.clone_fd = opts.clone_fd;
    // "Unset" (UINT_MAX) trips a bogus warning in the library's conversion of this older
    // loop record; 10 is what "unset" meant for it.
    config.max_idle_threads = opts.max_idle_threads == UINT_MAX ? 10 : opts.max_idle_threads;
    loop = fuse_loop_mt(fuse, &config);
  }
  const int status = loop < 0 ? 1 : 0;

  VELTFuse::detachFromKernel();
  fuse_remove_signal_handlers(session);
  fuse_unmount(fuse);
  fuse_destroy(fuse);
  free_all();
  return status;
}
