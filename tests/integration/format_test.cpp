// The VELT format of a volume: reserved-folder sizes from the free space, the summary it prints,
// the marks and records it leaves on the card, and what ordinary FAT tools make of the result.
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "card_volume.h"
#include "fs/velt.h"
#include "fs/velt_dirent.h"
#include "fs/velt_endian.h"
#include "velt_fsck.h"

namespace velt::test {
namespace {

constexpr int64_t kMiB = 1ll << 20;
// A 1100 MiB card leaves a 1099 MiB partition behind the 1 MiB gap, formatted with 16 KiB
// clusters.
constexpr int64_t kCardMiB = 1100;
constexpr int64_t kPartitionBytes = 1099 * kMiB;

// The format-information record as FSInfo holds it on the card.
FormatInfo cardFormatInfo(const CardImage& card) {
  std::string fsinfo = card.readBytes(card.partitionOffset() + 512, 512);
  FormatInfo info;
  if (fsinfo.size() == 512) info.decode(reinterpret_cast<const uint8_t*>(fsinfo.data()) + 4);
  return info;
}

std::string line(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string line(const char* format, ...) {
  char buf[256];
  va_list args;
  va_start(args, format);
  vsnprintf(buf, sizeof(buf), format, args);
  va_end(args);
  return buf;
}

TEST(Format, EmptyCardGetsReservedFoldersThatOtherToolsSeeEmpty) {
  CardSpec spec;
  spec.size_mb = kCardMiB;
  spec.format = false;  // a partition table only: the format lays down the FAT32 too
  CardImage card(spec);
  ASSERT_TRUE(card.ok()) << card.error();

  std::string out;
  ASSERT_EQ(formatCard(card, formatInfo({{"REC", 40, 8}, {"EVT", 20, 4}}), kVELTFormatModeP, "CAM",
                       0, &out),
            0)
      << out;
  // 40% of 1099 MiB in 8 MiB files and 20% in 4 MiB files: 54 files each, 451 MiB left.
  EXPECT_NE(out.find("disk size 1152385024 bytes (1099.00 MB, 1.07 GB)\n"), std::string::npos)
      << out;
  EXPECT_NE(out.find("root size 0 bytes (0.00 MB, 0.00 GB)\n"), std::string::npos) << out;
  EXPECT_NE(out.find("       REC   40%     8 MB #54  \n"), std::string::npos) << out;
  EXPECT_NE(out.find("       EVT   20%     4 MB #54  \n"), std::string::npos) << out;
  EXPECT_NE(out.find("    (free)         451 MB\n"), std::string::npos) << out;

  // Boot record mark and label, format information with the counts.
  EXPECT_EQ(card.readBytes(card.partitionOffset() + 3, 8), "VELT1.0P");
  EXPECT_EQ(card.readBytes(card.partitionOffset() + 71, 11), "CAM        ");
  FormatInfo info = cardFormatInfo(card);
  ASSERT_TRUE(info.valid());
  EXPECT_EQ(info.version_major, 3);
  EXPECT_EQ(info.version_minor, 9);
  ASSERT_EQ(info.folder_count, 2u);
  EXPECT_STREQ(info.folders[0].name, "REC");
  EXPECT_EQ(info.folders[0].count, 54u);
  EXPECT_EQ(info.folders[1].count, 54u);
  EXPECT_EQ(info.folders[0].used, 0);

  EXPECT_TRUE(fsckShowsOnlyReservedFiles(card));
  ShellResult root = card.mtools("mdir -/ ::/");
  EXPECT_EQ(root.status, 0) << root.err;
  EXPECT_NE(root.out.find("Volume in drive : is CAM"), std::string::npos) << root.out;
  EXPECT_NE(root.out.find("REC          <DIR>"), std::string::npos) << root.out;
  EXPECT_NE(root.out.find("EVT          <DIR>"), std::string::npos) << root.out;
  EXPECT_EQ(root.out.find("AVI"), std::string::npos) << root.out;
  for (const char* folder : {"::/REC", "::/EVT"}) {
    ShellResult list = card.mtools(std::string("mdir -a ") + folder);
    EXPECT_EQ(list.status, 0) << list.err;
    EXPECT_EQ(list.out.find("AVI"), std::string::npos) << list.out;
    EXPECT_NE(list.out.find("2 files"), std::string::npos) << list.out;  // "." and ".."
  }

  Loaded loaded = loadCard(card);
  const std::string& log = loaded.log;
  std::shared_ptr<VELT> volume = std::move(loaded.volume);
  ASSERT_NE(volume, nullptr) << loaded.error;
  const uint32_t cluster = volume->pbr_->cluster_length_;
  EXPECT_EQ(volume->disk_size_, kPartitionBytes);
  for (int i = 0; i < 2; ++i) {
    const ReservedFolderDesc& desc = volume->format_info_.folders[i];
    SCOPED_TRACE(desc.name);
    EXPECT_NE(log.find(line("%10s %4d%% %5d MB #%-4d -%-4d %d\n", desc.name, desc.percent,
                            desc.size_mb, desc.count, 0, desc.start_cluster)),
              std::string::npos)
        << log;
    std::shared_ptr<VELT::DirEntry> folder =
        volume->findEntry((std::string("/") + desc.name).c_str());
    ASSERT_NE(folder, nullptr);
    EXPECT_EQ(folder->velt_folder_, &desc);
    EXPECT_EQ(folder->start_cluster_, desc.start_cluster);
    EXPECT_EQ(folder->getChildCount(), 0);
    ASSERT_EQ(folder->velt_reserved_files_.size(), 54u);
    const uint32_t clusters = (desc.size_mb << 20) / cluster;
    for (size_t k = 0; k < folder->velt_reserved_files_.size(); ++k) {
      const ReservedFile& f = folder->velt_reserved_files_[k];
      EXPECT_FALSE(f.used_);
      EXPECT_EQ(f.size, desc.size_mb << 20);
      EXPECT_EQ(f.entry_index_, static_cast<int>(2 + 4 * k + 3));
      // Preallocated in one piece: the chain runs through consecutive clusters.
      uint32_t c = f.start_cluster;
      uint32_t n = 1;
      while (n < clusters && volume->pbr_->fat1_[c] == c + 1) {
        ++c;
        ++n;
      }
      EXPECT_EQ(n, clusters) << "file " << k + 1 << " is fragmented";
      EXPECT_EQ(volume->pbr_->fat1_[c], FAT_EOC) << "file " << k + 1;
    }
  }

  // Reserved file 1 of REC on the card: three long-name records spelling its name with one
  // terminator unit, then its deleted short-name record with the whole size.
  std::shared_ptr<VELT::DirEntry> rec = volume->findEntry("/REC");
  ASSERT_NE(rec, nullptr);
  const std::string name = "VELT_RESERVED_FILE_20170705_000001.avi";
  std::vector<uint16_t> units;
  const uint8_t seqs[3] = {0x43, 0x02, 0x01};
  for (int s = 0; s < 3; ++s) {
    std::string r = card.readBytes(rec->entryIndexToDiskOffset(2 + s), 32);
    ASSERT_EQ(r.size(), 32u);
    const uint8_t* p = reinterpret_cast<const uint8_t*>(r.data());
    EXPECT_EQ(p[0], seqs[s]) << "slot " << 2 + s;
    EXPECT_EQ(p[11], 0x0F);
    uint16_t u[13];
    lfnRecordUnits(p, u);
    // Records come farthest first: the units of sequence 3 are 26..38.
    units.insert(units.begin(), u, u + 13);
  }
  ASSERT_EQ(units.size(), 39u);
  for (size_t k = 0; k < name.size(); ++k) EXPECT_EQ(units[k], name[k]) << k;
  EXPECT_EQ(units[38], 0x0000);
  std::string sfn = card.readBytes(rec->entryIndexToDiskOffset(5), 32);
  ASSERT_EQ(sfn.size(), 32u);
  EXPECT_EQ(static_cast<uint8_t>(sfn[0]), 0xE5);
  EXPECT_EQ(sfn.substr(1, 10), "ELT_R~1AVI");
  EXPECT_EQ(static_cast<uint8_t>(sfn[11]), 0x20);
  const uint8_t* s = reinterpret_cast<const uint8_t*>(sfn.data());
  EXPECT_EQ((static_cast<uint32_t>(le16(s + 20)) << 16) | le16(s + 26),
            rec->velt_reserved_files_[0].start_cluster);
  EXPECT_EQ(le32(s + 28), 8u << 20);
}

TEST(Format, FolderSharesAreTakenOfTheWholeFreeSpace) {
  struct Case {
    const char* what;
    int64_t card_mb;
    FormatInfo info;
    std::vector<std::string> lines;
    bool fits;  // the files fit the card, so it loads with every reserved file
  } cases[] = {
      // 80% of 16 GiB in 64 MiB files: 204 files, 3328 MiB left.
      {"16 GiB",
       16 * 1024 + 1,
       formatInfo({{"REC", 80, 64}}),
       {"       REC   80%    64 MB #204 \n", "    (free)        3328 MB\n"},
       true},
      // Both halves are taken of the whole free space, not of what the first one left.
      {"two halves",
       kCardMiB,
       formatInfo({{"A", 50, 8}, {"B", 50, 8}}),
       {"         A   50%     8 MB #68  \n", "         B   50%     8 MB #68  \n",
        "    (free)          11 MB\n"},
       true},
      // Shares over 100% in total: the counts say what the shares say and the rest goes
      // negative (the card then cannot hold the second folder's files).
      {"over 100%",
       kCardMiB,
       formatInfo({{"A", 60, 8}, {"B", 60, 8}}),
       {"         A   60%     8 MB #82  \n", "         B   60%     8 MB #82  \n",
        "    (free)        -213 MB\n"},
       false},
      // A share smaller than one file gets no files.
      {"share below one file",
       kCardMiB,
       formatInfo({{"TINY", 1, 64}}),
       {"      TINY    1%    64 MB #0   \n"},
       true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    CardSpec spec;
    spec.size_mb = c.card_mb;
    spec.format = false;
    CardImage card(spec);
    ASSERT_TRUE(card.ok()) << card.error();
    std::string out;
    ASSERT_EQ(formatCard(card, c.info, kVELTFormatModeN, nullptr, 0, &out), 0) << out;
    for (const std::string& l : c.lines) EXPECT_NE(out.find(l), std::string::npos) << l << out;
    EXPECT_EQ(card.readBytes(card.partitionOffset() + 3, 8), "VELT1.0N");
    FormatInfo info = cardFormatInfo(card);
    ASSERT_TRUE(info.valid());
    if (!c.fits) continue;
    std::shared_ptr<VELT> volume = loadCard(card).volume;
    ASSERT_NE(volume, nullptr);
    for (uint32_t i = 0; i < info.folder_count; ++i) {
      auto folder = volume->findEntry((std::string("/") + info.folders[i].name).c_str());
      ASSERT_NE(folder, nullptr) << info.folders[i].name;
      EXPECT_EQ(folder->velt_reserved_files_.size(), info.folders[i].count);
    }
  }
}

TEST(Format, RefusesBadRequests) {
  CardSpec spec;
  spec.size_mb = kCardMiB;
  CardImage card(spec);
  ASSERT_TRUE(card.ok()) << card.error();
  struct Case {
    const char* what;
    int op_mode;
    uint32_t mode;
    const char* label;
    const char* message;
  } cases[] = {
      {"volume opened for mounting", kVELTOpMount, kVELTFormatModeN, nullptr,
       "VELT has not been created for format!\n"},
      {"12-byte label", kVELTOpFormat, kVELTFormatModeN, "ABCDEFGHIJKL", "invalid volume label\n"},
      {"label with a colon", kVELTOpFormat, kVELTFormatModeN, "A:B", "invalid volume label\n"},
      {"mode 2", kVELTOpFormat, 2, nullptr, "wrong format mode 2\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    CardImage::RootScope scope(card);
    testing::internal::CaptureStdout();
    int result = -100;
    {
      int error = 0;
      std::shared_ptr<VELT> volume = VELT::create(card.devicePath(), 0, c.op_mode, 0, &error);
      if (volume != nullptr) {
        volume->skip_umount_ = true;
        result = volume->format(formatInfo({{"REC", 10, 8}}), c.mode, c.label);
      }
    }
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(result, -1) << out;
    EXPECT_NE(out.find(c.message), std::string::npos) << out;
    EXPECT_EQ(out.find("(free)"), std::string::npos) << "refused only after the layout: " << out;
    EXPECT_NE(card.readBytes(card.partitionOffset() + 3, 8).substr(0, 4), "VELT");
  }
}

}  // namespace
}  // namespace velt::test
