// The in-memory FAT over a fake card: allocation, the counted lock and the sectors it writes,
// the format's geometry.
#include <gtest/gtest.h>

#include "fake_driver.h"
#include "fs/velt_endian.h"

using velt::FAT_EOC;
using velt_test::DriverRequest;
using velt_test::FakeVolume;

TEST(Fat, AllocationWrapsLoopingChainsEndAndAShortfallIsReported) {
  FakeVolume f(131072);  // 64 MiB: partition at 2048, 32 sectors a cluster, 2 FATs of 32 sectors
  ASSERT_TRUE(f.formatInMemory());
  auto* pbr = f.volume->pbr_;
  EXPECT_EQ(pbr->free_cluster_count_, pbr->num_clusters_ - 3);
  EXPECT_EQ(pbr->allocCluster(false), 3);
  EXPECT_EQ(pbr->next_free_cluster_number_, 4u);
  // The cursor at the last cluster, which is taken; then an unknown hint (0xFFFFFFFF).
  pbr->fat1_[pbr->num_clusters_ - 1] = FAT_EOC;
  pbr->next_free_cluster_number_ = pbr->num_clusters_ - 1;
  EXPECT_EQ(pbr->allocCluster(false), 4);
  pbr->next_free_cluster_number_ = 0xFFFFFFFFu;
  EXPECT_EQ(pbr->allocCluster(false), 5);
  // A chain that loops ends every walk with an error, and freeing it frees each cluster once.
  pbr->fat1_[30] = 31;
  pbr->fat1_[31] = 32;
  pbr->fat1_[32] = 30;
  EXPECT_FALSE(pbr->checkClusterChains(30, 1));
  EXPECT_EQ(pbr->getClusterCount(30), -1);
  EXPECT_EQ(pbr->setClusterChainUsed(30), -1);
  const uint32_t free_before = pbr->free_cluster_count_;
  EXPECT_EQ(pbr->freeClusterChains(30, false), 0);
  EXPECT_EQ(pbr->fat1_[30] | pbr->fat1_[31] | pbr->fat1_[32], 0u);
  EXPECT_EQ(pbr->free_cluster_count_, free_before + 3);
  // A nearly full table: every free cluster taken but 10, 20, 30, 40 and 50.
  for (uint32_t c = 3; c < pbr->num_clusters_; ++c) {
    if (c % 10 == 0 && c <= 50) continue;
    if (pbr->fat1_[c] == 0) pbr->fat1_[c] = FAT_EOC;
  }
  pbr->setClusterChainUsed(2);
  uint32_t first = static_cast<uint32_t>(pbr->allocCluster(false));
  ASSERT_EQ(first, 10u);
  pbr->next_free_cluster_number_ = 2;
  // Only 20, 30, 40, 50 are free: asking for 6 links those four and reports the shortfall;
  // 30, freed a moment ago with the looping chain, comes last. Their zeros reach the card,
  // flushed, before the first FAT write that links them.
  uint32_t out[6] = {};
  f.driver->requests.clear();
  EXPECT_EQ(pbr->allocClusters(first, 6, true, out), static_cast<int64_t>(FAT_EOC));
  EXPECT_EQ(std::ranges::find(f.driver->requests, DriverRequest{'w', 2080, 1})[-1].kind, 'f');
  EXPECT_EQ(std::vector<uint32_t>(out, out + 6),
            (std::vector<uint32_t>{20, 40, 50, 30, FAT_EOC, FAT_EOC}));
  EXPECT_EQ(pbr->getClusterCount(10), 5);
  EXPECT_EQ(pbr->fat1_[30], FAT_EOC);
  EXPECT_TRUE(pbr->isClusterUsed(30));
}

// Only the FAT sectors that changed are written, on every copy, merged into runs, one copy
// after the other; the last release adds FSInfo and its backup, and nothing when it is unchanged.
TEST(Fat, ChangedSectorsReachEveryCopyAsMergedRuns) {
  FakeVolume f(131072);
  ASSERT_TRUE(f.formatInMemory());
  auto* pbr = f.volume->pbr_;
  auto& reqs = f.driver->requests;
  const uint32_t fat1 = 2048 + 32, fat2 = fat1 + 32;
  auto writes = [&] {
    std::vector<DriverRequest> w;
    for (const auto& r : reqs) if (r.kind == 'w') w.push_back(r);
    reqs.clear();
    return w;
  };
  struct Case {
    std::vector<uint32_t> clusters;  // 128 entries a sector
    std::vector<DriverRequest> expect;
  } cases[] = {
      {{5, 127, 128, 130, 400, 400},
       {{'w', fat1, 2}, {'w', fat1 + 3, 1}, {'w', fat2, 2}, {'w', fat2 + 3, 1}}},
      {{300, 40, 260}, {{'w', fat1, 1}, {'w', fat1 + 2, 1}, {'w', fat2, 1}, {'w', fat2 + 2, 1}}},
  };
  for (const auto& c : cases) {
    pbr->lockFAT();
    for (uint32_t cluster : c.clusters) {
      pbr->fat1_[cluster] = FAT_EOC;
      pbr->__syncFATEntry(cluster);
    }
    EXPECT_TRUE(writes().empty()) << "nothing is written while locked";
    ASSERT_EQ(pbr->flushFATs(), 0);
    EXPECT_EQ(writes(), c.expect);
    pbr->unlockFAT(true);
    f.volume->flush();
    // Only FSInfo and its backup, once: the FAT was written already.
    auto rest = writes();
    EXPECT_LE(rest.size(), 2u);
    for (const auto& r : rest) EXPECT_TRUE(r.start == 2048 + 1 || r.start == 2048 + 7) << r.start;
  }
  // A change made under the lock reaches both copies at the last release; a flush that fails
  // (here on the data pending before it) stops before the second copy and keeps the sector due.
  pbr->lockFAT();
  pbr->lockFAT();
  pbr->fat1_[1000] = FAT_EOC;
  pbr->__syncFATEntry(1000);
  ASSERT_EQ(f.volume->write(std::string(512, 'd').data(), 512, 9000 * 512, true), 512);
  f.driver->queueWriteAnswer(0);
  EXPECT_EQ(pbr->flushFATs(), -1);
  EXPECT_EQ(writes(), (std::vector<DriverRequest>{{'w', 9000, 1}}));
  pbr->unlockFAT(true);
  EXPECT_TRUE(writes().empty()) << "one holder remains";
  pbr->unlockFAT(true);
  EXPECT_EQ(writes(), (std::vector<DriverRequest>{{'w', fat1 + 7, 1}, {'w', fat2 + 7, 1}}));
}

TEST(Format, GeometryByPartitionSize) {
  velt_test::FakeVolume f(8192);
  auto& v = *f.volume;
  v.mbr_ = new velt::MBR(&v);
  v.mbr_->valid_ = true;
  v.mbr_->partition_count_ = 1;
  auto setPartition = [&](uint32_t sectors) {
    velt::Partition& p = v.mbr_->partitions_[0];
    p = velt::Partition();
    p.valid = true;
    p.type = 0x0C;
    p.lba = 2048;
    p.bytes_per_sector = 512;
    p.total_sectors = sectors;
  };
  velt::PBR pbr(&v, 1);
  // The table's cluster size, halved until FAT32's minimum cluster count is reached, or refused.
  const uint32_t smallest = velt::PBR::minimumFAT32Sectors();
  struct Row {
    uint64_t sectors;
    uint32_t spc;  // 0: refused
  } rows[] = {{16777216, 32}, {16777217, 64}, {67108865, 128}, {2095104, 16},
              {129024, 1},    {smallest, 1},  {smallest - 1, 0}};
  for (const auto& r : rows) {
    setPartition(static_cast<uint32_t>(r.sectors));
    v.mbr_->getFAT32Partition(1, &pbr.partition_);
    EXPECT_EQ(pbr.chooseSectorsPerCluster(), r.spc) << r.sectors;
    ASSERT_EQ(pbr.format(), r.spc == 0 ? -1 : 0) << r.sectors;
    if (r.spc == 0) continue;
    const uint32_t clusters = pbr.data_sectors_ / pbr.sectors_per_cluster_;
    EXPECT_GE(clusters, velt::FAT32_MIN_CLUSTERS) << r.sectors;
    EXPECT_LE(clusters + 2, pbr.bytes_per_sector_ * pbr.fat_sectors_ / 4) << r.sectors;
    EXPECT_EQ(pbr.num_clusters_, clusters + 2) << r.sectors;
    // Conventional geometry: 63 sectors per track, 255 heads, the partition's start hidden.
    EXPECT_EQ(velt::le32(pbr.boot_sector_ + 24), 63u | (255u << 16));
    EXPECT_EQ(velt::le32(pbr.boot_sector_ + 28), 2048u);
  }
  EXPECT_EQ(pbr.write(), -1) << "refused outside a format operation";
  // A 1 GiB card gets a partition of 2,095,104 sectors at 2048.
  f.driver->reported_sectors = 2097152;
  velt::MBR mbr(&v);
  ASSERT_EQ(mbr.format(), 0);
  const uint8_t expect[] = {0, 0, 0, 0, 0x0C, 0, 0, 0, 0x00, 0x08, 0, 0, 0x00, 0xF8, 0x1F, 0x00};
  EXPECT_EQ(0, memcmp(mbr.sector_ + 446, expect, 16));
  EXPECT_EQ(mbr.partitions_[0].total_sectors, 2095104u);
  EXPECT_TRUE(mbr.dirty_);
}
