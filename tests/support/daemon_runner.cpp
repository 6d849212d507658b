#include "daemon_runner.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace velt::test {

namespace {

using Clock = std::chrono::steady_clock;

int decodeStatus(int w) {
  return WIFEXITED(w) ? WEXITSTATUS(w) : WIFSIGNALED(w) ? 128 + WTERMSIG(w) : -1;
}

// Starts argv with standard input from /dev/null and both outputs in files of log_dir. A
// non-null velt_root sets VELT_ROOT (unsets it when empty); the child then also dies with the
// test process (SIGTERM unmounts cleanly).
pid_t spawn(std::vector<std::string> args, const std::string& log_dir,
            const std::string* velt_root) {
  std::vector<char*> argv;
  for (std::string& s : args) argv.push_back(s.data());
  argv.push_back(nullptr);
  const std::string out_path = log_dir + "/stdout", err_path = log_dir + "/stderr";
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid != 0) return pid;
  if (velt_root != nullptr) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) _exit(127);
    velt_root->empty() ? unsetenv("VELT_ROOT") : setenv("VELT_ROOT", velt_root->c_str(), 1);
  }
  int in = open("/dev/null", O_RDONLY);
  int out = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  int err = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (in < 0 || out < 0 || err < 0) _exit(127);
  dup2(in, 0);
  dup2(out, 1);
  dup2(err, 2);
  execv(argv[0], argv.data());
  _exit(127);
}

// waitpid with a deadline (none when negative): the decoded status, or -1 on timeout.
int waitWithTimeout(pid_t pid, int timeout_ms) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  for (int pause = 1;; pause = std::min(pause * 2, 20)) {
    int wstatus = 0;
    const pid_t r = waitpid(pid, &wstatus, WNOHANG);
    if (r == pid) return decodeStatus(wstatus);
    if (r < 0 && errno != EINTR) return -2;  // not our child any more
    if (timeout_ms >= 0 && Clock::now() >= deadline) return -1;
    std::this_thread::sleep_for(std::chrono::milliseconds(pause));
  }
}

// Runs argv to its end, killed after timeout_ms, with both outputs captured.
DaemonExit run(const std::vector<std::string>& argv, const std::string* velt_root, int timeout_ms) {
  DaemonExit result;
  TempDir logs;
  const pid_t pid = spawn(argv, logs.path(), velt_root);
  if (pid > 0) {
    result.status = waitWithTimeout(pid, timeout_ms);
    result.exited = result.status != -1;
    if (!result.exited) {
      kill(pid, SIGKILL);
      result.status = waitWithTimeout(pid, 5000);
    }
  }
  result.out = readFileBytes(logs.path() + "/stdout");
  result.err = readFileBytes(logs.path() + "/stderr");
  return result;
}

void unmount(const std::string& mount_point, bool lazy_only) {
  const std::string q = shellQuote(mount_point);
  runShell(lazy_only ? "fusermount3 -u -z " + q
                     : "fusermount3 -u " + q + " || fusermount3 -u -z " + q);  // busy: detach
}

}  // namespace

std::string daemonBinary() {
  const char* other = getenv("VELT_DAEMON");
  return other != nullptr && other[0] != '\0' ? other : std::string(VELT_BINARY_DIR) + "/velt.fuse";
}

bool isMounted(const std::string& mount_point) {
  std::ifstream in("/proc/mounts");
  for (std::string device, dir, rest; in >> device >> dir && std::getline(in, rest);) {
    if (dir == mount_point) return true;
  }
  return false;
}

ShellResult runShell(const std::string& command) {
  DaemonExit r = run({"/bin/sh", "-c", command}, nullptr, -1);
  return {r.status, r.out, r.err};
}

std::string shellQuote(const std::string& text) {
  std::string quoted = "'";
  for (char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

DaemonExit runDaemonToExit(const std::vector<std::string>& args, const std::string& velt_root,
                           int timeout_ms) {
  std::vector<std::string> argv{daemonBinary()};
  argv.insert(argv.end(), args.begin(), args.end());
  return run(argv, &velt_root, timeout_ms);
}

time_t localTime(int year, int mon, int mday, int hour, int min, int sec) {
  struct tm tm = {};
  tm.tm_year = year - 1900, tm.tm_mon = mon - 1, tm.tm_mday = mday;
  tm.tm_hour = hour, tm.tm_min = min, tm.tm_sec = sec, tm.tm_isdst = -1;
  return mktime(&tm);
}

std::string readFileBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

void writeFileBytes(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

ScopedEnv::ScopedEnv(const char* name, const char* value) : name_(name) {
  const char* old = getenv(name);
  had_ = old != nullptr;
  if (had_) old_ = old;
  value != nullptr ? setenv(name, value, 1) : unsetenv(name);
}

ScopedEnv::~ScopedEnv() {
  had_ ? setenv(name_.c_str(), old_.c_str(), 1) : unsetenv(name_.c_str());
}

TempDir::TempDir() {
  char templ[] = "/tmp/velt_test_XXXXXX";
  if (mkdtemp(templ) != nullptr) path_ = templ;
}

TempDir::~TempDir() {
  std::error_code ignored;
  if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
}

bool DaemonRunner::start(const std::string& velt_root, const std::string& mount_point,
                         const std::vector<std::string>& args, int timeout_ms) {
  if (pid_ > 0) return false;
  mount_point_ = mount_point;
  exit_status_ = -1;
  std::vector<std::string> argv{daemonBinary(), "-f"};
  if (!default_name_) argv.insert(argv.end(), {"-o", "fsname=velt-test"});
  argv.insert(argv.end(), args.begin(), args.end());
  argv.push_back(mount_point);
  pid_ = spawn(argv, logs_.path(), &velt_root);
  if (pid_ <= 0) {
    pid_ = -1;
    return false;
  }
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  while (Clock::now() < deadline) {
    if (waitExit(0) != -1) return false;
    // The first request waits for the daemon's init; a failed init unmounts again.
    struct stat st;
    if (isMounted(mount_point_) && stat(mount_point_.c_str(), &st) == 0 &&
        isMounted(mount_point_)) {
      return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return false;
}

int DaemonRunner::waitExit(int timeout_ms) {
  if (pid_ <= 0) return exit_status_;
  const int status = waitWithTimeout(pid_, timeout_ms);
  if (status == -1) return -1;
  exit_status_ = status;
  pid_ = -1;
  return exit_status_;
}

int DaemonRunner::stop(int timeout_ms) {
  // A daemon that ended by itself may still have left its mount (it never should).
  if (!mount_point_.empty() && isMounted(mount_point_)) unmount(mount_point_, pid_ <= 0);
  if (pid_ <= 0) return exit_status_;
  if (waitExit(timeout_ms) == -1) {
    kill(pid_, SIGTERM);
    if (waitExit(3000) == -1) {
      kill(pid_, SIGKILL);
      if (waitExit(3000) == -1) pid_ = -1;
      if (isMounted(mount_point_)) unmount(mount_point_, true);
    }
  }
  return exit_status_;
}

}  // namespace velt::test
