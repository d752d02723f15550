#include "header/side_table.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "header/header_expectations.h"
#include "support/temp_dir_test_base.h"

namespace kvr::header {
namespace {

TEST(ResampleColumns, OneColumnPerWholeKeyInterpolatedBetweenNeighbours) {
  const struct {
    std::vector<int> keys;
    std::vector<std::vector<double>> values;
    GridColumns expected;
  } cases[] = {
      {{10, 12}, {{1, 10}, {3, 20}}, {{0, {1, 10}}, {1, {2, 15}}, {2, {3, 20}}}},
      {{7}, {{4, 5}}, {{0, {4, 5}}}},
      {{10, 14}, {{0}, {4}}, {{0, {0}}, {1, {1}}, {2, {2}}, {3, {3}}, {4, {4}}}},
      {{10, 8, 11}, {{100}, {0}, {3}}, {{0, {0}}, {1, {1}}, {2, {2}}, {3, {3}}}},  // a falling pair adds nothing
      {{5, 5}, {{1}, {2}}, {{0, {2}}}},
      {{0, 1}, {{1}, {3, 4}}, {{0, {1}}, {1, {3, 4}}}},  // a shorter left column sets the length
  };
  for (const auto& c : cases) EXPECT_EQ(ResampleColumns(c.keys, c.values), c.expected);
}

struct TableCase {
  std::string text;
  GridColumns columns;
  int rowCount;
  double rowOrigin, rowEnd, rowSpan, keyOrigin, keyEnd;
};

void PrintTo(const TableCase& c, std::ostream* os) {
  *os << "keys " << c.keyOrigin << " to " << c.keyEnd << ", " << c.rowCount << " rows";
}

class LoadSideTableFile : public test::InTempDir, public ::testing::WithParamInterface<TableCase> {
 protected:
  void TearDown() override { delete record.sideTableGrid; }
  RawFileHeader record;
};

TEST_P(LoadSideTableFile, ResamplesRowsAndSetsTheGridAxes) {
  const TableCase& c = GetParam();
  test::WriteFile(path("scan.raw.tbl"), c.text);
  ASSERT_EQ(LoadSideTable(L"scan.raw", record), 0);
  const SideTableGrid& grid = *record.sideTableGrid;
  EXPECT_EQ(grid.columns, c.columns);
  EXPECT_EQ(grid.rowCount, c.rowCount);
  EXPECT_EQ(grid.keyCount, static_cast<int>(c.columns.size()));
  EXPECT_EQ(grid.rowOrigin, c.rowOrigin);
  EXPECT_EQ(grid.rowEnd, c.rowEnd);
  EXPECT_EQ(grid.rowSpan, c.rowSpan);
  EXPECT_EQ(grid.rowStep, 0.05);
  EXPECT_EQ(grid.keyOrigin, c.keyOrigin);
  EXPECT_EQ(grid.keyEnd, c.keyEnd);
  EXPECT_EQ(grid.keySpan, c.keyEnd - c.keyOrigin);
  EXPECT_EQ(grid.keyStep, 1.0);
}

INSTANTIATE_TEST_SUITE_P(
    Tables, LoadSideTableFile,
    ::testing::Values(
        // the last line is processed again when the file ends with a line feed
        TableCase{writers::BuildSideTable({10, 12}, {{5.0, 1, 3}, {5.1, 2, 4}}, true),
                  {{0, {1, 2, 2}}, {1, {2, 3, 3}}, {2, {3, 4, 4}}}, 3, 5.0, 5.15, 0.15000000000000036, 10, 13},
        TableCase{writers::BuildSideTable({10, 12}, {{5.0, 1, 3}, {5.1, 2, 4}}, false),
                  {{0, {1, 2}}, {1, {2, 3}}, {2, {3, 4}}}, 2, 5.0, 5.1, 0.09999999999999964, 10, 13},
        TableCase{"# table\n\nrow\t0\t2\t3\r\n0 0 10 20 99\r\n",
                  {{0, {0, 0}}, {1, {5, 5}}, {2, {10, 10}}, {3, {20, 20}}}, 2, 0.0, 0.1, 0.1, 0, 4},
        // a read takes 510 characters; the rest of the line reads as a new line
        TableCase{"row 10 11\n1 2" + std::string(505, ' ') + "345 6 7", {{0, {2, 6}}, {1, {34, 7}}}, 2, 1.0, 1.1,
                  0.10000000000000009, 10, 12}));

TEST_F(LoadSideTableFile, UnreadableOrOversizedTableAttachesNothing) {
  SideTableGrid kept;
  record.sideTableGrid = &kept;
  EXPECT_EQ(LoadSideTable(L"missing.raw", record), -1);
  std::filesystem::create_directory(path("folder.raw.tbl"));
  EXPECT_EQ(LoadSideTable(L"folder.raw", record), -1);
  for (const char* text : {"row 0 2000000000\n1 2 3\n", "row -2147483648 2147483647\n1 2 3\n"}) {
    test::WriteFile(path("wide.raw.tbl"), std::string(text));
    EXPECT_EQ(LoadSideTable(L"wide.raw", record), -1) << text;
  }
  EXPECT_EQ(record.sideTableGrid, &kept);
  record.sideTableGrid = nullptr;
}

TEST_F(LoadSideTableFile, MissingKeyLineRowsOrValuesAreOutOfRange) {
  for (const char* text : {"", "a b\n\n", "row 1 2", "row 0 1 2\n0 1 2\n"}) {
    test::WriteFile(path("bad.raw.tbl"), std::string(text));
    test::ExpectInvalidSubscript([&] { LoadSideTable(L"bad.raw", record); });
    EXPECT_EQ(record.sideTableGrid, nullptr);
  }
}

}  // namespace
}  // namespace kvr::header
