#include "kvr_decode/cloud/laz_writer.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "kvr_decode/cloud/error.h"
#include "kvr_decode/cloud/las_writer.h"
#include "kvr_decode/cloud/point_reader.h"
#include "kvr_writers/scan_file_writer.h"
#include "kvr_writers/synthetic_blocks.h"
#include "support/temp_dir_test_base.h"

namespace kvr::test {
namespace {

template <typename T>
T At(const std::vector<std::uint8_t>& bytes, std::size_t offset) {
  T value;
  std::memcpy(&value, bytes.data() + offset, sizeof value);
  return value;
}

class LazWriterTest : public InTempDir {
 protected:
  // Two synthetic blocks of single returns.
  void SetUp() override {
    writers::HeaderBlockFields fields;
    fields.calibrationText = "rangeOffset = 0.5\n";
    writers::ScanFileWriter file(path("scan.raw"), fields);
    writers::SyntheticScan synthetic(7, 200, 1);
    for (int b = 0; b < 2; ++b) file.writeBlock(synthetic.NextBlock().build());
    file.close();
  }

  std::vector<std::uint8_t> Export(const std::string& name, bool colour, cloud::LazOptions laz) {
    const cloud::Scan scan(path("scan.raw"));
    cloud::LasOptions options = cloud::LasOptions::Of(scan, colour);
    options.creationDay = {{59, 2026}};
    cloud::LazWriter writer(path(name), options, {}, laz);
    cloud::PointReader reader(scan);
    cloud::PointBatch batch;
    while (reader.next(batch)) writer.write(batch);
    writer.finish();
    points_ = writer.count();
    return ReadFileBytes(path(name));
  }

  std::uint64_t points_ = 0;
};

// 375 + 54 + 6 x 192 + 54 + 34 + 6 x items before the points.
TEST_F(LazWriterTest, HeaderAndLaszipRecordDescribeTheCompression) {
  for (const bool colour : {false, true}) {
    const std::vector<std::uint8_t> laz = Export("points.laz", colour, {1000, 1});
    const std::uint32_t items = colour ? 3 : 2;
    const std::uint32_t offset = 375 + 1206 + 54 + 34 + 6 * items;
    EXPECT_EQ(At<std::uint32_t>(laz, 96), offset);
    EXPECT_EQ(At<std::uint32_t>(laz, 100), 2u);
    EXPECT_EQ(laz[104], colour ? 0x87 : 0x86);
    EXPECT_EQ(At<std::uint16_t>(laz, 105), colour ? 68 : 62);
    EXPECT_EQ(At<std::uint64_t>(laz, 247), points_);
    ASSERT_GT(points_, 2000u);
    const std::size_t vlr = 375 + 1206;
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&laz[vlr + 2]), 16), std::string("laszip encoded\0\0", 16));
    EXPECT_EQ(At<std::uint16_t>(laz, vlr + 18), 22204);
    EXPECT_EQ(At<std::uint16_t>(laz, vlr + 20), 34 + 6 * items);
    const std::size_t body = vlr + 54;
    EXPECT_EQ(At<std::uint16_t>(laz, body), 3);       // layered chunked
    EXPECT_EQ(At<std::uint16_t>(laz, body + 2), 0);   // arithmetic coder
    EXPECT_EQ(At<std::uint32_t>(laz, body + 12), 1000u);
    EXPECT_EQ(At<std::int64_t>(laz, body + 16), -1);
    EXPECT_EQ(At<std::uint16_t>(laz, body + 32), items);
    const std::vector<std::uint16_t> expected =
        colour ? std::vector<std::uint16_t>{10, 30, 3, 11, 6, 3, 14, 32, 3} : std::vector<std::uint16_t>{10, 30, 3, 14, 32, 3};
    for (std::size_t i = 0; i < expected.size(); ++i) EXPECT_EQ(At<std::uint16_t>(laz, body + 34 + 2 * i), expected[i]) << i;
    // The chunk table after the last chunk, at the offset before the first.
    const auto table = At<std::uint64_t>(laz, offset);
    ASSERT_LT(table + 8, laz.size());
    EXPECT_EQ(At<std::uint32_t>(laz, table), 0u);
    EXPECT_EQ(At<std::uint32_t>(laz, table + 4), (points_ + 999) / 1000);
    // The first chunk starts with the first point as it is, then its count.
    EXPECT_EQ(At<std::uint32_t>(laz, offset + 8 + (colour ? 68 : 62)), 1000u);
  }
}

TEST_F(LazWriterTest, FileIsTheSameOnAnyNumberOfThreads) {
  const std::vector<std::uint8_t> one = Export("one.laz", true, {700, 1});
  for (const unsigned threads : {2u, 5u}) EXPECT_EQ(Export("many.laz", true, {700, threads}), one) << threads;
}

TEST_F(LazWriterTest, NoPointsGiveAnEmptyChunkTable) {
  const cloud::Scan scan(path("scan.raw"));
  cloud::LazWriter writer(path("points.laz"), cloud::LasOptions::Of(scan, false), {});
  writer.finish();
  const std::vector<std::uint8_t> laz = ReadFileBytes(path("points.laz"));
  const std::uint32_t offset = 375 + 1206 + 54 + 34 + 12;
  ASSERT_EQ(laz.size(), offset + 8 + 8u);
  EXPECT_EQ(At<std::uint64_t>(laz, offset), offset + 8u);
  EXPECT_EQ(At<std::uint64_t>(laz, offset + 8), 0u);  // version 0, no chunks
}

TEST_F(LazWriterTest, BadChunkSizeOrUnwritableOutputThrowsAndLeavesNoFile) {
  const cloud::Scan scan(path("scan.raw"));
  EXPECT_THROW(cloud::LazWriter(path("absent/points.laz"), cloud::LasOptions::Of(scan, false), {}), cloud::OutputError);
  EXPECT_THROW(cloud::LazWriter(path("points.laz"), cloud::LasOptions::Of(scan, false), {}, {0, 1}), cloud::OutputError);
  {
    // Dropped before finish(), with chunks in flight on its threads.
    cloud::LazWriter writer(path("points.laz"), cloud::LasOptions::Of(scan, false), {}, {10, 3});
    cloud::PointReader reader(scan);
    cloud::PointBatch batch;
    while (reader.next(batch)) writer.write(batch);
  }
  EXPECT_FALSE(std::filesystem::exists(path("absent")));
  EXPECT_FALSE(std::filesystem::exists(path("points.laz")));
}

}  // namespace
}  // namespace kvr::test
