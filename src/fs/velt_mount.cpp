// The system's mount table: where the volume's device or the daemon is mounted, forcing such a
// mount away, and the volume's signature.
#include <sys/mount.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "fs/velt.h"

namespace velt {

static constexpr const char kLogTag[] = "VELT";

namespace {

// Splits a mount-table line in place into its first two blank-separated fields. Octal escapes
// are left as they are.
void splitMountLine(char* line, char** device, char** dir) {
  char* p = line;
  while (*p == ' ') ++p;
  *device = p;
  while (*p != '\0' && *p != ' ') ++p;
  if (*p != '\0') *p++ = '\0';
  while (*p == ' ') ++p;
  *dir = p;
  while (*p != '\0' && *p != ' ') ++p;
  *p = '\0';
}

}  // namespace

int VELT::findMountedPoint(const char* table) {
  FILE* fp = fopen(table, "r");
  if (fp == nullptr) {
    NERIO_ASSERT_TEXT("fp");
    return 0;
  }
  char line[1024];
  int found = 0;
  while (fgets(line, sizeof(line), fp) != nullptr) {
    line[strcspn(line, "\n")] = '\0';
    char* device;
    char* dir;
    splitMountLine(line, &device, &dir);
    // A substring test: the partition's device path also finds its longer-numbered siblings.
    if (strstr(device, device_path_.c_str()) != nullptr || strcmp(device, "velt.fuse") == 0) {
      mount_point_ = dir;
      found = 1;
      break;
    }
  }
  fclose(fp);
  return found;
}

int VELT::umount() {
  if (findMountedPoint() == 0) return 0;
  // A forced unmount first; lazy ones after, a second apart, while the mount stays listed.
  ::umount2(mount_point_.c_str(), MNT_FORCE);
  if (findMountedPoint() == 0) return 0;
  for (int attempt = 0; attempt < 3; ++attempt) {
    sleep(1);
    ::umount2(mount_point_.c_str(), MNT_DETACH);
    if (findMountedPoint() == 0) return 0;
  }
  LOGE("umount %s failed\n", mount_point_.c_str());
  return -1;
}

int VELT::getSignature(char* buf, size_t size) {
  if (!format_info_.valid()) {
    LOGE("no format info.\n");
    return -1;
  }
  if (buf == nullptr || size <= sizeof(format_info_.signature)) {
    LOGE("signature buffer size must be over 12-byte.\n");
    return -1;
  }
  memset(buf, 0, size);
  memcpy(buf, format_info_.signature, sizeof(format_info_.signature));
  return static_cast<int>(strlen(buf));
}

}  // namespace velt
