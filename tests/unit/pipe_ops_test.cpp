// The direct channel's operations on a fake card, as the worker carries them out: open and
// create, writes (merged and not), reads that are served, parked, refused and completed, the
// size queries, splices, closes with and without unlink, and the teardown flush.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "fake_driver.h"
#include "fs/velt_dirent.h"
#include "fs/velt_file.h"
#include "fs/velt_pipe.h"
#include "log_capture.h"
#include "utils/Log.h"

using velt::VELT;
using velt::VELTWorkItem;

namespace {

using velt::test::LogCapture;

uint8_t pattern(int64_t i) {
  return static_cast<uint8_t>((i * 7 + (i >> 8)) & 0xFF);
}

// 64 MiB card formatted in memory with an empty root; requests are carried out one by one as
// the worker would.
struct Card : velt_test::FakeCard {
  // Carries out one request; the reply (owned by the caller) or null.
  std::unique_ptr<VELTWorkItem> run(int32_t fd, uint32_t op, int64_t offset, int32_t param,
                                    const void* payload = nullptr, uint32_t size = 0) {
    auto* r = new VELTWorkItem(fd, op, offset, param, size);
    if (size > 0) memcpy(r->data_, payload, size);
    return std::unique_ptr<VELTWorkItem>(v->executeDirectRequest(r));
  }
  int open(const std::string& path, bool create) {
    auto reply = run(100, create ? velt::kDirectOpCreate : velt::kDirectOpOpen, 0, 2, path.c_str(),
                     static_cast<uint32_t>(path.size() + 1));
    EXPECT_NE(reply, nullptr);
    if (reply == nullptr) return -1000;
    EXPECT_EQ(reply->op_, create ? velt::kDirectOpCreate : velt::kDirectOpOpen);
    EXPECT_EQ(reply->fd_, 100) << "the request's fd comes back";
    EXPECT_EQ(reply->size_, 0u);
    EXPECT_EQ(reply->data_, nullptr);
    return reply->param_;
  }
  // Writes `size` pattern bytes at `offset`; a reply only on failure.
  std::unique_ptr<VELTWorkItem> write(int fd, int64_t offset, uint32_t size, int32_t flags = 0) {
    std::vector<uint8_t> data(size);
    for (uint32_t i = 0; i < size; ++i) data[i] = pattern(offset + i);
    return run(fd, velt::kDirectOpWrite, offset, flags, data.data(), size);
  }
  std::vector<VELTWorkItem*> takeReplies() {
    std::lock_guard<std::mutex> lock(v->response_mutex_);
    std::vector<VELTWorkItem*> out(v->responses_.begin(), v->responses_.end());
    v->responses_.clear();
    return out;
  }
  int64_t realSize(int fd) {
    auto r = run(fd, velt::kDirectOpGetRealSize, 0, 0);
    return r != nullptr && r->op_ == velt::kDirectOpGetRealSize ? r->offset_ : -1;
  }
};

}  // namespace

TEST(PipeOps, OpenAndCreateAnswerFileNumbersOrErrors) {
  Card c;
  LogCapture log;
  const int a = c.open("/a.bin", true);
  EXPECT_GE(a, 3);
  ASSERT_NE(c.v->findEntry("/a.bin"), nullptr);
  auto file = c.v->getFile(a);
  ASSERT_NE(file, nullptr);
  EXPECT_TRUE(file->direct_);
  EXPECT_TRUE(file->for_write_);
  EXPECT_EQ(file->write_cache_, 1) << "cache mode 2 of the request";
  EXPECT_EQ(file->read_cache_, 0);
  EXPECT_EQ(file->fat_locked_, 0) << "direct writers take no FAT lock";
  ASSERT_NE(c.root->createChild("dir", false, true, nullptr), nullptr);

  struct Row {
    const char* path;
    bool create;
    int result;  // 0: a new file number
  } rows[] = {
      {"/dir/b.bin", true, 0},    {"/a.bin", false, 0},        {"/A.BIN", false, 0},
      {"/a.bin", true, -EEXIST},  {"/nodir/x", true, -ENOENT}, {"/a.bin/x", true, -ENOTDIR},
      {"noslash", true, -EINVAL}, {"/dir/", true, -EINVAL},    {"/missing", false, -ENOENT},
      {"/dir", false, -EISDIR},   {"/", false, -EISDIR},       {"", false, -EINVAL},
      {"", true, -EINVAL},
  };
  int last = a;
  for (const auto& r : rows) {
    SCOPED_TRACE(std::string(r.create ? "create " : "open ") + r.path);
    int got = c.open(r.path, r.create);
    if (r.result == 0) {
      EXPECT_GT(got, last) << "numbers are never reused";
      last = std::max(last, got);
    } else {
      EXPECT_EQ(got, r.result);
    }
  }
  EXPECT_NE(log.text().find("\"\" creation failed."), std::string::npos);

  // A payload without its terminating NUL is taken as it is; an empty payload is refused.
  auto reply = c.run(100, velt::kDirectOpOpen, 0, 0, "/a.bin", 6);
  ASSERT_NE(reply, nullptr);
  EXPECT_GT(reply->param_, last);
  reply = c.run(100, velt::kDirectOpOpen, 0, 0);
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(reply->param_, -EINVAL);

  // With a mount point, paths must lie under it.
  c.v->setMountPoint("/mnt/card");
  EXPECT_GT(c.open("/mnt/card/a.bin", false), 0);
  EXPECT_GT(c.open("/mnt/card/dir/c.bin", true), 0);
  EXPECT_EQ(c.open("/a.bin", false), -EINVAL);
  EXPECT_EQ(c.open("/mnt/cardx/a.bin", false), -EINVAL);
  EXPECT_EQ(c.open("/elsewhere/mnt/card/a.bin", false), -EINVAL);
  EXPECT_EQ(c.open("/mnt/card", false), -EISDIR);
}

TEST(PipeOps, ReadsAreServedParkedRefusedAndCompleted) {
  Card c;
  LogCapture log;
  const int fd = c.open("/rec.bin", true);
  ASSERT_GE(fd, 3);
  EXPECT_EQ(c.write(fd, 0, 1200), nullptr);
  EXPECT_EQ(c.realSize(fd), 1200);
  const int reader = c.open("/rec.bin", false);
  ASSERT_GE(reader, 3);

  struct Row {
    int64_t offset;
    int32_t wanted;
    uint32_t bytes;
  } rows[] = {{1000, 512, 200}, {0, 1200, 1200}, {1199, 1, 1}, {5, 0, 0}, {5, -3, 0}};
  for (const auto& r : rows) {
    SCOPED_TRACE("read " + std::to_string(r.wanted) + " @ " + std::to_string(r.offset));
    auto reply = c.run(reader, velt::kDirectOpRead, r.offset, r.wanted);
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->op_, velt::kDirectOpRead);
    EXPECT_EQ(reply->fd_, reader);
    EXPECT_EQ(reply->offset_, r.offset);
    EXPECT_EQ(reply->param_, 0);
    ASSERT_EQ(reply->size_, r.bytes);
    for (uint32_t i = 0; i < r.bytes; ++i) ASSERT_EQ(reply->data_[i], pattern(r.offset + i));
  }

  // At the end of the data the read waits in the file; a second read is refused at once.
  EXPECT_EQ(c.run(reader, velt::kDirectOpReadEvent, 1200, 500), nullptr);
  EXPECT_NE(log.text().find("read (" + std::to_string(reader) +
                            ", 500 @ 1200) pending (file entry size: 1200, real size: 1200)"),
            std::string::npos);
  auto busy = c.run(reader, velt::kDirectOpRead, 0, 10);
  ASSERT_NE(busy, nullptr);
  EXPECT_EQ(busy->param_, -EBUSY);
  EXPECT_EQ(busy->size_, 0u);
  EXPECT_TRUE(c.takeReplies().empty());

  // Rewriting old data completes nothing; a write beyond 1,200 completes the parked read with
  // what is there.
  EXPECT_EQ(c.write(fd, 100, 50), nullptr);
  EXPECT_TRUE(c.takeReplies().empty());
  EXPECT_EQ(c.write(fd, 1200, 300), nullptr);
  auto replies = c.takeReplies();
  ASSERT_EQ(replies.size(), 1u);
  std::unique_ptr<VELTWorkItem> done(replies[0]);
  EXPECT_EQ(done->op_, velt::kDirectOpReadEvent);
  EXPECT_EQ(done->fd_, reader);
  EXPECT_EQ(done->param_, 0);
  ASSERT_EQ(done->size_, 300u);
  for (uint32_t i = 0; i < 300; ++i) ASSERT_EQ(done->data_[i], pattern(1200 + i));
  auto again = c.run(reader, velt::kDirectOpRead, 0, 10);
  ASSERT_NE(again, nullptr);
  EXPECT_EQ(again->param_, 0) << "the file has no parked read any more";
}

TEST(PipeOps, SizeQueriesAndUnknownFileNumbers) {
  Card c;
  const int fd = c.open("/s.bin", true);
  ASSERT_GE(fd, 3);
  EXPECT_EQ(c.write(fd, 0, 3000), nullptr);
  auto entry = c.v->findEntry("/s.bin");
  ASSERT_NE(entry, nullptr);
  entry->size_ = 8192;  // as for a reserved file being filled
  auto size = c.run(fd, velt::kDirectOpGetSize, 77, 0);
  auto real = c.run(fd, velt::kDirectOpGetRealSize, 77, 0);
  ASSERT_NE(size, nullptr);
  ASSERT_NE(real, nullptr);
  EXPECT_EQ(size->op_, velt::kDirectOpGetSize);
  EXPECT_EQ(size->offset_, 8192);
  EXPECT_EQ(real->op_, velt::kDirectOpGetRealSize);
  EXPECT_EQ(real->offset_, 3000);

  // A FUSE handle is not a channel file.
  auto fuse_file = c.v->newFile(false, false, false, entry);
  ASSERT_NE(fuse_file, nullptr);
  LogCapture log;
  for (uint32_t op : std::initializer_list<uint32_t>{
           velt::kDirectOpGetSize, velt::kDirectOpWrite, velt::kDirectOpRead, velt::kDirectOpClose,
           velt::kDirectOpSplice, velt::kDirectOpError, 55u}) {
    for (int32_t unknown : {999, -1, static_cast<int32_t>(fuse_file->file_no_)}) {
      auto reply = c.run(unknown, op, 1234, 0, "xyz", 3);
      ASSERT_NE(reply, nullptr) << op;
      EXPECT_EQ(reply->op_, velt::kDirectOpError);
      EXPECT_EQ(reply->fd_, unknown);
      EXPECT_EQ(reply->offset_, 1234);
      EXPECT_EQ(reply->param_, -EBADF);
      EXPECT_EQ(reply->size_, 0u);
      EXPECT_EQ(reply->data_, nullptr);
    }
  }
  EXPECT_NE(log.text().find("file != nullptr : file no 999 not found"), std::string::npos);
  // Error and unknown operations on a known file are dropped without a reply.
  EXPECT_EQ(c.run(fd, velt::kDirectOpError, 0, 0), nullptr);
  EXPECT_EQ(c.run(fd, 13, 0, 0), nullptr);
}

TEST(PipeOps, SplicesCopyInsideTheVolume) {
  Card c;
  const int in = c.open("/in.bin", true);
  const int out = c.open("/out.bin", true);
  ASSERT_GE(in, 3);
  ASSERT_GE(out, 3);
  EXPECT_EQ(c.write(in, 0, 700000), nullptr);  // larger than the first splice buffer
  c.v->splice_buffer_ = static_cast<uint8_t*>(malloc(4096));
  c.v->splice_buffer_size_ = 4096;

  auto splice = [&](int32_t in_fd, int64_t in_offset, uint32_t out_fd, int64_t out_offset,
                    uint32_t size, uint32_t payload_size = velt::kDirectSpliceSize) {
    velt::DirectSplice s;
    s.out_fd = out_fd;
    s.out_offset = out_offset;
    s.size = size;
    uint8_t payload[32] = {};
    velt::encodeDirectSplice(s, payload);
    return c.run(in_fd, velt::kDirectOpSplice, in_offset, 0, payload, payload_size);
  };
  EXPECT_EQ(splice(in, 1000, out, 0, 690000), nullptr);
  EXPECT_EQ(splice(in, 0, out, 690000, 50000), nullptr);
  EXPECT_EQ(splice(in, 699990, out, 740000, 100), nullptr) << "clipped to the input's data";
  EXPECT_GE(c.v->splice_buffer_size_, 690000u);
  EXPECT_EQ(c.realSize(out), 740010);
  auto outf = c.v->getFile(out);
  std::vector<uint8_t> got(740010);
  ASSERT_EQ(outf->read(got.data(), got.size(), 0), 740010);
  for (int64_t i = 0; i < 690000; ++i) ASSERT_EQ(got[i], pattern(1000 + i)) << i;
  for (int64_t i = 0; i < 50000; ++i) ASSERT_EQ(got[690000 + i], pattern(i)) << i;
  for (int64_t i = 0; i < 10; ++i) ASSERT_EQ(got[740000 + i], pattern(699990 + i)) << i;

  struct Row {
    const char* what;
    int64_t in_offset;
    uint32_t out_fd;
    uint32_t size;
    uint32_t payload_size;
    int result;  // 0: no reply
  } rows[] = {
      {"nothing to copy", 0, static_cast<uint32_t>(out), 0, 16, 0},
      {"at the end of the input", 700000, static_cast<uint32_t>(out), 10, 16, -EINVAL},
      {"beyond the input", 800000, static_cast<uint32_t>(out), 10, 16, -EINVAL},
      {"unknown output", 0, 999, 10, 16, -EBADF},
      {"short payload", 0, static_cast<uint32_t>(out), 10, 15, -EINVAL},
      {"long payload", 0, static_cast<uint32_t>(out), 10, 17, -EINVAL},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.what);
    auto reply = splice(in, r.in_offset, r.out_fd, 0, r.size, r.payload_size);
    if (r.result == 0) {
      EXPECT_EQ(reply, nullptr);
      continue;
    }
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->op_, velt::kDirectOpError);
    EXPECT_EQ(reply->fd_, in);
    EXPECT_EQ(reply->param_, r.result);
  }
  EXPECT_EQ(c.realSize(out), 740010) << "failed splices change nothing";
}

TEST(PipeOps, CloseWritesQueuedDataAndUnlinksOnRequest) {
  Card c;
  LogCapture log;
  const int keep = c.open("/keep.bin", true);
  const int gone = c.open("/gone.bin", true);
  ASSERT_GE(keep, 3);
  ASSERT_GE(gone, 3);
  // Queued writes of the closed file are written first; its later requests in the same queue
  // are dropped with it.
  for (int64_t off = 0; off < 3000; off += 1000) {
    auto* w = new VELTWorkItem(keep, velt::kDirectOpWrite, off, 0, 1000);
    for (int i = 0; i < 1000; ++i) w->data_[i] = pattern(off + i);
    std::lock_guard<std::mutex> lock(c.v->request_mutex_);
    c.v->normal_requests_.push_back(w);  // as if still growing, each on its own
  }
  {
    std::lock_guard<std::mutex> lock(c.v->request_mutex_);
    c.v->normal_requests_.push_back(new VELTWorkItem(gone, velt::kDirectOpGetSize, 0, 0, 0));
  }
  EXPECT_EQ(c.run(keep, velt::kDirectOpClose, 0, 0), nullptr);
  EXPECT_EQ(c.v->getFile(keep), nullptr);
  ASSERT_EQ(c.v->normal_requests_.size(), 1u) << "other files' requests stay";
  auto entry = c.v->findEntry("/keep.bin");
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->size_, 3000);

  // A parked read of a closed file is answered with -EBADF.
  const int reader = c.open("/gone.bin", false);
  EXPECT_EQ(c.run(reader, velt::kDirectOpRead, 0, 10), nullptr);
  EXPECT_EQ(c.run(reader, velt::kDirectOpClose, 0, 0), nullptr);
  auto replies = c.takeReplies();
  ASSERT_EQ(replies.size(), 1u);
  std::unique_ptr<VELTWorkItem> answered(replies[0]);
  EXPECT_EQ(answered->op_, velt::kDirectOpRead);
  EXPECT_EQ(answered->param_, -EBADF);

  EXPECT_EQ(c.run(gone, velt::kDirectOpClose, 0, velt::kDirectFlagUnlink), nullptr);
  EXPECT_EQ(c.v->findEntry("/gone.bin"), nullptr);
  EXPECT_NE(log.text().find("gone.bin\" unlink on close"), std::string::npos);
  EXPECT_NE(c.v->findEntry("/keep.bin"), nullptr);

  // A second close of the same number: the file is unknown by then.
  auto again = c.run(keep, velt::kDirectOpClose, 0, 0);
  ASSERT_NE(again, nullptr);
  EXPECT_EQ(again->op_, velt::kDirectOpError);
  EXPECT_EQ(again->param_, -EBADF);
  {
    std::lock_guard<std::mutex> lock(c.v->request_mutex_);
    for (auto* r : c.v->normal_requests_) delete r;
    c.v->normal_requests_.clear();
  }
}

TEST(PipeOps, TeardownWritesEverythingAndClosesEveryDirectFile) {
  Card c;
  const int a = c.open("/a.bin", true);
  const int b = c.open("/b.bin", true);
  const int r = c.open("/a.bin", false);
  // Parked beyond what the queued writes bring.
  EXPECT_EQ(c.run(r, velt::kDirectOpRead, 6000, 100), nullptr);
  auto fuse_file = c.v->newFile(false, false, false, c.v->findEntry("/a.bin"));
  for (int fd : {a, b}) {
    auto* w = new VELTWorkItem(fd, fd == a ? velt::kDirectOpWrite : velt::kDirectOpWriteEvent, 0, 0,
                               5000);
    memset(w->data_, fd, 5000);
    std::lock_guard<std::mutex> lock(c.v->request_mutex_);
    c.v->__queueRequest(w);
  }
  LogCapture log;
  c.v->flushAllRequests(nullptr, false, true);
  EXPECT_TRUE(c.v->normal_requests_.empty());
  EXPECT_TRUE(c.v->event_requests_.empty());
  EXPECT_EQ(c.v->findEntry("/a.bin")->size_, 5000);
  EXPECT_EQ(c.v->findEntry("/b.bin")->size_, 5000);
  for (int fd : {a, b, r}) EXPECT_EQ(c.v->getFile(fd), nullptr) << fd;
  EXPECT_NE(c.v->getFile(fuse_file->file_no_), nullptr) << "FUSE files stay open";
  EXPECT_TRUE(c.takeReplies().empty()) << "the parked read is dropped";
  const std::string text = log.text();
  EXPECT_NE(text.find("pending requests#2, still open files#3"), std::string::npos) << text;
  for (int fd : {a, b, r}) {
    EXPECT_NE(text.find("close pending file(no " + std::to_string(fd) + ")"), std::string::npos);
  }
}
