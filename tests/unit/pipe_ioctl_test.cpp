// The ioctl callback called directly (the mount itself is covered end to end): the refusals
// before any lookup, the four commands and their records, and the cache size rules.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include "fake_driver.h"
#include "fs/velt_dirent.h"
#include "fs/velt_file.h"
#include "fs/velt_fuse.h"
#include "fs/velt_fuse_ioctl.h"

using velt::VELT;
using velt::VELTFuse;

namespace {

struct Mounted {
  Mounted() : f(16384) {
    EXPECT_TRUE(f.formatInMemory());
    entry = std::make_shared<VELT::DirEntry>(f.volume.get());
    entry->size_ = 4321;
    file = f.volume->newFile(false, false, false, entry);
    other = f.volume->newFile(false, false, true, entry);
    VELTFuse::setVolume(f.volume);
    fi.fh = file->file_no_;
  }
  ~Mounted() {
    VELTFuse::setVolume(nullptr);
    f.volume->freeFile(file->file_no_);
    f.volume->freeFile(other->file_no_);
  }
  int call(unsigned int cmd, void* data, unsigned int flags = 0, bool with_fi = true) {
    return VELTFuse::__ioctl("/x", cmd, nullptr, with_fi ? &fi : nullptr, flags, data);
  }
  velt_test::FakeVolume f;
  std::shared_ptr<VELT::DirEntry> entry;
  std::shared_ptr<VELT::File> file, other;
  struct fuse_file_info fi = {};
};

}  // namespace

TEST(PipeIoctl, RefusalsComeBeforeAnyLookup) {
  Mounted m;
  uint32_t mode = 0;
  EXPECT_EQ(m.call(velt::VELT_IOC_SET_CACHE_MODE, &mode, 0, false), -EINVAL);
  EXPECT_EQ(m.call(velt::VELT_IOC_SET_CACHE_MODE, &mode, FUSE_IOCTL_COMPAT), -ENOSYS);
  m.fi.fh = 999;  // the compatibility refusal comes first even for an unknown handle
  EXPECT_EQ(m.call(velt::VELT_IOC_SET_CACHE_MODE, &mode, FUSE_IOCTL_COMPAT), -ENOSYS);
  EXPECT_EQ(m.call(velt::VELT_IOC_SET_CACHE_MODE, &mode), -EBADF);
  m.fi.fh = m.file->file_no_;
  EXPECT_EQ(m.call(0x40044509, &mode), -EINVAL) << "unknown command";
  EXPECT_EQ(m.call(velt::VELT_IOC_SET_CACHE_MODE, &mode, FUSE_IOCTL_UNRESTRICTED), 0);
  VELTFuse::setVolume(nullptr);
  EXPECT_EQ(m.call(velt::VELT_IOC_SET_CACHE_MODE, &mode), -ENODEV);
}

TEST(PipeIoctl, CommandsAndTheirRecords) {
  Mounted m;
  // File sizes by handle, of any open file.
  struct Row {
    uint32_t handle;
    int result;
    int64_t size;
  } rows[] = {{m.file->file_no_, 0, 4321},
              {m.other->file_no_, 0, 4321},
              {2, -ENOENT, 0},
              {12345, -ENOENT, 0}};
  for (const auto& r : rows) {
    velt::VELTFileSizeRecord record = {r.handle, 0xAAAAAAAA, 77};
    EXPECT_EQ(m.call(velt::VELT_IOC_GET_FILE_SIZE, &record), r.result) << r.handle;
    EXPECT_EQ(record.size, r.size) << r.handle;
    EXPECT_EQ(record.handle, r.handle);
  }
  const uint32_t released = m.other->file_no_;
  m.f.volume->freeFile(released);
  velt::VELTFileSizeRecord gone = {released, 0, 77};
  EXPECT_EQ(m.call(velt::VELT_IOC_GET_FILE_SIZE, &gone), -ENOENT);
  EXPECT_EQ(gone.size, 0);

  // Cache mode of this call's file only.
  for (uint32_t mode : {0u, 1u, 2u, 3u}) {
    EXPECT_EQ(m.call(velt::VELT_IOC_SET_CACHE_MODE, &mode), 0);
    EXPECT_EQ(m.file->write_cache_, (mode >> 1) & 1) << mode;
    EXPECT_EQ(m.file->read_cache_, mode & 1) << mode;
  }

  // Queue lengths: normal, then event.
  for (int i = 0; i < 3; ++i) {
    m.f.volume->normal_requests_.push_back(new velt::VELTWorkItem(5, 1, 0, 0, 0));
  }
  m.f.volume->event_requests_.push_back(new velt::VELTWorkItem(5, 2, 0, 0, 0));
  velt::VELTQueueLengthsRecord q = {99, 99};
  EXPECT_EQ(m.call(velt::VELT_IOC_GET_QUEUE_LENGTHS, &q), 0);
  EXPECT_EQ(q.normal, 3u);
  EXPECT_EQ(q.event, 1u);
  m.f.volume->flushAllRequests(nullptr, false, false);
}

TEST(PipeIoctl, CacheSizeRules) {
  Mounted m;
  VELT& v = *m.f.volume;
  ASSERT_EQ(v.createCache(64 * 1024), 0);
  struct Row {
    int32_t size;
    int result;
    int32_t entries;  // cache entries afterwards; 0: no cache
  } rows[] = {
      {512, -EINVAL, 128}, {-1, -EINVAL, 128}, {1023, -EINVAL, 128}, {1024, 0, 2},
      {0, 0, 0},           {512, -EINVAL, 0},  {1 << 20, 0, 2048},
  };
  for (const auto& r : rows) {
    int32_t size = r.size;
    EXPECT_EQ(m.call(velt::VELT_IOC_SET_CACHE_SIZE, &size), r.result) << r.size;
    if (r.entries == 0) {
      EXPECT_EQ(v.cache_pool_, nullptr) << r.size;
    } else {
      EXPECT_NE(v.cache_pool_, nullptr) << r.size;
      EXPECT_EQ(v.cache_size_, r.entries) << r.size;
    }
  }
}
