// The direct channel without its threads: the wire format and the marker search, the queues
// (where each request goes, merging, the order the worker takes them, on an injected clock), the
// worker's operations on a fake card.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "fake_driver.h"
#include "fs/velt_dirent.h"
#include "fs/velt_file.h"
#include "fs/velt_pipe.h"

using namespace velt;

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

  uint8_t sp[28] = {};
  encodeDirectSplice({9, -5, 0x80000001}, sp);
  const uint8_t sp_expect[16] = {9,    0,    0,    0,    0xFB, 0xFF, 0xFF, 0xFF,
                                 0xFF, 0xFF, 0xFF, 0xFF, 0x01, 0x00, 0x00, 0x80};
  EXPECT_EQ(0, memcmp(sp, sp_expect, 16));
  // Decoding, and the refusal of other sizes, is checked by the splices of the random requests.
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

// A reply as "op fd @offset param size/digest of the payload"; "-" for none.
std::string reply(uint32_t op, int32_t fd, int64_t offset, int32_t param, std::string_view data) {
  return std::to_string(op) + " " + std::to_string(fd) + " @" + std::to_string(offset) + " " +
         std::to_string(param) + " " + std::to_string(data.size()) + "/" +
         std::to_string(std::hash<std::string_view>()(data) % 100000);
}
std::string show(const VELTWorkItem* r) {
  return r == nullptr ? "-"
                      : reply(r->op_, r->fd_, r->offset_, r->param_,
                              {reinterpret_cast<const char*>(r->data_), r->data_ ? r->size_ : 0});
}

// The worker's operations on a fake card, driven by random requests and judged by a model of
// the files: each reply, and each reply queued for a parked read, is the one the model predicts.
struct Model : velt_test::FakeCard {
  struct Handle {
    std::string path;
    uint32_t op = 0;  // a parked read: operation, offset, wanted size
    int64_t at = 0;
    int32_t want = 0;
  };
  explicit Model(unsigned seed) : rng(seed) {}
  uint32_t any(size_t n) { return static_cast<uint32_t>(rng() % n); }
  std::string random(size_t n) {
    std::string s(n, '\0');
    return std::generate(s.begin(), s.end(), std::ref(rng)), s;
  }
  // One request carried out as the worker does; its reply shown.
  std::string run(int32_t fd, uint32_t op, int64_t offset, int32_t param, std::string data = "") {
    auto* r = new VELTWorkItem(fd, op, offset, param, data.size());
    if (!data.empty()) memcpy(r->data_, data.data(), data.size());
    std::unique_ptr<VELTWorkItem> got(v->executeDirectRequest(r));
    answered = got ? got->param_ : 0;
    return show(got.get());
  }
  // Written to the model: parked reads the data now reaches are answered.
  void write(const std::string& path, size_t at, const std::string& bytes) {
    std::string& f = files[path];
    f.resize(std::max(f.size(), at + bytes.size()));
    f.replace(at, bytes.size(), bytes);
    for (auto& [no, h] : open) {
      if (h.op == 0 || h.path != path || h.at >= static_cast<int64_t>(f.size())) continue;
      due += reply(h.op, no, h.at, 0, std::string_view(f).substr(h.at, h.want)) + ", ";
      h.op = 0;
    }
  }
  void openOrCreate() {
    static const std::string paths[] = {"/A.BIN", "/B.BIN", "/DIR/C.BIN", "/DIR",
                                        "/",      "/DIR/",  "/NODIR/X",   "/A.BIN/X"};
    const std::string p = paths[any(std::size(paths))];
    const std::string parent = p.substr(0, std::max<size_t>(1, p.rfind('/')));
    const bool create = any(2), bad = any(10) == 0, dir = p == "/" || p == "/DIR" || p == "/DIR/";
    int err = bad                                 ? -EINVAL  // empty, or outside
              : !create                           ? (dir              ? -EISDIR
                                                     : files.count(p) ? 0
                                                                      : -ENOENT)
              : p.back() == '/'                   ? -EINVAL
              : parent != "/" && parent != "/DIR" ? (files.count(parent) ? -ENOTDIR : -ENOENT)
              : dir || files.count(p)             ? -EEXIST
                                                  : 0;
    std::string sent = mount + (mount.empty() || p != "/" ? p : "");
    if (any(2)) std::transform(sent.begin(), sent.end(), sent.begin(), ::tolower);
    if (bad) sent = mount.empty() ? "" : any(2) ? p : "/mnt/cardx" + p;
    // Clients send the NUL; without it the path is taken as it is; what follows it is ignored.
    sent += std::string("\0junk", std::vector<size_t>{0, 1, 5}[any(3)]);
    const uint32_t op = create ? kDirectOpCreate : kDirectOpOpen, mode = any(4);
    const std::string got = run(100, op, 0, static_cast<int32_t>(mode), sent);
    if (err == 0 && answered > last) {  // a new number each time, never one used before
      last = answered;
      open[last] = {p};
      if (create) files[p];
      auto file = v->getFile(last);
      EXPECT_TRUE(file->direct_ && file->write_cache_ == (mode >> 1) &&
                  file->read_cache_ == (mode & 1) && file->fat_locked_ == 0);
    }
    EXPECT_EQ(got, reply(op, 100, 0, err ? err : last, "")) << sent;
  }
  // One random request about an open file, or about a number that is none.
  void request(int32_t no) {
    if (open.count(no) == 0) {
      const uint32_t op = std::vector<uint32_t>{1, 3, 7, 10, 11, 55}[any(6)];
      EXPECT_EQ(run(no, op, 1234, 0, "xyz"), reply(kDirectOpError, no, 1234, -EBADF, ""));
      return;
    }
    Handle& h = open[no];
    const std::string path = h.path, f = files[path];
    const int64_t size = static_cast<int64_t>(f.size());
    std::string got, want = "-";
    // As in a reserved file, the entry is larger than the data, which alone may be read.
    VELT::DirEntry& entry = *v->findEntry(path.c_str());
    entry.size_ = entry.real_size_ + 8192;
    const uint32_t what = any(6);
    if (what == 0 || what == 5) entry.size_ = entry.real_size_;
    switch (what) {
      case 0: {  // a write at the end or over old data
        const size_t at = any(3) ? f.size() : any(f.size() + 1);
        const std::string bytes = random(1 + any(any(4) ? 3000 : 40000));
        write(path, at, bytes);
        got = run(no, kDirectOpWrite + any(2), at, any(3) ? 0u : kDirectFlagSecure, bytes);
        break;
      }
      case 1: {  // a read: served, parked at the end of the data, refused while one is parked
        const uint32_t op = any(2) ? kDirectOpRead : kDirectOpReadEvent;
        const int64_t at = any(size + 3000);
        const int32_t wanted = any(5) ? 1 + any(50000) : -static_cast<int32_t>(any(2));
        if (h.op != 0) {
          want = reply(op, no, at, -EBUSY, "");
        } else if (wanted <= 0 || at < size) {
          want = reply(op, no, at, 0, wanted <= 0 ? "" : f.substr(at, wanted));
        } else {
          h = {path, op, at, wanted};
        }
        got = run(no, op, at, wanted, "ignored");
        break;
      }
      case 2:  // the entry's size and the data's
        got = run(no, kDirectOpGetSize, 5, 0, "x") + run(no, kDirectOpGetRealSize, 5, 0);
        want = reply(kDirectOpGetSize, no, size + 8192, 0, "") +
               reply(kDirectOpGetRealSize, no, size, 0, "");
        break;
      case 3: {  // a splice into an open file (or not), clipped to the input's data
        auto out = std::next(open.begin(), any(open.size()));
        const int32_t to = any(8) ? out->first : stale[any(stale.size())];
        const int64_t at = any(size + 10), out_at = any(files[out->second.path].size() + 1);
        const uint32_t n = any(5) ? 1 + any(60000) : 0, wire = any(8) ? 16 : 15 + 2 * any(2);
        std::string splice(32, '\0');
        encodeDirectSplice({static_cast<uint32_t>(to), out_at, n},
                           reinterpret_cast<uint8_t*>(splice.data()));
        const int err = wire != 16            ? -EINVAL
                        : to != out->first    ? -EBADF
                        : n > 0 && at >= size ? -EINVAL
                                              : 0;
        if (err == 0 && n > 0) write(out->second.path, out_at, f.substr(at, n));
        if (err != 0) want = reply(kDirectOpError, no, at, err, "");
        got = run(no, kDirectOpSplice + any(2), at, 0, splice.substr(0, wire));
        break;
      }
      case 4:  // error and unknown operations: dropped
        got = run(no, any(2) ? kDirectOpError : 13 + any(100), 0, 0, "x");
        break;
      default:
        return close(no);
    }
    entry.size_ = entry.real_size_;
    EXPECT_EQ(got, want);
  }
  // A close writes the file's queued writes first (other requests stay), answers its parked
  // read with -EBADF, and with the unlink flag deletes the file (when no other handle has it).
  void close(int32_t no) {
    const std::string path = open[no].path;
    const bool event = any(2),
               unlink = any(3) == 0 && std::none_of(open.begin(), open.end(), [&](auto&o) {
                          return o.first != no && o.second.path == path;
                        });
    auto& queue = event ? v->event_requests_ : v->normal_requests_;
    for (int k = any(3); k > 0; --k) {  // as if still growing, each alone
      const std::string bytes = random(1 + any(5000));
      queue.push_back(
          new VELTWorkItem(no, kDirectOpWrite + event, files[path].size(), 0, bytes.size()));
      memcpy(queue.back()->data_, bytes.data(), bytes.size());
      write(path, files[path].size(), bytes);
    }
    queue.push_back(new VELTWorkItem(stale[0], kDirectOpGetSize, 0, 0, 0));
    if (open[no].op != 0) due += reply(open[no].op, no, open[no].at, -EBADF, "") + ", ";
    open.erase(no);
    stale.push_back(no);
    if (unlink) files.erase(path);
    EXPECT_EQ(run(no, kDirectOpClose, 0,
                  (event ? kDirectFlagEvent : 0u) | (unlink ? kDirectFlagUnlink : 0u)),
              "-");
    ASSERT_EQ(queue.size(), 1u) << "other files' requests stay";
    delete queue.front();
    queue.clear();
  }
  // The replies the worker queued since the last look are the model's.
  void checkQueued() {
    std::lock_guard<std::mutex> lock(v->response_mutex_);
    std::string got;
    for (VELTWorkItem* r : v->responses_) got += show(r) + ", ", delete r;
    v->responses_.clear();
    EXPECT_EQ(got, due);
    due.clear();
  }

  std::mt19937 rng;
  std::string mount, due;
  std::map<std::string, std::string> files;  // upper-case path -> content
  std::map<int32_t, Handle> open;
  std::vector<int32_t> stale{-1, 77777};  // numbers of no channel file
  int32_t last = 0, answered = 0;
};

}  // namespace

TEST(PipeOps, RandomRequestsGetTheRepliesAModelOfTheFilesPredicts) {
  for (unsigned seed = 1; seed <= 6; ++seed) {
    SCOPED_TRACE(seed);
    Model m(seed);
    m.create("dir", true);
    if (seed % 2 == 0) m.v->setMountPoint(m.mount = "/mnt/card");
    // A FUSE handle is not the channel's: refused as unknown numbers are.
    m.stale.push_back(
        static_cast<int32_t>(m.v->newFile(false, false, false, m.create("fuse.bin"))->file_no_));
    for (int step = 0; step < 500 && !::testing::Test::HasFailure(); ++step) {
      if (m.open.empty() || m.any(5) == 0) {
        m.openOrCreate();
      } else {
        m.request(m.any(10) ? std::next(m.open.begin(), m.any(m.open.size()))->first
                            : m.stale[m.any(m.stale.size())]);
      }
      m.checkQueued();
    }
    while (!m.open.empty()) m.close(m.open.begin()->first);
    m.checkQueued();
    for (const char* p : {"/A.BIN", "/B.BIN", "/DIR/C.BIN"}) {  // the card holds the model's files
      auto entry = m.v->findEntry(p);
      std::string got(entry ? entry->size_ : 0, '\0');
      if (entry) m.v->newFile(false, false, false, entry)->read(got.data(), got.size(), 0);
      EXPECT_TRUE(m.files.count(p) ? got == m.files[p] : entry == nullptr) << p;
    }
  }
}
