// The direct channel's threads on real named pipes (in a VELT_ROOT sandbox) over a fake card:
// framing and resynchronisation, hostile input, a client that goes away mid-stream, replies
// held back until a reader comes, and bounded start and stop.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
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
#include "utils/Log.h"
#include "velt_client.h"

using velt::DirectHeader;
using velt::VELT;
using velt::client::DirectClient;
using velt::client::Reply;

namespace {

using Clock = std::chrono::steady_clock;

using velt::test::LogCapture;

uint8_t pattern(int64_t i) {
  return static_cast<uint8_t>((i * 13 + (i >> 10)) & 0xFF);
}

// A formatted fake card with an empty root and the channel running on pipes in a sandbox.
struct Channel : velt_test::FakeCard {
  Channel() {
    char tmpl[] = "/tmp/velt-chan-XXXXXX";
    root_dir = mkdtemp(tmpl);
    mkdir((root_dir + "/tmp").c_str(), 0755);
    setenv("VELT_ROOT", root_dir.c_str(), 1);
  }
  ~Channel() {
    v->stopDirectWriter();
    unlink((root_dir + "/tmp/veltw").c_str());
    unlink((root_dir + "/tmp/velts").c_str());
    rmdir((root_dir + "/tmp").c_str());
    rmdir(root_dir.c_str());
    unsetenv("VELT_ROOT");
  }
  std::string root_dir;
};

std::vector<uint8_t> headerBytes(uint32_t length, int32_t fd, uint32_t op, int64_t offset = 0,
                                 uint32_t param = 0) {
  DirectHeader h;
  h.length = length;
  h.fd = fd;
  h.op = op;
  h.offset = offset;
  h.param = param;
  std::vector<uint8_t> bytes(velt::kDirectHeaderSize);
  velt::encodeDirectHeader(h, bytes.data());
  return bytes;
}

// The reply to a size query of an unknown file number: proof that the record was understood.
void expectUnknownFileReply(DirectClient& client, int32_t fd) {
  Reply r;
  ASSERT_EQ(client.receive(&r, 5000), 0) << "no reply for file " << fd;
  EXPECT_EQ(r.header.op, velt::kDirectOpError);
  EXPECT_EQ(r.header.fd, fd);
  EXPECT_EQ(static_cast<int32_t>(r.header.param), -EBADF);
  EXPECT_EQ(r.header.length, velt::kDirectHeaderSize);
}

}  // namespace

TEST(PipeChannel, HostileClientIsAnsweredOrIgnoredAndTheNextClientIsServed) {
  LogCapture log;  // outlives the channel's threads
  Channel ch;
  ASSERT_EQ(ch.v->startDirectWriter(), 0);
  {
    DirectClient hostile;
    ASSERT_EQ(hostile.connect(5000), 0);
    std::mt19937 rng(1234);
    // 4 MiB of random bytes without a marker, then a record: the junk is read in bulk.
    std::vector<uint8_t> junk(4 << 20);
    for (auto& b : junk) b = static_cast<uint8_t>(rng());
    for (size_t i = 0; i + 3 < junk.size(); ++i) {
      if (memcmp(&junk[i], velt::kDirectMarker, 4) == 0) junk[i] = 0;
    }
    junk.back() = 0;
    const uint64_t reads_before = ch.v->direct_reads_;
    ASSERT_EQ(hostile.sendRaw(junk.data(), junk.size()), 0);
    auto probe = headerBytes(28, 77, velt::kDirectOpGetSize);
    ASSERT_EQ(hostile.sendRaw(probe.data(), probe.size()), 0);
    expectUnknownFileReply(hostile, 77);
    EXPECT_LT(ch.v->direct_reads_ - reads_before, junk.size() / 4096) << "junk read in bulk";
    // Records with random fields: every one names a file that does not exist and is answered
    // with -EBADF, whatever its operation (opens and creates aside) and payload.
    const uint32_t ops[] = {0, 1, 2, 3, 4, 7, 8, 9, 10, 11, 12, 13, 99, 12345, 0xFFFFFFFF};
    std::vector<int32_t> fds;
    int junk_blocks = 0;
    for (int i = 0; i < 40; ++i) {
      const uint32_t payload = rng() % 3000;
      const int32_t fd = 1000 + static_cast<int32_t>(rng() % 100000);
      auto rec = headerBytes(28 + payload, fd, ops[rng() % std::size(ops)],
                             static_cast<int64_t>(rng()), static_cast<uint32_t>(rng()));
      for (uint32_t k = 0; k < payload; ++k) rec.push_back(static_cast<uint8_t>(rng()));
      // Junk between records, once synchronised, is taken for a header with a broken marker:
      // those 28 bytes go, and the search finds the next marker (the junk holds none and ends
      // in a byte that cannot start one).
      if (i % 3 == 1) {
        std::vector<uint8_t> between(28 + rng() % 100);
        for (auto& b : between) b = static_cast<uint8_t>(rng() % 0xF0);
        between.back() = 0;
        rec.insert(rec.begin(), between.begin(), between.end());
        ++junk_blocks;
      }
      // Some records come in many small pieces.
      if (i % 4 == 0) {
        for (size_t at = 0; at < rec.size(); at += 7) {
          ASSERT_EQ(hostile.sendRaw(rec.data() + at, std::min<size_t>(7, rec.size() - at)), 0);
        }
      } else {
        ASSERT_EQ(hostile.sendRaw(rec.data(), rec.size()), 0);
      }
      fds.push_back(fd);
    }
    // Event-queue operations go first, so the replies come in another order.
    std::vector<int32_t> answered;
    for (size_t i = 0; i < fds.size(); ++i) {
      Reply r;
      ASSERT_EQ(hostile.receive(&r, 5000), 0) << "replies so far: " << i;
      EXPECT_EQ(r.header.op, velt::kDirectOpError);
      EXPECT_EQ(static_cast<int32_t>(r.header.param), -EBADF);
      EXPECT_TRUE(r.payload.empty());
      answered.push_back(r.header.fd);
    }
    std::sort(fds.begin(), fds.end());
    std::sort(answered.begin(), answered.end());
    EXPECT_EQ(answered, fds);
    EXPECT_EQ(log.count("data sync broken!"), junk_blocks);
    EXPECT_EQ(log.count("data synced."), 1 + junk_blocks);
    // A record above the largest payload is refused with -EFBIG and skipped whole: the record
    // after it is served. One whose length is near 4 GiB is refused at once, and its payload
    // skipped until the client goes away.
    auto expectTooLarge = [&](int32_t fd, int64_t offset) {
      Reply r;
      ASSERT_EQ(hostile.receive(&r, 10000), 0);
      EXPECT_EQ(r.header.op, velt::kDirectOpError);
      EXPECT_EQ(r.header.fd, fd);
      EXPECT_EQ(r.header.offset, offset);
      EXPECT_EQ(static_cast<int32_t>(r.header.param), -EFBIG);
    };
    auto big = headerBytes(28 + velt::kDirectPayloadMax + 1, 5, velt::kDirectOpWrite, 4096);
    ASSERT_EQ(hostile.sendRaw(big.data(), big.size()), 0);
    std::vector<uint8_t> piece(1 << 20, 0x22);
    for (uint32_t left = velt::kDirectPayloadMax + 1; left > 0;) {
      const uint32_t n = std::min<uint32_t>(left, piece.size());
      ASSERT_EQ(hostile.sendRaw(piece.data(), n), 0);
      left -= n;
    }
    probe = headerBytes(28, 78, velt::kDirectOpGetSize);
    ASSERT_EQ(hostile.sendRaw(probe.data(), probe.size()), 0);
    expectTooLarge(5, 4096);
    expectUnknownFileReply(hostile, 78);
    auto huge = headerBytes(0xFFFFFFF0, 6, velt::kDirectOpWrite, 1);
    ASSERT_EQ(hostile.sendRaw(huge.data(), huge.size()), 0);
    ASSERT_EQ(hostile.sendRaw(piece.data(), 100000), 0);
    expectTooLarge(6, 1);
  }
  ASSERT_TRUE(log.waitFor("pending requests#")) << log.text();
  EXPECT_EQ(log.count("is too large, refused"), 2) << log.text();
  EXPECT_EQ(log.count("disconnected"), 1);

  // The channel serves the next client from a clean start.
  DirectClient good;
  ASSERT_EQ(good.connect(5000), 0);
  int fd = good.create("/after.bin", 0, 5000);
  ASSERT_GE(fd, 3);
  std::vector<uint8_t> data(10000);
  for (size_t i = 0; i < data.size(); ++i) data[i] = pattern(static_cast<int64_t>(i));
  ASSERT_EQ(good.write(fd, 0, data.data(), 10000), 0);
  std::vector<uint8_t> back;
  ASSERT_EQ(good.read(fd, 0, 20000, &back, false, 5000), 0);
  EXPECT_EQ(back, data);
  // Unknown operations and file numbers on a synchronised stream.
  DirectHeader h;
  h.fd = fd;
  h.op = 200;
  ASSERT_EQ(good.send(h, "abc", 3), 0);  // a known file: dropped without a reply
  EXPECT_EQ(good.getSize(fd + 1000, false, 5000), -EBADF);
  EXPECT_EQ(good.getSize(fd, false, 5000), 10000);
  EXPECT_TRUE(good.takeErrors().empty());
}

TEST(PipeChannel, AClientThatDiesLosesNothingItSent) {
  LogCapture log;  // outlives the channel's threads
  Channel ch;
  ASSERT_EQ(ch.v->startDirectWriter(), 0);
  const int64_t total = 3 * 1024 * 1024 + 1234;
  {
    DirectClient client;
    ASSERT_EQ(client.connect(5000), 0);
    int a = client.create("/a.bin", 0, 5000);
    int b = client.create("/b.bin", 0, 5000);
    ASSERT_GE(a, 3);
    ASSERT_GE(b, 3);
    std::vector<uint8_t> chunk(40000);
    for (int64_t off = 0; off < total; off += static_cast<int64_t>(chunk.size())) {
      uint32_t n = static_cast<uint32_t>(std::min<int64_t>(chunk.size(), total - off));
      for (uint32_t i = 0; i < n; ++i) chunk[i] = pattern(off + i);
      ASSERT_EQ(client.write(a, off, chunk.data(), n), 0);
      ASSERT_EQ(client.write(b, off, chunk.data(), n, 0, 0, true), 0);
    }
    // Gone without closing anything: its ends of both pipes close.
  }
  ASSERT_TRUE(log.waitFor("close pending file(no ", 2)) << log.text();
  EXPECT_GE(log.count("disconnected"), 1);
  EXPECT_EQ(log.count("still open files#2"), 1);
  for (const char* name : {"/a.bin", "/b.bin"}) {
    auto e = ch.v->findEntry(name);
    ASSERT_NE(e, nullptr);
    std::lock_guard lock(e->files_mutex_);
    EXPECT_EQ(e->size_, total) << name;
  }
  std::list<std::shared_ptr<VELT::File>> files;
  EXPECT_EQ(ch.v->getDirectFiles(files), 0);

  // The next client reads everything back.
  DirectClient next;
  ASSERT_EQ(next.connect(5000), 0);
  int fd = next.open("/b.bin", 0, 5000);
  ASSERT_GE(fd, 3);
  std::vector<uint8_t> got;
  for (int64_t off = 0; off < total; off += static_cast<int64_t>(got.size())) {
    ASSERT_EQ(next.read(fd, off, 1 << 20, &got, false, 5000), 0);
    ASSERT_FALSE(got.empty());
    for (size_t i = 0; i < got.size(); ++i) {
      ASSERT_EQ(got[i], pattern(off + static_cast<int64_t>(i))) << off + i;
    }
  }
}

TEST(PipeChannel, ParkedReadsFollowAWriterOnAnotherConnection) {
  Channel ch;
  ASSERT_EQ(ch.v->startDirectWriter(), 0);
  DirectClient client;
  ASSERT_EQ(client.connect(5000), 0);
  int w = client.create("/live.bin", 0, 5000);
  int r = client.open("/live.bin", 0, 5000);
  ASSERT_GE(w, 3);
  ASSERT_GE(r, 3);
  // A read of data not written yet waits in the daemon...
  DirectHeader h;
  h.fd = r;
  h.op = velt::kDirectOpRead;
  h.offset = 1000;
  h.param = 500;
  ASSERT_EQ(client.send(h, nullptr, 0), 0);
  Reply reply;
  EXPECT_EQ(client.receive(&reply, 300), -ETIMEDOUT);
  // ...a second one is refused at once...
  std::vector<uint8_t> got;
  EXPECT_EQ(client.read(r, 0, 10, &got, false, 5000), -EBUSY);
  // ...and the write that reaches past offset 1,000 answers it.
  std::vector<uint8_t> data(1200);
  for (size_t i = 0; i < data.size(); ++i) data[i] = pattern(static_cast<int64_t>(i));
  ASSERT_EQ(client.write(w, 0, data.data(), 1000, 0, velt::kDirectFlagReady), 0);
  EXPECT_EQ(client.receive(&reply, 300), -ETIMEDOUT) << "offset 1,000 not reached yet";
  ASSERT_EQ(client.write(w, 1000, data.data() + 1000, 200), 0);
  ASSERT_EQ(client.receive(&reply, 5000), 0);
  EXPECT_EQ(reply.header.op, velt::kDirectOpRead);
  EXPECT_EQ(reply.header.fd, r);
  EXPECT_EQ(reply.header.offset, 1000);
  EXPECT_EQ(reply.payload, std::vector<uint8_t>(data.begin() + 1000, data.end()));
}

TEST(PipeChannel, RepliesWaitForAReader) {
  Channel ch;
  ASSERT_EQ(ch.v->startDirectWriter(), 0);
  // Requests only: nobody has the reply pipe open.
  const std::string requests = ch.root_dir + "/tmp/veltw";
  int fd = -1;
  for (int i = 0; i < 200 && fd < 0; ++i) {
    fd = open(requests.c_str(), O_WRONLY | O_NONBLOCK);
    if (fd < 0) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ASSERT_GE(fd, 0);
  for (int32_t unknown : {501, 502, 503}) {
    auto h = headerBytes(28, unknown, velt::kDirectOpGetRealSize);
    ASSERT_EQ(write(fd, h.data(), h.size()), 28);
  }
  auto queued = [&] {
    std::lock_guard<std::mutex> lock(ch.v->response_mutex_);
    return ch.v->responses_.size();
  };
  for (int i = 0; i < 500 && queued() < 3; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_EQ(queued(), 3u);
  EXPECT_FALSE(ch.v->responder_open_);

  DirectClient client;  // opens the reply pipe (and a second writer of the request pipe)
  ASSERT_EQ(client.connect(5000), 0);
  for (int32_t unknown : {501, 502, 503}) expectUnknownFileReply(client, unknown);
  close(fd);
}

TEST(PipeChannel, StartOnceAndStopWithinBounds) {
  LogCapture log;  // outlives the channel's threads
  Channel ch;
  ASSERT_EQ(ch.v->startDirectWriter(), 0);
  EXPECT_EQ(ch.v->startDirectWriter(), -1);
  EXPECT_EQ(log.count("direct pipe reader already started"), 1);
  struct stat st;
  ASSERT_EQ(stat((ch.root_dir + "/tmp/veltw").c_str(), &st), 0);
  EXPECT_TRUE(S_ISFIFO(st.st_mode));
  EXPECT_EQ(st.st_mode & 0777, 0666u);

  // A client that stops halfway through a record and never reads its replies.
  DirectClient client;
  ASSERT_EQ(client.connect(5000), 0);
  int fd = client.create("/big.bin", 0, 5000);
  ASSERT_GE(fd, 3);
  std::vector<uint8_t> data(1 << 20, 0x33);
  ASSERT_EQ(client.write(fd, 0, data.data(), static_cast<uint32_t>(data.size()), 0,
                         velt::kDirectFlagReady),
            0);
  for (int i = 0; i < 8; ++i) {  // replies of 1 MiB each: more than the pipe holds
    DirectHeader h;
    h.fd = fd;
    h.op = velt::kDirectOpRead;
    h.param = 1 << 20;
    ASSERT_EQ(client.send(h, nullptr, 0), 0);
  }
  auto partial = headerBytes(28 + 1000, fd, velt::kDirectOpWrite, 1 << 20);
  partial.resize(28 + 10);
  ASSERT_EQ(client.sendRaw(partial.data(), partial.size()), 0);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));

  const auto start = Clock::now();
  ch.v->stopDirectWriter();
  const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
  EXPECT_LT(took.count(), 3000);
  EXPECT_FALSE(ch.v->pipe_reader_thread_.joinable());
  EXPECT_EQ(ch.root->findChild("big.bin")->size_, 1 << 20) << "the whole record was written";
  std::list<std::shared_ptr<VELT::File>> files;
  EXPECT_EQ(ch.v->getDirectFiles(files), 0) << "direct files are closed at stop";

  // Stopped: completions are refused and the item stays the caller's.
  velt::VELTWorkItem item(fd, velt::kDirectOpRead, 0, 0, 0);
  EXPECT_EQ(ch.v->postDirectResponse(&item), -1);
  // And the channel starts again.
  client.disconnect();
  ASSERT_EQ(ch.v->startDirectWriter(), 0);
  DirectClient again;
  ASSERT_EQ(again.connect(5000), 0);
  EXPECT_EQ(again.getSize(12345, false, 5000), -EBADF);
}

namespace {

// What a local user may leave where the daemon's pipes belong.
enum class Plant { kLinkToFile, kRegularFile, kOtherUsersPipe, kDirectory };

void plant(const std::string& path, Plant what, const std::string& victim) {
  unlink(path.c_str());
  rmdir(path.c_str());
  switch (what) {
    case Plant::kLinkToFile:
      ASSERT_EQ(symlink(victim.c_str(), path.c_str()), 0);
      break;
    case Plant::kRegularFile: {
      FILE* f = fopen(path.c_str(), "w");
      ASSERT_NE(f, nullptr);
      fputs("not a pipe", f);
      fclose(f);
      break;
    }
    case Plant::kOtherUsersPipe:
      ASSERT_EQ(mkfifo(path.c_str(), 0666), 0);
      ASSERT_EQ(chown(path.c_str(), 65534, 65534), 0);
      break;
    case Plant::kDirectory:
      ASSERT_EQ(mkdir(path.c_str(), 0777), 0);
      break;
  }
}

bool isOwnPipe(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0 && S_ISFIFO(st.st_mode) && st.st_uid == geteuid();
}

template <typename Done>
bool waitUntil(Done done, int ms = 10000) {
  const auto end = Clock::now() + std::chrono::milliseconds(ms);
  while (!done()) {
    if (Clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

std::string slurp(const std::string& path) {
  std::string text;
  if (FILE* f = fopen(path.c_str(), "r")) {
    char buf[256];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), f)) > 0) text.append(buf, n);
    fclose(f);
  }
  return text;
}

}  // namespace

TEST(PipeChannel, AnythingButTheDaemonsOwnPipeIsReplacedBeforeEveryOpen) {
  struct Row {
    const char* what;
    Plant plant;
  } rows[] = {
      {"a link to a file", Plant::kLinkToFile},
      {"a regular file", Plant::kRegularFile},
      {"another user's pipe", Plant::kOtherUsersPipe},
      {"a directory", Plant::kDirectory},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    if (row.plant == Plant::kOtherUsersPipe && geteuid() != 0) continue;  // needs chown
    LogCapture log;  // outlives the channel's threads
    Channel ch;
    const std::string victim = ch.root_dir + "/victim";
    {
      FILE* f = fopen(victim.c_str(), "w");
      ASSERT_NE(f, nullptr);
      fputs("precious", f);
      fclose(f);
    }
    const std::string requests = ch.root_dir + "/tmp/veltw";
    const std::string replies = ch.root_dir + "/tmp/velts";
    plant(requests, row.plant, victim);
    plant(replies, row.plant, victim);
    ASSERT_EQ(ch.v->startDirectWriter(), 0);
    EXPECT_TRUE(isOwnPipe(requests));
    EXPECT_TRUE(isOwnPipe(replies));
    {
      DirectClient client;
      ASSERT_EQ(client.connect(5000), 0);
      EXPECT_EQ(client.getSize(12345, false, 5000), -EBADF);
      // Planted again while it is connected: its descriptors stay good, and the daemon's next
      // opens (after the client left) check again.
      plant(requests, row.plant, victim);
      plant(replies, row.plant, victim);
      EXPECT_EQ(client.getSize(12346, false, 5000), -EBADF);
    }
    EXPECT_TRUE(waitUntil([&] { return isOwnPipe(requests) && isOwnPipe(replies); }))
        << log.text();
    DirectClient next;
    ASSERT_EQ(next.connect(5000), 0);
    EXPECT_EQ(next.getSize(12347, false, 5000), -EBADF);
    EXPECT_EQ(log.count("is not the daemon's named pipe"), 4) << log.text();
    EXPECT_EQ(slurp(victim), "precious");
    next.disconnect();
    ch.v->stopDirectWriter();
    unlink(victim.c_str());
  }
}

TEST(PipeChannel, OneClientAtATime) {
  Channel ch;
  ASSERT_EQ(ch.v->startDirectWriter(), 0);
  DirectClient first;
  ASSERT_EQ(first.connect(5000), 0);
  DirectClient second;
  EXPECT_EQ(second.connect(1000), -EBUSY);
  EXPECT_FALSE(second.connected());
  EXPECT_EQ(first.getSize(321, false, 5000), -EBADF) << "the refused client disturbed nothing";
  first.disconnect();
  ASSERT_EQ(second.connect(5000), 0);
  EXPECT_EQ(second.getSize(322, false, 5000), -EBADF);
}

TEST(PipeChannel, MemoryStaysWithinTheBoundAndReturnsAfterABurst) {
  Channel ch;
  constexpr int64_t kBound = 4 << 20;
  constexpr int64_t kMiB = 1 << 20;
  ch.v->direct_held_max_ = kBound;
  ASSERT_EQ(ch.v->startDirectWriter(), 0);
  velt::DirectBuffers& buffers = *ch.v->direct_buffers_;
  const int64_t idle = velt::DirectBuffers::kIdleKept * int64_t{velt::DirectBuffers::kPooledSize};
  {
    // 2 MiB of data, then 300 reads of 1 MiB whose replies are never collected.
    DirectClient client;
    ASSERT_EQ(client.connect(5000), 0);
    int fd = client.create("/data.bin", 0, 5000);
    ASSERT_GE(fd, 3);
    std::vector<uint8_t> data(2 * kMiB, 0x5A);
    ASSERT_EQ(client.write(fd, 0, data.data(), static_cast<uint32_t>(data.size()), 0,
                           velt::kDirectFlagReady),
              0);
    for (int i = 0; i < 300; ++i) ASSERT_EQ(client.sendRead(fd, (i % 2) * kMiB, kMiB), 0);
    ASSERT_TRUE(waitUntil([&] { return ch.v->direct_pauses_ > 0; }));
    int64_t peak = 0;
    for (int i = 0; i < 50; ++i) {
      peak = std::max(peak, buffers.held());
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    // The bound, one reply being written and one record read before the pause.
    EXPECT_LE(peak, kBound + 2 * kMiB);
    EXPECT_GE(peak, kBound - kMiB) << "the replies nobody reads fill the bound";
  }
  // The client went away: what it held is given back, and only a few buffers stay mapped.
  EXPECT_TRUE(waitUntil([&] { return buffers.held() == 0; })) << buffers.held();
  EXPECT_LE(buffers.mappedBytes(), idle);

  // A burst of writes far beyond the bound: the writer is slowed down, nothing is lost, and the
  // memory returns to its idle size.
  DirectClient writer;
  ASSERT_EQ(writer.connect(5000), 0);
  int fd = writer.create("/burst.bin", 0, 5000);
  ASSERT_GE(fd, 3);
  constexpr int64_t kBurst = 24 * kMiB;
  std::vector<uint8_t> record(64 << 10);
  std::atomic<bool> writing{true};
  std::atomic<int64_t> burst_peak{0};
  std::thread watch([&] {
    while (writing) {
      burst_peak = std::max<int64_t>(burst_peak, buffers.held());
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  });
  for (int64_t off = 0; off < kBurst; off += static_cast<int64_t>(record.size())) {
    for (size_t i = 0; i < record.size(); ++i) record[i] = pattern(off + static_cast<int64_t>(i));
    ASSERT_EQ(writer.write(fd, off, record.data(), static_cast<uint32_t>(record.size())), 0);
  }
  EXPECT_EQ(writer.closeAndWait(fd, 0, 20000), 0);
  writing = false;
  watch.join();
  EXPECT_LE(burst_peak, kBound + 2 * kMiB);
  EXPECT_EQ(ch.root->findChild("burst.bin")->size_, kBurst);
  EXPECT_TRUE(waitUntil([&] { return buffers.held() == 0; })) << buffers.held();
  EXPECT_LE(buffers.mappedBytes(), idle);
}

TEST(PipeChannel, ATrickleIsTakenAtItsMaximumAgeAndHoldsBackNoOtherFile) {
  Channel ch;
  ch.v->direct_max_age_us_ = 200000;
  ASSERT_EQ(ch.v->startDirectWriter(), 0);
  DirectClient client;
  ASSERT_EQ(client.connect(5000), 0);
  const int slow = client.create("/trickle.bin", 0, 5000);
  const int bulk = client.create("/bulk.bin", 0, 5000);
  ASSERT_GE(slow, 3);
  ASSERT_GE(bulk, 3);
  // A byte every 5 ms: its write never stops growing by the merge window alone.
  std::atomic<bool> trickling{true};
  std::atomic<int64_t> sent{0};
  std::thread trickle([&] {
    for (int64_t off = 0; trickling; ++off) {
      const uint8_t byte = pattern(off);
      if (client.write(slow, off, &byte, 1) != 0) break;
      sent = off + 1;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  });
  ASSERT_TRUE(waitUntil([&] { return sent > 10; }));
  // Another file's data and a size query behind it are served while the trickle goes on.
  constexpr int64_t kBulk = 8 << 20;
  std::vector<uint8_t> record(64 << 10);
  for (int64_t off = 0; off < kBulk; off += static_cast<int64_t>(record.size())) {
    for (size_t i = 0; i < record.size(); ++i) record[i] = pattern(off + static_cast<int64_t>(i));
    ASSERT_EQ(client.write(bulk, off, record.data(), static_cast<uint32_t>(record.size())), 0);
  }
  EXPECT_EQ(client.getSize(bulk, true, 5000), kBulk);
  // The trickle itself reaches the card within its maximum age, though it never pauses.
  const int64_t before = sent;
  EXPECT_GE(client.getSize(slow, true, 5000), before);
  EXPECT_TRUE(trickling) << "the trickle went on all along";
  trickling = false;
  trickle.join();
  EXPECT_EQ(client.closeAndWait(slow, 0, 5000), 0);
  std::vector<uint8_t> back;
  ASSERT_EQ(client.read(bulk, kBulk - 100, 100, &back, false, 5000), 0);
  ASSERT_EQ(back.size(), 100u);
  for (size_t i = 0; i < back.size(); ++i) EXPECT_EQ(back[i], pattern(kBulk - 100 + i));
}

TEST(PipeChannel, RandomStreamsWithProvisionalTailsReachTheCardAsSent) {
  // Contiguous writes of random sizes (small ones merged by copying, large ones read straight
  // into the write they continue), each with a random provisional tail that the next write
  // overwrites, some flagged ready, interleaved over two files and the two queues: the card
  // must hold exactly what a model of the files says.
  Channel ch;
  ASSERT_EQ(ch.v->startDirectWriter(), 0);
  DirectClient client;
  ASSERT_EQ(client.connect(5000), 0);
  std::mt19937 rng(99);
  struct Stream {
    int fd;
    bool event;
    std::vector<uint8_t> model;
    int64_t next = 0;
  } streams[] = {{client.create("/s1.bin", 0, 5000), false, {}},
                 {client.create("/s2.bin", 0, 5000), true, {}}};
  for (const Stream& s : streams) ASSERT_GE(s.fd, 3);
  std::vector<uint8_t> data;
  for (int k = 0; k < 400; ++k) {
    Stream& s = streams[rng() % 2];
    const uint32_t sizes[] = {1 + rng() % 600, 1 + rng() % 20000, 16384 + rng() % 120000};
    const uint32_t size = sizes[rng() % 3];
    const uint32_t tail = k >= 396 ? 0 : rng() % std::min<uint32_t>(size, 3000);
    data.resize(size);
    for (auto& b : data) b = static_cast<uint8_t>(rng());
    if (s.model.size() < static_cast<size_t>(s.next) + size) s.model.resize(s.next + size);
    std::copy(data.begin(), data.end(), s.model.begin() + s.next);
    const uint32_t flags = rng() % 8 == 0 ? velt::kDirectFlagReady : 0u;
    ASSERT_EQ(client.write(s.fd, s.next, data.data(), size, tail, flags, s.event), 0);
    s.next += size - tail;
    // A provisional tail that nothing continues stays as sent.
  }
  for (Stream& s : streams) {
    ASSERT_EQ(client.closeAndWait(s.fd, s.event ? velt::kDirectFlagEvent : 0u, 10000), 0);
  }
  EXPECT_TRUE(client.takeErrors().empty());
  for (const auto& [name, s] : {std::pair{"s1.bin", &streams[0]}, std::pair{"s2.bin", &streams[1]}}) {
    auto entry = ch.root->findChild(name);
    ASSERT_NE(entry, nullptr);
    ASSERT_EQ(entry->size_, static_cast<int64_t>(s->model.size())) << name;
    auto file = ch.v->newFile(false, false, false, entry);
    ASSERT_NE(file, nullptr);
    std::vector<uint8_t> got(s->model.size());
    ASSERT_EQ(file->read(got.data(), got.size(), 0), static_cast<int>(got.size()));
    file->close();
    EXPECT_TRUE(got == s->model) << name;
  }
}
