#include <gtest/gtest.h>

#include <array>
#include <stdexcept>
#include <vector>

#include "kvr_decode/optical_model.h"
#include "kvr_writers/fifo_block_writer.h"
#include "support/raw_shot_builder.h"
#include "support/temp_dir_test_base.h"

namespace kvr {
namespace {

using Five = std::array<std::int64_t, 5>;
using Corrected = std::vector<unsigned>;
constexpr double kPrf = 200000.0;  // 250 ticks per shot
constexpr unsigned kUnwritten = 9999;
constexpr Five kEven = {1000, 1250, 1500, 1750, 2000};
constexpr Five kScan = {100, 203, 400, 397, 1100};  // steps 103, 197, -3, 703
constexpr Five kPan = {10, 30, 25, 1000, 0xFFFFF};  // steps 20, -5, 975, 1047575
constexpr Five kStatus = {0, 0, 7, 0, 0};           // a placed shot keeps its status

// Pan and scan counts in a shot word with one return, T0 0x1234 and the direction bit.
std::uint64_t Word(std::int64_t pan, std::int64_t scan) {
  return writers::ShotWord({.pan = static_cast<std::uint32_t>(pan), .scan = static_cast<std::uint32_t>(scan),
                            .returnCount = 1, .t0 = 0x1234, .topBits = 2});
}

std::vector<RawShot> FiveShots(const Five& times = kEven) {
  std::vector<RawShot> shots;
  for (int i = 0; i < 5; ++i) {
    shots.push_back(test::MakeShot(times[i], Word(kPan[i], kScan[i]), kScan[i], {}, kStatus[i]));
  }
  return shots;
}

// Only the scan count, the pan bits of the shot word and the status may change.
void ExpectShots(const std::vector<RawShot>& shots, const Five& scan, const Five& pan, const Five& status) {
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(shots[i].scanAngleCounts, scan[i]) << i;
    EXPECT_EQ(shots[i].shotWord, Word(pan[i], kScan[i])) << i;
    EXPECT_EQ(shots[i].status, status[i]) << i;
  }
}

struct LagCase {
  int mode;
  double lagSeconds;
  int result;
  Corrected corrected;
  Five scan, pan, status;
  Five times = kEven;
};
void PrintTo(const LagCase& c, std::ostream* os) { *os << "mode " << c.mode << " lag " << c.lagSeconds << " s"; }

class LagCorrection : public testing::TestWithParam<LagCase> {};

TEST_P(LagCorrection, InterpolatesBetweenNeighboursAndMarksUnplaceableShots) {
  const LagCase& c = GetParam();
  std::vector<RawShot> shots = FiveShots(c.times);
  Corrected corrected(5, kUnwritten);
  EXPECT_EQ(ApplyLagCorrection(shots, kPrf, c.lagSeconds, c.mode, corrected), c.result);
  EXPECT_EQ(corrected, c.corrected);
  ExpectShots(shots, c.scan, c.pan, c.status);
}

// Lags in ticks: 5e-6 s = 250 (one period), 2.01e-6 s = 100, 1.201e-5 s = 600, 5.21e-6 s = 260;
// 85.89934793, -85.89934393 and 42.94967497 s are 2^32 + 100, -(2^32 - 100) and 2^31 + 100.
INSTANTIATE_TEST_SUITE_P(ApplyLagCorrection, LagCorrection, testing::Values(
    LagCase{0, 5e-6, -8, {203, 400, 397, 397, 1100}, {203, 400, 397, 397, 1100}, kPan, {0, 0, 7, -8, -8}},
    LagCase{0, 2.01e-6, -8, {141, 281, 399, 678, 1100}, {141, 281, 399, 678, 1100}, kPan, {0, 0, 7, 0, -8}},
    LagCase{0, -2.01e-6, -8, {100, 161, 321, 399, 818}, {100, 161, 321, 399, 818}, kPan, {-8, 0, 7, 0, 0}},
    LagCase{0, 1.201e-5, -8, {399, 678, 400, 397, 1100}, {399, 678, 400, 397, 1100}, kPan, {0, 0, -8, -8, -8}},
    LagCase{0, 1e-8, 0, {9999, 9999, 9999, 9999, 9999}, kScan, kPan, kStatus},
    LagCase{1, -1.9e-8, 0, {9999, 9999, 9999, 9999, 9999}, kScan, kPan, kStatus},
    LagCase{1, 2.01e-6, -8, {18, 28, 415, 420030, 1100}, kScan, {18, 28, 415, 420030, 1100}, {0, 0, 7, 0, -8}},
    LagCase{1, -1.201e-5, -8, {100, 203, 400, 22, 27}, kScan, {100, 203, 400, 22, 27}, {-8, -8, -8, 0, 0}},
    LagCase{2, 2.01e-6, -8, {9999, 9999, 9999, 9999, 1100}, kScan, kPan, {0, 0, 7, 0, -8}},
    LagCase{5, -1.201e-5, -8, {100, 203, 400, 9999, 9999}, kScan, kPan, {-8, -8, -8, 0, 0}},
    LagCase{0, 85.89934793, -8, {141, 281, 399, 678, 1100}, {141, 281, 399, 678, 1100}, kPan, {0, 0, 7, 0, -8}},
    LagCase{0, -85.89934393, -8, {141, 281, 399, 678, 1100}, {141, 281, 399, 678, 1100}, kPan, {0, 0, 7, 0, -8}},
    LagCase{0, 42.94967497, -8, {100, 203, 400, 397, 1100}, kScan, kPan, {-8, -8, -8, -8, -8}},
    // Uneven times: the interval comes from the period, the fraction from the actual times
    // (shot 0 lands at 1260, in interval 1 but before its shot at 1300: f = -0.2).
    LagCase{0, 5.21e-6, -8, {164, 400, 397, 397, 1100}, {164, 400, 397, 397, 1100}, kPan, {0, 0, 7, -8, -8},
            {1000, 1300, 1500, 1760, 2000}}));

class LagCorrectionFailure : public test::InTempDir {};

TEST_F(LagCorrectionFailure, EmptyListOrZeroPeriodGiveMinus8WithoutLogging) {
  std::vector<RawShot> none;
  Corrected corrected(5, kUnwritten);
  EXPECT_EQ(ApplyLagCorrection(none, kPrf, 5e-6, 0, corrected), -8);
  EXPECT_EQ(corrected, Corrected(5, kUnwritten));
  std::vector<RawShot> shots = FiveShots();
  EXPECT_EQ(ApplyLagCorrection(shots, 0.0, 2.01e-6, 0, corrected), -8);
  EXPECT_EQ(corrected, (Corrected{100, 203, 400, 397, 1100}));
  ExpectShots(shots, kScan, kPan, {-8, -8, -8, -8, -8});
  EXPECT_TRUE(logEntries().empty());
}

TEST_F(LagCorrectionFailure, ShortCorrectedListThrowsAtTheFirstIndexWritten) {
  std::vector<RawShot> shots = FiveShots();
  Corrected corrected(3, kUnwritten);
  try {
    ApplyLagCorrection(shots, kPrf, 5e-6, 0, corrected);
    ADD_FAILURE() << "no exception";
  } catch (const std::out_of_range& e) {
    EXPECT_STREQ(e.what(), "invalid vector<T> subscript");
  }
  EXPECT_EQ(corrected, (Corrected{203, 400, 397}));
  ExpectShots(shots, kScan, kPan, {0, 0, 7, -8, 0});  // nothing applied; shot 3 was marked before its write
  // Mode 2 writes only failed shots: with a negative lag only shot 0 fails.
  corrected.assign(1, kUnwritten);
  EXPECT_EQ(ApplyLagCorrection(shots, kPrf, -2.01e-6, 2, corrected), -8);
  EXPECT_EQ(corrected, Corrected{100});
  Corrected empty;
  EXPECT_EQ(ApplyLagCorrection(shots, kPrf, 1e-8, 0, empty), 0);
  EXPECT_TRUE(logEntries().empty());
}

}  // namespace
}  // namespace kvr
