#include "diag/error_manager.h"

#include <gtest/gtest.h>

#include <regex>

#include "support/temp_dir.h"
#include "support/temp_dir_test_base.h"

namespace kvr {
namespace {

using test::InTempDir;

class ErrorManagerLog : public InTempDir {};

const std::regex kTimeStamp(R"(\d\d:\d\d:\d\d\.\d\d\d   \d{4}-\d\d-\d\d )");
const std::string kIndent(30, ' ');

TEST_F(ErrorManagerLog, EntryWithoutDetailsIsContextMessageAndEmptyLine) {
  ErrorManager manager("entry.log");
  const std::string startMarker = test::ReadTextModeFile(path("entry.log"));
  LogEntry entry{"buffer signature is wrong ", "int F(int x)", {}};
  EXPECT_EQ(manager.Log(entry), 0);
  const std::string text = test::ReadTextModeFile(path("entry.log")).substr(startMarker.size());
  ASSERT_EQ(text.size(), 26 + 4 + 12 + 1 + 30 + 26 + 1 + 1);
  EXPECT_TRUE(std::regex_match(text.substr(0, 26), kTimeStamp)) << text;
  EXPECT_EQ(text.substr(26), "  : int F(int x)\n" + kIndent + "buffer signature is wrong \n\n");
}

TEST_F(ErrorManagerLog, DetailsFollowTheMessageInOrderUnderTheContext) {
  ErrorManager manager("entry.log");
  const std::size_t before = test::ReadTextModeFile(path("entry.log")).size();
  LogEntry entry{"m", "ctx", {"a = 1", "", "b = -2"}};
  manager.Log(entry);
  const std::string text = test::ReadTextModeFile(path("entry.log")).substr(before + 26);
  EXPECT_EQ(text, "  : ctx\n" + kIndent + "m\n" + kIndent + "a = 1\n" + kIndent + "\n" + kIndent + "b = -2\n\n");
}

TEST_F(ErrorManagerLog, StartMarkerIsTwoEmptyLinesStampedLineAndEmptyLine) {
  ErrorManager first("marker.log");
  ErrorManager second("marker.log");
  const std::string text = test::ReadTextModeFile(path("marker.log"));
  const std::regex marker(R"(\n\n\d\d:\d\d:\d\d\.\d\d\d   \d{4}-\d\d-\d\d   : API started\n\n)");
  ASSERT_EQ(text.size(), 2 * (2 + 26 + 4 + 11 + 1 + 1));
  EXPECT_TRUE(std::regex_match(text.substr(0, text.size() / 2), marker)) << text;
  EXPECT_TRUE(std::regex_match(text.substr(text.size() / 2), marker)) << text;
}

TEST_F(ErrorManagerLog, EntriesFollowTheCurrentDirectory) {
  test::TempDir other;
  Log("ctx", "first");
  {
    test::ScopedCurrentDir moved(other.path());
    Log("ctx", "second", {Detail("n = ", -5)});
  }
  const auto here = test::ReadLogEntries(dir());
  const auto there = test::ReadLogEntries(other.path());
  ASSERT_EQ(here.size(), 1u);
  EXPECT_EQ(here[0].message, "first");
  ASSERT_EQ(there.size(), 1u);
  EXPECT_EQ(there[0].message, "second");
  EXPECT_EQ(there[0].details, std::vector<std::string>{"n = -5"});
}

TEST_F(ErrorManagerLog, UnwritableDirectoryLosesTheEntrySilently) {
  ErrorManager manager("missing_dir/sub/entry.log");
  LogEntry entry{"m", "c", {}};
  EXPECT_EQ(manager.Log(entry), 1);
  EXPECT_FALSE(std::filesystem::exists(path("missing_dir")));
}

TEST(LogTimeStamp, HasTheTwentySixCharacterLayout) {
  const std::string stamp = LogTimeStamp();
  EXPECT_EQ(stamp.size(), 26u);
  EXPECT_TRUE(std::regex_match(stamp, kTimeStamp)) << stamp;
}

}  // namespace
}  // namespace kvr
