// The format-information record kept in FSInfo: version, magic numbers, flags, signature and up
// to four reserved-folder descriptors. 244 bytes on the card at FSInfo offset 4.
#pragma once

#include <cstdint>

namespace velt {

constexpr uint32_t VELT_FSINFO_MAGIC1 = 0x746C4576;  // "vElt"
constexpr uint32_t VELT_FSINFO_MAGIC2 = 0x56456C54;  // "TlEV"
constexpr int VELT_FORMAT_INFO_SIZE = 244;
constexpr int VELT_FOLDER_DESC_SIZE = 52;
constexpr int VELT_MAX_RESERVED_FOLDERS = 4;
constexpr int VELT_VERSION_MAJOR = 3;
constexpr int VELT_VERSION_MINOR = 9;

enum VELTFormatMode : int {
  kVELTFormatUnknownMode = -1,
  kVELTFormatModeN = 0,
  kVELTFormatModeP = 1,
};

// Bits of the extra argument of a volume created for formatting.
constexpr int kVELTFormatKeepRootFiles = 1;  // the files of the root stay
constexpr int kVELTFormatFresh = 2;  // a new FAT32 is laid down, whatever the card holds

struct ReservedFolderDesc {
  char name[12] = {};  // NUL-padded, compared without regard to case
  uint32_t percent = 0;  // share of the free space
  uint32_t size_mb = 0;  // size of each reserved file
  uint32_t count = 0;  // reserved files
  int32_t used = 0;  // reserved files in use
  uint32_t start_cluster = 0;  // first cluster of the folder
  uint8_t spare[20] = {};  // carried unchanged
};

struct FormatInfo {
  uint16_t version_minor = 0;
  uint16_t version_major = 0;
  uint32_t magic1 = 0;
  uint32_t folder_count = 0;
  uint32_t mode = 0;
  uint32_t flags = 0;
  uint8_t signature[12] = {};
  uint32_t magic2 = 0;
  ReservedFolderDesc folders[VELT_MAX_RESERVED_FOLDERS];

  bool valid() const { return magic1 == VELT_FSINFO_MAGIC1 && magic2 == VELT_FSINFO_MAGIC2; }
  void decode(const uint8_t* p);
  void encode(uint8_t* p) const;
};

}  // namespace velt
