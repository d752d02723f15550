#include <gtest/gtest.h>

#include <climits>
#include <limits>

#include "kvr_decode/optical_model.h"
#include "kvr_writers/fifo_block_writer.h"
#include "support/raw_shot_builder.h"

namespace kvr {
namespace {

struct TripletCase {
  int returnIndex;
  int result;
  double range;  // 42.0: left untouched
};
void PrintTo(const TripletCase& c, std::ostream* os) { *os << "return " << c.returnIndex; }

class PolarTriplet : public testing::TestWithParam<TripletCase> {};

TEST_P(PolarTriplet, AnglesAlwaysRangeOnlyForAnExistingReturn) {
  // Pan count 0xFFFFF and T0 100 among set neighbouring bits; the shot word's scan
  // bits (77) differ from scanAngleCounts, which is the one used.
  const RawShot shot = test::MakeShot(5, writers::ShotWord({0xFFFFF, 77, 7, 100, 0xf, 7}), 196608,
                                      {writers::ReturnWord(1100, 4095), writers::ReturnWord(100, 1), writers::ReturnWord(99, 0)});
  double pan = 0.0, scan = 0.0, range = 42.0;
  EXPECT_EQ(GetPolarTriplet(shot, GetParam().returnIndex, pan, scan, range), GetParam().result);
  EXPECT_EQ(pan, 10.294360989805991);
  EXPECT_EQ(scan, 0.39269908169872414);  // 22.5 degrees
  EXPECT_EQ(range, GetParam().range);
}

INSTANTIATE_TEST_SUITE_P(GetPolarTriplet, PolarTriplet,
                         testing::Values(TripletCase{0, 0, 1.9512028931376346}, TripletCase{1, 0, 0.0},
                                         TripletCase{2, -1, -1.0}, TripletCase{3, -1, 42.0},
                                         TripletCase{-1, -1, 42.0}, TripletCase{INT_MIN, -1, 42.0}));

struct IdistCase {
  double scale, exponent, gain, offset, referenceRange, range;
  unsigned short intensity;
  double expected;
};
void PrintTo(const IdistCase& c, std::ostream* os) { *os << "intensity " << c.intensity << " range " << c.range; }

class Idist : public testing::TestWithParam<IdistCase> {};

TEST_P(Idist, RescalesIntensitiesFrom1000AndWeighsTheRangeRatio) {
  IdistCase c = GetParam();
  EXPECT_EQ(CalculateIdist(c.scale, c.exponent, c.gain, c.offset, c.referenceRange, c.range, c.intensity), c.expected);
}

const double kInf = std::numeric_limits<double>::infinity();
INSTANTIATE_TEST_SUITE_P(CalculateIdist, Idist,
                         testing::Values(IdistCase{2, 3, 2, 0.5, 10, 20, 999, 5494.5},      // (1.5^2 + 0.5) * 2 * 999
                                         IdistCase{10, 0.5, 2, 0.5, 10, 10, 1000, 10.0},    // 0.5 * 2 * 100^0.5
                                         IdistCase{1024, 10, 0.5, 0.25, 1.5, 3, 2048, 1280.0},  // 2.5 * 0.5 * 2^10
                                         IdistCase{1, 1, 1, 0, 10, 0, 5, kInf}));  // 10 / 0

}  // namespace
}  // namespace kvr
