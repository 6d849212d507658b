// Start-up pieces of the front end that need no mount: cache sizes, the option table, the
// mount-table check and the result-code texts.
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
    bool valid;
    int32_t size;
    const char* shown;  // what the error message quotes
  } cases[] = {
      {"", true, 0, ""},
      {"16M", true, 16777216, ""},
      {"0K", true, 0, ""},
      {"1K", true, 1024, ""},
      {"K", true, 0, ""},  // an empty number counts as 0
      {"2047M", true, 2047 * 1048576, ""},
      {"2097151K", true, 2097151 * 1024, ""},
      {"16", false, 0, "16"},
      {"0", false, 0, "0"},
      {"16m", false, 0, "16m"},
      {"16k", false, 0, "16k"},
      {"1G", false, 0, "1G"},
      {"2048M", false, 0, "2048"},
      {"2097152K", false, 0, "2097152"},
      {"99999999999999999999999M", false, 0, "99999999999999999999999"},
      {"-1K", false, 0, "-1"},
      {"1 6M", false, 0, "1 6"},
      {"0x10K", false, 0, "0x10"},
  };
  for (const Case& c : cases) {
    int32_t size = -7;
    std::string shown;
    bool valid = parseCacheSize(c.text, &size, &shown);
    EXPECT_EQ(valid, c.valid) << c.text;
    if (c.valid) {
      EXPECT_EQ(size, c.size) << c.text;
    } else {
      EXPECT_EQ(shown, c.shown) << c.text;
    }
  }
  int32_t size = -7;
  std::string shown;
  EXPECT_TRUE(parseCacheSize(nullptr, &size, &shown));
  EXPECT_EQ(size, 0);
}

struct Parsed {
  VELTOptions options;
  std::vector<int> keys;
  std::vector<std::string> rest;
  int result = 0;
};

int recordKey(void* data, const char* arg, int key, struct fuse_args* outargs) {
  (void)arg;
  (void)outargs;
  auto* parsed = static_cast<Parsed*>(data);
  if (key == kVELTOptKeyHelp || key == kVELTOptKeyVersion) {
    parsed->keys.push_back(key);
    return 0;
  }
  return 1;
}

// Runs the option table over argv with a recording callback in place of velt_opt_proc, whose
// help and version branches end the process.
Parsed parse(std::vector<std::string> argv, fuse_args* rest_out = nullptr) {
  static Parsed parsed;
  parsed = Parsed();
  std::vector<char*> raw;
  for (std::string& s : argv) raw.push_back(s.data());
  struct fuse_args args = FUSE_ARGS_INIT(static_cast<int>(raw.size()), raw.data());
  // The parser stores through the offsets of the option record inside `parsed`; `parsed.keys`
  // is reached through the same pointer by the callback.
  static_assert(offsetof(Parsed, options) == 0, "the option record must start the struct");
  parsed.result = fuse_opt_parse(&args, &parsed, kVELTOptionSpecs, recordKey);
  for (int i = 0; i < args.argc; ++i) parsed.rest.push_back(args.argv[i]);
  if (rest_out != nullptr) {
    *rest_out = args;
  } else {
    fuse_opt_free_args(&args);
  }
  return parsed;
}

void freeOptions(VELTOptions* o) {
  free(o->device_path);
  free(o->cache_size_text);
  free(o->mount_path);
  *o = VELTOptions();
}

TEST(FuseOptions, DeviceAndCacheFromSwitchesAndMountOptions) {
  struct Case {
    std::vector<std::string> argv;
    const char* device;
    const char* cache;
    std::vector<std::string> rest;
  } cases[] = {
      {{"velt.fuse", "-d", "/dev/mmcblk1p1", "/mnt"}, "/dev/mmcblk1p1", nullptr,
       {"velt.fuse", "/mnt"}},
      {{"velt.fuse", "-o", "dev=/dev/mmcblk1p1", "/mnt"}, "/dev/mmcblk1p1", nullptr,
       {"velt.fuse", "/mnt"}},
      {{"velt.fuse", "-c", "16M", "/mnt"}, nullptr, "16M", {"velt.fuse", "/mnt"}},
      {{"velt.fuse", "-c16M", "-d/dev/mmcblk2p3", "/mnt"}, "/dev/mmcblk2p3", "16M",
       {"velt.fuse", "/mnt"}},
      {{"velt.fuse", "-o", "ro,cache=1K,dev=/dev/mmcblk0p2,allow_other", "-f", "/mnt"},
       "/dev/mmcblk0p2", "1K", {"velt.fuse", "-o", "ro,allow_other", "-f", "/mnt"}},
      // A later switch replaces an earlier one.
      {{"velt.fuse", "-d", "/dev/mmcblk0p1", "-o", "dev=/dev/mmcblk9p9", "/mnt"},
       "/dev/mmcblk9p9", nullptr, {"velt.fuse", "/mnt"}},
  };
  for (const Case& c : cases) {
    Parsed p = parse(c.argv);
    EXPECT_EQ(p.result, 0);
    if (c.device == nullptr) {
      EXPECT_EQ(p.options.device_path, nullptr);
    } else {
      ASSERT_NE(p.options.device_path, nullptr);
      EXPECT_STREQ(p.options.device_path, c.device);
    }
    if (c.cache == nullptr) {
      EXPECT_EQ(p.options.cache_size_text, nullptr);
    } else {
      ASSERT_NE(p.options.cache_size_text, nullptr);
      EXPECT_STREQ(p.options.cache_size_text, c.cache);
    }
    EXPECT_EQ(p.rest, c.rest) << c.argv[1];
    EXPECT_TRUE(p.keys.empty());
    freeOptions(&p.options);
  }
}

class MountTable : public ::testing::Test {
 protected:
  void SetUp() override {
    char templ[] = "/tmp/velt_mounts_XXXXXX";
    int fd = mkstemp(templ);
    ASSERT_GE(fd, 0);
    close(fd);
    path_ = templ;
    std::ofstream out(path_);
    out << "proc /proc proc rw,nosuid 0 0\n"
        << "   velt.fuse    /mnt/extsd fuse.velt.fuse rw 0 0\n"
        << "tabbed\t/mnt/tab\tvfat rw 0 0\n"
        << "short /mnt/last\n"
        << "/dev/mmcblk0p1 /media/card\\040one vfat rw 0 0\n";
  }
  void TearDown() override { unlink(path_.c_str()); }
  std::string path_;
};

TEST_F(MountTable, MatchesTheSecondBlankSeparatedFieldExactly) {
  struct Case {
    const char* mount_point;
    bool mounted;
  } cases[] = {
      {"/proc", true},
      {"/mnt/extsd", true},  // leading and repeated blanks
      {"/mnt/extsd/", false},
      {"/mnt/ext", false},
      {"/mnt", false},
      {"velt.fuse", false},        // the first field never counts
      {"/mnt/tab", false},         // a tab does not end a field
      {"/mnt/last", false},        // the newline stays part of the last field
      {"/media/card\\040one", true},  // escapes are not decoded
  };
  for (const Case& c : cases) {
    EXPECT_EQ(is_mounted_point(c.mount_point, path_.c_str()), c.mounted) << c.mount_point;
  }
}

TEST_F(MountTable, UnreadableTableCountsAsFree) {
  EXPECT_FALSE(is_mounted_point("/proc", "/nonexistent/velt/mounts"));
  // The real table lists /proc on every Linux system.
  EXPECT_TRUE(is_mounted_point("/proc"));
}

}  // namespace
}  // namespace velt
