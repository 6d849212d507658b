// Damaged cards, one kind of damage a row: the mount either succeeds or refuses with its text,
// never crashes, never writes into what it cannot vouch for. After a mount that succeeds, the
// next mount finds nothing left to repair, fsck.fat agrees with the card, and every file the
// damage did not touch reads back byte for byte through mtools. fsck.velt -n finds the damage
// and writes nothing. The same damage on a VELT card met by an exclusive load never writes to it.
#include <gtest/gtest.h>
#include <strings.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "card_volume.h"
#include "fat_records.h"
#include "fs/velt_file.h"
#include "power_cut.h"
#include "velt_fsck.h"

namespace velt::test {
namespace {

// On a VELT card besides: a reserved folder of 1 MiB files, the first one published as this
// recording, and a file longer than a reserved file.
const char kRecording[] = "REC/recording.avi";
const char kLongFile[] = "long file.bin";
// The last folder comes after the files: a folder record that a file turned into is met before it.
const std::vector<std::string> kFiles = {"alpha long name file.txt",
                                         "bravo has a much longer name here.txt",
                                         "charlie.txt",
                                         "README.TXT",
                                         "delta dir/inner file.txt",
                                         "delta dir/deeper/leaf.txt",
                                         "foxtrot number one.txt",
                                         "foxtrot number two.txt",
                                         "echo file with long name.txt",
                                         "golf dir/note.txt"};

std::string contentOf(const std::string& name) {
  unsigned seed = 1;
  for (char c : name) seed = seed * 31 + static_cast<unsigned char>(c);
  return patternBytes(3000, seed);
}

void fill(const CardImage& card) {
  card.mkdir("/delta dir");
  card.mkdir("/delta dir/deeper");
  for (const std::string& f : kFiles) {
    if (f.rfind("golf dir/", 0) == 0) card.mkdir("/golf dir");
    card.put("/" + f, contentOf(f));
  }
}

void fillVelt(const CardImage& card) {
  ASSERT_EQ(formatCard(card, formatInfo({{"REC", 10, 1}})), 0);
  fill(card);
  card.put(std::string("/") + kLongFile, contentOf(kLongFile) + std::string(1536 << 10, 'L'));
  Loaded l = loadCard(card);
  ASSERT_EQ(l.error, 0) << l.log;
  publishRecording(*l.volume, "/REC", "recording.avi", contentOf(kRecording));
}

struct Ctx {
  const CardImage& card;
  FatImage img;
  std::set<uint32_t> unreadable = {};  // card sectors the first mount cannot read

  // Names compare without regard to case: mtools keeps "charlie.txt" as CHARLIE.TXT.
  FatImage::Entry entry(uint32_t dir, const std::string& name) const {
    for (const auto& e : img.entries(dir))
      if (strcasecmp(e.name.c_str(), name.c_str()) == 0) return e;
    ADD_FAILURE() << "no entry " << name;
    return FatImage::Entry();
  }
  FatImage::Entry root(const std::string& name) const { return entry(img.rootCluster(), name); }
  // The first cluster of `path`, its folders named in it ("" for the root).
  uint32_t cluster(const std::string& path) const {
    uint32_t dir = img.rootCluster();
    for (size_t at = 0; at < path.size();) {
      const size_t end = std::min(path.find('/', at), path.size());
      dir = entry(dir, path.substr(at, end - at)).cluster;
      at = end + 1;
    }
    return dir;
  }
  std::vector<uint32_t> chain(const std::string& path) const { return img.chain(cluster(path)); }
  uint32_t delta() const { return cluster("delta dir"); }
  uint32_t deeper() const { return cluster("delta dir/deeper"); }
  int64_t boot() const { return card.partitionOffset(); }
  // A free record slot after the last one in use in a directory.
  int64_t freeSlot(uint32_t dir) const {
    for (int64_t off : img.records(dir))
      if (img.byteAt(off) == 0) return off;
    return -1;
  }
  // The chain of reserved file `group` of REC.
  std::vector<uint32_t> reservedChain(int group) const {
    return img.chain(img.firstCluster(img.records(cluster("REC"))[2 + 4 * group + 3]));
  }
};

// A row's "what" names the VELT rows ("VELT card": the card holds the recording and the long
// file, and fsck.fat is judged with its reserved files in mind) and the row served read-only.
struct Row {
  const char* what;
  const char* text;  // printed by the first mount (null: anything)
  std::function<void(Ctx&)> damage;
  const char* changed = nullptr;                    // the file the damage itself hit
  int refused = 0;                                  // the mount's result when it refuses the card
  std::function<void(Ctx&, VELT&)> then = nullptr;  // work done on the mounted card
};

// Writes a file of 9000 bytes on the mounted card.
void writeAFile(Ctx&, VELT& v) {
  auto f = v.newFile(false, true, false, v.newEntry(v.root_, "written after", false));
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(f->write(patternBytes(9000, 5).data(), 9000, 0), 9000);
  f->close();
  v.freeFile(f->file_no_);
}

std::vector<Row> rows() {
  return {
      {"boot sector with 513 bytes per sector", "PBR fields out of range",
       [](Ctx& c) { c.img.putField(c.boot() + 11, 513, 2); }},
      {"boot sector whose FSInfo sector is 0", "FSInfo at sector 0",
       [](Ctx& c) { c.img.putField(c.boot() + 48, 0, 2); }},
      {"boot sector whose root cluster points into a file", "trying the backup",
       [](Ctx& c) { c.img.putField(c.boot() + 44, c.cluster("alpha long name file.txt"), 4); }},
      {"boot sector without its signature", "PBR primary damaged",
       [](Ctx& c) { c.img.putField(c.boot() + 510, 0, 2); }},
      {"boot sector and its backup without signature", "PBR backup signature failed",
       [](Ctx& c) {
         for (int64_t sector : {0, 6}) c.img.putField(c.boot() + sector * 512 + 510, 0, 2);
       },
       nullptr, kVELTBadPBR},
      {"boot sector of a FAT16 (root entries)", "This partition is not type of FAT32!",
       [](Ctx& c) {
         for (int64_t sector : {0, 6}) c.img.putField(c.boot() + sector * 512 + 17, 512, 2);
       },
       nullptr, kVELTBadPBR},
      {"partition table without its signature", "MBR failed",
       [](Ctx& c) { c.img.putField(510, 0, 2); }, nullptr, kVELTBadMBR},
      {"partition reaching past 2^32 sectors", "beyond the 2^32 sectors",
       [](Ctx& c) { c.img.putField(446 + 12, 0xFFFFFFFFu, 4); }, nullptr, kVELTNoFAT32Partition},
      {"backup FSInfo would land on the first FAT (mkfs.fat -R 8 -b 7)", nullptr,
       [](Ctx& c) {
         auto r =
             runShell("mkfs.fat -F 32 -s 1 -R 8 -b 7 --offset " + std::to_string(c.boot() / 512) +
                      " " + shellQuote(c.card.image()) + " 2>&1");
         ASSERT_EQ(r.status, 0) << r.out;
         fill(c.card);
       },
       nullptr, 0,
       [](Ctx&, VELT& v) {
         ASSERT_NE(v.newEntry(v.root_, "made after mount", true), nullptr);
         v.pbr_->updateFSInfo();  // as the front end's mkdir does
       }},
      {"FSInfo without signatures (both copies), FAT entry 1 without clean flags", "FSInfo rebuilt",
       [](Ctx& c) {
         for (bool backup : {false, true}) c.card.writeBytes(c.img.fsinfoOffset(backup), "XXXX");
         c.img.setFat(1, 0x03FFFFFF);
       }},
      {"FAT entries with their reserved top bits set", nullptr,
       [](Ctx& c) {
         for (uint32_t cl : c.img.chain(c.delta())) c.img.setFat(cl, c.img.fat(cl) | 0xA0000000u);
         for (uint32_t cl : c.chain("charlie.txt")) c.img.setFat(cl, c.img.fat(cl) | 0x30000000u);
       },
       nullptr, 0,
       [](Ctx& c, VELT& v) {
         // The top bits stay when an entry is written again.
         ASSERT_NE(v.newEntry(v.root_, "written after", false), nullptr);
         EXPECT_EQ(v.pbr_->fat1_[c.cluster("charlie.txt")] >> 28, 3u);
       }},
      {"FAT copies that differ (entry 0 too)", "clear damaged FATs",
       [](Ctx& c) {
         c.img.putField(c.img.fatOffset(0, 0), 0x0FFFFF00, 4);
         c.img.putField(c.img.fatOffset(1, 1000), 0x0FFFFFF8, 4);
         c.img.putField(c.img.fatOffset(1, c.cluster("charlie.txt")), 1001, 4);
       }},
      {"first FAT unreadable in one sector, second intact", "taken from FAT2",
       [](Ctx& c) {
         c.card.writeBytes(c.img.fatOffset(0, 0), std::string(512, '\x5A'));
         c.unreadable.insert(static_cast<uint32_t>(c.img.fatOffset(0, 0) / 512));
       }},
      {"first FAT all garbage (served read-only, nothing freed; the checker repairs it)",
       "served read-only",
       [](Ctx& c) {
         const int64_t bytes = c.img.fatOffset(1, 0) - c.img.fatOffset(0, 0);
         c.card.writeBytes(c.img.fatOffset(0, 0), patternBytes(static_cast<size_t>(bytes), 99));
       }},
      {"folder unreadable in one sector (the mount fails, nothing deleted)", "read error",
       [](Ctx& c) {
         c.unreadable.insert(static_cast<uint32_t>(c.img.clusterOffset(c.delta()) / 512));
       },
       nullptr, kVELTNeedFormat},
      {"a lost loop; a long name's record made a folder of a lost chain into a file's", "no folder",
       [](Ctx& c) {
         // The chain is cut where it meets the file's, in a FAT sector of its own.
         const uint32_t last = c.img.clusterCount() - 1;
         c.img.setFat(last - 300, last);
         c.img.setFat(last, c.cluster("charlie.txt"));
         c.card.writeBytes(c.img.clusterOffset(last - 300), "no dot records");
         const int64_t sfn = c.root("echo file with long name.txt").sfn;
         c.img.setFirstCluster(sfn, last - 300);
         c.img.putByte(sfn + 11, 0x10);  // a folder record, with the file's size left
         c.img.setFat(1000, 1001);
         c.img.setFat(1001, 1000);
       },
       "echo file with long name.txt"},
      {"file chain ending in a free FAT entry (the next file written must not take it over)",
       "runs into a free cluster", [](Ctx& c) { c.img.setFat(c.chain("charlie.txt").back(), 0); },
       nullptr, 0, writeAFile},
      {"file whose first cluster is out of range", "cut to size 0",
       [](Ctx& c) { c.img.setFirstCluster(c.root("README.TXT").sfn, 0x0FFFFF00); }, "README.TXT"},
      {"two files sharing a tail (cross-link)", "runs into a cluster already used",
       [](Ctx& c) {
         c.img.setFat(c.chain("foxtrot number two.txt")[2], c.chain("foxtrot number one.txt")[3]);
       },
       "foxtrot number two.txt"},
      {"file chain running into a bad cluster", "runs into a bad cluster",
       [](Ctx& c) { c.img.setFat(c.chain("echo file with long name.txt")[1], 0x0FFFFFF7); },
       "echo file with long name.txt"},
      {"file size beyond its chain", "is beyond its",
       [](Ctx& c) { c.img.putField(c.root("charlie.txt").sfn + 28, 100000, 4); }, "charlie.txt"},
      {"folder pointing at its parent", "is another entry's",
       [](Ctx& c) { c.img.setFirstCluster(c.entry(c.delta(), "DEEPER").sfn, c.delta()); },
       "delta dir/deeper/leaf.txt"},
      {"records sharing a chain, one a replacing rename's marked source", "is a second record",
       [](Ctx& c) {
         for (const char* name : {"README.TXT", "alpha long name file.txt"}) {
           std::string r = c.img.record(c.root(name).sfn);
           r.replace(0, 11, name[0] == 'R' ? "README2 TXT" : "ALPHA2  TXT");
           c.img.putRecord(c.freeSlot(c.img.rootCluster()), r);
         }
         c.img.putByte(c.root("alpha long name file.txt").sfn + 13, 0xFF);
       },
       "alpha long name file.txt"},
      {"long name records out of order (a part before its start, one missing)", "number seq 1",
       [](Ctx& c) {
         auto e = c.root("bravo has a much longer name here.txt");
         const std::string start = c.img.record(e.lfn[0]);
         c.img.putRecord(e.lfn[0], c.img.record(e.lfn[2]));
         c.img.putRecord(e.lfn[1], start);
       },
       "bravo has a much longer name here.txt"},
      {"long name whose checksum does not match", "LFN checksum error",
       [](Ctx& c) {
         for (int64_t off : c.root("alpha long name file.txt").lfn)
           c.img.putByte(off + 13, c.img.byteAt(off + 13) ^ 0x5A);
       },
       "alpha long name file.txt"},
      {"long name left behind its deleted name record", "orphaned long-name records",
       [](Ctx& c) { c.img.putByte(c.root("echo file with long name.txt").sfn, 0xE5); },
       "echo file with long name.txt"},
      {"long name at the end of a folder, its name record never written", "while LFN valid",
       [](Ctx& c) {
         for (int seq : {0x42, 0x01}) {
           std::string r(32, '\0');
           r[0] = static_cast<char>(seq), r[1] = 'x', r[11] = 0x0F, r[13] = 0x5A;
           c.img.putRecord(c.freeSlot(c.img.rootCluster()), r);
         }
       }},
      {"dot records pointing elsewhere, one with a file's attributes", "pointed at cluster",
       [](Ctx& c) {
         c.img.putByte(c.img.records(c.delta())[0] + 11, 0x20);
         c.img.setFirstCluster(c.img.records(c.delta())[1], 4321);
         c.img.setFirstCluster(c.img.records(c.deeper())[0], 99);
       }},
      {"folders a mkdir cut short (no dot records; no clusters)", "had no \"..\" record",
       [](Ctx& c) {
         for (int i : {0, 1}) c.img.putRecord(c.img.records(c.deeper())[i], std::string(32, '\0'));
         c.img.putRecord(c.freeSlot(c.delta()), std::string("NOCLUSTR   \x10").append(20, 0));
       }},
      {"name record in the dot-dot slot (the folder's records shifted)", "moved to slot",
       [](Ctx& c) {
         auto leaf = c.entry(c.deeper(), "leaf.txt");
         c.img.putRecord(c.img.records(c.deeper())[1], c.img.record(leaf.sfn));
         for (int64_t off : leaf.lfn) c.img.putByte(off, 0xE5);
         c.img.putByte(leaf.sfn, 0xE5);
       }},
      {"records flagged short-nameless (a file's, a dot's); one both folder and label", "cleared",
       [](Ctx& c) {
         c.img.putByte(c.root("README.TXT").sfn + 12, 0x20);
         c.img.putByte(c.img.records(c.deeper())[1] + 12, 0x20);
         c.img.putByte(c.root("charlie.txt").sfn + 11, 0x18);
       },
       "charlie.txt", 0,
       [](Ctx&, VELT& v) { EXPECT_EQ(v.findEntry("/charlie.txt"), nullptr) << "deleted"; }},
      {"recording's chain running into a long file's (VELT card)",
       "recording in reserved file 1 is damaged",
       [](Ctx& c) { c.img.setFat(c.reservedChain(0)[5], c.chain(kLongFile)[100]); }, kRecording},
      {"free reserved file's chain running into a long file's (VELT card)", "gets a new one",
       [](Ctx& c) { c.img.setFat(c.reservedChain(1)[3], c.chain(kLongFile)[100]); }},
      {"reserved folder removed by another tool, free files' chains left (VELT card)",
       "not found, try to create it now",
       [](Ctx& c) { ASSERT_EQ(c.card.mtools("mdeltree ::/REC").status, 0); }, kRecording, 0,
       [](Ctx& c, VELT& v) {
         ASSERT_NO_FATAL_FAILURE(publishRecording(v, "/REC", "taken.avi", "in the new folder"));
         EXPECT_EQ(v.findEntry("/REC")->velt_reserved_files_.size(), c.img.descriptorValue(0, 20));
       }},
  };
}

TEST(DamagedCard, EachDamageIsRefusedOrRepairedOnceWithoutHarmToIntactFiles) {
  const CardSpec spec = smallClusterCard(36);  // just enough clusters for FAT32 to the tools
  CardImage pristine(spec), pristine_velt(spec), card(spec);
  ASSERT_TRUE(pristine.ok() && pristine_velt.ok() && card.ok()) << pristine.error();
  ASSERT_NO_FATAL_FAILURE(fill(pristine));
  ASSERT_EQ(pristine.fsck().status, 0);
  ASSERT_NO_FATAL_FAILURE(fillVelt(pristine_velt));
  const std::string recording = pristine_velt.type(std::string("/") + kRecording);
  ASSERT_EQ(recording.substr(0, 3000), contentOf(kRecording));

  const char* only = getenv("VELT_DAMAGE_ROW");  // runs the rows whose text holds this
  for (const Row& row : rows()) {
    if (only != nullptr && strstr(row.what, only) == nullptr) continue;
    SCOPED_TRACE(row.what);
    // The same damage on the VELT card, met by an exclusive load: refused, or loaded without a
    // repair; the card is never written.
    ASSERT_TRUE(card.copyFrom(pristine_velt));
    Ctx xctx{card, FatImage(card)};
    ASSERT_NO_FATAL_FAILURE(row.damage(xctx));
    const std::string untouched = card.contents();
    Loaded x = loadCard(card, kVELTOpExclusive);
    EXPECT_TRUE(x.error != 0 || x.log.find("repair:") == std::string::npos) << x.log;
    x.volume.reset();
    EXPECT_TRUE(card.contents() == untouched) << "exclusive mode wrote to the card";

    const bool is_velt = strstr(row.what, "VELT card") != nullptr;
    const bool read_only = strstr(row.what, "served read-only") != nullptr;
    ASSERT_TRUE(card.copyFrom(is_velt ? pristine_velt : pristine));
    Ctx ctx{card, FatImage(card)};
    ASSERT_NO_FATAL_FAILURE(row.damage(ctx));

    // The first mount, on the card's bytes in memory.
    const std::string damaged = card.contents();
    // The checker, only looking, finds work on exactly the cards the mount repairs or refuses.
    if (ctx.unreadable.empty()) {
      ShellResult look = runShell(VELT_BINARY_DIR "/fsck.velt -n " + shellQuote(card.image()));
      EXPECT_TRUE(card.contents() == damaged) << "fsck.velt -n wrote to the card";
      EXPECT_EQ(look.status, row.refused != 0 ? std::max(look.status, 4) : row.text ? 4 : 0);
      EXPECT_TRUE(row.refused != 0 ||
                  look.out.find(row.text ? "Leaving the card unchanged" : ": clean FAT32 card, ") !=
                      std::string::npos)
          << look.out << look.err;
      EXPECT_EQ(look.out.find("\x1b["), std::string::npos) << "diagnostics without -v";
    }
    auto disk = std::make_shared<CardBytes>(damaged.begin(), damaged.end());
    auto driver = std::make_unique<CutDriver>(disk);
    driver->unreadable = ctx.unreadable;
    int error = 0;
    testing::internal::CaptureStdout();
    std::shared_ptr<VELT> v = mountOn(std::move(driver), &error);
    const std::string log = testing::internal::GetCapturedStdout();
    auto unchanged = [&] { return memcmp(disk->data(), damaged.data(), damaged.size()) == 0; };
    EXPECT_TRUE(row.text == nullptr || log.find(row.text) != std::string::npos) << log;
    if (row.refused != 0) {
      EXPECT_EQ(error, row.refused) << log;
      EXPECT_TRUE(unchanged()) << "a refused card was written";
      continue;
    }
    ASSERT_EQ(error, 0) << log;
    EXPECT_EQ(v->read_only_.load(), read_only);
    if (row.then) {
      ASSERT_NO_FATAL_FAILURE(row.then(ctx, *v));
    }
    testing::internal::CaptureStdout();
    v.reset();
    testing::internal::GetCapturedStdout();
    card.putContents(*disk);  // what the mount wrote
    if (read_only) {
      EXPECT_TRUE(unchanged()) << "a card served read-only was written";
      // The checker is the way out: after it, the card mounts read-write like any other.
      auto repair =
          runShell(std::string(VELT_BINARY_DIR) + "/fsck.velt -a " + shellQuote(card.image()));
      EXPECT_EQ(repair.status, 1) << repair.out << repair.err;
    }

    // fsck.fat judges the card as the mount left it; then the next mount loads it.
    Loaded again;
    EXPECT_TRUE(fsckShowsOnlyReservedFiles(card, &again));
    ASSERT_EQ(again.error, 0) << again.log;
    EXPECT_FALSE(again.volume->read_only_.load());
    EXPECT_EQ(repairLines(again.log), "") << "the second mount repaired again";
    again.volume.reset();
    // Every file the damage spared reads back (of the long file, its start).
    std::vector<std::string> spared = kFiles;
    if (is_velt) spared.insert(spared.end(), {kRecording, kLongFile});
    for (const std::string& f : spared) {
      if (row.changed != nullptr && f == row.changed) continue;
      std::string got = card.type("/" + f);
      if (f == kLongFile) got.resize(std::min<size_t>(got.size(), 3000));
      EXPECT_TRUE(got == (f == kRecording ? recording : contentOf(f))) << f;
    }
  }
}

}  // namespace
}  // namespace velt::test
