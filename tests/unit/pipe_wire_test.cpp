// The direct channel's wire format: header and splice records byte by byte, the write
// parameter, the marker search, and the work item's buffer operations.
#include <gtest/gtest.h>

#include <random>

#include <cstring>
#include <string>
#include <vector>

#include "fs/velt.h"
#include "fs/velt_pipe.h"

using velt::DirectHeader;
using velt::DirectMarkerSearch;
using velt::DirectSplice;
using velt::VELTWorkItem;

TEST(PipeWire, HeaderBytesAreLittleEndianAfterTheMarker) {
  DirectHeader h;
  h.length = 0x01020304;
  h.fd = -2;
  h.op = velt::kDirectOpSplice;
  h.offset = 0x1122334455667788ll;
  h.param = 0xA0B0C0D0;
  uint8_t bytes[28];
  velt::encodeDirectHeader(h, bytes);
  const uint8_t expect[28] = {0xFD, 0xEC, 0xB9, 0xA8, 0x04, 0x03, 0x02, 0x01, 0xFE, 0xFF,
                              0xFF, 0xFF, 0x0B, 0x00, 0x00, 0x00, 0x88, 0x77, 0x66, 0x55,
                              0x44, 0x33, 0x22, 0x11, 0xD0, 0xC0, 0xB0, 0xA0};
  EXPECT_EQ(0, memcmp(bytes, expect, sizeof(expect)));
  EXPECT_TRUE(velt::hasDirectMarker(bytes));

  // Round trip, including the values a hostile client may send.
  const DirectHeader rows[] = {
      {28, 3, velt::kDirectOpOpen, 0, 0},
      {0xFFFFFFFF, INT32_MIN, 0xFFFFFFFF, INT64_MIN, 0xFFFFFFFF},
      {0, INT32_MAX, 0, -1, 1},
  };
  for (const auto& r : rows) {
    velt::encodeDirectHeader(r, bytes);
    DirectHeader back = velt::decodeDirectHeader(bytes);
    EXPECT_EQ(back.length, r.length);
    EXPECT_EQ(back.fd, r.fd);
    EXPECT_EQ(back.op, r.op);
    EXPECT_EQ(back.offset, r.offset);
    EXPECT_EQ(back.param, r.param);
  }
  bytes[3] = 0xA9;
  EXPECT_FALSE(velt::hasDirectMarker(bytes));
}

TEST(PipeWire, WriteParameterAndSplicePayload) {
  constexpr uint32_t param = velt::directWriteParam(16, velt::kDirectFlagSecure);
  static_assert(param == 0x00080010);
  EXPECT_EQ(velt::directWriteNewSizeOffset(param), 16u);
  EXPECT_EQ(velt::directWriteFlags(param), velt::kDirectFlagSecure);
  EXPECT_EQ(velt::directWriteFlags(velt::directWriteParam(0xFFFF, 0xFFFF)), 0xFFFFu);

  DirectSplice s;
  s.out_fd = 9;
  s.out_offset = -5;
  s.size = 0x80000001;
  uint8_t bytes[16];
  velt::encodeDirectSplice(s, bytes);
  const uint8_t expect[16] = {9,    0,    0,    0,    0xFB, 0xFF, 0xFF, 0xFF,
                              0xFF, 0xFF, 0xFF, 0xFF, 0x01, 0x00, 0x00, 0x80};
  EXPECT_EQ(0, memcmp(bytes, expect, 16));
  DirectSplice back;
  ASSERT_TRUE(velt::decodeDirectSplice(bytes, 16, &back));
  EXPECT_EQ(back.out_fd, 9u);
  EXPECT_EQ(back.out_offset, -5);
  EXPECT_EQ(back.size, 0x80000001u);
  for (size_t wrong : {0, 15, 17, 28}) {
    uint8_t big[28] = {};
    EXPECT_FALSE(velt::decodeDirectSplice(big, wrong, &back)) << wrong;
  }
  EXPECT_FALSE(velt::decodeDirectSplice(nullptr, 16, &back));
}

TEST(PipeWire, MarkerSearchRestartsAfterABreakingByte) {
  struct Row {
    std::vector<uint8_t> bytes;
    int completes_at;  // index of the byte that completes the marker; -1 none
  } rows[] = {
      {{0x00, 0xFD, 0xEC, 0xB9, 0xA8}, 4},
      {{0xFD, 0xEC, 0xB9, 0xA8}, 3},
      // The byte that breaks a partial match is not tried as the first marker byte.
      {{0xFD, 0xFD, 0xEC, 0xB9, 0xA8}, -1},
      {{0xFD, 0xEC, 0xFD, 0xEC, 0xB9, 0xA8}, -1},
      {{0xFD, 0xEC, 0x00, 0xFD, 0xEC, 0xB9, 0xA8}, 6},
      {{0xA8, 0xB9, 0xEC, 0xFD}, -1},
      {{0xFD, 0xEC, 0xB9, 0x00, 0xA8}, -1},
  };
  for (const auto& r : rows) {
    DirectMarkerSearch search;
    int at = -1;
    for (size_t i = 0; i < r.bytes.size(); ++i) {
      if (search.push(r.bytes[i])) {
        at = static_cast<int>(i);
        break;
      }
    }
    EXPECT_EQ(at, r.completes_at) << "row of " << r.bytes.size() << " bytes";
    // The bulk scan agrees, wherever the bytes are split between two reads.
    for (size_t split = 0; split <= r.bytes.size(); ++split) {
      DirectMarkerSearch bulk;
      size_t used = 0;
      int found = -1;
      if (velt::findDirectMarker(bulk, r.bytes.data(), split, &used)) {
        found = static_cast<int>(used) - 1;
      } else if (velt::findDirectMarker(bulk, r.bytes.data() + split, r.bytes.size() - split,
                                        &used)) {
        found = static_cast<int>(split + used) - 1;
      }
      EXPECT_EQ(found, r.completes_at) << "split at " << split;
    }
  }
  // After a completed marker the search starts over.
  DirectMarkerSearch search;
  for (uint8_t b : {0xFD, 0xEC, 0xB9}) EXPECT_FALSE(search.push(b));
  EXPECT_EQ(search.matched(), 3);
  EXPECT_TRUE(search.push(0xA8));
  EXPECT_EQ(search.matched(), 0);
  EXPECT_FALSE(search.push(0xEC));
}

TEST(PipeWire, RandomStreamsGiveBackEveryRecordBetweenTheJunk) {
  // Streams of valid records, junk (no marker byte) and headers with a short length or a
  // broken marker; the framing must return exactly the valid records, in order, and count
  // every header that sent it back to the marker search.
  std::mt19937 rng(2024);
  for (int round = 0; round < 200; ++round) {
    std::vector<uint8_t> stream;
    std::vector<std::pair<DirectHeader, std::vector<uint8_t>>> expected;
    size_t broken = 0;
    bool synced = false;
    const int segments = 1 + static_cast<int>(rng() % 12);
    for (int k = 0; k < segments; ++k) {
      const int kind = static_cast<int>(rng() % 4);
      if (kind <= 1) {  // a record
        DirectHeader h;
        h.fd = static_cast<int32_t>(rng());
        h.op = rng() % 14;
        h.offset = static_cast<int64_t>(rng()) << 8;
        h.param = static_cast<uint32_t>(rng());
        std::vector<uint8_t> payload(rng() % 300);
        for (auto& b : payload) b = static_cast<uint8_t>(rng());
        h.length = static_cast<uint32_t>(velt::kDirectHeaderSize + payload.size());
        uint8_t bytes[velt::kDirectHeaderSize];
        velt::encodeDirectHeader(h, bytes);
        stream.insert(stream.end(), bytes, bytes + sizeof(bytes));
        stream.insert(stream.end(), payload.begin(), payload.end());
        expected.emplace_back(h, payload);
        synced = true;
      } else {
        // Junk without a marker byte: when synchronised its first 28 bytes are taken for a
        // header with a broken marker. Or a header with the marker and a short length, which
        // is refused whether it was looked for or not.
        std::vector<uint8_t> junk(28 + rng() % 100);
        for (auto& b : junk) b = static_cast<uint8_t>(rng() % 0xF0);
        if (kind == 3) {
          DirectHeader h;
          h.length = rng() % velt::kDirectHeaderSize;
          velt::encodeDirectHeader(h, junk.data());
        }
        if (synced || kind == 3) ++broken;
        synced = false;
        stream.insert(stream.end(), junk.begin(), junk.end());
      }
    }
    std::vector<std::pair<DirectHeader, std::vector<uint8_t>>> got;
    const velt::DirectStreamCounts counts = velt::parseDirectStream(
        stream.data(), stream.size(), [&](const DirectHeader& h, const uint8_t* p, size_t n) {
          got.emplace_back(h, std::vector<uint8_t>(p, p + n));
        });
    ASSERT_EQ(got.size(), expected.size()) << "round " << round;
    for (size_t i = 0; i < got.size(); ++i) {
      EXPECT_EQ(got[i].first.fd, expected[i].first.fd);
      EXPECT_EQ(got[i].first.op, expected[i].first.op);
      EXPECT_EQ(got[i].first.offset, expected[i].first.offset);
      EXPECT_EQ(got[i].first.param, expected[i].first.param);
      EXPECT_EQ(got[i].second, expected[i].second);
    }
    EXPECT_EQ(counts.broken, broken) << "round " << round;
    EXPECT_EQ(counts.too_large, 0u);
  }
  // A record above the largest payload is counted, and its payload (as far as it goes) skipped.
  DirectHeader h;
  h.length = velt::kDirectHeaderSize + velt::kDirectPayloadMax + 1;
  std::vector<uint8_t> stream(velt::kDirectHeaderSize + 10, 0x11);
  velt::encodeDirectHeader(h, stream.data());
  const velt::DirectStreamCounts counts =
      velt::parseDirectStream(stream.data(), stream.size(), [](auto&&...) {});
  EXPECT_EQ(counts.too_large, 1u);
  EXPECT_EQ(counts.records, 1u);
}
