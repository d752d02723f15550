#include <gtest/gtest.h>

#include <cstdio>
#include <vector>

#include "kvr_decode/fifo_block.h"
#include "kvr_writers/fifo_block_writer.h"
#include "support/stdout_capture.h"
#include "support/temp_dir_test_base.h"

namespace kvr {
namespace {

using writers::FifoBlockBuilder;

class DumpTest : public test::InTempDir {};

TEST_F(DumpTest, WritesOneLinePerBlockMarksBadSignaturesAndReportsTheEnd) {
  const auto good = FifoBlockBuilder().timeStamp(123456789).castBlockNumber(17).shotCount(905).build();
  const auto bad = FifoBlockBuilder().signature(0xFFFFFFFF).timeStamp(123456789).castBlockNumber(17).shotCount(905).build();
  // Packed word 0xFFFFFFFF: only its low byte adds to the time stamp.
  const auto fullPacked = FifoBlockBuilder().timeStamp(0xFF00000001).castBlockNumber(2047).shotCount(8191).build();
  test::WriteFile(path("scan.bin"), writers::FifoFile({good, bad, fullPacked}, 100));
  std::FILE* in = std::fopen(path("scan.bin").string().c_str(), "rb");
  std::FILE* out = std::fopen(path("dump.txt").string().c_str(), "w");
  ASSERT_TRUE(in != nullptr && out != nullptr);

  test::StdoutCapture console;
  EXPECT_EQ(Dump(&in, out), 0);
  EXPECT_EQ(Dump(&in, out), 0);
  EXPECT_EQ(Dump(&in, out), 0);
  EXPECT_EQ(Dump(&in, out), -1);
  EXPECT_TRUE(std::feof(in));
  EXPECT_EQ(Dump(&in, out), -1);
  EXPECT_EQ(console.text(), "EOF detected : BytesRead = 100\nEOF detected : BytesRead = 0\n");
  std::fclose(in);
  std::fclose(out);
  EXPECT_EQ(test::ReadTextModeFile(path("dump.txt")),
            "123456789 2863311530 17 905 \n"
            "!!!!!!!!!!!!!!!! 123456789 4294967295 17 905 \n"
            "1095216660481 2863311530 2047 8191 \n");
  EXPECT_TRUE(logEntries().empty());
}

}  // namespace
}  // namespace kvr
