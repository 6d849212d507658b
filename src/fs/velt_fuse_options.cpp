// Front end: the option table and the start-up checks that need no volume.
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "fs/velt.h"
#include "fs/velt_fuse.h"
#include "utils/Log.h"

static constexpr const char kLogTag[] = "VELT.Fuse";

namespace velt {

#define VELT_OPT(templ, member) {templ, offsetof(VELTOptions, member), 0}

// Parsed before the library's own command line, so "-d" is the device path here and the help
// and version switches never reach the library's parser.
const struct fuse_opt kVELTOptionSpecs[] = {
    VELT_OPT("dev=%s", device_path),
    VELT_OPT("-d %s", device_path),
    VELT_OPT("cache=%s", cache_size_text),
    VELT_OPT("-c %s", cache_size_text),
    VELT_OPT("channel_mem=%s", channel_mem_text),
    VELT_OPT("channel_age=%u", channel_age_ms),
    VELT_OPT("commit=%d", commit_seconds),
    FUSE_OPT_KEY("-V", kVELTOptKeyVersion),
    FUSE_OPT_KEY("--version", kVELTOptKeyVersion),
    FUSE_OPT_KEY("-h", kVELTOptKeyHelp),
    FUSE_OPT_KEY("--help", kVELTOptKeyHelp),
    FUSE_OPT_END,
};

#undef VELT_OPT

bool parseCacheSize(const char* text, int32_t* size, std::string* shown) {
  *size = 0;
  if (text == nullptr || text[0] == '\0') return true;
  std::string number(text);
  shown->assign(number);
  int64_t multiplier;
  switch (number.back()) {
    case 'K':
      multiplier = 1024;
      break;
    case 'M':
      multiplier = 1048576;
      break;
    default:
      return false;
  }
  number.pop_back();
  shown->assign(number);
  int64_t value = 0;
  for (char c : number) {
    if (c < '0' || c > '9') return false;
    value = value * 10 + (c - '0');
    if (value > INT32_MAX) return false;  // bytes can only be larger still
  }
  value *= multiplier;
  if (value > INT32_MAX) return false;
  *size = static_cast<int32_t>(value);
  return true;
}

bool is_mounted_point(const char* mount_point, const char* table) {
  FILE* fp = fopen(table, "r");
  NERIO_ASSERT(fp);
  if (fp == nullptr) return false;
  // Only a blank separates the fields, exactly as the mount-point queries of the volume read
  // the table; a tab or newline stays part of a field.
  char line[1024];
  bool found = false;
  while (!found && fgets(line, sizeof(line), fp) != nullptr) {
    char* p = line;
    while (*p == ' ') ++p;
    while (*p != ' ' && *p != '\0') ++p;
    while (*p == ' ') ++p;
    char* dir = p;
    while (*p != ' ' && *p != '\0') ++p;
    *p = '\0';
    found = strcmp(dir, mount_point) == 0;
  }
  fclose(fp);
  return found;
}

const char* resultCodeText(int code) {
  switch (code) {
    case kVELTOk:
      return "Ok";
    case kVELTNeedFormat:
      return "Need format";
    case kVELTNoFAT32Partition:
      return "No FAT32 partition";
    case kVELTNoDevice:
      return "No device found";
    case kVELTRetry:
      return "Retry (internal error)";
    case kVELTBadMBR:
      return "No or bad Master boot record";
    case kVELTNoVolumeSize:
      return "No volume size";
    case kVELTBadPBR:
      return "No or bad FAT32 Partition boot record";
    case kVELTNotVELT:
      return "Not VELT";
    case kVELTBadVELT:
      return "Bad VELT";
    default:
      return "Unknown error";
  }
}

}  // namespace velt
