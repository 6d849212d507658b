// A small reader and editor of the FAT32 structures of a card, independent of the code under
// test: tests find directory records and damage them byte by byte, and read back what was written.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "card_image.h"

namespace velt::test {

inline uint32_t getLe(const std::string& s, size_t at, int bytes) {
  uint32_t v = 0;
  for (int i = bytes - 1; i >= 0; --i) v = (v << 8) | static_cast<uint8_t>(s[at + i]);
  return v;
}
inline void putLe(std::string* s, size_t at, uint32_t v, int bytes) {
  for (int i = 0; i < bytes; ++i) (*s)[at + i] = static_cast<char>((v >> (8 * i)) & 0xFF);
}

class FatImage {
 public:
  explicit FatImage(const CardImage& card) : card_(&card), part_(card.partitionOffset()) { init(); }
  // A whole card held in memory, read only; the partition is the first of its table.
  explicit FatImage(const std::vector<uint8_t>& card) : bytes_(&card) {
    part_ = static_cast<int64_t>(getLe(read(446 + 8, 4), 0, 4)) * 512;
    init();
  }

  uint32_t rootCluster() const { return root_; }
  uint32_t clusterBytes() const { return bps_ * spc_; }
  uint32_t clusterCount() const { return clusters_; }  // one past the highest cluster
  int64_t clusterOffset(uint32_t c) const {
    return part_ + (static_cast<int64_t>(data_sector_) + static_cast<int64_t>(c - 2) * spc_) * bps_;
  }
  int64_t fatOffset(int copy, uint32_t c) const {
    return part_ + (reserved_ + static_cast<int64_t>(copy) * fat_sectors_) * bps_ + 4 * int64_t{c};
  }
  uint32_t fat(uint32_t c, int copy = 0) const {
    return getLe(read(fatOffset(copy, c), 4), 0, 4) & 0x0FFFFFFF;
  }
  void setFat(uint32_t c, uint32_t v) const {
    for (uint32_t i = 0; i < fats_; ++i) putField(fatOffset(i, c), v, 4);
  }
  // Stops at a free or reserved entry, an end mark, or after as many links as the volume has.
  std::vector<uint32_t> chain(uint32_t first) const {
    std::vector<uint32_t> out;
    for (uint32_t c = first; c >= 2 && c < clusters_ && out.size() < clusters_; c = fat(c)) {
      out.push_back(c);
    }
    return out;
  }
  // Card offsets of every record of a directory, in order.
  std::vector<int64_t> records(uint32_t dir_cluster) const {
    std::vector<int64_t> out;
    for (uint32_t c : chain(dir_cluster)) {
      for (uint32_t i = 0; i < clusterBytes() / 32; ++i) out.push_back(clusterOffset(c) + 32 * i);
    }
    return out;
  }
  std::string record(int64_t off) const { return read(off, 32); }
  void putRecord(int64_t off, const std::string& r) const { card_->writeBytes(off, r); }
  void putByte(int64_t off, uint8_t v) const {
    putRecord(off, std::string(1, static_cast<char>(v)));
  }
  uint8_t byteAt(int64_t off) const { return static_cast<uint8_t>(read(off, 1)[0]); }
  // A little-endian field of `bytes` bytes at a card offset.
  void putField(int64_t off, uint32_t v, int bytes) const {
    std::string s(bytes, '\0');
    putLe(&s, 0, v, bytes);
    card_->writeBytes(off, s);
  }
  // The first cluster a short-name record names, and changing it.
  uint32_t firstCluster(int64_t sfn) const {
    const std::string r = record(sfn);
    return (getLe(r, 20, 2) << 16) | getLe(r, 26, 2);
  }
  void setFirstCluster(int64_t sfn, uint32_t c) const {
    putField(sfn + 20, c >> 16, 2);
    putField(sfn + 26, c & 0xFFFF, 2);
  }

  // FSInfo (primary and backup hold the same after any write of ours).
  int64_t fsinfoOffset(bool backup = false) const {
    return part_ + static_cast<int64_t>(backup ? backup_ + 1 : fsinfo_) * bps_;
  }
  // Field of reserved-folder descriptor `i` of the format information (offset in the descriptor).
  int64_t descriptorField(int i, int field, bool backup = false) const {
    return fsinfoOffset(backup) + 4 + 36 + 52 * i + field;
  }
  void setDescriptorField(int i, int field, uint32_t v) const {
    for (bool backup : {false, true}) putField(descriptorField(i, field, backup), v, 4);
  }
  uint32_t descriptorValue(int i, int field) const {
    return getLe(read(descriptorField(i, field), 4), 0, 4);
  }

  struct Entry {
    int64_t sfn = 0;           // card offset of the short-name record
    std::vector<int64_t> lfn;  // long-name records, lowest slot (start record) first
    uint32_t cluster = 0;
    std::string name;  // long name, or the short name as "BASE.EXT"
  };
  // Live entries of a directory up to its end mark, in slot order (ASCII long names only).
  std::vector<Entry> entries(uint32_t dir_cluster) const {
    std::vector<Entry> out;
    Entry e;
    for (int64_t off : records(dir_cluster)) {
      const std::string r = record(off);
      const uint8_t first = static_cast<uint8_t>(r[0]);
      if (first == 0) break;
      if (first == 0xE5 || ((r[11] & 0x3F) == 0x0F && (first & 0x40))) e = Entry();
      if (first == 0xE5) continue;
      if ((r[11] & 0x3F) == 0x0F) {
        std::string part;
        for (int p : {1, 3, 5, 7, 9, 14, 16, 18, 20, 22, 24, 28, 30}) {
          const uint32_t u = getLe(r, p, 2);
          if (u == 0 || u == 0xFFFF) break;
          part += static_cast<char>(u);
        }
        e.name = part + e.name;
        e.lfn.push_back(off);
        continue;
      }
      e.sfn = off;
      e.cluster = firstCluster(off);
      if (e.lfn.empty()) e.name = shortName(off);
      out.push_back(e);
      e = Entry();
    }
    return out;
  }
  // The short name of a record as "BASE.EXT".
  std::string shortName(int64_t sfn) const {
    std::string r = record(sfn), base = r.substr(0, 8), ext = r.substr(8, 3);
    base.erase(base.find_last_not_of(' ') + 1);
    ext.erase(ext.find_last_not_of(' ') + 1);
    return ext.empty() ? base : base + "." + ext;
  }
  std::optional<Entry> find(uint32_t dir_cluster, const std::string& name) const {
    for (const Entry& e : entries(dir_cluster)) {
      if (e.name == name) return e;
    }
    return std::nullopt;
  }

 private:
  void init() {
    const std::string b = read(part_, 512);
    bps_ = getLe(b, 11, 2);
    spc_ = static_cast<uint8_t>(b[13]);
    reserved_ = getLe(b, 14, 2);
    fats_ = static_cast<uint8_t>(b[16]);
    fat_sectors_ = getLe(b, 36, 4);
    root_ = getLe(b, 44, 4);
    fsinfo_ = getLe(b, 48, 2);
    backup_ = getLe(b, 50, 2);
    data_sector_ = reserved_ + fats_ * fat_sectors_;
    clusters_ = spc_ == 0 ? 0 : (getLe(b, 32, 4) - data_sector_) / spc_ + 2;
  }
  std::string read(int64_t off, size_t n) const {
    if (card_ != nullptr) return card_->readBytes(off, n);
    if (off < 0 || static_cast<size_t>(off) + n > bytes_->size()) return std::string(n, '\0');
    return std::string(bytes_->begin() + off, bytes_->begin() + off + static_cast<int64_t>(n));
  }

  const CardImage* card_ = nullptr;
  const std::vector<uint8_t>* bytes_ = nullptr;
  int64_t part_ = 0;
  uint32_t bps_ = 0, spc_ = 0, reserved_ = 0, fats_ = 0, fat_sectors_ = 0, root_ = 0;
  uint32_t fsinfo_ = 0, backup_ = 0, data_sector_ = 0, clusters_ = 0;
};

}  // namespace velt::test
