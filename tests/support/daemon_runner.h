// Runs the velt.fuse daemon for end-to-end tests.
//
// DaemonRunner starts `velt.fuse -f` on a mount point with VELT_ROOT pointing at a sandbox,
// waits until the mount answers, and always takes it down again: the destructor unmounts
// (fusermount3 -u, lazily if it must) and reaps the daemon, killing it when it does not end in
// time, so a failing test never leaves a mount or a process behind.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

namespace velt::test {

// Path of the velt.fuse executable of this build, or $VELT_DAEMON when that is set.
std::string daemonBinary();

// Result of a daemon run that ended by itself.
struct DaemonExit {
  bool exited = false;  // ended within the time limit (otherwise it was killed)
  int status = -1;      // exit status, or 128 + signal when a signal ended it
  std::string out;      // standard output
  std::string err;      // standard error
};

// Runs velt.fuse with `args` (argv[1..]) and VELT_ROOT = velt_root (unset when empty) until it
// ends, at most timeout_ms; the start-up failures are checked this way.
DaemonExit runDaemonToExit(const std::vector<std::string>& args, const std::string& velt_root,
                           int timeout_ms = 20000);

// True when `mount_point` is the mount directory of a line of /proc/mounts.
bool isMounted(const std::string& mount_point);

// Result of a shell command run by runShell.
struct ShellResult {
  int status = -1;  // exit status, or 128 + signal
  std::string out;
  std::string err;
};

// Runs `command` with /bin/sh -c, standard input from /dev/null, and captures both outputs.
ShellResult runShell(const std::string& command);

// Quotes `text` as one word for the shell.
std::string shellQuote(const std::string& text);

// Sets an environment variable (unsets it for null) while it lives, then restores it.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value);
  ~ScopedEnv();
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  std::string name_, old_;
  bool had_;
};

// A local time as mktime reads it (month 1-12, daylight saving as the zone decides).
time_t localTime(int year, int mon, int mday, int hour, int min, int sec);

// A host file's bytes (empty when it cannot be read), and writing them.
std::string readFileBytes(const std::string& path);
void writeFileBytes(const std::string& path, const std::string& bytes);

// A temporary directory removed with everything in it.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

enum class CardKind {
  kPlain,  // FAT32 as mkfs.fat makes it
  kVelt,   // formatted by mkfs.velt with one reserved folder
};

class DaemonRunner {
 public:
  DaemonRunner() = default;
  ~DaemonRunner();
  DaemonRunner(const DaemonRunner&) = delete;
  DaemonRunner& operator=(const DaemonRunner&) = delete;

  // Starts `velt.fuse -f <args...> <mount_point>` with VELT_ROOT = velt_root and waits until
  // the mount is listed and answers a stat, or until the daemon ends or timeout_ms pass.
  // Returns true when the file system is usable.
  //
  // The mount is listed under the name "velt-test" instead of the program's name: opening a
  // card exclusively (formatting, say) unmounts every mount listed as "velt.fuse", and tests
  // running side by side must not take each other's mounts away.
  bool start(const std::string& velt_root, const std::string& mount_point,
             const std::vector<std::string>& args = {}, int timeout_ms = 30000);

  // Unmounts and reaps the daemon (killing it after timeout_ms). Returns its exit status (128 +
  // signal when killed); -1 when it was not running. Safe to call more than once.
  int stop(int timeout_ms = 20000);

  // Waits for the daemon to end by itself (after a failed start, say), at most timeout_ms.
  // Returns its exit status, or -1 when it is still running.
  int waitExit(int timeout_ms);

  // The next start keeps the library's default name ("velt.fuse") in the mount table.
  void keepDefaultName() { default_name_ = true; }

  bool running() const { return pid_ > 0; }
  pid_t pid() const { return pid_; }
  const std::string& mountPoint() const { return mount_point_; }
  // Everything the daemon wrote so far.
  std::string out() const;
  std::string err() const;

 private:
  void reap(int status);

  pid_t pid_ = -1;
  int exit_status_ = -1;
  std::string mount_point_;
  bool default_name_ = false;
  std::string log_dir_;  // holds the captured stdout and stderr
};

}  // namespace velt::test
