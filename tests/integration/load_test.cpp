// Loading the tree from cards made by mkfs.fat and mtools, with directory bytes damaged by
// hand: each damage is repaired as the loader promises, and fsck.fat agrees with the result.
// In exclusive mode the same cards are refused (or loaded without repair) and never written.
#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "card_volume.h"
#include "fat_records.h"
#include "fs/velt.h"
#include "fs/velt_dirent.h"
#include "fs/velt_file.h"
#include "fs/velt_load.h"

using velt::VELT;
using velt::test::CardImage;
using velt::test::CardSpec;
using velt::test::FatImage;
using velt::test::Loaded;

namespace {

// 64 MiB, 512-byte clusters: directories span several clusters quickly.
CardSpec smallCard() {
  CardSpec spec;
  spec.size_mb = 64;
  spec.sectors_per_cluster = 1;
  return spec;
}

// Root: three long names (2 and 3 records), a lower-case 8.3 name, an upper-case one, a folder
// with a file and a subfolder, filler files so the root spans two clusters, and a long name as
// the last entry.
void fill(const CardImage& card) {
  const std::string data = velt::test::patternBytes(3000, 1);
  auto copy = [&](const std::string& to) { card.put("/" + to, data); };
  auto mkdir = [&](const std::string& to) { card.mkdir("/" + to); };
  copy("alpha long name file.txt");
  copy("bravo has a much longer name here.txt");
  copy("charlie.txt");
  copy("README.TXT");
  mkdir("delta dir");
  copy("delta dir/inner file.txt");
  mkdir("delta dir/deeper");
  copy("delta dir/deeper/leaf.txt");
  copy("foxtrot number one.txt");
  copy("foxtrot number two.txt");
  copy("echo file with long name.txt");
}

std::set<std::string> childNames(const std::shared_ptr<VELT::DirEntry>& dir) {
  std::set<std::string> names;
  if (dir == nullptr) return names;
  for (const auto& c : dir->children_) names.insert(c->name_);
  return names;
}

// What a damage must lead to after a mount-mode load.
struct Outcome {
  std::string dir = "/";             // directory that holds the damage
  std::vector<int64_t> deleted;      // records that must read 0xE5 on the card
  std::vector<std::string> present;  // names the loaded directory has
  std::vector<std::string> absent;   // names it must not have
  std::vector<uint32_t> freed;       // clusters that must be free afterwards
};

struct RepairCase {
  const char* what;
  const char* message;     // logged by the repair
  bool exclusive_refused;  // kVELTOpExclusive: -EBADF (else loads without repairing)
  std::function<Outcome(const FatImage&)> damage;
};

const std::vector<RepairCase>& repairCases() {
  static const std::vector<RepairCase> cases = {
      {"long-name order missing", "invalid LFN order number seq 1", false,
       [](const FatImage& img) {
         auto e = *img.find(img.rootCluster(), "bravo has a much longer name here.txt");
         // 0x43 0x02 0x01 becomes (deleted) 0x43 0x01: order 2 is missing.
         img.putRecord(e.lfn[1], img.record(e.lfn[0]));
         img.putByte(e.lfn[0], 0xE5);
         Outcome o;
         o.deleted = {e.lfn[1], e.lfn[2]};
         o.present = {img.shortName(e.sfn)};
         o.absent = {e.name};
         return o;
       }},
      {"sequence without its short-name record before an empty record",
       "Empty(last) entry met while LFN valid, mark deleted ones (order 1~3)", false,
       [](const FatImage& img) {
         auto all = img.entries(img.rootCluster());
         auto e = all.back();
         EXPECT_EQ(e.name, "echo file with long name.txt");
         img.putRecord(e.sfn, std::string(32, '\0'));
         Outcome o;
         o.deleted = e.lfn;
         o.absent = {e.name};
         o.freed = img.chain(e.cluster);
         return o;
       }},
      {"first-cluster field set in a long-name record",
       "LFN FstClusLO is not zero, mark all LFNs as deleted (order 1~2)", false,
       [](const FatImage& img) {
         auto e = *img.find(img.rootCluster(), "alpha long name file.txt");
         img.putByte(e.lfn[1] + 26, 5);
         Outcome o;
         o.deleted = e.lfn;
         o.present = {img.shortName(e.sfn)};
         o.absent = {e.name};
         return o;
       }},
      {"long-name checksum mismatch", "LFN checksum error, mark all LFNs as deleted ones", true,
       [](const FatImage& img) {
         auto e = *img.find(img.rootCluster(), "bravo has a much longer name here.txt");
         for (int64_t off : e.lfn) img.putByte(off + 13, img.byteAt(off + 13) ^ 0x5A);
         Outcome o;
         o.deleted = e.lfn;
         o.deleted.push_back(e.sfn);
         o.absent = {e.name, img.shortName(e.sfn)};
         o.freed = img.chain(e.cluster);
         return o;
       }},
      {"comma in a short name (a plus sign is fine)", "SFN name has invalid character", true,
       [](const FatImage& img) {
         auto e = *img.find(img.rootCluster(), "alpha long name file.txt");
         std::string r = img.record(e.sfn);
         r[4] = ',';
         img.putRecord(e.sfn, r);
         for (int64_t off : e.lfn) img.putByte(off + 13, velt::test::nameChecksum(r.substr(0, 11)));
         auto readme = *img.find(img.rootCluster(), "README.TXT");
         img.putByte(readme.sfn + 4, '+');
         Outcome o;
         o.deleted = e.lfn;
         o.deleted.push_back(e.sfn);
         o.present = {"READ+E.TXT"};
         o.absent = {e.name, img.shortName(e.sfn)};
         o.freed = img.chain(e.cluster);
         return o;
       }},
      {"subdirectory whose chain is broken", "bad cluster chain", true,
       [](const FatImage& img) {
         auto e = *img.find(img.rootCluster(), "delta dir");
         Outcome o;
         o.freed = img.chain(e.cluster);
         for (const auto& inner : img.entries(e.cluster)) {
           for (uint32_t c : img.chain(inner.cluster)) o.freed.push_back(c);
         }
         img.setFat(e.cluster, 0x0FFFFFF7);
         o.deleted = e.lfn;
         o.deleted.push_back(e.sfn);
         o.absent = {e.name, img.shortName(e.sfn)};
         return o;
       }},
      {"subdirectory pointing back at the root", "loading [", true,
       [](const FatImage& img) {
         auto delta = *img.find(img.rootCluster(), "delta dir");
         auto e = *img.find(delta.cluster, "DEEPER");
         Outcome o;
         o.dir = "/delta dir";
         o.freed = img.chain(e.cluster);
         std::string r = img.record(e.sfn);
         velt::test::putLe(&r, 20, img.rootCluster() >> 16, 2);
         velt::test::putLe(&r, 26, img.rootCluster() & 0xFFFF, 2);
         img.putRecord(e.sfn, r);
         o.deleted = {e.sfn};
         o.present = {"inner file.txt"};
         o.absent = {"deeper"};
         return o;
       }},
      {"long-name start record with order above 20",
       "invalid LFN order number, mark it deleted one", true,
       [](const FatImage& img) {
         auto e = *img.find(img.rootCluster(), "alpha long name file.txt");
         img.putByte(e.lfn[0], 0x40 | 21);
         Outcome o;
         o.deleted = e.lfn;
         o.present = {img.shortName(e.sfn)};
         o.absent = {e.name};
         return o;
       }},
      {"long name that is not UTF-16", "LFN has invalid character, mark all as deleted ones", true,
       [](const FatImage& img) {
         auto e = *img.find(img.rootCluster(), "alpha long name file.txt");
         img.putByte(e.lfn[0] + 1, 0x00);
         img.putByte(e.lfn[0] + 2, 0xD8);  // a lone high surrogate
         Outcome o;
         o.deleted = e.lfn;
         o.deleted.push_back(e.sfn);
         o.absent = {e.name, img.shortName(e.sfn)};
         o.freed = img.chain(e.cluster);
         return o;
       }},
  };
  return cases;
}

}  // namespace

TEST(LoadTree, CleanCardLoadsEveryEntryAndWritesNoDirectory) {
  CardImage card(smallCard());
  ASSERT_TRUE(card.ok()) << card.error();
  ASSERT_NO_FATAL_FAILURE(fill(card));
  FatImage img(card);
  const uint32_t root = img.rootCluster();
  // A record after the end marker: still read by the loader.
  auto records = img.records(root);
  size_t first_empty = 0;
  while (img.byteAt(records[first_empty]) != 0) ++first_empty;
  std::string late(32, '\0');
  late.replace(0, 11, "LATE    TXT");
  late[11] = 0x20;
  img.putRecord(records[first_empty + 2], late);

  auto delta = *img.find(root, "delta dir");
  auto deeper = *img.find(delta.cluster, "DEEPER");
  std::string before;
  for (uint32_t dir : {root, delta.cluster, deeper.cluster}) {
    for (uint32_t c : img.chain(dir))
      before += card.readBytes(img.clusterOffset(c), img.clusterBytes());
  }

  Loaded l = velt::test::loadCard(card);
  ASSERT_EQ(l.error, 0) << l.log;
  EXPECT_EQ(l.log.find("modified, flush now"), std::string::npos) << l.log;
  EXPECT_EQ(childNames(l.volume->root_),
            (std::set<std::string>{
                "alpha long name file.txt", "bravo has a much longer name here.txt", "charlie.txt",
                "README.TXT", "delta dir", "foxtrot number one.txt", "foxtrot number two.txt",
                "echo file with long name.txt", "LATE.TXT"}));
  EXPECT_EQ(childNames(l.volume->findEntry("/delta dir")),
            (std::set<std::string>{".", "..", "inner file.txt", "deeper"}));
  EXPECT_EQ(childNames(l.volume->findEntry("/delta dir/deeper")),
            (std::set<std::string>{".", "..", "leaf.txt"}));

  // Record positions as the loader recorded them, against the independent reader.
  auto bravo_rec = *img.find(root, "bravo has a much longer name here.txt");
  auto bravo = l.volume->findEntry("/bravo has a much longer name here.txt");
  ASSERT_NE(bravo, nullptr);
  EXPECT_EQ(bravo->dir_ent_disk_off_, bravo_rec.sfn);
  ASSERT_EQ(bravo->lfn_ent_count_, 3);
  for (int k = 0; k < 3; ++k) EXPECT_EQ(bravo->lfn_disk_offsets_[k], bravo_rec.lfn[2 - k]);
  EXPECT_EQ(bravo->short_name_, "BRAVOH~1.TXT");
  EXPECT_EQ(bravo->size_, 3000);
  auto root_entry = l.volume->root_;
  ASSERT_EQ(root_entry->entry_map_.size(), records.size());
  for (size_t i = 0; i < records.size(); ++i) {
    EXPECT_EQ(root_entry->entry_map_[i], img.byteAt(records[i])) << "slot " << i;
  }
  l.volume.reset();

  std::string after;
  for (uint32_t dir : {root, delta.cluster, deeper.cluster}) {
    for (uint32_t c : img.chain(dir))
      after += card.readBytes(img.clusterOffset(c), img.clusterBytes());
  }
  EXPECT_TRUE(before == after) << "a directory was written";
}

TEST(LoadTree, DamagedRecordsAreRepairedAndFsckAgrees) {
  // One pristine plain card and one VELT card (no reserved folders) with the same contents.
  CardImage plain(smallCard());
  ASSERT_TRUE(plain.ok()) << plain.error();
  ASSERT_NO_FATAL_FAILURE(fill(plain));
  CardImage velt_card(smallCard());
  ASSERT_TRUE(velt_card.ok()) << velt_card.error();
  ASSERT_EQ(velt::test::formatCard(velt_card, velt::FormatInfo()), 0);
  ASSERT_NO_FATAL_FAILURE(fill(velt_card));
  ASSERT_EQ(plain.fsck().status, 0);
  ASSERT_EQ(velt_card.fsck().status, 0);

  for (const RepairCase& c : repairCases()) {
    SCOPED_TRACE(c.what);
    // Mount mode on the plain card: repaired, written back, fsck.fat finds nothing.
    CardImage card(smallCard());
    ASSERT_TRUE(card.ok());
    ASSERT_TRUE(card.copyFrom(plain));
    FatImage img(card);
    Outcome o = c.damage(img);

    Loaded l = velt::test::loadCard(card);
    ASSERT_EQ(l.error, 0) << l.log;
    EXPECT_NE(l.log.find(c.message), std::string::npos) << l.log;
    EXPECT_NE(l.log.find("modified, flush now"), std::string::npos);
    std::set<std::string> names = childNames(l.volume->findEntry(o.dir.c_str()));
    for (const auto& n : o.present) EXPECT_TRUE(names.count(n)) << n;
    for (const auto& n : o.absent) EXPECT_FALSE(names.count(n)) << n;
    EXPECT_TRUE(names.count("foxtrot number one.txt") || o.dir != "/");
    l.volume.reset();
    for (int64_t off : o.deleted) EXPECT_EQ(img.byteAt(off), 0xE5) << "record @" << off;
    for (uint32_t cl : o.freed) {
      EXPECT_EQ(img.fat(cl, 0), 0u) << cl;
      EXPECT_EQ(img.fat(cl, 1), 0u) << cl;
    }
    auto fsck = card.fsck("-n");
    EXPECT_EQ(fsck.status, 0) << fsck.out;
    // A second load finds nothing left to repair.
    Loaded again = velt::test::loadCard(card);
    ASSERT_EQ(again.error, 0);
    EXPECT_EQ(again.log.find("modified, flush now"), std::string::npos) << again.log;
    again.volume.reset();

    // Exclusive mode on the VELT card: refused or loaded, and the card is left as it was.
    CardImage vcard(smallCard());
    ASSERT_TRUE(vcard.ok());
    ASSERT_TRUE(vcard.copyFrom(velt_card));
    FatImage vimg(vcard);
    c.damage(vimg);
    std::string image_before = vcard.contents();
    Loaded x = velt::test::loadCard(vcard, velt::kVELTOpExclusive);
    if (c.exclusive_refused) {
      EXPECT_EQ(x.error, velt::kVELTNeedFormat) << x.log;
      EXPECT_EQ(x.volume, nullptr);
    } else {
      EXPECT_EQ(x.error, 0) << x.log;
      EXPECT_NE(x.log.find("skip this entry (not error)"), std::string::npos) << x.log;
    }
    x.volume.reset();
    EXPECT_TRUE(vcard.contents() == image_before) << "exclusive mode wrote to the card";
  }
}

TEST(LoadTree, LostClustersAreFreedAndFsInfoCountsThem) {
  CardImage card(smallCard());
  ASSERT_TRUE(card.ok()) << card.error();
  ASSERT_NO_FATAL_FAILURE(fill(card));
  FatImage img(card);
  // Two chains no entry reaches: one at the end of the FAT, one looping back on itself.
  const uint32_t last = img.clusterCount() - 1;
  img.setFat(last - 2, last - 1);
  img.setFat(last - 1, last);
  img.setFat(last, 0x0FFFFFF8);
  img.setFat(1000, 1001);
  img.setFat(1001, 1000);
  ASSERT_NE(card.fsck("-n").status, 0);

  Loaded l = velt::test::loadCard(card);
  ASSERT_EQ(l.error, 0) << l.log;
  const uint32_t free_in_memory = l.volume->pbr_->free_cluster_count_;
  l.volume.reset();
  for (uint32_t c : {last - 2, last - 1, last, 1000u, 1001u}) {
    EXPECT_EQ(img.fat(c, 0), 0u) << c;
    EXPECT_EQ(img.fat(c, 1), 0u) << c;
  }
  auto fsck = card.fsck("-n -v");
  EXPECT_EQ(fsck.status, 0) << fsck.out;
  auto f = velt::test::parseFsckVerbose(fsck.out);
  ASSERT_TRUE(f.count("total_clusters"));
  EXPECT_EQ(img.fsinfoFree(), f["total_clusters"] - f["used_clusters"]);
  EXPECT_EQ(free_in_memory, img.fsinfoFree());
}

TEST(BuildRoot, AnUnreadableRootLeavesTheFatAlone) {
  CardImage card(smallCard());
  ASSERT_TRUE(card.ok()) << card.error();
  ASSERT_NO_FATAL_FAILURE(fill(card));
  FatImage img(card);
  img.setFat(2, 0x0FFFFFF7);  // the root chain runs into a bad cluster: the root cannot be read
  const std::string before = card.contents();

  Loaded l = velt::test::loadCard(card);
  EXPECT_EQ(l.error, velt::kVELTNeedFormat) << l.log;
  EXPECT_EQ(l.volume, nullptr);
  EXPECT_TRUE(card.contents() == before) << "the files' clusters must not be freed";
}

TEST(BuildRoot, DifferingFatCopiesAreMadeEqual) {
  CardImage card(smallCard());
  ASSERT_TRUE(card.ok()) << card.error();
  ASSERT_NO_FATAL_FAILURE(fill(card));
  FatImage img(card);
  // The second copy alone claims a cluster (and names another successor for a used one).
  auto alpha = *img.find(img.rootCluster(), "alpha long name file.txt");
  std::string v(4, '\0');
  velt::test::putLe(&v, 0, 0x0FFFFFF8, 4);
  card.writeBytes(img.fatOffset(1, 1000), v);
  const uint32_t alpha_next = img.fat(alpha.cluster);
  velt::test::putLe(&v, 0, 1001, 4);
  card.writeBytes(img.fatOffset(1, alpha.cluster), v);

  Loaded l = velt::test::loadCard(card);
  ASSERT_EQ(l.error, 0) << l.log;
  EXPECT_NE(l.log.find("clear damaged FATs"), std::string::npos) << l.log;
  l.volume.reset();
  const int64_t fat_bytes = img.fatOffset(1, 0) - img.fatOffset(0, 0);
  EXPECT_TRUE(card.readBytes(img.fatOffset(0, 0), fat_bytes) ==
              card.readBytes(img.fatOffset(1, 0), fat_bytes));
  EXPECT_EQ(img.fat(1000, 1), 0u);
  EXPECT_EQ(img.fat(alpha.cluster, 1), alpha_next);
  EXPECT_EQ(card.fsck("-n").status, 0);
}

TEST(BuildRoot, FormatModeKeepsTheRootFilesOrNothing) {
  CardImage pristine(smallCard());
  ASSERT_TRUE(pristine.ok()) << pristine.error();
  ASSERT_NO_FATAL_FAILURE(fill(pristine));
  const std::set<std::string> root_files = {"alpha long name file.txt",
                                            "bravo has a much longer name here.txt",
                                            "charlie.txt",
                                            "README.TXT",
                                            "foxtrot number one.txt",
                                            "foxtrot number two.txt",
                                            "echo file with long name.txt"};
  struct Row {
    int extra;        // bit 0: the format keeps the root's files
    bool keep_files;  // what rebuildRoot is asked for
  } rows[] = {{1, true}, {1, false}, {0, false}};
  for (const Row& row : rows) {
    SCOPED_TRACE("extra " + std::to_string(row.extra) + " keep " + std::to_string(row.keep_files));
    CardImage card(smallCard());
    ASSERT_TRUE(card.ok());
    ASSERT_TRUE(card.copyFrom(pristine));
    std::string expected_data = card.type("/README.TXT");
    CardImage::RootScope scope(card);
    Loaded l = velt::test::loadCard(card, velt::kVELTOpFormat, row.extra);
    auto v = std::move(l.volume);
    ASSERT_NE(v, nullptr) << l.log;
    // In format mode the root's folders are never loaded; with extra bit 0 clear nothing is.
    std::set<std::string> loaded = childNames(v->root_);
    EXPECT_EQ(loaded, row.extra & 1 ? root_files : std::set<std::string>{});
    if ((row.extra & 1) == 0) {
      EXPECT_EQ(v->pbr_->free_cluster_count_, v->pbr_->num_clusters_ - 2);
    }

    // An open file stops the rebuild.
    if (row.extra & 1) {
      auto file = v->newFile(false, false, false, v->findEntry("/README.TXT"));
      ASSERT_NE(file, nullptr);
      testing::internal::CaptureStdout();
      EXPECT_EQ(v->rebuildRoot(row.keep_files), -1);
      EXPECT_NE(testing::internal::GetCapturedStdout().find("file(s) exist."), std::string::npos);
      EXPECT_EQ(v->freeFile(file->file_no_), 0);
    }
    testing::internal::CaptureStdout();
    EXPECT_EQ(v->rebuildRoot(row.keep_files), 0);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(childNames(v->root_), row.keep_files ? root_files : std::set<std::string>{});
    testing::internal::CaptureStdout();
    v.reset();  // releases the format's FAT lock: FATs and FSInfo are written
    testing::internal::GetCapturedStdout();

    auto fsck = card.fsck("-n -v");
    EXPECT_EQ(fsck.status, 0) << fsck.out;
    auto f = velt::test::parseFsckVerbose(fsck.out);
    EXPECT_EQ(FatImage(card).fsinfoFree(), f["total_clusters"] - f["used_clusters"]);
    auto dir = card.mtools("mdir -b ::/");
    EXPECT_EQ(dir.out.find("delta"), std::string::npos) << dir.out;
    if (row.keep_files) {
      EXPECT_EQ(f["files"], static_cast<int64_t>(root_files.size()));
      EXPECT_EQ(card.type("/README.TXT"), expected_data);
    } else {
      EXPECT_EQ(f["files"], 0) << fsck.out;
      EXPECT_EQ(f["used_clusters"], 1) << "only the root's cluster";
    }
  }
}

TEST(LoadTree, RecordDumpShowsOffsetsBytesAndCharacters) {
  uint8_t data[20];
  for (int i = 0; i < 20; ++i) data[i] = static_cast<uint8_t>(i < 16 ? 'A' + i : 0x7F + i);
  data[3] = 0x1F;
  testing::internal::CaptureStdout();
  velt::dumpRecords("InvLFN", data, 20);
  std::string out = testing::internal::GetCapturedStdout();
  char head[96];
  snprintf(head, sizeof(head), "dump of InvLFN, __data=%p, __size=20:\n", static_cast<void*>(data));
  EXPECT_EQ(out,
            std::string(head) +
                "   00000000  41 42 43 1f 45 46 47 48 49 4a 4b 4c 4d 4e 4f 50   ABC.EFGHIJKLMNOP\n"
                "   00000010  8f 90 91 92   ....\n");
}

TEST(LoadTree, RandomDirectoryBytesAreSurvivedAndRepairedOnce) {
  CardImage pristine(smallCard());
  ASSERT_TRUE(pristine.ok()) << pristine.error();
  ASSERT_NO_FATAL_FAILURE(fill(pristine));
  std::mt19937 rng(20240611);
  for (int round = 0; round < 12; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    CardImage card(smallCard());
    ASSERT_TRUE(card.ok());
    ASSERT_TRUE(card.copyFrom(pristine));
    FatImage img(card);
    auto delta = *img.find(img.rootCluster(), "delta dir");
    // Garbage over the root's second cluster and the folder's records after its dot entries,
    // biased towards the bytes that steer the scan.
    std::vector<int64_t> targets;
    auto root_records = img.records(img.rootCluster());
    targets.insert(targets.end(), root_records.begin() + 16, root_records.end());
    auto folder_records = img.records(delta.cluster);
    targets.insert(targets.end(), folder_records.begin() + 2, folder_records.end());
    for (int64_t off : targets) {
      std::string r(32, '\0');
      for (char& ch : r) ch = static_cast<char>(rng());
      static const uint8_t kFirst[] = {0x00, 0xE5, 0x41, 0x42, 0x43, 0x01, 0x02, 0x05, 'A', '.'};
      static const uint8_t kAttr[] = {0x0F, 0x0F, 0x10, 0x20, 0x08, 0x18};
      r[0] = static_cast<char>(kFirst[rng() % sizeof(kFirst)]);
      r[11] = static_cast<char>(kAttr[rng() % sizeof(kAttr)]);
      if (rng() % 2) r[26] = r[27] = 0;
      img.putRecord(off, r);
    }
    Loaded l = velt::test::loadCard(card);
    ASSERT_EQ(l.error, 0) << l.log;
    EXPECT_NE(l.log.find("modified, flush now"), std::string::npos);
    l.volume.reset();
    Loaded again = velt::test::loadCard(card);
    ASSERT_EQ(again.error, 0) << again.log;
    EXPECT_EQ(again.log.find("modified, flush now"), std::string::npos) << again.log;
  }
}
