#include "fs/velt_format_info.h"

#include <cstring>

#include "fs/velt_endian.h"

namespace velt {

namespace {
// Record offsets.
constexpr int kVersionMinor = 0, kVersionMajor = 2, kMagic1 = 4, kFolderCount = 8, kMode = 12,
              kFlags = 16, kSignature = 20, kMagic2 = 32, kFolders = 36;
// Descriptor offsets.
constexpr int kName = 0, kPercent = 12, kSizeMb = 16, kCount = 20, kUsed = 24, kStart = 28,
              kSpare = 32;
}  // namespace

void FormatInfo::decode(const uint8_t* p) {
  version_minor = le16(p + kVersionMinor);
  version_major = le16(p + kVersionMajor);
  magic1 = le32(p + kMagic1);
  folder_count = le32(p + kFolderCount);
  mode = le32(p + kMode);
  flags = le32(p + kFlags);
  memcpy(signature, p + kSignature, sizeof(signature));
  magic2 = le32(p + kMagic2);
  for (int i = 0; i < VELT_MAX_RESERVED_FOLDERS; ++i) {
    const uint8_t* d = p + kFolders + i * VELT_FOLDER_DESC_SIZE;
    ReservedFolderDesc& f = folders[i];
    memcpy(f.name, d + kName, sizeof(f.name));
    f.percent = le32(d + kPercent);
    f.size_mb = le32(d + kSizeMb);
    f.count = le32(d + kCount);
    f.used = static_cast<int32_t>(le32(d + kUsed));
    f.start_cluster = le32(d + kStart);
    memcpy(f.spare, d + kSpare, sizeof(f.spare));
  }
}

void FormatInfo::encode(uint8_t* p) const {
  memset(p, 0, VELT_FORMAT_INFO_SIZE);
  putLe16(p + kVersionMinor, version_minor);
  putLe16(p + kVersionMajor, version_major);
  putLe32(p + kMagic1, magic1);
  putLe32(p + kFolderCount, folder_count);
  putLe32(p + kMode, mode);
  putLe32(p + kFlags, flags);
  memcpy(p + kSignature, signature, sizeof(signature));
  putLe32(p + kMagic2, magic2);
  for (int i = 0; i < VELT_MAX_RESERVED_FOLDERS; ++i) {
    uint8_t* d = p + kFolders + i * VELT_FOLDER_DESC_SIZE;
    const ReservedFolderDesc& f = folders[i];
    memcpy(d + kName, f.name, sizeof(f.name));
    putLe32(d + kPercent, f.percent);
    putLe32(d + kSizeMb, f.size_mb);
    putLe32(d + kCount, f.count);
    putLe32(d + kUsed, static_cast<uint32_t>(f.used));
    putLe32(d + kStart, f.start_cluster);
    memcpy(d + kSpare, f.spare, sizeof(f.spare));
  }
}

}  // namespace velt
