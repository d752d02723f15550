#include <gtest/gtest.h>

#include <array>
#include <ostream>
#include <string>
#include <vector>

#include "kvr_decode/device_data.h"
#include "kvr_writers/byte_writer.h"
#include "kvr_writers/device_file_writer.h"
#include "support/open_descriptors.h"
#include "support/stdout_capture.h"
#include "support/temp_dir_test_base.h"

namespace kvr {
namespace {

using writers::ByteWriter;
using writers::DeviceFileBuilder;

using namespace std::string_literals;

const std::string kInclinometerText =
    "sxx=1.02\nsyy = 0.98\nsxy\t0.01\nsyx=-0.02\noffnomx=0.001\noffnomy=-0.002\nbsroll=0.5\nbspitch=-0.25\n"
    "bsheading=90\nalpha=2.5\nbeta=0.5\nvref=2.5\npga=7.6\n"s +
    '\0';
const std::string kCompassText = writers::DeviceCalibrationText(
    {{"xsf", "1.5"}, {"ysf", "0.75"}, {"xoff", "-12.25"}, {"yoff", "3.125"}, {"declination", "-2.5"}});

const InclinometerCalibration kInclinometer{1.02f,  0.98f, 0.01f, -0.02f, 0.001f, -0.002f, 0.5f,
                                            -0.25f, 90.0f, 3,     0.5f,   2.5f,   8};
const CompassCalibration kCompass{1.5f, 0.75f, -12.25f, 3.125f, -2.5f};
const CompassCalibration kCallerCompass{9.0f, 9.0f, 9.0f, 9.0f, 9.0f};

// Every type, two that no reader knows, and types 2, 3 and 7 written field by
// field in file order.
DeviceFileBuilder& AddRecords(DeviceFileBuilder& file) {
  return file
      .record(1000, 7,
              ByteWriter().u32(70).u64(0x1122334455667788).u32(71).u32(72).u32(73).u32(74).u32(75).u32(76).take())
      .reading(writers::DeviceReading1{.time = 2000, .raw = {111, 1650, 1350, 3, 3000, -7}})
      .record(2500, 0, ByteWriter().text("skip!").take())
      .record(3000, 2, ByteWriter().u32(20).u64(0x0102030405060708).u64(22).u64(0xFFFFFFFF00000001).take())
      .record(4000, 3, ByteWriter().u32(31).u32(32).u32(33).u32(34).u32(35).take())
      .reading(writers::DeviceReading4{.time = 5000, .values = {41, 42}})
      .record(5500, 9, ByteWriter().text("abc").take())
      .reading(writers::DeviceReading5{.time = 6000, .values = {51, 52, 53, 54, 55, 56}})
      .reading(writers::DeviceReading5{.time = 7000, .values = {61, 62, 63, 64, 65, 66}}, 6)
      .record(600000000, 7, ByteWriter().u32(80).u64(81).u32(82).u32(83).u32(84).u32(85).u32(86).u32(87).take())
      .reading(writers::DeviceReading8{.time = 8000, .value = 0xDEADBEEF})
      .reading(writers::DeviceReading1{.time = 9000, .raw = {5, 1030, 960, 6, 1000, 9}})
      .record(500000000, 2, ByteWriter().u32(90).u64(91).u64(92).u64(93).take());
}

// What AddRecords reads back. Tilts worked out from the raw values and kInclinometer;
// the type 2 readings lie 2000 ticks (0.04 ms) and 2 s from the type 7 readings 0 and 1.
void ExpectRecords(const AncillaryDevicesData& d) {
  EXPECT_EQ(d.type1Records,
            (std::vector<DeviceRecord1>{
                {2000, 0x1.bed07c353e6e7p+1, -0x1.bbe95cdc8d70cp+1, 0.0, {111, 1650, 1350, 3, 3000, -7}},
                {9000, 0x1.09f6c1ea9efe7p+1, -0x1.61eb8fc482dd9p+1, 0.0, {5, 1030, 960, 6, 1000, 9}}}));
  EXPECT_EQ(d.type2Records, (std::vector<DeviceRecord2>{{3000, 0x0102030405060708, 22, 0xFFFFFFFF00000001, 20, 0},
                                                        {500000000, 91, 92, 93, 90, 1}}));
  EXPECT_EQ(d.type3Records, (std::vector<DeviceRecord3>{{4000, 31, 33, 34, 35, 32}}));
  EXPECT_EQ(d.type4Records, (std::vector<DeviceRecord4>{{5000, {41, 42}}}));
  EXPECT_EQ(d.type5Records, (std::vector<DeviceRecord5>{{6000, {51, 52, 53, 54, 55, 56}}}));
  EXPECT_EQ(d.type6Records, (std::vector<DeviceRecord6>{{7000, {61, 62, 63, 64, 65, 66}}}));
  EXPECT_EQ(d.type7Records, (std::vector<DeviceRecord7>{{1000, 0x1122334455667788, 70, 71, 72, 73, 74, 75, 76},
                                                        {600000000, 81, 80, 82, 83, 84, 85, 86, 87}}));
  EXPECT_EQ(d.type8Records, (std::vector<DeviceRecord8>{{8000, 0xDEADBEEF}}));
}

std::array<std::size_t, 8> ListSizes(const AncillaryDevicesData& d) {
  return {d.type1Records.size(), d.type2Records.size(), d.type3Records.size(), d.type4Records.size(),
          d.type5Records.size(), d.type6Records.size(), d.type7Records.size(), d.type8Records.size()};
}

DeviceFileBuilder Header93() {
  DeviceFileBuilder file(93);
  file.calibrationBlock(kInclinometerText).calibrationBlock(kCompassText);
  return file;
}

std::vector<std::uint8_t> Cut(const DeviceFileBuilder& file, std::size_t size) {
  return {file.bytes().begin(), file.bytes().begin() + static_cast<std::ptrdiff_t>(size)};
}

class DeviceDataFile : public test::InTempDir {
 protected:
  int Read(const std::vector<std::uint8_t>& bytes, AncillaryDevicesData& data) {
    test::WriteFile(path("device.dat"), bytes);
    return ReadNamed(L"device.dat", data);
  }
  int ReadNamed(const wchar_t* name, AncillaryDevicesData& data) {
    test::StdoutCapture capture;
    const int result = ReadDeviceDataInfo(name, data);
    out_ = capture.text();
    return result;
  }
  const std::string& out() const { return out_; }

 private:
  std::string out_;
};

struct VersionCase {
  std::int32_t version;
  bool calibrationBlocks;

  friend void PrintTo(const VersionCase& c, std::ostream* os) { *os << "version " << c.version; }
};

class DeviceDataFileVersion : public DeviceDataFile, public ::testing::WithParamInterface<VersionCase> {};

TEST_P(DeviceDataFileVersion, ReadsEveryRecordListAndDerivesTiltAndNearestType7) {
  const VersionCase& c = GetParam();
  DeviceFileBuilder file(c.version);
  if (c.calibrationBlocks) file.calibrationBlock(kInclinometerText).calibrationBlock(kCompassText);
  AncillaryDevicesData data;
  data.compassCalibration = kCallerCompass;
  // Without calibration blocks the tilt comes from the caller's calibration.
  if (!c.calibrationBlocks) data.inclinometerCalibration = kInclinometer;

  EXPECT_EQ(Read(AddRecords(file).bytes(), data), 0);
  EXPECT_EQ(out(), "Device version " + std::to_string(c.version) + "\n");
  EXPECT_TRUE(logEntries().empty());
  EXPECT_EQ(data.version, c.version);
  EXPECT_EQ(data.inclinometerCalibration, kInclinometer);
  EXPECT_EQ(data.compassCalibration, c.calibrationBlocks ? kCompass : kCallerCompass);
  ExpectRecords(data);
}

INSTANTIATE_TEST_SUITE_P(Versions, DeviceDataFileVersion,
                         ::testing::Values(VersionCase{92, false}, VersionCase{93, true}),
                         [](const auto& info) { return "Version" + std::to_string(info.param.version); });

TEST_F(DeviceDataFile, SecondCallAppendsAndRelinksEveryReading) {
  AncillaryDevicesData data;
  data.inclinometerCalibration = kInclinometer;
  DeviceFileBuilder first(92);
  ASSERT_EQ(Read(AddRecords(first).bytes(), data), 0);
  DeviceFileBuilder second = Header93();
  ASSERT_EQ(Read(AddRecords(second).bytes(), data), 0);

  EXPECT_EQ(ListSizes(data), (std::array<std::size_t, 8>{4, 4, 2, 2, 2, 2, 4, 2}));
  // Type 7 times are now 1000, 6e8, 1000, 6e8: the first of equal distances wins.
  std::vector<std::int32_t> nearest;
  for (const DeviceRecord2& e : data.type2Records) nearest.push_back(e.nearestType7);
  EXPECT_EQ(nearest, (std::vector<std::int32_t>{0, 1, 0, 1}));
}

TEST_F(DeviceDataFile, CutPayloadIsKeptWithTheBytesThatArrived) {
  DeviceFileBuilder file = Header93();
  file.reading(writers::DeviceReading8{.time = 8000, .value = 1})
      .record(1000, 7, ByteWriter().u32(70).u64(0x1122334455667788).u32(71).take());
  AncillaryDevicesData data;
  // e0 and two bytes of d arrive.
  EXPECT_EQ(Read(Cut(file, file.size() - 10), data), 0);
  EXPECT_TRUE(logEntries().empty());
  EXPECT_EQ(data.type8Records, (std::vector<DeviceRecord8>{{8000, 1}}));
  EXPECT_EQ(data.type7Records, (std::vector<DeviceRecord7>{{1000, 0x7788, 70}}));
}

struct DamageCase {
  const char* name;
  std::vector<std::uint8_t> bytes;  // written to "device.dat"
  const wchar_t* openName;
  int result;
  std::string message;  // empty: nothing logged
  std::string detail;
  std::string out;
  std::int32_t version;  // afterwards; the caller's is -5
  std::array<std::size_t, 8> listSizes;
  long streamsLeftOpen;

  friend void PrintTo(const DamageCase& c, std::ostream* os) { *os << c.name; }
};

class DeviceDataFileDamage : public DeviceDataFile, public ::testing::WithParamInterface<DamageCase> {};

TEST_P(DeviceDataFileDamage, EndsWithItsResultLogAndRecord) {
  const DamageCase& c = GetParam();
  test::WriteFile(path("device.dat"), c.bytes);
  AncillaryDevicesData data;
  data.version = -5;
  const long descriptors = test::OpenDescriptorCount();
  EXPECT_EQ(ReadNamed(c.openName, data), c.result);
  EXPECT_EQ(test::OpenDescriptorCount() - descriptors, c.streamsLeftOpen);
  EXPECT_EQ(out(), c.out);
  EXPECT_EQ(data.version, c.version);
  EXPECT_EQ(ListSizes(data), c.listSizes);
  const auto entries = logEntries();
  ASSERT_EQ(entries.size(), c.message.empty() ? 0u : 1u);
  if (c.message.empty()) return;
  EXPECT_EQ(entries[0].context,
            "int ReadDeviceDataInfo(unsigned char *deviceDataFileName, DeviceDataInfo &deviceDataInfo)");
  EXPECT_EQ(entries[0].message, c.message);
  EXPECT_EQ(entries[0].details, std::vector<std::string>{c.detail});
}

const std::string kNoData = "Error reading file. DeviceDataFile is valid but contains no data";
const std::string kBadSignature = "Bad file signature";
const std::string kV93 = "Device version 93\n";
const std::array<std::size_t, 8> kEmpty{};
const std::array<std::size_t, 8> kOneType8{0, 0, 0, 0, 0, 0, 0, 1};
const std::vector<std::uint8_t> kType8 = DeviceFileBuilder::DevicePayload(writers::DeviceReading8{.value = 7});

std::vector<DamageCase> DamageCases() {
  DeviceFileBuilder oneRecord = Header93();
  oneRecord.record(8000, 8, kType8);
  DeviceFileBuilder twoRecords = oneRecord;
  twoRecords.record(9000, 8, kType8);
  DeviceFileBuilder blockBeyondFile(93);
  blockBeyondFile.calibrationBlock(kInclinometerText, 0xFFFFFFFF);
  const wchar_t* file = L"device.dat";

  // Cuts inside the first record and the sizes of known and unknown types are
  // held by the damaged-file tests.
  return {
      {"EndsAfterTheHeader", Header93().bytes(), file, 0, "", "", kV93, 93, kEmpty, 0},
      {"EndsInsideAType", Cut(twoRecords, oneRecord.size() + 10), file, 0, "", "", kV93, 93, kOneType8, 0},
      // Two bytes of 93 arrive over the caller's -5 (0xFFFFFFFB): 0xFFFF005D.
      {"EndsInsideTheVersion", Cut(oneRecord, 10), file, -1, kNoData, "device.dat", "Device version -65443\n", -65443,
       kEmpty, 0},
      {"CalibrationBlockLongerThanTheFile", blockBeyondFile.bytes(), file, -1, kNoData, "device.dat", kV93, 93, kEmpty,
       0},
      {"OtherSignature", DeviceFileBuilder(93, "#KVRCAMR").bytes(), file, -2, kBadSignature, "#KVRCAMR", "", -5, kEmpty,
       1},
      {"ShorterThanASignature", ByteWriter().text("#KVRDE").take(), file, -2, kBadSignature, "#KVRDE", "", -5, kEmpty,
       1},
      // The message shows the wide name's storage as narrow text: its first letter.
      {"Missing",
       {},
       L"missing.dat",
       -1,
       "Error opening file m (No such file or directory)",
       "missing.dat",
       "",
       -5,
       kEmpty,
       0},
  };
}

INSTANTIATE_TEST_SUITE_P(Files, DeviceDataFileDamage, ::testing::ValuesIn(DamageCases()),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace kvr
