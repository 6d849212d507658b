// The reserved folder of a VELT card through the mount: files created in it take over the
// preallocated reserved files (free ones first, then the one taken over longest ago), they are
// published when their writer closes them, and nothing is renamed into or out of the folder.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "daemon_runner.h"
#include "e2e_card.h"

namespace velt::test {
namespace {

std::string q(const std::string& s) {
  return shellQuote(s);
}

bool exists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

// Creates `path` and writes `data`; the close must succeed too.
bool createWith(const std::string& path, const std::string& data) {
  int fd = open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY, 0644);
  if (fd < 0) return false;
  bool ok = write(fd, data.data(), data.size()) == static_cast<ssize_t>(data.size());
  return close(fd) == 0 && ok;
}

std::string readPrefix(const std::string& path, size_t n) {
  std::string data(n, '\0');
  int fd = open(path.c_str(), O_RDONLY);
  if (fd < 0) return "";
  ssize_t got = pread(fd, data.data(), n, 0);
  close(fd);
  data.resize(got > 0 ? got : 0);
  return data;
}

std::string clip(int i) {
  return "REC/clip" + std::to_string(i) + ".avi";
}
std::string payload(int i) {
  return "frames of clip " + std::to_string(i) + "\n";
}

TEST(ReservedFolder, CreationsTakeOverReservedFilesAndRecycleTheOldest) {
  MountedCard mounted;
  ASSERT_TRUE(mounted.start(CardKind::kVelt)) << mounted.error();
  std::string rec = mounted.path("REC");
  struct stat st;
  ASSERT_EQ(stat(rec.c_str(), &st), 0);
  ASSERT_TRUE(S_ISDIR(st.st_mode));
  EXPECT_EQ(runShell("ls -A " + q(rec)).out, "");  // free reserved files are not listed

  // Fill the folder until the first file is recycled: that tells how many reserved files it
  // has, and each file keeps its own data in the meantime.
  int count = 0;
  for (int i = 1; i <= 40 && count == 0; ++i) {
    ASSERT_TRUE(createWith(mounted.path(clip(i)), payload(i))) << i << ": " << strerror(errno);
    // A taken-over file is published when its writer closes it, with the reserved file's
    // whole size, and its data at the start.
    ASSERT_EQ(stat(mounted.path(clip(i)).c_str(), &st), 0) << i;
    EXPECT_EQ(st.st_size, 4 << 20) << i;
    EXPECT_EQ(readPrefix(mounted.path(clip(i)), payload(i).size()), payload(i)) << i;
    if (i > 1 && !exists(mounted.path(clip(1)))) count = i - 1;
  }
  ASSERT_GE(count, 1) << "no reserved file was ever recycled";
  for (int i = 2; i <= count + 1; ++i) {
    EXPECT_TRUE(exists(mounted.path(clip(i)))) << i;
    EXPECT_EQ(readPrefix(mounted.path(clip(i)), payload(i).size()), payload(i)) << i;
  }
  EXPECT_NE(runShell("ls -A " + q(rec)).out.find("clip2.avi"), std::string::npos);

  // A deleted file frees its reserved file, and the next creation takes that one instead of
  // recycling the oldest.
  if (count >= 2) {
    ASSERT_EQ(unlink(mounted.path(clip(2)).c_str()), 0) << strerror(errno);
    EXPECT_FALSE(exists(mounted.path(clip(2))));
    ASSERT_TRUE(createWith(mounted.path("REC/after-delete.avi"), "x"));
    for (int i = 3; i <= count + 1; ++i) EXPECT_TRUE(exists(mounted.path(clip(i)))) << i;
  }

  // Nothing is renamed into, out of, or within the reserved folder, nor the folder itself.
  ASSERT_TRUE(createWith(mounted.path("plain.txt"), "plain"));
  struct Case {
    std::string from, to;
  } refused[] = {
      {clip(3), "out.avi"},
      {clip(3), "REC/renamed.avi"},
      {"plain.txt", "REC/plain.txt"},
      {"REC", "REC2"},
  };
  for (const Case& c : refused) {
    errno = 0;
    EXPECT_EQ(rename(mounted.path(c.from).c_str(), mounted.path(c.to).c_str()), -1) << c.from;
    EXPECT_EQ(errno, EPERM) << c.from << " -> " << c.to;
    EXPECT_TRUE(exists(mounted.path(c.from))) << c.from;
  }
  // The folder itself cannot be removed.
  EXPECT_NE(rmdir(rec.c_str()), 0);
  EXPECT_TRUE(exists(rec));

  mounted.unmountAndCheck();
  // Other FAT readers see the published recordings, and only those: the recycled one is gone.
  ShellResult r = mounted.mtools("mdir -b ::/REC");
  EXPECT_NE(r.out.find("clip3.avi"), std::string::npos) << r.out;
  EXPECT_EQ(r.out.find("clip1.avi"), std::string::npos) << r.out;
  r = mounted.mtools("mtype ::/REC/clip3.avi");
  EXPECT_EQ(r.out.substr(0, payload(3).size()), payload(3));
  r = mounted.mtools("mtype ::/plain.txt");
  EXPECT_EQ(r.out, "plain");
}

}  // namespace
}  // namespace velt::test
