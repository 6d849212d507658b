// A random model test on a real mount: thousands of seeded operations (create, write at random
// offsets, O_TRUNC overwrites, truncation both ways, appends, renames of files and folders
// including case-only ones and onto existing targets, mkdir, rmdir, unlink, utimens, chmod,
// removal of open entries) are made on the mounted card and on a reference folder of the host,
// and the two trees are compared after every step. Afterwards fsck.fat judges the card and
// mtype reads every file back.
//
// VELT_MODEL_SEED and VELT_MODEL_OPS reproduce or lengthen a run, VELT_MODEL_SPELLINGS=1 reaches
// entries by any spelling of their names; VELT_DAEMON points the test at another build of the
// daemon (the sanitizer build).
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "daemon_runner.h"
#include "e2e_card.h"

namespace velt::test {
namespace {

namespace fs = std::filesystem;

struct Node {
  bool dir = false;
  int64_t size = 0;
  std::string data;
  bool writable = true;
  bool operator==(const Node& o) const {
    return dir == o.dir && size == o.size && data == o.data && writable == o.writable;
  }
};
using Tree = std::map<std::string, Node>;

void snapshot(const std::string& root, const std::string& rel, Tree* tree, bool data = true) {
  DIR* d = opendir((root + rel).c_str());
  if (d == nullptr) {
    ADD_FAILURE() << "opendir " << root + rel << ": " << strerror(errno);
    return;
  }
  std::vector<std::string> names;
  while (struct dirent* e = readdir(d)) {
    if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) names.push_back(e->d_name);
  }
  closedir(d);
  for (const std::string& name : names) {
    std::string path = rel + "/" + name;
    struct stat st;
    if (lstat((root + path).c_str(), &st) != 0) {
      ADD_FAILURE() << "stat " << root + path << ": " << strerror(errno);
      continue;
    }
    Node n;
    n.dir = S_ISDIR(st.st_mode);
    n.writable = (st.st_mode & S_IWUSR) != 0;
    if (!n.dir) {
      n.size = st.st_size;
      if (data) n.data = readFileBytes(root + path);
    }
    (*tree)[path] = n;
    if (n.dir) snapshot(root, path, tree, data);
  }
}

std::string describe(const Tree& a, const Tree& b) {
  std::ostringstream out;
  for (const auto& [path, n] : a) {
    auto it = b.find(path);
    if (it == b.end()) {
      out << "  only on the card: " << path << "\n";
    } else if (!(it->second == n)) {
      out << "  differs: " << path << " card " << (n.dir ? "dir" : "file") << " size " << n.size
          << " w" << n.writable << ", host " << (it->second.dir ? "dir" : "file") << " size "
          << it->second.size << " w" << it->second.writable << "\n";
    }
  }
  for (const auto& [path, n] : b) {
    if (a.find(path) == a.end()) out << "  only on the host: " << path << "\n";
  }
  return out.str();
}

int envInt(const char* name, int fallback) {
  const char* v = getenv(name);
  return v != nullptr && v[0] != '\0' ? atoi(v) : fallback;
}

// Runs one call and gives 0 or the errno it left.
template <class F>
int err(F f) {
  errno = 0;
  return f() < 0 ? (errno != 0 ? errno : -1) : 0;
}

class Model {
 public:
  Model(const std::string& card, const std::string& host, unsigned seed, int64_t cluster)
      : card_(card), host_(host), rng_(seed), cluster_(cluster) {}

  ~Model() { closeAll(); }

  // One random operation on both sides; false (with a failure) when they disagree.
  bool step(int n) {
    std::ostringstream what;
    bool ok = doStep(&what);
    history_.push_back(std::to_string(n) + ": " + what.str());
    if (history_.size() > 25) history_.pop_front();
    if (!ok) {
      std::string h;
      for (const std::string& line : history_) h += "  " + line + "\n";
      ADD_FAILURE() << "step " << n << " disagrees\nlast operations:\n" << h;
      return false;
    }
    // Names, kinds, sizes and modes after every step; the data too every few steps.
    const bool data = n % 4 == 0;
    Tree card, host;
    snapshot(card_, "", &card, data);
    snapshot(host_, "", &host, data);
    if (card != host) {
      std::string h;
      for (const std::string& line : history_) h += "  " + line + "\n";
      ADD_FAILURE() << "trees differ after step " << n << ":\n"
                    << describe(card, host) << "last operations:\n"
                    << h;
      return false;
    }
    return true;
  }

  void closeAll() {
    for (auto& f : open_) {
      close(f.card);
      close(f.host);
    }
    open_.clear();
    for (auto& d : dirs_) closedir(d.card);
    dirs_.clear();
  }

 private:
  struct OpenFile {
    std::string path;  // host path, relative
    int card, host;
  };
  struct OpenDir {
    std::string path;
    DIR* card;
  };

  int pick(int n) { return static_cast<int>(rng_() % static_cast<unsigned>(n)); }
  bool chance(int percent) { return pick(100) < percent; }

  // Every entry of the reference tree, relative ("" is the root).
  void entries(std::vector<std::string>* files, std::vector<std::string>* dirs) {
    dirs->push_back("");
    for (auto it = fs::recursive_directory_iterator(host_); it != fs::recursive_directory_iterator();
         ++it) {
      std::string rel = it->path().string().substr(host_.size());
      (it->is_directory() ? dirs : files)->push_back(rel);
    }
  }

  // The host spelling of an existing entry's last component, case-insensitively; empty when
  // the folder holds no such name.
  std::string existing(const std::string& dir, const std::string& name) {
    for (const auto& e : fs::directory_iterator(host_ + dir)) {
      std::string n = e.path().filename().string();
      if (strcasecmp(n.c_str(), name.c_str()) == 0) return n;
    }
    return "";
  }

  // The name an existing entry is reached by: its stored name, or with VELT_MODEL_SPELLINGS=1
  // any spelling (the kernel then holds several names of one entry, which every change through
  // one of them must keep true).
  std::string reach(const std::string& path) { return spellings_ ? spell(path) : path; }

  // Some spelling of a name: as it is, upper case or lower case.
  std::string spell(const std::string& name) {
    std::string s = name;
    switch (pick(4)) {
      case 0:
        for (char& c : s) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
        break;
      case 1:
        for (char& c : s) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
        break;
      default:
        break;
    }
    return s;
  }

  std::string newName() {
    static const char* kNames[] = {"a",        "b.txt",     "Data",      "report.pdf",
                                   "MiXeD.Cs", "long file name number", "x", "notes.TXT",
                                   "sub",       "deep dir"};
    return kNames[pick(static_cast<int>(std::size(kNames)))];
  }

  std::string randomData(size_t n) {
    std::string s(n, '\0');
    for (char& c : s) c = static_cast<char>('a' + pick(26));
    return s;
  }

  bool isOpen(const std::string& path) {
    for (auto& f : open_) {
      if (f.path == path) return true;
    }
    return false;
  }
  bool hasOpenBelow(const std::string& dir) {
    for (auto& f : open_) {
      if (f.path.rfind(dir + "/", 0) == 0) return true;
    }
    return false;
  }

  bool same(int card, int host, std::ostringstream* what) {
    *what << " -> card " << card << " host " << host;
    return card == host;
  }

  bool doStep(std::ostringstream* what) {
    std::vector<std::string> files, dirs;
    entries(&files, &dirs);
    int op = pick(100);
    const int64_t c = cluster_;
    // The tree stays small, so that comparing it whole after every step stays cheap.
    if (files.size() + dirs.size() > 30 && op < 16) op = 60 + pick(14);

    if (op < 12 || files.empty()) {  // create a file in some folder
      std::string dir = dirs[pick(static_cast<int>(dirs.size()))];
      std::string name = newName();
      std::string found = existing(dir, name);
      std::string host = dir + "/" + (found.empty() ? name : found);
      std::string card = dir + "/" + spell(found.empty() ? name : found);
      if (found.empty()) card = host;  // a new name is stored as given
      std::string data = randomData(static_cast<size_t>(pick(static_cast<int>(3 * c))));
      *what << "create " << card << " " << data.size();
      int cf = -1, hf = -1;
      int ce = err([&] { return cf = open((card_ + card).c_str(), O_CREAT | O_EXCL | O_WRONLY, 0644); });
      int he = err([&] { return hf = open((host_ + host).c_str(), O_CREAT | O_EXCL | O_WRONLY, 0644); });
      bool ok = same(ce, he, what);
      if (cf >= 0) {
        ok = write(cf, data.data(), data.size()) == static_cast<ssize_t>(data.size()) && ok;
        ok = close(cf) == 0 && ok;
      }
      if (hf >= 0) {
        (void)!write(hf, data.data(), data.size());
        close(hf);
      }
      return ok;
    }
    if (op < 16) {  // mkdir
      std::string dir = dirs[pick(static_cast<int>(dirs.size()))];
      if (dir.size() > 40) return true;
      std::string name = newName();
      std::string found = existing(dir, name);
      std::string host = dir + "/" + (found.empty() ? name : found);
      std::string card = found.empty() ? host : dir + "/" + spell(found);
      *what << "mkdir " << card;
      return same(err([&] { return mkdir((card_ + card).c_str(), 0755); }),
                  err([&] { return mkdir((host_ + host).c_str(), 0755); }), what);
    }
    if (op < 36 && !files.empty()) {  // write at a random offset, append or O_TRUNC
      std::string f = files[pick(static_cast<int>(files.size()))];
      std::string data = randomData(static_cast<size_t>(1 + pick(static_cast<int>(2 * c))));
      int kind = pick(3);
      int64_t off = pick(static_cast<int>(4 * c));
      int flags = O_WRONLY | (kind == 1 ? O_APPEND : 0) | (kind == 2 ? O_TRUNC : 0);
      *what << (kind == 0 ? "pwrite " : kind == 1 ? "append " : "overwrite ") << f << " "
            << data.size() << " @" << off;
      int cf = open((card_ + reach(f)).c_str(), flags);
      int hf = open((host_ + f).c_str(), flags);
      bool ok = cf >= 0 && hf >= 0;
      if (ok) {
        ssize_t cw = kind == 0 ? pwrite(cf, data.data(), data.size(), off)
                               : write(cf, data.data(), data.size());
        ssize_t hw = kind == 0 ? pwrite(hf, data.data(), data.size(), off)
                               : write(hf, data.data(), data.size());
        ok = cw == hw;
      }
      if (cf >= 0) ok = close(cf) == 0 && ok;
      if (hf >= 0) close(hf);
      return ok;
    }
    if (op < 44 && !files.empty()) {  // truncate, shrinking or growing
      std::string f = files[pick(static_cast<int>(files.size()))];
      int64_t size = pick(static_cast<int>(4 * c));
      *what << "truncate " << f << " " << size;
      return same(err([&] { return truncate((card_ + reach(f)).c_str(), size); }),
                  err([&] { return truncate((host_ + f).c_str(), size); }), what);
    }
    if (op < 60) {  // rename a file or a folder
      bool dir_source = chance(35) && dirs.size() > 1;
      std::string from = dir_source ? dirs[1 + pick(static_cast<int>(dirs.size()) - 1)]
                                    : (files.empty() ? "" : files[pick(static_cast<int>(files.size()))]);
      if (from.empty()) return true;
      std::string from_dir = from.substr(0, from.rfind('/'));
      std::string from_leaf = from.substr(from.rfind('/') + 1);
      std::string host, card, source = reach(from);
      if (chance(20)) {  // letter case only
        source = from;
        std::string other = from_leaf;
        for (char& ch : other) ch = static_cast<char>(isupper(static_cast<unsigned char>(ch)) ? tolower(ch) : toupper(ch));
        host = card = from_dir + "/" + other;
      } else {
        std::string to_dir = dirs[pick(static_cast<int>(dirs.size()))];
        // Often the name of an existing file or folder: a rename onto an existing target.
        std::string name = newName();
        if (chance(40)) {
          const std::vector<std::string>& pool = chance(50) || dirs.size() < 2 ? files : dirs;
          if (!pool.empty() && !pool.back().empty()) name = pool[pick(static_cast<int>(pool.size()))];
          name = name.substr(name.rfind('/') + 1);
          if (name.empty()) name = newName();
        }
        std::string found = existing(to_dir, name);
        host = to_dir + "/" + (found.empty() ? name : found);
        card = found.empty() ? host : to_dir + "/" + spell(found);
        if (host == from) host = card;  // another case of the source itself renames it
      }
      if (source == card) source = from;  // a name renamed onto itself stays as it is
      *what << "rename " << from << " -> " << card;
      int ce = err([&] { return rename((card_ + source).c_str(), (card_ + card).c_str()); });
      // Replacing or moving a file that is open is refused on the card.
      bool busy_target = isOpen(host) && host != from;
      if (busy_target && ce == EBUSY) return true;
      int he = err([&] { return rename((host_ + from).c_str(), (host_ + host).c_str()); });
      if (he == 0 && ce == 0) {
        for (auto& o : open_) {
          if (o.path == from) o.path = host;
          if (o.path.rfind(from + "/", 0) == 0) o.path = host + o.path.substr(from.size());
        }
      }
      // Where several refusals apply, the kernel's checks come first and their order depends
      // on how the names were spelled (a file onto another spelling of its own ancestor is
      // EISDIR here, ENOTEMPTY on the host); either refusal leaves both trees alone.
      auto refusal = [](int e) {
        return e == EISDIR || e == ENOTDIR || e == ENOTEMPTY || e == EEXIST || e == EINVAL;
      };
      if (ce != he && refusal(ce) && refusal(he)) {
        *what << " (card " << ce << ", host " << he << ")";
        return true;
      }
      return same(ce, he, what);
    }
    if (op < 68 && !files.empty()) {  // unlink
      std::string f = files[pick(static_cast<int>(files.size()))];
      std::string card = reach(f);
      *what << "unlink " << card;
      int ce = err([&] { return unlink((card_ + card).c_str()); });
      if (isOpen(f)) return same(ce, EBUSY, what);  // an open file stays
      return same(ce, err([&] { return unlink((host_ + f).c_str()); }), what);
    }
    if (op < 74 && dirs.size() > 1) {  // rmdir, also of a folder someone has open
      std::string d = dirs[1 + pick(static_cast<int>(dirs.size()) - 1)];
      *what << "rmdir " << d;
      if (dirs_.size() < 2 && chance(50)) {
        DIR* cd = opendir((card_ + d).c_str());
        if (cd != nullptr) dirs_.push_back({d, cd});
        *what << " (open)";
      }
      int ce = err([&] { return rmdir((card_ + reach(d)).c_str()); });
      return same(ce, err([&] { return rmdir((host_ + d).c_str()); }), what);
    }
    if (op < 80 && !files.empty()) {  // utimens with a time FAT keeps exactly
      std::string f = files[pick(static_cast<int>(files.size()))];
      time_t t = localTime(1990 + pick(40), 1 + pick(12), 1 + pick(28), pick(24), pick(60),
                           2 * pick(30));
      struct timespec tv[2] = {{t, 0}, {t, 0}};
      *what << "utimens " << f << " " << t;
      bool ok = same(err([&] { return utimensat(AT_FDCWD, (card_ + reach(f)).c_str(), tv, 0); }),
                     err([&] { return utimensat(AT_FDCWD, (host_ + f).c_str(), tv, 0); }), what);
      struct stat st;
      if (ok && stat((card_ + f).c_str(), &st) == 0 && st.st_mtime != t) {
        *what << " mtime " << st.st_mtime;
        return false;
      }
      return ok;
    }
    if (op < 85 && !files.empty()) {  // chmod: the owner-write bit
      std::string f = chance(70) || dirs.size() < 2 ? files[pick(static_cast<int>(files.size()))]
                                                    : dirs[1 + pick(static_cast<int>(dirs.size()) - 1)];
      mode_t mode = chance(50) ? 0444 : 0644;
      if (fs::is_directory(host_ + f)) mode |= 0111;
      *what << "chmod " << f << " " << std::oct << mode << std::dec;
      return same(err([&] { return chmod((card_ + reach(f)).c_str(), mode); }),
                  err([&] { return chmod((host_ + f).c_str(), mode); }), what);
    }
    if (op < 93 && !files.empty()) {  // open a file and keep it, or write through an open one
      if (!open_.empty() && chance(60)) {
        OpenFile& o = open_[pick(static_cast<int>(open_.size()))];
        std::string data = randomData(static_cast<size_t>(1 + pick(static_cast<int>(c))));
        int64_t off = pick(static_cast<int>(3 * c));
        *what << "pwrite open " << o.path << " " << data.size() << " @" << off;
        return pwrite(o.card, data.data(), data.size(), off) ==
               pwrite(o.host, data.data(), data.size(), off);
      }
      if (open_.size() >= 3) return true;
      std::string f = files[pick(static_cast<int>(files.size()))];
      *what << "keep open " << f;
      int cf = open((card_ + f).c_str(), O_RDWR);
      int hf = open((host_ + f).c_str(), O_RDWR);
      if ((cf < 0) != (hf < 0)) return false;
      if (cf >= 0) open_.push_back({f, cf, hf});
      return true;
    }
    // Close what was kept open.
    if (!open_.empty()) {
      size_t i = static_cast<size_t>(pick(static_cast<int>(open_.size())));
      *what << "close " << open_[i].path;
      bool ok = close(open_[i].card) == 0;
      close(open_[i].host);
      open_.erase(open_.begin() + static_cast<long>(i));
      return ok;
    }
    if (!dirs_.empty()) {
      *what << "closedir " << dirs_.back().path;
      // The folder may be gone; reading it must still be safe.
      while (readdir(dirs_.back().card) != nullptr) {
      }
      closedir(dirs_.back().card);
      dirs_.pop_back();
    }
    return true;
  }

  std::string card_, host_;
  bool spellings_ = envInt("VELT_MODEL_SPELLINGS", 0) != 0;
  std::mt19937 rng_;
  int64_t cluster_;
  std::vector<OpenFile> open_;
  std::vector<OpenDir> dirs_;
  std::deque<std::string> history_;
};

class ModelTest : public ::testing::TestWithParam<CardKind> {};

TEST_P(ModelTest, RandomOperationsAgreeWithAHostFolder) {
  const unsigned seed = static_cast<unsigned>(envInt("VELT_MODEL_SEED", 20261123));
  const int ops = envInt("VELT_MODEL_OPS", GetParam() == CardKind::kPlain ? 2000 : 600);
  MountedCard mounted;
  ASSERT_TRUE(mounted.start(GetParam())) << mounted.error();
  struct stat st;
  ASSERT_EQ(stat(mounted.path().c_str(), &st), 0);
  TempDir host;
  // The VELT card's reserved folder is not part of the model.
  const std::string card_root = mounted.path("model");
  ASSERT_EQ(mkdir(card_root.c_str(), 0755), 0);
  const std::string host_root = host.path() + "/model";
  ASSERT_EQ(mkdir(host_root.c_str(), 0755), 0);
  {
    Model model(card_root, host_root, seed, st.st_blksize);
    for (int i = 0; i < ops; ++i) {
      if (!model.step(i)) {
        ADD_FAILURE() << "seed " << seed << " (VELT_MODEL_SEED), step " << i;
        break;
      }
    }
  }
  mounted.unmountAndCheck();

  // Another implementation reads every file as the host has it.
  Tree tree;
  snapshot(host_root, "", &tree);
  for (const auto& [path, node] : tree) {
    if (node.dir) continue;
    ShellResult r = mounted.mtools("mtype ::/model" + shellQuote(path));
    EXPECT_EQ(r.status, 0) << path << r.err;
    EXPECT_TRUE(r.out == node.data) << path << ": " << r.out.size() << " bytes, expected "
                                    << node.data.size();
  }
  // And the daemon loads what it wrote.
  ASSERT_TRUE(mounted.mount()) << mounted.error();
  Tree again;
  snapshot(card_root, "", &again);
  EXPECT_TRUE(again == tree) << describe(again, tree);
  mounted.unmount();
}

INSTANTIATE_TEST_SUITE_P(Cards, ModelTest, ::testing::Values(CardKind::kPlain, CardKind::kVelt),
                         cardKindParamName);

}  // namespace
}  // namespace velt::test
