// The FUSE callbacks called directly on a loaded card, for the answers that the kernel hides or
// changes on a real mount (its own checks run first): exact errno values, released handles, and
// the answers while there is no volume.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "card_volume.h"
#include "fs/velt.h"
#include "fs/velt_fuse.h"

namespace velt::test {
namespace {

int collect(void* buf, const char* name, const struct stat* /*st*/, off_t /*offset*/,
            enum fuse_fill_dir_flags /*flags*/) {
  static_cast<std::vector<std::string>*>(buf)->push_back(name);
  return 0;
}

int readdir(const char* path, std::vector<std::string>* names, struct fuse_file_info* fi) {
  return VELTFuse::__readdir(path, names, collect, 0, fi, static_cast<enum fuse_readdir_flags>(0));
}

struct Case {
  const char* what;
  int result;
  int expected;
};

void check(const std::vector<Case>& cases) {
  for (const Case& c : cases) EXPECT_EQ(c.result, c.expected) << c.what;
}

TEST(Callbacks, AnswersTheKernelWouldNotPassOn) {
  CardImage card;
  ASSERT_TRUE(card.ok()) << card.error();
  card.mkdir("/dir");
  card.put("/dir/ten.txt", "0123456789");
  CardImage::RootScope scope(card);
  Loaded l = loadCard(card);
  ASSERT_TRUE(l.volume) << l.error;
  VELTFuse::setVolume(l.volume);

  struct fuse_file_info fi = {};
  ASSERT_EQ(VELTFuse::__create("/dir/new.bin", 0644, &fi), 0);
  ASSERT_EQ(VELTFuse::__release("/dir/new.bin", &fi), 0);
  ASSERT_EQ(VELTFuse::__create("/Long Name.txt", 0644, &fi), 0);
  ASSERT_EQ(VELTFuse::__release("/Long Name.txt", &fi), 0);
  ASSERT_EQ(VELTFuse::__mkdir("/dir/sub", 0755), 0);
  struct timespec tv[2] = {{1, 0}, {1, 0}};
  // A name the kernel holds that no longer resolves is stale (ESTALE): the kernel looks it up
  // again and retries once.
  check({
      {"create existing (other case)", VELTFuse::__create("/DIR/NEW.BIN", 0644, &fi), -EEXIST},
      {"create without slash", VELTFuse::__create("nodir", 0644, &fi), -EINVAL},
      {"create in missing dir", VELTFuse::__create("/missing/f", 0644, &fi), -ENOENT},
      {"mkdir without slash", VELTFuse::__mkdir("nodir", 0755), -EINVAL},
      {"mkdir bad name", VELTFuse::__mkdir("/dir/a*b", 0755), -EINVAL},
      {"mkdir existing (other case)", VELTFuse::__mkdir("/DIR", 0755), -EEXIST},
      {"unlink a directory", VELTFuse::__unlink("/dir"), -EINVAL},
      {"unlink the root", VELTFuse::__unlink("/"), -EINVAL},
      {"unlink stale", VELTFuse::__unlink("/dir/none"), -ESTALE},
      {"rmdir a file", VELTFuse::__rmdir("/dir/new.bin"), -EINVAL},
      {"rmdir the root", VELTFuse::__rmdir("/"), -EINVAL},
      {"rmdir stale", VELTFuse::__rmdir("/none"), -ESTALE},
      {"rmdir non-empty", VELTFuse::__rmdir("/dir"), -ENOTEMPTY},
      {"access stale", VELTFuse::__access("/dir/none", F_OK), -ESTALE},
      {"open stale", VELTFuse::__open("/dir/none", &fi), -ESTALE},
      {"utimens stale", VELTFuse::__utimens("/dir/none", tv, nullptr), -ESTALE},
      {"rename into its own subtree", VELTFuse::__rename("/dir", "/dir/sub/dir", 0), -EINVAL},
      {"rename stale", VELTFuse::__rename("/none", "/x", 0), -ESTALE},
      {"rename below a file", VELTFuse::__rename("/dir/ten.txt", "/dir/ten.txt/x", 0), -ENOTDIR},
      {"rename onto its own 8.3 name", VELTFuse::__rename("/Long Name.txt", "/LONGNA~1.TXT", 0),
       0},
      {"rename without replacing",
       VELTFuse::__rename("/dir/ten.txt", "/dir/new.bin", RENAME_NOREPLACE), -EEXIST},
      {"rename exchanging", VELTFuse::__rename("/dir/ten.txt", "/dir/new.bin", RENAME_EXCHANGE),
       -EINVAL},
  });
  struct stat st;
  EXPECT_EQ(VELTFuse::__getattr("/Long Name.txt", &st, nullptr), 0);
  // A subfolder lists its own "." and ".." records once, the root gets them made up.
  for (const char* dir : {"/", "/dir"}) {
    std::vector<std::string> names;
    ASSERT_EQ(VELTFuse::__opendir(dir, &fi), 0);
    EXPECT_EQ(readdir(dir, &names, &fi), 0);
    EXPECT_EQ(VELTFuse::__releasedir(dir, &fi), 0);
    EXPECT_EQ(names, dir[1] == '\0'
                         ? std::vector<std::string>({".", "..", "dir", "Long Name.txt"})
                         : std::vector<std::string>({".", "..", "ten.txt", "new.bin", "sub"}));
  }

  // A released handle: every callback that takes one says so in its own way; handles are
  // never reused.
  ASSERT_EQ(VELTFuse::__open("/dir/ten.txt", &fi), 0);
  ASSERT_EQ(VELTFuse::__release("/dir/ten.txt", &fi), 0);
  char buf[8];
  std::vector<std::string> names;
  check({
      {"read", VELTFuse::__read("/dir/ten.txt", buf, sizeof(buf), 0, &fi), -EBADF},
      {"write", VELTFuse::__write("/dir/ten.txt", "x", 1, 0, &fi), -ENOENT},
      {"flush", VELTFuse::__flush("/dir/ten.txt", &fi), -EBADF},
      {"release", VELTFuse::__release("/dir/ten.txt", &fi), -EBADF},
      {"fsync", VELTFuse::__fsync("/dir/ten.txt", 0, &fi), -EBADF},
      {"releasedir", VELTFuse::__releasedir("/dir", &fi), -EBADF},
      {"readdir", readdir("/dir", &names, &fi), -EBADF},
  });
  struct fuse_file_info again = {};
  ASSERT_EQ(VELTFuse::__open("/dir/ten.txt", &again), 0);
  EXPECT_GT(again.fh, fi.fh);
  EXPECT_EQ(VELTFuse::__release("/dir/ten.txt", &again), 0);
  VELTFuse::setVolume(nullptr);
}

// With no volume (before init, after destroy, after a failed creation) every callback answers
// its no-volume error and touches nothing.
TEST(Callbacks, WithoutAVolumeEachAnswersItsError) {
  VELTFuse::setVolume(nullptr);
  struct stat st;
  struct statvfs vfs;
  struct fuse_file_info fi = {};
  fi.fh = 3;
  char buf[8];
  struct timespec tv[2] = {{1, 0}, {1, 0}};
  std::vector<std::string> names;
  check({
      {"getattr", VELTFuse::__getattr("/", &st, nullptr), -ENODEV},
      {"access", VELTFuse::__access("/", F_OK), -ENODEV},
      {"opendir", VELTFuse::__opendir("/", &fi), -ENODEV},
      {"readdir", readdir("/", &names, &fi), -ENODEV},
      {"releasedir", VELTFuse::__releasedir("/", &fi), -ENODEV},
      {"utimens", VELTFuse::__utimens("/", tv, nullptr), -EINVAL},
      {"open", VELTFuse::__open("/a", &fi), -ENODEV},
      {"read", VELTFuse::__read("/a", buf, sizeof(buf), 0, &fi), -ENODEV},
      {"write", VELTFuse::__write("/a", buf, sizeof(buf), 0, &fi), -EINVAL},
      {"flush", VELTFuse::__flush("/a", &fi), -EINVAL},
      {"release", VELTFuse::__release("/a", &fi), -ENODEV},
      {"fsync", VELTFuse::__fsync("/a", 0, &fi), -ENODEV},
      {"mkdir", VELTFuse::__mkdir("/d", 0755), -ENODEV},
      {"create", VELTFuse::__create("/a", 0644, &fi), -ENODEV},
      {"unlink", VELTFuse::__unlink("/a"), -EINVAL},
      {"rmdir", VELTFuse::__rmdir("/d"), -ENODEV},
      {"rename", VELTFuse::__rename("/a", "/b", 0), -ENODEV},
      {"statfs", VELTFuse::__statfs("/", &vfs), -ENODEV},
      {"chmod", VELTFuse::__chmod("/a", 0644, nullptr), -ENODEV},
      {"truncate", VELTFuse::__truncate("/a", 0, nullptr), -ENODEV},
  });
  EXPECT_TRUE(names.empty());
}

}  // namespace
}  // namespace velt::test
