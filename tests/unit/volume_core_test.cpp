#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <string>

#include "daemon_runner.h"
#include "fake_driver.h"
#include "fs/velt.h"
#include "fs/velt_dirent.h"
#include "fs/velt_file.h"

using Entry = velt::VELT::DirEntry;

TEST(VolumeCore, DevicePathRules) {
  // The sandbox's driver device is an empty file: an accepted path opens it and finds no MBR
  // (code 5); a rejected one is refused with -22 and the device is never opened.
  velt::test::TempDir root;
  velt::test::ScopedEnv env("VELT_ROOT", root.path().c_str());
  std::string dev = root.path() + "/dev";
  ASSERT_EQ(mkdir(dev.c_str(), 0700), 0);
  std::ofstream(dev + "/velt").close();
  int watch = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  ASSERT_GE(watch, 0);
  ASSERT_GE(inotify_add_watch(watch, dev.c_str(), IN_OPEN), 0);
  auto opened = [&] {
    char events[4096];
    bool any = false;
    while (read(watch, events, sizeof(events)) > 0) any = true;
    return any;
  };
  struct Row {
    const char* path;
    int error;
    const char* message;  // part of the log line, or null
  } rows[] = {
      {"/dev/mmcblk0p1", velt::kVELTBadMBR, nullptr},
      {"/dev/mmcblk12p3", velt::kVELTBadMBR, nullptr},
      {"/dev/mmcblk00p1", -22, "must be in /dev/mmcblk#p# format"},
      {"/dev/mmcblk0p01", -22, "must be in /dev/mmcblk#p# format"},
      {"/dev/mmcblk0p1x", -22, "must be in /dev/mmcblk#p# format"},
      {"/dev/mmcblkp1", -22, "must be in /dev/mmcblk#p# format"},
      {"/dev/mmcblk0", -22, "\"/dev/mmcblk0\" invalid. must be in /dev/mmcblk0p# format"},
      {"/dev/mmcblk7q1", -22, "must be in /dev/mmcblk7p# format"},
      {"/dev/sda1", -22, "\"/dev/sda1\" invalid. must be in /dev/mmcblk#p# format"},
      {"/dev/mmcblk0p", -22, nullptr},
      {"", -22, nullptr},
      {"/dev/mmcblk-1p1", -22, nullptr},
      {"/dev/mmcblk+1p1", -22, nullptr},
      {"/dev/mmcblk0p+1", -22, nullptr},
      {"/dev/mmcblk0p1/", -22, nullptr},
      {" /dev/mmcblk0p1", -22, nullptr},
  };
  opened();
  for (const auto& r : rows) {
    SCOPED_TRACE(std::string("path \"") + r.path + "\"");
    int error = 12345;
    testing::internal::CaptureStdout();
    auto v = velt::VELT::create(r.path, 0, velt::kVELTOpMount, 0, &error);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(v, nullptr);
    EXPECT_EQ(error, r.error);
    EXPECT_EQ(opened(), r.error != -22);
    if (r.message != nullptr) {
      EXPECT_NE(out.find(r.message), std::string::npos) << out;
    }
  }
  close(watch);
}

TEST(VolumeCore, UnloadWritesOutThePendingBuffer) {
  velt_test::FakeVolume f(4096);
  auto& v = *f.volume;
  ASSERT_EQ(v.createCache(1 << 20), 0);
  std::vector<uint8_t> data(1024, 0x5A);
  ASSERT_EQ(v.write(data.data(), 1024, 0, true), 1024);
  EXPECT_TRUE(f.driver->requests.empty());
  {
    std::lock_guard<std::mutex> lock(v.mutex_);
    v.unload();
  }
  EXPECT_EQ(0, memcmp(f.disk->data(), data.data(), data.size()));
  EXPECT_EQ(v.cache_pool_, nullptr);
  EXPECT_EQ(v.cache_size_, 2048);
}

namespace {

// A formatted fake card with a hand-made tree; no card records behind the entries.
struct Tree {
  velt_test::FakeVolume f{16384};
  velt::VELT& v = *f.volume;
  std::shared_ptr<Entry> root;

  Tree() {
    EXPECT_TRUE(f.formatInMemory());
    v.pbr_->is_velt_partition_ = false;
    root = std::make_shared<Entry>(&v);
    v.initRootEntry(root);
    v.root_ = root;
  }

  std::shared_ptr<Entry> add(const std::shared_ptr<Entry>& parent, const char* name,
                             const char* short_name, uint8_t attr) {
    auto e = std::make_shared<Entry>(&v);
    e->name_ = name;
    e->short_name_ = short_name;
    e->attr_ = attr;
    e->is_dir_ = (attr & velt::kAttrDirectory) != 0;
    e->is_volume_ = (attr & velt::kAttrVolumeId) != 0;
    e->parent_ = parent.get();
    parent->children_.push_back(e);
    return e;
  }
  std::shared_ptr<Entry> dir(const std::shared_ptr<Entry>& p, const char* n, const char* s) {
    return add(p, n, s, velt::kAttrDirectory);
  }
  std::shared_ptr<Entry> file(const std::shared_ptr<Entry>& p, const char* n, const char* s) {
    return add(p, n, s, velt::kAttrArchive);
  }
};

}  // namespace

TEST(VolumeCore, FindEntryResolvesPathsWithoutRegardToCase) {
  Tree t;
  auto d = t.dir(t.root, "Dir", "DIR");
  auto sub = t.dir(d, "Sub Folder", "SUBFOL~1");
  auto deep = t.file(sub, "file.txt", "FILE.TXT");
  auto top = t.file(t.root, "Long Name.txt", "LONGNA~1.TXT");
  auto dots = t.file(t.root, "..", "..");  // a name like any other
  struct Row {
    const char* path;
    std::shared_ptr<Entry> want;
  } rows[] = {
      {"/", t.root},
      {"", t.root},
      {"///", t.root},
      {"/Dir", d},
      {"/dir/", d},
      {"dir", d},
      {"//DIR//sub folder///FILE.TXT", deep},
      {"/dir/subfol~1/file.txt", deep},
      {"/long name.TXT", top},
      {"/LONGNA~1.TXT", top},
      {"/..", dots},
      {"/Long Name.txt/x", nullptr},
      {"/dir/./Sub Folder", nullptr},
      {"/dir/../Long Name.txt", nullptr},
      {"/nothing", nullptr},
      {"/Dir/file.txt", nullptr},
      {"/Di", nullptr},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(std::string("path \"") + r.path + "\"");
    std::string text = r.path;
    std::string copy = text;
    EXPECT_EQ(t.v.findEntry(text.data()), r.want);
    EXPECT_EQ(text, copy) << "the caller's text is left as it was";
  }
  t.v.root_.reset();
  EXPECT_EQ(t.v.findEntry("/"), nullptr) << "no tree, nothing resolves";
}

TEST(VolumeCore, EntryToVELTFolderOnlyForAFolderAndItsOwnFiles) {
  Tree t;
  auto rec = t.dir(t.root, "rec", "REC");
  auto in_rec = t.file(rec, "a.mp4", "A.MP4");
  auto rec_sub = t.dir(rec, "sub", "SUB");
  auto deep = t.file(rec_sub, "b.mp4", "B.MP4");
  auto events = t.dir(t.root, "EVENTS", "EVENTS");
  auto in_events = t.file(events, "e.dat", "E.DAT");
  auto other = t.dir(t.root, "other", "OTHER");
  auto in_other = t.file(other, "c", "C");
  auto top = t.file(t.root, "Rec", "REC");  // a root file named like a folder
  auto label = t.add(t.root, "rec", "REC", velt::kAttrVolumeId);

  velt::FormatInfo& fi = t.v.format_info_;
  fi.magic1 = velt::VELT_FSINFO_MAGIC1;
  fi.magic2 = velt::VELT_FSINFO_MAGIC2;
  fi.folder_count = 2;
  strcpy(fi.folders[0].name, "REC");
  strcpy(fi.folders[1].name, "events");
  strcpy(fi.folders[2].name, "OTHER");  // beyond folder_count: not a folder
  t.v.pbr_->is_velt_partition_ = true;
  velt::ReservedFolderDesc* f0 = &fi.folders[0];
  velt::ReservedFolderDesc* f1 = &fi.folders[1];
  struct Row {
    const char* what;
    std::shared_ptr<Entry> entry;
    velt::ReservedFolderDesc* want;
  } rows[] = {
      {"folder", rec, f0},
      {"file in folder", in_rec, f0},
      {"subfolder", rec_sub, nullptr},
      {"file below subfolder", deep, nullptr},
      {"other case", events, f1},
      {"file in other case", in_events, f1},
      {"plain folder", other, nullptr},
      {"file in plain folder", in_other, nullptr},
      {"root file", top, nullptr},
      {"root", t.root, nullptr},
      {"volume label", label, f0},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.what);
    EXPECT_EQ(t.v.entryToVELTFolder(r.entry), r.want);
    EXPECT_EQ(t.v.isInVELTFolder(r.entry), r.want != nullptr);
  }
  EXPECT_EQ(t.v.entryToVELTFolder(static_cast<const Entry*>(nullptr)), nullptr);

  // Without the mark, or with a broken record, there are no reserved folders at all.
  t.v.pbr_->is_velt_partition_ = false;
  EXPECT_EQ(t.v.entryToVELTFolder(rec), nullptr);
  EXPECT_EQ(t.v.entryToVELTFolder(in_rec), nullptr);
  t.v.pbr_->is_velt_partition_ = true;
  fi.magic2 = 0;
  EXPECT_EQ(t.v.entryToVELTFolder(rec), nullptr);
}

TEST(VolumeCore, NewEntryRefusesInvalidNamesBeforeTouchingTheCard) {
  Tree t;
  t.f.driver->requests.clear();
  for (const char* name : {"a/b", "what?", "x*y", "pipe|", "quote\"", "lt<", "gt>", "c:d"}) {
    SCOPED_TRACE(name);
    EXPECT_EQ(t.v.newEntry(t.root, name, false), nullptr);
  }
  EXPECT_EQ(t.v.newEntry(nullptr, "x", false), nullptr);
  EXPECT_TRUE(t.root->children_.empty());
  EXPECT_TRUE(t.f.driver->requests.empty());

  auto made = t.v.newEntry(t.root, "Made Here.txt", false);
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(t.v.findEntry("/made here.TXT"), made);
  auto folder = t.v.newEntry(t.root, "Folder", true);
  ASSERT_NE(folder, nullptr);
  EXPECT_TRUE(folder->isDir());
  EXPECT_EQ(t.v.findEntry("/folder"), folder);
}

TEST(VolumeCore, FindMountedPointReadsTheFirstTwoFieldsOfTheTable) {
  char tmpl[] = "/tmp/velt-mounts-XXXXXX";
  int fd = mkstemp(tmpl);
  ASSERT_GE(fd, 0);
  close(fd);
  struct Row {
    const char* table;
    int found;
    const char* mount_point;
  } rows[] = {
      {"/dev/sda1 / ext4 rw 0 0\n/dev/mmcblk0p1 /media/card vfat rw 0 0\n", 1, "/media/card"},
      {"/dev/mmcblk0p10 /media/ten vfat rw 0 0\n", 1, "/media/ten"},
      {"   /dev/mmcblk0p1    /lead   vfat rw 0 0\n", 1, "/lead"},
      {"velt.fuse /mnt/v fuse.velt.fuse rw 0 0\n/dev/mmcblk0p1 /late vfat\n", 1, "/mnt/v"},
      {"velt.fuse.x /mnt/x fuse rw 0 0\n", 0, "/before"},
      {"/dev/mmcblk1p1 /other vfat rw 0 0\n", 0, "/before"},
      {"/dev/mmcblk0p1 /with blank vfat rw 0 0\n", 1, "/with"},
      {"/dev/mmcblk0p1 /no-newline", 1, "/no-newline"},
      {"", 0, "/before"},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.table);
    std::ofstream(tmpl) << r.table;
    velt::VELT v("/dev/mmcblk0p1", 1, velt::kVELTOpMount, 0);
    v.setMountPoint("/before");
    EXPECT_EQ(v.findMountedPoint(tmpl), r.found);
    EXPECT_EQ(v.mount_point_, r.mount_point);
  }
  unlink(tmpl);
  velt::VELT v("/dev/mmcblk0p1", 1, velt::kVELTOpMount, 0);
  EXPECT_EQ(v.findMountedPoint("/nonexistent/mounts"), 0);
}
