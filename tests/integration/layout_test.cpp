// The card layout as our code reads it, judged against what fsck.fat and minfo report.
#include <gtest/gtest.h>

#include <cstring>
#include <regex>
#include <string>

#include "card_volume.h"
#include "fs/velt.h"
#include "fs/velt_endian.h"

using velt::test::CardImage;
using velt::test::CardSpec;
using velt::test::Loaded;

namespace {

Loaded load(const CardImage& card, int mode = velt::kVELTOpMount) {
  return velt::test::loadCard(card, mode);
}

int64_t minfoField(const std::string& out, const std::string& re) {
  std::smatch m;
  if (!std::regex_search(out, m, std::regex(re))) return -1;
  return std::stoll(m[1]);
}

}  // namespace

TEST(CardLayout, GeometryMatchesTheFatTools) {
  struct Row {
    int64_t size_mb;
    int spc;
    int slot;
  } rows[] = {{64, 1, 1}, {300, 8, 1}, {2200, 64, 1}, {300, 8, 2}};
  for (const auto& r : rows) {
    SCOPED_TRACE("spc " + std::to_string(r.spc) + " slot " + std::to_string(r.slot));
    CardSpec spec;
    spec.size_mb = r.size_mb;
    spec.sectors_per_cluster = r.spc;
    spec.slot = r.slot;
    CardImage card(spec);
    ASSERT_TRUE(card.ok()) << card.error();
    auto fsck = card.fsck("-n -v");
    ASSERT_EQ(fsck.status, 0) << fsck.out;
    auto f = velt::test::parseFsckVerbose(fsck.out);
    auto minfo = card.mtools("minfo ::");
    ASSERT_EQ(minfo.status, 0) << minfo.err;

    Loaded l = load(card);
    ASSERT_EQ(l.error, 0);
    ASSERT_NE(l.volume, nullptr);
    velt::PBR& pbr = *l.volume->pbr_;
    EXPECT_FALSE(pbr.is_velt_partition_);
    EXPECT_EQ(pbr.bytes_per_sector_, f["bytes_per_sector"]);
    EXPECT_EQ(pbr.cluster_length_, f["bytes_per_cluster"]);
    EXPECT_EQ(pbr.sectors_per_cluster_, minfoField(minfo.out, R"(cluster size: (\d+) sectors)"));
    EXPECT_EQ(pbr.reserved_sectors_, f["reserved_sectors"]);
    EXPECT_EQ(pbr.num_fats_, f["fats"]);
    EXPECT_EQ(pbr.fat_sectors_, f["fat_sectors"]);
    EXPECT_EQ(pbr.data_start_sector_, f["data_sector"]);
    EXPECT_EQ(pbr.num_clusters_ - 2, f["data_clusters"]);
    EXPECT_EQ(pbr.root_cluster_, f["root_cluster"]);
    EXPECT_EQ(pbr.root_cluster_, minfoField(minfo.out, R"(rootCluster=(\d+))"));
    EXPECT_EQ(pbr.free_cluster_count_, minfoField(minfo.out, R"(free clusters=(\d+))"));
    EXPECT_EQ(pbr.free_cluster_count_, f["total_clusters"] - f["used_clusters"]);
    EXPECT_EQ(l.volume->disk_size_, (r.size_mb << 20) - card.partitionOffset());
    // FAT contents: media entry, the reserved entry, the root's end of chain, then free.
    EXPECT_EQ(pbr.fat1_[0], 0x0FFFFFF8u);
    EXPECT_EQ(pbr.fat1_[1], 0x0FFFFFFFu);
    EXPECT_GE(pbr.fat1_[2], 0x0FFFFFF8u);
    EXPECT_EQ(pbr.fat1_[3], 0u);
    EXPECT_FALSE(pbr.fat_damaged_);
    EXPECT_EQ(l.volume->init(), -1) << "a loaded volume is not loaded again";
    EXPECT_EQ(l.volume->state_, velt::kVELTStateLoaded);
  }
}

// Damaged boot sectors are rows of the damaged-card table; the partition table's refusals here.
TEST(CardLayout, PartitionTableRefusals) {
  CardImage card;
  ASSERT_TRUE(card.ok()) << card.error();

  // No MBR signature: code 5. A partition number without an entry: code 2.
  card.writeBytes(510, std::string("\0\0", 2));
  EXPECT_EQ(load(card).error, velt::kVELTBadMBR);
  card.writeBytes(510, "\x55\xAA");
  {
    CardImage::RootScope scope(card);
    int error = 0;
    EXPECT_EQ(velt::VELT::create("/dev/mmcblk0p2", 0, 0, 0, &error), nullptr);
    EXPECT_EQ(error, velt::kVELTNoFAT32Partition);
  }
}

TEST(CardLayout, VeltMarkAndVersion) {
  CardImage card;
  ASSERT_TRUE(card.ok()) << card.error();
  const int64_t part = card.partitionOffset();
  // A VELT mark without a valid format-information record runs as plain FAT32.
  card.writeBytes(part + 3, "VELT1.0P");
  Loaded l = load(card);
  ASSERT_NE(l.volume, nullptr);
  EXPECT_FALSE(l.volume->pbr_->is_velt_partition_);
  l.volume.reset();
  EXPECT_EQ(load(card, velt::kVELTOpExclusive).error, velt::kVELTNotVELT);

  // With a valid record the major version decides.
  struct Row {
    uint16_t major, minor;
    int error;
  } rows[] = {{2, 9, velt::kVELTBadVELT}, {4, 0, velt::kVELTBadVELT}, {3, 9, 0}, {3, 1, 0}};
  for (const Row& r : rows) {
    SCOPED_TRACE(std::to_string(r.major) + "." + std::to_string(r.minor));
    l.volume.reset();  // unloading writes FSInfo
    velt::FormatInfo info;
    info.magic1 = velt::VELT_FSINFO_MAGIC1;
    info.magic2 = velt::VELT_FSINFO_MAGIC2;
    info.version_major = r.major;
    info.version_minor = r.minor;
    memcpy(info.signature, "sig-of-card!", 12);
    std::string record(velt::VELT_FORMAT_INFO_SIZE, '\0');
    info.encode(reinterpret_cast<uint8_t*>(record.data()));
    card.writeBytes(part + 512 + 4, record);
    l = load(card);
    EXPECT_EQ(l.error, r.error) << l.log;
    if (l.volume == nullptr) continue;
    EXPECT_TRUE(l.volume->pbr_->is_velt_partition_);
    EXPECT_EQ(l.volume->format_info_.version_minor, r.minor);
    char sig[13];
    EXPECT_EQ(l.volume->getSignature(sig, sizeof(sig)), 12);
    EXPECT_STREQ(sig, "sig-of-card!");
  }
}
