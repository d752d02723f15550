#include "header/parameter_text.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace kvr::header {
namespace {

using Values = decltype(RawFileHeader::calibrationValues);

TEST(PrfTables, KeepEveryPrfSectionsFourthAndFifthColumns) {
  const struct {
    const char* text;
    PrfTables expected;
  } cases[] = {
      {"[PRF = 200]\n1 a b 0.5 0.25", {{200, {{0.5, 0.25}}}}},
      {"1 a b 0.5 0.25\n", {}},  // before any section
      {"[PRF = 200]\n1 a b 1 2\n[PRF = 200]\n2 a b 3 4\n", {{200, {{3.0, 4.0}}}}},
      // a one-token header is no header: the last row still belongs to 50
      {"[PRF\t=\t50]\r\n1 a b 1 2 9\r\n1 a b 7\n1 a\n[PRF=500]\n1 a b x 2.5e1\n", {{50, {{1.0, 2.0}, {0.0, 25.0}}}}},
      {"[PRF = 500]\n1 a b 1 2\n[PRF = x]\n1 a b 3 4\n[PRF = 50]\n", {{500, {{1.0, 2.0}}}, {0, {}}, {50, {}}}},
  };
  for (const auto& c : cases) {
    PrfTables tables{{9, {{1.0, 1.0}}}};
    BuildPrfTables(c.text, static_cast<std::uint32_t>(std::strlen(c.text)), tables);
    EXPECT_EQ(tables, c.expected) << c.text;
  }
  PrfTables tables{{9, {}}};
  BuildPrfTables("[PRF = 200]\n1 a b 1 2\n", 0, tables);  // the length alone says empty
  EXPECT_TRUE(tables.empty());
}

struct CalibrationCase {
  const char* text;
  std::uint32_t prf;
  Values expected;
};

void PrintTo(const CalibrationCase& c, std::ostream* os) {
  *os << "prf " << c.prf << " " << ::testing::PrintToString(std::string(c.text));
}

class CalibrationValues : public ::testing::TestWithParam<CalibrationCase> {};

TEST_P(CalibrationValues, TakeKeysBeforeAndInOwnSectionThenThePulsePeriodAsLag) {
  RawFileHeader record;
  std::string text = GetParam().text;
  record.calibrationText = text.data();
  record.calibrationTextLength = static_cast<std::uint32_t>(text.size());
  record.prf = GetParam().prf;
  record.calibrationValues = {{"stale", 1.0}};
  BuildCalibrationValues(record);
  EXPECT_EQ(record.calibrationValues, GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, CalibrationValues,
    ::testing::Values(
        CalibrationCase{"rangeOffset = 1.5", 200, {{"rangeOffset", 1.5}, {"scanAngleLag", -0.000005}}},
        CalibrationCase{"[PRF=500]\nscanAngleLag = 3\n", 500, {{"scanAngleLag", -0.000002}}},
        CalibrationCase{"a = 1\nb = 7\n[PRF = 50]\na = 2\nlag, 4, x, 100\n[PRF=200]\nb 9 9\n",
                        50,
                        {{"a", 2.0}, {"b", 7.0}, {"scanAngleLag", -0.00002}}},
        // no section header: only two-token lines count; keys are case-sensitive
        CalibrationCase{"A = 1\r\na = 2\nd = 2 3\nb\n c\t=\t-4e-1 \r\n", 200,
                        {{"A", 1.0}, {"a", 2.0}, {"c", -0.4}, {"scanAngleLag", -0.000005}}},
        // a closing section 0 discards the sectioned pass
        CalibrationCase{"[PRF=200]\na = 1\n[PRF=zero]\nb = 2\nc = 3 4\n", 200,
                        {{"[PRF", 0.0}, {"a", 1.0}, {"b", 2.0}, {"scanAngleLag", -0.000005}}},
        CalibrationCase{"", 200, {{"stale", 1.0}}}));

}  // namespace
}  // namespace kvr::header
