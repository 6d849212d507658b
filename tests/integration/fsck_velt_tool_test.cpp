// The fsck.velt tool on damaged cards: what it finds, its exit codes, that -n writes nothing,
// and that a card it repaired passes fsck.fat and checks clean the next time.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "card_image.h"
#include "fs/velt_endian.h"

namespace velt::test {
namespace {

std::string tool(const char* name) { return std::string(VELT_BINARY_DIR) + "/" + name; }

ShellResult fsckVelt(const std::string& args) {
  return runShell(shellQuote(tool("fsck.velt")) + " " + args);
}

std::string checksum(const std::string& path) {
  return runShell("md5sum < " + shellQuote(path)).out;
}

// Where things are on a card made by mkfs.fat, read from its boot sector.
struct Geometry {
  int64_t part = 0;  // partition offset
  uint32_t reserved = 0, fat_sectors = 0, spc = 0;
  int64_t fat(int copy, uint32_t cluster) const {
    return part + (reserved + static_cast<int64_t>(copy) * fat_sectors) * 512 + cluster * 4;
  }
  int64_t cluster(uint32_t c) const {
    return part + (reserved + 2ll * fat_sectors + static_cast<int64_t>(c - 2) * spc) * 512;
  }
};

Geometry geometryOf(const CardImage& card) {
  Geometry g;
  g.part = card.partitionOffset();
  std::string b = card.readBytes(g.part, 512);
  const uint8_t* p = reinterpret_cast<const uint8_t*>(b.data());
  g.reserved = le16(p + 14);
  g.fat_sectors = le32(p + 36);
  g.spc = p[13];
  return g;
}

std::string le32Bytes(uint32_t v) {
  std::string s(4, '\0');
  putLe32(reinterpret_cast<uint8_t*>(s.data()), v);
  return s;
}

// Both FAT copies say the same damaged thing, so only the chain logic can find it.
void setFat(const CardImage& card, const Geometry& g, uint32_t cluster, uint32_t value) {
  for (int copy = 0; copy < 2; ++copy) card.writeBytes(g.fat(copy, cluster), le32Bytes(value));
}

// The first cluster of a file in the root, by its 8.3 record name ("A       BIN").
uint32_t firstCluster(const CardImage& card, const Geometry& g, const std::string& name83) {
  std::string root = card.readBytes(g.cluster(2), g.spc * 512);
  for (size_t at = 0; at + 32 <= root.size(); at += 32) {
    if (root.compare(at, 11, name83) != 0) continue;
    const uint8_t* r = reinterpret_cast<const uint8_t*>(root.data() + at);
    return (static_cast<uint32_t>(le16(r + 20)) << 16) | le16(r + 26);
  }
  ADD_FAILURE() << "no record " << name83;
  return 0;
}

TEST(FsckVeltTool, FindsAndRepairsWhatTheMountWould) {
  struct Case {
    const char* what;
    std::function<void(const CardImage&, const Geometry&)> damage;
    const char* finding;  // a line fsck.velt prints; null for a clean card
    bool partition_alone = false;  // checked as a partition image instead of the whole card
  } cases[] = {
      {"clean", [](const CardImage&, const Geometry&) {}, nullptr},
      {"chain looping back to its start",
       [](const CardImage& card, const Geometry& g) {
         const uint32_t a = firstCluster(card, g, "A       BIN");
         setFat(card, g, a + 2, a);
       },
       "FAT 1:"},
      {"long-name records without their entry",
       [](const CardImage& card, const Geometry& g) {
         // Two records of a long name right after the last entry of the root, then nothing.
         std::string root = card.readBytes(g.cluster(2), g.spc * 512);
         size_t free_slot = 0;
         while (free_slot < root.size() && root[free_slot] != '\0') free_slot += 32;
         std::string lfn(64, '\0');
         lfn[0] = 0x42;
         lfn[32] = 0x01;
         for (int k : {0, 32}) {
           lfn[k + 11] = 0x0F;
           lfn[k + 13] = 0x5A;  // checksum of no short name here
           lfn[k + 1] = 'x';
         }
         card.writeBytes(g.cluster(2) + static_cast<int64_t>(free_slot), lfn);
       },
       "/: 2 long-name records without their entry removed"},
      {"free count in FSInfo wrong, checked as a partition alone",
       [](const CardImage& card, const Geometry& g) {
         card.writeBytes(g.part + 512 + 488, le32Bytes(12345));
         card.writeBytes(g.part + 7 * 512 + 488, le32Bytes(12345));
       },
       "FSInfo: free cluster count 12345 -> ", true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    CardSpec spec;
    spec.size_mb = 128;
    spec.sectors_per_cluster = 1;
    CardImage card(spec);
    ASSERT_TRUE(card.ok()) << card.error();
    card.put("/a.bin", patternBytes(5 * 512, 1));
    card.put("/b.bin", patternBytes(5 * 512, 2));
    card.mkdir("/DIR");
    card.put("/DIR/c.txt", "kept\n");
    const Geometry g = geometryOf(card);
    c.damage(card, g);

    std::string target = card.image();
    if (c.partition_alone) {
      target = card.dir() + "/partition.img";
      ASSERT_EQ(runShell("dd if=" + shellQuote(card.image()) + " of=" + shellQuote(target) +
                         " bs=1M skip=" + std::to_string(g.part >> 20) + " status=none")
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
                         " bs=1M seek=" + std::to_string(g.part >> 20) +
                         " conv=notrunc status=none")
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
  CardSpec spec;
  spec.size_mb = 64;
  spec.sectors_per_cluster = 1;
  CardImage base(spec);
  ASSERT_TRUE(base.ok()) << base.error();
  for (const char* dir : {"/A", "/B"}) {
    base.mkdir(dir);
    for (int f = 1; f <= 4; ++f) {
      base.put(std::string(dir) + "/a long file name " + std::to_string(f) + ".bin",
               patternBytes(700 * f * f, f));
    }
  }
  base.put("/root.txt", patternBytes(5000, 9));
  const Geometry g = geometryOf(base);
  CardImage card(spec);
  ASSERT_TRUE(card.ok()) << card.error();
  uint32_t x = 12345;
  auto next = [&x] { return x = x * 1103515245u + 12345u, x >> 8; };
  int repaired = 0;
  for (int round = 0; round < 24; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    ASSERT_TRUE(card.copyFrom(base));
    for (int k = 0; k < 8; ++k) {
      // The first FAT sectors, or the first sectors of the data area (root and folders).
      const int64_t at = next() % 2 ? g.fat(0, 0) + next() % 1024
                                    : g.cluster(2) + next() % (40 * 512);
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
    ShellResult again = fsckVelt("-n " + shellQuote(card.image()));
    EXPECT_EQ(again.status, 0) << again.out;
    repaired += repair.status == 1;
  }
  EXPECT_GT(repaired, 12) << "the damage hardly ever mattered";
}

TEST(FsckVeltTool, RefusesWhatItCannotCheck) {
  TempDir dir;
  const std::string junk = dir.path() + "/junk.img";
  writeFileBytes(junk, std::string(1 << 20, 'x'));
  struct Case {
    const char* args;
    const char* message;
  } cases[] = {
      {"", "fsck.velt: no card given (see --help)\n"},
      {"-n -a x", "fsck.velt: -n and -a exclude each other\n"},
      {"-p 5 x", "fsck.velt: partition \"5\" must be 1 to 4\n"},
      {"-z x", "fsck.velt: unknown option -z (see --help)\n"},
      {"/nonexistent/card.img",
       "fsck.velt: cannot open \"/nonexistent/card.img\": No such file or directory\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args);
    ShellResult r = fsckVelt(c.args);
    EXPECT_EQ(r.status, 8);
    EXPECT_EQ(r.err, c.message);
  }
  ShellResult r = fsckVelt("-n " + shellQuote(junk));
  EXPECT_EQ(r.status, 8);
  EXPECT_NE(r.err.find("neither a partition table with a FAT32 partition nor a FAT32 boot sector"),
            std::string::npos)
      << r.err;
}

}  // namespace
}  // namespace velt::test
