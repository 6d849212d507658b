// Power cuts at every card write. Each workload runs once uncut to count its writes T; then, for
// each cut point N, the card is restored, the workload runs until write N (dropped, torn, or
// arriving while earlier unflushed writes are lost), the card is loaded again as the daemon
// loads it (with its repairs) and unloaded, and the promises are checked: the raw card before
// that load is consistent, it loads, fsck.fat finds nothing after it but what reserved files
// are, what fsync or a commit confirmed reads back, no file shows bytes never written to it,
// renames that returned hold, a rename in flight leaves exactly one name (both while it
// replaces a file, which keeps one of its contents all along; none when nothing confirmed the
// file yet), published recordings survive.
//
// VELT_POWERCUT_FULL=1 cuts at every write in every mode, and in reorder mode also loses each of
// the first unflushed writes alone.
#include "power_cut.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

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

constexpr int64_t kEveryModeFirst = 8;  // cut points that are tried in every mode
constexpr uint64_t kLostAlone = 8;      // full sweep: reorder cuts that lose one write each

struct PowerCut {};  // thrown out of a workload once the card has lost power

// What a file was promised: whatever of it the card shows is a prefix of `written`, and its
// first `synced` bytes are there (confirmed by fsync, a commit or a publication).
struct FilePromise {
  std::string written;
  size_t synced = std::string::npos;  // npos: nothing confirmed
};

// What the workload was promised, kept as it runs.
struct Promises {
  std::map<std::string, FilePromise> files;
  std::set<std::string> present, absent;  // a rename returned: new name there, old gone
  struct InFlight {
    std::string from, to;
    bool replaces;  // `to` existed: it stands until the rename is done, then with `from`'s content
    std::map<std::string, FilePromise> moved;  // promises under `from`, by their new paths
    std::optional<FilePromise> old;            // what `to` was promised before
    bool unconfirmed = false;  // a file nothing confirmed yet: a cut may lose it, name and all
  };
  std::optional<InFlight> rename;  // in flight at the cut

  // An operation on `path` begins: what was promised about it no longer holds for sure.
  void forget(const std::string& path) {
    files.erase(path);
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
    std::string path, data;
    fuse_file_info fi{};
  };
  Open create(const std::string& path) {
    Open f{path, {}, {}};
    check(recycling(path, [&] { return VELTFuse::__create(path.c_str(), 0644, &f.fi); }),
          "create " + path);
    return f;
  }
  Open open(const std::string& path) {
    Open f{path, {}, {}};
    f.fi.flags = O_RDONLY;
    check(VELTFuse::__open(path.c_str(), &f.fi), "open " + path);
    char byte;
    check(VELTFuse::__read(path.c_str(), &byte, 1, 0, &f.fi), "read " + path, 1);
    return f;
  }
  void write(Open& f, const std::string& bytes) {
    p.files[f.path].written = f.data + bytes;
    check(VELTFuse::__write(f.path.c_str(), bytes.data(), bytes.size(),
                            static_cast<off_t>(f.data.size()), &f.fi),
          "write " + f.path, static_cast<int>(bytes.size()));
    f.data += bytes;
  }
  void fsync(Open& f) {
    check(VELTFuse::__fsync(f.path.c_str(), 0, &f.fi), "fsync " + f.path);
    confirmed("fsync " + f.path);
    p.files[f.path].synced = f.data.size();
  }
  // `between` runs after the flush of close() and before the release, which the kernel may
  // send after the closer's next calls.
  void close(Open& f, const std::function<void()>& between = {}) {
    VELTFuse::__flush(f.path.c_str(), &f.fi);
    check();
    if (between) between();
    check(VELTFuse::__release(f.path.c_str(), &f.fi), "release " + f.path);
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
    Promises::InFlight flight{from, to, volume_->findEntry(to.c_str()) != nullptr, {}, {}};
    if (p.files.count(to) != 0) flight.old = p.files[to];
    flight.unconfirmed = p.files.count(from) != 0 && p.files[from].synced == std::string::npos &&
                         p.present.count(from) == 0;
    std::set<std::string> moved{to};
    for (const auto& [path, promise] : p.files) {
      if (under(path)) flight.moved[to + path.substr(from.size())] = promise;
    }
    for (const auto& path : p.present) {
      if (under(path)) moved.insert(to + path.substr(from.size()));
    }
    std::erase_if(p.files, [&](const auto& kv) { return under(kv.first); });
    std::erase_if(p.present, under);
    std::erase_if(p.absent, under);
    p.forget(to);
    p.rename = flight;
    const int r = VELTFuse::__rename(from.c_str(), to.c_str(), 0);
    check();  // whichever name survives a cut holds the content
    p.rename.reset();
    if (r != 0) throw std::runtime_error("rename " + from + ": " + std::to_string(r));
    confirmed("rename " + from);
    p.files.insert(flight.moved.begin(), flight.moved.end());
    p.present.insert(moved.begin(), moved.end());
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
    p.files[path].written = *data + bytes;
    auto reply = run(fd, kDirectOpWrite, static_cast<int64_t>(data->size()),
                     publish ? static_cast<int>(kDirectFlagSecure) : 0, bytes.data(),
                     static_cast<uint32_t>(bytes.size()));
    check();
    if (reply != nullptr && reply->param_ < 0) throw std::runtime_error("channel write " + path);
    *data += bytes;
    if (!publish) return;
    confirmed("publication of " + path);
    p.files[path].synced = data->size();
  }
  void channelClose(int fd) {
    run(fd, kDirectOpClose, 0, 0, nullptr, 0);
    check();
  }

 private:
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
    for (auto* item : volume_->responses_) reply == nullptr ? reply.reset(item) : delete item;
    volume_->responses_.clear();
    return reply;
  }

  CutDriver* driver_ = nullptr;
  int64_t final_writes_ = 0;
  std::shared_ptr<VELT> volume_;
};

const auto bytesOf = patternBytes;

// A recording committed every 256 KiB the way the commit interval does it (a cut loses at most
// what came after the last commit), then grown; then several recordings, two open at once, each
// written in odd-sized pieces and fsync'd on the way, a folder made meanwhile; then one deleted,
// one renamed onto another, short files made and deleted. Every write is a cut.
void recordings(Session& s) {
  auto l = s.create("/long recording.mp4");
  for (unsigned seed = 1; l.data.size() < (1u << 20); ++seed) {
    s.write(l, bytesOf(65536, seed));
    if (l.data.size() % (1u << 18) != 0) continue;
    s.volume().commitOpenFiles();
    s.check();
    s.confirmed("commit");
    s.p.files[l.path].synced = l.data.size();
  }
  s.close(l);
  s.mkdir("/DCIM");
  auto a = s.create("/DCIM/clip one.mp4");
  auto b = s.create("/b.bin");
  // Grown while two writers hold the FAT's writes back: the chain goes out before the size.
  s.p.files[l.path].written.resize((1u << 20) + 5000, '\0');
  s.check(VELTFuse::__truncate(l.path.c_str(), (1 << 20) + 5000, nullptr), "truncate");
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
  // A channel file's writes take their clusters in one allocation each, with the FAT written at
  // once (no writer holds it back): a cut inside leaves at most lost clusters.
  const std::string clip = "/DCIM/channel clip.mp4";
  int fd = s.channelCreate(clip);
  std::string data;
  s.channelWrite(fd, clip, &data, bytesOf(40000, 70), false);
  s.channelWrite(fd, clip, &data, bytesOf(30000, 71), true);
  s.channelWrite(fd, clip, &data, bytesOf(9000, 72), false);
  s.channelClose(fd);
}

// Folders and files made, renamed within and across folders and onto existing files, removed;
// files replaced the way editors and package managers do it (a temporary written, fsync'd,
// closed and renamed over the file, met before or after it at load).
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
  // Closed and moved at once: the move finds the record the close left to a later sync.
  auto draft = s.create("/work/draft.txt");
  s.write(draft, bytesOf(1800, 58));
  s.close(draft);
  s.rename(draft.path, "/work/inner folder/draft.txt");
  auto replace = [&](const std::string& tmp, const std::string& path, size_t size) {
    auto f = s.create(tmp);
    s.write(f, bytesOf(size, static_cast<unsigned>(size)));
    s.fsync(f);
    s.close(f);
    if (!path.empty()) s.rename(tmp, path);
  };
  replace("/LOG.TXT", "", 1300);  // the first version
  s.rename(names[0], "/work/renamed in place.txt");
  s.rename(names[2], "/work/inner folder/moved across.txt");
  s.rename(names[4], names[1]);  // onto an existing file
  s.unlink(names[3]);
  replace("/settings.tmp~", "/work/renamed in place.txt", 2500);
  replace("/work/LOG.TMP", "/LOG.TXT", 700);
  replace("/work/hosts.new", names[1], 1600);
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

// What `path` on a loaded volume shows against its promise: the problem, or empty.
std::string broken(VELT& v, const std::string& path, const FilePromise& promise) {
  auto entry = v.findEntry(path.c_str());
  std::string got;
  bool read = false;
  if (entry != nullptr && !entry->is_dir_) {
    if (auto file = v.newFile(false, false, false, entry)) {
      got.assign(static_cast<size_t>(entry->size_), '\0');
      read = got.empty() || file->read(got.data(), got.size(), 0) == static_cast<int>(got.size());
      file->close();
    }
  }
  const size_t synced = promise.synced;
  if (synced != std::string::npos && (!read || got.compare(0, synced, promise.written, 0, synced)))
    return path + ": confirmed content lost or changed\n";
  // A recording in a reserved folder may show its whole reservation after a cut.
  if (read && !v.isInVELTFolder(entry) && promise.written.compare(0, got.size(), got) != 0)
    return path + ": holds bytes never written to it (" + std::to_string(got.size()) + ")\n";
  return "";
}

// Checks the card after a cut; what is wrong, or empty.
std::string judge(const std::shared_ptr<CardBytes>& card, const CardImage& image, const Promises& p,
                  bool run_fsck) {
  std::string problems = rawCardProblems(*card);
  if (!problems.empty()) problems = "before the load: " + problems;
  int error = 0;
  auto v = mountOn(std::make_unique<CutDriver>(card), &error);
  if (v == nullptr) return problems + "the card does not load: " + std::to_string(error) + "\n";
  if (v->read_only_) problems += "the card loads read-only\n";
  auto there = [&v](const std::string& path) { return v->findEntry(path.c_str()) != nullptr; };
  for (const auto& [path, promise] : p.files) problems += broken(*v, path, promise);
  for (const auto& path : p.present) {
    if (!there(path)) problems += path + ": renamed entry missing\n";
  }
  for (const auto& path : p.absent) {
    if (there(path)) problems += path + ": old name of a rename stays\n";
  }
  if (const auto& r = p.rename) {
    const bool a = there(r->from), b = there(r->to);
    if (r->replaces ? !b : (a == b && (a || !r->unconfirmed)))
      problems += r->from + " -> " + r->to + ": rename in flight left " +
                  (a ? (b ? "both" : "only the old name") : "neither") + "\n";
    // The moved content is under the old name while it stands, the replaced one under the new.
    for (const auto& [path, promise] : r->moved)
      problems += broken(*v, a ? r->from + path.substr(r->to.size()) : path, promise);
    if (a && r->old) problems += broken(*v, r->to, *r->old);
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
  bool velt;       // on a card with the reserved folder REC of 1 MiB files
  int64_t cuts;    // cut points in an ordinary run (a third under the sanitizers)
  int fsck_every;  // every so many cuts, and after the last, fsck.fat judges the card
};

const Row kRows[] = {
    {"RecordingsThroughTheMount", recordings, false, 200, 7},
    {"NamespaceChurn", churn, false, 230, 7},
    {"RecordingsIntoAReservedFolder", reservedRecordings, true, 120, 6},
};

void PrintTo(const Row& row, std::ostream* os) {
  *os << row.name;
}

// Thousands of loads print their findings: keep them out of the test's output while it lives.
struct Quiet {
  Quiet() {
    nerio::theLog().redirect("/dev/null");
    fflush(stdout);
    dup2(null_fd, 1);
  }
  ~Quiet() {
    fflush(stdout);
    dup2(saved_stdout, 1);
    ::close(saved_stdout);
    ::close(null_fd);
    nerio::theLog().redirect("/dev/stdout");
  }
  const int saved_stdout = dup(1), null_fd = open("/dev/null", O_WRONLY);
};

class PowerCutSweep : public ::testing::TestWithParam<Row> {};

TEST_P(PowerCutSweep, EveryCutLeavesAConsistentCardThatKeepsItsPromises) {
  const Row& row = GetParam();
  CardImage image(smallClusterCard(64));  // 512-byte clusters, as mkfs.fat lays them down
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

  Promises p;
  int cuts = 0, fsck_runs = 0, failures = 0;
  std::string first_failure;
  auto quiet = std::make_unique<Quiet>();
  const int64_t total = runOnce(base, card, row.work, 0, CutMode::kDrop, 0, &p);
  // Every cut point while they are few, else an even spread with the first and the last.
  const int64_t points = std::min(total, kFull ? total : kSanitized ? row.cuts / 3 : row.cuts);
  for (int64_t i = 0; i < points; ++i) {
    const int64_t n = 1 + (points > 1 ? i * (total - 1) / (points - 1) : 0);
    // The mode and the reorder choice come from one hash of the point and the workload, so
    // that each mode meets every kind of choice.
    uint64_t h =
        static_cast<uint64_t>(n) * 0x9E3779B97F4A7C15ull ^ std::hash<std::string>{}(row.name);
    h = (h ^ (h >> 31)) * 0xBF58476D1CE4E5B9ull;
    h ^= h >> 29;
    // The first writes meet every mode: on a card this empty, a chain cut short is most of
    // what the FAT holds.
    for (CutMode mode : {CutMode::kDrop, CutMode::kTear, CutMode::kReorder}) {
      if (!kFull && n > kEveryModeFirst && mode != static_cast<CutMode>(h % 3)) continue;
      // The full sweep also loses each of the first unflushed writes alone (odd choices): a
      // missing flush between two steps shows only when exactly the earlier one is lost.
      const uint64_t variants = kFull && mode == CutMode::kReorder ? 1 + kLostAlone : 1;
      for (uint64_t v = 0; v < variants; ++v) {
        const uint64_t choice = v == 0 ? h / 3 : 2 * (v - 1) + 1;
        runOnce(base, card, row.work, n, mode, choice, &p);
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
                          " (" + kNames[static_cast<int>(mode)] + ", choice " +
                          std::to_string(choice) + "):\n" + problems;
        }
      }
    }
  }
  quiet.reset();
  printf("  %lld writes; %d cuts, %d checked by fsck.fat, %d failed\n",
         static_cast<long long>(total), cuts, fsck_runs, failures);
  EXPECT_EQ(failures, 0) << first_failure;
}

INSTANTIATE_TEST_SUITE_P(Workloads, PowerCutSweep, ::testing::ValuesIn(kRows),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace velt::test
