// What the daemon reports: long log lines, failed assertions that let it go on, and the crash
// report of a real fault, made by a child that re-runs this test binary.
#include "utils/Log.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

#include "fs/velt_fuse_signal.h"
#include "log_capture.h"

static constexpr const char kLogTag[] = "VELT.Test";

TEST(Log, LongMessagesAndFailedAssertionsAreReportedWhole) {
  velt::test::LogCapture cap;
  std::string big(6000, 'x');
  nerio::logPrint(0, "VELT", "f", "a.cpp", 1, "%s\n", big.c_str());
  EXPECT_NE(cap.text().find(big + "\n\x1b[39m"), std::string::npos);
  NERIO_ASSERT(1 + 1 == 3);  // reports and goes on
  EXPECT_NE(cap.text().find("ASSERT log_test.cpp@"), std::string::npos);
  EXPECT_NE(cap.text().find("TestBody: 1 + 1 == 3"), std::string::npos);
  EXPECT_EQ(nerio::theLog().redirect("/nonexistent-dir/x/log"), -1);
  EXPECT_EQ(nerio::theLog().fp_, stdout);
}

// Kept out of the undefined-behaviour sanitizer: the fault itself is what is under test.
static __attribute__((noinline, no_sanitize("undefined"))) void storeThroughNull() {
  static int* volatile target = nullptr;  // the optimiser cannot see the null
  *target = 1;
}

// The child's body: only runs when the parent asked for a crash.
TEST(CrashChild, Crash) {
  const char* mode = getenv("VELT_CRASH_MODE");
  if (mode == nullptr) GTEST_SKIP() << "runs only as the crashing child";
  velt::install_sigfault();
  struct rlimit none = {0, 0};  // the handler turns core files on; no use for one here
  setrlimit(RLIMIT_CORE, &none);
  if (strcmp(mode, "null") == 0) storeThroughNull();
  throw std::runtime_error("boom");
}

TEST(Crash, FaultsAndUncaughtExceptionsAreReportedWithTheirSignal) {
  struct Row {
    const char* mode;
    int signal;
    const char *first, *second;  // a line of the report and a later one
  } rows[] = {
      {"null", SIGSEGV, "###### 11 (SIGSEGV) code: 1(SEGV_MAPERR) @ (nil)", "sigfault_handler"},
      {"throw", SIGABRT, "nerio_terminate caught unhandled exception. what(): boom\n",
       "###### 6 (SIGABRT)"},
  };
  char self[4096] = {};
  ASSERT_GT(readlink("/proc/self/exe", self, sizeof(self) - 1), 0);
  for (const auto& r : rows) {
    SCOPED_TRACE(r.mode);
    // Our handler must see the fault even in sanitizer builds, and the throw uncaught by the
    // test framework.
    const auto child = velt::test::runShell(
        std::string("VELT_CRASH_MODE=") + r.mode +
        " ASAN_OPTIONS=handle_segv=0:handle_abort=0:detect_leaks=0"
        " UBSAN_OPTIONS=handle_segv=0:handle_abort=0 " +
        velt::test::shellQuote(self) + " --gtest_filter='CrashChild.*' --gtest_catch_exceptions=0");
    EXPECT_EQ(child.status, 128 + r.signal) << child.err;
    const size_t first = child.err.find(r.first);
    EXPECT_NE(first, std::string::npos) << child.err;
    EXPECT_NE(child.err.find(r.second, first), std::string::npos) << child.err;
  }
}
