// Judging a VELT card with fsck.fat. Reserved files are deleted records whose clusters stay
// taken, so fsck.fat finds on every VELT card: one orphaned long-name part per free or not yet
// published reserved file (its old name), one empty part per filler record in front of a
// shorter name, their chains as unused clusters, and a free count smaller by those clusters.
// The check passes only when fsck.fat reports exactly that and nothing else.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "card_volume.h"

namespace velt::test {

struct ReservedFsckReport {
  std::vector<std::string> orphan_parts;  // long-name texts as fsck.fat prints them, sorted
  int64_t unused_clusters = 0;            // clusters reachable only from deleted records
};

// What the reserved files of a loaded volume make fsck.fat report, from each folder's
// reserved-file table and the records it points at on the card (the volume is flushed first).
ReservedFsckReport expectedReservedReport(VELT& volume, const CardImage& card);

// Runs fsck.fat -n on the card and compares its findings with `expected`.
::testing::AssertionResult fsckShowsOnlyReservedFiles(const CardImage& card,
                                                      const ReservedFsckReport& expected);

// The same for a card no volume holds: fsck.fat runs first, then the card is loaded (which may
// write to it; into `loaded` when given) to learn what its reserved files should cause.
::testing::AssertionResult fsckShowsOnlyReservedFiles(const CardImage& card,
                                                      Loaded* loaded = nullptr);

}  // namespace velt::test
