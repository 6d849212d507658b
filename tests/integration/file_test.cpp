// Files written through the library on real card images, judged by mtools and fsck.fat.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "card_volume.h"
#include "fs/velt.h"
#include "fs/velt_dirent.h"
#include "fs/velt_file.h"

using velt::test::CardImage;
using velt::test::CardSpec;
using velt::test::shellQuote;
using Entry = velt::VELT::DirEntry;

namespace {

using velt::test::patternBytes;

// Leaves the card's free space in holes of `hole` clusters and points the allocation hint at
// the start, so that a growing file is laid down in pieces.
void fragmentFreeSpace(const CardImage& card, size_t cluster, int holes, int hole) {
  card.mkdir("/fill");
  for (int i = 0; i < 2 * holes; ++i) {
    card.put("/fill/f" + std::to_string(i), patternBytes(hole * cluster, 1000 + i));
  }
  for (int i = 0; i < 2 * holes; i += 2) card.del("/fill/f" + std::to_string(i));
  card.rewindAllocationHint();
}

std::shared_ptr<velt::VELT> load(const CardImage& card) {
  velt::test::Loaded l = velt::test::loadCard(card);
  EXPECT_EQ(l.error, 0) << l.log;
  return l.volume;
}

// Writes `data` through `file` in pieces of the given sizes, cycling; false on a failure.
bool writeInPieces(velt::VELT::File& file, const std::string& data,
                   const std::vector<size_t>& sizes) {
  size_t off = 0;
  for (size_t i = 0; off < data.size(); ++i) {
    size_t n = std::min(sizes[i % sizes.size()], data.size() - off);
    int r = file.write(data.data() + off, n, static_cast<int64_t>(off));
    if (r != static_cast<int>(n)) {
      ADD_FAILURE() << "write of " << n << " at " << off << " gave " << r;
      return false;
    }
    off += n;
  }
  return true;
}

}  // namespace

TEST(OpenFileOnCard, NewFileWrittenInOddPiecesReadsBackWithTheTools) {
  struct Row {
    int64_t size_mb;
    int spc;
    size_t bytes;
  } rows[] = {{64, 1, 3 * 1048576 + 12345}, {300, 8, 6 * 1048576 + 1}};
  const std::vector<size_t> pieces = {1, 777, 4099, 65537, 123457, 511, 512, 513, 300001, 2};
  for (const auto& r : rows) {
    SCOPED_TRACE("sectors per cluster " + std::to_string(r.spc));
    CardImage card(CardSpec{r.size_mb, r.spc, 1, "", true});
    ASSERT_TRUE(card.ok()) << card.error();
    const size_t cluster = 512u * r.spc;
    fragmentFreeSpace(card, cluster, 40, 7);
    const std::string data = patternBytes(r.bytes, r.spc);
    {
      auto v = load(card);
      ASSERT_NE(v, nullptr);
      auto folder = v->newEntry(v->findEntry("/"), "Written Here", true);
      ASSERT_NE(folder, nullptr);
      auto e = v->newEntry(folder, "a long name for a file written in pieces.bin", false);
      ASSERT_NE(e, nullptr);
      auto file = v->newFile(false, true, false, e);
      ASSERT_NE(file, nullptr);
      ASSERT_TRUE(writeInPieces(*file, data, pieces));
      EXPECT_EQ(file->fileSize(), static_cast<int64_t>(data.size()));
      EXPECT_GT(velt::test::clusterRuns(*e), 10) << "the file fills the holes";
      EXPECT_EQ(file->close(), 0);
      EXPECT_EQ(v->pbr_->fat_locked_count_, 0);
    }
    auto fsck = card.fsck();
    EXPECT_EQ(fsck.status, 0) << fsck.out;
    EXPECT_TRUE(card.type("/Written Here/a long name for a file written in pieces.bin") == data)
        << "mtype shows other bytes";

    // Loaded again, the library reads the same bytes in one call.
    auto v = load(card);
    ASSERT_NE(v, nullptr);
    auto e = v->findEntry("/written here/A LONG NAME FOR A FILE WRITTEN IN PIECES.BIN");
    ASSERT_NE(e, nullptr);
    ASSERT_EQ(e->size_, static_cast<int64_t>(data.size()));
    auto file = v->newFile(false, false, false, e);
    ASSERT_NE(file, nullptr);
    std::string back(data.size(), '\0');
    ASSERT_EQ(file->read(back.data(), back.size(), 0), static_cast<int>(data.size()));
    EXPECT_TRUE(back == data);
    EXPECT_EQ(file->close(), 0);
  }
}

TEST(OpenFileOnCard, ExistingFilesPatchedAndExtended) {
  CardImage card(CardSpec{64, 1, 1, "", true});
  ASSERT_TRUE(card.ok()) << card.error();
  const size_t cl = 512;
  struct Row {
    const char* path;
    std::string before;
    int64_t at;
    std::string bytes;
  } rows[] = {
      {"/middle.bin", patternBytes(3 * cl, 1), 700, patternBytes(100, 11)},
      {"/across.bin", patternBytes(5 * cl, 2), cl - 3, patternBytes(2 * cl + 6, 12)},
      {"/tail.bin", patternBytes(cl + 1, 3), cl - 1, patternBytes(4 * cl + 5, 13)},
      {"/one.bin", "z", 1, patternBytes(3 * cl + 5, 14)},
      {"/exact.bin", patternBytes(2 * cl, 4), 2 * cl, patternBytes(1, 16)},
  };
  for (const auto& r : rows) card.put(r.path, r.before);
  // Something after them, so that growing files cannot simply run on.
  card.put("/after.bin", patternBytes(4 * cl, 5));
  {
    auto v = load(card);
    ASSERT_NE(v, nullptr);
    for (const auto& r : rows) {
      SCOPED_TRACE(r.path);
      auto e = v->findEntry(r.path);
      ASSERT_NE(e, nullptr);
      auto file = v->newFile(false, false, false, e);
      ASSERT_NE(file, nullptr);
      file->setUsage(true, false);
      ASSERT_EQ(file->write(r.bytes.data(), r.bytes.size(), r.at),
                static_cast<int>(r.bytes.size()));
      EXPECT_EQ(file->close(), 0);
    }
  }
  auto fsck = card.fsck();
  EXPECT_EQ(fsck.status, 0) << fsck.out;
  for (const auto& r : rows) {
    SCOPED_TRACE(r.path);
    std::string want = r.before;
    if (want.size() < r.at + r.bytes.size()) want.resize(r.at + r.bytes.size());
    want.replace(r.at, r.bytes.size(), r.bytes);
    EXPECT_TRUE(card.type(r.path) == want) << "mtype shows other bytes";
  }
  EXPECT_TRUE(card.type("/after.bin") == patternBytes(4 * cl, 5));
}

TEST(OpenFileOnCard, TwoWritersAtOnceKeepTheFatConsistent) {
  CardImage card(CardSpec{64, 1, 1, "", true});
  ASSERT_TRUE(card.ok()) << card.error();
  fragmentFreeSpace(card, 512, 30, 3);
  const std::string a = patternBytes(1500000, 21);
  const std::string b = patternBytes(1200003, 22);
  {
    auto v = load(card);
    ASSERT_NE(v, nullptr);
    auto root = v->findEntry("/");
    auto ea = v->newEntry(root, "writer a.bin", false);
    auto eb = v->newEntry(root, "writer b.bin", false);
    ASSERT_TRUE(ea && eb);
    auto fa = v->newFile(false, true, false, ea);
    auto fb = v->newFile(false, true, false, eb);
    ASSERT_TRUE(fa && fb);
    EXPECT_EQ(v->pbr_->fat_locked_count_, 2);
    std::thread ta([&] { writeInPieces(*fa, a, {4097, 333, 65536}); });
    std::thread tb([&] { writeInPieces(*fb, b, {1000, 8191, 77}); });
    ta.join();
    tb.join();
    EXPECT_EQ(fa->close(), 0);
    EXPECT_EQ(v->pbr_->fat_locked_count_, 1);
    EXPECT_EQ(fb->close(), 0);
    EXPECT_EQ(v->pbr_->fat_locked_count_, 0);
  }
  auto fsck = card.fsck();
  EXPECT_EQ(fsck.status, 0) << fsck.out;
  EXPECT_TRUE(card.type("/writer a.bin") == a);
  EXPECT_TRUE(card.type("/writer b.bin") == b);
}

TEST(OpenFileOnCard, AnEmptyFileGainsItsFirstCluster) {
  // The tools store an empty file without a cluster; the record must name the chain it gets.
  CardImage card(CardSpec{64, 1, 1, "", true});
  ASSERT_TRUE(card.ok()) << card.error();
  card.put("/empty.bin", "");
  const std::string data = patternBytes(2 * 512 + 9, 15);
  {
    auto v = load(card);
    ASSERT_NE(v, nullptr);
    auto e = v->findEntry("/empty.bin");
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->start_cluster_, 0u);
    auto file = v->newFile(false, false, false, e);
    ASSERT_NE(file, nullptr);
    ASSERT_EQ(file->write(data.data(), data.size(), 0), static_cast<int>(data.size()));
    EXPECT_EQ(file->close(), 0);
  }
  auto fsck = card.fsck();
  EXPECT_EQ(fsck.status, 0) << fsck.out;
  EXPECT_TRUE(card.type("/empty.bin") == data) << "mtype shows other bytes";
}
