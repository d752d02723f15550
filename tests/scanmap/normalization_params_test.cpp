#include "scanmap/normalization_params.h"

#include <gtest/gtest.h>

#include <string>

#include "support/temp_dir.h"
#include "support/temp_dir_test_base.h"

namespace kvr {
namespace {

struct ParamCase {
  const char* name;
  std::string text;
  double a1, a2, a3, a4, a5, gamma;
  std::optional<std::int32_t> bins;
};

constexpr double kA1 = 200.0, kA2 = 4.0, kA3 = 0.43, kA4 = 2.3, kA5 = 6.1, kGamma = 0.5;

class NormalizationParams : public test::InTempDir, public ::testing::WithParamInterface<ParamCase> {};

TEST_P(NormalizationParams, OverrideTheModel) {
  const ParamCase& t = GetParam();
  test::WriteFile(path("scan.raw.NormalizationParams.txt"), t.text);
  ScanFileMap map;
  const std::optional<std::int32_t> bins =
      scanmap::ApplyNormalizationParameters(test::WideName(path("scan.raw")).c_str(), map);
  EXPECT_EQ(map.a1, t.a1);
  EXPECT_EQ(map.a2, t.a2);
  EXPECT_EQ(map.a3, t.a3);
  EXPECT_EQ(map.a4, t.a4);
  EXPECT_EQ(map.a5, t.a5);
  EXPECT_EQ(map.gamma, t.gamma);
  EXPECT_EQ(bins, t.bins);
  EXPECT_EQ(map.numberOfBins, 4096);  // the caller decides about the count
}

// A line of 510 blanks and then "a2 3": read as two lines, so a2 is set.
const std::string kSplitLine = "zz" + std::string(508, ' ') + "a2 3\n";

INSTANTIATE_TEST_SUITE_P(
    Files, NormalizationParams,
    ::testing::Values(
        ParamCase{"EqualsSign", "a3=1.5\n", kA1, kA2, 1.5, kA4, kA5, kGamma, {}},
        ParamCase{"Tab", "a3\t1.5\n", kA1, kA2, 1.5, kA4, kA5, kGamma, {}},
        ParamCase{"RunOfSeparatorsAndExtraTokens", "a3 = =\t1.5 ignored\n", kA1, kA2, 1.5, kA4, kA5, kGamma, {}},
        ParamCase{"ColonMakesOneToken", "a3:1.5\n", kA1, kA2, kA3, kA4, kA5, kGamma, {}},
        ParamCase{"KeysAreCaseSensitive", "A1 5\nGamma 2\n", kA1, kA2, kA3, kA4, kA5, kGamma, {}},
        ParamCase{"AllKeysCrLfAndNoFinalNewline",
                  "a1 100\r\na2 2\r\na3 1\r\na4 0.5\r\na5 10\r\ngamma 0.7\r\nnumberOfBins 2048",
                  100.0, 2.0, 1.0, 0.5, 10.0, 0.7, 2048},
        ParamCase{"LaterLineWins", "gamma 0.7\ngamma 0.9\n", kA1, kA2, kA3, kA4, kA5, 0.9, {}},
        ParamCase{"UnparsableValueIsZero", "a5 abc\n", kA1, kA2, kA3, kA4, 0.0, kGamma, {}},
        ParamCase{"BinCountTruncatesTowardZero", "numberOfBins = 2048.9\n", kA1, kA2, kA3, kA4, kA5, kGamma, 2048},
        ParamCase{"NegativeBinCountIsReported", "numberOfBins -3.7\n", kA1, kA2, kA3, kA4, kA5, kGamma, -3},
        ParamCase{"BinCountNoIntegerHolds", "numberOfBins 1e12\n", kA1, kA2, kA3, kA4, kA5, kGamma,
                  -2147483647 - 1},
        ParamCase{"LongLineIsReadAsTwo", kSplitLine, kA1, 3.0, kA3, kA4, kA5, kGamma, {}},
        ParamCase{"EmptyFile", "", kA1, kA2, kA3, kA4, kA5, kGamma, {}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(NormalizationParamsFile, MissingFileKeepsTheDefaults) {
  test::TempDir dir;
  ScanFileMap map;
  map.a1 = 1.0;
  EXPECT_EQ(scanmap::ApplyNormalizationParameters(test::WideName(dir / "scan.raw").c_str(), map), std::nullopt);
  EXPECT_EQ(map.a1, 1.0);
}

}  // namespace
}  // namespace kvr
