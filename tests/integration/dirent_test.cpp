// Seeded random operations through the mount's callbacks, in this process, on a card made by
// mkfs.fat with 512-byte clusters (in partition slot 1 or 2) and filled by mtools: files created
// under awkward names and written in pieces, overwritten, truncated both ways, renamed within and
// across folders and onto files, folders made, moved and removed. Each load must repair nothing
// and find the model's tree, names and bytes; after every round the card is unloaded and judged
// against the model by fsck.fat, `mdir` and `mtype`. VELT_MODEL_SEED reproduces a run.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "card_volume.h"
#include "fs/velt_file.h"
#include "fs/velt_fuse.h"

namespace velt::test {
namespace {

// Exact 8.3 names, lower case, leading dots, blanks, characters 8.3 names refuse, 13 and 14
// characters, several dots, non-ASCII, 100 characters, pairs whose short names collide.
// clang-format off
const std::vector<std::string> kNames = {
    "README.TXT", "notes.txt", "Makefile", "My Document.docx", "My Document.doc", ".profile", "a b",
    "abcdefghijklm", "abcdefghijklmn", "x+y;z.txt", "a=1,b.txt", "archive.tar.gz",
    "Gr\xc3\xbc\xc3\x9f\x65 \xce\xa9\xce\xbc\xce\xad\xce\xb3\xce\xb1.txt",
    "\xe6\x97\xa5\xe6\x9c\xac\xe8\xaa\x9e.dat", std::string(100, 'L') + ".log", "clip 0001.mp4",
    "clip 0002.mp4", "DATA", "photos", "2024 holidays", "file.c pp", "semi;colon", "EMPTY2"};
// clang-format on

struct Node {
  bool dir = false;
  std::string data;
};

struct Model {
  explicit Model(unsigned seed) : rng(seed) {}
  std::mt19937 rng;
  std::map<std::string, Node> tree;  // path -> node; "" is the root
  int spare = 0;
  size_t start = 0;  // entries mtools made

  unsigned next() { return rng(); }
  template <typename T>
  const T& any(const std::vector<T>& v) {
    return v[rng() % v.size()];
  }
  static std::string parentOf(const std::string& path) { return path.substr(0, path.rfind('/')); }
  bool taken(const std::string& dir, const std::string& name) const {
    for (const auto& [path, n] : tree) {
      if (parentOf(path) == dir &&
          strcasecmp(path.substr(path.rfind('/') + 1).c_str(), name.c_str()) == 0)
        return true;
    }
    return false;
  }
  bool empty(const std::string& dir) const {
    for (const auto& [path, n] : tree) {
      if (path.rfind(dir + "/", 0) == 0) return false;
    }
    return true;
  }
  std::vector<std::string> pick(bool dirs) const {
    std::vector<std::string> out;
    if (dirs) out.push_back("");
    for (const auto& [path, n] : tree) {
      if (n.dir == dirs) out.push_back(path);
    }
    return out;
  }
  // A name not yet used (in any letter case) in `dir`, or "" when there is none.
  std::string freshName(const std::string& dir) {
    for (int tries = 0; tries < 20; ++tries) {
      const std::string& name = any(kNames);
      if (!taken(dir, name)) return name;
    }
    std::string name = "spare " + std::to_string(spare++) + ".bin";
    return taken(dir, name) ? "" : name;
  }
};

// What mtools lays down before the model starts: folders four deep, long and non-ASCII names,
// an empty file and folder, sizes around the cluster, a folder of 70 files (several clusters
// of records), and files written in pieces into holes the tools left.
void fillTree(const CardImage& card, Model& m) {
  const size_t cl = 512;
  auto put = [&](const std::string& p, size_t size, unsigned seed) {
    m.tree[p] = Node{false, patternBytes(size, seed)};
    card.put(p, m.tree[p].data);
  };
  auto del = [&](const std::string& p) { card.del(p), m.tree.erase(p); };
  for (const char* d : {"/a", "/a/b", "/a/b/c", "/a/b/c/d", "/Ünïcödé Ördner",
                        "/A folder with a long name and spaces", "/empty folder", "/many", "/frag"})
    card.mkdir(d), m.tree[d] = Node{true, {}};
  put("/empty.txt", 0, 0);
  put("/a/b/cluster.bin", cl, 1);
  put("/a/b/c/d/cluster+1.bin", cl + 1, 2);
  put("/a/b/c/d/cluster-1.bin", cl - 1, 3);
  put("/a/b/c/d/.hidden", 3, 9);
  put("/Ünïcödé Ördner/日本語のファイル名.dat", 3 * cl + 17, 6);
  put("/Ünïcödé Ördner/Größe €.txt", 20, 7);
  put("/A folder with a long name and spaces/a very long file name that needs many long-name "
      "records, more than ten of them, to be stored 0123456789.txt",
      5000, 8);
  for (int i = 0; i < 70; ++i) put("/many/file number " + std::to_string(i) + ".dat", i * 37, i);
  for (int i = 0; i < 6; ++i) put("/frag/piece" + std::to_string(i), 3 * cl, 200 + i);
  for (int i = 1; i < 6; i += 2) del("/frag/piece" + std::to_string(i));
  card.rewindAllocationHint();
  put("/frag/spread.bin", 10 * cl + 123, 300);
  del("/frag/piece2");
  card.rewindAllocationHint();
  put("/frag/rewritten.bin", 4 * cl + 1, 301);
  m.start = m.tree.size();
}

int closeFile(const std::string& path, fuse_file_info& fi) {
  VELTFuse::__flush(path.c_str(), &fi);
  return VELTFuse::__release(path.c_str(), &fi);
}

int createFile(const std::string& path) {
  fuse_file_info fi{};
  fi.flags = O_WRONLY | O_CREAT;
  const int r = VELTFuse::__create(path.c_str(), 0644, &fi);
  return r == 0 ? closeFile(path, fi) : r;
}

// Writes `bytes` at `offset` in pieces of random size, then reads the file back whole.
int writeFile(const std::string& path, int64_t offset, const std::string& bytes, Model& m,
              std::string* back) {
  fuse_file_info fi{};
  fi.flags = O_RDWR;
  int r = VELTFuse::__open(path.c_str(), &fi);
  if (r != 0) return r;
  for (size_t done = 0; done < bytes.size();) {
    const size_t n = std::min<size_t>(bytes.size() - done, 1 + m.next() % 1500);
    r = VELTFuse::__write(path.c_str(), bytes.data() + done, n, offset + done, &fi);
    if (r != static_cast<int>(n)) return r < 0 ? r : -EIO;
    done += n;
  }
  back->assign(64 << 10, '\0');
  r = VELTFuse::__read(path.c_str(), back->data(), back->size(), 0, &fi);
  back->resize(std::max(r, 0));
  return closeFile(path, fi);
}

// The card as the FAT tools see it, against the model: every file by its long name (`mdir -b`
// lists some folders, not all) and its bytes.
void judge(const CardImage& card, const Model& model) {
  auto fsck = card.fsck("-n");
  EXPECT_EQ(fsck.status, 0) << fsck.out << fsck.err;
  std::set<std::string> want, got;
  for (const auto& [path, n] : model.tree) {
    if (!n.dir) want.insert("::" + path);
  }
  std::istringstream in(card.mtools("mdir -/ -b -a ::/").out);
  for (std::string line; std::getline(in, line);) {
    if (!line.empty() && line.back() == '/') line.pop_back();
    auto n = model.tree.find(line.substr(std::min<size_t>(2, line.size())));
    if (!line.empty() && (n == model.tree.end() || !n->second.dir)) got.insert(line);
  }
  EXPECT_EQ(got, want);
  for (const auto& [path, n] : model.tree) {
    if (!n.dir) {
      EXPECT_TRUE(card.type(path) == n.data) << path;
    }
  }
}

// The tree the library loads, against the model: names as written, sizes and bytes.
void compareLoaded(VELT& v, const Model& model) {
  size_t entries = 0;
  std::vector<std::shared_ptr<VELT::DirEntry>> dirs{v.root_};
  while (!dirs.empty()) {
    auto d = dirs.back();
    dirs.pop_back();
    std::lock_guard lock(d->children_mutex_);
    for (const auto& c : d->children_) {
      if (c->isDotEntry() || c->is_volume_) continue;
      ++entries;
      if (c->is_dir_) dirs.push_back(c);
    }
  }
  EXPECT_EQ(entries, model.tree.size());
  for (const auto& [path, n] : model.tree) {
    auto e = v.findEntry(path.c_str());
    ASSERT_NE(e, nullptr) << path;
    EXPECT_EQ(e->is_dir_, n.dir) << path;
    EXPECT_EQ(e->name_.c_str(), path.substr(path.rfind('/') + 1)) << path;
    if (n.dir) continue;
    auto file = v.newFile(false, false, false, e);
    ASSERT_NE(file, nullptr) << path;
    std::string back(n.data.size(), '\0');
    EXPECT_EQ(file->read(back.data(), back.size(), 0), static_cast<int>(back.size())) << path;
    EXPECT_TRUE(back == n.data) << path;
    file->close();
  }
}

// One random operation on the mount and the model; the callback's result must be `want`.
void step(Model& m) {
  const unsigned kind = m.next() % 100;
  std::ostringstream what;
  int r = 0, want = 0;
  if (kind < 30) {  // a new file with data
    const std::string dir = m.any(m.pick(true));
    const std::string name = m.freshName(dir);
    if (name.empty() || m.tree.size() > m.start + 60) return;
    const std::string path = dir + "/" + name;
    const std::string data = patternBytes(m.next() % 3000, m.next());
    what << "create " << path << " " << data.size();
    r = createFile(path);
    std::string back;
    if (r == 0 && !data.empty()) r = writeFile(path, 0, data, m, &back);
    m.tree[path] = Node{false, data};
    if (!data.empty()) {
      EXPECT_TRUE(back == data) << what.str();
    }
  } else if (kind < 45) {  // overwrite or extend a file
    auto files = m.pick(false);
    if (files.empty()) return;
    const std::string path = m.any(files);
    Node& n = m.tree[path];
    const int64_t at = m.next() % (n.data.size() + 1);
    const std::string data = patternBytes(1 + m.next() % 2000, m.next());
    what << "write " << path << " @" << at << " " << data.size();
    if (n.data.size() < at + data.size()) n.data.resize(at + data.size());
    n.data.replace(at, data.size(), data);
    std::string back;
    r = writeFile(path, at, data, m, &back);
    EXPECT_TRUE(back == n.data) << what.str();
  } else if (kind < 52) {  // truncate
    auto files = m.pick(false);
    if (files.empty()) return;
    const std::string path = m.any(files);
    const size_t size = m.next() % 4000;
    what << "truncate " << path << " " << size;
    m.tree[path].data.resize(size, '\0');
    r = VELTFuse::__truncate(path.c_str(), static_cast<off_t>(size), nullptr);
  } else if (kind < 62) {  // mkdir
    const std::string dir = m.any(m.pick(true));
    const std::string name = m.freshName(dir);
    if (name.empty() || std::count(dir.begin(), dir.end(), '/') >= 3) return;
    const std::string path = dir + "/" + name;
    what << "mkdir " << path;
    r = VELTFuse::__mkdir(path.c_str(), 0755);
    m.tree[path] = Node{true, {}};
  } else if (kind < 82) {  // rename a file or a folder, to a new name or onto a file
    const bool dir = kind >= 77;
    auto sources = m.pick(dir);
    if (dir) sources.erase(sources.begin());  // not the root
    if (sources.empty()) return;
    const std::string from = m.any(sources);
    const std::string to_dir = m.any(m.pick(true));
    if (dir && (to_dir + "/").rfind(from + "/", 0) == 0) return;  // into itself
    std::string to;
    auto files = m.pick(false);
    if (!dir && kind % 4 == 0 && files.size() > 1) {
      to = m.any(files);
      if (to == from) return;
    } else {
      const std::string name = m.freshName(to_dir);
      if (name.empty()) return;
      to = to_dir + "/" + name;
    }
    what << "rename " << from << " -> " << to;
    r = VELTFuse::__rename(from.c_str(), to.c_str(), 0);
    std::map<std::string, Node> moved;
    for (auto it = m.tree.begin(); it != m.tree.end();) {
      if (it->first == from || it->first.rfind(from + "/", 0) == 0) {
        moved[to + it->first.substr(from.size())] = it->second;
        it = m.tree.erase(it);
      } else {
        ++it;
      }
    }
    for (auto& [path, n] : moved) m.tree[path] = n;
  } else if (kind < 92) {  // unlink
    auto files = m.pick(false);
    if (files.empty()) return;
    const std::string path = m.any(files);
    what << "unlink " << path;
    r = VELTFuse::__unlink(path.c_str());
    m.tree.erase(path);
  } else {  // rmdir: refused while the folder holds anything
    auto dirs = m.pick(true);
    dirs.erase(dirs.begin());
    if (dirs.empty()) return;
    const std::string path = m.any(dirs);
    what << "rmdir " << path;
    r = VELTFuse::__rmdir(path.c_str());
    if (m.empty(path)) {
      m.tree.erase(path);
    } else {
      want = -ENOTEMPTY;
    }
  }
  ASSERT_EQ(r, want) << what.str();
}

TEST(DirentCard, RandomOperationsLeaveACardTheFatToolsAgreeWith) {
  const char* env = getenv("VELT_MODEL_SEED");
  const unsigned first = env != nullptr ? static_cast<unsigned>(strtoul(env, nullptr, 10)) : 1;
  for (unsigned seed : {first, first + 1}) {
    SCOPED_TRACE("VELT_MODEL_SEED=" + std::to_string(seed));
    CardSpec spec = smallClusterCard(64);
    spec.slot = 1 + seed % 2;
    CardImage card(spec);
    ASSERT_TRUE(card.ok()) << card.error();
    Model m(seed);
    fillTree(card, m);
    for (int round = 0; round < 3; ++round) {
      SCOPED_TRACE("round " + std::to_string(round));
      Loaded l = loadCard(card);
      ASSERT_EQ(l.error, 0) << l.log;
      EXPECT_EQ(repairLines(l.log), "") << "the load repaired a card";
      EXPECT_EQ(l.volume->init(), -1) << "a loaded volume is not loaded again";
      ASSERT_NO_FATAL_FAILURE(compareLoaded(*l.volume, m));
      VELTFuse::setVolume(l.volume);
      for (int op = 0; op < 80 && !testing::Test::HasFatalFailure(); ++op) step(m);
      VELTFuse::setVolume(nullptr);
      testing::internal::CaptureStdout();
      l.volume.reset();
      testing::internal::GetCapturedStdout();
      ASSERT_FALSE(testing::Test::HasFatalFailure());
      ASSERT_NO_FATAL_FAILURE(judge(card, m));
    }
  }
}

}  // namespace
}  // namespace velt::test
