// The direct channel without its threads: the wire format and the marker search, the queues
// (where each request goes, merging, the order the worker takes them, on an injected clock), the
// worker's operations on a fake card.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "fake_driver.h"
#include "fs/velt_dirent.h"
#include "fs/velt_file.h"
#include "fs/velt_pipe.h"

using namespace velt;

TEST(PipeWire, HeaderSpliceAndWriteParameterBytes) {
  uint8_t bytes[28] = {};
  encodeDirectHeader({0x01020304, -2, kDirectOpSplice, 0x1122334455667788ll, 0xA0B0C0D0}, bytes);
  const uint8_t header[28] = {0xFD, 0xEC, 0xB9, 0xA8, 0x04, 0x03, 0x02, 0x01, 0xFE, 0xFF,
                              0xFF, 0xFF, 0x0B, 0x00, 0x00, 0x00, 0x88, 0x77, 0x66, 0x55,
                              0x44, 0x33, 0x22, 0x11, 0xD0, 0xC0, 0xB0, 0xA0};
  EXPECT_EQ(0, memcmp(bytes, header, sizeof(header)));
  const DirectHeader h = decodeDirectHeader(header);
  EXPECT_TRUE(hasDirectMarker(header) && h.length == 0x01020304 && h.fd == -2 &&
              h.op == kDirectOpSplice && h.offset == 0x1122334455667788ll && h.param == 0xA0B0C0D0);
  encodeDirectSplice({9, -5, 0x80000001}, bytes);
  const uint8_t splice[16] = {9,    0,    0,    0,    0xFB, 0xFF, 0xFF, 0xFF,
                              0xFF, 0xFF, 0xFF, 0xFF, 1,    0,    0,    0x80};
  EXPECT_EQ(0, memcmp(bytes, splice, sizeof(splice)));  // decoding: the random requests' splices
  static_assert(directWriteParam(16, kDirectFlagSecure) == 0x00080010 &&
                directWriteNewSizeOffset(0x00080010) == 16 &&
                directWriteFlags(0xFFFF0010) == 0xFFFF &&
                directWriteParam(0x1FFFF, 0x10001) == 0x0001FFFF);
}

TEST(PipeWire, MarkerSearchRestartsAfterABreakingByte) {
  // Bytes, the index of the byte that completes the marker (-1 none), marker bytes matched at
  // the end. The byte that breaks a partial match is not tried as the first marker byte.
  const std::tuple<std::vector<uint8_t>, int, int> rows[] = {
      {{0x00, 0xFD, 0xEC, 0xB9, 0xA8}, 4, 0},
      {{0xFD, 0xEC, 0xB9, 0xA8}, 3, 0},
      {{0xFD, 0xEC, 0xB9}, -1, 3},
      {{0xA8, 0xB9, 0xEC, 0xFD}, -1, 1},
      {{0xFD, 0xFD, 0xEC, 0xB9, 0xA8}, -1, 0},
      {{0xFD, 0xEC, 0xFD, 0xEC, 0xB9, 0xA8}, -1, 0},
      {{0xFD, 0xEC, 0x00, 0xFD, 0xEC, 0xB9, 0xA8}, 6, 0},
      {{0xFD, 0xEC, 0xB9, 0x00, 0xA8}, -1, 0}};
  for (const auto& [bytes, completes_at, left] : rows) {
    for (size_t split = 0; split <= bytes.size(); ++split) {  // split between two reads
      SCOPED_TRACE(::testing::PrintToString(bytes) + " split " + std::to_string(split));
      DirectMarkerSearch search;
      size_t used = 0;
      int found = -1;
      if (findDirectMarker(search, bytes.data(), split, &used)) {
        found = static_cast<int>(used) - 1;
      } else if (findDirectMarker(search, bytes.data() + split, bytes.size() - split, &used)) {
        found = static_cast<int>(split + used) - 1;
      }
      EXPECT_EQ(found, completes_at);
      EXPECT_EQ(search.matched(), found < 0 ? left : 0);  // after a marker it starts over
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
  void queue(int32_t fd, uint32_t op, int64_t offset, int32_t param, uint32_t size) {
    auto* r = new VELTWorkItem(fd, op, offset, param, size);
    r->created_ = r->updated_ = now;
    std::lock_guard<std::mutex> lock(v.request_mutex_);
    v.__queueRequest(r);
  }
  std::unique_ptr<VELTWorkItem> fetch() {  // null when none may be taken
    std::lock_guard<std::mutex> lock(v.request_mutex_);
    return std::unique_ptr<VELTWorkItem>(v.__fetchRequest());
  }
  // What may be taken now, in order: "fd" each, writes as "fd@offset+size", "$" when secure.
  std::string taken() {
    std::string out;
    while (auto r = fetch()) {
      out += (out.empty() ? "" : " ") + std::to_string(r->fd_);
      if (!isDirectWriteOp(r->op_)) continue;
      out += "@" + std::to_string(r->offset_) + "+" + std::to_string(r->size_);
      if (r->param_ & kDirectFlagSecure) out += "$";
    }
    return out;
  }
  // Runs a script: "w5@0+10" queues a write of file 5 at 0 of 10 bytes (W an event write, r/R
  // a read of one byte, g/z a size query, s/S a splice, c a close, o/p an open or create, e an
  // error, u an unknown operation); "~", "!" and "$" after it add the event, ready and secure
  // flags; "tN" moves the clock on by N us, "T" by the growth window; "aN" appends N times to
  // the last write, 10 ms apart; "x" stops the channel; "." takes what may be taken. Returns
  // the takes, "|" between them.
  std::string run(const std::string& script) {
    std::istringstream in(script);
    std::string out, t;
    int32_t fd = 0;
    uint32_t op = 0, size = 0;
    long long at = 0;
    for (int takes = 0; in >> t;) {
      if (t == ".") {
        out += (takes++ ? "|" : "") + taken();
      } else if (t[0] == 't' || t == "T") {
        now += t == "T" ? kDirectGrowUs : std::stoull(t.substr(1));
      } else if (t == "x") {
        v.direct_stop_ = true;
      } else if (t[0] == 'a') {
        for (int n = std::stoi(t.substr(1)); n > 0; --n)
          now += 10000, queue(fd, op, at += size, 0, size);
      } else {
        const size_t code = std::string("-wWceoprRzgsS").find(t[0]);  // by operation number
        op = code == t.npos ? 77 : static_cast<uint32_t>(code), at = 0, size = 0;
        sscanf(t.c_str() + 1, "%d@%lld+%u", &fd, &at, &size);
        uint32_t flags = isDirectReadOp(op) ? 1u : 0u;
        if (t.find('~') != t.npos) flags |= kDirectFlagEvent;
        if (t.find('!') != t.npos) flags |= kDirectFlagReady;
        if (t.find('$') != t.npos) flags |= kDirectFlagSecure;
        queue(fd, op, at, static_cast<int32_t>(flags), size);
      }
    }
    return out;
  }
  uint64_t now = 1000000;
  VELT v;
};

}  // namespace

TEST(PipeQueue, WritesMergeAndGrowHoldingBackOnlyTheirOwnFile) {
  // A script (see Queues::run) and what it takes; kDirectGrowUs is 33334, the merge limit
  // 0xFFFFF bytes, a trickle's age limit 1 s.
  const std::pair<const char*, const char*> rows[] = {
      // Opens and creates go first, then the event queue (event operations, a close with the
      // event flag), then the normal queue: only a close reads the event flag.
      {"g1~ R2 c3~ c4 S5~ s6~ W7@0+1! w8@0+1!~ r9 e10~ z11~ u12~ o13~ p14 .",
       "13 14 2 3 5 7@0+1 1 4 6 8@0+1 9 10 11 12"},
      // Contiguous writes of a file merge, with their flags, up to the limit; a gap, an
      // overlap or the limit makes the first write ready.
      {"w5@0+1000 w5@1000+1000$ . T .", "|5@0+2000$"},
      {"w5@0+1000 w5@1001+1000$ . T .", "5@0+1000|5@1001+1000$"},
      {"w5@0+1000 w5@999+1000$ . T .", "5@0+1000|5@999+1000$"},
      {"w5@0+1000 w6@1000+1000 W5@1000+1000 . T .", "|5@1000+1000 5@0+1000 6@1000+1000"},
      {"w5@0+1047575 w5@1047575+1000 . T .", "|5@0+1048575"},
      {"w5@0+1047576 w5@1047576+1000 . T .", "5@0+1047576|5@1047576+1000"},
      // A write waits the window after its last append, unless ready or stopping; a trickle
      // of appends only until its age limit.
      {"w5@0+100 W6@0+100 t10000 . t23333 . t1 .", "||6@0+100 5@0+100"},
      {"w5@0+100! W6@0+100! .", "6@0+100 5@0+100"},
      {"w5@0+100 W6@0+100 x .", "6@0+100 5@0+100"},
      {"w5@0+100 a99 t9999 . t1 .", "|5@0+10000"},
      {"W5@0+100 a99 t9999 . t1 .", "|5@0+10000"},
      // Requests of other files go past a growing write; a request about its file ends its
      // growth; nothing goes past it to a splice.
      {"w5@0+10 g6 r7 . T .", "6 7|5@0+10"},
      {"w5@0+10 g5 g6 . T .", "5@0+10 5 6|"},
      {"w5@0+10 w6@0+16 c7 . T .", "7|5@0+10 6@0+16"},
      {"w5@0+10 s6 g7 . T .", "|5@0+10 6 7"},
      // A continuation sent after a read is not merged in front of it; a close ends the
      // growth of its file's write only.
      {"w7@0+100 w8@0+100 r7 w7@100+100 . c7 . T .", "7@0+100 7|7@100+100 7|8@0+100"},
  };
  for (const auto& [script, takes] : rows) {
    Queues q;
    EXPECT_EQ(q.run(script), takes) << script;
  }
}

TEST(PipeQueue, ControlFirstThenEventsWithAFairShareForNormalRequests) {
  Queues q;
  q.run("W9@0+10 r3 r5 o1");
  uint32_t normal = 0, event = 0;
  q.v.getDirectQueueLengths(&normal, &event);
  EXPECT_TRUE(normal == 2 && event == 1) << normal << " " << event;
  EXPECT_EQ(q.taken(), "1 3 5") << "control requests first; a growing event write lets others by";
  EXPECT_EQ(q.v.last_normal_fetch_, q.now);
  // A steady stream of event requests (one every 10 ms) goes ahead of a normal request until
  // it has waited more than 333 ms; after each take the next one waits another 333 ms.
  uint64_t last = q.now;
  int normal_takes = 0;
  q.queue(3, kDirectOpRead, 0, 1, 0);
  for (int tick = 0; tick < 100; ++tick, q.now += 10000) {
    q.queue(4, kDirectOpReadEvent, tick, 1, 0);
    auto r = q.fetch();
    ASSERT_NE(r, nullptr);
    if (r->op_ != kDirectOpRead) continue;
    EXPECT_TRUE(q.now - last > kDirectFairnessUs && q.now - last <= kDirectFairnessUs + 10000);
    last = q.now, ++normal_takes;
    q.queue(3, kDirectOpRead, tick, 1, 0);
  }
  EXPECT_GE(normal_takes, 2);
  EXPECT_EQ(q.v.last_normal_fetch_, last);
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
        // Now and then a merged write's worth, which goes to the card around the write buffer.
        const uint32_t most[] = {3000, 3000, 3000, 40000, 40000, 0xFFFFF};
        const std::string bytes = random(1 + any(most[any(6)]));
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
