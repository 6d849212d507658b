// An entry's own short-name record over a fake card: filling an entry from a record, and the
// three ways of writing it back (touch, update, update2).
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "fake_driver.h"
#include "fs/velt_dirent.h"
#include "fs/velt_endian.h"

using velt::VELT;
using Card = velt_test::FakeCard;
using Entry = std::shared_ptr<VELT::DirEntry>;

namespace {

// A short-name record: name, attribute, cluster and size; times 2010-05-06 07:08:10.
std::vector<uint8_t> record(const char* name11, uint8_t attr, uint32_t cluster, uint32_t size) {
  std::vector<uint8_t> r(32, 0);
  memcpy(r.data(), name11, 11);
  r[11] = attr;
  r[12] = 0x18;  // lower-case flags as another system may leave them
  r[13] = 77;
  const uint16_t date = (30 << 9) | (5 << 5) | 6, time = (7 << 11) | (8 << 5) | 5;
  velt::putLe16(&r[14], time);
  velt::putLe16(&r[16], date);
  velt::putLe16(&r[18], date);
  velt::putLe16(&r[20], static_cast<uint16_t>(cluster >> 16));
  velt::putLe16(&r[22], time);
  velt::putLe16(&r[24], date);
  velt::putLe16(&r[26], static_cast<uint16_t>(cluster & 0xFFFF));
  velt::putLe32(&r[28], size);
  return r;
}

}  // namespace

TEST(DirentRecords, InitFromARecord) {
  Card c;
  const int64_t chain = c.pbr->allocCluster(false);  // a one-cluster chain
  ASSERT_GE(chain, 3);
  const uint32_t cl = static_cast<uint32_t>(chain);
  const uint32_t big = c.pbr->num_clusters_ + 5;  // beyond the FAT
  struct Row {
    const char* what;
    uint8_t attr;
    uint32_t cluster;
    uint32_t size;
    int result;
    bool is_dir, is_volume, read_only;
  } rows[] = {
      {"file", 0x20, cl, 100, 0, false, false, false},
      {"read-only file", 0x21, cl, 100, 0, false, false, true},
      {"empty file", 0x20, 0, 0, 0, false, false, false},
      {"directory", 0x10, cl, 0, 0, true, false, false},
      {"volume label", 0x08, 0, 0, 0, false, true, false},
      {"directory with a size", 0x10, cl, 5, -1, true, false, false},
      {"both type bits", 0x18, cl, 0, -1, false, false, false},
      {"size beyond its chain", 0x20, cl, c.pbr->cluster_length_ + 1, -1, false, false, false},
      {"cluster beyond the FAT", 0x20, big, 10, -1, false, false, false},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.what);
    Entry e = std::make_shared<VELT::DirEntry>(c.v);
    auto raw = record("NAME    TXT", r.attr, r.cluster, r.size);
    EXPECT_EQ(e->init("name.txt", "NAME.TXT", r.attr, raw.data()), r.result);
    EXPECT_EQ(e->valid_, r.result == 0);
    EXPECT_EQ(e->name_, "name.txt");
    EXPECT_EQ(e->short_name_, "NAME.TXT");
    EXPECT_EQ(e->is_dir_, r.is_dir);
    EXPECT_EQ(e->is_volume_, r.is_volume);
    if (r.result != 0) continue;
    EXPECT_EQ(e->read_only_, r.read_only);
    EXPECT_EQ(e->start_cluster_, r.cluster);
    EXPECT_EQ(e->size_, r.size);
    EXPECT_EQ(e->real_size_, r.size);
    EXPECT_EQ(e->write_date_, (30 << 9) | (5 << 5) | 6);
    EXPECT_EQ(e->modified_, velt::fatToTime(e->write_date_, e->write_time_));
    uint8_t built[32];
    e->buildRecord(built);
    EXPECT_EQ(0, memcmp(built, raw.data(), 32));
  }
  // The high half of the cluster number counts.
  Entry e = std::make_shared<VELT::DirEntry>(c.v);
  auto raw = record("NAME    TXT", 0x20, 0x00010000, 0);
  e->init("n", "N", 0x20, raw.data());
  EXPECT_EQ(e->start_cluster_, 0x00010000u);
}
