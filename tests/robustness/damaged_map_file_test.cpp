// Map files cut short, with their counts and lengths overwritten, without
// their signature, and damaged at random. A map file has no magic at its start
// and the loader trusts it: every damaged file loads, the fields it reached
// holding what it read and the rest their defaults.

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "kvr_decode/scan_file_map.h"
#include "robustness/damage.h"
#include "kvr_writers/map_file_writer.h"
#include "support/temp_dir_test_base.h"

namespace kvr {
namespace {

using test::FileBytes;

// Fixed fields to 46, the name "s" to 48, the entry count at 48; entries -1 at
// 52, 0 at 76 (its event count at 96, events 3 and 9 at 100) and 1 at 108; spareB
// at 132, the estimate at 136; the header section from 140, its text lengths at
// 416 (17 bytes of text), 437, 441 (10 bytes) and 455; binWidth at 459, the
// bin count at 531, validSampleCount at 543, the version at 547, the return
// counts at 551, binWidth again at 583: 591 bytes.
writers::MapFileContents Contents() {
  writers::MapFileContents c;
  c.currentLineFlag = 1;
  c.maxShotsPerLine = 8;
  c.numberOfScanLines = 2;
  c.shotsInCurrentLine = 3;
  c.maxReturnsPerShot = 2;
  c.dataStartOffset = 512;
  c.blockCount = 2;
  c.maxShotsPerBlock = 60;
  c.scanFileName = "s";
  c.entries = {{-1, 0, 0, -1, 5, {}, {}}, {0, 0, 5, 0, 7, {3, 9}, {}}, {1, 1, 12, 1, 0, {}, {}}};
  c.header.dataOffset = 512;
  c.header.texts[0].bytes = "rangeOffset = 1.5";
  c.header.texts[2].bytes = "<a0>1</a0>";
  c.binWidth = c.trailingBinWidth = 0.25;
  c.minimum = c.maximumSlot = 3.5;
  c.intensityAt95 = 80.0;
  c.validSampleCount = 77;
  c.returnCounts = {40, 20, 0, 0};
  return c;
}
const FileBytes kValid = writers::BuildMapFile(Contents());

class DamagedMapFile : public test::InTempDir {
 protected:
  ScanFileMap& Load(const FileBytes& file) {
    test::WriteFile(path("in.map"), file);
    ReleaseScanFileMap(map);
    map = ScanFileMap{};
    wchar_t name[] = L"in.map";
    EXPECT_EQ(LoadScanFileMap(name, map), 0);
    return map;
  }
  std::vector<std::int32_t> Keys() const {
    std::vector<std::int32_t> keys;
    for (const auto& [key, entry] : map.scanLines) keys.push_back(key);
    return keys;
  }
  void TearDown() override { ReleaseScanFileMap(map); }

  ScanFileMap map;
};

struct CutCase {
  std::size_t cut;
  std::int32_t numberOfScanLines, blockCount;
  std::string name;
  std::vector<std::int32_t> keys;
  std::vector<std::uint32_t> line0Events;
  std::string calibrationText;
  std::int32_t numberOfBins, mapVersion;
  std::uint32_t validSampleCount;
  double binWidth;
  std::uint64_t firstReturnCount;
};

class CutMapFile : public DamagedMapFile, public ::testing::WithParamInterface<CutCase> {};

TEST_P(CutMapFile, LoadsWhatArrivedAndDefaultsTheRest) {
  const CutCase& c = GetParam();
  ASSERT_EQ(kValid.size(), 591u);
  Load(test::Cut(kValid, c.cut));
  EXPECT_EQ(map.numberOfScanLines, c.numberOfScanLines);
  EXPECT_EQ(map.blockCount, c.blockCount);
  EXPECT_EQ(std::string(map.scanFileName), c.name);
  EXPECT_EQ(Keys(), c.keys);
  if (map.scanLines.count(0) != 0) {
    EXPECT_EQ(map.scanLines.at(0).eventShots, c.line0Events);
  }
  EXPECT_EQ(test::Buffer(map.fileHeader.calibrationText, map.fileHeader.calibrationTextLength),
            c.calibrationText + '\0');
  EXPECT_EQ(map.numberOfBins, c.numberOfBins);
  EXPECT_EQ(map.mapVersion, c.mapVersion);
  EXPECT_EQ(map.validSampleCount, c.validSampleCount);
  EXPECT_EQ(map.binWidth, c.binWidth);
  EXPECT_EQ(map.returnCounts.at(0), c.firstReturnCount);
  EXPECT_TRUE(logEntries().empty());
}

const std::vector<std::int32_t> kAllKeys{-1, 0, 1};
const std::vector<std::uint32_t> kEvents{3, 9};
const std::string kText = "rangeOffset = 1.5";

// Until the bin count arrives it keeps the loader's default, 4096; the version
// is read only behind a whole signature, and reads 0 when the file ends first.
INSTANTIATE_TEST_SUITE_P(
    FieldBoundaries, CutMapFile,
    ::testing::Values(CutCase{0, -1, 0, "", {}, {}, "", 4096, 0, 0, 0.0, 0},
                      CutCase{8, -1, 0, "", {}, {}, "", 4096, 0, 0, 0.0, 0},
                      CutCase{12, 2, 0, "", {}, {}, "", 4096, 0, 0, 0.0, 0},
                      CutCase{34, 2, 0, "", {}, {}, "", 4096, 0, 0, 0.0, 0},
                      CutCase{38, 2, 2, "", {}, {}, "", 4096, 0, 0, 0.0, 0},
                      CutCase{46, 2, 2, "", {}, {}, "", 4096, 0, 0, 0.0, 0},
                      CutCase{48, 2, 2, "s", {}, {}, "", 4096, 0, 0, 0.0, 0},
                      CutCase{52, 2, 2, "s", {}, {}, "", 4096, 0, 0, 0.0, 0},
                      CutCase{76, 2, 2, "s", {-1}, {}, "", 4096, 0, 0, 0.0, 0},
                      CutCase{100, 2, 2, "s", {-1, 0}, {}, "", 4096, 0, 0, 0.0, 0},
                      CutCase{108, 2, 2, "s", {-1, 0}, kEvents, "", 4096, 0, 0, 0.0, 0},
                      CutCase{132, 2, 2, "s", kAllKeys, kEvents, "", 4096, 0, 0, 0.0, 0},
                      CutCase{416, 2, 2, "s", kAllKeys, kEvents, "", 4096, 0, 0, 0.0, 0},
                      CutCase{437, 2, 2, "s", kAllKeys, kEvents, kText, 4096, 0, 0, 0.0, 0},
                      CutCase{467, 2, 2, "s", kAllKeys, kEvents, kText, 4096, 0, 0, 0.25, 0},
                      CutCase{531, 2, 2, "s", kAllKeys, kEvents, kText, 4096, 0, 0, 0.25, 0},
                      CutCase{535, 2, 2, "s", kAllKeys, kEvents, kText, 0, 0, 0, 0.25, 0},
                      CutCase{547, 2, 2, "s", kAllKeys, kEvents, kText, 0, 0, 77, 0.25, 0},
                      CutCase{551, 2, 2, "s", kAllKeys, kEvents, kText, 0, 2, 77, 0.25, 0},
                      CutCase{583, 2, 2, "s", kAllKeys, kEvents, kText, 0, 2, 77, 0.25, 40},
                      CutCase{591, 2, 2, "s", kAllKeys, kEvents, kText, 0, 2, 77, 0.25, 40}),
    [](const auto& info) { return "At" + std::to_string(info.param.cut); });

// Each count or length overwritten; the fields read after it come from wherever
// it left the stream.
TEST_F(DamagedMapFile, NameLengthAtZeroOneMaximumAndPastTheEnd) {
  // 0: the entry count is read from "s", its terminator and the real count's low
  // bytes: 0x00030073 entries, as many as the rest of the file holds.
  Load(test::WithU32(kValid, 42, 0));
  EXPECT_STREQ(map.scanFileName, "");
  EXPECT_EQ(map.mapVersion, 0);
  // 1: "s" is read without its terminator (the field is terminated anyway).
  Load(test::WithU32(kValid, 42, 1));
  EXPECT_STREQ(map.scanFileName, "s");
  // The largest, one past the end of the file, and a negative length all take
  // the rest of the file as the name.
  for (std::uint32_t length : {0x7FFFFFFFu, 546u, 0xFFFFFFFFu}) {
    Load(test::WithU32(kValid, 42, length));
    EXPECT_STREQ(map.scanFileName, "s") << length;
    EXPECT_TRUE(map.scanLines.empty()) << length;
    EXPECT_EQ(map.numberOfBins, 4096) << length;
  }
  EXPECT_TRUE(logEntries().empty());
}

TEST_F(DamagedMapFile, EntryCountAtZeroOneMaximumAndPastTheEnd) {
  // 0 (and -1, which counts as none): spareB is entry -1's key, 0xFFFFFFFF.
  for (std::uint32_t count : {0u, 0xFFFFFFFFu}) {
    Load(test::WithU32(kValid, 48, count));
    EXPECT_TRUE(map.scanLines.empty());
    EXPECT_EQ(map.spareB, 0xFFFFFFFFu);
  }
  // 1: spareB is entry 0's key (0), the estimate its block number (0).
  Load(test::WithU32(kValid, 48, 1));
  EXPECT_EQ(Keys(), std::vector<std::int32_t>{-1});
  EXPECT_EQ(map.shotsPerLineEstimate, 0.0f);
  // The largest and one past the records: a fourth record from spareB on, key 0,
  // whose event count is the header's data offset (512) and takes the rest of
  // the file, 435 bytes from 156: 108 values and one of 3 bytes.
  for (std::uint32_t count : {0x7FFFFFFFu, 4u}) {
    Load(test::WithU32(kValid, 48, count));
    EXPECT_EQ(Keys(), kAllKeys);
    EXPECT_EQ(map.scanLines.at(0).blockNumber, 0x3F800000u);  // the estimate, 1.0f
    EXPECT_EQ(map.scanLines.at(0).eventShots.size(), 109u);
    EXPECT_EQ(map.mapVersion, 0);
  }
  EXPECT_TRUE(logEntries().empty());
}

TEST_F(DamagedMapFile, EventCountAtZeroOneMaximumAndPastTheEnd) {
  // 0: the next record is read from the events on: key 3, block 9, then entry
  // 1's key, block and shot index as shot index, line flag and shot count, its
  // line flag (1) as the event count and its shot count (0) as the one event.
  Load(test::WithU32(kValid, 96, 0));
  EXPECT_TRUE(map.scanLines.at(0).eventShots.empty());
  ASSERT_EQ(map.scanLines.count(3), 1u);
  EXPECT_EQ(map.scanLines.at(3).blockNumber, 9u);
  EXPECT_EQ(map.scanLines.at(3).shotCount, 12);
  EXPECT_EQ(map.scanLines.at(3).eventShots, std::vector<std::uint32_t>{0});
  Load(test::WithU32(kValid, 96, 1));
  EXPECT_EQ(map.scanLines.at(0).eventShots, std::vector<std::uint32_t>{3});
  // The largest and one past the end: the rest of the file, 491 bytes from 100:
  // 122 values and one of 3 bytes.
  for (std::uint32_t count : {0x7FFFFFFFu, 123u}) {
    Load(test::WithU32(kValid, 96, count));
    EXPECT_EQ(Keys(), (std::vector<std::int32_t>{-1, 0}));
    ASSERT_EQ(map.scanLines.at(0).eventShots.size(), 123u);
    EXPECT_EQ(map.scanLines.at(0).eventShots[1], 9u);
  }
  EXPECT_TRUE(logEntries().empty());
}

TEST_F(DamagedMapFile, TextLengthAtZeroOneMaximumAndPastTheEnd) {
  struct Case {
    std::uint32_t length;
    std::string calibration;
    std::uint32_t parameterLength;  // the next length read from the text, cut to the rest of the file
  };
  // 0: the next length is "rang" and takes the 167 bytes from 424; 1: "ange", 166 bytes.
  for (const Case& c : {Case{0, "", 167}, Case{1, "r", 166}}) {
    Load(test::WithU32(kValid, 416, c.length));
    EXPECT_EQ(test::Buffer(map.fileHeader.calibrationText, map.fileHeader.calibrationTextLength),
              c.calibration + '\0');
    EXPECT_EQ(map.fileHeader.parameterTextLength, c.parameterLength);
    EXPECT_EQ(std::string(map.fileHeader.parameterText, 8), (c.length == 0 ? "eOffset " : "Offset ="));
  }
  // The largest and one past the end: the text is what the file has left, and
  // its length says so.
  for (std::uint32_t length : {0xFFFFFFFFu, 172u}) {
    Load(test::WithU32(kValid, 416, length));
    EXPECT_EQ(map.fileHeader.calibrationTextLength, 171u);
    EXPECT_STREQ(map.fileHeader.calibrationText, kText.c_str());
    EXPECT_EQ(map.fileHeader.calibrationText[171], '\0');
  }
  EXPECT_TRUE(logEntries().empty());
}

TEST_F(DamagedMapFile, BinCountAtOneMaximumAndPastTheEndSkipsTheVersion) {
  // Two runs of B doubles follow validSampleCount: B = 1 skips 16 bytes (the
  // version, the first counter and half the second), and the version is read
  // from the second counter's zero half; larger counts run past the end. A
  // negative count skips nothing.
  struct Case {
    std::uint32_t bins;
    std::int32_t version;
    std::uint64_t firstReturnCount;
  };
  for (const Case& c : {Case{1, 0, 0}, Case{0x7FFFFFFF, 0, 0}, Case{3, 0, 0}, Case{0xFFFFFFFF, 2, 40}}) {
    Load(test::WithU32(kValid, 531, c.bins));
    EXPECT_EQ(map.numberOfBins, static_cast<std::int32_t>(c.bins));
    EXPECT_EQ(map.validSampleCount, 77u);
    EXPECT_EQ(map.mapVersion, c.version) << c.bins;
    EXPECT_EQ(map.returnCounts.at(0), c.firstReturnCount) << c.bins;
  }
  EXPECT_TRUE(logEntries().empty());
}

TEST_F(DamagedMapFile, OtherSignatureLoadsWithoutTheVersionedTail) {
  for (const char* signature : {"#KVRMAPX", "#KVRSCAN", "\0\0\0\0\0\0\0\0"}) {
    Load(test::WithText(kValid, 26, std::string(signature, 8)));
    EXPECT_EQ(map.mapVersion, 0);
    EXPECT_EQ(map.returnCounts.at(0), 0u);
    EXPECT_EQ(map.validSampleCount, 77u);
    EXPECT_EQ(Keys(), kAllKeys);
  }
  EXPECT_TRUE(logEntries().empty());
}

// Random damage: every file loads with nothing logged, its name terminated in
// its field, and the record it gives saves and loads back unchanged.
TEST_F(DamagedMapFile, RandomDamageLoadsAndRoundTrips) {
  for (const FileBytes& file : test::Mutations(kValid, 5150, 100)) {
    ScanFileMap& loaded = Load(file);
    ASSERT_NE(std::memchr(loaded.scanFileName, 0, sizeof loaded.scanFileName), nullptr);
    EXPECT_LE(loaded.scanLines.size(), file.size() / 24 + 1);
    wchar_t saved[] = L"saved.map";
    ASSERT_EQ(SaveScanFileMap(saved, loaded), 0);
    ScanFileMap again;
    ASSERT_EQ(LoadScanFileMap(saved, again), 0);
    EXPECT_EQ(again.numberOfScanLines, loaded.numberOfScanLines);
    EXPECT_EQ(again.scanLines.size(), loaded.scanLines.size());
    EXPECT_EQ(again.mapVersion, loaded.mapVersion);
    EXPECT_EQ(again.fileHeader.calibrationTextLength, loaded.fileHeader.calibrationTextLength);
    EXPECT_EQ(again.fileHeader.fourthTextLength, loaded.fileHeader.fourthTextLength);
    EXPECT_EQ(std::string(again.scanFileName), std::string(loaded.scanFileName));
    ReleaseScanFileMap(again);
  }
  EXPECT_TRUE(logEntries().empty());
}

}  // namespace
}  // namespace kvr
