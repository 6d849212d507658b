// The direct channel and the ioctl commands of a mounted daemon, where only a real mount shows
// them: a client process killed mid-stream, the veltctl tool, and the control commands through
// the kernel. Framing, hostile clients, bounds and queueing are the unit pipe tests' part; the
// reserved model test drives recordings through the channel. fsck.fat and mtools judge the card.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "e2e_card.h"
#include "fs/velt_fuse_ioctl.h"
#include "fs/velt_pipe.h"
#include "velt_client.h"

namespace velt::test {
namespace {

using velt::client::DirectClient;

constexpr int64_t kReservedFileBytes = 4ll << 20;  // MountedCard's REC holds 4 MiB files

uint8_t pattern(int64_t i) {
  return static_cast<uint8_t>((static_cast<uint64_t>(i) * 2654435761u) >> 13);
}

// The offset of the first byte of `data` (which starts at `offset`) off the pattern; -1: none.
template <typename Bytes>
int64_t offPattern(const Bytes& data, int64_t offset = 0) {
  for (size_t i = 0; i < data.size(); ++i) {
    if (static_cast<uint8_t>(data[i]) != pattern(offset + static_cast<int64_t>(i))) {
      return offset + static_cast<int64_t>(i);
    }
  }
  return -1;
}

class Channel : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(card_.start(CardKind::kVelt)) << card_.error();
    root_ = std::make_unique<CardImage::RootScope>(card_.card());  // clients find its pipes
  }

  // Waits until the daemon has written `what`.
  bool waitForOutput(const std::string& what) {
    for (int i = 0; i < 500; ++i) {
      if (card_.daemon().out().find(what) != std::string::npos) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
  }

  MountedCard card_;
  std::unique_ptr<CardImage::RootScope> root_;
};

TEST_F(Channel, AKilledClientLosesNothingItSentAndTheNextClientIsServed) {
  constexpr int64_t kBytes = kReservedFileBytes - 12345;
  const std::string file = card_.path("REC/killed.bin");
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    // The client: create, leave a read waiting for data that never comes, send everything
    // (each write returned: the bytes are in the pipe or taken by the daemon), tell the
    // parent, then wait to be killed with nothing closed.
    close(ready[0]);
    DirectClient client;
    int fd = client.connect(5000) == 0 ? client.create(file, 0, 5000) : -1;
    bool ok = fd >= 3 && client.sendRead(fd, kBytes, 4096) == 0;
    std::vector<uint8_t> data(64 * 1024);
    for (int64_t off = 0; ok && off < kBytes; off += static_cast<int64_t>(data.size())) {
      const size_t n = static_cast<size_t>(std::min<int64_t>(data.size(), kBytes - off));
      for (size_t i = 0; i < n; ++i) data[i] = pattern(off + static_cast<int64_t>(i));
      ok = client.write(fd, off, data.data(), static_cast<uint32_t>(n), 0,
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
  waitpid(child, nullptr, 0);
  ASSERT_EQ(status, 'y');
  ASSERT_TRUE(waitForOutput("killed.bin\" \n")) << "the teardown closes the file\n"
                                                << card_.daemon().out();

  DirectClient next;
  ASSERT_EQ(next.connect(5000), 0);
  const int fd = next.open(file, 0, 5000);
  ASSERT_GE(fd, 3);
  EXPECT_EQ(next.getSize(fd, true, 5000), kBytes);
  std::vector<uint8_t> chunk;
  for (int64_t off = 0; off < kBytes; off += static_cast<int64_t>(chunk.size())) {
    ASSERT_EQ(next.read(fd, off, 1 << 20, &chunk, false, 5000), 0);
    ASSERT_FALSE(chunk.empty());
    ASSERT_EQ(offPattern(chunk, off), -1);
  }
  next.disconnect();
  card_.unmountAndCheck();
  const std::string on_card = card_.mtools("mtype ::/REC/killed.bin").out;
  ASSERT_GE(static_cast<int64_t>(on_card.size()), kBytes);
  EXPECT_EQ(offPattern(on_card.substr(0, kBytes)), -1);
}

TEST_F(Channel, VeltctlDrivesTheChannelAndCloseWithUnlinkRemovesFiles) {
  const std::string ctl = shellQuote(std::string(VELT_BINARY_DIR) + "/veltctl") + " -t 20000 ";
  const std::string data = shellQuote(card_.card().dir() + "/data.bin");
  auto quoted = [this](const char* rel) { return shellQuote(card_.path(rel)); };
  ASSERT_EQ(runShell("head -c 3000000 /dev/urandom > " + data).status, 0);
  for (const char* rel : {"plain.bin", "REC/rec.bin"}) {
    SCOPED_TRACE(rel);
    const bool reserved = rel[0] == 'R';
    const std::string p = quoted(rel);
    ShellResult r = runShell(ctl + "write -b 100000 " + p + " < " + data);
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_NE(r.err.find("3000000 bytes written"), std::string::npos) << r.err;
    r = runShell(ctl + "size " + p);
    EXPECT_EQ(r.out, "size " + std::to_string(reserved ? kReservedFileBytes : 3000000) +
                         "\nreal size 3000000\n")
        << r.err;
    // Read whole and in part through the channel, and through the mount.
    for (const std::string& check :
         {ctl + "read " + p + " | cmp - " + data,
          ctl + "read -o 2999000 -s 1000 " + p + " | cmp - " + data + " 0 2999000",
          "cmp -n 3000000 " + p + " " + data}) {
      r = runShell(check);
      EXPECT_EQ(r.status, 0) << check << "\n" << r.out << r.err;
    }
  }
  ShellResult r = runShell(ctl + "splice -o 1000 -n 5000 " + quoted("plain.bin") + " " +
                           quoted("part.bin"));
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  r = runShell("bash -c " + shellQuote("cmp " + quoted("part.bin") + " <(tail -c +1001 " + data +
                                       " | head -c 5000)"));
  EXPECT_EQ(r.status, 0) << r.out << r.err;

  // Close with unlink: gone from the mount at once, and from the card.
  for (const char* rel : {"plain.bin", "REC/rec.bin", "part.bin"}) {
    r = runShell(ctl + "rm " + quoted(rel));
    EXPECT_EQ(r.status, 0) << rel << ": " << r.out << r.err;
    struct stat st;
    EXPECT_NE(stat(card_.path(rel).c_str(), &st), 0) << rel;
  }
  // Refusals, each with its reason.
  DirectClient holder;
  const struct {
    std::string command;
    const char* reason;
  } refusals[] = {
      {ctl + "rm " + quoted("plain.bin"), "No such file"},
      {ctl + "size /elsewhere/x", "Invalid argument"},
      {ctl + "size " + quoted("REC"), "another client is using the channel"},
  };
  for (const auto& refusal : refusals) {
    // One client at a time: the last refusal runs while another client holds the channel.
    if (refusal.reason[0] == 'a') {
      ASSERT_EQ(holder.connect(5000), 0);
    }
    r = runShell(refusal.command);
    EXPECT_NE(r.status, 0) << refusal.command;
    EXPECT_NE(r.err.find(refusal.reason), std::string::npos) << refusal.command << ": " << r.err;
  }
  holder.disconnect();

  card_.unmountAndCheck();
  r = card_.mtools("mdir -/ -b ::/");
  for (const char* name : {"PLAIN.BIN", "PART.BIN", "REC.BIN"}) {
    EXPECT_EQ(r.out.find(name), std::string::npos) << r.out;
  }
}

// ioctl on an open file of the mount: 0 or -errno.
int control(int fd, unsigned int command, void* record) {
  return ioctl(fd, command, record) < 0 ? -errno : 0;
}

TEST_F(Channel, ControlCommandsThroughTheMount) {
  const std::string a = card_.path("a.bin");
  ASSERT_EQ(runShell("head -c 12345 /dev/zero > " + shellQuote(a)).status, 0);
  int fd = open(a.c_str(), O_RDWR);
  ASSERT_GE(fd, 0);
  // Commands and their records cross the kernel both ways; data stays right whatever the cache.
  for (int32_t size : {512, 4096, 0}) {
    int32_t asked = size;
    EXPECT_EQ(control(fd, velt::VELT_IOC_SET_CACHE_SIZE, &asked), size == 512 ? -EINVAL : 0);
    char buf[16] = {};
    ASSERT_EQ(pwrite(fd, "0123456789", 10, 100 + size), 10);
    ASSERT_EQ(pread(fd, buf, 10, 100 + size), 10);
    EXPECT_STREQ(buf, "0123456789");
  }
  uint32_t mode = 2;
  EXPECT_EQ(control(fd, velt::VELT_IOC_SET_CACHE_MODE, &mode), 0);
  EXPECT_EQ(control(fd, _IOR('E', 9, uint32_t), &mode), -EINVAL);
  velt::VELTQueueLengthsRecord q = {99, 99};
  EXPECT_EQ(control(fd, velt::VELT_IOC_GET_QUEUE_LENGTHS, &q), 0);
  EXPECT_EQ(q.normal + q.event, 0u);
  // A file's size by its handle: find this file's, then see it go with the file.
  velt::VELTFileSizeRecord record = {};
  uint32_t handle = 0;
  for (uint32_t h = 3; h < 200 && handle == 0; ++h) {
    record.handle = h;
    if (control(fd, velt::VELT_IOC_GET_FILE_SIZE, &record) == 0 && record.size == 12345) handle = h;
  }
  ASSERT_NE(handle, 0u);
  int other = open(a.c_str(), O_RDONLY);
  ASSERT_GE(other, 0);
  close(fd);
  int result = 0;
  for (int i = 0; i < 200 && result == 0; ++i) {  // the release reaches the daemon after close
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    record.handle = handle;
    result = control(other, velt::VELT_IOC_GET_FILE_SIZE, &record);
  }
  EXPECT_EQ(result, -ENOENT);
  close(other);

  // The same commands through veltctl.
  const std::string ctl = shellQuote(std::string(VELT_BINARY_DIR) + "/veltctl") + " ";
  const struct {
    std::string args;
    bool ok;
    const char* shown;  // in the output (stdout and stderr)
  } rows[] = {
      {"queues " + shellQuote(a), true, "normal 0\nevent 0\n"},
      {"cache-size " + shellQuote(a) + " 512", false, ""},
      {"cache-size " + shellQuote(a) + " 2K", true, ""},
      {"cache-mode " + shellQuote(a) + " 1", true, ""},
      {"file-size " + shellQuote(a) + " 100000", false, "No such file"},
  };
  for (const auto& row : rows) {
    ShellResult r = runShell(ctl + row.args);
    EXPECT_EQ(r.status == 0, row.ok) << row.args << ": " << r.err;
    EXPECT_NE((r.out + r.err).find(row.shown), std::string::npos) << row.args << ": " << r.err;
  }
  card_.unmountAndCheck();
}

}  // namespace
}  // namespace velt::test
