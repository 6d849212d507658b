// Loading and formatting a card image through the library, with what it prints captured.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>

#include "card_image.h"
#include "fs/velt.h"
#include "fs/velt_dirent.h"

namespace velt::test {

struct Loaded {
  int error = 0;
  std::shared_ptr<VELT> volume;
  std::string log;  // what loading printed
};

// Loads the card through VELT::create, VELT_ROOT pointing at its sandbox.
Loaded loadCard(const CardImage& card, int mode = kVELTOpMount, int extra = 0);

struct FolderSpec {
  const char* name;
  uint32_t percent;
  uint32_t size_mb;
};
FormatInfo formatInfo(std::initializer_list<FolderSpec> folders, uint32_t flags = 0);

// Opens the card for formatting, formats it and unloads it (which writes the FATs and FSInfo).
// Returns format's result, or 100 + the open's result code; `out` gets what was printed.
int formatCard(const CardImage& card, const FormatInfo& info, uint32_t mode = kVELTFormatModeN,
               const char* label = nullptr, int extra = 0, std::string* out = nullptr);

// The lines of a load's log by which it tells that it repaired something ("": nothing).
std::string repairLines(const std::string& log);

// Creates `name` in the reserved folder `folder` ("/REC"), writes `data` into it and publishes it.
void publishRecording(VELT& v, const char* folder, const std::string& name,
                      const std::string& data);

// Number of contiguous runs in an entry's cluster map.
int clusterRuns(const VELT::DirEntry& e);

}  // namespace velt::test
