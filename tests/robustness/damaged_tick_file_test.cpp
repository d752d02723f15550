// Tick files ("Serial.dat") cut short, with sentence lengths and versions
// overwritten, with other files' magics, and damaged at random.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kvr_decode/nmea_ticks_manager.h"
#include "nmea/nmea_ticks_manager.h"
#include "robustness/damage.h"
#include "support/left_open_streams.h"
#include "support/read_model.h"
#include "support/temp_dir_test_base.h"
#include "kvr_writers/tick_file_writer.h"

namespace kvr {
namespace {

using test::FileBytes;

constexpr std::uint64_t kPulse1 = 100000000;  // 2 s
constexpr std::uint64_t kPulse2 = 150000000;
constexpr std::uint64_t kSentence1 = kPulse1 + 5000000;
constexpr std::uint64_t kSentence2 = kPulse2 + 5000000;
// Tuesday 2020-01-28 14:30:07: 2 x 86400 + 52207 seconds into the week.
constexpr double kTime1 = 225007.0;
constexpr double kTime2 = 225008.0;

// Header (16 bytes); pulse 1 at 16; sentence 1 at 28 (its length word at 48, its
// 38-byte text at 52); pulse 2 at 90; sentence 2 at 102 (length at 122, text at
// 126); 164 bytes in all.
FileBytes ValidFile() {
  const writers::UtcTime time = writers::Utc(2020, 1, 28, 14, 30, 7);
  writers::TickFileBuilder b;
  b.pulse(kPulse1).sentence(kSentence1, writers::ZdaSentence(time));
  b.pulse(kPulse2).sentence(kSentence2, writers::ZdaSentence(time + std::chrono::seconds(1)));
  return b.bytes();
}
const FileBytes kValid = ValidFile();

struct Pair {
  double time;
  std::uint64_t ticks;
  friend bool operator==(const Pair&, const Pair&) = default;
  friend void PrintTo(const Pair& p, std::ostream* os) { *os << "(" << p.time << ", " << p.ticks << ")"; }
};
using Pairs = std::vector<Pair>;

class DamagedTickFile : public test::InTempDir {
 protected:
  // Creates a manager from the file. Null when creation failed; the pairs it
  // built otherwise.
  NmeaTicksManager* Create(const FileBytes& file) {
    test::WriteFile(path("Serial.dat"), file);
    Delete();
    manager_ = CreateNmeaTicksManager(L"Serial.dat", 0);
    return manager_;
  }
  Pairs PairsOf() const {
    Pairs pairs;
    for (const auto& p : *manager_->tickTimes) pairs.push_back({p.time, p.ticks});
    return pairs;
  }
  void Delete() {
    DeleteNmeaTicksManager(manager_);
    manager_ = nullptr;
  }
  void TearDown() override { Delete(); }

 private:
  NmeaTicksManager* manager_ = nullptr;
};

TEST_F(DamagedTickFile, CutInTheHeaderFailsOrLoadsWithoutPairs) {
  struct Case {
    std::size_t cut;
    bool created;
    int leftOpen;
  };
  // Before 8 bytes the signature is wrong (the file stays open); without its
  // version the file reads as version 0 (it is closed); from 12 on it loads.
  for (const Case& c : {Case{0, false, 1}, Case{4, false, 1}, Case{8, false, 0}, Case{12, true, 0},
                        Case{16, true, 0}}) {
    test::LeftOpenStreams leftOpen;
    NmeaTicksManager* manager = Create(test::Cut(kValid, c.cut));
    EXPECT_EQ(manager != nullptr, c.created) << c.cut;
    EXPECT_EQ(leftOpen.Close(), c.leftOpen) << c.cut;
    if (manager != nullptr) {
      EXPECT_EQ(PairsOf(), Pairs{}) << c.cut;
    }
  }
  // The manager has no log: nothing is written whatever fails.
  EXPECT_TRUE(logEntries().empty());
}

struct CutCase {
  std::size_t cut;
  Pairs pairs;
};

class CutInTheRecords : public DamagedTickFile, public ::testing::WithParamInterface<CutCase> {};

// Every field keeps what the previous record left in it when the file ends
// before it, so the record the file ends in is completed from its predecessor.
TEST_P(CutInTheRecords, CompletesTheLastRecordFromThePreviousOne) {
  ASSERT_NE(Create(test::Cut(kValid, GetParam().cut)), nullptr);
  EXPECT_EQ(PairsOf(), GetParam().pairs);
  EXPECT_TRUE(logEntries().empty());
}

const Pairs kFirst{{kTime1, kPulse1}};

INSTANTIATE_TEST_SUITE_P(
    FieldBoundaries, CutInTheRecords,
    ::testing::Values(
        CutCase{24, {}},  // pulse 1's type missing: type 0 makes an empty sentence
        CutCase{28, {}},  // pulse 1 queued twice, no sentence
        CutCase{36, {}},  // sentence 1's type missing: taken as a pulse
        CutCase{40, {}}, CutCase{48, {}},
        CutCase{52, {}},  // its length arrived, its text did not: an empty text
        CutCase{90, kFirst},
        CutCase{98, kFirst},   // pulse 2's type missing: sentence 1 again at pulse 2's ticks, no pulse
        CutCase{102, kFirst},  // pulse 2 has no sentence
        CutCase{110, kFirst},  // sentence 2's type missing: a pulse at its ticks
        // Sentence 2 without its text: sentence 1's text again, at sentence 2's ticks.
        CutCase{114, {{kTime1, kPulse1}, {kTime1, kPulse2}}}, CutCase{126, {{kTime1, kPulse1}, {kTime1, kPulse2}}},
        CutCase{164, {{kTime1, kPulse1}, {kTime2, kPulse2}}}),
    [](const auto& info) { return "At" + std::to_string(info.param.cut); });

TEST_F(DamagedTickFile, SentenceLengthsUpTo1023TakeWhatTheFileHolds) {
  // 1023 and one past the file's end (112 bytes are left) both read the rest of
  // the file as the text; the sentence before its first zero byte still parses.
  for (std::uint32_t length : {1023u, 113u}) {
    ASSERT_NE(Create(test::WithU32(kValid, 48, length)), nullptr);
    EXPECT_EQ(PairsOf(), kFirst) << length;
  }
  // A version other than 0 reads as version 1.
  for (std::uint32_t version : {1u, 7u, 0xFFFFFFFFu}) {
    ASSERT_NE(Create(test::WithU32(kValid, 8, version)), nullptr);
    EXPECT_EQ(PairsOf(), (Pairs{{kTime1, kPulse1}, {kTime2, kPulse2}}));
  }
  test::LeftOpenStreams leftOpen;
  EXPECT_EQ(Create(test::WithU32(kValid, 8, 0)), nullptr);
  EXPECT_EQ(leftOpen.Close(), 0);
}

// A length of 0 or 1 makes the loader read the sentence text as the next record,
// whose length field then holds text: the process stops, naming it.
using DamagedTickFileDeathTest = DamagedTickFile;

TEST_F(DamagedTickFileDeathTest, ShortSentenceLengthsLeadIntoAnOversizedRecord) {
  // From offset 52 "$GPZDA,1" is the ticks, "4300" the type, "7.00" and ",28,"
  // the reserved words and "01,2" (0x322C3130) the length.
  EXPECT_DEATH(Create(test::WithU32(kValid, 48, 0)), "offset 52 has a text length of 841756976 bytes");
  // From 53: "1,20" (0x30322C31).
  EXPECT_DEATH(Create(test::WithU32(kValid, 48, 1)), "offset 53 has a text length of 808594481 bytes");
}

TEST_F(DamagedTickFile, OtherMagicsFailLeavingTheFileOpen) {
  for (const char* magic : {"#KVRSCAN", "#KVRDEVC", "#kvrserl", "#KVRSERX"}) {
    test::LeftOpenStreams leftOpen;
    EXPECT_EQ(Create(test::WithText(kValid, 0, magic)), nullptr) << magic;
    EXPECT_EQ(leftOpen.Close(), 1) << magic;
  }
  EXPECT_TRUE(logEntries().empty());
}

// Random damage: null, or a manager whose pairs are pulses of the file and whose
// lookups answer or end with the documented out-of-range error. Damage that
// reaches a sentence of 1024 bytes or more stops the process by design and is
// left to the death test above.
TEST_F(DamagedTickFile, RandomDamageEndsInADocumentedResult) {
  int created = 0, failed = 0, fatal = 0, outOfRange = 0;
  for (const FileBytes& file : test::Mutations(kValid, 6101, 100)) {
    if (test::TickFileReachesOversizedSentence(file)) {
      ++fatal;
      continue;
    }
    test::LeftOpenStreams leftOpen;
    NmeaTicksManager* manager = nullptr;
    try {
      manager = Create(file);
    } catch (const std::out_of_range& e) {
      ++outOfRange;
      const std::string what = e.what();
      EXPECT_TRUE(what == "invalid vector<T> subscript" || what == "invalid string position") << what;
      EXPECT_EQ(leftOpen.Close(), 0);
      continue;
    }
    const bool magic = file.size() >= 8 && std::equal(file.begin(), file.begin() + 8, "#KVRSERL");
    if (manager == nullptr) {
      ++failed;
      EXPECT_EQ(leftOpen.Close(), magic ? 0 : 1);
      continue;
    }
    ++created;
    EXPECT_EQ(leftOpen.Close(), 0);
    EXPECT_LE(manager->tickTimes->size(), file.size() / 12);
    for (const Pair& p : PairsOf()) {
      for (std::uint64_t ticks : {p.ticks - 1, p.ticks, p.ticks + 1}) {
        try {
          if (manager->FindTickInterval(ticks) == 0) manager->InterpolateTime(ticks);
        } catch (const std::out_of_range& e) {
          EXPECT_STREQ(e.what(), "invalid vector<T> subscript");
        }
      }
    }
  }
  EXPECT_TRUE(logEntries().empty());
  EXPECT_GT(created, 0);
  EXPECT_GT(failed, 0);
  EXPECT_GT(fatal + outOfRange, 0);
}

}  // namespace
}  // namespace kvr
