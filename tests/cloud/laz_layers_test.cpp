#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <vector>

#include "laz_byte14_layers.h"
#include "laz_point14_layers.h"
#include "laz_rgb14_layer.h"

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

TEST(Byte14Layers, StoresEachByteThatChangesInALayerOfItsOwn) {
  Byte14Layers layers(4);
  // Records of 5 bytes (the layers' 4 and one that is not theirs, changing).
  const std::uint8_t records[] = {1, 2, 3, 4, 7, 1, 2, 3, 4, 8, 1, 9, 3, 0, 9};
  layers.encode(records, 3, 5);
  const std::vector<std::uint32_t> sizes = SizesOf(layers);
  ASSERT_EQ(sizes.size(), 4u);
  EXPECT_EQ(sizes[0], 0u);
  EXPECT_GT(sizes[1], 0u);
  EXPECT_EQ(sizes[2], 0u);
  EXPECT_GT(sizes[3], 0u);
}

}  // namespace
}  // namespace kvr::cloud::laz
