// The direct channel and the ioctl commands of a mounted daemon, where only a real mount shows
// them: a client process killed mid-stream, and the veltctl tool with its control commands
// through the kernel. fsck.fat and mtools judge the card.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "e2e_card.h"
#include "fs/velt_pipe.h"
#include "velt_client.h"

namespace velt::test {
namespace {

using velt::client::DirectClient;

TEST(Channel, KilledClientVeltctlAndControlCommandsOnAMountedCard) {
  MountedCard card;
  ASSERT_TRUE(card.start(CardKind::kVelt)) << card.error();
  CardImage::RootScope root(card.card());  // clients find its pipes
  auto q = [&](const char* rel) { return shellQuote(card.path(rel)); };
  const std::string ctl = shellQuote(std::string(VELT_BINARY_DIR) + "/veltctl") + " -t 20000 ";

  // A client process sends a file (each write returned: the bytes are in the pipe or taken),
  // leaves a read waiting for data that never comes, and is killed with nothing closed.
  constexpr int64_t kBytes = (4 << 20) - 12345;  // within one of REC's 4 MiB files
  const std::string sent = patternBytes(kBytes, 7);
  const std::string killed = card.path("REC/killed.bin");
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    DirectClient client;
    const int fd = client.connect(5000) == 0 ? client.create(killed, 0, 5000) : -1;
    bool ok = fd >= 3 && client.sendRead(fd, kBytes, 4096) == 0;
    for (int64_t off = 0; ok && off < kBytes; off += 65536) {
      const auto n = static_cast<uint32_t>(std::min<int64_t>(65536, kBytes - off));
      ok = client.write(fd, off, sent.data() + off, n, 0, off == 0 ? kDirectFlagSecure : 0u) == 0;
    }
    if (ok) raise(SIGKILL);
    _exit(1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "the client failed";
  auto closed = [&] { return card.daemon().out().find("killed.bin\" \n") != std::string::npos; };
  for (int i = 0; i < 500 && !closed(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  ASSERT_TRUE(closed()) << "the teardown closes the file\n" << card.daemon().out();
  DirectClient next;  // the next client is served (the bytes are judged on the card below)
  ASSERT_EQ(next.connect(5000), 0);
  EXPECT_EQ(next.getSize(next.open(killed, 0, 5000), true, 5000), kBytes);
  next.disconnect();

  // data4 (data four times) is more than the memory veltctl lends the request pipe, which it
  // therefore reuses; data also comes through a named pipe (short reads).
  const std::string dir = card.card().dir(), data = shellQuote(dir + "/data.bin"),
                    data4 = shellQuote(dir + "/data4.bin"), fifo = shellQuote(dir + "/data.fifo"),
                    out = shellQuote(dir + "/out.bin");
  ASSERT_EQ(runShell("head -c 3000000 /dev/urandom > " + data + " && for i in 1 2 3 4; do cat " +
                     data + "; done > " + data4 + " && mkfifo " + fifo + " && (cat " + data +
                     " > " + fifo + " 2>/dev/null </dev/null &)").status, 0);
  // veltctl writes, sizes and reads back, into a file (the payloads spliced) and into a pipe (a
  // reserved file's size is its preallocated one, its real size what was written); its control
  // commands (ioctl through the mount), a splice, close with unlink, and refusals with their
  // reasons, the last while another client holds the channel. Arguments, success, output:
  DirectClient holder;
  const std::string cmp = " | cmp - " + data + " 0 1000";
  const std::tuple<std::string, bool, const char*> rows[] = {
      {"write -b 4000 " + q("plain.bin") + " < " + data4, true, "12000000 bytes written"},
      {"write -b 100000 " + q("REC/rec.bin") + " < " + fifo, true, "3000000 bytes written"},
      {"size " + q("plain.bin"), true, "size 12000000\nreal size 12000000\n"},
      {"size " + q("REC/rec.bin"), true, "size 4194304\nreal size 3000000\n"},
      {"read -o 1000 " + q("plain.bin") + " > " + out + " && cmp " + out + " " + data4 + " 0 1000",
       true, ""},
      {"read -o 1000 -s 2999000 " + q("REC/rec.bin") + cmp, true, ""},
      {"queues " + q("plain.bin"), true, "normal 0\nevent 0\n"},
      {"cache-size " + q("plain.bin") + " 1023", false, ""},
      {"cache-size " + q("plain.bin") + " 1K", true, ""},
      {"cache-mode " + q("plain.bin") + " 1", true, ""},
      {"file-size " + q("plain.bin") + " 100000", false, "No such file"},
      {"splice -o 1000 -n 5000 " + q("plain.bin") + " " + q("part.bin"), true, ""},
      {"size " + q("part.bin"), true, "real size 5000\n"},
      {"rm " + q("plain.bin"), true, ""},
      {"rm " + q("REC/rec.bin"), true, ""},
      {"rm " + q("part.bin"), true, ""},
      {"rm " + q("plain.bin"), false, "No such file"},
      {"size /elsewhere/x", false, "Invalid argument"},
      {"size " + q("REC"), false, "another client is using the channel"},
  };
  for (const auto& [args, ok, shown] : rows) {
    ASSERT_TRUE(shown[0] != 'a' || holder.connect(5000) == 0);  // the last row
    const ShellResult r = runShell(ctl + args);
    EXPECT_EQ(r.status == 0, ok) << args << ": " << r.err;
    EXPECT_NE((r.out + r.err).find(shown), std::string::npos) << args << ": " << r.err;
  }
  card.unmountAndCheck();
  EXPECT_TRUE(card.mtools("mtype ::/REC/killed.bin").out.compare(0, kBytes, sent) == 0)
      << "the killed client's bytes";
  const std::string listing = card.mtools("mdir -/ -b ::/").out;
  for (const char* name : {"PLAIN.BIN", "PART.BIN", "REC.BIN"}) {
    EXPECT_EQ(listing.find(name), std::string::npos) << listing;
  }
}

}  // namespace
}  // namespace velt::test
