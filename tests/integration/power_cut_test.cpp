// Power cuts at every card write. Each workload runs once uncut to count its writes T; then, for
// each cut point N, the card is restored, the workload runs until write N (dropped, torn, or
// arriving while an earlier unflushed write is lost), the card is loaded again as the daemon
// loads it (with its repairs) and unloaded, and the promises are checked: the card loads, the
// raw card before that load is consistent, fsck.fat finds nothing after it, what fsync
// confirmed reads back, renames that returned hold, a rename in flight leaves exactly one name,
// published recordings survive.
//
// VELT_POWERCUT_FULL=1 sweeps every N in every mode and runs the large recording.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <set>
#include <string>

#include "card_image.h"
#include "card_volume.h"
#include "fs/velt_dirent.h"
#include "fs/velt_file.h"
#include "fs/velt_fuse.h"
#include "fs/velt_pipe.h"
#include "power_cut.h"
#include "velt_fsck.h"

namespace velt::test {
namespace {

bool fullSweep() {
  const char* e = getenv("VELT_POWERCUT_FULL");
  return e != nullptr && e[0] == '1';
}

bool sanitized() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  return true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
  return true;
#else
  return false;
#endif
#else
  return false;
#endif
}

struct PowerCut {};  // thrown out of a workload once the card has lost power

// What the workload was promised, kept as it runs.
struct Promises {
  std::map<std::string, std::string> synced;  // path -> bytes fsync confirmed (a prefix)
  std::set<std::string> present;              // a rename returned: the new name
  std::set<std::string> absent;               // ... and the old one is gone
  std::map<std::string, std::string> published;  // reserved-folder recordings
  struct InFlight {
    std::string from, to;
    bool replaces;  // `to` existed: until the rename is done both names stand
  };
  std::vector<InFlight> renames;  // in flight at the cut
  std::map<std::string, std::vector<std::string>> versions;  // path -> its acceptable contents

  // An operation on `path` begins: what was promised about it no longer holds for sure.
  void forget(const std::string& path) {
    synced.erase(path);
    present.erase(path);
    absent.erase(path);
    published.erase(path);
  }
};

// One run of a workload on a card, through the mount's callbacks and the channel's operations.
class Session {
 public:
  Session(std::shared_ptr<CardBytes> card, int64_t cut, CutMode mode, uint64_t choice) {
    auto d = std::make_unique<CutDriver>(card);
    d->cutAt(cut, mode, choice);
    driver_ = d.get();
    d->final_writes = &final_writes_;
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
  CutDriver& driver() { return *driver_; }
  // Every write the card saw, the unload's included once the session has ended.
  int64_t writes() const { return volume_ != nullptr ? driver_->writes() : final_writes_; }
  VELT& volume() { return *volume_; }
  Promises p;

  // Throws PowerCut when the card died during the call, else a failure when `r` is not `want`.
  void check(int r = 0, const std::string& what = "", int want = 0) {
    if (driver_->dead()) throw PowerCut();
    if (r != want) throw std::runtime_error(what + ": " + std::to_string(r));
  }

  struct Open {
    uint64_t fh = 0;
    std::string path;
    std::string data;
  };
  // Names in the folder of `path`: a creation in a full reserved folder takes over (recycles)
  // the recording taken over longest ago, whose promises go with it.
  std::set<std::string> siblings(const std::string& path) {
    std::set<std::string> out;
    auto dir = volume_->findEntry(path.substr(0, path.rfind('/')).c_str());
    if (dir == nullptr) return out;
    std::lock_guard lock(dir->children_mutex_);
    for (const auto& c : dir->children_) out.insert(path.substr(0, path.rfind('/') + 1) + c->name_);
    return out;
  }
  void forgetRecycled(const std::set<std::string>& before, const std::string& path) {
    std::set<std::string> after = siblings(path);
    for (const auto& name : before) {
      if (after.count(name) == 0) p.forget(name);
    }
  }

  Open create(const std::string& path) {
    p.forget(path);
    fuse_file_info fi{};
    const std::set<std::string> before = siblings(path);
    int r = VELTFuse::__create(path.c_str(), 0644, &fi);
    forgetRecycled(before, path);
    check(r, "create " + path);
    return Open{fi.fh, path, {}};
  }
  void write(Open& f, const std::string& bytes) {
    fuse_file_info fi{};
    fi.fh = f.fh;
    int r = VELTFuse::__write(f.path.c_str(), bytes.data(), bytes.size(),
                              static_cast<off_t>(f.data.size()), &fi);
    check(r, "write " + f.path, static_cast<int>(bytes.size()));
    f.data += bytes;
  }
  void fsync(Open& f) {
    fuse_file_info fi{};
    fi.fh = f.fh;
    check(VELTFuse::__fsync(f.path.c_str(), 0, &fi), "fsync " + f.path);
    p.synced[f.path] = f.data;
    if (volume_->isInVELTFolder(volume_->findEntry(f.path.c_str()))) p.published[f.path] = f.data;
  }
  void close(Open& f) {
    fuse_file_info fi{};
    fi.fh = f.fh;
    VELTFuse::__flush(f.path.c_str(), &fi);
    check();
    check(VELTFuse::__release(f.path.c_str(), &fi), "release " + f.path);
  }
  void mkdir(const std::string& path) { check(VELTFuse::__mkdir(path.c_str(), 0755), "mkdir " + path); }
  void rmdir(const std::string& path) { check(VELTFuse::__rmdir(path.c_str()), "rmdir " + path); }
  void unlink(const std::string& path) {
    p.forget(path);
    check(VELTFuse::__unlink(path.c_str()), "unlink " + path);
  }
  // Renames a closed file or a folder (with everything promised under it).
  void rename(const std::string& from, const std::string& to) {
    std::map<std::string, std::string> moved;
    for (auto it = p.synced.begin(); it != p.synced.end();) {
      if (it->first == from || it->first.rfind(from + "/", 0) == 0) {
        moved[to + it->first.substr(from.size())] = it->second;
        it = p.synced.erase(it);
      } else {
        ++it;
      }
    }
    auto under = [&from](const std::string& path) {
      return path == from || path.rfind(from + "/", 0) == 0;
    };
    std::set<std::string> moved_present;
    for (const auto& path : p.present) {
      if (under(path)) moved_present.insert(to + path.substr(from.size()));
    }
    std::erase_if(p.present, under);
    std::erase_if(p.absent, under);
    p.forget(to);
    p.forget(from);
    p.renames.push_back({from, to, volume_->findEntry(to.c_str()) != nullptr});
    int r = VELTFuse::__rename(from.c_str(), to.c_str(), 0);
    if (driver_->dead()) {
      // Whichever name survives holds the content.
      for (auto& [path, bytes] : moved) inflight_content_[path] = bytes;
      throw PowerCut();
    }
    p.renames.pop_back();
    if (r != 0) throw std::runtime_error("rename " + from + ": " + std::to_string(r));
    for (auto& [path, bytes] : moved) p.synced[path] = bytes;
    p.present.insert(moved_present.begin(), moved_present.end());
    p.present.insert(to);
    p.absent.insert(from);
  }

  // The channel: create, write (optionally with publication), close, as its worker runs them.
  int channelCreate(const std::string& path) {
    p.forget(path);
    const std::set<std::string> before = siblings(path);
    auto reply = run(100, kDirectOpCreate, 0, 2, path.c_str(), static_cast<uint32_t>(path.size() + 1));
    forgetRecycled(before, path);
    check();
    if (reply == nullptr || reply->param_ < 0) throw std::runtime_error("channel create " + path);
    return reply->param_;
  }
  void channelWrite(int fd, const std::string& path, std::string* data, const std::string& bytes,
                    bool publish) {
    auto reply = run(fd, kDirectOpWrite, static_cast<int64_t>(data->size()),
                     publish ? static_cast<int>(kDirectFlagSecure) : 0, bytes.data(),
                     static_cast<uint32_t>(bytes.size()));
    check();
    if (reply != nullptr && reply->param_ < 0) throw std::runtime_error("channel write " + path);
    *data += bytes;
    if (publish) p.published[path] = *data;
  }
  void channelClose(int fd) {
    run(fd, kDirectOpClose, 0, 0, nullptr, 0);
    check();
  }

  std::map<std::string, std::string> inflight_content_;

 private:
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

using Workload = std::function<void(Session&)>;

const auto bytesOf = patternBytes;

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

struct Tally {
  int cuts = 0, torn = 0, reordered = 0, fsck_runs = 0, failures = 0;
  std::string first_failure;
};

struct Card {
  std::shared_ptr<CardBytes> bytes;
  bool velt = false;
  std::shared_ptr<CardImage> image;  // VELT cards: where fsck.fat is run on them
};

void putImage(const CardBytes& bytes, const CardImage& image) {
  image.writeBytes(0, std::string(bytes.begin(), bytes.end()));
}

// Checks the card after a cut; what is wrong, or empty.
std::string judge(const Card& card, const Promises& p,
                  const std::map<std::string, std::string>& inflight, bool run_fsck, Tally* tally) {
  std::string problems = rawCardProblems(*card.bytes);
  if (!problems.empty()) problems = "before the load: " + problems;
  int error = 0;
  auto v = mountOn(std::make_unique<CutDriver>(card.bytes), &error);
  if (v == nullptr) return problems + "the card does not load: " + std::to_string(error) + "\n";
  for (const auto& [path, want] : p.synced) {
    std::string got;
    if (!readFile(*v, path, &got)) {
      problems += path + ": fsync'd file missing\n";
    } else if (got.size() < want.size() || got.compare(0, want.size(), want) != 0) {
      problems += path + ": fsync'd content differs (" + std::to_string(got.size()) + " bytes, " +
                  std::to_string(want.size()) + " confirmed)\n";
    }
  }
  for (const auto& [path, want] : p.published) {
    std::string got;
    if (!readFile(*v, path, &got) || got.size() < want.size() ||
        got.compare(0, want.size(), want) != 0) {
      problems += path + ": published recording lost or changed\n";
    }
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
  for (const auto& r : p.renames) {
    bool a = v->findEntry(r.from.c_str()) != nullptr, b = v->findEntry(r.to.c_str()) != nullptr;
    if (a == b && !(a && r.replaces))
      problems += r.from + " -> " + r.to + ": rename in flight left " + (a ? "both" : "neither") + "\n";
    for (const auto& [to_path, want] : inflight) {
      // The content is under the old name while it stands, else under the new one.
      std::string from_path = r.from + to_path.substr(r.to.size());
      std::string got;
      if (!readFile(*v, from_path, &got) && !readFile(*v, to_path, &got)) continue;  // reported above
      if (got.size() < want.size() || got.compare(0, want.size(), want) != 0)
        problems += to_path + ": content lost in a rename in flight\n";
    }
  }
  if (run_fsck && card.velt) {
    // On a VELT card fsck.fat also reports what the reserved files are by design.
    v->flush();
    putImage(*card.bytes, *card.image);
    ReservedFsckReport expected = expectedReservedReport(*v, *card.image);
    v.reset();
    putImage(*card.bytes, *card.image);
    ++tally->fsck_runs;
    ::testing::AssertionResult r = fsckShowsOnlyReservedFiles(*card.image, expected);
    if (!r) problems += std::string("fsck.fat after the load: ") + r.message() + "\n";
    return problems;
  }
  v.reset();  // unload
  if (run_fsck) {
    ++tally->fsck_runs;
    int status = 0;
    std::string out = fsckCard(*card.bytes, &status);
    if (status != 0) problems += "fsck.fat after the load:\n" + out;
  }
  return problems;
}

// Runs `work` on a copy of `base` with a cut at write `cut` (0: none); returns its write count.
int64_t runOnce(const Card& base, const Card& card, const Workload& work, int64_t cut, CutMode mode,
                uint64_t choice, Promises* promises, std::map<std::string, std::string>* inflight) {
  *card.bytes = *base.bytes;
  Session s(card.bytes, cut, mode, choice);
  try {
    work(s);
    s.end();
  } catch (const PowerCut&) {
  }
  s.end();
  if (promises != nullptr) *promises = s.p;
  if (inflight != nullptr) *inflight = s.inflight_content_;
  return s.writes();
}

// The cut points of a sweep over T writes: all of them while T is small, else an even spread
// with the first and the last.
std::vector<int64_t> cutPoints(int64_t total, int64_t budget) {
  std::vector<int64_t> out;
  if (total <= budget) {
    for (int64_t n = 1; n <= total; ++n) out.push_back(n);
    return out;
  }
  for (int64_t i = 0; i < budget; ++i) out.push_back(1 + i * (total - 1) / (budget - 1));
  return out;
}

Tally sweep(const Card& base, const Workload& work, int64_t budget, int fsck_every,
            bool random_points = false) {
  Card card{std::make_shared<CardBytes>(), base.velt, base.image};
  // Thousands of loads print their findings: keep them out of the test's output.
  nerio::theLog().redirect("/dev/null");
  fflush(stdout);
  const int saved_stdout = dup(1);
  const int null_fd = open("/dev/null", O_WRONLY);
  dup2(null_fd, 1);
  ::close(null_fd);
  const int64_t total = runOnce(base, card, work, 0, CutMode::kDrop, 0, nullptr, nullptr);
  Tally t;
  int index = 0;
  const CutMode modes[] = {CutMode::kDrop, CutMode::kTear, CutMode::kReorder};
  std::vector<int64_t> points = cutPoints(total, budget);
  if (random_points && total > budget) {
    // Anywhere, not on a grid: the cut meets every kind of write sooner or later.
    uint64_t x = 88172645463325252ull;
    for (size_t i = 1; i + 1 < points.size(); ++i) {
      x ^= x << 13, x ^= x >> 7, x ^= x << 17;
      points[i] = 1 + static_cast<int64_t>(x % static_cast<uint64_t>(total));
    }
  }
  for (int64_t n : points) {
    for (CutMode mode : modes) {
      if (!fullSweep() && mode != static_cast<CutMode>(n % 3)) continue;
      Promises p;
      std::map<std::string, std::string> inflight;
      const uint64_t choice = static_cast<uint64_t>(n) * 2654435761u;
      runOnce(base, card, work, n, mode, choice, &p, &inflight);
      ++t.cuts;
      t.torn += mode == CutMode::kTear;
      t.reordered += mode == CutMode::kReorder;
      const bool fsck = fsck_every > 0 && (index++ % fsck_every == 0 || n == total);
      std::string problems = judge(card, p, inflight, fsck, &t);
      if (!problems.empty()) {
        ++t.failures;
        if (getenv("VELT_POWERCUT_VERBOSE") != nullptr)
          fprintf(stderr, "cut %lld mode %d: %s", static_cast<long long>(n), static_cast<int>(mode),
                  problems.c_str());
        if (t.first_failure.empty()) {
          static const char* kNames[] = {"drop", "tear", "reorder"};
          t.first_failure = "cut at write " + std::to_string(n) + " of " + std::to_string(total) +
                            " (" + kNames[static_cast<int>(mode)] + "):\n" + problems;
        }
      }
    }
  }
  fflush(stdout);
  dup2(saved_stdout, 1);
  ::close(saved_stdout);
  nerio::theLog().redirect("/dev/stdout");
  printf("  %lld writes; %d cuts (%d torn, %d reordered), %d checked by fsck.fat, %d failed\n",
         static_cast<long long>(total), t.cuts, t.torn, t.reordered, t.fsck_runs, t.failures);
  return t;
}

// A plain FAT32 card of 64 MiB with 512-byte clusters, as mkfs.fat lays it down.
Card plainCard() {
  CardSpec spec;
  spec.size_mb = 64;
  spec.sectors_per_cluster = 1;
  CardImage image(spec);
  EXPECT_TRUE(image.ok()) << image.error();
  std::string all = image.contents();
  return Card{std::make_shared<CardBytes>(all.begin(), all.end()), false, nullptr};
}

int64_t budget(int64_t small, int64_t full) {
  if (fullSweep()) return full;
  return sanitized() ? small / 3 : small;
}

// Several recordings, two open at once, each written in odd-sized pieces and fsync'd on the way.
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
  s.close(a);
  s.fsync(b);
  s.write(b, bytesOf(3000, 30));
  s.close(b);
  auto c = s.create("/DCIM/clip two.mp4");
  s.write(c, bytesOf(5000, 40));
  s.fsync(c);
  s.close(c);
}

// Folders and files made, renamed within and across folders and onto existing files, removed.
void churn(Session& s) {
  s.mkdir("/work");
  s.mkdir("/work/inner folder");
  std::vector<std::string> names;
  for (int i = 0; i < 7; ++i) {
    std::string path = "/work/file number " + std::to_string(i) + ".txt";
    auto f = s.create(path);
    s.write(f, bytesOf(600 + 100 * i, 50 + i));
    if (i % 2 == 0) s.fsync(f);
    s.close(f);
    names.push_back(path);
  }
  s.rename(names[0], "/work/renamed in place.txt");
  s.rename(names[2], "/work/inner folder/moved across.txt");
  s.rename(names[4], names[1]);  // onto an existing file
  s.unlink(names[3]);
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

TEST(PowerCut, FilesReplacedByRename) {
  Card base = plainCard();
  Tally t = sweep(base, replacements, budget(80, 100000), 8);
  EXPECT_EQ(t.failures, 0) << t.first_failure;
}

// A VELT card with folder REC of 1 MiB reserved files; `capacity` gets their number.
Card veltCard(uint32_t* capacity) {
  CardSpec spec;
  spec.size_mb = 64;
  spec.sectors_per_cluster = 1;
  auto image = std::make_shared<CardImage>(spec);
  EXPECT_TRUE(image->ok()) << image->error();
  EXPECT_EQ(formatCard(*image, formatInfo({{"REC", 8, 1}})), 0);
  Loaded l = loadCard(*image);
  EXPECT_EQ(l.error, 0) << l.log;
  *capacity = l.volume != nullptr ? l.volume->format_info_.folders[0].count : 0;
  l.volume.reset();
  std::string all = image->contents();
  return Card{std::make_shared<CardBytes>(all.begin(), all.end()), true, image};
}

uint32_t g_capacity = 0;

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

TEST(PowerCut, RecordingsIntoAReservedFolder) {
  Card base = veltCard(&g_capacity);
  ASSERT_GE(g_capacity, 2u);
  Tally t = sweep(base, reservedRecordings, budget(120, 100000), 6);
  EXPECT_EQ(t.failures, 0) << t.first_failure;
}

// A long recording committed every `commit_bytes` the way the commit interval does it: a cut
// loses at most what came after the last commit.
void longRecording(Session& s, size_t total, size_t commit_bytes) {
  auto f = s.create("/long recording.mp4");
  size_t since = 0;
  unsigned seed = 1;
  while (f.data.size() < total) {
    s.write(f, bytesOf(65536, seed++));
    since += 65536;
    if (since >= commit_bytes) {
      s.volume().commitOpenFiles();
      s.check();
      s.p.synced[f.path] = f.data;
      since = 0;
    }
  }
  s.close(f);
}

TEST(PowerCut, LongRecordingLosesAtMostTheLastInterval) {
  const bool full = fullSweep();
  CardSpec spec;
  spec.size_mb = full ? 160 : 64;
  spec.sectors_per_cluster = full ? 8 : 1;
  CardImage image(spec);
  ASSERT_TRUE(image.ok()) << image.error();
  std::string all = image.contents();
  Card base{std::make_shared<CardBytes>(all.begin(), all.end()), false, nullptr};
  const size_t total = full ? (100u << 20) : sanitized() ? (4u << 20) : (12u << 20);
  Tally t = sweep(
      base, [&](Session& s) { longRecording(s, total, 1u << 20); }, full ? 300 : budget(24, 0), 8,
      true);
  EXPECT_EQ(t.failures, 0) << t.first_failure;
}

TEST(PowerCut, RecordingsThroughTheMount) {
  Card base = plainCard();
  Tally t = sweep(base, recordings, budget(150, 100000), 6);
  EXPECT_EQ(t.failures, 0) << t.first_failure;
}

TEST(PowerCut, NamespaceChurn) {
  Card base = plainCard();
  Tally t = sweep(base, churn, budget(150, 100000), 6);
  EXPECT_EQ(t.failures, 0) << t.first_failure;
}

}  // namespace
}  // namespace velt::test
