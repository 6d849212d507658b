#include "velt_tool_output.h"

#include <unistd.h>

#include <cstring>

namespace velt::tool {

namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// "HH:MM:SS.uuuuuu " at the start of a log line.
bool hasStamp(const std::string& s) {
  static constexpr char kShape[] = "00:00:00.000000 ";
  if (s.size() < sizeof(kShape) - 1) return false;
  for (size_t i = 0; i < sizeof(kShape) - 1; ++i) {
    if (isDigit(kShape[i]) ? !isDigit(s[i]) : s[i] != kShape[i]) return false;
  }
  return true;
}

void eraseAll(std::string& s, const std::string& what) {
  for (size_t at; (at = s.find(what)) != std::string::npos;) s.erase(at, what.size());
}

}  // namespace

std::vector<LibraryLine> parseLibraryOutput(const std::string& captured) {
  std::vector<LibraryLine> lines;
  size_t at = 0;
  while (at < captured.size()) {
    size_t end = captured.find('\n', at);
    if (end == std::string::npos) end = captured.size();
    std::string raw = captured.substr(at, end - at);
    at = end + 1;
    // A log message carries its own newline, so the colour reset opens the next line.
    eraseAll(raw, "\x1b[39m");
    eraseAll(raw, "\r");
    LibraryLine line;
    if (hasStamp(raw) && raw.size() >= 21 && raw.compare(16, 2, "\x1b[") == 0) {
      line.kind = LibraryLine::kLog;
      const std::string colour = raw.substr(18, 3);
      line.level = colour == "31m"   ? LibraryLine::kError
                   : colour == "32m" ? LibraryLine::kInfo
                   : colour == "33m" ? LibraryLine::kWarning
                   : colour == "36m" ? LibraryLine::kHighlight
                                     : LibraryLine::kNone;
      std::string rest = raw.substr(21);
      // "[tag] function()@file:line: " or "[tag] function(): "
      if (!rest.empty() && rest[0] == '[') {
        size_t close = rest.find("] ");
        size_t call = close == std::string::npos ? close : rest.find("()", close);
        size_t colon = call == std::string::npos ? call : rest.find(": ", call);
        if (colon != std::string::npos && rest.find(' ', close + 2) >= call) {
          line.has_location = true;
          rest = rest.substr(colon + 2);
        }
      }
      // A failed check: "tag: ASSERT file@line function: expression".
      if (!line.has_location && rest.find(": ASSERT ") != std::string::npos) {
        line.has_location = true;
      }
      line.text = rest;
    } else {
      if (raw.empty() && at >= captured.size()) break;
      line.text = raw;
    }
    lines.push_back(line);
  }
  return lines;
}

LibraryOutputCatcher::LibraryOutputCatcher(bool pass_through) {
  if (pass_through) return;
  fflush(stdout);
  file_ = tmpfile();
  if (file_ == nullptr) return;
  saved_fd_ = dup(STDOUT_FILENO);
  if (saved_fd_ < 0 || dup2(fileno(file_), STDOUT_FILENO) < 0) {
    if (saved_fd_ >= 0) close(saved_fd_);
    saved_fd_ = -1;
    fclose(file_);
    file_ = nullptr;
  }
}

LibraryOutputCatcher::~LibraryOutputCatcher() { finish(); }

std::string LibraryOutputCatcher::finish() {
  if (file_ == nullptr) return caught_;
  fflush(stdout);
  dup2(saved_fd_, STDOUT_FILENO);
  close(saved_fd_);
  saved_fd_ = -1;
  rewind(file_);
  char buf[65536];
  size_t n;
  while ((n = fread(buf, 1, sizeof(buf), file_)) > 0) caught_.append(buf, n);
  fclose(file_);
  file_ = nullptr;
  return caught_;
}

}  // namespace velt::tool
