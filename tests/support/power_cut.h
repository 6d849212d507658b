// Power cuts for tests: a card held in memory that loses power at a chosen write (or cannot read
// some sectors), the volume mounted on it in-process with the daemon's own load and repairs, and
// a check of the raw card that needs no FAT tool.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

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

  int readSectors(uint32_t start, int count, void* buffer) override;
  int writeSectors(uint32_t start, int count, const void* buffer) override;
  int64_t sizeInSectors() override { return static_cast<int64_t>(card_->size() / 512); }
  int flush() override;

  bool dead() const { return dead_; }
  int64_t writes() const { return writes_; }
  int64_t unflushed() const { return unflushed_writes_; }  // writes since the last flush

 private:
  struct Pending {
    uint32_t start;
    int count;
    std::vector<uint8_t> data;
  };
  void applyReorderCut();

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
std::shared_ptr<VELT> mountOn(std::unique_ptr<BlockDriver> driver, int* error);

// Problems a power cut must never leave, found by walking the raw card from the root (chains in
// FAT copy 1): a folder whose cluster does not begin with "." and "..", an entry whose chain
// meets a free FAT entry (in either copy) or is shorter than its size. Empty when none.
std::string rawCardProblems(const CardBytes& card);

}  // namespace velt::test
