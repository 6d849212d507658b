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
