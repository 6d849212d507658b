// The fsck.velt tool: what it finds on damaged cards, its exit codes and refusals, that -n
// writes nothing, and that a card it repaired passes fsck.fat and checks clean the next time.
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "fat_records.h"

namespace velt::test {
namespace {

ShellResult fsckVelt(const std::string& args) {
  return runShell(shellQuote(std::string(VELT_BINARY_DIR) + "/fsck.velt") + " " + args);
}

std::string checksum(const std::string& path) {
  return runShell("md5sum < " + shellQuote(path)).out;
}

TEST(FsckVeltTool, FindsAndRepairsWhatTheMountWould) {
  using Damage = std::function<void(const CardImage&, const FatImage&)>;
  struct Row {
    const char* what;
    Damage damage;
    const char* finding;           // a line fsck.velt prints; null for a clean card
    bool partition_alone = false;  // checked as a partition image instead of the whole card
  } rows[] = {
      {"clean", [](const CardImage&, const FatImage&) {}, nullptr},
      {"chain looping back to its start",
       [](const CardImage&, const FatImage& img) {
         auto a_bin = img.find(img.rootCluster(), "a.bin");
         const uint32_t a = (a_bin ? a_bin : img.find(img.rootCluster(), "A.BIN"))->cluster;
         img.setFat(a + 2, a);
       },
       "FAT 1:"},
      {"long-name records without their entry",
       [](const CardImage&, const FatImage& img) {
         // Two records of a long name after the last entry of the root, then nothing.
         int64_t at = 0;
         for (int64_t off : img.records(img.rootCluster())) {
           if (img.byteAt(off) == 0) {
             at = off;
             break;
           }
         }
         for (int seq : {0x42, 0x01}) {
           std::string r(32, '\0');
           r[0] = static_cast<char>(seq);
           r[1] = 'x';
           r[11] = 0x0F;
           r[13] = 0x5A;  // the checksum of no short name here
           img.putRecord(at + (seq == 0x01) * 32, r);
         }
       },
       "/: 2 long-name records without their entry removed"},
      {"free count in FSInfo wrong, checked as a partition alone",
       [](const CardImage&, const FatImage& img) {
         for (bool backup : {false, true}) img.putField(img.fsinfoOffset(backup) + 488, 12345, 4);
       },
       "FSInfo: free cluster count 12345 -> ", true},
  };
  for (const Row& c : rows) {
    SCOPED_TRACE(c.what);
    CardImage card(smallClusterCard(128));
    ASSERT_TRUE(card.ok()) << card.error();
    card.put("/a.bin", patternBytes(5 * 512, 1));
    card.put("/b.bin", patternBytes(5 * 512, 2));
    card.mkdir("/DIR");
    card.put("/DIR/c.txt", "kept\n");
    c.damage(card, FatImage(card));

    const std::string part_mb = std::to_string(card.partitionOffset() >> 20);
    std::string target = card.image();
    if (c.partition_alone) {
      target = card.dir() + "/partition.img";
      ASSERT_EQ(runShell("dd if=" + shellQuote(card.image()) + " of=" + shellQuote(target) +
                         " bs=1M skip=" + part_mb + " status=none")
                    .status,
                0);
    }
    const std::string before = checksum(target);
    ShellResult look = fsckVelt("-n " + shellQuote(target));
    EXPECT_EQ(checksum(target), before) << "-n wrote to the card";
    EXPECT_EQ(look.err, "");
    EXPECT_EQ(look.out.find("\x1b["), std::string::npos) << "diagnostics without -v: " << look.out;
    if (c.finding == nullptr) {
      EXPECT_EQ(look.status, 0) << look.out;
      EXPECT_NE(look.out.find(": clean FAT32 card, 3 files, 1 folders,"), std::string::npos)
          << look.out;
      continue;
    }
    EXPECT_EQ(look.status, 4) << look.out;
    EXPECT_NE(look.out.find(c.finding), std::string::npos) << look.out;
    EXPECT_NE(look.out.find("Leaving the card unchanged"), std::string::npos) << look.out;

    ShellResult repair = fsckVelt(shellQuote(target));
    EXPECT_EQ(repair.status, 1) << repair.out << repair.err;
    EXPECT_NE(repair.out.find(c.finding), std::string::npos) << repair.out;
    EXPECT_NE(repair.out.find(": repaired, "), std::string::npos) << repair.out;
    EXPECT_EQ(fsckVelt("-n " + shellQuote(target)).status, 0) << "a second check finds work";

    // Another implementation agrees; the files nobody damaged are intact.
    if (c.partition_alone) {
      ASSERT_EQ(runShell("dd if=" + shellQuote(target) + " of=" + shellQuote(card.image()) +
                         " bs=1M seek=" + part_mb + " conv=notrunc status=none")
                    .status,
                0);
    }
    ShellResult fat = card.fsck("-n");
    EXPECT_EQ(fat.status, 0) << fat.out << fat.err;
    EXPECT_EQ(card.type("/DIR/c.txt"), "kept\n");
    EXPECT_EQ(card.type("/b.bin"), patternBytes(5 * 512, 2));
  }
}

// Random damage to the FAT and the folders: whatever it is, -n writes nothing, the verdict is one
// of the checker's, and a card it repaired checks clean the next time.
TEST(FsckVeltTool, RandomDamageIsRepairedOnce) {
  CardImage base(smallClusterCard(64)), card(smallClusterCard(64));
  ASSERT_TRUE(base.ok() && card.ok()) << base.error();
  for (const char* dir : {"/A", "/B"}) {
    base.mkdir(dir);
    for (int f = 1; f <= 4; ++f) {
      base.put(std::string(dir) + "/a long file name " + std::to_string(f) + ".bin",
               patternBytes(700 * f * f, f));
    }
  }
  base.put("/root.txt", patternBytes(5000, 9));
  const FatImage img(base);
  uint32_t x = 12345;
  auto next = [&x] { return x = x * 1103515245u + 12345u, x >> 8; };
  int repaired = 0;
  for (int round = 0; round < 24; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    ASSERT_TRUE(card.copyFrom(base));
    for (int k = 0; k < 8; ++k) {
      // The first FAT sectors, or the first sectors of the data area (root and folders).
      const int64_t at = next() % 2 ? img.fatOffset(0, 0) + next() % 1024
                                    : img.clusterOffset(2) + next() % (40 * 512);
      card.writeBytes(at, std::string(1, static_cast<char>(next())));
    }
    const std::string before = checksum(card.image());
    ShellResult look = fsckVelt("-n " + shellQuote(card.image()));
    EXPECT_EQ(checksum(card.image()), before) << "-n wrote to the card";
    EXPECT_TRUE(look.status == 0 || look.status == 4) << look.status << look.out << look.err;
    ShellResult repair = fsckVelt(shellQuote(card.image()));
    if (look.out.find("the card does not load") != std::string::npos) {
      // Nothing the load could repair: the card stays as it was.
      EXPECT_EQ(repair.status, 4) << repair.out;
      EXPECT_EQ(checksum(card.image()), before);
      continue;
    }
    EXPECT_EQ(repair.status, look.status == 0 ? 0 : 1) << repair.out << repair.err;
    EXPECT_EQ(fsckVelt("-n " + shellQuote(card.image())).status, 0);
    repaired += repair.status == 1;
  }
  EXPECT_GT(repaired, 12) << "the damage hardly ever mattered";
}

TEST(FsckVeltTool, RefusesWhatItCannotCheck) {
  TempDir dir;
  const std::string junk = dir.path() + "/junk.img";
  writeFileBytes(junk, std::string(1 << 20, 'x'));
  struct Row {
    std::string args, message;
  } rows[] = {
      {"", "fsck.velt: no card given (see --help)\n"},
      {"-n -a x", "fsck.velt: -n and -a exclude each other\n"},
      {"-p 5 x", "fsck.velt: partition \"5\" must be 1 to 4\n"},
      {"-z x", "fsck.velt: unknown option -z (see --help)\n"},
      {"/nonexistent/card.img",
       "fsck.velt: cannot open \"/nonexistent/card.img\": No such file or directory\n"},
      {"-n " + shellQuote(junk), "fsck.velt: \"" + junk +
                                     "\" holds neither a partition table with a FAT32 partition "
                                     "nor a FAT32 boot sector\n"},
  };
  for (const Row& c : rows) {
    SCOPED_TRACE(c.args);
    ShellResult r = fsckVelt(c.args);
    EXPECT_EQ(r.status, 8);
    EXPECT_EQ(r.err, c.message);
  }
}

}  // namespace
}  // namespace velt::test
