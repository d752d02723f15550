#include "kvr_decode/camera_file.h"

#include <gtest/gtest.h>

#if defined(__linux__)
#  include <sys/resource.h>
#  include <unistd.h>
#endif

#include <cstring>
#include <fstream>
#include <ostream>
#include <string>
#include <vector>

#include "kvr_writers/camera_file_writer.h"
#include "platform/file_system.h"
#include "support/open_descriptors.h"
#include "support/temp_dir_test_base.h"

namespace kvr {
namespace {

using writers::CameraFileBuilder;
using writers::ImageBytes;
using namespace std::string_literals;

std::string Image(const CameraFileRecord& r, std::size_t n) { return {reinterpret_cast<const char*>(r.imageData), n}; }
std::vector<std::uint32_t> Values(const CameraFileRecord& r) {
  return {std::begin(r.recordValues), std::end(r.recordValues)};
}

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
  // Reads into the previous record, as a caller reusing one record does; keeps every buffer.
  CameraFileRecord Next() {
    CameraFileRecord record = records_.empty() ? CameraFileRecord{} : records_.back();
    EXPECT_EQ(GetNextCameraFileRecord(&stream_, header_, record), 0);
    records_.push_back(record);
    return record;
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
  const auto& [flag, text] = GetParam();
  const std::uint64_t stamp = flag != 0 ? 8 : 0;
  CameraFileBuilder file({.timeStampFlag = flag, .text = text, .headerValue = 0xCAFE});
  file.record({.timeStamp = 0x0102030405060708, .values = {1, 2, 3, 4, 5, 6}, .image = ImageBytes("abc")})
      .record({.timeStamp = 99, .values = {11, 12, 13, 14, 15, 16}});
  ASSERT_NE(Open(file.bytes()), nullptr);
  EXPECT_EQ(std::string(header_.signature, 8), "#KVRCAMR");
  EXPECT_EQ(header_.timeStampPresent, flag);
  EXPECT_EQ(header_.textLength, text.size());
  ASSERT_NE(header_.text, nullptr);
  EXPECT_EQ(std::string(header_.text, header_.textLength), text);
  EXPECT_EQ(header_.headerValue, 0xCAFEu);

  const CameraFileRecord first = Next();
  EXPECT_EQ(first.timeStamp, stamp != 0 ? 0x0102030405060708u : 0u);
  EXPECT_EQ(Values(first), (std::vector<std::uint32_t>{1, 2, 3, 4, 5, 6}));
  EXPECT_EQ(first.imageSize, 3u);
  EXPECT_EQ(Image(first, 3), "abc");
  EXPECT_EQ(std::ftell(stream_), static_cast<long>(20 + text.size() + stamp + 28 + 3));

  const CameraFileRecord empty = Next();
  EXPECT_EQ(empty.timeStamp, stamp != 0 ? 99u : 0u);
  EXPECT_EQ(Values(empty), (std::vector<std::uint32_t>{11, 12, 13, 14, 15, 16}));
  EXPECT_EQ(empty.imageSize, 0u);
  EXPECT_NE(empty.imageData, nullptr);
  EXPECT_FALSE(std::feof(stream_));

  // Nothing arrives: the numbers stay, the buffer is new.
  const CameraFileRecord past = Next();
  EXPECT_EQ(past.timeStamp, empty.timeStamp);
  EXPECT_EQ(Values(past), Values(empty));
  EXPECT_EQ(past.imageSize, 0u);
  EXPECT_NE(past.imageData, nullptr);
  EXPECT_NE(past.imageData, empty.imageData);
  EXPECT_TRUE(std::feof(stream_));
  EXPECT_TRUE(logEntries().empty());

  ReleaseCameraFileHeader(header_);
  EXPECT_EQ(header_.text, nullptr);
  EXPECT_EQ(header_.textLength, text.size());
}

INSTANTIATE_TEST_SUITE_P(Flags, CameraFileFlag,
                         ::testing::Values(FlagCase{1, "lens A"}, FlagCase{0, ""}, FlagCase{7, "x"}),
                         [](const auto& info) { return "Flag" + std::to_string(info.param.flag); });

TEST_F(CameraFile, RecordCutShortKeepsThePreviousBytesOfWhatDidNotArrive) {
  CameraFileBuilder file({.timeStampFlag = 1});
  file.record({.timeStamp = 5, .values = {0xAAAAAAAA, 2, 3, 0xBBBBBBBB, 5, 6}, .image = ImageBytes("hello")})
      .record({.timeStamp = 6, .values = {21, 22, 23, 0x00001234}});
  // The second record ends two bytes into its fourth value.
  ASSERT_NE(Open({file.bytes().begin(), file.bytes().end() - 4 * 3 - 2}), nullptr);
  Next();
  const CameraFileRecord cut = Next();
  EXPECT_EQ(cut.timeStamp, 6u);
  EXPECT_EQ(Values(cut), (std::vector<std::uint32_t>{21, 22, 23, 0xBBBB1234, 5, 6}));
  EXPECT_EQ(cut.imageSize, 5u);
  EXPECT_EQ(Image(cut, 6), std::string(6, '\0'));
  EXPECT_TRUE(std::feof(stream_));

  std::FILE* none = nullptr;
  EXPECT_EQ(GetNextCameraFileRecord(&none, header_, records_.back()), -1);
  EXPECT_EQ(GetNextCameraFileRecord(nullptr, header_, records_.back()), -1);
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
  EXPECT_EQ(std::string(header_.signature, 8), c.signatureAfter);
  EXPECT_EQ(header_.text, nullptr);
  const auto entries = logEntries();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].context,
            "FILE *ReadCameraFileHeader(unsigned char *cameraFileName, CameraFileHeader &cameraFileHeader)");
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

// Memory is measured through /proc and limited with setrlimit in a forked
// child: Linux only. The reader's allocations are the same code everywhere.
#if defined(__linux__)
// /proc/self/statm field 0 is the address space, field 1 the resident set, in pages.
long StatmBytes(int field) {
  std::ifstream statm("/proc/self/statm");
  long value = 0;
  for (int i = 0; i <= field; ++i) statm >> value;
  return value * sysconf(_SC_PAGESIZE);
}

TEST_F(CameraFile, LengthsBeyondTheFileGetBuffersOfTheStatedLengthThatCostNoMemory) {
  const long residentBefore = StatmBytes(1);
  ASSERT_NE(Open(CameraFileBuilder({.text = "short", .statedTextLength = 0xFFFFFFFF, .headerValue = 0xCAFE}).bytes()),
            nullptr);
  EXPECT_EQ(header_.textLength, 0xFFFFFFFFu);
  // The text takes in the header value's bytes; the value itself finds nothing.
  EXPECT_EQ(std::string(header_.text, 9), "short\xFE\xCA\0\0"s);
  EXPECT_EQ(header_.text[0xFFFFFFFFu], 0);
  EXPECT_EQ(header_.headerValue, 0u);
  std::fclose(stream_);
  ReleaseCameraFileHeader(header_);

  CameraFileBuilder images({.timeStampFlag = 0});
  images.record({.values = {1}, .image = ImageBytes("0123456789"), .statedImageSize = 0xFFFFFFFF});
  ASSERT_NE(Open(images.bytes()), nullptr);
  const CameraFileRecord huge = Next();
  EXPECT_EQ(huge.imageSize, 0xFFFFFFFFu);
  EXPECT_EQ(Image(huge, 11), "0123456789"s + '\0');
  EXPECT_EQ(huge.imageData[0xFFFFFFFFu], 0);
  EXPECT_TRUE(std::feof(stream_));
  // Two buffers of 4 GiB, of which only the pages read or probed are touched.
  EXPECT_LT(StatmBytes(1) - residentBefore, 64l << 20);
}

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kAddressSanitizer = true;
#elif defined(__has_feature)
constexpr bool kAddressSanitizer = __has_feature(address_sanitizer);
#else
constexpr bool kAddressSanitizer = false;
#endif

// A child process whose address space cannot grow by 4 GiB, so the allocation really fails.
TEST_F(CameraFile, ImageThatCannotBeAllocatedIsSkippedWithMinusThree) {
  if (kAddressSanitizer) GTEST_SKIP() << "the sanitizer's allocator aborts instead of failing";
  CameraFileBuilder file({.timeStampFlag = 0});
  file.record({.values = {1}, .statedImageSize = 0xFFFFFFFF});
  const std::size_t imageStart = file.size();
  file.record({.values = {7}, .image = ImageBytes("ok")});
  // Sparse: the next record lies 4 GiB on, behind the image that is never read.
  std::FILE* out = platform::OpenFileNarrow("camera.dat", "wb");
  std::fwrite(file.bytes().data(), 1, imageStart, out);
  platform::SeekAbsolute(out, imageStart + 0xFFFFFFFFull);
  std::fwrite(file.bytes().data() + imageStart, 1, file.size() - imageStart, out);
  std::fclose(out);
  ASSERT_NE(stream_ = ReadCameraFileHeader(L"camera.dat", header_), nullptr);

  const auto child = [&] {
    const rlim_t room = static_cast<rlim_t>(StatmBytes(0) + (256l << 20));
    const rlimit limit{room, room};
    setrlimit(RLIMIT_AS, &limit);
    CameraFileRecord r;
    std::string failures;
    if (GetNextCameraFileRecord(&stream_, header_, r) != -3) failures += "result ";
    if (r.imageData != nullptr || r.imageSize != 0xFFFFFFFFu) failures += "record ";
    if (GetNextCameraFileRecord(&stream_, header_, r) != 0 || r.recordValues[0] != 7 || Image(r, 2) != "ok") {
      failures += "next record";
    }
    std::fputs(failures.c_str(), stderr);
    std::_Exit(failures.empty() ? 0 : 1);
  };
  EXPECT_EXIT(child(), ::testing::ExitedWithCode(0), "^$");  // the child names what went wrong
  const auto entries = logEntries();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(
      entries[0].context,
      "int GetNextCameraFileRecord(FILE **fp, CameraFileRecord &cameraFileRecord, ErrorManager *errorManagerDcod)");
  EXPECT_EQ(entries[0].message, "Error Allocating 4294967295 bytes to store image data");
  EXPECT_TRUE(entries[0].details.empty());
}

#endif  // __linux__

}  // namespace
}  // namespace kvr
