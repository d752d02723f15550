// The export the tools share: formats by extension, and the parallel export
// writing the same file as one thread, whatever the number of workers.

#include <gtest/gtest.h>

#include "cloud/small_scan.h"
#include "kvr_decode/cloud/error.h"
#include "kvr_decode/cloud/point_export.h"
#include "kvr_writers/synthetic_blocks.h"

namespace kvr::cloud {
namespace {

using test::ReadFileBytes;
using test::TempDir;

TEST(PointFormats, ChosenByExtensionInAnyCase) {
  struct Case {
    const char* path;
    std::optional<PointFormat> format;
  };
  const Case cases[] = {
      {"a.ply", PointFormat::kPly},   {"dir.x/A.PLY", PointFormat::kPly}, {"b.csv", PointFormat::kCsv},
      {"c.Las", PointFormat::kLas},   {"d.txt", std::nullopt},            {"las", std::nullopt},
      {"e.las.gz", std::nullopt},     {"f.", std::nullopt},               {"g.E57", PointFormat::kE57},
      {"h.LAZ", PointFormat::kLaz},
  };
  for (const Case& c : cases) EXPECT_EQ(PointFormatOf(c.path), c.format) << c.path;
  EXPECT_STREQ(FormatName(PointFormat::kPly), "ply");
  EXPECT_STREQ(FormatName(PointFormat::kCsv), "csv");
  EXPECT_STREQ(FormatName(PointFormat::kLas), "las");
  EXPECT_STREQ(FormatName(PointFormat::kLaz), "laz");
  EXPECT_STREQ(FormatName(PointFormat::kE57), "e57");
  // LAS also stores the shot index and the counts the angles come from.
  EXPECT_EQ(ColumnsOf(PointFormat::kPly), PointWriter::kColumns);
  EXPECT_EQ(ColumnsOf(PointFormat::kLas) & (kShotIndexColumn | kCountColumns), kShotIndexColumn | kCountColumns);
  // E57 stores the range, the angles and the shot's place in its line.
  EXPECT_EQ(ColumnsOf(PointFormat::kE57) & (kRangeColumn | kAngleColumns | kShotIndexColumn),
            kRangeColumn | kAngleColumns | kShotIndexColumn);
  EXPECT_EQ(ColumnsOf(PointFormat::kLaz) & (kShotIndexColumn | kCountColumns), kShotIndexColumn | kCountColumns);
}

class Exports : public ::testing::Test {
 protected:
  // Twelve random blocks, the fifth with a broken signature.
  Exports() {
    writers::SyntheticScan synthetic(7, 300000, 3);
    writers::ByteWriter data;
    for (int i = 0; i < 12; ++i) {
      std::vector<std::uint8_t> block = synthetic.NextBlock().build();
      if (i == 4) block[0] ^= 0xFF;
      data.append(block);
    }
    path_ = dir_ / "synthetic.raw";
    test::WriteFile(path_, writers::BuildScanFile({}, data.bytes()));
  }
  TempDir dir_;
  std::filesystem::path path_;
};

TEST_F(Exports, EveryThreadCountWritesTheSameFileAndTally) {
  const Scan scan(path_);
  Selection selection;
  selection.columns = ColumnsOf(PointFormat::kLas);
  std::vector<std::uint8_t> first;
  ReadTally firstTally;
  for (unsigned threads : {1u, 2u, 3u, 8u}) {
    SCOPED_TRACE(threads);
    const std::filesystem::path out = dir_ / ("t" + std::to_string(threads) + ".las");
    WriterSettings settings;
    settings.las.creationDay = std::array<std::uint16_t, 2>{1, 2026};
    const auto writer = OpenPointWriter(out, PointFormat::kLas, settings);
    std::uint64_t lastDone = 0;
    const ExportResult result = ExportPoints(scan, *writer, selection, threads, [&](std::uint64_t done, std::uint64_t total) {
      EXPECT_EQ(total, 12u);
      EXPECT_GE(done, lastDone);
      lastDone = done;
    });
    writer->finish();
    EXPECT_EQ(lastDone, 12u);
    EXPECT_EQ(result.points, writer->count());
    EXPECT_GT(result.points, 0u);
    EXPECT_EQ(result.tally.blocks, 12u);
    EXPECT_EQ(result.tally.badBlocks, 1u);
    EXPECT_EQ(result.tally.firstBadBlock, 4u);
    const std::vector<std::uint8_t> bytes = ReadFileBytes(out);
    if (threads == 1) {
      first = bytes, firstTally = result.tally;
    } else {
      EXPECT_EQ(bytes, first);
      EXPECT_EQ(result.tally.shots, firstTally.shots);
      EXPECT_EQ(result.tally.withoutRange, firstTally.withoutRange);
    }
  }
}

TEST_F(Exports, AFailingWriterStopsEveryWorkerAndReportsTheError) {
  const Scan scan(path_);
  for (unsigned threads : {1u, 3u}) {
    SCOPED_TRACE(threads);
    const auto writer = OpenPointWriter("/dev/full", PointFormat::kPly, {});
    try {
      ExportPoints(scan, *writer, Selection{}, threads);
      writer->finish();
      FAIL() << "no error";
    } catch (const OutputError& error) {
      EXPECT_NE(std::string(error.what()).find("/dev/full"), std::string::npos) << error.what();
    }
  }
}

}  // namespace
}  // namespace kvr::cloud
