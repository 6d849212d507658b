// fsck.velt: checks a card offline with the daemon's own load. The load runs against a driver
// that keeps every write in memory, so the verdict is exactly what the next mount would repair:
// no change means a clean card. With -n nothing reaches the card; otherwise the changes are
// written through in the order the load made them, and a second load must find nothing left.
#include <fcntl.h>
#include <getopt.h>
#include <linux/fs.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "fs/velt.h"
#include "fs/velt_dirent.h"
#include "fs/velt_driver.h"
#include "fs/velt_endian.h"
#include "fs/velt_fuse.h"
#include "velt_tool_output.h"

namespace {

constexpr const char kProgram[] = "fsck.velt";
constexpr uint32_t kSector = 512;
// A partition given alone is shown to the load as partition 1 of a card, behind this gap.
constexpr uint32_t kVirtualStart = 2048;

// Exit codes, as the common checkers use them.
constexpr int kClean = 0, kRepaired = 1, kErrorsLeft = 4, kOperationalError = 8;

using Sector = std::array<uint8_t, kSector>;

void usage(FILE* out) {
  fprintf(out,
          "usage: %s [-n|-a] [-v] [-p N] <card or partition>\n"
          "\n"
          "Checks a card (an image file or a device node) the way velt.fuse loads it, and\n"
          "repairs what the load repairs: broken long-name runs, cross-linked, looping or\n"
          "cut chains, unreached clusters, a wrong free count, damaged reserved folders.\n"
          "The argument is a whole card with its partition table (the partition is the\n"
          "first FAT32 one, or -p N) or a partition alone.\n"
          "\n"
          "options:\n"
          "  -n, --no-change   report what would be repaired; the card is not written\n"
          "  -a, --auto        repair without asking (the default)\n"
          "  -p, --partition N check partition N of the card's table (1 to 4)\n"
          "  -v, --verbose     show the library's diagnostics as the load goes\n"
          "  -h, --help        show this text\n"
          "\n"
          "exit status: 0 clean, 1 repaired, 4 errors left (or found with -n), 8 the check\n"
          "could not run.\n",
          kProgram);
}

[[noreturn]] void fail(const std::string& message) {
  fprintf(stderr, "%s: %s\n", kProgram, message.c_str());
  exit(kOperationalError);
}

// A FAT boot sector (rather than a partition table) at the start.
bool looksLikeBootSector(const uint8_t* s) {
  if (s[510] != 0x55 || s[511] != 0xAA) return false;
  if (!((s[0] == 0xEB && s[2] == 0x90) || s[0] == 0xE9)) return false;
  const uint32_t bps = velt::le16(s + 11);
  const uint32_t spc = s[13];
  return (bps == 512 || bps == 1024 || bps == 2048 || bps == 4096) && spc != 0 &&
         (spc & (spc - 1)) == 0 && s[16] >= 1 && velt::le16(s + 14) >= 1;
}

bool isFat32Type(uint8_t type) { return type == 0x0B || type == 0x0C; }

// The card as the load sees it: the file's sectors (behind a made-up partition table when the
// file is a partition alone) with every write kept in memory, in order.
class OverlayDriver : public velt::BlockDriver {
 public:
  struct Writes {
    std::map<uint32_t, Sector> sectors;
    std::vector<uint32_t> order;  // first write of each sector
  };

  // `writes`: the writes of an earlier load to show again (none: start empty).
  OverlayDriver(int fd, uint64_t file_sectors, bool partition_only,
                std::shared_ptr<Writes> writes = nullptr)
      : fd_(fd), file_sectors_(file_sectors), shift_(partition_only ? kVirtualStart : 0),
        writes_(writes != nullptr ? writes : std::make_shared<Writes>()) {
    header_.fill(0);
    if (partition_only) {
      // One FAT32 partition covering the file.
      uint8_t* e = header_.data() + 446;
      e[4] = 0x0C;
      velt::putLe32(e + 8, kVirtualStart);
      velt::putLe32(e + 12, static_cast<uint32_t>(file_sectors));
      header_[510] = 0x55;
      header_[511] = 0xAA;
    }
  }

  // What the card holds at a (virtual) sector, before any write of the load.
  bool original(uint32_t sector, uint8_t* out) const {
    if (sector < shift_) {
      if (sector == 0) memcpy(out, header_.data(), kSector);
      else memset(out, 0, kSector);
      return true;
    }
    const uint64_t at = static_cast<uint64_t>(sector - shift_) * kSector;
    return pread(fd_, out, kSector, static_cast<off_t>(at)) == kSector;
  }

  int readSectors(uint32_t start, int count, void* buffer) override {
    if (count < 1) return -1;
    uint8_t* out = static_cast<uint8_t*>(buffer);
    const uint64_t total = sizeInSectorsConst();
    if (start >= total) return -1;
    int n = static_cast<int>(std::min<uint64_t>(count, total - start));
    // The file's part in one request, the made-up header from memory.
    int done = 0;
    while (done < n && start + done < shift_) {
      original(start + done, out + static_cast<size_t>(done) * kSector);
      ++done;
    }
    if (done < n) {
      const uint64_t at = static_cast<uint64_t>(start + done - shift_) * kSector;
      const size_t want = static_cast<size_t>(n - done) * kSector;
      ssize_t got = pread(fd_, out + static_cast<size_t>(done) * kSector, want,
                          static_cast<off_t>(at));
      if (got < 0) return done > 0 ? done : -1;
      done += static_cast<int>(got / kSector);
      if (done == 0) return -1;
      n = done;
    }
    for (auto it = writes_->sectors.lower_bound(start);
         it != writes_->sectors.end() && it->first < start + static_cast<uint32_t>(n); ++it) {
      memcpy(out + static_cast<size_t>(it->first - start) * kSector, it->second.data(), kSector);
    }
    return n;
  }

  int writeSectors(uint32_t start, int count, const void* buffer) override {
    if (count < 1 || start + static_cast<uint64_t>(count) > sizeInSectorsConst()) return -1;
    const uint8_t* in = static_cast<const uint8_t*>(buffer);
    for (int i = 0; i < count; ++i) {
      auto [it, added] = writes_->sectors.try_emplace(start + i);
      memcpy(it->second.data(), in + static_cast<size_t>(i) * kSector, kSector);
      if (added) writes_->order.push_back(start + i);
    }
    return count;
  }

  int64_t sizeInSectors() override { return static_cast<int64_t>(sizeInSectorsConst()); }
  uint64_t sizeInSectorsConst() const { return shift_ + file_sectors_; }

  uint32_t shift() const { return shift_; }
  std::shared_ptr<Writes> writes() const { return writes_; }

 private:
  int fd_;
  uint64_t file_sectors_;
  uint32_t shift_;
  Sector header_;
  std::shared_ptr<Writes> writes_;
};

// What a finished load tells about the card's regions, kept after the volume is gone.
struct Layout {
  bool velt = false;
  uint32_t lba = 0;  // partition start (virtual sectors)
  uint32_t fsinfo = 0, backup_boot = 0, reserved = 0, fat_sectors = 0, num_fats = 0;
  uint32_t data_start = 0, spc = 0, num_clusters = 0, cluster_length = 0;
  std::map<uint32_t, std::string> directory_of;  // cluster -> path of the folder it holds
  int64_t files = 0, folders = 0;
  uint32_t used_clusters = 0;
};

void walk(const std::shared_ptr<velt::VELT::DirEntry>& dir, velt::PBR& pbr, Layout* layout) {
  const std::string path = dir->getPath();
  uint32_t c = dir->start_cluster_;
  for (uint32_t steps = 0; velt::isChainCluster(c) && c < pbr.num_clusters_ &&
                           steps < pbr.num_clusters_;
       ++steps) {
    layout->directory_of.emplace(c, path.empty() ? "/" : path);
    c = pbr.fat1_[c] & 0x0FFFFFFF;
  }
  std::vector<std::shared_ptr<velt::VELT::DirEntry>> children;
  {
    std::lock_guard lock(dir->children_mutex_);
    for (const auto& child : dir->children_) children.push_back(child);
  }
  for (const auto& child : children) {
    if (child->isDotEntry() || child->is_volume_) continue;
    if (child->isDir()) {
      ++layout->folders;
      walk(child, pbr, layout);
    } else {
      ++layout->files;
    }
  }
}

Layout layoutOf(velt::VELT& volume) {
  Layout l;
  velt::PBR& pbr = *volume.pbr_;
  l.velt = pbr.is_velt_partition_;
  l.lba = pbr.partition_.lba;
  l.fsinfo = pbr.fsinfo_sector_;
  l.backup_boot = pbr.backup_boot_sector_;
  l.reserved = pbr.reserved_sectors_;
  l.fat_sectors = pbr.fat_sectors_;
  l.num_fats = pbr.num_fats_;
  l.data_start = pbr.data_start_sector_;
  l.spc = pbr.sectors_per_cluster_;
  l.num_clusters = pbr.num_clusters_;
  l.cluster_length = pbr.cluster_length_;
  if (volume.root_ != nullptr) walk(volume.root_, pbr, &l);
  for (uint32_t c = 2; c < pbr.num_clusters_ && c < pbr.fat1_.size(); ++c) {
    if ((pbr.fat1_[c] & 0x0FFFFFFF) != 0) ++l.used_clusters;
  }
  return l;
}

std::string shortNameOf(const uint8_t* r) {
  std::string base(reinterpret_cast<const char*>(r), 8), ext(reinterpret_cast<const char*>(r) + 8, 3);
  if (static_cast<uint8_t>(base[0]) == 0xE5 || base[0] == 0x05) base[0] = '?';
  while (!base.empty() && base.back() == ' ') base.pop_back();
  while (!ext.empty() && ext.back() == ' ') ext.pop_back();
  for (char& ch : base) {
    if (static_cast<uint8_t>(ch) < 0x20) ch = '?';
  }
  return ext.empty() ? base : base + "." + ext;
}

// Plain words for the records of one directory sector that the load changed.
void describeRecords(const std::string& dir, const uint8_t* before, const uint8_t* after,
                     std::vector<std::string>* out) {
  int long_names_deleted = 0;
  for (uint32_t off = 0; off < kSector; off += velt::DIR_RECORD_SIZE) {
    const uint8_t* b = before + off;
    const uint8_t* a = after + off;
    if (memcmp(a, b, velt::DIR_RECORD_SIZE) == 0) continue;
    const bool was_long = b[0] != 0 && b[0] != 0xE5 && (b[11] & 0x3F) == 0x0F;
    const bool was_entry = b[0] != 0 && b[0] != 0xE5 && !was_long;
    const bool now_deleted = a[0] == 0xE5;
    const bool now_entry = a[0] != 0 && a[0] != 0xE5 && (a[11] & 0x3F) != 0x0F;
    if (was_long && now_deleted) {
      ++long_names_deleted;
    } else if (was_entry && now_deleted) {
      out->push_back(dir + ": entry " + shortNameOf(b) + " removed");
    } else if (was_entry && now_entry) {
      std::string what;
      const uint32_t b_first = (static_cast<uint32_t>(velt::le16(b + 20)) << 16) | velt::le16(b + 26);
      const uint32_t a_first = (static_cast<uint32_t>(velt::le16(a + 20)) << 16) | velt::le16(a + 26);
      if (velt::le32(b + 28) != velt::le32(a + 28)) {
        what += ", size " + std::to_string(velt::le32(b + 28)) + " -> " +
                std::to_string(velt::le32(a + 28));
      }
      if (b_first != a_first) {
        what += ", first cluster " + std::to_string(b_first) + " -> " + std::to_string(a_first);
      }
      if (what.empty()) what = ", record rewritten";
      out->push_back(dir + ": entry " + shortNameOf(b) + what.substr(1));
    } else if (now_entry) {
      out->push_back(dir + ": entry " + shortNameOf(a) + " written");
    } else {
      out->push_back(dir + ": record at byte " + std::to_string(off) + " changed");
    }
  }
  if (long_names_deleted > 0) {
    out->push_back(dir + ": " + std::to_string(long_names_deleted) +
                   (long_names_deleted == 1 ? " long-name record" : " long-name records") +
                   " without their entry removed");
  }
}

struct FatChanges {
  uint64_t freed = 0, cut = 0, linked = 0, other = 0;
};

void countFatChanges(const uint8_t* before, const uint8_t* after, uint32_t first_entry,
                     uint32_t num_clusters, FatChanges* c) {
  for (uint32_t i = 0; i < kSector / 4; ++i) {
    const uint32_t entry = first_entry + i;
    if (entry < 2 || entry >= num_clusters) continue;
    const uint32_t b = velt::le32(before + i * 4) & 0x0FFFFFFF;
    const uint32_t a = velt::le32(after + i * 4) & 0x0FFFFFFF;
    if (a == b) continue;
    if (a == 0) ++c->freed;
    else if (velt::isEOC(a)) ++c->cut;
    else if (b == 0) ++c->linked;
    else ++c->other;
  }
}

std::string plural(uint64_t n, const char* one, const char* many) {
  return std::to_string(n) + " " + (n == 1 ? one : many);
}

// The changes a load made, in plain words.
std::vector<std::string> describe(const OverlayDriver& driver, const Layout& l,
                                  const std::vector<uint32_t>& changed) {
  std::vector<std::string> out;
  std::map<int, FatChanges> fats;
  for (uint32_t sector : changed) {
    Sector before, after = driver.writes()->sectors.at(sector);
    if (!driver.original(sector, before.data())) before.fill(0);
    if (sector < l.lba) {
      out.push_back(sector == 0 ? "partition table rewritten" : "sector " +
                                                                     std::to_string(sector) +
                                                                     " before the partition written");
      continue;
    }
    const uint32_t s = sector - l.lba;
    if (s == 0 || s == l.backup_boot) {
      out.push_back(s == 0 ? "boot sector rewritten" : "backup boot sector rewritten");
    } else if (s == l.fsinfo || s == l.backup_boot + 1) {
      const char* which = s == l.fsinfo ? "FSInfo" : "backup FSInfo";
      const size_t said_before = out.size();
      const uint32_t fb = velt::le32(before.data() + 488), fa = velt::le32(after.data() + 488);
      if (fb != fa) {
        out.push_back(std::string(which) + ": free cluster count " + std::to_string(fb) +
                      " -> " + std::to_string(fa));
      }
      const uint32_t nb = velt::le32(before.data() + 492), na = velt::le32(after.data() + 492);
      if (nb != na) {
        out.push_back(std::string(which) + ": next free cluster " + std::to_string(nb) + " -> " +
                      std::to_string(na));
      }
      if (memcmp(before.data() + 4, after.data() + 4, velt::VELT_FORMAT_INFO_SIZE) != 0) {
        velt::FormatInfo ib, ia;
        ib.decode(before.data() + 4);
        ia.decode(after.data() + 4);
        bool said = false;
        for (uint32_t i = 0; i < ia.folder_count && i < velt::VELT_MAX_RESERVED_FOLDERS; ++i) {
          const auto &fb2 = ib.folders[i], &fa2 = ia.folders[i];
          std::string name(fa2.name, strnlen(fa2.name, sizeof(fa2.name)));
          if (fb2.used != fa2.used) {
            out.push_back(std::string(which) + ": reserved folder " + name + " in use " +
                          std::to_string(fb2.used) + " -> " + std::to_string(fa2.used));
            said = true;
          }
          if (fb2.start_cluster != fa2.start_cluster) {
            out.push_back(std::string(which) + ": reserved folder " + name + " moved to cluster " +
                          std::to_string(fa2.start_cluster) + " (recreated)");
            said = true;
          }
        }
        if (!said) out.push_back(std::string(which) + ": format information rewritten");
      }
      if (out.size() == said_before) out.push_back(std::string(which) + " rewritten");
    } else if (s < l.reserved) {
      out.push_back("reserved sector " + std::to_string(s) + " rewritten");
    } else if (s < l.data_start) {
      const uint32_t in_fats = s - l.reserved;
      const int copy = static_cast<int>(in_fats / l.fat_sectors);
      const uint32_t first_entry = (in_fats % l.fat_sectors) * (kSector / 4);
      countFatChanges(before.data(), after.data(), first_entry, l.num_clusters, &fats[copy]);
    } else {
      const uint32_t cluster = (s - l.data_start) / l.spc + 2;
      auto it = l.directory_of.find(cluster);
      if (it != l.directory_of.end()) {
        describeRecords(it->second, before.data(), after.data(), &out);
      } else {
        out.push_back("cluster " + std::to_string(cluster) + " rewritten (a folder dropped)");
      }
    }
  }
  for (const auto& [copy, c] : fats) {
    std::string line = "FAT " + std::to_string(copy + 1) + ":";
    if (c.freed) line += " " + plural(c.freed, "cluster", "clusters") + " freed,";
    if (c.cut) line += " " + plural(c.cut, "chain", "chains") + " cut,";
    if (c.linked) line += " " + plural(c.linked, "cluster", "clusters") + " taken,";
    if (c.other) line += " " + plural(c.other, "entry", "entries") + " corrected,";
    if (line.back() == ',') line.pop_back();
    else line += " rewritten";
    out.push_back(line);
  }
  // The same finding from a copy and its backup reads once.
  std::vector<std::string> unique;
  for (const auto& line : out) {
    bool seen = false;
    for (const auto& u : unique) seen = seen || u == line;
    if (!seen) unique.push_back(line);
  }
  return unique;
}

struct LoadResult {
  int error = 0;  // the volume's result code; 0 when it loaded
  bool held_back = false;  // the load found wholesale damage and would serve the card read-only
  Layout layout;
  std::vector<uint32_t> changed;  // sectors whose contents the load changed, in write order
  std::vector<uint32_t> significant;  // of those, the ones that make a repair
  std::vector<std::string> findings;
  std::vector<std::string> said;  // the library's plain lines
  std::shared_ptr<OverlayDriver::Writes> writes;
};

// Loads the card as the daemon does, through an overlay; nothing reaches the card. `wholesale`:
// repair what the daemon holds back as wholesale damage too.
LoadResult load(int fd, uint64_t file_sectors, bool partition_only, int partition,
                bool verbose, bool wholesale = false) {
  LoadResult r;
  auto driver = std::make_unique<OverlayDriver>(fd, file_sectors, partition_only);
  r.writes = driver->writes();
  velt::tool::LibraryOutputCatcher catcher(verbose);
  {
    auto volume = std::make_shared<velt::VELT>("/dev/mmcblk0p" + std::to_string(partition),
                                               partition, velt::kVELTOpMount, 0);
    volume->driver_ = std::move(driver);
    volume->device_fd_ = dup(fd);  // the volume closes it at unload
    volume->repair_wholesale_ = wholesale;
    r.error = volume->init();
    if (r.error == 0) r.layout = layoutOf(*volume);
    r.held_back = r.error == 0 && volume->read_only_;
    // Unloading writes what the load still holds back.
  }
  for (const auto& line : velt::tool::parseLibraryOutput(catcher.finish())) {
    if (line.kind == velt::tool::LibraryLine::kLog && !line.has_location && !line.text.empty()) {
      r.said.push_back(line.text);
    }
  }
  // Writes that leave a sector as it was change nothing. FSInfo's next-free hint, and the free
  // count of its backup (which other systems leave behind), are hints that every mount rewrites:
  // they go to the card with a repair but do not make one.
  const OverlayDriver view(fd, file_sectors, partition_only, r.writes);
  for (uint32_t sector : r.writes->order) {
    Sector before;
    const Sector& after = r.writes->sectors.at(sector);
    if (view.original(sector, before.data()) && memcmp(before.data(), after.data(), kSector) == 0) {
      continue;
    }
    r.changed.push_back(sector);
    if (r.error == 0) {
      const uint32_t s = sector - r.layout.lba;
      const bool backup = s == r.layout.backup_boot + 1;
      if (sector >= r.layout.lba && (s == r.layout.fsinfo || backup)) {
        const size_t hint_from = backup ? 488 : 492;
        if (memcmp(before.data(), after.data(), hint_from) == 0 &&
            memcmp(before.data() + 496, after.data() + 496, kSector - 496) == 0) {
          continue;
        }
      }
    }
    r.significant.push_back(sector);
  }
  if (r.error == 0) r.findings = describe(view, r.layout, r.significant);
  return r;
}

}  // namespace

int main(int argc, char** argv) {
  static const struct option kLongOptions[] = {
      {"no-change", no_argument, nullptr, 'n'}, {"auto", no_argument, nullptr, 'a'},
      {"partition", required_argument, nullptr, 'p'}, {"verbose", no_argument, nullptr, 'v'},
      {"help", no_argument, nullptr, 'h'}, {nullptr, 0, nullptr, 0},
  };
  bool no_change = false, automatic = false, verbose = false;
  int partition = 0;
  opterr = 0;
  int c;
  while ((c = getopt_long(argc, argv, "+nap:vh", kLongOptions, nullptr)) != -1) {
    switch (c) {
      case 'n': no_change = true; break;
      case 'a': automatic = true; break;
      case 'v': verbose = true; break;
      case 'p':
        if (strlen(optarg) != 1 || optarg[0] < '1' || optarg[0] > '4') {
          fail(std::string("partition \"") + optarg + "\" must be 1 to 4");
        }
        partition = optarg[0] - '0';
        break;
      case 'h': usage(stdout); return 0;
      default:
        if (optopt == 'p') fail("option -p needs a value");
        fail(std::string("unknown option ") + argv[optind - 1] + " (see --help)");
    }
  }
  if (no_change && automatic) fail("-n and -a exclude each other");
  if (optind >= argc) fail("no card given (see --help)");
  if (optind + 1 < argc) fail("one card at a time (see --help)");
  const std::string path = argv[optind];

  int fd = open(path.c_str(), (no_change ? O_RDONLY : O_RDWR) | O_CLOEXEC);
  if (fd < 0) fail("cannot open \"" + path + "\": " + strerror(errno));
  struct stat st;
  if (fstat(fd, &st) != 0) fail("cannot examine \"" + path + "\": " + strerror(errno));
  uint64_t bytes = 0;
  if (S_ISREG(st.st_mode)) {
    bytes = static_cast<uint64_t>(st.st_size);
  } else if (S_ISBLK(st.st_mode)) {
    if (ioctl(fd, BLKGETSIZE64, &bytes) != 0) fail("cannot size \"" + path + "\": " + strerror(errno));
  } else {
    fail("\"" + path + "\" is neither a file nor a block device");
  }
  const uint64_t file_sectors = bytes / kSector;
  if (file_sectors < 2) fail("\"" + path + "\" is too small to hold a card");

  // A running daemon holds an exclusive lock on its card.
  std::string where;
  if (flock(fd, (no_change ? LOCK_SH : LOCK_EX) | LOCK_NB) != 0) where = "locked by a daemon";
  if (!where.empty() || velt::VELT::isImageInUse(path, &where)) {
    if (!no_change) fail("\"" + path + "\" is in use (" + where + "); unmount it first");
    fprintf(stderr, "%s: \"%s\" is in use (%s); what it shows may change meanwhile\n", kProgram,
            path.c_str(), where.c_str());
  }

  // A whole card (partition table) or a partition alone (boot sector first, or a damaged one
  // whose backup lies in sector 6)?
  uint8_t first[kSector], sixth[kSector];
  if (pread(fd, first, kSector, 0) != kSector) fail("cannot read \"" + path + "\"");
  bool partition_only = looksLikeBootSector(first);
  if (!partition_only) {
    bool table = first[510] == 0x55 && first[511] == 0xAA;
    int found = 0;
    for (int i = 0; table && i < 4; ++i) {
      const uint8_t* e = first + 446 + 16 * i;
      if (isFat32Type(e[4]) && velt::le32(e + 8) != 0 && found == 0) found = i + 1;
    }
    if (partition == 0) partition = found;
    if (partition == 0) {
      const bool backup = pread(fd, sixth, kSector, 6 * kSector) == kSector &&
                          looksLikeBootSector(sixth);
      if (!backup) fail("\"" + path + "\" holds neither a partition table with a FAT32 partition nor a FAT32 boot sector");
      partition_only = true;
    }
  }
  if (partition_only) {
    if (partition > 1) fail("\"" + path + "\" is a partition alone; -p does not apply");
    partition = 1;
  }

  LoadResult first_load = load(fd, file_sectors, partition_only, partition, verbose);
  const bool held_back = first_load.held_back;
  if (held_back) {
    // The daemon would serve this card read-only and leave it alone: repairing it is this
    // tool's job, with the whole card judged anew.
    for (const auto& line : first_load.said) {
      if (!verbose) printf("  %s\n", line.c_str());
    }
    printf("%s: the mount serves this card read-only; repairing it frees what no entry reaches\n",
           path.c_str());
    first_load = load(fd, file_sectors, partition_only, partition, verbose, true);
  }
  for (const auto& line : first_load.said) {
    if (!verbose) printf("  %s\n", line.c_str());
  }
  if (first_load.error != 0) {
    printf("%s: the card does not load: %s\n", path.c_str(),
           velt::resultCodeText(first_load.error));
    close(fd);
    return kErrorsLeft;
  }
  const Layout& l = first_load.layout;
  const char* kind = l.velt ? "VELT" : "FAT32";
  if (first_load.significant.empty() && !held_back) {
    printf("%s: clean %s card, %lld files, %lld folders, %u/%u clusters\n", path.c_str(), kind,
           static_cast<long long>(l.files), static_cast<long long>(l.folders), l.used_clusters,
           l.num_clusters - 2);
    close(fd);
    return kClean;
  }
  printf("%s: %s card, %s:\n", path.c_str(), kind,
         no_change ? "found these to repair" : "repairing these");
  for (const auto& f : first_load.findings) printf("  %s\n", f.c_str());
  if (no_change) {
    printf("Leaving the card unchanged (%s would change).\n",
           plural(first_load.significant.size(), "sector", "sectors").c_str());
    close(fd);
    return kErrorsLeft;
  }

  // Through to the card, in the load's order, then to stable storage.
  for (uint32_t sector : first_load.changed) {
    if (sector < (partition_only ? kVirtualStart : 0)) continue;  // the made-up table
    const uint64_t at = static_cast<uint64_t>(sector - (partition_only ? kVirtualStart : 0)) * kSector;
    const Sector& data = first_load.writes->sectors.at(sector);
    if (pwrite(fd, data.data(), kSector, static_cast<off_t>(at)) != kSector) {
      fail("writing \"" + path + "\" failed: " + strerror(errno));
    }
  }
  if (fdatasync(fd) != 0) fail("flushing \"" + path + "\" failed: " + strerror(errno));

  LoadResult second = load(fd, file_sectors, partition_only, partition, false);
  close(fd);
  if (second.error != 0 || !second.significant.empty() || second.held_back) {
    printf("%s: errors left after the repair (%s).\n", path.c_str(),
           second.error != 0  ? velt::resultCodeText(second.error)
           : second.held_back ? "the mount still serves it read-only"
                              : "a second check still finds work");
    return kErrorsLeft;
  }
  printf("%s: repaired, %lld files, %lld folders, %u/%u clusters\n", path.c_str(),
         static_cast<long long>(second.layout.files), static_cast<long long>(second.layout.folders),
         second.layout.used_clusters, second.layout.num_clusters - 2);
  return kRepaired;
}
