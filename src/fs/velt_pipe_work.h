// Pieces of the direct channel shared by its source files (velt_pipe*.cpp); not part of the
// protocol (see velt_pipe.h for that).
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "fs/velt.h"

namespace velt {

// The payload memory of the channel's work items, and the count the receiver bounds.
//
// Buffers of a megabyte (a whole merged write) are mapped from the system and kept for reuse,
// a few of them at most, so that a stream of writes touches the same pages again and memory
// returns to the system after a burst. Larger payloads are mapped and unmapped one by one;
// small ones come from malloc. held() counts every buffer's full size plus a fixed cost per
// item, from allocation until release.
class DirectBuffers {
 public:
  static constexpr uint32_t kPooledSize = 1u << 20;     // one merged write
  static constexpr uint32_t kSmallMax = 16u << 10;      // malloc'ed below this
  static constexpr int kIdleKept = 8;                   // pooled buffers kept while idle
  static constexpr int64_t kItemCost = 256;             // an item and its queue node

  DirectBuffers() = default;
  ~DirectBuffers();
  DirectBuffers(const DirectBuffers&) = delete;
  DirectBuffers& operator=(const DirectBuffers&) = delete;

  // A buffer of at least `size` bytes (`*capacity` says how many), or null.
  uint8_t* get(uint32_t size, uint32_t* capacity);
  void put(uint8_t* data, uint32_t capacity);
  // A mapped buffer (kSmallMax bytes or more) whose pages something else may still read (a
  // pipe they were lent to): unmapped, never reused; the pages live on until that reader is done.
  void abandon(uint8_t* data, uint32_t capacity);
  // An item begins or ends.
  void addItem() { held_ += kItemCost; }
  void dropItem() { held_ -= kItemCost; }
  // Bytes promised to a reply that is not made yet.
  void reserve(int64_t size) { held_ += size; }
  int64_t held() const { return held_.load(std::memory_order_relaxed); }
  // Pooled buffers kept for reuse, and buffers mapped right now (pooled or not).
  int idleCount();
  int64_t mappedBytes() const { return mapped_.load(std::memory_order_relaxed); }

 private:
  std::mutex mutex_;  // idle_
  std::vector<uint8_t*> idle_;
  std::atomic<int64_t> held_{0};
  std::atomic<int64_t> mapped_{0};
  std::atomic<int64_t> freed_small_{0};  // malloc'ed bytes given back since the last trim
};

namespace direct {

// The channel's clock in microseconds (the volume's direct_clock_ when set).
uint64_t channelNow(const VELT& velt);
// The open direct file with this number, or empty. FUSE handles are not the channel's.
std::shared_ptr<VELT::File> directFile(VELT& velt, int32_t fd);
// The path of a file's entry for messages.
std::string entryPath(const VELT::File& file);
// Frees an item's payload; the item itself stays (it becomes a reply without data).
void releaseData(VELTWorkItem* item);
// Turns a request into its error reply carrying `result`.
VELTWorkItem* makeErrorReply(VELTWorkItem* item, int result);
// Takes a parked read off a file. With `answer` the client gets an empty reply carrying
// -EBADF (its file went away); otherwise the request is dropped.
void takePendingRead(VELT& velt, VELT::File& file, bool answer);
// Writes a request's data at its offset; with the secure flag a taken-over reserved file is
// published afterwards. Bytes written or a negative errno.
int writeRequest(VELT::File& file, VELTWorkItem* request);
// Largest read a request may ask for at once; larger ones are served this much.
constexpr int32_t kReadMax = 64 << 20;

}  // namespace direct
}  // namespace velt
