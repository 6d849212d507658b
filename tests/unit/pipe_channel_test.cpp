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

TEST(PipeChannel, FramingFindsTheMarkerAndRecoversFromBrokenHeaders) {
  LogCapture log;  // outlives the channel's threads
  Channel ch;
  ASSERT_EQ(ch.v->startDirectWriter(), 0);
  DirectClient client;
  ASSERT_EQ(client.connect(5000), 0);

  // One stray byte, then a record: synchronised after skipping it.
  std::vector<uint8_t> bytes = {0x00};
  auto h = headerBytes(28, 42, velt::kDirectOpGetSize);
  bytes.insert(bytes.end(), h.begin(), h.end());
  ASSERT_EQ(client.sendRaw(bytes.data(), bytes.size()), 0);
  expectUnknownFileReply(client, 42);
  EXPECT_EQ(log.count("data synced."), 1);

  // Synchronised, a header whose marker is wrong: back to the marker search, which finds the
  // next record.
  auto broken = headerBytes(28, 1, velt::kDirectOpGetSize);
  broken[3] = 0xA9;
  auto next = headerBytes(28, 43, velt::kDirectOpGetSize);
  broken.insert(broken.end(), next.begin(), next.end());
  ASSERT_EQ(client.sendRaw(broken.data(), broken.size()), 0);
  expectUnknownFileReply(client, 43);
  EXPECT_EQ(log.count("data sync broken!"), 1);
  EXPECT_EQ(log.count("data synced."), 2);

  // A length shorter than a header is treated the same way.
  auto short_len = headerBytes(20, 2, velt::kDirectOpGetSize);
  next = headerBytes(28, 44, velt::kDirectOpGetSize);
  short_len.insert(short_len.end(), next.begin(), next.end());
  ASSERT_EQ(client.sendRaw(short_len.data(), short_len.size()), 0);
  expectUnknownFileReply(client, 44);
  EXPECT_EQ(log.count("(ssize_t)size >= 0"), 1);
  EXPECT_EQ(log.count("data synced."), 3);

  // A record split into single-byte writes is put together.
  auto slow = headerBytes(28, 45, velt::kDirectOpGetSize);
  for (uint8_t b : slow) {
    ASSERT_EQ(client.sendRaw(&b, 1), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  expectUnknownFileReply(client, 45);
}

TEST(PipeChannel, HostileClientIsAnsweredOrIgnoredAndTheNextClientIsServed) {
  LogCapture log;  // outlives the channel's threads
  Channel ch;
  ASSERT_EQ(ch.v->startDirectWriter(), 0);
  {
    DirectClient hostile;
    ASSERT_EQ(hostile.connect(5000), 0);
    std::mt19937 rng(1234);
    // Random bytes without a marker are skipped.
    std::vector<uint8_t> junk(64 * 1024);
    for (auto& b : junk) b = static_cast<uint8_t>(rng());
    for (size_t i = 0; i + 3 < junk.size(); ++i) {
      if (memcmp(&junk[i], velt::kDirectMarker, 4) == 0) junk[i] = 0;
    }
    ASSERT_EQ(hostile.sendRaw(junk.data(), junk.size()), 0);
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
    // A length near 4 GiB is not buffered: its payload is read and dropped until the client
    // goes away.
    auto huge = headerBytes(0xFFFFFFF0, 5, velt::kDirectOpWrite);
    ASSERT_EQ(hostile.sendRaw(huge.data(), huge.size()), 0);
    std::vector<uint8_t> payload(100000, 0x22);
    ASSERT_EQ(hostile.sendRaw(payload.data(), payload.size()), 0);
  }
  ASSERT_TRUE(log.waitFor("pending requests#")) << log.text();
  EXPECT_EQ(log.count("got exception when creating direct writer buffer 4294967252 bytes"), 1)
      << log.text();
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
  ASSERT_EQ(ch.v->startDirectWriter(), 0);
  DirectClient again;
  ASSERT_EQ(again.connect(5000), 0);
  EXPECT_EQ(again.getSize(12345, false, 5000), -EBADF);
}
