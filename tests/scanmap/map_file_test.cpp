#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "kvr_decode/scan_file_map.h"
#include "support/map_file_builder.h"
#include "support/temp_dir.h"
#include "support/temp_dir_test_base.h"

namespace kvr {
namespace {

using test::MapFileContents;
using test::MapFileEntry;

// A record is released when the test ends, so LeakSanitizer sees every text freed.
struct OwnedMap {
  ScanFileMap map;
  ~OwnedMap() { ReleaseScanFileMap(map); }
};

class MapFile : public test::InTempDir {
 protected:
  std::wstring Write(const std::string& name, const std::vector<std::uint8_t>& bytes) {
    test::WriteFile(path(name), bytes);
    return test::WideName(path(name));
  }
};

// A small map as a build would leave it: the leading partial line (-1), a
// closed line with events and the open last line.
MapFileContents SampleContents() {
  MapFileContents c;
  c.currentLineFlag = 1;
  c.maxShotsPerLine = 900;
  c.numberOfScanLines = 2;
  c.shotsInCurrentLine = 17;
  c.spareA = 0;
  c.maxReturnsPerShot = 3;
  c.dataStartOffset = 4096;
  c.blockCount = 4;
  c.maxShotsPerBlock = 4000;
  c.scanFileName = "s";
  c.entries = {{-1, 0, 0, -1, 12, {}, {}},
               {0, 0, 12, 0, 900, {3, 70000}, {}},
               {1, 1, 5000, 1, 0, {}, {}}};
  c.spareB = 0;
  c.shotsPerLineEstimate = 1234.5f;
  c.header.signature = "#KVRSCAN";
  c.header.headerLayout = 0;
  c.header.dataOffset = 4096;
  c.header.headerWords = {1, 2, 3};
  c.header.idText1 = "serial";
  c.header.idValue = 77;
  c.header.scanWord0 = 9;
  c.header.scanFloats = {-45.0f, 45.0f, 12.5f, 10.0f, 350.0f, 20.0f};
  c.header.prf = 200;
  c.header.scanTailWords[12] = 0xDEADBEEF;
  c.header.texts[0].bytes = "rangeOffset = 1.5";
  c.header.texts[1].bytes = "[PRF = 200]";
  c.header.texts[2].bytes = "model";
  c.binWidth = 0.25;
  c.minimum = 3.5;
  c.maximumSlot = 3.5;
  c.a = {210.0, 3.5, 0.5, 2.0, 7.0};
  c.intensityAt95 = 812.75;
  c.numberOfBins = 0;
  c.gamma = 0.7;
  c.validSampleCount = 123456;
  c.mapVersion = 2;
  c.returnCounts = {100, 50, 7, 1};
  c.trailingBinWidth = 0.25;
  return c;
}

TEST_F(MapFile, LoadRestoresEveryStoredField) {
  OwnedMap owned;
  ScanFileMap& m = owned.map;
  m.maxNormalizedIntensity = 99.0;  // not in the file: comes back at its default
  ASSERT_EQ(LoadScanFileMap(Write("a.map", BuildMapFile(SampleContents())).data(), m), 0);

  EXPECT_EQ(std::string(m.mapSignature, 8), "#KVRMAPF");
  EXPECT_EQ(m.mapVersion, 2);
  EXPECT_EQ(m.currentLineFlag, 1);
  EXPECT_EQ(m.maxShotsPerLine, 900);
  EXPECT_EQ(m.numberOfScanLines, 2);
  EXPECT_EQ(m.shotsInCurrentLine, 17);
  EXPECT_EQ(m.maxReturnsPerShot, 3);
  EXPECT_EQ(m.dataStartOffset, 4096u);
  EXPECT_EQ(m.dataSize, 0u);
  EXPECT_EQ(m.blockCount, 4);
  EXPECT_EQ(m.maxShotsPerBlock, 4000);
  EXPECT_STREQ(m.scanFileName, "s");
  ASSERT_EQ(m.scanLines.size(), 3u);
  const ScanLineEntry& lead = m.scanLines.at(-1);
  EXPECT_EQ(lead.shotCount, 12);
  EXPECT_EQ(lead.lineFlag, -1);
  const ScanLineEntry& line0 = m.scanLines.at(0);
  EXPECT_EQ(line0.blockNumber, 0u);
  EXPECT_EQ(line0.shotIndexInBlock, 12u);
  EXPECT_EQ(line0.lineFlag, 0);
  EXPECT_EQ(line0.shotCount, 900);
  EXPECT_EQ(line0.statusWordOffset, -1);
  EXPECT_EQ(line0.eventShots, (std::vector<std::uint32_t>{3, 70000}));
  const ScanLineEntry& line1 = m.scanLines.at(1);
  EXPECT_EQ(line1.blockNumber, 1u);
  EXPECT_EQ(line1.shotIndexInBlock, 5000u);
  EXPECT_EQ(line1.shotCount, 0);
  EXPECT_TRUE(line1.eventShots.empty());
  EXPECT_EQ(m.shotsPerLineEstimate, 1234.5f);

  const RawFileHeader& h = m.fileHeader;
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(h.signature), 8), "#KVRSCAN");
  EXPECT_EQ(h.dataOffset, 4096u);
  EXPECT_EQ(h.headerWords[2], 3u);
  EXPECT_STREQ(h.idText1, "serial");
  EXPECT_EQ(h.idValue, 77u);
  EXPECT_EQ(h.scanStartAngle, -45.0f);
  EXPECT_EQ(h.lineRate, 20.0f);
  EXPECT_EQ(h.prf, 200u);
  EXPECT_EQ(h.scanTailWords[12], 0xDEADBEEFu);
  EXPECT_EQ(h.calibrationTextLength, 17u);
  EXPECT_STREQ(h.calibrationText, "rangeOffset = 1.5");
  EXPECT_STREQ(h.parameterText, "[PRF = 200]");
  EXPECT_STREQ(h.thirdText, "model");
  EXPECT_EQ(h.fourthTextLength, 0u);
  ASSERT_NE(h.fourthText, nullptr);
  EXPECT_EQ(h.fourthText[0], 0);
  EXPECT_TRUE(h.calibrationValues.empty());  // the parameter tables are not stored

  EXPECT_EQ(m.binWidth, 0.25);
  EXPECT_EQ(m.minNormalizedIntensity, 3.5);
  EXPECT_EQ(m.maxNormalizedIntensity, 0.0);
  EXPECT_EQ(m.a1, 210.0);
  EXPECT_EQ(m.a5, 7.0);
  EXPECT_EQ(m.intensityAt95, 812.75);
  EXPECT_EQ(m.numberOfBins, 0);
  EXPECT_EQ(m.gamma, 0.7);
  EXPECT_EQ(m.validSampleCount, 123456u);
  EXPECT_EQ(m.returnCounts, (std::vector<std::uint64_t>{100, 50, 7, 1}));
}

TEST_F(MapFile, SaveWritesTheLoadedMapBackByteForByte) {
  const std::vector<std::uint8_t> bytes = BuildMapFile(SampleContents());
  OwnedMap owned;
  ASSERT_EQ(LoadScanFileMap(Write("in.map", bytes).data(), owned.map), 0);
  std::wstring out = test::WideName(path("out.map"));
  ASSERT_EQ(SaveScanFileMap(out.data(), owned.map), 0);
  EXPECT_EQ(test::ReadFileBytes(path("out.map")), bytes);
}

TEST_F(MapFile, SaveWritesMinimumTwiceNoBinsAndMarksTheRecord) {
  ScanFileMap m;  // texts stay null: nothing to release
  m.currentLineFlag = 0;
  m.numberOfScanLines = 0;
  m.maxReturnsPerShot = 1;
  m.dataStartOffset = 300;
  m.scanFileName[0] = 0;  // an empty name is stored with length 1
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
  c.currentLineFlag = 0;
  c.numberOfScanLines = 0;
  c.maxReturnsPerShot = 1;
  c.dataStartOffset = 300;
  c.entries = {{-1, 0, 0, -1, 0, {}, {}}, {0, 2, 40, 1, 0, {7}, {}}};
  c.header.signature = "";
  c.header.prf = 0;
  c.binWidth = 0.125;
  c.minimum = 1.5;
  c.maximumSlot = 1.5;
  c.returnCounts = {4, 3, 2, 1};
  c.trailingBinWidth = 0.125;
  const std::vector<std::uint8_t> expected = BuildMapFile(c);
  const std::vector<std::uint8_t> actual = test::ReadFileBytes(path("m.map"));
  EXPECT_EQ(actual, expected);
  // Fixed offsets up to the name: signature at 26, name length 1 at 42, the entry count after it.
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
  std::int32_t expectedVersion;
  std::vector<std::uint64_t> expectedCounts;
  double expectedBinWidth;
};

class MapFileTail : public MapFile, public ::testing::WithParamInterface<TailCase> {};

// The record held version 7 and counters 9, 9, 9, 9 before the load; the
// section's binWidth is 0.5 and the trailing one 0.75.
TEST_P(MapFileTail, DependsOnSignatureAndVersion) {
  const TailCase& t = GetParam();
  MapFileContents c = SampleContents();
  c.signature = t.signature;
  c.mapVersion = t.version;
  c.binWidth = 0.5;
  c.returnCounts = {1, 2, 3, 4};
  c.trailingBinWidth = 0.75;
  OwnedMap owned;
  owned.map.mapVersion = 7;
  owned.map.returnCounts = {9, 9, 9, 9};
  ASSERT_EQ(LoadScanFileMap(Write("t.map", BuildMapFile(c)).data(), owned.map), 0);
  EXPECT_EQ(owned.map.mapVersion, t.expectedVersion);
  EXPECT_EQ(owned.map.returnCounts, t.expectedCounts);
  EXPECT_EQ(owned.map.binWidth, t.expectedBinWidth);
}

INSTANTIATE_TEST_SUITE_P(
    Versions, MapFileTail,
    ::testing::Values(TailCase{"Version2", "#KVRMAPF", 2, 2, {1, 2, 3, 4}, 0.75},
                      TailCase{"Version1", "#KVRMAPF", 1, 1, {1, 2, 3, 4}, 0.5},
                      TailCase{"Version3", "#KVRMAPF", 3, 3, {9, 9, 9, 9}, 0.5},
                      TailCase{"OtherSignature", "#KVRMAPX", 2, 7, {9, 9, 9, 9}, 0.5}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(MapFile, LoadSkipsBothBinRunsOfAnOlderWriter) {
  MapFileContents c = SampleContents();
  c.numberOfBins = 2;
  c.binValues = {0.5, 0.5, 0.0, 0.0};
  OwnedMap owned;
  ASSERT_EQ(LoadScanFileMap(Write("b.map", BuildMapFile(c)).data(), owned.map), 0);
  EXPECT_EQ(owned.map.numberOfBins, 2);
  EXPECT_EQ(owned.map.mapVersion, 2);
  EXPECT_EQ(owned.map.returnCounts, (std::vector<std::uint64_t>{100, 50, 7, 1}));
}

TEST_F(MapFile, LoadReplacesTheRecordsEntriesAndTexts) {
  OwnedMap owned;
  const std::wstring name = Write("a.map", BuildMapFile(SampleContents()));
  ASSERT_EQ(LoadScanFileMap(std::wstring(name).data(), owned.map), 0);
  owned.map.scanLines[55].shotCount = 3;
  MapFileContents c = SampleContents();
  c.entries.resize(1);
  c.header.texts[0].bytes = "other";
  ASSERT_EQ(LoadScanFileMap(Write("b.map", BuildMapFile(c)).data(), owned.map), 0);
  EXPECT_EQ(owned.map.scanLines.size(), 1u);
  EXPECT_STREQ(owned.map.fileHeader.calibrationText, "other");
}

TEST_F(MapFile, SaveReportsAPathThatCannotBeCreated) {
  ScanFileMap m;
  m.numberOfBins = 4096;
  std::wstring name = test::WideName(path("missing-dir") / "m.map");
  EXPECT_EQ(SaveScanFileMap(name.data(), m), -1);
  const auto entries = logEntries();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].context, "int SaveScanFileMap(char *scanFileName, ScanFileMap &scanFileMap)");
  EXPECT_EQ(entries[0].message, "Error openning file");
  EXPECT_EQ(entries[0].details, std::vector<std::string>{"/"});  // the storage up to its first zero byte
  EXPECT_EQ(m.numberOfBins, 4096);
  EXPECT_EQ(std::string(m.mapSignature, 8), std::string(8, '\0'));
}

TEST_F(MapFile, LoadReportsAMissingFileAndLeavesTheRecord) {
  ScanFileMap m;
  m.numberOfScanLines = 42;
  m.scanLines[3].shotCount = 5;
  std::wstring name = L"absent.map";
  EXPECT_EQ(LoadScanFileMap(name.data(), m), -1);
  const auto entries = logEntries();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].context, "int LoadScanFileMap(wchar_t *filename, ScanFileMap &scanFileMap)");
  EXPECT_EQ(entries[0].message, "Error openning file");
  EXPECT_EQ(entries[0].details, std::vector<std::string>{"a"});
  EXPECT_EQ(m.numberOfScanLines, 42);
  EXPECT_EQ(m.scanLines.size(), 1u);
}

// Damaged map files: the load succeeds, stays inside the record, and holds no
// more than the file could fill.

TEST_F(MapFile, NameLongerThanItsFieldKeepsTheRestOfTheFileInStep) {
  MapFileContents c = SampleContents();
  c.scanFileName = std::string(3000, 'n');
  OwnedMap owned;
  ASSERT_EQ(LoadScanFileMap(Write("n.map", BuildMapFile(c)).data(), owned.map), 0);
  EXPECT_EQ(std::string(owned.map.scanFileName), std::string(1023, 'n'));
  EXPECT_EQ(owned.map.scanLines.size(), 3u);
  EXPECT_EQ(owned.map.validSampleCount, 123456u);
  EXPECT_EQ(owned.map.returnCounts[3], 1u);
}

TEST_F(MapFile, NegativeNameLengthConsumesTheRestOfTheFile) {
  MapFileContents c = SampleContents();
  c.nameLengthField = -1;
  OwnedMap owned;
  ASSERT_EQ(LoadScanFileMap(Write("n.map", BuildMapFile(c)).data(), owned.map), 0);
  EXPECT_EQ(owned.map.scanFileName[1023], 0);
  EXPECT_TRUE(owned.map.scanLines.empty());
  EXPECT_EQ(owned.map.a1, 200.0);
}

TEST_F(MapFile, HugeCountsStopAtTheEndOfTheFile) {
  MapFileContents c = SampleContents();
  c.entryCountField = 0x7FFFFFFF;
  c.entries[1].eventCountField = 0x7FFFFFFF;
  OwnedMap owned;
  const std::vector<std::uint8_t> bytes = BuildMapFile(c);
  ASSERT_EQ(LoadScanFileMap(Write("h.map", bytes).data(), owned.map), 0);
  // The events of line 0 swallow the rest of the file, one value per 4 bytes.
  const std::size_t eventStart = 46 + 2 + 4 + 24 + 24;
  ASSERT_EQ(owned.map.scanLines.size(), 2u);
  EXPECT_EQ(owned.map.scanLines.at(0).eventShots.size(), (bytes.size() - eventStart + 3) / 4);
  EXPECT_EQ(owned.map.scanLines.at(0).eventShots[0], 3u);
}

TEST_F(MapFile, TextLengthBeyondTheFileKeepsWhatTheFileHolds) {
  MapFileContents c = SampleContents();
  c.header.texts[3].bytes = "tail";
  c.header.texts[3].lengthField = 0xFFFFFFFF;
  OwnedMap owned;
  const std::vector<std::uint8_t> bytes = BuildMapFile(c);
  ASSERT_EQ(LoadScanFileMap(Write("t.map", bytes).data(), owned.map), 0);
  const RawFileHeader& h = owned.map.fileHeader;
  // "tail", then everything after it: 8 doubles, intensityAt95, the bin count,
  // gamma, validSampleCount, mapVersion, four counters, binWidth.
  EXPECT_EQ(h.fourthTextLength, 4u + 64u + 8u + 4u + 8u + 4u + 4u + 32u + 8u);
  EXPECT_EQ(std::string(h.fourthText, 4), "tail");
  EXPECT_EQ(h.fourthText[h.fourthTextLength], 0);
  EXPECT_EQ(owned.map.a1, 200.0);  // nothing was left for the fields after the text
}

TEST_F(MapFile, EveryTruncationLoadsWithoutError) {
  const std::vector<std::uint8_t> bytes = BuildMapFile(SampleContents());
  OwnedMap owned;
  for (std::size_t size = 0; size < bytes.size(); ++size) {
    const std::wstring name = Write("cut.map", std::vector<std::uint8_t>(bytes.begin(), bytes.begin() + size));
    ASSERT_EQ(LoadScanFileMap(std::wstring(name).data(), owned.map), 0) << size;
    ASSERT_NE(std::memchr(owned.map.scanFileName, 0, sizeof owned.map.scanFileName), nullptr);
    ASSERT_LE(owned.map.scanLines.size(), 3u) << size;
  }
  // Cut inside maxShotsPerLine: the two bytes that arrived replace the default's low bytes.
  const std::wstring name = Write("cut.map", std::vector<std::uint8_t>(bytes.begin(), bytes.begin() + 6));
  ASSERT_EQ(LoadScanFileMap(std::wstring(name).data(), owned.map), 0);
  EXPECT_EQ(owned.map.currentLineFlag, 1);
  EXPECT_EQ(owned.map.maxShotsPerLine, 900);
  EXPECT_EQ(owned.map.numberOfScanLines, -1);
}

}  // namespace
}  // namespace kvr
