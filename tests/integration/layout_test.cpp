// Cards made by sfdisk and mkfs.fat, loaded through the library: what the partition table and the
// VELT mark make the load refuse, and what an exclusive load does with an existing mount of the
// partition. (The geometry the load reads is judged by fsck.fat after every load of the random
// model test, in both partition slots, and of the damaged-card table.)
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "card_volume.h"

namespace velt::test {
namespace {

TEST(CardLayout, PartitionTableAndVeltMarkDecideWhatLoads) {
  CardImage card;
  ASSERT_TRUE(card.ok()) << card.error();
  const int64_t part = card.partitionOffset();
  {  // a partition number without an entry
    CardImage::RootScope scope(card);
    int error = 0;
    EXPECT_EQ(VELT::create("/dev/mmcblk0p2", 0, 0, 0, &error), nullptr);
    EXPECT_EQ(error, kVELTNoFAT32Partition);
  }

  // A VELT mark without a valid format-information record runs as plain FAT32.
  card.writeBytes(part + 3, "VELT1.0P");
  Loaded l = loadCard(card);
  ASSERT_NE(l.volume, nullptr);
  EXPECT_FALSE(l.volume->pbr_->is_velt_partition_);
  l.volume.reset();  // unloading writes FSInfo
  EXPECT_EQ(loadCard(card, kVELTOpExclusive).error, kVELTNotVELT);

  // With a valid record the major version decides.
  struct Row {
    uint16_t major, minor;
    int error;
  } rows[] = {{2, 9, kVELTBadVELT}, {4, 0, kVELTBadVELT}, {3, 9, 0}, {3, 1, 0}};
  for (const Row& r : rows) {
    SCOPED_TRACE(std::to_string(r.major) + "." + std::to_string(r.minor));
    FormatInfo info;
    info.magic1 = VELT_FSINFO_MAGIC1;
    info.magic2 = VELT_FSINFO_MAGIC2;
    info.version_major = r.major;
    info.version_minor = r.minor;
    memcpy(info.signature, "sig-of-card!", 12);
    std::string record(VELT_FORMAT_INFO_SIZE, '\0');
    info.encode(reinterpret_cast<uint8_t*>(record.data()));
    card.writeBytes(part + 512 + 4, record);
    l = loadCard(card);
    EXPECT_EQ(l.error, r.error) << l.log;
    if (l.volume == nullptr) continue;
    EXPECT_TRUE(l.volume->pbr_->is_velt_partition_);
    EXPECT_EQ(l.volume->format_info_.version_minor, r.minor);
    char sig[13];
    EXPECT_EQ(l.volume->getSignature(sig, sizeof(sig)), 12);
    EXPECT_STREQ(sig, "sig-of-card!");
    l.volume.reset();
  }
}

TEST(CardLayout, ExclusiveLoadTakesAnExistingMountAway) {
  // In a private mount namespace of a child process, so that nothing outside sees the mount:
  // a tmpfs listed under the card's device path stands for a mount of the partition.
  CardImage card(CardSpec{64, 1, 1, "", true});
  ASSERT_TRUE(card.ok()) << card.error();
  const std::string where = card.dir() + "/mnt";
  ASSERT_EQ(::mkdir(where.c_str(), 0700), 0);
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    if (unshare(CLONE_NEWNS) != 0) _exit(90);
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) _exit(91);
    auto listed = [&] {
      VELT probe(card.devicePath(), 1, kVELTOpMount, 0);
      return probe.findMountedPoint() == 1 && probe.mount_point_ == where;
    };
    for (int round = 0; round < 2; ++round) {
      if (mount(card.devicePath().c_str(), where.c_str(), "tmpfs", 0, nullptr) != 0) _exit(92);
      if (!listed()) _exit(93);
      if (round == 0) {
        VELT v(card.devicePath(), 1, kVELTOpMount, 0);
        if (v.umount() != 0) _exit(94);
      } else {
        CardImage::RootScope scope(card);
        int error = -100;
        auto v = VELT::create(card.devicePath(), 0, kVELTOpExclusive, 0, &error);
        if (v != nullptr || error != kVELTNotVELT) _exit(95);
      }
      if (listed()) _exit(96 + round);
    }
    VELT v(card.devicePath(), 1, kVELTOpMount, 0);
    _exit(v.umount() == 0 ? 0 : 98);  // nothing mounted: nothing to do
  }
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status));
  if (WEXITSTATUS(status) >= 90 && WEXITSTATUS(status) <= 92) {
    GTEST_SKIP() << "no private mount namespace here";
  }
  EXPECT_EQ(WEXITSTATUS(status), 0);
  rmdir(where.c_str());
}

}  // namespace
}  // namespace velt::test
