#include "power_cut.h"

#include <fcntl.h>

#include <cstring>

#include "fat_records.h"

namespace velt::test {

int CutDriver::readSectors(uint32_t start, int count, void* buffer) {
  int n = 0;
  while (n < count && unreadable.count(start + n) == 0) ++n;
  if (dead_ || n < 1 || (static_cast<size_t>(start) + n) * 512 > card_->size()) return -1;
  memcpy(buffer, card_->data() + static_cast<size_t>(start) * 512, static_cast<size_t>(n) * 512);
  return n;
}

int CutDriver::writeSectors(uint32_t start, int count, const void* buffer) {
  const size_t from = static_cast<size_t>(start) * 512, bytes = static_cast<size_t>(count) * 512;
  if (dead_ || count < 1 || from + bytes > card_->size()) return -1;
  ++writes_;
  ++unflushed_writes_;
  for (int i = 0; i < count; ++i) unreadable.erase(start + i);  // a written sector reads again
  const auto* in = static_cast<const uint8_t*>(buffer);
  if (mode_ == CutMode::kReorder && cut_at_ > 0) {
    for (uint32_t s = start; s < start + static_cast<uint32_t>(count); ++s) {
      const uint8_t* at = card_->data() + static_cast<size_t>(s) * 512;
      before_.try_emplace(s, at, at + 512);
    }
    unflushed_.push_back({start, count, std::vector<uint8_t>(in, in + bytes)});
  }
  if (cut_at_ == 0 || writes_ != cut_at_) {
    memcpy(card_->data() + from, buffer, bytes);
    return count;
  }
  dead_ = true;
  if (mode_ == CutMode::kTear) memcpy(card_->data() + from, buffer, (choice_ % count) * 512);
  if (mode_ == CutMode::kReorder) {
    memcpy(card_->data() + from, buffer, bytes);
    applyReorderCut();
  }
  return -1;
}

// Writes since the last flush (not the last one, which arrived) never reached the card: for an
// odd choice one of them, for an even one all of them (any step that relies on an earlier one
// without a flush between them shows). Their sectors hold what the other writes left there.
void CutDriver::applyReorderCut() {
  if (unflushed_.size() < 2) return;
  const size_t last = unflushed_.size() - 1;
  std::vector<bool> lost(last + 1, choice_ % 2 == 0);
  lost[last] = false;
  if (choice_ % 2 != 0) lost[(choice_ / 2) % last] = true;
  for (size_t g = 0; g < last; ++g) {
    if (!lost[g]) continue;
    for (uint32_t s = unflushed_[g].start; s < unflushed_[g].start + unflushed_[g].count; ++s) {
      uint8_t* at = card_->data() + static_cast<size_t>(s) * 512;
      memcpy(at, before_[s].data(), 512);
      for (size_t k = 0; k <= last; ++k) {
        const Pending& p = unflushed_[k];
        if (lost[k] || s < p.start || s >= p.start + static_cast<uint32_t>(p.count)) continue;
        memcpy(at, p.data.data() + static_cast<size_t>(s - p.start) * 512, 512);
      }
    }
  }
}

int CutDriver::flush() {
  if (dead_) return -1;
  unflushed_writes_ = 0;
  unflushed_.clear();
  before_.clear();
  return 0;
}

std::shared_ptr<VELT> mountOn(std::unique_ptr<BlockDriver> driver, int* error) {
  auto v = std::make_shared<VELT>("/dev/mmcblk0p1", 1, kVELTOpMount, 0);
  v->driver_ = std::move(driver);  // init keeps a driver plugged in before it
  v->device_fd_ = open("/dev/null", O_RDONLY | O_CLOEXEC);
  *error = v->init();
  return *error == kVELTOk ? v : nullptr;
}

namespace {

void walk(const FatImage& f, uint32_t dir, const std::string& path, int depth, std::string* out) {
  if (depth > 32) return;
  for (const FatImage::Entry& e : f.entries(dir)) {
    const std::string r = f.record(e.sfn), here = path + "/" + e.name;
    const uint32_t size = getLe(r, 28, 4);
    if ((r[11] & 0x08) || e.name == "." || e.name == "..") continue;
    if (r[11] & 0x10) {
      // A chain running on into a free cluster further on is the load's to cut.
      if (e.cluster < 2 || e.cluster >= f.clusterCount()) {
        *out += here + ": folder without a cluster\n";
      } else if (f.fat(e.cluster) == 0 || f.fat(e.cluster, 1) == 0) {
        *out += here + ": folder in a free cluster\n";
      } else if (f.shortName(f.clusterOffset(e.cluster)) != "." ||
                 f.shortName(f.clusterOffset(e.cluster) + 32) != "..") {
        *out += here + ": folder without its dot records\n";
      } else {
        walk(f, e.cluster, here, depth + 1, out);
      }
      continue;
    }
    // Clusters in use: a chain that runs on into a free cluster holds the ones before it.
    const std::vector<uint32_t> chain = f.chain(e.cluster);
    const uint64_t held = chain.size() - (!chain.empty() && f.fat(chain.back()) == 0);
    if (held * f.clusterBytes() < size) {
      *out += here + ": " + std::to_string(held) + " clusters in use for " + std::to_string(size) +
              " bytes\n";
    }
    // Both FAT copies hold a chain before a record points at it, and until none does.
    for (uint64_t i = 0; i < held && i * f.clusterBytes() < size; ++i) {
      if (f.fat(chain[i], 1) == 0) {
        *out += here + ": cluster free in the second FAT\n";
        break;
      }
    }
  }
}

}  // namespace

std::string rawCardProblems(const CardBytes& card) {
  FatImage f(card);
  std::string out;
  walk(f, f.rootCluster(), "", 0, &out);
  return out;
}

}  // namespace velt::test
