// A random model test of the reserved folder of a VELT card, through a real mount and the direct
// channel at once. Writers on the mount and one on the channel create recordings (taking over and
// recycling reserved files), write them in pieces reading back what they wrote, restart, publish,
// touch and delete them, and try what the folder refuses (folders, renames in and out,
// truncation, removal while open, names too long for a reserved file's records). After each round
// the card is unmounted, judged by fsck.fat and mtools, and mounted again: the load repairs
// nothing, every recording the model holds is there with its bytes, and one is missing only when
// a creation recycled it. VELT_MODEL_SEED and VELT_MODEL_ROUNDS change the seed and the rounds.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <thread>

#include "e2e_card.h"
#include "fat_records.h"
#include "fs/velt_pipe.h"
#include "velt_client.h"

namespace velt::test {
namespace {

constexpr int kMountWriters = 2, kOpsPerWriter = 8;

std::string randomPiece(std::mt19937& rng) {
  return patternBytes(1 + rng() % (48 << 10), rng());
}

std::set<std::string> listFolder(const std::string& path) {
  std::set<std::string> names;
  for (const auto& e : std::filesystem::directory_iterator(path)) names.insert(e.path().filename());
  return names;
}

class ReservedModel {
 public:
  explicit ReservedModel(MountedCard& card) : card_(card), rec_(card.path("REC") + "/") {}

  std::map<std::string, std::string> recordings;  // published recordings and their bytes
  std::atomic<int> creations{0};                  // this round's: each may recycle a recording

  // What both kinds of writer do besides recording: attempts the folder refuses, and touching,
  // restarting and deleting one's own recordings (which a recycling may have taken meanwhile).
  void otherOp(std::mt19937& rng, const std::string& prefix, int op) {
    const std::string mine = pick(rng, prefix), path = rec_ + mine;
    errno = 0;
    if (op == 0) {
      const std::string dir = rec_ + prefix + "dir" + std::to_string(rng() % 1000);
      EXPECT_EQ(mkdir(dir.c_str(), 0755), -1) << dir;
      EXPECT_EQ(errno, EPERM) << dir;
    } else if (op == 1) {
      // Forty units need four long-name records; a reserved file has room for three.
      const std::string name = rec_ + prefix + std::string(36 - prefix.size(), 'n') + ".avi";
      EXPECT_EQ(open(name.c_str(), O_CREAT | O_WRONLY, 0644), -1) << name;
      EXPECT_EQ(errno, ENAMETOOLONG) << name;
    } else if (mine.empty()) {
    } else if (op == 2) {
      const std::string to = rng() % 2 ? rec_ + prefix + "renamed.avi" : card_.path("out.avi");
      EXPECT_EQ(rename(path.c_str(), to.c_str()), -1) << mine;
      EXPECT_TRUE(errno == EPERM || errno == ENOENT) << mine << ": " << strerror(errno);
      // A recording keeps its whole reserved file, also once loaded again from the card.
      EXPECT_EQ(truncate(path.c_str(), 100), -1) << mine;
      EXPECT_TRUE(errno == EPERM || errno == ENOENT) << mine << ": " << strerror(errno);
    } else {
      const struct timespec times[2] = {{1500000000, 0}, {1500000000, 0}};
      const int r = op == 3 ? utimensat(AT_FDCWD, path.c_str(), times, 0) : unlink(path.c_str());
      EXPECT_TRUE(r == 0 || errno == ENOENT) << mine << ": " << strerror(errno);
      std::lock_guard lock(mutex_);
      if (op == 4) recordings.erase(mine);
    }
  }

  // A recording through the mount: created, written in pieces, each read back through a
  // second handle while the file is being written, and published by its close.
  void mountRecording(std::mt19937& rng, const std::string& name) {
    const std::string path = rec_ + name;
    int fd = open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY, 0644);
    if (fd < 0) {
      EXPECT_EQ(errno, ENOSPC) << name << ": " << strerror(errno);  // every file open
      return;
    }
    ++creations;
    int reader = open(path.c_str(), O_RDONLY);
    ASSERT_GE(reader, 0) << name << ": " << strerror(errno);
    EXPECT_EQ(unlink(path.c_str()), -1);  // an open file stays
    EXPECT_EQ(errno, EBUSY) << name;
    std::string bytes;
    for (int i = 0, pieces = 1 + static_cast<int>(rng() % 4); i < pieces; ++i) {
      std::string piece = randomPiece(rng);
      ASSERT_EQ(pwrite(fd, piece.data(), piece.size(), static_cast<off_t>(bytes.size())),
                static_cast<ssize_t>(piece.size()))
          << name << ": " << strerror(errno);
      bytes += piece;
      std::string back(bytes.size(), '\0');
      EXPECT_EQ(pread(reader, back.data(), back.size(), 0), static_cast<ssize_t>(back.size()));
      EXPECT_TRUE(back == bytes) << name << " read back while written";
    }
    close(reader);
    ASSERT_EQ(close(fd), 0) << name << ": " << strerror(errno);
    add(name, bytes);
  }

  // A recording through the channel: created, written in pieces and read back through the
  // channel, touched through the mount before publication, published by its last write.
  void channelRecording(std::mt19937& rng, client::DirectClient& client, const std::string& name) {
    const std::string path = rec_ + name;
    int fd = client.create(path, 0, 20000);
    if (fd < 0) {
      EXPECT_EQ(fd, -ENOSPC) << name;
      return;
    }
    ++creations;
    std::string bytes;
    for (int i = 0, pieces = 1 + static_cast<int>(rng() % 4); i < pieces; ++i) {
      std::string piece = randomPiece(rng);
      const bool last = i == pieces - 1;
      if (last) {
        // Not yet published: a touch must not show it to anyone before its last write does.
        const struct timespec times[2] = {{1600000000, 0}, {1600000000, 0}};
        EXPECT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0)
            << name << ": " << strerror(errno);
      }
      const uint32_t flags = last ? static_cast<uint32_t>(kDirectFlagSecure) : 0u;
      ASSERT_EQ(client.write(fd, int64_t(bytes.size()), piece.data(), piece.size(), 0, flags), 0)
          << name;
      bytes += piece;
      // A read answers what has arrived, and waits when nothing past its offset has.
      std::string back;
      while (back.size() < bytes.size()) {
        std::vector<uint8_t> part;
        const int r =
            client.read(fd, static_cast<int64_t>(back.size()),
                        static_cast<int32_t>(bytes.size() - back.size()), &part, false, 20000);
        if (r != 0 || part.empty()) return ADD_FAILURE() << name << " read back: " << r;
        back.append(part.begin(), part.end());
      }
      EXPECT_TRUE(back == bytes) << name << " read back";
    }
    EXPECT_EQ(client.closeAndWait(fd, 0, 20000), 0) << name;
    add(name, bytes);
  }

  // Everything the model holds is listed with its bytes; what is missing was recycled by one of
  // this round's creations. Returns the listing.
  std::set<std::string> check(const char* when) {
    SCOPED_TRACE(when);
    std::set<std::string> listed = listFolder(card_.path("REC"));
    int missing = 0;
    for (auto it = recordings.begin(); it != recordings.end();) {
      if (!listed.count(it->first)) {
        ++missing;
        it = recordings.erase(it);
        continue;
      }
      EXPECT_TRUE(readFileBytes(rec_ + it->first).substr(0, it->second.size()) == it->second)
          << it->first;
      ++it;
    }
    EXPECT_LE(missing, creations.load()) << "recordings lost without a recycling";
    for (const auto& name : listed) EXPECT_EQ(recordings.count(name), 1u) << "stray " << name;
    return listed;
  }

 private:
  void add(const std::string& name, const std::string& bytes) {
    std::lock_guard lock(mutex_);
    recordings[name] = bytes;
  }
  // A published recording this writer made (its prefix), or "".
  std::string pick(std::mt19937& rng, const std::string& prefix) {
    std::vector<std::string> own;
    std::lock_guard lock(mutex_);
    for (const auto& entry : recordings) {
      if (entry.first.rfind(prefix, 0) == 0) own.push_back(entry.first);
    }
    return own.empty() ? "" : own[rng() % own.size()];
  }

  MountedCard& card_;
  const std::string rec_;
  std::mutex mutex_;
};

TEST(ReservedFolder, RandomModelThroughTheMountAndTheChannel) {
  MountedCard card;
  ASSERT_TRUE(card.start(CardKind::kVelt)) << card.error();
  CardImage::RootScope root(card.card());
  const unsigned seed = envNumber("VELT_MODEL_SEED", 20261123);
  const unsigned rounds = envNumber("VELT_MODEL_ROUNDS", 3);
  printf("model seed %u, %u rounds\n", seed, rounds);
  const int reserved = static_cast<int>(FatImage(card.card()).descriptorValue(0, 20));
  ASSERT_GE(reserved, 4);
  EXPECT_TRUE(listFolder(card.path("REC")).empty()) << "free reserved files are not listed";

  ReservedModel model(card);
  // O_TRUNC starts a recording again at the start of its clusters; the bytes past its end stay.
  writeFileBytes(card.path("REC/clip.avi"), std::string(10000, 'c'));
  writeFileBytes(card.path("REC/clip.avi"), "again");
  model.recordings["clip.avi"] = "again" + std::string(9995, 'c');
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
        ASSERT_TRUE(!channel || client.connect(20000) == 0);
        for (int k = 0; k < kOpsPerWriter; ++k) {
          // Names of one, two and three long-name records.
          const std::string name = prefix + std::to_string(round) + "-" + std::to_string(k) +
                                   std::string(rng() % 3 * 12, 'x') + ".avi";
          const unsigned dice = rng() % 20;
          if (dice >= 10) {
            model.otherOp(rng, prefix, static_cast<int>(dice % 5));
          } else if (channel) {
            model.channelRecording(rng, client, name);
          } else {
            model.mountRecording(rng, name);
          }
        }
      });
    }
    for (auto& t : writers) t.join();

    std::set<std::string> listed = model.check("before unmounting");
    EXPECT_LE(static_cast<int>(listed.size()), reserved);
    card.unmountAndCheck();
    ShellResult mdir = card.mtools("mdir -b ::/REC");
    for (const auto& name : listed) {
      EXPECT_NE(mdir.out.find("/REC/" + name), std::string::npos) << name << "\n" << mdir.out;
    }
    for (const auto& [name, bytes] : model.recordings) {
      EXPECT_TRUE(round + 1 < rounds ||
                  card.mtools("mtype ::/REC/" + name).out.substr(0, bytes.size()) == bytes)
          << name;
    }
    ASSERT_TRUE(card.mount()) << card.error();
    // Listed as `ls -l` lists them, the recordings and the folder show what lookups answer.
    std::string wrong;
    const std::vector<std::string> names = listLikeLs(card.path("REC"), &wrong);
    listLikeLs(card.path(), &wrong);
    EXPECT_EQ(wrong, "");
    EXPECT_EQ(std::set<std::string>(names.begin(), names.end()), listed);
    // The load finds nothing to put right in the folder.
    for (const char* repair : {"FATAL", "unusable", "damaged", "mismatch", "restored", "removed",
                               "ended at", "rewritten", "no long name"}) {
      EXPECT_EQ(card.daemon().out().find(repair), std::string::npos) << card.daemon().out();
    }
    model.creations = 0;
    EXPECT_EQ(model.check("after mounting again"), listed);
  }
  card.unmountAndCheck();
}

}  // namespace
}  // namespace velt::test
