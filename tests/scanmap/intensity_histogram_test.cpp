#include "scanmap/intensity_histogram.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>
#include <random>
#include <vector>

namespace kvr::scanmap {
namespace {

TEST(BinIndex, BinsFromZeroAndSendsEverythingElseToTheLastBin) {
  EXPECT_EQ(BinIndex(10.0, 2.5, 8), 4);
  EXPECT_EQ(BinIndex(12.4, 2.5, 8), 4);
  EXPECT_EQ(BinIndex(19.99, 2.5, 8), 7);
  EXPECT_EQ(BinIndex(20.0, 2.5, 8), 7);
  EXPECT_EQ(BinIndex(1e30, 2.5, 8), 7);
  EXPECT_EQ(BinIndex(-3.0, 2.5, 8), 7);
  EXPECT_EQ(BinIndex(-1.0, 2.5, 8), 0);  // truncation toward zero
  EXPECT_EQ(BinIndex(5.0, std::numeric_limits<double>::quiet_NaN(), 8), 7);
  EXPECT_EQ(BinIndex(5.0, std::numeric_limits<double>::infinity(), 8), 0);
}

TEST(BinIndex, BinsOfABatchStopAtItsCount) {
  SampleBatch batch;
  batch.count = 7;  // four values in one vector step, three after it
  const double values[] = {0.0, 2.4, 2.5, 7.6, 30.0, -1.0, 17.5, 5.0};
  std::copy(std::begin(values), std::end(values), batch.value.get());
  batch.bin[7] = -7;
  BinIndices(batch, 2.5, 8, batch.bin.get());
  EXPECT_EQ(std::vector<std::int32_t>(batch.bin.get(), batch.bin.get() + 8),
            (std::vector<std::int32_t>{0, 0, 1, 3, 7, 0, 7, -7}));
}

TEST(IntensityHistogram, CountsOnlyTheBinsGivenBeforeAndAfterAWalk) {
  // The 0 after the four bins lies outside the count: counted, it would reach
  // the share at bin 0. After a walk the counts go on in pages.
  const std::int32_t bins[] = {3, 3, 3, 3, 0};
  IntensityHistogram histogram;
  ASSERT_TRUE(histogram.Allocate(10));
  histogram.AddAll(bins, 4);
  EXPECT_EQ(histogram.FirstBinReaching(0.1, 4), 3);
  histogram.AddAll(bins, 4);
  EXPECT_EQ(histogram.FirstBinReaching(0.1, 8), 3);
  EXPECT_EQ(histogram.FirstBinReaching(1.0, 8), 3);
}

// A plain table of doubles, one 1.0 per sample, walked bin by bin.
std::int64_t DenseFirstBinReaching(const std::vector<std::int32_t>& samples, std::int32_t bins, double share,
                                   std::uint32_t validSampleCount) {
  std::vector<double> table(static_cast<std::size_t>(bins), 0.0);
  for (std::int32_t s : samples) table[static_cast<std::size_t>(s)] += 1.0;
  double sum = 0.0;
  for (std::int32_t i = 0; i < bins; ++i) {
    table[static_cast<std::size_t>(i)] /= validSampleCount;
    sum += table[static_cast<std::size_t>(i)];
    if (sum >= share) return i;
  }
  return bins;
}

struct WalkCase {
  const char* name;
  std::int32_t bins;
  std::size_t samples;
  std::uint32_t validSampleCount;
  bool clustered;  // most samples in a few bins, so counts pass 255
};

class HistogramWalk : public ::testing::TestWithParam<WalkCase> {};

TEST_P(HistogramWalk, MatchesAFlatTableOfDoubles) {
  const WalkCase& t = GetParam();
  std::mt19937 rng(7);
  std::vector<std::int32_t> samples;
  for (std::size_t i = 0; i < t.samples; ++i) {
    const std::int32_t spread = t.clustered && i % 4 != 0 ? 3 : t.bins;
    samples.push_back(static_cast<std::int32_t>(rng() % static_cast<std::uint32_t>(spread)) +
                      (t.clustered && i % 4 != 0 ? t.bins / 2 : 0));
  }
  IntensityHistogram histogram;
  ASSERT_TRUE(histogram.Allocate(t.bins));
  for (std::int32_t s : samples) histogram.Add(s);
  ASSERT_FALSE(histogram.failed());
  for (double share : {0.0, 0.25, 0.95, 1.0, 1.5}) {
    EXPECT_EQ(histogram.FirstBinReaching(share, t.validSampleCount),
              DenseFirstBinReaching(samples, t.bins, share, t.validSampleCount))
        << share;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Histograms, HistogramWalk,
    ::testing::Values(WalkCase{"OnePage", 4096, 20000, 20000, false},
                      WalkCase{"SparseOverManyPages", 3000000, 5000, 5000, false},
                      WalkCase{"CountsBeyondOneByte", 100000, 40000, 40000, true},
                      WalkCase{"MoreSamplesBinnedThanCounted", 5000, 3000, 2000, false},
                      WalkCase{"OddBinCount", 4097, 3000, 3000, false}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(HistogramWalk, WithoutCountedSamplesOnlyTheFirstBinCanReachTheShare) {
  // 1/0 is infinite; 0/0 is NaN, and a NaN sum never reaches anything.
  IntensityHistogram first;
  ASSERT_TRUE(first.Allocate(10));
  first.Add(0);
  first.Add(5);
  EXPECT_EQ(first.FirstBinReaching(0.95, 0), 0);
  IntensityHistogram later;
  ASSERT_TRUE(later.Allocate(10));
  later.Add(5);
  EXPECT_EQ(later.FirstBinReaching(0.95, 0), 10);
}

TEST(IntensityHistogram, RefusesCountsWithoutBins) {
  IntensityHistogram histogram;
  EXPECT_FALSE(histogram.Allocate(0));
  EXPECT_FALSE(histogram.Allocate(-2147483647));
  EXPECT_TRUE(histogram.Allocate(2147483647));  // pages come only with use
  histogram.Add(2147483646);
  EXPECT_EQ(histogram.FirstBinReaching(0.95, 1), 2147483646);
}

}  // namespace
}  // namespace kvr::scanmap
