// A test card served by velt.fuse for the end-to-end tests: make the card, mount it, and after
// the test unmount it and have the ordinary FAT tools judge what the daemon left on it.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "card_image.h"
#include "daemon_runner.h"
#include "velt_fsck.h"

namespace velt::test {

inline std::string cardKindParamName(const ::testing::TestParamInfo<CardKind>& info) {
  return info.param == CardKind::kPlain ? "plain" : "velt";
}

class MountedCard {
 public:
  static constexpr int kPlainCardMiB = 256;
  static constexpr int kPlainSectorsPerCluster = 4;  // 2 KiB clusters
  // mkfs.velt takes 16 KiB clusters up to 8 GiB; FAT32 needs at least 65525 of them.
  static constexpr int kVeltCardMiB = 1200;
  static constexpr const char* kReservedFolder = "REC";

  // Makes the card and mounts it; false (with the reason in error()) when either fails. A plain
  // card is formatted by mkfs.fat, a VELT card by mkfs.velt with one reserved folder REC of 5%
  // of the card in 4 MiB files.
  bool start(CardKind kind, const std::vector<std::string>& args = {}) {
    kind_ = kind;
    CardSpec spec;
    spec.size_mb = kind == CardKind::kPlain ? kPlainCardMiB : kVeltCardMiB;
    spec.sectors_per_cluster = kPlainSectorsPerCluster;
    spec.format = kind == CardKind::kPlain;
    card_ = std::make_unique<CardImage>(spec);
    if (!card_->ok()) {
      error_ = "card: " + card_->error();
      return false;
    }
    if (kind == CardKind::kVelt) {
      ShellResult r = runShell("VELT_ROOT=" + shellQuote(card_->root()) + " " +
                               shellQuote(std::string(VELT_BINARY_DIR) + "/mkfs.velt") + " " +
                               card_->devicePath() + " " + kReservedFolder + ":5:4");
      if (r.status != 0) {
        error_ = "mkfs.velt: " + r.out + r.err;
        return false;
      }
    }
    std::filesystem::create_directories(mountPoint());
    return mount(args);
  }

  bool mount(const std::vector<std::string>& args = {}) {
    if (!daemon_.start(card_->root(), mountPoint(), args)) {
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

  // Unmounts and has fsck.fat -n judge the card: a plain card must be clean; on a VELT card
  // fsck.fat may report nothing but what the reserved files cause.
  void unmountAndCheck() {
    unmount();
    if (kind_ == CardKind::kPlain) {
      ShellResult r = card_->fsck("-n");
      EXPECT_EQ(r.status, 0) << r.out << r.err;
    } else {
      EXPECT_TRUE(fsckShowsOnlyReservedFiles(*card_));
    }
  }

  std::string mountPoint() const { return card_->dir() + "/mnt"; }
  // An absolute path inside the mount.
  std::string path(const std::string& relative = "") const {
    return relative.empty() ? mountPoint() : mountPoint() + "/" + relative;
  }

  // An mtools command ("mdir -/ ::/", "mtype ::/a") on the card's partition.
  ShellResult mtools(const std::string& command) const {
    ScopedEnv utf8("LC_ALL", "C.UTF-8");
    return card_->mtools(command);
  }

  CardImage& card() { return *card_; }
  DaemonRunner& daemon() { return daemon_; }
  const std::string& error() const { return error_; }

 private:
  CardKind kind_ = CardKind::kPlain;
  std::unique_ptr<CardImage> card_;
  DaemonRunner daemon_;
  std::string error_;
};

}  // namespace velt::test
