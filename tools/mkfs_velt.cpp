// mkfs.velt: formats a card's FAT32 partition with the VELT layout (reserved folders of
// preallocated files). Missing partition tables, partitions and boot records are created.
#include <getopt.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "fs/velt.h"
#include "fs/velt_dirent.h"
#include "fs/velt_driver.h"
#include "fs/velt_fuse.h"
#include "velt_tool_output.h"

namespace {

constexpr const char kProgram[] = "mkfs.velt";
constexpr uint32_t kMaxFileMiB = 4095;  // a reserved file's size must fit 32 bits

void usage(FILE* out) {
  fprintf(out,
          "usage: %s [-m N|P] [-L label] [-k] [-v] <device> [NAME:PERCENT:SIZE_MB ...]\n"
          "\n"
          "Formats the FAT32 partition <device> (/dev/mmcblk<disk>p<partition>) as a VELT\n"
          "volume. Each NAME:PERCENT:SIZE_MB makes a reserved folder NAME in the root, filled\n"
          "with files of SIZE_MB MiB that together take PERCENT percent of the free space\n"
          "(at most %d folders, percentages adding up to at most 100). A missing partition\n"
          "table or partition is created. Without -k a new FAT32 is laid down (cluster size\n"
          "by the partition's size, at least 65525 clusters); refuses a card that is in use\n"
          "or too small for FAT32.\n"
          "\n"
          "options:\n"
          "  -m, --mode N|P      format mode written into the boot record (default N)\n"
          "  -L, --label LABEL   volume label, at most 11 characters\n"
          "  -k, --keep          keep the FAT32 and the files of its root (folders are\n"
          "                      always removed)\n"
          "  -v, --verbose       show the library's diagnostics\n"
          "  -h, --help          show this text\n"
          "\n"
          "VELT_ROOT, when it names a directory, is where /dev/velt and the device are looked\n"
          "up (a card image at $VELT_ROOT/dev/velt), as for velt.fuse.\n"
          "\n"
          "example: %s -L CAM /dev/mmcblk0p1 REC:40:16 EVENT:20:4\n",
          kProgram, velt::VELT_MAX_RESERVED_FOLDERS, kProgram);
}

[[noreturn]] void die(const std::string& message) {
  fprintf(stderr, "%s: %s\n", kProgram, message.c_str());
  exit(1);
}

// A whole decimal number in [low, high]; false otherwise.
bool parseNumber(const std::string& text, uint32_t low, uint32_t high, uint32_t* out) {
  if (text.empty() || text.size() > 10) return false;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
  }
  unsigned long long v = strtoull(text.c_str(), nullptr, 10);
  if (v < low || v > high) return false;
  *out = static_cast<uint32_t>(v);
  return true;
}

// "/dev/mmcblk<disk>p<partition>" written without leading zeros or anything after it.
bool isDevicePath(const std::string& path) {
  static constexpr char kPrefix[] = "/dev/mmcblk";
  if (path.compare(0, sizeof(kPrefix) - 1, kPrefix) != 0) return false;
  std::string rest = path.substr(sizeof(kPrefix) - 1);
  size_t p = rest.find('p');
  if (p == std::string::npos) return false;
  uint32_t disk = 0, part = 0;
  if (!parseNumber(rest.substr(0, p), 0, 9999, &disk)) return false;
  if (!parseNumber(rest.substr(p + 1), 0, 9999, &part)) return false;
  return path == "/dev/mmcblk" + std::to_string(disk) + "p" + std::to_string(part);
}

bool equalsIgnoringCase(const std::string& a, const std::string& b) {
  return strcasecmp(a.c_str(), b.c_str()) == 0;
}

// NAME:PERCENT:SIZE_MB -> descriptor; the error text on failure.
std::string parseFolder(const std::string& spec, velt::ReservedFolderDesc* desc) {
  size_t a = spec.find(':');
  size_t b = a == std::string::npos ? a : spec.find(':', a + 1);
  if (b == std::string::npos || spec.find(':', b + 1) != std::string::npos) {
    return "reserved folder \"" + spec + "\" is not NAME:PERCENT:SIZE_MB";
  }
  std::string name = spec.substr(0, a);
  if (name.empty() || name.size() >= sizeof(desc->name) || name == "." || name == ".." ||
      name.find('.') != std::string::npos || !velt::isValidFileName(name.c_str())) {
    return "reserved folder name \"" + name +
           "\" must be 1 to 11 characters without . \" * / : < > ? \\ |";
  }
  if (!parseNumber(spec.substr(a + 1, b - a - 1), 1, 100, &desc->percent)) {
    return "reserved folder \"" + name + "\": percent must be 1 to 100";
  }
  if (!parseNumber(spec.substr(b + 1), 1, kMaxFileMiB, &desc->size_mb)) {
    return "reserved folder \"" + name + "\": file size must be 1 to " +
           std::to_string(kMaxFileMiB) + " MiB";
  }
  memset(desc->name, 0, sizeof(desc->name));
  memcpy(desc->name, name.data(), name.size());
  return std::string();
}

}  // namespace

int main(int argc, char** argv) {
  static const struct option kLongOptions[] = {
      {"mode", required_argument, nullptr, 'm'},
      {"label", required_argument, nullptr, 'L'},
      {"keep", no_argument, nullptr, 'k'},
      {"verbose", no_argument, nullptr, 'v'},
      {"help", no_argument, nullptr, 'h'},
      {nullptr, 0, nullptr, 0},
  };
  // The volume's serial number comes from rand(): a different one for every format.
  srand(static_cast<unsigned>(time(nullptr)) ^ static_cast<unsigned>(getpid()) << 16);
  uint32_t mode = velt::kVELTFormatModeN;
  std::string label;
  bool has_label = false;
  bool keep = false;
  bool verbose = false;
  opterr = 0;
  int c;
  while ((c = getopt_long(argc, argv, "+m:L:kvh", kLongOptions, nullptr)) != -1) {
    switch (c) {
      case 'm':
        if (equalsIgnoringCase(optarg, "N")) {
          mode = velt::kVELTFormatModeN;
        } else if (equalsIgnoringCase(optarg, "P")) {
          mode = velt::kVELTFormatModeP;
        } else {
          die(std::string("format mode \"") + optarg + "\" must be N or P");
        }
        break;
      case 'L':
        label = optarg;
        has_label = true;
        break;
      case 'k':
        keep = true;
        break;
      case 'v':
        verbose = true;
        break;
      case 'h':
        usage(stdout);
        return 0;
      default:
        if (optopt != 0 && strchr("mL", optopt) != nullptr) {
          die(std::string("option -") + static_cast<char>(optopt) + " needs a value");
        }
        die(std::string("unknown option ") + argv[optind - 1] + " (see --help)");
    }
  }
  if (optind >= argc) die("no device given (see --help)");
  const std::string device = argv[optind++];
  if (!isDevicePath(device)) die("\"" + device + "\" must be in /dev/mmcblk#p# format");

  velt::FormatInfo info;
  uint32_t percent_sum = 0;
  for (; optind < argc; ++optind) {
    if (info.folder_count >= velt::VELT_MAX_RESERVED_FOLDERS) {
      die("at most " + std::to_string(velt::VELT_MAX_RESERVED_FOLDERS) + " reserved folders");
    }
    velt::ReservedFolderDesc& desc = info.folders[info.folder_count];
    std::string error = parseFolder(argv[optind], &desc);
    if (!error.empty()) die(error);
    for (uint32_t i = 0; i < info.folder_count; ++i) {
      if (strcasecmp(info.folders[i].name, desc.name) == 0) {
        die(std::string("reserved folder \"") + desc.name + "\" given twice");
      }
    }
    percent_sum += desc.percent;
    ++info.folder_count;
  }
  if (percent_sum > 100) {
    die("reserved folders take " + std::to_string(percent_sum) + "% (at most 100%)");
  }
  if (has_label && (label.empty() || label.size() > 11 || !velt::isValidFileName(label.c_str()))) {
    die("volume label \"" + label + "\" must be 1 to 11 characters without \" * / : < > ? \\ |");
  }
  info.flags = keep ? 1 : 0;

  struct stat st;
  if (stat(velt::platformPath(device).c_str(), &st) != 0) {
    die("\"" + device + "\" not found: " + strerror(errno));
  }
  std::string where;
  if (velt::VELT::isCardInUse(device, &where)) {
    die("\"" + device + "\" is in use (" + where + "); unmount it first");
  }

  // The library's diagnostics (a blank card has no boot sector to read, which is the normal
  // case here) are for -v; the user sees the format's summary, or why it failed.
  velt::tool::LibraryOutputCatcher catcher(verbose);
  int error = 0;
  int result = -1;
  {
    const int extra = keep ? velt::kVELTFormatKeepRootFiles : velt::kVELTFormatFresh;
    std::shared_ptr<velt::VELT> volume =
        velt::VELT::create(device, 0, velt::kVELTOpFormat, extra, &error);
    if (volume != nullptr) {
      // Nothing serves the card (checked above): the format has nothing to unmount.
      volume->skip_umount_ = true;
      result = volume->format(info, mode, has_label ? label.c_str() : nullptr);
    }
    // Unloading writes the FATs and FSInfo.
  }
  const std::vector<velt::tool::LibraryLine> lines =
      velt::tool::parseLibraryOutput(catcher.finish());
  std::string reason;
  for (const auto& line : lines) {
    if (line.kind == velt::tool::LibraryLine::kPrinted) {
      if (!verbose && line.text != "VELT detected." && line.text != "FAT32 detected.") {
        printf("%s\n", line.text.c_str());
      }
    } else if (line.level == velt::tool::LibraryLine::kError &&
               line.text.find(": ASSERT ") == std::string::npos) {
      // The most telling error: a size refusal if there is one, else the last one.
      if (reason.find("too small") == std::string::npos) reason = line.text;
    }
  }
  if (result != 0) {
    if (reason.empty()) reason = error != 0 ? velt::resultCodeText(error) : "see -v";
    die("cannot format \"" + device + "\": " + reason);
  }
  printf("%s: \"%s\" formatted as VELT (mode %c)\n", kProgram, device.c_str(),
         mode == velt::kVELTFormatModeN ? 'N' : 'P');
  return 0;
}
