// The tool's parts that carry its rules: JSON, point geometry and option parsing.

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>


#include "errors.h"
#include "json_writer.h"
#include "kvr_decode/conversions.h"
#include "kvr_decode/optical_model.h"
#include "options.h"
#include "point_model.h"
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


constexpr OptionSpec kOptions[] = {{"output", 'o', "FILE", ""}, {"json", 0, "", ""}, {"lines", 0, "N", ""}};
constexpr std::string_view kNames[] = {"SCAN", "N"};

TEST(KvrscanOptions, ParsesLongShortInlineAndPositional) {
  const std::vector<std::string> words = {"scan.raw", "-o", "out.ply", "--lines=7", "--json", "--", "-3"};
  const ParsedArgs args = ParseArgs(words, kOptions, kNames, 1);
  EXPECT_EQ(args.positional(), (std::vector<std::string>{"scan.raw", "-3"}));
  EXPECT_EQ(args.value("output"), "out.ply");
  EXPECT_EQ(args.integer("lines", 1, 10), 7);
  EXPECT_TRUE(args.has("json"));
  EXPECT_FALSE(args.has("map"));
}

TEST(KvrscanOptions, MalformedCommandLinesNameTheFault) {
  const struct {
    std::vector<std::string> words;
    const char* message;
  } cases[] = {
      {{"a", "--map", "m"}, "unknown option --map"},
      {{"a", "-x"}, "unknown option -x"},
      {{"a", "-o"}, "-o needs a value (FILE)"},
      {{"a", "--json=1"}, "--json takes no value"},
      {{}, "missing SCAN"},
      {{"a", "b", "c"}, "unexpected argument 'c'"},
  };
  for (const auto& c : cases) {
    try {
      ParseArgs(c.words, kOptions, kNames, 1);
      ADD_FAILURE() << c.message;
    } catch (const UsageError& error) {
      EXPECT_STREQ(error.what(), c.message);
    }
  }
  const ParsedArgs args = ParseArgs(std::vector<std::string>{"a", "--lines", "x7"}, kOptions, kNames, 1);
  EXPECT_THROW(args.integer("lines", 1, 10), UsageError);
  EXPECT_THROW(ParseInteger("11", "N", 0, 10), UsageError);
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
