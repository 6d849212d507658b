// Runs the velt.fuse daemon and other processes for tests. DaemonRunner starts `velt.fuse -f`
// with VELT_ROOT pointing at a sandbox, waits until the mount answers, and always takes it down
// again (unmounting lazily and killing the daemon if it must): a failing test leaves no mount
// and no process behind.
#pragma once

#include <sys/types.h>

#include <ctime>
#include <string>
#include <vector>

namespace velt::test {

// The velt.fuse of this build, or $VELT_DAEMON when set (a sanitizer build, say).
std::string daemonBinary();

struct DaemonExit {
  bool exited = false;  // ended within the time limit (otherwise it was killed)
  int status = -1;      // exit status, or 128 + signal
  std::string out, err;
};

// Runs velt.fuse with `args` and VELT_ROOT = velt_root (unset when empty) until it ends.
DaemonExit runDaemonToExit(const std::vector<std::string>& args, const std::string& velt_root,
                           int timeout_ms = 20000);

// True when `mount_point` is the mount directory of a line of /proc/mounts.
bool isMounted(const std::string& mount_point);

struct ShellResult {
  int status = -1;  // exit status, or 128 + signal
  std::string out, err;
};
// Runs `command` with /bin/sh -c, standard input from /dev/null, capturing both outputs.
ShellResult runShell(const std::string& command);
// Quotes `text` as one word for the shell.
std::string shellQuote(const std::string& text);

// Sets an environment variable (unsets it for null) while it lives, then restores it.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value);
  ~ScopedEnv();
  ScopedEnv(const ScopedEnv&) = delete;

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
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

enum class CardKind { kPlain, kVelt };  // mkfs.fat's FAT32, or mkfs.velt's with a reserved folder

class DaemonRunner {
 public:
  ~DaemonRunner() { stop(); }

  // Starts `velt.fuse -f <args...> <mount_point>` and waits until the mount is listed and
  // answers a stat; false when the daemon ends first or timeout_ms pass. The mount is listed as
  // "velt-test", not under the program's name: opening a card exclusively (formatting, say)
  // unmounts every mount listed under that name, and tests side by side must keep theirs.
  bool start(const std::string& velt_root, const std::string& mount_point,
             const std::vector<std::string>& args = {}, int timeout_ms = 30000);
  // Unmounts and reaps the daemon (killing it after timeout_ms): its exit status (128 + signal
  // when killed), -1 when it was not running.
  int stop(int timeout_ms = 20000);
  // Waits at most timeout_ms for the daemon to end by itself: its status, or -1 while it runs.
  int waitExit(int timeout_ms);
  // The next start keeps the program's name in the mount table.
  void keepDefaultName() { default_name_ = true; }

  pid_t pid() const { return pid_; }
  // Everything the daemon wrote so far.
  std::string out() const { return readFileBytes(logs_.path() + "/stdout"); }
  std::string err() const { return readFileBytes(logs_.path() + "/stderr"); }

 private:
  pid_t pid_ = -1;
  int exit_status_ = -1;
  std::string mount_point_;
  bool default_name_ = false;
  TempDir logs_;
};

}  // namespace velt::test
