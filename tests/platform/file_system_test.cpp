#include "platform/file_system.h"

#include <gtest/gtest.h>

#include "kvr_writers/byte_writer.h"
#include "platform/little_endian.h"
#include "platform/stream_reader.h"
#include "support/temp_dir_test_base.h"

namespace kvr {
namespace {

class PlatformFiles : public test::InTempDir {};

TEST_F(PlatformFiles, OpensWideNamesAsUtf8) {
  test::WriteFile(path("sc\xC3\xA4n \xE2\x82\xAC.raw"), std::string_view("abc"));
  std::FILE* in = platform::OpenFile(L"sc\u00E4n \u20AC.raw", "rb");
  ASSERT_NE(in, nullptr);
  char buf[4] = {};
  EXPECT_EQ(std::fread(buf, 1, 3, in), 3u);
  EXPECT_STREQ(buf, "abc");
  std::fclose(in);
  EXPECT_EQ(platform::OpenFile(L"missing.raw", "rb"), nullptr);
  // Text mode is accepted on every system.
  std::FILE* text = platform::OpenFile(L"sc\u00E4n \u20AC.raw", "rt");
  ASSERT_NE(text, nullptr);
  std::fclose(text);
}

TEST_F(PlatformFiles, SeeksAndTellsBeyondFourGigabytesInSparseFiles) {
  std::FILE* out = platform::OpenFileNarrow("sparse.bin", "wb+");
  ASSERT_NE(out, nullptr);
  const std::uint64_t far = (std::uint64_t{1} << 32) + 12345;
  ASSERT_TRUE(platform::SeekAbsolute(out, far));
  EXPECT_EQ(platform::Tell(out), static_cast<std::int64_t>(far));
  std::fclose(out);
}

TEST(WideNameLogText, LowBytesAndStorageBytes) {
  EXPECT_EQ(platform::NarrowLowBytes(L"scan.raw"), "scan.raw");
  EXPECT_EQ(platform::NarrowLowBytes(L"\u0141x"), std::string("\x41x"));
  // With 4-byte wide characters, an ASCII name's storage reads as its first letter.
  EXPECT_EQ(platform::NarrowStorageBytes(L"scan.raw"), sizeof(wchar_t) == 1 ? "scan.raw" : "s");
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
