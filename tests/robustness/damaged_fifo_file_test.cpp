// FIFO blocks cut short, with their shot and return counts overwritten, with
// wrong signatures, and damaged at random, walked as callers walk them.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fifo/block_layout.h"
#include "kvr_decode/fifo_block.h"
#include "robustness/damage.h"
#include "kvr_writers/fifo_block_writer.h"
#include "kvr_writers/synthetic_blocks.h"
#include "support/temp_dir_test_base.h"

namespace kvr {
namespace {

using test::FileBytes;

constexpr std::size_t kBlock = fifo::SIZEOFFIFOBLOCK;
constexpr const char* kOverrun = "bufferOffset >= SIZEOFFIFOBLOCK";
constexpr const char* kBadSignature = "!!Error in DmaBlockHeader Signature!!";

// Block 0 (time stamp 0x0102030405, cast number 7): shots of 0, 1 and 4 returns
// at offsets 12, 20 and 32, ending at 56. Block 1: shots of 2 and 0 returns.
FileBytes Block0(std::uint32_t thirdShotReturns = 4) {
  writers::FifoBlockBuilder b;
  b.timeStamp(0x0102030405).castBlockNumber(7);
  b.shot(writers::ShotWord({.pan = 1, .returnCount = 0}));
  b.shot(writers::ShotWord({.pan = 2, .returnCount = 1}), {writers::ReturnWord(100, 1)});
  b.shot(writers::ShotWord({.pan = 3, .returnCount = thirdShotReturns}),
         {writers::ReturnWord(200, 2), writers::ReturnWord(201, 3), writers::ReturnWord(202, 4), writers::ReturnWord(203, 5)});
  return b.build();
}
FileBytes Block1() {
  writers::FifoBlockBuilder b;
  b.timeStamp(0x0102030406).castBlockNumber(8);
  b.shot(writers::ShotWord({.pan = 4, .returnCount = 2}), {writers::ReturnWord(300, 6), writers::ReturnWord(301, 7)});
  b.shot(writers::ShotWord({.pan = 5}));
  return b.build();
}
const FileBytes kValid = writers::FifoFile({Block0(), Block1()});

class DamagedFifoFile : public test::InTempDir {
 protected:
  // Walks the file from its start until a short read; the result of every call.
  std::vector<int> Walk(const FileBytes& file) {
    test::WriteFile(path("scan.raw"), file);
    std::FILE* stream = std::fopen(path("scan.raw").c_str(), "rb");
    std::vector<int> results;
    for (int blockNumber = 0; results.empty() || results.back() != -1; ++blockNumber) {
      results.push_back(DecodeNextFifoBlock(&stream, header, blockNumber, block, nullptr));
      if (results.size() > file.size() / kBlock + 1) {
        ADD_FAILURE() << "the walk does not end";
        break;
      }
    }
    std::fclose(stream);
    return results;
  }

  RawFileHeader header{};
  FifoBlock block;
};

TEST_F(DamagedFifoFile, CutAtEveryFieldBoundaryEndsTheWalkThere) {
  struct Case {
    std::size_t cut;
    std::vector<int> results;
  };
  header.prf = 200;
  const std::vector<int> none{-1}, first{3, -1};
  for (const Case& c : {Case{0, none}, Case{4, none}, Case{8, none}, Case{12, none}, Case{20, none}, Case{32, none},
                        Case{56, none}, Case{kBlock - 1, none}, Case{kBlock, first}, Case{kBlock + 4, first},
                        Case{kBlock + 8, first}, Case{kBlock + 12, first}, Case{kBlock + 28, first},
                        Case{kBlock + 36, first}, Case{2 * kBlock - 1, first}, Case{2 * kBlock, {3, 2, -1}}}) {
    block = FifoBlock{};
    EXPECT_EQ(Walk(test::Cut(kValid, c.cut)), c.results) << c.cut;
    // The short read leaves the record as the last whole block left it.
    EXPECT_EQ(block.shots.size(), c.results.size() == 1 ? 0u : static_cast<std::size_t>(c.results[c.results.size() - 2]));
  }
  EXPECT_TRUE(logEntries().empty());
}

struct CountCase {
  const char* name;
  std::uint32_t shotCount;
  int result;
  std::size_t kept;
  std::vector<std::string> overrun;  // details of the one overrun entry, if any
};

class ShotCount : public DamagedFifoFile, public ::testing::WithParamInterface<CountCase> {};

// After the three shots (56 bytes) zeros read as shots without returns, eight
// bytes each: 8185 of them fit, so 8188 shots in all before the block ends.
TEST_P(ShotCount, ZerosPastTheShotsReadAsEmptyShotsUntilTheBlockEnds) {
  const CountCase& c = GetParam();
  header.prf = 500;
  FileBytes block0 = test::WithU32(Block0(), 8, 0x01u | (7u << 8) | (c.shotCount << 19));
  EXPECT_EQ(DecodeFifoBlock(block0.data(), header, 0, block, -1.0), c.result);
  EXPECT_EQ(block.shots.size(), c.kept);
  const auto log = logEntries();
  ASSERT_EQ(log.size(), c.overrun.empty() ? 0u : 1u);
  if (!c.overrun.empty()) {
    EXPECT_EQ(log[0].message, kOverrun);
    EXPECT_EQ(log[0].details, c.overrun);
  }
}

INSTANTIATE_TEST_SUITE_P(
    ZeroOneMaximumAndPastTheEnd, ShotCount,
    ::testing::Values(CountCase{"Zero", 0, 0, 0, {}}, CountCase{"One", 1, 1, 1, {}},
                      CountCase{"AsWritten", 3, 3, 3, {}}, CountCase{"LastThatFits", 8188, 8188, 8188, {}},
                      CountCase{"OnePastTheBlock", 8189, 8188, 8188,
                                {"bufferOffset = 65536", "shotsInBlock = 8189", "shot Count = 8188"}},
                      CountCase{"Maximum", 8191, 8188, 8188,
                                {"bufferOffset = 65536", "shotsInBlock = 8191", "shot Count = 8188"}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(DamagedFifoFile, ReturnCountTakesAtMostFourWordsOfTheRecord) {
  struct Case {
    std::uint32_t returns;
    std::size_t kept;
  };
  header.prf = 50;
  for (const Case& c : {Case{0, 0}, Case{1, 1}, Case{4, 4}, Case{5, 4}, Case{7, 4}}) {
    EXPECT_EQ(Walk(writers::FifoFile({Block0(c.returns), Block1()})), (std::vector<int>{3, 2, -1}));
    // The walk ended on block 1; decode block 0 again to see its third shot.
    FileBytes block0 = Block0(c.returns);
    EXPECT_EQ(DecodeFifoBlock(block0.data(), header, 0, block, -1.0), 3);
    EXPECT_EQ(block.shots.at(2).returns.size(), c.kept) << c.returns;
  }
  EXPECT_TRUE(logEntries().empty());
}

TEST_F(DamagedFifoFile, WrongSignatureSkipsTheBlockWithOneEntry) {
  for (std::uint32_t signature : {0x00000000u, 0x55555555u, 0xAAAAAAABu, 0x2AAAAAAAu, 0xFFFFFFFFu}) {
    EXPECT_EQ(Walk(test::WithU32(kValid, 0, signature)), (std::vector<int>{-2, 2, -1}));
    const auto log = logEntries();
    test::ClearLog(dir());
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].message, kBadSignature);
    EXPECT_EQ(log[0].details, (std::vector<std::string>{"DmaBlockHeader = " + std::to_string(signature),
                                                        "CycleSyncTimeStamp = 4328719365", "Cast BlockNumber = 7",
                                                        "Continuous BlockNumber = 0"}));
  }
}

// Two blocks of a realistic scan, full to their ends, damaged at random in their
// first and last 64 bytes (block header, first shots, the shots the end of the
// block cuts); every third file also ends inside its second block.
TEST_F(DamagedFifoFile, RandomDamageEndsInADocumentedResult) {
  header.prf = 200;
  writers::SyntheticScan scan(99, 200, 7);
  const FileBytes blocks[2] = {scan.NextBlock().build(), scan.NextBlock().build()};
  constexpr std::size_t kEdge = 64;
  const auto edge = [&](int b, std::size_t at) { return FileBytes(blocks[b].begin() + at, blocks[b].begin() + at + kEdge); };
  std::vector<FileBytes> edges[4] = {test::Mutations(edge(0, 0), 7001, 100), test::Mutations(edge(0, kBlock - kEdge), 7002, 100),
                                     test::Mutations(edge(1, 0), 7003, 100), test::Mutations(edge(1, kBlock - kEdge), 7004, 100)};
  int overruns = 0, badSignatures = 0;
  for (std::size_t i = 0; i < edges[0].size(); ++i) {
    FileBytes file;
    for (int b = 0; b < 2; ++b) {
      FileBytes head = edges[2 * b][i], tail = edges[2 * b + 1][i];
      head.resize(kEdge, 0);  // the damage keeps the block's size
      tail.resize(kEdge, 0);
      file.insert(file.end(), head.begin(), head.end());
      file.insert(file.end(), blocks[b].begin() + kEdge, blocks[b].end() - kEdge);
      file.insert(file.end(), tail.begin(), tail.end());
    }
    if (i % 3 == 0) file.resize(kBlock + 100);
    test::WriteFile(path("scan.raw"), file);
    std::FILE* stream = std::fopen(path("scan.raw").c_str(), "rb");
    block = FifoBlock{};
    for (int n = 0;; ++n) {
      ASSERT_LE(n, 2) << "mutation " << i;
      const int result = DecodeNextFifoBlock(&stream, header, n, block, nullptr);
      const auto messages = test::TakeLogMessages(dir());
      if (result == -1) {
        EXPECT_TRUE(messages.empty());
        break;
      }
      if (result == -2) {
        ++badSignatures;
        EXPECT_EQ(messages, std::vector<std::string>{kBadSignature}) << "mutation " << i;
        continue;
      }
      ASSERT_GE(result, 0);
      ASSERT_LE(result, 8191);
      // Only a shot cut off by the end of the block is counted but not kept.
      if (messages.empty()) {
        EXPECT_EQ(block.shots.size(), static_cast<std::size_t>(result)) << "mutation " << i;
      } else {
        ++overruns;
        EXPECT_EQ(messages, std::vector<std::string>{kOverrun}) << "mutation " << i;
        EXPECT_LE(result - static_cast<int>(block.shots.size()), 1) << "mutation " << i;
      }
    }
    std::fclose(stream);
  }
  EXPECT_GT(overruns, 0);
  EXPECT_GT(badSignatures, 0);
}

}  // namespace
}  // namespace kvr
