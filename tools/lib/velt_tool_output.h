// What the library prints while a tool works: its log lines (stamped, coloured, with their source
// location) and its tables go to standard output. A tool that talks to people catches them,
// shows its own summary, and shows the library's words only when asked (-v) or when they explain
// a failure.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

namespace velt::tool {

struct LibraryLine {
  enum Kind { kPrinted, kLog } kind = kPrinted;
  enum Level { kNone, kError, kInfo, kWarning, kHighlight } level = kNone;
  bool has_location = false;  // "[tag] function()@file:line: " came before the message
  std::string text;           // the message alone: no stamp, colour or location
};

// Splits captured output into lines and strips the log's decorations.
std::vector<LibraryLine> parseLibraryOutput(const std::string& captured);

// Catches everything written to standard output between construction and finish() (or
// destruction). With pass_through nothing is caught: the output goes where it always goes.
class LibraryOutputCatcher {
 public:
  explicit LibraryOutputCatcher(bool pass_through);
  ~LibraryOutputCatcher();
  LibraryOutputCatcher(const LibraryOutputCatcher&) = delete;
  LibraryOutputCatcher& operator=(const LibraryOutputCatcher&) = delete;

  // Restores standard output and returns what was caught (empty when passed through).
  std::string finish();

 private:
  int saved_fd_ = -1;
  FILE* file_ = nullptr;
  std::string caught_;
};

}  // namespace velt::tool
