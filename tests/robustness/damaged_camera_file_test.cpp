// Camera files cut short, with text lengths and image sizes overwritten, with
// other files' magics, and damaged at random, walked record by record until the
// stream reports the end of the file.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kvr_decode/camera_file.h"
#include "robustness/damage.h"
#include "kvr_writers/camera_file_writer.h"
#include "support/left_open_streams.h"
#include "support/read_model.h"
#include "support/temp_dir_test_base.h"

namespace kvr {
namespace {

using test::FileBytes;
using namespace std::string_literals;

constexpr const char* kBadMagic = "Error reading Camera file Header Magic Number";

// Header: flag at 8, text length at 12, text "cam" at 16, header value 9 at 19.
// Record 1: time stamp 1111 at 23, values 1-6 at 31, image size at 55, "abcd"
// at 59. Record 2: 2222 at 63, values 7-12 at 71, size at 95, "xy" at 99. 101 bytes.
FileBytes ValidFile() {
  writers::CameraFileBuilder b({.timeStampFlag = 1, .text = "cam", .headerValue = 9});
  b.record({.timeStamp = 1111, .values = {1, 2, 3, 4, 5, 6}, .image = writers::ImageBytes("abcd")});
  b.record({.timeStamp = 2222, .values = {7, 8, 9, 10, 11, 12}, .image = writers::ImageBytes("xy")});
  return b.bytes();
}
const FileBytes kValid = ValidFile();

// One call's record: its time stamp, image size and the first bytes of its image.
struct Record {
  std::uint64_t timeStamp;
  std::uint32_t imageSize;
  std::string image;
  friend bool operator==(const Record&, const Record&) = default;
  friend void PrintTo(const Record& r, std::ostream* os) {
    *os << "{" << r.timeStamp << ", " << r.imageSize << ", " << ::testing::PrintToString(r.image) << "}";
  }
};
using Records = std::vector<Record>;

class DamagedCameraFile : public test::InTempDir {
 protected:
  // Opens the file and reads records into one record, as callers do, until the
  // stream reports the end; each image is compared on its first `shown` bytes.
  bool Walk(const FileBytes& file, Records& records, std::size_t shown = 8) {
    test::WriteFile(path("camera.dat"), file);
    test::LeftOpenStreams leftOpen;
    ReleaseCameraFileHeader(header);
    header = CameraFileHeader{};
    std::FILE* stream = ReadCameraFileHeader(L"camera.dat", header);
    if (stream == nullptr) {
      EXPECT_EQ(leftOpen.Close(), 0);
      return false;
    }
    CameraFileRecord record;
    while (std::feof(stream) == 0) {
      EXPECT_EQ(GetNextCameraFileRecord(&stream, header, record), 0);
      const std::size_t n = record.imageSize < shown ? record.imageSize : shown;
      records.push_back({record.timeStamp, record.imageSize, std::string(reinterpret_cast<char*>(record.imageData), n)});
      ReleaseCameraFileRecord(record);
      if (records.size() > file.size() / 28 + 1) {
        ADD_FAILURE() << "the records do not end";
        break;
      }
    }
    std::fclose(stream);
    return true;
  }
  void TearDown() override { ReleaseCameraFileHeader(header); }

  CameraFileHeader header;
};

TEST_F(DamagedCameraFile, CutInTheMagicFailsAndClosesTheFile) {
  for (std::size_t cut : {0, 4, 7}) {
    Records records;
    EXPECT_FALSE(Walk(test::Cut(kValid, cut), records));
    const auto log = logEntries();
    test::ClearLog(dir());
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].message, kBadMagic);
    EXPECT_EQ(log[0].details, (std::vector<std::string>{"camera.dat", "Magic Number expected = #KVRCAMR"}));
  }
}

struct CutCase {
  std::size_t cut;
  std::uint32_t flag, textLength;
  std::string text;
  Records records;
};

class CutCameraFile : public DamagedCameraFile, public ::testing::WithParamInterface<CutCase> {};

// A field the file ends before keeps what the record held, so the record the
// file ends in repeats its predecessor's fields.
TEST_P(CutCameraFile, ReadsEveryCallUntilTheEndOfTheFile) {
  const CutCase& c = GetParam();
  Records records;
  ASSERT_TRUE(Walk(test::Cut(kValid, c.cut), records));
  EXPECT_EQ(header.timeStampPresent, c.flag);
  EXPECT_EQ(header.textLength, c.textLength);
  EXPECT_EQ(std::string(header.text, c.textLength), c.text);
  EXPECT_EQ(records, c.records);
  EXPECT_TRUE(logEntries().empty());
}

const Record kFirst{1111, 4, "abcd"};

INSTANTIATE_TEST_SUITE_P(
    FieldBoundaries, CutCameraFile,
    ::testing::Values(CutCase{8, 0, 0, "", {}}, CutCase{12, 1, 0, "", {}}, CutCase{16, 1, 3, "\0\0\0"s, {}},
                      CutCase{19, 1, 3, "cam", {}}, CutCase{23, 1, 3, "cam", {{0, 0, ""}}},
                      CutCase{31, 1, 3, "cam", {{1111, 0, ""}}}, CutCase{55, 1, 3, "cam", {{1111, 0, ""}}},
                      CutCase{59, 1, 3, "cam", {{1111, 4, "\0\0\0\0"s}}},
                      CutCase{63, 1, 3, "cam", {kFirst, {1111, 4, "\0\0\0\0"s}}},
                      CutCase{71, 1, 3, "cam", {kFirst, {2222, 4, "\0\0\0\0"s}}},
                      CutCase{95, 1, 3, "cam", {kFirst, {2222, 4, "\0\0\0\0"s}}},
                      CutCase{99, 1, 3, "cam", {kFirst, {2222, 2, "\0\0"s}}},
                      CutCase{101, 1, 3, "cam", {kFirst, {2222, 2, "xy"}, {2222, 2, "\0\0"s}}}),
    [](const auto& info) { return "At" + std::to_string(info.param.cut); });

struct LengthCase {
  const char* name;
  std::size_t at;
  std::uint32_t value;
  std::uint32_t headerValue;
  Records records;
};

class CameraLengthField : public DamagedCameraFile, public ::testing::WithParamInterface<LengthCase> {};

// The text or image takes what its length says; what follows is read from
// wherever that leaves the stream.
TEST_P(CameraLengthField, TakesItsLengthAndReadsOnFromThere) {
  const LengthCase& c = GetParam();
  Records records;
  ASSERT_TRUE(Walk(test::WithU32(kValid, c.at, c.value), records));
  EXPECT_EQ(header.headerValue, c.headerValue);
  EXPECT_EQ(records, c.records);
  EXPECT_TRUE(logEntries().empty());
}

INSTANTIATE_TEST_SUITE_P(
    ZeroOneMaximumAndPastTheEnd, CameraLengthField,
    ::testing::Values(
        // Text length 0: the header value is "cam" and its own first byte; the
        // record's size is the last value's top bytes and its own low byte.
        LengthCase{"TextZero", 12, 0, 0x096D6163, {{0x0000000457000000, 0x04000000, "\0\0\0abcd\xAE"s}}},
        LengthCase{"TextOne", 12, 1, 0x00096D61, {{0x0000000004570000, 0x00040000, "\0\0abcd\xAE\x08"s}}},
        LengthCase{"TextMaximum", 12, 0xFFFFFFFF, 0, {}}, LengthCase{"TextPastTheEnd", 12, 86, 0, {}},
        // Image size 0: record 2 starts at the image, "abcd" and its time stamp.
        LengthCase{"ImageZero", 55, 0, 9, {{1111, 0, ""}, {0x000008AE64636261, 12, "\x02\0\0\0xy\0\0"s}}},
        LengthCase{"ImageOne", 55, 1, 9, {{1111, 1, "a"}, {0x00000008AE646362, 0x02000000, "\0\0\0xy\0\0\0"s}}},
        LengthCase{"ImageMaximum", 55, 0xFFFFFFFF, 9, {{1111, 0xFFFFFFFF, "abcd\xAE\x08\0\0"s}}},
        LengthCase{"ImagePastTheEnd", 55, 43, 9, {{1111, 43, "abcd\xAE\x08\0\0"s}}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(DamagedCameraFile, ZeroFlagReadsRecordsWithoutTimeStamps) {
  Records records;
  ASSERT_TRUE(Walk(test::WithU32(kValid, 8, 0), records));
  // Record 1's values from its time stamp on; the size is value 5, and the next
  // record's size the top byte of value 10.
  EXPECT_EQ(records, (Records{{0, 5, "\x06\0\0\0\x04"s}, {0, 0x0A000000, "\0\0\0\x0B\0\0\0\x0C"s}}));
  records.clear();
  ASSERT_TRUE(Walk(test::WithU32(kValid, 8, 0xFFFFFFFF), records));
  EXPECT_EQ(records, (Records{kFirst, {2222, 2, "xy"}, {2222, 2, "\0\0"s}}));
}

TEST_F(DamagedCameraFile, OtherMagicsFailAndCloseTheFile) {
  for (const char* magic : {"#KVRSCAN", "#KVRDEVC", "#kvrcamr", "#KVRCAMX"}) {
    Records records;
    EXPECT_FALSE(Walk(test::WithText(kValid, 0, magic), records));
    EXPECT_EQ(test::TakeLogMessages(dir()), std::vector<std::string>{kBadMagic}) << magic;
  }
}

// Random damage: null with the magic entry, or a stream whose records all read
// with 0 until the end of the file, nothing logged. Damage that makes a length
// claim more than 16 MiB is left to the length cases above (it costs only time,
// and under the sanitizers a lot of it).
TEST_F(DamagedCameraFile, RandomDamageEndsInADocumentedResult) {
  int opened = 0, rejected = 0;
  for (const FileBytes& file : test::Mutations(kValid, 8080, 100)) {
    if (test::LargestCameraFileClaim(file) > (1u << 24)) continue;
    Records records;
    if (Walk(file, records)) {
      ++opened;
      EXPECT_TRUE(logEntries().empty());
    } else {
      ++rejected;
      EXPECT_EQ(test::TakeLogMessages(dir()), std::vector<std::string>{kBadMagic});
    }
  }
  EXPECT_GT(opened, 0);
  EXPECT_GT(rejected, 0);
}

}  // namespace
}  // namespace kvr
