#include <gtest/gtest.h>

#include <cstdio>
#include <vector>

#include "kvr_decode/fifo_block.h"
#include "support/byte_writer.h"
#include "support/fifo_block_builder.h"
#include "support/stdout_capture.h"
#include "support/temp_dir_test_base.h"

namespace kvr {
namespace {

using test::FifoBlockBuilder;

class DumpTest : public test::InTempDir {};

TEST_F(DumpTest, WritesOneLinePerBlockMarksBadSignaturesAndReportsTheEnd) {
  const auto good = FifoBlockBuilder().timeStamp(123456789).castBlockNumber(17).shotCount(905).build();
  const auto bad = FifoBlockBuilder().signature(0).timeStamp(123456789).castBlockNumber(17).shotCount(905).build();
  // Only byte 8 of the packed word adds to the time stamp.
  const auto fullPacked = test::ByteWriter().u32(0xAAAAAAAA).u32(1).u32(0xFFFFFFFF).padTo(65536).take();
  test::WriteFile(path("scan.bin"), test::ByteWriter().append(good).append(bad).append(fullPacked).zeros(100).take());
  std::FILE* in = std::fopen(path("scan.bin").c_str(), "rb");
  std::FILE* out = std::fopen(path("dump.txt").c_str(), "w");
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
  EXPECT_EQ(test::ReadFileText(path("dump.txt")),
            "123456789 2863311530 17 905 \n"
            "!!!!!!!!!!!!!!!! 123456789 0 17 905 \n"
            "1095216660481 2863311530 2047 8191 \n");
  EXPECT_TRUE(logEntries().empty());
}

}  // namespace
}  // namespace kvr
