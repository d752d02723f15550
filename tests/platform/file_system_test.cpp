#include "platform/file_system.h"

#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>
#include <string>

#include "diag/error_manager.h"
#include "kvr_writers/byte_writer.h"
#include "platform/little_endian.h"
#include "platform/stream_reader.h"
#include "support/temp_dir_test_base.h"

namespace kvr {
namespace {

class PlatformFiles : public test::InTempDir {};

#if defined(_WIN32)
constexpr bool kWindows = true;
#else
constexpr bool kWindows = false;
#endif

// Outside ASCII, and (the last one) outside the Basic Multilingual Plane: a
// surrogate pair in a Windows name, one character on POSIX.
TEST_F(PlatformFiles, OpensWideNamesOutsideAsciiAndTheBasicPlane) {
  test::WriteFile(dir() / std::filesystem::path(u8"sc\u00E4n \u20AC \U0001F63A.raw"), std::string_view("abc"));
  std::FILE* in = platform::OpenFile(L"sc\u00E4n \u20AC \U0001F63A.raw", "rb");
  ASSERT_NE(in, nullptr);
  char buf[4] = {};
  EXPECT_EQ(std::fread(buf, 1, 3, in), 3u);
  EXPECT_STREQ(buf, "abc");
  std::fclose(in);
  EXPECT_EQ(platform::OpenFile(L"sc\u00E4n \u20AC \U0001F63B.raw", "rb"), nullptr);
  EXPECT_EQ(platform::OpenFile(L"missing.raw", "rb"), nullptr);
}

TEST_F(PlatformFiles, SeeksReadsAndTellsBeyondFourGigabytesInASparseFile) {
  const std::uint64_t far = (std::uint64_t{1} << 32) + 12345;
  std::FILE* out = platform::OpenFile(L"sparse.bin", "wb");
  ASSERT_NE(out, nullptr);
  ASSERT_TRUE(platform::SeekAbsolute(out, far));
  EXPECT_EQ(platform::Tell(out), 4294979641);
  EXPECT_EQ(std::fputc('x', out), 'x');
  EXPECT_EQ(platform::Tell(out), 4294979642);
  ASSERT_EQ(std::fclose(out), 0);
  EXPECT_EQ(std::filesystem::file_size(path("sparse.bin")), 4294979642u);

  std::FILE* in = platform::OpenFile(L"sparse.bin", "rb");
  ASSERT_NE(in, nullptr);
  ASSERT_TRUE(platform::SeekAbsolute(in, far - 1));
  EXPECT_EQ(std::fgetc(in), 0);
  EXPECT_EQ(std::fgetc(in), 'x');
  EXPECT_EQ(std::fgetc(in), EOF);
  EXPECT_EQ(platform::Tell(in), 4294979642);
  std::fclose(in);
}

// Text mode turns Windows line ends into "\n" (and stops at Ctrl-Z); binary mode
// reads every byte. POSIX has one mode.
TEST_F(PlatformFiles, TextModeTranslatesLineEndsOnWindowsOnly) {
  test::WriteFile(path("table.tbl"), std::string_view("row 1\r\n2 3\r\n\x1A" "4\n"));
  const auto readAll = [](const char* mode) {
    std::FILE* in = platform::OpenFile(L"table.tbl", mode);
    std::string text;
    for (int c; in != nullptr && (c = std::fgetc(in)) != EOF;) text.push_back(static_cast<char>(c));
    if (in != nullptr) std::fclose(in);
    return text;
  };
  EXPECT_EQ(readAll("rb"), "row 1\r\n2 3\r\n\x1A" "4\n");
  EXPECT_EQ(readAll("rt"), kWindows ? "row 1\n2 3\n" : "row 1\r\n2 3\r\n\x1A" "4\n");
  EXPECT_EQ(readAll("r"), kWindows ? "row 1\n2 3\n" : "row 1\r\n2 3\r\n\x1A" "4\n");
}

// The log is a text file: its lines end as the system's text files do.
TEST_F(PlatformFiles, LogLinesEndAsTheSystemsTextFiles) {
  Log("int F()", "m", {"d"});
  const std::string bytes = test::ReadFileText(path("KVR_Decode.log"));
  const std::string end = kWindows ? "\r\n" : "\n";
  const std::string entry = "  : int F()" + end + std::string(30, ' ') + "m" + end + std::string(30, ' ') + "d" + end + end;
  ASSERT_GE(bytes.size(), entry.size());
  EXPECT_EQ(bytes.substr(bytes.size() - entry.size()), entry);
}

// Compared with the C library's own local time of the same moment; a second
// that turns over between the two readings is read again.
TEST(PlatformClock, CurrentLocalTimeIsTheCLibrarysLocalTime) {
  for (int attempt = 0; attempt < 3; ++attempt) {
    const std::time_t before = std::time(nullptr);
    const platform::LocalTime now = platform::CurrentLocalTime();
    if (std::time(nullptr) != before) continue;
    const std::tm expected = *std::localtime(&before);
    EXPECT_EQ(now.year, expected.tm_year + 1900);
    EXPECT_EQ(now.month, expected.tm_mon + 1);
    EXPECT_EQ(now.day, expected.tm_mday);
    EXPECT_EQ(now.hour, expected.tm_hour);
    EXPECT_EQ(now.minute, expected.tm_min);
    EXPECT_EQ(now.second, expected.tm_sec);
    EXPECT_GE(now.millisecond, 0);
    EXPECT_LE(now.millisecond, 999);
    return;
  }
  FAIL() << "the clock's second turned over three times in a row";
}

TEST(WideNameLogText, LowBytesAndStorageBytes) {
  EXPECT_EQ(platform::NarrowLowBytes(L"scan.raw"), "scan.raw");
  // U+1F63A is the pair D83D DE3A in UTF-16, one character in UTF-32.
  EXPECT_EQ(platform::NarrowLowBytes(L"\u0141x\U0001F63A"), kWindows ? "\x41x\x3D\x3A" : "\x41x\x3A");
  // With 2- or 4-byte wide characters, an ASCII name's storage reads as its first letter.
  EXPECT_EQ(platform::NarrowStorageBytes(L"scan.raw"), "s");
  EXPECT_EQ(platform::NarrowStorageBytes(L""), "");
  EXPECT_EQ(platform::WideToUtf8(L"a\u00E9\U0001F600"), "a\xC3\xA9\xF0\x9F\x98\x80");
}

TEST(WideNameLogText, Utf8OfEachEncodingLengthAndOfInvalidCodePoints) {
  // Surrogates and values above U+10FFFF are not characters: each becomes U+FFFD.
  const struct {
    std::uint32_t codePoint;
    std::string utf8;
  } cases[] = {{0x7F, "\x7F"},          {0x80, "\xC2\x80"},         {0x7FF, "\xDF\xBF"},
               {0x800, "\xE0\xA0\x80"},   {0xD7FF, "\xED\x9F\xBF"},   {0xD800, "\xEF\xBF\xBD"},
               {0xDFFF, "\xEF\xBF\xBD"},  {0xE000, "\xEE\x80\x80"},   {0xFFFF, "\xEF\xBF\xBF"},
               {0x10000, "\xF0\x90\x80\x80"}, {0x10FFFF, "\xF4\x8F\xBF\xBF"}, {0x110000, "\xEF\xBF\xBD"},
               {0xFFFFFFFF, "\xEF\xBF\xBD"}};
  for (const auto& c : cases) {
    if (c.codePoint > 0xFFFF && sizeof(wchar_t) == 2) continue;  // not one wide character there
    const wchar_t name[] = {L'a', static_cast<wchar_t>(c.codePoint), L'b', 0};
    EXPECT_EQ(platform::WideToUtf8(name), "a" + c.utf8 + "b") << std::hex << c.codePoint;
  }
}

TEST(ByteCursor, ReadsLittleEndianAndZeroFillsPastTheEnd) {
  const auto bytes = writers::ByteWriter().u32(0x11223344).u8(0xAB).take();
  le::ByteCursor in(bytes);
  EXPECT_EQ(in.u32(), 0x11223344u);
  EXPECT_FALSE(in.overrun());
  EXPECT_EQ(in.u32(), 0xABu);
  EXPECT_TRUE(in.overrun());
  EXPECT_EQ(in.remaining(), 0u);
  EXPECT_EQ(in.u64(), 0u);
}

TEST_F(PlatformFiles, ShortFieldReadKeepsTheBytesThatDidNotArrive) {
  test::WriteFile(path("short.bin"), writers::ByteWriter().u8(0x01).u8(0x02).take());
  std::FILE* in = platform::OpenFileNarrow("short.bin", "rb");
  ASSERT_NE(in, nullptr);
  std::uint32_t field = 0xAABBCCDD;
  EXPECT_FALSE(stream::ReadLe(in, field));
  EXPECT_EQ(field, 0xAABB0201u);
  EXPECT_FALSE(stream::ReadLe(in, field));
  EXPECT_EQ(field, 0xAABB0201u);
  std::fclose(in);
  // The cursor over the same bytes leaves the same value.
  const std::uint8_t bytes[] = {0x01, 0x02};
  le::ByteCursor cursor(bytes);
  std::uint32_t same = 0xAABBCCDD;
  EXPECT_FALSE(cursor.field(same));
  EXPECT_EQ(same, 0xAABB0201u);
}

}  // namespace
}  // namespace kvr
