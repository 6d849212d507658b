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
