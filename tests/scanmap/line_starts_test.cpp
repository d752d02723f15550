#include "scanmap/line_starts.h"

#include <gtest/gtest.h>

namespace kvr::scanmap {
namespace {

TEST(LineStarts, ShotsBelongToTheLineThatStartedLastBeforeThem) {
  // Lines start inside block 0, none in block 1, one at the start of block 2.
  const LineStarts lines({{0, 5}, {0, 9}, {2, 0}});
  std::vector<std::int32_t> block(12);
  lines.LinesOf(0, block);
  EXPECT_EQ(block, (std::vector<std::int32_t>{-1, -1, -1, -1, -1, 0, 0, 0, 0, 1, 1, 1}));
  lines.LinesOf(1, block);
  EXPECT_EQ(block, std::vector<std::int32_t>(12, 1));
  lines.LinesOf(2, std::span(block).first(3));
  EXPECT_EQ(std::vector<std::int32_t>(block.begin(), block.begin() + 3), std::vector<std::int32_t>(3, 2));
  lines.LinesOf(7, std::span(block).first(2));
  EXPECT_EQ(std::vector<std::int32_t>(block.begin(), block.begin() + 2), std::vector<std::int32_t>(2, 2));
}

TEST(LineStarts, TakesTheMapsLinesUpToTheFirstMissing) {
  ScanFileMap map;
  map.numberOfScanLines = 4;
  map.scanLines[-1] = ScanLineEntry{};
  map.scanLines[0].blockNumber = 0, map.scanLines[0].shotIndexInBlock = 3;
  map.scanLines[1].blockNumber = 2, map.scanLines[1].shotIndexInBlock = 7;
  map.scanLines[3].blockNumber = 5;  // line 2 is missing: line 3 is not taken
  const LineStarts lines(map);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[1].block, 2u);
  EXPECT_EQ(lines[1].shot, 7u);
}

}  // namespace
}  // namespace kvr::scanmap
