// Process-wide log and report-only assertions.
//
// Every line is built in a private buffer and written with one fputs + fflush, so lines from
// different threads never interleave. Assertions only report: execution continues after a
// failed check and every caller copes with the failed condition itself.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <cstdio>

namespace nerio {

// Level bits. The colour is chosen by the first of error, info, warning, highlight found.
enum : uint32_t {
  kLogWarning = 0x04,
  kLogInfo = 0x08,
  kLogError = 0x10,
  kLogHighlight = 0x80,
  kLogNoLocation = 0x10000000,
};

class NerioLog {
 public:
  NerioLog();
  ~NerioLog();
  NerioLog(const NerioLog&) = delete;
  NerioLog& operator=(const NerioLog&) = delete;

  // Sends every later line to `path` (appending). 0 on success, -1 on failure.
  int redirect(const char* path);
  // Writes one finished line and flushes it.
  void writeLine(const char* text);

  char path_[4096];
  FILE* fp_;
  bool owns_stream_;
};

// The single instance, alive from static initialisation to process exit.
NerioLog& theLog();

void logPrint(uint32_t level, const char* tag, const char* function, const char* file, int line,
              const char* format, ...) __attribute__((format(printf, 6, 7)));
void logPrintV(uint32_t level, const char* tag, const char* function, const char* file, int line,
               const char* format, va_list args);
void logPlain(uint32_t level, const char* tag, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
void logVerbose(const char* tag, const char* function, const char* file, int line,
                const char* format, ...) __attribute__((format(printf, 5, 6)));
void assertFailed(const char* expression, const char* tag, const char* function, const char* file,
                  int line);
void assertFailedWithMessage(const char* expression, const char* tag, const char* function,
                             const char* file, int line, const char* format, ...)
    __attribute__((format(printf, 6, 7)));

// Crash reporting: call stack to standard error (symbolised through addr2line when present),
// the directory that completes relative executable paths, and the terminate handler that is
// installed during static initialisation.
void printBacktrace(int depth);
void setProgramDirectory(const char* path);
void nerio_terminate();

// Base name of a source path, evaluated at compile time.
constexpr const char* baseName(const char* path) {
  const char* base = path;
  for (const char* p = path; *p; ++p) {
    if (*p == '/' || *p == '\\') base = p + 1;
  }
  return base;
}

}  // namespace nerio

#define NERIO_FILE_ (::nerio::baseName(__FILE__))

// Each source file defines its tag before using these, e.g.
//   static constexpr const char kLogTag[] = "VELT.PBR";
#define LOG_AT(level, fmt, ...) \
  ::nerio::logPrint((level), kLogTag, __func__, NERIO_FILE_, __LINE__, fmt, ##__VA_ARGS__)
#define LOGE(fmt, ...) LOG_AT(::nerio::kLogError, fmt, ##__VA_ARGS__)
#define LOGI(fmt, ...) LOG_AT(::nerio::kLogInfo, fmt, ##__VA_ARGS__)
#define LOGW(fmt, ...) LOG_AT(::nerio::kLogWarning, fmt, ##__VA_ARGS__)
#define LOGH(fmt, ...) LOG_AT(::nerio::kLogHighlight, fmt, ##__VA_ARGS__)
#define LOGD(fmt, ...) LOG_AT(0, fmt, ##__VA_ARGS__)
// Location-free form: tag and function, no file or line.
#define LOGN(level, fmt, ...) LOG_AT((level) | ::nerio::kLogNoLocation, fmt, ##__VA_ARGS__)
#define LOG_PLAIN(level, fmt, ...) ::nerio::logPlain((level), kLogTag, fmt, ##__VA_ARGS__)

// Report-only assertions: the statement after them always runs.
#define NERIO_ASSERT(cond)                                                              \
  do {                                                                                  \
    if (!(cond)) ::nerio::assertFailed(#cond, kLogTag, __func__, NERIO_FILE_, __LINE__); \
  } while (0)
#define NERIO_ASSERT_MSG(cond, fmt, ...)                                                 \
  do {                                                                                   \
    if (!(cond))                                                                         \
      ::nerio::assertFailedWithMessage(#cond, kLogTag, __func__, NERIO_FILE_, __LINE__, \
                                       fmt, ##__VA_ARGS__);                              \
  } while (0)
// Reports an expression text without evaluating anything (for checks written out by hand).
#define NERIO_ASSERT_TEXT(text) ::nerio::assertFailed(text, kLogTag, __func__, NERIO_FILE_, __LINE__)
