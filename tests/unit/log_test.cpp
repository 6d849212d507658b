#include "utils/Log.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <sstream>
#include <string>

#include "log_capture.h"

namespace {

static constexpr const char kLogTag[] = "VELT.Test";

using Capture = velt::test::LogCapture;

const std::string kStamp = R"(\d\d:\d\d:\d\d\.\d{6} )";

}  // namespace

TEST(Log, LineFormsByteForByte) {
  struct Row {
    uint32_t level;
    std::string colour;
  } rows[] = {{0x10, "\x1b[31m"}, {0x18, "\x1b[31m"},  {0x08, "\x1b[32m"},     {0x84, "\x1b[33m"},
              {0x80, "\x1b[36m"}, {0x100, "\x1b[37m"}, {0x100010, "\x1b[31m"}, {6, "\x1b[33m"}};
  for (const auto& r : rows) {
    Capture cap;
    nerio::logPrint(r.level, "VELT.PBR", "read", "velt_pbr.cpp", 42, "value %d\n", 7);
    std::string expected = r.colour + "[VELT.PBR] read()@velt_pbr.cpp:42: value 7\n\x1b[39m";
    std::string got = cap.text();
    ASSERT_GE(got.size(), 16u) << r.level;
    EXPECT_TRUE(std::regex_match(got.substr(0, 16), std::regex(kStamp))) << got;
    EXPECT_EQ(got.substr(16), expected) << "level " << r.level;
  }
}

TEST(Log, LocationFreePlainAndMacros) {
  {
    Capture cap;
    nerio::logPrint(0x10 | nerio::kLogNoLocation, "VELT", "init", "velt.cpp", 9,
                    "[%s] MBR failed\n", "/dev/mmcblk0p1");
    EXPECT_EQ(cap.text().substr(16),
              "\x1b[31m[VELT] init(): [/dev/mmcblk0p1] MBR failed\n\x1b[39m");
  }
  {
    Capture cap;
    nerio::logPlain(nerio::kLogInfo, "VELT", "free %d\n", 3);
    EXPECT_EQ(cap.text().substr(16), "\x1b[32mfree 3\n\x1b[39m");
  }
  {
    Capture cap;
    int line = __LINE__ + 1;
    LOGW("w\n");
    EXPECT_EQ(cap.text().substr(16), "\x1b[33m[VELT.Test] TestBody()@log_test.cpp:" +
                                         std::to_string(line) + ": w\n\x1b[39m");
  }
  {
    Capture cap;
    nerio::logVerbose("T", "f", "x.cpp", 1, "v\n");
    EXPECT_EQ(cap.text().substr(16), "\x1b[37m[T] f()@x.cpp:1: v\n\x1b[39m");
  }
}

TEST(Log, LongMessagesArePrintedWhole) {
  Capture cap;
  std::string big(6000, 'x');
  nerio::logPrint(0, "VELT", "f", "a.cpp", 1, "%s\n", big.c_str());
  std::string got = cap.text();
  EXPECT_NE(got.find(big + "\n\x1b[39m"), std::string::npos);
}

TEST(Log, AssertionsReportAndContinue) {
  {
    Capture cap;
    nerio::assertFailed("mbr_->valid_", "VELT.Fuse", "__destroy", "velt_fuse.cpp", 77);
    EXPECT_EQ(cap.text().substr(16),
              "\x1b[31mVELT.Fuse: ASSERT velt_fuse.cpp@77 __destroy: mbr_->valid_\x1b[39m\r\n");
  }
  {
    Capture cap;
    nerio::assertFailedWithMessage("fat_locked_count_ >= 0", "", "unlockFAT", "velt.h", 5,
                                   ": %d >= 0\n", -1);
    EXPECT_EQ(cap.text().substr(16),
              "\x1b[31m: ASSERT velt.h@5 unlockFAT: fat_locked_count_ >= 0 : -1 >= 0\n\x1b[39m");
  }
  {
    Capture cap;
    int after = 0;
    NERIO_ASSERT(1 + 1 == 3);
    after = 1;
    EXPECT_EQ(after, 1);
    EXPECT_NE(cap.text().find("ASSERT log_test.cpp@"), std::string::npos);
    EXPECT_NE(cap.text().find("TestBody: 1 + 1 == 3"), std::string::npos);
  }
}

TEST(Log, RedirectFailureFallsBackToStandardOutput) {
  EXPECT_EQ(nerio::theLog().redirect("/nonexistent-dir/x/log"), -1);
  EXPECT_EQ(nerio::theLog().fp_, stdout);
  EXPECT_FALSE(nerio::theLog().owns_stream_);
}
