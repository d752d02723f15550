// Display levels of normalized intensities, and the palettes' colours of them.

#include <gtest/gtest.h>

#include <limits>

#include "kvr_decode/cloud/display_scale.h"
#include "kvr_decode/cloud/palette.h"

namespace kvr::cloud {
namespace {

TEST(DisplayScale, LevelIsRoundedPowerOfTheClampedRatio) {
  // intensityAt95 4, gamma 0.5: level = round(254 sqrt(v / 4)).
  const DisplayScale scale(4.0, 0.5);
  const struct {
    double v;
    int level;
  } cases[] = {
      {0.0, 0},    {-1.0, 0},  {std::numeric_limits<double>::quiet_NaN(), 0},
      {1.0, 127},  {4.0, 254}, {9.0, 254},
      {0.0001, 1},  // 254 x 0.005 = 1.27
      {0.0000154, 0},  {0.0000156, 1},  // level 1 from v = 4 (0.5 / 254)^2 = 0.0000155
      {2.25, 191},  // 254 x 0.75 = 190.5: rounds up
  };
  const DisplayScale::Levels levels = scale.levels();
  for (const auto& c : cases) {
    EXPECT_EQ(scale.level(c.v), c.level) << c.v;
    // In two parts, as tables kept per level take it: the same level.
    double v = c.v;
    const int start = levels.cellLevel(v);
    EXPECT_EQ(start + (v >= levels.thresholds()[start + 1] ? 1 : 0), c.level) << c.v;
  }
  const DisplayScale linear(1.0, 1.0);
  EXPECT_EQ(linear.level(0.5), 127);
  EXPECT_EQ(linear.level(0.499), 127);
  EXPECT_EQ(linear.level(0.4979), 126);
  // Scales without a table (gamma too small or too steep, or a table below
  // the normal doubles) search the thresholds: the same levels.
  EXPECT_FALSE(DisplayScale(4.0, 0.1).hasTable());
  EXPECT_FALSE(DisplayScale(4.0, 4.0).hasTable());
  EXPECT_EQ(DisplayScale(4.0, 4.0).level(2.0), 16);  // 254 / 16 = 15.875
  EXPECT_EQ(DisplayScale(1e-305, 0.5).level(1e-306), 80);  // 254 sqrt(0.1) = 80.32
}

TEST(DisplayScale, DamagedMapValuesFallBackToOne) {
  const DisplayScale scale(0.0, std::numeric_limits<double>::quiet_NaN());
  EXPECT_EQ(scale.intensityAt95(), 1.0);
  EXPECT_EQ(scale.gamma(), 1.0);
  EXPECT_EQ(scale.level(0.5), 127);
}

TEST(Palette, LevelsSpreadOverTheRamp) {
  const Palette* grey = FindPalette("gray");
  ASSERT_NE(grey, nullptr);
  EXPECT_EQ(grey->name(), "grey");
  EXPECT_EQ(grey->colourOfLevel(0), (Rgb{0, 0, 0}));
  EXPECT_EQ(grey->colourOfLevel(127), (Rgb{128, 128, 128}));
  EXPECT_EQ(grey->colourOfLevel(kTopLevel), (Rgb{255, 255, 255}));
  const Palette* viridis = FindPalette("viridis");
  ASSERT_NE(viridis, nullptr);
  EXPECT_EQ(viridis->colourOfLevel(0), (Rgb{68, 1, 84}));
  EXPECT_EQ(viridis->colourOfLevel(kTopLevel), (Rgb{253, 231, 37}));
  EXPECT_EQ(FindPalette("jet"), nullptr);
}

}  // namespace
}  // namespace kvr::cloud
