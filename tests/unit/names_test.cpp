// Names and times: name tables, the 8.3 form, unique short names, FAT dates and times. (Device
// paths are the daemon's startup table; lookups by other spellings and 8.3 forms, the models'.)
#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <string>
#include <tuple>

#include "daemon_runner.h"
#include "fs/velt_dirent.h"

using velt::VELT;
using velt::test::localTime;

TEST(DirentNames, NameTablesThe83FormAndUniqueShortNames) {
  // Bytes refused by both name tables, by the short-name table only, by neither (UTF-8 too).
  for (const auto& [bytes, long_ok, short_ok] :
       {std::tuple<std::string, bool, bool>{"\x01\x1f\"*/:<>?\\|", false, false},
        {",.;=[]", true, false}, {"+\x7f \xc3\xa9", true, true}}) {
    for (char c : bytes) {
      const std::string name = std::string("a") + c;
      EXPECT_EQ(velt::isValidFileName(name.c_str()), long_ok) << +c;
      EXPECT_EQ(velt::isValidShortName(name.c_str()), short_ok) << +c;
    }
  }
  // A checksum mtools wrote into the long-name records of this short name.
  EXPECT_EQ(velt::shortNameChecksum(reinterpret_cast<const uint8_t*>("MYDOCU~1DOC")), 0x9B);
  for (auto [short_name, expected] : {std::pair<const char*, std::string>{"README.TXT", "README  TXT"},
                                      {"ABCDEFGHIJKLM", "ABCDEFGHIJK"}, {"A.TEXT", "A       TEX"},
                                      {"LONGBASE1.TX", "LONGBASETX "}, {"A.B.C", "A.B     C  "},
                                      {"..", "..         "},  // 0xE5 would read as deleted:
                                      {"\xe5\x80\x80.TXT", "\x05\x80\x80     TXT"}}) {
    uint8_t out[11];
    velt::shortNameToName83(short_name, out);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(out), 11), expected) << short_name;
  }
  struct Row {
    const char* name;
    std::set<std::string> taken;
    const char* expected;
  } rows[] = {
      {"report.pdf", {"REPORT.PDF"}, "REPO~1.PDF"},
      {"My Document.docx",
       {"MYDOCU~1.DOC", "MYDOCU~2.DOC", "MYDOCU~3.DOC", "MYDOCU~4.DOC", "MYDOCU~5.DOC",
        "MYDOCU~6.DOC", "MYDOCU~7.DOC", "MYDOCU~8.DOC", "MYDOCU~9.DOC"},
       "MYDOC~10.DOC"},
      {".profile", {"~1.PRO"}, "~2.PRO"},
      {"abc d", {}, "AB~1"},
      {"a[1].txt", {}, "A_~1.TXT"},
      {"file.c pp", {}, "FI~1.C P"},  // a blank of the extension is kept
      {"...dots", {}, "~1.DOT"},
      // A character outside ASCII is "_" and the name takes a tail, even in upper case.
      {"CAF\xc3\x89.TXT", {"CA~1.TXT"}, "CA~2.TXT"},
      {"notes.\xd1\x84\xf0\x9f\x8e\xb5", {}, "NOT~1.__"},
      {"bad\xff.txt", {}, "<error>"},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.name);
    std::string s;
    auto taken = [&r](const std::string& c) { return r.taken.count(c) > 0; };
    if (velt::makeShortName(r.name, taken, &s) < 0) s = "<error>";
    EXPECT_EQ(s, r.expected);
  }
}

// Encoding; decoding is the next test's, the way back the mount's utimens in the random model.
TEST(FatTime, DatesAtTheEdgesOfTheRange) {
  // 12:34:56 on 1 January 2000, an odd second, a leap day, and moments before and after the range.
  for (auto [t, date, time] : {std::tuple<time_t, uint16_t, uint16_t>{
                                   localTime(2000, 1, 1, 12, 34, 56), 0x2821, 0x645C},
                               {localTime(2107, 12, 31, 23, 59, 59), 0xFF9F, 0xBF7D},
                               {localTime(2024, 2, 29, 23, 59, 58), 0x585D, 0xBF7D},
                               {localTime(1979, 12, 31, 23, 59, 58), 0x0021, 0x0000},
                               {localTime(2108, 1, 1, 0, 0, 0), 0xFF9F, 0xBF7D},
                               {time_t{1} << 60, 0xFF9F, 0xBF7D}}) {
    EXPECT_EQ(velt::timeToFatDate(t), date) << t;
    EXPECT_EQ(velt::timeToFatTime(t), time) << t;
  }
  VELT::DirEntry e(nullptr);  // a new entry's default: 12 October 2101, 00:30:00
  EXPECT_EQ(e.created_, localTime(2101, 10, 12, 0, 30, 0));
}

// Stamps are local time: the conversion agrees with mktime in zones with and without daylight
// saving, across the changes of the year, and for the out-of-range fields mktime normalises.
TEST(FatTime, AgreesWithTheCalendarInEveryZone) {
  auto restore = std::make_unique<velt::test::ScopedEnv>("TZ", getenv("TZ"));
  for (const char* zone : {"UTC0", "CET-1CEST,M3.5.0,M10.5.0/3", "EST5EDT,M3.2.0,M11.1.0",
                           "NZST-12NZDT,M9.5.0,M4.1.0/3", "IST-5:30"}) {
    setenv("TZ", zone, 1);
    tzset();
    SCOPED_TRACE(zone);
    for (int year = 0; year < 128; year += 7) {
      for (int month = 0; month <= 15; ++month) {
        for (int day : {0, 1, 15, 28, 29, 30, 31}) {
          for (int hour : {0, 1, 2, 3, 12, 23, 25}) {
            struct tm tm = {};
            tm.tm_sec = 14, tm.tm_min = 30, tm.tm_hour = hour, tm.tm_mday = day;
            tm.tm_mon = month - 1, tm.tm_year = year + 80, tm.tm_isdst = -1;
            const time_t expect = mktime(&tm);
            const time_t got = velt::fatToTime(static_cast<uint16_t>((year << 9) | (month << 5) | day),
                                               static_cast<uint16_t>((hour << 11) | (30 << 5) | 7));
            if (got == expect) continue;
            // Only a repeated hour (both show the same wall clock) or a skipped one (mktime
            // moved the hour) may be read either way.
            struct tm a = {}, b = {};
            localtime_r(&got, &a);
            localtime_r(&expect, &b);
            const bool repeated = a.tm_hour == b.tm_hour && a.tm_mday == b.tm_mday;
            EXPECT_TRUE(std::llabs(got - expect) == 3600 && (repeated || b.tm_hour != hour))
                << year << "-" << month << "-" << day << " " << hour << ": " << got << " vs "
                << expect;
          }
        }
      }
    }
  }
  restore.reset();
  tzset();
}
