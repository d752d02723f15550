#include <filesystem>

#include "camera_source.h"
#include "errors.h"
#include "kvr_writers/byte_writer.h"
#include "kvr_writers/camera_file_writer.h"
#include "kvr_writers/device_file_writer.h"
#include "kvr_writers/tick_file_writer.h"
#include "tools/kvrscan_fixture.h"

namespace kvr::test {

using namespace writers;
namespace {

// Three pulses a second apart from 1e9 ticks, each followed by the ZDA sentence
// of its time, Tuesday 2020-01-28 14:30:07 on: time of week
// 2 x 86400 + 14 x 3600 + 30 x 60 + 7 = 225007 s for the first.
TickFileBuilder ThreePulses() {
  TickFileBuilder ticks;
  ticks.everySecond(1000000000, Utc(2020, 1, 28, 14, 30, 7), 3, [](UtcTime t) { return ZdaSentence(t); });
  return ticks;
}

TEST_F(KvrscanTest, TicksGivesEachPulseTheLibrarysTimeOfWeek) {
  TickFileBuilder ticks = ThreePulses();
  ticks.pulse(9000000000);  // no sentence follows it
  ticks.writeTo(path("Serial.dat"));
  const Json report = RunJson({"ticks", "Serial.dat", "--records"});
  EXPECT_EQ(report.at("version").get<std::int64_t>(), 1);
  EXPECT_EQ(report.at("num_pulses").get<std::int64_t>(), 4);
  EXPECT_EQ(report.at("num_sentences").get<std::int64_t>(), 3);
  EXPECT_EQ(report.at("sentences_by_kind").at("ZDA").get<std::int64_t>(), 3);
  EXPECT_EQ(report.at("pulses_with_time").get<std::int64_t>(), 3);
  const Json& pulses = report.at("pulses");
  ASSERT_EQ(pulses.size(), 4u);
  EXPECT_EQ(pulses[0].at("ticks").get<std::int64_t>(), 1000000000);
  EXPECT_EQ(pulses[0].at("time_of_week").get<double>(), 225007.0);
  EXPECT_EQ(pulses[2].at("time_of_week").get<double>(), 225009.0);
  EXPECT_EQ(pulses[3].at("time_of_week").get<double>(), -1.0);
  EXPECT_EQ(report.at("records").at(1).at("text").get<std::string>(), ZdaSentence(Utc(2020, 1, 28, 14, 30, 7)));

  const Json shifted = RunJson({"ticks", "Serial.dat", "--time-offset", "-7"});
  EXPECT_EQ(shifted.at("pulses").at(0).at("time_of_week").get<double>(), 225000.0);

  const ToolRun run = Run({"ticks", "Serial.dat"});
  EXPECT_EQ(run.status, 0);
  EXPECT_NE(run.out.find("  time of week            Tue 14:30:07.000 .. Tue 14:30:09.000"), std::string::npos)
      << run.out;
}

struct DamagedTicks {
  const char* name;
  std::vector<std::uint8_t> (*bytes)();
  const char* message;
};

std::vector<std::uint8_t> WrongSignature() { return TickFileBuilder(1, "#KVRDEVC").bytes(); }
std::vector<std::uint8_t> VersionZero() { return TickFileBuilder(0).bytes(); }
// The library would stop the process on this record; the tool refuses the file.
std::vector<std::uint8_t> OversizedSentence() {
  TickFileBuilder ticks = ThreePulses();
  ticks.sentenceWithLength(2000000000, 2000, "$GPZDA");
  return ticks.bytes();
}
// A file cut inside a length word: the library's reader would keep a length of
// the bytes that arrived over the last one (0x03FF -> 0xFFFF) and stop the process.
std::vector<std::uint8_t> CutInsideALengthWord() {
  TickFileBuilder ticks;
  ticks.sentence(10, std::string(1023, 'x'));
  std::vector<std::uint8_t> bytes = ticks.bytes();
  for (const std::uint8_t b : {0, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF}) {
    bytes.push_back(b);
  }
  return bytes;
}
std::vector<std::uint8_t> ZdaWithoutChecksumField() {
  TickFileBuilder ticks;
  ticks.pulse(100).sentence(200, "$GPZDA,143007.00,28,01,2020,00*6B\r\n");
  return ticks.bytes();
}
std::vector<std::uint8_t> CutShort() {
  std::vector<std::uint8_t> bytes = ThreePulses().bytes();
  bytes.resize(bytes.size() + 5, 0);
  return bytes;
}

class KvrscanDamagedTicks : public KvrscanTest, public ::testing::WithParamInterface<DamagedTicks> {};

TEST_P(KvrscanDamagedTicks, GiveOneLineAndStatusOne) {
  WriteFile(path("Serial.dat"), GetParam().bytes());
  ExpectOneLineError(Run({"ticks", "Serial.dat"}), 1, std::string("kvrscan ticks: Serial.dat: ") + GetParam().message,
                     "");
}

INSTANTIATE_TEST_SUITE_P(
    Files, KvrscanDamagedTicks,
    ::testing::Values(
        DamagedTicks{"WrongSignature", WrongSignature, "not a tick file: its signature is \"#KVRDEVC\""},
        DamagedTicks{"VersionZero", VersionZero, "tick file version 0 is not supported"},
        DamagedTicks{"OversizedSentence", OversizedSentence,
                     "the sentence record at offset 238 declares 2000 bytes of text (at most 1023)"},
        DamagedTicks{"CutInsideALengthWord", CutInsideALengthWord,
                     "the sentence record at offset 1063 declares 65535 bytes of text"},
        DamagedTicks{"ZdaWithoutChecksumField", ZdaWithoutChecksumField,
                     "malformed time sentence (invalid vector<T> subscript)"},
        DamagedTicks{"CutShort", CutShort, "the file ends inside a record (5 bytes after the last whole record)"}),
    [](const auto& info) { return std::string(info.param.name); });

// Calibration that makes a type 1 reading with raw values 0 1 0 0 2 0 tilt by
// asin(0.5) = 30 degrees about x: k = 2 vref / pga = 1, base = raw3 / alpha = 0,
// scale = raw4 beta = 2, x = raw1 / scale = 0.5, y = 0, det = 1.
const std::string kTiltCalibration = std::string("sxx=1\nsyy=1\nalpha=1\nbeta=1\nvref=1\npga=2\n") + '\0';

std::vector<std::uint8_t> Words(std::initializer_list<std::uint32_t> words) {
  ByteWriter out;
  for (const std::uint32_t word : words) out.u32(word);
  return out.take();
}

// A type 1 reading (raw 0 1 0 0 2 0), a type 2 reading and, one second after it,
// a type 7 reading, and a reading of an unknown type 12.
DeviceFileBuilder DeviceFile() {
  DeviceFileBuilder file(93);
  file.calibrationBlock(kTiltCalibration).calibrationBlock(std::string("declination=2.5\n") + '\0');
  file.record(100, 1, Words({0, 1, 0, 0, 2, 0}));
  file.record(1000, 2, Words({5, 0, 0, 0, 0, 0, 0}));                  // value, then a, b, c of 64 bits
  file.record(1000 + 50000000, 7, Words({0, 0, 0, 0, 0, 0, 0, 0, 0}));  // e0, d of 64 bits, e1 .. e6
  file.record(2000, 12, {1, 2, 3});
  return file;
}

TEST_F(KvrscanTest, DevicesReportsCalibrationReadingsAndDerivedValues) {
  WriteFile(path("dev.dat"), DeviceFile().bytes());
  const Json report = RunJson({"devices", "dev.dat", "--records"});
  EXPECT_EQ(report.at("version").get<std::int64_t>(), 93);
  EXPECT_EQ(report.at("inclinometerCalibration").at("pga").get<std::int64_t>(), 2);
  EXPECT_EQ(report.at("compassCalibration").at("declination").get<double>(), 2.5);
  EXPECT_EQ(report.at("counts").at("type1").get<std::int64_t>(), 1);
  EXPECT_EQ(report.at("counts").at("type7").get<std::int64_t>(), 1);
  EXPECT_EQ(report.at("counts").at("other").get<std::int64_t>(), 1);
  EXPECT_NEAR(report.at("type1Records").at(0).at("tiltX").get<double>(), 30.0, 1e-9);
  EXPECT_EQ(report.at("type1Records").at(0).at("tiltY").get<double>(), 0.0);
  EXPECT_EQ(report.at("type2Records").at(0).at("nearestType7").get<std::int64_t>(), 0);
  EXPECT_EQ(report.at("type7Records").at(0).at("time").get<std::int64_t>(), 50001000);

  const ToolRun run = Run({"devices", "dev.dat"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find("1 with a type 7 reading within 5 s"), std::string::npos) << run.out;
  EXPECT_EQ(run.out.find("Device version"), std::string::npos);  // the library's own note stays out
}

TEST_F(KvrscanTest, DevicesOnDamagedFiles) {
  WriteFile(path("other.dat"), DeviceFileBuilder(93, "#KVRCAMR").bytes());
  ExpectOneLineError(Run({"devices", "other.dat"}), 1,
                     "kvrscan devices: other.dat: not a device data file: its signature is \"#KVRCAMR\", expected "
                     "#KVRDEVC",
                     "");
  DeviceFileBuilder cut(93);
  cut.calibrationBlock(kTiltCalibration, 500);
  WriteFile(path("cut.dat"), cut.bytes());
  ExpectOneLineError(Run({"devices", "cut.dat"}), 1,
                     "kvrscan devices: cut.dat: header cut short: the file holds no readings", "KVR_Decode.log");
  std::vector<std::uint8_t> bytes = DeviceFile().bytes();
  bytes.resize(bytes.size() - 3 - 16 - 2);  // into the type 7 reading
  WriteFile(path("short.dat"), bytes);
  ExpectOneLineError(Run({"devices", "short.dat"}), 1,
                     "kvrscan devices: short.dat: the file ends inside reading 2 (type 7)", "");
}

CameraFileBuilder CameraFile() {
  CameraFileBuilder file({.timeStampFlag = 1, .text = "cam", .headerValue = 9});
  file.record({.timeStamp = 77, .values = {1, 2, 3, 4, 5, 6}, .image = ImageBytes("\xFF\xD8\xFF jpeg")});
  file.record({.timeStamp = 78, .image = ImageBytes("\x89PNG\r\n\x1A\n png")});
  return file;
}

TEST_F(KvrscanTest, CameraListsRecordsAndExtractsImages) {
  WriteFile(path("cam.dat"), CameraFile().bytes());
  const Json report = RunJson({"camera", "cam.dat", "-x", "images"});
  EXPECT_EQ(report.at("text").get<std::string>(), "cam");
  EXPECT_EQ(report.at("headerValue").get<std::int64_t>(), 9);
  ASSERT_EQ(report.at("num_records").get<std::int64_t>(), 2);
  EXPECT_EQ(report.at("records").at(0).at("timeStamp").get<std::int64_t>(), 77);
  EXPECT_EQ(report.at("records").at(0).at("recordValues").at(5).get<std::int64_t>(), 6);
  EXPECT_EQ(report.at("records").at(0).at("image_type").get<std::string>(), "jpg");
  EXPECT_EQ(report.at("records").at(1).at("imageSize").get<std::int64_t>(), 12);
  EXPECT_EQ(ReadFileText(path("images/image_0000.jpg")), "\xFF\xD8\xFF jpeg");
  EXPECT_EQ(ReadFileText(path("images/image_0001.png")), "\x89PNG\r\n\x1A\n png");
}

// An image that cannot be written ends the command with the images before it
// written whole, no temporary file left, and every stream it opened closed.
TEST_F(KvrscanTest, CameraExtractionFailureKeepsNoStreamOrPartFile) {
  WriteFile(path("cam.dat"), CameraFile().bytes());
  std::filesystem::create_directories(path("images/image_0001.png"));  // where the second image would go
  const auto openStreams = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); };
  const auto before = openStreams();
  EXPECT_THROW(kvrscan::ReadCameraContents("cam.dat", std::string("images")), kvrscan::ToolError);
  EXPECT_EQ(openStreams(), before);
  EXPECT_EQ(ReadFileText(path("images/image_0000.jpg")), "\xFF\xD8\xFF jpeg");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(path("images")), {}), 2);
  ExpectOneLineError(Run({"camera", "cam.dat", "-x", "images"}), 1,
                     "kvrscan camera: images/image_0001.png: cannot replace the file (Is a directory)", "");
}

TEST_F(KvrscanTest, CameraOnDamagedFiles) {
  WriteFile(path("dev.dat"), CameraFileBuilder({.signature = "#KVRDEVC"}).bytes());
  ExpectOneLineError(Run({"camera", "dev.dat"}), 1,
                     "kvrscan camera: dev.dat: not a camera file: its signature is \"#KVRDEVC\"", "KVR_Decode.log");
  WriteFile(path("text.dat"), CameraFileBuilder({.text = "abc", .statedTextLength = 4000}).bytes());
  ExpectOneLineError(Run({"camera", "text.dat"}), 1,
                     "kvrscan camera: text.dat: header cut short: its text needs 4020 bytes, the file has 23", "");
  CameraFileBuilder big = CameraFile();
  big.record({.image = ImageBytes("0123456789"), .statedImageSize = 4000000000u});
  WriteFile(path("big.dat"), big.bytes());
  const ToolRun run = Run({"camera", "big.dat"});
  ExpectOneLineError(run, 1,
                     "kvrscan camera: big.dat: record 2 declares an image of 4000000000 bytes; the file ends 10 bytes "
                     "after its header",
                     "");
  EXPECT_NE(run.out.find("2 records"), std::string::npos) << run.out;
}

}  // namespace
}  // namespace kvr::test
