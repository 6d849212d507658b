// Children of a directory over a fake card: records written by createChild, failed creations
// giving back what they took, deletion and its refusals, moves, and the open-file lists with
// their parked reads.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "fake_driver.h"
#include "fs/velt_dirent.h"
#include "fs/velt_endian.h"
#include "fs/velt_file.h"

using velt::VELT;
using Card = velt_test::FakeCard;
using Entry = std::shared_ptr<VELT::DirEntry>;

namespace {

uint8_t u8(const std::string& s, size_t i) {
  return static_cast<uint8_t>(s[i]);
}
uint32_t clusterOf(const std::string& r) {
  const auto* p = reinterpret_cast<const uint8_t*>(r.data());
  return (static_cast<uint32_t>(velt::le16(p + 20)) << 16) | velt::le16(p + 26);
}

}  // namespace

TEST(DirentChildren, RecordsOfNewFilesAndDirectories) {
  Card c;
  struct Row {
    const char* name;
    bool is_dir;
    const char* short_name;
    std::vector<uint8_t> sequences;  // long-name records in slot order
    uint8_t attr;
  } rows[] = {
      {"README.TXT", false, "README.TXT", {}, 0x20},
      {"readme.txt", false, "READ~1.TXT", {0x41}, 0x20},
      {"abcdefghijklm", false, "ABCDEF~1", {0x41}, 0x20},
      {"abcdefghijklmn", false, "ABCDEF~2", {0x42, 0x01}, 0x20},
      {".hidden", false, "~1.HID", {0x41}, 0x22},
      {".veltq", false, "~1.VEL", {0x41}, 0x26},
      {".cfg", true, "~1.CFG", {0x41}, 0x12},
      {"DATA", true, "DATA", {}, 0x10},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.name);
    const int first =
        static_cast<int>(std::find(c.root->entry_map_.begin(), c.root->entry_map_.end(), 0) -
                         c.root->entry_map_.begin());
    Entry e = c.create(r.name, r.is_dir);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->name_, r.name);
    EXPECT_EQ(e->short_name_, r.short_name);
    EXPECT_EQ(e->lfn_ent_count_, static_cast<int>(r.sequences.size()));
    EXPECT_EQ(e->attr_, r.attr);
    EXPECT_EQ(e->parent_, c.root.get());
    const int short_slot = first + static_cast<int>(r.sequences.size());
    EXPECT_EQ(e->dir_ent_disk_off_, c.root->entryIndexToDiskOffset(short_slot));
    uint8_t name11[11];
    velt::shortNameToName83(r.short_name, name11);
    for (size_t i = 0; i < r.sequences.size(); ++i) {
      std::string lfn = c.slot(*c.root, first + static_cast<int>(i));
      EXPECT_EQ(u8(lfn, 0), r.sequences[i]);
      EXPECT_EQ(u8(lfn, 11), 0x0F);
      EXPECT_EQ(u8(lfn, 13), velt::shortNameChecksum(name11));
      EXPECT_EQ(c.root->entry_map_[first + i], r.sequences[i]);
    }
    std::string sfn = c.slot(*c.root, short_slot);
    EXPECT_EQ(sfn.substr(0, 11), std::string(reinterpret_cast<char*>(name11), 11));
    EXPECT_EQ(u8(sfn, 11), r.attr);
    EXPECT_EQ(u8(sfn, 12), 0);
    EXPECT_EQ(u8(sfn, 13), 0);
    EXPECT_EQ(velt::le32(reinterpret_cast<const uint8_t*>(sfn.data()) + 28), 0u);
    EXPECT_EQ(clusterOf(sfn), e->start_cluster_);
    if (r.is_dir) {
      EXPECT_GE(e->start_cluster_, 3u);
      EXPECT_TRUE(velt::isEOC(c.pbr->fat1_[e->start_cluster_]));
    } else {
      EXPECT_EQ(e->start_cluster_, 0u);  // an empty file has no cluster yet
    }
    uint8_t built[32];
    e->buildRecord(built);
    EXPECT_EQ(0, memcmp(sfn.data(), built, 32));
    EXPECT_EQ(c.root->entry_map_[short_slot], name11[0]);
    const time_t now = time(nullptr);
    EXPECT_LE(std::abs(e->modified_ - now), 5);
    EXPECT_EQ(velt::le16(reinterpret_cast<const uint8_t*>(sfn.data()) + 24),
              velt::timeToFatDate(e->modified_));
  }
  // Creating a name twice makes two entries with the same long name.
  Entry a = c.create("My Document.docx");
  Entry b = c.create("My Document.docx");
  ASSERT_TRUE(a && b);
  EXPECT_EQ(a->short_name_, "MYDOCU~1.DOC");
  EXPECT_EQ(b->short_name_, "MYDOCU~2.DOC");
  EXPECT_EQ(c.root->findChild("my document.DOCX"), a);
  EXPECT_EQ(c.root->findChild("mydocu~2.doc"), b);
  EXPECT_EQ(c.root->findChild("nothing"), nullptr);
}

TEST(DirentChildren, ReservedFilesAlwaysHaveThreeLongNameRecords) {
  Card c;
  Entry e = c.root->createChild("REC.AVI", true, false, nullptr);
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(e->lfn_ent_count_, 3);
  EXPECT_GE(e->start_cluster_, 3u);  // a reserved file gets its chain from the start
  std::vector<uint8_t> seqs;
  for (int i = 0; i < 3; ++i) seqs.push_back(u8(c.slot(*c.root, i), 0));
  EXPECT_EQ(seqs, std::vector<uint8_t>({0x43, 0x02, 0x01}));
  // The name and its terminator sit in sequence 1; the others are padding.
  std::string r1 = c.slot(*c.root, 2), r3 = c.slot(*c.root, 0);
  uint16_t units[13];
  velt::lfnRecordUnits(reinterpret_cast<const uint8_t*>(r1.data()), units);
  EXPECT_EQ(units[6], 'I');
  EXPECT_EQ(units[7], 0);
  EXPECT_EQ(units[8], 0xFFFF);
  velt::lfnRecordUnits(reinterpret_cast<const uint8_t*>(r3.data()), units);
  EXPECT_TRUE(std::all_of(units, units + 13, [](uint16_t u) { return u == 0xFFFF; }));

  // Into a prepared buffer instead of the card.
  std::vector<uint8_t> buffer(32 * 16, 0);
  Entry b =
      c.root->createChild("VELT_RESERVED_FILE_20170705_000001.avi", true, false, buffer.data());
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(b->short_name_, "VELT_R~1.AVI");
  EXPECT_EQ(buffer[4 * 32], 0x43);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(&buffer[7 * 32]), 11), "VELT_R~1AVI");
  EXPECT_EQ(c.slot(*c.root, 7), std::string(32, '\0'));
}

TEST(DirentChildren, RefusedAndFailedCreationsGiveBackWhatTheyTook) {
  Card c;
  Entry keep = c.create("keep.txt");
  ASSERT_NE(keep, nullptr);
  const auto map_before = c.root->entry_map_;
  const auto card_before = c.snapshot();

  // More than 20 long-name records: refused before anything changes.
  int err = 0;
  EXPECT_EQ(c.root->createChild(std::string(261, 'n').c_str(), false, false, nullptr, &err),
            nullptr);
  EXPECT_EQ(err, -ENAMETOOLONG);
  EXPECT_EQ(c.root->createChild("bad\xc3", false, false, nullptr, &err), nullptr);
  EXPECT_EQ(err, -EINVAL);
  EXPECT_EQ(c.root->createChild("", false, false, nullptr, &err), nullptr);
  EXPECT_EQ(c.root->entry_map_, map_before);
  EXPECT_EQ(c.snapshot(), card_before);
  Entry longest = c.create(std::string(260, 'n').c_str());
  ASSERT_NE(longest, nullptr);
  EXPECT_EQ(longest->lfn_ent_count_, 20);
  ASSERT_EQ(c.root->delChild(longest), 0);

  // No free cluster: the long-name record was written, the slots are marked deleted on the
  // card (a free record would hide what follows) and in the map; no cluster is kept.
  Card full;
  Entry after = full.create("z");
  ASSERT_NE(after, nullptr);
  const int fs = after->lfn_ent_count_ + 1;  // first free slot
  full.root->entry_map_[fs + 3] = 'Z';       // a record further on
  for (uint32_t k = 2; k < full.pbr->num_clusters_; ++k) {
    if (full.pbr->fat1_[k] != 0) continue;
    full.pbr->fat1_[k] = velt::FAT_EOC;
    full.pbr->fat1_flags_[k / 8] |= static_cast<uint8_t>(1u << (k % 8));
  }
  auto freeEntries = [&full] {
    return std::count(full.pbr->fat1_.begin() + 2,
                      full.pbr->fat1_.begin() + full.pbr->num_clusters_, 0u);
  };
  const auto fat_free = freeEntries();
  // A directory needs its first cluster at once.
  EXPECT_EQ(full.root->createChild("no room.txt", false, true, nullptr, &err), nullptr);
  EXPECT_EQ(err, -ENOSPC);
  for (int k : {fs, fs + 1}) {
    EXPECT_EQ(full.root->entry_map_[k], velt::DIR_ENTRY_DELETED);
    EXPECT_EQ(u8(full.slot(*full.root, k), 0), velt::DIR_ENTRY_DELETED);
  }
  EXPECT_EQ(full.root->getChildCount(), 1);
  EXPECT_EQ(freeEntries(), fat_free);

  // With nothing further on, unwritten slots simply become free again.
  full.root->entry_map_[fs + 3] = 0;
  full.root->entry_map_[fs] = full.root->entry_map_[fs + 1] = 0;
  const std::string card_slot = full.slot(*full.root, fs);
  EXPECT_EQ(full.root->createChild("NOROOM.TXT", false, true, nullptr, &err), nullptr);
  EXPECT_EQ(err, -ENOSPC);
  EXPECT_EQ(full.root->entry_map_[fs], 0);
  EXPECT_EQ(full.slot(*full.root, fs), card_slot);  // never written, so left alone
}

TEST(DirentChildren, DeletionRefusalsLeaveTheCardUnchanged) {
  Card c;
  Entry dir = c.create("full dir", true);
  Entry inner = c.create("inner.txt", false, dir);
  c.create("inner2.txt", false, dir);
  Entry open = c.create("open.txt");
  Entry rec = c.create("REC", true);
  ASSERT_TRUE(dir && inner && open && rec);
  auto file = std::make_shared<VELT::File>(c.v, 7, false, false, true, open.get());
  ASSERT_EQ(open->addFile(file), 0);
  velt::ReservedFolderDesc desc;
  rec->velt_folder_ = &desc;

  const auto card = c.snapshot();
  const auto map = c.root->entry_map_;
  struct Row {
    Entry child;
    int result;
  } rows[] = {{dir, -ENOTEMPTY}, {open, -EBUSY}, {rec, -EACCES}};
  for (const auto& r : rows) {
    SCOPED_TRACE(r.child->name_);
    EXPECT_EQ(c.root->delChild(r.child), r.result);
    EXPECT_EQ(r.child->parent_, c.root.get());
  }
  EXPECT_EQ(c.snapshot(), card);
  EXPECT_EQ(c.root->entry_map_, map);
  EXPECT_EQ(c.root->getChildCount(), 3);
  rec->velt_folder_ = nullptr;
  EXPECT_EQ(open->removeFile(file), 0);
}

TEST(DirentChildren, NothingMovesIntoOrOutOfAReservedFolder) {
  Card c;
  c.pbr->is_velt_partition_ = true;
  c.v->format_info_.magic1 = velt::VELT_FSINFO_MAGIC1;
  c.v->format_info_.magic2 = velt::VELT_FSINFO_MAGIC2;
  c.v->format_info_.folder_count = 1;
  strcpy(c.v->format_info_.folders[0].name, "REC");
  Entry rec = c.create("rec", true);
  Entry plain = c.create("plain.txt");
  ASSERT_TRUE(rec && plain);
  Entry inside = c.create("inside.txt", false, rec);  // made before the folder is marked
  ASSERT_NE(inside, nullptr);
  ASSERT_TRUE(c.v->isInVELTFolder(rec));
  const auto card = c.snapshot();
  EXPECT_EQ(c.root->moveChild(plain, rec, "plain.txt"), -1);
  EXPECT_EQ(rec->moveChild(inside, c.root, "out.txt"), -1);
  EXPECT_EQ(c.root->moveChild(rec, c.root, "renamed"), -1);
  EXPECT_EQ(c.snapshot(), card);
  EXPECT_EQ(plain->parent_, c.root.get());
  EXPECT_EQ(inside->parent_, rec.get());
}
