// The direct channel without its threads: the wire format and the marker search, the queues
// (where each request goes, merging, the order the worker takes them, on an injected clock), the
// worker's operations on a fake card.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "fake_driver.h"
#include "fs/velt_dirent.h"
#include "fs/velt_file.h"
#include "fs/velt_pipe.h"

using namespace velt;

namespace {

uint8_t pattern(int64_t i) {
  return static_cast<uint8_t>((i * 7 + (i >> 8)) & 0xFF);
}

}  // namespace

TEST(PipeWire, HeaderWriteParameterAndSpliceBytes) {
  const DirectHeader h{0x01020304, -2, kDirectOpSplice, 0x1122334455667788ll, 0xA0B0C0D0};
  uint8_t bytes[28];
  encodeDirectHeader(h, bytes);
  const uint8_t expect[28] = {0xFD, 0xEC, 0xB9, 0xA8, 0x04, 0x03, 0x02, 0x01, 0xFE, 0xFF,
                              0xFF, 0xFF, 0x0B, 0x00, 0x00, 0x00, 0x88, 0x77, 0x66, 0x55,
                              0x44, 0x33, 0x22, 0x11, 0xD0, 0xC0, 0xB0, 0xA0};
  EXPECT_EQ(0, memcmp(bytes, expect, sizeof(expect)));
  const DirectHeader b = decodeDirectHeader(expect);
  EXPECT_TRUE(hasDirectMarker(expect) && b.length == h.length && b.fd == h.fd && b.op == h.op &&
              b.offset == h.offset && b.param == h.param);
  static_assert(directWriteParam(16, kDirectFlagSecure) == 0x00080010);
  EXPECT_EQ(directWriteNewSizeOffset(0x00080010), 16u);
  EXPECT_EQ(directWriteFlags(0x00080010), kDirectFlagSecure);
  EXPECT_EQ(directWriteFlags(directWriteParam(0xFFFF, 0xFFFF)), 0xFFFFu);

  DirectSplice back;
  uint8_t sp[28] = {};
  encodeDirectSplice({9, -5, 0x80000001}, sp);
  const uint8_t sp_expect[16] = {9,    0,    0,    0,    0xFB, 0xFF, 0xFF, 0xFF,
                                 0xFF, 0xFF, 0xFF, 0xFF, 0x01, 0x00, 0x00, 0x80};
  EXPECT_EQ(0, memcmp(sp, sp_expect, 16));
  // Decoding is checked by the splices of the operation script; these sizes it must refuse.
  for (size_t wrong : {0, 28}) EXPECT_FALSE(decodeDirectSplice(sp, wrong, &back));
  EXPECT_FALSE(decodeDirectSplice(nullptr, 16, &back));
}

TEST(PipeWire, MarkerSearchRestartsAfterABreakingByte) {
  const struct {
    std::vector<uint8_t> bytes;
    int completes_at;  // index of the byte that completes the marker; -1 none
    int left;          // marker bytes matched at the end
  } rows[] = {  // the byte that breaks a partial match is not tried as the first marker byte
      {{0x00, 0xFD, 0xEC, 0xB9, 0xA8}, 4, 0}, {{0xFD, 0xEC, 0xB9, 0xA8}, 3, 0},
      {{0xFD, 0xEC, 0xB9}, -1, 3}, {{0xA8, 0xB9, 0xEC, 0xFD}, -1, 1},
      {{0xFD, 0xFD, 0xEC, 0xB9, 0xA8}, -1, 0}, {{0xFD, 0xEC, 0xFD, 0xEC, 0xB9, 0xA8}, -1, 0},
      {{0xFD, 0xEC, 0x00, 0xFD, 0xEC, 0xB9, 0xA8}, 6, 0}, {{0xFD, 0xEC, 0xB9, 0x00, 0xA8}, -1, 0}};
  // Byte by byte (which the bulk scan does within a partial match), wherever the bytes are split
  // between two reads.
  for (const auto& r : rows) {
    for (size_t split = 0; split <= r.bytes.size(); ++split) {
      DirectMarkerSearch search;
      size_t used = 0;
      int found = -1;
      if (findDirectMarker(search, r.bytes.data(), split, &used)) {
        found = static_cast<int>(used) - 1;
      } else if (findDirectMarker(search, r.bytes.data() + split, r.bytes.size() - split, &used)) {
        found = static_cast<int>(split + used) - 1;
      }
      // After a completed marker the search starts over.
      EXPECT_EQ(search.matched(), found < 0 ? r.left : 0) << ::testing::PrintToString(r.bytes);
      EXPECT_EQ(found, r.completes_at) << ::testing::PrintToString(r.bytes) << " split " << split;
    }
  }
}

namespace {

// A volume object that is never loaded: only its channel queues are used, on its own clock.
struct Queues {
  Queues() : v("/dev/mmcblk0p1", 1, kVELTOpMount, 0) {
    v.direct_clock_ = [this] { return now; };
    v.last_normal_fetch_ = 0;
  }
  ~Queues() {  // dropping what is queued gives no reply
    v.flushAllRequests(nullptr, false, false);
    EXPECT_TRUE(v.control_requests_.empty() && v.normal_requests_.empty() &&
                v.event_requests_.empty() && v.responses_.empty());
  }
  // A request as the receiver makes it, stamped with the channel clock, queued.
  VELTWorkItem* queue(int32_t fd, uint32_t op, int64_t offset, int32_t param, uint32_t size,
                      uint8_t fill = 0) {
    auto* r = new VELTWorkItem(fd, op, offset, param, size);
    if (size > 0) memset(r->data_, fill, size);
    r->created_ = r->updated_ = now;
    std::lock_guard<std::mutex> lock(v.request_mutex_);
    v.__queueRequest(r);
    return r;
  }
  // Takes the next request; null when none may be taken.
  std::unique_ptr<VELTWorkItem> fetch() {
    std::lock_guard<std::mutex> lock(v.request_mutex_);
    return std::unique_ptr<VELTWorkItem>(v.__fetchRequest());
  }
  // What may be taken now: "fd" each, or "fd@offset+size" with `detail`.
  std::string taken(bool detail = false) {
    std::string out;
    while (auto r = fetch()) {
      out += (out.empty() ? "" : " ") + std::to_string(r->fd_);
      if (detail) out += "@" + std::to_string(r->offset_) + "+" + std::to_string(r->size_);
    }
    return out;
  }
  uint64_t now = 1000000;
  VELT v;
};

}  // namespace

TEST(PipeQueue, EachRequestGoesToItsQueue) {
  Queues q;
  const auto C = &q.v.control_requests_, N = &q.v.normal_requests_, E = &q.v.event_requests_;
  // Operation, parameter, queue.
  const std::tuple<uint32_t, int32_t, std::list<VELTWorkItem*>*> rows[] = {
      {kDirectOpOpen, 3, C},        {kDirectOpCreate, 0, C},
      {kDirectOpClose, 0, N},       {kDirectOpClose, kDirectFlagEvent, E},
      {kDirectOpWriteEvent, 0, E},  {kDirectOpReadEvent, 0, E},
      {kDirectOpSpliceEvent, 0, E}, {kDirectOpWrite, 0, N},
      {kDirectOpError, 0, N},       {kDirectOpRead, 0, N},
      {kDirectOpGetRealSize, 0, N}, {kDirectOpGetSize, 0, N},
      {kDirectOpSplice, 0, N},      {77, 0, N}};
  int fd = 10;
  for (const auto& [op, param, queue] : rows) {
    q.queue(++fd, op, 0, param, 0);
    EXPECT_TRUE(!queue->empty() && queue->back()->fd_ == fd) << "op " << op;
  }
  uint32_t normal = 0, event = 0;
  q.v.getDirectQueueLengths(&normal, &event);
  EXPECT_TRUE(normal == 8u && event == 4u) << normal << " " << event;
}

TEST(PipeQueue, ContiguousWritesMergeIntoOneCardWrite) {
  // A write of `first` bytes at 0, then one of 1,000 with the secure flag: the items queued
  // afterwards, and whether the first write was made ready. Merging with provisional tails is
  // checked on the card by the channel's random stream test.
  const std::tuple<const char*, int32_t, uint32_t, int64_t, uint32_t, size_t, bool> rows[] = {
      {"contiguous", 5, kDirectOpWrite, 1000, 1000, 1, false},
      {"gap", 5, kDirectOpWrite, 1001, 1000, 2, true},
      {"overlap", 5, kDirectOpWrite, 999, 1000, 2, true},
      {"other file", 6, kDirectOpWrite, 1000, 1000, 2, false},
      {"event twin", 5, kDirectOpWriteEvent, 1000, 1000, 1, false},
      {"merged length 0xFFFFF", 5, kDirectOpWrite, 0xFFFFF - 1000, 0xFFFFF - 1000, 1, false},
      {"merged length 0x100000", 5, kDirectOpWrite, 0xFFFFF - 999, 0xFFFFF - 999, 2, true},
  };
  for (const auto& [what, fd, op, offset, size, queued, ready] : rows) {
    Queues q;
    VELTWorkItem* first = q.queue(5, kDirectOpWrite, 0, 0, size, 1);
    q.queue(fd, op, offset, kDirectFlagSecure, 1000, 2);
    EXPECT_EQ(q.v.normal_requests_.size(), queued) << what;
    EXPECT_EQ((first->param_ & kDirectFlagReady) != 0, ready) << what;
    const bool merged = queued == 1 && op == kDirectOpWrite;
    EXPECT_EQ(first->size_, size + (merged ? 1000 : 0)) << what;
    EXPECT_EQ((first->param_ & kDirectFlagSecure) != 0, merged) << what << ": the flags merge too";
    EXPECT_TRUE(!merged || (first->data_[size - 1] == 1 && first->data_[size] == 2)) << what;
  }
}

TEST(PipeQueue, GrowingWritesWaitTheirWindow) {
  // Microseconds since the last append, flags, stopping, taken, and whether it was appended
  // to every 10 ms until then (a trickle: only its age since creation counts).
  const std::tuple<const char*, uint64_t, int32_t, bool, bool, bool> rows[] = {
      {"10 ms old", 10000, 0, false, false, false},
      {"just inside the window", kDirectGrowUs - 1, 0, false, false, false},
      {"window over", kDirectGrowUs, 0, false, true, false},
      {"ready", 0, kDirectFlagReady, false, true, false},
      {"stopping", 0, 0, true, true, false},
      {"trickle at its maximum age", 1000000, 0, false, true, true},
      {"trickle just below it", 999999, 0, false, false, true},
  };
  for (const auto& [what, age, flags, stop, taken, trickle] : rows) {
    for (uint32_t op : {kDirectOpWrite, kDirectOpWriteEvent}) {
      Queues q;
      q.queue(5, op, 0, flags, 100);
      for (uint64_t t = 10000; trickle && t + 10000 <= age; t += 10000) {
        q.now += 10000;
        q.queue(5, op, static_cast<int64_t>(100 * t / 10000), 0, 100);
      }
      q.now = 1000000 + age;
      q.v.direct_stop_ = stop;
      EXPECT_EQ(q.fetch() != nullptr, taken) << what << ", op " << op;
    }
  }
}

TEST(PipeQueue, AGrowingWriteHoldsBackOnlyTheRequestsOfItsOwnFile) {
  // A growing write of file 5, then the requests listed: the files taken while the write still
  // grows, then those taken once it is due, in order.
  const std::tuple<int32_t, uint32_t, int32_t, uint32_t, const char*, const char*> rows[] = {
      {6, kDirectOpGetSize, 7, kDirectOpRead, "6 7", "5"},      // other files go past
      {5, kDirectOpGetSize, 6, kDirectOpGetSize, "5 5 6", ""},  // a request ends its growth
      {6, kDirectOpWrite, 7, kDirectOpClose, "7", "5 6"},  // another growing file: that one only
      {6, kDirectOpSplice, 7, kDirectOpGetSize, "", "5 6 7"},  // nothing goes past to a splice
  };
  for (const auto& [fd1, op1, fd2, op2, now, later] : rows) {
    Queues q;
    q.queue(5, kDirectOpWrite, 0, 0, 10);
    q.queue(fd1, op1, 2000, 0, 16);
    q.queue(fd2, op2, 3000, 0, 16);
    EXPECT_EQ(q.taken(), now) << fd1 << " " << op1 << ", " << fd2 << " " << op2;
    q.now += kDirectGrowUs;
    EXPECT_EQ(q.taken(), later) << fd1 << " " << op1 << ", " << fd2 << " " << op2;
  }
  // A continuation sent after a read about its file is not merged in front of the read; a close
  // ends the growth of the continuation, not that of another file's write.
  Queues q;
  q.queue(7, kDirectOpWrite, 0, 0, 100, 1);
  q.queue(8, kDirectOpWrite, 0, 0, 100, 3);
  q.queue(7, kDirectOpRead, 0, 100, 0);
  q.queue(7, kDirectOpWrite, 100, 0, 100, 2);
  EXPECT_EQ(q.taken(true), "7@0+100 7@0+0") << "the continuation and file 8's write still grow";
  q.queue(7, kDirectOpClose, 0, 0, 0);
  EXPECT_EQ(q.taken(true), "7@100+100 7@0+0");
  q.now += kDirectGrowUs;
  EXPECT_EQ(q.taken(true), "8@0+100");
}

TEST(PipeQueue, ControlFirstThenEventsWithAFairShareForNormalRequests) {
  Queues q;
  q.now = 10000000;
  q.v.last_normal_fetch_ = q.now;
  q.queue(3, kDirectOpRead, 0, 1, 0);  // normal, waits from now on
  q.queue(4, kDirectOpReadEvent, 0, 1, 0);
  q.queue(1, kDirectOpOpen, 0, 0, 0);
  EXPECT_EQ(q.fetch()->op_, kDirectOpOpen) << "control requests go first";
  // A steady stream of event requests (one every 10 ms) goes ahead of the normal request until
  // it has waited more than 333 ms; after each take the next one waits another 333 ms.
  const uint64_t start = q.now;
  std::vector<uint64_t> normal_takes;
  for (int tick = 0; tick < 100; ++tick, q.now += 10000) {
    q.queue(4, kDirectOpReadEvent, tick, 1, 0);
    auto r = q.fetch();
    ASSERT_NE(r, nullptr);
    if (r->op_ != kDirectOpRead) continue;
    normal_takes.push_back(q.now - start);
    q.queue(3, kDirectOpRead, tick, 1, 0);
  }
  ASSERT_GE(normal_takes.size(), 2u);
  for (size_t i = 0; i < normal_takes.size(); ++i) {
    const uint64_t waited = normal_takes[i] - (i == 0 ? 0 : normal_takes[i - 1]);
    EXPECT_TRUE(waited > kDirectFairnessUs && waited <= kDirectFairnessUs + 10000) << waited;
  }
  EXPECT_EQ(q.v.last_normal_fetch_, start + normal_takes.back());
  // A growing event write lets normal requests through.
  Queues g;
  g.queue(9, kDirectOpWriteEvent, 0, 0, 10);
  g.queue(3, kDirectOpGetSize, 0, 0, 0);
  EXPECT_EQ(g.taken(), "3");
  EXPECT_EQ(g.v.last_normal_fetch_, g.now);
}

namespace {

// File numbers the script's opens answered, in order, stand as #1, #2... (written F1, F2...).
constexpr int32_t F1 = 1001, F2 = 1002, F3 = 1003;

std::string bytes(int64_t offset, uint32_t size) {
  std::string out(size, '\0');
  for (uint32_t i = 0; i < size; ++i) out[i] = static_cast<char>(pattern(offset + i));
  return out;
}

// One request and the reply it gets: "-" for none, "= #n" or "= -errno" for an open, else
// "op fd @offset param size". Opens send the path with its NUL, as clients do.
using Step = std::tuple<int32_t, uint32_t, int64_t, int32_t, std::string, std::string>;
Step Req(int32_t fd, uint32_t op, int64_t offset, int32_t param, std::string reply,
         std::string payload = "") {
  return {fd, op, offset, param, payload, reply};
}
Step Open(const std::string& path, const char* reply, bool create = false) {
  return {100, create ? kDirectOpCreate : kDirectOpOpen, 0, 2, path + '\0', reply};
}
Step Create(const std::string& path, const char* reply) {
  return Open(path, reply, true);
}
Step Write(int32_t fd, int64_t offset, uint32_t size) {
  return {fd, kDirectOpWrite, offset, 0, bytes(offset, size), "-"};
}

// A formatted fake card with an empty root. Scripts of requests are carried out one by one as
// the worker would; every payload that comes back must be the pattern written at its offset.
struct Card : velt_test::FakeCard {
  std::string name(int64_t fd) {
    for (size_t k = 0; k < files.size(); ++k) {
      if (files[k] == fd) return "#" + std::to_string(k + 1);
    }
    return std::to_string(fd);
  }
  std::string show(const VELTWorkItem* r) {
    static const char* const ops[] = {"?",    "write",  "writeE", "close", "error",
                                      "open", "create", "read",   "readE", "realsize",
                                      "size", "splice", "spliceE"};
    if (r == nullptr) return "-";
    if (r->op_ == kDirectOpOpen || r->op_ == kDirectOpCreate) {
      EXPECT_TRUE(r->fd_ == 100 && r->size_ == 0) << "the request's fd comes back";
      if (r->param_ < 0) return "= " + std::to_string(r->param_);
      EXPECT_TRUE(files.empty() || r->param_ > files.back()) << "numbers are never reused";
      files.push_back(r->param_);
      return "= " + name(r->param_);
    }
    for (uint32_t i = 0; i < r->size_; ++i) EXPECT_EQ(r->data_[i], pattern(r->offset_ + i)) << i;
    return std::string(r->op_ < 13 ? ops[r->op_] : "op") + " " + name(r->fd_) + " @" +
           std::to_string(r->offset_) + " " + std::to_string(r->param_) + " " +
           std::to_string(r->size_);
  }
  void play(const std::vector<Step>& steps) {
    for (const auto& [fd, op, offset, param, payload, reply] : steps) {
      const bool mine = fd > 1000 && fd <= 1000 + static_cast<int32_t>(files.size());
      auto* r = new VELTWorkItem(mine ? files[fd - 1001] : fd, op, offset, param, payload.size());
      if (!payload.empty()) memcpy(r->data_, payload.data(), payload.size());
      std::unique_ptr<VELTWorkItem> got(v->executeDirectRequest(r));
      EXPECT_EQ(show(got.get()), reply) << "op " << op << " fd " << fd << " @" << offset;
    }
  }
  // Replies the worker queued (completed parked reads), shown as above.
  std::string taken() {
    std::lock_guard<std::mutex> lock(v->response_mutex_);
    std::string out;
    for (VELTWorkItem* r : v->responses_) out += (out.empty() ? "" : ", ") + show(r), delete r;
    v->responses_.clear();
    return out;
  }
  std::vector<int32_t> files;
};

}  // namespace

TEST(PipeOps, OpenAndCreateAnswerFileNumbersOrErrors) {
  Card c;
  ASSERT_NE(c.root->createChild("dir", false, true, nullptr), nullptr);
  // A payload without its terminating NUL is taken as it is; an empty one is refused.
  c.play({Create("/a.bin", "= #1"), Create("/dir/b.bin", "= #2"), Open("/a.bin", "= #3"),
          Open("/A.BIN", "= #4"), Create("/a.bin", "= -17"), Create("/nodir/x", "= -2"),
          Create("/a.bin/x", "= -20"), Create("noslash", "= -22"), Create("/dir/", "= -22"),
          Open("/missing", "= -2"), Open("/dir", "= -21"), Open("/", "= -21"), Open("", "= -22"),
          Create("", "= -22"), Req(100, kDirectOpOpen, 0, 0, "= #5", "/a.bin"),
          Req(100, kDirectOpOpen, 0, 0, "= -22")});
  auto file = c.v->getFile(c.files[0]);  // cache mode 2 of the request; no FAT lock taken
  ASSERT_NE(file, nullptr);
  EXPECT_TRUE(file->direct_ && file->for_write_ && file->write_cache_ == 1 &&
              file->read_cache_ == 0 && file->fat_locked_ == 0);
  // With a mount point, paths must lie under it.
  c.v->setMountPoint("/mnt/card");
  c.play({Open("/mnt/card/a.bin", "= #6"), Create("/mnt/card/dir/c.bin", "= #7"),
          Open("/a.bin", "= -22"), Open("/mnt/cardx/a.bin", "= -22"),
          Open("/elsewhere/mnt/card/a.bin", "= -22"), Open("/mnt/card", "= -21")});
}

TEST(PipeOps, ReadsSizesSplicesAndClosesGetTheirReplies) {
  Card c;
  c.v->splice_buffer_ = static_cast<uint8_t*>(malloc(4096));  // smaller than a splice
  c.v->splice_buffer_size_ = 4096;
  auto splice = [&](int32_t in, int64_t in_offset, uint32_t out, int64_t out_offset, uint32_t size,
                    const char* reply, uint32_t payload_size = kDirectSpliceSize) {
    std::string payload(32, '\0');
    out = out > 1000 ? c.files[out - 1001] : out;
    encodeDirectSplice({out, out_offset, size}, reinterpret_cast<uint8_t*>(payload.data()));
    return Req(in, kDirectOpSplice, in_offset, 0, reply, payload.substr(0, payload_size));
  };
  c.play({Create("/rec.bin", "= #1"), Write(F1, 0, 1200), Open("/rec.bin", "= #2"),
          Create("/out.bin", "= #3")});
  c.v->findEntry("/rec.bin")->size_ = 8192;  // as for a reserved file being filled
  c.play({Req(F1, kDirectOpGetSize, 77, 0, "size #1 @8192 0 0"),
          Req(F1, kDirectOpGetRealSize, 77, 0, "realsize #1 @1200 0 0"),
          Req(F2, kDirectOpRead, 1000, 512, "read #2 @1000 0 200"),
          Req(F2, kDirectOpRead, 0, 1200, "read #2 @0 0 1200"),
          Req(F2, kDirectOpRead, 1199, 1, "read #2 @1199 0 1"),
          Req(F2, kDirectOpRead, 5, 0, "read #2 @5 0 0"),
          Req(F2, kDirectOpRead, 5, -3, "read #2 @5 0 0"),
          // At the end of the data a read waits in the file; a second one is refused at once.
          Req(F2, kDirectOpReadEvent, 1200, 500, "-"),
          Req(F2, kDirectOpRead, 0, 10, "read #2 @0 -16 0"),
          // Error and unknown operations on a known file are dropped without a reply.
          Req(F1, kDirectOpError, 0, 0, "-"), Req(F1, 13, 0, 0, "-"), Write(F1, 100, 50)});
  EXPECT_EQ(c.taken(), "") << "rewriting old data completes nothing";
  c.play({Write(F1, 1200, 300)});
  EXPECT_EQ(c.taken(), "readE #2 @1200 0 300") << "a write beyond it completes the parked read";
  c.play({Req(F2, kDirectOpRead, 0, 10, "read #2 @0 0 10")});  // none parked any more
  // Splices copy inside the volume, clipped to the input's data; failed ones change nothing.
  c.play({Write(F1, 1500, 698500), splice(F1, 1000, F3, 0, 690000, "-"),
          splice(F1, 0, F3, 690000, 50000, "-"), splice(F1, 699990, F3, 740000, 100, "-"),
          splice(F1, 0, F3, 0, 0, "-"), splice(F1, 700000, F3, 0, 10, "error #1 @700000 -22 0"),
          splice(F1, 800000, F3, 0, 10, "error #1 @800000 -22 0"),
          splice(F1, 0, 999, 0, 10, "error #1 @0 -9 0"),
          splice(F1, 0, F3, 0, 10, "error #1 @0 -22 0", 15),
          splice(F1, 0, F3, 0, 10, "error #1 @0 -22 0", 17)});
  EXPECT_GE(c.v->splice_buffer_size_, 690000u);
  std::vector<uint8_t> got(740010);
  ASSERT_EQ(c.v->findEntry("/out.bin")->size_, 740010);
  ASSERT_EQ(c.v->getFile(c.files[2])->read(got.data(), got.size(), 0), 740010);
  for (int64_t i = 0; i < 740010; ++i) {
    const int64_t from = i < 690000 ? 1000 + i : i < 740000 ? i - 690000 : 699990 + i - 740000;
    ASSERT_EQ(got[i], pattern(from)) << i;
  }
  // A FUSE handle (not a channel file) gets -EBADF as unknown numbers do, whatever the operation.
  auto fuse_file = c.v->newFile(false, false, false, c.v->findEntry("/rec.bin"));
  const int32_t fuse_no = static_cast<int32_t>(fuse_file->file_no_);
  for (uint32_t op : {1, 3, 7, 10, 11, 55}) {
    c.play({Req(fuse_no, op, 1234, 0, "error " + c.name(fuse_no) + " @1234 -9 0", "xyz")});
  }

  // A close writes the file's queued writes first (other files' requests stay) and answers a
  // parked read with -EBADF; with the unlink flag the file goes; a second close is refused.
  {
    std::lock_guard<std::mutex> lock(c.v->request_mutex_);
    for (int64_t off = 700000; off < 703000; off += 1000) {  // as if still growing, each alone
      auto* w = new VELTWorkItem(c.files[0], kDirectOpWrite, off, 0, 1000);
      memcpy(w->data_, bytes(off, 1000).data(), 1000);
      c.v->normal_requests_.push_back(w);
    }
    c.v->normal_requests_.push_back(new VELTWorkItem(c.files[2], kDirectOpGetSize, 0, 0, 0));
  }
  c.play({Req(F2, kDirectOpRead, 800000, 10, "-"), Req(F1, kDirectOpClose, 0, 0, "-"),
          Req(F2, kDirectOpClose, 0, 0, "-")});
  EXPECT_EQ(c.taken(), "read #2 @800000 -9 0");
  EXPECT_EQ(c.v->normal_requests_.size(), 1u) << "other files' requests stay";
  EXPECT_EQ(c.v->findEntry("/rec.bin")->size_, 703000);
  c.play({Req(F3, kDirectOpClose, 0, kDirectFlagUnlink, "-"),
          Req(F1, kDirectOpClose, 0, 0, "error #1 @0 -9 0")});
  EXPECT_EQ(c.v->findEntry("/out.bin"), nullptr);
  EXPECT_NE(c.v->findEntry("/rec.bin"), nullptr);
  for (int32_t fd : c.files) EXPECT_EQ(c.v->getFile(fd), nullptr);
  c.v->flushAllRequests(nullptr, false, false);
}
