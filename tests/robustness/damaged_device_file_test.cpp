// Device data files cut short, with byte counts, sizes and types overwritten,
// with other files' magics, and damaged at random.

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "kvr_decode/device_data.h"
#include "robustness/damage.h"
#include "kvr_writers/device_file_writer.h"
#include "support/left_open_streams.h"
#include "support/stdout_capture.h"
#include "support/temp_dir_test_base.h"

namespace kvr {
namespace {

using test::FileBytes;
using Sizes = std::array<std::size_t, 8>;

constexpr const char* kContext =
    "int ReadDeviceDataInfo(unsigned char *deviceDataFileName, DeviceDataInfo &deviceDataInfo)";
constexpr const char* kNoData = "Error reading file. DeviceDataFile is valid but contains no data";
constexpr const char* kBadSignature = "Bad file signature";

// Version 93. The inclinometer text (15 bytes) has its count at 12 and lies at
// 16; the compass text (9 bytes) has its count at 31 and lies at 35. Then a
// type 1 reading (time at 44, type 52, size 56, payload 60-83) and a type 8
// reading (time at 84, type 92, size 96, payload 100-103): 104 bytes.
FileBytes ValidFile() {
  writers::DeviceFileBuilder b(93);
  b.calibrationBlock(writers::DeviceCalibrationText({{"alpha", "2"}, {"pga", "4"}}))
      .calibrationBlock(writers::DeviceCalibrationText({{"xsf", "1.5"}}))
      .reading(writers::DeviceReading1{.time = 2000, .raw = {1, 2, 3, 4, 5, 6}})
      .reading(writers::DeviceReading8{.time = 1000, .value = 7});
  return b.bytes();
}
const FileBytes kValid = ValidFile();

Sizes ListSizes(const AncillaryDevicesData& d) {
  return {d.type1Records.size(), d.type2Records.size(), d.type3Records.size(), d.type4Records.size(),
          d.type5Records.size(), d.type6Records.size(), d.type7Records.size(), d.type8Records.size()};
}

class DamagedDeviceFile : public test::InTempDir {
 protected:
  int Read(const FileBytes& file) {
    test::WriteFile(path("device.dat"), file);
    data = AncillaryDevicesData{};
    test::StdoutCapture out;  // "Device version" lines
    return ReadDeviceDataInfo(L"device.dat", data);
  }
  AncillaryDevicesData data;
};

struct CutCase {
  std::size_t cut;
  int result;
  const char* message;  // null: nothing logged
  Sizes sizes;
};

class CutDeviceFile : public DamagedDeviceFile, public ::testing::WithParamInterface<CutCase> {};

TEST_P(CutDeviceFile, EndsWithItsResultLogEntryAndLists) {
  const CutCase& c = GetParam();
  test::LeftOpenStreams leftOpen;
  EXPECT_EQ(Read(test::Cut(kValid, c.cut)), c.result);
  EXPECT_EQ(leftOpen.Close(), c.result == -2 ? 1 : 0);
  EXPECT_EQ(ListSizes(data), c.sizes);
  const auto log = logEntries();
  ASSERT_EQ(log.size(), c.message == nullptr ? 0u : 1u);
  if (c.message != nullptr) {
    EXPECT_EQ(log[0].context, kContext);
    EXPECT_EQ(log[0].message, c.message);
  }
}

const Sizes kNone{};
const Sizes kType1{1, 0, 0, 0, 0, 0, 0, 0};
const Sizes kBoth{1, 0, 0, 0, 0, 0, 0, 1};

INSTANTIATE_TEST_SUITE_P(
    FieldBoundaries, CutDeviceFile,
    ::testing::Values(
        CutCase{0, -2, kBadSignature, kNone}, CutCase{4, -2, kBadSignature, kNone},
        // The header cut anywhere: "contains no data".
        CutCase{8, -1, kNoData, kNone}, CutCase{12, -1, kNoData, kNone}, CutCase{16, -1, kNoData, kNone},
        CutCase{31, -1, kNoData, kNone}, CutCase{35, -1, kNoData, kNone},
        // A record without its time, type or size is dropped.
        CutCase{44, 0, nullptr, kNone}, CutCase{52, 0, nullptr, kNone}, CutCase{56, 0, nullptr, kNone},
        // One whose payload is cut is kept, the missing bytes zero.
        CutCase{60, 0, nullptr, kType1}, CutCase{84, 0, nullptr, kType1}, CutCase{92, 0, nullptr, kType1},
        CutCase{96, 0, nullptr, kType1}, CutCase{100, 0, nullptr, kBoth}, CutCase{104, 0, nullptr, kBoth}),
    [](const auto& info) { return "At" + std::to_string(info.param.cut); });

TEST_F(DamagedDeviceFile, CutPayloadKeepsTheBytesThatArrived) {
  EXPECT_EQ(Read(test::Cut(kValid, 68)), 0);
  ASSERT_EQ(data.type1Records.size(), 1u);
  EXPECT_EQ(data.type1Records[0].time, 2000u);
  EXPECT_EQ(std::vector<std::int32_t>(data.type1Records[0].raw, data.type1Records[0].raw + 6),
            (std::vector<std::int32_t>{1, 2, 0, 0, 0, 0}));
  EXPECT_EQ(data.inclinometerCalibration.alpha, 2);
  EXPECT_EQ(data.inclinometerCalibration.pga, 4);
  EXPECT_EQ(data.compassCalibration.xsf, 1.5f);
}

// A byte count overwritten: its text takes that many bytes (keeping at most
// 1024), and what follows is read from wherever that leaves the stream.
TEST_F(DamagedDeviceFile, CalibrationCountsAtZeroOneMaximumAndPastTheEnd) {
  struct Case {
    const char* name;
    std::size_t at;
    std::uint32_t value;
    int result;
    std::int32_t alpha, pga;
    float xsf;
    Sizes sizes;
  };
  for (const Case& c : {
           // 0: the compass count is read from the text, "alph" = 0x68706C61, and
           // the compass text from "a=2" to the end of the file.
           Case{"InclinometerZero", 12, 0, -1, 0, 0, 0.0f, kNone},
           Case{"InclinometerOne", 12, 1, -1, 0, 0, 0.0f, kNone},
           Case{"InclinometerMaximum", 12, 0xFFFFFFFF, -1, 2, 4, 0.0f, kNone},
           Case{"InclinometerPastTheEnd", 12, 89, -1, 2, 4, 0.0f, kNone},
           // 0: the records start inside the compass text; the first has time
           // "xsf=1.5\n", type 0x7D000 and size 0, the second type 0x100 and
           // size 512, which runs past the end.
           Case{"CompassZero", 31, 0, 0, 2, 4, 0.0f, kNone},
           // 1: the second misread record has type 1 (the first raw value) and
           // reads raw values 3 to 6, then the type 8 reading's time, 1000, and 0.
           Case{"CompassOne", 31, 1, 0, 2, 4, 0.0f, kType1},
           Case{"CompassMaximum", 31, 0xFFFFFFFF, -1, 2, 4, 1.5f, kNone},
           Case{"CompassPastTheEnd", 31, 70, -1, 2, 4, 1.5f, kNone},
       }) {
    EXPECT_EQ(Read(test::WithU32(kValid, c.at, c.value)), c.result) << c.name;
    EXPECT_EQ(data.inclinometerCalibration.alpha, c.alpha) << c.name;
    EXPECT_EQ(data.inclinometerCalibration.pga, c.pga) << c.name;
    EXPECT_EQ(data.compassCalibration.xsf, c.xsf) << c.name;
    EXPECT_EQ(ListSizes(data), c.sizes) << c.name;
    EXPECT_EQ(test::TakeLogMessages(dir()), c.result == 0 ? std::vector<std::string>{}
                                                          : std::vector<std::string>{kNoData})
        << c.name;
  }
  ASSERT_EQ(Read(test::WithU32(kValid, 31, 1)), 0);
  EXPECT_EQ(data.type1Records[0].time, 0x0000001800000001u);
  EXPECT_EQ(std::vector<std::int32_t>(data.type1Records[0].raw, data.type1Records[0].raw + 6),
            (std::vector<std::int32_t>{3, 4, 5, 6, 1000, 0}));
}

TEST_F(DamagedDeviceFile, SizeCountsOnlyForTypesWithoutAReader) {
  // The type 8 reading's size is ignored; as an unknown type (12) it is skipped
  // by its size, and the file ends inside or right after it.
  for (std::uint32_t size : {0u, 1u, 4u, 5u, 0xFFFFFFFFu}) {
    EXPECT_EQ(Read(test::WithU32(kValid, 96, size)), 0);
    EXPECT_EQ(ListSizes(data), kBoth) << size;
    for (std::uint32_t type : {0u, 9u, 12u, 0xFFFFFFFFu}) {
      EXPECT_EQ(Read(test::WithU32(test::WithU32(kValid, 96, size), 92, type)), 0);
      EXPECT_EQ(ListSizes(data), kType1) << size << " " << type;
    }
  }
  EXPECT_TRUE(logEntries().empty());
}

TEST_F(DamagedDeviceFile, OtherMagicsFailWithMinusTwoLeavingTheFileOpen) {
  for (const char* magic : {"#KVRSCAN", "#KVRCAMR", "#kvrdevc", "#KVRDEVX"}) {
    test::LeftOpenStreams leftOpen;
    EXPECT_EQ(Read(test::WithText(kValid, 0, magic)), -2);
    EXPECT_EQ(leftOpen.Close(), 1);
    const auto log = logEntries();
    test::ClearLog(dir());
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].message, kBadSignature);
    EXPECT_EQ(log[0].details, std::vector<std::string>{magic});
  }
}

// Random damage: 0 with nothing logged, -1 with "contains no data", -2 with the
// signature entry (its stream left open); every type 2 reading linked to a type
// 7 reading or to none.
TEST_F(DamagedDeviceFile, RandomDamageEndsInADocumentedResult) {
  writers::DeviceFileBuilder b(93);
  b.calibrationBlock(writers::DeviceCalibrationText({{"alpha", "2"}, {"pga", "4"}, {"vref", "2.5"}, {"beta", "0.5"}}))
      .calibrationBlock(writers::DeviceCalibrationText({{"xsf", "1.5"}}))
      .reading(writers::DeviceReading1{.time = 2000, .raw = {1, 2, 3, 4, 5, 6}})
      .reading(writers::DeviceReading2{.time = 100000000, .value = 1})
      .reading(writers::DeviceReading7{.time = 50000000})
      .reading(writers::DeviceReading7{.time = 400000000})
      .record(5, 42, {1, 2, 3})
      .reading(writers::DeviceReading3{.time = 3})
      .reading(writers::DeviceReading8{.time = 1000, .value = 7});
  int results[3] = {};
  for (const FileBytes& file : test::Mutations(b.bytes(), 4242, 100)) {
    test::LeftOpenStreams leftOpen;
    const int result = Read(file);
    ASSERT_TRUE(result == 0 || result == -1 || result == -2) << result;
    ++results[-result];
    EXPECT_EQ(leftOpen.Close(), result == -2 ? 1 : 0);
    const auto messages = test::TakeLogMessages(dir());
    EXPECT_EQ(messages, result == 0    ? std::vector<std::string>{}
                        : result == -1 ? std::vector<std::string>{kNoData}
                                       : std::vector<std::string>{kBadSignature});
    for (const DeviceRecord2& r : data.type2Records) {
      EXPECT_GE(r.nearestType7, -1);
      EXPECT_LT(r.nearestType7, static_cast<std::int32_t>(data.type7Records.size()));
    }
  }
  EXPECT_GT(results[0], 0);
  EXPECT_GT(results[1], 0);
  EXPECT_GT(results[2], 0);
}

}  // namespace
}  // namespace kvr
