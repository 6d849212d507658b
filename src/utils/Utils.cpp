#include "utils/Utils.h"

#include <cxxabi.h>
#include <dirent.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "utils/Log.h"

namespace nerio {

static constexpr const char kLogTag[] = "";

std::string vformatString(const char* format, va_list args) {
  va_list copy;
  va_copy(copy, args);
  int n = vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  if (n <= 0) return std::string();
  std::string out(static_cast<size_t>(n) + 1, '\0');
  vsnprintf(out.data(), out.size(), format, args);
  out.resize(static_cast<size_t>(n));
  return out;
}

std::string formatString(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string s = vformatString(format, args);
  va_end(args);
  return s;
}

std::string dirName(const std::string& path) {
  size_t at = path.find_last_of("/\\");
  return at == std::string::npos ? std::string() : path.substr(0, at);
}

std::string baseName(const std::string& path) {
  size_t at = path.find_last_of("/\\");
  return at == std::string::npos ? path : path.substr(at + 1);
}

std::string fileExtension(const std::string& name) {
  size_t at = name.find_last_of('.');
  return at == std::string::npos ? std::string() : name.substr(at + 1);
}

std::string replaceAll(std::string text, const std::string& from, const std::string& to) {
  if (from.empty()) return text;
  size_t at = 0;
  while ((at = text.find(from, at)) != std::string::npos) {
    text.replace(at, from.size(), to);
    at += to.size();
  }
  return text;
}

std::shared_ptr<char> cppDemangle(const char* symbol) {
  int status = 0;
  char* name = abi::__cxa_demangle(symbol, nullptr, nullptr, &status);
  return std::shared_ptr<char>(status == 0 ? name : nullptr, [](char* p) { free(p); });
}

int hasEnoughDiskSpace(const std::string& path, uint64_t bytes) {
  std::string probe = path;
  struct stat st;
  while (!probe.empty() && stat(probe.c_str(), &st) != 0) probe = dirName(probe);
  if (probe.empty()) probe = "/";
  struct statvfs vfs;
  if (statvfs(probe.c_str(), &vfs) != 0) {
    int err = errno;
    LOGE("statvfs error: %d(%s)\n", err, strerror(err));
    return -1;
  }
  uint64_t free_bytes = static_cast<uint64_t>(vfs.f_bavail) * vfs.f_bsize;
  return free_bytes >= bytes ? 0 : -1;
}

int setThreadPriority(const char* name, pthread_t thread, int priority) {
  struct sched_param param;
  int policy = 0;
  pthread_getschedparam(thread, &policy, &param);
  param.sched_priority = priority;
  int rc = pthread_setschedparam(thread, SCHED_FIFO, &param);
  if (rc != 0) {
    LOGE("%s failed to setschedparam() error %d(%s)\n", name, rc, strerror(rc));
    return -1;
  }
  return 0;
}

pid_t* pidOf(const char* name) {
  DIR* dir = opendir("/proc/");
  if (dir == nullptr) {
    LOGE("failed to open dir(\"/proc/\").\n");
    return nullptr;
  }
  int capacity = 32;
  int count = 0;
  pid_t* list = static_cast<pid_t*>(malloc(sizeof(pid_t) * capacity));
  if (list == nullptr) {
    LOGE("failed to malloc pidlist.\n");
    closedir(dir);
    return nullptr;
  }
  while (struct dirent* e = readdir(dir)) {
    if (!isNumber(e->d_name) || e->d_name[0] == '\0') continue;
    std::string comm_path = std::string("/proc/") + e->d_name + "/comm";
    FILE* fp = fopen(comm_path.c_str(), "r");
    if (fp == nullptr) continue;
    char word[256] = {};
    int got = fscanf(fp, "%255s", word);
    fclose(fp);
    if (got != 1 || strcmp(word, name) != 0) continue;
    if (count + 1 >= capacity) {
      capacity += 32;
      pid_t* grown = static_cast<pid_t*>(realloc(list, sizeof(pid_t) * capacity));
      if (grown == nullptr) {
        LOGE("failed to realloc(count=%d) pidlist.\n", capacity);
        free(list);
        closedir(dir);
        return nullptr;
      }
      list = grown;
    }
    list[count++] = static_cast<pid_t>(atoi(e->d_name));
  }
  closedir(dir);
  list[count] = -1;
  return list;
}

void killProcess(const char* name) {
  pid_t* pids = pidOf(name);
  if (pids == nullptr) return;
  for (int i = 0; pids[i] != -1; ++i) {
    LOGW("%s[%d]: kill process(%d)\n", name, i, pids[i]);
    kill(pids[i], SIGTERM);
  }
  free(pids);
}

char* getVELTMountedPoint(char* buffer, size_t size) {
  FILE* fp = fopen("/proc/mounts", "r");
  if (fp == nullptr) {
    NERIO_ASSERT_TEXT("fp");
    return nullptr;
  }
  char line[1024];
  char* result = nullptr;
  while (fgets(line, sizeof(line), fp) != nullptr) {
    char* p = line;
    while (*p == ' ') ++p;
    char* device = p;
    while (*p && *p != ' ') ++p;
    if (*p) *p++ = '\0';
    while (*p == ' ') ++p;
    char* dir = p;
    while (*p && *p != ' ' && *p != '\n') ++p;
    *p = '\0';
    if (strstr(device, "velt.fuse") == nullptr) continue;
    if (size == 0) break;
    snprintf(buffer, size, "%s", dir);
    result = buffer;
    break;
  }
  fclose(fp);
  if (result != nullptr) LOG_AT(6, "\"%s\" mounted at \"%s\"\n", "velt.fuse", buffer);
  return result;
}

std::string timeToString(time_t t) {
  struct tm local;
  localtime_r(&t, &local);
  char buf[64];
  strftime(buf, sizeof(buf), "%Y/%m/%d %H:%M:%S", &local);
  return buf;
}

uint64_t monotonicMicros() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000ull + static_cast<uint64_t>(ts.tv_nsec) / 1000;
}

struct timeval monotonicTimeval() {
  uint64_t us = monotonicMicros();
  struct timeval tv;
  tv.tv_sec = static_cast<time_t>(us / 1000000);
  tv.tv_usec = static_cast<suseconds_t>(us % 1000000);
  return tv;
}

bool isNumber(const std::string& text) {
  for (char c : text) {
    if (c < '0' || c > '9') return false;
  }
  return true;
}

}  // namespace nerio
