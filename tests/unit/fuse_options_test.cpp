// Start-up pieces of the front end that need no mount: cache sizes, the option table and the
// mount-table check.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "fs/velt_fuse.h"
// After velt_fuse.h, which chooses the library API version.
#include <fuse_lowlevel.h>

namespace velt {
namespace {

TEST(FuseCacheSize, ParsesOnlyKAndMSuffixesWithinInt32) {
  struct Case {
    const char* text;
    int32_t size;       // -1: refused
    const char* shown;  // what the error message quotes
  } cases[] = {
      {"", 0, ""},
      {"16M", 16777216, ""},
      {"K", 0, ""},  // an empty number counts as 0
      {"2047M", 2047 * 1048576, ""},
      {"2097151K", 2097151 * 1024, ""},
      {"16m", -1, "16m"},
      {"1G", -1, "1G"},
      {"2097152K", -1, "2097152"},
      {"99999999999999999999999M", -1, "99999999999999999999999"},
      {"-1K", -1, "-1"},
      {"0x10K", -1, "0x10"},
  };
  for (const Case& c : cases) {
    int32_t size = -7;
    std::string shown;
    EXPECT_EQ(parseCacheSize(c.text, &size, &shown), c.size >= 0) << c.text;
    EXPECT_EQ(c.size >= 0 ? std::to_string(size) : shown,
              c.size >= 0 ? std::to_string(c.size) : c.shown)
        << c.text;
  }
}

struct Parsed {
  VELTOptions options;
  int keys = 0;
};

// Records the help and version keys in place of velt_opt_proc, whose branches end the process.
int recordKey(void* data, const char*, int key, struct fuse_args*) {
  if (key != kVELTOptKeyHelp && key != kVELTOptKeyVersion) return 1;
  ++static_cast<Parsed*>(data)->keys;
  return 0;
}

TEST(FuseOptions, DeviceAndCacheFromSwitchesAndMountOptions) {
  struct Case {
    std::vector<std::string> argv;
    const char* device;
    const char* cache;
    std::vector<std::string> rest;
  } cases[] = {
      {{"velt.fuse", "-d", "/dev/mmcblk1p1", "/mnt"}, "/dev/mmcblk1p1", "", {"velt.fuse", "/mnt"}},
      {{"velt.fuse", "-c16M", "-d/dev/mmcblk2p3", "/mnt"}, "/dev/mmcblk2p3", "16M",
       {"velt.fuse", "/mnt"}},
      {{"velt.fuse", "-o", "ro,cache=1K,dev=/dev/mmcblk0p2,allow_other", "-f", "/mnt"},
       "/dev/mmcblk0p2", "1K", {"velt.fuse", "-o", "ro,allow_other", "-f", "/mnt"}},
      // A later switch replaces an earlier one.
      {{"velt.fuse", "-d", "/dev/mmcblk0p1", "-o", "dev=/dev/mmcblk9p9", "/mnt"},
       "/dev/mmcblk9p9", "", {"velt.fuse", "/mnt"}},
  };
  static_assert(offsetof(Parsed, options) == 0, "the parser stores through the option record");
  for (Case c : cases) {
    SCOPED_TRACE(c.argv[1]);
    std::vector<char*> raw;
    for (std::string& a : c.argv) raw.push_back(a.data());
    struct fuse_args args = FUSE_ARGS_INIT(static_cast<int>(raw.size()), raw.data());
    Parsed p{};
    EXPECT_EQ(fuse_opt_parse(&args, &p, kVELTOptionSpecs, recordKey), 0);
    EXPECT_STREQ(p.options.device_path ? p.options.device_path : "", c.device);
    EXPECT_STREQ(p.options.cache_size_text ? p.options.cache_size_text : "", c.cache);
    EXPECT_EQ(std::vector<std::string>(args.argv, args.argv + args.argc), c.rest);
    EXPECT_EQ(p.keys, 0);
    fuse_opt_free_args(&args);
    free(p.options.device_path);
    free(p.options.cache_size_text);
    free(p.options.mount_path);
  }
}

TEST(MountTable, MatchesTheSecondBlankSeparatedFieldExactly) {
  char templ[] = "/tmp/velt_mounts_XXXXXX";
  int fd = mkstemp(templ);
  ASSERT_GE(fd, 0);
  close(fd);
  std::ofstream(templ) << "proc /proc proc rw,nosuid 0 0\n"
                       << "   velt.fuse    /mnt/extsd fuse.velt.fuse rw 0 0\n"
                       << "tabbed\t/mnt/tab\tvfat rw 0 0\n"
                       << "short /mnt/last\n";
  struct Case {
    const char* mount_point;
    bool mounted;
  } cases[] = {
      {"/proc", true},        {"/mnt/extsd", true},  // leading and repeated blanks
      {"/mnt/extsd/", false}, {"/mnt/ext", false},   {"velt.fuse", false},
      {"/mnt/tab", false},    // a tab does not end a field
      {"/mnt/last", false},   // the newline stays part of the last field
  };
  for (const Case& c : cases) {
    EXPECT_EQ(is_mounted_point(c.mount_point, templ), c.mounted) << c.mount_point;
  }
  unlink(templ);
  EXPECT_FALSE(is_mounted_point("/proc", "/nonexistent/velt/mounts"));
}

}  // namespace
}  // namespace velt
