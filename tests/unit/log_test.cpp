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
