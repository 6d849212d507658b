// Power cuts at every card write. Each workload runs once uncut to count its writes T; then, for
// each cut point N, the card is restored, the workload runs until write N (dropped, torn, or
// arriving while an earlier unflushed write is lost), the card is loaded again as the daemon
// loads it (with its repairs) and unloaded, and the promises are checked: the raw card before
// that load is consistent, it loads, fsck.fat finds nothing after it but what reserved files
// are, what fsync or a commit confirmed reads back, renames that returned hold, a rename in
// flight leaves exactly one name (both while it replaces one), published recordings survive.
//
// VELT_POWERCUT_FULL=1 sweeps every N in every mode and runs the large recording.
#include "power_cut.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "card_volume.h"
#include "fs/velt_file.h"
#include "fs/velt_fuse.h"
#include "fs/velt_pipe.h"
#include "velt_fsck.h"

namespace velt::test {
namespace {

const bool kFull =
    getenv("VELT_POWERCUT_FULL") != nullptr && getenv("VELT_POWERCUT_FULL")[0] == '1';
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

struct PowerCut {};  // thrown out of a workload once the card has lost power

// What the workload was promised, kept as it runs.
struct Promises {
  // path -> bytes that fsync, a commit or a publication confirmed (a prefix of the file)
  std::map<std::string, std::string> synced;
  std::set<std::string> present, absent;  // a rename returned: new name there, old gone
  // path -> every byte written to it, in order: whatever of it the card shows is a prefix
  std::map<std::string, std::string> written;
  struct InFlight {
    std::string from, to;
    bool replaces;  // `to` existed: until the rename is done both names stand
    std::map<std::string, std::string> content;  // synced under `from`, by their new paths
  };
  std::optional<InFlight> rename;                            // in flight at the cut
  std::map<std::string, std::vector<std::string>> versions;  // path -> its acceptable contents

  // An operation on `path` begins: what was promised about it no longer holds for sure.
  void forget(const std::string& path) {
    synced.erase(path);
    written.erase(path);
    present.erase(path);
    absent.erase(path);
  }
};

// One run of a workload on a card, through the mount's callbacks and the channel's operations.
class Session {
 public:
  Session(std::shared_ptr<CardBytes> card, int64_t cut, CutMode mode, uint64_t choice) {
    auto d = std::make_unique<CutDriver>(card);
    d->cutAt(cut, mode, choice);
    d->final_writes = &final_writes_;
    driver_ = d.get();
    int error = 0;
    volume_ = mountOn(std::move(d), &error);
    if (volume_ == nullptr) throw std::runtime_error("workload card does not load");
    VELTFuse::setVolume(volume_);
  }
  ~Session() { end(); }
  void end() {
    if (volume_ == nullptr) return;
    VELTFuse::setVolume(nullptr);
    volume_.reset();  // unload: open files closed, buffers written
  }
  // Every write the card saw, the unload's included once the session has ended.
  int64_t writes() const { return volume_ != nullptr ? driver_->writes() : final_writes_; }
  VELT& volume() { return *volume_; }
  Promises p;

  // Throws PowerCut when the card died during the call, else a failure when `r` is not `want`.
  void check(int r = 0, const std::string& what = "", int want = 0) {
    if (driver_->dead()) throw PowerCut();
    if (r != want) throw std::runtime_error(what + ": " + std::to_string(r));
  }
  // What a call confirmed is flushed before it returns: no write of it may still be reordered.
  void confirmed(const std::string& what) {
    if (driver_->unflushed() != 0) throw std::runtime_error(what + " returned before a flush");
  }

  struct Open {
    uint64_t fh = 0;
    std::string path, data;
  };
  Open create(const std::string& path) {
    fuse_file_info fi{};
    const int r = recycling(path, [&] { return VELTFuse::__create(path.c_str(), 0644, &fi); });
    check(r, "create " + path);
    return Open{fi.fh, path, {}};
  }
  Open open(const std::string& path) {
    fuse_file_info fi{};
    fi.flags = O_RDONLY;
    check(VELTFuse::__open(path.c_str(), &fi), "open " + path);
    char byte;
    check(VELTFuse::__read(path.c_str(), &byte, 1, 0, &fi), "read " + path, 1);
    return Open{fi.fh, path, {}};
  }
  void write(Open& f, const std::string& bytes) {
    fuse_file_info fi = info(f);
    p.written[f.path] = f.data + bytes;
    check(VELTFuse::__write(f.path.c_str(), bytes.data(), bytes.size(),
                            static_cast<off_t>(f.data.size()), &fi),
          "write " + f.path, static_cast<int>(bytes.size()));
    f.data += bytes;
  }
  void fsync(Open& f) {
    fuse_file_info fi = info(f);
    check(VELTFuse::__fsync(f.path.c_str(), 0, &fi), "fsync " + f.path);
    confirmed("fsync " + f.path);
    p.synced[f.path] = f.data;
  }
  // `between` runs after the flush of close() and before the release, which the kernel may
  // send after the closer's next calls.
  void close(Open& f, const std::function<void()>& between = {}) {
    fuse_file_info fi = info(f);
    VELTFuse::__flush(f.path.c_str(), &fi);
    check();
    if (between) between();
    check(VELTFuse::__release(f.path.c_str(), &fi), "release " + f.path);
  }
  void mkdir(const std::string& path) {
    check(VELTFuse::__mkdir(path.c_str(), 0755), "mkdir " + path);
  }
  void rmdir(const std::string& path) { check(VELTFuse::__rmdir(path.c_str()), "rmdir " + path); }
  void unlink(const std::string& path) {
    p.forget(path);
    check(VELTFuse::__unlink(path.c_str()), "unlink " + path);
  }
  // Renames a closed file or a folder (with everything promised under it).
  void rename(const std::string& from, const std::string& to) {
    auto under = [&from](const std::string& path) {
      return path == from || path.rfind(from + "/", 0) == 0;
    };
    Promises::InFlight flight{from, to, volume_->findEntry(to.c_str()) != nullptr, {}};
    std::set<std::string> moved;
    std::map<std::string, std::string> written;
    for (const auto& [path, bytes] : p.synced) {
      if (under(path)) flight.content[to + path.substr(from.size())] = bytes;
    }
    for (const auto& [path, bytes] : p.written) {
      if (under(path)) written[to + path.substr(from.size())] = bytes;
    }
    for (const auto& path : p.present) {
      if (under(path)) moved.insert(to + path.substr(from.size()));
    }
    std::erase_if(p.synced, [&](const auto& kv) { return under(kv.first); });
    std::erase_if(p.written, [&](const auto& kv) { return under(kv.first); });
    std::erase_if(p.present, under);
    std::erase_if(p.absent, under);
    p.forget(to);
    p.forget(from);
    p.rename = flight;
    const int r = VELTFuse::__rename(from.c_str(), to.c_str(), 0);
    check();  // whichever name survives a cut holds the content
    p.rename.reset();
    if (r != 0) throw std::runtime_error("rename " + from + ": " + std::to_string(r));
    confirmed("rename " + from);
    for (auto& [path, bytes] : flight.content) p.synced[path] = bytes;
    p.present.insert(moved.begin(), moved.end());
    p.written.insert(written.begin(), written.end());
    p.present.insert(to);
    p.absent.insert(from);
  }

  // The channel: create, write (optionally with publication), close, as its worker runs them.
  int channelCreate(const std::string& path) {
    std::unique_ptr<VELTWorkItem> reply;
    recycling(path, [&] {
      reply = run(100, kDirectOpCreate, 0, 2, path.c_str(), static_cast<uint32_t>(path.size() + 1));
      return 0;
    });
    check();
    if (reply == nullptr || reply->param_ < 0) throw std::runtime_error("channel create " + path);
    return reply->param_;
  }
  void channelWrite(int fd, const std::string& path, std::string* data, const std::string& bytes,
                    bool publish) {
    p.written[path] = *data + bytes;
    auto reply = run(fd, kDirectOpWrite, static_cast<int64_t>(data->size()),
                     publish ? static_cast<int>(kDirectFlagSecure) : 0, bytes.data(),
                     static_cast<uint32_t>(bytes.size()));
    check();
    if (reply != nullptr && reply->param_ < 0) throw std::runtime_error("channel write " + path);
    *data += bytes;
    if (publish) confirmed("publication of " + path);
    if (publish) p.synced[path] = *data;
  }
  void channelClose(int fd) {
    run(fd, kDirectOpClose, 0, 0, nullptr, 0);
    check();
  }

 private:
  static fuse_file_info info(const Open& f) {
    fuse_file_info fi{};
    fi.fh = f.fh;
    return fi;
  }
  // Creates `path` with `make`: in a full reserved folder a creation takes over (recycles) the
  // recording taken over longest ago, whose promises go with it.
  template <typename Make>
  int recycling(const std::string& path, Make make) {
    p.forget(path);
    const std::string folder = path.substr(0, path.rfind('/') + 1);
    auto names = [&] {
      std::set<std::string> out;
      auto dir = volume_->findEntry(path.substr(0, path.rfind('/')).c_str());
      if (dir == nullptr) return out;
      std::lock_guard lock(dir->children_mutex_);
      for (const auto& c : dir->children_) out.insert(folder + c->name_);
      return out;
    };
    const std::set<std::string> before = names();
    const int r = make();
    const std::set<std::string> after = names();
    for (const auto& name : before) {
      if (after.count(name) == 0) p.forget(name);
    }
    return r;
  }
  std::unique_ptr<VELTWorkItem> run(int32_t fd, uint32_t op, int64_t offset, int32_t param,
                                    const void* payload, uint32_t size) {
    auto* r = new VELTWorkItem(fd, op, offset, param, size);
    if (size > 0) memcpy(r->data_, payload, size);
    std::unique_ptr<VELTWorkItem> reply(volume_->executeDirectRequest(r));
    std::lock_guard<std::mutex> lock(volume_->response_mutex_);
    for (auto* item : volume_->responses_) {
      if (reply == nullptr) {
        reply.reset(item);
      } else {
        delete item;
      }
    }
    volume_->responses_.clear();
    return reply;
  }

  CutDriver* driver_ = nullptr;
  int64_t final_writes_ = 0;
  std::shared_ptr<VELT> volume_;
};

const auto bytesOf = patternBytes;

// Several recordings, two open at once, each written in odd-sized pieces and fsync'd on the way,
// a folder made meanwhile; then one deleted, one renamed onto another, short files made and
// deleted. Every write is a cut.
void recordings(Session& s) {
  s.mkdir("/DCIM");
  auto a = s.create("/DCIM/clip one.mp4");
  auto b = s.create("/b.bin");
  for (int i = 0; i < 4; ++i) {
    s.write(a, bytesOf(1500 + 700 * i, 10 + i));
    s.write(b, bytesOf(900, 20 + i));
    if (i % 2 == 1) s.fsync(a);
    if (i == 2) s.fsync(b);
  }
  s.mkdir("/DCIM/a folder made while two files are open");
  s.close(a);
  s.fsync(b);
  s.write(b, bytesOf(3000, 30));
  s.close(b);
  auto c = s.create("/DCIM/clip two.mp4");
  s.write(c, bytesOf(5000, 40));
  s.fsync(c);
  s.close(c);
  s.unlink("/DCIM/clip one.mp4");
  s.rename("/DCIM/clip two.mp4", "/b.bin");  // onto a file in another folder
  for (int i = 0; i < 4; ++i) {
    auto t = s.create("/DCIM/short " + std::to_string(i));
    s.write(t, bytesOf(700, 60 + i));
    s.close(t);
    s.unlink(t.path);
  }
}

// Folders and files made, renamed within and across folders and onto existing files, removed.
void churn(Session& s) {
  s.mkdir("/work");
  s.mkdir("/work/inner folder");
  std::vector<std::string> names;
  for (int i = 0; i < 7; ++i) {
    names.push_back("/work/file number " + std::to_string(i) + ".txt");
    auto f = s.create(names.back());
    s.write(f, bytesOf(600 + 100 * i, 50 + i));
    if (i % 2 == 0) s.fsync(f);
    s.close(f);
  }
  s.rename(names[0], "/work/renamed in place.txt");
  s.rename(names[2], "/work/inner folder/moved across.txt");
  s.rename(names[4], names[1]);  // onto an existing file
  s.unlink(names[3]);
  // A journal closed and removed at once, and a file replaced just after it was read.
  auto journal = s.create("/work/db.journal");
  s.write(journal, bytesOf(2500, 60));
  s.fsync(journal);
  s.close(journal, [&] { s.unlink(journal.path); });
  auto reader = s.open(names[5]);
  s.close(reader, [&] { s.rename(names[6], names[5]); });
  s.mkdir("/empty");
  s.rmdir("/empty");
  s.rename("/work/inner folder", "/inner moved");
  s.rename("/inner moved/moved across.txt", "/top.txt");
}

// Files replaced the way editors, rsync and package managers do it: a temporary written,
// fsync'd, closed and renamed over the file, in its folder and across folders. The file holds
// one of its complete versions after any cut.
void replacements(Session& s) {
  s.mkdir("/etc");
  const std::string files[] = {"/etc/settings of the app.json", "/etc/hosts", "/LOG.TXT"};
  unsigned seed = 100;
  auto version = [&](const std::string& path, size_t size) {
    auto f = s.create(path);
    s.write(f, bytesOf(size, seed++));
    s.fsync(f);
    s.close(f);
    return f.data;
  };
  for (const auto& path : files) s.p.versions[path] = {version(path, 1300)};
  for (int round = 0; round < 2; ++round) {
    for (size_t i = 0; i < 3; ++i) {
      // From the root into /etc the temporary is met first at load, from /etc to the root last.
      const std::string tmp = i == 0   ? (round == 0 ? "/settings.tmp~" : files[0] + ".tmp~")
                              : i == 1 ? "/hosts.new"
                                       : "/etc/LOG.TMP";
      std::string next = version(tmp, 700 + 900 * ((round + i) % 3));
      s.p.versions[files[i]].push_back(next);
      s.rename(tmp, files[i]);
      s.p.versions[files[i]] = {next};
    }
  }
}

uint32_t g_capacity = 0;  // reserved files of REC on the VELT card

// Recordings into the reserved folder through the mount and through the channel, published,
// deleted, and recycled once the folder is full.
void reservedRecordings(Session& s) {
  std::vector<std::string> taken;  // in takeover order, oldest first
  auto mountRecording = [&](const std::string& path, unsigned seed) {
    auto f = s.create(path);
    taken.push_back(path);
    s.write(f, bytesOf(70000, seed));
    s.fsync(f);  // publishes
    s.write(f, bytesOf(30000, seed + 1));
    s.close(f);
  };
  auto channelRecording = [&](const std::string& path, unsigned seed) {
    int fd = s.channelCreate(path);
    taken.push_back(path);
    std::string data;
    s.channelWrite(fd, path, &data, bytesOf(50000, seed), false);
    s.channelWrite(fd, path, &data, bytesOf(20000, seed + 1), true);
    s.channelWrite(fd, path, &data, bytesOf(20000, seed + 2), false);
    s.channelClose(fd);
  };
  mountRecording("/REC/first recording.mp4", 60);
  channelRecording("/REC/second.mp4", 70);
  s.unlink("/REC/first recording.mp4");
  taken.erase(taken.begin());
  // Fill the folder, then one more: the oldest recording is taken over again.
  for (unsigned seed = 80; taken.size() < g_capacity; seed += 3)
    channelRecording("/REC/fill " + std::to_string(seed) + ".mp4", seed);
  mountRecording("/REC/recycled.mp4", 90);
}

// A long recording committed every MiB the way the commit interval does it: a cut loses at most
// what came after the last commit.
void longRecording(Session& s) {
  const size_t total = kFull ? (100u << 20) : kSanitized ? (4u << 20) : (12u << 20);
  auto f = s.create("/long recording.mp4");
  for (unsigned seed = 1; f.data.size() < total; ++seed) {
    s.write(f, bytesOf(65536, seed));
    if (f.data.size() % (1u << 20) == 0) {
      s.volume().commitOpenFiles();
      s.check();
      s.confirmed("commit");
      s.p.synced[f.path] = f.data;
    }
  }
  s.close(f);
}

// The whole content of `path` on a loaded volume; false when it is missing or unreadable.
bool readFile(VELT& v, const std::string& path, std::string* out) {
  auto entry = v.findEntry(path.c_str());
  if (entry == nullptr || entry->is_dir_) return false;
  auto file = v.newFile(false, false, false, entry);
  if (file == nullptr) return false;
  out->assign(static_cast<size_t>(entry->size_), '\0');
  int got = out->empty() ? 0 : file->read(out->data(), out->size(), 0);
  file->close();
  return got == static_cast<int>(out->size());
}

bool holds(VELT& v, const std::string& path, const std::string& want) {
  std::string got;
  return readFile(v, path, &got) && got.compare(0, want.size(), want) == 0;
}

// Checks the card after a cut; what is wrong, or empty.
std::string judge(const std::shared_ptr<CardBytes>& card, const CardImage& image, const Promises& p,
                  bool run_fsck) {
  std::string problems = rawCardProblems(*card);
  if (!problems.empty()) problems = "before the load: " + problems;
  int error = 0;
  auto v = mountOn(std::make_unique<CutDriver>(card), &error);
  if (v == nullptr) return problems + "the card does not load: " + std::to_string(error) + "\n";
  for (const auto& [path, want] : p.synced) {
    if (!holds(*v, path, want)) problems += path + ": fsync'd content lost or changed\n";
  }
  for (const auto& [path, bytes] : p.written) {
    // A recording in a reserved folder may show its whole reservation after a cut.
    auto e = v->findEntry(path.c_str());
    std::string got;
    if (e != nullptr && !v->isInVELTFolder(e) && readFile(*v, path, &got) &&
        bytes.compare(0, got.size(), got) != 0)
      problems += path + ": holds bytes never written to it (" + std::to_string(got.size()) + ")\n";
  }
  for (const auto& [path, wants] : p.versions) {
    std::string got;
    if (!readFile(*v, path, &got)) {
      problems += path + ": replaced file missing\n";
    } else if (std::find(wants.begin(), wants.end(), got) == wants.end()) {
      problems += path + ": replaced file holds none of its versions (" +
                  std::to_string(got.size()) + " bytes)\n";
    }
  }
  for (const auto& path : p.present) {
    if (v->findEntry(path.c_str()) == nullptr) problems += path + ": renamed entry missing\n";
  }
  for (const auto& path : p.absent) {
    if (v->findEntry(path.c_str()) != nullptr) problems += path + ": old name of a rename stays\n";
  }
  if (const auto& r = p.rename) {
    const bool a = v->findEntry(r->from.c_str()) != nullptr,
               b = v->findEntry(r->to.c_str()) != nullptr;
    if (a == b && !(a && r->replaces))
      problems +=
          r->from + " -> " + r->to + ": rename in flight left " + (a ? "both" : "neither") + "\n";
    for (const auto& [to_path, want] : r->content) {
      // The content is under the old name while it stands, else under the new one.
      std::string got;
      if (!readFile(*v, r->from + to_path.substr(r->to.size()), &got) &&
          !readFile(*v, to_path, &got))
        continue;  // reported above
      if (got.compare(0, want.size(), want) != 0)
        problems += to_path + ": content lost in a rename in flight\n";
    }
  }
  v.reset();  // unload
  if (run_fsck) {
    // On a VELT card fsck.fat also reports what the reserved files are by design.
    image.putContents(*card);
    ::testing::AssertionResult r = fsckShowsOnlyReservedFiles(image);
    if (!r) problems += std::string("fsck.fat after the load: ") + r.message() + "\n";
  }
  return problems;
}

using Workload = void (*)(Session&);

// Runs `work` on a copy of `base` with a cut at write `cut` (0: none); returns its write count.
int64_t runOnce(const CardBytes& base, const std::shared_ptr<CardBytes>& card, Workload work,
                int64_t cut, CutMode mode, uint64_t choice, Promises* promises) {
  *card = base;
  Session s(card, cut, mode, choice);
  try {
    work(s);
  } catch (const PowerCut&) {
  }
  s.end();
  *promises = s.p;
  return s.writes();
}

struct Row {
  const char* name;
  Workload work;
  bool velt;            // on a card with the reserved folder REC of 1 MiB files
  int64_t cuts;         // cut points in an ordinary run (a third under the sanitizers)
  int fsck_every;       // every so many cuts, and after the last, fsck.fat judges the card
  bool spread = false;  // many writes: cut at random points rather than on a grid
};

const Row kRows[] = {
    {"RecordingsThroughTheMount", recordings, false, 150, 6},
    {"NamespaceChurn", churn, false, 150, 6},
    {"FilesReplacedByRename", replacements, false, 80, 8},
    {"RecordingsIntoAReservedFolder", reservedRecordings, true, 120, 6},
    {"LongRecordingLosesAtMostTheLastInterval", longRecording, false, 24, 8, true},
};

void PrintTo(const Row& row, std::ostream* os) {
  *os << row.name;
}

class PowerCutSweep : public ::testing::TestWithParam<Row> {};

TEST_P(PowerCutSweep, EveryCutLeavesAConsistentCardThatKeepsItsPromises) {
  const Row& row = GetParam();
  // A card of 512-byte clusters, as mkfs.fat lays it down; 8 sectors a cluster for the large
  // recording.
  CardSpec spec;
  spec.size_mb = kFull && row.spread ? 160 : 64;
  spec.sectors_per_cluster = kFull && row.spread ? 8 : 1;
  CardImage image(spec);
  ASSERT_TRUE(image.ok()) << image.error();
  if (row.velt) {
    ASSERT_EQ(formatCard(image, formatInfo({{"REC", 8, 1}})), 0);
    Loaded l = loadCard(image);
    ASSERT_EQ(l.error, 0) << l.log;
    g_capacity = l.volume->format_info_.folders[0].count;
    ASSERT_GE(g_capacity, 2u);
  }
  const std::string all = image.contents();
  const CardBytes base(all.begin(), all.end());
  auto card = std::make_shared<CardBytes>();

  // Thousands of loads print their findings: keep them out of the test's output.
  nerio::theLog().redirect("/dev/null");
  fflush(stdout);
  const int saved_stdout = dup(1), null_fd = open("/dev/null", O_WRONLY);
  dup2(null_fd, 1);
  ::close(null_fd);
  Promises p;
  const int64_t total = runOnce(base, card, row.work, 0, CutMode::kDrop, 0, &p);
  // All cut points while they are few, else an even spread with the first and the last, or
  // points anywhere (the cut meets every kind of write sooner or later).
  const int64_t budget = kFull ? (row.spread ? 300 : total) : kSanitized ? row.cuts / 3 : row.cuts;
  std::vector<int64_t> points;
  uint64_t x = 88172645463325252ull;
  for (int64_t i = 0; i < std::min(total, budget); ++i) {
    if (total <= budget) {
      points.push_back(i + 1);
    } else if (row.spread && i > 0 && i + 1 < budget) {
      x ^= x << 13, x ^= x >> 7, x ^= x << 17;
      points.push_back(1 + static_cast<int64_t>(x % static_cast<uint64_t>(total)));
    } else {
      points.push_back(1 + i * (total - 1) / (budget - 1));
    }
  }
  int cuts = 0, fsck_runs = 0, failures = 0;
  std::string first_failure;
  for (int64_t n : points) {
    for (CutMode mode : {CutMode::kDrop, CutMode::kTear, CutMode::kReorder}) {
      if (!kFull && mode != static_cast<CutMode>(n % 3)) continue;
      runOnce(base, card, row.work, n, mode, static_cast<uint64_t>(n) * 2654435761u, &p);
      const bool fsck = cuts++ % row.fsck_every == 0 || n == total;
      fsck_runs += fsck;
      const std::string problems = judge(card, image, p, fsck);
      if (problems.empty()) continue;
      if (getenv("VELT_POWERCUT_VERBOSE") != nullptr)
        fprintf(stderr, "cut %lld mode %d: %s", static_cast<long long>(n), static_cast<int>(mode),
                problems.c_str());
      if (failures++ == 0) {
        static const char* kNames[] = {"drop", "tear", "reorder"};
        first_failure = "cut at write " + std::to_string(n) + " of " + std::to_string(total) +
                        " (" + kNames[static_cast<int>(mode)] + "):\n" + problems;
      }
    }
  }
  fflush(stdout);
  dup2(saved_stdout, 1);
  ::close(saved_stdout);
  nerio::theLog().redirect("/dev/stdout");
  printf("  %lld writes; %d cuts, %d checked by fsck.fat, %d failed\n",
         static_cast<long long>(total), cuts, fsck_runs, failures);
  EXPECT_EQ(failures, 0) << first_failure;
}

INSTANTIATE_TEST_SUITE_P(Workloads, PowerCutSweep, ::testing::ValuesIn(kRows),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace velt::test
