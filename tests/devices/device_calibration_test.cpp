#include "devices/device_calibration.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <limits>
#include <ostream>
#include <string>

namespace kvr::devices {
namespace {

using namespace std::string_literals;

// A stream holding the text (a temporary file: memory streams are POSIX only).
std::FILE* StreamOf(const std::string& text) {
  std::FILE* stream = std::tmpfile();
  if (stream == nullptr) return nullptr;
  std::fwrite(text.data(), 1, text.size(), stream);
  std::rewind(stream);
  return stream;
}

struct AlphaCase {
  const char* name;
  std::string text;
  std::int32_t alpha;

  friend void PrintTo(const AlphaCase& c, std::ostream* os) { *os << c.name; }
};

class CalibrationTextLine : public ::testing::TestWithParam<AlphaCase> {};

TEST_P(CalibrationTextLine, SetsAlphaRoundedHalfUp) {
  std::string text = GetParam().text;
  std::FILE* in = StreamOf(text);
  InclinometerCalibration c;
  EXPECT_EQ(DecodeInclinometerCalibration(in, c, static_cast<std::uint32_t>(text.size())), 0);
  std::fclose(in);
  EXPECT_EQ(c.alpha, GetParam().alpha);
}

INSTANTIATE_TEST_SUITE_P(
    Lines, CalibrationTextLine,
    ::testing::Values(AlphaCase{"EqualsSign", "alpha=2.5\n", 3}, AlphaCase{"BlanksAroundEquals", "alpha = 2.5\n", 3},
                      AlphaCase{"TabsAndExtraTokens", "\t alpha\t=\t2.4 7 8\n", 2},
                      AlphaCase{"NegativeTruncatesTowardZero", "alpha=-2.5\n", -2},
                      AlphaCase{"LastLineWithoutLineFeed", "pga=1\nalpha=2.5", 3},
                      AlphaCase{"LaterLineOverwrites", "alpha=1\nalpha=7\n", 7},
                      AlphaCase{"KeysAreCaseSensitive", "Alpha=5\n", 0},
                      AlphaCase{"SingleTokenLineIgnored", "alpha=4\nalpha\n", 4},
                      AlphaCase{"NotANumberIsZero", "alpha=x\n", 0},
                      AlphaCase{"TextEndsAtFirstZeroByte", "alpha=3\n\0alpha=9\n"s, 3},
                      AlphaCase{"BeyondIntegerRange", "alpha=9e9\n", std::numeric_limits<std::int32_t>::min()}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(CalibrationBlock, KeepsTheFirst1024BytesAndConsumesTheRest) {
  std::string text = "sxx=1\n";
  text.resize(1024, ' ');
  text += "\nsyy=2\nnext";  // syy lies beyond the kept bytes; "next" beyond the block
  std::FILE* in = StreamOf(text);
  InclinometerCalibration c;
  c.syy = 5.0f;
  DecodeInclinometerCalibration(in, c, static_cast<std::uint32_t>(text.size() - 4));
  EXPECT_EQ(std::ftell(in), static_cast<long>(text.size() - 4));
  std::fclose(in);
  EXPECT_EQ(c.sxx, 1.0f);
  EXPECT_EQ(c.syy, 0.0f);
}

}  // namespace
}  // namespace kvr::devices
