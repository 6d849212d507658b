// Ordinary tools on a mounted card: cp, diff, mkdir, mv, rm, rmdir, touch, ls, stat, find and
// du, on a plain FAT32 card and on a VELT card; afterwards the card is judged by fsck.fat and
// read back with mtools.
#include <gtest/gtest.h>
#include <sys/stat.h>
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

TEST_P(Tools, CopyTreeInAndOutAndReadItBackWithMtools) {
  SourceTree src(work_.path() + "/src", cluster_);
  std::string copy = mounted_.path("copy");
  mustRun("cp -r " + q(src.root) + " " + q(copy));
  mustRun("cp -r " + q(copy) + " " + q(work_.path() + "/out"));
  mustRun("diff -r " + q(src.root) + " " + q(work_.path() + "/out"));

  // Sizes, modes, distinct inode numbers and block counts as the tools see them.
  std::set<ino_t> inodes;
  int64_t total_allocated = 0;
  for (const auto& [rel, size] : src.files) {
    struct stat st;
    std::string path = copy + "/" + rel;
    ASSERT_EQ(stat(path.c_str(), &st), 0) << rel;
    EXPECT_TRUE(S_ISREG(st.st_mode)) << rel;
    EXPECT_EQ(st.st_mode & 07777, 0777u) << rel;
    EXPECT_EQ(st.st_size, size) << rel;
    EXPECT_EQ(st.st_blocks * 512, allocated(size)) << rel;
    EXPECT_NE(st.st_ino, 0u) << rel;
    EXPECT_TRUE(inodes.insert(st.st_ino).second) << "inode shared: " << rel;
    total_allocated += allocated(size);
  }
  std::string ls = mustRun("LC_ALL=C ls -ln " + q(copy + "/sizes") +
                           " | awk 'NR > 1 { print $1, $2, $3, $4, $5, $9 }'");
  std::string expected_ls;
  for (const auto& [rel, size] : src.files) {
    if (rel.rfind("sizes/", 0) != 0) continue;
    expected_ls += "-rwxrwxrwx 1 0 0 " + std::to_string(size) + " " + rel.substr(6) + "\n";
  }
  EXPECT_EQ(ls, expected_ls);
  std::string dirs = mustRun("ls -ld " + q(copy + "/deep"));
  EXPECT_EQ(dirs.rfind("drwxrwxrwx", 0), 0u) << dirs;

  // find and du walk the whole tree without reporting loops, with the right totals.
  std::string found = mustRun("find " + q(copy) + " -type f | wc -l");
  EXPECT_EQ(std::stoi(found), static_cast<int>(src.files.size()));
  std::string found_dirs = mustRun("find " + q(copy) + " -type d | wc -l");
  // copy, docs, Ünïcødé, collide, sizes, deep, deep/a..e, emptydir
  EXPECT_EQ(std::stoi(found_dirs), 12);
  std::string du = mustRun("du -s -B1 " + q(copy));
  EXPECT_EQ(std::stoll(du), total_allocated) << du;

  // Names come back with their stored spelling; 8.3 forms name the same files.
  std::string listing = mustRun("ls " + q(copy + "/collide"));
  EXPECT_NE(listing.find("LongFileName12.txt\n"), std::string::npos) << listing;
  EXPECT_NE(listing.find("longfilename.TXT\n"), std::string::npos) << listing;
  EXPECT_EQ(readFileBytes(copy + "/DOCS/mixed.case.txt"), "mixed\n");

  mounted_.unmountAndCheck();
  // Another FAT implementation reads the same tree.
  std::string mt = work_.path() + "/mtools";
  fs::create_directories(mt);
  ShellResult r = mounted_.mtools("mcopy -s -n ::/copy " + q(mt));
  ASSERT_EQ(r.status, 0) << r.err;
  // mtools shows characters outside the basic plane as "_", so that one name is left out.
  mustRun("diff -r -x 'note *.bin' " + q(src.root) + " " + q(mt + "/copy"));
}

TEST_P(Tools, MkdirMoveRemoveAndTimesSurviveARemount) {
  mustRun("mkdir -p " + q(mounted_.path("x/y/z")) + " " + q(mounted_.path("x/y/z")));
  writeFile(mounted_.path("x/a.txt"), "AAAA");
  writeFile(mounted_.path("x/y/b.txt"), "BB");
  writeFile(mounted_.path("x/y/z/c.txt"), "C");
  writeFile(mounted_.path("x/y/z/keep.txt"), "keep");

  // Within a directory, across directories, onto an existing file, a whole directory.
  mustRun("mv " + q(mounted_.path("x/a.txt")) + " " + q(mounted_.path("x/renamed.txt")));
  mustRun("mv " + q(mounted_.path("x/renamed.txt")) + " " + q(mounted_.path("x/y/z/")));
  mustRun("mv -f " + q(mounted_.path("x/y/b.txt")) + " " + q(mounted_.path("x/y/z/c.txt")));
  mustRun("mv " + q(mounted_.path("x/y/z")) + " " + q(mounted_.path("moved")));
  EXPECT_EQ(mustRun("ls " + q(mounted_.path("moved"))), "c.txt\nkeep.txt\nrenamed.txt\n");
  EXPECT_EQ(readFileBytes(mounted_.path("moved/c.txt")), "BB");
  EXPECT_EQ(readFileBytes(mounted_.path("moved/renamed.txt")), "AAAA");
  EXPECT_EQ(mustRun("ls -A " + q(mounted_.path("x/y"))), "");
  EXPECT_NE(access(mounted_.path("x/y/z").c_str(), F_OK), 0);

  // A letter-case change is accepted and keeps the stored name.
  mustRun("mv " + q(mounted_.path("moved/keep.txt")) + " " + q(mounted_.path("moved/KEEP.TXT")));
  EXPECT_EQ(mustRun("ls " + q(mounted_.path("moved"))), "c.txt\nkeep.txt\nrenamed.txt\n");

  // A directory never moves into itself (asked directly: mv would refuse on its own).
  errno = 0;
  EXPECT_EQ(rename(mounted_.path("x").c_str(), mounted_.path("x/y/x").c_str()), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(access(mounted_.path("x/y").c_str(), F_OK), 0);
  // Nor to a path whose directory does not exist.
  errno = 0;
  EXPECT_EQ(rename(mounted_.path("moved/keep.txt").c_str(), mounted_.path("nodir/k").c_str()), -1);
  EXPECT_EQ(errno, ENOENT);

  // rmdir refuses a directory that still holds something; rm and rm -r remove.
  ShellResult rmdir = runShell("rmdir " + q(mounted_.path("moved")));
  EXPECT_NE(rmdir.status, 0);
  EXPECT_EQ(access(mounted_.path("moved/c.txt").c_str(), F_OK), 0);
  mustRun("rm " + q(mounted_.path("moved/c.txt")));
  EXPECT_NE(access(mounted_.path("moved/c.txt").c_str(), F_OK), 0);
  mustRun("rmdir " + q(mounted_.path("x/y")));
  mustRun("rm -r " + q(mounted_.path("x")));

  // touch -d sets both times (FAT keeps even seconds, local time).
  mustRun("touch -d '2021-03-04 05:06:08' " + q(mounted_.path("moved/keep.txt")));
  std::string expected = mustRun("date -d '2021-03-04 05:06:08' +%s");
  EXPECT_EQ(mustRun("stat -c %Y " + q(mounted_.path("moved/keep.txt"))), expected);
  mustRun("touch " + q(mounted_.path("moved/new-empty")));
  EXPECT_EQ(mustRun("stat -c %s " + q(mounted_.path("moved/new-empty"))), "0\n");

  mounted_.unmountAndCheck();
  ASSERT_TRUE(mounted_.mount()) << mounted_.error();
  EXPECT_EQ(mustRun("LC_ALL=C ls " + q(mounted_.path())),
            GetParam() == CardKind::kVelt ? "REC\nmoved\n" : "moved\n");
  EXPECT_EQ(mustRun("ls " + q(mounted_.path("moved"))), "keep.txt\nnew-empty\nrenamed.txt\n");
  EXPECT_EQ(mustRun("stat -c %Y " + q(mounted_.path("moved/keep.txt"))), expected);
  EXPECT_EQ(readFileBytes(mounted_.path("moved/renamed.txt")), "AAAA");
  mounted_.unmountAndCheck();

  ShellResult r = mounted_.mtools("mtype ::/moved/renamed.txt");
  EXPECT_EQ(r.out, "AAAA");
  r = mounted_.mtools("mdir -b ::/moved");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("keep.txt"), std::string::npos) << r.out;
  EXPECT_EQ(r.out.find("c.txt"), std::string::npos) << r.out;
}

INSTANTIATE_TEST_SUITE_P(Cards, Tools, ::testing::Values(CardKind::kPlain, CardKind::kVelt),
                         cardKindParamName);

}  // namespace
}  // namespace velt::test
