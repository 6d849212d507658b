// Small shared helpers: strings and paths, time, free space, thread priority, processes.
#pragma once

#include <sys/time.h>
#include <sys/types.h>

#include <cstdarg>
#include <cstdint>
#include <ctime>
#include <memory>
#include <string>
#include <thread>

namespace nerio {

std::string formatString(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string vformatString(const char* format, va_list args);
// The part before the last '/' or '\\'; empty when there is none.
std::string dirName(const std::string& path);
// The part after the last '/' or '\\'; the whole path when there is none.
std::string baseName(const std::string& path);
// The part after the last '.'; empty when there is none.
std::string fileExtension(const std::string& name);
// Replaces every occurrence, scanning on after each inserted text.
std::string replaceAll(std::string text, const std::string& from, const std::string& to);
// Demangled symbol, or a null pointer when the name cannot be demangled.
std::shared_ptr<char> cppDemangle(const char* symbol);

// 0 when the file system holding `path` (or its nearest existing parent) has `bytes` free.
int hasEnoughDiskSpace(const std::string& path, uint64_t bytes);
// Switches a thread to real-time FIFO scheduling at `priority`; -1 (logged) on failure.
int setThreadPriority(const char* name, pthread_t thread, int priority);
// Pids whose command name is `name`, ended by -1; null on failure. The caller frees it.
pid_t* pidOf(const char* name);
void killProcess(const char* name);
// Where the daemon is mounted (first "/proc/mounts" line whose device field names it).
char* getVELTMountedPoint(char* buffer, size_t size);
std::string timeToString(time_t t);
uint64_t monotonicMicros();
struct timeval monotonicTimeval();
bool isNumber(const std::string& text);

}  // namespace nerio
