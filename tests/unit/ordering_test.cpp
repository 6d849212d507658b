// The order in which operations put things on the card. A card may reorder writes between two
// flushes of the backing store, so every "before" a power cut relies on needs a flush between
// the two writes. Each row runs one operation on a fake card, labels every request by what it
// touches (file data, FAT, a folder's records, FSInfo, flush) and checks its rules.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "fake_driver.h"
#include "fs/velt_dirent.h"
#include "fs/velt_file.h"
#include "fs/velt_fuse.h"

namespace {

using velt::VELT;
using velt::VELTFuse;
using Entry = std::shared_ptr<VELT::DirEntry>;

struct Card : velt_test::FakeCard {
  Card() { VELTFuse::setVolume(f.volume); }
  ~Card() { VELTFuse::setVolume(nullptr); }
  uint64_t create(const char* path) {
    fuse_file_info fi{};
    EXPECT_EQ(VELTFuse::__create(path, 0644, &fi), 0) << path;
    return fi.fh;
  }
  static fuse_file_info handle(uint64_t fh) {
    fuse_file_info fi{};
    fi.fh = fh;
    return fi;
  }
  void write(uint64_t fh, size_t size) {
    std::vector<char> data(size, 'x');
    auto fi = handle(fh);
    EXPECT_EQ(VELTFuse::__write("", data.data(), size, 0, &fi), static_cast<int>(size));
  }
  void close(uint64_t fh) {
    auto fi = handle(fh);
    VELTFuse::__flush("", &fi);
    EXPECT_EQ(VELTFuse::__release("", &fi), 0);
  }
  void mark(const Entry& e, const std::string& label) {
    for (uint32_t c = e->start_cluster_; c >= 2 && c < velt::FAT_EOC; c = pbr->fat1_[c])
      labels[c] = label;
  }
  // The requests from `from` on, one label each.
  std::vector<std::string> trace(size_t from) {
    std::vector<std::string> out;
    const auto& reqs = f.driver->requests;
    const uint32_t lba = pbr->partition_.lba;
    for (size_t i = from; i < reqs.size(); ++i) {
      const auto& r = reqs[i];
      const uint32_t s = r.start - lba;
      const uint32_t c = (s - pbr->data_start_sector_) / pbr->sectors_per_cluster_ + 2;
      if (r.kind == 'f') {
        out.push_back("flush");
      } else if (r.kind != 'w') {
      } else if (s >= pbr->reserved_sectors_ && s < pbr->data_start_sector_) {
        out.push_back("fat");
      } else if (s == pbr->fsinfo_sector_ || s == pbr->backup_boot_sector_ + 1) {
        out.push_back("fsinfo");
      } else {
        out.push_back(s >= pbr->data_start_sector_ && labels.count(c) ? labels[c] : "other");
      }
    }
    return out;
  }
  std::map<uint32_t, std::string> labels;
};

std::string join(const std::vector<std::string>& t) {
  std::string s;
  for (const auto& x : t) s += " " + x;
  return s;
}

// `a` reaches the card, and is flushed, before the first `b` is written.
::testing::AssertionResult flushedBefore(const std::vector<std::string>& t, const std::string& a,
                                         const std::string& b) {
  const size_t first_b = std::find(t.begin(), t.end(), b) - t.begin();
  const size_t last_a = std::find(t.rbegin() + (t.size() - first_b), t.rend(), a).base() - t.begin();
  if (first_b == t.size() || last_a == 0 ||
      std::find(t.begin() + last_a, t.begin() + first_b, "flush") == t.begin() + first_b) {
    return ::testing::AssertionFailure() << "no " << a << ", flush, " << b << " in" << join(t);
  }
  return ::testing::AssertionSuccess();
}

struct Row {
  const char* what;
  std::function<void(Card&)> setup;      // before the operation's requests are counted
  std::function<void(Card&)> operation;
  const char* labelled;                  // its clusters are "data", the root's are "dir"
  std::vector<std::pair<const char*, const char*>> rules;  // before, after
  bool ends_with_flush;
};

TEST(Ordering, EachOperationFlushesBetweenTheStepsItReliesOn) {
  const uint32_t kData = 40000;  // three 16 KiB clusters
  uint64_t fh = 0;
  auto createFile = [&](const char* path) { return [&, path](Card& c) { fh = c.create(path); }; };
  auto writeThen = [&](bool sync) {
    return [&, sync](Card& c) {
      c.write(fh, kData);
      if (sync) {
        auto fi = Card::handle(fh);
        EXPECT_EQ(VELTFuse::__fsync("", 0, &fi), 0);
      } else {
        c.close(fh);
      }
    };
  };
  const Row rows[] = {
      {"fsync of a growing file", createFile("/a.bin"), writeThen(true), "/a.bin",
       {{"data", "fat"}, {"fat", "dir"}, {"dir", "fsinfo"}}, true},
      {"close of a written file", createFile("/b.bin"), writeThen(false), "/b.bin",
       {{"data", "dir"}, {"fat", "dir"}}, false},
      {"mkdir while a writer holds the FAT lock", createFile("/open.bin"),
       [](Card&) { EXPECT_EQ(VELTFuse::__mkdir("/a folder with a long name", 0755), 0); },
       "/a folder with a long name", {{"data", "dir"}, {"fat", "dir"}}, false},
      {"unlink",
       [&](Card& c) {
         createFile("/gone.bin")(c);
         writeThen(false)(c);
       },
       [](Card&) { EXPECT_EQ(VELTFuse::__unlink("/gone.bin"), 0); }, nullptr, {{"dir", "fat"}},
       false},
      // The source's record is marked (root) before the target's record takes its chain (in
      // /etc), and that is on the card before the target's old chain is freed.
      {"rename onto an existing file",
       [&](Card& c) {
         EXPECT_EQ(VELTFuse::__mkdir("/etc", 0755), 0);
         createFile("/etc/hosts")(c);
         writeThen(false)(c);
         createFile("/hosts.new")(c);
         writeThen(false)(c);
       },
       [](Card&) { EXPECT_EQ(VELTFuse::__rename("/hosts.new", "/etc/hosts", 0), 0); }, "/etc",
       {{"dir", "data"}, {"data", "fat"}}, true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    Card c;
    row.setup(c);
    c.v->sync();  // what the setup left in the write buffer is not the operation's
    const size_t from = c.f.driver->requests.size();
    row.operation(c);
    const size_t end = c.f.driver->requests.size();
    c.v->sync();  // writes still pending go out after everything the operation wrote
    if (row.labelled != nullptr) c.mark(c.v->findEntry(row.labelled), "data");
    c.mark(c.root, "dir");
    const auto t = c.trace(from);
    for (const auto& [a, b] : row.rules) EXPECT_TRUE(flushedBefore(t, a, b));
    if (row.ends_with_flush) {
      ASSERT_GT(end, from);
      EXPECT_EQ(c.f.driver->requests[end - 1].kind, 'f') << join(t);
    }
  }
}

}  // namespace
