// Directory entries on cards made by mkfs.fat: files and directories created, written, renamed,
// moved and deleted through our code, then judged by mdir, mtype and fsck.fat.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "card_image.h"
#include "fs/velt.h"
#include "fs/velt_dirent.h"
#include "fs/velt_file.h"

using velt::VELT;
using velt::test::CardImage;
using velt::test::CardSpec;
using Entry = std::shared_ptr<VELT::DirEntry>;

using velt::test::localTime;

namespace {

// 64 MiB card with 512-byte clusters: 16 slots a cluster, so directories grow often and runs
// of records cross cluster boundaries.
CardSpec smallClusters() {
  CardSpec spec;
  spec.size_mb = 64;
  spec.sectors_per_cluster = 1;
  return spec;
}

// The card opened through VELT_ROOT with a root entry of our own, its slot map read from the
// card the way the loader reads it.
struct Volume {
  explicit Volume(const CardImage& card) {
    CardImage::RootScope scope(card);
    int error = 0;
    v = VELT::create(card.devicePath(), 0, velt::kVELTOpMount, 0, &error);
    EXPECT_EQ(error, 0);
    if (v == nullptr) return;
    root = std::make_shared<VELT::DirEntry>(v.get());
    root->is_dir_ = true;
    root->attr_ = velt::kAttrDirectory;
    root->start_cluster_ = v->pbr_->root_cluster_;
    EXPECT_EQ(root->loadClusterMap(), 0);
    std::vector<uint8_t> cluster(v->pbr_->cluster_length_);
    for (uint32_t c : root->cluster_map_) {
      EXPECT_EQ(v->read(cluster.data(), static_cast<int>(cluster.size()), v->clusterOffset(c)),
                static_cast<int>(cluster.size()));
      for (size_t i = 0; i < cluster.size(); i += 32) root->entry_map_.push_back(cluster[i]);
    }
  }
  ~Volume() { close(); }
  // FATs, FSInfo and the write buffer reach the card.
  void close() {
    if (v == nullptr) return;
    v->lockFAT();
    v->unlockFAT();
    v->flush();
    root.reset();
    v.reset();
  }
  Entry create(const Entry& dir, const std::string& name, bool is_dir = false) {
    int err = 0;
    Entry e = dir->createChild(name.c_str(), false, is_dir, nullptr, &err);
    EXPECT_NE(e, nullptr) << name << ": " << err;
    return e;
  }
  // Writes `data` as the file's content and records its size and modification time.
  void fill(const Entry& e, const std::string& data, time_t mtime) {
    const size_t len = v->pbr_->cluster_length_;
    for (size_t i = 0; i * len < data.size(); ++i) {
      int64_t c = e->getCluster(static_cast<uint32_t>(i), true);
      ASSERT_GE(c, 2);
      const uint32_t piece = static_cast<uint32_t>(std::min(len, data.size() - i * len));
      ASSERT_EQ(
          v->write(data.data() + i * len, piece, v->clusterOffset(static_cast<uint32_t>(c)), true),
          static_cast<int>(piece));
    }
    e->size_ = e->real_size_ = static_cast<int64_t>(data.size());
    ASSERT_EQ(e->touch(mtime, mtime), 0);
  }
  std::shared_ptr<VELT> v;
  Entry root;
};

std::string content(const std::string& seed, size_t size) {
  std::string s;
  while (s.size() < size) s += seed + " " + std::to_string(s.size()) + "\n";
  return s.substr(0, size);
}

// One line of `mdir -/ -a`.
struct Listed {
  std::string long_name;   // empty when the entry has none
  std::string short_name;  // "NAME.EXT" as mdir shows it
  int64_t size = -1;       // -1 for a directory
  std::string date, time;
};

// Directory ("::", "::/a/b") -> its entries in listing order, dot entries left out.
struct Listing {
  std::map<std::string, std::vector<Listed>> dirs;
  // The n-th entry (0-based) listed under that long (or else short) name; null when absent.
  const Listed* find(const std::string& dir, const std::string& name, int n = 0) const {
    auto d = dirs.find(dir);
    if (d == dirs.end()) return nullptr;
    for (const auto& e : d->second) {
      if ((e.long_name.empty() ? e.short_name : e.long_name) == name && n-- == 0) return &e;
    }
    return nullptr;
  }
  size_t count(const std::string& dir) const {
    auto d = dirs.find(dir);
    return d == dirs.end() ? 0 : d->second.size();
  }
};

Listing listCard(const CardImage& card) {
  auto r = card.mtools("mdir -/ -a ::/");
  EXPECT_EQ(r.status, 0) << r.err;
  Listing out;
  std::string dir;
  // "NAME     EXT      size date  time  long name": the 8.3 columns hold code points.
  static const std::regex line(R"(^(.+?) +(\d+|<DIR>) +(\d{4}-\d\d-\d\d) +(\d+:\d\d)(?: +(.*))?$)");
  auto column = [](const std::string& text, size_t from, size_t count) {
    size_t begin = std::string::npos, end = text.size(), point = 0;
    for (size_t i = 0; i <= text.size(); ++i) {
      if (i < text.size() && (static_cast<uint8_t>(text[i]) & 0xC0) == 0x80) continue;
      if (point == from) begin = i;
      if (point == from + count) {
        end = i;
        break;
      }
      ++point;
    }
    if (begin == std::string::npos || begin >= text.size()) return std::string();
    std::string c = text.substr(begin, end - begin);
    while (!c.empty() && c.back() == ' ') c.pop_back();
    return c;
  };
  std::istringstream in(r.out);
  for (std::string s; std::getline(in, s);) {
    if (s.rfind("Directory for ", 0) == 0) {
      dir = s.substr(14);
      while (!dir.empty() && dir.back() == '/') dir.pop_back();
      out.dirs[dir];
      continue;
    }
    std::smatch m;
    if (!std::regex_match(s, m, line) || s[0] == ' ') continue;
    Listed l;
    const std::string base = column(m[1], 0, 8), ext = column(m[1], 9, 3);
    l.short_name = ext.empty() ? base : base + "." + ext;
    if (l.short_name == "." || l.short_name == "..") continue;
    l.long_name = m[5];
    l.size = m[2] == "<DIR>" ? -1 : std::stoll(m[2]);
    l.date = m[3];
    l.time = m[4];
    out.dirs[dir].push_back(l);
  }
  return out;
}

std::string fatDate(time_t t) {
  char buf[16];
  struct tm tm;
  localtime_r(&t, &tm);
  strftime(buf, sizeof(buf), "%Y-%m-%d", &tm);
  return buf;
}

}  // namespace

TEST(DirentCard, CreatedEntriesAsTheFatToolsSeeThem) {
  CardImage card(smallClusters());
  ASSERT_TRUE(card.ok()) << card.error();
  const time_t mtime = localTime(2019, 7, 4, 13, 45, 30);
  struct Row {
    std::string dir;  // "" for the root
    std::string name;
    bool is_dir;
    size_t size;
    std::string short_name;
  } rows[] = {
      {"", "report.pdf", false, 700, "REPORT.PDF"},
      {"", "My Document.docx", false, 1500, "MYDOCU~1.DOC"},
      {"", "My Document.docx", false, 10, "MYDOCU~2.DOC"},
      {"", "README.TXT", false, 33, "README.TXT"},
      {"", ".profile", false, 12, "~1.PRO"},
      {"", "a b", false, 3, "~1"},
      {"", "abcdefghijklm", false, 513, "ABCDEF~1"},
      {"", "abcdefghijklmn", false, 512, "ABCDEF~2"},
      {"", std::string(100, 'L') + ".log", false, 2000, "LLLLLL~1.LOG"},
      // Outside ASCII (mtools shows no code point beyond the BMP, so none is used here).
      {"",
       "Gr\xc3\xbc\xc3\x9f\x65 \xce\xa9\xce\xbc\xce\xad\xce\xb3\xce\xb1 "
       "\xe6\x97\xa5\xe6\x9c\xac.txt",
       false, 64, ""},
      {"", "photos", true, 0, "PHOTOS"},
      {"photos", "2024 holidays", true, 0, "2024HO~1"},
      {"photos/2024 holidays", "beach at sunset.jpg", false, 4096, "BEACHA~1.JPG"},
      {"photos/2024 holidays", "x+y.txt", false, 5, "X+Y.TXT"},
  };
  {
    Volume vol(card);
    ASSERT_NE(vol.v, nullptr);
    std::map<std::string, Entry> dirs{{"", vol.root}};
    for (const auto& r : rows) {
      SCOPED_TRACE(r.name);
      Entry e = vol.create(dirs[r.dir], r.name, r.is_dir);
      ASSERT_NE(e, nullptr);
      if (!r.short_name.empty()) EXPECT_EQ(e->short_name_, r.short_name);
      if (r.is_dir) {
        dirs[r.dir.empty() ? r.name : r.dir + "/" + r.name] = e;
      } else {
        vol.fill(e, content(r.name, r.size), mtime);
      }
    }
  }

  Listing l = listCard(card);
  std::map<std::string, int> seen;
  for (const auto& r : rows) {
    SCOPED_TRACE(r.name);
    const std::string dir = r.dir.empty() ? "::" : "::/" + r.dir;
    const Listed* got = l.find(dir, r.name, seen[dir + "/" + r.name]++);
    ASSERT_NE(got, nullptr) << "not listed in " << dir << card.mtools("mdir -a " + dir).out;
    if (!r.short_name.empty()) EXPECT_EQ(got->short_name, r.short_name);
    EXPECT_EQ(got->size, r.is_dir ? -1 : static_cast<int64_t>(r.size));
    if (r.is_dir) {
      EXPECT_EQ(got->date, fatDate(time(nullptr)));
    } else {
      EXPECT_EQ(got->date, "2019-07-04");
      EXPECT_EQ(got->time, "13:45");
    }
  }
  EXPECT_EQ(l.count("::"), 11u);
  struct Typed {
    const char* path;
    std::string expected;
  } typed[] = {
      {"::/MYDOCU~1.DOC", content("My Document.docx", 1500)},
      {"::/MYDOCU~2.DOC", content("My Document.docx", 10)},
      {"::/photos/2024 holidays/beach at sunset.jpg", content("beach at sunset.jpg", 4096)},
      {"::/abcdefghijklm", content("abcdefghijklm", 513)},
  };
  for (const auto& t : typed) {
    SCOPED_TRACE(t.path);
    auto out = card.mtools(std::string("mtype \"") + t.path + "\"");
    EXPECT_EQ(out.status, 0) << out.err;
    EXPECT_TRUE(out.out == t.expected);
  }
  auto fsck = card.fsck("-n");
  EXPECT_EQ(fsck.status, 0) << fsck.out << fsck.err;
}

TEST(DirentCard, RenamesMovesAndDeletions) {
  CardImage card(smallClusters());
  ASSERT_TRUE(card.ok()) << card.error();
  const time_t mtime = localTime(2021, 2, 28, 8, 0, 0);
  int64_t moved_dir_off = 0;
  {
    Volume vol(card);
    ASSERT_NE(vol.v, nullptr);
    Entry docs = vol.create(vol.root, "documents", true);
    Entry music = vol.create(vol.root, "music", true);
    Entry album = vol.create(music, "best album ever", true);
    Entry old = vol.create(vol.root, "old name.txt");
    Entry traveller = vol.create(docs, "travelling file.bin");
    Entry same = vol.create(vol.root, "same.txt");
    Entry gone = vol.create(docs, "to be deleted.txt");
    Entry empty = vol.create(vol.root, "empty dir", true);
    Entry track = vol.create(album, "track 01.flac");
    ASSERT_TRUE(docs && music && album && old && traveller && same && gone && empty && track);
    vol.fill(old, content("old", 900), mtime);
    vol.fill(traveller, content("traveller", 3000), mtime);
    vol.fill(same, content("same", 20), mtime);
    vol.fill(gone, content("gone", 1200), mtime);
    vol.fill(track, content("track", 777), mtime);

    // Within one directory, across directories, to its own short name, and directories with
    // their contents in both directions.
    EXPECT_EQ(vol.root->moveChild(old, vol.root, "a much longer new name for the file.txt"), 0);
    EXPECT_EQ(docs->moveChild(traveller, album, "arrived.bin"), 0);
    EXPECT_EQ(vol.root->moveChild(same, vol.root, "SAME2.TXT"), 0);
    EXPECT_EQ(same->lfn_ent_count_, 0);
    EXPECT_EQ(music->moveChild(album, vol.root, "album at the top"), 0);
    EXPECT_EQ(vol.root->moveChild(empty, docs, "empty dir moved"), 0);
    moved_dir_off = vol.v->clusterOffset(album->start_cluster_);

    // Deletions: a file, then the emptied directory.
    EXPECT_EQ(docs->delChild(gone), 0);
    EXPECT_EQ(docs->delChild(empty), 0);
    EXPECT_EQ(vol.root->findChild("music")->getChildCount(), 0);
    EXPECT_EQ(vol.root->delChild(music), 0);
  }

  Listing l = listCard(card);
  EXPECT_EQ(l.find("::", "old name.txt"), nullptr);
  EXPECT_EQ(l.find("::", "music"), nullptr);
  EXPECT_EQ(l.find("::", "same.txt"), nullptr);
  const Listed* renamed = l.find("::", "a much longer new name for the file.txt");
  ASSERT_NE(renamed, nullptr);
  EXPECT_EQ(renamed->size, 900);
  EXPECT_EQ(renamed->short_name, "AMUCHL~1.TXT");
  const Listed* same = l.find("::", "SAME2.TXT");
  ASSERT_NE(same, nullptr);
  EXPECT_EQ(same->size, 20);
  EXPECT_TRUE(same->long_name.empty());
  const Listed* album = l.find("::", "album at the top");
  ASSERT_NE(album, nullptr);
  EXPECT_EQ(album->size, -1);
  const Listed* arrived = l.find("::/album at the top", "arrived.bin");
  ASSERT_NE(arrived, nullptr);
  EXPECT_EQ(arrived->size, 3000);
  // A move is no modification: the entry keeps its write date.
  EXPECT_EQ(arrived->date, fatDate(mtime));
  EXPECT_NE(l.find("::/album at the top", "track 01.flac"), nullptr);
  EXPECT_EQ(l.count("::/documents"), 0u);
  EXPECT_EQ(l.count("::"), 4u);  // documents, the renamed file, SAME2.TXT, the album

  auto t = card.mtools("mtype \"::/album at the top/arrived.bin\"");
  EXPECT_EQ(t.out, content("traveller", 3000));
  t = card.mtools("mtype \"::/album at the top/track 01.flac\"");
  EXPECT_EQ(t.out, content("track", 777));

  // The moved directory's ".." names its new parent: the root (0) here.
  std::string dotdot = card.readBytes(moved_dir_off + 32, 32);
  EXPECT_EQ(dotdot.substr(0, 11), "..         ");
  EXPECT_EQ(dotdot.substr(20, 2) + dotdot.substr(26, 2), std::string(4, '\0'));

  auto fsck = card.fsck("-n");
  EXPECT_EQ(fsck.status, 0) << fsck.out << fsck.err;
}

TEST(DirentCard, MovedDirectoryParentLinkPassesFsck) {
  CardImage card(smallClusters());
  ASSERT_TRUE(card.ok()) << card.error();
  {
    Volume vol(card);
    ASSERT_NE(vol.v, nullptr);
    Entry a = vol.create(vol.root, "a", true);
    Entry b = vol.create(vol.root, "b", true);
    Entry child = vol.create(a, "child dir", true);
    Entry f = vol.create(child, "file.txt");
    ASSERT_TRUE(a && b && child && f);
    vol.fill(f, "payload", time(nullptr));
    // Root -> b -> back under a: ".." must follow each time.
    ASSERT_EQ(a->moveChild(child, b, "child dir"), 0);
    ASSERT_EQ(b->moveChild(child, vol.root, "top"), 0);
    ASSERT_EQ(vol.root->moveChild(child, b, "deeper"), 0);
  }
  Listing l = listCard(card);
  EXPECT_NE(l.find("::/b/deeper", "file.txt"), nullptr);
  EXPECT_EQ(l.count("::/a"), 0u);
  auto fsck = card.fsck("-n");
  EXPECT_EQ(fsck.status, 0) << fsck.out << fsck.err;
}

TEST(DirentCard, ConcurrentCreatorsInOneDirectory) {
  CardImage card(smallClusters());
  ASSERT_TRUE(card.ok()) << card.error();
  constexpr int kThreads = 4, kEach = 40;
  {
    Volume vol(card);
    ASSERT_NE(vol.v, nullptr);
    Entry dir = vol.create(vol.root, "shared recordings", true);
    ASSERT_NE(dir, nullptr);
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&, t] {
        for (int i = 0; i < kEach; ++i) {
          std::string name = "camera " + std::to_string(t) + " clip " + std::to_string(i) + ".mp4";
          Entry e = dir->createChild(name.c_str(), false, false, nullptr);
          if (e == nullptr) {
            ++failures;
            continue;
          }
          std::string data = content(name, 100 + i);
          const uint32_t len = static_cast<uint32_t>(data.size());
          const int64_t cluster = e->getCluster(0, true);
          if (cluster < 2 ||
              vol.v->write(data.data(), len, vol.v->clusterOffset(static_cast<uint32_t>(cluster)),
                           true) != static_cast<int>(len)) {
            ++failures;
          }
          e->size_ = e->real_size_ = len;
          if (e->update2(true, true) != 0) ++failures;
        }
      });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(dir->getChildCount(), kThreads * kEach);
  }
  Listing l = listCard(card);
  EXPECT_EQ(l.count("::/shared recordings"), static_cast<size_t>(kThreads * kEach));
  std::set<std::string> shorts;
  for (int t = 0; t < kThreads; ++t) {
    for (int i = 0; i < kEach; ++i) {
      std::string name = "camera " + std::to_string(t) + " clip " + std::to_string(i) + ".mp4";
      const Listed* e = l.find("::/shared recordings", name);
      ASSERT_NE(e, nullptr) << name;
      EXPECT_EQ(e->size, 100 + i);
      EXPECT_TRUE(shorts.insert(e->short_name).second) << e->short_name;
    }
  }
  auto fsck = card.fsck("-n");
  EXPECT_EQ(fsck.status, 0) << fsck.out << fsck.err;
}

TEST(DirentCard, EmptyFilesAndOddNamesPassFsck) {
  CardImage card(smallClusters());
  ASSERT_TRUE(card.ok()) << card.error();
  {
    Volume vol(card);
    ASSERT_NE(vol.v, nullptr);
    for (const char* name : {"empty.txt", "x+y;z.txt", "EMPTY2", "semi;colon", "sp ace.t x t"}) {
      Entry e = vol.create(vol.root, name);
      ASSERT_NE(e, nullptr);
      EXPECT_EQ(e->start_cluster_, 0u);
    }
    // A file written and then closed names its first cluster in its record.
    Entry later = vol.create(vol.root, "written later.bin");
    ASSERT_NE(later, nullptr);
    const int64_t c = later->getCluster(0, true);
    ASSERT_GE(c, 3);
    ASSERT_EQ(vol.v->write("abc", 3, vol.v->clusterOffset(static_cast<uint32_t>(c)), true), 3);
    later->size_ = later->real_size_ = 3;
    ASSERT_EQ(later->update2(true, true), 0);
  }
  Listing l = listCard(card);
  EXPECT_EQ(l.count("::"), 6u) << card.mtools("mdir -a ::/").out;
  const Listed* e = l.find("::", "empty.txt");
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(e->size, 0);
  EXPECT_EQ(card.mtools("mtype \"::/written later.bin\"").out, "abc");
  auto fsck = card.fsck("-n");
  EXPECT_EQ(fsck.status, 0) << fsck.out << fsck.err;
}

TEST(DirentCard, PackingADirectoryFreesItsSurplusClusters) {
  CardSpec spec = smallClusters();
  spec.label = "MYCARD";  // the boot sector's label, which the label record must repeat
  CardImage card(spec);
  ASSERT_TRUE(card.ok()) << card.error();
  std::vector<uint32_t> old_chain;
  {
    Volume vol(card);
    ASSERT_NE(vol.v, nullptr);
    std::vector<Entry> files;
    for (int i = 0; i < 40; ++i) {
      files.push_back(vol.create(vol.root, "file " + std::to_string(i) + ".txt"));
      ASSERT_NE(files.back(), nullptr);
    }
    vol.fill(files[7], "seven", time(nullptr));
    vol.fill(files[33], "thirty-three", time(nullptr));
    for (int i = 0; i < 40; ++i) {
      if (i != 7 && i != 33) ASSERT_EQ(vol.root->delChild(files[i]), 0);
    }
    old_chain = vol.root->cluster_map_;
    uint8_t name7[11], name33[11];
    velt::shortNameToName83(files[7]->short_name_.c_str(), name7);
    velt::shortNameToName83(files[33]->short_name_.c_str(), name33);
    ASSERT_EQ(old_chain.size(), 6u);  // the label and 80 records, 16 a cluster

    // Two files of one long-name record each and a label: 2 x 2 + 1 + 1 records.
    ASSERT_EQ(vol.root->rebuildDirCluster("MYCARD"), 0);
    EXPECT_EQ(vol.v->pbr_->getClusterCount(vol.root->start_cluster_), 1);
    for (size_t i = 1; i < old_chain.size(); ++i) EXPECT_EQ(vol.v->pbr_->fat1_[old_chain[i]], 0u);
    std::string slots(6 * 32, '\0');
    ASSERT_EQ(vol.v->read(slots.data(), 6 * 32, vol.v->clusterOffset(old_chain[0])), 6 * 32);
    EXPECT_EQ(static_cast<uint8_t>(slots[0]), 0x41);
    EXPECT_EQ(slots.substr(32, 11), std::string(reinterpret_cast<char*>(name7), 11));
    EXPECT_EQ(static_cast<uint8_t>(slots[64]), 0x41);
    EXPECT_EQ(slots.substr(96, 11), std::string(reinterpret_cast<char*>(name33), 11));
    EXPECT_EQ(slots.substr(128, 12), std::string("MYCARD     \x08", 12));
    EXPECT_EQ(slots.substr(160, 32), std::string(32, '\0'));
    // The directory was read again: its children sit at their new places.
    Entry seven = vol.root->findChild("file 7.txt");
    ASSERT_NE(seven, nullptr);
    EXPECT_EQ(seven->dir_ent_disk_off_, vol.v->clusterOffset(old_chain[0]) + 32);
  }
  Listing l = listCard(card);
  EXPECT_EQ(l.count("::"), 2u);
  EXPECT_EQ(card.mtools("mtype \"::/file 33.txt\"").out, "thirty-three");
  EXPECT_NE(card.mtools("mdir ::/").out.find("Volume in drive : is MYCARD"), std::string::npos);
  auto fsck = card.fsck("-n");
  EXPECT_EQ(fsck.status, 0) << fsck.out << fsck.err;
}
