#include <gtest/gtest.h>

#include <cstdio>
#include <vector>

#include "kvr_decode/fifo_block.h"
#include "kvr_decode/nmea_ticks_manager.h"
#include "kvr_writers/fifo_block_writer.h"
#include "kvr_writers/tick_file_writer.h"
#include "support/temp_dir_test_base.h"

namespace kvr {
namespace {

using writers::FifoBlockBuilder;

// Bytes 4-11 = 01 00 00 00 FF FF FF FF: only byte 8 of the packed word adds to the
// stamp (0xFF00000001 = 1095216660481). Its 8191 shots all fit when every shot
// word is zero.
std::vector<std::uint8_t> BlockWithFullPackedWord() {
  return FifoBlockBuilder().timeStamp(0xFF00000001).castBlockNumber(2047).shotCount(8191).build();
}

class DecodeNextFifoBlockTest : public test::InTempDir {
 protected:
  void Open(const std::vector<std::uint8_t>& bytes) {
    header_.prf = 200;
    test::WriteFile(path("scan.bin"), bytes);
    stream_ = std::fopen(path("scan.bin").string().c_str(), "rb");
    ASSERT_NE(stream_, nullptr);
  }
  int Next(int blockNumber, NmeaTicksManager* manager = nullptr) {
    return DecodeNextFifoBlock(&stream_, header_, blockNumber, block_, manager);
  }
  void TearDown() override {
    if (stream_ != nullptr) std::fclose(stream_);
  }

  std::FILE* stream_ = nullptr;
  RawFileHeader header_;
  FifoBlock block_;
};

TEST_F(DecodeNextFifoBlockTest, WalksWholeBlocksAndEndsAtAShortRead) {
  const auto first = FifoBlockBuilder().timeStamp(1000).shot(0).shot(writers::ShotWord({.returnCount = 1}), {9}).build();
  Open(writers::FifoFile({first, BlockWithFullPackedWord()}, 100));

  ASSERT_EQ(Next(7), 2);
  EXPECT_EQ(block_.CycleSyncTimeStamp, 1000u);
  EXPECT_EQ(block_.blockNumber, 7);
  EXPECT_EQ(block_.shots[1].timeInCounts, 1250u);
  EXPECT_EQ(block_.shots[1].shotTow, 1000.0 * 20.0 * 1e-09 + 5e-06);  // seconds since the counter started

  ASSERT_EQ(Next(8), 8191);
  EXPECT_EQ(block_.CycleSyncTimeStamp, 1095216660481u);
  EXPECT_EQ(block_.shots[0].shotTow, 1095216660481.0 * 20.0 * 1e-09);

  // The 100 bytes left: -1, the record as the last block left it, the stream at the end.
  EXPECT_EQ(Next(9), -1);
  EXPECT_EQ(block_.CycleSyncTimeStamp, 1095216660481u);
  EXPECT_EQ(block_.blockNumber, 8);
  EXPECT_EQ(block_.shots.size(), 8191u);
  EXPECT_EQ(std::ftell(stream_), 2 * 65536 + 100);
  EXPECT_EQ(Next(10), -1);
  EXPECT_TRUE(logEntries().empty());
}

struct BadSignatureCase {
  std::uint32_t signature;
  const char* detail;
};

class BadSignature : public DecodeNextFifoBlockTest, public ::testing::WithParamInterface<BadSignatureCase> {};

TEST_P(BadSignature, LogsTheHeaderKeepsTheShotsAndMovesOn) {
  const auto bad =
      FifoBlockBuilder().signature(GetParam().signature).timeStamp(0x123456789A).castBlockNumber(1234).shotCount(5);
  Open(writers::FifoFile({FifoBlockBuilder().shotCount(3).build(), bad.build(), FifoBlockBuilder().shotCount(1).build()}));
  ASSERT_EQ(Next(41), 3);
  EXPECT_EQ(Next(42), -2);
  EXPECT_EQ(block_.CycleSyncTimeStamp, 0x123456789Au);
  EXPECT_EQ(block_.blockNumber, 42);
  EXPECT_EQ(block_.shots.size(), 3u);
  const auto entries = logEntries();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].context,
            "int DecodeNextFifoBlock(FILE **fp, RawFileHeader &fileHeader, int blockNumber, FifoBlock &fifoBlock)");
  EXPECT_EQ(entries[0].message, "!!Error in DmaBlockHeader Signature!!");
  EXPECT_EQ(entries[0].details, (std::vector<std::string>{GetParam().detail, "CycleSyncTimeStamp = 78187493530",
                                                          "Cast BlockNumber = 1234", "Continuous BlockNumber = 42"}));
  EXPECT_EQ(Next(43), 1);
}

INSTANTIATE_TEST_SUITE_P(Signatures, BadSignature,
                         ::testing::Values(BadSignatureCase{0x55555555, "DmaBlockHeader = 1431655765"},
                                           BadSignatureCase{0xFFFFFFFF, "DmaBlockHeader = 4294967295"},
                                           BadSignatureCase{0, "DmaBlockHeader = 0"}));

TEST_F(DecodeNextFifoBlockTest, EmptyFileOrNullStreamLeavesTheRecordAlone) {
  block_.CycleSyncTimeStamp = 5;
  block_.shots.resize(2);
  Open({});
  EXPECT_EQ(Next(1), -1);
  std::FILE* none = nullptr;
  EXPECT_EQ(DecodeNextFifoBlock(&none, header_, 1, block_, nullptr), -1);
  EXPECT_EQ(block_.CycleSyncTimeStamp, 5u);
  EXPECT_EQ(block_.blockNumber, 0);
  EXPECT_EQ(block_.shots.size(), 2u);
  EXPECT_TRUE(logEntries().empty());
}

// A manager pairs pulses at 1 s and 2 s of the tick counter with the receiver's
// times 10 s and 11 s of the week: a block stamped between them is interpolated,
// one outside them has no time of day while its ticks are still counted.
TEST_F(DecodeNextFifoBlockTest, BlockTimeComesFromTheTicksManagerWhenItBracketsTheStamp) {
  const writers::UtcTime sunday = writers::Utc(2026, 11, 22, 0, 0, 10);
  const writers::UtcTime secondLater = writers::Utc(2026, 11, 22, 0, 0, 11);
  writers::TickFileBuilder()
      .pulse(50000000)
      .sentence(50400000, writers::ZdaSentence(sunday))
      .pulse(100000000)
      .sentence(100400000, writers::ZdaSentence(secondLater))
      .writeTo(path("Serial.dat"));
  NmeaTicksManager* manager = CreateNmeaTicksManager(test::WideName(path("Serial.dat")).c_str(), 0);
  ASSERT_NE(manager, nullptr);

  Open(writers::FifoFile({FifoBlockBuilder().timeStamp(75000000).shotCount(3).build(),
                       FifoBlockBuilder().timeStamp(1000).shotCount(3).build()}));
  ASSERT_EQ(Next(0, manager), 3);
  EXPECT_EQ(block_.shots[0].shotTow, 10.5);
  EXPECT_EQ(block_.shots[2].shotTow, 2 * (1.0 / (200 * 1000.0)) + 10.5);

  ASSERT_EQ(Next(1, manager), 3);
  for (const RawShot& shot : block_.shots) EXPECT_EQ(shot.shotTow, -1.0);
  EXPECT_EQ(block_.shots[2].timeInCounts, 1500u);
  DeleteNmeaTicksManager(manager);
}

}  // namespace
}  // namespace kvr
