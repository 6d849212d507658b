// Card images for tests, made and judged by the ordinary FAT tools: sfdisk for the partition
// table, mkfs.fat for the file system, fsck.fat and mtools to check what our code wrote.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "daemon_runner.h"

namespace velt::test {

struct CardSpec {
  int64_t size_mb = 300;
  int sectors_per_cluster = 8;
  int slot = 1;        // partition number; slots before it get a small non-FAT partition
  std::string label;   // empty: none
  bool format = true;  // false: partition table only
};

// A card image in a VELT_ROOT sandbox: $root/dev/velt is the whole card, $root/dev/mmcblkNpS
// exists. Everything lives in a temporary directory removed at the end.
class CardImage {
 public:
  explicit CardImage(const CardSpec& spec = CardSpec());
  bool ok() const { return error_.empty(); }
  const std::string& error() const { return error_; }

  const std::string& dir() const { return dir_.path(); }
  std::string root() const { return dir_.path() + "/root"; }
  std::string image() const { return root() + "/dev/velt"; }
  std::string devicePath() const { return "/dev/mmcblk0p" + std::to_string(spec_.slot); }
  int64_t partitionOffset() const { return partition_offset_; }
  // "image@@offset" as mtools names the partition.
  std::string mtoolsImage() const;

  // Runs an mtools command (e.g. "mdir -/ ::/") on the partition.
  ShellResult mtools(const std::string& command) const;
  // fsck.fat with the given flags (e.g. "-n -v") on the partition; the status tells the
  // verdict (0: nothing wrong).
  ShellResult fsck(const std::string& flags = "-n") const;
  // Reads or writes bytes of the image at an absolute offset.
  std::string readBytes(int64_t offset, size_t size) const;
  void writeBytes(int64_t offset, const std::string& bytes) const;
  // The whole image, and replacing it (sparse: only blocks holding something are written).
  std::string contents() const;
  void putContents(const std::vector<uint8_t>& bytes) const;
  // Makes this image a copy of `other`'s (same spec); false when the copy fails.
  bool copyFrom(const CardImage& other) const;

  // mtools shortcuts on "::path"; a failing tool fails the test.
  void put(const std::string& path, const std::string& bytes) const;  // mcopy -o
  void mkdir(const std::string& path) const;                          // mmd
  void del(const std::string& path) const;                            // mdel
  std::string type(const std::string& path) const;                    // mtype, byte for byte
  // Points the FSInfo allocation hint at cluster 2, so the tools fill holes first.
  void rewindAllocationHint() const;

  // Points VELT_ROOT at this card's sandbox while it lives.
  class RootScope : public ScopedEnv {
   public:
    explicit RootScope(const CardImage& card) : ScopedEnv("VELT_ROOT", card.root().c_str()) {}
  };

 private:
  CardSpec spec_;
  TempDir dir_;
  int64_t partition_offset_ = 0;
  std::string error_;
};

// A card of `size_mb` with 512-byte clusters: every file and folder spans several clusters soon.
CardSpec smallClusterCard(int64_t size_mb);

// `size` reproducible pseudo-random bytes, different for each seed.
std::string patternBytes(size_t size, unsigned seed);

// Parses "  N bytes per cluster"-style lines of `fsck.fat -v` into named numbers:
// bytes_per_sector, bytes_per_cluster, reserved_sectors, fats, fat_sectors, data_sector,
// data_clusters, used_clusters, total_clusters, root_cluster, files.
std::map<std::string, int64_t> parseFsckVerbose(const std::string& out);

}  // namespace velt::test
