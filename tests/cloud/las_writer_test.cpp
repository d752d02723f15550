#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "kvr_decode/cloud/error.h"
#include "kvr_decode/cloud/las_writer.h"
#include "kvr_decode/cloud/point_reader.h"
#include "kvr_writers/fifo_block_writer.h"
#include "kvr_writers/scan_file_writer.h"
#include "kvr_writers/tick_file_writer.h"
#include "support/temp_dir_test_base.h"

namespace kvr::test {

using namespace writers;
namespace {

// One block stamped at 1,025,000,000 ticks: ten shots, T0 at 100 counts, one
// return each at 1100 counts except shot 5, which has three (1100, 1500, 2100
// with intensities 300, 4095, 7). Direction bits 0 0 | 1 1 1 | 0 0 0 | 1 1 make
// lines -1 -1 0 0 0 1 1 1 2 2. rangeOffset 0.5; id value 0x12345.
struct ShotPlan {
  std::uint32_t pan, scan, direction;
};
constexpr ShotPlan kShots[] = {{0, 1100, 0},  {0, 1200, 0},  {10, 1000, 1}, {10, 1100, 1}, {10, 1200, 1},
                               {20, 1200, 0}, {20, 1100, 0}, {20, 1000, 0}, {30, 1000, 1}, {30, 1100, 1}};

void WriteScan(const std::filesystem::path& path) {
  FifoBlockBuilder block;
  block.timeStamp(1025000000);
  for (std::uint32_t i = 0; i < 10; ++i) {
    const ShotPlan& s = kShots[i];
    const std::vector<std::uint32_t> returns =
        i == 5 ? std::vector<std::uint32_t>{ReturnWord(1100, 300), ReturnWord(1500, 4095), ReturnWord(2100, 7)}
               : std::vector<std::uint32_t>{ReturnWord(1100, 50 * (i + 1))};
    block.shot(ShotWord({s.pan, s.scan, static_cast<std::uint32_t>(returns.size()), 100, 0, s.direction * 2}), returns);
  }
  HeaderBlockFields fields;
  fields.calibrationText = "rangeOffset = 0.5\n";
  fields.idValue = 0x12345;
  WriteFile(path, FifoFile({block.build()}, 0, BuildScanFile(fields)));
}

void WriteTicks(const std::filesystem::path& path) {
  TickFileBuilder ticks;
  ticks.everySecond(1000000000, Utc(2020, 1, 28, 14, 30, 7), 2, [](UtcTime t) { return ZdaSentence(t); });
  ticks.writeTo(path);
}

// One colour everywhere, its channels told apart.
constexpr std::array<cloud::Rgb, 256> kFlat = [] {
  std::array<cloud::Rgb, 256> colours{};
  colours.fill({0x12, 0x34, 0x56});
  return colours;
}();
constexpr cloud::Palette kFlatPalette("flat", "one colour", kFlat);

template <typename T>
T At(const std::vector<std::uint8_t>& bytes, std::size_t offset) {
  T value;
  std::memcpy(&value, bytes.data() + offset, sizeof value);
  return value;
}

std::string Text(const std::vector<std::uint8_t>& bytes, std::size_t offset, std::size_t size) {
  return std::string(reinterpret_cast<const char*>(bytes.data() + offset), size);
}

class LasWriterTest : public InTempDir {
 protected:
  // Every point of the scan into points.las; the layer's batch is kept.
  std::vector<std::uint8_t> Export(bool colour, bool ticks) {
    WriteScan(path("scan.raw"));
    cloud::ScanOptions scanOptions;
    if (ticks) {
      WriteTicks(path("Serial.dat"));
      scanOptions.ticks = path("Serial.dat");
    }
    const cloud::Scan scan(path("scan.raw"), scanOptions);
    cloud::LasOptions options = cloud::LasOptions::Of(scan, colour);
    options.creationDay = {{59, 2026}};
    cloud::LasWriter writer(path("points.las"), options, {&kFlatPalette});
    cloud::PointReader reader(scan);
    while (reader.next(batch_)) writer.write(batch_);
    writer.finish();
    return ReadFileBytes(path("points.las"));
  }

  cloud::PointBatch batch_;
};

TEST_F(LasWriterTest, HeaderHoldsCountsBoundsAndTheExtraBytesRecord) {
  for (const bool colour : {false, true}) {
    SCOPED_TRACE(colour);
    const std::vector<std::uint8_t> las = Export(colour, false);
    const std::size_t record = colour ? 68 : 62;
    ASSERT_EQ(las.size(), 1581 + 12 * record);
    EXPECT_EQ(Text(las, 0, 4), "LASF");
    EXPECT_EQ(At<std::uint16_t>(las, 4), 0x2345);  // file source ID
    EXPECT_EQ(At<std::uint16_t>(las, 6), 16);      // WKT bit only: times of week
    EXPECT_EQ(Text(las, 8, 16), std::string(16, '\0'));
    EXPECT_EQ(las[24], 1);
    EXPECT_EQ(las[25], 4);
    EXPECT_EQ(Text(las, 26, 32), "EXTRACTION" + std::string(22, '\0'));
    EXPECT_EQ(Text(las, 58, 11), "kvr_decode ");
    EXPECT_EQ(At<std::uint16_t>(las, 90), 59);
    EXPECT_EQ(At<std::uint16_t>(las, 92), 2026);
    EXPECT_EQ(At<std::uint16_t>(las, 94), 375);
    EXPECT_EQ(At<std::uint32_t>(las, 96), 1581u);  // 375 + 54 + 6 x 192
    EXPECT_EQ(At<std::uint32_t>(las, 100), 1u);
    EXPECT_EQ(las[104], colour ? 7 : 6);
    EXPECT_EQ(At<std::uint16_t>(las, 105), record);
    EXPECT_EQ(Text(las, 107, 24), std::string(24, '\0'));  // legacy counts
    const double scaleOffsetBounds[] = {0.0001, 0.0001, 0.0001, 0,      0,      0,
                                        3.1353, 1.7436, 0.0006, 0.0000, -1.7208, -3.0905};
    for (std::size_t i = 0; i < 12; ++i) EXPECT_NEAR(At<double>(las, 131 + 8 * i), scaleOffsetBounds[i], 1e-12) << i;
    EXPECT_EQ(Text(las, 227, 20), std::string(20, '\0'));  // no waveforms, no extended records
    EXPECT_EQ(At<std::uint64_t>(las, 247), 12u);
    const std::uint64_t byReturn[15] = {10, 1, 1};
    for (std::size_t i = 0; i < 15; ++i) EXPECT_EQ(At<std::uint64_t>(las, 255 + 8 * i), byReturn[i]) << i;

    EXPECT_EQ(At<std::uint16_t>(las, 375), 0);
    EXPECT_EQ(Text(las, 377, 16), std::string("LASF_Spec") + std::string(7, '\0'));
    EXPECT_EQ(At<std::uint16_t>(las, 393), 4);
    EXPECT_EQ(At<std::uint16_t>(las, 395), 1152);
    const struct {
      const char* name;
      int type, options;
      double scale, offset;
    } extras[] = {
        {"Range", 5, 24, 0.0019512028931376346, 0.5},
        {"Pan", 5, 24, 9.817477042468103e-06, 0.0},
        {"ScanAngle", 5, 24, 5.992112452678286e-06, -0.7853981633974483},
        {"Line", 6, 0, 0.0, 0.0},
        {"ShotIndex", 7, 0, 0.0, 0.0},
        {"NormalizedIntensity", 10, 0, 0.0, 0.0},
    };
    for (std::size_t i = 0; i < 6; ++i) {
      const std::size_t at = 429 + 192 * i;
      EXPECT_EQ(Text(las, at + 4, 32).c_str(), std::string(extras[i].name));
      EXPECT_EQ(las[at + 2], extras[i].type) << i;
      EXPECT_EQ(las[at + 3], extras[i].options) << i;
      EXPECT_DOUBLE_EQ(At<double>(las, at + 112), extras[i].scale) << i;
      EXPECT_DOUBLE_EQ(At<double>(las, at + 136), extras[i].offset) << i;
      EXPECT_EQ(Text(las, at + 40, 72), std::string(72, '\0')) << i;  // no data, min, max: unused
    }
  }
}

TEST_F(LasWriterTest, PointCarriesEveryField) {
  // Point 6: shot 5's second return of three, 1400 counts after T0 (r 3.2316840503926887 m),
  // pan 20 counts, scan count 1200 (-44.5880126953125 degrees), line 1, intensity 4095.
  for (const bool colour : {false, true}) {
    SCOPED_TRACE(colour);
    const std::vector<std::uint8_t> las = Export(colour, colour);
    const std::size_t record = colour ? 68 : 62, extra = colour ? 36 : 30;
    const std::size_t at = 1581 + 6 * record;
    EXPECT_EQ(At<std::int32_t>(las, at), 23015);
    EXPECT_EQ(At<std::int32_t>(las, at + 4), 5);
    EXPECT_EQ(At<std::int32_t>(las, at + 8), -22687);
    EXPECT_EQ(At<std::uint16_t>(las, at + 12), 65520);
    EXPECT_EQ(las[at + 14], 0x32);  // return 2 of 3
    EXPECT_EQ(las[at + 15], 0);
    EXPECT_EQ(las[at + 16], 0);
    EXPECT_EQ(las[at + 17], 0);
    EXPECT_EQ(At<std::int16_t>(las, at + 18), -7431);
    EXPECT_EQ(At<std::uint16_t>(las, at + 20), 0x2345);
    if (colour) {
      EXPECT_NEAR(At<double>(las, at + 22), 225007.500025, 1e-9);
      EXPECT_EQ(At<std::uint16_t>(las, at + 30), 0x1200);
      EXPECT_EQ(At<std::uint16_t>(las, at + 32), 0x3400);
      EXPECT_EQ(At<std::uint16_t>(las, at + 34), 0x5600);
    } else {
      EXPECT_EQ(At<double>(las, at + 22), 0.0);
    }
    EXPECT_EQ(At<std::uint32_t>(las, at + extra), 1400u);
    EXPECT_EQ(At<std::uint32_t>(las, at + extra + 4), 20u);
    EXPECT_EQ(At<std::uint32_t>(las, at + extra + 8), 1200u);
    EXPECT_EQ(At<std::int32_t>(las, at + extra + 12), 1);
    EXPECT_EQ(At<std::uint64_t>(las, at + extra + 16), 5u);
    // The map's value, which the writer only carries.
    EXPECT_EQ(At<double>(las, at + extra + 24), batch_.normalizedIntensity()[6]);
    EXPECT_GT(batch_.normalizedIntensity()[6], 0.0);
    // The first two points lie before the first line; the last three returns of shot 5 count up.
    EXPECT_EQ(At<std::int32_t>(las, 1581 + extra + 12), -1);
    EXPECT_EQ(las[1581 + 5 * record + 14], 0x31);
    EXPECT_EQ(las[1581 + 7 * record + 14], 0x33);
  }
}

TEST_F(LasWriterTest, FullCircleScanAnglesWrapIntoHalfCircles) {
  // A full-circle scanner: 90 degrees per 65536 counts, 0 to 360; the format's
  // angles run from -180 to +180 in 0.006-degree units.
  const struct {
    std::uint32_t counts;
    std::int16_t units;
  } cases[] = {{0, 0}, {65536, 15000}, {131072, 30000}, {131073, -30000}, {196608, -15000}, {262143, 0}};
  FifoBlockBuilder block;
  for (const auto& c : cases) block.shot(ShotWord({0, c.counts, 1, 100, 0, 0}), {ReturnWord(1100, 10)});
  HeaderBlockFields fields;
  fields.signature = "MX700DAT";
  WriteFile(path("scan.raw"), FifoFile({block.build()}, 0, BuildScanFile(fields)));
  const cloud::Scan scan(path("scan.raw"));
  cloud::LasWriter writer(path("points.las"), cloud::LasOptions::Of(scan, false), {});
  cloud::PointReader reader(scan);
  while (reader.next(batch_)) writer.write(batch_);
  writer.finish();
  const std::vector<std::uint8_t> las = ReadFileBytes(path("points.las"));
  ASSERT_EQ(las.size(), 1581u + 6 * 62);
  EXPECT_DOUBLE_EQ(At<double>(las, 429 + 2 * 192 + 112), 2.3968449810713143e-05);  // ScanAngle scale
  EXPECT_EQ(At<double>(las, 429 + 2 * 192 + 136), 0.0);
  for (std::size_t i = 0; i < 6; ++i) {
    EXPECT_EQ(At<std::int16_t>(las, 1581 + 62 * i + 18), cases[i].units) << i;
    EXPECT_EQ(At<std::uint32_t>(las, 1581 + 62 * i + 38), cases[i].counts) << i;
  }
}

TEST_F(LasWriterTest, NoPointsGiveZeroCountsAndBounds) {
  WriteScan(path("scan.raw"));
  const cloud::Scan scan(path("scan.raw"));
  cloud::LasWriter writer(path("points.las"), cloud::LasOptions::Of(scan, false), {});
  writer.finish();
  const std::vector<std::uint8_t> las = ReadFileBytes(path("points.las"));
  ASSERT_EQ(las.size(), 1581u);
  EXPECT_EQ(Text(las, 179, 48), std::string(48, '\0'));  // bounds
  EXPECT_EQ(Text(las, 247, 128), std::string(128, '\0'));  // counts
}

TEST_F(LasWriterTest, UnwritableOutputThrowsAndLeavesNoFile) {
  WriteScan(path("scan.raw"));
  const cloud::Scan scan(path("scan.raw"));
  EXPECT_THROW(cloud::LasWriter(path("absent/points.las"), cloud::LasOptions::Of(scan, false), {}), cloud::OutputError);
  EXPECT_FALSE(std::filesystem::exists(path("absent")));
  {
    // A writer dropped before finish() leaves nothing behind.
    cloud::LasWriter writer(path("points.las"), cloud::LasOptions::Of(scan, false), {});
  }
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir()), std::filesystem::directory_iterator()), 1);
}

}  // namespace
}  // namespace kvr::test
