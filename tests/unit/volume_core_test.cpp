// The volume object and the daemon's start-up pieces: device paths, path lookup, reserved
// folders, cache sizes and the mount table.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <string>
#include <tuple>
#include <vector>

#include "daemon_runner.h"
#include "fake_driver.h"
#include "fs/velt.h"
#include "fs/velt_dirent.h"
#include "fs/velt_fuse.h"

using Entry = velt::VELT::DirEntry;
using velt::test::ScopedEnv;
using velt::test::TempDir;

// A device path must read /dev/mmcblk<disk>p<partition>; anything else is refused with -22
// before the device is opened (the driver device here is an empty file: no MBR).
TEST(VolumeCore, DevicePathRules) {
  TempDir root;
  ScopedEnv env("VELT_ROOT", root.path().c_str());
  ASSERT_EQ(mkdir((root.path() + "/dev").c_str(), 0700), 0);
  std::ofstream(root.path() + "/dev/velt").close();
  const std::tuple<const char*, int, const char*> rows[] = {
      {"/dev/mmcblk0p1", velt::kVELTBadMBR, ""},
      {"/dev/mmcblk12p3", velt::kVELTBadMBR, ""},
      {"/dev/mmcblk00p1", -22, "must be in /dev/mmcblk#p# format"},
      {"/dev/mmcblk0p1x", -22, ""},
      {"/dev/mmcblk0", -22, "\"/dev/mmcblk0\" invalid. must be in /dev/mmcblk0p# format"},
      {"/dev/sda1", -22, "\"/dev/sda1\" invalid. must be in /dev/mmcblk#p# format"},
      {" /dev/mmcblk+1p1", -22, ""},
  };
  for (const auto& [path, code, message] : rows) {
    int error = 12345;
    testing::internal::CaptureStdout();
    EXPECT_EQ(velt::VELT::create(path, 0, velt::kVELTOpMount, 0, &error), nullptr);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(error, code) << path;
    EXPECT_NE(out.find(message), std::string::npos) << out;
  }
}

// Paths resolve without regard to case; reserved folders are the marked folders of the root and
// their own files, only on a card with a sound format record.
TEST(VolumeCore, PathsAndReservedFolders) {
  velt_test::FakeCard c;
  auto add = [&](const std::shared_ptr<Entry>& parent, const char* name, const char* short_name,
                 bool dir = false) {
    auto e = std::make_shared<Entry>(c.v);
    e->name_ = name;
    e->short_name_ = short_name;
    e->attr_ = dir ? velt::kAttrDirectory : velt::kAttrArchive;
    e->is_dir_ = dir;
    e->parent_ = parent.get();
    parent->children_.push_back(e);
    return e;
  };
  auto rec = add(c.root, "rec", "REC", true);
  auto sub = add(rec, "Sub Folder", "SUBFOL~1", true);
  auto deep = add(sub, "file.txt", "FILE.TXT");
  auto in_rec = add(rec, "Long Name.txt", "LONGNA~1.TXT");
  auto events = add(c.root, "EVENTS", "EVENTS", true);
  auto other = add(c.root, "other", "OTHER", true);
  auto top = add(c.root, "Rec", "REC");  // a root file named like a folder
  const std::pair<const char*, std::shared_ptr<Entry>> paths[] = {
      {"/", c.root},
      {"", c.root},
      {"/REC/", rec},
      {"//rec//sub folder///FILE.TXT", deep},
      {"/rec/subfol~1/file.txt", deep},
      {"/rec/longna~1.TXT", in_rec},
      {"/rec/Long Name.txt/x", nullptr},
      {"/rec/../EVENTS", nullptr},
      {"/rec/file.txt", nullptr},
      {"/re", nullptr},
  };
  for (const auto& [path, want] : paths) {
    std::string text = path;
    EXPECT_EQ(c.v->findEntry(text.data()), want) << path;
    EXPECT_EQ(text, path) << "the caller's text is left as it was";
  }
  velt::FormatInfo& fi = c.v->format_info_;
  fi.magic1 = velt::VELT_FSINFO_MAGIC1;
  fi.magic2 = velt::VELT_FSINFO_MAGIC2;
  fi.folder_count = 2;
  strcpy(fi.folders[0].name, "REC");
  strcpy(fi.folders[1].name, "events");
  strcpy(fi.folders[2].name, "OTHER");  // beyond folder_count: not a folder
  c.pbr->is_velt_partition_ = true;
  const std::pair<std::shared_ptr<Entry>, velt::ReservedFolderDesc*> rows[] = {
      {rec, &fi.folders[0]}, {in_rec, &fi.folders[0]}, {sub, nullptr},   {deep, nullptr},
      {events, &fi.folders[1]}, {other, nullptr},      {top, nullptr},   {c.root, nullptr}};
  for (const auto& [entry, want] : rows) {
    EXPECT_EQ(c.v->entryToVELTFolder(entry), want) << entry->name_;
    EXPECT_EQ(c.v->isInVELTFolder(entry), want != nullptr) << entry->name_;
  }
  fi.magic2 = 0;  // a broken record: no reserved folders at all
  EXPECT_EQ(c.v->entryToVELTFolder(in_rec), nullptr);
  c.v->root_.reset();
  EXPECT_EQ(c.v->findEntry("/"), nullptr) << "no tree, nothing resolves";
}

TEST(FuseCacheSize, ParsesOnlyKAndMSuffixesWithinInt32) {
  // The size, or -1 and what the error message quotes.
  const std::tuple<const char*, int32_t, const char*> cases[] = {
      {"", 0, ""},          {"16M", 16777216, ""},      {"K", 0, ""},  // no number counts as 0
      {"2097151K", 2097151 * 1024, ""}, {"16m", -1, "16m"}, {"1G", -1, "1G"},
      {"2097152K", -1, "2097152"},      {"-1K", -1, "-1"},  {"0x10K", -1, "0x10"},
      {"99999999999999999999999M", -1, "99999999999999999999999"}};
  for (const auto& [text, want, quoted] : cases) {
    int32_t size = -7;
    std::string shown;
    EXPECT_EQ(velt::parseCacheSize(text, &size, &shown), want >= 0) << text;
    EXPECT_EQ(want >= 0 ? std::to_string(size) : shown, want >= 0 ? std::to_string(want) : quoted)
        << text;
  }
}

// The daemon's check of its mount point and the volume's search for the card's own mount read
// the second blank-separated field of each line, as the kernel's table writes it.
TEST(MountTable, FieldsAreSeparatedByBlanksOnly) {
  TempDir dir;
  const std::string table = dir.path() + "/mounts";
  std::ofstream(table) << "proc /proc proc rw,nosuid 0 0\n"
                       << "   velt.fuse    /mnt/extsd fuse.velt.fuse rw 0 0\n"
                       << "tabbed\t/mnt/tab\tvfat rw 0 0\n"
                       << "short /mnt/last\n";
  for (auto [point, mounted] : {std::pair<const char*, bool>{"/proc", true}, {"/mnt/extsd", true},
                                {"/mnt/extsd/", false}, {"/mnt/ext", false}, {"velt.fuse", false},
                                {"/mnt/tab", false}, {"/mnt/last", false}}) {
    EXPECT_EQ(velt::is_mounted_point(point, table.c_str()), mounted) << point;
  }
  EXPECT_FALSE(velt::is_mounted_point("/proc", "/nonexistent/velt/mounts"));
  struct Row {
    const char* table;
    int found;
    const char* mount_point;
  } rows[] = {
      {"/dev/sda1 / ext4 rw 0 0\n/dev/mmcblk0p1 /media/card vfat rw 0 0\n", 1, "/media/card"},
      {"velt.fuse /mnt/v fuse.velt.fuse rw 0 0\n/dev/mmcblk0p1 /late vfat\n", 1, "/mnt/v"},
      {"velt.fuse.x /mnt/x fuse rw 0 0\n/dev/mmcblk1p1 /other vfat\n", 0, "/before"},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.table);
    std::ofstream(table) << r.table;
    velt::VELT v("/dev/mmcblk0p1", 1, velt::kVELTOpMount, 0);
    v.setMountPoint("/before");
    EXPECT_EQ(v.findMountedPoint(table.c_str()), r.found);
    EXPECT_EQ(v.mount_point_, r.mount_point);
  }
}
