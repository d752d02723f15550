// The writers lay out each format as the decoder expects it; expected bytes are
// worked out by hand from the formats.
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "kvr_writers/camera_file_writer.h"
#include "kvr_writers/device_file_writer.h"
#include "kvr_writers/fifo_block_writer.h"
#include "kvr_writers/file_output.h"
#include "kvr_writers/header_texts.h"
#include "kvr_writers/normalization_params_writer.h"
#include "kvr_writers/scan_file_writer.h"
#include "kvr_writers/tick_file_writer.h"
#include "support/temp_dir.h"

namespace kvr::writers {
namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes Hex(const std::string& text) {
  Bytes bytes;
  for (std::size_t i = 0; i + 1 < text.size();) {
    if (text[i] == ' ') {
      ++i;
      continue;
    }
    bytes.push_back(static_cast<std::uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
    i += 2;
  }
  return bytes;
}

Bytes Text(const std::string& text) { return {text.begin(), text.end()}; }

Bytes Cat(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& p : parts) all.insert(all.end(), p.begin(), p.end());
  return all;
}

std::uint32_t U32At(const Bytes& b, std::size_t at) {
  return b[at] | b[at + 1] << 8 | b[at + 2] << 16 | static_cast<std::uint32_t>(b[at + 3]) << 24;
}

struct WordCase {
  const char* name;
  ShotFields fields;
  std::uint64_t word;
};

class ShotWordFields : public testing::TestWithParam<WordCase> {};

TEST_P(ShotWordFields, LandInTheirBits) { EXPECT_EQ(ShotWord(GetParam().fields), GetParam().word); }

INSTANTIATE_TEST_SUITE_P(Writers, ShotWordFields,
                         testing::Values(WordCase{"Pan", {.pan = 0xFFFFF}, 0x00000000000FFFFF},
                                         WordCase{"Scan", {.scan = 0x3FFFF}, 0x0000003FFFF00000},
                                         WordCase{"ReturnCount", {.returnCount = 7}, 0x000001C000000000},
                                         WordCase{"T0", {.t0 = 0xFFFF}, 0x01FFFE0000000000},
                                         WordCase{"Flags", {.flags = 0xF}, 0x1E00000000000000},
                                         WordCase{"TopBits", {.topBits = 7}, 0xE000000000000000},
                                         WordCase{"WideFieldsAreCut",
                                                  {.pan = 0x100001, .scan = 0x40002, .returnCount = 9},
                                                  0x0000004000200001},
                                         WordCase{"All", {0x12345, 0x2ABCD, 2, 0x1234, 5, 2}, 0x4A2468AABCD12345}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(ReturnWordWriter, PutsTheTimeCountLowAndTheIntensityHigh) {
  EXPECT_EQ(ReturnWord(0xABCDE, 0x123), 0x123ABCDEu);
  EXPECT_EQ(ReturnWord(0x1FFFFF, 0x1FFF), 0xFFFFFFFFu);
}

TEST(FifoBlockWriter, PacksRecordsBehindTheHeader) {
  FifoBlockWriter block;
  const std::uint32_t returns[] = {0x11223344, 0x55667788};
  block.addShot(0x0102030405060708, returns);
  block.addShot(0x1112131415161718, {});
  EXPECT_EQ(block.offset(), 12u + 16 + 8);
  EXPECT_EQ(block.shotsAdded(), 2u);
  const auto bytes = block.finish({.timeStamp = 0xAB12345678, .castBlockNumber = 0xDA5});
  ASSERT_EQ(bytes.size(), 65536u);
  EXPECT_EQ(Bytes(bytes.begin(), bytes.begin() + 44),
            Hex("AAAAAAAA 78563412 ABA51500"  // stamp byte 0xAB, cast 0x5A5, two shots
                "0807060504030201 44332211 88776655 1817161514131211 00000000 00000000"));
}

TEST(FifoBlockWriter, HeaderCutsEveryFieldToItsWidth) {
  FifoBlockWriter block;
  const auto bytes =
      block.finish({.signature = 0x55555555, .timeStamp = 0xAB12345678, .castBlockNumber = 0xDA5}, 0x3234);
  EXPECT_EQ(Bytes(bytes.begin(), bytes.begin() + 12), Hex("55555555 78563412 aba5a591"));
}

TEST(FifoBlockWriter, FitsARecordThatEndsExactlyAtTheEndAndClipsOneThatRunsOver) {
  FifoBlockWriter block;
  while (block.offset() + 24 <= 65536 - 8) block.addShot(1, {});
  const std::size_t room = 65536 - block.offset();
  EXPECT_TRUE(block.fits((room - 8) / 4));
  EXPECT_FALSE(block.fits((room - 8) / 4 + 1));
  block.clear();
  EXPECT_EQ(block.offset(), 12u);
  EXPECT_EQ(block.shotsAdded(), 0u);
  while (block.offset() < 65532) block.addShot(0x0102030405060708, {});
  ASSERT_EQ(block.offset(), 65532u);
  block.addShot(0x0102030405060708, {});
  const auto bytes = block.finish({});
  EXPECT_EQ(Bytes(bytes.end() - 4, bytes.end()), Hex("08070605"));
  EXPECT_EQ(block.offset(), 65540u);
}

TEST(FifoBlockBuilder, BuildsTheSameBytesAsTheWriterAndRemembersItsShots) {
  FifoBlockWriter writer;
  const std::uint32_t returns[] = {7};
  writer.addShot(ShotWord({.returnCount = 1}), returns);
  const auto expected = writer.finish({.timeStamp = 99, .castBlockNumber = 3}, 5);
  FifoBlockBuilder builder;
  builder.timeStamp(99).castBlockNumber(3).shotCount(5).shot(ShotWord({.returnCount = 1}), {7});
  EXPECT_EQ(builder.build(), Bytes(expected.begin(), expected.end()));
  ASSERT_EQ(builder.shots().size(), 1u);
  EXPECT_EQ(builder.shots()[0].returns, std::vector<std::uint32_t>{7});
}

TEST(HeaderBlockWriter, LaysTheFixedFieldsAtTheirOffsetsAndTheTextsBehind) {
  HeaderBlockFields f;
  f.signature = "MX700DAT";
  f.headerLayout = 0;
  f.dataOffset = 0x12345;
  f.headerWords = {1, 2, 3};
  f.idText1 = "first";
  f.idValue = 0xCAFE;
  f.idText4 = std::string(50, 'x');  // cut to 40
  f.scanWord0 = 4;
  f.scanStartAngle = 1.0f;
  f.lineRate = -2.0f;
  f.prf = 500;
  f.scanTailWords[12] = 0xEE;
  f.calibrationText = "cal";
  f.parameterText = "";
  f.thirdText = "third";
  f.fourthText = "4";
  f.parameterTextLength = 9;
  const Bytes b = BuildHeaderBlock(f);
  ASSERT_EQ(b.size(), 276u + 4 + 3 + 4 + 0 + 4 + 5 + 4 + 1);
  EXPECT_EQ(Bytes(b.begin(), b.begin() + 8), Text("MX700DAT"));
  EXPECT_EQ(U32At(b, 8), 0u);
  EXPECT_EQ(U32At(b, 12), 0x12345u);
  EXPECT_EQ(U32At(b, 20), 2u);
  EXPECT_EQ(Bytes(b.begin() + 28, b.begin() + 34), Hex("6669727374 00"));
  EXPECT_EQ(U32At(b, 68), 0xCAFEu);
  EXPECT_EQ(b[152 + 39], 'x');
  EXPECT_EQ(U32At(b, 192), 4u);
  EXPECT_EQ(U32At(b, 196), 0x3F800000u);  // 1.0f
  EXPECT_EQ(U32At(b, 216), 0xC0000000u);  // -2.0f
  EXPECT_EQ(U32At(b, 220), 500u);
  EXPECT_EQ(U32At(b, 272), 0xEEu);
  EXPECT_EQ(Bytes(b.begin() + 276, b.end()), Cat({Hex("03000000"), Text("cal"), Hex("09000000"), Hex("05000000"),
                                                  Text("third"), Hex("01000000"), Text("4")}));
}

TEST(ScanFileWriter, PadsTheHeaderToTheDataOffsetWhetherBuiltOrStreamed) {
  test::TempDir dir;
  HeaderBlockFields f;
  f.dataOffset = 300;
  f.calibrationText = "c";
  FifoBlockWriter block;
  block.addShot(42, {});
  const auto blockBytes = block.finish({});
  const Bytes data(blockBytes.begin(), blockBytes.end());
  const Bytes built = BuildScanFile(f, data);
  ASSERT_EQ(built.size(), 300u + 65536);
  EXPECT_EQ(Bytes(built.begin() + 289, built.begin() + 300), Bytes(11, 0));
  {
    ScanFileWriter streamed(dir / "scan.raw", f);
    streamed.writeBlock(data);
    EXPECT_EQ(streamed.size(), built.size());
    streamed.close();
  }
  EXPECT_EQ(test::ReadFileBytes(dir / "scan.raw"), built);
  // A data offset inside the header adds nothing.
  f.dataOffset = 8;
  EXPECT_EQ(BuildScanFile(f).size(), 276u + 4 + 1 + 8);
}

TEST(HeaderTextWriters, WriteSectionsRowsAndTagsAsTheParsersReadThem) {
  EXPECT_EQ(ScanCalibrationText({{"serial", 12}}, {{50, {{"rangeOffset", -13.25}}, {{25.0, 1.5e-05}}}}),
            "serial = 12\n[PRF = 50]\nrangeOffset = -13.25\nscanAngleLag = 1.5e-05 lineRate = 25\n");
  EXPECT_EQ(ParameterText({{200, {{0.5, 0.25}, {1.0, 2.0}}}, {50, {}}}),
            "[PRF = 200]\n0 0 0 0.5 0.25\n1 0 0 1 2\n[PRF = 50]\n");
  EXPECT_EQ(OpticalModelText("version=\"2\"", {{"a0", "1.5"}}, TextLayout::kCompact),
            "<calibration_parameters version=\"2\"><a0>1.5</a0></calibration_parameters>");
  EXPECT_EQ(OpticalModelText("", {{"a0", "1.5"}, {"a1", "1"}}, TextLayout::kLines),
            "<?xml version=\"1.0\"?>\n<calibration_parameters>\n  <a0>1.5</a0>\n  <a1>1</a1>\n</calibration_parameters>\n");
  EXPECT_EQ(BuildSideTable({10, 12}, {{5.0, 1, 3}, {5.05, 2, 4.5}}), "row 10 12\n5 1 3\n5.05 2 4.5\n");
  EXPECT_EQ(BuildSideTable({1}, {{0.1, 2}}, false, "range"), "range 1\n0.1 2");
  EXPECT_EQ(NormalizationParamsText({.a1 = 200.0, .a5 = 6.1, .numberOfBins = 2048, .gamma = 0.7}),
            "a1 = 200\na5 = 6.1\nnumberOfBins = 2048\ngamma = 0.7\n");
  EXPECT_EQ(NormalizationParamsText({}), "");
}

TEST(TickFileWriter, WritesPulseAndSentenceRecords) {
  TickFileBuilder file(7, "#KVRSERL", 9);
  file.pulse(0x1122334455667788).sentence(5, "AB", 3).sentenceWithLength(6, 1024, "");
  EXPECT_EQ(file.bytes(), Cat({Text("#KVRSERL"), Hex("07000000 09000000"), Hex("8877665544332211 01000000"),
                               Hex("0500000000000000 03000000 00000000 00000000 02000000"), Text("AB"),
                               Hex("0600000000000000 02000000 00000000 00000000 00040000")}));
}

TEST(TickFileWriter, SentencesCarryTheirChecksum) {
  const UtcTime t = Utc(2020, 1, 28, 14, 30, 7, 250);
  EXPECT_EQ(ZdaSentence(t), "$GPZDA,143007.25,28,01,2020,00,00*6B\r\n");
  EXPECT_EQ(NmeaSentence("GPZDA,143007.00,28,01,2020,00,00"), "$GPZDA,143007.00,28,01,2020,00,00*6C\r\n");
  EXPECT_EQ(UtcLine(t), "UTC 20/01/28 14:30:07 1\r\n");
  // 2020-01-28 is a Tuesday.
  EXPECT_EQ(PpsSentence(t, "GN").substr(0, 27), "$GNPPS,143007.250,2,1,0,0,0");
}

TEST(DeviceFileWriter, WritesPayloadsInFileOrder) {
  DeviceFileBuilder file(93);
  file.calibrationBlock(DeviceCalibrationText({{"alpha", "2.5"}}))
      .calibrationBlock("", 3)
      .reading(DeviceReading1{.time = 1, .raw = {-1, 2, 3, 4, 5, 6}})
      .reading(DeviceReading2{.time = 2, .a = 0x0102030405060708, .b = 2, .c = 3, .value = 9})
      .reading(DeviceReading3{.time = 3, .w = {1, 2, 3, 4, 5}})
      .reading(DeviceReading5{.time = 4, .values = {1, 2, 3, 4, 5, 6}}, 6)
      .reading(DeviceReading7{.time = 5, .d = 0xAA, .e = {10, 11, 12, 13, 14, 15, 16}})
      .record(6, 9, {0xEE}, 100);
  EXPECT_EQ(file.bytes(),
            Cat({Text("#KVRDEVC"), Hex("5D000000"), Hex("0B000000"), Text("alpha=2.5\n"), Hex("00"), Hex("03000000"),
                 Hex("0100000000000000 01000000 18000000 FFFFFFFF 02000000 03000000 04000000 05000000 06000000"),
                 Hex("0200000000000000 02000000 1C000000 09000000 0807060504030201 0200000000000000 "
                     "0300000000000000"),
                 Hex("0300000000000000 03000000 14000000 01000000 05000000 02000000 03000000 04000000"),
                 Hex("0400000000000000 06000000 18000000 01000000 02000000 03000000 04000000 05000000 06000000"),
                 Hex("0500000000000000 07000000 24000000 0A000000 AA00000000000000 0B000000 0C000000 0D000000 "
                     "0E000000 0F000000 10000000"),
                 Hex("0600000000000000 09000000 64000000 EE")}));
}

TEST(CameraFileWriter, WritesTimeStampsOnlyWhenTheHeaderSaysSo) {
  const CameraRecordFields record{
      .timeStamp = 0x0102030405060708, .values = {1, 2, 3, 4, 5, 6}, .image = ImageBytes("xyz")};
  CameraFileBuilder plain({.timeStampFlag = 0, .text = "hi", .headerValue = 7});
  plain.record(record);
  EXPECT_EQ(plain.bytes(), Cat({Text("#KVRCAMR"), Hex("00000000 02000000"), Text("hi"), Hex("07000000"),
                                Hex("01000000 02000000 03000000 04000000 05000000 06000000 03000000"), Text("xyz")}));
  CameraFileBuilder stamped({.timeStampFlag = 1, .statedTextLength = 5});
  stamped.record(record);
  EXPECT_EQ(stamped.bytes(), Cat({Text("#KVRCAMR"), Hex("01000000 05000000 00000000"), Hex("0807060504030201"),
                                  Hex("01000000 02000000 03000000 04000000 05000000 06000000 03000000"), Text("xyz")}));
}

TEST(FileOutputWriter, StreamsPiecesAndZeros) {
  test::TempDir dir;
  StreamingFile file(dir / "out.bin");
  file.writeZeros(5000);
  file.write(Hex("010203"));
  EXPECT_EQ(file.size(), 5003u);
  file.close();
  file.close();  // a second close does nothing
  Bytes expected(5000, 0);
  expected.insert(expected.end(), {1, 2, 3});
  EXPECT_EQ(test::ReadFileBytes(dir / "out.bin"), expected);
  EXPECT_THROW(file.write(Hex("04")), std::runtime_error);
}

TEST(FileOutputWriter, FailuresNameTheFile) {
  test::TempDir dir;
  const std::filesystem::path missing = dir / "no such directory" / "out.bin";
  try {
    WriteTextFile(missing, "x");
    ADD_FAILURE() << "no exception";
  } catch (const std::runtime_error& e) {
    EXPECT_EQ(std::string(e.what()), missing.string() + ": cannot create (No such file or directory)");
  }
  EXPECT_THROW(WriteBinaryFile(dir.path(), Hex("00")), std::runtime_error);  // a directory
  EXPECT_FALSE(std::filesystem::exists(missing));
  // An unfinished file leaves the previous one and nothing else.
  WriteTextFile(dir / "kept.txt", "previous");
  { StreamingFile(dir / "kept.txt").write(Hex("0102")); }
  EXPECT_EQ(test::ReadFileText(dir / "kept.txt"), "previous");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1);
}

}  // namespace
}  // namespace kvr::writers
