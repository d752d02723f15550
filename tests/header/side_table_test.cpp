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
  // POSIX opens a directory as a file that cannot be read; Windows does not open it.
  EXPECT_EQ(LoadSideTable(L"folder.raw", record), test::kDirectoriesOpen ? kSideTableNotLoaded : -1);
  for (const char* text : {"row 0 2000000000\n1 2 3\n", "row -2147483648 2147483647\n1 2 3\n"}) {
    test::WriteFile(path("wide.raw.tbl"), std::string(text));
    EXPECT_EQ(LoadSideTable(L"wide.raw", record), kSideTableNotLoaded) << text;
  }
  EXPECT_EQ(record.sideTableGrid, &kept);
  record.sideTableGrid = nullptr;
}

// Keys 0 and 4095 resample to 4096 columns, each as long as the table. The last
// line ends in a line feed and counts twice, so 1023 lines (about 6 KB of text)
// make 1024 rows: 4194304 values, 32 MB, the most a grid may hold. One line more
// is refused before anything is resampled.
TEST_F(LoadSideTableFile, FewKilobytesCannotAskForAGridOfHundredsOfMegabytes) {
  const auto table = [](int lines) {
    std::string text = "row 0 4095\n";
    for (int line = 0; line < lines; ++line) text += "1 2 3\n";
    return text;
  };
  test::WriteFile(path("rows.raw.tbl"), table(1024));
  EXPECT_EQ(LoadSideTable(L"rows.raw", record), kSideTableNotLoaded);
  EXPECT_EQ(record.sideTableGrid, nullptr);
  test::WriteFile(path("rows.raw.tbl"), table(1023));
  ASSERT_EQ(LoadSideTable(L"rows.raw", record), 0);
  EXPECT_EQ(record.sideTableGrid->keyCount, 4096);
  EXPECT_EQ(record.sideTableGrid->rowCount, 1024);
  EXPECT_EQ(record.sideTableGrid->columns.at(4095), std::vector<double>(1024, 3.0));
}

}  // namespace
}  // namespace kvr::header
