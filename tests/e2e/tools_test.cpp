// Ordinary tools on a mounted card, plain and VELT: cp -a, rsync, tar, git and sqlite3 each exit
// 0 without a complaint and leave what they were given; ls, stat, find and statvfs see the right
// modes, sizes, inode numbers and totals; fsck.fat judges the card. (What mtools reads of long
// and non-ASCII names is the integration model's.)
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <filesystem>
#include <map>
#include <set>
#include <string>

#include "e2e_card.h"

namespace velt::test {
namespace {

namespace fs = std::filesystem;

// Runs a shell command that must succeed without a word on standard error.
std::string mustRun(const std::string& command) {
  ShellResult r = runShell(command);
  EXPECT_EQ(r.status, 0) << command << "\n" << r.out << r.err;
  EXPECT_EQ(r.err, "") << command;
  return r.out;
}

class Tools : public ::testing::TestWithParam<CardKind> {};

TEST_P(Tools, CopySyncUnpackCloneAndKeepADatabase) {
  MountedCard card;
  ASSERT_TRUE(card.start(GetParam())) << card.error();
  struct stat st;
  ASSERT_EQ(stat(card.path().c_str(), &st), 0);
  const int64_t cluster = st.st_blksize;  // a folder's st_blksize is the cluster length
  auto allocated = [&](int64_t size) { return (size + cluster - 1) / cluster * cluster; };

  // The source: names that need many long-name records, non-ASCII names (one outside the
  // basic plane), names whose 8.3 forms collide, and sizes around the cluster boundaries.
  TempDir work;
  const std::string src = work.path() + "/src";
  std::map<std::string, int64_t> files;  // relative path -> size
  auto add = [&](const std::string& rel, const std::string& data) {
    fs::create_directories(fs::path(src + "/" + rel).parent_path());
    writeFileBytes(src + "/" + rel, data);
    files[rel] = static_cast<int64_t>(data.size());
  };
  add("docs/Readme.md", "read me\n");
  add("docs/a file name long enough to need many long-name records, 100 characters.txt",
      patternBytes(5000, 1));
  add("docs/MiXeD.CaSe.TxT", "mixed\n");
  add("Ünïcødé/файл.txt", patternBytes(3000, 2));
  add("Ünïcødé/日本語のファイル.dat", patternBytes(700, 3));
  add("Ünïcødé/note 🎵.bin", patternBytes(90, 4));
  for (int i = 1; i <= 12; ++i) add("collide/LongFileName" + std::to_string(i) + ".txt", "n");
  add("collide/longfilename.TXT", "lower\n");
  add("collide/long file name.txt", "spaces\n");
  for (int64_t size :
       {int64_t{0}, int64_t{1}, cluster - 1, cluster, cluster + 1, int64_t{1 << 20}}) {
    add("sizes/" + std::to_string(size), patternBytes(static_cast<size_t>(size), 5));
  }
  add("deep/a/b/c/d/e/leaf.txt", "deep\n");
  fs::create_directories(src + "/emptydir");
  // Modes and times of every kind, as the tools will try to carry them over.
  mustRun("chmod 0600 " + q(src + "/docs/Readme.md") + " && chmod 0444 " + q(src + "/sizes/1") +
          " && chmod 0700 " + q(src + "/deep") + " && touch -d '2019-07-01 10:11:13' " +
          q(src + "/sizes/1048576"));

  // cp -a, and rsync -a twice (FAT keeps write times to 2 s): the second has nothing to send.
  const std::string copy = card.path("copy");
  mustRun("cp -a " + q(src) + " " + q(copy) + " && diff -r " + q(src) + " " + q(copy));
  const std::string rsync =
      "rsync -a --modify-window=1 --stats " + q(src + "/") + " " + q(card.path("rs") + "/");
  mustRun(rsync);
  std::string again = mustRun(rsync);
  EXPECT_NE(again.find("Number of regular files transferred: 0"), std::string::npos) << again;
  mustRun("diff -r " + q(src) + " " + q(card.path("rs")));

  // Sizes, modes (the owner-write bit is the read-only attribute), inode numbers and blocks.
  std::set<ino_t> inodes;
  for (const auto& [rel, size] : files) {
    ASSERT_EQ(stat((copy + "/" + rel).c_str(), &st), 0) << rel;
    EXPECT_EQ(st.st_mode, S_IFREG | (rel == "sizes/1" ? 0555u : 0777u)) << rel;
    EXPECT_EQ(st.st_size, size) << rel;
    EXPECT_EQ(st.st_blocks * 512, allocated(size)) << rel;
    EXPECT_TRUE(inodes.insert(st.st_ino).second) << "inode shared: " << rel;
  }
  EXPECT_EQ(mustRun("LC_ALL=C ls -ln " + q(copy + "/sizes/0")).rfind("-rwxrwxrwx 1 0 0 0 ", 0), 0u);
  // find walks the tree without reporting loops: copy, docs, Ünïcødé, collide, sizes, deep,
  // deep/a..e, emptydir.
  EXPECT_EQ(std::stoi(mustRun("find " + q(copy) + " -type f | wc -l")), int(files.size()));
  EXPECT_EQ(std::stoi(mustRun("find " + q(copy) + " -type d | wc -l")), 12);
  // Names come back with their stored spelling; 8.3 forms name the same files.
  std::string listing = mustRun("ls " + q(copy + "/collide"));
  EXPECT_NE(listing.find("LongFileName12.txt\n"), std::string::npos) << listing;
  EXPECT_NE(listing.find("longfilename.TXT\n"), std::string::npos) << listing;
  EXPECT_EQ(readFileBytes(copy + "/DOCS/mixed.case.txt"), "mixed\n");
  EXPECT_TRUE(readFileBytes(copy + "/docs/AFILEN~1.TXT") == patternBytes(5000, 1));

  // tar x of members of several owners and modes.
  const std::string tar = work.path() + "/a.tar";
  mustRun("cd " + q(src) + " && tar -cf " + q(tar) + " --owner=1000 --group=1000 docs && tar -rf " +
          q(tar) + " --owner=0 --group=0 --mode=go-rwx sizes && tar -rf " + q(tar) +
          " --owner=65534 --group=100 deep collide && mkdir " + q(card.path("untar")) +
          " && tar -xf " + q(tar) + " -C " + q(card.path("untar")));
  for (const char* part : {"docs", "sizes", "deep", "collide"}) {
    mustRun("diff -r " + q(src + "/" + part) + " " + q(card.path("untar/") + part));
  }

  // git clone of a local repository, then a clean status and fsck.
  const std::string git = "git -c user.name=t -c user.email=t@t -c init.defaultBranch=main ";
  const std::string repo = work.path() + "/repo", clone = card.path("clone");
  mustRun(git + "init -q " + q(repo) + " && cp -r " + q(src + "/docs") + " " + q(src + "/deep") +
          " " + q(repo) + " && cd " + q(repo) + " && " + git + "add -A && " + git + "commit -qm 1");
  mustRun(git + "clone -q " + q(repo) + " " + q(clone));
  EXPECT_EQ(mustRun("cd " + q(clone) + " && " + git + "status --porcelain && " + git +
                    "fsck --no-progress"),
            "");

  // sqlite3: a table made and filled, read back after a remount.
  const std::string db = card.path("data.sqlite");
  mustRun("sqlite3 " + q(db) + " 'create table t(a integer, b text);" +
          " with recursive c(x) as (select 1 union all select x + 1 from c where x < 2000)" +
          " insert into t select x, hex(randomblob(100)) from c;'");

  // statvfs: the card's size and free space as fsck.fat counts them after unmounting (a VELT
  // card's reserved files are deleted records to fsck.fat: only a plain card's free count).
  struct statvfs vfs;
  ASSERT_EQ(statvfs(card.path().c_str(), &vfs), 0);
  EXPECT_EQ(static_cast<int64_t>(vfs.f_frsize), cluster);
  card.unmountAndCheck();
  auto counts = parseFsckVerbose(card.card().fsck("-n -v").out);
  EXPECT_EQ(static_cast<int64_t>(vfs.f_blocks), counts["data_clusters"]);
  if (GetParam() == CardKind::kPlain) {
    EXPECT_EQ(static_cast<int64_t>(vfs.f_bavail),
              counts["data_clusters"] - counts["used_clusters"]);
  }
  ASSERT_TRUE(card.mount()) << card.error();
  EXPECT_EQ(mustRun("sqlite3 " + q(db) + " 'select count(*), sum(a) from t;'"), "2000|2001000\n");
  card.unmount();
}

INSTANTIATE_TEST_SUITE_P(Cards, Tools, ::testing::Values(CardKind::kPlain, CardKind::kVelt),
                         cardKindParamName);

}  // namespace
}  // namespace velt::test
