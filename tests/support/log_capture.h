// Captures every line the log writes while it lives (the log goes back to standard output
// afterwards).
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "daemon_runner.h"
#include "utils/Log.h"

namespace velt::test {

class LogCapture {
 public:
  LogCapture() {
    char tmpl[] = "/tmp/velt-log-XXXXXX";
    int fd = mkstemp(tmpl);
    close(fd);
    path_ = tmpl;
    EXPECT_EQ(nerio::theLog().redirect(path_.c_str()), 0);
  }
  ~LogCapture() {
    nerio::theLog().redirect("/dev/stdout");
    unlink(path_.c_str());
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;
  std::string text() const { return readFileBytes(path_); }

 private:
  std::string path_;
};

}  // namespace velt::test
