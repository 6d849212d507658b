// The compact member types of a directory entry: the 4-byte lock under contention, containers
// allocated on first write, inline short names and the long-name offsets kept as one number.
#include <gtest/gtest.h>

#include <mutex>
#include <thread>
#include <vector>

#include "fs/velt_compact.h"

namespace {

TEST(Compact, EntryMutexExcludesUnderContention) {
  velt::EntryMutex m;
  int64_t counter = 0;  // deliberately not atomic: the lock alone must protect it
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 50000; ++i) {
        std::lock_guard lock(m);
        counter = counter + 1;
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(counter, 200000);
  EXPECT_TRUE(m.try_lock());
  EXPECT_FALSE(m.try_lock());
  m.unlock();
}

TEST(Compact, OutOfLineContainersAllocateOnFirstWrite) {
  velt::OutOfLine<std::vector<int>> v;
  const auto& cv = v;
  EXPECT_TRUE(cv.empty());
  EXPECT_EQ(cv.size(), 0u);
  EXPECT_EQ(cv.begin(), cv.end());  // reading an unallocated container sees it empty
  v.push_back(7);
  v.push_back(9);
  EXPECT_EQ(v.size(), 2u);
  EXPECT_EQ(v[1], 9);
  velt::OutOfLine<std::vector<int>> copy(v);
  v.clear();
  EXPECT_TRUE(v.empty());
  EXPECT_EQ(copy.size(), 2u) << "a copy owns its own container";
  v.release();
  EXPECT_TRUE(v.empty());
  v.assign(3, 1);
  EXPECT_EQ(v.size(), 3u);
}

TEST(Compact, ShortNamesAreInlineAndCutAtTwelve) {
  velt::ShortName n = "README.TXT";
  EXPECT_EQ(n, "README.TXT");
  EXPECT_EQ(n.size(), 10u);
  EXPECT_EQ("/" + n, "/README.TXT");
  n = std::string("ABCDEFGH.IJKLMN");
  EXPECT_EQ(n.str(), "ABCDEFGH.IJK");
  EXPECT_FALSE(n == "ABCDEFGH.IJKLMN");
  n = "";
  EXPECT_TRUE(n.empty());
}

TEST(Compact, LongNameOffsetsKeepTheirValuesWhateverTheLayout) {
  velt::LfnOffsets o;
  // Consecutive slots before the short-name record: kept as one number.
  const int64_t consecutive[] = {4096 - 32, 4096 - 64, 4096 - 96};
  o.assign(consecutive, 3);
  for (size_t k = 0; k < 3; ++k) EXPECT_EQ(o[k], consecutive[k]) << k;
  // Records split over two clusters that are not neighbours.
  const int64_t split[] = {8192, 8160, 65536 + 4064};
  o.assign(split, 3);
  for (size_t k = 0; k < 3; ++k) EXPECT_EQ(o[k], split[k]) << k;
  // Changing one element of a consecutive list keeps the others.
  o.assign(consecutive, 3);
  o.set(1, 12345);
  EXPECT_EQ(o[0], consecutive[0]);
  EXPECT_EQ(o[1], 12345);
  EXPECT_EQ(o[2], consecutive[2]);
  o.assign(2, 77);
  EXPECT_EQ(o.size(), 2u);
  EXPECT_EQ(o[0], 77);
  EXPECT_EQ(o[1], 77);
  o.clear();
  EXPECT_TRUE(o.empty());
}

}  // namespace
