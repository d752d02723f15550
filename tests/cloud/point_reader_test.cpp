// The points of a scan: each column of a return worked out by hand, the
// selections, and splits of a scan that must give the whole scan's points.

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <tuple>

#include "cloud/small_scan.h"
#include "kvr_decode/cloud/error.h"
#include "kvr_decode/cloud/scan.h"
#include "kvr_simulator/scan_set.h"

namespace kvr::cloud {
namespace {

using test::TempDir;

class SmallScan : public ::testing::Test {
 protected:
  SmallScan() : scan_(test::WriteSmallScan(dir_)) {}
  TempDir dir_;
  Scan scan_;
};

TEST_F(SmallScan, EveryColumnOfAPointIsTheReturnsOwn) {
  PointReader reader(scan_);
  PointBatch batch;
  ASSERT_TRUE(reader.next(batch));
  EXPECT_EQ(batch.block(), 0u);
  EXPECT_FALSE(batch.timeOfWeek());
  // Shot 0's two returns, shot 1's second, shot 2's three: the stop before T0 is no point.
  ASSERT_EQ(batch.size(), 6u);
  EXPECT_EQ(reader.tally().withoutRange, 1u);
  // Shot 0, return 1: 768 counts, 1.4985238219297035 m, plus the offset 0.5 m; pan 0 and a
  // horizontal scan put it on the x axis.
  EXPECT_DOUBLE_EQ(batch.range()[0], 1.9985238219297035);
  EXPECT_DOUBLE_EQ(batch.x()[0], 1.9985238219297035);
  EXPECT_EQ(batch.y()[0], 0.0);
  EXPECT_EQ(batch.z()[0], 0.0);
  EXPECT_EQ(batch.pan()[0], 0.0);
  EXPECT_EQ(batch.scanAngle()[0], 0.0);
  // 0.43 ((r / 6.1 - 6.1 / r)^2 + 2.3) x 500 at r = 1.4985... (no offset).
  EXPECT_NEAR(batch.normalizedIntensity()[0], 3640.1058372149987, 1e-9);
  // Intensity 2000 has the base (2000 / 200)^4 = 10000.
  EXPECT_NEAR(batch.normalizedIntensity()[1], 20141.15133130112, 1e-8);
  EXPECT_EQ(batch.intensity()[0], 500u);
  EXPECT_EQ(batch.intensity()[1], 2000u);
  EXPECT_EQ(batch.returnNumber()[1], 2u);
  EXPECT_EQ(batch.numberOfReturns()[1], 2u);
  // Shot 1's second return keeps its number.
  EXPECT_EQ(batch.returnNumber()[2], 2u);
  EXPECT_EQ(batch.intensity()[2], 12u);
  EXPECT_EQ(batch.shotIndex()[2], 1u);
  // Shot 2: a quarter turn of pan (160000 counts) puts it on the y axis.
  EXPECT_NEAR(batch.x()[3], 0.0, 1e-15);
  EXPECT_DOUBLE_EQ(batch.y()[3], 1.9985238219297035);
  EXPECT_DOUBLE_EQ(batch.pan()[3], 1.5707963267948966);
  EXPECT_EQ(batch.flags()[3], 5u);
  EXPECT_EQ(batch.flags()[0], 0u);
  EXPECT_EQ(batch.panCounts()[3], 160000u);
  EXPECT_EQ(batch.scanCounts()[3], 131072u);
  EXPECT_EQ(batch.flightCounts()[3], 768u);
  EXPECT_EQ(batch.numberOfReturns()[3], 3u);
  // A stop count equal to T0: range 0 (the offset alone), no normalized intensity.
  EXPECT_EQ(batch.range()[4], 0.5);
  EXPECT_EQ(batch.normalizedIntensity()[4], 0.0);
  EXPECT_NEAR(batch.normalizedIntensity()[5], 174331.04233963246, 1e-6);
  // Block 1: shot index counted on from block 0's four shots.
  ASSERT_TRUE(reader.next(batch));
  EXPECT_EQ(batch.block(), 1u);
  ASSERT_EQ(batch.size(), 1u);
  EXPECT_EQ(batch.shotIndex()[0], 4u);
  EXPECT_NEAR(batch.normalizedIntensity()[0], 0.43 * 100 * (std::pow(1.4985238219297035 / 6.1 - 6.1 / 1.4985238219297035, 2) + 2.3), 1e-9);
  EXPECT_FALSE(reader.next(batch));
  EXPECT_EQ(reader.tally().blocks, 2u);
  EXPECT_EQ(reader.tally().shots, 5u);
}

TEST_F(SmallScan, SelectionsKeepTheirReturns) {
  const double inf = std::numeric_limits<double>::infinity();
  const struct {
    Returns returns;
    double nearLimit, farLimit;
    std::vector<std::uint16_t> intensities;  // of the points, blocks 0 and 1
  } cases[] = {
      {Returns::kAll, -inf, inf, {500, 2000, 12, 300, 4095, 100}},  // a window leaves out range 0
      {Returns::kFirst, -inf, inf, {500, 300, 100}},  // shot 1's first return has no range
      {Returns::kLast, -inf, inf, {2000, 12, 4095, 100}},
      // (r + 0.5) in (2.0, 6.36]: the 1536 and 3000 count returns (3.497... and 6.3536... m).
      {Returns::kAll, 2.0, 6.36, {2000, 4095}},
      {Returns::kAll, 1.9985238219297035, 3.497047643859407, {2000}},  // the near limit is open, the far closed
      {Returns::kLast, 3.5, inf, {4095}},
  };
  for (const auto& c : cases) {
    Selection selection;
    selection.returns = c.returns;
    selection.nearLimit = c.nearLimit;
    selection.farLimit = c.farLimit;
    PointReader reader(scan_, selection);
    std::vector<std::uint16_t> intensities;
    for (const PointBatch& batch : test::ReadAll(reader)) {
      intensities.insert(intensities.end(), batch.intensity().begin(), batch.intensity().end());
    }
    EXPECT_EQ(intensities, c.intensities) << static_cast<int>(c.returns) << " " << c.nearLimit;
  }
}

TEST_F(SmallScan, LineRangeKeepsTheShotsOfItsLines) {
  // Lines begin where the direction flips: shot 2 of block 0 and shot 0 of block 1.
  const ScanFileMap& map = scan_.map();
  ASSERT_GE(map.numberOfScanLines, 2);
  PointReader whole(scan_);
  std::vector<std::int32_t> lines;
  for (const PointBatch& batch : test::ReadAll(whole)) lines.insert(lines.end(), batch.line().begin(), batch.line().end());
  EXPECT_EQ(lines, (std::vector<std::int32_t>{-1, -1, -1, 0, 0, 0, 1}));
  const struct {
    std::int32_t first, last;
    std::size_t points;
    std::uint64_t firstBlock, lastBlock;
  } cases[] = {{0, 1, 3, 0, 1}, {1, 2, 1, 1, 2}, {0, 2, 4, 0, 2}, {-1, 0, 3, 0, 1}, {5, 9, 0, 2, 2}};
  for (const auto& c : cases) {
    Selection selection;
    selection.firstLine = c.first;
    selection.lastLine = c.last;
    PointReader reader(scan_, selection);
    std::size_t points = 0;
    for (const PointBatch& batch : test::ReadAll(reader)) points += batch.size();
    EXPECT_EQ(points, c.points) << c.first << " " << c.last;
    EXPECT_EQ(reader.firstBlock(), c.firstBlock) << c.first;
    EXPECT_EQ(reader.lastBlock(), c.lastBlock) << c.last;
  }
}

// x towards pan 0, y a quarter turn on, z up; the scan angle as each scanner
// model counts it. One return of 768 counts: r = 1.4985238219297035 + 0.5 m.
TEST(PointReaderAxes, PointsFollowTheAxisConventionOfEachScanner) {
  const struct {
    const char* magic;
    std::uint32_t pan, scan;
    double x, y, z;  // the direction
  } cases[] = {
      {"#KVRSCAN", 0, 131072, 1.0, 0.0, 0.0},                // level, pan 0
      {"#KVRSCAN", 160000, 131072, 0.0, 1.0, 0.0},           // pan 90 degrees
      {"#KVRSCAN", 320000, 262143, -0.707109, 0.0, 0.7071025},  // pan 180, scan 45 degrees less a count
      {"#MX70DAT", 0, 196608, 0.9238795, 0.0, 0.3826835},    // scan 22.5 degrees
      {"MX700DAT", 0, 65536, 0.0, 0.0, 1.0},                 // 360-degree scanner: 90 degrees up
      {"MX700DAT", 480000, 131072, 0.0, 1.0, 0.0},           // pan 270, scan 180: -1 x -1
  };
  const double r = 1.9985238219297035;
  for (const auto& c : cases) {
    TempDir dir;
    writers::HeaderBlockFields header;
    header.signature = c.magic;
    header.calibrationText = "rangeOffset = 0.5\n";
    writers::FifoBlockBuilder block;
    block.timeStamp(50000000).shot(writers::ShotWord({c.pan, c.scan, 1, 100, 0, 0}), {writers::ReturnWord(868, 500)});
    test::WriteFile(dir / "axes.raw", writers::BuildScanFile(header, block.build()));
    const Scan scan(dir / "axes.raw");
    Selection selection;
    selection.columns = kPositionColumns;
    PointReader reader(scan, selection);
    PointBatch batch;
    ASSERT_TRUE(reader.next(batch));
    ASSERT_EQ(batch.size(), 1u) << c.magic << " " << c.pan << " " << c.scan;
    EXPECT_NEAR(batch.x()[0], c.x * r, 1e-5) << c.magic << " " << c.pan << " " << c.scan;
    EXPECT_NEAR(batch.y()[0], c.y * r, 1e-5) << c.magic << " " << c.pan << " " << c.scan;
    EXPECT_NEAR(batch.z()[0], c.z * r, 1e-5) << c.magic << " " << c.pan << " " << c.scan;
  }
}

TEST(ScanRefusals, NameTheFileAndTheFault) {
  const TempDir dir;
  test::WriteFile(dir / "ticks.raw", std::string_view("#KVRSERL\x01\0\0\0\0\0\0\0", 16));
  test::WriteFile(dir / "short.raw", std::string_view("#KVR", 4));
  std::filesystem::create_directory(dir / "folder.raw");
  const std::filesystem::path missing = dir / "missing.raw";
  EXPECT_THROW(Scan{missing}, MissingFileError);
  const struct {
    const char* name;
    std::string message;
  } cases[] = {
      {"missing.raw", "missing.raw: no such file"},
      {"folder.raw", "folder.raw: is a directory, not a file"},
      {"short.raw", "short.raw: too short for a scan file header (4 bytes)"},
      {"ticks.raw", "ticks.raw: not a raw scan file: its magic is \"#KVRSERL\", expected #KVRSCAN, #MX70DAT or MX700DAT"},
  };
  for (const auto& c : cases) {
    try {
      Scan scan(dir / c.name);
      ADD_FAILURE() << c.name << " opened";
    } catch (const Error& error) {
      EXPECT_EQ(error.what(), (dir / c.name).string() + ": " + c.message.substr(c.message.find(": ") + 2)) << c.name;
      EXPECT_EQ(error.path(), dir / c.name);
    }
  }
}

TEST(ScanRefusals, MapOfAnotherScanIsRefused) {
  const TempDir dir;
  const std::filesystem::path small = test::WriteSmallScan(dir);
  writers::HeaderBlockFields otherHeader;
  otherHeader.dataOffset = 2048;
  test::WriteFile(dir / "other.raw", writers::BuildScanFile(otherHeader, std::vector<std::uint8_t>(65536, 0)));
  {
    Scan scan(small);
    std::wstring name = test::WideName(dir / "small.map");
    ASSERT_EQ(SaveScanFileMap(name.data(), const_cast<ScanFileMap&>(scan.map())), 0);
  }
  ScanOptions options;
  options.map = dir / "small.map";
  EXPECT_TRUE(Scan(small, options).mapLoaded());
  Scan other(dir / "other.raw", options);
  try {
    other.map();
    ADD_FAILURE() << "a foreign map was taken";
  } catch (const InputError& error) {
    EXPECT_EQ(std::string(error.what()),
              (dir / "small.map").string() + ": not the map of " + (dir / "other.raw").string() +
                  " (its header or data offset differ)");
  }
  // The same instrument's header: a scan two blocks longer, and one with another id value.
  std::vector<std::uint8_t> longer = test::ReadFileBytes(small);
  longer.resize(longer.size() + 2 * 65536, 0);
  test::WriteFile(dir / "longer.raw", longer);
  std::vector<std::uint8_t> renamed = test::ReadFileBytes(small);
  renamed[68] ^= 1;  // idValue
  test::WriteFile(dir / "renamed.raw", renamed);
  const struct {
    const char* name;
    std::string reason;
  } foreign[] = {{"longer.raw", " (it covers 2 blocks, a map of the scan 4)"},
                 {"renamed.raw", " (its header or data offset differ)"}};
  for (const auto& c : foreign) {
    try {
      Scan(dir / c.name, options).map();
      ADD_FAILURE() << c.name << ": a foreign map was taken";
    } catch (const InputError& error) {
      EXPECT_EQ(std::string(error.what()),
                (dir / "small.map").string() + ": not the map of " + (dir / c.name).string() + c.reason);
    }
  }
}

// A simulated room read as one range, as ranges of every length and from two
// threads' readers gives the same batches, block by block.
TEST(PointReaderSplits, AnySplitGivesTheWholeScansPoints) {
  const TempDir dir;
  sim::SimulationOptions options;
  options.lines = 40;
  sim::WriteScanSet(dir.path(), options);
  const Scan scan(dir / "scan.raw");
  ASSERT_GT(scan.blockCount(), 6u);
  PointReader whole(scan);
  const std::vector<PointBatch> expected = test::ReadAll(whole);
  ASSERT_EQ(expected.size(), scan.blockCount());
  const auto same = [](const PointBatch& a, const PointBatch& b) {
    const auto equal = [](auto x, auto y) { return std::equal(x.begin(), x.end(), y.begin(), y.end()); };
    return a.block() == b.block() && equal(a.x(), b.x()) && equal(a.y(), b.y()) && equal(a.z(), b.z()) &&
           equal(a.range(), b.range()) && equal(a.normalizedIntensity(), b.normalizedIntensity()) &&
           equal(a.intensity(), b.intensity()) && equal(a.returnNumber(), b.returnNumber()) &&
           equal(a.numberOfReturns(), b.numberOfReturns()) && equal(a.line(), b.line()) &&
           equal(a.shotIndex(), b.shotIndex()) && equal(a.time(), b.time()) && equal(a.flags(), b.flags()) &&
           equal(a.pan(), b.pan()) && equal(a.scanAngle(), b.scanAngle());
  };
  for (const std::uint64_t step : {1u, 2u, 3u, 5u}) {
    std::vector<PointBatch> pieces;
    PointReader moved(scan, 0, 0);
    for (std::uint64_t first = 0; first < scan.blockCount(); first += step) {
      PointReader reader(scan, first, first + step);
      for (PointBatch& batch : test::ReadAll(reader)) pieces.push_back(std::move(batch));
    }
    ASSERT_EQ(pieces.size(), expected.size()) << step;
    for (std::size_t b = 0; b < pieces.size(); ++b) EXPECT_TRUE(same(pieces[b], expected[b])) << step << " " << b;
  }
  // One reader moved from range to range, backwards, taking runs of shots;
  // a move in the middle of a block leaves the rest of it.
  PointReader moved(scan, 0, 0);
  PointBatch batch;
  for (std::uint64_t b = scan.blockCount(); b-- > 0;) {
    moved.setBatchShots(0);
    moved.moveTo(b, b + 1);
    ASSERT_TRUE(moved.next(batch));
    EXPECT_TRUE(same(batch, expected[b])) << b;
    EXPECT_FALSE(moved.next(batch));
    moved.setBatchShots(5);
    moved.moveTo(b, b + 1);
    ASSERT_TRUE(moved.next(batch));
  }
}

// Batches of runs of a block's shots, put end to end, are the block's batch.
TEST(PointReaderSplits, RunsOfShotsPutTogetherAreTheBlocksPoints) {
  const TempDir dir;
  sim::SimulationOptions options;
  options.lines = 12;
  sim::WriteScanSet(dir.path(), options);
  const Scan scan(dir / "scan.raw");
  PointReader whole(scan);
  const std::vector<PointBatch> blocks = test::ReadAll(whole);
  const auto point = [](const PointBatch& b, std::size_t i) {
    return std::tuple(b.x()[i], b.y()[i], b.z()[i], b.range()[i], b.normalizedIntensity()[i], b.intensity()[i],
                      b.returnNumber()[i], b.numberOfReturns()[i], b.line()[i], b.shotIndex()[i], b.time()[i],
                      b.flags()[i], b.pan()[i], b.scanAngle()[i], b.panCounts()[i], b.scanCounts()[i],
                      b.flightCounts()[i]);
  };
  for (const std::size_t shots : {1u, 7u, 256u}) {
    PointReader reader(scan);
    reader.setBatchShots(shots);
    const std::vector<PointBatch> runs = test::ReadAll(reader);
    std::size_t r = 0;
    for (const PointBatch& block : blocks) {
      std::size_t at = 0;
      for (; r < runs.size() && runs[r].block() == block.block(); ++r) {
        for (std::size_t i = 0; i < runs[r].size(); ++i, ++at) {
          ASSERT_LT(at, block.size()) << shots;
          ASSERT_EQ(point(runs[r], i), point(block, at)) << shots << " block " << block.block() << " point " << at;
        }
      }
      EXPECT_EQ(at, block.size()) << shots << " block " << block.block();
    }
    EXPECT_EQ(r, runs.size()) << shots;
    // A run's points come from at most `shots` consecutive shots.
    for (const PointBatch& run : runs) {
      if (!run.empty()) {
        EXPECT_LT(run.shotIndex().back() - run.shotIndex().front(), shots) << shots;
      }
    }
    EXPECT_EQ(reader.tally().shots, whole.tally().shots) << shots;
  }
}

}  // namespace
}  // namespace kvr::cloud
