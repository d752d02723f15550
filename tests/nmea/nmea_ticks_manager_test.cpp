#include "nmea/nmea_ticks_manager.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>

#include "kvr_decode/nmea_ticks_manager.h"
#include "kvr_writers/tick_file_writer.h"
#include "support/open_descriptors.h"
#include "support/temp_dir_test_base.h"

namespace kvr::nmea {
namespace {

using writers::TickFileBuilder;
using writers::Utc;

constexpr std::uint64_t kSecond = 50000000;
constexpr std::uint64_t kP0 = 1000000000;  // first pulse, 20 s after the tick counter started

struct Deleter {
  void operator()(NmeaTicksManager* m) const { DeleteNmeaTicksManager(m); }
};
using Manager = std::unique_ptr<NmeaTicksManager, Deleter>;

std::string Zda(writers::UtcTime t) { return writers::ZdaSentence(t, "GN"); }

class TickManager : public test::InTempDir {
 protected:
  Manager Load(const std::vector<std::uint8_t>& bytes, int timeOffset = 0) {
    test::WriteFile(path("Serial.dat"), bytes);
    return Manager(CreateNmeaTicksManager(test::WideName(path("Serial.dat")).c_str(), timeOffset));
  }
  Manager Load(const TickFileBuilder& file, int timeOffset = 0) { return Load(file.bytes(), timeOffset); }
};

using Pairs = std::vector<std::pair<double, std::uint64_t>>;
Pairs PairsOf(const NmeaTicksManager& m) {
  Pairs pairs;
  for (const TickTime& t : *m.tickTimes) pairs.emplace_back(t.time, t.ticks);
  return pairs;
}

TEST_F(TickManager, HourAtOneHertzInterpolatesThroughTheBracketCache) {
  // Tuesday 14:30:07 = 225007 s of the week, plus an 18 s offset.
  const Manager m = Load(TickFileBuilder().everySecond(kP0, Utc(2020, 1, 28, 14, 30, 7), 3600, Zda), 18);
  ASSERT_NE(m, nullptr);
  ASSERT_EQ(m->tickTimes->size(), 3600u);
  EXPECT_EQ(m->tickTimes->back().time, 228624.0);
  EXPECT_EQ(m->tickTimes->back().ticks, kP0 + 3599 * kSecond);
  const struct {
    std::uint64_t ticks;
    int result;
    double time;  // when found
    int low, high;
  } lookups[] = {
      {kP0, 0, 225025.0, 0, 1},
      {kP0 + kSecond / 2, 0, 225025.5, 0, 1},
      {kP0 + kSecond + kSecond / 4, 0, 225026.25, 1, 2},            // the next bracket
      {kP0 + 1800 * kSecond + kSecond / 2, 0, 226825.5, 1800, 1801},  // a jump: binary search
      {kP0 + 3599 * kSecond, 0, 228624.0, 3598, 3599},              // the last pair
      {kP0 - 1, -1, 0.0, 3598, 3599},
      {kP0 + 3599 * kSecond + 1, -1, 0.0, 3598, 3599},
  };
  for (const auto& l : lookups) {
    ASSERT_EQ(m->FindTickInterval(l.ticks), l.result) << l.ticks;
    if (l.result == 0) {
      EXPECT_EQ(m->InterpolateTime(l.ticks), l.time) << l.ticks;
    }
    EXPECT_EQ(m->lowIndex, l.low) << l.ticks;
    EXPECT_EQ(m->highIndex, l.high) << l.ticks;
  }
}

TEST_F(TickManager, LastBracketIsFoundInSmallTables) {
  // Two pairs: the last pulse steps past the bracket and back into it. Five
  // pairs: an exact hit on the fourth pulse after a jump brackets it with the fifth.
  const Manager two = Load(TickFileBuilder().everySecond(kP0, Utc(2020, 1, 28, 14, 30, 7), 2, Zda));
  ASSERT_NE(two, nullptr);
  ASSERT_EQ(two->FindTickInterval(kP0 + kSecond), 0);
  EXPECT_EQ(two->InterpolateTime(kP0 + kSecond), 225008.0);
  EXPECT_EQ(std::make_pair(two->lowIndex, two->highIndex), std::make_pair(0, 1));
  const Manager five = Load(TickFileBuilder().everySecond(kP0, Utc(2020, 1, 28, 14, 30, 7), 5, Zda));
  ASSERT_NE(five, nullptr);
  ASSERT_EQ(five->FindTickInterval(kP0 + 3 * kSecond), 0);
  EXPECT_EQ(std::make_pair(five->lowIndex, five->highIndex), std::make_pair(3, 4));
  EXPECT_EQ(five->InterpolateTime(kP0 + 3 * kSecond), 225010.0);
}

TEST_F(TickManager, WeekWrapAddsAWeekOnceAndASecondWrapStepsBack) {
  // Saturday 23:59:59 = 604799 s, Sunday 00:00:00 = 0 s. Version 7 reads like version 1.
  TickFileBuilder file(7);
  const writers::UtcTime times[] = {Utc(2020, 2, 1, 23, 59, 59), Utc(2020, 2, 2, 0, 0, 0), Utc(2020, 2, 8, 23, 59, 59),
                                 Utc(2020, 2, 9, 0, 0, 0)};
  for (int i = 0; i < 4; ++i) file.pulse(kP0 + i * kSecond).sentence(kP0 + i * kSecond + 1, Zda(times[i]));
  const Manager m = Load(file);
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(PairsOf(*m), (Pairs{{604799.0, kP0}, {604800.0, kP0 + kSecond}, {1209599.0, kP0 + 2 * kSecond},
                   {604800.0, kP0 + 3 * kSecond}}));
}

TEST_F(TickManager, PairsFirstSentenceWithinASecondAndUtcLinesStampTheNextPulse) {
  std::uint64_t p[7];
  for (int i = 0; i < 7; ++i) p[i] = kP0 + i * kSecond;
  const std::uint64_t tenth = kSecond / 10;
  const Manager m = Load(TickFileBuilder()
                             .pulse(p[0]).sentence(p[0] + tenth, Zda(Utc(2020, 1, 28, 14, 30, 7)))
                             .pulse(p[1]).sentence(p[1] + tenth, writers::PpsSentence(Utc(2020, 1, 28, 14, 30, 8)))
                             .pulse(p[2]).sentence(p[2], writers::UtcLine(Utc(2020, 1, 28, 14, 30, 9)))
                             .pulse(p[3]).sentence(p[3] + tenth, writers::NmeaSentence("GPGGA,143010.00,,,,,0,00,,,,,,,"))
                             .sentence(p[3] + kSecond, Zda(Utc(2020, 1, 28, 14, 30, 10)))  // at p[4]
                             .pulse(p[4]).sentence(p[4] + 2 * tenth, Zda(Utc(2020, 1, 28, 14, 30, 11)))
                             .sentence(p[4] + 2 * tenth, Zda(Utc(2020, 1, 28, 14, 30, 12)))  // same ticks: wins
                             .pulse(p[5]).sentence(p[5] + tenth, "$GPZDA,143013.00,28,01,2020,00,00*00\r\n")
                             .pulse(p[6]));  // the last record is queued twice
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(PairsOf(*m), (Pairs{{225007.0, p[0] + kSecond}, {225008.0, p[1] + kSecond}, {225009.0, p[2] + kSecond},
                   {225010.0, p[4] + kSecond}}));
  EXPECT_EQ(m->ppsTicks, (std::list<std::uint64_t>{p[3], p[5], p[6], p[6]}));
  EXPECT_EQ(m->sentenceTimes, (std::map<std::int64_t, double>{{static_cast<std::int64_t>(p[4] + 2 * tenth), 225012.0}}));
}

TEST_F(TickManager, FilesWithoutPairsLoadAndAnswerEveryLookupWithMinusOne) {
  const std::string zda = Zda(Utc(2020, 1, 28, 14, 30, 7));
  const std::vector<std::uint8_t> files[] = {
      TickFileBuilder().bytes(),                                        // header only
      TickFileBuilder().pulse(kP0).sentence(kP0 + kSecond, zda).bytes(),  // a second late
      TickFileBuilder().sentence(kP0 - 1, zda).pulse(kP0).bytes(),        // before the pulse
      {'#', 'K', 'V', 'R', 'S', 'E', 'R', 'L', 7, 0},                   // cut in the version: 7
  };
  for (const auto& file : files) {
    const Manager m = Load(file);
    ASSERT_NE(m, nullptr);
    EXPECT_TRUE(m->tickTimes->empty());
    EXPECT_EQ(m->FindTickInterval(kP0), -1);
  }
}

void ExpectOutOfRange(const std::function<void()>& call, const char* text) {
  try {
    call();
    ADD_FAILURE() << "no exception";
  } catch (const std::out_of_range& e) {
    EXPECT_STREQ(e.what(), text);
  }
}

TEST_F(TickManager, SinglePairThrowsOnItsOwnTicksAndRejectsTheRest) {
  const Manager m = Load(TickFileBuilder().everySecond(kP0, Utc(2020, 1, 28, 14, 30, 7), 1, Zda));
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(m->FindTickInterval(kP0 + 1), -1);
  ExpectOutOfRange([&] { m->FindTickInterval(kP0); }, "invalid vector<T> subscript");
}

TEST_F(TickManager, MalformedZdaThrowsOutOfCreateAndClosesTheFile) {
  const long before = test::OpenDescriptorCount();
  const TickFileBuilder file = TickFileBuilder().pulse(kP0).sentence(kP0 + 1, "$GPZDA,143007.00,28,01,2020,00,*4C");
  ExpectOutOfRange([&] { Load(file); }, "invalid vector<T> subscript");
  EXPECT_EQ(test::OpenDescriptorCount(), before);
}

struct FailureCase {
  const char* name;
  std::vector<std::uint8_t> bytes;  // empty: no file
  int init, load;
  std::string context, message;
  std::vector<std::string> details;  // "" stands for the file's path
  bool fileStaysOpen;
};
void PrintTo(const FailureCase& c, std::ostream* os) { *os << c.name; }

class TickManagerFailure : public TickManager, public ::testing::WithParamInterface<FailureCase> {};

const char* const kLoad = "int NmeaTicksManager::LoadDatFile()";
const char* const kWrongSignature = "The Serial.dat file exist but the signature is wrong ";
const char* const kVersionZero = "The Serial.dat file is version 0 which is not supported ";

INSTANTIATE_TEST_SUITE_P(
    Files, TickManagerFailure,
    ::testing::Values(
        FailureCase{"Missing", {}, -1, -1, "int NmeaTicksManager::Init(char *nmeaTicksFilename)",
                    "Could not open nmeaTicksFilename", {""}, false},
        FailureCase{"WrongSignature", TickFileBuilder(1, "#KVRSCAN").pulse(kP0).bytes(), 0, -1, kLoad,
                    kWrongSignature, {"#KVRSCAN"}, true},
        FailureCase{"SignatureCutByZero", TickFileBuilder(1, "#KV").bytes(), 0, -1, kLoad, kWrongSignature, {"#KV"},
                    true},
        FailureCase{"VersionZero", TickFileBuilder(0).pulse(kP0).bytes(), 0, -1, kLoad, kVersionZero, {}, false},
        FailureCase{"CutInVersion", {'#', 'K', 'V', 'R', 'S', 'E', 'R', 'L', 0}, 0, -1, kLoad, kVersionZero, {},
                    false}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_P(TickManagerFailure, LogsOnceThroughItsLogWhileCreateReturnsNullSilently) {
  const FailureCase& c = GetParam();
  if (!c.bytes.empty()) test::WriteFile(path("Serial.dat"), c.bytes);
  const std::wstring name = test::WideName(path("Serial.dat"));
  NmeaTicksManager manager(&errorManagerDcod);
  ASSERT_EQ(manager.Init(name.c_str(), 0.0), c.init);
  EXPECT_EQ(manager.LoadDatFile(), c.load);
  EXPECT_EQ(manager.ticksFile != nullptr, c.fileStaysOpen);
  EXPECT_TRUE(manager.tickTimes->empty());
  const auto entries = logEntries();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].context, c.context);
  EXPECT_EQ(entries[0].message, c.message);
  EXPECT_EQ(entries[0].details, c.details == std::vector<std::string>{""}
                                    ? std::vector<std::string>{path("Serial.dat").string()}
                                    : c.details);
  manager.Close();

  const long before = test::OpenDescriptorCount();
  EXPECT_EQ(CreateNmeaTicksManager(name.c_str(), 0), nullptr);
  EXPECT_EQ(logEntries().size(), 1u);
  EXPECT_EQ(test::OpenDescriptorCount(), before + (c.fileStaysOpen ? 1 : 0));  // deliberately left open
}

using TickManagerDeathTest = TickManager;

TEST_F(TickManagerDeathTest, SentenceLengthOf1024StopsNamingOffsetAndLength) {
  // 1023 bytes is the longest sentence the buffer takes; this one is simply not a time.
  EXPECT_NE(Load(TickFileBuilder().pulse(kP0).sentence(kP0 + 1, std::string(1023, 'x'))), nullptr);
  EXPECT_DEATH(Load(TickFileBuilder().pulse(kP0).sentenceWithLength(kP0 + 1, 1024, std::string(1024, 'x'))),
               "sentence record at file offset 28 has a text length of 1024 bytes");
  EXPECT_DEATH(Load(TickFileBuilder().sentenceWithLength(kP0, 0xFFFFFFFFu, "")),
               "file offset 16 has a text length of 4294967295 bytes");
}

}  // namespace
}  // namespace kvr::nmea
