#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "daemon_runner.h"
#include "fs/velt.h"
#include "fs/velt_driver.h"
#include "log_capture.h"

using velt::test::ScopedEnv;
using velt::test::TempDir;

TEST(BlockDriver, RequestRecordAndCodes) {
  uint8_t record[16];
  int marker = 0;
  size_t n = velt::encodeSectorRequest(record, 0x01020304, 7, &marker);
  uint32_t start, count;
  memcpy(&start, record, 4);
  memcpy(&count, record + 4, 4);
  EXPECT_EQ(start, 0x01020304u);
  EXPECT_EQ(count, 7u);
  if (sizeof(void*) == 8) {
    EXPECT_EQ(n, 16u);
    uint64_t address;
    memcpy(&address, record + 8, 8);
    EXPECT_EQ(address, reinterpret_cast<uintptr_t>(&marker));
    EXPECT_EQ(velt::veltIoctlWrite(), 0x40106F03u);
    EXPECT_EQ(velt::veltIoctlRead(), 0x80106F04u);
  } else {
    EXPECT_EQ(n, 12u);
    EXPECT_EQ(velt::veltIoctlWrite(), 0x400C6F03u);
    EXPECT_EQ(velt::veltIoctlRead(), 0x800C6F04u);
  }
  EXPECT_EQ(velt::veltIoctlGetSize(), 0x80046F05u);
}

TEST(BlockDriver, PositionalBackendOnAnImageFile) {
  TempDir dir;
  std::string image = dir.path() + "/card.img";
  int fd = open(image.c_str(), O_RDWR | O_CREAT, 0600);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(ftruncate(fd, 10 * 512), 0);
  auto driver = velt::makeBlockDriver(fd);
  ASSERT_NE(driver, nullptr);
  EXPECT_EQ(driver->sizeInSectors(), 10);

  std::vector<uint8_t> out(3 * 512), in(3 * 512);
  for (size_t i = 0; i < out.size(); ++i) out[i] = static_cast<uint8_t>(i * 3);
  EXPECT_EQ(driver->writeSectors(4, 3, out.data()), 3);
  EXPECT_EQ(driver->readSectors(4, 3, in.data()), 3);
  EXPECT_EQ(in, out);
  std::vector<uint8_t> raw(512);
  ASSERT_EQ(pread(fd, raw.data(), 512, 5 * 512), 512);
  EXPECT_EQ(0, memcmp(raw.data(), out.data() + 512, 512));

  // At the end of the image: a short answer, then a failure.
  std::vector<uint8_t> many(4 * 512);
  EXPECT_EQ(driver->readSectors(8, 4, many.data()), 2);
  EXPECT_LT(driver->readSectors(10, 1, many.data()), 1);
  close(fd);
}

TEST(BlockDriver, PlatformRootAndMissingDevice) {
  TempDir dir;
  {
    ScopedEnv env("VELT_ROOT", nullptr);
    EXPECT_EQ(velt::platformPath("/dev/velt"), "/dev/velt");
  }
  {
    ScopedEnv env("VELT_ROOT", dir.path().c_str());
    EXPECT_EQ(velt::platformPath("/dev/velt"), dir.path() + "/dev/velt");
    EXPECT_EQ(velt::platformPath("/tmp/veltw"), dir.path() + "/tmp/veltw");
  }
  {
    ScopedEnv env("VELT_ROOT", (dir.path() + "/not-there").c_str());
    EXPECT_EQ(velt::platformPath("/dev/velt"), "/dev/velt") << "only a directory counts";
  }

  // No driver device under the root: code 3, the message names the path as written, and the
  // object is left unloaded with nothing open.
  ScopedEnv env("VELT_ROOT", dir.path().c_str());
  velt::VELT v("/dev/mmcblk0p1", 1, velt::kVELTOpMount, 0);
  std::string log;
  {
    velt::test::LogCapture capture;
    EXPECT_EQ(v.init(), velt::kVELTNoDevice);
    log = capture.text();
  }
  EXPECT_EQ(v.state_, velt::kVELTStateUnloaded);
  EXPECT_EQ(v.device_fd_, -1);
  EXPECT_NE(log.find("\"/dev/velt\" open failed: 2(No such file or directory)"), std::string::npos)
      << log;
  EXPECT_EQ(log.find(dir.path()), std::string::npos) << log;

  int error = 0;
  EXPECT_EQ(velt::VELT::create("/dev/mmcblk0p1", 0, 0, 0, &error), nullptr);
  EXPECT_EQ(error, velt::kVELTNoDevice);
}
