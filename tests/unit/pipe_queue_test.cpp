// The direct channel's queues: where the receiver puts each request, how it merges contiguous
// writes, and the order in which the worker takes requests (driven by an injected clock).
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <vector>

#include "fs/velt.h"
#include "fs/velt_pipe.h"

using velt::VELT;
using velt::VELTWorkItem;

namespace {

// A volume object that is never loaded: only its channel queues are used.
struct Queues {
  Queues() : v("/dev/mmcblk0p1", 1, velt::kVELTOpMount, 0) {
    v.direct_clock_ = [this] { return now; };
    v.last_normal_fetch_ = 0;
  }
  ~Queues() {
    for (auto* q : {&v.control_requests_, &v.normal_requests_, &v.event_requests_}) {
      for (VELTWorkItem* item : *q) delete item;
      q->clear();
    }
  }
  // A request as the receiver makes it: stamped with the channel clock.
  VELTWorkItem* item(int32_t fd, uint32_t op, int64_t offset, int32_t param, uint32_t size,
                     uint8_t fill = 0, uint32_t new_size_offset = 0) {
    auto* r = new VELTWorkItem(fd, op, offset, param, size);
    if (size > 0) memset(r->data_, fill, size);
    r->new_size_offset_ = new_size_offset;
    r->created_ = r->updated_ = now;
    return r;
  }
  void queue(VELTWorkItem* r) {
    std::lock_guard<std::mutex> lock(v.request_mutex_);
    v.__queueRequest(r);
  }
  // Takes the next request; the caller owns it. Null when none may be taken.
  std::unique_ptr<VELTWorkItem> fetch() {
    std::lock_guard<std::mutex> lock(v.request_mutex_);
    return std::unique_ptr<VELTWorkItem>(v.__fetchRequest());
  }
  uint64_t now = 1000000;
  VELT v;
};

}  // namespace

TEST(PipeQueue, EachRequestGoesToItsQueue) {
  Queues q;
  struct Row {
    uint32_t op;
    int32_t param;
    std::list<VELTWorkItem*>* queue;
  } rows[] = {
      {velt::kDirectOpOpen, 3, &q.v.control_requests_},
      {velt::kDirectOpCreate, 0, &q.v.control_requests_},
      {velt::kDirectOpClose, 0, &q.v.normal_requests_},
      {velt::kDirectOpClose, velt::kDirectFlagEvent, &q.v.event_requests_},
      {velt::kDirectOpWriteEvent, 0, &q.v.event_requests_},
      {velt::kDirectOpReadEvent, 0, &q.v.event_requests_},
      {velt::kDirectOpSpliceEvent, 0, &q.v.event_requests_},
      {velt::kDirectOpWrite, 0, &q.v.normal_requests_},
      {velt::kDirectOpError, 0, &q.v.normal_requests_},
      {velt::kDirectOpRead, 0, &q.v.normal_requests_},
      {velt::kDirectOpGetRealSize, 0, &q.v.normal_requests_},
      {velt::kDirectOpGetSize, 0, &q.v.normal_requests_},
      {velt::kDirectOpSplice, 0, &q.v.normal_requests_},
      {77, 0, &q.v.normal_requests_},
  };
  int fd = 10;
  for (const auto& r : rows) {
    q.queue(q.item(fd, r.op, 0, r.param, 0));
    ASSERT_FALSE(r.queue->empty());
    EXPECT_EQ(r.queue->back()->fd_, fd) << "op " << r.op;
    ++fd;
  }
  uint32_t normal = 0, event = 0;
  q.v.getDirectQueueLengths(&normal, &event);
  EXPECT_EQ(normal, 8u);
  EXPECT_EQ(event, 4u);
}

TEST(PipeQueue, ContiguousWritesMergeIntoOneCardWrite) {
  Queues q;
  // 4,096 bytes at 0 whose last 16 are provisional, then 4,096 at 4,080 within 33 ms.
  q.queue(q.item(5, velt::kDirectOpWrite, 0, 0, 4096, 0xAA, 16));
  q.now += 20000;
  q.queue(q.item(5, velt::kDirectOpWrite, 4080, velt::kDirectFlagSecure, 4096, 0xBB, 0));
  ASSERT_EQ(q.v.normal_requests_.size(), 1u);
  EXPECT_EQ(q.fetch(), nullptr) << "still growing 20 ms after the append";
  q.now += velt::kDirectGrowUs;
  auto merged = q.fetch();
  ASSERT_NE(merged, nullptr);
  EXPECT_EQ(merged->offset_, 0);
  EXPECT_EQ(merged->size_, 8176u);
  EXPECT_EQ(merged->new_size_offset_, 0u);
  EXPECT_NE(merged->param_ & velt::kDirectFlagSecure, 0) << "flags of the appended write kept";
  for (uint32_t i = 0; i < merged->size_; ++i) {
    ASSERT_EQ(merged->data_[i], i < 4080 ? 0xAA : 0xBB) << "byte " << i;
  }
  EXPECT_EQ(q.fetch(), nullptr);
}

TEST(PipeQueue, WritesThatDoNotContinueAreQueuedAndTheOldOneMadeReady) {
  struct Row {
    const char* what;
    int32_t second_fd;
    uint32_t second_op;
    int64_t second_offset;
    uint32_t first_size, second_size;
    size_t queued;     // items in the first write's queue afterwards
    bool first_ready;  // ready bit set on the first write
  } rows[] = {
      {"contiguous", 5, velt::kDirectOpWrite, 1000, 1000, 1000, 1, false},
      {"gap", 5, velt::kDirectOpWrite, 1001, 1000, 1000, 2, true},
      {"overlap", 5, velt::kDirectOpWrite, 999, 1000, 1000, 2, true},
      {"other file", 6, velt::kDirectOpWrite, 1000, 1000, 1000, 2, false},
      {"event twin", 5, velt::kDirectOpWriteEvent, 1000, 1000, 1000, 1, false},
      {"merged length 0xFFFFF", 5, velt::kDirectOpWrite, 0xFFFFF - 1000, 0xFFFFF - 1000, 1000, 1,
       false},
      {"merged length 0x100000", 5, velt::kDirectOpWrite, 0xFFFFF - 999, 0xFFFFF - 999, 1000, 2,
       true},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.what);
    Queues q;
    q.queue(q.item(5, velt::kDirectOpWrite, 0, 0, r.first_size, 1));
    VELTWorkItem* first = q.v.normal_requests_.front();
    q.queue(q.item(r.second_fd, r.second_op, r.second_offset, 0, r.second_size, 2));
    EXPECT_EQ(q.v.normal_requests_.size(), r.queued);
    EXPECT_EQ((first->param_ & velt::kDirectFlagReady) != 0, r.first_ready);
    if (r.queued == 1 && r.second_op == velt::kDirectOpWrite && r.second_fd == 5) {
      EXPECT_EQ(first->size_, r.first_size + r.second_size);
    } else {
      EXPECT_EQ(first->size_, r.first_size);
    }
  }
}

TEST(PipeQueue, ARequestAboutAFileEndsTheGrowthOfItsWrites) {
  Queues q;
  q.queue(q.item(7, velt::kDirectOpWrite, 0, 0, 100, 1));
  q.queue(q.item(8, velt::kDirectOpWrite, 0, 0, 100, 3));
  // The client waits for an answer about file 7 as sent so far: its write is due at once, and
  // a continuation sent after the read is not merged in front of it.
  q.queue(q.item(7, velt::kDirectOpRead, 0, 100, 0));
  q.queue(q.item(7, velt::kDirectOpWrite, 100, 0, 100, 2));
  ASSERT_EQ(q.v.normal_requests_.size(), 4u);
  auto w = q.fetch();
  ASSERT_NE(w, nullptr);
  EXPECT_EQ(w->fd_, 7);
  EXPECT_EQ(w->size_, 100u);
  auto r = q.fetch();
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(r->op_, velt::kDirectOpRead);
  EXPECT_EQ(q.fetch(), nullptr) << "the continuation and file 8's write still grow";
  // A close ends the growth of the continuation, not that of file 8.
  q.queue(q.item(7, velt::kDirectOpClose, 0, 0, 0));
  auto w2 = q.fetch();
  ASSERT_NE(w2, nullptr);
  EXPECT_EQ(w2->offset_, 100);
  auto c = q.fetch();
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(c->op_, velt::kDirectOpClose);
  EXPECT_EQ(q.fetch(), nullptr);
  q.now += velt::kDirectGrowUs;
  auto w8 = q.fetch();
  ASSERT_NE(w8, nullptr);
  EXPECT_EQ(w8->fd_, 8);
}

TEST(PipeQueue, GrowingWritesWaitTheirWindow) {
  struct Row {
    const char* what;
    uint64_t age;  // microseconds since the last append
    int32_t flags;
    bool stop;
    bool taken;
    bool trickle = false;  // appended every 10 ms until then
  } rows[] = {
      {"10 ms old", 10000, 0, false, false},
      {"just inside the window", velt::kDirectGrowUs - 1, 0, false, false},
      {"window over", velt::kDirectGrowUs, 0, false, true},
      {"34 ms old", 34000, 0, false, true},
      {"ready", 0, velt::kDirectFlagReady, false, true},
      {"stopping", 0, 0, true, true},
      // Appended to all the time (a trickle), it is still taken at its maximum age.
      {"trickle at its maximum age", 1000000, 0, false, true, true},
      {"trickle just below it", 999999, 0, false, false, true},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.what);
    for (uint32_t op : {velt::kDirectOpWrite, velt::kDirectOpWriteEvent}) {
      Queues q;
      q.queue(q.item(5, op, 0, r.flags, 100));
      // Appends every 10 ms keep it growing; only its age since creation counts then.
      for (uint64_t t = 10000; r.trickle && t + 10000 <= r.age; t += 10000) {
        q.now += 10000;
        q.queue(q.item(5, op, static_cast<int64_t>(100 * t / 10000), 0, 100));
      }
      q.now = 1000000 + r.age;
      q.v.direct_stop_ = r.stop;
      auto taken = q.fetch();
      EXPECT_EQ(taken != nullptr, r.taken) << "op " << op;
    }
  }
  // Other requests never wait.
  Queues q;
  q.queue(q.item(5, velt::kDirectOpRead, 0, 10, 0));
  EXPECT_NE(q.fetch(), nullptr);
}

TEST(PipeQueue, ControlFirstThenEventsWithAFairShareForNormalRequests) {
  Queues q;
  q.now = 10000000;
  q.v.last_normal_fetch_ = q.now;
  q.queue(q.item(3, velt::kDirectOpRead, 0, 1, 0));  // normal, waits from now on
  q.queue(q.item(4, velt::kDirectOpReadEvent, 0, 1, 0));
  q.queue(q.item(1, velt::kDirectOpOpen, 0, 0, 0));
  auto first = q.fetch();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first->op_, velt::kDirectOpOpen) << "control requests go first";

  // A steady stream of event requests (one every 10 ms) goes ahead of the normal request...
  const uint64_t start = q.now;
  uint64_t normal_taken_at = 0;
  std::vector<uint64_t> normal_takes;
  for (int tick = 0; tick < 100; ++tick) {
    q.queue(q.item(4, velt::kDirectOpReadEvent, tick, 1, 0));
    auto r = q.fetch();
    ASSERT_NE(r, nullptr);
    if (r->op_ == velt::kDirectOpRead) {
      normal_takes.push_back(q.now - start);
      if (normal_taken_at == 0) normal_taken_at = q.now - start;
      q.queue(q.item(3, velt::kDirectOpRead, tick, 1, 0));  // the next normal request
    }
    q.now += 10000;
  }
  // ...until it has waited more than 333 ms; after each take the next normal request waits
  // another 333 ms even though it is queued all the time.
  ASSERT_GE(normal_takes.size(), 2u);
  EXPECT_GT(normal_takes[0], velt::kDirectFairnessUs);
  EXPECT_LE(normal_takes[0], velt::kDirectFairnessUs + 10000);
  for (size_t i = 1; i < normal_takes.size(); ++i) {
    EXPECT_GT(normal_takes[i] - normal_takes[i - 1], velt::kDirectFairnessUs);
    EXPECT_LE(normal_takes[i] - normal_takes[i - 1], velt::kDirectFairnessUs + 10000);
  }
  EXPECT_EQ(q.v.last_normal_fetch_, start + normal_takes.back());

  // A growing event write lets normal requests through.
  Queues g;
  g.queue(g.item(9, velt::kDirectOpWriteEvent, 0, 0, 10));
  g.queue(g.item(3, velt::kDirectOpGetSize, 0, 0, 0));
  auto n = g.fetch();
  ASSERT_NE(n, nullptr);
  EXPECT_EQ(n->op_, velt::kDirectOpGetSize);
  EXPECT_EQ(g.v.last_normal_fetch_, g.now);
  EXPECT_EQ(g.fetch(), nullptr);
}

TEST(PipeQueue, AGrowingWriteHoldsBackOnlyTheRequestsOfItsOwnFile) {
  // Queue: a growing write of file 5, then the listed requests. The files taken while the
  // write still grows, then those taken once it is due, in order.
  struct Row {
    const char* what;
    std::vector<std::pair<int32_t, uint32_t>> behind;  // fd, op
    std::vector<int32_t> now;
    std::vector<int32_t> later;
  } rows[] = {
      {"other files go past", {{6, velt::kDirectOpGetSize}, {7, velt::kDirectOpRead}}, {6, 7}, {5}},
      {"a request about the file ends its growth",
       {{5, velt::kDirectOpGetSize}, {6, velt::kDirectOpGetSize}},
       {5, 5, 6},
       {}},
      {"a growing write of another file holds back that file only",
       {{6, velt::kDirectOpWrite}, {7, velt::kDirectOpClose}},
       {7},
       {5, 6}},
      {"nothing goes past to a splice",
       {{6, velt::kDirectOpSplice}, {7, velt::kDirectOpGetSize}},
       {},
       {5, 6, 7}},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.what);
    Queues q;
    q.queue(q.item(5, velt::kDirectOpWrite, 0, 0, 10));
    int64_t offset = 1000;
    for (auto [fd, op] : r.behind) q.queue(q.item(fd, op, offset += 1000, 0, 16));
    std::vector<int32_t> taken;
    while (auto next = q.fetch()) taken.push_back(next->fd_);
    EXPECT_EQ(taken, r.now);
    q.now += velt::kDirectGrowUs;
    taken.clear();
    while (auto next = q.fetch()) taken.push_back(next->fd_);
    EXPECT_EQ(taken, r.later);
  }
}

TEST(PipeQueue, FlushWithoutFileDropsEverythingQueued) {
  Queues q;
  q.queue(q.item(1, velt::kDirectOpCreate, 0, 0, 4, 'x'));
  q.queue(q.item(5, velt::kDirectOpWrite, 0, 0, 100));  // file 5 is not open: skipped
  q.queue(q.item(5, velt::kDirectOpReadEvent, 0, 10, 0));
  q.v.flushAllRequests(nullptr, false, false);
  EXPECT_TRUE(q.v.control_requests_.empty());
  EXPECT_TRUE(q.v.normal_requests_.empty());
  EXPECT_TRUE(q.v.event_requests_.empty());
  EXPECT_TRUE(q.v.responses_.empty()) << "dropped requests get no reply";
}
