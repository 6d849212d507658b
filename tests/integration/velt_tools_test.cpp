// The programs mkfs.velt and fsck.velt. mkfs.velt: the cards it formats (judged by fsck.fat, by
// mtools with no overrides and by a load), the summary it prints, and its refusals, which leave the
// card as it was. fsck.velt: its refusals, and a partition image given alone (what it finds on
// each damaged card, and that -n writes nothing, is the damaged-card table's).
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "card_volume.h"
#include "fat_records.h"
#include "velt_fsck.h"

namespace velt::test {
namespace {

ShellResult mkfsVelt(const CardImage& card, const std::string& args) {
  return runShell("VELT_ROOT=" + shellQuote(card.root()) + " " +
                  shellQuote(std::string(VELT_BINARY_DIR) + "/mkfs.velt") + " " + args);
}

ShellResult fsckVelt(const std::string& args) {
  return runShell(shellQuote(std::string(VELT_BINARY_DIR) + "/fsck.velt") + " " + args);
}

// A card of `size_mb`, formatted FAT32 or with a partition table only.
CardSpec cardOf(int64_t size_mb, bool fat32 = false) {
  CardSpec spec;
  spec.size_mb = size_mb;
  spec.format = fat32;
  return spec;
}

std::string checksum(const std::string& path) {
  return runShell("md5sum < " + shellQuote(path)).out;
}

// mtools as a user runs it: nothing relaxes its checks of the boot sector.
ShellResult userMtools(const CardImage& card, const std::string& tool, const std::string& rest) {
  return runShell("env -u MTOOLS_SKIP_CHECK " + tool + " -i " + shellQuote(card.mtoolsImage()) +
                  " " + rest);
}

// Cards of every size class, blank, partitioned or already FAT32 (with a root file and a folder):
// the summary says how the shares of the whole free space became files, and what the tool
// writes passes fsck.fat and mdir and loads with every reserved file in one piece.
TEST(MkfsVeltTool, FormatsCardsThatEveryToolAccepts) {
  enum Start { kBlank, kPartitioned, kFat32 };
  struct Row {
    const char* what;
    int64_t size_mb;
    Start start;
    const char* args;                // each NAME:PERCENT:MB makes a folder
    const char* boot;                // mark and label in the boot sector
    std::vector<std::string> lines;  // of the summary
  } rows[] = {
      // clang-format off
      // 40% of 255 MiB in 8 MiB files, 20% in 4 MiB files; 1% cannot hold one 64 MiB file.
      {"256 MiB, blank, three folders, label, mode P", 256, kBlank,
       "-L CAM -m P /dev/mmcblk0p1 REC:40:8 EVT:20:4 TINY:1:64", "VELT1.0PCAM        ",
       {"       REC   40%     8 MB #12  \n", "       EVT   20%     4 MB #12  \n",
        "      TINY    1%    64 MB #0   \n"}},
      // Both halves are taken of the whole free space, not of what the first one left.
      {"1100 MiB, partition table only, two halves", 1100, kPartitioned,
       "/dev/mmcblk0p1 A:50:8 B:50:8", "VELT1.0NNO NAME    ",
       {"disk size 1152385024 bytes (1099.00 MB, 1.07 GB)\n",
        "root size 0 bytes (0.00 MB, 0.00 GB)\n", "         A   50%     8 MB #68  \n",
        "         B   50%     8 MB #68  \n", "    (free)          11 MB\n"}},
      {"2 GiB FAT32, root files kept", 2048, kFat32, "-k --mode n /dev/mmcblk0p1 rec:10:8",
       "VELT1.0NNO NAME    ", {"       rec   10%     8 MB #25  \n"}},
      {"2 GiB FAT32, formatted anew without folders", 2048, kFat32, "/dev/mmcblk0p1",
       "VELT1.0NNO NAME    ", {}},
      {"32 GiB, sparse", 32768, kPartitioned, "/dev/mmcblk0p1 REC:10:64", "VELT1.0NNO NAME    ",
       {"       REC   10%    64 MB #51  \n"}},
      // clang-format on
  };
  for (const Row& c : rows) {
    SCOPED_TRACE(c.what);
    CardImage card(cardOf(c.size_mb, c.start == kFat32));
    const uint32_t folders = std::count(c.args, c.args + strlen(c.args), ':') / 2;
    ASSERT_TRUE(card.ok()) << card.error();
    if (c.start == kBlank) card.writeBytes(0, std::string(512, '\0'));
    if (c.start == kFat32) {
      card.put("/note.txt", "kept?");
      card.mkdir("/OLD");
      card.put("/OLD/gone.bin", patternBytes(100000, 1));
    }
    ShellResult r = mkfsVelt(card, c.args);
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_EQ(r.err, "");  // the summary and nothing of the library's diagnostics
    EXPECT_NE(r.out.find("mkfs.velt: \"/dev/mmcblk0p1\" formatted as VELT"), std::string::npos)
        << r.out;
    EXPECT_EQ(r.out.rfind("disk size ", 0), 0u) << r.out;
    EXPECT_NE(r.out.find("    (free) "), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("\x1b["), std::string::npos) << r.out;
    for (const std::string& l : c.lines) EXPECT_NE(r.out.find(l), std::string::npos) << l << r.out;
    const int64_t part = card.partitionOffset();
    EXPECT_EQ(card.readBytes(part + 3, 8) + card.readBytes(part + 71, 11), c.boot);

    EXPECT_TRUE(fsckShowsOnlyReservedFiles(card));
    ShellResult root = userMtools(card, "mdir", "-a ::/");
    EXPECT_EQ(root.status, 0) << root.err;
    EXPECT_EQ(root.err, "");
    EXPECT_EQ(root.out.find("OLD"), std::string::npos) << "folders never stay: " << root.out;
    ShellResult note = userMtools(card, "mtype", "::/note.txt");
    EXPECT_EQ(note.status == 0 && note.out == "kept?", strstr(c.args, "-k ") != nullptr)
        << note.out << note.err;

    // Each folder loads with its files unused, each in one piece (fsck.fat found them deleted).
    Loaded l = loadCard(card);
    ASSERT_NE(l.volume, nullptr) << l.error << l.log;
    const PBR& pbr = *l.volume->pbr_;
    EXPECT_GE(pbr.num_clusters_ - 2, FAT32_MIN_CLUSTERS);
    ASSERT_EQ(l.volume->format_info_.folder_count, folders);
    for (uint32_t i = 0; i < folders; ++i) {
      const ReservedFolderDesc& desc = l.volume->format_info_.folders[i];
      auto folder = l.volume->findEntry((std::string("/") + desc.name).c_str());
      ASSERT_NE(folder, nullptr);
      EXPECT_EQ(folder->velt_folder_, &desc);
      EXPECT_EQ(folder->getChildCount(), 0);
      ASSERT_EQ(folder->velt_reserved_files_.size(), desc.count);
      const uint32_t clusters = (desc.size_mb << 20) / pbr.cluster_length_;
      for (const ReservedFile& f : folder->velt_reserved_files_) {
        EXPECT_FALSE(f.used_);
        EXPECT_EQ(f.size, desc.size_mb << 20);
        uint32_t n = 1;
        while (n < clusters && pbr.fat1_[f.start_cluster + n - 1] == f.start_cluster + n) ++n;
        EXPECT_EQ(n, clusters);
        EXPECT_EQ(pbr.fat1_[f.start_cluster + n - 1], FAT_EOC);
      }
    }
  }
}

// Every refusal of either tool: its exit code (mkfs.velt 1, fsck.velt 8), one line on standard
// error, nothing on the card changed.
TEST(VeltTools, RefusalsPrintOneLineAndChangeNothing) {
  // 32 MiB leaves a partition of 31 MiB: fewer than 65525 clusters even of one sector. Any
  // program named velt.fuse with the served card's VELT_ROOT stands for the daemon.
  CardImage card(cardOf(64)), small(cardOf(32)), served(cardOf(64));
  ASSERT_TRUE(card.ok() && small.ok() && served.ok()) << card.error();
  const std::string fake = served.dir() + "/velt.fuse", junk = card.dir() + "/junk.img";
  writeFileBytes(junk, std::string(1 << 20, 'x'));
  ASSERT_EQ(runShell("cp \"$(command -v sleep)\" " + shellQuote(fake)).status, 0);
  const pid_t pid = atoi(runShell("VELT_ROOT=" + shellQuote(served.root()) + " " +
                                  shellQuote(fake) + " 60 >/dev/null 2>&1 & echo $!")
                             .out.c_str());
  ASSERT_GT(pid, 0);
  struct Row {
    const CardImage* card;  // mkfs.velt's; null for fsck.velt
    std::string args, message;
  };
  std::vector<Row> rows = {
      {&small, "/dev/mmcblk0p1 REC:40:4",
       "mkfs.velt: cannot format \"/dev/mmcblk0p1\": the partition is too small for FAT32: "
       "31744 KiB, it needs at least 33290 KiB\n"},
      {&served, "/dev/mmcblk0p1 REC:40:16",
       "mkfs.velt: \"/dev/mmcblk0p1\" is in use (served by velt.fuse (pid " + std::to_string(pid) +
           ")); unmount it first\n"},
      {nullptr, "", "fsck.velt: no card given (see --help)\n"},
      {nullptr, "-n -a x", "fsck.velt: -n and -a exclude each other\n"},
      {nullptr, "-p 5 x", "fsck.velt: partition \"5\" must be 1 to 4\n"},
      {nullptr, "-z x", "fsck.velt: unknown option -z (see --help)\n"},
      {nullptr, "/nonexistent/card.img",
       "fsck.velt: cannot open \"/nonexistent/card.img\": No such file or directory\n"},
      {nullptr, "-n " + shellQuote(junk),
       "fsck.velt: \"" + junk +
           "\" holds neither a partition table with a FAT32 partition nor a FAT32 boot sector\n"},
  };
  for (std::string args : {"", "/dev/sda1", "/dev/mmcblk0p01", "/dev/mmcblk0",
                           "/dev/mmcblk0p2",  // no such node in the sandbox
                           "-m", "-m X /dev/mmcblk0p1 REC:40:16", "-L ABCDEFGHIJKL /dev/mmcblk0p1",
                           "-L A:B /dev/mmcblk0p1", "-L '' /dev/mmcblk0p1", "-z /dev/mmcblk0p1",
                           "--bogus /dev/mmcblk0p1"})
    rows.push_back({&card, args, ""});
  for (std::string folders : {"REC", "REC:40", "REC:40:16:1", "REC:0:16", "REC:101:16", "REC:4x:16",
                              "REC:40:0", "REC:40:4096", ":40:16", "R.C:40:16", "'R*C:40:16'",
                              "ABCDEFGHIJKL:10:16", "A:10:1 B:10:1 C:10:1 D:10:1 E:10:1",
                              "REC:40:16 rec:10:4", "A:60:16 B:50:16", "REC:40:16 -m"})
    rows.push_back({&card, "/dev/mmcblk0p1 " + folders, ""});
  const CardImage* cards[] = {&card, &small, &served};
  std::vector<std::string> before;
  for (const CardImage* c : cards) before.push_back(checksum(c->image()));
  for (const Row& row : rows) {
    SCOPED_TRACE(row.args);
    ShellResult r = row.card != nullptr ? mkfsVelt(*row.card, row.args) : fsckVelt(row.args);
    EXPECT_EQ(r.status, row.card != nullptr ? 1 : 8);
    EXPECT_TRUE(row.card == nullptr || r.out.empty()) << r.out;
    if (!row.message.empty()) {
      EXPECT_EQ(r.err, row.message);
      continue;
    }
    EXPECT_EQ(r.err.rfind("mkfs.velt: ", 0), 0u) << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
  }
  kill(pid, SIGTERM);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(checksum(cards[i]->image()), before[i]);
}

// The in-use check behind the refusal, on made-up mount tables and process directories.
TEST(MkfsVeltTool, InUseCheckFindsMountsAndDaemonsOfTheSameCard) {
  CardImage card(cardOf(64)), other(cardOf(64));
  ASSERT_TRUE(card.ok() && other.ok()) << card.error();
  CardImage::RootScope scope(card);
  struct Row {
    const char* what;
    std::string mounts;
    const char* comm;   // a process's name, or null for none
    std::string root;   // its VELT_ROOT
    const char* where;  // "" when not in use
  } rows[] = {
      {"nothing", "sysfs /sys sysfs rw 0 0\n", nullptr, "", ""},
      {"partition mounted", "/dev/mmcblk0p1 /media/sd vfat rw 0 0\n", nullptr, "",
       "mounted at /media/sd"},
      {"partition node under VELT_ROOT mounted",
       card.root() + "/dev/mmcblk0p1 /media/img vfat rw 0 0\n", nullptr, "",
       "mounted at /media/img"},
      {"another partition", "/dev/mmcblk0p10 /media/sd vfat rw 0 0\n", nullptr, "", ""},
      {"daemon on this card", "", "velt.fuse", card.root(), "served by velt.fuse (pid 4242)"},
      {"daemon on this card, path spelled otherwise", "", "velt.fuse", card.root() + "/../root",
       "served by velt.fuse (pid 4242)"},
      {"daemon on another card", "velt.fuse /mnt/x fuse.velt.fuse rw 0 0\n", "velt.fuse",
       other.root(), ""},
      {"daemon on the real driver", "", "velt.fuse", "", ""},
      {"another program", "", "sleep", card.root(), ""},
  };
  int n = 0;
  for (const Row& c : rows) {
    SCOPED_TRACE(c.what);
    const std::string mounts = card.dir() + "/mounts" + std::to_string(n);
    const std::string proc = card.dir() + "/proc" + std::to_string(n++);
    std::ofstream(mounts) << c.mounts;
    runShell("mkdir -p " + shellQuote(proc + (c.comm != nullptr ? "/4242" : "")));
    if (c.comm != nullptr) {
      std::ofstream(proc + "/4242/comm") << c.comm << "\n";
      std::string environ = std::string("HOME=/root") + '\0';
      if (!c.root.empty()) environ += "VELT_ROOT=" + c.root + '\0';
      std::ofstream(proc + "/4242/environ", std::ios::binary) << environ;
    }
    std::string where;
    EXPECT_EQ(VELT::isCardInUse("/dev/mmcblk0p1", &where, mounts.c_str(), proc.c_str()),
              *c.where != '\0');
    EXPECT_EQ(where, c.where);
  }
}

// A partition image given alone, its FSInfo free count wrong: -n finds it and writes nothing, the
// repair writes it and a second check finds the card clean, and fsck.fat agrees once the partition
// is back on the card. (fsck.velt -n looks at every damage of the damaged-card table.)
TEST(FsckVeltTool, RepairsAPartitionImageGivenAlone) {
  CardImage card(smallClusterCard(128));
  ASSERT_TRUE(card.ok()) << card.error();
  card.mkdir("/DIR");
  card.put("/DIR/c.txt", "kept\n");
  FatImage img(card);
  for (bool backup : {false, true}) img.putField(img.fsinfoOffset(backup) + 488, 12345, 4);
  const std::string part = shellQuote(card.dir() + "/partition.img"),
                    whole = shellQuote(card.image());
  const std::string mb = std::to_string(card.partitionOffset() >> 20);
  ASSERT_EQ(runShell("dd if=" + whole + " of=" + part + " bs=1M status=none skip=" + mb).status, 0);
  const std::string before = checksum(card.dir() + "/partition.img");
  ShellResult look = fsckVelt("-n " + part);
  EXPECT_EQ(look.status, 4) << look.out;
  EXPECT_NE(look.out.find("FSInfo: free cluster count 12345 -> "), std::string::npos) << look.out;
  EXPECT_EQ(checksum(card.dir() + "/partition.img"), before) << "-n wrote to the card";
  ShellResult repair = fsckVelt(part);
  EXPECT_EQ(repair.status, 1) << repair.out << repair.err;
  EXPECT_NE(repair.out.find(": repaired, "), std::string::npos) << repair.out;
  ShellResult again = fsckVelt("-n " + part);
  EXPECT_EQ(again.status, 0) << again.out;
  EXPECT_NE(again.out.find(": clean FAT32 card, 1 files, 1 folders,"), std::string::npos)
      << again.out;
  ASSERT_EQ(
      runShell("dd if=" + part + " of=" + whole + " bs=1M status=none conv=notrunc seek=" + mb)
          .status,
      0);
  EXPECT_EQ(card.fsck("-n").status, 0);
  EXPECT_EQ(card.type("/DIR/c.txt"), "kept\n");
}

}  // namespace
}  // namespace velt::test
