// The direct channel and the ioctl commands of a mounted daemon: streaming into a reserved
// folder while the same client reads the data as it arrives, close with unlink, a client that
// is killed mid-stream, the veltctl tool (one client at a time), and the control commands
// through the mount. Afterwards fsck.fat and mtools judge the card.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "card_image.h"
#include "daemon_runner.h"
#include "e2e_card.h"
#include "fs/velt_fuse_ioctl.h"
#include "fs/velt_pipe.h"
#include "velt_client.h"
#include "velt_fsck.h"

namespace velt::test {
namespace {

using velt::client::DirectClient;
using velt::client::Reply;
using Clock = std::chrono::steady_clock;

uint8_t pattern(int64_t i) {
  return static_cast<uint8_t>((static_cast<uint64_t>(i) * 2654435761u) >> 13);
}

void fillPattern(uint8_t* out, int64_t offset, size_t size) {
  for (size_t i = 0; i < size; ++i) out[i] = pattern(offset + static_cast<int64_t>(i));
}

// A VELT card whose reserved folder REC holds files large enough for a 64 MiB recording,
// mounted by velt.fuse; the channel's pipes live in the card's sandbox (VELT_ROOT).
class Channel : public ::testing::Test {
 protected:
  static constexpr int64_t kStreamBytes = 64ll << 20;
  static constexpr int64_t kReservedFileBytes = 80ll << 20;  // mkfs.velt ... REC:20:80

  void SetUp() override {
    CardSpec spec;
    spec.size_mb = MountedCard::kVeltCardMiB;
    spec.format = false;
    card_ = std::make_unique<CardImage>(spec);
    ASSERT_TRUE(card_->ok()) << card_->error();
    ShellResult r = runShell("VELT_ROOT=" + shellQuote(card_->root()) + " " +
                             shellQuote(std::string(VELT_BINARY_DIR) + "/mkfs.velt") + " " +
                             card_->devicePath() + " REC:20:80");
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    std::filesystem::create_directories(card_->root() + "/tmp");
    std::filesystem::create_directories(mnt());
    ASSERT_TRUE(daemon_.start(card_->root(), mnt())) << daemon_.out() << daemon_.err();
    setenv("VELT_ROOT", card_->root().c_str(), 1);
  }
  void TearDown() override {
    unsetenv("VELT_ROOT");
    if (daemon_.running()) {
      EXPECT_EQ(daemon_.stop(), 0) << daemon_.out() << daemon_.err();
    }
  }

  std::string mnt() const { return card_->dir() + "/mnt"; }
  std::string path(const std::string& rel) const { return mnt() + "/" + rel; }

  // Waits until the daemon has written `what` `times` times.
  bool waitForOutput(const std::string& what, int times = 1, int timeout_ms = 10000) {
    const auto end = Clock::now() + std::chrono::milliseconds(timeout_ms);
    while (Clock::now() < end) {
      if (count(daemon_.out(), what) >= times) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
  }
  static int count(const std::string& text, const std::string& what) {
    int n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
  }

  // Unmounts and lets fsck.fat judge the card.
  void unmountAndCheck() {
    unsetenv("VELT_ROOT");
    ASSERT_EQ(daemon_.stop(), 0) << daemon_.out() << daemon_.err();
    EXPECT_TRUE(fsckShowsOnlyReservedFiles(*card_));
  }

  // The file as mtools reads it from the card.
  std::string cardFile(const std::string& dos_path) {
    const std::string out = card_->dir() + "/copy.bin";
    ShellResult r = card_->mtools("mcopy -n ::" + dos_path + " " + shellQuote(out));
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    std::ifstream in(out, std::ios::binary);
    std::string data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    unlink(out.c_str());
    return data;
  }

  std::unique_ptr<CardImage> card_;
  DaemonRunner daemon_;
};

// The first `size` bytes of data hold the pattern.
bool startsWithPattern(const std::string& data, int64_t size) {
  if (static_cast<int64_t>(data.size()) < size) return false;
  for (int64_t i = 0; i < size; ++i) {
    if (static_cast<uint8_t>(data[i]) != pattern(i)) return false;
  }
  return true;
}

TEST_F(Channel, RecordingIntoAReservedFolderIsReadBackWhileItIsWritten) {
  // One client (one at a time may use the channel): a thread writes while the test reads.
  DirectClient client;
  ASSERT_EQ(client.connect(5000), 0);
  const std::string file = path("REC/stream.bin");
  const int w = client.create(file, 0, 5000);
  ASSERT_GE(w, 3);
  const int r = client.open(file, 0, 5000);
  ASSERT_GE(r, 3);
  DirectClient& writer = client;
  DirectClient& reader = client;

  // The first read comes before any data: it waits in the daemon.
  ASSERT_EQ(reader.sendRead(r, 0, 1 << 20), 0);
  ASSERT_TRUE(waitForOutput(") pending (file entry size: 83886080, real size: 0)"))
      << daemon_.out();

  // Records of one pipe page each; the daemon merges them into large writes. The first
  // publishes the reserved file. Every 8 MiB the writer lets the reader catch up, so that its
  // next read waits for data again.
  constexpr int64_t kPause = 8ll << 20;
  std::atomic<int64_t> read_so_far{0};
  std::atomic<bool> writer_ok{true};
  std::thread writing([&] {
    constexpr uint32_t kRecord = 4096 - velt::kDirectHeaderSize;
    std::vector<uint8_t> data(kRecord);
    for (int64_t off = 0; off < kStreamBytes; off += kRecord) {
      const uint32_t n = static_cast<uint32_t>(std::min<int64_t>(kRecord, kStreamBytes - off));
      if (off / kPause != (off + n) / kPause && off + n < kStreamBytes) {
        for (int i = 0; i < 3000 && read_so_far < off; ++i) {
          std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
      }
      fillPattern(data.data(), off, n);
      if (writer.write(w, off, data.data(), n, 0, off == 0 ? velt::kDirectFlagSecure : 0u) != 0) {
        writer_ok = false;
        return;
      }
    }
    writer_ok = writer.close(w) == 0;
  });

  int64_t got = 0;
  bool mismatch = false;
  std::vector<uint8_t> chunk;
  for (bool first = true; got < kStreamBytes && !mismatch; first = false) {
    int result = first ? reader.waitRead(r, 0, &chunk, false, 30000)
                       : reader.read(r, got, 1 << 20, &chunk, false, 30000);
    if (result != 0 || chunk.empty()) {
      ADD_FAILURE() << "read at " << got << ": " << result;
      break;
    }
    for (size_t i = 0; i < chunk.size(); ++i) {
      if (chunk[i] != pattern(got + static_cast<int64_t>(i))) {
        ADD_FAILURE() << "byte " << got + static_cast<int64_t>(i);
        mismatch = true;
        break;
      }
    }
    got += static_cast<int64_t>(chunk.size());
    read_so_far = got;
  }
  writing.join();
  EXPECT_TRUE(writer_ok);
  EXPECT_EQ(got, kStreamBytes);
  EXPECT_GT(count(daemon_.out(), ") pending (file entry size: "), 1)
      << "reads at the end of the data wait for it";
  EXPECT_TRUE(reader.takeErrors().empty());
  EXPECT_EQ(reader.getSize(r, true, 5000), kStreamBytes);
  EXPECT_EQ(reader.closeAndWait(r, 0, 10000), 0);
  client.disconnect();

  // The mount shows the published file with its data.
  struct stat st;
  ASSERT_EQ(stat(file.c_str(), &st), 0);
  // A file of a reserved folder keeps its reserved size; the recording fills its start.
  EXPECT_EQ(st.st_size, kReservedFileBytes);
  {
    std::ifstream in(file, std::ios::binary);
    std::vector<char> head(kStreamBytes);
    in.read(head.data(), kStreamBytes);
    EXPECT_TRUE(startsWithPattern(std::string(head.data(), in.gcount()), kStreamBytes));
  }

  unmountAndCheck();
  EXPECT_TRUE(startsWithPattern(cardFile("/REC/stream.bin"), kStreamBytes));
}

TEST_F(Channel, CloseWithUnlinkRemovesTheFileAndVeltctlDrivesTheChannel) {
  const std::string ctl = shellQuote(std::string(VELT_BINARY_DIR) + "/veltctl") + " -t 20000 ";
  const std::string data = card_->dir() + "/data.bin";
  ShellResult r = runShell("head -c 3000000 /dev/urandom > " + shellQuote(data));
  ASSERT_EQ(r.status, 0);
  struct Row {
    const char* rel;
    bool reserved;
  } rows[] = {{"plain.bin", false}, {"REC/rec.bin", true}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.rel);
    const std::string p = shellQuote(path(row.rel));
    r = runShell(ctl + "write -b 100000 " + p + " < " + shellQuote(data));
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_NE(r.err.find("3000000 bytes written"), std::string::npos) << r.err;
    r = runShell(ctl + "size " + p);
    const int64_t size = row.reserved ? kReservedFileBytes : 3000000;
    EXPECT_EQ(r.out, "size " + std::to_string(size) + "\nreal size 3000000\n") << r.err;
    r = runShell(ctl + "read " + p + " | cmp - " + shellQuote(data));
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    r = runShell(ctl + "read -o 2999000 -s 1000 " + p + " | cmp - " + shellQuote(data) +
                 " 0 2999000");
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    r = runShell("cmp -n 3000000 " + p + " " + shellQuote(data));
    EXPECT_EQ(r.status, 0) << "through the mount: " << r.out << r.err;
  }
  r = runShell(ctl + "splice -o 1000 -n 5000 " + shellQuote(path("plain.bin")) + " " +
               shellQuote(path("part.bin")));
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  r = runShell("bash -c " + shellQuote("cmp " + shellQuote(path("part.bin")) + " <(tail -c +1001 " +
                                       shellQuote(data) + " | head -c 5000)"));
  EXPECT_EQ(r.status, 0) << r.out << r.err;

  // Close with unlink: gone from the mount at once, and from the card.
  for (const char* rel : {"plain.bin", "REC/rec.bin", "part.bin"}) {
    r = runShell(ctl + "rm " + shellQuote(path(rel)));
    EXPECT_EQ(r.status, 0) << rel << ": " << r.out << r.err;
    struct stat st;
    EXPECT_NE(stat(path(rel).c_str(), &st), 0) << rel;
  }
  EXPECT_NE(count(daemon_.out(), "REC/rec.bin\" unlink on close"), 0);
  r = runShell(ctl + "rm " + shellQuote(path("plain.bin")));
  EXPECT_NE(r.status, 0);
  EXPECT_NE(r.err.find("No such file"), std::string::npos) << r.err;
  r = runShell(ctl + "size " + shellQuote("/elsewhere/x"));
  EXPECT_NE(r.err.find("Invalid argument"), std::string::npos) << r.err;
  {
    // One client at a time: veltctl says who is in the way.
    DirectClient holder;
    ASSERT_EQ(holder.connect(5000), 0);
    r = runShell(ctl + "size " + shellQuote(path("REC")));
    EXPECT_NE(r.status, 0);
    EXPECT_NE(r.err.find("another client is using the channel"), std::string::npos) << r.err;
  }

  unmountAndCheck();
  r = card_->mtools("mdir -/ -b ::/");
  EXPECT_EQ(r.out.find("PLAIN.BIN"), std::string::npos) << r.out;
  EXPECT_EQ(r.out.find("PART.BIN"), std::string::npos) << r.out;
  EXPECT_EQ(r.out.find("REC.BIN"), std::string::npos) << r.out;
}

TEST_F(Channel, AKilledClientLosesNothingItSentAndTheNextClientIsServed) {
  constexpr int64_t kBytes = 24ll << 20;
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const std::string file = path("REC/killed.bin");
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    // The client: create, send everything (each write returned: the bytes are in the pipe or
    // already taken by the daemon), tell the parent, then wait to be killed.
    close(ready[0]);
    DirectClient client;
    int fd = client.connect(5000) == 0 ? client.create(file, 0, 5000) : -1;
    std::vector<uint8_t> data(256 * 1024);
    bool ok = fd >= 3;
    for (int64_t off = 0; ok && off < kBytes; off += static_cast<int64_t>(data.size())) {
      fillPattern(data.data(), off, data.size());
      ok = client.write(fd, off, data.data(), static_cast<uint32_t>(data.size()), 0,
                        off == 0 ? velt::kDirectFlagSecure : 0u) == 0;
    }
    char status = ok ? 'y' : 'n';
    if (write(ready[1], &status, 1) != 1) _exit(2);
    for (;;) pause();
  }
  close(ready[1]);
  char status = 0;
  ASSERT_EQ(read(ready[0], &status, 1), 1);
  close(ready[0]);
  kill(child, SIGKILL);
  int wstatus = 0;
  waitpid(child, &wstatus, 0);
  ASSERT_EQ(status, 'y');

  ASSERT_TRUE(waitForOutput("close pending file(no ")) << daemon_.out();
  const std::string out = daemon_.out();
  EXPECT_NE(out.find("disconnected"), std::string::npos);
  EXPECT_NE(out.find("killed.bin\" \n"), std::string::npos) << "the close names the file";

  DirectClient next;
  ASSERT_EQ(next.connect(5000), 0);
  const int fd = next.open(file, 0, 5000);
  ASSERT_GE(fd, 3);
  EXPECT_EQ(next.getSize(fd, true, 5000), kBytes);
  std::vector<uint8_t> chunk;
  for (int64_t off = 0; off < kBytes; off += static_cast<int64_t>(chunk.size())) {
    ASSERT_EQ(next.read(fd, off, 1 << 20, &chunk, false, 5000), 0);
    ASSERT_FALSE(chunk.empty());
    for (size_t i = 0; i < chunk.size(); ++i) {
      ASSERT_EQ(chunk[i], pattern(off + static_cast<int64_t>(i))) << off + i;
    }
  }
  next.disconnect();
  unmountAndCheck();
  EXPECT_TRUE(startsWithPattern(cardFile("/REC/killed.bin"), kBytes));
}

// ioctl on an open file of the mount: 0 or -errno.
int control(int fd, unsigned int command, void* record) {
  return ioctl(fd, command, record) < 0 ? -errno : 0;
}

TEST_F(Channel, ControlCommandsThroughTheMount) {
  const std::string a = path("a.bin");
  {
    std::ofstream out(a, std::ios::binary);
    std::string data(12345, 'a');
    out << data;
  }
  int fd = open(a.c_str(), O_RDWR);
  ASSERT_GE(fd, 0);

  // The cache: sizes below 1 KiB are refused and leave it alone; 0 switches it off.
  struct Row {
    int32_t size;
    int result;
  } rows[] = {{512, -EINVAL}, {1024, 0},       {1 << 20, 0}, {0, 0},
              {-1, -EINVAL},  {1023, -EINVAL}, {4096, 0}};
  for (const auto& r : rows) {
    int32_t size = r.size;
    EXPECT_EQ(control(fd, velt::VELT_IOC_SET_CACHE_SIZE, &size), r.result) << r.size;
    // Data stays right whatever the cache.
    char buf[16] = {};
    ASSERT_EQ(pwrite(fd, "0123456789", 10, 100), 10);
    ASSERT_EQ(pread(fd, buf, 10, 100), 10);
    EXPECT_STREQ(buf, "0123456789");
  }
  EXPECT_EQ(count(daemon_.out(), "cache_size must be >= 1K"), 3);

  uint32_t mode = 2;
  EXPECT_EQ(control(fd, velt::VELT_IOC_SET_CACHE_MODE, &mode), 0);
  uint32_t unknown_record = 0;
  EXPECT_EQ(control(fd, _IOR('E', 9, uint32_t), &unknown_record), -EINVAL);

  // Sizes by handle: find this file's handle by its size, then see it go with the file.
  velt::VELTFileSizeRecord record = {};
  uint32_t handle = 0;
  for (uint32_t h = 3; h < 200 && handle == 0; ++h) {
    record.handle = h;
    if (control(fd, velt::VELT_IOC_GET_FILE_SIZE, &record) == 0 && record.size == 12345) {
      handle = h;
    }
  }
  ASSERT_NE(handle, 0u);
  int other = open(a.c_str(), O_RDONLY);
  ASSERT_GE(other, 0);
  close(fd);
  record.handle = handle;
  int result = 0;
  for (int i = 0; i < 200; ++i) {  // the release reaches the daemon after close returns
    record.size = 77;
    result = control(other, velt::VELT_IOC_GET_FILE_SIZE, &record);
    if (result != 0) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_EQ(result, -ENOENT);  // (the record is not copied back with an error)

  // Queue lengths: a channel write keeps growing while it is appended to.
  DirectClient client;
  ASSERT_EQ(client.connect(5000), 0);
  const int n = client.create(path("q1.bin"), 0, 5000);
  const int e = client.create(path("q2.bin"), 0, 5000);
  ASSERT_GE(n, 3);
  ASSERT_GE(e, 3);
  std::vector<uint8_t> data(1000, 1);
  int seen_normal = 0, seen_event = 0;
  for (int i = 0; i < 50; ++i) {
    ASSERT_EQ(client.write(n, i * 1000, data.data(), 1000), 0);
    ASSERT_EQ(client.write(e, i * 1000, data.data(), 1000, 0, 0, true), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    velt::VELTQueueLengthsRecord q = {};
    ASSERT_EQ(control(other, velt::VELT_IOC_GET_QUEUE_LENGTHS, &q), 0);
    seen_normal += q.normal == 1;
    seen_event += q.event == 1;
    EXPECT_LE(q.normal, 1u) << "appends merge into one request";
  }
  EXPECT_GT(seen_normal, 0);
  EXPECT_GT(seen_event, 0);
  EXPECT_EQ(client.closeAndWait(n, 0, 5000), 0);
  EXPECT_EQ(client.closeAndWait(e, velt::kDirectFlagEvent, 5000), 0);
  velt::VELTQueueLengthsRecord q = {};
  ASSERT_EQ(control(other, velt::VELT_IOC_GET_QUEUE_LENGTHS, &q), 0);
  EXPECT_EQ(q.normal, 0u);
  EXPECT_EQ(q.event, 0u);
  client.disconnect();

  // The same commands through veltctl.
  const std::string ctl = shellQuote(std::string(VELT_BINARY_DIR) + "/veltctl") + " ";
  ShellResult r = runShell(ctl + "queues " + shellQuote(a));
  EXPECT_EQ(r.out, "normal 0\nevent 0\n") << r.err;
  r = runShell(ctl + "cache-size " + shellQuote(a) + " 512");
  EXPECT_NE(r.status, 0);
  r = runShell(ctl + "cache-size " + shellQuote(a) + " 2K");
  EXPECT_EQ(r.status, 0) << r.err;
  r = runShell(ctl + "cache-mode " + shellQuote(a) + " 1");
  EXPECT_EQ(r.status, 0) << r.err;
  r = runShell(ctl + "file-size " + shellQuote(a) + " 100000");
  EXPECT_NE(r.status, 0);
  EXPECT_NE(r.err.find("No such file"), std::string::npos) << r.err;
  close(other);
  unmountAndCheck();
}

}  // namespace
}  // namespace velt::test
