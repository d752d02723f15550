#include <cstring>

#include <png.h>

#include "kvr_writers/camera_file_writer.h"
#include "kvr_writers/tick_file_writer.h"
#include "tools/kvrscan_fixture.h"

namespace kvr::test {

using namespace writers;
namespace {

// One block, stamped at 1,025,000,000 ticks, of ten shots one return each,
// 1000 counts after T0 (range 1.951202893 m; rangeOffset 0.5 makes r 2.4512 m),
// intensity 50 x (shot + 1) (below 1000, where the intensity model steps down). Direction bits 0 0 | 1 1 1 | 0 0 0 | 1 1: the two
// shots before the first change belong to no line; lines 0 and 1 hold three
// shots, line 2 (open) two. Pan counts step by 10 from line to line; scan counts
// step by 100 along a line, up on line 0 and 2, down on line 1.
struct ShotPlan {
  std::uint32_t pan, scan, direction;
};
constexpr ShotPlan kShots[] = {{0, 1100, 0},  {0, 1200, 0},  {10, 1000, 1}, {10, 1100, 1}, {10, 1200, 1},
                               {20, 1200, 0}, {20, 1100, 0}, {20, 1000, 0}, {30, 1000, 1}, {30, 1100, 1}};
constexpr std::uint64_t kBlockStamp = 1025000000;
constexpr double kR = 2.451202893137634;

FifoBlockBuilder LinesBlock(std::uint32_t signature = kGoodBlockSignature) {
  FifoBlockBuilder block;
  block.signature(signature).timeStamp(kBlockStamp);
  for (std::uint32_t i = 0; i < 10; ++i) {
    const ShotPlan& s = kShots[i];
    block.shot(ShotWord({s.pan, s.scan, 1, 100, 0, s.direction * 2}), {ReturnWord(1100, 50 * (i + 1))});
  }
  return block;
}

void WriteLinesScan(const std::filesystem::path& path, int blocks = 1) {
  std::vector<std::vector<std::uint8_t>> data{LinesBlock().build()};
  if (blocks > 1) data.push_back(LinesBlock(0x55555555).build());
  WriteFile(path, FifoFile(data, 0, BuildScanFile(RoomHeader())));
}

TEST_F(KvrscanTest, MapReportsTheLibrarysLines) {
  WriteLinesScan(path("scan.raw"));
  const Json map = RunJson({"map", "scan.raw"});
  EXPECT_EQ(map.at("source").get<std::string>(), "built");
  EXPECT_EQ(map.at("num_lines").get<std::int64_t>(), 3);
  const Json& metadata = map.at("metadata");
  EXPECT_EQ(metadata.at("mapVersion").get<std::int64_t>(), 2);
  EXPECT_EQ(metadata.at("maxShotsPerLine").get<std::int64_t>(), 3);
  EXPECT_EQ(metadata.at("maxReturnsPerShot").get<std::int64_t>(), 1);
  EXPECT_EQ(metadata.at("dataStartOffset").get<std::int64_t>(), 1024);
  EXPECT_EQ(metadata.at("returnCounts").at(0).get<std::int64_t>(), 10);
  EXPECT_EQ(metadata.at("validSampleCount").get<std::int64_t>(), 10);
  const Json& lines = map.at("scanLines");
  ASSERT_EQ(lines.size(), 4u);  // -1, 0, 1, 2
  const struct {
    int index, shot, flag, shots;
  } expected[] = {{-1, 0, -1, 2}, {0, 2, 1, 3}, {1, 5, 0, 3}, {2, 8, 1, 0}};
  for (std::size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(lines[i].at("index").get<std::int64_t>(), expected[i].index);
    EXPECT_EQ(lines[i].at("shotIndexInBlock").get<std::int64_t>(), expected[i].shot);
    EXPECT_EQ(lines[i].at("lineFlag").get<std::int64_t>(), expected[i].flag);
    EXPECT_EQ(lines[i].at("shotCount").get<std::int64_t>(), expected[i].shots);
  }
}

TEST_F(KvrscanTest, MapSavedAndLoadedAgain) {
  WriteLinesScan(path("scan.raw"));
  const ToolRun save = Run({"map", "scan.raw", "-o", "scan.map"});
  EXPECT_EQ(save.status, 0) << save.err;
  EXPECT_TRUE(save.out.starts_with("scan.raw: scan file map built in ")) << save.out;
  EXPECT_NE(save.out.find(", saved to scan.map\n"), std::string::npos);
  const Json loaded = RunJson({"map", "scan.raw", "--load", "scan.map"});
  EXPECT_EQ(loaded.at("source").get<std::string>(), "loaded");
  EXPECT_EQ(loaded.at("num_lines").get<std::int64_t>(), 3);
  EXPECT_EQ(loaded.at("metadata").at("mapSignature").get<std::string>(), "#KVRMAPF");
  EXPECT_EQ(loaded.at("scanLines").at(2).at("shotIndexInBlock").get<std::int64_t>(), 5);
  EXPECT_EQ(loaded.at("scanLines").at(2).at("statusWordOffset").get<std::int64_t>(), -1);  // not kept in the file
}

TEST_F(KvrscanTest, MapFailures) {
  WriteLinesScan(path("scan.raw"));
  ASSERT_EQ(Run({"map", "scan.raw", "-o", "scan.map"}).status, 0);
  HeaderBlockFields other = RoomHeader();
  other.dataOffset = 2048;
  WriteFile(path("other.raw"), FifoFile({LinesBlock().build()}, 0, BuildScanFile(other)));
  ExpectOneLineError(Run({"map", "other.raw", "--load", "scan.map"}), 1,
                     "kvrscan map: scan.map: not the map of other.raw", "");
  WriteFile(path("junk.map"), std::string(100, 'j'));
  ExpectOneLineError(Run({"map", "scan.raw", "--load", "junk.map"}), 1,
                     "kvrscan map: junk.map: not a map file: no \"#KVRMAPF\" at offset 26", "");
  ExpectOneLineError(Run({"map", "scan.raw", "--load", "absent.map"}), 1, "kvrscan map: absent.map: no such file", "");
  ExpectOneLineError(Run({"map", "scan.raw", "-o", "a.map", "--load", "scan.map"}), 2,
                     "kvrscan map: -o and --load exclude each other", "");
  ExpectOneLineError(Run({"map", "scan.raw", "-o", "no/such/dir/a.map"}), 1,
                     "kvrscan map: no/such/dir/a.map: cannot create (No such file or directory)", "");
  // Without a single valid return the library cannot size the histogram.
  FifoBlockBuilder empty;
  empty.shot(ShotWord({0, 0, 0, 100})).shot(ShotWord({0, 0, 0, 100, 0, 2}));
  WriteFile(path("empty.raw"), FifoFile({empty.build()}, 0, BuildScanFile(RoomHeader())));
  ExpectOneLineError(Run({"map", "empty.raw"}), 1,
                     "kvrscan map: empty.raw: the library could not build the scan file map; the library's log has "
                     "details: ",
                     "KVR_Decode.log");
}

TEST_F(KvrscanTest, LineListsTheLibrarysShotsOfOneLine) {
  WriteLinesScan(path("scan.raw"));
  const Json line = RunJson({"line", "scan.raw", "1"});
  EXPECT_EQ(line.at("line").get<std::int64_t>(), 1);
  EXPECT_EQ(line.at("shotIndexInBlock").get<std::int64_t>(), 5);
  EXPECT_EQ(line.at("shotCount").get<std::int64_t>(), 3);
  ASSERT_EQ(line.at("num_shots").get<std::int64_t>(), 4);  // its three and the first of line 2
  const Json& shots = line.at("shots");
  EXPECT_FALSE(shots[2].at("first_of_next_line").get<bool>());
  EXPECT_TRUE(shots[3].at("first_of_next_line").get<bool>());
  // Shot 5 of the block: 5 periods of 250 ticks after the block's stamp.
  EXPECT_EQ(shots[0].at("timeInCounts").get<std::int64_t>(), 1025001250);
  EXPECT_NEAR(shots[0].at("time").get<double>(), 20.500025, 1e-9);
  EXPECT_NEAR(shots[0].at("pan").get<double>(), 20 * 0.0005625 * 0.017453292519943295, 1e-15);
  EXPECT_NEAR(shots[0].at("scan").get<double>(), (1200 * 0.00034332275390625 - 45.0) * 0.017453292519943295, 1e-15);
  EXPECT_NEAR(shots[0].at("returns").at(0).at("range").get<double>(), 1.951202893137634, 1e-12);
  EXPECT_EQ(shots[0].at("returns").at(0).at("intensity").get<std::int64_t>(), 300);

  const ToolRun run = Run({"line", "scan.raw", "1"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find("(first shot of the next line)"), std::string::npos) << run.out;
  ExpectOneLineError(Run({"line", "scan.raw", "3"}), 1,
                     "kvrscan line: scan.raw: has no line 3: its map holds 3 lines (0 to 2)", "");
  ExpectOneLineError(Run({"line", "scan.raw", "x"}), 2, "kvrscan line: N takes a whole number, not 'x'", "");
}

// Pulses at 1e9 and 1.05e9 ticks named 14:30:07 and 14:30:08 on a Tuesday: the
// block stamped 1.025e9 ticks lies at 225007.5 s of the week.
void WriteTicks(const std::filesystem::path& path) {
  TickFileBuilder ticks;
  ticks.everySecond(1000000000, Utc(2020, 1, 28, 14, 30, 7), 2, [](UtcTime t) { return ZdaSentence(t); });
  ticks.writeTo(path);
}

TEST_F(KvrscanTest, LineTimesOfWeekFromATickFile) {
  WriteLinesScan(path("scan.raw"));
  WriteTicks(path("Serial.dat"));
  const Json line = RunJson({"line", "scan.raw", "0", "--ticks", "Serial.dat"});
  EXPECT_TRUE(line.at("time_is_time_of_week").get<bool>());
  EXPECT_NEAR(line.at("shots").at(0).at("time").get<double>(), 225007.5 + 2 * 5e-6, 1e-9);
}

struct PlyFile {
  std::size_t vertices = 0;
  std::string header;
  std::vector<std::uint8_t> body;
};

PlyFile ReadPly(const std::filesystem::path& path) {
  const std::vector<std::uint8_t> bytes = ReadFileBytes(path);
  const std::string text(bytes.begin(), bytes.end());
  PlyFile ply;
  const std::size_t end = text.find("end_header\n") + 11;
  ply.header = text.substr(0, end);
  const std::size_t count = ply.header.find("element vertex ") + 15;
  ply.vertices = std::stoul(ply.header.substr(count));
  ply.body.assign(bytes.begin() + static_cast<std::ptrdiff_t>(end), bytes.end());
  return ply;
}

template <typename T>
T At(const PlyFile& ply, std::size_t vertex, std::size_t offset) {
  T value;
  std::memcpy(&value, ply.body.data() + vertex * 31 + offset, sizeof value);
  return value;
}

TEST_F(KvrscanTest, ExportWritesEveryReturnAsAPlyVertex) {
  WriteLinesScan(path("scan.raw"));
  WriteTicks(path("Serial.dat"));
  const Json summary = RunJson({"export", "scan.raw", "-o", "points.ply", "--ticks", "Serial.dat"});
  EXPECT_EQ(summary.at("num_points").get<std::int64_t>(), 10);
  EXPECT_EQ(summary.at("range_offset").get<double>(), 0.5);
  const PlyFile ply = ReadPly(path("points.ply"));
  ASSERT_EQ(ply.vertices, 10u);
  ASSERT_EQ(ply.body.size(), 10u * 31);
  EXPECT_NE(ply.header.find("format binary_little_endian 1.0\n"), std::string::npos);
  EXPECT_NE(ply.header.find("comment axes: scanner frame, metres: x = r cos(scan) cos(pan), y = r cos(scan) "
                            "sin(pan), z = r sin(scan)\n"),
            std::string::npos);
  // Vertex 5: pan 20 counts, scan count 1200 (-44.588 degrees), r 2.4512 m, line 1.
  const double pan = 20 * 0.0005625 * 0.017453292519943295;
  const double scan = (1200 * 0.00034332275390625 - 45.0) * 0.017453292519943295;
  EXPECT_NEAR(At<float>(ply, 5, 0), kR * std::cos(scan) * std::cos(pan), 1e-6);
  EXPECT_NEAR(At<float>(ply, 5, 4), kR * std::cos(scan) * std::sin(pan), 1e-6);
  EXPECT_NEAR(At<float>(ply, 5, 8), kR * std::sin(scan), 1e-6);
  EXPECT_EQ(At<std::uint16_t>(ply, 5, 12), 300);
  EXPECT_EQ(At<std::uint8_t>(ply, 5, 14), 1);
  EXPECT_EQ(At<std::uint8_t>(ply, 5, 15), 1);
  const std::int32_t lines[] = {-1, -1, 0, 0, 0, 1, 1, 1, 2, 2};
  for (std::size_t v = 0; v < 10; ++v) EXPECT_EQ(At<std::int32_t>(ply, v, 16), lines[v]) << v;
  EXPECT_NEAR(At<double>(ply, 5, 20), 225007.5 + 5 * 5e-6, 1e-9);
  // Grey: a brighter return never gets a darker colour.
  for (std::size_t v = 1; v < 10; ++v) EXPECT_GE(At<std::uint8_t>(ply, v, 28), At<std::uint8_t>(ply, v - 1, 28)) << v;
  EXPECT_EQ(At<std::uint8_t>(ply, 9, 28), At<std::uint8_t>(ply, 9, 30));
}

TEST_F(KvrscanTest, ExportCsvAndFromASavedMap) {
  WriteLinesScan(path("scan.raw"));
  ASSERT_EQ(Run({"map", "scan.raw", "-o", "scan.map"}).status, 0);
  const ToolRun run = Run({"export", "scan.raw", "-o", "points.csv", "--map", "scan.map", "--palette", "viridis"});
  EXPECT_EQ(run.status, 0) << run.err;
  const std::string csv = ReadFileText(path("points.csv"));
  EXPECT_NE(csv.find("\nx,y,z,intensity,return_number,number_of_returns,line,time,red,green,blue\n"),
            std::string::npos);
  EXPECT_EQ(std::count(csv.begin(), csv.end(), '\n'), 6 + 1 + 10);  // comments, column names, points
  EXPECT_NE(csv.find(",300,1,1,1,20.500025,"), std::string::npos) << csv;
}

TEST_F(KvrscanTest, ExportKeepsTheReadableBlocksOfADamagedScan) {
  WriteLinesScan(path("scan.raw"), 2);
  const ToolRun run = Run({"export", "scan.raw", "-o", "points.ply"});
  ExpectOneLineError(run, 1, "kvrscan export: scan.raw: 1 block with a bad signature skipped (first: block 1)",
                     "KVR_Decode.log");
  EXPECT_EQ(ReadPly(path("points.ply")).vertices, 10u);
}

// Workers decode runs of blocks on streams of their own and write them in file
// order: the file, the summary and the damage report do not depend on their number.
TEST_F(KvrscanTest, ExportIsTheSameOnAnyNumberOfThreads) {
  SyntheticScan synthetic(7, 200, 4);
  std::vector<std::vector<std::uint8_t>> blocks;
  for (int b = 0; b < 13; ++b) {
    FifoBlockBuilder block = synthetic.NextBlock();
    if (b == 5 || b == 9) block.signature(0x55555555);
    blocks.push_back(block.build());
  }
  WriteFile(path("scan.raw"), FifoFile(blocks, 1000, BuildScanFile(RoomHeader())));
  WriteTicks(path("Serial.dat"));
  std::vector<std::uint8_t> reference;
  std::string referenceSummary;
  for (const std::string threads : {"1", "2", "3", "8"}) {
    const ToolRun run = Run({"export", "scan.raw", "-o", "p.ply", "--ticks", "Serial.dat", "--threads", threads});
    ExpectOneLineError(run, 1,
                       "kvrscan export: scan.raw: 2 blocks with a bad signature skipped (first: block 5); the file "
                       "ends inside block 13 (1000 of 65536 bytes; ignored)",
                       "");
    const std::vector<std::uint8_t> ply = ReadFileBytes(path("p.ply"));
    const std::string summary = run.out.substr(0, run.out.rfind(','));  // without the seconds
    if (threads == "1") {
      reference = ply, referenceSummary = summary;
      EXPECT_GT(ReadPly(path("p.ply")).vertices, 80000u);
      continue;
    }
    EXPECT_TRUE(ply == reference) << threads << " threads";
    EXPECT_EQ(summary, referenceSummary) << threads << " threads";
  }
  // A write that fails on a worker stops the export with the file's error.
  if (std::filesystem::exists("/dev/full")) {
    for (const std::string threads : {"1", "2"}) {
      std::filesystem::create_symlink("/dev/full", path("full.ply"));
      ExpectOneLineError(Run({"export", "scan.raw", "-o", "full.ply", "--threads", threads}), 1,
                         "kvrscan export: full.ply: write failed (No space left on device)", "");
      // What was there before stays: the link, not a partial file.
      EXPECT_TRUE(std::filesystem::is_symlink(path("full.ply")));
      std::filesystem::remove(path("full.ply"));
    }
  }
}

TEST_F(KvrscanTest, ExportLasWithColoursAndChosenReturns) {
  WriteLinesScan(path("scan.raw"));
  const Json summary = RunJson({"export", "scan.raw", "-o", "points.LAS", "--palette", "viridis", "--returns", "last"});
  EXPECT_EQ(summary.at("format").get<std::string>(), "las");
  EXPECT_EQ(summary.at("num_points").get<std::int64_t>(), 10);
  const std::vector<std::uint8_t> las = ReadFileBytes(path("points.LAS"));
  ASSERT_EQ(las.size(), 1581u + 10 * 68);
  EXPECT_EQ(las[104], 7);  // format 7: a palette was asked for
}

TEST_F(KvrscanTest, ExportsScansAndCameraImagesIntoOneE57FileThatInfoReadsBack) {
  WriteLinesScan(path("scan.raw"));
  // A netpbm image (2 x 1 grey), a JPEG frame header of 640 x 480, and a text.
  CameraFileBuilder camera({});
  camera.record({1, {}, ImageBytes("P5\n2 1\n255\nab")})
      .record({2, {}, {0xFF, 0xD8, 0xFF, 0xC0, 0x00, 0x0B, 0x08, 0x01, 0xE0, 0x02, 0x80, 0x01, 0x01, 0x11, 0x00}})
      .record({3, {}, ImageBytes("hello")});
  WriteFile(path("camera.dat"), camera.bytes());
  const ToolRun run = Run({"export", "scan.raw", "scan.raw", "-o", "set.e57", "--camera", "camera.dat", "--json"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.err.find("camera.dat: 1 records hold no JPEG, PNG or netpbm image; skipped\n"), std::string::npos);
  const Json summary = Json::parse(run.out);
  EXPECT_EQ(summary.at("format").get<std::string>(), "e57");
  EXPECT_EQ(summary.at("num_points").get<std::int64_t>(), 20);
  EXPECT_EQ(summary.at("num_scans").get<std::int64_t>(), 2);
  EXPECT_EQ(summary.at("num_images").get<std::int64_t>(), 2);
  const Json info = RunJson({"info", "set.e57"});
  ASSERT_EQ(info.at("scans").size(), 2u);
  for (const Json& scan : info.at("scans")) {
    EXPECT_EQ(scan.at("name").get<std::string>(), "scan.raw");
    EXPECT_EQ(scan.at("num_points").get<std::int64_t>(), 10);
    EXPECT_EQ(scan.at("line_groups").get<std::int64_t>(), 4);  // lines -1, 0, 1, 2
  }
  EXPECT_NE(info.at("scans")[0].at("guid"), info.at("scans")[1].at("guid"));
  const Json& images = info.at("images");
  ASSERT_EQ(images.size(), 2u);
  EXPECT_EQ(images[0].at("name").get<std::string>(), "image_0000");
  EXPECT_EQ(images[0].at("type").get<std::string>(), "png");
  EXPECT_EQ(images[0].at("width").get<std::int64_t>(), 2);
  EXPECT_EQ(images[0].at("height").get<std::int64_t>(), 1);
  EXPECT_EQ(images[1].at("type").get<std::string>(), "jpeg");
  EXPECT_EQ(images[1].at("width").get<std::int64_t>(), 640);
  EXPECT_EQ(images[1].at("height").get<std::int64_t>(), 480);
  EXPECT_EQ(images[1].at("scan"), info.at("scans")[0].at("guid"));
  // A changed byte fails its page's checksum.
  std::vector<std::uint8_t> bytes = ReadFileBytes(path("set.e57"));
  bytes[1500] ^= 1;
  WriteFile(path("set.e57"), bytes);
  ExpectOneLineError(Run({"info", "set.e57"}), 1, "kvrscan info: set.e57: the checksum of page 1 is wrong", "");
}

TEST_F(KvrscanTest, ExportFailures) {
  WriteLinesScan(path("scan.raw"));
  ExpectOneLineError(Run({"export", "scan.raw"}), 2,
                     "kvrscan export: missing -o OUT.ply, -o OUT.csv, -o OUT.las, -o OUT.laz or -o OUT.e57", "");
  ExpectOneLineError(Run({"export", "scan.raw", "-o", "points.xyz"}), 2,
                     "kvrscan export: the output must end in .ply, .csv, .las, .laz or .e57, not 'points.xyz'", "");
  ExpectOneLineError(Run({"export", "scan.raw", "scan.raw", "-o", "p.las"}), 2,
                     "kvrscan export: several scans go only into one E57 file (-o OUT.e57)", "");
  ExpectOneLineError(Run({"export", "scan.raw", "-o", "p.ply", "--camera", "c.dat"}), 2,
                     "kvrscan export: --camera images go only into an E57 file (-o OUT.e57)", "");
  ExpectOneLineError(Run({"export", "scan.raw", "-o", "no/dir/p.e57"}), 1,
                     "kvrscan export: no/dir/p.e57: cannot create (No such file or directory)", "");
  ExpectOneLineError(Run({"export", "scan.raw", "-o", "p.e57", "--camera", "absent.dat"}), 1,
                     "kvrscan export: absent.dat: ", "");
  EXPECT_FALSE(std::filesystem::exists(path("p.e57")));
  ExpectOneLineError(Run({"export", "scan.raw", "-o", "p.las", "--returns", "middle"}), 2,
                     "kvrscan export: --returns takes all, first or last, not 'middle'", "");
  ExpectOneLineError(Run({"export", "scan.raw", "-o", "no/dir/p.las"}), 1,
                     "kvrscan export: no/dir/p.las: cannot create (No such file or directory)", "");
  EXPECT_FALSE(std::filesystem::exists(path("no")));
  ExpectOneLineError(Run({"export", "scan.raw", "-o", "p.ply", "--palette", "jet"}), 2,
                     "kvrscan export: no palette named 'jet' (grey, viridis)", "");
  ExpectOneLineError(Run({"export", "scan.raw", "-o", "no/dir/p.ply"}), 1,
                     "kvrscan export: no/dir/p.ply: cannot create (No such file or directory)", "");
  ExpectOneLineError(Run({"export", "scan.raw", "-o", "p.ply", "--ticks", "absent.dat"}), 1,
                     "kvrscan export: absent.dat: no such file", "");
}

TEST_F(KvrscanTest, RenderDrawsOneColumnPerLineAndOneRowPerScanStep) {
  WriteLinesScan(path("scan.raw"));
  const Json summary = RunJson({"render", "scan.raw", "-o", "pano.png"});
  // Scan counts 1000 .. 1200 in steps of 100 (coarser than the lines' pan step of
  // 10 counts): three rows, 1200 on top.
  EXPECT_EQ(summary.at("width").get<std::int64_t>(), 3);
  EXPECT_EQ(summary.at("height").get<std::int64_t>(), 3);
  EXPECT_EQ(summary.at("shots_drawn").get<std::int64_t>(), 8);
  EXPECT_EQ(summary.at("pixels_filled").get<std::int64_t>(), 8);

  png_image image;
  std::memset(&image, 0, sizeof image);
  image.version = PNG_IMAGE_VERSION;
  ASSERT_NE(png_image_begin_read_from_file(&image, path("pano.png").c_str()), 0);
  image.format = PNG_FORMAT_GRAY;
  std::vector<std::uint8_t> grey(PNG_IMAGE_SIZE(image));
  ASSERT_NE(png_image_finish_read(&image, nullptr, grey.data(), 0, nullptr), 0);
  ASSERT_EQ(grey.size(), 9u);
  // Row 0 is scan count 1200: line 0's third shot (intensity 250), line 1's first
  // (300), none of line 2. Within a column the higher intensities lie where the
  // shots came later on the way up (line 0) and earlier on the way down (line 1).
  EXPECT_EQ(grey[2], 0);  // line 2 never reached 1200
  EXPECT_GT(grey[0], grey[3]);
  EXPECT_GT(grey[3], grey[6]);
  EXPECT_LT(grey[1], grey[4]);
  EXPECT_LT(grey[4], grey[7]);
  EXPECT_GE(grey[5], grey[8]);  // both at or above intensityAt95: white
}

TEST_F(KvrscanTest, RenderFailures) {
  WriteLinesScan(path("scan.raw"));
  ExpectOneLineError(Run({"render", "scan.raw"}), 2, "kvrscan render: missing -o OUT.png", "");
  ExpectOneLineError(Run({"render", "scan.raw", "-o", "no/dir/p.png"}), 1,
                     "kvrscan render: no/dir/p.png: cannot write the image", "");
  FifoBlockBuilder oneWay;
  oneWay.shot(ShotWord({0, 0, 1, 100}), {ReturnWord(1100, 10)});
  WriteFile(path("flat.raw"), FifoFile({oneWay.build()}, 0, BuildScanFile(RoomHeader())));
  ExpectOneLineError(Run({"render", "flat.raw", "-o", "p.png"}), 1,
                     "kvrscan render: flat.raw: has no scan lines: nothing to draw", "");
}

}  // namespace
}  // namespace kvr::test
