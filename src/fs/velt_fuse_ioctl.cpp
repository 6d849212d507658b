// The FUSE ioctl callback: cache mode of an open file, sizes of open files by handle, the
// direct channel's queue lengths, and the size of the sector cache.
#include "fs/velt_fuse_ioctl.h"

#include <cerrno>
#include <cstring>
#include <exception>

#include "fs/velt.h"
#include "fs/velt_file.h"
#include "fs/velt_fuse.h"

namespace velt {

static constexpr const char kLogTag[] = "VELT.Fuse";

// The command numbers carry the record sizes; keep them in step.
static_assert((VELT_IOC_GET_FILE_SIZE >> 16 & 0x3FFF) == sizeof(VELTFileSizeRecord));
static_assert((VELT_IOC_GET_QUEUE_LENGTHS >> 16 & 0x3FFF) == sizeof(VELTQueueLengthsRecord));
static_assert((VELT_IOC_SET_CACHE_MODE >> 16 & 0x3FFF) == sizeof(uint32_t));
static_assert((VELT_IOC_SET_CACHE_SIZE >> 16 & 0x3FFF) == sizeof(int32_t));

int VELTFuse::__ioctl(const char* path, unsigned int cmd, void* arg, struct fuse_file_info* fi,
                      unsigned int flags, void* data) {
  (void)path;
  (void)arg;
  if (fi == nullptr) return -EINVAL;
  // The records' layout is the 64-bit one only.
  if (flags & FUSE_IOCTL_COMPAT) return -ENOSYS;
  try {
    std::shared_ptr<VELT> velt = volume();
    if (velt == nullptr) return -ENODEV;
    std::shared_ptr<VELT::File> file = velt->getFile(static_cast<int>(fi->fh));
    if (file == nullptr) {
      NERIO_ASSERT_TEXT("file != nullptr");
      return -EBADF;
    }
    if (data == nullptr) return -EINVAL;
    switch (cmd) {
      case VELT_IOC_GET_FILE_SIZE: {
        VELTFileSizeRecord record;
        memcpy(&record, data, sizeof(record));
        std::shared_ptr<VELT::File> other = velt->getFile(static_cast<int>(record.handle));
        record.size = other != nullptr ? other->fileSize() : 0;
        memcpy(data, &record, sizeof(record));
        return other != nullptr ? 0 : -ENOENT;
      }
      case VELT_IOC_GET_QUEUE_LENGTHS: {
        VELTQueueLengthsRecord record;
        velt->getDirectQueueLengths(&record.normal, &record.event);
        memcpy(data, &record, sizeof(record));
        return 0;
      }
      case VELT_IOC_SET_CACHE_MODE: {
        uint32_t mode;
        memcpy(&mode, data, sizeof(mode));
        file->setCacheMode(static_cast<int>(mode));
        return 0;
      }
      case VELT_IOC_SET_CACHE_SIZE: {
        int32_t size;
        memcpy(&size, data, sizeof(size));
        if (size != 0 && size < kVELTMinCacheSize) {
          LOGE("cache_size must be >= 1K\n");
          return -EINVAL;
        }
        velt->destroyCache();
        return size > 0 ? velt->createCache(size) : 0;
      }
      default:
        return -EINVAL;
    }
  } catch (const std::exception& e) {
    LOGE("ioctl 0x%x: %s\n", cmd, e.what());
    return -ENOMEM;
  }
}

}  // namespace velt
