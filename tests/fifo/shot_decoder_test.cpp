#include <gtest/gtest.h>

#include <vector>

#include "kvr_decode/fifo_block.h"
#include "kvr_writers/fifo_block_writer.h"
#include "kvr_writers/synthetic_blocks.h"
#include "support/temp_dir_test_base.h"

namespace kvr {
namespace {

using writers::FifoBlockBuilder;
using writers::ShotWord;
using Words = std::vector<std::uint32_t>;

// Decodes a copy of the block: exactly 65536 bytes on the heap, so a sanitizer
// sees any read past it.
int Decode(std::vector<std::uint8_t> block, FifoBlock& fifoBlock, std::uint32_t prf = 200, double tow = 0.0) {
  RawFileHeader header;
  header.prf = prf;
  return DecodeFifoBlock(block.data(), header, 0, fifoBlock, tow);
}

Words ReturnsOf(const RawShot& shot) { return {shot.returns.begin(), shot.returns.end()}; }

class DecodeFifoBlockTest : public test::InTempDir {};

// Each word is laid with as many return words as it stores: a wrong record length
// misreads every shot after it.
TEST_F(DecodeFifoBlockTest, DecodesShotWordFieldsAndKeepsAtMostFourReturns) {
  const struct {
    std::uint64_t word;
    std::uint32_t scanAngleCounts;
    std::size_t returns;
  } rows[] = {
      {0x0000003FFFF00000, 0x3FFFF, 0},  // scan count alone
      {0x01FFFE00000FFFFF, 0, 0},        // pan and T0 counts
      {0x0000004000000000, 0, 1},
      {0x0000010000000000, 0, 4},
      {0x0000014000000000, 0, 4},        // a count of 5 stores four words
      {0x020001C000000000, 0, 4},        // 7, flag bit 57
      {0x1000000000000000, 0, 0},        // flag bit 60
      {0xE000000000000000, 0, 0},        // bits 61-63 are not flags
      {0xFFFFFFFFFFFFFFFF, 0x3FFFF, 4},  // flagged
  };
  const Words returns = {0x11111111, 0x22222222, 0x33333333, 0x44444444};
  FifoBlockBuilder builder;
  for (const auto& row : rows) builder.shot(row.word, {returns.begin(), returns.begin() + row.returns});
  FifoBlock block;
  ASSERT_EQ(Decode(builder.build(), block), 9);
  ASSERT_EQ(block.shots.size(), 9u);
  for (std::size_t i = 0; i < 9; ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(block.shots[i].shotWord, rows[i].word);
    EXPECT_EQ(block.shots[i].scanAngleCounts, rows[i].scanAngleCounts);
    EXPECT_EQ(block.shots[i].status, 0);
    EXPECT_EQ(ReturnsOf(block.shots[i]), Words(returns.begin(), returns.begin() + rows[i].returns));
  }
  EXPECT_EQ(block.flaggedShots, (std::vector<std::int32_t>{5, 6, 8}));
  EXPECT_TRUE(logEntries().empty());
}

struct TimingCase {
  const char* name;
  std::uint32_t prf;
  std::uint64_t timeStamp;
  double tow;
  std::uint64_t shot3Ticks;
  double shot3Tow;
};
void PrintTo(const TimingCase& c, std::ostream* os) { *os << c.name; }

class ShotTiming : public ::testing::TestWithParam<TimingCase> {};

TEST_P(ShotTiming, ShotThreeIsThreePeriodsAfterTheBlock) {
  const TimingCase& c = GetParam();
  FifoBlock block;
  block.CycleSyncTimeStamp = c.timeStamp;
  ASSERT_EQ(Decode(FifoBlockBuilder().shotCount(4).build(), block, c.prf, c.tow), 4);
  EXPECT_EQ(block.shots[0].timeInCounts, c.timeStamp);
  EXPECT_EQ(block.shots[3].timeInCounts, c.shot3Ticks);
  EXPECT_EQ(block.shots[3].shotTow, c.shot3Tow);
}

INSTANTIATE_TEST_SUITE_P(
    Periods, ShotTiming,
    ::testing::Values(TimingCase{"Prf200", 200, 1000, 10.0, 1750, 3 * 5e-06 + 10.0},  // 5 us, 250 ticks
                      TimingCase{"Prf50", 50, 1000, 10.0, 4000, 3 * 2e-05 + 10.0},    // 20 us, 1000 ticks
                      TimingCase{"Prf500", 500, 1000, 10.0, 1300, 3 * 2e-06 + 10.0},  // 2 us, 100 ticks
                      TimingCase{"ZeroIsKnown", 200, 1000, 0.0, 1750, 3 * 5e-06},
                      TimingCase{"MinusOneIsUnknown", 200, 1000, -1.0, 1750, -1.0},
                      TimingCase{"AnyNegativeIsUnknown", 200, 1000, -0.25, 1750, -1.0},
                      TimingCase{"TicksWrapIn64Bits", 200, 0xFFFFFFFFFFFFFF00, 1.0, 494, 3 * 5e-06 + 1.0}),
    [](const auto& info) { return info.param.name; });

TEST_F(DecodeFifoBlockTest, FlaggedShotsAccumulateAcrossBlocksAndAnEmptyBlockClearsOnlyShots) {
  const std::uint64_t flagged = ShotWord({.flags = 4});
  FifoBlock block;
  ASSERT_EQ(Decode(FifoBlockBuilder().shot(0).shot(flagged).build(), block), 2);
  ASSERT_EQ(Decode(FifoBlockBuilder().shot(flagged).shot(0).shot(flagged).build(), block), 3);
  EXPECT_EQ(Decode(FifoBlockBuilder().build(), block), 0);
  EXPECT_TRUE(block.shots.empty());
  EXPECT_EQ(block.flaggedShots, (std::vector<std::int32_t>{1, 0, 2}));
}

// A shot word due at 65532 has only its lower half in the block: the upper half
// reads as zeros, so the shot keeps its low scan bits and has no returns or flags.
TEST_F(DecodeFifoBlockTest, ShotWordStraddlingTheEndReadsItsUpperHalfAsZeros) {
  FifoBlockBuilder builder;
  while (builder.offset() < 65532) builder.shot(ShotWord({.pan = 7}));
  builder.shot(0xFFFFFFFF89ABCDEF);  // the builder drops the half past the block
  FifoBlock block;
  ASSERT_EQ(Decode(builder.build(), block), 8191);
  EXPECT_EQ(block.shots.back().shotWord, 0x89ABCDEFu);
  EXPECT_EQ(block.shots.back().scanAngleCounts, 0x89Au);
  EXPECT_TRUE(block.shots.back().returns.empty());
  EXPECT_TRUE(block.flaggedShots.empty());
  EXPECT_TRUE(logEntries().empty());
}

// Declared counts that run past the end: shot 0 has `lead` returns, empty shots
// follow up to `failingAt`, where a flagged shot of `returns` returns starts.
struct TruncationCase {
  const char* name;
  std::uint32_t lead;
  std::size_t failingAt;
  std::uint32_t returns;
  std::uint32_t declared;
  int result;
  std::size_t kept;
  std::size_t flagged;
  std::vector<std::string> details;
};
void PrintTo(const TruncationCase& c, std::ostream* os) { *os << c.name; }

class Truncation : public test::InTempDir, public ::testing::WithParamInterface<TruncationCase> {};

TEST_P(Truncation, LogsTheOverrunAndReturnsTheShotCounter) {
  const TruncationCase& c = GetParam();
  FifoBlockBuilder builder;
  builder.shot(ShotWord({.returnCount = c.lead}), Words(c.lead, 3));
  while (builder.offset() < c.failingAt) builder.shot(0);
  ASSERT_EQ(builder.offset(), c.failingAt);
  builder.shot(ShotWord({.returnCount = c.returns, .flags = 1}), Words(c.returns, 5));
  FifoBlock block;
  block.shots.resize(3);
  EXPECT_EQ(Decode(builder.shotCount(c.declared).build(), block), c.result);
  EXPECT_EQ(block.shots.size(), c.kept);
  EXPECT_EQ(block.flaggedShots.size(), c.flagged);  // listed before its returns are read
  const auto entries = logEntries();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].context,
            "int DecodeFifoBlock(unsigned char *fifoBlockBuffer, RawFileHeader &fileHeader, int blockNumber, "
            "FifoBlock &fifoBlock, double cycleSyncTow)");
  EXPECT_EQ(entries[0].message, "bufferOffset >= SIZEOFFIFOBLOCK");
  EXPECT_EQ(entries[0].details, c.details);
}

INSTANTIATE_TEST_SUITE_P(
    PastTheEnd, Truncation,
    ::testing::Values(
        // The straddling shot word loses its flags; the next shot is due at 65540.
        TruncationCase{"AfterStraddlingWord", 4, 65532, 0, 8191, 8189, 8189, 0,
                       {"bufferOffset = 65540", "shotsInBlock = 8191", "shot Count = 8189"}},
        TruncationCase{"ShotWordAtEnd", 1, 65536, 0, 8191, 8190, 8190, 0,
                       {"bufferOffset = 65536", "shotsInBlock = 8191", "shot Count = 8190"}},
        TruncationCase{"FirstReturn", 1, 65528, 1, 8190, 8190, 8189, 1,
                       {"bufferOffset = 65536", "shotsInBlock = 8190", "shot Count = 8190", "return number = 0"}},
        TruncationCase{"SecondReturn", 0, 65524, 2, 8190, 8190, 8189, 1,
                       {"bufferOffset = 65536", "shotsInBlock = 8190", "shot Count = 8190", "return number = 1"}},
        TruncationCase{"ThirdReturn", 1, 65520, 3, 8189, 8189, 8188, 1,
                       {"bufferOffset = 65536", "shotsInBlock = 8189", "shot Count = 8189", "return number = 2"}},
        TruncationCase{"FourthOfSevenReturns", 0, 65516, 7, 8191, 8189, 8188, 1,
                       {"bufferOffset = 65536", "shotsInBlock = 8191", "shot Count = 8189", "return number = 3"}}),
    [](const auto& info) { return info.param.name; });

// Full blocks of a synthetic scan with return counts 0-7, every shot against what
// the builder laid down.
TEST(DecodeFifoBlock, MatchesRandomRealisticBlocks) {
  writers::SyntheticScan scan(20240517, 200, 7);
  FifoBlock block;
  for (int b = 0; b < 40; ++b) {
    const FifoBlockBuilder built = scan.NextBlock();
    const auto& expected = built.shots();
    block.CycleSyncTimeStamp = 5000000000 + b;
    block.flaggedShots.clear();
    ASSERT_EQ(Decode(built.build(), block, 200, 86400.0 + b), static_cast<int>(expected.size()));
    std::vector<std::int32_t> flagged;
    for (std::size_t i = 0; i < expected.size(); ++i) {
      const RawShot& shot = block.shots[i];
      ASSERT_EQ(shot.shotWord, expected[i].word) << "block " << b << " shot " << i;
      EXPECT_EQ(shot.scanAngleCounts, (expected[i].word >> 20) & 0x3FFFF);
      EXPECT_EQ(shot.timeInCounts, 5000000000 + b + 250 * i);
      EXPECT_EQ(shot.shotTow, static_cast<double>(i) * 5e-06 + (86400.0 + b));
      EXPECT_EQ(ReturnsOf(shot), expected[i].returns);
      if (expected[i].word & 0x1E00000000000000) flagged.push_back(static_cast<std::int32_t>(i));
    }
    EXPECT_EQ(block.flaggedShots, flagged);
  }
}

}  // namespace
}  // namespace kvr
