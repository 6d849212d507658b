// What users of a FAT32 card expect of the mount, one row per complaint the random model test
// (model_test.cpp) does not make: O_TRUNC through the tools, free space, permissions, names and
// inode numbers, the kernel's other names of a file, modification times, error causes, hidden
// files, a full card, and the daemon's life (one per card, VELT_ROOT, signals, write errors of
// the card).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "daemon_runner.h"
#include "e2e_card.h"

namespace velt::test {
namespace {

namespace fs = std::filesystem;

std::string q(const std::string& s) {
  return shellQuote(s);
}

// A row passes when its check returns an empty string; otherwise the text says what was seen.
struct Row {
  const char* complaint;
  std::function<std::string()> check;
};

void runRows(const std::vector<Row>& rows) {
  for (const Row& row : rows) {
    std::string seen = row.check();
    EXPECT_EQ(seen, "") << row.complaint;
  }
}

std::string errnoText(int e) {
  return e == 0 ? "success" : strerror(e);
}

// errno of a call that must fail with `expected`; "" when it did.
std::string fails(int result, int expected) {
  int e = result < 0 ? errno : 0;
  return e == expected ? "" : "got " + errnoText(e) + ", expected " + errnoText(expected);
}

std::string shell(const std::string& command, int expected_status = 0) {
  ShellResult r = runShell(command);
  if (r.status == expected_status) return "";
  return command + ": status " + std::to_string(r.status) + "\n" + r.out + r.err;
}

TEST(MountBehaviour, PlainCard) {
  MountedCard card;
  ASSERT_TRUE(card.start(CardKind::kPlain)) << card.error();
  const std::string m = card.mountPoint();
  auto p = [&](const std::string& rel) { return card.path(rel); };
  struct statvfs vfs;

  std::vector<Row> rows = {
      {"cp of a short file over a longer one and echo > file leave the old tail",
       [&]() -> std::string {
         writeFileBytes(p("long.txt"), std::string(5000, 'L'));
         writeFileBytes(p("small.txt"), "small\n");
         std::string r = shell("cp " + q(p("small.txt")) + " " + q(p("long.txt")) +
                               " && echo x > " + q(p("small.txt")));
         if (!r.empty()) return r;
         if (readFileBytes(p("long.txt")) != "small\n") return std::string("cp kept the tail");
         return readFileBytes(p("small.txt")) == "x\n" ? "" : "echo kept the tail";
       }},
      {"df shows 0 size and 0 free",
       [&]() -> std::string {
         if (statvfs(m.c_str(), &vfs) != 0) return "statvfs: " + errnoText(errno);
         if (vfs.f_blocks == 0 || vfs.f_bavail == 0 || vfs.f_bavail > vfs.f_blocks ||
             vfs.f_frsize != 2048 || vfs.f_namemax != 255) {
           return std::string("statvfs numbers");
         }
         return shell("df " + q(m) + " | grep -q velt-test");
       }},
      {"chmod and chown fail with Function not implemented",
       [&]() -> std::string {
         writeFileBytes(p("mode.txt"), "m");
         std::string r = shell("chmod 444 " + q(p("mode.txt")) + " && chown 1000:1000 " +
                               q(p("mode.txt")) + " && chmod 755 " + q(p("long.txt")));
         if (!r.empty()) return r;
         struct stat st;
         stat(p("mode.txt").c_str(), &st);
         if ((st.st_mode & 0777) != 0555) return std::string("read-only file not shown 0555");
         stat(p("long.txt").c_str(), &st);
         return (st.st_mode & 0777) == 0777 ? "" : "writable file not shown 0777";
       }},
      {"one file has a different inode number for each spelling; cp a.txt A.TXT copies it "
       "onto itself",
       [&]() -> std::string {
         writeFileBytes(p("a.txt"), "aaa");
         writeFileBytes(p("Long File Name.txt"), "long");
         struct stat a, b, c, d;
         if (stat(p("a.txt").c_str(), &a) || stat(p("A.TXT").c_str(), &b) ||
             stat(p("Long File Name.txt").c_str(), &c) || stat(p("LONGFI~1.TXT").c_str(), &d)) {
           return "stat: " + errnoText(errno);
         }
         if (a.st_ino != b.st_ino || c.st_ino != d.st_ino || a.st_ino == c.st_ino) {
           return std::string("inode numbers differ between spellings");
         }
         std::string r = shell("cp " + q(p("a.txt")) + " " + q(p("A.TXT")) + " 2>&1", 1);
         if (!r.empty()) return r;
         return readFileBytes(p("a.txt")) == "aaa" ? "" : "content changed";
       }},
      {"writes never update the modification time",
       [&]() -> std::string {
         struct timespec old[2] = {{978307200, 0}, {978307200, 0}};  // 2001
         if (utimensat(AT_FDCWD, p("long.txt").c_str(), old, 0) != 0) return errnoText(errno);
         time_t before = time(nullptr);
         int fd = open(p("long.txt").c_str(), O_WRONLY | O_APPEND);
         if (fd < 0 || write(fd, "more", 4) != 4) return "append: " + errnoText(errno);
         close(fd);
         struct stat st;
         stat(p("long.txt").c_str(), &st);
         return st.st_mtime + 2 >= before ? "" : "mtime " + std::to_string(st.st_mtime);
       }},
      {"every failed creation reports Cannot allocate memory",
       [&]() -> std::string {
         std::string r = fails(open(p("a:b").c_str(), O_CREAT | O_WRONLY, 0644), EINVAL);
         if (r.empty()) r = fails(mkdir(p("q?x").c_str(), 0755), EINVAL);
         if (r.empty()) {
           r = fails(open(p(std::string(256, 'n')).c_str(), O_CREAT | O_WRONLY, 0644),
                     ENAMETOOLONG);
         }
         if (r.empty()) r = fails(mkdir(p("LONG.TXT").c_str(), 0755), EEXIST);
         return r;
       }},
      {"a change through one spelling leaves the kernel's other names of the file stale",
       [&]() -> std::string {
         struct stat st;
         writeFileBytes(p("q.txt"), "1234");
         stat(p("Q.TXT").c_str(), &st);  // the kernel now holds both names
         if (truncate(p("q.txt").c_str(), 1) != 0 || stat(p("Q.TXT").c_str(), &st) != 0 ||
             st.st_size != 1) {
           return std::string("size under the other name");
         }
         std::string r = shell("echo x >> " + q(p("Q.TXT")));  // appends at the real end
         if (!r.empty() || readFileBytes(p("q.txt")) != "1x\n") return "append: " + r;
         if (unlink(p("q.txt").c_str()) != 0) return "unlink: " + errnoText(errno);
         if (stat(p("Q.TXT").c_str(), &st) == 0) return std::string("removed file still shown");
         r = shell("echo y > " + q(p("Q.TXT")));  // a new file under the other name
         if (!r.empty()) return r;
         r = fails(mkdir(p("q.txt").c_str(), 0755), EEXIST);
         if (!r.empty()) return r;
         // A removed file's name used as a folder's: the kernel must not trust it.
         if (unlink(p("Q.TXT").c_str()) != 0 || mkdir(p("q.txt").c_str(), 0755) != 0) {
           return "to a folder: " + errnoText(errno);
         }
         writeFileBytes(p("Q.TXT/in"), "in");
         return readFileBytes(p("q.txt/in")) == "in" ? "" : "file in the folder";
       }},
      {"touch on the mount point fails with EINVAL", [&]() -> std::string { return shell("touch " + q(m)); }},
      {"rm of an open file leaves .fuse_hidden files on the card",
       [&]() -> std::string {
         int fd = open(p("small.txt").c_str(), O_RDONLY);
         std::string r = fails(unlink(p("small.txt").c_str()), EBUSY);
         close(fd);
         if (!r.empty()) return r;
         ShellResult hidden = runShell("ls -A " + q(m) + " | grep -c fuse_hidden");
         if (hidden.out != "0\n") return "hidden files: " + hidden.out;
         return unlink(p("small.txt").c_str()) == 0 ? "" : "unlink after close: " + errnoText(errno);
       }},
  };
  runRows(rows);
  card.unmountAndCheck();
  // Another implementation agrees with what the rows left. Truncation, case-only and folder
  // renames and removals of open entries are the random model test's (model_test.cpp).
  EXPECT_EQ(card.mtools("mtype ::/long.txt").out, "small\nmore");
}

// A card that runs full: every way of asking for space says ENOSPC, and nothing is left
// half-allocated; a card whose own writes fail tells the writer.
TEST(MountBehaviour, FullCardAndFailingCard) {
  CardSpec spec;
  spec.size_mb = 40;
  spec.sectors_per_cluster = 1;  // the smallest FAT32 card
  CardImage image(spec);
  ASSERT_TRUE(image.ok()) << image.error();
  std::string mnt = image.dir() + "/mnt";
  fs::create_directories(mnt);
  DaemonRunner daemon;
  ASSERT_TRUE(daemon.start(image.root(), mnt)) << daemon.out() << daemon.err();
  struct statvfs vfs;
  ASSERT_EQ(statvfs(mnt.c_str(), &vfs), 0);
  const int64_t free_bytes = static_cast<int64_t>(vfs.f_bavail) * vfs.f_frsize;

  // fallocate reserves what fits, zero-filled.
  int fd = open((mnt + "/reserve.bin").c_str(), O_CREAT | O_RDWR, 0644);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(posix_fallocate(fd, 0, 1 << 20), 0);
  struct stat st;
  fstat(fd, &st);
  EXPECT_EQ(st.st_size, 1 << 20);
  close(fd);
  EXPECT_EQ(readFileBytes(mnt + "/reserve.bin"), std::string(1 << 20, '\0'));
  fd = open((mnt + "/huge.bin").c_str(), O_CREAT | O_RDWR, 0644);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(posix_fallocate(fd, 0, free_bytes * 2), ENOSPC);
  close(fd);
  EXPECT_EQ(readFileBytes(mnt + "/huge.bin"), "");

  // Data until the card is full: a short write, then ENOSPC.
  ShellResult dd = runShell("dd if=/dev/zero of=" + q(mnt + "/fill.bin") + " bs=64k 2>&1");
  EXPECT_NE(dd.status, 0);
  EXPECT_NE(dd.out.find("No space left on device"), std::string::npos) << dd.out;
  ASSERT_EQ(statvfs(mnt.c_str(), &vfs), 0);
  EXPECT_EQ(vfs.f_bavail, 0u);
  errno = 0;
  EXPECT_NE(mkdir((mnt + "/newdir").c_str(), 0755), 0);
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(truncate((mnt + "/reserve.bin").c_str(), 4 << 20), -1);
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(unlink((mnt + "/fill.bin").c_str()), 0);
  EXPECT_EQ(mkdir((mnt + "/newdir").c_str(), 0755), 0);
  EXPECT_EQ(daemon.stop(), 0);
  ShellResult r = image.fsck("-n");
  EXPECT_EQ(r.status, 0) << r.out << r.err;

  // The same card on a backing store that runs full before the card does: the writer hears of
  // it, and what the card holds is never mistaken for the data.
  TempDir small;
  ASSERT_EQ(mount("tmpfs", small.path().c_str(), "tmpfs", 0, "size=3m"), 0) << strerror(errno);
  std::string root = small.path() + "/root";
  fs::create_directories(root + "/dev");
  ASSERT_EQ(runShell("cp --sparse=always " + q(image.image()) + " " + q(root + "/dev/velt"))
                .status,
            0);
  writeFileBytes(root + "/dev/mmcblk0p1", "");
  {
    DaemonRunner on_small;
    ASSERT_TRUE(on_small.start(root, mnt)) << on_small.out() << on_small.err();
    writeFileBytes(image.dir() + "/src.bin", patternBytes(8 << 20, 7));
    ShellResult cp = runShell("cp " + q(image.dir() + "/src.bin") + " " + q(mnt + "/dst.bin"));
    EXPECT_NE(cp.status, 0) << "cp of 8 MiB onto a 3 MiB backing store succeeded";
    on_small.stop();
  }
  umount2(small.path().c_str(), MNT_DETACH);
}

TEST(MountBehaviour, VeltCard) {
  MountedCard card;
  ASSERT_TRUE(card.start(CardKind::kVelt)) << card.error();
  const std::string rec = card.path(MountedCard::kReservedFolder);
  std::vector<Row> rows = {
      {"rm of an open file in a reserved folder fails with EPERM",
       [&]() -> std::string {
         writeFileBytes(rec + "/clip.bin", std::string(10000, 'c'));
         int fd = open((rec + "/clip.bin").c_str(), O_RDONLY);
         std::string r = fails(unlink((rec + "/clip.bin").c_str()), EBUSY);
         close(fd);
         return r;
       }},
      {"a reserved file keeps its clusters: only a fresh start of its recording",
       [&]() -> std::string {
         std::string r = fails(truncate((rec + "/clip.bin").c_str(), 100), EPERM);
         if (!r.empty()) return r;
         struct stat before, after;
         stat((rec + "/clip.bin").c_str(), &before);
         // O_TRUNC restarts the recording at the start of the same clusters and size.
         writeFileBytes(rec + "/clip.bin", "again");
         stat((rec + "/clip.bin").c_str(), &after);
         if (after.st_size != before.st_size) return std::string("size changed");
         return readFileBytes(rec + "/clip.bin").substr(0, 6) == "againc" ? "" : "content";
       }},
  };
  runRows(rows);
  card.unmountAndCheck();
  EXPECT_EQ(card.mtools("mtype ::/REC/clip.bin").out.substr(0, 6), "againc");
}

// The daemon's life: one per card, VELT_ROOT wherever it is started from, files closed on
// signals, card write errors reaching the writer.
TEST(MountBehaviour, DaemonLife) {
  MountedCard card;
  ASSERT_TRUE(card.start(CardKind::kPlain)) << card.error();
  const std::string root = card.card().root();

  // A second daemon on the same card, at another mount point, is refused.
  std::string other = card.card().dir() + "/other";
  fs::create_directories(other);
  DaemonExit second = runDaemonToExit({"-f", other}, root);
  EXPECT_EQ(second.status, 1);
  EXPECT_NE(second.err.find("already served"), std::string::npos) << second.err;
  EXPECT_FALSE(isMounted(other));

  // SIGTERM and SIGINT with a file open: the file is closed as a release would close it.
  for (int sig : {SIGTERM, SIGINT}) {
    std::string name = "open" + std::to_string(sig) + ".bin";
    std::string data = patternBytes(300000, static_cast<unsigned>(sig));
    int fd = open(card.path(name).c_str(), O_CREAT | O_WRONLY, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, data.data(), data.size()), static_cast<ssize_t>(data.size()));
    kill(card.daemon().pid(), sig);
    // A stop by a signal is a clean stop.
    EXPECT_EQ(card.daemon().waitExit(15000), 0) << sig;
    close(fd);
    card.daemon().stop();
    EXPECT_EQ(card.mtools("mtype ::/" + name).out == data, true) << sig;
    ASSERT_TRUE(card.mount()) << card.error();
  }
  card.unmountAndCheck();

  // A relative VELT_ROOT, started in the background: it still finds its card.
  std::string dir = card.card().dir();
  ShellResult bg = runShell("cd " + q(dir) + " && VELT_ROOT=root " + q(daemonBinary()) +
                            " -o fsname=velt-test " + q(dir + "/mnt"));
  EXPECT_EQ(bg.status, 0) << bg.out << bg.err;
  bool mounted = false;
  for (int i = 0; i < 100 && !mounted; ++i) {
    struct stat st;
    mounted = isMounted(dir + "/mnt") && stat((dir + "/mnt/open15.bin").c_str(), &st) == 0;
    if (!mounted) std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  EXPECT_TRUE(mounted);
  runShell("fusermount3 -u " + q(dir + "/mnt"));
  // Set but unusable: an error, never the real devices.
  DaemonExit bad = runDaemonToExit({"-f", dir + "/mnt"}, dir + "/no-such-root");
  EXPECT_EQ(bad.status, 1);
  EXPECT_NE(bad.err.find("VELT_ROOT"), std::string::npos) << bad.err;
}

}  // namespace
}  // namespace velt::test
