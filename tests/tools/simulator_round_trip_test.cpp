// Decoding a simulated scan set with the library gives back what was simulated.
#include <gtest/gtest.h>


#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <numbers>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "kvr_decode/camera_file.h"
#include "kvr_decode/conversions.h"
#include "kvr_decode/device_data.h"
#include "kvr_decode/fifo_block.h"
#include "kvr_decode/file_header.h"
#include "kvr_decode/nmea_ticks_manager.h"
#include "kvr_decode/optical_model.h"
#include "kvr_decode/scan_file_map.h"
#include "kvr_simulator/scan_set.h"
#include "support/stdout_capture.h"
#include "support/temp_dir_test_base.h"

namespace kvr {
namespace {

using sim::ScannerKind;

constexpr double kDegrees = 0.017453292519943295;
constexpr double kPanCount = 0.0005625 * kDegrees;
constexpr double kScanCount90 = 0.00034332275390625 * kDegrees;
constexpr double kScanCount360 = 0.001373291015625 * kDegrees;
constexpr double kRangeCount = 0.0019512028931376346;  // metres

struct SetCase {
  const char* name;
  ScannerKind kind;
  const char* signature;
  std::uint32_t prf;
  std::uint64_t seed;
  sim::RoomSize room;
  std::uint32_t lines;
};

void PrintTo(const SetCase& c, std::ostream* os) { *os << c.name; }

// Scans of 20 to 40 lines of 1000 shots: a few blocks each, seconds long.
sim::SimulationOptions Options(const SetCase& c) {
  sim::SimulationOptions o;
  o.seed = c.seed;
  o.kind = c.kind;
  o.signature = c.signature;
  o.prf = c.prf;
  o.lines = c.lines;
  o.linesPerSecond = c.prf;  // 1000 shots per line
  o.room = c.room;
  o.cameraImages = 3;
  o.threads = 2;
  return o;
}

// A scan file opened with the library; every block decoded in turn.
class DecodedScan {
 public:
  explicit DecodedScan(const std::filesystem::path& scan) {
    stream_ = ReadFileHeader(test::WideName(scan).c_str(), header);
  }
  ~DecodedScan() {
    if (stream_ != nullptr) std::fclose(stream_);
    ReleaseFileHeader(header);
  }
  bool open() const { return stream_ != nullptr; }
  std::FILE** stream() { return &stream_; }

  // Calls visit(blockNumber, block) for each block; returns the number of blocks.
  template <class Visit>
  int Walk(NmeaTicksManager* ticks, Visit visit) {
    FifoBlock block;
    int n = 0;
    while (DecodeNextFifoBlock(&stream_, header, n, block, ticks) >= 0) visit(n++, block);
    return n;
  }

  RawFileHeader header;

 private:
  std::FILE* stream_ = nullptr;
};

class SimulatedSet : public test::InTempDir, public testing::WithParamInterface<SetCase> {
 protected:
  void SetUp() override { summary = sim::WriteScanSet(dir() / "set", Options(GetParam()), &truth); }

  sim::ScanRecorder truth;
  sim::ScanSetSummary summary;
};

// Collects mismatches without flooding the output: the count and the first one.
class Mismatches {
 public:
  void Check(bool ok, const std::string& what) {
    if (!ok && count_++ == 0) first_ = what;
  }
  void Expect() const { EXPECT_EQ(count_, 0u) << "first: " << first_; }

 private:
  std::size_t count_ = 0;
  std::string first_;
};

TEST_P(SimulatedSet, EveryReturnDecodesToTheSimulatedRay) {
  DecodedScan scan(summary.files.scan);
  ASSERT_TRUE(scan.open());
  EXPECT_EQ(scan.header.prf, GetParam().prf);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(scan.header.signature), 8), summary.signature);
  test::StdoutCapture console;
  const OpticalModel::CalibrationParameters calibration = GetCalibrationParameters(scan.header);
  EXPECT_EQ(console.text(), "Optical model version 2\n");
  EXPECT_EQ(calibration.rangeOffset, static_cast<float>(summary.rangeOffset));
  const double rangeOffset = calibration.rangeOffset;
  const std::uint64_t signature = ScanSignature(scan.header);
  const bool ninety = GetParam().kind == ScannerKind::kNinetyDegree;

  Mismatches mismatches;
  std::uint64_t shots = 0, returns = 0;
  const int blocks = scan.Walk(nullptr, [&](int b, const FifoBlock& block) {
    ASSERT_LT(static_cast<std::size_t>(b), truth.blocks.size());
    EXPECT_EQ(block.CycleSyncTimeStamp, truth.blocks[b].timeStamp) << b;
    ASSERT_EQ(block.shots.size(), truth.blocks[b].shotCount) << b;
    for (const RawShot& shot : block.shots) {
      const sim::SimulatedShot& t = truth.shots[shots++].shot;
      std::ostringstream where;
      where << "shot " << t.index;
      mismatches.Check(shot.timeInCounts == t.ticks, where.str() + " time");
      mismatches.Check(shot.returns.size() == t.returnCount, where.str() + " return count");
      // The decoded angles lie within one encoder count of the continuous readings.
      const double panTruth = t.panCounts * kPanCount;
      const double elevation = t.elevationRadians < 0 && !ninety ? t.elevationRadians + 2 * std::numbers::pi : t.elevationRadians;
      const double scanStep = ninety ? kScanCount90 : kScanCount360;
      mismatches.Check(std::abs(CalculatePanAngle(shot.shotWord & 0xFFFFF) - panTruth) <= kPanCount,
                       where.str() + " pan angle");
      mismatches.Check(std::abs(CalculateScanAngle(shot.scanAngleCounts, signature) - elevation) <= scanStep,
                       where.str() + " scan angle");
      for (std::size_t r = 0; r < shot.returns.size() && r < t.returnCount; ++r) {
        double pan = 0, scanAngle = 0, range = 0;
        const bool placed = GetPolarTriplet(shot, static_cast<int>(r), pan, scanAngle, range) == 0;
        const std::string ret = where.str() + " return " + std::to_string(r);
        mismatches.Check(placed, ret + " not placed");
        mismatches.Check(std::abs(pan - panTruth) <= kPanCount, ret + " pan");
        // GetPolarTriplet reads every scan count on the 90-degree scale.
        mismatches.Check(std::abs(scanAngle - (t.scanCounts * 0.00034332275390625 - 45.0) * kDegrees) <= kScanCount90,
                         ret + " scan");
        mismatches.Check(
            std::abs(range + rangeOffset - t.returns[r].distance) <= kRangeCount,
            ret + " range " + std::to_string(range + rangeOffset) + " for " + std::to_string(t.returns[r].distance));
        mismatches.Check((shot.returns[r] >> 20) == t.returns[r].intensity, ret + " intensity");
        ++returns;
      }
    }
  });
  mismatches.Expect();
  EXPECT_EQ(static_cast<std::uint64_t>(blocks), summary.counts.blocks);
  EXPECT_EQ(shots, summary.counts.shots);
  EXPECT_EQ(returns, summary.counts.returns);
  EXPECT_EQ(summary.scanFileBytes, summary.dataOffset + summary.counts.blocks * 65536);
}

TEST_P(SimulatedSet, HeaderCarriesTheSimulatedCalibrationAndSideTable) {
  DecodedScan scan(summary.files.scan);
  ASSERT_TRUE(scan.open());
  test::StdoutCapture console;
  const OpticalModel::CalibrationParameters c = GetCalibrationParameters(scan.header);
  console.text();

  std::size_t prfIndex = 0;
  while (sim::kPrfs[prfIndex] != GetParam().prf) ++prfIndex;
  ASSERT_EQ(c.rangeTableValid, 1);
  const auto& table = summary.calibration.rangeTables[prfIndex];
  for (std::size_t i = 0; i < 4096; ++i) ASSERT_EQ(c.rangeTable[i], static_cast<float>(table[i].first)) << i;
  for (const std::uint32_t prf : sim::kPrfs) EXPECT_EQ(scan.header.prfTables.at(static_cast<int>(prf)).size(), 4096u);

  ASSERT_EQ(c.opticalModelVersion, 2);
  const double decoded[] = {c.a0,           c.a1,        c.a2,         c.a3,         c.a4,          c.a5,
                            c.a6,           c.smKappa,   c.panA,       c.panB,       c.wobbleOmega, c.wobbleOmegaA,
                            c.wobbleOmegaB, c.wobblePhi, c.wobblePhiA, c.wobblePhiB, c.wobblePhiS};
  ASSERT_EQ(summary.calibration.opticalModel.size(), std::size(decoded));
  for (std::size_t i = 0; i < std::size(decoded); ++i) {
    EXPECT_EQ(decoded[i], summary.calibration.opticalModel[i].second) << summary.calibration.opticalModel[i].first;
  }

  // Keys every 10 degrees resample to one column per degree; the text ends with
  // a line feed, so its last row is read twice.
  const SideTableGrid* grid = scan.header.sideTableGrid;
  ASSERT_NE(grid, nullptr);
  const sim::SideTableTruth& side = summary.sideTable;
  EXPECT_EQ(grid->keyOrigin, side.keys.front());
  EXPECT_EQ(grid->keyCount, side.keys.back() - side.keys.front() + 1);
  EXPECT_EQ(grid->rowOrigin, side.rowOrigin);
  EXPECT_EQ(grid->rowCount, static_cast<std::int32_t>(side.rows.size() + 1));
  for (std::size_t k = 0; k < side.keys.size(); ++k) {
    const auto& column = grid->columns.at(side.keys[k] - side.keys.front());
    for (std::size_t row = 0; row <= side.rows.size(); ++row) {
      ASSERT_EQ(column[row], side.rows[std::min(row, side.rows.size() - 1)][k + 1]) << side.keys[k] << " " << row;
    }
  }
}

TEST_P(SimulatedSet, BlockTimesOfWeekFollowTheSimulatedClock) {
  NmeaTicksManager* ticks = CreateNmeaTicksManager(test::WideName(summary.files.ticks).c_str(), 0);
  ASSERT_NE(ticks, nullptr);
  DecodedScan scan(summary.files.scan);
  ASSERT_TRUE(scan.open());
  Mismatches mismatches;
  const int blocks = scan.Walk(ticks, [&](int b, const FifoBlock& block) {
    ASSERT_FALSE(block.shots.empty());
    const double expected = summary.clock.TimeOfWeek(truth.blocks[b].timeStamp);
    // Pulses lie on whole ticks: the interpolation is off by at most half a tick.
    mismatches.Check(std::abs(block.shots[0].shotTow - expected) < 2e-8, "block " + std::to_string(b) + ": " +
                                                                             std::to_string(block.shots[0].shotTow) +
                                                                             " for " + std::to_string(expected));
  });
  DeleteNmeaTicksManager(ticks);
  mismatches.Expect();
  EXPECT_EQ(static_cast<std::uint64_t>(blocks), summary.counts.blocks);
}

TEST_P(SimulatedSet, DeviceFileDecodesToTheSimulatedTilt) {
  AncillaryDevicesData devices;
  test::StdoutCapture console;
  ASSERT_EQ(ReadDeviceDataInfo(test::WideName(summary.files.devices).c_str(), devices), 0);
  EXPECT_EQ(console.text(), "Device version 93\n");
  ASSERT_EQ(devices.type1Records.size(), summary.devices.inclinometerReadings);
  ASSERT_GT(devices.type1Records.size(), 0u);
  for (const DeviceRecord1& r : devices.type1Records) {
    EXPECT_NEAR(r.tiltX, summary.tiltXDegrees, 1e-6) << r.time;
    EXPECT_NEAR(r.tiltY, summary.tiltYDegrees, 1e-6) << r.time;
  }
  std::vector<std::uint64_t> type2Times, type7Times;
  std::vector<std::int32_t> nearest;
  for (const DeviceRecord2& r : devices.type2Records) {
    type2Times.push_back(r.time);
    nearest.push_back(r.nearestType7);
  }
  for (const DeviceRecord7& r : devices.type7Records) type7Times.push_back(r.time);
  EXPECT_EQ(type2Times, summary.devices.type2Times);
  EXPECT_EQ(type7Times, summary.devices.type7Times);
  EXPECT_EQ(nearest, summary.devices.nearestType7);
}

TEST_P(SimulatedSet, CameraImagesComeBackByteForByte) {
  CameraFileHeader header;
  std::FILE* stream = ReadCameraFileHeader(test::WideName(summary.files.camera).c_str(), header);
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(header.timeStampPresent, 1u);
  EXPECT_EQ(header.headerValue, summary.cameraImages.size());
  for (const sim::CameraImage& image : summary.cameraImages) {
    CameraFileRecord record;
    ASSERT_EQ(GetNextCameraFileRecord(&stream, header, record), 0);
    EXPECT_EQ(record.timeStamp, image.timeStamp);
    EXPECT_TRUE(std::equal(image.values.begin(), image.values.end(), record.recordValues));
    EXPECT_EQ(std::vector<std::uint8_t>(record.imageData, record.imageData + record.imageSize), image.bytes);
    ReleaseCameraFileRecord(record);
  }
  EXPECT_EQ(std::fgetc(stream), EOF);
  std::fclose(stream);
  ReleaseCameraFileHeader(header);
}

TEST_P(SimulatedSet, ScanFileMapFindsTheSimulatedLines) {
  const auto map = std::make_unique<ScanFileMap>();
  ASSERT_EQ(GetScanFileMap(test::WideName(summary.files.scan).c_str(), *map), 0);
  const std::vector<sim::SimulatedLine>& lines = truth.lines;
  ASSERT_EQ(lines.size(), GetParam().lines);
  // The shots before the first change of the direction bit (the line the file
  // starts in) are entry -1; line k is entry k - 1; the last line stays open.
  EXPECT_EQ(map->numberOfScanLines, static_cast<int>(lines.size()) - 1);
  ASSERT_EQ(map->scanLines.size(), lines.size());
  EXPECT_EQ(map->scanLines.at(-1).shotCount, static_cast<std::int32_t>(lines[0].shotCount));
  std::int32_t longest = static_cast<std::int32_t>(lines[0].shotCount);
  for (std::size_t k = 1; k < lines.size(); ++k) {
    const sim::SimulatedLine& line = lines[k];
    const bool last = k + 1 == lines.size();
    if (!last) longest = std::max(longest, static_cast<std::int32_t>(line.shotCount));
    // Event shots count from the first shot of the block the line begins in.
    std::vector<std::uint32_t> events;
    for (const std::uint64_t shot : line.eventShots) {
      events.push_back(static_cast<std::uint32_t>(shot - truth.blocks[line.block].firstShot));
    }
    const ScanLineEntry& e = map->scanLines.at(static_cast<std::int32_t>(k - 1));
    EXPECT_EQ(std::tie(e.blockNumber, e.shotIndexInBlock, e.lineFlag, e.shotCount, e.statusWordOffset, e.eventShots),
              std::make_tuple(line.block, line.shotInBlock, line.direction ? 1 : 0,
                              last ? 0 : static_cast<std::int32_t>(line.shotCount),
                              static_cast<std::int32_t>(line.offsetInBlock + 4), events))
        << "line " << k;
  }
  EXPECT_EQ(map->maxShotsPerLine, longest);

  std::uint16_t mostReturns = 0;
  std::vector<std::uint64_t> returnCounts(4, 0);
  for (const auto& [shot, placement] : truth.shots) {
    mostReturns = std::max<std::uint16_t>(mostReturns, static_cast<std::uint16_t>(shot.returnCount));
    for (std::uint32_t r = 0; r < shot.returnCount; ++r) ++returnCounts[r];
  }
  EXPECT_EQ(map->maxReturnsPerShot, mostReturns);
  EXPECT_EQ(map->returnCounts, returnCounts);  // every simulated return lies in range
  // The map counts blocks in pairs.
  const auto blocks = static_cast<std::int32_t>(summary.counts.blocks);
  EXPECT_EQ(map->blockCount, blocks == 1 ? 0 : blocks - blocks % 2);
  EXPECT_EQ(map->dataStartOffset, summary.dataOffset);
  // The normalization parameters come from the file beside the scan.
  const auto& n = summary.normalization;
  EXPECT_EQ(std::tie(map->a1, map->a2, map->a3, map->a4, map->a5, map->gamma),
            std::tie(*n.a1, *n.a2, *n.a3, *n.a4, *n.a5, *n.gamma));
  EXPECT_EQ(map->numberOfBins, *n.numberOfBins);

  // A line fetched through the map holds its shots and the first of the next.
  DecodedScan scan(summary.files.scan);
  ASSERT_TRUE(scan.open());
  std::vector<RawShot> shots;
  for (std::size_t k = 1; k < lines.size(); ++k) {
    const bool last = k + 1 == lines.size();
    GetShotsFromScanLineIndex(static_cast<int>(k - 1), scan.stream(), *map, shots, nullptr);
    ASSERT_EQ(shots.size(), last ? 1u : lines[k].shotCount + 1) << "line " << k;
    EXPECT_EQ(shots.front().timeInCounts, truth.shots[lines[k].firstShot].shot.ticks) << "line " << k;
    EXPECT_EQ(shots.front().shotWord, truth.shots[lines[k].firstShot].shot.shotWord) << "line " << k;
  }
  ReleaseScanFileMap(*map);
}

INSTANTIATE_TEST_SUITE_P(
    Scans, SimulatedSet,
    testing::Values(SetCase{"KvrScanAt50", ScannerKind::kNinetyDegree, "", 50, 1, {8.0, 6.0, 3.0}, 24},
                    SetCase{"Mx70At200SmallRoom", ScannerKind::kNinetyDegree, "#MX70DAT", 200, 77, {3.5, 2.5, 2.2}, 20},
                    SetCase{"Mx700At500", ScannerKind::kThreeSixty, "", 500, 20240611, {8.0, 6.0, 3.0}, 24},
                    SetCase{"Mx700At50Hall", ScannerKind::kThreeSixty, "", 50, 9, {30.0, 12.0, 6.0}, 40}),
    [](const testing::TestParamInfo<SetCase>& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace kvr
