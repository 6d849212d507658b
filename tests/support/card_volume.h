// Loading and formatting a card image through the library, with what it prints captured.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <sstream>
#include <string>

#include "card_image.h"
#include "fs/velt.h"
#include "fs/velt_dirent.h"
#include "fs/velt_file.h"

namespace velt::test {

struct Loaded {
  int error = 0;
  std::shared_ptr<VELT> volume;
  std::string log;  // what loading printed
};

// Loads the card through VELT::create, VELT_ROOT pointing at its sandbox.
inline Loaded loadCard(const CardImage& card, int mode = kVELTOpMount, int extra = 0) {
  CardImage::RootScope scope(card);
  Loaded l;
  testing::internal::CaptureStdout();
  l.volume = VELT::create(card.devicePath(), 0, mode, extra, &l.error);
  l.log = testing::internal::GetCapturedStdout();
  return l;
}

struct FolderSpec {
  const char* name;
  uint32_t percent;
  uint32_t size_mb;
};
inline FormatInfo formatInfo(std::initializer_list<FolderSpec> folders, uint32_t flags = 0) {
  FormatInfo info;
  for (const FolderSpec& f : folders) {
    ReservedFolderDesc& d = info.folders[info.folder_count++];
    strncpy(d.name, f.name, sizeof(d.name) - 1);
    d.percent = f.percent;
    d.size_mb = f.size_mb;
  }
  info.flags = flags;
  return info;
}

// Opens the card for formatting, formats it and unloads it (which writes the FATs and FSInfo).
// Returns format's result, or 100 + the open's result code; `out` gets what was printed.
inline int formatCard(const CardImage& card, const FormatInfo& info,
                      uint32_t mode = kVELTFormatModeN, const char* label = nullptr, int extra = 0,
                      std::string* out = nullptr) {
  CardImage::RootScope scope(card);
  testing::internal::CaptureStdout();
  int error = 0, result;
  if (auto volume = VELT::create(card.devicePath(), 0, kVELTOpFormat, extra, &error)) {
    volume->skip_umount_ = true;  // other tests' daemons may be mounted on this machine
    result = volume->format(info, mode, label);
  } else {
    result = 100 + error;
  }
  std::string printed = testing::internal::GetCapturedStdout();
  if (out != nullptr) *out = printed;
  return result;
}

// The lines of a load's log by which it tells that it repaired something ("": nothing).
inline std::string repairLines(const std::string& log) {
  std::istringstream in(log);
  std::string out;
  for (std::string line; std::getline(in, line);) {
    for (const char* mark : {"repair:", "modified, flush now", "mark deleted", "clear damaged",
                             "unusable", "restored", "ended at", "mismatch", "FATAL"}) {
      if (line.find(mark) != std::string::npos) {
        out += line + "\n";
        break;
      }
    }
  }
  return out;
}

// Creates `name` in the reserved folder `folder` ("/REC"), writes `data` into it and publishes it.
inline void publishRecording(VELT& v, const char* folder, const std::string& name,
                             const std::string& data) {
  auto e = v.newEntry(v.findEntry(folder), name.c_str(), false);
  ASSERT_NE(e, nullptr) << name;
  auto f = v.newFile(false, true, true, e);
  ASSERT_NE(f, nullptr) << name;
  ASSERT_EQ(f->write(data.data(), data.size(), 0), static_cast<int>(data.size())) << name;
  ASSERT_EQ(e->secure2(), 0) << name;
  f->close();
  v.freeFile(f->file_no_);
}

}  // namespace velt::test
