#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kvr_decode/scan_file_map.h"
#include "scanmap/scan_files.h"
#include "kvr_writers/map_file_writer.h"
#include "support/temp_dir.h"
#include "support/temp_dir_test_base.h"

namespace kvr {
namespace {

using writers::MapFileContents;
using test::OwnedMap;

class MapFile : public test::InTempDir {
 protected:
  std::wstring Write(const std::string& name, const std::vector<std::uint8_t>& bytes) {
    test::WriteFile(path(name), bytes);
    return test::WideName(path(name));
  }
  int Load(const std::vector<std::uint8_t>& bytes, ScanFileMap& map) {
    std::wstring name = Write("in.map", bytes);
    return LoadScanFileMap(name.data(), map);
  }
};

// A map as a build leaves it: the leading partial line (-1), a closed line
// with events, the open last line, and a header with its texts.
MapFileContents SampleContents() {
  MapFileContents c;
  c.currentLineFlag = 1;
  c.maxShotsPerLine = 900;
  c.numberOfScanLines = 2;
  c.shotsInCurrentLine = 17;
  c.maxReturnsPerShot = 3;
  c.dataStartOffset = 4096;
  c.blockCount = 4;
  c.maxShotsPerBlock = 4000;
  c.scanFileName = "s";
  c.entries = {{-1, 0, 0, -1, 12, {}, {}}, {0, 0, 12, 0, 900, {3, 70000}, {}}, {1, 1, 5000, 1, 0, {}, {}}};
  c.shotsPerLineEstimate = 1234.5f;
  c.header.dataOffset = 4096;
  c.header.idText1 = "serial";
  c.header.scanFloats = {-45.0f, 45.0f, 12.5f, 10.0f, 350.0f, 20.0f};
  c.header.scanTailWords[12] = 0xDEADBEEF;
  c.header.texts[0].bytes = "rangeOffset = 1.5";
  c.header.texts[2].bytes = "model";
  c.binWidth = 0.25;
  c.minimum = c.maximumSlot = 3.5;
  c.a = {210.0, 3.5, 0.5, 2.0, 7.0};
  c.intensityAt95 = 812.75;
  c.gamma = 0.7;
  c.validSampleCount = 123456;
  c.returnCounts = {100, 50, 7, 1};
  c.trailingBinWidth = 0.25;
  return c;
}

// The loader reads every field into its place (the saver, checked byte for
// byte below, then writes the same file back); what the file does not carry
// comes back at its default.
TEST_F(MapFile, LoadThenSaveGivesTheSameFile) {
  const std::vector<std::uint8_t> bytes = BuildMapFile(SampleContents());
  OwnedMap owned;
  ScanFileMap& m = owned.map;
  m.maxNormalizedIntensity = 99.0;
  ASSERT_EQ(Load(bytes, m), 0);
  EXPECT_EQ(m.maxNormalizedIntensity, 0.0);
  EXPECT_EQ(m.scanLines.at(0).statusWordOffset, -1);
  EXPECT_EQ(m.scanLines.at(0).eventShots, (std::vector<std::uint32_t>{3, 70000}));
  EXPECT_STREQ(m.fileHeader.calibrationText, "rangeOffset = 1.5");
  EXPECT_EQ(m.fileHeader.parameterText[0], 0);  // an empty text is a terminator alone
  EXPECT_EQ(m.returnCounts, (std::vector<std::uint64_t>{100, 50, 7, 1}));

  std::wstring out = test::WideName(path("out.map"));
  ASSERT_EQ(SaveScanFileMap(out.data(), m), 0);
  EXPECT_EQ(test::ReadFileBytes(path("out.map")), bytes);
}

TEST_F(MapFile, SaveWritesMinimumTwiceNoBinsAndMarksTheRecord) {
  ScanFileMap m;  // texts stay null: nothing to release
  m.numberOfScanLines = 0;
  m.scanLines[-1] = ScanLineEntry{0, 0, -1, 0, -1, {}};
  m.scanLines[0] = ScanLineEntry{2, 40, 1, 0, 52, {7}};
  m.minNormalizedIntensity = 1.5;
  m.maxNormalizedIntensity = 6000.0;
  m.binWidth = 0.125;
  m.numberOfBins = 48001;
  m.mapVersion = 2;
  m.returnCounts = {4, 3, 2, 1};
  std::wstring out = test::WideName(path("m.map"));
  ASSERT_EQ(SaveScanFileMap(out.data(), m), 0);
  EXPECT_EQ(m.numberOfBins, 0);
  EXPECT_EQ(std::string(m.mapSignature, 8), "#KVRMAPF");

  MapFileContents c;
  c.numberOfScanLines = 0;
  c.entries = {{-1, 0, 0, -1, 0, {}, {}}, {0, 2, 40, 1, 0, {7}, {}}};
  c.header.signature = "";
  c.header.prf = 0;
  c.binWidth = c.trailingBinWidth = 0.125;
  c.minimum = c.maximumSlot = 1.5;
  c.returnCounts = {4, 3, 2, 1};
  const std::vector<std::uint8_t> actual = test::ReadFileBytes(path("m.map"));
  EXPECT_EQ(actual, BuildMapFile(c));
  // The fixed offsets: signature at 26, name length 1 at 42, its terminator, the entry count.
  ASSERT_GE(actual.size(), 51u);
  EXPECT_EQ(std::string(actual.begin() + 26, actual.begin() + 34), "#KVRMAPF");
  EXPECT_EQ(actual[42], 1);
  EXPECT_EQ(actual[46], 0);
  EXPECT_EQ(actual[47], 2);
}

struct TailCase {
  const char* name;
  std::string signature;
  std::uint32_t version;
  std::int32_t bins;
  std::int32_t expectedVersion;
  std::vector<std::uint64_t> expectedCounts;
  double expectedBinWidth;
};

class MapFileTail : public MapFile, public ::testing::WithParamInterface<TailCase> {};

// The record held version 7 and counters 9, 9, 9, 9; the file's binWidth is
// 0.5, the trailing one 0.75, its counters 1, 2, 3, 4.
TEST_P(MapFileTail, DependsOnSignatureAndVersion) {
  const TailCase& t = GetParam();
  MapFileContents c = SampleContents();
  c.signature = t.signature;
  c.mapVersion = t.version;
  c.numberOfBins = t.bins;
  c.binValues.assign(2 * static_cast<std::size_t>(t.bins), 0.5);
  c.binWidth = 0.5;
  c.returnCounts = {1, 2, 3, 4};
  c.trailingBinWidth = 0.75;
  OwnedMap owned;
  owned.map.mapVersion = 7;
  owned.map.returnCounts = {9, 9, 9, 9};
  ASSERT_EQ(Load(BuildMapFile(c), owned.map), 0);
  EXPECT_EQ(owned.map.mapVersion, t.expectedVersion);
  EXPECT_EQ(owned.map.returnCounts, t.expectedCounts);
  EXPECT_EQ(owned.map.binWidth, t.expectedBinWidth);
  EXPECT_EQ(owned.map.numberOfBins, t.bins);
}

INSTANTIATE_TEST_SUITE_P(
    Versions, MapFileTail,
    ::testing::Values(TailCase{"Version2", "#KVRMAPF", 2, 0, 2, {1, 2, 3, 4}, 0.75},
                      TailCase{"Version1", "#KVRMAPF", 1, 0, 1, {1, 2, 3, 4}, 0.5},
                      TailCase{"Version3", "#KVRMAPF", 3, 0, 3, {9, 9, 9, 9}, 0.5},
                      TailCase{"BinRunsOfAnOlderWriter", "#KVRMAPF", 2, 3, 2, {1, 2, 3, 4}, 0.75},
                      TailCase{"OtherSignature", "#KVRMAPX", 2, 0, 7, {9, 9, 9, 9}, 0.5}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(MapFile, SaveReportsAPathThatCannotBeCreated) {
  ScanFileMap m;
  std::wstring name = test::WideName(path("missing-dir") / "m.map");
  EXPECT_EQ(SaveScanFileMap(name.data(), m), -1);
  const auto entries = logEntries();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].context, "int SaveScanFileMap(char *scanFileName, ScanFileMap &scanFileMap)");
  EXPECT_EQ(entries[0].message, "Error openning file");
  // The storage up to its first zero byte: the path's first character ("/" or a drive letter).
  EXPECT_EQ(entries[0].details, std::vector<std::string>{std::string(1, static_cast<char>(name[0]))});
  EXPECT_EQ(m.numberOfBins, 4096);
  EXPECT_EQ(std::string(m.mapSignature, 8), std::string(8, '\0'));
}

TEST_F(MapFile, LoadReportsAMissingFileAndLeavesTheRecord) {
  ScanFileMap m;
  m.numberOfScanLines = 42;
  std::wstring name = L"absent.map";
  EXPECT_EQ(LoadScanFileMap(name.data(), m), -1);
  const auto entries = logEntries();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].context, "int LoadScanFileMap(wchar_t *filename, ScanFileMap &scanFileMap)");
  EXPECT_EQ(entries[0].message, "Error openning file");
  EXPECT_EQ(entries[0].details, std::vector<std::string>{"a"});
  EXPECT_EQ(m.numberOfScanLines, 42);
}

// Damaged map files load without error, stay inside the record, and hold no
// more than the file could fill.

TEST_F(MapFile, NameBeyondItsFieldKeepsTheRestInStep) {
  MapFileContents c = SampleContents();
  c.scanFileName = std::string(3000, 'n');
  OwnedMap owned;
  ASSERT_EQ(Load(BuildMapFile(c), owned.map), 0);
  EXPECT_EQ(std::string(owned.map.scanFileName), std::string(1023, 'n'));
  EXPECT_EQ(owned.map.scanLines.size(), 3u);
  EXPECT_EQ(owned.map.returnCounts[3], 1u);
}

// The counts and the other lengths are held by the damaged-file tests.
TEST_F(MapFile, HugeFourthTextLengthStopsAtTheEndOfTheFile) {
  MapFileContents c = SampleContents();
  c.header.texts[3].bytes = "tail";
  c.header.texts[3].lengthField = 0xFFFFFFFF;
  OwnedMap owned;
  ASSERT_EQ(Load(BuildMapFile(c), owned.map), 0);
  // "tail" and the 132 bytes after it: 11 doubles, three 32-bit fields and 4 counters.
  EXPECT_EQ(owned.map.fileHeader.fourthTextLength, 4u + 132u);
  EXPECT_EQ(owned.map.fileHeader.fourthText[4 + 132], 0);
  EXPECT_EQ(owned.map.a1, 200.0);
}

// Cut inside maxShotsPerLine: the two bytes that arrived replace the default's low bytes.
TEST_F(MapFile, CutInsideAFieldKeepsTheBytesThatArrived) {
  const std::vector<std::uint8_t> bytes = BuildMapFile(SampleContents());
  OwnedMap owned;
  ASSERT_EQ(Load(std::vector<std::uint8_t>(bytes.begin(), bytes.begin() + 6), owned.map), 0);
  EXPECT_EQ(owned.map.maxShotsPerLine, 900);
  EXPECT_EQ(owned.map.numberOfScanLines, -1);
}

}  // namespace
}  // namespace kvr
