// The tool's parts that carry its rules: JSON, point geometry and command-line parsing.

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <optional>

#include <nlohmann/json.hpp>

#include "errors.h"
#include "json_writer.h"
#include "kvr_decode/conversions.h"
#include "kvr_decode/optical_model.h"
#include "kvr_cli/arguments.h"
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
