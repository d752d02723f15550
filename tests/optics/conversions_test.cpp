#include "kvr_decode/conversions.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

#include "optics/constants.h"

namespace kvr {
namespace {

constexpr unsigned long long kKvrScan = 0x4E41435352564B23ull;  // "#KVRSCAN" little-endian
constexpr unsigned long long kMx70Dat = 0x5441443037584D23ull;  // "#MX70DAT"
constexpr unsigned long long kMx700Dat = 0x544144303037584Dull;  // "MX700DAT"

TEST(FileSignatures, AreTheMagicsReadLittleEndian) {
  EXPECT_EQ(optics::kSignatureKvrScan, kKvrScan);
  EXPECT_EQ(optics::kSignatureMx70Dat, kMx70Dat);
  EXPECT_EQ(optics::kSignatureMx700Dat, kMx700Dat);
}

TEST(CalculateRange, CountsToMetresWithNegativeFlag) {
  EXPECT_EQ(CalculateRange(100, 100), 0.0);
  EXPECT_EQ(CalculateRange(99, 100), -1.0);
  EXPECT_EQ(CalculateRange(1, 0), 0.0019512028931376346);
  // The multiplication chain runs left to right; folding constants would change the last bit.
  const double d = 1048575.0 - 12.0;
  EXPECT_EQ(CalculateRange(1048575, 12), d * 13.020833333333334 * 1e-12 * 0.5 * 299704764.3859407);
}

TEST(CalculateTime, TicksAndSecondsTruncateWithoutRounding) {
  EXPECT_EQ(CalculateTimeInCounts(1.0 / 50000.0), 1000u);
  EXPECT_EQ(CalculateTimeInCounts(1.0 / 200000.0), 250u);
  EXPECT_EQ(CalculateTimeInCounts(1.0 / 500000.0), 100u);
  EXPECT_EQ(CalculateTimeInCounts(0.0), 0u);
  EXPECT_EQ(CalculateTimeInCounts(1.0), 50000000u);
  EXPECT_EQ(CalculateTimeInCounts(276701161105.6433), 13835058055282165760u);  // past 2^63: unsigned
  EXPECT_EQ(CalculateTimeInSecs(50000000), 50000000.0 * 20.0 * 1e-09);
  EXPECT_NEAR(CalculateTimeInSecs(50000000), 1.0, 1e-15);
  EXPECT_EQ(CalculateTimeInSecs(0xFFFFFFFFFFull), 1099511627775.0 * 20.0 * 1e-09);
}

TEST(CalculateAngles, PanAndScanBySignature) {
  EXPECT_EQ(CalculatePanAngle(320000), 320000.0 * 0.0005625 * 0.017453292519943295);
  EXPECT_NEAR(CalculatePanAngle(320000), std::numbers::pi, 1e-12);
  EXPECT_EQ(CalculateScanAngle(131072, kKvrScan), 0.0);
  EXPECT_EQ(CalculateScanAngle(131072, kMx70Dat), 0.0);
  EXPECT_EQ(CalculateScanAngle(0, kKvrScan), -45.0 * 0.017453292519943295);
  EXPECT_EQ(CalculateScanAngle(131072, kMx700Dat),
            131072.0 * 0.001373291015625 * 0.017453292519943295);
  EXPECT_NEAR(CalculateScanAngle(131072, kMx700Dat), std::numbers::pi, 1e-12);
  EXPECT_EQ(CalculateScanAngle(131072, 0), 0.0);
}

TEST(OpticalScanArcToCounts, HalvesTheArcAndSkipsTheOffset) {
  EXPECT_EQ(OpticalScanArcToCounts(90.0, kKvrScan), 131072u);
  EXPECT_EQ(OpticalScanArcToCounts(90.0, kMx700Dat), 32768u);
  EXPECT_EQ(OpticalScanArcToCounts(0.001, kKvrScan), 1u);
  EXPECT_EQ(OpticalScanArcToCounts(90.0, 12345), 0u);
  EXPECT_EQ(OpticalScanArcToCounts(std::nan(""), kKvrScan), 0u);
  // Half the arc is 2^63 - 1024 counts: still a 64-bit integer, whose low 32 bits are kept.
  EXPECT_EQ(OpticalScanArcToCounts(6333186975989759.0, kKvrScan), 4294966272u);
}

}  // namespace
}  // namespace kvr
