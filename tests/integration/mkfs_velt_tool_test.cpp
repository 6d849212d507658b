// The mkfs.velt tool: its help, its refusals (bad arguments, a card in use) and the cards it
// formats, judged by fsck.fat, mtools and by loading them.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "card_image.h"
#include "fs/velt.h"
#include "fs/velt_dirent.h"
#include "velt_fsck.h"

namespace velt::test {
namespace {

std::string tool() {
  return std::string(VELT_BINARY_DIR) + "/mkfs.velt";
}

// Runs the tool with `args` (shell words) on the card's sandbox.
ShellResult runTool(const CardImage& card, const std::string& args) {
  return runShell("VELT_ROOT=" + shellQuote(card.root()) + " " + shellQuote(tool()) + " " + args);
}

std::string checksum(const CardImage& card) {
  return runShell("md5sum < " + shellQuote(card.image())).out;
}

CardImage makeCard(bool fat32, int64_t size_mb) {
  CardSpec spec;
  spec.size_mb = size_mb;
  spec.format = fat32;
  return CardImage(spec);
}

TEST(MkfsVeltTool, BadArgumentsChangeNothing) {
  CardImage card = makeCard(false, 64);
  ASSERT_TRUE(card.ok()) << card.error();
  const std::string before = checksum(card);
  const char* cases[] = {
      "",
      "/dev/sda1",
      "/dev/mmcblk0p01",
      "/dev/mmcblk0",
      "/dev/mmcblk0p2",  // no such node in the sandbox
      "/dev/mmcblk0p1 REC",
      "/dev/mmcblk0p1 REC:40",
      "/dev/mmcblk0p1 REC:40:16:1",
      "/dev/mmcblk0p1 REC:0:16",
      "/dev/mmcblk0p1 REC:101:16",
      "/dev/mmcblk0p1 REC:4x:16",
      "/dev/mmcblk0p1 REC:40:0",
      "/dev/mmcblk0p1 REC:40:4096",
      "/dev/mmcblk0p1 :40:16",
      "/dev/mmcblk0p1 R.C:40:16",
      "/dev/mmcblk0p1 'R*C:40:16'",
      "/dev/mmcblk0p1 ABCDEFGHIJKL:10:16",
      "/dev/mmcblk0p1 A:10:1 B:10:1 C:10:1 D:10:1 E:10:1",
      "/dev/mmcblk0p1 REC:40:16 rec:10:4",
      "/dev/mmcblk0p1 A:60:16 B:50:16",
      "-m X /dev/mmcblk0p1 REC:40:16",
      "/dev/mmcblk0p1 REC:40:16 -m",
      "-m",
      "-L ABCDEFGHIJKL /dev/mmcblk0p1",
      "-L A:B /dev/mmcblk0p1",
      "-L '' /dev/mmcblk0p1",
      "-z /dev/mmcblk0p1",
      "--bogus /dev/mmcblk0p1",
  };
  for (const char* args : cases) {
    SCOPED_TRACE(args);
    ShellResult r = runTool(card, args);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err.rfind("mkfs.velt: ", 0), 0u) << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
  }
  EXPECT_EQ(checksum(card), before);
}

// A process directory with one daemon process whose VELT_ROOT is `root`.
void fakeDaemon(const std::string& proc, const char* pid, const char* comm,
                const std::string& root) {
  std::string dir = proc + "/" + pid;
  runShell("mkdir -p " + shellQuote(dir));
  std::ofstream(dir + "/comm") << comm << "\n";
  std::string environ = "HOME=/root";
  environ.push_back('\0');
  if (!root.empty()) environ += "VELT_ROOT=" + root;
  environ.push_back('\0');
  std::ofstream(dir + "/environ", std::ios::binary) << environ;
}

TEST(MkfsVeltTool, InUseCheckFindsMountsAndDaemonsOfTheSameCard) {
  CardImage card = makeCard(false, 64);
  ASSERT_TRUE(card.ok()) << card.error();
  CardImage other = makeCard(false, 64);
  ASSERT_TRUE(other.ok()) << other.error();
  CardImage::RootScope scope(card);
  const std::string dir = card.dir();
  struct Case {
    const char* what;
    std::string mounts;
    const char* comm;  // daemon process name, or null for none
    std::string root;  // its VELT_ROOT
    bool in_use;
    const char* where;
  } cases[] = {
      {"nothing", "sysfs /sys sysfs rw 0 0\n", nullptr, "", false, ""},
      {"partition mounted", "/dev/mmcblk0p1 /media/sd vfat rw 0 0\n", nullptr, "", true,
       "mounted at /media/sd"},
      {"partition node under VELT_ROOT mounted",
       card.root() + "/dev/mmcblk0p1 /media/img vfat rw 0 0\n", nullptr, "", true,
       "mounted at /media/img"},
      {"another partition", "/dev/mmcblk0p10 /media/sd vfat rw 0 0\n", nullptr, "", false, ""},
      {"daemon on this card", "", "velt.fuse", card.root(), true, "served by velt.fuse (pid 4242)"},
      {"daemon on this card, path spelled otherwise", "", "velt.fuse", card.root() + "/../root",
       true, "served by velt.fuse (pid 4242)"},
      {"daemon on another card", "velt.fuse /mnt/x fuse.velt.fuse rw 0 0\n", "velt.fuse",
       other.root(), false, ""},
      {"daemon on the real driver", "", "velt.fuse", "", false, ""},
      {"another program", "", "sleep", card.root(), false, ""},
  };
  int n = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const std::string mounts = dir + "/mounts" + std::to_string(n);
    const std::string proc = dir + "/proc" + std::to_string(n++);
    std::ofstream(mounts) << c.mounts;
    runShell("mkdir -p " + shellQuote(proc));
    if (c.comm != nullptr) fakeDaemon(proc, "4242", c.comm, c.root);
    std::string where;
    EXPECT_EQ(VELT::isCardInUse("/dev/mmcblk0p1", &where, mounts.c_str(), proc.c_str()), c.in_use);
    EXPECT_EQ(where, c.where);
  }
}

TEST(MkfsVeltTool, RefusesACardServedByARunningDaemon) {
  CardImage card = makeCard(false, 64);
  ASSERT_TRUE(card.ok()) << card.error();
  const std::string before = checksum(card);
  // Any program named velt.fuse with this card's VELT_ROOT stands for the daemon.
  const std::string fake = card.dir() + "/velt.fuse";
  ASSERT_EQ(runShell("cp \"$(command -v sleep)\" " + shellQuote(fake)).status, 0);
  ShellResult started = runShell("VELT_ROOT=" + shellQuote(card.root()) + " " + shellQuote(fake) +
                                 " 60 >/dev/null 2>&1 & echo $!");
  const pid_t pid = static_cast<pid_t>(atoi(started.out.c_str()));
  ASSERT_GT(pid, 0);
  ShellResult r = runTool(card, "/dev/mmcblk0p1 REC:40:16");
  kill(pid, SIGTERM);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "mkfs.velt: \"/dev/mmcblk0p1\" is in use (served by velt.fuse (pid " +
                       std::to_string(pid) + ")); unmount it first\n");
  EXPECT_EQ(checksum(card), before);
}

// mtools as a user runs it: no environment that relaxes its checks of the boot sector.
ShellResult userMtools(const CardImage& card, const std::string& tool, const std::string& rest) {
  return runShell("env -u MTOOLS_SKIP_CHECK " + tool + " -i " + shellQuote(card.mtoolsImage()) +
                  " " + rest);
}

// Cards of every size class the format distinguishes, blank or already FAT32: what the tool
// writes passes fsck.fat, mdir and mcopy with no override and loads with its reserved files.
TEST(MkfsVeltTool, FormatsCardsThatEveryToolAccepts) {
  struct Folder {
    const char* name;
    uint32_t count;
  };
  enum Start { kBlank, kPartitioned, kFat32 };
  struct Case {
    const char* what;
    int64_t size_mb;
    Start start;
    const char* args;
    const char* mark;
    const char* label;  // in the boot sector
    std::vector<Folder> folders;
    bool root_file_kept;
  } cases[] = {
      // 40% of 255 MiB in 8 MiB files and 20% in 4 MiB files: 12 files each.
      {"256 MiB, blank, two folders, label, mode P",
       256,
       kBlank,
       "-L CAM -m P /dev/mmcblk0p1 REC:40:8 EVT:20:4",
       "VELT1.0P",
       "CAM        ",
       {{"REC", 12}, {"EVT", 12}},
       false},
      {"512 MiB, partition table only", 512, kPartitioned, "/dev/mmcblk0p1 REC:40:16", "VELT1.0N",
       "NO NAME    ", {{"REC", 12}}, false},
      {"2 GiB FAT32, root files kept",
       2048,
       kFat32,
       "-k --mode n /dev/mmcblk0p1 rec:10:8",
       "VELT1.0N",
       "NO NAME    ",
       {{"rec", 25}},
       true},
      {"2 GiB FAT32, formatted anew without folders", 2048, kFat32, "/dev/mmcblk0p1", "VELT1.0N",
       "NO NAME    ", {}, false},
      {"32 GiB, sparse", 32768, kPartitioned, "/dev/mmcblk0p1 REC:10:64", "VELT1.0N",
       "NO NAME    ", {{"REC", 51}}, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    CardImage card = makeCard(c.start == kFat32, c.size_mb);
    ASSERT_TRUE(card.ok()) << card.error();
    if (c.start == kBlank) card.writeBytes(0, std::string(512, '\0'));
    if (c.start == kFat32) {
      std::ofstream(card.dir() + "/note.txt") << "kept?";
      ASSERT_EQ(
          card.mtools("mcopy " + shellQuote(card.dir() + "/note.txt") + " ::/note.txt").status, 0);
    }
    ShellResult r = runTool(card, c.args);
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    // The summary and nothing of the library's diagnostics.
    EXPECT_EQ(r.err, "");
    EXPECT_NE(r.out.find("mkfs.velt: \"/dev/mmcblk0p1\" formatted as VELT"), std::string::npos)
        << r.out;
    EXPECT_EQ(r.out.rfind("disk size ", 0), 0u) << r.out;
    EXPECT_NE(r.out.find("    (free) "), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("\x1b["), std::string::npos) << r.out;
    EXPECT_EQ(card.readBytes(card.partitionOffset() + 3, 8), c.mark);
    EXPECT_EQ(card.readBytes(card.partitionOffset() + 71, 11), c.label);

    EXPECT_TRUE(fsckShowsOnlyReservedFiles(card));
    ShellResult root = userMtools(card, "mdir", "::/");
    EXPECT_EQ(root.status, 0) << root.err;
    EXPECT_EQ(root.err, "");
    ShellResult note = userMtools(card, "mtype", "::/note.txt");
    EXPECT_EQ(note.status == 0 && note.out == "kept?", c.root_file_kept) << note.out << note.err;
    for (const Folder& f : c.folders) {
      ShellResult list = userMtools(card, "mdir", std::string("-a ::/") + f.name);
      EXPECT_EQ(list.status, 0) << list.err;
      EXPECT_NE(list.out.find("2 files"), std::string::npos) << f.name << list.out;
    }

    {
      CardImage::RootScope scope(card);
      testing::internal::CaptureStdout();
      int error = 0;
      std::shared_ptr<VELT> volume = VELT::create(card.devicePath(), 0, kVELTOpMount, 0, &error);
      std::string log = testing::internal::GetCapturedStdout();
      ASSERT_NE(volume, nullptr) << error << log;
      EXPECT_GE(volume->pbr_->num_clusters_ - 2, FAT32_MIN_CLUSTERS);
      ASSERT_EQ(volume->format_info_.folder_count, c.folders.size());
      for (size_t i = 0; i < c.folders.size(); ++i) {
        const ReservedFolderDesc& desc = volume->format_info_.folders[i];
        EXPECT_STREQ(desc.name, c.folders[i].name);
        EXPECT_EQ(desc.count, c.folders[i].count);
        auto folder = volume->findEntry((std::string("/") + desc.name).c_str());
        ASSERT_NE(folder, nullptr);
        EXPECT_EQ(folder->velt_folder_, &desc);
        ASSERT_EQ(folder->velt_reserved_files_.size(), c.folders[i].count);
        for (const ReservedFile& f : folder->velt_reserved_files_) {
          EXPECT_FALSE(f.used_);
          EXPECT_EQ(f.size, desc.size_mb << 20);
        }
      }
    }

    // Another implementation writes to the card and reads it back.
    const std::string data = patternBytes(300000, static_cast<unsigned>(c.size_mb));
    writeFileBytes(card.dir() + "/in.bin", data);
    ShellResult put = userMtools(card, "mcopy", shellQuote(card.dir() + "/in.bin") + " ::/in.bin");
    EXPECT_EQ(put.status, 0) << put.err;
    ShellResult back = userMtools(card, "mcopy",
                                  "::/in.bin " + shellQuote(card.dir() + "/out.bin"));
    EXPECT_EQ(back.status, 0) << back.err;
    EXPECT_TRUE(readFileBytes(card.dir() + "/out.bin") == data);
    EXPECT_TRUE(fsckShowsOnlyReservedFiles(card));
  }
}

TEST(MkfsVeltTool, RefusesACardTooSmallForFat32) {
  // 32 MiB leaves a partition of 31 MiB: fewer than 65525 clusters even of one sector.
  CardImage card = makeCard(false, 32);
  ASSERT_TRUE(card.ok()) << card.error();
  ShellResult r = runTool(card, "/dev/mmcblk0p1 REC:40:4");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err,
            "mkfs.velt: cannot format \"/dev/mmcblk0p1\": the partition is too small for FAT32: "
            "31744 KiB, it needs at least 33290 KiB\n");
  EXPECT_EQ(card.readBytes(card.partitionOffset() + 3, 8).substr(0, 4), std::string(4, '\0'));
}

}  // namespace
}  // namespace velt::test
