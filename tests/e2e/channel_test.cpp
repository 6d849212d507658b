// The direct channel and the ioctl commands of a mounted daemon, where only a real mount shows
// them: a client process killed mid-stream, the veltctl tool, and the control commands through
// the kernel. fsck.fat and mtools judge the card.
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
  ShellResult veltctl(const std::string& args) {
    return runShell(shellQuote(std::string(VELT_BINARY_DIR) + "/veltctl") + " -t 20000 " + args);
  }
  std::string quoted(const char* rel) { return shellQuote(card_.path(rel)); }

  MountedCard card_;
  std::unique_ptr<CardImage::RootScope> root_;
};

TEST_F(Channel, AKilledClientLosesNothingItSentAndTheNextClientIsServed) {
  constexpr int64_t kBytes = (4 << 20) - 12345;  // within one of REC's 4 MiB files
  const std::string file = card_.path("REC/killed.bin");
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    // The client: create, leave a read waiting for data that never comes, send everything
    // (each write returned: the bytes are in the pipe or taken by the daemon), tell the
    // parent, then wait to be killed with nothing closed.
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
    const char status = ok ? 'y' : 'n';
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
  bool closed = false;  // the teardown closes the file
  for (int i = 0; i < 500 && !closed; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    closed = card_.daemon().out().find("killed.bin\" \n") != std::string::npos;
  }
  ASSERT_TRUE(closed) << card_.daemon().out();

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

TEST_F(Channel, VeltctlAndControlCommandsThroughTheMount) {
  const std::string data = shellQuote(card_.card().dir() + "/data.bin");
  ASSERT_EQ(runShell("head -c 3000000 /dev/urandom > " + data).status, 0);
  // Written, sized and read back through the channel (whole and in part) and through the mount;
  // a reserved file's size is its preallocated one, its real size what was written.
  for (const char* rel : {"plain.bin", "REC/rec.bin"}) {
    SCOPED_TRACE(rel);
    const std::string p = quoted(rel);
    ShellResult r = veltctl("write -b 100000 " + p + " < " + data);
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_NE(r.err.find("3000000 bytes written"), std::string::npos) << r.err;
    r = veltctl("size " + p);
    EXPECT_EQ(r.out, std::string("size ") + (rel[0] == 'R' ? "4194304" : "3000000") +
                         "\nreal size 3000000\n") << r.err;
    for (const std::string& check : {"read " + p + " | cmp - " + data,
                                     "read -o 2999000 -s 1000 " + p + " | cmp - " + data +
                                         " 0 2999000"}) {
      EXPECT_EQ(veltctl(check).status, 0) << check;
    }
    EXPECT_EQ(runShell("cmp -n 3000000 " + p + " " + data).status, 0);
  }
  ShellResult r = veltctl("splice -o 1000 -n 5000 " + quoted("plain.bin") + " " + quoted("part.bin"));
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  r = runShell("bash -c " + shellQuote("cmp " + quoted("part.bin") + " <(tail -c +1001 " + data +
                                       " | head -c 5000)"));
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  // Close with unlink: gone from the mount at once, and from the card.
  for (const char* rel : {"plain.bin", "REC/rec.bin"}) {
    EXPECT_EQ(veltctl("rm " + quoted(rel)).status, 0) << rel;
    struct stat st;
    EXPECT_NE(stat(card_.path(rel).c_str(), &st), 0) << rel;
  }

  // ioctl on an open file of the mount: records cross the kernel both ways; data stays right
  // whatever the cache.
  auto control = [](int fd, unsigned int command, void* record) {
    return ioctl(fd, command, record) < 0 ? -errno : 0;
  };
  const std::string a = card_.path("part.bin");
  int fd = open(a.c_str(), O_RDWR);
  ASSERT_GE(fd, 0);
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
    if (control(fd, velt::VELT_IOC_GET_FILE_SIZE, &record) == 0 && record.size == 5000) handle = h;
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

  // veltctl's commands and refusals, each with its reason; the last while another client holds
  // the channel.
  DirectClient holder;
  const struct {
    std::string args;
    bool ok;
    const char* shown;  // in the output (stdout and stderr)
  } rows[] = {
      {"queues " + quoted("part.bin"), true, "normal 0\nevent 0\n"},
      {"cache-size " + quoted("part.bin") + " 512", false, ""},
      {"cache-size " + quoted("part.bin") + " 2K", true, ""},
      {"cache-mode " + quoted("part.bin") + " 1", true, ""},
      {"file-size " + quoted("part.bin") + " 100000", false, "No such file"},
      {"rm " + quoted("plain.bin"), false, "No such file"},
      {"size /elsewhere/x", false, "Invalid argument"},
      {"rm " + quoted("part.bin"), true, ""},
      {"size " + quoted("REC"), false, "another client is using the channel"},
  };
  for (const auto& row : rows) {
    if (row.shown[0] == 'a') {
      ASSERT_EQ(holder.connect(5000), 0);
    }
    r = veltctl(row.args);
    EXPECT_EQ(r.status == 0, row.ok) << row.args << ": " << r.err;
    EXPECT_NE((r.out + r.err).find(row.shown), std::string::npos) << row.args << ": " << r.err;
  }
  holder.disconnect();
  card_.unmountAndCheck();
  r = card_.mtools("mdir -/ -b ::/");
  for (const char* name : {"PLAIN.BIN", "PART.BIN", "REC.BIN"}) {
    EXPECT_EQ(r.out.find(name), std::string::npos) << r.out;
  }
}

}  // namespace
}  // namespace velt::test
