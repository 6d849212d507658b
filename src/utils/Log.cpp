#include "utils/Log.h"

#include <execinfo.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <iostream>
#include <string>
#include <algorithm>

namespace nerio {

namespace {

constexpr size_t kLineSpare = 256;  // room for stamp, colour, location and reset
constexpr size_t kAssertBufferSize = 1024;
constexpr const char kColourReset[] = "\e[39m";

const char* colourFor(uint32_t level) {
  if (level & kLogError) return "\e[31m";
  if (level & kLogInfo) return "\e[32m";
  if (level & kLogWarning) return "\e[33m";
  if (level & kLogHighlight) return "\e[36m";
  return "\e[37m";
}

// Appends to a bounded buffer; `used` never passes `size - 1`, so the text stays terminated.
void appendf(char* buf, size_t size, size_t& used, const char* format, ...)
    __attribute__((format(printf, 4, 5)));
void appendf(char* buf, size_t size, size_t& used, const char* format, ...) {
  if (used + 1 >= size) return;
  va_list args;
  va_start(args, format);
  int n = vsnprintf(buf + used, size - used, format, args);
  va_end(args);
  if (n > 0) used += std::min(static_cast<size_t>(n), size - used - 1);
}

void vappendf(char* buf, size_t size, size_t& used, const char* format, va_list args) {
  if (used + 1 >= size) return;
  int n = vsnprintf(buf + used, size - used, format, args);
  if (n > 0) used += std::min(static_cast<size_t>(n), size - used - 1);
}

void appendStamp(char* buf, size_t size, size_t& used) {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  struct tm local;
  time_t seconds = tv.tv_sec;
  localtime_r(&seconds, &local);
  appendf(buf, size, used, "%02d:%02d:%02d.%06d ", local.tm_hour, local.tm_min, local.tm_sec,
          static_cast<int>(tv.tv_usec));
}

int measure(const char* format, va_list args) {
  va_list copy;
  va_copy(copy, args);
  int n = vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  return n < 0 ? 0 : n;
}

// Builds and writes one line: stamp, colour, optional location, message, reset.
void emit(const char* colour, const char* location_format, const char* tag, const char* function,
          const char* file, int line, bool with_file, const char* format, va_list args) {
  size_t size = static_cast<size_t>(measure(format, args)) + kLineSpare;
  char* buf = static_cast<char*>(calloc(size, 1));
  if (buf == nullptr) return;
  size_t used = 0;
  appendStamp(buf, size, used);
  appendf(buf, size, used, "%s", colour);
  if (location_format != nullptr) {
    if (with_file) {
      appendf(buf, size, used, location_format, tag, function, file, line);
    } else {
      appendf(buf, size, used, "[%s] %s(): ", tag, function);
    }
  }
  vappendf(buf, size, used, format, args);
  appendf(buf, size, used, "%s", kColourReset);
  theLog().writeLine(buf);
  free(buf);
}

char g_program_directory[4096] = {0};
std::atomic<bool> g_terminating{false};

void terminateHandler() {
  if (g_terminating.exchange(true)) return;
  try {
    std::exception_ptr current = std::current_exception();
    if (current) std::rethrow_exception(current);
    std::cerr << "nerio_terminate" << " caught unknown/unhandled exception." << std::endl;
  } catch (const std::exception& e) {
    std::cerr << "nerio_terminate" << " caught unhandled exception. what(): " << e.what()
              << std::endl;
  } catch (...) {
    std::cerr << "nerio_terminate" << " caught unknown/unhandled exception." << std::endl;
  }
}

}  // namespace

NerioLog::NerioLog() : fp_(stdout), owns_stream_(false) { path_[0] = '\0'; }

NerioLog::~NerioLog() {
  if (owns_stream_ && fp_ != nullptr) fclose(fp_);
  fp_ = stdout;
  owns_stream_ = false;
}

int NerioLog::redirect(const char* path) {
  static constexpr const char kLogTag[] = "";
  if (owns_stream_ && fp_ != nullptr) fclose(fp_);
  fp_ = fopen(path, "a+t");
  if (fp_ == nullptr) NERIO_ASSERT_TEXT("fp_ != nullptr");
  owns_stream_ = fp_ != nullptr;
  // A failed redirect sends lines to standard output again.
  if (fp_ == nullptr) fp_ = stdout;
  if (path != path_) {
    strncpy(path_, path, sizeof(path_) - 1);
    path_[sizeof(path_) - 1] = '\0';
  }
  return owns_stream_ ? 0 : -1;
}

void NerioLog::writeLine(const char* text) {
  FILE* fp = fp_ != nullptr ? fp_ : stdout;
  fputs(text, fp);
  fflush(fp);
}

NerioLog& theLog() {
  // Constructed on first use, which happens during static initialisation at the latest.
  static NerioLog log;
  return log;
}

void logPrintV(uint32_t level, const char* tag, const char* function, const char* file, int line,
               const char* format, va_list args) {
  emit(colourFor(level), "[%s] %s()@%s:%d: ", tag, function, file, line,
       (level & kLogNoLocation) == 0, format, args);
}

void logPrint(uint32_t level, const char* tag, const char* function, const char* file, int line,
              const char* format, ...) {
  va_list args;
  va_start(args, format);
  logPrintV(level, tag, function, file, line, format, args);
  va_end(args);
}

void logPlain(uint32_t level, const char* /*tag*/, const char* format, ...) {
  va_list args;
  va_start(args, format);
  emit(colourFor(level), nullptr, "", "", "", 0, false, format, args);
  va_end(args);
}

void logVerbose(const char* tag, const char* function, const char* file, int line,
                const char* format, ...) {
  va_list args;
  va_start(args, format);
  emit("\e[37m", "[%s] %s()@%s:%d: ", tag, function, file, line, true, format, args);
  va_end(args);
}

void assertFailed(const char* expression, const char* tag, const char* function, const char* file,
                  int line) {
  char* buf = static_cast<char*>(calloc(kAssertBufferSize, 1));
  if (buf == nullptr) return;
  size_t used = 0;
  appendStamp(buf, kAssertBufferSize, used);
  appendf(buf, kAssertBufferSize, used, "\e[31m%s: ASSERT %s@%d %s: %s\e[39m\r\n", tag, file,
          line, function, expression);
  theLog().writeLine(buf);
  free(buf);
}

void assertFailedWithMessage(const char* expression, const char* tag, const char* function,
                             const char* file, int line, const char* format, ...) {
  va_list args;
  va_start(args, format);
  size_t size = static_cast<size_t>(measure(format, args)) + kLineSpare + strlen(expression);
  char* buf = static_cast<char*>(calloc(size, 1));
  if (buf == nullptr) {
    va_end(args);
    return;
  }
  size_t used = 0;
  appendStamp(buf, size, used);
  appendf(buf, size, used, "\e[31m%s: ASSERT %s@%d %s: %s ", tag, file, line, function,
          expression);
  vappendf(buf, size, used, format, args);
  va_end(args);
  appendf(buf, size, used, "%s", kColourReset);
  theLog().writeLine(buf);
  free(buf);
}

void setProgramDirectory(const char* path) {
  if (path == nullptr) return;
  struct stat st;
  if (stat(path, &st) != 0) return;
  strncpy(g_program_directory, path, sizeof(g_program_directory) - 1);
  g_program_directory[sizeof(g_program_directory) - 1] = '\0';
}

void printBacktrace(int depth) {
  void* frames[256];
  int wanted = depth < 256 ? depth : 256;
  if (wanted <= 0) return;
  int count = backtrace(frames, wanted);
  if (count <= 0) return;
  char** symbols = backtrace_symbols(frames, count);
  if (symbols == nullptr) return;
  for (int i = 0; i < count; ++i) {
    const char* symbol = symbols[i];
    fprintf(stderr, " %s: ", symbol);
    fflush(stderr);

    char path[512];
    const char* paren = strchr(symbol, '(');
    size_t path_len = paren ? static_cast<size_t>(paren - symbol) : strlen(symbol);
    if (path_len >= sizeof(path)) path_len = sizeof(path) - 1;
    memcpy(path, symbol, path_len);
    path[path_len] = '\0';

    uintptr_t address = 0;
    const char* bracket = strchr(symbol, '[');
    if (bracket != nullptr) {
      const char* p = bracket + 1;
      if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) p += 2;
      address = static_cast<uintptr_t>(strtoull(p, nullptr, 16));
    }

    if (strlen(path) > 2 && path[0] == '.' && path[1] == '/' && g_program_directory[0] != '\0') {
      std::string completed = std::string(g_program_directory) + "/" + (path + 2);
      completed.resize(std::min(completed.size(), sizeof(path) - 1));
      memcpy(path, completed.c_str(), completed.size() + 1);
    }

    const char* tool = nullptr;
    if (access("/bin/addr2line", X_OK) == 0) {
      tool = "/bin/addr2line";
    } else if (access("/data/addr2line", X_OK) == 0) {
      tool = "/data/addr2line";
    }
    if (tool == nullptr) {
      fputs("\n", stdout);
      fflush(stdout);
      continue;
    }
    // Started directly (no shell); its output completes the frame line.
    char exe[257];
    snprintf(exe, sizeof(exe), "%.256s", path);
    char addr[32];
    snprintf(addr, sizeof(addr), "%p", reinterpret_cast<void*>(address));
    fflush(stdout);
    pid_t pid = fork();
    if (pid == 0) {
      const char* argv[] = {tool, "-f", "-p", "-e", exe, addr, nullptr};
      execv(tool, const_cast<char* const*>(argv));
      _exit(127);
    }
    if (pid > 0) {
      int status = 0;
      while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
      }
    }
  }
  free(symbols);
}

void nerio_terminate() { terminateHandler(); }

namespace {
// Installed during static initialisation, before main runs; the previous handler is not kept.
struct TerminateInstaller {
  TerminateInstaller() {
    theLog();
    std::set_terminate(nerio_terminate);
  }
};
TerminateInstaller g_terminate_installer;
}  // namespace

}  // namespace nerio
