// A random model test of the reserved folder of a VELT card, through a real mount and the direct
// channel at once. Writers on the mount and one on the channel create recordings (taking over
// and recycling reserved files), write them in pieces while reading back what they wrote,
// publish, touch and delete them, and try what the folder refuses (folders in it, renames in
// and out of it, names too long for a reserved file's records). After each round the card is unmounted, judged by fsck.fat and mtools, and
// mounted again: the load repairs nothing, every recording the model holds is there with its
// bytes, and a recording is missing only when a creation recycled it.
//
// VELT_MODEL_SEED and VELT_MODEL_ROUNDS change the seed (printed) and the number of rounds.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "daemon_runner.h"
#include "e2e_card.h"
#include "fat_records.h"
#include "fs/velt_pipe.h"
#include "velt_client.h"

namespace velt::test {
namespace {

constexpr int kMountWriters = 2;
constexpr int kOpsPerWriter = 8;
constexpr size_t kMaxPiece = 48 << 10;

unsigned envNumber(const char* name, unsigned fallback) {
  const char* text = getenv(name);
  return text != nullptr && *text != '\0' ? static_cast<unsigned>(strtoul(text, nullptr, 10))
                                          : fallback;
}

std::string randomBytes(std::mt19937& rng, size_t size) {
  std::string out(size, '\0');
  for (char& c : out) c = static_cast<char>(rng());
  return out;
}

// The first `n` bytes of a file read through the mount; empty when it cannot be opened.
std::string readPrefix(const std::string& path, size_t n) {
  std::string data(n, '\0');
  int fd = open(path.c_str(), O_RDONLY);
  if (fd < 0) return "";
  ssize_t got = pread(fd, data.data(), n, 0);
  close(fd);
  data.resize(got > 0 ? static_cast<size_t>(got) : 0);
  return data;
}

std::set<std::string> listFolder(const std::string& path) {
  std::set<std::string> names;
  ShellResult r = runShell("ls -A " + shellQuote(path));
  std::istringstream lines(r.out);
  for (std::string line; std::getline(lines, line);) {
    if (!line.empty()) names.insert(line);
  }
  return names;
}

// What the folder must hold: published recordings and their bytes.
struct Model {
  std::mutex mutex;
  std::map<std::string, std::string> recordings;
  int creations = 0;  // this round: each may have recycled one recording

  void add(const std::string& name, const std::string& bytes) {
    std::lock_guard lock(mutex);
    recordings[name] = bytes;
  }
  void remove(const std::string& name) {
    std::lock_guard lock(mutex);
    recordings.erase(name);
  }
  void created() {
    std::lock_guard lock(mutex);
    ++creations;
  }
  // A published recording this writer made (prefix), or "".
  std::string pick(std::mt19937& rng, const std::string& prefix) {
    std::lock_guard lock(mutex);
    std::vector<std::string> own;
    for (const auto& [name, bytes] : recordings) {
      if (name.rfind(prefix, 0) == 0) own.push_back(name);
    }
    return own.empty() ? "" : own[rng() % own.size()];
  }
};

class ReservedModel {
 public:
  ReservedModel(MountedCard& card, Model& model) : card_(card), model_(model) {}

  // The operations both kinds of writer share: attempts the folder refuses, touching and
  // deleting one's own recordings (which a recycling may have taken meanwhile).
  void refusedOrSmallOp(std::mt19937& rng, const std::string& prefix, int op) {
    const std::string rec = card_.path("REC");
    const std::string mine = model_.pick(rng, prefix);
    switch (op) {
      case 0: {
        const std::string dir = rec + "/" + prefix + "dir" + std::to_string(rng() % 1000);
        errno = 0;
        EXPECT_EQ(mkdir(dir.c_str(), 0755), -1) << dir;
        EXPECT_EQ(errno, EPERM) << dir;
        break;
      }
      case 1: {
        if (mine.empty()) break;
        const std::string to = rng() % 2 ? rec + "/" + prefix + "renamed.avi" : card_.path("out.avi");
        errno = 0;
        EXPECT_EQ(rename((rec + "/" + mine).c_str(), to.c_str()), -1) << mine;
        EXPECT_TRUE(errno == EPERM || errno == ENOENT) << mine << ": " << strerror(errno);
        break;
      }
      case 2: {
        // Forty units need four long-name records; a reserved file has room for three.
        const std::string path = rec + "/" + prefix + std::string(36 - prefix.size(), 'n') + ".avi";
        errno = 0;
        EXPECT_EQ(open(path.c_str(), O_CREAT | O_WRONLY, 0644), -1) << path;
        EXPECT_EQ(errno, ENAMETOOLONG) << path;
        break;
      }
      case 3: {
        if (mine.empty()) break;
        const struct timespec times[2] = {{1500000000, 0}, {1500000000, 0}};
        int r = utimensat(AT_FDCWD, (rec + "/" + mine).c_str(), times, 0);
        EXPECT_TRUE(r == 0 || errno == ENOENT) << mine << ": " << strerror(errno);
        break;
      }
      default: {
        if (mine.empty()) break;
        int r = unlink((rec + "/" + mine).c_str());
        EXPECT_TRUE(r == 0 || errno == ENOENT) << mine << ": " << strerror(errno);
        model_.remove(mine);
        break;
      }
    }
  }

  // A recording through the mount: created, written in pieces, each read back through a
  // second handle while the file is still being written, and published by its close.
  void mountRecording(std::mt19937& rng, const std::string& name) {
    const std::string path = card_.path("REC/" + name);
    int fd = open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY, 0644);
    if (fd < 0) {
      EXPECT_EQ(errno, ENOSPC) << name << ": " << strerror(errno);  // every file open
      return;
    }
    model_.created();
    int reader = open(path.c_str(), O_RDONLY);
    EXPECT_GE(reader, 0) << name << ": " << strerror(errno);
    std::string bytes;
    const int pieces = 1 + static_cast<int>(rng() % 4);
    for (int i = 0; i < pieces; ++i) {
      std::string piece = randomBytes(rng, 1 + rng() % kMaxPiece);
      ASSERT_EQ(pwrite(fd, piece.data(), piece.size(), static_cast<off_t>(bytes.size())),
                static_cast<ssize_t>(piece.size()))
          << name << ": " << strerror(errno);
      bytes += piece;
      if (reader >= 0) {
        std::string back(bytes.size(), '\0');
        EXPECT_EQ(pread(reader, back.data(), back.size(), 0), static_cast<ssize_t>(back.size()));
        EXPECT_TRUE(back == bytes) << name << " read back while written";
      }
    }
    if (reader >= 0) close(reader);
    ASSERT_EQ(close(fd), 0) << name << ": " << strerror(errno);
    model_.add(name, bytes);
  }

  // A recording through the channel: created, written in pieces and read back through the
  // channel, touched through the mount before publication, published by its last write.
  void channelRecording(std::mt19937& rng, client::DirectClient& client, const std::string& name) {
    const std::string path = card_.path("REC/" + name);
    int fd = client.create(path, 0, 20000);
    if (fd < 0) {
      EXPECT_EQ(fd, -ENOSPC) << name;
      return;
    }
    model_.created();
    std::string bytes;
    const int pieces = 1 + static_cast<int>(rng() % 4);
    for (int i = 0; i < pieces; ++i) {
      std::string piece = randomBytes(rng, 1 + rng() % kMaxPiece);
      const bool last = i == pieces - 1;
      if (last) {
        // Not yet published: a touch must not show it to anyone before its last write does.
        const struct timespec times[2] = {{1600000000, 0}, {1600000000, 0}};
        EXPECT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0) << name << ": "
                                                                   << strerror(errno);
      }
      ASSERT_EQ(client.write(fd, static_cast<int64_t>(bytes.size()), piece.data(),
                             static_cast<uint32_t>(piece.size()), 0,
                             last ? static_cast<uint32_t>(kDirectFlagSecure) : 0u),
                0)
          << name;
      bytes += piece;
      // A read answers what has arrived, and waits when nothing past its offset has.
      std::string back;
      while (back.size() < bytes.size()) {
        std::vector<uint8_t> part;
        const int r = client.read(fd, static_cast<int64_t>(back.size()),
                                  static_cast<int32_t>(bytes.size() - back.size()), &part, false,
                                  20000);
        if (r != 0 || part.empty()) {
          ADD_FAILURE() << name << " read back: " << r;
          break;
        }
        back.append(part.begin(), part.end());
      }
      EXPECT_TRUE(back == bytes) << name << " read back";
    }
    EXPECT_EQ(client.closeAndWait(fd, 0, 20000), 0) << name;
    model_.add(name, bytes);
  }

 private:
  MountedCard& card_;
  Model& model_;
};

// Everything the model holds is in the folder with its bytes; what is missing was recycled by
// one of this round's creations. Returns the folder's listing.
std::set<std::string> checkFolder(MountedCard& card, Model& model, const char* when) {
  SCOPED_TRACE(when);
  std::set<std::string> listed = listFolder(card.path("REC"));
  int missing = 0;
  for (auto it = model.recordings.begin(); it != model.recordings.end();) {
    if (listed.count(it->first) == 0) {
      ++missing;
      it = model.recordings.erase(it);
      continue;
    }
    EXPECT_TRUE(readPrefix(card.path("REC/" + it->first), it->second.size()) == it->second)
        << it->first;
    ++it;
  }
  EXPECT_LE(missing, model.creations) << "recordings lost without a recycling";
  for (const auto& name : listed) EXPECT_EQ(model.recordings.count(name), 1u) << "stray " << name;
  return listed;
}

TEST(ReservedFolder, RandomModelThroughTheMountAndTheChannel) {
  MountedCard card;
  ASSERT_TRUE(card.start(CardKind::kVelt)) << card.error();
  CardImage::RootScope root(card.card());
  const unsigned seed = envNumber("VELT_MODEL_SEED", 20261123);
  const unsigned rounds = envNumber("VELT_MODEL_ROUNDS", 3);
  RecordProperty("seed", std::to_string(seed));
  printf("model seed %u, %u rounds\n", seed, rounds);
  const int reserved = static_cast<int>(FatImage(card.card()).descriptorValue(0, 20));
  ASSERT_GE(reserved, 4);
  EXPECT_TRUE(listFolder(card.path("REC")).empty()) << "free reserved files are not listed";

  Model model;
  ReservedModel ops(card, model);
  for (unsigned round = 0; round < rounds; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    model.creations = 0;
    std::vector<std::thread> writers;
    for (int w = 0; w <= kMountWriters; ++w) {
      writers.emplace_back([&, w] {
        std::mt19937 rng(seed * 131 + round * 17 + static_cast<unsigned>(w));
        const bool channel = w == kMountWriters;
        const std::string prefix = (channel ? "c" : "m" + std::to_string(w)) + "-";
        client::DirectClient client;
        if (channel) {
          ASSERT_EQ(client.connect(20000), 0);
        }
        for (int k = 0; k < kOpsPerWriter; ++k) {
          // Names of one, two and three long-name records.
          const std::string name = prefix + std::to_string(round) + "-" + std::to_string(k) +
                                   std::string(rng() % 3 * 12, 'x') + ".avi";
          const unsigned dice = rng() % 20;
          if (dice < 10) {
            if (channel) {
              ops.channelRecording(rng, client, name);
            } else {
              ops.mountRecording(rng, name);
            }
          } else {
            ops.refusedOrSmallOp(rng, prefix, static_cast<int>(dice % 5));
          }
        }
      });
    }
    for (auto& t : writers) t.join();

    const int creations = model.creations;
    std::set<std::string> listed = checkFolder(card, model, "before unmounting");
    printf("round %u: %d creations, %zu recordings of %d reserved files\n", round, creations,
           listed.size(), reserved);
    card.unmountAndCheck();
    ShellResult mdir = card.mtools("mdir -b ::/REC");
    for (const auto& name : listed) {
      EXPECT_NE(mdir.out.find("/REC/" + name), std::string::npos) << name << "\n" << mdir.out;
    }
    if (round + 1 == rounds) {
      for (const auto& [name, bytes] : model.recordings) {
        EXPECT_TRUE(card.mtools("mtype ::/REC/" + name).out.substr(0, bytes.size()) == bytes)
            << name;
      }
    }
    ASSERT_TRUE(card.mount()) << card.error();
    // The load finds nothing to put right in the folder.
    for (const char* repair : {"FATAL", "unusable", "damaged", "mismatch", "restored", "removed",
                               "ended at", "rewritten", "no long name"}) {
      EXPECT_EQ(card.daemon().out().find(repair), std::string::npos) << card.daemon().out();
    }
    model.creations = 0;
    EXPECT_EQ(checkFolder(card, model, "after mounting again"), listed);
    if (static_cast<int>(listed.size()) > reserved) ADD_FAILURE() << "more recordings than files";
  }
  card.unmountAndCheck();
}

}  // namespace
}  // namespace velt::test
