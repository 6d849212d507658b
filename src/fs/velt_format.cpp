// Laying down the VELT layout on a volume opened for formatting: reserved-folder sizes from the
// free space, the boot-record mark, the rebuilt root and FAT, the MBR and the boot sectors.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "fs/velt.h"
#include "fs/velt_dirent.h"
#include "fs/velt_driver.h"

namespace velt {

static constexpr const char kLogTag[] = "VELT";

namespace {

constexpr int64_t kMiB = 1ll << 20;

// The byte count in MB and GB as the summary shows them (single-precision count).
void printSize(const char* what, int64_t bytes) {
  const float value = static_cast<float>(bytes);
  printf("%s size %lld bytes (%.2f MB, %.2f GB)\n", what, static_cast<long long>(bytes),
         value * (1.0 / (1 << 20)), value * (1.0 / (1 << 30)));
}

constexpr char kDriverDevice[] = "/dev/velt";
constexpr char kDaemonName[] = "velt.fuse";

// The driver device a process with this environment opens: under its VELT_ROOT when that
// names a directory.
std::string driverDeviceOf(const std::string& environ) {
  static constexpr char kVar[] = "VELT_ROOT=";
  for (size_t at = 0; at < environ.size();) {
    size_t end = environ.find('\0', at);
    if (end == std::string::npos) end = environ.size();
    if (environ.compare(at, sizeof(kVar) - 1, kVar) == 0) {
      std::string root = environ.substr(at + sizeof(kVar) - 1, end - at - (sizeof(kVar) - 1));
      struct stat st;
      if (!root.empty() && stat(root.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
        return root + kDriverDevice;
      }
      break;
    }
    at = end + 1;
  }
  return kDriverDevice;
}

// Two paths name the same file (or, when neither exists, are the same text).
bool sameFile(const std::string& a, const std::string& b) {
  struct stat sa, sb;
  if (stat(a.c_str(), &sa) == 0 && stat(b.c_str(), &sb) == 0) {
    return sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
  }
  return a == b;
}

// Empty when it cannot be read whole: a process's files under /proc vanish when it exits, and
// a read then fails (ESRCH) halfway.
std::string readWholeFile(const std::string& path) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::string();
  std::string out;
  char chunk[4096];
  for (;;) {
    ssize_t n = read(fd, chunk, sizeof(chunk));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) out.clear();
    if (n <= 0) break;
    out.append(chunk, static_cast<size_t>(n));
  }
  close(fd);
  return out;
}

}  // namespace

namespace {

// A line of the mount table whose source is one of `sources` (or the same file as one).
bool findMount(const char* mounts, const std::vector<std::string>& sources, std::string* where) {
  FILE* fp = fopen(mounts, "r");
  if (fp == nullptr) return false;
  char line[1024];
  bool found = false;
  while (!found && fgets(line, sizeof(line), fp) != nullptr) {
    char device[1024], dir[1024];
    if (sscanf(line, "%1023s %1023s", device, dir) != 2) continue;
    for (const std::string& source : sources) {
      if (source == device || (device[0] == '/' && sameFile(source, device))) {
        if (where != nullptr) *where = std::string("mounted at ") + dir;
        found = true;
        break;
      }
    }
  }
  fclose(fp);
  return found;
}

// A running daemon whose driver device (after its VELT_ROOT) is the file `card`.
bool findDaemon(const char* proc, const std::string& card, std::string* where) {
  DIR* dir = opendir(proc);
  if (dir == nullptr) return false;
  bool in_use = false;
  while (struct dirent* e = readdir(dir)) {
    const char* pid = e->d_name;
    if (pid[0] < '0' || pid[0] > '9') continue;
    const std::string base = std::string(proc) + "/" + pid;
    std::string comm = readWholeFile(base + "/comm");
    while (!comm.empty() && (comm.back() == '\n' || comm.back() == ' ')) comm.pop_back();
    if (comm != kDaemonName) continue;
    if (!sameFile(driverDeviceOf(readWholeFile(base + "/environ")), card)) continue;
    if (where != nullptr) *where = std::string("served by ") + kDaemonName + " (pid " + pid + ")";
    in_use = true;
    break;
  }
  closedir(dir);
  return in_use;
}

}  // namespace

bool VELT::isCardInUse(const std::string& device_path, std::string* where, const char* mounts,
                       const char* proc) {
  // A mount of the partition node (the kernel's own FAT driver, say), or a daemon serving this
  // card: the same driver device once its VELT_ROOT is applied.
  return findMount(mounts, {device_path, platformPath(device_path)}, where) ||
         findDaemon(proc, platformPath(kDriverDevice), where);
}

bool VELT::isImageInUse(const std::string& path, std::string* where, const char* mounts,
                        const char* proc) {
  return findMount(mounts, {path}, where) || findDaemon(proc, path, where);
}

int VELT::format(const FormatInfo& info, uint32_t mode, const char* label) {
  if (!isFormattingOp()) {
    NERIO_ASSERT_TEXT("isFormattingOp()");
    LOGE("VELT has not been created for format!\n");
    return -1;
  }
  if (disk_size_ == 0) {
    NERIO_ASSERT_TEXT("disk_size_ != 0ll");
    LOGE("VELT disk size is 0\n");
    return -1;
  }

  format_info_ = info;
  format_info_.magic1 = VELT_FSINFO_MAGIC1;
  format_info_.magic2 = VELT_FSINFO_MAGIC2;
  format_info_.version_major = VELT_VERSION_MAJOR;
  format_info_.version_minor = VELT_VERSION_MINOR;
  format_info_.mode = mode;
  format_mode_ = static_cast<int>(mode);
  volume_label_.clear();
  if (label != nullptr && label[0] != '\0') {
    volume_label_ = label;
    if (volume_label_.size() > 11 || !isValidFileName(label)) {
      LOGE("invalid volume label\n");
      return -1;
    }
  }
  if (mode > kVELTFormatModeP) {
    LOGE("wrong format mode %d\n", static_cast<int>(mode));
    return -1;
  }

  if (root_ == nullptr) {
    NERIO_ASSERT_TEXT("root_ != nullptr");
    return -1;
  }
  int64_t root_size = 0;
  {
    std::lock_guard lock(root_->children_mutex_);
    for (const auto& child : root_->children_) {
      if (child->isArchive()) root_size += child->size_;
    }
  }
  printSize("disk", disk_size_);
  printSize("root", root_size);
  fflush(stdout);
  const int64_t free_bytes = disk_size_ - root_size;
  if (free_bytes < 1) {
    LOGE("no space. root files are too large!!!\n");
    return -1;
  }

  // Every folder's share is taken of the same free space; shares above 100% in total leave
  // "remaining" negative, and the folders simply get what their share says.
  if (format_info_.folder_count > VELT_MAX_RESERVED_FOLDERS) {
    format_info_.folder_count = VELT_MAX_RESERVED_FOLDERS;
  }
  int64_t remaining = free_bytes;
  for (uint32_t i = 0; i < format_info_.folder_count; ++i) {
    ReservedFolderDesc& desc = format_info_.folders[i];
    const int64_t file_bytes = static_cast<int64_t>(desc.size_mb) * kMiB;
    int64_t count = 0;
    if (file_bytes > 0) count = static_cast<int64_t>(desc.percent) * free_bytes / file_bytes / 100;
    desc.count = static_cast<uint32_t>(count);
    desc.used = 0;
    remaining -= count * file_bytes;
    std::string name(desc.name, strnlen(desc.name, sizeof(desc.name)));
    printf("%10s %4d%% %5d MB #%-4d\n", name.c_str(), static_cast<int>(desc.percent),
           static_cast<int>(desc.size_mb), static_cast<int>(desc.count));
  }
  printf("%10s %5s %5d MB\n", "(free)", " ", static_cast<int>(remaining / kMiB));
  fflush(stdout);

  if (!skip_umount_) umount();

  if (mbr_ == nullptr || pbr_ == nullptr || !mbr_->valid_ || !pbr_->valid_) {
    NERIO_ASSERT_TEXT("mbr_->valid_ && pbr_->valid_");
    if (pbr_ == nullptr) {
      NERIO_ASSERT_TEXT("pbr_ != nullptr");
      return -1;
    }
  }

  auto fail = [this]() {
    // Flush what the format changed so far; the count taken again keeps unload's release of
    // the format's own lock balanced.
    unlockFAT();
    lockFAT();
    LOGW(
        "Failed to format. Please format FAT32 (under Windows or mkfs.vfat) first on this "
        "device.\n");
    return -1;
  };
  // Without a label the boot record says "NO NAME", as FAT tools expect of an unlabelled
  // volume (blanks read as an invalid label); the root then gets no label record.
  const char* boot_label = volume_label_.empty() ? "NO NAME" : volume_label_.c_str();
  if (pbr_->markVELT(boot_label) < 0) {
    LOGE("PBR to VELT failed\n");
    return fail();
  }
  // A kept boot sector (another formatter's, or an older one) gets the geometry too.
  pbr_->setConventionalGeometry();
  const bool keep_files = (format_info_.flags & 1) != 0 && !partition_created_ &&
                          (extra_ & kVELTFormatFresh) == 0;
  if (rebuildRoot(keep_files) < 0) {
    LOGE("rebuild root failed\n");
    return fail();
  }
  if (mbr_ == nullptr || mbr_->write() < 0) {
    LOGE("MBR write error\n");
    return fail();
  }
  if (pbr_->write() < 0) {
    LOGE("Reserved region(PBR, FsInfo, FAT) write error\n");
    return fail();
  }
  return 0;
}

}  // namespace velt
