// The tool's parts that carry its rules: output encodings, the intensity and
// display scales, point geometry, line numbering and command-line parsing.

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <optional>

#include <nlohmann/json.hpp>
#include <png.h>

#include "errors.h"
#include "json_writer.h"
#include "kvr_decode/conversions.h"
#include "kvr_decode/optical_model.h"
#include "kvr_cli/arguments.h"
#include "palette.h"
#include "png_image.h"
#include "point_model.h"
#include "point_writer.h"
#include "scan_source.h"
#include "support/temp_dir.h"
#include "tick_source.h"

namespace kvrscan {
namespace {

using kvr::test::ReadFileBytes;
using kvr::test::ReadFileText;
using kvr::test::TempDir;

TEST(KvrscanJson, LaysOutObjectsAndInlineArrays) {
  JsonWriter json;
  json.beginObject().field("name", "scan").numbers("words", std::vector<int>{1, -2});
  json.key("empty").beginArray().endArray();
  json.key("rows").beginArray().beginArray(true).value(0.5).value(nullptr).endArray().endArray();
  json.endObject();
  EXPECT_EQ(json.text(),
            "{\n  \"name\": \"scan\",\n  \"words\": [1, -2],\n  \"empty\": [],\n  \"rows\": [\n    [0.5, null]\n  ]\n}\n");
}

TEST(KvrscanJson, NumbersReadBackExactly) {
  const struct {
    double value;
    const char* text;
  } cases[] = {
      {0.1, "0.1"},
      {static_cast<double>(0.1f), "0.10000000149011612"},  // a float field: its exact value
      {-5e-06, "-5e-06"},
      {1.7976931348623157e308, "1.7976931348623157e+308"},
      {std::numeric_limits<double>::quiet_NaN(), "null"},
      {-std::numeric_limits<double>::infinity(), "null"},
  };
  for (const auto& c : cases) {
    JsonWriter json;
    json.value(c.value);
    EXPECT_EQ(json.text(), c.text);
  }
  JsonWriter integers;
  integers.beginArray(true).value(std::numeric_limits<std::int64_t>::min()).value(~std::uint64_t{0}).endArray();
  EXPECT_EQ(integers.text(), "[-9223372036854775808, 18446744073709551615]\n");
}

TEST(KvrscanJson, AnyByteStringBecomesValidJson) {
  std::string out;
  AppendJsonString(out, std::string("q\"b\\s\n\x01\t", 8) + "\xC3\xA9" + "\xFF" + "\xC3");
  EXPECT_EQ(out, "\"q\\\"b\\\\s\\n\\u0001\\t\xC3\xA9\\u00ff\\u00c3\"");
  // A strict parser takes it, and reads the stray bytes back as the code points they were escaped as.
  EXPECT_EQ(nlohmann::json::parse(out).get<std::string>(), "q\"b\\s\n\x01\t\xC3\xA9\xC3\xBF\xC3\x83");
}

TEST(KvrscanDisplayScale, LevelIsRoundedPowerOfTheClampedRatio) {
  // intensityAt95 4, gamma 0.5: level = round(254 sqrt(v / 4)).
  const DisplayScale scale(4.0, 0.5);
  const struct {
    double v;
    int level;
  } cases[] = {
      {0.0, 0},    {-1.0, 0},  {std::numeric_limits<double>::quiet_NaN(), 0},
      {1.0, 127},  {4.0, 254}, {9.0, 254},
      {0.0001, 1},  // 254 x 0.005 = 1.27
      {0.0000154, 0},  {0.0000156, 1},  // level 1 from v = 4 (0.5 / 254)^2 = 0.0000155
      {2.25, 191},  // 254 x 0.75 = 190.5: rounds up
  };
  for (const auto& c : cases) EXPECT_EQ(scale.level(c.v), c.level) << c.v;
  const DisplayScale linear(1.0, 1.0);
  EXPECT_EQ(linear.level(0.5), 127);
  EXPECT_EQ(linear.level(0.499), 127);
  EXPECT_EQ(linear.level(0.4979), 126);
}

TEST(KvrscanDisplayScale, DamagedMapValuesFallBackToOne) {
  const DisplayScale scale(0.0, std::numeric_limits<double>::quiet_NaN());
  EXPECT_EQ(scale.intensityAt95(), 1.0);
  EXPECT_EQ(scale.gamma(), 1.0);
  EXPECT_EQ(scale.level(0.5), 127);
}

TEST(KvrscanIntensity, NormalizerIsTheLibrarysDistanceTermToTheBit) {
  IntensityModel model;
  const IntensityNormalizer normalize(model);
  for (double range : {0.5, 6.1, 37.25, 1999.0}) {
    for (std::uint32_t intensity = 0; intensity < 4096; ++intensity) {
      double a1 = model.a1, a2 = model.a2, a3 = model.a3, a4 = model.a4, a5 = model.a5, r = range;
      const double expected = CalculateIdist(a1, a2, a3, a4, a5, r, static_cast<unsigned short>(intensity));
      ASSERT_EQ(normalize(range, intensity), expected) << range << " " << intensity;
    }
  }
  // With the defaults, intensity 1000 at the reference range 6.1 m: 0.43 x 2.3 x (1000 / 200)^4.
  EXPECT_DOUBLE_EQ(normalize(6.1, 1000), 0.43 * 2.3 * 625.0);
  EXPECT_DOUBLE_EQ(normalize(6.1, 999), 0.43 * 2.3 * 999.0);
}

TEST(KvrscanIntensity, InlinedRangeIsTheLibrarysToTheBit) {
  const std::pair<std::uint32_t, std::uint32_t> counts[] = {
      {100, 100}, {99, 100}, {1, 0}, {1100, 100}, {0xFFFFF, 0}, {0xFFFFF, 0xFFFF}, {0, 0xFFFF}, {123457, 4321}};
  for (const auto& [stop, start] : counts) EXPECT_EQ(RangeOf(stop, start), CalculateRange(stop, start)) << stop;
  for (std::uint32_t stop = 0; stop < (1u << 20); stop += 997) ASSERT_EQ(RangeOf(stop, 777), CalculateRange(stop, 777));
}

TEST(KvrscanIntensity, SampleRuleLimits) {
  const struct {
    std::uint32_t stop, t0;
    double range, r0;
    ReturnClass expected;
  } cases[] = {
      {100, 100, 0.0, 0.0, ReturnClass::kInvalid},      // stop at T0
      {99, 100, -1.0, 0.0, ReturnClass::kInvalid},      // stop before T0
      {200, 100, 0.6, -0.5, ReturnClass::kOutOfRange},  // 0.1 m with the offset: out
      {200, 100, 0.6, -0.4, ReturnClass::kInRange},
      {200, 100, 2039.5, 0.5, ReturnClass::kInRange},  // 2040 m: in
      {200, 100, 2039.5, 0.6, ReturnClass::kOutOfRange},
  };
  for (const auto& c : cases) EXPECT_EQ(ClassifyReturn(c.stop, c.t0, c.range, c.r0), c.expected) << c.range;
}

TEST(KvrscanPalette, LevelsSpreadOverTheRamp) {
  const Palette* grey = FindPalette("gray");
  ASSERT_NE(grey, nullptr);
  EXPECT_EQ(grey->name(), "grey");
  EXPECT_EQ(grey->colourOfLevel(0), (Rgb{0, 0, 0}));
  EXPECT_EQ(grey->colourOfLevel(127), (Rgb{128, 128, 128}));
  EXPECT_EQ(grey->colourOfLevel(kTopLevel), (Rgb{255, 255, 255}));
  const Palette* viridis = FindPalette("viridis");
  ASSERT_NE(viridis, nullptr);
  EXPECT_EQ(viridis->colourOfLevel(0), (Rgb{68, 1, 84}));
  EXPECT_EQ(viridis->colourOfLevel(kTopLevel), (Rgb{253, 231, 37}));
  EXPECT_EQ(FindPalette("jet"), nullptr);
}

TEST(KvrscanGeometry, PointsFollowTheAxisConvention) {
  // r = 1.5 + 0.5 = 2 m.
  const struct {
    const char* magic;
    std::uint32_t pan, scan;
    double x, y, z;
  } cases[] = {
      {"#KVRSCAN", 0, 131072, 2.0, 0.0, 0.0},                      // level, pan 0
      {"#KVRSCAN", 160000, 131072, 0.0, 2.0, 0.0},                 // pan 90 degrees
      {"#KVRSCAN", 320000, 262143, -1.414218, 0.0, 1.414205},      // pan 180, scan 45 degrees less a count
      {"#MX70DAT", 0, 196608, 1.847759, 0.0, 0.765367},            // scan 22.5 degrees
      {"MX700DAT", 0, 65536, 0.0, 0.0, 2.0},                       // 360-degree scanner: 90 degrees up
      {"MX700DAT", 480000, 131072, 0.0, 2.0, 0.0},                 // pan 270, scan 180: -2 x -1
  };
  for (const auto& c : cases) {
    std::uint64_t signature = 0;
    for (int i = 7; i >= 0; --i) signature = signature << 8 | static_cast<unsigned char>(c.magic[i]);
    PointGeometry geometry(signature, 0.5);
    geometry.aim(c.pan, c.scan);
    double x = 0, y = 0, z = 0;
    geometry.place(1.5, x, y, z);
    EXPECT_NEAR(x, c.x, 1e-5) << c.magic << " " << c.pan << " " << c.scan;
    EXPECT_NEAR(y, c.y, 1e-5) << c.magic << " " << c.pan << " " << c.scan;
    EXPECT_NEAR(z, c.z, 1e-5) << c.magic << " " << c.pan << " " << c.scan;
  }
}

TEST(KvrscanLines, ShotsBelongToTheLineThatStartedLastBeforeThem) {
  LineIndexer lines({{0, 5}, {0, 9}, {2, 0}});
  const struct {
    std::uint32_t block, shot;
    std::int32_t line;
  } cases[] = {{0, 0, -1}, {0, 5, 0}, {0, 8, 0}, {0, 9, 1}, {1, 4000, 1}, {2, 0, 2}, {7, 3, 2}};
  for (const auto& c : cases) EXPECT_EQ(lines.lineOf(c.block, c.shot), c.line) << c.block << " " << c.shot;
  // Whole blocks at once: lines start inside block 0, none in block 1, one at the start of block 2.
  LineIndexer byBlock({{0, 5}, {0, 9}, {2, 0}});
  std::vector<std::int32_t> block(12);
  byBlock.linesOf(0, block);
  EXPECT_EQ(block, (std::vector<std::int32_t>{-1, -1, -1, -1, -1, 0, 0, 0, 0, 1, 1, 1}));
  byBlock.linesOf(1, block);
  EXPECT_EQ(block, std::vector<std::int32_t>(12, 1));
  byBlock.linesOf(2, std::span(block).first(3));
  EXPECT_EQ(std::vector<std::int32_t>(block.begin(), block.begin() + 3), std::vector<std::int32_t>(3, 2));
}

PointRecord Point(double x, std::uint16_t intensity, std::int32_t line) {
  PointRecord p;
  p.x = x;
  p.y = -1.5;
  p.z = 0.25;
  p.intensity = intensity;
  p.returnNumber = 1;
  p.numberOfReturns = 2;
  p.line = line;
  p.time = 225007.5;
  p.colour = {1, 2, 3};
  return p;
}

TEST(KvrscanPointWriter, PlyHeaderCountAndRecords) {
  const TempDir dir;
  const std::string file = (dir / "points.ply").string();
  auto writer = PointWriter::Open(file, PointFormat::kPly, {"hello"});
  const PointRecord points[] = {Point(1.0, 4095, -1), Point(2.5, 7, 3)};
  writer->write(points);
  writer->finish();
  const std::vector<std::uint8_t> bytes = ReadFileBytes(file);
  const std::string text(bytes.begin(), bytes.end());
  const std::string header =
      "ply\nformat binary_little_endian 1.0\ncomment hello\nelement vertex 2\ncomment" + std::string(23, ' ') +
      "\nproperty float x\nproperty float y\nproperty float z\nproperty ushort intensity\n"
      "property uchar return_number\nproperty uchar number_of_returns\nproperty int line\nproperty double time\n"
      "property uchar red\nproperty uchar green\nproperty uchar blue\nend_header\n";
  ASSERT_EQ(text.substr(0, header.size()), header);
  ASSERT_EQ(bytes.size(), header.size() + 2 * 31);
  const std::uint8_t* second = bytes.data() + header.size() + 31;
  float x = 0;
  std::memcpy(&x, second, 4);
  EXPECT_EQ(x, 2.5f);
  EXPECT_EQ(second[12] | second[13] << 8, 7);                      // intensity
  EXPECT_EQ(second[14], 1);                                        // return_number
  EXPECT_EQ(second[15], 2);                                        // number_of_returns
  EXPECT_EQ(second[16], 3);                                        // line, little-endian
  double time = 0;
  std::memcpy(&time, second + 20, 8);
  EXPECT_EQ(time, 225007.5);
  EXPECT_EQ(second[28], 1);
  EXPECT_EQ(second[30], 3);
}

TEST(KvrscanPointWriter, CsvRowsInShortestForm) {
  const TempDir dir;
  const std::string file = (dir / "points.csv").string();
  auto writer = PointWriter::Open(file, PointFormat::kCsv, {"axes"});
  const PointRecord points[] = {Point(0.1, 12, -1)};
  writer->write(points);
  writer->finish();
  EXPECT_EQ(ReadFileText(file),
            "# axes\nx,y,z,intensity,return_number,number_of_returns,line,time,red,green,blue\n"
            "0.1,-1.5,0.25,12,1,2,-1,225007.5,1,2,3\n");
}

TEST(KvrscanPointWriter, UnfinishedFileIsRemovedAndFormatsFollowTheExtension) {
  const TempDir dir;
  const std::string file = (dir / "points.ply").string();
  { auto writer = PointWriter::Open(file, PointFormat::kPly, {}); }
  EXPECT_FALSE(std::filesystem::exists(file));
  EXPECT_EQ(PointFormatOf("a/b.PLY"), PointFormat::kPly);
  EXPECT_EQ(PointFormatOf("b.csv"), PointFormat::kCsv);
  EXPECT_EQ(PointFormatOf("b.las"), std::nullopt);
  EXPECT_THROW(PointWriter::Open((dir / "missing" / "p.ply").string(), PointFormat::kPly, {}), ToolError);
}

TEST(KvrscanPng, IndexedImageReadsBackAsItsColours) {
  const TempDir dir;
  const std::string file = (dir / "image.png").string();
  const std::uint8_t pixels[] = {0, 1, 2, 2, 1, 0};  // 3 x 2
  const Rgb colours[] = {{0, 0, 0}, {255, 0, 0}, {10, 20, 30}};
  WriteIndexedPng(file, 3, 2, pixels, colours);
  png_image image;
  std::memset(&image, 0, sizeof image);
  image.version = PNG_IMAGE_VERSION;
  ASSERT_NE(png_image_begin_read_from_file(&image, file.c_str()), 0);
  EXPECT_EQ(image.width, 3u);
  EXPECT_EQ(image.height, 2u);
  image.format = PNG_FORMAT_RGB;
  std::vector<std::uint8_t> rgb(PNG_IMAGE_SIZE(image));
  ASSERT_NE(png_image_finish_read(&image, nullptr, rgb.data(), 0, nullptr), 0);
  EXPECT_EQ(std::vector<std::uint8_t>(rgb.begin(), rgb.begin() + 9),
            (std::vector<std::uint8_t>{0, 0, 0, 255, 0, 0, 10, 20, 30}));
  EXPECT_EQ(std::vector<std::uint8_t>(rgb.begin() + 9, rgb.end()),
            (std::vector<std::uint8_t>{10, 20, 30, 255, 0, 0, 0, 0, 0}));
  EXPECT_THROW(WriteIndexedPng((dir / "none" / "x.png").string(), 3, 2, pixels, colours), ToolError);
}

// A command like the tool's: SCAN and N, -o FILE, --json, --lines N in 1..10.
struct ParsedWords {
  std::string scan, n;
  std::optional<std::string> output;
  std::optional<std::int64_t> lines;
  bool json = false;
};

ParsedWords ParseWords(const std::vector<std::string>& words) {
  ParsedWords parsed;
  CLI::App app("test");
  kvr::cli::Configure(app);
  app.add_option("SCAN", parsed.scan)->required();
  app.add_option("N", parsed.n);
  kvr::cli::AddOptional(app, "-o,--output", parsed.output, "")->type_name("FILE");
  app.add_flag("--json", parsed.json);
  kvr::cli::AddOptional(app, "--lines", parsed.lines, "")->type_name("N")->check(kvr::cli::WholeNumber("--lines", 1, 10));
  kvr::cli::Parse(app, words);
  return parsed;
}

TEST(KvrscanOptions, ParsesLongShortInlineAndPositional) {
  const ParsedWords a = ParseWords({"scan.raw", "-o", "out.ply", "--lines=10", "--json", "--", "-3"});
  EXPECT_EQ(a.scan, "scan.raw");
  EXPECT_EQ(a.n, "-3");
  EXPECT_EQ(a.output, "out.ply");
  EXPECT_EQ(a.lines, 10);
  EXPECT_TRUE(a.json);
  const ParsedWords b = ParseWords({"--lines", "1", "--output=x", "scan.raw", "--lines", "2"});
  EXPECT_EQ(b.lines, 2);  // the last one counts
  EXPECT_EQ(b.output, "x");
  EXPECT_FALSE(b.json);
  EXPECT_FALSE(ParseWords({"s"}).lines);
}

TEST(KvrscanOptions, MalformedCommandLinesNameTheFault) {
  const struct {
    std::vector<std::string> words;
    const char* message;
  } cases[] = {
      {{"a", "--map", "m"}, "unknown option --map"},
      {{"a", "--map=m"}, "unknown option --map"},
      {{"a", "-x"}, "unknown option -x"},
      {{"a", "-o"}, "--output needs a value (FILE)"},
      {{"a", "--json=1"}, "--json takes no value"},
      {{}, "missing SCAN"},
      {{"a", "b", "c"}, "unexpected argument 'c'"},
      {{"a", "--lines", "x7"}, "--lines takes a whole number, not 'x7'"},
      {{"a", "--lines", "7x"}, "--lines takes a whole number, not '7x'"},
      {{"a", "--lines", "0"}, "--lines must lie between 1 and 10, not 0"},
      {{"a", "--lines", "11"}, "--lines must lie between 1 and 10, not 11"},
  };
  for (const auto& c : cases) {
    try {
      ParseWords(c.words);
      ADD_FAILURE() << c.message;
    } catch (const UsageError& error) {
      EXPECT_STREQ(error.what(), c.message);
    }
  }
}

TEST(KvrscanOptions, HelpIsAskedBeforeAnyDoubleDash) {
  EXPECT_TRUE(kvr::cli::AsksForHelp({"scan.raw", "--bogus", "-h"}));
  EXPECT_TRUE(kvr::cli::AsksForHelp({"--help", "--"}));
  EXPECT_FALSE(kvr::cli::AsksForHelp({"scan.raw", "--", "--help"}));
  EXPECT_FALSE(kvr::cli::AsksForHelp({"-help", "--helps"}));
}

TEST(KvrscanNames, WidePathDecodesUtf8AndRefusesTheRest) {
  EXPECT_EQ(WidePath("sc\xC3\xA9.raw"), L"sc\u00e9.raw");
  EXPECT_EQ(WidePath("\xF0\x9F\x93\xB7"), L"\U0001F4F7");
  EXPECT_THROW(WidePath("bad\xFF.raw"), ToolError);
  EXPECT_THROW(WidePath("\xC0\xAF"), ToolError);  // overlong
}

TEST(KvrscanNames, TimeOfWeekReadsAsDayAndClock) {
  EXPECT_EQ(FormatTimeOfWeek(225007.25), "Tue 14:30:07.250");
  EXPECT_EQ(FormatTimeOfWeek(604810.0), "+1w Sun 00:00:10.000");
  EXPECT_EQ(FormatTimeOfWeek(-1.0), "unknown");
}

}  // namespace
}  // namespace kvrscan
