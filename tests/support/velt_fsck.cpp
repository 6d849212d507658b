#include "velt_fsck.h"

#include <utf8.h>

#include <algorithm>
#include <cstdlib>
#include <regex>
#include <sstream>

#include "fs/velt_dirent.h"
#include "fs/velt_endian.h"

namespace velt::test {

namespace {

bool isFiller(const uint8_t* r) {
  if (r[rec::kLfnSeq] != (rec::kLfnLast | 1) || r[rec::kLfnAttr] != kAttrLongName ||
      r[rec::kLfnChecksum] != 0) {
    return false;
  }
  uint16_t units[kLfnCharsPerRecord];
  lfnRecordUnits(r, units);
  return std::all_of(units, units + kLfnCharsPerRecord, [](uint16_t u) { return u == 0xFFFF; });
}

// The text of a run of long-name records given nearest-first (sequence 1 first), as fsck.fat
// prints it: up to the terminator, every other unit shown as its character.
std::string lfnText(const std::vector<const uint8_t*>& nearest_first) {
  std::vector<uint16_t> all;
  for (const uint8_t* r : nearest_first) {
    uint16_t units[kLfnCharsPerRecord];
    lfnRecordUnits(r, units);
    all.insert(all.end(), units, units + kLfnCharsPerRecord);
  }
  auto end = std::find(all.begin(), all.end(), 0);
  std::string out;
  try {
    utf8::utf16to8(all.begin(), end, std::back_inserter(out));
  } catch (const utf8::exception&) {
    out = "<bad UTF-16>";
  }
  return out;
}

const std::string& fillerText() {
  static const std::string text = [] {
    std::vector<uint8_t> r(DIR_RECORD_SIZE, 0xFF);
    r[rec::kLfnSeq] = rec::kLfnLast | 1;
    return lfnText({r.data()});
  }();
  return text;
}

std::string describe(const std::vector<std::string>& parts) {
  std::string out;
  for (const auto& p : parts) out += "  \"" + p + "\"\n";
  return out.empty() ? "  (none)\n" : out;
}

}  // namespace

ReservedFsckReport expectedReservedReport(VELT& volume, const CardImage& card) {
  ReservedFsckReport report;
  volume.flush();
  const int64_t cluster = volume.pbr_->cluster_length_;
  std::vector<std::shared_ptr<VELT::DirEntry>> folders;
  {
    std::lock_guard lock(volume.root_->children_mutex_);
    for (const auto& child : volume.root_->children_) {
      if (child->velt_folder_ != nullptr) folders.push_back(child);
    }
  }
  for (const auto& folder : folders) {
    for (const ReservedFile& file : folder->velt_reserved_files_) {
      const std::string sfn = card.readBytes(file.dir_ent_disk_off, DIR_RECORD_SIZE);
      std::string records[VELT_LFN_ENTRY_COUNT_MAX];
      std::vector<const uint8_t*> name_records;  // nearest first
      for (int k = 0; k < file.lfn_count && k < VELT_LFN_ENTRY_COUNT_MAX; ++k) {
        records[k] = card.readBytes(file.lfn_disk_offsets[k], DIR_RECORD_SIZE);
        const uint8_t* p = reinterpret_cast<const uint8_t*>(records[k].data());
        // A deleted record is nothing to any reader.
        if (records[k].size() != DIR_RECORD_SIZE || p[0] == DIR_ENTRY_DELETED) continue;
        if (isFiller(p)) {
          report.orphan_parts.push_back(fillerText());
        } else {
          name_records.push_back(p);
        }
      }
      const bool hidden =
          sfn.size() == DIR_RECORD_SIZE && static_cast<uint8_t>(sfn[0]) == DIR_ENTRY_DELETED;
      if (hidden) {
        if (!name_records.empty()) report.orphan_parts.push_back(lfnText(name_records));
        report.unused_clusters += (static_cast<int64_t>(file.size) + cluster - 1) / cluster;
      }
    }
  }
  std::sort(report.orphan_parts.begin(), report.orphan_parts.end());
  return report;
}

static ::testing::AssertionResult judge(const ShellResult& fsck,
                                        const ReservedFsckReport& expected) {
  std::vector<std::string> parts;
  int64_t reclaimed = 0, free_difference = 0;
  std::string unexpected, line;
  static const std::regex kOrphan(R"re(^Orphaned long file name part "(.*)"$)re");
  static const std::regex kReclaimed(R"(^Reclaimed (\d+) unused clusters? \((\d+) bytes\)\.$)");
  static const std::regex kFree(R"(^Free cluster summary wrong \((\d+) vs\. really (\d+)\)$)");
  static const std::regex kQuiet(
      R"(^(fsck\.fat .*|Leaving filesystem unchanged\.|  Auto-(deleting|correcting)\.|.*: \d+ files, \d+/\d+ clusters|)$)");
  std::istringstream out(fsck.out), err(fsck.err);
  std::smatch m;
  while (std::getline(out, line)) {
    if (std::regex_match(line, m, kOrphan)) {
      parts.push_back(m[1]);
    } else if (std::regex_match(line, m, kReclaimed)) {
      reclaimed += std::stoll(m[1]);
    } else if (std::regex_match(line, m, kFree)) {
      free_difference = std::stoll(m[2]) - std::stoll(m[1]);
    } else if (!std::regex_match(line, kQuiet)) {
      unexpected += "  " + line + "\n";
    }
  }
  while (std::getline(err, line)) {
    if (!line.empty()) unexpected += "  (stderr) " + line + "\n";
  }
  std::sort(parts.begin(), parts.end());

  std::string problems;
  if (!unexpected.empty())
    problems += "fsck.fat found more than reserved files explain:\n" + unexpected;
  if (parts != expected.orphan_parts) {
    problems += "orphaned long-name parts differ; expected\n" + describe(expected.orphan_parts) +
                "found\n" + describe(parts);
  }
  for (int64_t found : {reclaimed, free_difference}) {
    if (found != expected.unused_clusters) {
      problems += "unused clusters (reclaimed, then missing from the free count): expected " +
                  std::to_string(expected.unused_clusters) + ", found " + std::to_string(found) +
                  "\n";
    }
  }
  const bool findings = !expected.orphan_parts.empty() || expected.unused_clusters != 0;
  if (fsck.status != (findings ? 1 : 0)) {
    problems += "fsck.fat exit status " + std::to_string(fsck.status) + "\n";
  }
  if (problems.empty()) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << problems << "fsck.fat said:\n" << fsck.out << fsck.err;
}

static ShellResult fsckInUtf8(const CardImage& card) {
  ScopedEnv utf8("LC_ALL", "C.UTF-8");  // fsck.fat prints names in the locale's charset
  return card.fsck("-n");
}

::testing::AssertionResult fsckShowsOnlyReservedFiles(const CardImage& card,
                                                      const ReservedFsckReport& expected) {
  return judge(fsckInUtf8(card), expected);
}

::testing::AssertionResult fsckShowsOnlyReservedFiles(const CardImage& card, Loaded* loaded) {
  const ShellResult fsck = fsckInUtf8(card);
  Loaded own, &l = loaded != nullptr ? *loaded : own;
  l = loadCard(card);
  if (l.volume == nullptr)
    return ::testing::AssertionFailure() << "the card does not load: " << l.error << "\n" << l.log;
  return judge(fsck, expectedReservedReport(*l.volume, card));
}

}  // namespace velt::test
