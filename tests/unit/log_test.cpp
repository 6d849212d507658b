// What the daemon reports: long log lines, failed assertions that let it go on, and the crash
// report of a real fault, made by a child that re-runs this test binary.
#include "utils/Log.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
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

namespace {

// Kept out of the undefined-behaviour sanitizer: the fault itself is what is under test.
__attribute__((noinline, no_sanitize("undefined"))) void storeThroughNull() {
  static int* volatile target = nullptr;  // the optimiser cannot see the null
  *target = 1;
}

}  // namespace

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
    const char* first, *second;  // a line of the report and a later one
  } rows[] = {
      {"null", SIGSEGV, "###### 11 (SIGSEGV) code: 1(SEGV_MAPERR) @ (nil)", "sigfault_handler"},
      {"throw", SIGABRT, "nerio_terminate caught unhandled exception. what(): boom\n",
       "###### 6 (SIGABRT)"},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.mode);
    int pipefd[2];
    ASSERT_EQ(pipe(pipefd), 0);
    pid_t pid = fork();
    if (pid == 0) {
      dup2(pipefd[1], 2);
      setenv("VELT_CRASH_MODE", r.mode, 1);
      // Let our handler see the fault even in sanitizer builds.
      setenv("ASAN_OPTIONS", "handle_segv=0:handle_abort=0:detect_leaks=0", 1);
      setenv("UBSAN_OPTIONS", "handle_segv=0:handle_abort=0", 1);
      // Without catching exceptions, so the terminate handler sees the throw.
      execl("/proc/self/exe", "crash", "--gtest_filter=CrashChild.*",
            "--gtest_catch_exceptions=0", static_cast<char*>(nullptr));
      _exit(127);
    }
    close(pipefd[1]);
    std::string err;
    char buf[4096];
    for (ssize_t n; (n = read(pipefd[0], buf, sizeof(buf))) > 0;) err.append(buf, n);
    close(pipefd[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status)) << err;
    EXPECT_EQ(WTERMSIG(status), r.signal);
    const size_t first = err.find(r.first);
    EXPECT_NE(first, std::string::npos) << err;
    EXPECT_NE(err.find(r.second, first), std::string::npos) << err;
  }
}
