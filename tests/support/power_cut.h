// Power cuts for tests: a card held in memory that loses power at a chosen write (or cannot read
// some sectors), the volume mounted on it in-process with the daemon's own load and repairs, and
// a check of the raw card that needs no FAT tool.
#pragma once

#include <fcntl.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "fat_records.h"
#include "fs/velt.h"

namespace velt::test {

using CardBytes = std::vector<uint8_t>;

// How the write that meets the cut behaves.
enum class CutMode {
  kDrop,     // it never arrives
  kTear,     // only a prefix of its sectors arrives
  kReorder,  // it arrives, but one or all earlier writes since the last flush are lost
};

// A card in memory. Counts every write; with a cut set, write number `cut_at` (1-based) is the
// last thing the card sees, shaped by the mode, and every request after it fails (the power is
// gone). In reorder mode flushes bound which writes may be lost.
class CutDriver : public BlockDriver {
 public:
  explicit CutDriver(std::shared_ptr<CardBytes> card) : card_(std::move(card)) {}
  // The volume owns its driver: the count it ends with outlives it here when set.
  ~CutDriver() override {
    if (final_writes != nullptr) *final_writes = writes_;
  }
  int64_t* final_writes = nullptr;
  std::set<uint32_t> unreadable;  // sectors whose reads fail until they are written
  void cutAt(int64_t write, CutMode mode, uint64_t choice) {
    cut_at_ = write;
    mode_ = mode;
    choice_ = choice;
  }

  int readSectors(uint32_t start, int count, void* buffer) override {
    int n = 0;
    while (n < count && unreadable.count(start + n) == 0) ++n;
    if (dead_ || n < 1 || (static_cast<size_t>(start) + n) * 512 > card_->size()) return -1;
    memcpy(buffer, at(start), static_cast<size_t>(n) * 512);
    return n;
  }
  int writeSectors(uint32_t start, int count, const void* buffer) override {
    const size_t bytes = static_cast<size_t>(count) * 512;
    if (dead_ || count < 1 || static_cast<size_t>(start) * 512 + bytes > card_->size()) return -1;
    ++writes_;
    ++unflushed_writes_;
    for (int i = 0; i < count; ++i) unreadable.erase(start + i);  // a written sector reads again
    const auto* in = static_cast<const uint8_t*>(buffer);
    if (mode_ == CutMode::kReorder && cut_at_ > 0) {
      for (uint32_t s = start; s < start + static_cast<uint32_t>(count); ++s)
        before_.try_emplace(s, at(s), at(s) + 512);
      unflushed_.push_back({start, count, std::vector<uint8_t>(in, in + bytes)});
    }
    if (writes_ != cut_at_) {
      memcpy(at(start), in, bytes);
      return count;
    }
    dead_ = true;
    memcpy(at(start), in,
           mode_ == CutMode::kDrop   ? 0
           : mode_ == CutMode::kTear ? (choice_ % count) * 512
                                     : bytes);
    if (mode_ == CutMode::kReorder) applyReorderCut();
    return -1;
  }
  int64_t sizeInSectors() override { return static_cast<int64_t>(card_->size() / 512); }
  int flush() override {
    if (dead_) return -1;
    unflushed_writes_ = 0;
    unflushed_.clear();
    before_.clear();
    return 0;
  }

  bool dead() const { return dead_; }
  int64_t writes() const { return writes_; }
  int64_t unflushed() const { return unflushed_writes_; }  // writes since the last flush

 private:
  struct Pending {
    uint32_t start;
    int count;
    std::vector<uint8_t> data;
  };
  uint8_t* at(uint32_t sector) { return card_->data() + static_cast<size_t>(sector) * 512; }
  // Writes since the last flush (not the last one, which arrived) never reached the card: for an
  // odd choice one of them, for an even one all of them (any step that relies on an earlier one
  // without a flush between them shows). Their sectors hold what the other writes left there.
  void applyReorderCut() {
    if (unflushed_.size() < 2) return;
    const size_t last = unflushed_.size() - 1;
    std::vector<bool> lost(last + 1, choice_ % 2 == 0);
    lost[last] = false;
    if (choice_ % 2 != 0) lost[(choice_ / 2) % last] = true;
    for (size_t g = 0; g < last; ++g) {
      for (uint32_t s = unflushed_[g].start;
           lost[g] && s < unflushed_[g].start + unflushed_[g].count; ++s) {
        memcpy(at(s), before_[s].data(), 512);
        for (size_t k = 0; k <= last; ++k) {
          const Pending& p = unflushed_[k];
          if (lost[k] || s < p.start || s >= p.start + static_cast<uint32_t>(p.count)) continue;
          memcpy(at(s), p.data.data() + static_cast<size_t>(s - p.start) * 512, 512);
        }
      }
    }
  }

  std::shared_ptr<CardBytes> card_;
  int64_t cut_at_ = 0;  // 0: no cut
  CutMode mode_ = CutMode::kDrop;
  uint64_t choice_ = 0;
  bool dead_ = false;
  int64_t writes_ = 0, unflushed_writes_ = 0;
  std::vector<Pending> unflushed_;                   // kept in reorder mode only
  std::map<uint32_t, std::vector<uint8_t>> before_;  // sector -> content at the last flush
};

// The volume as the daemon mounts it, on `driver` (no sector cache): partition table, boot
// record, FATs and the whole tree loaded, with every repair the load makes. Null when the load
// fails; `error` gets the result code.
inline std::shared_ptr<VELT> mountOn(std::unique_ptr<BlockDriver> driver, int* error) {
  auto v = std::make_shared<VELT>("/dev/mmcblk0p1", 1, kVELTOpMount, 0);
  v->driver_ = std::move(driver);  // init keeps a driver plugged in before it
  v->device_fd_ = open("/dev/null", O_RDONLY | O_CLOEXEC);
  *error = v->init();
  return *error == kVELTOk ? v : nullptr;
}

// Problems a power cut must never leave in the tree under `dir`, walking the raw card (chains in
// FAT copy 1): a folder whose cluster does not begin with "." and "..", an entry whose chain
// meets a free FAT entry (in either copy) or is shorter than its size. Empty when none.
inline std::string rawCardProblems(const FatImage& f, uint32_t dir, const std::string& path = "",
                                   int depth = 0) {
  std::string out;
  for (const FatImage::Entry& e : f.entries(dir)) {
    const std::string r = f.record(e.sfn), here = path + "/" + e.name;
    if ((r[11] & 0x08) || e.name == "." || e.name == ".." || depth > 32) continue;
    if (r[11] & 0x10) {
      // A chain running on into a free cluster further on is the load's to cut.
      if (e.cluster < 2 || e.cluster >= f.clusterCount()) {
        out += here + ": folder without a cluster\n";
      } else if (f.fat(e.cluster) == 0 || f.fat(e.cluster, 1) == 0) {
        out += here + ": folder in a free cluster\n";
      } else if (f.shortName(f.clusterOffset(e.cluster)) != "." ||
                 f.shortName(f.clusterOffset(e.cluster) + 32) != "..") {
        out += here + ": folder without its dot records\n";
      } else {
        out += rawCardProblems(f, e.cluster, here, depth + 1);
      }
      continue;
    }
    // Clusters in use: a chain that runs on into a free cluster holds the ones before it. Both
    // FAT copies hold a chain before a record points at it, and until none does.
    const std::vector<uint32_t> chain = f.chain(e.cluster);
    const uint64_t held = chain.size() - (!chain.empty() && f.fat(chain.back()) == 0);
    const uint32_t size = getLe(r, 28, 4);
    if (held * f.clusterBytes() < size)
      out += here + ": " + std::to_string(held) + " clusters in use for " + std::to_string(size) +
             " bytes\n";
    for (uint64_t i = 0; i < held && i * f.clusterBytes() < size; ++i) {
      if (f.fat(chain[i], 1) != 0) continue;
      out += here + ": cluster free in the second FAT\n";
      break;
    }
  }
  return out;
}
inline std::string rawCardProblems(const CardBytes& card) {
  FatImage f(card);
  return rawCardProblems(f, f.rootCluster());
}

}  // namespace velt::test
