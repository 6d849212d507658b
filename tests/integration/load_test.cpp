// Loading the tree from cards made by mkfs.fat and mtools, with directory bytes damaged by
// hand: each damage is repaired as the loader promises, and fsck.fat agrees with the result.
// In exclusive mode the same cards are refused (or loaded without repair) and never written.
#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
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

CardSpec smallCard() { return velt::test::smallClusterCard(64); }

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

struct RepairCase {
  const char* what;
  bool exclusive_refused;  // kVELTOpExclusive: -EBADF (else loads without repairing)
  std::function<void(const FatImage&)> damage;
};

const std::vector<RepairCase>& repairCases() {
  static const std::vector<RepairCase> cases = {
      {"long-name order missing", false,
       [](const FatImage& img) {
         auto e = *img.find(img.rootCluster(), "bravo has a much longer name here.txt");
         img.putRecord(e.lfn[1], img.record(e.lfn[0]));
         img.putByte(e.lfn[0], 0xE5);
       }},
      {"sequence without its short-name record before an empty record", false,
       [](const FatImage& img) {
         img.putRecord(img.entries(img.rootCluster()).back().sfn, std::string(32, '\0'));
       }},
      {"long-name checksum mismatch", true,
       [](const FatImage& img) {
         auto e = *img.find(img.rootCluster(), "bravo has a much longer name here.txt");
         for (int64_t off : e.lfn) img.putByte(off + 13, img.byteAt(off + 13) ^ 0x5A);
       }},
      {"comma in a short name", true,
       [](const FatImage& img) {
         img.putByte(img.find(img.rootCluster(), "README.TXT")->sfn + 4, ',');
       }},
      {"subdirectory whose chain runs into a bad cluster", true,
       [](const FatImage& img) {
         img.setFat(img.find(img.rootCluster(), "delta dir")->cluster, 0x0FFFFFF7);
       }},
      {"file size beyond its chain", true,
       [](const FatImage& img) {
         const int64_t sfn = img.find(img.rootCluster(), "README.TXT")->sfn;
         std::string r = img.record(sfn);
         velt::test::putLe(&r, 28, 100000, 4);
         img.putRecord(sfn, r);
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

// The repairs themselves are rows of the damaged-card table; here the same damage met in
// exclusive mode is refused, or loaded without repairing, and the card is never written.
TEST(LoadTree, ExclusiveModeNeverWritesADamagedCard) {
  CardImage velt_card(smallCard());
  ASSERT_TRUE(velt_card.ok()) << velt_card.error();
  ASSERT_EQ(velt::test::formatCard(velt_card, velt::FormatInfo()), 0);
  ASSERT_NO_FATAL_FAILURE(fill(velt_card));
  ASSERT_EQ(velt_card.fsck().status, 0);

  for (const RepairCase& c : repairCases()) {
    SCOPED_TRACE(c.what);
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
