#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <new>
#include <vector>

#include "kvr_decode/fifo_block.h"
#include "support/byte_writer.h"
#include "support/fifo_block_builder.h"
#include "support/temp_dir_test_base.h"

// Counts every allocation through the global operator new of this test program.
namespace {
std::size_t allocationCount = 0;
}  // namespace

void* operator new(std::size_t size) {
  ++allocationCount;
  if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace kvr {
namespace {

class FifoWalkAllocation : public test::InTempDir {};

// Once a reused FifoBlock has grown to the largest block, walking the file again
// allocates nothing: returns are held inline and the shot list keeps its storage.
TEST_F(FifoWalkAllocation, ReusedBlockAllocatesNothingPerBlock) {
  test::SyntheticScan scan(99, 500);
  test::ByteWriter file;
  for (int b = 0; b < 8; ++b) file.append(scan.NextBlock().build());
  test::WriteFile(path("scan.bin"), file.bytes());
  std::FILE* in = std::fopen(path("scan.bin").c_str(), "rb");
  ASSERT_NE(in, nullptr);
  RawFileHeader header;
  header.prf = 500;
  FifoBlock block;
  const auto walk = [&] {
    std::rewind(in);
    block.flaggedShots.clear();
    int blocks = 0;
    while (DecodeNextFifoBlock(&in, header, blocks, block, nullptr) > 0) ++blocks;
    return blocks;
  };
  ASSERT_EQ(walk(), 8);
  const std::size_t before = allocationCount;
  EXPECT_EQ(walk(), 8);
  EXPECT_EQ(allocationCount, before);
  std::fclose(in);
}

}  // namespace
}  // namespace kvr
