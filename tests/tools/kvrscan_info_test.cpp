#include <cmath>

#include "tools/kvrscan_fixture.h"

namespace kvr::test {

using namespace writers;
namespace {

// One block of three shots, the block stamped at 1,000,000 ticks (0.02 s):
//  0: pan 0, scan count 131072 (0 deg), one return 1000 counts after T0 = 100,
//     intensity 500: range 1.951202893 m, r = 2.451202893 m, point (r, 0, 0);
//  1: pan 160000 (90 deg), scan 196608 (22.5 deg), a return 1000 counts after
//     T0 (intensity 1000) and one before it (no range): point
//     (0, r cos 22.5, r sin 22.5) = (0, 2.264619, 0.938047);
//  2: no returns, a flag bit set.
std::vector<std::uint8_t> ThreeShotBlock() {
  FifoBlockBuilder block;
  block.timeStamp(1000000).castBlockNumber(7);
  block.shot(ShotWord({0, 131072, 1, 100}), {ReturnWord(1100, 500)});
  block.shot(ShotWord({160000, 196608, 2, 100}), {ReturnWord(1100, 1000), ReturnWord(99, 20)});
  block.shot(ShotWord({0, 131072, 0, 100, 1}));
  return block.build();
}

constexpr double kR = 2.451202893137634;  // 1000 counts: 1000 x 13.0208333e-12 x 0.5 x 299704764.39 m, + 0.5

TEST_F(KvrscanTest, InfoJsonCarriesTheHeaderAndWhatTheLibraryBuildsFromIt) {
  HeaderBlockFields fields = RoomHeader();
  fields.idText1 = "ROOM";
  fields.parameterText = "[PRF = 200]\n1 a b 0.5 0.25\n";
  WriteFile(path("scan.raw"), BuildScanFile(fields, ThreeShotBlock()));
  const JsonValue info = RunJson({"info", "scan.raw"});

  EXPECT_EQ(info["filename"].string(), "scan.raw");
  EXPECT_EQ(info["scanner"].string(), "90-degree");
  EXPECT_EQ(info["num_blocks"].integer(), 1);
  EXPECT_EQ(info["file_size"].integer(), 1024 + 65536);
  EXPECT_FALSE(info.has("num_points"));  // header only without --stats
  const JsonValue& header = info["metadata"]["header"];
  EXPECT_EQ(header["signature"].string(), "#KVRSCAN");
  EXPECT_EQ(header["dataOffset"].integer(), 1024);
  EXPECT_EQ(header["prf"].integer(), 200);
  EXPECT_EQ(header["idText1"].string(), "ROOM");
  EXPECT_EQ(header["scanStartAngle"].number(), 30.0);
  EXPECT_EQ(header["lineRate"].number(), 100.0);
  EXPECT_EQ(header["calibrationTextLength"].integer(), 18);
  const JsonValue& metadata = info["metadata"];
  EXPECT_EQ(metadata["texts"]["calibrationText"].string(), "rangeOffset = 0.5\n");
  EXPECT_TRUE(metadata["texts"]["fourthText"].isNull());
  EXPECT_EQ(metadata["calibrationValues"]["rangeOffset"].number(), 0.5);
  EXPECT_EQ(metadata["calibrationValues"]["scanAngleLag"].number(), -5e-06);
  ASSERT_EQ(metadata["prfTables"]["200"].size(), 1u);
  EXPECT_EQ(metadata["prfTables"]["200"][0][0].number(), 0.5);
  EXPECT_EQ(metadata["prfTables"]["200"][0][1].number(), 0.25);
  EXPECT_TRUE(metadata["sideTable"].isNull());
  const JsonValue& calibration = metadata["calibrationParameters"];
  EXPECT_EQ(calibration["rangeOffset"].number(), 0.5);
  EXPECT_EQ(calibration["a1"].number(), 1.0);
  EXPECT_EQ(calibration["opticalModelVersion"].integer(), 1);
  EXPECT_EQ(calibration["rangeTable"].size(), 4096u);
}

TEST_F(KvrscanTest, InfoReportsTheSideTableGrid) {
  WriteFile(path("scan.raw"), BuildScanFile(RoomHeader(), ThreeShotBlock()));
  WriteFile(path("scan.raw.tbl"), BuildSideTable({10, 12}, {{5.0, 1.0, 3.0}}, false));
  const JsonValue grid = RunJson({"info", "scan.raw"})["metadata"]["sideTable"];
  EXPECT_EQ(grid["keyCount"].integer(), 3);
  EXPECT_EQ(grid["rowCount"].integer(), 1);
  EXPECT_EQ(grid["keyOrigin"].number(), 10.0);
  EXPECT_EQ(grid["keyEnd"].number(), 13.0);
  EXPECT_EQ(grid["rowOrigin"].number(), 5.0);
}

TEST_F(KvrscanTest, InfoStatsCountShotsReturnsAndBounds) {
  WriteFile(path("scan.raw"), BuildScanFile(RoomHeader(), ThreeShotBlock()));
  const JsonValue info = RunJson({"info", "scan.raw", "--stats"});
  EXPECT_EQ(info["num_points"].integer(), 2);
  const JsonValue& stats = info["stats"];
  EXPECT_EQ(stats["num_shots"].integer(), 3);
  EXPECT_EQ(stats["num_returns"].integer(), 3);
  EXPECT_EQ(stats["invalid_returns"].integer(), 1);
  EXPECT_EQ(stats["flagged_shots"].integer(), 1);
  EXPECT_EQ(stats["shots_by_return_count"][0].integer(), 1);
  EXPECT_EQ(stats["shots_by_return_count"][2].integer(), 1);
  EXPECT_EQ(stats["intensity"]["max"].integer(), 1000);
  EXPECT_EQ(stats["time_stamps"]["first"].integer(), 1000000);
  EXPECT_NEAR(stats["shot_times"]["first"].number(), 0.02, 1e-12);
  const JsonValue& bounds = info["bounds"];
  EXPECT_NEAR(bounds["minx"].number(), 0.0, 1e-6);
  EXPECT_NEAR(bounds["maxx"].number(), kR, 1e-6);
  EXPECT_NEAR(bounds["maxy"].number(), kR * 0.9238795325112867, 1e-6);
  EXPECT_NEAR(bounds["maxz"].number(), kR * 0.3826834323650898, 1e-6);
  EXPECT_NEAR(bounds["minz"].number(), 0.0, 1e-6);
}

TEST_F(KvrscanTest, InfoReportIsReadable) {
  WriteFile(path("scan.raw"), BuildScanFile(RoomHeader(), ThreeShotBlock()));
  const ToolRun run = Run({"info", "scan.raw", "--stats"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(run.out.starts_with("scan.raw: raw scan file of a 90-degree scanner (#KVRSCAN)")) << run.out;
  for (const char* line : {"  PRF                     200 kHz\n", "  rangeOffset             0.5\n",
                           "  points                  2\n", "  shots by return count   0: 1, 1: 1, 2: 1, 3: 0, 4: 0\n"}) {
    EXPECT_NE(run.out.find(line), std::string::npos) << line;
  }
  EXPECT_EQ(run.out.find("Optical model version"), std::string::npos);  // the library's own note stays out
}

// Damaged and foreign scan files: one line naming the file and the fault.
struct DamagedScan {
  const char* name;
  std::vector<std::uint8_t> (*bytes)();
  const char* sideTable;  // written beside the scan when not null
  const char* message;
};

std::vector<std::uint8_t> WrongMagic() {
  HeaderBlockFields fields = RoomHeader();
  fields.signature = "NOTASCAN";
  return BuildScanFile(fields, ThreeShotBlock());
}
std::vector<std::uint8_t> UndefinedPrf() {
  HeaderBlockFields fields = RoomHeader();
  fields.prf = 100;
  return BuildScanFile(fields, ThreeShotBlock());
}
std::vector<std::uint8_t> TextLengthPastTheEnd() {
  HeaderBlockFields fields = RoomHeader();
  fields.thirdTextLength = 70000;
  fields.dataOffset = 0;
  return BuildHeaderBlock(fields);
}
std::vector<std::uint8_t> MalformedCalibrationText() {
  HeaderBlockFields fields = RoomHeader();
  fields.calibrationText = "[PRF=200]\nrangeOffset 1 2\n";
  return BuildScanFile(fields, ThreeShotBlock());
}
std::vector<std::uint8_t> GoodScan() { return BuildScanFile(RoomHeader(), ThreeShotBlock()); }
std::vector<std::uint8_t> CutOffBlock() {
  std::vector<std::uint8_t> bytes = BuildScanFile(RoomHeader(), ThreeShotBlock());
  bytes.resize(bytes.size() + 100, 0);
  return bytes;
}
std::vector<std::uint8_t> FiveBytes() { return {'#', 'K', 'V', 'R', 'S'}; }

class KvrscanDamagedScan : public KvrscanTest, public ::testing::WithParamInterface<DamagedScan> {};

TEST_P(KvrscanDamagedScan, InfoGivesOneLineAndStatusOne) {
  WriteFile(path("scan.raw"), GetParam().bytes());
  if (GetParam().sideTable != nullptr) WriteFile(path("scan.raw.tbl"), std::string_view(GetParam().sideTable));
  const ToolRun run = Run({"info", "scan.raw"});
  ExpectOneLineError(run, 1, "kvrscan info: scan.raw", GetParam().message);
}

INSTANTIATE_TEST_SUITE_P(
    Files, KvrscanDamagedScan,
    ::testing::Values(
        DamagedScan{"WrongMagic", WrongMagic, nullptr,
                    "scan.raw: not a raw scan file: its magic is \"NOTASCAN\", expected #KVRSCAN, #MX70DAT or MX700DAT; "
                    "the library's log has details"},
        DamagedScan{"UndefinedPrf", UndefinedPrf, nullptr, "scan.raw: undefined PRF 100 in the header"},
        DamagedScan{"TextLengthPastTheEnd", TextLengthPastTheEnd, nullptr,
                    "scan.raw: header cut short: its texts need 70306 bytes, the file has 306"},
        DamagedScan{"MalformedCalibrationText", MalformedCalibrationText, nullptr,
                    "scan.raw: malformed calibration text in the header (invalid vector<T> subscript)"},
        DamagedScan{"MalformedSideTable", GoodScan, "a b\n",
                    "scan.raw.tbl: malformed side table (invalid vector<T> subscript)"},
        DamagedScan{"CutOffBlock", CutOffBlock, nullptr, "scan.raw: the file ends inside block 1 (100 of 65536 bytes)"},
        DamagedScan{"FiveBytes", FiveBytes, nullptr, "scan.raw: too short for a scan file header (5 bytes)"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(KvrscanTest, InfoOnAMissingFileOrADirectory) {
  ExpectOneLineError(Run({"info", "absent.raw"}), 1, "kvrscan info: absent.raw: no such file", "");
  ExpectOneLineError(Run({"info", "."}), 1, "kvrscan info: .: is a directory", "");
}

TEST_F(KvrscanTest, BlocksListsEveryBlockAndMarksDamage) {
  std::vector<std::vector<std::uint8_t>> blocks;
  blocks.push_back(ThreeShotBlock());
  blocks.push_back(FifoBlockBuilder().signature(0x55555555).timeStamp(5).castBlockNumber(3).shotCount(9).build());
  blocks.push_back(FifoBlockBuilder().timeStamp(50000000).castBlockNumber(9).shotCount(0).build());
  WriteFile(path("scan.raw"), FifoFile(blocks, 100, BuildScanFile(RoomHeader())));

  const JsonValue dump = RunJson({"blocks", "scan.raw"}, 1);
  ASSERT_EQ(dump["blocks"].size(), 3u);
  const JsonValue& first = dump["blocks"][0];
  EXPECT_EQ(first["offset"].integer(), 1024);
  EXPECT_EQ(first["CycleSyncTimeStamp"].integer(), 1000000);
  EXPECT_EQ(first["castBlockNumber"].integer(), 7);
  EXPECT_EQ(first["shotCount"].integer(), 3);
  EXPECT_TRUE(first["signatureOk"].boolean());
  const JsonValue& bad = dump["blocks"][1];
  EXPECT_EQ(bad["signature"].integer(), 1431655765);
  EXPECT_FALSE(bad["signatureOk"].boolean());
  EXPECT_EQ(dump["blocks"][2]["time"].number(), 1.0);
  EXPECT_EQ(dump["bad_blocks"].integer(), 1);
  EXPECT_EQ(dump["trailing_bytes"].integer(), 100);

  const ToolRun run = Run({"blocks", "scan.raw"});
  EXPECT_NE(run.out.find("      1        66560               5      0.000000  1431655765     3     9  bad signature\n"),
            std::string::npos)
      << run.out;
  ExpectOneLineError(run, 1, "kvrscan blocks: scan.raw: 1 blocks with a bad signature (first: block 1)",
                     "the file ends inside block 3 (100 of 65536 bytes)");
}

TEST_F(KvrscanTest, BlocksFromAndCount) {
  std::vector<std::vector<std::uint8_t>> blocks;
  for (std::uint32_t n = 0; n < 4; ++n) blocks.push_back(FifoBlockBuilder().castBlockNumber(n).shotCount(0).build());
  WriteFile(path("scan.raw"), FifoFile(blocks, 0, BuildScanFile(RoomHeader())));
  const JsonValue dump = RunJson({"blocks", "scan.raw", "--first", "1", "--count", "2"});
  ASSERT_EQ(dump["blocks"].size(), 2u);
  EXPECT_EQ(dump["blocks"][0]["index"].integer(), 1);
  EXPECT_EQ(dump["blocks"][1]["castBlockNumber"].integer(), 2);
}

}  // namespace
}  // namespace kvr::test
