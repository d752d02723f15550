#include <gtest/gtest.h>

#include <numeric>
#include <vector>

#include "laz_chunk_encoder.h"
#include "laz_chunk_table.h"
#include "cloud/laz_test_decoder.h"

namespace kvr::cloud::laz {
namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes U32(std::uint32_t v) { return {std::uint8_t(v), std::uint8_t(v >> 8), std::uint8_t(v >> 16), std::uint8_t(v >> 24)}; }

// A chunk of one point: the record as it is, the count, then the sizes of the
// nine point layers (only returns-XY and Z are ever stored, each an ended coder
// that coded nothing: 01 00 00 00), the colour layer and the 32 extra bytes'
// layers, then those two layers' bytes.
TEST(ChunkEncoder, LaysOutAOnePointChunk) {
  for (const bool colour : {false, true}) {
    ChunkEncoder encoder(colour, 32);
    const std::size_t length = colour ? 68 : 62;
    ASSERT_EQ(encoder.recordLength(), length);
    Bytes record(length);
    std::iota(record.begin(), record.end(), std::uint8_t{1});
    Bytes chunk;
    encoder.encode(record.data(), 1, chunk);
    Bytes expected = record;
    const Bytes parts[] = {U32(1), U32(4), U32(4)};
    for (const Bytes& part : parts) expected.insert(expected.end(), part.begin(), part.end());
    expected.resize(expected.size() + 4 * (7 + (colour ? 1 : 0) + 32), 0);
    for (int layer = 0; layer < 2; ++layer) expected.insert(expected.end(), {0x01, 0, 0, 0});
    EXPECT_EQ(chunk, expected) << (colour ? "format 7" : "format 6");
  }
}

// Models left in use by a chunk must not reach the next one: the classification,
// flag and user data bytes repeat one context often enough for their models to
// adapt within a chunk.
TEST(ChunkEncoder, ChunksAreIndependentOfTheOnesBefore) {
  ChunkEncoder encoder(true, 32);
  Bytes records(68 * 400);
  for (std::size_t i = 0; i < records.size(); ++i) records[i] = static_cast<std::uint8_t>(i * 7 % 251);
  for (std::size_t i = 0; i < 400; ++i) {
    records[68 * i + 15] = static_cast<std::uint8_t>(i % 2);        // flags 0 and 1
    records[68 * i + 16] = static_cast<std::uint8_t>(i % 8 * 32);  // all in one class context
    records[68 * i + 17] = static_cast<std::uint8_t>(i % 4);       // one user data context
  }
  Bytes first, again, other;
  encoder.encode(records.data(), 400, first);
  encoder.encode(records.data() + 68 * 10, 390, other);
  encoder.encode(records.data(), 400, again);
  EXPECT_EQ(first, again);
  EXPECT_EQ(ChunkEncoder(false, 32).recordLength(), 62u);
}

// Version 0, the count, then each size coded against the one before with a
// 32-bit integer compressor (context 1), worked out by hand for one chunk of
// 1000 bytes: class 10, place 999 = 249 << 2 | 3.
TEST(ChunkTable, HoldsTheCountAndTheCodedSizes) {
  EXPECT_EQ(ChunkTable({}), (Bytes{0, 0, 0, 0, 0, 0, 0, 0}));
  const std::uint32_t one[] = {1000};
  EXPECT_EQ(ChunkTable(one), (Bytes{0, 0, 0, 0, 1, 0, 0, 0, 0x55, 0x23, 0x5F, 0, 0}));
  const std::uint32_t three[] = {1000, 1000, 900};
  const Bytes table = ChunkTable(three);
  EXPECT_EQ(Bytes(table.begin(), table.begin() + 8), (Bytes{0, 0, 0, 0, 3, 0, 0, 0}));
  const Bytes coded(table.begin() + 8, table.end());
  test::LazTestDecoder decoder(coded);
  test::LazTestIntegerDecoder sizes(decoder, 32, 2);
  std::int32_t previous = 0;
  for (const std::uint32_t size : three) {
    previous = sizes.decompress(previous, 1);
    EXPECT_EQ(previous, static_cast<std::int32_t>(size));
  }
}

}  // namespace
}  // namespace kvr::cloud::laz
