#include "power_cut.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <set>

#include "daemon_runner.h"

namespace velt::test {

int CutDriver::readSectors(uint32_t start, int count, void* buffer) {
  if (dead_ || count < 1) return -1;
  size_t from = static_cast<size_t>(start) * 512;
  size_t bytes = static_cast<size_t>(count) * 512;
  if (from + bytes > card_->size()) return -1;
  memcpy(buffer, card_->data() + from, bytes);
  return count;
}

int CutDriver::writeSectors(uint32_t start, int count, const void* buffer) {
  if (dead_ || count < 1) return -1;
  size_t from = static_cast<size_t>(start) * 512;
  size_t bytes = static_cast<size_t>(count) * 512;
  if (from + bytes > card_->size()) return -1;
  ++writes_;
  const bool cut = cut_at_ > 0 && writes_ == cut_at_;
  if (mode_ == CutMode::kReorder && cut_at_ > 0) {
    for (int i = 0; i < count; ++i) {
      uint32_t s = start + static_cast<uint32_t>(i);
      if (before_.count(s) == 0) {
        const uint8_t* at = card_->data() + static_cast<size_t>(s) * 512;
        before_.emplace(s, std::vector<uint8_t>(at, at + 512));
      }
    }
    const auto* in = static_cast<const uint8_t*>(buffer);
    unflushed_.push_back({start, count, std::vector<uint8_t>(in, in + bytes)});
  }
  if (!cut) {
    memcpy(card_->data() + from, buffer, bytes);
    return count;
  }
  dead_ = true;
  switch (mode_) {
    case CutMode::kDrop:
      break;
    case CutMode::kTear: {
      size_t prefix = static_cast<size_t>(choice_ % static_cast<uint64_t>(count));
      memcpy(card_->data() + from, buffer, prefix * 512);
      break;
    }
    case CutMode::kReorder:
      memcpy(card_->data() + from, buffer, bytes);
      applyReorderCut();
      break;
  }
  return -1;
}

// One of the writes since the last flush (not the last one, which arrived) never reached the
// card: its sectors hold what the other writes left there, in their order.
void CutDriver::applyReorderCut() {
  unflushed_at_cut_ = unflushed_.size();
  if (unflushed_.size() < 2) return;
  const size_t lost = static_cast<size_t>(choice_ % (unflushed_.size() - 1));
  const Pending& gone = unflushed_[lost];
  for (int i = 0; i < gone.count; ++i) {
    const uint32_t s = gone.start + static_cast<uint32_t>(i);
    uint8_t* at = card_->data() + static_cast<size_t>(s) * 512;
    memcpy(at, before_[s].data(), 512);
    for (size_t k = 0; k < unflushed_.size(); ++k) {
      const Pending& p = unflushed_[k];
      if (k == lost || s < p.start || s >= p.start + static_cast<uint32_t>(p.count)) continue;
      memcpy(at, p.data.data() + static_cast<size_t>(s - p.start) * 512, 512);
    }
  }
}

int CutDriver::flush() {
  if (dead_) return -1;
  ++flushes_;
  unflushed_.clear();
  before_.clear();
  return 0;
}

std::shared_ptr<VELT> mountOn(std::unique_ptr<BlockDriver> driver, int* error) {
  auto v = std::make_shared<VELT>("/dev/mmcblk0p1", 1, kVELTOpMount, 0);
  v->driver_ = std::move(driver);
  v->device_fd_ = open("/dev/null", O_RDONLY | O_CLOEXEC);
  {
    std::lock_guard<std::mutex> lock(v->mutex_);
    v->state_ = kVELTStateLoading;
  }
  int result = v->allocBuffers();
  if (result == kVELTOk) result = v->loadCardLayout();
  if (result == kVELTOk && v->buildRoot() != 0) result = kVELTNeedFormat;
  *error = result;
  if (result != kVELTOk) return nullptr;
  std::lock_guard<std::mutex> lock(v->mutex_);
  v->state_ = kVELTStateLoaded;
  return v;
}

namespace {

uint32_t le(const uint8_t* p, int bytes) {
  uint32_t v = 0;
  for (int i = bytes - 1; i >= 0; --i) v = (v << 8) | p[i];
  return v;
}

struct RawFat {
  const CardBytes& card;
  int64_t part = 0;
  uint32_t bps = 0, spc = 0, reserved = 0, fats = 0, fat_sectors = 0, root = 0, clusters = 0;
  int64_t data = 0;

  explicit RawFat(const CardBytes& c) : card(c) {
    part = static_cast<int64_t>(le(&card[446 + 8], 4)) * 512;
    const uint8_t* b = &card[static_cast<size_t>(part)];
    bps = le(b + 11, 2);
    spc = b[13];
    reserved = le(b + 14, 2);
    fats = b[16];
    fat_sectors = le(b + 36, 4);
    root = le(b + 44, 4);
    uint32_t total = le(b + 32, 4);
    uint32_t data_sector = reserved + fats * fat_sectors;
    data = part + static_cast<int64_t>(data_sector) * bps;
    clusters = (total - data_sector) / spc + 2;
  }
  uint32_t fat(uint32_t c) const {
    return le(&card[static_cast<size_t>(part + static_cast<int64_t>(reserved) * bps + 4 * c)], 4) &
           0x0FFFFFFF;
  }
  const uint8_t* cluster(uint32_t c) const {
    return &card[static_cast<size_t>(data + static_cast<int64_t>(c - 2) * spc * bps)];
  }
  uint32_t clusterBytes() const { return bps * spc; }
  // The chain from `first`; `problem` says where it breaks.
  std::vector<uint32_t> chain(uint32_t first, std::string* problem) const {
    std::vector<uint32_t> out;
    uint32_t c = first;
    while (true) {
      if (c < 2 || c >= clusters) {
        *problem = "chain leaves the volume at " + std::to_string(c);
        return out;
      }
      out.push_back(c);
      uint32_t next = fat(c);
      if (next == 0) {
        *problem = "chain meets the free cluster " + std::to_string(c);
        return out;
      }
      if (next >= 0x0FFFFFF8) return out;
      if (out.size() > clusters) {
        *problem = "chain loops";
        return out;
      }
      c = next;
    }
  }
};

std::string recordName(const uint8_t* r) {
  std::string base(reinterpret_cast<const char*>(r), 8), ext(reinterpret_cast<const char*>(r) + 8, 3);
  while (!base.empty() && base.back() == ' ') base.pop_back();
  while (!ext.empty() && ext.back() == ' ') ext.pop_back();
  return ext.empty() ? base : base + "." + ext;
}

void walk(const RawFat& f, uint32_t dir, const std::string& path, int depth, std::string* out) {
  if (depth > 32) return;
  std::string problem;
  std::vector<uint32_t> chain = f.chain(dir, &problem);
  const uint32_t per = f.clusterBytes() / 32;
  for (size_t ci = 0; ci < chain.size(); ++ci) {
    const uint8_t* cl = f.cluster(chain[ci]);
    for (uint32_t i = 0; i < per; ++i) {
      const uint8_t* r = cl + 32 * i;
      if (r[0] == 0) return;
      if (r[0] == 0xE5 || (r[11] & 0x3F) == 0x0F || (r[11] & 0x08)) continue;
      std::string name = recordName(r);
      if (name == "." || name == "..") continue;
      const uint32_t first = le(r + 26, 2) | (le(r + 20, 2) << 16);
      const uint32_t size = le(r + 28, 4);
      const std::string here = path + "/" + name;
      if (r[11] & 0x10) {
        if (first < 2 || first >= f.clusters) {
          *out += here + ": folder without a cluster\n";
          continue;
        }
        if (f.fat(first) == 0) {
          *out += here + ": folder in the free cluster " + std::to_string(first) + "\n";
          continue;
        }
        // A chain running on into a free cluster further on is the load's to cut.
        const uint8_t* own = f.cluster(first);
        if (recordName(own) != "." || recordName(own + 32) != "..") {
          *out += here + ": folder without its dot records\n";
          continue;
        }
        walk(f, first, here, depth + 1, out);
      } else if (first != 0) {
        std::string p;
        std::vector<uint32_t> c = f.chain(first, &p);
        // Clusters in use: a chain that runs on into a free cluster holds the ones before it.
        const uint64_t held = p.empty() || p.rfind("chain meets", 0) != 0 ? c.size() : c.size() - 1;
        if (held * f.clusterBytes() < size) {
          *out += here + ": " + std::to_string(held) + " clusters in use for " +
                  std::to_string(size) + " bytes" + (p.empty() ? "" : " (" + p + ")") + "\n";
        }
      } else if (size != 0) {
        *out += here + ": " + std::to_string(size) + " bytes without a cluster\n";
      }
    }
  }
}

}  // namespace

std::string rawCardProblems(const CardBytes& card) {
  RawFat f(card);
  std::string out;
  walk(f, f.root, "", 0, &out);
  return out;
}

std::string fsckCard(const CardBytes& card, int* status) {
  RawFat f(card);
  char path[] = "/tmp/velt-cut-XXXXXX";
  int fd = mkstemp(path);
  *status = -1;
  if (fd < 0) return "mkstemp failed";
  // Sparse: only the blocks that hold something are written.
  static const std::vector<uint8_t> kZeros(65536, 0);
  const size_t length = card.size() - static_cast<size_t>(f.part);
  bool ok = ftruncate(fd, static_cast<off_t>(length)) == 0;
  for (size_t at = 0; ok && at < length; at += kZeros.size()) {
    const size_t n = std::min(kZeros.size(), length - at);
    const uint8_t* p = card.data() + f.part + at;
    if (memcmp(p, kZeros.data(), n) == 0) continue;
    ok = pwrite(fd, p, n, static_cast<off_t>(at)) == static_cast<ssize_t>(n);
  }
  close(fd);
  std::string out = "write failed";
  if (ok) {
    ShellResult r = runShell(std::string("fsck.fat -n ") + path);
    *status = r.status;
    out = r.out + r.err;
  }
  unlink(path);
  return out;
}

}  // namespace velt::test
