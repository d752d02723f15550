#include "nmea/nmea_sentence.h"

#include <gtest/gtest.h>

#include <chrono>
#include <stdexcept>
#include <string>

#include "kvr_writers/tick_file_writer.h"
#include "nmea/nmea_ticks_manager.h"

namespace kvr::nmea {
namespace {

using writers::NmeaSentence;
using writers::Utc;

double TimeOf(const std::string& line) {
  return SentenceTimeOfWeek(GetSentenceType(line.c_str()), line.c_str(), static_cast<unsigned>(line.size()));
}

struct LineCase {
  const char* name;
  std::string line;
  double timeOfWeek;
};

void PrintTo(const LineCase& c, std::ostream* os) { *os << c.name; }

class SentenceTime : public ::testing::TestWithParam<LineCase> {};

// 2020-01-28 is a Tuesday: 2 x 86400 + 14:30:07 = 225007 s of the week.
INSTANTIATE_TEST_SUITE_P(
    Lines, SentenceTime,
    ::testing::Values(
        LineCase{"ZdaGp", writers::ZdaSentence(Utc(2020, 1, 28, 14, 30, 7), "GP"), 225007.0},
        // Two fraction digits 45 are read as 45 ms; Tuesday 2019-12-31.
        LineCase{"ZdaGnFractionAsMilliseconds", writers::ZdaSentence(Utc(2019, 12, 31, 23, 59, 59, 450), "GN"),
                 259199.045},
        LineCase{"ZdaGlSundayMidnightIsZero", writers::ZdaSentence(Utc(2020, 1, 5, 0, 0, 0), "GL"), 0.0},
        LineCase{"ZdaLowerCaseChecksum", "$GPZDA,143007.00,28,01,2020,00,00*6c\r\n", 225007.0},
        LineCase{"ZdaOneFractionDigitIsMilliseconds", NmeaSentence("GPZDA,143007.4,28,01,2020,00,00"), 225007.004},
        LineCase{"ZdaSevenCharacterTime", NmeaSentence("GPZDA,143007.,28,01,2020,00,00"), 225007.0},
        LineCase{"ZdaWrongChecksum", "$GPZDA,143007.00,28,01,2020,00,00*6D\r\n", -1.0},
        LineCase{"ZdaThreeTalkerCharacters", NmeaSentence("GPSZDA,143007.00,28,01,2020,00,00"), -1.0},
        LineCase{"ZdaWithoutDollar", NmeaSentence("GPZDA,143007.00,28,01,2020,00,00").substr(1), -1.0},
        LineCase{"ZdaBothZoneFieldsEmpty", NmeaSentence("GPZDA,143007.00,28,01,2020,,"), -1.0},
        LineCase{"ZdaMonthOutsideCalendar", NmeaSentence("GPZDA,143007.00,28,13,2020,00,00"), -1.0},
        LineCase{"FewerThanFourTokens", NmeaSentence("GPZDA,143007.00,28"), -1.0},
        LineCase{"Pps", writers::PpsSentence(Utc(2020, 1, 28, 14, 30, 7, 250)), 225007.25},
        LineCase{"PpsSixTokens", "$GPPPS,143007.250,2,1,0,0\r\n", -1.0},
        LineCase{"Utc", writers::UtcLine(Utc(2020, 1, 28, 14, 30, 7)), 225007.0},
        LineCase{"UtcWithoutTime", writers::UtcLine(Utc(2020, 1, 28, 14, 30, 7), "?"), -1.0},
        LineCase{"UtcYear80", "UTC 80/01/06 00:00:10 1\r\n", -1.0},
        LineCase{"OtherSentence", NmeaSentence("GPGGA,143007.00,4807.038,N,01131.000,E,1,08,0.9,545.4,M,,,,"),
                 -1.0}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_P(SentenceTime, IsTheTimeOfWeekOrMinusOne) { EXPECT_DOUBLE_EQ(TimeOf(GetParam().line), GetParam().timeOfWeek); }

TEST(SentenceErrors, ShortFieldsThrowTheCheckedAccessErrors) {
  const struct {
    std::string line;
    const char* error;
  } cases[] = {
      {NmeaSentence("GPZDA,143007.00,28,01,2020,00,"), "invalid vector<T> subscript"},
      {NmeaSentence("GPZDA,143007,28,01,2020,00,00"), "invalid string position"},
      {"$GPPPS,1430,2,1,0,0,0\r\n", "invalid string position"},
      {"UTC 20/01 14:30:07 1\r\n", "invalid string position"},
      {"UTC 20/01/28 14:30 1\r\n", "invalid string position"},
  };
  for (const auto& c : cases) {
    try {
      TimeOf(c.line);
      ADD_FAILURE() << "no exception for " << c.line;
    } catch (const std::out_of_range& e) {
      EXPECT_STREQ(e.what(), c.error) << c.line;
    }
  }
}

TEST(SentenceType, AnyUtcLineSwitchesToNextPulseStampingEvenWhenRejected) {
  NmeaTicksManager manager(nullptr);
  const std::string zda = writers::ZdaSentence(Utc(2020, 1, 28, 14, 30, 7));
  manager.ParseNmeaSentence(zda.c_str(), static_cast<unsigned>(zda.size()));
  EXPECT_FALSE(manager.nextPulseTime);
  const std::string utc = writers::UtcLine(Utc(2020, 1, 28, 14, 30, 7), "?");
  EXPECT_EQ(manager.ParseNmeaSentence(utc.c_str(), static_cast<unsigned>(utc.size())), -1.0);
  EXPECT_TRUE(manager.nextPulseTime);
}

TEST(Checksum, XorsUpToTheStarSkippingDollarsAgainstTwoHexDigits) {
  EXPECT_EQ(HexPairValue("4F", 2), 0x4F);
  EXPECT_EQ(HexPairValue("4f\r", 3), 0x4F);
  EXPECT_EQ(HexPairValue("G7", 2), 7);
  EXPECT_EQ(HexPairValue("4", 1), -1);
  EXPECT_EQ(VerifyChecksum("$A$B*03", 7, "03"), 0);
  EXPECT_EQ(VerifyChecksum("$AB*03", 2, "41"), 0);           // only the first `length` bytes
  EXPECT_EQ(VerifyChecksum("$\xC1*C1", 4, "C1"), -1);       // high bytes are sign-extended
}

TEST(DayOfWeek, AgreesWithTheCivilCalendarFrom1900To2100) {
  using namespace std::chrono;
  for (sys_days d = sys_days(1900y / January / 1); d <= sys_days(2100y / December / 31); d += days(1)) {
    const year_month_day date(d);
    ASSERT_EQ(DayOfWeek(static_cast<int>(unsigned(date.day())), static_cast<int>(unsigned(date.month())),
                        static_cast<int>(date.year())),
              static_cast<int>(weekday(d).c_encoding()))
        << static_cast<int>(date.year()) << "-" << unsigned(date.month()) << "-" << unsigned(date.day());
  }
}

}  // namespace
}  // namespace kvr::nmea
