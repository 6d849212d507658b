// A test card served by velt.fuse for the end-to-end tests: make the card, mount it, and after
// the test unmount it and have the ordinary FAT tools judge what the daemon left on it.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "daemon_runner.h"

namespace velt::test {

inline const char* cardKindName(CardKind kind) {
  return kind == CardKind::kPlain ? "plain" : "velt";
}

inline std::string cardKindParamName(const ::testing::TestParamInfo<CardKind>& info) {
  return cardKindName(info.param);
}

class MountedCard {
 public:
  // Makes the card and mounts it; false (with the reason in error()) when either fails.
  bool start(CardKind kind, const std::vector<std::string>& args = {}) {
    if (!card_.create(kind)) {
      error_ = "card: " + card_.error();
      return false;
    }
    return mount(args);
  }

  bool mount(const std::vector<std::string>& args = {}) {
    if (!daemon_.start(card_.veltRoot(), card_.mountPoint(), args)) {
      daemon_.stop();
      error_ = "velt.fuse did not mount\nstdout:\n" + daemon_.out() + "\nstderr:\n" + daemon_.err();
      return false;
    }
    return true;
  }

  // Unmounts; the daemon must end with status 0.
  void unmount() {
    int status = daemon_.stop();
    EXPECT_EQ(status, 0) << "stdout:\n" << daemon_.out() << "\nstderr:\n" << daemon_.err();
  }

  // Unmounts and checks the card with fsck.fat -n. On a VELT card the reserved files are kept
  // as deleted records whose clusters stay taken, so there the check is that the file system
  // itself is sound (no structural errors); unreferenced clusters are expected.
  void unmountAndCheck() {
    unmount();
    std::string report;
    bool clean = card_.fsckClean(&report);
    if (card_.kind() == CardKind::kPlain) {
      EXPECT_TRUE(clean) << report;
    } else {
      EXPECT_TRUE(clean || onlyReservedClusters(report)) << report;
    }
  }

  // An absolute path inside the mount.
  std::string path(const std::string& relative = "") const {
    return relative.empty() ? card_.mountPoint() : card_.mountPoint() + "/" + relative;
  }

  // An mtools command ("mdir -/ ::/", "mtype ::/a") on the card's partition.
  ShellResult mtools(const std::string& command) const {
    size_t space = command.find(' ');
    std::string tool = command.substr(0, space);
    std::string rest = space == std::string::npos ? "" : command.substr(space);
    return runShell("LC_ALL=C.UTF-8 MTOOLS_SKIP_CHECK=1 " + tool + " -i " +
                    shellQuote(card_.mtoolsImage()) + rest);
  }

  TestCard& card() { return card_; }
  DaemonRunner& daemon() { return daemon_; }
  const std::string& error() const { return error_; }

 private:
  // fsck.fat's findings on a VELT card: nothing but clusters that no visible entry reaches.
  static bool onlyReservedClusters(const std::string& report) {
    const std::string& rest = report;
    // Each non-empty line must be one of fsck.fat's banner, summary or reclaim lines.
    size_t start = 0;
    while (start < rest.size()) {
      size_t end = rest.find('\n', start);
      if (end == std::string::npos) end = rest.size();
      std::string line = rest.substr(start, end - start);
      start = end + 1;
      if (line.empty()) continue;
      if (line.rfind("fsck.fat ", 0) == 0) continue;
      if (line.find("Reclaimed ") != std::string::npos &&
          line.find("unused cluster") != std::string::npos) {
        continue;
      }
      if (line.find("Leaving file system unchanged") != std::string::npos) continue;
      if (line.find(" files, ") != std::string::npos &&
          line.find(" clusters") != std::string::npos) {
        continue;
      }
      return false;
    }
    return true;
  }

  TestCard card_;
  DaemonRunner daemon_;
  std::string error_;
};

}  // namespace velt::test
