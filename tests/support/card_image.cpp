#include "card_image.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <regex>
#include <sstream>

namespace velt::test {

CardImage::CardImage(const CardSpec& spec) : spec_(spec) {
  std::string q = shellQuote(image());
  runShell("mkdir -p " + shellQuote(root() + "/dev") + " " + shellQuote(root() + "/tmp"));
  std::string table = "label: dos\n";
  int64_t start = 2048;
  for (int s = 1; s < spec.slot; ++s) {
    // A small Linux partition in each earlier slot.
    table += "start=" + std::to_string(start) + ", size=2048, type=83\n";
    start += 4096;
  }
  table += "start=" + std::to_string(start) + ", type=c\n";
  partition_offset_ = start * 512;
  ShellResult r = runShell("truncate -s " + std::to_string(spec.size_mb) + "M " + q +
                           " && printf " + shellQuote(table) + " | sfdisk -q " + q);
  if (r.status != 0) {
    error_ = "sfdisk: " + r.err;
    return;
  }
  if (spec.format) {
    std::string cmd = "mkfs.fat -F 32 --offset " + std::to_string(start) + " -s " +
                      std::to_string(spec.sectors_per_cluster);
    if (!spec.label.empty()) cmd += " -n " + shellQuote(spec.label);
    r = runShell(cmd + " " + q);
    if (r.status != 0) {
      error_ = "mkfs.fat: " + r.err;
      return;
    }
  }
  writeFileBytes(root() + "/dev/mmcblk0p" + std::to_string(spec.slot), "");
}

std::string CardImage::mtoolsImage() const {
  return image() + "@@" + std::to_string(partition_offset_);
}

ShellResult CardImage::mtools(const std::string& command) const {
  // The command's first word is the tool; the image goes right after it.
  size_t space = command.find(' ');
  std::string tool = command.substr(0, space);
  std::string rest = space == std::string::npos ? "" : command.substr(space);
  return runShell("MTOOLS_SKIP_CHECK=1 MTOOLS_NO_VFAT=0 " + tool + " -i " +
                  shellQuote(mtoolsImage()) + rest);
}

ShellResult CardImage::fsck(const std::string& flags) const {
  // fsck.fat works on a partition: copy it out (sparse) and check the copy. A copy of the
  // card's extents with the space in front of the partition cut away costs nothing even on a
  // large sparse card; where the file system cannot cut, dd copies the partition.
  std::string part = dir_.path() + "/partition.img";
  ShellResult copy = runShell("cp --sparse=always " + shellQuote(image()) + " " + shellQuote(part) +
                              " && fallocate -c -o 0 -l " + std::to_string(partition_offset_) +
                              " " + shellQuote(part) + " 2>/dev/null");
  if (copy.status != 0) {
    copy = runShell("dd if=" + shellQuote(image()) + " of=" + shellQuote(part) +
                    " bs=1M iflag=skip_bytes skip=" + std::to_string(partition_offset_) +
                    " conv=sparse status=none 2>&1");
  }
  if (copy.status != 0) return copy;
  ShellResult r = runShell("fsck.fat " + flags + " " + shellQuote(part));
  unlink(part.c_str());
  return r;
}

std::string CardImage::readBytes(int64_t offset, size_t size) const {
  std::string out(size, '\0');
  std::ifstream in(image(), std::ios::binary);
  in.seekg(offset).read(out.data(), static_cast<std::streamsize>(size));
  out.resize(static_cast<size_t>(std::max<std::streamsize>(in.gcount(), 0)));
  return out;
}

void CardImage::writeBytes(int64_t offset, const std::string& bytes) const {
  std::fstream(image(), std::ios::binary | std::ios::in | std::ios::out)
      .seekp(offset)
      .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::string CardImage::contents() const {
  return readBytes(0, static_cast<size_t>(spec_.size_mb) << 20);
}

void CardImage::putContents(const std::vector<uint8_t>& bytes) const {
  const int fd = open(image().c_str(), O_WRONLY | O_TRUNC);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(ftruncate(fd, static_cast<off_t>(bytes.size())), 0);
  static const std::vector<uint8_t> kZeros(65536, 0);
  for (size_t at = 0; at < bytes.size(); at += kZeros.size()) {
    const size_t n = std::min(kZeros.size(), bytes.size() - at);
    if (memcmp(bytes.data() + at, kZeros.data(), n) == 0) continue;
    ASSERT_EQ(pwrite(fd, bytes.data() + at, n, static_cast<off_t>(at)), static_cast<ssize_t>(n));
  }
  close(fd);
}

bool CardImage::copyFrom(const CardImage& other) const {
  return runShell("cp --sparse=always " + shellQuote(other.image()) + " " + shellQuote(image()))
             .status == 0;
}

// Runs an mtools command on "::path" (then `tail`); a failing tool fails the test.
static void mustRun(const CardImage& card, const std::string& command, const std::string& path,
                    const std::string& tail = "") {
  ShellResult r = card.mtools(command + " " + shellQuote("::" + path) + tail);
  EXPECT_EQ(r.status, 0) << path << ": " << r.err;
}

void CardImage::put(const std::string& path, const std::string& bytes) const {
  writeFileBytes(dir() + "/put.bin", bytes);
  mustRun(*this, "mcopy -o " + shellQuote(dir() + "/put.bin"), path);
}

void CardImage::mkdir(const std::string& path) const {
  mustRun(*this, "mmd", path);
}

void CardImage::del(const std::string& path) const {
  mustRun(*this, "mdel", path);
}

std::string CardImage::type(const std::string& path) const {
  // Through a file: the shell's capture is for text.
  mustRun(*this, "mtype", path, " > " + shellQuote(dir() + "/typed.bin"));
  return readFileBytes(dir() + "/typed.bin");
}

void CardImage::rewindAllocationHint() const {
  writeBytes(partition_offset_ + 512 + 492, std::string("\x02\0\0\0", 4));
}

CardSpec smallClusterCard(int64_t size_mb) {
  CardSpec spec;
  spec.size_mb = size_mb;
  spec.sectors_per_cluster = 1;
  return spec;
}

std::string patternBytes(size_t size, unsigned seed) {
  std::string s(size, '\0');
  uint32_t x = seed * 2654435761u + 7;
  for (size_t i = 0; i < size; ++i) {
    x = x * 1664525u + 1013904223u;
    s[i] = static_cast<char>(x >> 24);
  }
  return s;
}

std::map<std::string, int64_t> parseFsckVerbose(const std::string& out) {
  std::map<std::string, int64_t> v;
  struct Pattern {
    const char* name;
    const char* re;
  } patterns[] = {
      {"bytes_per_sector", R"((\d+) bytes per logical sector)"},
      {"bytes_per_cluster", R"((\d+) bytes per cluster)"},
      {"reserved_sectors", R"((\d+) reserved sectors)"},
      {"fats", R"((\d+) FATs, 32 bit entries)"},
      {"fat_sectors", R"(bytes per FAT \(= (\d+) sectors\))"},
      {"data_sector", R"(Data area starts at byte \d+ \(sector (\d+)\))"},
      {"data_clusters", R"((\d+) data clusters)"},
      {"root_cluster", R"(Root directory start at cluster (\d+))"},
      {"total_sectors", R"((\d+) sectors total)"},
  };
  std::smatch m;
  for (const auto& p : patterns) {
    if (std::regex_search(out, m, std::regex(p.re))) v[p.name] = std::stoll(m[1]);
  }
  if (std::regex_search(out, m, std::regex(R"((\d+) files, (\d+)/(\d+) clusters)"))) {
    v["files"] = std::stoll(m[1]);
    v["used_clusters"] = std::stoll(m[2]);
    v["total_clusters"] = std::stoll(m[3]);
  }
  return v;
}

}  // namespace velt::test
