// A FAT32 file system laid down by our own code, judged by fsck.fat and mtools.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "card_volume.h"
#include "fs/velt.h"

using velt::test::CardImage;
using velt::test::CardSpec;

namespace {

// Runs the layout side of a format operation on the card: whatever is missing (partition
// table, boot record) is made, the root cluster cleared, then everything written in order.
void formatCard(const CardImage& card, const char* label) {
  CardImage::RootScope scope(card);
  auto v = std::make_shared<velt::VELT>(card.devicePath(), 1, velt::kVELTOpFormat, 0);
  v->format_mode_ = velt::kVELTFormatModeN;
  v->format_info_.magic1 = velt::VELT_FSINFO_MAGIC1;
  v->format_info_.magic2 = velt::VELT_FSINFO_MAGIC2;
  v->format_info_.version_major = velt::VELT_VERSION_MAJOR;
  v->format_info_.version_minor = velt::VELT_VERSION_MINOR;
  ASSERT_EQ(v->init(), 0);
  ASSERT_TRUE(v->pbr_->valid_);
  // A fresh PBR is formatted, a readable one kept: start from a blank table either way.
  ASSERT_EQ(v->pbr_->format(), 0);
  ASSERT_EQ(v->pbr_->markVELT(label), 0);
  // An empty root holding only the volume-label record, as the volume format leaves it.
  std::vector<uint8_t> root(v->pbr_->zeros_);
  memset(root.data(), ' ', 11);
  memcpy(root.data(), label, strlen(label));
  root[11] = 0x08;
  v->write(root.data(), v->pbr_->cluster_length_, v->clusterOffset(v->pbr_->root_cluster_), true);
  ASSERT_EQ(v->mbr_->write(), 0);
  ASSERT_EQ(v->pbr_->write(), 0);
  // The format's FAT lock count is released at unload, writing both FATs and FSInfo.
}

}  // namespace

TEST(Mkfs, OurFormatPassesTheFatTools) {
  struct Row {
    const char* name;
    bool table;  // false: a blank card, the partition table is made too
  } rows[] = {{"blank card", false}, {"partitioned card", true}};
  for (const auto& r : rows) {
    SCOPED_TRACE(r.name);
    CardSpec spec;
    spec.size_mb = 1100;  // FAT32 wants at least 65525 clusters of 16 KiB
    spec.format = false;
    CardImage card(spec);
    ASSERT_TRUE(card.ok()) << card.error();
    if (!r.table) card.writeBytes(0, std::string(512, '\0'));
    formatCard(card, "CAM");
    if (HasFatalFailure()) return;

    auto fsck = card.fsck("-n -v");
    EXPECT_EQ(fsck.status, 0) << fsck.out << fsck.err;
    auto f = velt::test::parseFsckVerbose(fsck.out);
    EXPECT_EQ(f["bytes_per_cluster"], 16384);
    EXPECT_EQ(f["reserved_sectors"], 32);
    EXPECT_EQ(f["used_clusters"], 1);
    auto mdir = card.mtools("mdir ::/");
    EXPECT_EQ(mdir.status, 0) << mdir.err;
    EXPECT_NE(mdir.out.find("Volume in drive : is CAM"), std::string::npos) << mdir.out;
    auto minfo = card.mtools("minfo ::");
    EXPECT_NE(minfo.out.find("disk type=\"FAT32   \""), std::string::npos) << minfo.out;
    EXPECT_EQ(card.readBytes(card.partitionOffset() + 3, 8), "VELT1.0N");

    // It loads back as a VELT volume with its format information, and takes a file.
    {
      velt::test::Loaded l = velt::test::loadCard(card);
      ASSERT_EQ(l.error, 0) << l.log;
      EXPECT_TRUE(l.volume->isVELTPartition());
      EXPECT_EQ(l.volume->format_info_.version_major, 3);
    }
    card.put("/F.BIN", velt::test::patternBytes(100000, 1));
    EXPECT_EQ(card.fsck("-n").status, 0);
  }
}
