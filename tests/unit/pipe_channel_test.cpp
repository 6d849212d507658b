// The direct channel's threads on real named pipes (in a VELT_ROOT sandbox) over a fake card:
// replies held back until a reader comes, framing and resynchronisation, hostile input, clients
// that go away, bounded memory, a bounded stop and a restart, what is planted at the pipes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "fake_driver.h"
#include "fs/velt_dirent.h"
#include "fs/velt_file.h"
#include "fs/velt_pipe.h"
#include "fs/velt_pipe_work.h"
#include "log_capture.h"
#include "velt_client.h"

using namespace velt;
using velt::client::DirectClient;
using velt::client::Reply;
using velt::test::LogCapture;

namespace {

using Clock = std::chrono::steady_clock;
constexpr int64_t kMiB = 1 << 20;

// A formatted fake card with an empty root and the channel's pipes in a sandbox.
struct Channel : velt_test::FakeCard {
  Channel() { mkdir((dir + "/tmp").c_str(), 0755); }
  ~Channel() { v->stopDirectWriter(); }
  velt::test::TempDir tmp;
  velt::test::ScopedEnv env{"VELT_ROOT", tmp.path().c_str()};
  const std::string dir = tmp.path();
};

std::vector<uint8_t> headerBytes(uint32_t length, int32_t fd, uint32_t op, int64_t offset = 0) {
  std::vector<uint8_t> bytes(kDirectHeaderSize);
  encodeDirectHeader({length, fd, op, offset, 0}, bytes.data());
  return bytes;
}

// The next reply is an error about `fd` with `err` (and `offset` unless negative).
void expectError(DirectClient& client, int32_t fd, int err, int64_t offset = -1) {
  Reply r;
  ASSERT_EQ(client.receive(&r, 10000), 0) << "no reply for file " << fd;
  EXPECT_TRUE(r.header.op == kDirectOpError && r.header.fd == fd &&
              static_cast<int32_t>(r.header.param) == err && r.header.length == 28 &&
              (offset < 0 || r.header.offset == offset))
      << r.header.op << " " << r.header.fd << " " << static_cast<int32_t>(r.header.param);
}

template <typename Done>
bool waitUntil(Done done) {
  for (const auto end = Clock::now() + std::chrono::seconds(30); !done();) {
    if (Clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

}  // namespace

TEST(PipeChannel, RepliesWaitForAReaderAndHostileInputOrPlantedPipesAreAnsweredOrReplaced) {
  LogCapture log;  // outlives the channel's threads
  Channel ch;
  // What a local user may leave where the daemon's pipes belong is replaced before every open:
  // a link to a file, a folder, another user's pipe (needs chown).
  const std::string victim = ch.dir + "/victim",
                    pipes[] = {ch.dir + "/tmp/veltw", ch.dir + "/tmp/velts"};
  velt::test::writeFileBytes(victim, "precious");
  auto plant = [&](int what) {
    for (const std::string& path : pipes) {
      const char* p = path.c_str();
      unlink(p), rmdir(p);
      ASSERT_TRUE(what == 0   ? symlink(victim.c_str(), p) == 0
                  : what == 1 ? mkdir(p, 0777) == 0
                              : mkfifo(p, 0666) == 0 && chown(p, 65534, 65534) == 0);
    }
  };
  auto ownPipes = [&] {  // the daemon's own, and any local client may connect
    struct stat st;
    return std::all_of(std::begin(pipes), std::end(pipes), [&](const std::string& path) {
      return lstat(path.c_str(), &st) == 0 && S_ISFIFO(st.st_mode) && st.st_uid == geteuid() &&
             (st.st_mode & 0777) == 0666u;
    });
  };
  plant(0);
  ASSERT_EQ(ch.v->startDirectWriter(), 0);
  EXPECT_EQ(ch.v->startDirectWriter(), -1);
  EXPECT_TRUE(ownPipes());
  // Requests while nobody has the reply pipe open: the replies wait for a reader.
  int requests = -1;
  ASSERT_TRUE(waitUntil([&] {
    return (requests = open((ch.dir + "/tmp/veltw").c_str(), O_WRONLY | O_NONBLOCK)) >= 0;
  }));
  for (int32_t unknown : {501, 502, 503}) {
    ASSERT_EQ(write(requests, headerBytes(28, unknown, kDirectOpGetRealSize).data(), 28), 28);
  }
  EXPECT_TRUE(waitUntil([&] {
    std::lock_guard<std::mutex> lock(ch.v->response_mutex_);
    return ch.v->responses_.size() == 3;
  }));
  EXPECT_FALSE(ch.v->responder_open_);
  {
    DirectClient hostile;  // opens the reply pipe (and a second writer of the request pipe)
    ASSERT_EQ(hostile.connect(5000), 0);
    for (int32_t unknown : {501, 502, 503}) expectError(hostile, unknown, -EBADF);
    close(requests);
    plant(1);  // while connected: its descriptors stay good, the daemon's next opens check again
    std::mt19937 rng(1234);
    auto random = [&](size_t n, uint32_t below) {  // the last byte 0: it cannot start a marker
      std::vector<uint8_t> out(n);
      for (auto& b : out) b = static_cast<uint8_t>(rng() % below);
      out.back() = 0;
      return out;
    };
    auto send = [&](const std::vector<uint8_t>& bytes, size_t piece = 0) {
      for (size_t at = 0, step = piece ? piece : bytes.size(); at < bytes.size(); at += step) {
        ASSERT_EQ(hostile.sendRaw(bytes.data() + at, std::min(step, bytes.size() - at)), 0);
      }
    };
    // 4 MiB of random bytes without a marker, then a size query: the junk is read in bulk.
    std::vector<uint8_t> junk = random(4 * kMiB, 256);
    for (size_t i = 0; i + 3 < junk.size(); ++i) {
      if (memcmp(&junk[i], kDirectMarker, 4) == 0) junk[i] = 0;
    }
    const uint64_t reads_before = ch.v->direct_reads_;
    send(junk);
    send(headerBytes(28, 77, kDirectOpGetSize));
    expectError(hostile, 77, -EBADF);
    EXPECT_LT(ch.v->direct_reads_ - reads_before, junk.size() / 4096) << "junk read in bulk";
    // Records with random fields, each about a file that does not exist: answered with -EBADF
    // whatever the operation and payload. Some come in pieces of 7 bytes; junk between records
    // is taken for a header with a broken marker and the search resumes.
    const uint32_t ops[] = {0, 1, 2, 3, 4, 7, 8, 9, 10, 11, 12, 13, 99, 12345, 0xFFFFFFFF};
    std::vector<int32_t> fds, answered;
    int junk_blocks = 1;  // the 4 MiB
    for (int i = 0; i < 40; ++i) {
      const uint32_t payload = rng() % 3000;
      fds.push_back(1000 + static_cast<int32_t>(rng() % 100000));
      std::vector<uint8_t> rec = random(28 + payload, 256);
      encodeDirectHeader({28 + payload, fds.back(), ops[rng() % std::size(ops)],
                          static_cast<int64_t>(rng()), static_cast<uint32_t>(rng())},
                         rec.data());
      if (i % 3 == 1) send(random(28 + rng() % 100, 0xF0)), ++junk_blocks;
      send(rec, i % 4 == 0 ? 7 : 0);
    }
    for (size_t i = 0; i < fds.size(); ++i) {  // event operations go first: any order
      Reply r;
      ASSERT_EQ(hostile.receive(&r, 5000), 0) << "replies so far: " << i;
      EXPECT_TRUE(r.header.op == kDirectOpError && r.payload.empty() &&
                  static_cast<int32_t>(r.header.param) == -EBADF);
      answered.push_back(r.header.fd);
    }
    EXPECT_TRUE(std::is_permutation(answered.begin(), answered.end(), fds.begin(), fds.end()));
    EXPECT_EQ(log.count("data sync broken!"), junk_blocks);
    EXPECT_EQ(log.count("data synced."), 1 + junk_blocks);
    // A record above the largest payload is refused with -EFBIG and skipped whole: the record
    // after it is served. One whose length is near 4 GiB is refused at once.
    send(headerBytes(28 + kDirectPayloadMax + 1, 5, kDirectOpWrite, 4096));
    send(std::vector<uint8_t>(kDirectPayloadMax + 1, 0x22), kMiB);
    send(headerBytes(28, 78, kDirectOpGetSize));
    expectError(hostile, 5, -EFBIG, 4096);
    expectError(hostile, 78, -EBADF);
    send(headerBytes(0xFFFFFFF0, 6, kDirectOpWrite, 1));
    send(std::vector<uint8_t>(100000, 0x22));
    expectError(hostile, 6, -EFBIG, 1);
  }
  ASSERT_TRUE(log.waitFor("pending requests#")) << log.text();
  EXPECT_EQ(log.count("is too large, refused"), 2) << log.text();
  EXPECT_EQ(log.count("disconnected"), 1);
  // The next clients are served from a clean start.
  const int plants = geteuid() == 0 ? 3 : 2;
  for (int what = 2; what <= plants; ++what) {
    ASSERT_TRUE(waitUntil(ownPipes)) << log.text();
    DirectClient good;
    ASSERT_EQ(good.connect(5000), 0);
    EXPECT_EQ(good.getSize(322, false, 5000), -EBADF);
    if (what < plants) plant(what);
  }
  EXPECT_EQ(log.count("is not the daemon's named pipe"), 2 * plants) << log.text();
  EXPECT_EQ(velt::test::readFileBytes(victim), "precious");
}

TEST(PipeChannel, MemoryStaysBoundedClientsThatLeaveOrGetStuckLoseNoWriteAndStopIsBounded) {
  LogCapture log;  // outlives the channel's threads
  Channel ch;
  constexpr int64_t kBound = 4 * kMiB;
  ch.v->direct_held_max_ = kBound;
  ASSERT_EQ(ch.v->startDirectWriter(), 0);
  DirectBuffers& buffers = *ch.v->direct_buffers_;
  // The bound, one reply being written and one record read before a pause, at any moment.
  std::atomic<bool> watching{true};
  std::atomic<int64_t> peak{0};
  std::thread watch([&] {
    for (; watching; std::this_thread::sleep_for(std::chrono::milliseconds(1))) {
      peak = std::max<int64_t>(peak, buffers.held());
    }
  });
  auto idleAgain = [&] {  // what was held is given back, only a few buffers stay mapped
    EXPECT_TRUE(waitUntil([&] { return buffers.held() == 0; })) << buffers.held();
    EXPECT_LE(buffers.mappedBytes(),
              DirectBuffers::kIdleKept * int64_t{DirectBuffers::kPooledSize});
    EXPECT_LE(peak, kBound + 2 * kMiB);
  };
  {
    // 2 MiB of data, then 300 reads of 1 MiB whose replies are never collected; the client
    // leaves with most of them unread in the pipe.
    DirectClient client;
    ASSERT_EQ(client.connect(5000), 0);
    const int fd = client.create("/data.bin", 0, 5000);
    std::vector<uint8_t> data(2 * kMiB, 0x5A);
    ASSERT_EQ(client.write(fd, 0, data.data(), 2 * kMiB, 0, kDirectFlagReady), 0);
    for (int i = 0; i < 300; ++i) ASSERT_EQ(client.sendRead(fd, (i % 2) * kMiB, kMiB), 0);
    // The first pause may come early (the write still held beside the first reads) and pass
    // before the watch sees it; the replies nobody reads fill the bound in their own time.
    ASSERT_TRUE(waitUntil([&] { return ch.v->direct_pauses_ > 0; }));
    EXPECT_TRUE(waitUntil([&] { return peak >= kBound - kMiB; }))
        << "the replies nobody reads fill the bound";
  }
  idleAgain();
  // Random streams far beyond the bound reach the card as sent (a model of the files says what
  // that is): contiguous writes of random sizes (small ones merged by copying, large ones read
  // straight into the write they continue), each with a random provisional tail that the next
  // write overwrites, some flagged ready, over two files and the two queues. The client closes
  // the first file and leaves with the second open, a read waiting on it and its last write
  // still growing: that write is written, the file closed, FUSE files are left alone.
  const auto fuse_file = ch.v->newFile(false, false, false, ch.create("fuse.bin"));
  struct Stream {
    const char* name;
    int fd;
    std::vector<uint8_t> model;
    int64_t next = 0;
  } streams[] = {{"s1.bin", -1, {}}, {"s2.bin", -1, {}}};
  {
    DirectClient client;
    ASSERT_EQ(client.connect(5000), 0);
    for (Stream& s : streams) s.fd = client.create(std::string("/") + s.name, 0, 5000);
    std::mt19937 rng(99);
    std::vector<uint8_t> data;
    for (int k = 0; k <= 400; ++k) {
      const int which = k == 400 ? 1 : static_cast<int>(rng() % 2);
      Stream& s = streams[which];
      const uint32_t kind = rng() % 3;
      const uint32_t size = kind == 2 ? 16384 + rng() % 120000 : 1 + rng() % (kind ? 20000 : 600);
      const uint32_t tail = k >= 396 ? 0 : rng() % std::min<uint32_t>(size, 3000);
      data.resize(size);
      for (auto& b : data) b = static_cast<uint8_t>(rng());
      s.model.resize(std::max<size_t>(s.model.size(), s.next + size));
      std::copy(data.begin(), data.end(), s.model.begin() + s.next);
      const uint32_t flags = rng() % 8 == 0 && k < 400 ? kDirectFlagReady : 0u;
      ASSERT_EQ(client.write(s.fd, s.next, data.data(), size, tail, flags, which == 1), 0);
      s.next += size - tail;  // a provisional tail that nothing continues stays as sent
      if (k == 399) {
        ASSERT_EQ(client.closeAndWait(streams[0].fd, 0, 10000), 0);
        ASSERT_EQ(client.sendRead(streams[1].fd, 1 << 30, 100, true), 0);
      }
    }
    EXPECT_TRUE(client.takeErrors().empty());
  }
  ASSERT_TRUE(log.waitFor("close pending file(no ", 2)) << log.text();
  EXPECT_EQ(log.count("still open files#1"), 2) << "each client left one file open";
  std::list<std::shared_ptr<VELT::File>> files;
  EXPECT_EQ(ch.v->getDirectFiles(files), 0);
  EXPECT_NE(ch.v->getFile(fuse_file->file_no_), nullptr) << "FUSE files stay open";
  for (const Stream& s : streams) {
    auto file = ch.v->newFile(false, false, false, ch.root->findChild(s.name));
    std::vector<uint8_t> got(file->entry_->size_);
    EXPECT_EQ(file->read(got.data(), got.size(), 0), static_cast<int>(got.size()));
    EXPECT_TRUE(got == s.model) << s.name;
    file->close();
  }
  idleAgain();
  watching = false;
  watch.join();
  // The reads the first client left behind were dropped, not read from the card for nobody.
  int64_t sectors_read = 0;
  for (const velt_test::DriverRequest& r : ch.f.driver->requests) {
    if (r.kind == 'r') sectors_read += r.count;
  }
  EXPECT_LT(sectors_read * 512, 64 * kMiB);
  // The next client reads s2.bin back in replies of 512 KiB, four in flight and collected
  // slowly (they wait in the pipe as pages the daemon lent from its buffers, which it must not
  // reuse before they are read), writes a megabyte to s1.bin, asks for more than the pipe and
  // the bound hold without reading it and stops halfway through a record: the stop is bounded,
  // the whole record before it written, direct files closed; then the channel starts again.
  DirectClient stuck;
  ASSERT_EQ(stuck.connect(5000), 0);
  const int s2 = stuck.open("/s2.bin", 0, 5000), s1 = stuck.open("/s1.bin", 0, 5000);
  constexpr int64_t kPiece = 512 << 10;
  const auto size2 = static_cast<int64_t>(streams[1].model.size());
  std::vector<uint8_t> got, all;
  for (int64_t asked = 0, at = 0; at < size2; at += kPiece) {
    for (; asked < size2 && asked < at + 4 * kPiece; asked += kPiece) {
      ASSERT_EQ(stuck.sendRead(s2, asked, kPiece), 0);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    ASSERT_EQ(stuck.waitRead(s2, at, &got, false, 5000), 0);
    all.insert(all.end(), got.begin(), got.end());
  }
  ASSERT_TRUE(all == streams[1].model);
  ASSERT_EQ(stuck.write(s1, streams[0].next, all.data(), kMiB, 0, kDirectFlagReady), 0);
  for (int i = 0; i < 8; ++i) ASSERT_EQ(stuck.sendRead(s1, 0, kMiB), 0);
  auto partial = headerBytes(28 + 1000, s1, kDirectOpWrite, streams[0].next + kMiB);
  partial.resize(28 + 10);
  ASSERT_EQ(stuck.sendRaw(partial.data(), partial.size()), 0);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  const auto start = Clock::now();
  ch.v->stopDirectWriter();
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(3));
  EXPECT_FALSE(ch.v->pipe_reader_thread_.joinable());
  EXPECT_EQ(ch.root->findChild("s1.bin")->size_, streams[0].next + kMiB);
  EXPECT_EQ(ch.v->getDirectFiles(files), 0);
  VELTWorkItem item(s1, kDirectOpRead, 0, 0, 0);  // stopped: refused, still the caller's
  EXPECT_EQ(ch.v->postDirectResponse(&item), -1);
  stuck.disconnect();
  // Stopped, the test plays a daemon slow to read the request pipe: the memory writeFrom lends
  // the pipe is reused only once read, so every record arrives as the input had it.
  std::vector<uint8_t> input(3 * kMiB + 12345);
  std::mt19937 rng(7);
  for (auto& b : input) b = static_cast<uint8_t>(rng());
  velt::test::writeFileBytes(ch.dir + "/input.bin", std::string(input.begin(), input.end()));
  const int requests = open((ch.dir + "/tmp/veltw").c_str(), O_RDONLY | O_NONBLOCK);
  ASSERT_GE(requests, 0);
  fcntl(requests, F_SETPIPE_SZ, static_cast<int>(kMiB));  // as the daemon has it
  {
    DirectClient client;
    ASSERT_EQ(client.connect(5000), 0);
    const int in = open((ch.dir + "/input.bin").c_str(), O_RDONLY);
    std::thread sender(
        [&] { EXPECT_EQ(client.writeFrom(in, 9, 0, 65536), static_cast<int64_t>(input.size())); });
    std::string wire;
    const size_t records = (input.size() + 65535) / 65536;
    for (char piece[65536]; wire.size() < input.size() + records * kDirectHeaderSize;) {
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
      const ssize_t n = read(requests, piece, sizeof(piece));
      if (n > 0) wire.append(piece, static_cast<size_t>(n));
    }
    sender.join();
    close(in);
    std::vector<uint8_t> arrived;
    parseDirectStream(reinterpret_cast<const uint8_t*>(wire.data()), wire.size(),
                      [&](const DirectHeader& h, const uint8_t* payload, size_t size) {
                        EXPECT_EQ(h.offset, static_cast<int64_t>(arrived.size()));
                        arrived.insert(arrived.end(), payload, payload + size);
                      });
    EXPECT_TRUE(arrived == input);
  }
  close(requests);
  ASSERT_EQ(ch.v->startDirectWriter(), 0);
  DirectClient again;
  ASSERT_EQ(again.connect(5000), 0);
  EXPECT_EQ(again.getSize(12345, false, 5000), -EBADF);
}
