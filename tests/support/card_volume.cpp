#include "card_volume.h"

#include <gtest/gtest.h>

#include <cstring>
#include <sstream>

#include "fs/velt_file.h"

namespace velt::test {

Loaded loadCard(const CardImage& card, int mode, int extra) {
  CardImage::RootScope scope(card);
  Loaded l;
  testing::internal::CaptureStdout();
  l.volume = VELT::create(card.devicePath(), 0, mode, extra, &l.error);
  l.log = testing::internal::GetCapturedStdout();
  return l;
}

FormatInfo formatInfo(std::initializer_list<FolderSpec> folders, uint32_t flags) {
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

int formatCard(const CardImage& card, const FormatInfo& info, uint32_t mode, const char* label,
               int extra, std::string* out) {
  CardImage::RootScope scope(card);
  testing::internal::CaptureStdout();
  int error = 0;
  int result;
  {
    std::shared_ptr<VELT> volume = VELT::create(card.devicePath(), 0, kVELTOpFormat, extra, &error);
    if (volume == nullptr) {
      result = 100 + error;
    } else {
      volume->skip_umount_ = true;  // other tests' daemons may be mounted on this machine
      result = volume->format(info, mode, label);
    }
  }
  std::string printed = testing::internal::GetCapturedStdout();
  if (out != nullptr) *out = printed;
  return result;
}

std::string repairLines(const std::string& log) {
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

void publishRecording(VELT& v, const char* folder, const std::string& name,
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

int clusterRuns(const VELT::DirEntry& e) {
  int runs = e.cluster_map_.empty() ? 0 : 1;
  for (size_t i = 1; i < e.cluster_map_.size(); ++i) {
    runs += e.cluster_map_[i] != e.cluster_map_[i - 1] + 1;
  }
  return runs;
}

}  // namespace velt::test
