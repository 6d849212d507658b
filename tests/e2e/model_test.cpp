// A random model test on a real mount: seeded operations (create, writes at random offsets,
// appends, O_TRUNC, truncation both ways, renames of files and folders, case-only and onto
// existing targets, mkdir, rmdir, unlink, utimens, chmod, writes through and removal of open
// entries, names reached by other spellings) on the mounted card and on a host folder, the trees
// compared after every step; then fsck.fat, and the daemon loads the same tree again. Then
// concurrent writers and readers. VELT_MODEL_SEED and VELT_MODEL_OPS reproduce or lengthen a run;
// VELT_DAEMON points at another build of the daemon (the sanitizer build).
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <deque>
#include <map>
#include <random>
#include <sstream>
#include <thread>

#include "e2e_card.h"

namespace velt::test {
namespace {

namespace fs = std::filesystem;

struct Node {
  bool dir = false, writable = true;
  int64_t size = 0;
  std::string data;
  bool operator==(const Node&) const = default;
};
using Tree = std::map<std::string, Node>;

// Kinds, sizes, the owner-write bit and, with `data`, the bytes of everything under root.
Tree snapshot(const std::string& root, bool data = true) {
  Tree tree;
  for (const auto& e : fs::recursive_directory_iterator(root)) {
    struct stat st = {};
    const std::string path = e.path().string();
    EXPECT_EQ(lstat(path.c_str(), &st), 0) << path << ": " << strerror(errno);
    Node& n = tree[path.substr(root.size())];
    n.dir = S_ISDIR(st.st_mode);
    n.writable = (st.st_mode & S_IWUSR) != 0;
    n.size = n.dir ? 0 : st.st_size;
    if (data && !n.dir) n.data = readFileBytes(path);
  }
  return tree;
}

// The paths whose entries differ.
std::string differences(const Tree& a, const Tree& b) {
  std::string out;
  for (const auto& [path, n] : a) out += !b.count(path) || !(b.at(path) == n) ? " " + path : "";
  for (const auto& entry : b) out += a.count(entry.first) ? "" : " " + entry.first;
  return out;
}

class Model {
 public:
  Model(const std::string& card, const std::string& host, unsigned seed, int64_t cluster)
      : card_(card), host_(host), rng_(seed), c_(cluster) {}

  ~Model() {
    for (auto& f : open_) close(f.card), close(f.host);
    for (auto& d : dirs_) closedir(d);
  }

  // One random operation on both sides, then the trees compared (the data every few steps).
  bool step(int n) {
    std::ostringstream what;
    const bool ok = doStep(&what);
    history_.push_back(std::to_string(n) + ": " + what.str());
    if (history_.size() > 25) history_.pop_front();
    const std::string diff =
        ok ? differences(snapshot(card_, n % 4 == 0), snapshot(host_, n % 4 == 0)) : "";
    if (ok && diff.empty()) return true;
    std::string h;
    for (const std::string& line : history_) h += "  " + line + "\n";
    ADD_FAILURE() << "step " << n << (ok ? ": the trees differ at" : " disagrees") << diff
                  << "\nlast operations:\n" << h;
    return false;
  }

 private:
  struct OpenFile {
    std::string path;  // as the host has it
    int card, host;
  };

  int pick(size_t n) { return static_cast<int>(rng_() % n); }
  bool chance(int percent) { return pick(100) < percent; }
  template <class V>
  const auto& any(const V& v, size_t from = 0) {
    return v[from + pick(v.size() - from)];
  }
  std::string randomData(int64_t n) { return patternBytes(static_cast<size_t>(n), rng_()); }
  bool isOpen(const std::string& path) {
    return std::any_of(open_.begin(), open_.end(), [&](auto& f) { return f.path == path; });
  }

  // Runs `call` on the card's and the host's path; true when both leave the same errno.
  template <class F>
  bool both(std::ostringstream* what, const std::string& card, const std::string& host, F call) {
    auto err = [&](const std::string& path) {
      errno = 0;
      return call(path) < 0 ? (errno != 0 ? errno : -1) : 0;
    };
    const int ce = err(card_ + card), he = err(host_ + host);
    *what << " -> card " << ce << " host " << he;
    return ce == he;
  }

  // The host's and the card's path of `name` in dir: an existing entry (matched without regard
  // to case) is reached by its stored name in upper, lower or its own case; a new name is
  // stored as given.
  std::pair<std::string, std::string> target(const std::string& dir, const std::string& name) {
    for (const auto& e : fs::directory_iterator(host_ + dir)) {
      std::string stored = e.path().filename().string(), spelled = stored;
      if (strcasecmp(stored.c_str(), name.c_str()) != 0) continue;
      const int how = pick(4);
      for (char& ch : spelled)
        ch = static_cast<char>(how == 0 ? toupper(ch) : how == 1 ? tolower(ch) : ch);
      return {dir + "/" + stored, dir + "/" + spelled};
    }
    return {dir + "/" + name, dir + "/" + name};
  }
  std::pair<std::string, std::string> newTarget(const std::string& dir) {
    static const char* kNames[] = {"a", "b.txt",     "Data", "report.pdf", "MiXeD.Cs",
                                   "x", "notes.TXT", "sub",  "deep dir",   "long file name number"};
    return target(dir, kNames[pick(std::size(kNames))]);
  }

  bool doStep(std::ostringstream* what) {
    std::vector<std::string> files, dirs{""};
    for (const auto& e : fs::recursive_directory_iterator(host_)) {
      (e.is_directory() ? dirs : files).push_back(e.path().string().substr(host_.size()));
    }
    int op = pick(100);
    // The tree stays small, so that comparing it whole after every step stays cheap.
    if (files.size() + dirs.size() > 30 && op < 16) op = 60 + pick(14);

    if (op < 12 || files.empty()) {  // create a file with data
      auto [host, card] = newTarget(any(dirs));
      const std::string data = randomData(pick(3 * c_));
      *what << "create " << card << " " << data.size();
      return both(what, card, host, [&](const std::string& p) {
        int fd = open(p.c_str(), O_CREAT | O_EXCL | O_WRONLY, 0644);
        if (fd < 0) return -1;
        const bool written = write(fd, data.data(), data.size()) == ssize_t(data.size());
        return close(fd) == 0 && written ? 0 : (errno = EIO, -1);
      });
    }
    if (op < 16) {  // mkdir
      const std::string& dir = any(dirs);
      if (dir.size() > 40) return true;
      auto [host, card] = newTarget(dir);
      *what << "mkdir " << card;
      return both(what, card, host, [](const std::string& p) { return mkdir(p.c_str(), 0755); });
    }
    if (op < 36) {  // write at a random offset, append, or O_TRUNC and write; it sets the mtime
      const std::string& f = any(files);
      const time_t before = time(nullptr);
      const std::string data = randomData(1 + pick(2 * c_));
      const int kind = pick(3), flags = kind == 1 ? O_APPEND : kind == 2 ? O_TRUNC : 0;
      const int64_t off = pick(4 * c_);
      *what << "write " << f << " kind " << kind << " " << data.size() << " @" << off;
      return both(what, f, f, [&](const std::string& p) {
        int fd = open(p.c_str(), O_WRONLY | flags);
        if (fd < 0) return -1;
        const ssize_t n = kind == 0 ? pwrite(fd, data.data(), data.size(), off)
                                    : write(fd, data.data(), data.size());
        struct stat st;
        const bool ok = close(fd) == 0 && n == ssize_t(data.size());
        return ok && stat(p.c_str(), &st) == 0 && st.st_mtime + 2 >= before ? 0 : (errno = EIO, -1);
      });
    }
    if (op < 44) {  // truncate, shrinking or growing
      const std::string& f = any(files);
      const int64_t size = pick(4 * c_);
      *what << "truncate " << f << " " << size;
      return both(what, f, f, [&](const std::string& p) { return truncate(p.c_str(), size); });
    }
    if (op < 60) {  // rename a file or a folder
      const std::string from = chance(35) && dirs.size() > 1 ? any(dirs, 1) : any(files);
      std::string host = from, card;
      if (chance(20)) {  // letter case only
        for (size_t i = from.rfind('/') + 1; i < host.size(); ++i) {
          host[i] = static_cast<char>(isupper(host[i]) ? tolower(host[i]) : toupper(host[i]));
        }
        card = host;
      } else {
        // Often the name of an existing file or folder: a rename onto an existing target.
        const std::string& other = any(chance(50) || dirs.size() < 2 ? files : dirs);
        const std::string& to_dir = any(dirs);
        std::tie(host, card) = chance(40) && !other.empty()
                                   ? target(to_dir, other.substr(other.rfind('/') + 1))
                                   : newTarget(to_dir);
        if (host == from) host = card;  // another spelling of the source itself renames it
      }
      const int ce = rename((card_ + from).c_str(), (card_ + card).c_str()) < 0 ? errno : 0;
      *what << "rename " << from << " -> " << card << " card " << ce;
      // Replacing or moving a file that is open is refused on the card.
      if (isOpen(host) && host != from && ce == EBUSY) return true;
      const int he = rename((host_ + from).c_str(), (host_ + host).c_str()) < 0 ? errno : 0;
      *what << " host " << he;
      for (auto& o : open_) {
        if (ce == 0 && he == 0 && (o.path == from || o.path.rfind(from + "/", 0) == 0)) {
          o.path = host + o.path.substr(from.size());
        }
      }
      // Where several refusals apply, the kernel's checks come first and their order depends
      // on the spelling (a file onto another spelling of its own ancestor is EISDIR here,
      // ENOTEMPTY on the host); either refusal leaves both trees alone.
      auto refusal = [](int e) {
        return e == EISDIR || e == ENOTDIR || e == ENOTEMPTY || e == EEXIST || e == EINVAL;
      };
      return ce == he || (refusal(ce) && refusal(he));
    }
    if (op < 68) {  // unlink; an open file stays
      const std::string& f = any(files);
      *what << "unlink " << f << (isOpen(f) ? " (open)" : "");
      if (isOpen(f)) return unlink((card_ + f).c_str()) < 0 && errno == EBUSY;
      return both(what, f, f, [](const std::string& p) { return unlink(p.c_str()); });
    }
    if (op < 74 && dirs.size() > 1) {  // rmdir, also of a folder someone has open
      const std::string& d = any(dirs, 1);
      *what << "rmdir " << d;
      if (dirs_.size() < 2 && chance(50)) {
        if (DIR* cd = opendir((card_ + d).c_str())) dirs_.push_back(cd), *what << " (open)";
      }
      return both(what, d, d, [](const std::string& p) { return rmdir(p.c_str()); });
    }
    if (op < 80) {  // utimens with a time FAT keeps exactly
      const std::string& f = any(files);
      time_t t =
          localTime(1990 + pick(40), 1 + pick(12), 1 + pick(28), pick(24), pick(60), 2 * pick(30));
      const struct timespec tv[2] = {{t, 0}, {t, 0}};
      *what << "utimens " << f << " " << t;
      struct stat st;
      return both(what, f, f,
                  [&](const std::string& p) { return utimensat(AT_FDCWD, p.c_str(), tv, 0); }) &&
             (stat((card_ + f).c_str(), &st) != 0 || st.st_mtime == t);
    }
    if (op < 85) {  // chmod: the owner-write bit
      const std::string f = chance(70) || dirs.size() < 2 ? any(files) : any(dirs, 1);
      const mode_t mode = (chance(50) ? 0444 : 0644) | (fs::is_directory(host_ + f) ? 0111 : 0);
      *what << "chmod " << f << " " << std::oct << mode << std::dec;
      return both(what, f, f, [&](const std::string& p) { return chmod(p.c_str(), mode); });
    }
    if (op < 93) {  // keep a file open, or write through one kept open
      if (!open_.empty() && chance(60)) {
        OpenFile& o = open_[pick(open_.size())];
        const std::string data = randomData(1 + pick(c_));
        const int64_t off = pick(3 * c_);
        *what << "pwrite open " << o.path << " " << data.size() << " @" << off;
        return pwrite(o.card, data.data(), data.size(), off) ==
               pwrite(o.host, data.data(), data.size(), off);
      }
      if (open_.size() >= 3) return true;
      const std::string& f = any(files);
      *what << "keep open " << f;
      int cf = open((card_ + f).c_str(), O_RDWR), hf = open((host_ + f).c_str(), O_RDWR);
      if (cf >= 0) open_.push_back({f, cf, hf});
      return (cf < 0) == (hf < 0);
    }
    if (!open_.empty()) {  // close what was kept open
      const size_t i = static_cast<size_t>(pick(open_.size()));
      *what << "close " << open_[i].path;
      const bool ok = close(open_[i].card) == 0;
      close(open_[i].host);
      open_.erase(open_.begin() + static_cast<long>(i));
      return ok;
    }
    if (!dirs_.empty()) {  // the folder may be gone; reading it must still be safe
      *what << "closedir";
      while (readdir(dirs_.back()) != nullptr) {
      }
      closedir(dirs_.back());
      dirs_.pop_back();
    }
    return true;
  }

  std::string card_, host_;
  std::mt19937 rng_;
  int64_t c_;  // the cluster length
  std::vector<OpenFile> open_;
  std::vector<DIR*> dirs_;
  std::deque<std::string> history_;
};

class ModelTest : public ::testing::TestWithParam<CardKind> {};

TEST_P(ModelTest, RandomOperationsAgreeWithAHostFolder) {
  const unsigned seed = envNumber("VELT_MODEL_SEED", 20261123);
  const int ops =
      static_cast<int>(envNumber("VELT_MODEL_OPS", GetParam() == CardKind::kPlain ? 2000 : 600));
  MountedCard mounted;
  ASSERT_TRUE(mounted.start(GetParam())) << mounted.error();
  struct stat st;
  ASSERT_EQ(stat(mounted.path().c_str(), &st), 0);
  // The VELT card's reserved folder is not part of the model.
  TempDir host;
  const std::string card_root = mounted.path("model"), host_root = host.path() + "/model";
  ASSERT_EQ(mkdir(card_root.c_str(), 0755) | mkdir(host_root.c_str(), 0755), 0);
  {
    Model model(card_root, host_root, seed, st.st_blksize);
    for (int i = 0; i < ops && model.step(i); ++i) {
    }
    EXPECT_FALSE(HasFailure()) << "seed " << seed << " (VELT_MODEL_SEED)";
  }
  // What the callbacks write, another implementation reads (the in-process model's mtype
  // checks); here the daemon loads again what it wrote.
  mounted.unmountAndCheck();
  ASSERT_TRUE(mounted.mount()) << mounted.error();
  EXPECT_EQ(differences(snapshot(card_root), snapshot(host_root)), "");
  mounted.unmount();
}

// Four writers fill different files at once, in chunks of odd sizes, while two readers re-read
// them as they grow: every byte must be right through the mount and, after unmounting, through
// mtools. Each file has its own bytes, so a misplaced or misdirected block shows.
constexpr int kWriters = 4;
constexpr size_t kFileBytes = 6 << 20;
constexpr size_t kChunks[kWriters] = {65536, 4096, 131072 + 512, 1000};

// Failures are reported from the threads themselves (GoogleTest's assertions are thread-safe
// here); a thread stops at its first.
TEST_P(ModelTest, FourWritersAndTwoReadersKeepEveryByte) {
  MountedCard card;
  ASSERT_TRUE(card.start(GetParam())) << card.error();
  std::vector<std::string> data, paths;
  for (int w = 0; w < kWriters; ++w) {
    data.push_back(patternBytes(kFileBytes, static_cast<unsigned>(w + 1)));
    paths.push_back(card.path("writer" + std::to_string(w) + ".bin"));
  }
  std::atomic<int> done{0};
  std::atomic<int64_t> read_while_growing{0};
  std::vector<std::thread> threads;
  for (int w = 0; w < kWriters; ++w) {
    threads.emplace_back([&, w] {
      int fd = open(paths[w].c_str(), O_CREAT | O_EXCL | O_WRONLY, 0644);
      EXPECT_GE(fd, 0) << paths[w] << ": " << strerror(errno);
      for (size_t off = 0, n; fd >= 0 && off < kFileBytes; off += n) {
        n = std::min(kChunks[w], kFileBytes - off);
        if (write(fd, data[w].data() + off, n) != static_cast<ssize_t>(n)) {
          ADD_FAILURE() << paths[w] << ": write at " << off << ": " << strerror(errno);
          break;
        }
      }
      EXPECT_EQ(close(fd), 0) << paths[w];
      ++done;
    });
  }
  for (int r = 0; r < 2; ++r) {
    // Each reader re-reads every file from its start until the writers are done, then once more.
    threads.emplace_back([&, r] {
      std::string buf(100000 + r * 28672, '\0');
      for (bool last = false, failed = false; !last && !failed;) {
        last = done.load() == kWriters;
        for (int f = 0; f < kWriters && !failed; ++f) {
          int fd = open(paths[f].c_str(), O_RDONLY);
          if (fd < 0) continue;  // not created yet
          size_t off = 0;
          for (ssize_t got; !failed && (got = pread(fd, buf.data(), buf.size(), off)) > 0;
               off += got) {
            failed = buf.compare(0, got, data[f], off, got) != 0;
            EXPECT_FALSE(failed) << paths[f] << ": wrong bytes at or after " << off;
            if (!last) read_while_growing += got;
          }
          close(fd);
          EXPECT_TRUE(!last || off == kFileBytes) << paths[f] << ": " << off << " bytes at the end";
        }
      }
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_GT(read_while_growing.load(), 0);
  card.unmountAndCheck();
  for (int w = 0; w < kWriters; ++w) {
    ShellResult r = card.mtools("mtype ::/writer" + std::to_string(w) + ".bin");
    EXPECT_TRUE(r.status == 0 && r.out == data[w]) << "writer " << w << ": " << r.out.size();
  }
}

INSTANTIATE_TEST_SUITE_P(Cards, ModelTest, ::testing::Values(CardKind::kPlain, CardKind::kVelt),
                         cardKindParamName);

}  // namespace
}  // namespace velt::test
