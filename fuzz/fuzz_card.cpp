// The card-image target: the input is a whole small card. It is mounted, every entry is listed
// and read, a few changes are made through the library, and the card is mounted again.
#include "fuzz_card.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <string>

#include "fs/velt_dirent.h"
#include "fs/velt_file.h"
#include "utils/Log.h"

namespace velt::fuzz {

int MemoryDriver::readSectors(uint32_t start, int count, void* buffer) {
  const uint64_t sectors = disk_->size() / 512;
  if (count < 1 || start >= sectors) return -1;
  const uint64_t n = std::min<uint64_t>(static_cast<uint64_t>(count), sectors - start);
  memcpy(buffer, disk_->data() + static_cast<size_t>(start) * 512, n * 512);
  return static_cast<int>(n);
}

int MemoryDriver::writeSectors(uint32_t start, int count, const void* buffer) {
  const uint64_t sectors = disk_->size() / 512;
  if (count < 1 || start + static_cast<uint64_t>(count) > sectors) return -1;
  memcpy(disk_->data() + static_cast<size_t>(start) * 512, buffer, static_cast<size_t>(count) * 512);
  return count;
}

std::shared_ptr<VELT> mountMemoryCard(std::shared_ptr<std::vector<uint8_t>> disk) {
  static bool quiet = [] { return nerio::theLog().redirect("/dev/null") == 0; }();
  (void)quiet;
  auto v = std::make_shared<VELT>("/dev/mmcblk0p1", 1, kVELTOpMount, 0);
  v->driver_ = std::make_unique<MemoryDriver>(std::move(disk));
  v->device_fd_ = open("/dev/null", O_RDONLY | O_CLOEXEC);
  v->state_ = kVELTStateLoading;
  if (v->allocBuffers() != kVELTOk || v->loadCardLayout() != kVELTOk || v->buildRoot() != 0) {
    std::lock_guard<std::mutex> lock(v->mutex_);
    v->unload();
    return nullptr;
  }
  v->state_ = kVELTStateLoaded;
  return v;
}

namespace {

// Lists and reads every entry (bounded), the way a user copying the card off would.
void walk(VELT& v, const std::shared_ptr<VELT::DirEntry>& dir, int depth, int* budget) {
  std::vector<std::shared_ptr<VELT::DirEntry>> children;
  {
    std::lock_guard lock(dir->children_mutex_);
    for (const auto& c : dir->children_) children.push_back(c);
  }
  for (const auto& c : children) {
    if (--*budget < 0) return;
    if (c->name_ == "." || c->name_ == "..") continue;
    if (c->isDir()) {
      if (depth < 8) walk(v, c, depth + 1, budget);
      continue;
    }
    auto file = v.newFile(false, false, false, c);
    if (file == nullptr) continue;
    char buf[4096];
    for (int64_t off = 0; off < 64 * 1024; off += sizeof(buf)) {
      if (file->read(buf, sizeof(buf), off) <= 0) break;
    }
    file->close();
    v.freeFile(file->file_no_);
  }
}

// A few changes of the kinds a recorder makes: a file written, a folder made, a file removed,
// one renamed.
void change(VELT& v, const uint8_t* data, size_t size) {
  auto root = v.root_;
  if (root == nullptr) return;
  auto entry = v.newEntry(root, "fuzz recording.bin", false);
  if (entry != nullptr) {
    auto file = v.newFile(false, true, false, entry);
    if (file != nullptr) {
      file->write(data, std::min<size_t>(size, 6000), 0);
      file->close();
      v.freeFile(file->file_no_);
    }
  }
  auto folder = v.newEntry(root, "FUZZDIR", true);
  std::vector<std::shared_ptr<VELT::DirEntry>> children;
  {
    std::lock_guard lock(root->children_mutex_);
    for (const auto& c : root->children_) children.push_back(c);
  }
  for (const auto& c : children) {
    if (c->isDir() || c->is_volume_ || c == entry) continue;
    if (folder != nullptr) {
      root->moveChild(c, folder, "moved.bin");
    } else {
      root->delChild(c);
    }
    break;
  }
  if (entry != nullptr) root->delChild(entry);
}

}  // namespace

int fuzzCard(const uint8_t* data, size_t size) {
  if (size < 4096 || size > (8u << 20)) return 0;
  auto disk = std::make_shared<std::vector<uint8_t>>(data, data + size);
  disk->resize((size + 511) / 512 * 512, 0);
  for (int pass = 0; pass < 2; ++pass) {
    auto v = mountMemoryCard(disk);
    if (v == nullptr) return 0;
    int budget = 2000;
    walk(*v, v->root_, 0, &budget);
    if (pass == 0 && !v->read_only_) change(*v, data, size);
  }
  return 0;
}

}  // namespace velt::fuzz
