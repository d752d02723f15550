#include "devices/tilt.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <ostream>

namespace kvr::devices {
namespace {

// Decoded from "sxx=1.02 syy=0.98 sxy=0.01 syx=-0.02 offnomx=0.001 offnomy=-0.002
// alpha=2.5 beta=0.5 vref=2.5 pga=7.6".
InclinometerCalibration Calibration() {
  InclinometerCalibration c;
  c.sxx = 1.02f;
  c.syy = 0.98f;
  c.sxy = 0.01f;
  c.syx = -0.02f;
  c.offnomx = 0.001f;
  c.offnomy = -0.002f;
  c.alpha = 3;
  c.beta = 0.5f;
  c.vref = 2.5f;
  c.pga = 8;
  return c;
}

struct TiltCase {
  std::int32_t raw[6];
  double tiltX;
  double tiltY;

  friend void PrintTo(const TiltCase& c, std::ostream* os) { *os << "raw[1] " << c.raw[1]; }
};

class Tilt : public ::testing::TestWithParam<TiltCase> {};

// k = 2 * 2.5 / 8, base = raw3 / 3, scale = raw4 * 0.5; then x, y, det and asin
// in double, worked through in double arithmetic outside the library.
TEST_P(Tilt, MatchesTheReferenceFormulaBitForBit) {
  DeviceRecord1 r;
  std::copy(std::begin(GetParam().raw), std::end(GetParam().raw), r.raw);
  EXPECT_EQ(ComputeTilt(r, Calibration()), 0);
  EXPECT_EQ(std::bit_cast<std::uint64_t>(r.tiltX), std::bit_cast<std::uint64_t>(GetParam().tiltX)) << r.tiltX;
  EXPECT_EQ(std::bit_cast<std::uint64_t>(r.tiltY), std::bit_cast<std::uint64_t>(GetParam().tiltY)) << r.tiltY;
}

INSTANTIATE_TEST_SUITE_P(
    Readings, Tilt,
    ::testing::Values(TiltCase{{111, 1650, 1350, 3, 3000, -7}, 0x1.bed07c353e6e7p+1, -0x1.bbe95cdc8d70cp+1},
                      TiltCase{{5, 1030, 960, 6, 1000, 9}, 0x1.09f6c1ea9efe7p+1, -0x1.61eb8fc482dd9p+1}));

TEST(TiltGuards, NoneProtectTheDivisionsOrTheArcSine) {
  DeviceRecord1 r;
  const std::int32_t raw[6] = {0, 1650, 1350, 3, 3000, 0};
  std::copy(std::begin(raw), std::end(raw), r.raw);
  InclinometerCalibration noPga = Calibration();
  noPga.pga = 0;  // a missing "pga" key
  ComputeTilt(r, noPga);
  EXPECT_TRUE(std::isnan(r.tiltX));
  EXPECT_TRUE(std::isnan(r.tiltY));

  r.raw[1] = 30000;  // asin argument far beyond 1
  ComputeTilt(r, Calibration());
  EXPECT_TRUE(std::isnan(r.tiltX));
  EXPECT_FALSE(std::isnan(r.tiltY));
}

}  // namespace
}  // namespace kvr::devices
