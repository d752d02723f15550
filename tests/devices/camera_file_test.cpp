#include "kvr_decode/camera_file.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <ostream>
#include <string>
#include <vector>

#include "platform/file_system.h"
#include "support/camera_file_builder.h"
#include "support/open_descriptors.h"
#include "support/temp_dir_test_base.h"

namespace kvr {
namespace {

using test::CameraFileBuilder;
using test::ImageBytes;
using namespace std::string_literals;

constexpr const char* kHeaderContext =
    "FILE *ReadCameraFileHeader(unsigned char *cameraFileName, CameraFileHeader &cameraFileHeader)";

std::string Text(const char* bytes, std::size_t n) { return std::string(bytes, n); }
std::string Image(const CameraFileRecord& r) {
  return std::string(reinterpret_cast<const char*>(r.imageData), r.imageSize);
}
std::vector<std::uint32_t> Values(const CameraFileRecord& r) {
  return {std::begin(r.recordValues), std::end(r.recordValues)};
}

long PagesOf(int field) {
  std::ifstream statm("/proc/self/statm");
  long value = 0;
  for (int i = 0; i <= field; ++i) statm >> value;
  return value;
}
long ResidentBytes() { return PagesOf(1) * sysconf(_SC_PAGESIZE); }
long VirtualBytes() { return PagesOf(0) * sysconf(_SC_PAGESIZE); }

class CameraFile : public test::InTempDir {
 protected:
  ~CameraFile() override {
    ReleaseCameraFileHeader(header_);
    for (CameraFileRecord& r : records_) ReleaseCameraFileRecord(r);
    if (stream_ != nullptr) std::fclose(stream_);
  }
  std::FILE* Open(const std::vector<std::uint8_t>& bytes) {
    test::WriteFile(path("camera.dat"), bytes);
    stream_ = ReadCameraFileHeader(L"camera.dat", header_);
    return stream_;
  }
  // Each read into a copy of the previous record, as a caller reusing one record sees it.
  const CameraFileRecord& Next(int expectedResult = 0) {
    records_.push_back(records_.empty() ? CameraFileRecord{} : records_.back());
    records_.back().imageData = nullptr;
    EXPECT_EQ(GetNextCameraFileRecord(&stream_, header_, records_.back()), expectedResult);
    return records_.back();
  }

  CameraFileHeader header_;
  std::FILE* stream_ = nullptr;
  std::vector<CameraFileRecord> records_;
};

struct FlagCase {
  std::uint32_t flag;
  std::string text;

  friend void PrintTo(const FlagCase& c, std::ostream* os) { *os << "flag " << c.flag; }
};

class CameraFileFlag : public CameraFile, public ::testing::WithParamInterface<FlagCase> {};

TEST_P(CameraFileFlag, ReadsHeaderRecordsAndPastTheEnd) {
  const FlagCase& c = GetParam();
  const bool stamps = c.flag != 0;
  CameraFileBuilder file({.timeStampFlag = c.flag, .text = c.text, .headerValue = 0xCAFE});
  file.record({.timeStamp = 0x0102030405060708, .values = {1, 2, 3, 4, 5, 6}, .image = ImageBytes("abc")})
      .record({.timeStamp = 99, .values = {11, 12, 13, 14, 15, 16}});
  ASSERT_NE(Open(file.bytes()), nullptr);

  EXPECT_EQ(Text(header_.signature, 8), "#KVRCAMR");
  EXPECT_EQ(header_.timeStampPresent, c.flag);
  EXPECT_EQ(header_.textLength, c.text.size());
  ASSERT_NE(header_.text, nullptr);
  EXPECT_EQ(Text(header_.text, header_.textLength), c.text);
  EXPECT_EQ(header_.headerValue, 0xCAFEu);
  EXPECT_EQ(std::ftell(stream_), static_cast<long>(20 + c.text.size()));

  const CameraFileRecord& first = Next();
  EXPECT_EQ(first.timeStamp, stamps ? 0x0102030405060708u : 0u);
  EXPECT_EQ(Values(first), (std::vector<std::uint32_t>{1, 2, 3, 4, 5, 6}));
  EXPECT_EQ(first.imageSize, 3u);
  EXPECT_EQ(Image(first), "abc");
  EXPECT_EQ(std::ftell(stream_), static_cast<long>(20 + c.text.size() + (stamps ? 8 : 0) + 28 + 3));

  const CameraFileRecord& empty = Next();
  EXPECT_EQ(empty.timeStamp, stamps ? 99u : 0u);
  EXPECT_EQ(Values(empty), (std::vector<std::uint32_t>{11, 12, 13, 14, 15, 16}));
  EXPECT_EQ(empty.imageSize, 0u);
  EXPECT_NE(empty.imageData, nullptr);
  EXPECT_FALSE(std::feof(stream_));

  // Past the end nothing arrives: the record keeps the last one's numbers and
  // gets a fresh buffer of its size.
  const CameraFileRecord& past = Next();
  EXPECT_EQ(past.timeStamp, stamps ? 99u : 0u);
  EXPECT_EQ(Values(past), (std::vector<std::uint32_t>{11, 12, 13, 14, 15, 16}));
  EXPECT_EQ(past.imageSize, 0u);
  EXPECT_NE(past.imageData, nullptr);
  EXPECT_TRUE(std::feof(stream_));
  EXPECT_TRUE(logEntries().empty());
}

INSTANTIATE_TEST_SUITE_P(Flags, CameraFileFlag,
                         ::testing::Values(FlagCase{1, "lens A"}, FlagCase{0, ""}, FlagCase{7, "x"}),
                         [](const auto& info) { return "Flag" + std::to_string(info.param.flag); });

TEST_F(CameraFile, RecordCutShortKeepsThePreviousBytesOfWhatDidNotArrive) {
  CameraFileBuilder file({.timeStampFlag = 1});
  file.record({.timeStamp = 5, .values = {0xAAAAAAAA, 2, 3, 0xBBBBBBBB, 5, 6}, .image = ImageBytes("hello")})
      .record({.timeStamp = 6, .values = {21, 22, 23, 0x00001234}});
  ASSERT_NE(Open({file.bytes().begin(), file.bytes().end() - 4 * 3 - 2}), nullptr);
  Next();
  const CameraFileRecord& cut = Next();
  EXPECT_EQ(cut.timeStamp, 6u);
  EXPECT_EQ(Values(cut), (std::vector<std::uint32_t>{21, 22, 23, 0xBBBB1234, 5, 6}));
  EXPECT_EQ(cut.imageSize, 5u);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(cut.imageData), 6), std::string(6, '\0'));
  EXPECT_TRUE(std::feof(stream_));
}

TEST_F(CameraFile, LengthsBeyondTheFileGetBuffersOfTheStatedLengthThatCostNoMemory) {
  CameraFileBuilder file({.timeStampFlag = 0, .text = "short", .statedTextLength = 0xFFFFFFFF, .headerValue = 0xCAFE});
  const long residentBefore = ResidentBytes();
  ASSERT_NE(Open(file.bytes()), nullptr);
  EXPECT_EQ(header_.textLength, 0xFFFFFFFFu);
  // The text swallows the header value's bytes; the value itself finds nothing.
  EXPECT_EQ(Text(header_.text, 9), "short\xFE\xCA\0\0"s);
  EXPECT_EQ(header_.text[0xFFFFFFFFu], 0);
  EXPECT_EQ(header_.headerValue, 0u);
  std::fclose(stream_);
  ReleaseCameraFileHeader(header_);

  CameraFileBuilder images({.timeStampFlag = 0});
  images.record({.values = {1, 2, 3, 4, 5, 6}, .image = ImageBytes("0123456789"), .statedImageSize = 0xFFFFFFFF});
  ASSERT_NE(Open(images.bytes()), nullptr);
  const CameraFileRecord& huge = Next();
  EXPECT_EQ(huge.imageSize, 0xFFFFFFFFu);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(huge.imageData), 11), "0123456789"s + '\0');
  EXPECT_EQ(huge.imageData[0xFFFFFFFFu], 0);
  EXPECT_TRUE(std::feof(stream_));
  // Two buffers of 4 GiB each, of which only the pages read or probed are touched.
  EXPECT_LT(ResidentBytes() - residentBefore, 64l << 20);
}

struct OpenFailureCase {
  const char* name;
  std::vector<std::uint8_t> bytes;  // written to "camera.dat"
  const wchar_t* openName;
  std::string message;
  std::vector<std::string> details;
  std::string signatureAfter;

  friend void PrintTo(const OpenFailureCase& c, std::ostream* os) { *os << c.name; }
};

class CameraFileOpenFailure : public CameraFile, public ::testing::WithParamInterface<OpenFailureCase> {};

TEST_P(CameraFileOpenFailure, ReturnsNullLeavesNoStreamAndLogs) {
  const OpenFailureCase& c = GetParam();
  test::WriteFile(path("camera.dat"), c.bytes);
  std::memcpy(header_.signature, "........", 8);
  const long descriptors = test::OpenDescriptorCount();
  EXPECT_EQ(ReadCameraFileHeader(c.openName, header_), nullptr);
  EXPECT_EQ(test::OpenDescriptorCount(), descriptors);
  EXPECT_EQ(Text(header_.signature, 8), c.signatureAfter);
  EXPECT_EQ(header_.text, nullptr);
  const auto entries = logEntries();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].context, kHeaderContext);
  EXPECT_EQ(entries[0].message, c.message);
  EXPECT_EQ(entries[0].details, c.details);
}

const std::string kBadMagic = "Error reading Camera file Header Magic Number";
const std::string kExpected = "Magic Number expected = #KVRCAMR";

INSTANTIATE_TEST_SUITE_P(Files, CameraFileOpenFailure,
                         ::testing::Values(
                             // Each wide character of the name is cut to its low byte in the log: U+0141 shows as 'A'.
                             OpenFailureCase{
                                 "Missing", {}, L"cam\u0141.dat", "Error opening file", {"camA.dat"}, "........"},
                             OpenFailureCase{"OtherSignature",
                                             CameraFileBuilder({.signature = "#KVRDEVC"}).bytes(),
                                             L"camera.dat",
                                             kBadMagic,
                                             {"camera.dat", kExpected},
                                             "#KVRDEVC"},
                             OpenFailureCase{"ShorterThanASignature",
                                             ImageBytes("#KVRCA"),
                                             L"camera.dat",
                                             kBadMagic,
                                             {"camera.dat", kExpected},
                                             "#KVRCA.."}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(CameraFile, ReleaseFreesTheBuffersAndKeepsTheSizes) {
  CameraFileBuilder file({.text = "t"});
  file.record({.image = ImageBytes("img")});
  ASSERT_NE(Open(file.bytes()), nullptr);
  CameraFileRecord record;
  ASSERT_EQ(GetNextCameraFileRecord(&stream_, header_, record), 0);
  ReleaseCameraFileRecord(record);
  ReleaseCameraFileHeader(header_);
  EXPECT_EQ(record.imageData, nullptr);
  EXPECT_EQ(record.imageSize, 3u);
  EXPECT_EQ(header_.text, nullptr);
  EXPECT_EQ(header_.textLength, 1u);
  std::FILE* none = nullptr;
  EXPECT_EQ(GetNextCameraFileRecord(&none, header_, record), -1);
  EXPECT_EQ(GetNextCameraFileRecord(nullptr, header_, record), -1);
}

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kAddressSanitizer = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kAddressSanitizer = true;
#else
constexpr bool kAddressSanitizer = false;
#endif
#else
constexpr bool kAddressSanitizer = false;
#endif

// In a child process whose address space cannot take 4 GiB more, the image
// buffer's allocation really fails.
TEST_F(CameraFile, ImageThatCannotBeAllocatedIsSkippedWithMinusThree) {
  if (kAddressSanitizer) GTEST_SKIP() << "the sanitizer's allocator aborts instead of failing";
  CameraFileBuilder file({.timeStampFlag = 0});
  file.record({.values = {1, 2, 3, 4, 5, 6}, .statedImageSize = 0xFFFFFFFF});
  const std::size_t imageStart = file.size();
  file.record({.values = {7}, .image = ImageBytes("ok")});
  {
    // Sparse: the next record lies 4 GiB on, behind the image that is never read.
    std::FILE* out = platform::OpenFileNarrow("camera.dat", "wb");
    ASSERT_NE(out, nullptr);
    std::fwrite(file.bytes().data(), 1, imageStart, out);
    ASSERT_TRUE(platform::SeekAbsolute(out, imageStart + 0xFFFFFFFFull));
    std::fwrite(file.bytes().data() + imageStart, 1, file.size() - imageStart, out);
    std::fclose(out);
  }
  stream_ = ReadCameraFileHeader(L"camera.dat", header_);
  ASSERT_NE(stream_, nullptr);

  // The child reports what went wrong on its standard error.
  const auto child = [&] {
    const rlim_t room = static_cast<rlim_t>(VirtualBytes() + (256l << 20));
    const rlimit limit{room, room};
    setrlimit(RLIMIT_AS, &limit);
    std::string failures;
    CameraFileRecord record;
    if (GetNextCameraFileRecord(&stream_, header_, record) != -3) failures += "result ";
    if (record.imageData != nullptr || record.imageSize != 0xFFFFFFFFu) failures += "record ";
    if (platform::Tell(stream_) != static_cast<std::int64_t>(imageStart + 0xFFFFFFFFull)) failures += "position ";
    if (GetNextCameraFileRecord(&stream_, header_, record) != 0 || record.recordValues[0] != 7 ||
        record.imageSize != 2 || std::memcmp(record.imageData, "ok", 2) != 0) {
      failures += "next record";
    }
    std::fputs(failures.c_str(), stderr);
    std::_Exit(failures.empty() ? 0 : 1);
  };
  EXPECT_EXIT(child(), ::testing::ExitedWithCode(0), "^$");

  const auto entries = logEntries();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(
      entries[0].context,
      "int GetNextCameraFileRecord(FILE **fp, CameraFileRecord &cameraFileRecord, ErrorManager *errorManagerDcod)");
  EXPECT_EQ(entries[0].message, "Error Allocating 4294967295 bytes to store image data");
  EXPECT_TRUE(entries[0].details.empty());
}

}  // namespace
}  // namespace kvr
