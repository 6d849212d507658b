// The crash report of a real fault, made by a child that re-runs this test binary.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

#include "fs/velt_fuse_signal.h"

namespace {

// Kept out of the undefined-behaviour sanitizer: the fault itself is what is under test.
__attribute__((noinline, no_sanitize("undefined"))) void storeThroughNull() {
  // Read through a volatile so the optimiser cannot see the null and drop or rewrite the store.
  static int* volatile target = nullptr;
  int* p = target;
  *p = 1;
}

}  // namespace

// The child's body: only runs when the parent asked for a crash.
TEST(CrashChild, Crash) {
  const char* mode = getenv("VELT_CRASH_MODE");
  if (mode == nullptr) GTEST_SKIP() << "runs only as the crashing child";
  velt::install_sigfault();
  // The handler turns core files on; this test has no use for one.
  struct rlimit none = {0, 0};
  setrlimit(RLIMIT_CORE, &none);
  if (strcmp(mode, "null") == 0) {
    storeThroughNull();
  } else if (strcmp(mode, "throw") == 0) {
    throw std::runtime_error("boom");
  }
}

namespace {

struct Result {
  int status;
  std::string err;
};

Result runChild(const char* mode) {
  int pipefd[2];
  EXPECT_EQ(pipe(pipefd), 0);
  pid_t pid = fork();
  if (pid == 0) {
    dup2(pipefd[1], 2);
    close(pipefd[0]);
    setenv("VELT_CRASH_MODE", mode, 1);
    // Let our handler see the fault even in sanitizer builds.
    setenv("ASAN_OPTIONS", "handle_segv=0:handle_abort=0:detect_leaks=0", 1);
    setenv("UBSAN_OPTIONS", "handle_segv=0:handle_abort=0", 1);
    char self[4096] = {};
    ssize_t len = readlink("/proc/self/exe", self, sizeof(self) - 1);
    if (len <= 0) _exit(126);
    // Without catching exceptions, so the terminate handler sees the throw.
    execl(self, self, "--gtest_filter=CrashChild.*", "--gtest_catch_exceptions=0",
          static_cast<char*>(nullptr));
    _exit(127);
  }
  close(pipefd[1]);
  std::string err;
  char buf[4096];
  ssize_t n;
  while ((n = read(pipefd[0], buf, sizeof(buf))) > 0) err.append(buf, static_cast<size_t>(n));
  close(pipefd[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  return {status, err};
}

}  // namespace

TEST(Crash, NullDereferenceReportsSignalAndFrames) {
  Result r = runChild("null");
  ASSERT_TRUE(WIFSIGNALED(r.status)) << r.err;
  EXPECT_EQ(WTERMSIG(r.status), SIGSEGV);
  EXPECT_NE(r.err.find("###### 11 (SIGSEGV) code: 1(SEGV_MAPERR) @ (nil)"), std::string::npos)
      << r.err;
  // Each frame starts with a blank and its symbol string and ends in a colon (addr2line
  // completes the line on standard output).
  size_t frames = 0;
  for (size_t at = 0; (at = r.err.find("]: ", at)) != std::string::npos; ++at) ++frames;
  EXPECT_GE(frames, 3u) << r.err;
  EXPECT_NE(r.err.find("sigfault_handler"), std::string::npos) << r.err;
}

TEST(Crash, UncaughtExceptionIsNamedBeforeTheAbortReport) {
  Result r = runChild("throw");
  ASSERT_TRUE(WIFSIGNALED(r.status)) << r.err;
  EXPECT_EQ(WTERMSIG(r.status), SIGABRT);
  size_t line = r.err.find("nerio_terminate caught unhandled exception. what(): boom\n");
  ASSERT_NE(line, std::string::npos) << r.err;
  size_t report = r.err.find("###### 6 (SIGABRT)");
  ASSERT_NE(report, std::string::npos) << r.err;
  EXPECT_LT(line, report);
}
