#include "fake_driver.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstring>

namespace velt_test {

int FakeDriver::readSectors(uint32_t start, int count, void* buffer) {
  requests.push_back({'r', start, count});
  int answer = count;
  if (!read_answers_.empty()) {
    answer = read_answers_.front();
    read_answers_.pop_front();
  }
  if (answer < 1) return answer;
  if (answer > count) answer = count;
  size_t from = static_cast<size_t>(start) * 512;
  size_t bytes = static_cast<size_t>(answer) * 512;
  if (from + bytes > data_.size()) return -1;
  memcpy(buffer, data_.data() + from, bytes);
  return answer;
}

int FakeDriver::writeSectors(uint32_t start, int count, const void* buffer) {
  requests.push_back({'w', start, count});
  int answer = count;
  if (!write_answers_.empty()) {
    answer = write_answers_.front();
    write_answers_.pop_front();
  }
  if (answer < 1) return answer;
  if (answer > count) answer = count;
  size_t from = static_cast<size_t>(start) * 512;
  size_t bytes = static_cast<size_t>(answer) * 512;
  if (from + bytes > data_.size()) return -1;
  memcpy(data_.data() + from, buffer, bytes);
  return answer;
}

FakeVolume::FakeVolume(uint32_t sectors) {
  volume = std::make_shared<velt::VELT>("/dev/mmcblk0p1", 1, velt::kVELTOpMount, 0);
  auto fake = std::make_unique<FakeDriver>(sectors);
  driver = fake.get();
  disk = fake->disk_;
  volume->driver_ = std::move(fake);
  volume->device_fd_ = open("/dev/null", O_RDONLY | O_CLOEXEC);
  volume->allocBuffers();
}

bool FakeVolume::formatInMemory() {
  auto& v = *volume;
  v.mbr_ = new velt::MBR(&v);
  if (v.mbr_->format() != 0) return false;
  velt::Partition p;
  if (v.mbr_->getFAT32Partition(1, &p) < 0) return false;
  v.pbr_ = new velt::PBR(&v, 1, &p);
  return v.pbr_->format() == 0;
}

}  // namespace velt_test
