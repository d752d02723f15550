#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <string>
#include <tuple>
#include <vector>

#include "kvr_decode/scan_file_map.h"
#include "scanmap/scan_files.h"
#include "kvr_decode/nmea_ticks_manager.h"
#include "support/stdout_capture.h"
#include "kvr_writers/tick_file_writer.h"
#include "support/temp_dir_test_base.h"

namespace kvr {
namespace {

using writers::FifoBlockBuilder;
using test::MapShot;
using test::OwnedMap;
using writers::ReturnWord;

constexpr std::uint32_t kT0 = 1000;
constexpr std::uint64_t kTicksPerShot = 250;  // 200 kHz

struct OpenFile {
  std::FILE* stream = nullptr;
  ~OpenFile() {
    if (stream != nullptr) std::fclose(stream);
  }
};

// Shots carry their block and index in the pan field, so a fetched list names
// where each shot came from.
std::uint32_t Tag(std::uint32_t block, std::uint32_t shot) { return block * 1000 + shot; }

FifoBlockBuilder Block(std::uint32_t number, const std::vector<int>& directions, std::uint64_t timeStamp = 0) {
  FifoBlockBuilder block;
  block.timeStamp(timeStamp);
  for (std::size_t i = 0; i < directions.size(); ++i) {
    block.shot(MapShot(static_cast<std::uint32_t>(directions[i]), 1, kT0, 0, Tag(number, static_cast<std::uint32_t>(i))),
               {ReturnWord(kT0 + 5000, 500)});
  }
  return block;
}

std::vector<std::uint32_t> Tags(const std::vector<RawShot>& shots) {
  std::vector<std::uint32_t> tags;
  for (const RawShot& shot : shots) tags.push_back(static_cast<std::uint32_t>(shot.shotWord & 0xFFFFF));
  return tags;
}

// A scan written to scan.raw, its map, and the file open for fetches.
class MappedScan : public test::InTempDir {
 protected:
  void Map(const std::vector<FifoBlockBuilder>& blocks, std::size_t tail = 0) {
    ASSERT_EQ(GetScanFileMap(test::WriteScan(path("scan.raw"), {}, blocks, tail).c_str(), owned_.map), 0);
    file_.stream = std::fopen(path("scan.raw").string().c_str(), "rb");
    ASSERT_NE(file_.stream, nullptr);
  }

  OwnedMap owned_;
  OpenFile file_;
};

class ScanLineAccess : public MappedScan {
 protected:
  // Line 0 runs from block 0 shot 5 across into block 1; line 1 begins at
  // block 1 shot 4 and stays open through an empty block and block 3.
  void SetUp() override {
    Map({Block(0, {0, 0, 0, 0, 0, 1, 1, 1}), Block(1, {1, 1, 1, 1, 0, 0}), Block(2, {}), Block(3, {0, 0})}, 1000);
  }

  std::vector<std::uint32_t> Fetch(int index) {
    std::vector<RawShot> shots(3);  // whatever the list held is replaced
    const int n = GetShotsFromScanLineIndex(index, &file_.stream, owned_.map, shots, nullptr);
    EXPECT_EQ(n, static_cast<int>(shots.size()));
    return Tags(shots);
  }
};

const std::vector<std::uint32_t> kLine0 = {Tag(0, 5), Tag(0, 6), Tag(0, 7), Tag(1, 0),
                                           Tag(1, 1), Tag(1, 2), Tag(1, 3), Tag(1, 4)};

TEST_F(ScanLineAccess, LineYieldsItsShotsAndTheNextLinesFirst) {
  EXPECT_EQ(Fetch(0), kLine0);
  // The open last line (count 0) yields its first shot only.
  EXPECT_EQ(Fetch(1), std::vector<std::uint32_t>{Tag(1, 4)});
  // The cache holds the blocks of the line last fetched.
  EXPECT_EQ(owned_.map.fifoBlock.shots.size(), 6u);
  EXPECT_EQ(owned_.map.fifoBlock.blockNumber, 1);
  // Indices outside the lines are clamped.
  EXPECT_EQ(Fetch(-5), kLine0);
  EXPECT_EQ(Fetch(12), std::vector<std::uint32_t>{Tag(1, 4)});
}

TEST_F(ScanLineAccess, LineRunningPastTheFileIsReturnedShort) {
  owned_.map.scanLines[1].shotCount = 100;
  test::StdoutCapture out;
  EXPECT_EQ(Fetch(1), (std::vector<std::uint32_t>{Tag(1, 4), Tag(1, 5), Tag(3, 0), Tag(3, 1)}));
  EXPECT_EQ(out.text(), "break from FillScanLineCachedBlock \n");
}

TEST_F(ScanLineAccess, EntryBeyondItsBlocksShotsYieldsNothing) {
  owned_.map.scanLines[1].shotIndexInBlock = 50;
  owned_.map.scanLines[1].shotCount = 3;
  test::StdoutCapture out;
  EXPECT_TRUE(Fetch(1).empty());
  EXPECT_EQ(out.text(), "");  // no later block was needed
}

TEST_F(ScanLineAccess, BadBlockSignatureIsLoggedAndYieldsNothing) {
  ScanFileMap& m = owned_.map;
  test::WriteFile(path("bad.raw"),
                  writers::BuildScanFile({}, FifoBlockBuilder().signature(0x55555555).shot(MapShot(0, 0, kT0)).build()));
  OpenFile bad;
  bad.stream = std::fopen(path("bad.raw").string().c_str(), "rb");
  std::vector<RawShot> shots(2);
  EXPECT_EQ(GetShotsFromScanLineIndex(0, &bad.stream, m, shots, nullptr), 0);
  EXPECT_TRUE(shots.empty());
  EXPECT_TRUE(m.fifoBlock.shots.empty());
  const auto entries = logEntries();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].message, "!!Error in DmaBlockHeader Signature!!");
}

TEST_F(ScanLineAccess, TicksManagerTimesTheShots) {
  writers::TickFileBuilder().writeTo(path("Serial.dat"));  // no pulse: no time is known
  NmeaTicksManager* ticks = CreateNmeaTicksManager(test::WideName(path("Serial.dat")).c_str(), 0);
  ASSERT_NE(ticks, nullptr);
  std::vector<RawShot> shots;
  EXPECT_EQ(GetShotsFromScanLineIndex(0, &file_.stream, owned_.map, shots, ticks), 8);
  for (const RawShot& shot : shots) EXPECT_EQ(shot.shotTow, -1.0);
  DeleteNmeaTicksManager(ticks);
  // Without a manager, shots are timed from their block's ticks (both blocks stamped 0).
  EXPECT_EQ(GetShotsFromScanLineIndex(0, &file_.stream, owned_.map, shots, nullptr), 8);
  EXPECT_EQ(shots[0].shotTow, 5 * 5e-06);
  EXPECT_EQ(shots[0].timeInCounts, 5 * kTicksPerShot);
  EXPECT_EQ(shots[3].timeInCounts, 0u);
}

TEST_F(ScanLineAccess, MapWithoutLinesFetchesTheFirstShot) {
  owned_.map.numberOfScanLines = 0;
  owned_.map.scanLines.clear();
  EXPECT_EQ(Fetch(7), std::vector<std::uint32_t>{Tag(0, 0)});
  // The fetch went through entry -1, inserted with its defaults.
  EXPECT_EQ(owned_.map.scanLines.at(-1).lineFlag, -1);
}

TEST_F(ScanLineAccess, LoadedMapServesTheSameLines) {
  std::wstring mapName = test::WideName(path("scan.map"));
  ASSERT_EQ(SaveScanFileMap(mapName.data(), owned_.map), 0);
  OwnedMap loaded;
  ASSERT_EQ(LoadScanFileMap(mapName.data(), loaded.map), 0);
  std::vector<RawShot> shots;
  ASSERT_EQ(GetShotsFromScanLineIndex(0, &file_.stream, loaded.map, shots, nullptr), 8);
  EXPECT_EQ(Tags(shots), kLine0);
}

struct PositionCase {
  std::int32_t lines;
  double position;
  int index;
};

class RelativePosition : public ::testing::TestWithParam<PositionCase> {};

TEST_P(RelativePosition, ScalesTheLastIndexAndTruncates) {
  ScanFileMap map;
  map.numberOfScanLines = GetParam().lines;
  EXPECT_EQ(GetScanLineIndexFromRelativePosition(GetParam().position, map), GetParam().index);
}

INSTANTIATE_TEST_SUITE_P(Positions, RelativePosition,
                         ::testing::Values(PositionCase{10, 0.0, 0}, PositionCase{10, 1.0, 9}, PositionCase{10, 0.5, 4},
                                           PositionCase{10, 0.99, 8}, PositionCase{0, 0.7, 0},
                                           PositionCase{10, 2.0, 18}, PositionCase{10, -0.5, -4},
                                           PositionCase{10, 1e300, -2147483647 - 1}));

// Lines of ten shots after a leading partial line of three, all in one block;
// shot i lies 250 ticks after shot i - 1 and carries pan count `pan(i)`.
class ScanParameters : public MappedScan {
 protected:
  static constexpr std::uint64_t kStamp = 1000000;

  template <typename Pan>
  void Build(int lines, Pan pan) {
    FifoBlockBuilder block;
    block.timeStamp(kStamp);
    const int shots = 3 + 10 * (lines + 1);
    for (int i = 0; i < shots; ++i) {
      const int line = i < 3 ? -1 : (i - 3) / 10;
      const std::uint32_t direction = static_cast<std::uint32_t>((line + 2) % 2);
      block.shot(MapShot(direction, 1, kT0, 0, pan(i)), {ReturnWord(kT0 + 5000, 500)});
    }
    Map({block});
    ASSERT_EQ(owned_.map.numberOfScanLines, lines + 1);
  }
};

// N = 8: A is line 2 (first shot 23), B is line 6 whose fetch ends with the
// first shot of line 7 (73); P is line 1 (first shot 13), Q again line 6. A to B
// is 50 shots, 0.25 ms; P to Q 60 shots, 0.3 ms.
TEST_F(ScanParameters, MeasuredFromFourLines) {
  Build(7, [](int i) { return static_cast<std::uint32_t>(1000 + 10 * i); });
  ASSERT_EQ(UpdateScanParameters(file_.stream, owned_.map), 0);
  const RawFileHeader& h = owned_.map.fileHeader;
  EXPECT_FLOAT_EQ(h.lineRate, 10000.0f);        // 5 lines / (2 x 0.25 ms)
  EXPECT_FLOAT_EQ(h.angularSpeed, 1125.0f);     // 500 counts, 0.28125 degrees, in 0.25 ms
  EXPECT_FLOAT_EQ(h.scanStartAngle, 0.635625f);  // count 1130
  // The end angle counts from a second before P: (0.3 ms - 1 s) x 1125 + 0.635625.
  EXPECT_FLOAT_EQ(h.scanEndAngle, -1124.026875f);
  // Untouched by the measurement.
  EXPECT_EQ(h.sweepStartAngle, 30.0f);
}

// The pan count falls between A (639230, 359.566875 degrees) and B (730,
// 0.410625 degrees): the turn is unwrapped through 360 degrees, 0.84375 in 0.25 ms.
TEST_F(ScanParameters, PanWrapIsUnwrapped) {
  Build(7, [](int i) { return static_cast<std::uint32_t>(i < 50 ? 639000 + 10 * i : 10 * i); });
  ASSERT_EQ(UpdateScanParameters(file_.stream, owned_.map), 0);
  EXPECT_FLOAT_EQ(owned_.map.fileHeader.angularSpeed, 3375.0f);
}

TEST_F(ScanParameters, UnreadableLinesLeaveTheHeader) {
  Build(7, [](int i) { return static_cast<std::uint32_t>(i); });
  test::WriteFile(path("short.raw"), std::vector<std::uint8_t>(100, 0));
  OpenFile other;
  other.stream = std::fopen(path("short.raw").string().c_str(), "rb");
  const RawFileHeader& h = owned_.map.fileHeader;
  for (std::FILE* stream : {other.stream, static_cast<std::FILE*>(nullptr)}) {
    EXPECT_EQ(UpdateScanParameters(stream, owned_.map), 1);
    EXPECT_EQ(std::make_tuple(h.lineRate, h.angularSpeed, h.scanStartAngle, h.scanEndAngle),
              std::make_tuple(100.0f, 12.0f, 30.0f, 130.0f));  // the header builder's values
  }
}

}  // namespace
}  // namespace kvr
