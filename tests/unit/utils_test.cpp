#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <regex>

#include "utils/Utils.h"

TEST(Utils, StringsAndPaths) {
  struct PathRow {
    const char* path;
    const char* dir;
    const char* base;
  } paths[] = {{"a/b\\c", "a/b", "c"}, {"abc", "", "abc"}, {"/x/y.txt", "/x", "y.txt"},
               {"/", "", ""}};
  for (const auto& r : paths) {
    EXPECT_EQ(nerio::dirName(r.path), r.dir) << r.path;
    EXPECT_EQ(nerio::baseName(r.path), r.base) << r.path;
  }
  EXPECT_EQ(nerio::fileExtension("a.tar.gz"), "gz");
  EXPECT_EQ(nerio::fileExtension("README"), "");
  EXPECT_EQ(nerio::replaceAll("aaaa", "aa", "a"), "aa");
  EXPECT_EQ(nerio::replaceAll("a.b.c", ".", "::"), "a::b::c");
  EXPECT_EQ(nerio::formatString("%s-%04d", "x", 42), "x-0042");
  EXPECT_EQ(nerio::formatString("%s", ""), "");
  EXPECT_TRUE(nerio::isNumber("0123"));
  EXPECT_TRUE(nerio::isNumber(""));
  EXPECT_FALSE(nerio::isNumber("12a"));
  auto demangled = nerio::cppDemangle("_ZN5nerio8baseNameERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE");
  ASSERT_NE(demangled.get(), nullptr);
  EXPECT_NE(strstr(demangled.get(), "nerio::baseName"), nullptr);
  EXPECT_EQ(nerio::cppDemangle("not a symbol").get(), nullptr);
}

TEST(Utils, SystemHelpers) {
  EXPECT_EQ(nerio::hasEnoughDiskSpace("/tmp/does/not/exist/yet", 1), 0);
  EXPECT_EQ(nerio::hasEnoughDiskSpace("/tmp", UINT64_MAX), -1);

  pid_t* none = nerio::pidOf("no-such-process-name");
  ASSERT_NE(none, nullptr);
  EXPECT_EQ(none[0], -1);
  free(none);

  char comm[64] = {};
  FILE* fp = fopen("/proc/self/comm", "r");
  ASSERT_NE(fp, nullptr);
  ASSERT_EQ(fscanf(fp, "%63s", comm), 1);
  fclose(fp);
  pid_t* mine = nerio::pidOf(comm);
  ASSERT_NE(mine, nullptr);
  bool found = false;
  for (int i = 0; mine[i] != -1; ++i) found |= mine[i] == getpid();
  free(mine);
  EXPECT_TRUE(found);

  uint64_t a = nerio::monotonicMicros();
  usleep(2000);
  uint64_t b = nerio::monotonicMicros();
  EXPECT_GE(b - a, 2000u);
  EXPECT_TRUE(std::regex_match(nerio::timeToString(0),
                               std::regex(R"(\d{4}/\d\d/\d\d \d\d:\d\d:\d\d)")));
}
