#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <vector>

#include "laz_byte14_layers.h"
#include "laz_point14_layers.h"
#include "laz_rgb14_layer.h"
#include "cloud/laz_test_decoder.h"

namespace kvr::cloud::laz {
namespace {

std::vector<std::uint32_t> SizesOf(const auto& layers) {
  std::vector<std::uint8_t> bytes;
  layers.appendSizes(bytes);
  std::vector<std::uint32_t> sizes(bytes.size() / 4);
  std::memcpy(sizes.data(), bytes.data(), bytes.size());
  return sizes;
}

// Worked out by hand: the five kept sorted from five zeros, a value going in
// above or below the middle by turns.
TEST(Median5, FollowsTheMiddleOfTheLastValues) {
  Median5 median;
  median.reset();
  const std::int32_t values[] = {5, 3, 4, -1, 10, 2, 1};
  const std::int32_t medians[] = {0, 0, 3, 3, 3, 3, 2};
  for (std::size_t i = 0; i < std::size(values); ++i) {
    median.add(values[i]);
    EXPECT_EQ(median.get(), medians[i]) << "after " << values[i];
  }
}

TEST(Point14, ReadsEveryFieldOfTheRecord) {
  const std::array<std::uint8_t, 30> record = {
      0x01, 0x02, 0x03, 0x04, 0xFB, 0xFF, 0xFF, 0xFF, 0x10, 0x00, 0x00, 0x80,  // X, Y = -5, Z
      0x34, 0x12,                                                              // intensity
      0x53,                                                                    // 3 of 5
      0xE9,                                                                    // edge, direction, channel 2, flags 9
      0x07, 0x2A, 0x9C, 0xFF, 0xCD, 0xAB, 1, 2, 3, 4, 5, 6, 7, 8};
  const Point14 p = Point14::Of(record.data());
  EXPECT_EQ(p.x, 0x04030201);
  EXPECT_EQ(p.y, -5);
  EXPECT_EQ(p.z, static_cast<std::int32_t>(0x80000010u));
  EXPECT_EQ(p.intensity, 0x1234);
  EXPECT_EQ(p.returnNumber, 3);
  EXPECT_EQ(p.numberOfReturns, 5);
  EXPECT_EQ(p.flags, 0x39);  // edge << 5 | direction << 4 | classification flags
  EXPECT_EQ(p.classification, 7);
  EXPECT_EQ(p.userData, 42);
  EXPECT_EQ(p.scanAngle, -100);
  EXPECT_EQ(p.pointSource, 0xABCD);
  EXPECT_EQ(p.gpsTime, 0x0807060504030201u);
}

// A layer whose field never changes in the chunk is stored empty (the decoder
// repeats the first point's value); returns with X and Y, and Z, are always stored.
TEST(Point14Layers, StoresOnlyTheLayersWhoseFieldChanges) {
  struct Case {
    std::size_t byte;  // of the record, changed in the second point
    std::size_t layer;
  };
  const Case cases[] = {{0, 0}, {8, 1}, {16, 2}, {15, 3}, {12, 4}, {18, 5}, {17, 6}, {20, 7}, {22, 8}, {29, 8}};
  for (const Case& c : cases) {
    // Three records: the second differs from the first and third in one byte.
    std::array<std::uint8_t, 90> records{};
    for (const std::size_t at : {0, 30, 60}) records[at + 14] = 0x11;  // 1 of 1
    records[30 + c.byte] ^= 1;
    Point14Layers layers;
    layers.encode(records.data(), 3, 30);
    const std::vector<std::uint32_t> sizes = SizesOf(layers);
    ASSERT_EQ(sizes.size(), 9u);
    for (std::size_t layer = 0; layer < 9; ++layer) {
      EXPECT_EQ(sizes[layer] > 0, layer < 2 || layer == c.layer) << "byte " << c.byte << ", layer " << layer;
    }
  }
}

TEST(Rgb14Layer, IsEmptyUnlessAColourChanges) {
  const std::array<std::uint8_t, 6> grey = {0x10, 0x20, 0x10, 0x20, 0x10, 0x20};
  std::array<std::uint8_t, 6> blue = grey;
  blue[5] = 0x21;
  for (const bool change : {false, true}) {
    std::array<std::uint8_t, 66> records;
    for (std::size_t i = 0; i < 11; ++i) std::memcpy(&records[6 * i], (change && i == 6 ? blue : grey).data(), 6);
    Rgb14Layer layer;
    layer.encode(records.data(), 11, 6);
    EXPECT_EQ(SizesOf(layer)[0] > 0, change);
  }
}

// Five bytes in records of six (the sixth, not theirs, changes every point),
// over more points than the layers code at a time: a byte that never changes
// is stored empty, and every other layer decodes back to its byte, one that
// first changes far into the chunk or only at its last point included.
TEST(Byte14Layers, StoresEachByteThatChangesInALayerOfItsOwn) {
  constexpr std::size_t kCount = 1300, kStride = 6;
  std::vector<std::uint8_t> records(kCount * kStride);
  for (std::size_t i = 0; i < kCount; ++i) {
    std::uint8_t* record = &records[i * kStride];
    record[0] = 7;                                    // never changes
    record[1] = i >= 700 && i < 705 ? 0x80 : 0x10;    // a few points far in
    record[2] = static_cast<std::uint8_t>(i * 37);    // every point
    record[3] = 0xAA;                                 // never changes
    record[4] = i + 1 == kCount ? 0xFF : 0x00;        // the last point only
    record[5] = static_cast<std::uint8_t>(i);
  }
  Byte14Layers layers(5);
  layers.encode(records.data(), kCount, kStride);
  const std::vector<std::uint32_t> sizes = SizesOf(layers);
  ASSERT_EQ(sizes.size(), 5u);
  EXPECT_EQ(sizes[0], 0u);
  EXPECT_EQ(sizes[3], 0u);
  std::vector<std::uint8_t> bytes;
  layers.appendBytes(bytes);
  std::size_t at = 0;
  for (std::size_t byte = 0; byte < 5; ++byte) {
    if (byte == 0 || byte == 3) continue;
    ASSERT_GT(sizes[byte], 0u) << "byte " << byte;
    test::LazTestDecoder decoder({bytes.begin() + static_cast<std::ptrdiff_t>(at),
                                  bytes.begin() + static_cast<std::ptrdiff_t>(at + sizes[byte])});
    at += sizes[byte];
    SymbolModel model(256);
    std::uint8_t value = records[byte];
    for (std::size_t i = 1; i < kCount; ++i) {
      value = static_cast<std::uint8_t>(value + decoder.decodeSymbol(model));
      ASSERT_EQ(value, records[i * kStride + byte]) << "byte " << byte << ", point " << i;
    }
  }
  EXPECT_EQ(at, bytes.size());
}

}  // namespace
}  // namespace kvr::cloud::laz
