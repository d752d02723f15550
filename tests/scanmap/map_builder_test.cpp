#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "kvr_decode/scan_file_map.h"
#include "scanmap/scan_files.h"
#include "support/open_descriptors.h"
#include "support/temp_dir_test_base.h"

namespace kvr {
namespace {

using writers::FifoBlockBuilder;
using test::MapShot;
using test::OwnedMap;
using writers::ReturnWord;

constexpr std::uint32_t kT0 = 1000;
// One return 5000 counts (9.756 m) behind T0 with raw intensity 500.
const std::vector<std::uint32_t> kOneReturn = {ReturnWord(kT0 + 5000, 500)};

class ScanMapBuild : public test::InTempDir {
 protected:
  // Blocks of one-return shots with the given directions and flags.
  static FifoBlockBuilder Block(const std::vector<int>& directions, const std::vector<int>& flagged = {}) {
    FifoBlockBuilder block;
    for (std::size_t i = 0; i < directions.size(); ++i) {
      const bool flag = std::find(flagged.begin(), flagged.end(), static_cast<int>(i)) != flagged.end();
      block.shot(MapShot(static_cast<std::uint32_t>(directions[i]), 1, kT0, flag ? 4u : 0u), kOneReturn);
    }
    return block;
  }

  std::wstring Scan(const std::vector<FifoBlockBuilder>& blocks, std::size_t tail = 0,
                    writers::HeaderBlockFields header = {}) {
    return test::WriteScan(path("scan.raw"), header, blocks, tail);
  }
};

// Two direction changes, lines running across blocks, an empty block, event
// marks before and inside lines, and a partial block at the end.
TEST_F(ScanMapBuild, IndexesLinesAcrossBlocks) {
  const std::wstring name =
      Scan({Block({0, 0, 0, 0, 0, 1, 1, 1}, {1, 6}), Block({1, 1, 1, 1, 0, 0}, {2}), Block({}), Block({0, 0}, {1})},
           1000);
  OwnedMap owned;
  ScanFileMap& m = owned.map;
  ASSERT_EQ(GetScanFileMap(name.c_str(), m), 0);

  EXPECT_EQ(std::make_tuple(m.mapVersion, m.currentLineFlag, m.numberOfScanLines, m.shotsInCurrentLine,
                            m.maxShotsPerLine, m.maxReturnsPerShot, m.maxShotsPerBlock, m.blockCount),
            std::make_tuple(2, 0, 2, 3, 7, std::uint16_t{1}, 8, 4));
  EXPECT_EQ(m.dataStartOffset, 1024u);
  EXPECT_EQ(m.dataSize, 4u * 65536u - 1024u);
  EXPECT_STREQ(m.scanFileName, "/");  // the first byte of the wide path's storage
  EXPECT_EQ(m.histogram, nullptr);
  // k = 1 / (2 x 100); (12 k) / (|30 - 130| / (200 x 1000 x k)).
  const float k = 1.0f / (2.0f * 100.0f);
  EXPECT_EQ(m.shotsPerLineEstimate, (12.0f * k) / (100.0f / (200000.0f * k)));
  EXPECT_EQ(m.fileHeader.calibrationValues.at("rangeOffset"), 0.0);

  // The mark before the first line is dropped; the others count from the
  // first shot of block 0: shot 6, and block 1's shot 2 after 8 shots. Line 1
  // counts from block 1; it stays open (count 0).
  const std::vector<test::EntryRow> rows = {{-1, 0, 0, -1, 5, -1, {}},
                                            {0, 0, 5, 1, 7, 12 + 5 * 12 + 4, {6, 10}},
                                            {1, 1, 4, 0, 0, 12 + 4 * 12 + 4, {6 + 1}}};
  EXPECT_EQ(test::EntryRows(m), rows);

  // Sixteen equal samples: one bin of width 0, and every index falls into it.
  EXPECT_EQ(m.returnCounts, (std::vector<std::uint64_t>{16, 0, 0, 0}));
  EXPECT_EQ(m.validSampleCount, 16u);
  // r = 9.7560 m, x = r / 6.1 - 6.1 / r = 0.97409; 0.43 x (x^2 + 2.3) x 500.
  EXPECT_EQ(m.minNormalizedIntensity, 698.5035835149544);
  EXPECT_EQ(m.maxNormalizedIntensity, 698.5035835149544);
  EXPECT_EQ(std::make_tuple(m.numberOfBins, m.binWidth, m.intensityAt95), std::make_tuple(1, 0.0, 0.0));
}

// A block that declares more shots than it holds: the walk ends at the block's
// end (the zero bytes after the shots read as empty shots of direction 0).
TEST_F(ScanMapBuild, DeclaredShotCountBeyondTheBlockEndsAtItsEnd) {
  FifoBlockBuilder block = Block({1, 1});
  block.shotCount(8191);
  OwnedMap owned;
  ASSERT_EQ(GetScanFileMap(Scan({block, Block({0})}).c_str(), owned.map), 0);
  EXPECT_EQ(owned.map.maxShotsPerBlock, 8191);
  // 2 shots, then (65536 - 12 - 24) / 8 = 8187 empty ones that start line 0.
  EXPECT_EQ(owned.map.numberOfScanLines, 1);
  EXPECT_EQ(owned.map.scanLines.at(-1).shotCount, 2);
  EXPECT_EQ(owned.map.shotsInCurrentLine, 8186 + 1);
  EXPECT_EQ(owned.map.validSampleCount, 3u);
}

TEST_F(ScanMapBuild, ConstantDirectionIndexesNoLine) {
  OwnedMap owned;
  const std::wstring name = Scan({Block({1, 1, 1}, {0, 2}), Block({1, 1})});
  const long descriptors = test::OpenDescriptorCount();
  ASSERT_EQ(GetScanFileMap(name.c_str(), owned.map), 0);
  EXPECT_EQ(test::OpenDescriptorCount(), descriptors);
  EXPECT_EQ(owned.map.numberOfScanLines, 0);
  EXPECT_TRUE(owned.map.scanLines.empty());
  EXPECT_EQ(owned.map.maxShotsPerLine, 0);
  EXPECT_EQ(owned.map.shotsInCurrentLine, 4);
}

struct BlockCountCase {
  int blocks;
  std::int32_t blockCount;
};

class ScanMapBlockCount : public ScanMapBuild, public ::testing::WithParamInterface<BlockCountCase> {};

// The count is raised only when it is below the block number, not its successor.
TEST_P(ScanMapBlockCount, RoundsTheTotalDownToEven) {
  OwnedMap owned;
  const std::vector<FifoBlockBuilder> blocks(static_cast<std::size_t>(GetParam().blocks), Block({0}));
  ASSERT_EQ(GetScanFileMap(Scan(blocks, 500).c_str(), owned.map), 0);
  EXPECT_EQ(owned.map.blockCount, GetParam().blockCount);
  EXPECT_EQ(owned.map.dataSize, static_cast<std::uint64_t>(std::int64_t{GetParam().blockCount} * 65536 - 1024));
}

INSTANTIATE_TEST_SUITE_P(Blocks, ScanMapBlockCount,
                         ::testing::Values(BlockCountCase{1, 0}, BlockCountCase{2, 2},
                                           BlockCountCase{3, 2}, BlockCountCase{4, 4}, BlockCountCase{5, 4}));

// The 360-degree scanner's direction is the parity of the scan encoder's falls;
// the recorded bit is ignored.
struct EncoderCase {
  const char* name;
  std::vector<std::uint32_t> encoder;
  std::int32_t lines;
  std::vector<std::int32_t> lineFlags;   // entries 0, 1, ...
  std::vector<std::int32_t> shotCounts;  // entries -1, 0, 1, ...
  std::uint32_t parity;
};

class ScanMapEncoder : public ScanMapBuild, public ::testing::WithParamInterface<EncoderCase> {};

TEST_P(ScanMapEncoder, DerivesTheDirection) {
  const EncoderCase& t = GetParam();
  FifoBlockBuilder block;
  for (std::size_t i = 0; i < t.encoder.size(); ++i) {
    block.shot(MapShot(static_cast<std::uint32_t>(i % 2), 1, kT0, 0, 0, t.encoder[i]), kOneReturn);
  }
  writers::HeaderBlockFields header;
  header.signature = "MX700DAT";
  OwnedMap owned;
  ScanFileMap& m = owned.map;
  ASSERT_EQ(GetScanFileMap(Scan({block}, 0, header).c_str(), m), 0);
  EXPECT_EQ(m.numberOfScanLines, t.lines);
  std::vector<std::int32_t> flags, counts;
  for (const auto& row : test::EntryRows(m)) {
    if (std::get<0>(row) >= 0) flags.push_back(std::get<3>(row));
    counts.push_back(std::get<4>(row));
  }
  EXPECT_EQ(flags, t.lineFlags);
  EXPECT_EQ(counts, t.shotCounts);
  EXPECT_EQ(m.lastEncoderValue, t.encoder.back());
  EXPECT_EQ(m.encoderWrapParity, t.parity);
}

INSTANTIATE_TEST_SUITE_P(
    Encoders, ScanMapEncoder,
    ::testing::Values(
        // Every value below the last (the first below the start value 131072): one-shot lines.
        EncoderCase{"FallingAtEveryShot", {5000, 4000, 3000, 2000, 1000}, 4, {1, 0, 1, 0}, {1, 1, 1, 1, 0}, 1},
        // One wrap of the encoder: one change.
        EncoderCase{"OneWrap", {200000, 250000, 10000, 20000}, 1, {0}, {2, 0}, 1},
        // Rising all the way from above the start value: the direction never changes.
        EncoderCase{"Rising", {140000, 150000, 160000}, 0, {}, {}, 0}),
    [](const auto& info) { return std::string(info.param.name); });

// One block whose shots exercise every part of the sample rule:
//  s1: one return, 3126 counts, intensity 1000;
//  s2: an invalid return (stop = T0) and one at 10000 counts, intensity 2000;
//  s3: one return out of range (20 counts = 3.9 cm) and one at 20000 counts, intensity 300;
//  s4: no return;
//  s5: five returns (position 4 has no counter): intensity 0 (value 0), 600, 3000, 1500 and
//      4095 at 150000 counts (292.7 m), the largest value.
FifoBlockBuilder StatisticsBlock() {
  FifoBlockBuilder block;
  block.shot(MapShot(0, 1, kT0), {ReturnWord(kT0 + 3126, 1000)});
  block.shot(MapShot(0, 2, kT0), {ReturnWord(kT0, 700), ReturnWord(kT0 + 10000, 2000)});
  block.shot(MapShot(0, 2, kT0), {ReturnWord(kT0 + 20, 900), ReturnWord(kT0 + 20000, 300)});
  block.shot(MapShot(0, 0, kT0));
  block.shot(MapShot(0, 5, kT0), {ReturnWord(kT0 + 1000, 0), ReturnWord(kT0 + 40000, 600),
                                  ReturnWord(kT0 + 60000, 3000), ReturnWord(kT0 + 80000, 1500),
                                  ReturnWord(kT0 + 150000, 4095)});
  return block;
}

struct StatisticsCase {
  const char* name;
  std::string parameterFile;  // "" for none
  double a1, a5, gamma;
  std::int32_t bins;
  double largest;   // s5's last return: 4095 at 150000 counts
  double binWidth;  // largest / bins
  double at95;      // the upper edge of the bin of the seventh smallest value
};

class ScanMapStatistics : public ScanMapBuild, public ::testing::WithParamInterface<StatisticsCase> {};

TEST_P(ScanMapStatistics, FollowTheSampleRule) {
  const StatisticsCase& t = GetParam();
  if (!t.parameterFile.empty()) test::WriteFile(path("scan.raw.NormalizationParams.txt"), t.parameterFile);
  OwnedMap owned;
  ScanFileMap& m = owned.map;
  ASSERT_EQ(GetScanFileMap(Scan({StatisticsBlock()}).c_str(), m), 0);

  EXPECT_EQ(m.maxReturnsPerShot, 5);
  EXPECT_EQ(m.returnCounts, (std::vector<std::uint64_t>{2, 3, 1, 1}));
  EXPECT_EQ(m.validSampleCount, 7u);  // s1, s3's in-range return, s5's five
  EXPECT_EQ(m.a1, t.a1);
  EXPECT_EQ(m.a5, t.a5);
  EXPECT_EQ(m.gamma, t.gamma);
  EXPECT_EQ(m.minNormalizedIntensity, 0.0);
  EXPECT_EQ(m.maxNormalizedIntensity, t.largest);
  EXPECT_EQ(m.numberOfBins, t.bins);
  EXPECT_EQ(m.binWidth, t.binWidth);
  // Eight samples are binned (s2's valid return too) against seven counted:
  // each is 1/7, so the running sum reaches 0.95 at the seventh smallest, s5's
  // 3000 at 60000 counts.
  EXPECT_EQ(m.intensityAt95, t.at95);
}

// Range r of d counts: d x 13.020833333333334e-12 x 0.5 x 299704764.3859407 m;
// value 0.43 (x^2 + 2.3) base with x = r / 6.1 - 6.1 / r and base (i / 200)^4
// (a file's model: a1 100, a2 2, a3 1, a4 0.5, a5 10). The default bin count
// is the cap, 100000000; the seventh value lies in bin 4612001 (348 with the
// file's 4096 bins), whose upper edge is (bin + 1) x binWidth.
constexpr double kLargest = 173999692.64037836;
constexpr double kWidth = 1.7399969264037836;
constexpr double kAt95 = 8024869.304568103;

INSTANTIATE_TEST_SUITE_P(
    Files, ScanMapStatistics,
    ::testing::Values(
        StatisticsCase{"NoParameterFile", "", 200, 6.1, 0.5, 100000000, kLargest, kWidth, kAt95},
        StatisticsCase{"ModelAndBinsFromTheFile", "a1 100\na2 2\na3 1\na4 0.5\na5 10\ngamma 0.7\nnumberOfBins 4096\n",
                       100, 10, 0.7, 4096, 1433952.0804620357, 350.0859571440517, 122179.99904327405},
        StatisticsCase{"ZeroBinsFallBackToTheComputedCount", "numberOfBins = 0\n", 200, 6.1, 0.5, 100000000, kLargest,
                       kWidth, kAt95},
        StatisticsCase{"NegativeBinsFallBack", "numberOfBins -12\n", 200, 6.1, 0.5, 100000000, kLargest, kWidth, kAt95},
        StatisticsCase{"HugeBinsFallBack", "numberOfBins 1e20\n", 200, 6.1, 0.5, 100000000, kLargest, kWidth, kAt95}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(ScanMapBuild, RangeOffsetMovesTheLimitsButNotTheModel) {
  writers::HeaderBlockFields header;
  header.calibrationText = "rangeOffset = 1.5\n";
  FifoBlockBuilder block;
  // 20 counts (3.9 cm) is in range once 1.5 m are added; 1045500 counts (2039.98 m) is not.
  block.shot(MapShot(0, 2, kT0), {ReturnWord(kT0 + 20, 1200), ReturnWord(kT0 + 1045500, 100)});
  OwnedMap owned;
  ASSERT_EQ(GetScanFileMap(Scan({block}, 0, header).c_str(), owned.map), 0);
  EXPECT_EQ(owned.map.returnCounts, (std::vector<std::uint64_t>{1, 0, 0, 0}));
  EXPECT_EQ(owned.map.validSampleCount, 1u);
  // 20 counts: r = 0.039024 m, x = -156.31; 0.43 (x^2 + 2.3) (1200 / 200)^4.
  EXPECT_EQ(owned.map.maxNormalizedIntensity, 13616754.459912246);
}

TEST_F(ScanMapBuild, ReusedRecordGoesOnCountingReturns) {
  const std::wstring name = Scan({Block({0, 1, 1})});
  OwnedMap owned;
  ASSERT_EQ(GetScanFileMap(name.c_str(), owned.map), 0);
  owned.map.scanLines[40].shotCount = 1;
  ASSERT_EQ(GetScanFileMap(name.c_str(), owned.map), 0);
  EXPECT_EQ(owned.map.returnCounts, (std::vector<std::uint64_t>{6, 0, 0, 0}));
  EXPECT_EQ(owned.map.validSampleCount, 3u);
  EXPECT_EQ(owned.map.scanLines.size(), 2u);
}

TEST_F(ScanMapBuild, MissingScanFileFailsAfterInitialising) {
  OwnedMap owned;
  ScanFileMap& m = owned.map;
  m.mapVersion = 9;
  m.scanLines[3].shotCount = 1;
  EXPECT_EQ(GetScanFileMap(L"absent.raw", m), -1);
  const auto entries = logEntries();
  ASSERT_FALSE(entries.empty());
  EXPECT_EQ(entries.back().context, "int GetScanFileMap(const char *input_data, ScanFileMap &scanFileMap)");
  EXPECT_EQ(entries.back().message, "Error ReadFileHeader failed");
  EXPECT_EQ(entries.back().details, std::vector<std::string>{"a"});
  EXPECT_EQ(m.mapVersion, 9);
  EXPECT_EQ(m.numberOfScanLines, -1);
  EXPECT_TRUE(m.scanLines.empty());
}

// Without one fully valid shot the range is 0 minus the largest double: the
// computed count is the most negative integer plus one, and no histogram exists.
TEST_F(ScanMapBuild, NoValidShotFailsOnTheHistogram) {
  FifoBlockBuilder block;
  block.shot(MapShot(0, 1, kT0), {ReturnWord(kT0, 100)});
  block.shot(MapShot(1, 0, kT0));
  OwnedMap owned;
  ScanFileMap& m = owned.map;
  const std::wstring name = Scan({block});
  const long descriptors = test::OpenDescriptorCount();
  ASSERT_EQ(GetScanFileMap(name.c_str(), m), -1);
  EXPECT_EQ(test::OpenDescriptorCount(), descriptors);  // nothing could reach the stream: it is closed
  const auto entries = logEntries();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].context, "int GetScanFileMap(const char *input_data, ScanFileMap &scanFileMap)");
  EXPECT_EQ(entries[0].message, "Memory allocation failed for Histogram ");
  EXPECT_EQ(entries[0].details, std::vector<std::string>{"numberOfBins : -2147483647"});
  EXPECT_EQ(m.numberOfBins, -2147483647);
  EXPECT_EQ(m.mapVersion, 0);
  EXPECT_EQ(m.histogram, nullptr);
  EXPECT_EQ(m.numberOfScanLines, 1);  // the first pass had run
  EXPECT_STREQ(m.scanFileName, "");
}

}  // namespace
}  // namespace kvr
