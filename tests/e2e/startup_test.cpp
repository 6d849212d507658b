// Start-up of velt.fuse: every way it refuses to start, with its output and exit status, the
// banner, and a volume that the init callback rejects.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "daemon_runner.h"
#include "e2e_card.h"

namespace velt::test {
namespace {

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// A sandbox with the default partition node but no card behind it.
class Sandbox {
 public:
  Sandbox() {
    std::filesystem::create_directories(root() + "/dev");
    std::filesystem::create_directories(mountPoint());
    std::ofstream(root() + "/dev/mmcblk0p1");
  }
  std::string root() const { return dir_.path() + "/root"; }
  std::string mountPoint() const { return dir_.path() + "/mnt"; }
  void touch(const std::string& relative) const { std::ofstream(root() + "/" + relative); }

 private:
  TempDir dir_;
};

TEST(Startup, RefusalsBeforeMountingPrintTheirMessageAndExitStatus) {
  Sandbox box;
  TempDir empty_root;  // no device node at all
  std::string mnt = box.mountPoint();
  struct Case {
    const char* name;
    std::vector<std::string> args;
    std::string root;
    int status;
    std::string err;  // expected on standard error
    std::string out;  // expected on standard output
  } cases[] = {
      {"help", {"-h"}, box.root(), 1,
       "usage: " + daemonBinary() +
           " [options] <mountpoint>\n\ngeneral options:\n    -o opt,[opt...]  mount options\n",
       "FUSE options:"},
      {"long help", {"--help", mnt}, box.root(), 1, "VELT options:\n    -d BLKDEV PATH",
       "FUSE options:"},
      {"version", {"-V"}, box.root(), 0, "VELT version 3.9.20\n", "FUSE library version"},
      {"option without its argument", {"-f", "-d"}, box.root(), 1,
       "fuse: missing argument after `-d'", ""},
      {"bare number cache", {"-c", "16", mnt}, box.root(), 1, "size \"16\" is invalid\n", ""},
      {"cache beyond int32", {"-o", "cache=2048M", mnt}, box.root(), 1,
       "size \"2048\" is invalid\n", ""},
      // The banner comes before the device check: defaults, then cache and device given.
      {"device missing", {"/mnt/x"}, empty_root.path(), 1, "[/dev/mmcblk0p1] not found\n",
       "     version: 3.9.20\n  cache size: 0(disabled)\n    dev path: /dev/mmcblk0p1\n"
       "mounted path: /mnt/extsd\n"},
      {"banner with options", {"-c", "2047M", "-o", "dev=/dev/mmcblk1p1", "/mnt/x"},
       empty_root.path(), 1, "[/dev/mmcblk1p1] not found\n",
       "  cache size: 2146435072\n    dev path: /dev/mmcblk1p1\n"},
      {"library parser", {"-f", mnt, mnt + "/second"}, box.root(), 1, "fuse: invalid argument", ""},
      {"no mount point", {"-f"}, box.root(), 1, "error: no mountpoint specified\n", ""},
      {"mounted point", {"-f", "/proc"}, box.root(), 1,
       "error: mountpoint [/proc] already mounted\n", ""},
      {"unknown mount option", {"-f", "-o", "no_such_option", mnt}, box.root(), 1,
       "unknown option", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    DaemonExit r = runDaemonToExit(c.args, c.root);
    ASSERT_TRUE(r.exited);
    EXPECT_EQ(r.status, c.status);
    EXPECT_TRUE(contains(r.err, c.err)) << r.err;
    EXPECT_TRUE(contains(r.out, c.out)) << r.out;
    EXPECT_FALSE(isMounted(mnt));
  }
}

// The device passes start-up but the volume cannot be created: the init callback says why,
// leaves the loop, and the daemon unmounts and ends by itself.
TEST(Startup, VolumeRejectedByInitEndsTheLoopAndUnmounts) {
  struct Case {
    const char* name;
    std::vector<std::string> args;
    bool with_card;
    std::string log;
  } cases[] = {
      {"not an mmc partition",
       {"-d", "/dev/sda1"},
       true,
       "VELT::create() failed, err -22 (Unknown error)\n"},
      {"no partition with that number",
       {"-d", "/dev/mmcblk0p2"},
       true,
       "VELT::create() failed, err 2 (No FAT32 partition)\n"},
      {"no driver device", {}, false, "VELT::create() failed, err 3 (No device found)\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    CardImage card;
    ASSERT_TRUE(card.ok()) << card.error();
    if (!c.with_card) std::filesystem::remove(card.image());
    std::ofstream(card.root() + "/dev/sda1");
    std::ofstream(card.root() + "/dev/mmcblk0p2");
    const std::string mnt = card.dir() + "/mnt";
    std::filesystem::create_directories(mnt);
    std::vector<std::string> args{"-f"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    args.push_back(mnt);
    DaemonExit r = runDaemonToExit(args, card.root());
    ASSERT_TRUE(r.exited) << r.out << r.err;
    // The loop was left on request, not because of an error.
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(contains(r.out, c.log)) << r.out;
    EXPECT_EQ(r.err, "VELT init failed\n");
    EXPECT_FALSE(contains(r.out, "free space:"));
    EXPECT_FALSE(isMounted(mnt));
  }
}

// Every loop serves and ends with status 0: the default one (with -d as the device path, never
// the library's debug switch), the single-threaded one and the one with a descriptor per thread.
TEST(Startup, EachLoopServesAndEndsWithStatusZero) {
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"-d", "/dev/mmcblk0p1", "-c", "1M"},
        std::vector<std::string>{"-s"}, std::vector<std::string>{"-o", "clone_fd"}}) {
    SCOPED_TRACE(args[0]);
    MountedCard mounted;
    mounted.daemon().keepDefaultName();
    ASSERT_TRUE(mounted.start(CardKind::kPlain, args)) << mounted.error();
    EXPECT_TRUE(contains(mounted.daemon().out(), "  free space: ")) << mounted.daemon().out();
    EXPECT_FALSE(contains(mounted.daemon().err(), "unique:")) << mounted.daemon().err();
    // Listed under the program's name.
    ShellResult table =
        runShell("grep -F " + shellQuote(" " + mounted.path() + " ") + " /proc/mounts");
    EXPECT_EQ(table.out.rfind("velt.fuse ", 0), 0u) << table.out;
    ShellResult r = runShell("echo hello > " + shellQuote(mounted.path("a.txt")) + " && cat " +
                             shellQuote(mounted.path("a.txt")));
    EXPECT_EQ(r.out, "hello\n") << r.err;
    if (args[0] == "-d") {
      EXPECT_TRUE(contains(mounted.daemon().out(), "  cache size: 1048576\n"));
      DaemonExit second = runDaemonToExit({"-f", mounted.path()}, mounted.card().root());
      EXPECT_EQ(second.status, 1);
      EXPECT_TRUE(contains(second.err, "already mounted\n")) << second.err;
      EXPECT_EQ(access(mounted.path().c_str(), R_OK), 0);  // the first one still serves
    }
    mounted.unmountAndCheck();
  }
}

}  // namespace
}  // namespace velt::test
