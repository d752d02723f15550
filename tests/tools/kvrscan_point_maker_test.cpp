// The export's point maker against the per-return formulas it stands for, on
// both of its paths, and the display scale's table against the power it stands for.

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "point_maker.h"
#include "point_model.h"

namespace kvrscan {
namespace {

// Shots as a damaged or busy scan has them: 0-4 returns, some stopping at or
// before T0, intensity 0 among the others, the pan moving every few shots, times unknown now and then.
std::vector<RawShot> RandomShots(std::size_t count, std::uint32_t seed) {
  std::mt19937 random(seed);
  const auto draw = [&](std::uint32_t bound) { return static_cast<std::uint32_t>(random() % bound); };
  std::vector<RawShot> shots(count);
  std::uint32_t pan = 5000;
  for (RawShot& shot : shots) {
    if (draw(5) == 0) pan = draw(1u << 20);
    const std::uint32_t t0 = draw(0x10000);
    shot.shotWord = pan | std::uint64_t{t0} << 41;
    shot.scanAngleCounts = draw(1u << 18);
    shot.shotTow = draw(10) == 0 ? -1.0 : 1000.0 + draw(1000000) * 1e-6;
    const std::uint32_t returns = draw(5);
    for (std::uint32_t k = 0; k < returns; ++k) {
      const std::uint32_t kind = draw(20);
      const std::uint32_t stop = kind == 0 ? t0 : kind == 1 ? t0 - std::min(t0, draw(50) + 1) : t0 + draw(200000);
      shot.returns.push_back((stop & 0xFFFFF) | (kind == 2 ? 0u : draw(4096)) << 20);
    }
  }
  return shots;
}

// The record of one return, made the way the export's formulas read.
struct Reference {
  PointGeometry geometry;
  IntensityNormalizer normalize;
  DisplayScale scale;
  const Palette& palette;

  PointRecord point(const RawShot& shot, std::size_t k, std::int32_t line) {
    const std::uint32_t word = shot.returns[k];
    const auto t0 = static_cast<std::uint32_t>(shot.shotWord >> 41 & 0xFFFF);
    const double range = RangeOf(word & 0xFFFFF, t0);
    geometry.aim(static_cast<std::uint32_t>(shot.shotWord & 0xFFFFF), shot.scanAngleCounts);
    PointRecord p;
    float x, y, z;
    geometry.place(range, x, y, z);
    p.x = x, p.y = y, p.z = z;
    p.intensity = static_cast<std::uint16_t>(word >> 20);
    p.returnNumber = static_cast<std::uint8_t>(k + 1);
    p.numberOfReturns = static_cast<std::uint8_t>(shot.returns.size());
    p.line = line;
    p.time = shot.shotTow;
    p.colour = palette.colourOfLevel(scale.level(range > 0.0 ? normalize(range, word >> 20) : 0.0));
    return p;
  }
};

TEST(KvrscanPointMaker, BothPathsGiveEachReturnsRecord) {
  const std::uint64_t signature = 0x5441444F37584D23;  // "#MX70DAT"
  const std::vector<RawShot> shots = RandomShots(3000, 11);
  std::vector<std::int32_t> lines(shots.size());
  for (std::size_t i = 0; i < lines.size(); ++i) lines[i] = static_cast<std::int32_t>(i / 700) - 1;
  // The default display scale, one too small for the table, one too steep for it.
  for (const double gamma : {0.5, 0.1, 5.0}) {
    IntensityModel model;
    model.intensityAt95 = 30000.0;
    model.gamma = gamma;
    for (const char* name : {"grey", "viridis"}) {
      const Palette& palette = *FindPalette(name);
      Reference reference{PointGeometry(signature, 0.25), IntensityNormalizer(model),
                          DisplayScale(model.intensityAt95, model.gamma), palette};
      std::vector<PointRecord> expected;
      std::uint64_t withoutRange = 0;
      for (std::size_t s = 0; s < shots.size(); ++s) {
        for (std::size_t k = 0; k < shots[s].returns.size(); ++k) {
          if ((shots[s].returns[k] & 0xFFFFF) < (shots[s].shotWord >> 41 & 0xFFFF)) {
            ++withoutRange;
            continue;
          }
          expected.push_back(reference.point(shots[s], k, lines[s]));
        }
      }
      for (const auto path : {PointMaker::Path::kFastest, PointMaker::Path::kPairs, PointMaker::Path::kPortable}) {
        PointMaker maker(signature, 0.25, model, palette, path);
        // Exactly the room promised: a write past it is caught by the sanitizers.
        std::vector<PointRecord> made(expected.size() + PointMaker::kSpareRecords);
        std::size_t count = 0;
        // Runs of every length up to the most a call takes, as blocks end.
        for (std::size_t first = 0, run = 1; first < shots.size(); first += run, run = run * 3 % 601) {
          run = std::min({run, PointMaker::kRunShots, shots.size() - first});
          count += maker.make(std::span(shots).subspan(first, run), lines.data() + first, made.data() + count);
        }
        ASSERT_EQ(count, expected.size()) << gamma << name;
        EXPECT_EQ(maker.withoutRange(), withoutRange);
        for (std::size_t p = 0; p < count; ++p) {
          ASSERT_EQ(std::memcmp(&made[p], &expected[p], sizeof(PointRecord)), 0)
              << "point " << p << " gamma " << gamma << " " << name << " path " << static_cast<int>(path);
        }
      }
    }
  }
}

TEST(KvrscanDisplayScale, TableGivesTheRoundedPowerEverywhere) {
  std::mt19937_64 random(3);
  for (const double gamma : {0.15, 0.5, 1.0, 2.2, 3.9}) {
    for (const double at95 : {1e-3, 4.0, 2.5e6}) {
      const DisplayScale scale(at95, gamma);
      ASSERT_TRUE(scale.hasTable()) << gamma << " " << at95;
      for (int i = 0; i < 20000; ++i) {
        // Spread over the binades below intensityAt95 and a little above it.
        const double v = at95 * std::exp2(-std::ldexp(static_cast<double>(random() >> 11), -53) * 70.0 + 0.5);
        const double exact = kTopLevel * std::pow(std::min(1.0, v / at95), gamma);
        if (std::abs(exact - std::floor(exact) - 0.5) < 1e-9) continue;  // on a threshold: rounding decides
        ASSERT_EQ(scale.level(v), static_cast<int>(std::lround(exact))) << v << " gamma " << gamma << " at95 " << at95;
      }
    }
  }
  EXPECT_FALSE(DisplayScale(4.0, 0.1).hasTable());  // would need more than 64 binades
  EXPECT_FALSE(DisplayScale(4.0, 4.0).hasTable());
  EXPECT_FALSE(DisplayScale(1e-305, 0.5).hasTable());  // would reach below the normal doubles
  EXPECT_EQ(DisplayScale(1e-305, 0.5).level(1e-306), static_cast<int>(std::lround(kTopLevel * std::sqrt(0.1))));
}

}  // namespace
}  // namespace kvrscan
