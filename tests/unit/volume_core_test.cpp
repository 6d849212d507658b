#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>

#include "fake_driver.h"
#include "fs/velt.h"

TEST(VolumeCore, DevicePathRules) {
  // With no driver device anywhere, an accepted path gets as far as opening it (code 3);
  // a rejected one is refused with -22 before anything is opened.
  char tmpl[] = "/tmp/velt-core-XXXXXX";
  std::string root = mkdtemp(tmpl);
  setenv("VELT_ROOT", root.c_str(), 1);
  struct Row {
    const char* path;
    int error;
  } rows[] = {
      {"/dev/mmcblk0p1", velt::kVELTNoDevice}, {"/dev/mmcblk12p3", velt::kVELTNoDevice},
      {"/dev/mmcblk00p1", -22}, {"/dev/mmcblk0p01", -22}, {"/dev/mmcblk0p1x", -22},
      {"/dev/mmcblkp1", -22}, {"/dev/mmcblk0", -22}, {"/dev/sda1", -22},
      {"/dev/mmcblk0p", -22}, {"", -22}, {"/dev/mmcblk-1p1", -22},
  };
  for (const auto& r : rows) {
    int error = 12345;
    auto v = velt::VELT::create(r.path, 0, velt::kVELTOpMount, 0, &error);
    EXPECT_EQ(v, nullptr) << r.path;
    EXPECT_EQ(error, r.error) << r.path;
  }
  unsetenv("VELT_ROOT");
  rmdir(root.c_str());
}

TEST(VolumeCore, StatesHandlesAndMountPoint) {
  velt::VELT v("/dev/mmcblk0p1", 1, velt::kVELTOpMount, 0);
  EXPECT_EQ(v.state_, velt::kVELTStateUnloaded);
  EXPECT_EQ(v.device_fd_, -1);
  EXPECT_EQ(v.next_file_handle_, 3);
  EXPECT_EQ(v.getFile(3), nullptr);
  EXPECT_EQ(v.getDiskSize(), -1) << "device closed";

  v.state_ = velt::kVELTStateLoaded;
  EXPECT_EQ(v.init(), -1) << "init of a loaded volume changes nothing";
  EXPECT_EQ(v.state_, velt::kVELTStateLoaded);
  v.state_ = velt::kVELTStateUnloaded;

  const char* path = "/mnt/card/dir/file";
  EXPECT_EQ(v.stripMountPoint(path), path);
  v.setMountPoint("/mnt/card");
  EXPECT_STREQ(v.stripMountPoint(path), "/dir/file");
  EXPECT_STREQ(v.stripMountPoint("/dir/file"), "/dir/file");
}

TEST(VolumeCore, UnloadWritesOutThePendingBuffer) {
  velt_test::FakeVolume f(4096);
  auto& v = *f.volume;
  ASSERT_EQ(v.createCache(1 << 20), 0);
  std::vector<uint8_t> data(1024, 0x5A);
  ASSERT_EQ(v.write(data.data(), 1024, 0, true), 1024);
  EXPECT_TRUE(f.driver->requests.empty());
  {
    std::lock_guard<std::mutex> lock(v.mutex_);
    v.unload();
  }
  EXPECT_EQ(0, memcmp(f.disk->data(), data.data(), data.size()));
  EXPECT_EQ(v.cache_pool_, nullptr);
  EXPECT_EQ(v.cache_size_, 2048);
}
