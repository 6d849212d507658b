// Ordinary tools on a mounted card: cp, cp -a, rsync, tar, git, sqlite3, df, diff, ls, stat,
// find and du, on a plain FAT32 card and on a VELT card; afterwards the card is judged by
// fsck.fat and read back with mtools.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "daemon_runner.h"
#include "e2e_card.h"

namespace velt::test {
namespace {

namespace fs = std::filesystem;

std::string q(const std::string& s) {
  return shellQuote(s);
}

void writeFile(const std::string& path, const std::string& data) {
  fs::create_directories(fs::path(path).parent_path());
  writeFileBytes(path, data);
}

// Runs a shell command that must succeed without a word on standard error.
std::string mustRun(const std::string& command) {
  ShellResult r = runShell(command);
  EXPECT_EQ(r.status, 0) << command << "\n" << r.out << r.err;
  EXPECT_EQ(r.err, "") << command;
  return r.out;
}

// The source tree: names that need long-name records, non-ASCII names (one outside the basic
// plane), names whose 8.3 forms collide, and sizes around the cluster boundaries.
struct SourceTree {
  explicit SourceTree(const std::string& root, int64_t cluster) : root(root) {
    auto add = [&](const std::string& rel, std::string data) {
      writeFile(root + "/" + rel, data);
      files[rel] = static_cast<int64_t>(data.size());
    };
    add("docs/Readme.md", "read me\n");
    add("docs/a file name long enough to need many long-name records, 100 characters.txt",
        patternBytes(5000, 1));
    add("docs/MiXeD.CaSe.TxT", "mixed\n");
    add("Ünïcødé/файл.txt", patternBytes(3000, 2));
    add("Ünïcødé/日本語のファイル.dat", patternBytes(700, 3));
    add("Ünïcødé/note 🎵.bin", patternBytes(90, 4));
    for (int i = 1; i <= 12; ++i) {
      add("collide/LongFileName" + std::to_string(i) + ".txt", "n" + std::to_string(i) + "\n");
    }
    add("collide/longfilename.TXT", "lower\n");
    add("collide/long file name.txt", "spaces\n");
    add("sizes/empty", "");
    add("sizes/one", "x");
    add("sizes/cluster-1", patternBytes(cluster - 1, 5));
    add("sizes/cluster", patternBytes(cluster, 6));
    add("sizes/cluster+1", patternBytes(cluster + 1, 7));
    add("sizes/big", patternBytes((1 << 20) + 7, 8));
    add("deep/a/b/c/d/e/leaf.txt", "deep\n");
    fs::create_directories(root + "/emptydir");
  }
  std::string root;
  std::map<std::string, int64_t> files;  // relative path -> size
};

class Tools : public ::testing::TestWithParam<CardKind> {
 protected:
  void SetUp() override {
    ASSERT_TRUE(mounted_.start(GetParam())) << mounted_.error();
    // A directory's st_blksize is the cluster length.
    struct stat st;
    ASSERT_EQ(stat(mounted_.path().c_str(), &st), 0);
    cluster_ = st.st_blksize;
    ASSERT_GE(cluster_, 512);
  }
  void TearDown() override {
    if (mounted_.daemon().running()) mounted_.unmountAndCheck();
  }

  int64_t allocated(int64_t size) const { return (size + cluster_ - 1) / cluster_ * cluster_; }

  MountedCard mounted_;
  TempDir work_;
  int64_t cluster_ = 0;
};

// The tools people copy, sync, unpack and keep data with: each exits 0 without a complaint and
// leaves a copy identical to its source; the copies look right to ls, stat, find and du, and
// another FAT implementation reads them back.
TEST_P(Tools, CopySyncUnpackCloneAndKeepADatabase) {
  SourceTree src(work_.path() + "/src", cluster_);
  // Modes and times of every kind, as the tools will try to carry them over.
  mustRun("chmod 0600 " + q(src.root + "/docs/Readme.md") + " && chmod 0444 " +
          q(src.root + "/sizes/one") + " && chmod 0700 " + q(src.root + "/deep") +
          " && touch -d '2019-07-01 10:11:13' " + q(src.root + "/sizes/big"));

  // cp -a, and rsync -a twice: the second run has nothing left to send. FAT keeps write times
  // to 2 seconds, which rsync is told as it is for any FAT card.
  const std::string copy = mounted_.path("copy");
  mustRun("cp -a " + q(src.root) + " " + q(copy));
  mustRun("diff -r " + q(src.root) + " " + q(copy));
  const std::string rsync = "rsync -a --modify-window=1 --stats " + q(src.root + "/") + " " +
                            q(mounted_.path("rs") + "/");
  mustRun(rsync);
  std::string again = mustRun(rsync);
  EXPECT_NE(again.find("Number of regular files transferred: 0"), std::string::npos) << again;
  mustRun("diff -r " + q(src.root) + " " + q(mounted_.path("rs")));

  // Sizes, modes (the owner-write bit is the read-only attribute), distinct inode numbers and
  // block counts as the tools see them.
  std::set<ino_t> inodes;
  int64_t total_allocated = 0;
  for (const auto& [rel, size] : src.files) {
    struct stat st;
    ASSERT_EQ(stat((copy + "/" + rel).c_str(), &st), 0) << rel;
    EXPECT_TRUE(S_ISREG(st.st_mode)) << rel;
    EXPECT_EQ(st.st_mode & 07777, rel == "sizes/one" ? 0555u : 0777u) << rel;
    EXPECT_EQ(st.st_size, size) << rel;
    EXPECT_EQ(st.st_blocks * 512, allocated(size)) << rel;
    EXPECT_TRUE(inodes.insert(st.st_ino).second) << "inode shared: " << rel;
    total_allocated += allocated(size);
  }
  std::string ls = mustRun("LC_ALL=C ls -ln " + q(copy + "/sizes/empty"));
  EXPECT_EQ(ls.rfind("-rwxrwxrwx 1 0 0 0 ", 0), 0u) << ls;
  // find and du walk the whole tree without reporting loops, with the right totals.
  EXPECT_EQ(std::stoi(mustRun("find " + q(copy) + " -type f | wc -l")),
            static_cast<int>(src.files.size()));
  // copy, docs, Ünïcødé, collide, sizes, deep, deep/a..e, emptydir
  EXPECT_EQ(std::stoi(mustRun("find " + q(copy) + " -type d | wc -l")), 12);
  EXPECT_EQ(std::stoll(mustRun("du -s -B1 " + q(copy))), total_allocated);
  // Names come back with their stored spelling; 8.3 forms name the same files.
  std::string listing = mustRun("ls " + q(copy + "/collide"));
  EXPECT_NE(listing.find("LongFileName12.txt\n"), std::string::npos) << listing;
  EXPECT_NE(listing.find("longfilename.TXT\n"), std::string::npos) << listing;
  EXPECT_EQ(readFileBytes(copy + "/DOCS/mixed.case.txt"), "mixed\n");

  // tar x of an archive whose members belong to several owners, with several modes.
  const std::string tar = work_.path() + "/a.tar";
  mustRun("cd " + q(src.root) + " && tar -cf " + q(tar) +
          " --owner=1000 --group=1000 docs && tar -rf " + q(tar) +
          " --owner=0 --group=0 --mode=go-rwx sizes && tar -rf " + q(tar) +
          " --owner=65534 --group=100 deep collide");
  mustRun("mkdir " + q(mounted_.path("untar")) + " && tar -xf " + q(tar) + " -C " +
          q(mounted_.path("untar")));
  for (const char* part : {"docs", "sizes", "deep", "collide"}) {
    mustRun("diff -r " + q(src.root + "/" + part) + " " + q(mounted_.path("untar/") + part));
  }

  // git clone of a local repository, then a clean status.
  const std::string git = "git -c user.name=t -c user.email=t@t -c init.defaultBranch=main ";
  mustRun(git + "init -q " + q(work_.path() + "/repo") + " && cp -r " + q(src.root + "/docs") +
          " " + q(src.root + "/deep") + " " + q(work_.path() + "/repo") + " && cd " +
          q(work_.path() + "/repo") + " && " + git + "add -A && " + git + "commit -qm one");
  mustRun(git + "clone -q " + q(work_.path() + "/repo") + " " + q(mounted_.path("clone")));
  EXPECT_EQ(mustRun("cd " + q(mounted_.path("clone")) + " && " + git + "status --porcelain"), "");
  mustRun("cd " + q(mounted_.path("clone")) + " && " + git + "fsck --no-progress");

  // sqlite3: a table made, filled and read back after a remount.
  const std::string db = mounted_.path("data.sqlite");
  mustRun("sqlite3 " + q(db) + " 'create table t(a integer, b text);" +
          " with recursive c(x) as (select 1 union all select x + 1 from c where x < 2000)" +
          " insert into t select x, hex(randomblob(100)) from c;'");

  // df: the card's real size and free space.
  struct statvfs vfs;
  ASSERT_EQ(statvfs(mounted_.path().c_str(), &vfs), 0);
  std::string df = mustRun("df -B1 --output=size,avail " + q(mounted_.path()) + " | tail -1");
  std::istringstream fields(df);
  int64_t df_size = 0, df_avail = 0;
  fields >> df_size >> df_avail;
  EXPECT_EQ(df_size, static_cast<int64_t>(vfs.f_blocks) * vfs.f_frsize);
  EXPECT_EQ(df_avail, static_cast<int64_t>(vfs.f_bavail) * vfs.f_frsize);

  mounted_.unmountAndCheck();
  // The same numbers as fsck.fat counts them (a VELT card's reserved files are deleted
  // records to fsck.fat, so only a plain card's count of used clusters is comparable).
  auto counts = parseFsckVerbose(mounted_.card().fsck("-n -v").out);
  EXPECT_EQ(static_cast<int64_t>(vfs.f_blocks), counts["data_clusters"]);
  if (GetParam() == CardKind::kPlain) {
    EXPECT_EQ(static_cast<int64_t>(vfs.f_bavail),
              counts["data_clusters"] - counts["used_clusters"]);
  }
  // Another FAT implementation reads the same tree; it shows characters outside the basic
  // plane as "_", so that one name is left out.
  const std::string mt = work_.path() + "/mtools";
  fs::create_directories(mt);
  ShellResult r = mounted_.mtools("mcopy -s -n ::/copy " + q(mt));
  ASSERT_EQ(r.status, 0) << r.err;
  mustRun("diff -r -x 'note *.bin' " + q(src.root) + " " + q(mt + "/copy"));

  ASSERT_TRUE(mounted_.mount()) << mounted_.error();
  EXPECT_EQ(mustRun("sqlite3 " + q(db) + " 'select count(*), sum(a) from t;'"), "2000|2001000\n");
}

INSTANTIATE_TEST_SUITE_P(Cards, Tools, ::testing::Values(CardKind::kPlain, CardKind::kVelt),
                         cardKindParamName);

}  // namespace
}  // namespace velt::test
