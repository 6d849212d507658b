// Cards filled by mtools, loaded through VELT::create: the tree, the names, the sizes and the
// contents the library reads must be what the tools put there.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "card_volume.h"
#include "fs/velt.h"
#include "fs/velt_dirent.h"
#include "fs/velt_file.h"

using velt::test::CardImage;
using velt::test::CardSpec;
using velt::test::shellQuote;
using Entry = velt::VELT::DirEntry;

namespace {

// What a card should hold: folders and files by path.
struct Layout {
  std::set<std::string> dirs{"/"};
  std::map<std::string, std::string> files;
};

class Filler {
 public:
  explicit Filler(const CardImage& card) : card_(card) {}
  void mkdir(Layout& l, const std::string& path) {
    card_.mkdir(path);
    l.dirs.insert(path);
  }
  void put(Layout& l, const std::string& path, const std::string& bytes) {
    card_.put(path, bytes);
    l.files[path] = bytes;
  }
  void del(Layout& l, const std::string& path) {
    card_.del(path);
    l.files.erase(path);
  }
  void rewindAllocationHint() { card_.rewindAllocationHint(); }

 private:
  const CardImage& card_;
};

std::string parentOf(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == 0 ? "/" : path.substr(0, slash);
}
std::string leafOf(const std::string& path) {
  return path.substr(path.rfind('/') + 1);
}

std::string readAll(velt::VELT& v, const std::shared_ptr<Entry>& e) {
  auto file = v.newFile(false, false, false, e);
  if (file == nullptr) return "<no file>";
  std::string out(static_cast<size_t>(e->size_), '\0');
  int got = file->read(out.data(), out.size(), 0);
  file->close();
  if (got < 0) return "<read error " + std::to_string(got) + ">";
  out.resize(static_cast<size_t>(got));
  return out;
}

// Checks every folder's children and every file's size and bytes.
void expectLayout(velt::VELT& v, const Layout& l) {
  for (const auto& dir : l.dirs) {
    SCOPED_TRACE("folder " + dir);
    auto e = v.findEntry(dir.c_str());
    ASSERT_NE(e, nullptr);
    EXPECT_TRUE(e->isDir());
    std::set<std::string> want;
    for (const auto& d : l.dirs) {
      if (d != "/" && parentOf(d) == dir) want.insert(leafOf(d));
    }
    for (const auto& [f, bytes] : l.files) {
      if (parentOf(f) == dir) want.insert(leafOf(f));
    }
    std::set<std::string> got;
    std::lock_guard lock(e->children_mutex_);
    for (const auto& c : e->children_) {
      if (!c->isDotEntry() && !c->is_volume_) got.insert(c->name_);
    }
    EXPECT_EQ(got, want);
  }
  for (const auto& [path, bytes] : l.files) {
    SCOPED_TRACE("file " + path);
    auto e = v.findEntry(path.c_str());
    ASSERT_NE(e, nullptr);
    EXPECT_TRUE(e->isArchive());
    EXPECT_EQ(e->size_, static_cast<int64_t>(bytes.size()));
    EXPECT_TRUE(readAll(v, e) == bytes) << "contents differ";
  }
}

}  // namespace

TEST(VolumeTree, WhatTheToolsWroteIsWhatTheLibraryReads) {
  struct Geometry {
    int64_t size_mb;
    int spc;
  } geometries[] = {{64, 1}, {300, 8}};
  for (const auto& g : geometries) {
    SCOPED_TRACE("sectors per cluster " + std::to_string(g.spc));
    CardSpec spec;
    spec.size_mb = g.size_mb;
    spec.sectors_per_cluster = g.spc;
    CardImage card(spec);
    ASSERT_TRUE(card.ok()) << card.error();
    const size_t cl = 512u * g.spc;
    Layout l;
    Filler fill(card);
    fill.mkdir(l, "/a");
    fill.mkdir(l, "/a/b");
    fill.mkdir(l, "/a/b/c");
    fill.mkdir(l, "/a/b/c/d");
    fill.mkdir(l, "/Ünïcödé Ördner");
    fill.mkdir(l, "/A folder with a long name and spaces");
    fill.mkdir(l, "/empty folder");
    fill.put(l, "/empty.txt", "");
    fill.put(l, "/a/one.bin", "x");
    fill.put(l, "/a/b/cluster.bin", velt::test::patternBytes(cl, 1));
    fill.put(l, "/a/b/c/d/cluster+1.bin", velt::test::patternBytes(cl + 1, 2));
    fill.put(l, "/a/b/c/d/cluster-1.bin", velt::test::patternBytes(cl - 1, 3));
    fill.put(l, "/README.TXT", velt::test::patternBytes(100, 4));
    fill.put(l, "/lower.txt", velt::test::patternBytes(700, 5));
    fill.put(l, "/Ünïcödé Ördner/日本語のファイル名.dat", velt::test::patternBytes(3 * cl + 17, 6));
    fill.put(l, "/Ünïcödé Ördner/Größe €.txt", velt::test::patternBytes(20, 7));
    fill.put(l,
             "/A folder with a long name and spaces/"
             "a very long file name that needs many long-name records, more than ten of them, "
             "to be stored 0123456789.txt",
             velt::test::patternBytes(5000, 8));
    fill.put(l, "/a/b/c/d/.hidden", velt::test::patternBytes(3, 9));
    // A folder whose records fill several clusters.
    fill.mkdir(l, "/many");
    for (int i = 0; i < 40; ++i) {
      fill.put(l, "/many/file number " + std::to_string(i) + ".dat",
               velt::test::patternBytes(i * 37, 100 + i));
    }
    // Fragmented files: holes left by deleted files, refilled once the hint points back.
    fill.mkdir(l, "/frag");
    for (int i = 0; i < 6; ++i) {
      fill.put(l, "/frag/piece" + std::to_string(i), velt::test::patternBytes(3 * cl, 200 + i));
    }
    for (int i = 1; i < 6; i += 2) fill.del(l, "/frag/piece" + std::to_string(i));
    fill.rewindAllocationHint();
    fill.put(l, "/frag/spread.bin", velt::test::patternBytes(10 * cl + 123, 300));
    fill.del(l, "/frag/piece2");
    fill.rewindAllocationHint();
    fill.put(l, "/frag/rewritten.bin", velt::test::patternBytes(4 * cl + 1, 301));
    ASSERT_EQ(card.fsck().status, 0) << card.fsck().out;

    velt::test::Loaded loaded = velt::test::loadCard(card);
    ASSERT_EQ(loaded.error, 0) << loaded.log;
    auto v = std::move(loaded.volume);
    expectLayout(*v, l);

    // The fragmented files really are in several pieces.
    EXPECT_GE(velt::test::clusterRuns(*v->findEntry("/frag/spread.bin")), 3);
    EXPECT_GE(velt::test::clusterRuns(*v->findEntry("/frag/rewritten.bin")), 2);
    // Names resolve in any letter case; short names too.
    EXPECT_EQ(v->findEntry("/A/B/C/D/CLUSTER+1.BIN"), v->findEntry("/a/b/c/d/cluster+1.bin"));
    EXPECT_EQ(v->findEntry("/readme.txt"), v->findEntry("/README.TXT"));
    auto lower = v->findEntry("/lower.txt");
    ASSERT_NE(lower, nullptr);
    EXPECT_EQ(v->findEntry(("/" + lower->short_name_).c_str()), lower);
    EXPECT_EQ(v->findEntry("/lower.txt/x"), nullptr);
    std::list<std::string> root_files;
    EXPECT_EQ(v->listRootFiles(root_files), 3);

    // Loading left nothing for the tools to complain about.
    v.reset();
    auto fsck = card.fsck();
    EXPECT_EQ(fsck.status, 0) << fsck.out;
  }
}

TEST(VolumeMount, ExclusiveLoadTakesAnExistingMountAway) {
  // In a private mount namespace of a child process, so that nothing outside sees the mount:
  // a tmpfs listed under the card's device path stands for a mount of the partition.
  CardImage card(CardSpec{64, 1, 1, "", true});
  ASSERT_TRUE(card.ok()) << card.error();
  std::string where = card.dir() + "/mnt";
  ASSERT_EQ(mkdir(where.c_str(), 0700), 0);
  pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    if (unshare(CLONE_NEWNS) != 0) _exit(90);
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) _exit(91);
    auto listed = [&] {
      velt::VELT probe(card.devicePath(), 1, velt::kVELTOpMount, 0);
      return probe.findMountedPoint() == 1 && probe.mount_point_ == where;
    };
    for (int round = 0; round < 2; ++round) {
      if (mount(card.devicePath().c_str(), where.c_str(), "tmpfs", 0, nullptr) != 0) _exit(92);
      if (!listed()) _exit(93);
      if (round == 0) {
        velt::VELT v(card.devicePath(), 1, velt::kVELTOpMount, 0);
        if (v.umount() != 0) _exit(94);
      } else {
        CardImage::RootScope scope(card);
        int error = -100;
        auto v = velt::VELT::create(card.devicePath(), 0, velt::kVELTOpExclusive, 0, &error);
        if (v != nullptr || error != velt::kVELTNotVELT) _exit(95);
      }
      if (listed()) _exit(96 + round);
    }
    velt::VELT v(card.devicePath(), 1, velt::kVELTOpMount, 0);
    _exit(v.umount() == 0 ? 0 : 98);  // nothing mounted: nothing to do
  }
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status));
  if (WEXITSTATUS(status) == 90 || WEXITSTATUS(status) == 91 || WEXITSTATUS(status) == 92) {
    GTEST_SKIP() << "no private mount namespace here";
  }
  EXPECT_EQ(WEXITSTATUS(status), 0);
  rmdir(where.c_str());
}
