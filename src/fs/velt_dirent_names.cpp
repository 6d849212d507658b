// Name rules, the 8.3 short-name form, long-name records and FAT dates and times.
#include <utf8.h>

#include <cctype>
#include <cstring>
#include <functional>
#include <string>

#include "fs/velt_dirent.h"
#include "fs/velt_endian.h"

namespace velt {

static constexpr const char kLogTag[] = "VELT.DirEntry";

namespace {

// Bytes refused in any name: control characters and " * / : < > ? \ |.
bool refusedInLongName(uint8_t c) {
  return c < 0x20 || c == '"' || c == '*' || c == '/' || c == ':' || c == '<' || c == '>' ||
         c == '?' || c == '\\' || c == '|';
}
// Further bytes refused in a short name: , . ; = [ ].
bool refusedInShortName(uint8_t c) {
  return refusedInLongName(c) || c == ',' || c == '.' || c == ';' || c == '=' || c == '[' ||
         c == ']';
}

// Long-name character positions inside a record: 5 + 6 + 2 code units.
constexpr int kUnitOffsets[kLfnCharsPerRecord] = {1, 3, 5, 7, 9, 14, 16, 18, 20, 22, 24, 28, 30};

}  // namespace

bool isValidFileName(const char* name) {
  for (const uint8_t* p = reinterpret_cast<const uint8_t*>(name); *p; ++p) {
    if (refusedInLongName(*p)) return false;
  }
  return true;
}

bool isValidShortName(const char* name) {
  for (const uint8_t* p = reinterpret_cast<const uint8_t*>(name); *p; ++p) {
    if (refusedInShortName(*p)) return false;
  }
  return true;
}

bool isShortNameByte(uint8_t byte) {
  return byte != 0 && !refusedInShortName(byte);
}

namespace {

// One part of a name in the 8.3 field, upper case, at most `max` characters. The field holds
// bytes of the card's OEM code page, which no UTF-8 byte is: a character outside ASCII, like
// one the short-name table refuses, becomes "_" and sets `altered` (the name then takes a
// numeric tail and keeps its spelling in long-name records). Throws utf8::exception on
// malformed text.
std::string shortPart(const std::string& part, size_t max, bool is_base, bool* altered) {
  std::string out;
  auto it = part.begin();
  while (it != part.end() && out.size() < max) {
    uint32_t cp = utf8::next(it, part.end());
    if (cp == 0) continue;
    if (is_base && cp == ' ') continue;
    if (is_base && cp == '.' && out.empty()) continue;
    char c = static_cast<char>(cp < 0x80 ? toupper(static_cast<int>(cp)) : '_');
    if (cp >= 0x80 || !isShortNameByte(static_cast<uint8_t>(c))) {
      c = '_';
      *altered = true;
    }
    out += c;
  }
  return out;
}

}  // namespace

int makeShortName(const char* file_name, const std::function<bool(const std::string&)>& taken,
                  std::string* short_name) {
  std::string name(file_name);
  size_t dot = name.rfind('.');
  std::string base = dot == std::string::npos ? name : name.substr(0, dot);
  std::string ext = dot == std::string::npos ? std::string() : name.substr(dot + 1);
  bool altered = false;
  std::string base8, ext3;
  try {
    base8 = shortPart(base, 8, true, &altered);
    ext3 = shortPart(ext, 3, false, &altered);
  } catch (const utf8::exception&) {
    LOGE("[%s] failed to convert\n", file_name);
    return -1;
  }
  std::string candidate = ext3.empty() ? base8 : base8 + "." + ext3;
  // A record name may not begin with a blank: an empty base always takes a tail.
  if (!altered && !base8.empty() && candidate.size() == name.size() && !taken(candidate)) {
    *short_name = candidate;
    return 0;
  }
  for (unsigned n = 1;; ++n) {
    std::string tail = "~" + std::to_string(n);
    std::string stem =
        base8.size() < tail.size() ? tail : base8.substr(0, base8.size() - tail.size()) + tail;
    candidate = ext3.empty() ? stem : stem + "." + ext3;
    if (!taken(candidate)) {
      *short_name = candidate;
      return 0;
    }
  }
}

uint8_t shortNameChecksum(const uint8_t* name11) {
  uint8_t sum = 0;
  for (int i = 0; i < 11; ++i) {
    sum = static_cast<uint8_t>(((sum & 1) << 7) + (sum >> 1) + name11[i]);
  }
  return sum;
}

void shortNameToName83(const char* short_name, uint8_t* out) {
  memset(out, 0x20, 11);
  // The dot records keep their periods in the name field.
  if (strcmp(short_name, ".") == 0 || strcmp(short_name, "..") == 0) {
    memcpy(out, short_name, strlen(short_name));
    return;
  }
  const char* dot = strrchr(short_name, '.');
  if (dot == nullptr) {
    size_t len = strlen(short_name);
    if (len > 11) NERIO_ASSERT_TEXT("strlen(short_name) <= 11");
    memcpy(out, short_name, len < 11 ? len : 11);
  } else {
    size_t base = static_cast<size_t>(dot - short_name);
    memcpy(out, short_name, base < 8 ? base : 8);
    size_t ext = strlen(dot + 1);
    if (ext > 3) NERIO_ASSERT_TEXT("strlen(ext + 1) <= 3");
    memcpy(out + 8, dot + 1, ext < 3 ? ext : 3);
  }
  // A first byte 0xE5 would read as a deleted record; FAT stores it as 0x05.
  if (out[0] == DIR_ENTRY_DELETED) out[0] = 0x05;
}

// Days from 1970-01-01 to a date of the proleptic Gregorian calendar (month 1..12).
static int64_t daysSinceEpoch(int64_t year, int month, int day) {
  year -= month <= 2;
  const int64_t era = (year >= 0 ? year : year - 399) / 400;
  const int64_t year_of_era = year - era * 400;
  const int64_t day_of_year = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
  const int64_t day_of_era = year_of_era * 365 + year_of_era / 4 - year_of_era / 100 + day_of_year;
  return era * 146097 + day_of_era - 719468;
}

// FAT stamps are local time. mktime would do, but it consults the time-zone file on every call
// and a load converts several stamps per entry; the zone's offset from localtime_r gives the
// same answer. Fields out of their ranges are left to mktime's normalisation.
time_t fatToTime(uint16_t date, uint16_t time) {
  const int sec = (time & 31) * 2, min = (time >> 5) & 63, hour = time >> 11;
  const int day = date & 31, month = (date >> 5) & 15, year = (date >> 9) + 1980;
  static constexpr int kMonthDays[] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  const bool leap = year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
  if (sec < 60 && min < 60 && hour < 24 && month >= 1 && month <= 12 && day >= 1 &&
      day <= kMonthDays[month - 1] && (month != 2 || day < 29 || leap)) {
    const time_t wall = static_cast<time_t>(daysSinceEpoch(year, month, day) * 86400 + hour * 3600 +
                                            min * 60 + sec);
    struct tm lt;
    if (localtime_r(&wall, &lt) != nullptr) {
      time_t t = wall - lt.tm_gmtoff;
      const long offset = lt.tm_gmtoff;
      if (localtime_r(&t, &lt) != nullptr) {
        if (lt.tm_gmtoff != offset) t = wall - lt.tm_gmtoff;  // a DST change lies in between
        return t;
      }
    }
  }
  struct tm tm;
  memset(&tm, 0, sizeof(tm));
  tm.tm_sec = sec;
  tm.tm_min = min;
  tm.tm_hour = hour;
  tm.tm_mday = day;
  tm.tm_mon = month - 1;
  tm.tm_year = year - 1900;
  tm.tm_isdst = -1;
  return mktime(&tm);
}

// Local calendar time of `t`, held to the range FAT can record: 1980-01-01 00:00:00 to
// 2107-12-31 23:59:58.
static struct tm fatCalendar(time_t t) {
  struct tm tm;
  memset(&tm, 0, sizeof(tm));
  // A time too far off for the calendar (its year overflows) is at one end of the range.
  if (localtime_r(&t, &tm) == nullptr) tm.tm_year = t < 0 ? 0 : 300;
  if (tm.tm_year < 80) {
    tm.tm_year = 80;
    tm.tm_mon = 0;
    tm.tm_mday = 1;
    tm.tm_hour = tm.tm_min = tm.tm_sec = 0;
  } else if (tm.tm_year > 207) {
    tm.tm_year = 207;
    tm.tm_mon = 11;
    tm.tm_mday = 31;
    tm.tm_hour = 23;
    tm.tm_min = 59;
    tm.tm_sec = 58;
  }
  return tm;
}

uint16_t timeToFatDate(time_t t) {
  struct tm tm = fatCalendar(t);
  return static_cast<uint16_t>(((tm.tm_year - 80) << 9) | (((tm.tm_mon + 1) & 15) << 5) |
                               (tm.tm_mday & 31));
}

uint16_t timeToFatTime(time_t t) {
  struct tm tm = fatCalendar(t);
  return static_cast<uint16_t>((tm.tm_hour << 11) | ((tm.tm_min & 63) << 5) |
                               ((tm.tm_sec >> 1) & 31));
}

bool longNameUnits(const std::string& name, std::vector<uint16_t>* units, size_t* name_units) {
  units->clear();
  try {
    utf8::utf8to16(name.begin(), name.end(), std::back_inserter(*units));
  } catch (const utf8::exception&) {
    return false;
  }
  if (name_units != nullptr) *name_units = units->size();
  if (units->size() % kLfnCharsPerRecord != 0) units->push_back(0x0000);
  return true;
}

void buildLfnRecord(const std::vector<uint16_t>& units, int seq, bool last, uint8_t checksum,
                    uint8_t* out) {
  memset(out, 0xFF, DIR_RECORD_SIZE);
  out[rec::kLfnSeq] = static_cast<uint8_t>(seq | (last ? rec::kLfnLast : 0));
  out[rec::kLfnAttr] = kAttrLongName;
  out[rec::kLfnType] = 0;
  out[rec::kLfnChecksum] = checksum;
  putLe16(out + rec::kLfnCluster, 0);
  size_t first = static_cast<size_t>(seq - 1) * kLfnCharsPerRecord;
  for (int i = 0; i < kLfnCharsPerRecord && first + i < units.size(); ++i) {
    putLe16(out + kUnitOffsets[i], units[first + i]);
  }
}

void lfnRecordUnits(const uint8_t* record, uint16_t* out13) {
  for (int i = 0; i < kLfnCharsPerRecord; ++i) out13[i] = le16(record + kUnitOffsets[i]);
}

}  // namespace velt
