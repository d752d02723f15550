#include "scanmap/sample_rule.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>
#include <string>
#include <vector>

namespace kvr::scanmap {
namespace {

TEST(IntensityModel, BaseIntensityStepsAtOneThousand) {
  ScanFileMap map;
  const IntensityModel model(map);
  // At r = a5 the range factor is a4 alone.
  EXPECT_EQ(model.Normalized(6.1, model.Base(999)), 0.43 * (0.0 + 2.3) * 999.0);
  EXPECT_EQ(model.Normalized(6.1, model.Base(1000)), 0.43 * (0.0 + 2.3) * 625.0);
  EXPECT_EQ(model.Normalized(6.1, model.Base(0)), 0.0);
  // 4095 / 200 = 20.475; its fourth power through pow, as the model defines it.
  EXPECT_EQ(model.Normalized(6.1, model.Base(4095)), 0.43 * (0.0 + 2.3) * std::pow(20.475, 4.0));
  // r = 12.2: (2 - 0.5)^2 + 2.3 = 4.55.
  EXPECT_EQ(model.Normalized(12.2, model.Base(500)), 0.43 * 4.55 * 500.0);
}

TEST(IntensityModel, NormalizesExactlyTheBatch) {
  // Difference 5000 with raw 500, and 20 with raw 1200: the values of the map
  // tests (698.50... and 13616754.45...). Four go in one vector step, one after.
  const std::uint32_t a = (500u << 20) | 5000, b = (1200u << 20) | 20;
  const std::uint32_t samples[] = {a, b, a, b, b, a};
  SampleBatch batch;
  batch.count = 5;
  std::copy(std::begin(samples), std::end(samples), batch.sample.get());
  batch.value[5] = -7.0;
  IntensityModel(ScanFileMap{}).Normalize(batch);
  constexpr double kA = 698.5035835149544, kB = 13616754.459912246;
  EXPECT_EQ(std::vector<double>(batch.value.get(), batch.value.get() + 6),
            (std::vector<double>{kA, kB, kA, kB, kB, -7.0}));
}

struct ReturnCase {
  const char* name;
  std::uint32_t stop;
  std::uint32_t start;
  double rangeOffset;
  SampleKind kind;
};

class ReturnClassification : public ::testing::TestWithParam<ReturnCase> {};

TEST_P(ReturnClassification, FollowsTheSampleRule) {
  const ReturnCase& t = GetParam();
  EXPECT_EQ(RangeWindow(t.rangeOffset).Classify(t.stop, t.start), t.kind);
}

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kNan = std::numeric_limits<double>::quiet_NaN();

// One count is 0.0019512028931376346 m: 52 counts are 0.1014 m, 51 are 0.0995 m,
// 1045500 are 2039.98 m, 1048575 are 2045.98 m.
INSTANTIATE_TEST_SUITE_P(
    Returns, ReturnClassification,
    ::testing::Values(ReturnCase{"StopEqualsStart", 500, 500, 0.0, SampleKind::kInvalid},
                      ReturnCase{"StopBeforeStart", 499, 500, 0.0, SampleKind::kInvalid},
                      ReturnCase{"JustBeyondTenCentimetres", 552, 500, 0.0, SampleKind::kInRange},
                      ReturnCase{"BelowTenCentimetres", 551, 500, 0.0, SampleKind::kOutOfRange},
                      ReturnCase{"OffsetPullsBelowTheLimit", 552, 500, -0.01, SampleKind::kOutOfRange},
                      ReturnCase{"OffsetPushesAboveTheLimit", 551, 500, 0.01, SampleKind::kInRange},
                      ReturnCase{"FarEndOfTheField", 1045500, 0, 0.0, SampleKind::kInRange},
                      ReturnCase{"OffsetPushesBeyondTheFarLimit", 1045500, 0, 0.1, SampleKind::kOutOfRange},
                      ReturnCase{"BeyondTheFarLimit", 1048575, 0, 0.0, SampleKind::kOutOfRange},
                      // 2039.997 m: one count (0.00195 m) stays within the far limit, two do not.
                      ReturnCase{"OneCountWindow", 501, 500, 2039.997, SampleKind::kInRange},
                      ReturnCase{"OneCountWindowEndsAtOne", 502, 500, 2039.997, SampleKind::kOutOfRange},
                      ReturnCase{"OffsetBeyondTheFarLimit", 600, 500, 3000.0, SampleKind::kOutOfRange},
                      ReturnCase{"OffsetBelowTheNearLimit", 600, 500, -3000.0, SampleKind::kOutOfRange},
                      ReturnCase{"InfiniteOffset", 600, 500, kInf, SampleKind::kOutOfRange},
                      // A NaN offset fails both limit tests, so every return stays in range.
                      ReturnCase{"NanOffset", 501, 500, kNan, SampleKind::kInRange},
                      ReturnCase{"NanOffsetInvalidReturn", 500, 500, kNan, SampleKind::kInvalid}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(ReturnClassification, LimitsAreExclusiveBelowInclusiveAbove) {
  const double r = optics::Range(600, 500);
  // Offsets that put r + offset exactly on each limit.
  const double onUpper = 2040.0 - r;
  const double onLower = 0.1 - r;
  ASSERT_EQ(r + onUpper, 2040.0);
  ASSERT_EQ(r + onLower, 0.1);
  EXPECT_EQ(RangeWindow(onUpper).Classify(600, 500), SampleKind::kInRange);
  EXPECT_EQ(RangeWindow(onLower).Classify(600, 500), SampleKind::kOutOfRange);
}

}  // namespace
}  // namespace kvr::scanmap
