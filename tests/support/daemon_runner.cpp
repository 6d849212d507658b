#include "daemon_runner.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace velt::test {

namespace {

using Clock = std::chrono::steady_clock;

int decodeStatus(int wstatus) {
  if (WIFEXITED(wstatus)) return WEXITSTATUS(wstatus);
  if (WIFSIGNALED(wstatus)) return 128 + WTERMSIG(wstatus);
  return -1;
}

// Starts the daemon with stdout and stderr going to files in log_dir.
pid_t spawn(const std::vector<std::string>& args, const std::string& velt_root,
            const std::string& log_dir) {
  std::string binary = daemonBinary();
  std::vector<std::string> argv_strings;
  argv_strings.push_back(binary);
  argv_strings.insert(argv_strings.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& s : argv_strings) argv.push_back(s.data());
  argv.push_back(nullptr);
  std::string out_path = log_dir + "/stdout";
  std::string err_path = log_dir + "/stderr";

  pid_t parent = getpid();
  pid_t pid = fork();
  if (pid != 0) return pid;
  // Child: a test process that dies takes its daemon with it (SIGTERM unmounts cleanly).
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  if (getppid() != parent) _exit(127);
  int out = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  int err = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  int in = open("/dev/null", O_RDONLY);
  if (out < 0 || err < 0 || in < 0) _exit(127);
  dup2(in, 0);
  dup2(out, 1);
  dup2(err, 2);
  if (velt_root.empty()) {
    unsetenv("VELT_ROOT");
  } else {
    setenv("VELT_ROOT", velt_root.c_str(), 1);
  }
  execv(binary.c_str(), argv.data());
  _exit(127);
}

std::string makeLogDir() {
  char templ[] = "/tmp/velt_daemon_XXXXXX";
  const char* dir = mkdtemp(templ);
  return dir != nullptr ? std::string(dir) : std::string("/tmp");
}

void removeLogDir(const std::string& dir) {
  if (dir.empty() || dir == "/tmp") return;
  unlink((dir + "/stdout").c_str());
  unlink((dir + "/stderr").c_str());
  rmdir(dir.c_str());
}

// waitpid with a deadline; returns the decoded status, or -1 on timeout.
int waitWithTimeout(pid_t pid, int timeout_ms) {
  auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    int wstatus = 0;
    pid_t r = waitpid(pid, &wstatus, WNOHANG);
    if (r == pid) return decodeStatus(wstatus);
    if (r < 0 && errno != EINTR) return -2;  // not our child any more
    if (Clock::now() >= deadline) return -1;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

int runQuietly(const std::vector<std::string>& args) {
  std::vector<std::string> copy(args);
  std::vector<char*> argv;
  for (std::string& s : copy) argv.push_back(s.data());
  argv.push_back(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    int null_fd = open("/dev/null", O_RDWR);
    if (null_fd >= 0) {
      dup2(null_fd, 1);
      dup2(null_fd, 2);
    }
    execvp(argv[0], argv.data());
    _exit(127);
  }
  if (pid < 0) return -1;
  int wstatus = 0;
  while (waitpid(pid, &wstatus, 0) < 0 && errno == EINTR) {
  }
  return decodeStatus(wstatus);
}

}  // namespace

std::string daemonBinary() {
  // VELT_DAEMON runs the end-to-end tests against another build of the daemon (a sanitizer
  // build, say).
  const char* other = getenv("VELT_DAEMON");
  if (other != nullptr && other[0] != '\0') return other;
  return std::string(VELT_BINARY_DIR) + "/velt.fuse";
}

bool isMounted(const std::string& mount_point) {
  std::ifstream in("/proc/mounts");
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    std::string device, dir;
    fields >> device >> dir;
    if (dir == mount_point) return true;
  }
  return false;
}

ShellResult runShell(const std::string& command) {
  ShellResult result;
  std::string log_dir = makeLogDir();
  std::string out_path = log_dir + "/stdout";
  std::string err_path = log_dir + "/stderr";
  pid_t pid = fork();
  if (pid == 0) {
    int in = open("/dev/null", O_RDONLY);
    int out = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    int err = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (in < 0 || out < 0 || err < 0) _exit(127);
    dup2(in, 0);
    dup2(out, 1);
    dup2(err, 2);
    execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  if (pid > 0) {
    int wstatus = 0;
    while (waitpid(pid, &wstatus, 0) < 0 && errno == EINTR) {
    }
    result.status = decodeStatus(wstatus);
  }
  result.out = readFileBytes(out_path);
  result.err = readFileBytes(err_path);
  removeLogDir(log_dir);
  return result;
}

std::string shellQuote(const std::string& text) {
  std::string quoted = "'";
  for (char c : text) {
    if (c == '\'') {
      quoted += "'\\''";
    } else {
      quoted += c;
    }
  }
  return quoted + "'";
}

DaemonExit runDaemonToExit(const std::vector<std::string>& args, const std::string& velt_root,
                           int timeout_ms) {
  DaemonExit result;
  std::string log_dir = makeLogDir();
  pid_t pid = spawn(args, velt_root, log_dir);
  if (pid > 0) {
    int status = waitWithTimeout(pid, timeout_ms);
    if (status == -1) {
      kill(pid, SIGKILL);
      status = waitWithTimeout(pid, 5000);
    } else {
      result.exited = true;
    }
    result.status = status;
  }
  result.out = readFileBytes(log_dir + "/stdout");
  result.err = readFileBytes(log_dir + "/stderr");
  removeLogDir(log_dir);
  return result;
}

time_t localTime(int year, int mon, int mday, int hour, int min, int sec) {
  struct tm tm = {};
  tm.tm_year = year - 1900;
  tm.tm_mon = mon - 1;
  tm.tm_mday = mday;
  tm.tm_hour = hour;
  tm.tm_min = min;
  tm.tm_sec = sec;
  tm.tm_isdst = -1;
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
  if (value != nullptr) {
    setenv(name, value, 1);
  } else {
    unsetenv(name);
  }
}

ScopedEnv::~ScopedEnv() {
  if (had_) {
    setenv(name_.c_str(), old_.c_str(), 1);
  } else {
    unsetenv(name_.c_str());
  }
}

TempDir::TempDir() {
  char templ[] = "/tmp/velt_test_XXXXXX";
  const char* dir = mkdtemp(templ);
  if (dir != nullptr) path_ = dir;
}

TempDir::~TempDir() {
  std::error_code ec;
  if (!path_.empty()) std::filesystem::remove_all(path_, ec);
}

DaemonRunner::~DaemonRunner() {
  stop();
  removeLogDir(log_dir_);
}

bool DaemonRunner::start(const std::string& velt_root, const std::string& mount_point,
                         const std::vector<std::string>& args, int timeout_ms) {
  if (pid_ > 0) return false;
  if (log_dir_.empty()) log_dir_ = makeLogDir();
  mount_point_ = mount_point;
  exit_status_ = -1;
  std::vector<std::string> full{"-f"};
  if (!default_name_) full.insert(full.end(), {"-o", "fsname=velt-test"});
  full.insert(full.end(), args.begin(), args.end());
  full.push_back(mount_point);
  pid_ = spawn(full, velt_root, log_dir_);
  if (pid_ <= 0) {
    pid_ = -1;
    return false;
  }

  auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  while (Clock::now() < deadline) {
    int wstatus = 0;
    if (waitpid(pid_, &wstatus, WNOHANG) == pid_) {
      reap(decodeStatus(wstatus));
      return false;
    }
    if (isMounted(mount_point_)) {
      // The first request waits for the daemon's init; a failed init unmounts again.
      struct stat st;
      if (stat(mount_point_.c_str(), &st) == 0 && isMounted(mount_point_)) return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return false;
}

void DaemonRunner::reap(int status) {
  exit_status_ = status;
  pid_ = -1;
}

int DaemonRunner::waitExit(int timeout_ms) {
  if (pid_ <= 0) return exit_status_;
  int status = waitWithTimeout(pid_, timeout_ms);
  if (status == -1) return -1;
  reap(status);
  return exit_status_;
}

int DaemonRunner::stop(int timeout_ms) {
  if (pid_ <= 0) {
    // A daemon that ended by itself may still have left its mount (it never should).
    if (!mount_point_.empty() && isMounted(mount_point_)) {
      runQuietly({"fusermount3", "-u", "-z", mount_point_});
    }
    return exit_status_;
  }
  if (isMounted(mount_point_)) {
    if (runQuietly({"fusermount3", "-u", mount_point_}) != 0) {
      // Busy (a test left a file open): detach it so the daemon can end.
      runQuietly({"fusermount3", "-u", "-z", mount_point_});
    }
  }
  int status = waitWithTimeout(pid_, timeout_ms);
  if (status == -1) {
    kill(pid_, SIGTERM);
    status = waitWithTimeout(pid_, 3000);
  }
  if (status == -1) {
    kill(pid_, SIGKILL);
    status = waitWithTimeout(pid_, 3000);
    if (isMounted(mount_point_)) runQuietly({"fusermount3", "-u", "-z", mount_point_});
  }
  reap(status);
  return exit_status_;
}

std::string DaemonRunner::out() const {
  return readFileBytes(log_dir_ + "/stdout");
}

std::string DaemonRunner::err() const {
  return readFileBytes(log_dir_ + "/stderr");
}

}  // namespace velt::test
