// Four writers fill different files at once while two readers read them as they grow; every
// byte must be right through the mount and, after unmounting, through mtools.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "daemon_runner.h"
#include "e2e_card.h"

namespace velt::test {
namespace {

constexpr int kWriters = 4;
constexpr int kReaders = 2;
constexpr int64_t kFileBytes = 6 << 20;
constexpr int kChunks[kWriters] = {65536, 4096, 131072 + 512, 1000};  // odd sizes on purpose

// The byte at `offset` of file `file`: different in every file and at every position of a
// cluster, so a misplaced or misdirected block shows.
uint8_t patternByte(int file, int64_t offset) {
  uint64_t x = (static_cast<uint64_t>(file) + 1) * 0x9E3779B97F4A7C15ull ^
               static_cast<uint64_t>(offset / 4) * 0xBF58476D1CE4E5B9ull;
  x ^= x >> 31;
  return static_cast<uint8_t>(x >> ((offset % 4) * 8));
}

// First offset in [begin, begin + size) whose byte is wrong, or -1.
int64_t firstMismatch(int file, int64_t begin, const uint8_t* data, size_t size) {
  for (size_t i = 0; i < size; ++i) {
    if (data[i] != patternByte(file, begin + static_cast<int64_t>(i))) {
      return begin + static_cast<int64_t>(i);
    }
  }
  return -1;
}

std::string fileName(int file) {
  return "data/writer" + std::to_string(file) + ".bin";
}

class Concurrency : public ::testing::TestWithParam<CardKind> {};

TEST_P(Concurrency, FourWritersAndTwoReadersKeepEveryByte) {
  MountedCard mounted;
  ASSERT_TRUE(mounted.start(GetParam())) << mounted.error();
  ASSERT_EQ(mkdir(mounted.path("data").c_str(), 0777), 0) << strerror(errno);

  std::atomic<int> writers_done{0};
  std::vector<std::string> errors(kWriters + kReaders);
  std::atomic<int64_t> bytes_checked_while_growing{0};

  std::vector<std::thread> threads;
  for (int w = 0; w < kWriters; ++w) {
    threads.emplace_back([&, w] {
      std::string path = mounted.path(fileName(w));
      int fd = open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY, 0644);
      if (fd < 0) {
        errors[w] = "open: " + std::string(strerror(errno));
        ++writers_done;
        return;
      }
      std::vector<uint8_t> chunk(kChunks[w]);
      for (int64_t off = 0; off < kFileBytes && errors[w].empty();) {
        size_t n = static_cast<size_t>(std::min<int64_t>(kChunks[w], kFileBytes - off));
        for (size_t i = 0; i < n; ++i) chunk[i] = patternByte(w, off + static_cast<int64_t>(i));
        ssize_t got = write(fd, chunk.data(), n);
        if (got != static_cast<ssize_t>(n)) {
          errors[w] = "write at " + std::to_string(off) + ": " + strerror(errno);
        }
        off += n;
      }
      if (close(fd) != 0) errors[w] = "close: " + std::string(strerror(errno));
      ++writers_done;
    });
  }
  for (int r = 0; r < kReaders; ++r) {
    threads.emplace_back([&, r] {
      std::string& error = errors[kWriters + r];
      std::vector<uint8_t> buf(100000 + r * 28672);
      // Each reader keeps re-reading every file from the start until the writers are done,
      // then reads them all once more.
      bool final_pass = false;
      while (error.empty()) {
        final_pass = writers_done.load() == kWriters;
        for (int f = (r % kWriters); f < kWriters + (r % kWriters) && error.empty(); ++f) {
          int file = f % kWriters;
          int fd = open(mounted.path(fileName(file)).c_str(), O_RDONLY);
          if (fd < 0) continue;  // not created yet
          int64_t off = 0;
          for (;;) {
            ssize_t got = pread(fd, buf.data(), buf.size(), off);
            if (got < 0) {
              error = "read " + fileName(file) + ": " + strerror(errno);
              break;
            }
            if (got == 0) break;
            int64_t bad = firstMismatch(file, off, buf.data(), static_cast<size_t>(got));
            if (bad >= 0) {
              error = fileName(file) + ": wrong byte at " + std::to_string(bad);
              break;
            }
            if (!final_pass) bytes_checked_while_growing += got;
            off += got;
          }
          close(fd);
          if (final_pass && error.empty() && off != kFileBytes) {
            error = fileName(file) + ": " + std::to_string(off) + " bytes at the end";
          }
        }
        if (final_pass) break;
      }
    });
  }
  for (std::thread& t : threads) t.join();
  for (size_t i = 0; i < errors.size(); ++i) EXPECT_EQ(errors[i], "") << "thread " << i;
  EXPECT_GT(bytes_checked_while_growing.load(), 0);

  for (int w = 0; w < kWriters; ++w) {
    struct stat st;
    ASSERT_EQ(stat(mounted.path(fileName(w)).c_str(), &st), 0);
    EXPECT_EQ(st.st_size, kFileBytes);
  }
  mounted.unmountAndCheck();

  // Another FAT reader gets the same bytes from the card.
  for (int w = 0; w < kWriters; ++w) {
    ShellResult r = mounted.mtools("mtype ::/" + fileName(w));
    ASSERT_EQ(r.status, 0) << r.err;
    ASSERT_EQ(static_cast<int64_t>(r.out.size()), kFileBytes) << w;
    EXPECT_EQ(firstMismatch(w, 0, reinterpret_cast<const uint8_t*>(r.out.data()), r.out.size()), -1)
        << fileName(w);
  }
}

INSTANTIATE_TEST_SUITE_P(Cards, Concurrency, ::testing::Values(CardKind::kPlain, CardKind::kVelt),
                         cardKindParamName);

}  // namespace
}  // namespace velt::test
