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

// Whether `data` (which starts at `offset`) follows the pattern.
template <typename Bytes>
bool onPattern(const Bytes& data, int64_t offset = 0) {
  for (size_t i = 0; i < data.size(); ++i) {
    if (static_cast<uint8_t>(data[i]) != pattern(offset + static_cast<int64_t>(i))) return false;
  }
  return true;
}

// Polls `done` every 20 ms for up to 10 s.
template <typename Done>
bool waitUntil(Done done) {
  for (int i = 0; i < 500; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(20))) {
    if (done()) return true;
  }
  return false;
}

TEST(Channel, KilledClientVeltctlAndControlCommandsOnAMountedCard) {
  MountedCard card;
  ASSERT_TRUE(card.start(CardKind::kVelt)) << card.error();
  CardImage::RootScope root(card.card());  // clients find its pipes
  auto q = [&](const char* rel) { return shellQuote(card.path(rel)); };
  const std::string ctl = shellQuote(std::string(VELT_BINARY_DIR) + "/veltctl") + " -t 20000 ";

  // A client process sends a file (each write returned: the bytes are in the pipe or taken),
  // leaves a read waiting for data that never comes, and is killed with nothing closed.
  constexpr int64_t kBytes = (4 << 20) - 12345;  // within one of REC's 4 MiB files
  const std::string killed = card.path("REC/killed.bin");
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    DirectClient client;
    const int fd = client.connect(5000) == 0 ? client.create(killed, 0, 5000) : -1;
    bool ok = fd >= 3 && client.sendRead(fd, kBytes, 4096) == 0;
    std::vector<uint8_t> data(64 * 1024);
    for (int64_t off = 0; ok && off < kBytes; off += static_cast<int64_t>(data.size())) {
      const size_t n = static_cast<size_t>(std::min<int64_t>(data.size(), kBytes - off));
      for (size_t i = 0; i < n; ++i) data[i] = pattern(off + static_cast<int64_t>(i));
      ok = client.write(fd, off, data.data(), static_cast<uint32_t>(n), 0,
                        off == 0 ? kDirectFlagSecure : 0u) == 0;
    }
    const char status = ok ? 'y' : 'n';
    if (write(ready[1], &status, 1) != 1) _exit(2);
    for (;;) pause();
  }
  char status = 0;
  ASSERT_EQ(read(ready[0], &status, 1), 1);
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  ASSERT_EQ(status, 'y');
  ASSERT_TRUE(waitUntil([&] {
    return card.daemon().out().find("killed.bin\" \n") != std::string::npos;
  })) << "the teardown closes the file\n"
      << card.daemon().out();
  DirectClient next;  // the next client is served and reads it all back
  ASSERT_EQ(next.connect(5000), 0);
  const int fd = next.open(killed, 0, 5000);
  EXPECT_EQ(next.getSize(fd, true, 5000), kBytes);
  std::vector<uint8_t> chunk;
  for (int64_t off = 0; off < kBytes; off += static_cast<int64_t>(chunk.size())) {
    ASSERT_EQ(next.read(fd, off, 1 << 20, &chunk, false, 5000), 0);
    ASSERT_TRUE(!chunk.empty() && onPattern(chunk, off)) << off;
  }
  next.disconnect();

  // veltctl writes, sizes and reads back (whole and in part, and through the mount); a reserved
  // file's size is its preallocated one, its real size what was written.
  const std::string data = shellQuote(card.card().dir() + "/data.bin");
  ASSERT_EQ(runShell("head -c 3000000 /dev/urandom > " + data).status, 0);
  for (const char* rel : {"plain.bin", "REC/rec.bin"}) {
    const std::string p = q(rel);
    const std::string size = rel[0] == 'R' ? "4194304" : "3000000";
    ShellResult r = runShell(ctl + "write -b 100000 " + p + " < " + data);
    EXPECT_NE(r.err.find("3000000 bytes written"), std::string::npos) << r.err;
    EXPECT_EQ(runShell(ctl + "size " + p).out, "size " + size + "\nreal size 3000000\n");
    for (const std::string& check :
         {ctl + "read " + p + " | cmp - " + data,
          ctl + "read -o 2999000 -s 1000 " + p + " | cmp - " + data + " 0 2999000",
          "cmp -n 3000000 " + p + " " + data}) {
      EXPECT_EQ(runShell(check).status, 0) << check;
    }
  }
  EXPECT_EQ(runShell(ctl + "splice -o 1000 -n 5000 " + q("plain.bin") + " " + q("part.bin")).status,
            0);
  EXPECT_EQ(runShell("bash -c " + shellQuote("cmp " + q("part.bin") + " <(tail -c +1001 " + data +
                                             " | head -c 5000)"))
                .status,
            0);

  // ioctl on an open file of the mount: records cross the kernel both ways; data stays right
  // whatever the cache; a file's size by its handle, gone once the file is released.
  auto control = [](int fd, unsigned int command, void* record) {
    return ioctl(fd, command, record) < 0 ? -errno : 0;
  };
  const int part = open(card.path("part.bin").c_str(), O_RDWR);
  ASSERT_GE(part, 0);
  for (int32_t size : {512, 4096, 0}) {
    int32_t asked = size;
    EXPECT_EQ(control(part, VELT_IOC_SET_CACHE_SIZE, &asked), size == 512 ? -EINVAL : 0);
    char buf[16] = {};
    ASSERT_EQ(pwrite(part, "0123456789", 10, 100 + size), 10);
    ASSERT_EQ(pread(part, buf, 10, 100 + size), 10);
    EXPECT_STREQ(buf, "0123456789");
  }
  uint32_t mode = 2;
  EXPECT_EQ(control(part, VELT_IOC_SET_CACHE_MODE, &mode), 0);
  EXPECT_EQ(control(part, _IOR('E', 9, uint32_t), &mode), -EINVAL);
  VELTQueueLengthsRecord queues = {99, 99};
  EXPECT_EQ(control(part, VELT_IOC_GET_QUEUE_LENGTHS, &queues), 0);
  EXPECT_EQ(queues.normal + queues.event, 0u);
  VELTFileSizeRecord record = {};
  uint32_t handle = 0;
  for (record.handle = 3; record.handle < 200 && handle == 0; ++record.handle) {
    if (control(part, VELT_IOC_GET_FILE_SIZE, &record) == 0 && record.size == 5000)
      handle = record.handle;
  }
  ASSERT_NE(handle, 0u);
  const int other = open(card.path("part.bin").c_str(), O_RDONLY);
  close(part);
  EXPECT_TRUE(waitUntil([&] {  // the release reaches the daemon after close
    record.handle = handle;
    return control(other, VELT_IOC_GET_FILE_SIZE, &record) == -ENOENT;
  }));
  close(other);

  // veltctl's control commands, close with unlink (gone from the mount at once) and refusals,
  // each with its reason; the last while another client holds the channel.
  DirectClient holder;
  const struct {
    std::string args;
    bool ok;
    const char* shown;  // in the output (stdout and stderr)
  } rows[] = {
      {"queues " + q("part.bin"), true, "normal 0\nevent 0\n"},
      {"cache-size " + q("part.bin") + " 1023", false, ""},
      {"cache-size " + q("part.bin") + " 1K", true, ""},
      {"cache-mode " + q("part.bin") + " 1", true, ""},
      {"file-size " + q("part.bin") + " 100000", false, "No such file"},
      {"rm " + q("plain.bin"), true, ""},
      {"rm " + q("REC/rec.bin"), true, ""},
      {"rm " + q("part.bin"), true, ""},
      {"rm " + q("plain.bin"), false, "No such file"},
      {"size /elsewhere/x", false, "Invalid argument"},
      {"size " + q("REC"), false, "another client is using the channel"},
  };
  for (const auto& row : rows) {
    if (row.shown[0] == 'a') {
      ASSERT_EQ(holder.connect(5000), 0);
    }
    ShellResult r = runShell(ctl + row.args);
    EXPECT_EQ(r.status == 0, row.ok) << row.args << ": " << r.err;
    EXPECT_NE((r.out + r.err).find(row.shown), std::string::npos) << row.args << ": " << r.err;
  }
  holder.disconnect();
  struct stat st;
  for (const char* rel : {"plain.bin", "REC/rec.bin", "part.bin"}) {
    EXPECT_NE(stat(card.path(rel).c_str(), &st), 0) << rel;
  }
  card.unmountAndCheck();
  const std::string on_card = card.mtools("mtype ::/REC/killed.bin").out;
  EXPECT_TRUE(on_card.size() >= kBytes && onPattern(on_card.substr(0, kBytes)));
  const std::string listing = card.mtools("mdir -/ -b ::/").out;
  for (const char* name : {"PLAIN.BIN", "PART.BIN", "REC.BIN"}) {
    EXPECT_EQ(listing.find(name), std::string::npos) << listing;
  }
}

}  // namespace
}  // namespace velt::test
