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
  const Json info = RunJson({"info", "scan.raw"});

  EXPECT_EQ(info.at("filename").get<std::string>(), "scan.raw");
  EXPECT_EQ(info.at("scanner").get<std::string>(), "90-degree");
  EXPECT_EQ(info.at("num_blocks").get<std::int64_t>(), 1);
  EXPECT_EQ(info.at("file_size").get<std::int64_t>(), 1024 + 65536);
  EXPECT_FALSE(info.contains("num_points"));  // header only without --stats
  const Json& header = info.at("metadata").at("header");
  EXPECT_EQ(header.at("signature").get<std::string>(), "#KVRSCAN");
  EXPECT_EQ(header.at("dataOffset").get<std::int64_t>(), 1024);
  EXPECT_EQ(header.at("prf").get<std::int64_t>(), 200);
  EXPECT_EQ(header.at("idText1").get<std::string>(), "ROOM");
  EXPECT_EQ(header.at("scanStartAngle").get<double>(), 30.0);
  EXPECT_EQ(header.at("lineRate").get<double>(), 100.0);
  EXPECT_EQ(header.at("calibrationTextLength").get<std::int64_t>(), 18);
  const Json& metadata = info.at("metadata");
  EXPECT_EQ(metadata.at("texts").at("calibrationText").get<std::string>(), "rangeOffset = 0.5\n");
  EXPECT_TRUE(metadata.at("texts").at("fourthText").is_null());
  EXPECT_EQ(metadata.at("calibrationValues").at("rangeOffset").get<double>(), 0.5);
  EXPECT_EQ(metadata.at("calibrationValues").at("scanAngleLag").get<double>(), -5e-06);
  ASSERT_EQ(metadata.at("prfTables").at("200").size(), 1u);
  EXPECT_EQ(metadata.at("prfTables").at("200").at(0).at(0).get<double>(), 0.5);
  EXPECT_EQ(metadata.at("prfTables").at("200").at(0).at(1).get<double>(), 0.25);
  EXPECT_TRUE(metadata.at("sideTable").is_null());
  const Json& calibration = metadata.at("calibrationParameters");
  EXPECT_EQ(calibration.at("rangeOffset").get<double>(), 0.5);
  EXPECT_EQ(calibration.at("a1").get<double>(), 1.0);
  EXPECT_EQ(calibration.at("opticalModelVersion").get<std::int64_t>(), 1);
  EXPECT_EQ(calibration.at("rangeTable").size(), 4096u);
}

TEST_F(KvrscanTest, InfoReportsTheSideTableGrid) {
  WriteFile(path("scan.raw"), BuildScanFile(RoomHeader(), ThreeShotBlock()));
  WriteFile(path("scan.raw.tbl"), BuildSideTable({10, 12}, {{5.0, 1.0, 3.0}}, false));
  const Json grid = RunJson({"info", "scan.raw"}).at("metadata").at("sideTable");
  EXPECT_EQ(grid.at("keyCount").get<std::int64_t>(), 3);
  EXPECT_EQ(grid.at("rowCount").get<std::int64_t>(), 1);
  EXPECT_EQ(grid.at("keyOrigin").get<double>(), 10.0);
  EXPECT_EQ(grid.at("keyEnd").get<double>(), 13.0);
  EXPECT_EQ(grid.at("rowOrigin").get<double>(), 5.0);
}

TEST_F(KvrscanTest, InfoStatsCountShotsReturnsAndBounds) {
  WriteFile(path("scan.raw"), BuildScanFile(RoomHeader(), ThreeShotBlock()));
  const Json info = RunJson({"info", "scan.raw", "--stats"});
  EXPECT_EQ(info.at("num_points").get<std::int64_t>(), 2);
  const Json& stats = info.at("stats");
  EXPECT_EQ(stats.at("num_shots").get<std::int64_t>(), 3);
  EXPECT_EQ(stats.at("num_returns").get<std::int64_t>(), 3);
  EXPECT_EQ(stats.at("invalid_returns").get<std::int64_t>(), 1);
  EXPECT_EQ(stats.at("flagged_shots").get<std::int64_t>(), 1);
  EXPECT_EQ(stats.at("shots_by_return_count").at(0).get<std::int64_t>(), 1);
  EXPECT_EQ(stats.at("shots_by_return_count").at(2).get<std::int64_t>(), 1);
  EXPECT_EQ(stats.at("intensity").at("max").get<std::int64_t>(), 1000);
  EXPECT_EQ(stats.at("time_stamps").at("first").get<std::int64_t>(), 1000000);
  EXPECT_NEAR(stats.at("shot_times").at("first").get<double>(), 0.02, 1e-12);
  const Json& bounds = info.at("bounds");
  EXPECT_NEAR(bounds.at("minx").get<double>(), 0.0, 1e-6);
  EXPECT_NEAR(bounds.at("maxx").get<double>(), kR, 1e-6);
  EXPECT_NEAR(bounds.at("maxy").get<double>(), kR * 0.9238795325112867, 1e-6);
  EXPECT_NEAR(bounds.at("maxz").get<double>(), kR * 0.3826834323650898, 1e-6);
  EXPECT_NEAR(bounds.at("minz").get<double>(), 0.0, 1e-6);
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

  const Json dump = RunJson({"blocks", "scan.raw"}, 1);
  ASSERT_EQ(dump.at("blocks").size(), 3u);
  const Json& first = dump.at("blocks").at(0);
  EXPECT_EQ(first.at("offset").get<std::int64_t>(), 1024);
  EXPECT_EQ(first.at("CycleSyncTimeStamp").get<std::int64_t>(), 1000000);
  EXPECT_EQ(first.at("castBlockNumber").get<std::int64_t>(), 7);
  EXPECT_EQ(first.at("shotCount").get<std::int64_t>(), 3);
  EXPECT_TRUE(first.at("signatureOk").get<bool>());
  const Json& bad = dump.at("blocks").at(1);
  EXPECT_EQ(bad.at("signature").get<std::int64_t>(), 1431655765);
  EXPECT_FALSE(bad.at("signatureOk").get<bool>());
  EXPECT_EQ(dump.at("blocks").at(2).at("time").get<double>(), 1.0);
  EXPECT_EQ(dump.at("bad_blocks").get<std::int64_t>(), 1);
  EXPECT_EQ(dump.at("trailing_bytes").get<std::int64_t>(), 100);

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
  const Json dump = RunJson({"blocks", "scan.raw", "--first", "1", "--count", "2"});
  ASSERT_EQ(dump.at("blocks").size(), 2u);
  EXPECT_EQ(dump.at("blocks").at(0).at("index").get<std::int64_t>(), 1);
  EXPECT_EQ(dump.at("blocks").at(1).at("castBlockNumber").get<std::int64_t>(), 2);
}

}  // namespace
}  // namespace kvr::test
