// Captures every line the log writes while it lives (the log goes back to standard output
// afterwards).
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

#include "daemon_runner.h"
#include "utils/Log.h"

namespace velt::test {

class LogCapture {
 public:
  LogCapture() { EXPECT_EQ(nerio::theLog().redirect(path_.c_str()), 0); }
  ~LogCapture() { nerio::theLog().redirect("/dev/stdout"); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;
  std::string text() const { return readFileBytes(path_); }
  // Occurrences of `what` so far.
  int count(const std::string& what) const {
    const std::string t = text();
    int n = 0;
    for (size_t at = t.find(what); at != std::string::npos; at = t.find(what, at + 1)) ++n;
    return n;
  }
  // Waits until `what` has appeared `times` times, at most timeout_ms.
  bool waitFor(const std::string& what, int times = 1, int timeout_ms = 5000) const {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (std::chrono::steady_clock::now() < end) {
      if (count(what) >= times) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return count(what) >= times;
  }

 private:
  TempDir dir_;
  const std::string path_ = dir_.path() + "/log";
};

}  // namespace velt::test
