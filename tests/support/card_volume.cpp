#include "card_volume.h"

#include <gtest/gtest.h>

#include <cstring>

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

int clusterRuns(const VELT::DirEntry& e) {
  int runs = e.cluster_map_.empty() ? 0 : 1;
  for (size_t i = 1; i < e.cluster_map_.size(); ++i) {
    runs += e.cluster_map_[i] != e.cluster_map_[i - 1] + 1;
  }
  return runs;
}

}  // namespace velt::test
