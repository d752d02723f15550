#include <gtest/gtest.h>

#include <array>
#include <limits>
#include <optional>

#include "kvr_decode/optical_model.h"
#include "kvr_writers/header_texts.h"
#include "support/header_record.h"
#include "support/stdout_capture.h"

namespace kvr {
namespace {

using Parameters = OpticalModel::CalibrationParameters;
using Doubles = std::array<double, 19>;
using writers::TextLayout;

// a0-a6, wobblePhiModel1, smKappa, panA, panB, wobbleOmega(A, B), reserved, wobblePhi(A, B, S)
Doubles DoublesOf(const Parameters& p) {
  return {p.a0, p.a1, p.a2, p.a3, p.a4, p.a5, p.a6, p.wobblePhiModel1, p.smKappa, p.panA, p.panB, p.wobbleOmega,
          p.wobbleOmegaA, p.wobbleOmegaB, p.reserved, p.wobblePhi, p.wobblePhiA, p.wobblePhiB, p.wobblePhiS};
}

// All seventeen tags, valued 0.5, 1.5, ... in tag order.
const std::vector<std::pair<std::string, std::string>> kAllTags = {
    {"a0", "0.5"}, {"a1", "1.5"}, {"a2", "2.5"}, {"a3", "3.5"}, {"a4", "4.5"}, {"a5", "5.5"}, {"a6", "6.5"},
    {"sm-kappa", "7.5"}, {"pan-a", "8.5"}, {"pan-b", "9.5"}, {"wobble-omega", "10.5"}, {"wobble-omega-a", "11.5"},
    {"wobble-omega-b", "12.5"}, {"wobble-phi", "13.5"}, {"wobble-phi-a", "14.5"}, {"wobble-phi-b", "15.5"},
    {"wobble-phi-s", "16.5"}};
const Doubles kModel1 = {0.5, 1.5, 2.5, 3.5, 0, 0, 0, 13.5};
const Doubles kModel2 = {0.5, 1.5, 2.5, 3.5, 4.5, 5.5, 6.5, 0, 7.5, 8.5, 9.5, 10.5, 11.5, 12.5, 0, 13.5, 14.5, 15.5, 16.5};
const double kInf = std::numeric_limits<double>::infinity();

struct TextCase {
  const char* name;
  std::string text;
  std::optional<std::uint32_t> storedLength;
  int version;
  Doubles expected;
};
void PrintTo(const TextCase& c, std::ostream* os) { *os << c.name; }

class OpticalModelText : public testing::TestWithParam<TextCase> {};

TEST_P(OpticalModelText, SetsEveryCoefficientAndPrintsTheVersion) {
  const TextCase& c = GetParam();
  test::HeaderRecord record;
  record.setOpticalModelText(c.text, c.storedLength);
  test::StdoutCapture out;
  const Parameters p = GetCalibrationParameters(record.header);
  EXPECT_EQ(out.text(), c.text.empty() ? "" : "Optical model version " + std::to_string(c.version) + "\n");
  EXPECT_EQ(p.opticalModelVersion, c.version);
  EXPECT_EQ(DoublesOf(p), c.expected);
}

INSTANTIATE_TEST_SUITE_P(GetCalibrationParameters, OpticalModelText, testing::Values(
    TextCase{"Empty", "", {}, 1, {0, 1}},
    TextCase{"Model1", writers::OpticalModelText("", kAllTags, TextLayout::kCompact), {}, 1, kModel1},
    TextCase{"Version2", writers::OpticalModelText("version=\"2\"", kAllTags, TextLayout::kIndented), {}, 2, kModel2},
    TextCase{"Model2", writers::OpticalModelText("model=\"2\"", kAllTags, TextLayout::kCompact), {}, 2, kModel2},
    TextCase{"Version2NotFirst", writers::OpticalModelText("id=\"x\" version=\"2\"", kAllTags, TextLayout::kCompact), {}, 1, kModel1},
    TextCase{"OnlyA0", "<calibration_parameters version = \"2\">\n  <a0>\n 1.5 \n</a0>\n</calibration_parameters>", {}, 2, {1.5}},
    TextCase{"BrokenNumbers", "<a0>abc</a0><a1>1.5abc</a1><a2>- 2 . 5</a2><a3>1e400</a3><wobble-phi>0x10</wobble-phi>", {}, 1,
             {0, 1.5, -2.5, kInf, 0, 0, 0, 16}},
    // No closing tag; a stray '<'; a repeated tag; a closing tag before the opening one.
    TextCase{"MisplacedTags", "<a0>1.5<<a1>2</a1><a2>3</a2><a2>4</a2></a3><a3>5</a3>", {}, 1, {0, 2, 3, 5}},
    TextCase{"SimilarNames", "<wobble-phi-a>2</wobble-phi-a><wobble-phi>1</wobble-phi><wobble-omega-b>3</wobble-omega-b>"
             "<calibration_parameters model=\"2\">", {}, 2, {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 3, 0, 1, 2}},
    TextCase{"StoredLengthCuts", "<a0>1.5</a0><a1>2</a1>", 12, 1, {1.5}},
    TextCase{"ZeroByteEnds", std::string("<a0>1.5</a0>\0<a1>2</a1>", 23), {}, 1, {1.5}}),
    [](const auto& info) { return info.param.name; });

struct RangeTableCase {
  std::int32_t tablePrf;
  std::size_t rows;
  bool valid;
};
void PrintTo(const RangeTableCase& c, std::ostream* os) { *os << c.rows << " rows for PRF " << c.tablePrf; }

class RangeTable : public testing::TestWithParam<RangeTableCase> {};

TEST_P(RangeTable, TakesExactly4096RowsOfTheFilesPrf) {
  test::HeaderRecord record(200);
  record.setPrfTable(GetParam().tablePrf, GetParam().rows);
  const Parameters p = GetCalibrationParameters(record.header);
  EXPECT_EQ(p.rangeTableValid, GetParam().valid ? 1 : 0);
  for (int i = 0; i < 4096; ++i) ASSERT_EQ(p.rangeTable[i], GetParam().valid ? i * 0.25f : 0.0f) << i;
  EXPECT_EQ(p.rangeOffset, -13.2f);
}

INSTANTIATE_TEST_SUITE_P(GetCalibrationParameters, RangeTable,
                         testing::Values(RangeTableCase{200, 4095, false}, RangeTableCase{200, 4096, true},
                                         RangeTableCase{200, 4097, false}, RangeTableCase{500, 4096, false}));

TEST(GetCfValue, InsertsAMissingKeyAsZeroWhichThenReplacesTheRangeOffsetDefault) {
  test::HeaderRecord record;
  record.header.calibrationValues = {{"rangeOffset", 0.1}, {"scanAngleLag", -5e-6}};
  std::string key = "scanAngleLag";
  EXPECT_EQ(GetCfValue(key, record.header), -5e-6);
  EXPECT_EQ(GetCalibrationParameters(record.header).rangeOffset, 0.1f);
  record.header.calibrationValues.erase("rangeOffset");
  EXPECT_EQ(GetCalibrationParameters(record.header).rangeOffset, -13.2f);
  key = "rangeOffset";
  EXPECT_EQ(GetCfValue(key, record.header), 0.0);
  EXPECT_EQ(record.header.calibrationValues.size(), 2u);
  EXPECT_EQ(GetCalibrationParameters(record.header).rangeOffset, 0.0f);
}

}  // namespace
}  // namespace kvr
