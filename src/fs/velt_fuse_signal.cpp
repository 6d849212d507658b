#include "fs/velt_fuse_signal.h"

#include <sys/prctl.h>
#include <sys/resource.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "utils/Log.h"

namespace velt {

static constexpr const char kLogTag[] = "VELT.Fuse";

namespace {

const char* signalName(int sig) {
  switch (sig) {
    case SIGILL: return "SIGILL";
    case SIGABRT: return "SIGABRT";
    case SIGBUS: return "SIGBUS";
    case SIGFPE: return "SIGFPE";
    case SIGSEGV: return "SIGSEGV";
    default: return "SIG???";
  }
}

const char* codeName(int sig, int code) {
  if (sig != SIGSEGV) return "???";
  switch (code) {
    case SEGV_MAPERR: return "SEGV_MAPERR";
    case SEGV_ACCERR: return "SEGV_ACCERR";
    case 0: return "";
    default: return "???";
  }
}

}  // namespace

void sigfault_handler(int signal_number, siginfo_t* info, void* /*context*/) {
  int code = info ? info->si_code : 0;
  void* address = info ? info->si_addr : nullptr;
  fprintf(stderr, "###### %d (%s) code: %d(%s) @ %p\n", signal_number, signalName(signal_number),
          code, codeName(signal_number, code), address);
  fflush(stderr);
  nerio::printBacktrace(12);
  // The default action ends the process (with a core file) when the fault happens again.
  signal(signal_number, SIG_DFL);
}

void install_sigfault() {
  struct rlimit limit;
  limit.rlim_cur = RLIM_INFINITY;
  limit.rlim_max = RLIM_INFINITY;
  if (setrlimit(RLIMIT_CORE, &limit) != 0) {
    int err = errno;
    LOGE("setrlimit(RLIMIT_CORE) error %d(%s)\n", err, strerror(err));
  }
  if (prctl(PR_SET_DUMPABLE, 1, 0, 0, 0) != 0) {
    int err = errno;
    LOGE("prctl(PR_SET_DUMPABLE) error %d(%s)\n", err, strerror(err));
  }
  struct sigaction action;
  memset(&action, 0, sizeof(action));
  action.sa_sigaction = sigfault_handler;
  action.sa_flags = SA_SIGINFO;
  sigemptyset(&action.sa_mask);
  sigaction(SIGSEGV, &action, nullptr);
  sigaction(SIGABRT, &action, nullptr);
}

}  // namespace velt
