// Load time and memory of a large tree: a card with 100,000 files in nested folders is made
// (mkfs.fat, then directory records and FAT entries written straight into the image), loaded
// through the library, and the resident memory the tree costs is reported per entry.
//
// Then it times name lookups in one large folder against a scan of its children.
//
//   bench_load_bench [files] [work dir] [files of the large folder]
//   (defaults: 100000, a new directory under /tmp, 10000)
#include <fcntl.h>
#include <malloc.h>
#include <stdlib.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "fs/velt.h"
#include "fs/velt_dirent.h"
#include "fs/velt_endian.h"

using velt::le16;
using velt::le32;
using velt::putLe16;
using velt::putLe32;

namespace {

constexpr int64_t kPartitionStart = 2048;  // sectors
constexpr int kTopFolders = 10;
constexpr int kSubFolders = 10;  // under each top folder

int64_t residentBytes() {
  FILE* f = fopen("/proc/self/statm", "r");
  if (f == nullptr) return -1;
  long size = 0, resident = 0;
  int n = fscanf(f, "%ld %ld", &size, &resident);
  fclose(f);
  return n == 2 ? resident * sysconf(_SC_PAGESIZE) : -1;
}

double secondsSince(std::chrono::steady_clock::time_point t) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t).count();
}

bool run(const std::string& command) {
  if (system(command.c_str()) == 0) return true;
  fprintf(stderr, "failed: %s\n", command.c_str());
  return false;
}

// Writes a FAT32 tree straight into an image formatted by mkfs.fat: folders and files get
// clusters in order, directory clusters are written whole, and both FATs and FSInfo at the end.
class Filler {
 public:
  explicit Filler(int fd) : fd_(fd) {}

  bool open() {
    uint8_t b[512];
    if (pread(fd_, b, 512, kPartitionStart * 512) != 512) return false;
    bps_ = le16(b + 11);
    spc_ = b[13];
    reserved_ = le16(b + 14);
    fats_ = b[16];
    fat_sectors_ = le32(b + 36);
    root_ = le32(b + 44);
    fsinfo_ = le16(b + 48);
    uint32_t data = reserved_ + fats_ * fat_sectors_;
    clusters_ = (le32(b + 32) - data) / spc_ + 2;
    data_sector_ = data;
    fat_.assign(static_cast<size_t>(bps_) * fat_sectors_ / 4, 0);
    if (pread(fd_, fat_.data(), fat_.size() * 4, part(reserved_)) !=
        static_cast<ssize_t>(fat_.size() * 4)) {
      return false;
    }
    next_ = root_ + 1;
    return true;
  }

  uint32_t root() const { return root_; }
  uint32_t clusterBytes() const { return bps_ * spc_; }

  // A directory: records appended, written with its chain by close().
  struct Dir {
    uint32_t first = 0;
    std::vector<uint8_t> records;
  };

  Dir newDir(uint32_t parent_first) {
    Dir d;
    d.first = take();
    addDot(&d, ".          ", d.first);
    addDot(&d, "..         ", parent_first == root_ ? 0 : parent_first);
    return d;
  }

  void add(Dir* dir, const std::string& long_name, const char* name11, bool is_dir,
           uint32_t cluster, uint32_t size) {
    std::vector<uint16_t> units;
    size_t name_units = 0;
    velt::longNameUnits(long_name, &units, &name_units);
    uint8_t sum = velt::shortNameChecksum(reinterpret_cast<const uint8_t*>(name11));
    int count = static_cast<int>((units.size() + 12) / 13);
    uint8_t r[32];
    for (int seq = count; seq >= 1; --seq) {
      velt::buildLfnRecord(units, seq, seq == count, sum, r);
      dir->records.insert(dir->records.end(), r, r + 32);
    }
    memset(r, 0, 32);
    memcpy(r, name11, 11);
    r[11] = is_dir ? 0x10 : 0x20;
    putLe16(r + 14, 0x6000);
    putLe16(r + 16, 0x5A21);
    putLe16(r + 18, 0x5A21);
    putLe16(r + 20, static_cast<uint16_t>(cluster >> 16));
    putLe16(r + 22, 0x6000);
    putLe16(r + 24, 0x5A21);
    putLe16(r + 26, static_cast<uint16_t>(cluster & 0xFFFF));
    putLe32(r + 28, is_dir ? 0 : size);
    dir->records.insert(dir->records.end(), r, r + 32);
  }

  uint32_t take() {
    if (next_ >= clusters_) return 0;
    fat_[next_] = velt::FAT_EOC;
    return next_++;
  }

  // Writes the directory into its first cluster and as many more as it needs.
  bool close(Dir* d) {
    const uint32_t len = clusterBytes();
    size_t bytes = (d->records.size() + 32 + len - 1) / len * len;  // room for an end marker
    d->records.resize(bytes, 0);
    uint32_t c = d->first;
    for (size_t off = 0; off < bytes; off += len) {
      if (off > 0) {
        uint32_t n = take();
        if (n == 0) return false;
        fat_[c] = n;
        c = n;
      }
      if (pwrite(fd_, d->records.data() + off, len, clusterOffset(c)) !=
          static_cast<ssize_t>(len)) {
        return false;
      }
    }
    return true;
  }

  bool finish() {
    for (uint32_t i = 0; i < fats_; ++i) {
      if (pwrite(fd_, fat_.data(), fat_.size() * 4, part(reserved_ + i * fat_sectors_)) !=
          static_cast<ssize_t>(fat_.size() * 4)) {
        return false;
      }
    }
    uint8_t s[512];
    if (pread(fd_, s, 512, part(fsinfo_)) != 512) return false;
    putLe32(s + 488, clusters_ - next_);
    putLe32(s + 492, next_);
    return pwrite(fd_, s, 512, part(fsinfo_)) == 512;
  }

 private:
  int64_t part(uint32_t sector) const { return (kPartitionStart + sector) * 512; }
  int64_t clusterOffset(uint32_t c) const { return part(data_sector_ + (c - 2) * spc_); }
  void addDot(Dir* d, const char* name11, uint32_t cluster) {
    uint8_t r[32] = {};
    memcpy(r, name11, 11);
    r[11] = 0x10;
    putLe16(r + 20, static_cast<uint16_t>(cluster >> 16));
    putLe16(r + 26, static_cast<uint16_t>(cluster & 0xFFFF));
    d->records.insert(d->records.end(), r, r + 32);
  }

  int fd_;
  uint32_t bps_ = 0, spc_ = 0, reserved_ = 0, fats_ = 0, fat_sectors_ = 0, root_ = 0;
  uint32_t fsinfo_ = 0, clusters_ = 0, data_sector_ = 0, next_ = 0;
  std::vector<uint32_t> fat_;
};

void name83(char* out, char prefix, int number, const char* ext) {
  char buf[16];
  snprintf(buf, sizeof(buf), "%c%07d%-3s", prefix, number, ext);
  memcpy(out, buf, 11);
}

// Folders "camera NN/day NN", each holding its share of "recording number NNNNNN.mp4" files of
// one cluster each. The number of entries written, or -1.
int64_t buildCard(const std::string& image, int files, int big) {
  const int64_t card_mb = 64 + static_cast<int64_t>(files + big) * 4096 / (1 << 20) * 11 / 10;
  if (!run("truncate -s " + std::to_string(card_mb) + "M " + image +
           " && printf 'label: dos\\nstart=2048, type=c\\n' | sfdisk -q " + image +
           " && mkfs.fat -F 32 --offset 2048 -s 8 " + image + " >/dev/null")) {
    return -1;
  }
  int fd = ::open(image.c_str(), O_RDWR);
  if (fd < 0) return -1;
  Filler f(fd);
  int64_t entries = 0;
  bool ok = f.open();
  Filler::Dir root;
  root.first = f.root();
  int written = 0;
  char n11[12];
  for (int t = 0; ok && t < kTopFolders; ++t) {
    Filler::Dir top = f.newDir(f.root());
    name83(n11, 'C', t, "");
    f.add(&root, "camera " + std::to_string(t), n11, true, top.first, 0);
    ++entries;
    for (int s = 0; ok && s < kSubFolders; ++s) {
      Filler::Dir day = f.newDir(top.first);
      name83(n11, 'D', s, "");
      f.add(&top, "day " + std::to_string(s), n11, true, day.first, 0);
      ++entries;
      int share = files / (kTopFolders * kSubFolders) +
                  (t * kSubFolders + s < files % (kTopFolders * kSubFolders) ? 1 : 0);
      for (int i = 0; i < share; ++i, ++written) {
        char num[16];
        snprintf(num, sizeof(num), "%06d", written);
        name83(n11, 'R', written, "MP4");
        uint32_t c = f.take();
        if (c == 0) {
          ok = false;
          break;
        }
        f.add(&day, std::string("recording number ") + num + ".mp4", n11, false, c, 3000);
        ++entries;
      }
      ok = ok && f.close(&day);
    }
    ok = ok && f.close(&top);
  }
  if (ok && big > 0) {
    Filler::Dir large = f.newDir(f.root());
    name83(n11, 'B', 0, "");
    f.add(&root, "large folder", n11, true, large.first, 0);
    ++entries;
    for (int i = 0; ok && i < big; ++i) {
      char num[16];
      snprintf(num, sizeof(num), "%06d", i);
      name83(n11, 'L', i, "MP4");
      uint32_t c = f.take();
      ok = c != 0;
      if (ok) f.add(&large, std::string("large clip ") + num + ".mp4", n11, false, c, 3000);
      ++entries;
    }
    ok = ok && f.close(&large);
  }
  // The root keeps its single cluster when it fits; otherwise grow it like any directory.
  ok = ok && root.records.size() + 32 <= f.clusterBytes() && f.close(&root) && f.finish();
  ::close(fd);
  return ok ? entries : -1;
}

double median3(double a, double b, double c) {
  return std::max(std::min(a, b), std::min(std::max(a, b), c));
}

// Looks up every child of the large folder by long name, by short name in lower case and once
// under a name it does not hold: through the volume's lookup, and through a scan of the
// children like the one the lookup replaced. Median of three rounds each.
void lookups(velt::VELT& volume) {
  auto large = volume.root_->findChild("large folder");
  if (large == nullptr) return;
  std::vector<std::string> names;
  for (const auto& c : large->children_) {
    if (c->isDotEntry()) continue;
    names.push_back(c->name_.str());
    std::string s = c->short_name_.str();
    for (char& ch : s) ch = static_cast<char>(tolower(static_cast<unsigned char>(ch)));
    names.push_back(s);
    names.push_back(c->name_.str() + ".missing");
  }
  auto scan = [&](const char* name) -> std::shared_ptr<velt::VELT::DirEntry> {
    for (const auto& c : large->children_) {
      if (strcasecmp(c->name_.c_str(), name) == 0 || strcasecmp(c->short_name_.c_str(), name) == 0)
        return c;
    }
    return nullptr;
  };
  large->findChild("warm up");  // the index is built on the first lookup
  double indexed[3], scanned[3];
  size_t found_indexed = 0, found_scanned = 0;
  for (int r = 0; r < 3; ++r) {
    found_indexed = found_scanned = 0;
    auto t = std::chrono::steady_clock::now();
    for (const auto& n : names) found_indexed += large->findChild(n.c_str()) != nullptr;
    indexed[r] = secondsSince(t);
    t = std::chrono::steady_clock::now();
    for (const auto& n : names) found_scanned += scan(n.c_str()) != nullptr;
    scanned[r] = secondsSince(t);
  }
  const double a = median3(indexed[0], indexed[1], indexed[2]);
  const double b = median3(scanned[0], scanned[1], scanned[2]);
  printf(
      "lookups in a folder of %zu children: %zu names, %.3f us each (index), %.3f us each "
      "(scan), scan/index %.0fx; found %zu and %zu\n",
      large->children_.size(), names.size(), a * 1e6 / static_cast<double>(names.size()),
      b * 1e6 / static_cast<double>(names.size()), b / a, found_indexed, found_scanned);
  const auto& index = large->children_.get().index;
  if (index != nullptr) {
    printf(
        "the index costs %.1f bytes per child of that folder (folders below 64 children have "
        "none)\n",
        static_cast<double>(index->keys.capacity() * sizeof(uint64_t)) /
            static_cast<double>(large->children_.size()));
  }
  fflush(stdout);  // before the standard output goes to /dev/null again
}

}  // namespace

int main(int argc, char** argv) {
  const int files = argc > 1 ? atoi(argv[1]) : 100000;
  const int big = argc > 3 ? atoi(argv[3]) : 10000;
  std::string dir;
  if (argc > 2) {
    dir = argv[2];
  } else {
    char tmpl[] = "/tmp/velt_load_bench_XXXXXX";
    if (mkdtemp(tmpl) == nullptr) return 1;
    dir = tmpl;
  }
  if (!run("mkdir -p " + dir + "/dev")) return 1;
  const std::string image = dir + "/dev/velt";
  run("touch " + dir + "/dev/mmcblk0p1");

  auto t0 = std::chrono::steady_clock::now();
  int64_t entries = buildCard(image, files, big);
  if (entries < 0) {
    fprintf(stderr, "building the card failed\n");
    return 1;
  }
  printf("card: %d files, %lld entries written in %.2f s\n", files, static_cast<long long>(entries),
         secondsSince(t0));
  setenv("VELT_ROOT", dir.c_str(), 1);

  // Log lines go to standard output; keep them out of the figures.
  fflush(stdout);
  int saved_stdout = dup(1);
  int null_fd = ::open("/dev/null", O_WRONLY);
  double load_s[2] = {};
  int64_t rss_before = 0, rss_loaded = 0, rss_without_tree = 0;
  int64_t heap_loaded = 0, heap_without_tree = 0;
  size_t tree_entries = 0;
  int error = 0;
  for (int round = 0; round < 2; ++round) {
    malloc_trim(0);
    rss_before = residentBytes();
    dup2(null_fd, 1);
    auto t = std::chrono::steady_clock::now();
    auto volume = velt::VELT::create("/dev/mmcblk0p1", 0, velt::kVELTOpMount, 0, &error);
    load_s[round] = secondsSince(t);
    fflush(stdout);
    dup2(saved_stdout, 1);
    if (volume == nullptr) {
      fprintf(stderr, "load failed: %d\n", error);
      return 1;
    }
    rss_loaded = residentBytes();
    if (round == 1 && big > 0) lookups(*volume);
    heap_loaded = static_cast<int64_t>(mallinfo2().uordblks);
    // Count what the tree holds, dot entries included.
    tree_entries = 0;
    std::vector<std::shared_ptr<velt::VELT::DirEntry>> stack{volume->root_};
    while (!stack.empty()) {
      auto e = stack.back();
      stack.pop_back();
      ++tree_entries;
      for (const auto& c : e->children_) {
        if (c->isDir() && !c->isDotEntry())
          stack.push_back(c);
        else
          ++tree_entries;
      }
    }
    // The tree's share: what dropping it gives back.
    volume->root_->clear();
    volume->root_.reset();
    malloc_trim(0);
    rss_without_tree = residentBytes();
    heap_without_tree = static_cast<int64_t>(mallinfo2().uordblks);
    dup2(null_fd, 1);
    volume.reset();
    fflush(stdout);
    dup2(saved_stdout, 1);
  }
  ::close(null_fd);
  ::close(saved_stdout);

  const int64_t tree_bytes = rss_loaded - rss_without_tree;
  printf("load: %.3f s (first), %.3f s (second); %.1f us per entry\n", load_s[0], load_s[1],
         load_s[1] * 1e6 / static_cast<double>(tree_entries));
  printf("tree: %zu entries (dot entries included), sizeof(DirEntry) %zu bytes\n", tree_entries,
         sizeof(velt::VELT::DirEntry));
  printf("resident: +%.1f MiB for the loaded volume, of which the tree %.1f MiB\n",
         static_cast<double>(rss_loaded - rss_before) / (1 << 20),
         static_cast<double>(tree_bytes) / (1 << 20));
  printf(
      "per entry: %.0f bytes (tree), %.0f bytes (whole volume), %.0f bytes of heap in use "
      "(tree); target <= 256\n",
      static_cast<double>(tree_bytes) / static_cast<double>(tree_entries),
      static_cast<double>(rss_loaded - rss_before) / static_cast<double>(tree_entries),
      static_cast<double>(heap_loaded - heap_without_tree) / static_cast<double>(tree_entries));
  if (argc <= 2) run("rm -rf " + dir);
  return 0;
}
