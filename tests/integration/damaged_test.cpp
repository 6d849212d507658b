// Damaged cards, one kind of damage a row: the mount either succeeds or refuses with its text,
// never crashes, never writes into what it cannot vouch for. After a mount that succeeds, the
// next mount finds nothing left to repair, fsck.fat agrees with the card, and every file the
// damage did not touch reads back byte for byte through mtools.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <strings.h>

#include <cstring>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "card_volume.h"
#include "fat_records.h"
#include "fs/velt.h"
#include "fs/velt_dirent.h"
#include "fs/velt_file.h"
#include "velt_fsck.h"

using velt::VELT;
using velt::test::CardImage;
using velt::test::CardSpec;
using velt::test::FatImage;
using velt::test::Loaded;
using velt::test::putLe;

namespace {

// Just enough clusters for FAT32 to the tools.
CardSpec smallCard() { return velt::test::smallClusterCard(36); }

// On a VELT card: a reserved folder of 1 MiB files, the first one published as this recording,
// and a file longer than a reserved file.
const char kRecording[] = "REC/recording.avi";
const char kLongFile[] = "long file.bin";

const std::vector<std::string>& files() {
  static const std::vector<std::string> names = {
      "alpha long name file.txt",       "bravo has a much longer name here.txt",
      "charlie.txt",                    "README.TXT",
      "delta dir/inner file.txt",       "delta dir/deeper/leaf.txt",
      "foxtrot number one.txt",         "foxtrot number two.txt",
      "echo file with long name.txt",   "golf dir/note.txt"};
  return names;
}

std::string contentOf(const std::string& name) {
  unsigned seed = 1;
  for (char c : name) seed = seed * 31 + static_cast<unsigned char>(c);
  return velt::test::patternBytes(3000, seed);
}

void fill(const CardImage& card) {
  card.mkdir("/delta dir");
  card.mkdir("/delta dir/deeper");
  for (const std::string& f : files()) {
    // The last folder comes after the files: a folder record that a file turned into is met
    // before it.
    if (f.rfind("golf dir/", 0) == 0) card.mkdir("/golf dir");
    card.put("/" + f, contentOf(f));
  }
}

void fillVelt(const CardImage& card) {
  ASSERT_EQ(velt::test::formatCard(card, velt::test::formatInfo({{"REC", 10, 1}})), 0);
  fill(card);
  card.put(std::string("/") + kLongFile, contentOf(kLongFile) + std::string(1536 << 10, 'L'));
  Loaded l = velt::test::loadCard(card);
  ASSERT_EQ(l.error, 0) << l.log;
  auto e = l.volume->newEntry(l.volume->findEntry("/REC"), "recording.avi", false);
  ASSERT_NE(e, nullptr);
  auto f = l.volume->newFile(false, true, true, e);
  ASSERT_NE(f, nullptr);
  const std::string data = contentOf(kRecording);
  ASSERT_EQ(f->write(data.data(), data.size(), 0), static_cast<int>(data.size()));
  ASSERT_EQ(e->secure2(), 0);
  f->close();
  l.volume->freeFile(f->file_no_);
}

// A driver over the card's bytes in memory whose reads of some sectors fail.
class FaultyDriver : public velt::BlockDriver {
 public:
  FaultyDriver(std::vector<uint8_t>* disk, std::set<uint32_t> bad) : disk_(disk), bad_(bad) {}
  int readSectors(uint32_t start, int count, void* buffer) override {
    int n = 0;
    while (n < count && !bad_.count(start + n) && (start + n + 1) * 512ull <= disk_->size()) ++n;
    if (n == 0) return -1;
    memcpy(buffer, disk_->data() + start * 512ull, n * 512ull);
    return n;
  }
  int writeSectors(uint32_t start, int count, const void* buffer) override {
    if ((start + static_cast<uint64_t>(count)) * 512 > disk_->size()) return -1;
    memcpy(disk_->data() + start * 512ull, buffer, count * 512ull);
    for (int i = 0; i < count; ++i) bad_.erase(start + i);  // a written sector reads again
    return count;
  }
  int64_t sizeInSectors() override { return static_cast<int64_t>(disk_->size() / 512); }

 private:
  std::vector<uint8_t>* disk_;
  std::set<uint32_t> bad_;
};

// Mounts the card through a driver that cannot read `bad` sectors; the card file gets what the
// mount wrote when the volume goes.
struct FaultyMount {
  Loaded l;
  std::vector<uint8_t> disk;
  const CardImage* card = nullptr;
  void unload() {
    if (card == nullptr) return;
    l.volume.reset();
    card->writeBytes(0, std::string(disk.begin(), disk.end()));
    card = nullptr;
  }
};

void mountFaulty(const CardImage& card, const std::set<uint32_t>& bad, FaultyMount* m) {
  std::string bytes = card.contents();
  m->disk.assign(bytes.begin(), bytes.end());
  m->card = &card;
  auto v = std::make_shared<VELT>(card.devicePath(), 1, velt::kVELTOpMount, 0);
  v->driver_ = std::make_unique<FaultyDriver>(&m->disk, bad);
  v->device_fd_ = open("/dev/null", O_RDONLY | O_CLOEXEC);
  v->state_ = velt::kVELTStateLoading;
  testing::internal::CaptureStdout();
  int r = v->allocBuffers();
  if (r == velt::kVELTOk) r = v->loadCardLayout();
  if (r == velt::kVELTOk && v->buildRoot() != 0) r = velt::kVELTNeedFormat;
  m->l.log = testing::internal::GetCapturedStdout();
  m->l.error = r;
  if (r == velt::kVELTOk) {
    v->state_ = velt::kVELTStateLoaded;
    m->l.volume = v;
  } else {
    std::lock_guard<std::mutex> lock(v->mutex_);
    v->unload();
  }
}

// Lines by which a load tells that it repaired something.
std::string repairLines(const std::string& log) {
  std::string out;
  size_t at = 0;
  while (at < log.size()) {
    size_t end = log.find('\n', at);
    if (end == std::string::npos) end = log.size();
    std::string line = log.substr(at, end - at);
    for (const char* mark : {"repair:", "modified, flush now", "mark deleted", "clear damaged"}) {
      if (line.find(mark) != std::string::npos) {
        out += line + "\n";
        break;
      }
    }
    at = end + 1;
  }
  return out;
}

struct Ctx {
  const CardImage& card;
  FatImage img;
  // Names compare without regard to case: mtools keeps "charlie.txt" as CHARLIE.TXT.
  FatImage::Entry entry(uint32_t dir, const std::string& name) const {
    for (const auto& e : img.entries(dir)) {
      if (strcasecmp(e.name.c_str(), name.c_str()) == 0) return e;
    }
    ADD_FAILURE() << "no entry " << name;
    return FatImage::Entry();
  }
  uint32_t cluster(const std::string& dir_path, const std::string& name) const {
    uint32_t dir = img.rootCluster();
    size_t at = 0;
    while (at < dir_path.size()) {
      size_t end = dir_path.find('/', at);
      if (end == std::string::npos) end = dir_path.size();
      dir = entry(dir, dir_path.substr(at, end - at)).cluster;
      at = end + 1;
    }
    return entry(dir, name).cluster;
  }
  uint32_t delta() const { return entry(img.rootCluster(), "delta dir").cluster; }
  uint32_t deeper() const { return entry(delta(), "DEEPER").cluster; }
  int64_t boot() const { return card.partitionOffset(); }
  // A free record slot after the last one in use in a directory.
  int64_t freeSlot(uint32_t dir) const {
    for (int64_t off : img.records(dir)) {
      if (img.byteAt(off) == 0) return off;
    }
    return -1;
  }
  void setCluster(int64_t sfn, uint32_t c) const {
    std::string r = img.record(sfn);
    putLe(&r, 20, c >> 16, 2);
    putLe(&r, 26, c & 0xFFFF, 2);
    img.putRecord(sfn, r);
  }
  void setField(int64_t off, uint32_t v, int bytes) const {
    std::string s(bytes, '\0');
    putLe(&s, 0, v, bytes);
    card.writeBytes(off, s);
  }
  // Makes the root's record of `name` a folder record pointing at the file `dir`/`file`.
  void folderInto(const std::string& name, const std::string& dir, const std::string& file) const {
    auto e = entry(img.rootCluster(), name);
    setCluster(e.sfn, cluster(dir, file));
    img.putByte(e.sfn + 11, 0x10);
    setField(e.sfn + 28, 0, 4);
  }
  // The chain of a file, or of reserved file `group` of REC (its short-name record's chain).
  std::vector<uint32_t> chainOf(const std::string& dir, const std::string& file) const {
    return img.chain(cluster(dir, file));
  }
  std::vector<uint32_t> reservedChain(int group) const {
    const std::string r = img.record(img.records(cluster("", "REC"))[2 + 4 * group + 3]);
    return img.chain((velt::test::getLe(r, 20, 2) << 16) | velt::test::getLe(r, 26, 2));
  }
};

struct Row {
  const char* what;
  std::function<void(Ctx&)> damage;
  const char* text = nullptr;  // printed by the first mount
  int refused = 0;             // the mount's result when it refuses the card
  bool read_only = false;      // served read-only, nothing written
  std::set<std::string> changed = {};  // files the damage itself hit
  std::set<uint32_t> unreadable = {};  // sectors (relative to the partition) the card cannot read
  std::function<void(Ctx&, VELT&)> then = nullptr;  // work done on the mounted card
  bool velt = false;  // a VELT card with a recording (judged with its reserved files in mind)
};

std::vector<Row> rows() {
  return {
      {"boot sector with 513 bytes per sector",
       [](Ctx& c) { c.setField(c.boot() + 11, 513, 2); }, "PBR fields out of range"},
      {"boot sector whose FSInfo sector is 0",
       [](Ctx& c) { c.setField(c.boot() + 48, 0, 2); }, "FSInfo at sector 0"},
      {"boot sector whose root cluster points into a file",
       [](Ctx& c) { c.setField(c.boot() + 44, c.cluster("", "alpha long name file.txt"), 4); },
       "trying the backup"},
      {"boot sector without its signature",
       [](Ctx& c) { c.card.writeBytes(c.boot() + 510, std::string(2, '\0')); },
       "PBR primary damaged"},
      {"boot sector and its backup without signature",
       [](Ctx& c) {
         c.card.writeBytes(c.boot() + 510, std::string(2, '\0'));
         c.card.writeBytes(c.boot() + 6 * 512 + 510, std::string(2, '\0'));
       },
       "PBR backup signature failed", velt::kVELTBadPBR},
      {"boot sector of a FAT16 (root entries)",
       [](Ctx& c) {
         c.setField(c.boot() + 17, 512, 2);
         c.setField(c.boot() + 6 * 512 + 17, 512, 2);
       },
       "This partition is not type of FAT32!", velt::kVELTBadPBR},
      {"partition reaching past 2^32 sectors",
       [](Ctx& c) { c.setField(446 + 12, 0xFFFFFFFFu, 4); }, "beyond the 2^32 sectors",
       velt::kVELTNoFAT32Partition},
      {"backup FSInfo would land on the first FAT (mkfs.fat -R 8 -b 7)",
       [](Ctx& c) {
         auto r = velt::test::runShell(
             "mkfs.fat -F 32 -s 1 -R 8 -b 7 --offset " +
             std::to_string(c.card.partitionOffset() / 512) + " " +
             velt::test::shellQuote(c.card.image()) + " 2>&1");
         ASSERT_EQ(r.status, 0) << r.out;
         fill(c.card);
       },
       nullptr, 0, false, {},
       {},
       [](Ctx&, VELT& v) {
         ASSERT_NE(v.newEntry(v.root_, "made after mount", true), nullptr);
         v.pbr_->updateFSInfo();  // as the front end's mkdir does
       }},
      {"FSInfo and its backup without their signatures",
       [](Ctx& c) {
         c.card.writeBytes(c.img.fsinfoOffset(), "XXXX");
         c.card.writeBytes(c.img.fsinfoOffset(true), "XXXX");
       },
       "FSInfo rebuilt"},
      {"FAT entries with their reserved top bits set",
       [](Ctx& c) {
         for (uint32_t cl : c.img.chain(c.delta()))
           c.img.setFat(cl, c.img.fat(cl) | 0xA0000000u);
         for (uint32_t cl : c.img.chain(c.cluster("", "charlie.txt")))
           c.img.setFat(cl, c.img.fat(cl) | 0x30000000u);
       },
       nullptr, 0, false, {}, {},
       [](Ctx& c, VELT& v) {
         // The top bits stay when an entry is written again.
         auto e = v.newEntry(v.root_, "written after", false);
         ASSERT_NE(e, nullptr);
         const uint32_t first = c.cluster("", "charlie.txt");
         EXPECT_EQ(v.pbr_->fat1_[first] >> 28, 3u);
       }},
      {"FAT copies that differ",
       [](Ctx& c) {
         c.setField(c.img.fatOffset(1, 1000), 0x0FFFFFF8, 4);
         c.setField(c.img.fatOffset(1, c.cluster("", "charlie.txt")), 1001, 4);
       },
       "clear damaged FATs"},
      {"first FAT unreadable in one sector, second intact",
       [](Ctx& c) { c.card.writeBytes(c.img.fatOffset(0, 0), std::string(512, '\x5A')); },
       "taken from FAT2", 0, false, {}, {32}},
      {"first FAT all garbage (served read-only, nothing freed; the checker repairs it)",
       [](Ctx& c) {
         const int64_t bytes = c.img.fatOffset(1, 0) - c.img.fatOffset(0, 0);
         std::string junk = velt::test::patternBytes(static_cast<size_t>(bytes), 99);
         c.card.writeBytes(c.img.fatOffset(0, 0), junk);
       },
       "served read-only", 0, true},
      {"folder unreadable in one sector (the mount fails, nothing deleted)",
       [](Ctx&) {}, "read error", velt::kVELTNeedFormat, false, {}, {0xFFFFFFFF}},
      {"lost chains no entry reaches, one a loop",
       [](Ctx& c) {
         const uint32_t last = c.img.clusterCount() - 1;
         c.img.setFat(last - 1, last);
         c.img.setFat(last, 0x0FFFFFF8);
         c.img.setFat(1000, 1001);
         c.img.setFat(1001, 1000);
       }},
      {"folder record pointing at a file of the same folder",
       [](Ctx& c) { c.folderInto("foxtrot number one.txt", "", "alpha long name file.txt"); },
       "is another entry's", 0, false, {"foxtrot number one.txt"}},
      {"folder record pointing at a file deeper down",
       [](Ctx& c) { c.folderInto("alpha long name file.txt", "golf dir", "note.txt"); },
       "it is no folder", 0, false, {"alpha long name file.txt"}},
      {"file chain ending in a free FAT entry",
       [](Ctx& c) { c.img.setFat(c.img.chain(c.cluster("", "charlie.txt")).back(), 0); },
       "runs into a free cluster", 0, false, {}, {},
       [](Ctx&, VELT& v) {
         // The next file written must not take the clusters over.
         auto e = v.newEntry(v.root_, "written after", false);
         ASSERT_NE(e, nullptr);
         auto f = v.newFile(false, true, false, e);
         ASSERT_NE(f, nullptr);
         std::string data = velt::test::patternBytes(9000, 5);
         EXPECT_EQ(f->write(data.data(), data.size(), 0), 9000);
         f->close();
         v.freeFile(f->file_no_);
       }},
      {"file whose first cluster is out of range",
       [](Ctx& c) {
         c.setCluster(c.entry(c.img.rootCluster(), "README.TXT").sfn, 0x0FFFFF00);
       },
       "cut to size 0", 0, false, {"README.TXT"}},
      {"file chain looping back on itself",
       [](Ctx& c) {
         auto chain = c.img.chain(c.cluster("", "bravo has a much longer name here.txt"));
         c.img.setFat(chain.back(), chain.front());
       },
       "runs into a cluster already used"},
      {"two files sharing a tail (cross-link)",
       [](Ctx& c) {
         auto one = c.img.chain(c.cluster("", "foxtrot number one.txt"));
         auto two = c.img.chain(c.cluster("", "foxtrot number two.txt"));
         c.img.setFat(two[2], one[3]);
       },
       "runs into a cluster already used", 0, false, {"foxtrot number two.txt"}},
      {"file chain running into a bad cluster",
       [](Ctx& c) {
         auto chain = c.img.chain(c.cluster("", "echo file with long name.txt"));
         c.img.setFat(chain[1], 0x0FFFFFF7);
       },
       "runs into a bad cluster", 0, false, {"echo file with long name.txt"}},
      {"file size beyond its chain",
       [](Ctx& c) { c.setField(c.entry(c.img.rootCluster(), "charlie.txt").sfn + 28, 100000, 4); },
       "is beyond its", 0, false, {"charlie.txt"}},
      {"folder pointing at itself",
       [](Ctx& c) {
         const uint32_t delta = c.delta();
         std::string r = c.img.record(c.entry(delta, "DEEPER").sfn);
         r.replace(0, 11, "SELF       ");
         int64_t slot = c.freeSlot(delta);
         c.img.putRecord(slot, r);
         c.setCluster(slot, delta);
       },
       "is another entry's"},
      {"folder pointing at its parent",
       [](Ctx& c) { c.setCluster(c.entry(c.delta(), "DEEPER").sfn, c.delta()); },
       "is another entry's", 0, false, {"delta dir/deeper/leaf.txt"}},
      {"two records sharing one chain (a rename cut short)",
       [](Ctx& c) {
         const uint32_t root = c.img.rootCluster();
         std::string r = c.img.record(c.entry(root, "README.TXT").sfn);
         r.replace(0, 11, "README2 TXT");
         c.img.putRecord(c.freeSlot(root), r);
       },
       "is a second record"},
      {"long name with a record missing",
       [](Ctx& c) {
         auto e = c.entry(c.img.rootCluster(), "bravo has a much longer name here.txt");
         c.img.putRecord(e.lfn[1], c.img.record(e.lfn[0]));
         c.img.putByte(e.lfn[0], 0xE5);
       },
       "invalid LFN order number seq 1", 0, false, {"bravo has a much longer name here.txt"}},
      {"long name whose checksum does not match",
       [](Ctx& c) {
         auto e = c.entry(c.img.rootCluster(), "alpha long name file.txt");
         for (int64_t off : e.lfn) c.img.putByte(off + 13, c.img.byteAt(off + 13) ^ 0x5A);
       },
       "LFN checksum error", 0, false, {"alpha long name file.txt"}},
      {"long name left behind its deleted name record",
       [](Ctx& c) {
         c.img.putByte(c.entry(c.img.rootCluster(), "echo file with long name.txt").sfn, 0xE5);
       },
       "orphaned long-name records", 0, false, {"echo file with long name.txt"}},
      {"dot records pointing elsewhere",
       [](Ctx& c) {
         c.setCluster(c.img.records(c.delta())[1], 4321);
         c.setCluster(c.img.records(c.deeper())[0], 99);
       },
       "pointed at cluster"},
      {"folder without its dot records (a mkdir cut short)",
       [](Ctx& c) {
         auto recs = c.img.records(c.deeper());
         c.img.putRecord(recs[0], std::string(32, '\0'));
         c.img.putRecord(recs[1], std::string(32, '\0'));
       },
       "had no \"..\" record"},
      {"dot record with a file's attributes",
       [](Ctx& c) { c.img.putByte(c.img.records(c.delta())[0] + 11, 0x20); },
       "had no \".\" record"},
      {"dot-dot record taken for a long-name record",
       [](Ctx& c) { c.img.putByte(c.img.records(c.deeper())[1] + 11, 0x0F); },
       "had no \"..\" record"},
      {"name record in the dot-dot slot (the folder's records shifted)",
       [](Ctx& c) {
         auto leaf = c.entry(c.deeper(), "leaf.txt");
         c.img.putRecord(c.img.records(c.deeper())[1], c.img.record(leaf.sfn));
         for (int64_t off : leaf.lfn) c.img.putByte(off, 0xE5);
         c.img.putByte(leaf.sfn, 0xE5);
       },
       "moved to slot"},
      {"records flagged as having no short name (a file's, a dot record)",
       [](Ctx& c) {
         c.img.putByte(c.entry(c.img.rootCluster(), "README.TXT").sfn + 12, 0x20);
         c.img.putByte(c.img.records(c.deeper())[1] + 12, 0x20);
       },
       "flag cleared"},
      {"FAT entry 0 damaged in the first copy",
       [](Ctx& c) { c.setField(c.img.fatOffset(0, 0), 0x0FFFFF00, 4); }, "FAT entry 0 was"},
      {"FAT entry 1 without its clean flags", [](Ctx& c) { c.img.setFat(1, 0x03FFFFFF); },
       "FAT entry 1 was"},
      {"recording's chain running into a long file's (VELT card)",
       [](Ctx& c) { c.img.setFat(c.reservedChain(0)[5], c.chainOf("", kLongFile)[100]); },
       "recording in reserved file 1 is damaged", 0, false, {kRecording}, {}, nullptr, true},
      {"free reserved file's chain running into a long file's (VELT card)",
       [](Ctx& c) { c.img.setFat(c.reservedChain(1)[3], c.chainOf("", kLongFile)[100]); },
       "gets a new one", 0, false, {}, {}, nullptr, true},
  };
}

}  // namespace

TEST(DamagedCard, EachDamageIsRefusedOrRepairedOnceWithoutHarmToIntactFiles) {
  CardImage pristine(smallCard()), pristine_velt(smallCard());
  ASSERT_TRUE(pristine.ok() && pristine_velt.ok()) << pristine.error();
  ASSERT_NO_FATAL_FAILURE(fill(pristine));
  ASSERT_EQ(pristine.fsck().status, 0);
  ASSERT_NO_FATAL_FAILURE(fillVelt(pristine_velt));
  const std::string recording = pristine_velt.type(std::string("/") + kRecording);
  ASSERT_EQ(recording.substr(0, 3000), contentOf(kRecording));

  const char* only = getenv("VELT_DAMAGE_ROW");  // runs the rows whose text holds this
  for (const Row& row : rows()) {
    if (only != nullptr && strstr(row.what, only) == nullptr) continue;
    SCOPED_TRACE(row.what);
    CardImage card(smallCard());
    ASSERT_TRUE(card.ok());
    ASSERT_TRUE(card.copyFrom(row.velt ? pristine_velt : pristine));
    Ctx ctx{card, FatImage(card)};
    ASSERT_NO_FATAL_FAILURE(row.damage(ctx));
    const std::string before = row.refused != 0 || row.read_only ? card.contents() : "";

    FaultyMount m;
    if (row.unreadable.empty()) {
      m.l = velt::test::loadCard(card);
    } else {
      std::set<uint32_t> bad;
      const uint32_t part = static_cast<uint32_t>(card.partitionOffset() / 512);
      for (uint32_t s : row.unreadable) {
        // 0xFFFFFFFF: the first sector of the folder "delta dir".
        bad.insert(s == 0xFFFFFFFF ? static_cast<uint32_t>(ctx.img.clusterOffset(ctx.delta()) / 512)
                                   : part + s);
      }
      mountFaulty(card, bad, &m);
    }
    if (row.text != nullptr) {
      EXPECT_NE(m.l.log.find(row.text), std::string::npos) << m.l.log;
    }
    if (row.refused != 0) {
      EXPECT_EQ(m.l.error, row.refused) << m.l.log;
      m.unload();
      EXPECT_TRUE(card.contents() == before) << "a refused card was written";
      continue;
    }
    ASSERT_EQ(m.l.error, 0) << m.l.log;
    ASSERT_NE(m.l.volume, nullptr);
    EXPECT_EQ(m.l.volume->read_only_.load(), row.read_only);
    if (row.then) {
      ASSERT_NO_FATAL_FAILURE(row.then(ctx, *m.l.volume));
    }
    testing::internal::CaptureStdout();
    m.l.volume.reset();
    testing::internal::GetCapturedStdout();
    m.unload();
    if (row.read_only) {
      EXPECT_TRUE(card.contents() == before) << "a card served read-only was written";
      // The checker is the way out: after it, the card mounts read-write like any other.
      auto repair = velt::test::runShell(std::string(VELT_BINARY_DIR) + "/fsck.velt -a " +
                                         velt::test::shellQuote(card.image()));
      EXPECT_EQ(repair.status, 1) << repair.out << repair.err;
    }

    Loaded again = velt::test::loadCard(card);
    ASSERT_EQ(again.error, 0) << again.log;
    EXPECT_FALSE(again.volume->read_only_.load());
    EXPECT_EQ(repairLines(again.log), "") << "the second mount repaired again";
    if (row.velt) {
      EXPECT_TRUE(velt::test::fsckShowsOnlyReservedFiles(
          card, velt::test::expectedReservedReport(*again.volume, card)));
    }
    again.volume.reset();
    if (!row.velt) {
      auto fsck = card.fsck("-n");
      EXPECT_EQ(fsck.status, 0) << fsck.out;
    }
    for (const std::string& f : files()) {
      if (row.changed.count(f)) continue;
      EXPECT_TRUE(card.type("/" + f) == contentOf(f)) << f;
    }
    if (row.velt && !row.changed.count(kRecording)) {
      EXPECT_TRUE(card.type(std::string("/") + kRecording) == recording);
    }
    if (row.velt) {
      EXPECT_TRUE(card.type(std::string("/") + kLongFile).substr(0, 3000) == contentOf(kLongFile));
    }
  }
}
