// Name machinery of directory records: name tables, checksums, the 8.3 form, unique short
// names, long-name record layout and FAT dates.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "daemon_runner.h"
#include "fs/velt_dirent.h"

using velt::VELT;

using velt::test::localTime;

namespace {

std::string name83(const char* short_name) {
  uint8_t out[11];
  velt::shortNameToName83(short_name, out);
  return std::string(reinterpret_cast<char*>(out), 11);
}

std::string shortName(const char* name, const std::set<std::string>& taken = {}) {
  std::string out;
  int r = velt::makeShortName(
      name, [&taken](const std::string& c) { return taken.count(c) > 0; }, &out);
  return r < 0 ? "<error>" : out;
}

}  // namespace

TEST(DirentNames, NameTables) {
  struct Row {
    const char* name;
    bool long_ok;
    bool short_ok;
  } rows[] = {
      {"", true, true},
      {"README.TXT", true, false},  // the period is for the long-name table only
      {"README", true, true},
      {"a+b", true, true},
      {"a:b", false, false},
      {"a*b", false, false},
      {"a?b", false, false},
      {"a\"b", false, false},
      {"a/b", false, false},
      {"a\\b", false, false},
      {"a|b", false, false},
      {"a<b", false, false},
      {"a>b", false, false},
      {"a\x1f", false, false},
      {"a\x7f", true, true},
      {"a,b", true, false},
      {"a;b", true, false},
      {"a=b", true, false},
      {"a[b]", true, false},
      {"a b", true, true},
      {"caf\xc3\xa9", true, true},  // every byte of a UTF-8 sequence passes
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.name);
    EXPECT_EQ(velt::isValidFileName(r.name), r.long_ok);
    EXPECT_EQ(velt::isValidShortName(r.name), r.short_ok);
  }
}

TEST(DirentNames, ChecksumsMatchThoseOfMtools) {
  // Checksums that mtools wrote into the long-name records of these short names.
  struct Row {
    const char* name11;
    uint8_t sum;
  } rows[] = {
      {"MYDOCU~1DOC", 0x9B},
      {"PROFIL~1   ", 0xCE},
      {"HELLOW~1   ", 0xBE},
      {"AB~1       ", 0x0F},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.name11);
    EXPECT_EQ(velt::shortNameChecksum(reinterpret_cast<const uint8_t*>(r.name11)), r.sum);
  }
}

TEST(DirentNames, ShortNameToName83) {
  struct Row {
    const char* short_name;
    std::string expected;
  } rows[] = {
      {"README.TXT", "README  TXT"},
      {"A", "A          "},
      {"ABCDEFGHIJ", "ABCDEFGHIJ "},
      {"ABCDEFGHIJKLM", "ABCDEFGHIJK"},  // reported and cut
      {"LONGBASE1.TX", "LONGBASETX "},
      {"A.TEXT", "A       TEX"},  // reported and cut
      {"A.B.C", "A.B     C  "},
      {"MYDOCU~1.DOC", "MYDOCU~1DOC"},
      {"~1.PRO", "~1      PRO"},
      {".", ".          "},
      {"..", "..         "},
      {"\xe5\x80\x80.TXT", "\x05\x80\x80     TXT"},  // 0xE5 would read as deleted
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.short_name);
    EXPECT_EQ(name83(r.short_name), r.expected);
  }
}

TEST(DirentNames, UniqueShortNames) {
  struct Row {
    const char* name;
    std::set<std::string> taken;
    const char* expected;
  } rows[] = {
      {"report.pdf", {}, "REPORT.PDF"},
      {"REPORT.PDF", {}, "REPORT.PDF"},
      {"report.pdf", {"REPORT.PDF"}, "REPO~1.PDF"},
      {"My Document.docx", {}, "MYDOCU~1.DOC"},
      {"My Document.docx", {"MYDOCU~1.DOC"}, "MYDOCU~2.DOC"},
      {"My Document.docx",
       {"MYDOCU~1.DOC", "MYDOCU~2.DOC", "MYDOCU~3.DOC", "MYDOCU~4.DOC", "MYDOCU~5.DOC",
        "MYDOCU~6.DOC", "MYDOCU~7.DOC", "MYDOCU~8.DOC", "MYDOCU~9.DOC"},
       "MYDOC~10.DOC"},
      {".profile", {}, "~1.PRO"},
      {".profile", {"~1.PRO"}, "~2.PRO"},
      {".cfg", {}, "~1.CFG"},  // an empty base never stands alone
      {"a b", {}, "~1"},
      {"abc d", {}, "AB~1"},
      {"readme", {}, "README"},
      {"Makefile", {}, "MAKEFILE"},
      {"x+y.txt", {}, "X+Y.TXT"},
      {"a[1].txt", {}, "A_~1.TXT"},
      {"a.b.c", {}, "A~1.C"},
      {"archive.tar.gz", {}, "ARCHIV~1.GZ"},
      {"file.c pp", {}, "FI~1.C P"},  // a blank of the extension is kept
      {"...dots", {}, "~1.DOT"},
      // The 8.3 field holds OEM code-page bytes, never UTF-8: a character outside ASCII is
      // "_" and the name takes a tail, keeping its spelling in long-name records, even when
      // it is all upper case (as after a case-only rename).
      {"caf\xc3\xa9.txt", {}, "CA~1.TXT"},
      {"CAF\xc3\x89.TXT", {"CA~1.TXT"}, "CA~2.TXT"},
      {"\xe6\x97\xa5\xe6\x9c\xac\xe8\xaa\x9e\xe3\x83\x86.txt", {}, "__~1.TXT"},
      {"notes.\xd1\x84\xf0\x9f\x8e\xb5", {}, "NOT~1.__"},
      {"bad\xff.txt", {}, "<error>"},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.name);
    std::string s = shortName(r.name, r.taken);
    EXPECT_EQ(s, r.expected);
    if (s != "<error>") {
      // Whatever the name, its short form fits the 11 bytes of the record.
      std::string base = s.substr(0, s.find('.'));
      EXPECT_LE(base.size(), 8u);
      if (s.find('.') != std::string::npos) {
        EXPECT_LE(s.size() - s.find('.') - 1, 3u);
      }
    }
  }
}

TEST(DirentNames, UniqueShortNamesAgainstChildren) {
  auto dir = std::make_shared<VELT::DirEntry>(nullptr);
  dir->is_dir_ = true;
  for (const char* sn : {"MYDOCU~1.DOC", "MYDOCU~2.DOC"}) {
    auto c = std::make_shared<VELT::DirEntry>(nullptr);
    c->short_name_ = sn;
    ASSERT_EQ(dir->addChild(c), 0);
  }
  std::string out;
  ASSERT_EQ(dir->createUniqueShortName("My Document.docx", &out), 0);
  EXPECT_EQ(out, "MYDOCU~3.DOC");
  ASSERT_EQ(dir->createUniqueShortName("notes.txt", &out), 0);
  EXPECT_EQ(out, "NOTES.TXT");
  EXPECT_EQ(dir->createUniqueShortName("\xc3(", &out), -1);

  // A name held by a creation that has not yet added its entry counts as taken.
  velt::ShortNameReservation hold;
  ASSERT_EQ(hold.reserve(dir.get(), "My Document.docx", nullptr, &out), 0);
  EXPECT_EQ(out, "MYDOCU~3.DOC");
  velt::ShortNameReservation second;
  ASSERT_EQ(second.reserve(dir.get(), "My Document.docx", nullptr, &out), 0);
  EXPECT_EQ(out, "MYDOCU~4.DOC");
  hold.release();
  velt::ShortNameReservation third;
  ASSERT_EQ(third.reserve(dir.get(), "My Document.docx", nullptr, &out), 0);
  EXPECT_EQ(out, "MYDOCU~3.DOC");
}

TEST(DirentNames, FatDatesAndTimes) {
  struct Row {
    const char* what;
    time_t t;
    uint16_t date;
    uint16_t time;
  } rows[] = {
      {"2000-01-01 12:34:56", localTime(2000, 1, 1, 12, 34, 56), 0x2821, 0x645C},
      {"first moment", localTime(1980, 1, 1, 0, 0, 0), 0x0021, 0x0000},
      {"last moment", localTime(2107, 12, 31, 23, 59, 58), 0xFF9F, 0xBF7D},
      {"odd second", localTime(2107, 12, 31, 23, 59, 59), 0xFF9F, 0xBF7D},
      {"leap day", localTime(2024, 2, 29, 6, 7, 8), (44 << 9) | (2 << 5) | 29,
       (6 << 11) | (7 << 5) | 4},
      {"before 1980", localTime(1979, 12, 31, 23, 59, 58), 0x0021, 0x0000},
      {"after 2107", localTime(2108, 1, 1, 0, 0, 0), 0xFF9F, 0xBF7D},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.what);
    EXPECT_EQ(velt::timeToFatDate(r.t), r.date);
    EXPECT_EQ(velt::timeToFatTime(r.t), r.time);
  }
  // Back to calendar time: exact for even seconds inside the range.
  for (time_t t : {localTime(1980, 1, 1, 0, 0, 0), localTime(2000, 1, 1, 12, 34, 56),
                   localTime(2024, 2, 29, 23, 59, 58), localTime(2107, 12, 31, 23, 59, 58)}) {
    EXPECT_EQ(velt::fatToTime(velt::timeToFatDate(t), velt::timeToFatTime(t)), t);
  }
  // The defaults of a new entry: 12 October 2101, 00:30:00.
  VELT::DirEntry e(nullptr);
  EXPECT_EQ(e.created_, localTime(2101, 10, 12, 0, 30, 0));
  EXPECT_EQ(e.accessed_, localTime(2101, 10, 12, 0, 0, 0));
}

// Stamps are local time: the conversion agrees with mktime in zones with and without daylight
// saving, across the changes of the year, and for the out-of-range fields mktime normalises.
TEST(FatTime, AgreesWithTheCalendarInEveryZone) {
  {
    velt::test::ScopedEnv restore("TZ", getenv("TZ"));
    for (const char* zone : {"UTC0", "CET-1CEST,M3.5.0,M10.5.0/3", "EST5EDT,M3.2.0,M11.1.0",
                             "NZST-12NZDT,M9.5.0,M4.1.0/3", "IST-5:30"}) {
      setenv("TZ", zone, 1);
      tzset();
      SCOPED_TRACE(zone);
      int checked = 0;
      for (int year = 0; year < 128; year += 7) {
        for (int month = 0; month <= 15; ++month) {
          for (int day : {0, 1, 15, 28, 29, 30, 31}) {
            for (int hour : {0, 1, 2, 3, 12, 23, 25}) {
              const uint16_t date = static_cast<uint16_t>((year << 9) | (month << 5) | day);
              const uint16_t time = static_cast<uint16_t>((hour << 11) | (30 << 5) | 7);
              struct tm tm = {};
              tm.tm_sec = 14;
              tm.tm_min = 30;
              tm.tm_hour = hour;
              tm.tm_mday = day;
              tm.tm_mon = month - 1;
              tm.tm_year = year + 80;
              tm.tm_isdst = -1;
              const time_t expect = mktime(&tm);
              const time_t got = velt::fatToTime(date, time);
              if (got != expect) {
                // Only a repeated hour (both readings show the same wall clock) or a skipped one
                // (mktime moved the hour) may be read either way.
                struct tm a = {}, b = {};
                localtime_r(&got, &a);
                localtime_r(&expect, &b);
                const bool repeated = a.tm_hour == b.tm_hour && a.tm_mday == b.tm_mday;
                const bool skipped = b.tm_hour != tm.tm_hour;
                EXPECT_TRUE(std::llabs(got - expect) == 3600 && (repeated || skipped))
                    << date << " " << time << ": " << got << " vs " << expect;
              }
              ++checked;
            }
          }
        }
      }
      EXPECT_GT(checked, 10000);
    }
  }
  tzset();
}
