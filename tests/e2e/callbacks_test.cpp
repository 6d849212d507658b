// The FUSE callbacks called directly on a loaded card, for the answers that the kernel hides or
// changes on a real mount (its own checks run first): exact errno values, listings, handles,
// the library configuration chosen at init.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "card_volume.h"
#include "fs/velt.h"
#include "fs/velt_fuse.h"

namespace velt::test {
namespace {

int collect(void* buf, const char* name, const struct stat* /*st*/, off_t offset,
            enum fuse_fill_dir_flags /*flags*/) {
  EXPECT_EQ(offset, 0);
  static_cast<std::vector<std::string>*>(buf)->push_back(name);
  return 0;
}

class Callbacks : public ::testing::Test {
 protected:
  void SetUp() override {
    CardSpec spec;
    spec.size_mb = 300;
    spec.sectors_per_cluster = 8;  // 4 KiB clusters
    card_ = std::make_unique<CardImage>(spec);
    ASSERT_TRUE(card_->ok()) << card_->error();
    // A read-only file, a folder with a file, made by another FAT implementation.
    card_->mkdir("/dir");
    card_->put("/dir/ten.txt", "0123456789");
    card_->put("/locked.txt", "0123456789");
    ASSERT_EQ(card_->mtools("mattrib +r ::/locked.txt").status, 0);

    scope_ = std::make_unique<CardImage::RootScope>(*card_);
    Loaded l = loadCard(*card_);
    ASSERT_TRUE(l.volume) << l.error;
    VELTFuse::setVolume(l.volume);
  }
  void TearDown() override {
    VELTFuse::setVolume(nullptr);
    scope_.reset();
  }

  std::vector<std::string> list(const char* path) {
    struct fuse_file_info fi = {};
    EXPECT_EQ(VELTFuse::__opendir(path, &fi), 0) << path;
    std::vector<std::string> names;
    EXPECT_EQ(
        VELTFuse::__readdir(path, &names, collect, 0, &fi, static_cast<enum fuse_readdir_flags>(0)),
        0);
    EXPECT_EQ(VELTFuse::__releasedir(path, &fi), 0);
    return names;
  }

  struct stat statOf(const char* path) {
    struct stat st;
    memset(&st, 0xAB, sizeof(st));
    EXPECT_EQ(VELTFuse::__getattr(path, &st, nullptr), 0) << path;
    return st;
  }

  std::unique_ptr<CardImage> card_;
  std::unique_ptr<CardImage::RootScope> scope_;
};

TEST_F(Callbacks, ListingsAndAttributes) {
  EXPECT_EQ(list("/"), (std::vector<std::string>{".", "..", "dir", "locked.txt"}));
  // A subdirectory lists exactly its children, its own "." and ".." records among them.
  EXPECT_EQ(list("/dir"), (std::vector<std::string>{".", "..", "ten.txt"}));

  struct stat st = statOf("/dir/ten.txt");
  EXPECT_EQ(st.st_mode, static_cast<mode_t>(S_IFREG | 0777));
  EXPECT_EQ(st.st_size, 10);
  EXPECT_EQ(st.st_nlink, 1u);
  EXPECT_EQ(st.st_uid, 0u);
  EXPECT_EQ(st.st_blksize, 4096);
  EXPECT_EQ(st.st_blocks, 8);  // one 4 KiB cluster in 512-byte units
  EXPECT_EQ(statOf("/locked.txt").st_mode, static_cast<mode_t>(S_IFREG | 0555));
  st = statOf("/dir");
  EXPECT_EQ(st.st_mode, static_cast<mode_t>(S_IFDIR | 0777));
  EXPECT_EQ(st.st_size, 0);
  EXPECT_EQ(st.st_blocks, 0);
  // Repeated slashes and any letter case name the same entry; so does the 8.3 name.
  EXPECT_EQ(statOf("//DIR//Ten.TXT").st_size, 10);
  EXPECT_EQ(statOf("/dir/TEN.TXT").st_size, 10);
  EXPECT_EQ(VELTFuse::__access("/DIR/ten.txt", W_OK | X_OK), 0);
  // A name the kernel holds that no longer resolves is stale: the kernel looks it up again.
  EXPECT_EQ(VELTFuse::__access("/dir/none", F_OK), -ESTALE);
  struct stat none;
  EXPECT_EQ(VELTFuse::__getattr("/dir/ten.txt/x", &none, nullptr), -ENOENT);
}

TEST_F(Callbacks, FileDataAndHandles) {
  struct fuse_file_info fi = {};
  ASSERT_EQ(VELTFuse::__open("/dir/ten.txt", &fi), 0);
  EXPECT_GE(fi.fh, 3u);
  char buf[32];
  EXPECT_EQ(VELTFuse::__read("/dir/ten.txt", buf, sizeof(buf), 7, &fi), 3);
  EXPECT_EQ(std::string(buf, 3), "789");
  EXPECT_EQ(VELTFuse::__read("/dir/ten.txt", buf, sizeof(buf), 10, &fi), 0);
  EXPECT_EQ(VELTFuse::__read("/dir/ten.txt", buf, sizeof(buf), 4096, &fi), 0);
  // A write beyond the end extends the file.
  EXPECT_EQ(VELTFuse::__write("/dir/ten.txt", "AB", 2, 5000, &fi), 2);
  EXPECT_EQ(statOf("/dir/ten.txt").st_size, 5002);
  EXPECT_EQ(statOf("/dir/ten.txt").st_blocks, 16);
  EXPECT_EQ(VELTFuse::__fsync("/dir/ten.txt", 0, &fi), 0);
  EXPECT_EQ(VELTFuse::__flush("/dir/ten.txt", &fi), 0);
  EXPECT_EQ(VELTFuse::__release("/dir/ten.txt", &fi), 0);

  // The handle is gone: every callback that takes one says so in its own way.
  EXPECT_EQ(VELTFuse::__read("/dir/ten.txt", buf, sizeof(buf), 0, &fi), -EBADF);
  EXPECT_EQ(VELTFuse::__write("/dir/ten.txt", "x", 1, 0, &fi), -ENOENT);
  EXPECT_EQ(VELTFuse::__flush("/dir/ten.txt", &fi), -EBADF);
  EXPECT_EQ(VELTFuse::__release("/dir/ten.txt", &fi), -EBADF);
  EXPECT_EQ(VELTFuse::__releasedir("/dir", &fi), -EBADF);
  std::vector<std::string> names;
  EXPECT_EQ(
      VELTFuse::__readdir("/dir", &names, collect, 0, &fi, static_cast<enum fuse_readdir_flags>(0)),
      -EBADF);

  // Handles are never reused.
  struct fuse_file_info again = {};
  ASSERT_EQ(VELTFuse::__open("/dir/ten.txt", &again), 0);
  EXPECT_GT(again.fh, fi.fh);
  EXPECT_EQ(VELTFuse::__release("/dir/ten.txt", &again), 0);
  EXPECT_EQ(VELTFuse::__open("/dir/none", &again), -ESTALE);
}

TEST_F(Callbacks, CreateMkdirUnlinkRmdirAnswers) {
  struct fuse_file_info fi = {};
  ASSERT_EQ(VELTFuse::__create("/dir/new.bin", 0644, &fi), 0);
  EXPECT_EQ(VELTFuse::__write("/dir/new.bin", "hello", 5, 0, &fi), 5);
  EXPECT_EQ(VELTFuse::__release("/dir/new.bin", &fi), 0);
  EXPECT_EQ(statOf("/dir/new.bin").st_size, 5);

  struct Case {
    const char* what;
    int result;
    int expected;
  } cases[] = {
      {"create existing (other case)", VELTFuse::__create("/DIR/NEW.BIN", 0644, &fi), -EEXIST},
      {"create without slash", VELTFuse::__create("nodir", 0644, &fi), -EINVAL},
      {"create in missing dir", VELTFuse::__create("/missing/f", 0644, &fi), -ENOENT},
      {"mkdir without slash", VELTFuse::__mkdir("nodir", 0755), -EINVAL},
      {"mkdir in missing dir", VELTFuse::__mkdir("/missing/d", 0755), -ENOENT},
      {"mkdir bad name", VELTFuse::__mkdir("/dir/a*b", 0755), -EINVAL},
      {"mkdir existing (other case)", VELTFuse::__mkdir("/DIR", 0755), -EEXIST},
      {"unlink a directory", VELTFuse::__unlink("/dir"), -EINVAL},
      {"unlink the root", VELTFuse::__unlink("/"), -EINVAL},
      {"unlink missing", VELTFuse::__unlink("/dir/none"), -ESTALE},
      {"rmdir a file", VELTFuse::__rmdir("/dir/new.bin"), -EINVAL},
      {"rmdir the root", VELTFuse::__rmdir("/"), -EINVAL},
      {"rmdir missing", VELTFuse::__rmdir("/none"), -ESTALE},
      {"rmdir non-empty", VELTFuse::__rmdir("/dir"), -ENOTEMPTY},
  };
  for (const Case& c : cases) EXPECT_EQ(c.result, c.expected) << c.what;

  ASSERT_EQ(VELTFuse::__mkdir("/dir/sub", 0755), 0);
  EXPECT_EQ(list("/dir"), (std::vector<std::string>{".", "..", "ten.txt", "new.bin", "sub"}));
  EXPECT_EQ(VELTFuse::__unlink("/dir/new.bin"), 0);
  EXPECT_EQ(VELTFuse::__rmdir("/dir/sub"), 0);
  EXPECT_EQ(list("/dir"), (std::vector<std::string>{".", "..", "ten.txt"}));
}

TEST_F(Callbacks, RenameRules) {
  ASSERT_EQ(VELTFuse::__mkdir("/dir/sub", 0755), 0);
  struct fuse_file_info fi = {};
  ASSERT_EQ(VELTFuse::__create("/Target.TXT", 0644, &fi), 0);
  ASSERT_EQ(VELTFuse::__release("/Target.TXT", &fi), 0);
  ASSERT_EQ(VELTFuse::__create("/Long Name.txt", 0644, &fi), 0);
  ASSERT_EQ(VELTFuse::__release("/Long Name.txt", &fi), 0);

  struct Case {
    const char* from;
    const char* to;
    unsigned flags;
    int expected;
  } cases[] = {
      {"/dir", "/dir/sub/dir", 0, -EINVAL},           // into its own subtree
      {"/dir/ten.txt", "/DIR/TEN.TXT", 0, 0},         // letter case only: renamed
      {"/dir/ten.txt", "/none/ten.txt", 0, -ENOENT},  // missing intermediate directory
      {"/none", "/x", 0, -ESTALE},
      {"/dir/ten.txt", "/dir/ten.txt/x", 0, -ENOTDIR},  // below a file
      {"/Long Name.txt", "/LONGNA~1.TXT", 0, 0},  // the source's own short name: nothing
      {"/dir/ten.txt", "/Target.txt", RENAME_NOREPLACE, -EEXIST},
      {"/dir/ten.txt", "/Target.txt", RENAME_EXCHANGE, -EINVAL},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(VELTFuse::__rename(c.from, c.to, c.flags), c.expected) << c.from << " " << c.to;
  }
  EXPECT_EQ(list("/dir"), (std::vector<std::string>{".", "..", "sub", "TEN.TXT"}));

  // Onto an existing file: it is replaced, and its stored spelling stays.
  ASSERT_EQ(VELTFuse::__rename("/dir/ten.txt", "/target.txt", 0), 0);
  EXPECT_EQ(list("/"), (std::vector<std::string>{".", "..", "dir", "locked.txt", "Long Name.txt",
                                                 "Target.TXT"}));
  EXPECT_EQ(statOf("/Target.TXT").st_size, 10);
  // A directory moves with what it holds.
  ASSERT_EQ(VELTFuse::__rename("/dir/sub", "/moved", 0), 0);
  EXPECT_EQ(statOf("/moved").st_mode & S_IFMT, static_cast<mode_t>(S_IFDIR));
  EXPECT_EQ(list("/dir"), (std::vector<std::string>{".", ".."}));
}

TEST_F(Callbacks, UtimensStoresGivenTimesAndNowForZero) {
  struct timespec tv[2] = {{1600000000, 0}, {1500000000, 0}};
  ASSERT_EQ(VELTFuse::__utimens("/dir/ten.txt", tv, nullptr), 0);
  struct stat st = statOf("/dir/ten.txt");
  EXPECT_NEAR(static_cast<double>(st.st_mtime), 1500000000.0, 2.0);
  // The access time is kept as a date.
  EXPECT_NEAR(static_cast<double>(st.st_atime), 1600000000.0, 86400.0);

  time_t before = time(nullptr);
  struct timespec zero[2] = {{0, 0}, {0, 0}};
  ASSERT_EQ(VELTFuse::__utimens("/dir/ten.txt", zero, nullptr), 0);
  EXPECT_GE(statOf("/dir/ten.txt").st_mtime + 2, before);
  EXPECT_EQ(VELTFuse::__utimens("/dir/none", tv, nullptr), -ESTALE);
}

TEST_F(Callbacks, InitConfiguresTheLibraryAndDestroyDropsTheVolume) {
  VELTFuse::setVolume(nullptr);
  char device[] = "/dev/mmcblk0p1";
  char mount[] = "/mnt/somewhere";
  VELTFuse::options_.device_path = device;
  VELTFuse::options_.mount_path = mount;
  struct fuse_config cfg;
  memset(&cfg, 0x5A, sizeof(cfg));
  void* private_data = VELTFuse::__init(nullptr, &cfg);
  VELTFuse::options_ = VELTOptions();
  ASSERT_NE(private_data, nullptr);
  EXPECT_EQ(private_data, VELTFuse::volume().get());
  EXPECT_EQ(VELTFuse::volume()->mount_point_, "/mnt/somewhere");
  EXPECT_EQ(cfg.use_ino, 1);  // the entries' own inode numbers
  EXPECT_EQ(cfg.hard_remove, 1);
  EXPECT_EQ(cfg.direct_io, 1);
  EXPECT_EQ(cfg.kernel_cache, 0);
  EXPECT_EQ(cfg.nullpath_ok, 0);
  // Names and attributes are cached briefly; absent names never (the channel creates files).
  EXPECT_GT(cfg.entry_timeout, 0.0);
  EXPECT_EQ(cfg.negative_timeout, 0.0);
  EXPECT_GT(cfg.attr_timeout, 0.0);
  EXPECT_EQ(statOf("/dir/ten.txt").st_size, 10);

  VELTFuse::__destroy(private_data);
  EXPECT_EQ(VELTFuse::volume(), nullptr);
  struct stat st;
  EXPECT_EQ(VELTFuse::__getattr("/dir", &st, nullptr), -ENODEV);
}

// With no volume (before init, after destroy, after a failed creation) every callback answers
// its no-volume error and touches nothing.
TEST(CallbacksWithoutVolume, AnswerTheirNoVolumeError) {
  VELTFuse::setVolume(nullptr);
  struct stat st;
  struct fuse_file_info fi = {};
  fi.fh = 3;
  char buf[8];
  struct timespec tv[2] = {{1, 0}, {1, 0}};
  std::vector<std::string> names;
  struct Case {
    const char* callback;
    int result;
    int expected;
  } cases[] = {
      {"getattr", VELTFuse::__getattr("/", &st, nullptr), -ENODEV},
      {"access", VELTFuse::__access("/", F_OK), -ENODEV},
      {"opendir", VELTFuse::__opendir("/", &fi), -ENODEV},
      {"readdir",
       VELTFuse::__readdir("/", &names, collect, 0, &fi, static_cast<enum fuse_readdir_flags>(0)),
       -ENODEV},
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
  };
  for (const Case& c : cases) EXPECT_EQ(c.result, c.expected) << c.callback;
  EXPECT_TRUE(names.empty());
}

TEST(CallbacksTable, EveryOperationIsWiredAndNothingElse) {
  const struct fuse_operations& ops = VELTFuse::operations();
  EXPECT_TRUE(ops.getattr && ops.mkdir && ops.unlink && ops.rmdir && ops.rename && ops.open &&
              ops.read && ops.write && ops.flush && ops.release && ops.fsync && ops.opendir &&
              ops.readdir && ops.releasedir && ops.init && ops.destroy && ops.access &&
              ops.create && ops.utimens && ops.ioctl && ops.statfs && ops.chmod && ops.chown &&
              ops.truncate && ops.fallocate);
  EXPECT_FALSE(ops.readlink || ops.mknod || ops.symlink || ops.link || ops.setxattr ||
               ops.getxattr || ops.listxattr || ops.removexattr || ops.fsyncdir || ops.lock ||
               ops.bmap || ops.poll || ops.write_buf || ops.read_buf || ops.flock);
}

}  // namespace
}  // namespace velt::test
