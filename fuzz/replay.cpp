// Replays the kept fuzz inputs (corpora and every crash found) through the targets, so that
// the ordinary test build, sanitizers included, runs them: `fuzz_replay card DIR...`.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz_card.h"

int main(int argc, char** argv) {
  if (argc < 3) {
    fprintf(stderr, "usage: %s card|channel DIR...\n", argv[0]);
    return 2;
  }
  const std::string target = argv[1];
  if (target != "card" && target != "channel") return 2;
  // The library's diagnostics would bury the one line that matters.
  fflush(stdout);
  if (freopen("/dev/null", "w", stdout) == nullptr) return 2;
  int count = 0;
  for (int i = 2; i < argc; ++i) {
    std::vector<std::filesystem::path> files;
    if (!std::filesystem::is_directory(argv[i])) continue;  // no regression kept yet
    for (const auto& e : std::filesystem::directory_iterator(argv[i])) {
      if (e.is_regular_file()) files.push_back(e.path());
    }
    std::sort(files.begin(), files.end());
    for (const auto& f : files) {
      std::ifstream in(f, std::ios::binary);
      std::vector<uint8_t> data(std::istreambuf_iterator<char>(in), {});
      fprintf(stderr, "%s\n", f.c_str());
      if (target == "card") {
        velt::fuzz::fuzzCard(data.data(), data.size());
      } else {
        velt::fuzz::fuzzChannel(data.data(), data.size());
      }
      ++count;
    }
  }
  fprintf(stderr, "%d inputs replayed through the %s target\n", count, target.c_str());
  return count > 0 ? 0 : 1;
}
