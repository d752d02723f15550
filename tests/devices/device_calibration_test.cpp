#include "devices/device_calibration.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <limits>
#include <ostream>
#include <string>

namespace kvr::devices {
namespace {

// A stream over the bytes of a text, as the file reader hands them on.
class TextStream {
 public:
  explicit TextStream(std::string bytes) : bytes_(std::move(bytes)) {
    stream_ = fmemopen(bytes_.data(), bytes_.size(), "rb");
  }
  ~TextStream() { std::fclose(stream_); }
  std::FILE* get() const { return stream_; }

 private:
  std::string bytes_;
  std::FILE* stream_;
};

InclinometerCalibration DecodeInclinometer(const std::string& text, std::uint32_t byteCount) {
  TextStream in(text);
  InclinometerCalibration calibration;
  calibration.sxx = 99.0f;  // every member is rewritten, present or not
  EXPECT_EQ(DecodeInclinometerCalibration(in.get(), calibration, byteCount), 0);
  EXPECT_EQ(std::ftell(in.get()), static_cast<long>(std::min<std::size_t>(byteCount, text.size())));
  return calibration;
}

struct AlphaCase {
  const char* name;
  std::string text;
  std::int32_t alpha;

  friend void PrintTo(const AlphaCase& c, std::ostream* os) { *os << c.name; }
};

class CalibrationTextLine : public ::testing::TestWithParam<AlphaCase> {};

TEST_P(CalibrationTextLine, SetsAlphaRoundedHalfUp) {
  const AlphaCase& c = GetParam();
  EXPECT_EQ(DecodeInclinometer(c.text, static_cast<std::uint32_t>(c.text.size())).alpha, c.alpha);
}

using namespace std::string_literals;
constexpr std::int32_t kIntegerIndefinite = std::numeric_limits<std::int32_t>::min();

INSTANTIATE_TEST_SUITE_P(Lines, CalibrationTextLine,
                         ::testing::Values(AlphaCase{"EqualsSign", "alpha=2.5\n", 3},
                                           AlphaCase{"BlanksAroundEquals", "alpha = 2.5\n", 3},
                                           AlphaCase{"TabsAndExtraTokens", "\t alpha\t=\t2.4 7 8\n", 2},
                                           AlphaCase{"NegativeTruncatesTowardZero", "alpha=-2.5\n", -2},
                                           AlphaCase{"LastLineWithoutLineFeed", "pga=1\nalpha=2.5", 3},
                                           AlphaCase{"LaterLineOverwrites", "alpha=1\nalpha=7\n", 7},
                                           AlphaCase{"KeysAreCaseSensitive", "Alpha=5\n", 0},
                                           AlphaCase{"SingleTokenLineIgnored", "alpha=4\nalpha\n", 4},
                                           AlphaCase{"NotANumberIsZero", "alpha=x\n", 0},
                                           AlphaCase{"TextEndsAtFirstZeroByte", "alpha=3\n\0alpha=9\n"s, 3},
                                           AlphaCase{"BeyondIntegerRange", "alpha=9e9\n", kIntegerIndefinite},
                                           AlphaCase{"OnlySeparators", " = \t\n", 0}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(InclinometerCalibration, FillsEveryMemberFromItsKey) {
  const std::string text =
      "sxx=1.02\nsyy=0.98\nsxy=0.01\nsyx=-0.02\noffnomx=0.001\noffnomy=-0.002\nbsroll=0.5\n"
      "bspitch=-0.25\nbsheading=90\nalpha=2.5\nbeta=0.5\nvref=2.5\npga=7.6\n"s +
      '\0';
  const InclinometerCalibration c = DecodeInclinometer(text, static_cast<std::uint32_t>(text.size()));
  EXPECT_EQ(c.sxx, 1.02f);
  EXPECT_EQ(c.syy, 0.98f);
  EXPECT_EQ(c.sxy, 0.01f);
  EXPECT_EQ(c.syx, -0.02f);
  EXPECT_EQ(c.offnomx, 0.001f);
  EXPECT_EQ(c.offnomy, -0.002f);
  EXPECT_EQ(c.bsroll, 0.5f);
  EXPECT_EQ(c.bspitch, -0.25f);
  EXPECT_EQ(c.bsheading, 90.0f);
  EXPECT_EQ(c.alpha, 3);
  EXPECT_EQ(c.beta, 0.5f);
  EXPECT_EQ(c.vref, 2.5f);
  EXPECT_EQ(c.pga, 8);
}

TEST(CompassCalibration, FillsEveryMemberAndZeroesMissingKeys) {
  const std::string text = "xsf=1.5\nysf 0.75\nxoff=-12.25\ndeclination=-2.5\n"s + '\0';
  TextStream in(text);
  CompassCalibration c{9.0f, 9.0f, 9.0f, 9.0f, 9.0f};
  EXPECT_EQ(DecodeCompassCalibration(in.get(), c, static_cast<std::uint32_t>(text.size())), 0);
  EXPECT_EQ(c.xsf, 1.5f);
  EXPECT_EQ(c.ysf, 0.75f);
  EXPECT_EQ(c.xoff, -12.25f);
  EXPECT_EQ(c.yoff, 0.0f);
  EXPECT_EQ(c.declination, -2.5f);
}

TEST(InclinometerCalibration, BlockBeyondItsBufferKeepsTheFirst1024BytesAndConsumesTheRest) {
  std::string text = "sxx=1\n";
  text.resize(1024, ' ');
  text += "\nsyy=2\n";  // lies beyond the 1024 kept bytes
  const InclinometerCalibration c = DecodeInclinometer(text + "next", static_cast<std::uint32_t>(text.size()));
  EXPECT_EQ(c.sxx, 1.0f);
  EXPECT_EQ(c.syy, 0.0f);
}

TEST(InclinometerCalibration, BlockStatedLongerThanTheStreamReadsToItsEnd) {
  const InclinometerCalibration c = DecodeInclinometer("vref=2.5\npga=3\n", 0xFFFFFFFFu);
  EXPECT_EQ(c.vref, 2.5f);
  EXPECT_EQ(c.pga, 3);
}

}  // namespace
}  // namespace kvr::devices
