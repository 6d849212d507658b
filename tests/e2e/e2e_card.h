// A test card served by velt.fuse: made, mounted, and after the test unmounted and judged by the
// ordinary FAT tools. A plain card is mkfs.fat's 256 MiB with 2 KiB clusters; a VELT card is
// mkfs.velt's 1200 MiB (16 KiB clusters, at least 65525 of them) with one reserved folder REC of
// 5% of the card in 4 MiB files.
#pragma once

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "card_image.h"
#include "velt_fsck.h"

namespace velt::test {

// A number from the environment (a seed, a count of steps), or the fallback.
inline unsigned envNumber(const char* name, unsigned fallback) {
  const char* text = getenv(name);
  return text != nullptr && *text != '\0' ? static_cast<unsigned>(strtoul(text, nullptr, 10))
                                          : fallback;
}

inline std::string q(const std::string& s) {
  return shellQuote(s);
}

inline std::string cardKindParamName(const ::testing::TestParamInfo<CardKind>& info) {
  return info.param == CardKind::kPlain ? "plain" : "velt";
}

// Lists a folder as `ls -l` does (each name's lstat right after it is read, from what the
// listing handed the kernel) and returns the names. Each entry must show exactly what a lookup
// through another spelling of its name, which the kernel has not seen, answers: inode, type and
// permissions, size, blocks, times. The disagreements are added to *wrong. (Reads through one
// spelling leave another's access time behind, so the caller lists before reading.)
inline std::vector<std::string> listLikeLs(const std::string& dir, std::string* wrong) {
  std::vector<std::string> names;
  std::vector<struct stat> listed;
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return *wrong += " cannot open " + dir, names;
  while (const struct dirent* e = readdir(d)) {
    struct stat st = {};
    if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) continue;
    if (lstat((dir + "/" + e->d_name).c_str(), &st) != 0 || st.st_ino != e->d_ino) {
      *wrong += std::string(" ") + e->d_name + " (inode)";
    }
    names.push_back(e->d_name);
    listed.push_back(st);
  }
  closedir(d);
  for (size_t i = 0; i < names.size(); ++i) {
    std::string other = names[i];
    for (char& ch : other) ch = static_cast<char>(islower(ch) ? toupper(ch) : tolower(ch));
    struct stat fresh = {}, &st = listed[i];
    if (other == names[i]) continue;
    if (lstat((dir + "/" + other).c_str(), &fresh) != 0 || fresh.st_ino != st.st_ino ||
        fresh.st_mode != st.st_mode || fresh.st_nlink != st.st_nlink ||
        fresh.st_size != st.st_size || fresh.st_blocks != st.st_blocks ||
        fresh.st_blksize != st.st_blksize || fresh.st_mtime != st.st_mtime ||
        fresh.st_ctime != st.st_ctime || fresh.st_atime != st.st_atime) {
      *wrong += " " + names[i];
    }
  }
  return names;
}

class MountedCard {
 public:
  // Makes the card and mounts it; false with the reason in error() when either fails.
  bool start(CardKind kind, const std::vector<std::string>& args = {}) {
    kind_ = kind;
    CardSpec spec;
    spec.size_mb = kind == CardKind::kPlain ? 256 : 1200;
    spec.sectors_per_cluster = 4;
    spec.format = kind == CardKind::kPlain;
    card_ = std::make_unique<CardImage>(spec);
    if (!card_->ok()) return error_ = "card: " + card_->error(), false;
    if (kind == CardKind::kVelt) {
      ShellResult r = runShell("VELT_ROOT=" + shellQuote(card_->root()) + " " +
                               shellQuote(std::string(VELT_BINARY_DIR) + "/mkfs.velt") + " " +
                               card_->devicePath() + " REC:5:4");
      if (r.status != 0) return error_ = "mkfs.velt: " + r.out + r.err, false;
    }
    std::filesystem::create_directories(path());
    return mount(args);
  }

  bool mount(const std::vector<std::string>& args = {}) {
    if (daemon_.start(card_->root(), path(), args)) return true;
    daemon_.stop();
    error_ = "velt.fuse did not mount\nstdout:\n" + daemon_.out() + "\nstderr:\n" + daemon_.err();
    return false;
  }

  // Unmounts; the daemon must end with status 0.
  void unmount() {
    EXPECT_EQ(daemon_.stop(), 0) << "stdout:\n" << daemon_.out() << "\nstderr:\n" << daemon_.err();
  }

  // Unmounts and has fsck.fat -n judge the card: a plain card must be clean, a VELT card may
  // show nothing but what its reserved files cause.
  void unmountAndCheck() {
    unmount();
    if (kind_ == CardKind::kPlain) {
      ShellResult r = card_->fsck("-n");
      EXPECT_EQ(r.status, 0) << r.out << r.err;
    } else {
      EXPECT_TRUE(fsckShowsOnlyReservedFiles(*card_));
    }
  }

  // The mount point, or an absolute path inside the mount.
  std::string path(const std::string& relative = "") const {
    return card_->dir() + "/mnt" + (relative.empty() ? "" : "/" + relative);
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
