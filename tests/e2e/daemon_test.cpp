// The daemon's life on a real mount, where the random model cannot look: every refusal to start
// (message and exit status, device paths too), each loop serving, one daemon per card, signals
// with files open, VELT_ROOT, a full card, what kernel caching and inodes show users.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "e2e_card.h"
#include "velt_client.h"

namespace velt::test {
namespace {

namespace fs = std::filesystem;

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// errno of a call that must fail, or 0.
int failure(int result) {
  return result < 0 ? errno : 0;
}

// Every way the daemon refuses to serve: before mounting (exit status 1), or in the init
// callback when the volume cannot be created (the loop is left on request: status 0).
TEST(Startup, RefusalsPrintTheirMessageAndExitStatus) {
  CardImage card;  // its sandbox also holds nodes of no card's partition and of other disks
  ASSERT_TRUE(card.ok()) << card.error();
  for (const char* node : {"sda1", "mmcblk0p2", "mmcblk0", "mmcblk00p1"})
    std::ofstream(card.root() + "/dev/" + node);
  TempDir box, empty_root;  // box: the partition node with no card behind it; empty: no node
  const std::string root = box.path() + "/root", mnt = box.path() + "/mnt";
  fs::create_directories(root + "/dev");
  fs::create_directories(mnt);
  std::ofstream(root + "/dev/mmcblk0p1");
  const std::string init = "VELT init failed\n";
  const std::string usage =
      "usage: " + daemonBinary() +
      " [options] <mountpoint>\n\ngeneral options:\n    -o opt,[opt...]  mount options\n";
  const std::string banner =
      "     version: 3.9.20\n  cache size: 0(disabled)\n    dev path: "
      "/dev/mmcblk0p1\nmounted path: /mnt/extsd\n";
  const struct {
    std::vector<std::string> args;
    std::string root;
    int status;
    std::string err, out;  // expected in standard error and output
  } cases[] = {
      {{"-h"}, root, 1, usage, "FUSE options:"},
      {{"--help", mnt}, root, 1, "VELT options:\n    -d BLKDEV PATH", "FUSE options:"},
      {{"-V"}, root, 0, "VELT version 3.9.20\n", "FUSE library version"},
      {{"-c", "16", mnt}, root, 1, "size \"16\" is invalid\n", ""},
      {{"-o", "cache=2048M", mnt}, root, 1, "size \"2048\" is invalid\n", ""},
      // The banner comes before the device check: defaults, then cache and device given.
      {{"/mnt/x"}, empty_root.path(), 1, "[/dev/mmcblk0p1] not found\n", banner},
      {{"-c", "2047M", "-o", "dev=/dev/mmcblk1p1", "/mnt/x"},
       empty_root.path(),
       1,
       "[/dev/mmcblk1p1] not found\n",
       "  cache size: 2146435072\n    dev path: /dev/mmcblk1p1\n"},
      {{"-f", mnt, mnt + "/second"}, root, 1, "fuse: invalid argument", ""},
      {{"-f"}, root, 1, "error: no mountpoint specified\n", ""},
      {{"-f", "/proc"}, root, 1, "error: mountpoint [/proc] already mounted\n", ""},
      {{"-f", "-o", "no_such_option", mnt}, root, 1, "unknown option", ""},
      {{"-f", mnt}, box.path() + "/no-such-root", 1, "VELT_ROOT", ""},
      {{"-f", "-d", "/dev/sda1", mnt}, card.root(), 0, init, "\"/dev/sda1\" invalid. must be in"},
      {{"-f", "-d", "/dev/mmcblk0", mnt}, card.root(), 0, init, "must be in /dev/mmcblk0p# format"},
      {{"-f", "-d", "/dev/mmcblk00p1", mnt}, card.root(), 0, init, "err -22 (Unknown error)\n"},
      {{"-f", "-d", "/dev/mmcblk0p2", mnt}, card.root(), 0, init, "err 2 (No FAT32 partition)\n"},
      {{"-f", mnt}, root, 0, init, "VELT::create() failed, err 3 (No device found)\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args[0] + " " + c.err);
    DaemonExit r = runDaemonToExit(c.args, c.root);
    ASSERT_TRUE(r.exited);
    EXPECT_EQ(r.status, c.status);
    EXPECT_TRUE(contains(r.err, c.err)) << r.err;
    EXPECT_TRUE(contains(r.out, c.out)) << r.out;
    EXPECT_FALSE(contains(r.out, "free space:"));
    EXPECT_FALSE(isMounted(mnt));
  }
}

// Every loop serves and stops with status 0: the default one (with -d as the device path, never
// the library's debug switch), the single-threaded one and the one with a descriptor per
// thread, stopped by an unmount, SIGTERM and SIGINT with a file open, which is closed as a
// release would close it. A second daemon on the same card is refused, at the same mount point
// or another; a relative VELT_ROOT finds the card from a daemon started in the background.
TEST(Startup, EachLoopServesAndStopsCleanly) {
  const struct {
    std::vector<std::string> args;
    int signal;
  } loops[] = {
      {{"-d", "/dev/mmcblk0p1", "-c", "1M"}, 0}, {{"-s"}, SIGTERM}, {{"-o", "clone_fd"}, SIGINT}};
  for (const auto& loop : loops) {
    SCOPED_TRACE(loop.args[0]);
    MountedCard card;
    card.daemon().keepDefaultName();
    ASSERT_TRUE(card.start(CardKind::kPlain, loop.args)) << card.error();
    EXPECT_TRUE(contains(card.daemon().out(), "  free space: ")) << card.daemon().out();
    EXPECT_FALSE(contains(card.daemon().err(), "unique:")) << card.daemon().err();
    ShellResult table = runShell("grep -F " + q(" " + card.path() + " ") + " /proc/mounts");
    EXPECT_EQ(table.out.rfind("velt.fuse ", 0), 0u) << table.out;  // the program's name
    const std::string data = patternBytes(300000, static_cast<unsigned>(loop.signal));
    int fd = open(card.path("open.bin").c_str(), O_CREAT | O_WRONLY, 0644);
    ASSERT_EQ(write(fd, data.data(), data.size()), static_cast<ssize_t>(data.size()));
    if (loop.signal == 0) {
      EXPECT_TRUE(contains(card.daemon().out(), "  cache size: 1048576\n"));
      const std::string other = card.card().dir() + "/other";
      fs::create_directories(other);
      for (const auto& [at, message] :
           {std::pair{card.path(), "already mounted\n"}, std::pair{other, "already served"}}) {
        DaemonExit second = runDaemonToExit({"-f", at}, card.card().root());
        EXPECT_EQ(second.status, 1);
        EXPECT_TRUE(contains(second.err, message)) << second.err;
      }
      EXPECT_FALSE(isMounted(other));
    } else {
      kill(card.daemon().pid(), loop.signal);
      EXPECT_EQ(card.daemon().waitExit(15000), 0);
    }
    close(fd);
    card.unmountAndCheck();
    EXPECT_TRUE(card.mtools("mtype ::/open.bin").out == data);
    if (loop.signal != 0) continue;
    const std::string dir = card.card().dir();
    ShellResult bg = runShell("cd " + q(dir) + " && VELT_ROOT=root " + q(daemonBinary()) +
                              " -o fsname=velt-test " + q(dir + "/mnt"));
    EXPECT_EQ(bg.status, 0) << bg.out << bg.err;
    bool served = false;
    for (int i = 0; i < 100 && !served; ++i) {
      struct stat st;
      served = isMounted(dir + "/mnt") && stat((dir + "/mnt/open.bin").c_str(), &st) == 0;
      if (!served) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_TRUE(served);
    runShell("fusermount3 -u " + q(dir + "/mnt"));
  }
}

// A reader holding a file open sees what the channel and a writer through another spelling
// change behind its back (bytes and size) at once; a listing shows what lookups answer, also to
// a reader who removes what it lists; one inode per file; names FAT refuses. (That
// writes set the modification time is the random model's.)
TEST(MountBehaviour, ChangesBehindTheReaderShowAtOnce) {
  MountedCard card;
  ASSERT_TRUE(card.start(CardKind::kPlain)) << card.error();
  auto p = [&](const std::string& rel) { return card.path(rel); };
  std::string data = patternBytes(100000, 1);
  writeFileBytes(p("a.txt"), data);
  struct stat a, b;
  ASSERT_EQ(stat(p("a.txt").c_str(), &a) | stat(p("A.TXT").c_str(), &b), 0);
  EXPECT_EQ(a.st_ino, b.st_ino);
  const int fd = open(p("a.txt").c_str(), O_RDONLY);
  auto readBack = [fd] {
    std::string got(1 << 20, '\0');
    const ssize_t n = pread(fd, got.data(), got.size(), 0);
    return got.substr(0, static_cast<size_t>(std::max<ssize_t>(n, 0)));
  };
  ASSERT_EQ(readBack(), data);
  {
    CardImage::RootScope root(card.card());
    client::DirectClient channel;
    ASSERT_EQ(channel.connect(5000), 0);
    const int cfd = channel.open(p("a.txt"), 0, 5000);
    ASSERT_GE(cfd, 3);
    const std::string more = patternBytes(60000, 2);
    ASSERT_EQ(channel.write(cfd, 70000, more.data(), static_cast<uint32_t>(more.size())), 0);
    ASSERT_EQ(channel.closeAndWait(cfd, 0, 5000), 0);
    data = data.substr(0, 70000) + more;

    // A folder of more entries than one reply holds, listed as `ls -l` lists it: each entry
    // shows what a lookup answers, and a file the channel grows right after shows its new size.
    std::set<std::string> made{"sub"};
    ASSERT_TRUE(fs::create_directories(p("many/sub")));
    for (unsigned i = 0; i < 150; ++i) {
      const std::string name = "File " + std::to_string(i) + std::string(i % 40, 'x') + ".dat";
      writeFileBytes(p("many/" + name), patternBytes(i * 37, i));
      made.insert(name);
    }
    std::string wrong;
    const std::vector<std::string> names = listLikeLs(p("many"), &wrong);
    EXPECT_EQ(wrong, "");
    EXPECT_EQ(names.size(), made.size());  // none twice
    EXPECT_EQ(std::set<std::string>(names.begin(), names.end()), made);
    const int grown = channel.open(p("many/File 7xxxxxxx.dat"), 0, 5000);
    ASSERT_GE(grown, 3);
    ASSERT_EQ(channel.write(grown, 1000, "more", 4), 0);
    ASSERT_EQ(channel.closeAndWait(grown, 0, 5000), 0);
    struct stat st;
    EXPECT_EQ(stat(p("many/File 7xxxxxxx.dat").c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 1004);
  }
  // A reader that removes each name as it reads it still meets every one.
  DIR* many = opendir(p("many").c_str());
  size_t removed = 0;
  while (const struct dirent* e = many != nullptr ? readdir(many) : nullptr) {
    const std::string name = e->d_name;
    if (name != "." && name != "..") removed += remove(p("many/" + name).c_str()) == 0;
  }
  if (many != nullptr) closedir(many);
  EXPECT_EQ(removed, 151u);
  EXPECT_EQ(rmdir(p("many").c_str()), 0) << strerror(errno);
  EXPECT_EQ(readBack(), data);
  // An append through the other name goes to the real end, which that name's node last saw
  // at 100000 bytes; the reader sees it before the writer closes.
  const int other = open(p("A.TXT").c_str(), O_WRONLY | O_APPEND);
  ASSERT_EQ(write(other, "XYZ", 3), 3);
  data += "XYZ";
  EXPECT_EQ(readBack(), data);
  close(other);
  close(fd);
  // A removed file's name used as a folder's: the kernel must not trust what it held, nor may
  // the releases of the handles just closed write the removed record back (fsck below).
  ASSERT_EQ(unlink(p("a.txt").c_str()), 0) << strerror(errno);
  ASSERT_EQ(mkdir(p("A.TXT").c_str(), 0755), 0);
  writeFileBytes(p("a.txt/in"), "in");
  EXPECT_EQ(readFileBytes(p("A.TXT/in")), "in");
  EXPECT_EQ(runShell("touch " + q(card.path())).status, 0);  // utimens on the mount point
  // Names FAT cannot hold.
  EXPECT_EQ(failure(open(p("a:b").c_str(), O_CREAT | O_WRONLY, 0644)), EINVAL);
  EXPECT_EQ(failure(mkdir(p("q?x").c_str(), 0755)), EINVAL);
  EXPECT_EQ(failure(open(p(std::string(256, 'n')).c_str(), O_CREAT | O_WRONLY, 0644)),
            ENAMETOOLONG);
  card.unmountAndCheck();
}

// A card that runs full: every way of asking for space says ENOSPC and nothing is left
// half-allocated.
TEST(MountBehaviour, FullCard) {
  CardSpec spec;
  spec.size_mb = 40;
  spec.sectors_per_cluster = 1;  // the smallest FAT32 card
  CardImage image(spec);
  ASSERT_TRUE(image.ok()) << image.error();
  const std::string mnt = image.dir() + "/mnt";
  fs::create_directories(mnt);
  DaemonRunner daemon;
  ASSERT_TRUE(daemon.start(image.root(), mnt)) << daemon.out() << daemon.err();
  struct statvfs vfs;
  ASSERT_EQ(statvfs(mnt.c_str(), &vfs), 0);
  EXPECT_EQ(vfs.f_namemax, 255u);

  // fallocate reserves what fits, zero-filled, and nothing when it does not fit.
  int fd = open((mnt + "/reserve.bin").c_str(), O_CREAT | O_RDWR, 0644);
  EXPECT_EQ(posix_fallocate(fd, 0, 1 << 20), 0);
  close(fd);
  EXPECT_EQ(readFileBytes(mnt + "/reserve.bin"), std::string(1 << 20, '\0'));
  fd = open((mnt + "/huge.bin").c_str(), O_CREAT | O_RDWR, 0644);
  EXPECT_EQ(posix_fallocate(fd, 0, 2 * static_cast<off_t>(vfs.f_bavail * vfs.f_frsize)), ENOSPC);
  close(fd);  // and fsck.fat finds nothing of it

  // Data until the card is full: a short write, then ENOSPC, which sticks to no handle: the
  // file is still written inside its chain, and past it once space is freed.
  fd = open((mnt + "/fill.bin").c_str(), O_CREAT | O_WRONLY, 0644);
  const std::string chunk(65536, 'f');
  while (write(fd, chunk.data(), chunk.size()) > 0) {
  }
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(pwrite(fd, "x", 1, 0), 1);
  ASSERT_EQ(statvfs(mnt.c_str(), &vfs), 0);
  EXPECT_EQ(vfs.f_bavail, 0u);
  EXPECT_EQ(failure(mkdir((mnt + "/newdir").c_str(), 0755)), ENOSPC);
  EXPECT_EQ(failure(truncate((mnt + "/reserve.bin").c_str(), 4 << 20)), ENOSPC);
  // A removed file's clusters count as free at once, and are taken when needed.
  EXPECT_EQ(unlink((mnt + "/reserve.bin").c_str()), 0);
  ASSERT_EQ(statvfs(mnt.c_str(), &vfs), 0);
  EXPECT_GE(vfs.f_bavail * vfs.f_frsize, 1u << 20);
  EXPECT_EQ(write(fd, chunk.data(), chunk.size()), static_cast<ssize_t>(chunk.size()));
  EXPECT_EQ(close(fd), 0);
  EXPECT_EQ(mkdir((mnt + "/newdir").c_str(), 0755), 0);
  EXPECT_EQ(daemon.stop(), 0);
  ShellResult r = image.fsck("-n");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

}  // namespace
}  // namespace velt::test
