#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <numbers>
#include <string>
#include <vector>

#include "e57_format.h"
#include "file_access.h"
#include "kvr_decode/cloud/e57_reader.h"
#include "kvr_decode/cloud/e57_writer.h"
#include "kvr_decode/cloud/error.h"
#include "kvr_decode/cloud/point_reader.h"
#include "kvr_writers/fifo_block_writer.h"
#include "kvr_writers/scan_file_writer.h"
#include "kvr_writers/tick_file_writer.h"
#include "support/temp_dir_test_base.h"

namespace kvr::test {

using namespace writers;
namespace e57 = cloud::e57;
namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes Of(std::string_view text) { return Bytes(text.begin(), text.end()); }

// RFC 3720's check values and the common "123456789" one.
TEST(E57Checksum, MatchesPublishedCrc32cValues) {
  const struct {
    Bytes bytes;
    std::uint32_t crc;
  } cases[] = {
      {Of("123456789"), 0xE3069283u},
      {Bytes(32, 0x00), 0x8A9136AAu},
      {Bytes(32, 0xFF), 0x62A8AB43u},
      {[] {
         Bytes b(32);
         for (int i = 0; i < 32; ++i) b[i] = static_cast<std::uint8_t>(i);
         return b;
       }(),
       0x46DD794Eu},
      {{}, 0x00000000u},
  };
  for (const auto& c : cases) EXPECT_EQ(e57::Crc32c(c.bytes), c.crc) << c.bytes.size();
}

Bytes Drained(e57::BitStream& stream, bool all) {
  Bytes out;
  stream.drain(out, all);
  return out;
}

TEST(E57BitPacking, PacksValuesFromTheLowBitOnAcrossWords) {
  // 5 in 3 bits, 1 in 1, 0x3FF in 10: 1 0 1 | 1 | 1111111111 from bit 0 on.
  e57::BitStream a;
  a.put(5, 3), a.put(1, 1), a.put(0x3FF, 10);
  EXPECT_EQ(Drained(a, true), (Bytes{0xFD, 0x3F}));
  // 60 zero bits then 0xAB: bits 60 to 67 straddle the first word.
  e57::BitStream b;
  b.put(0, 60), b.put(0xAB, 8);
  EXPECT_EQ(Drained(b, true), (Bytes{0, 0, 0, 0, 0, 0, 0, 0xB0, 0x0A}));
  // Whole bytes leave; the partial one waits for the next packet.
  e57::BitStream c;
  c.put(0x1FF, 9);
  EXPECT_EQ(Drained(c, false), (Bytes{0xFF}));
  c.put(0x7F, 7);
  EXPECT_EQ(Drained(c, false), (Bytes{0xFF}));
  c.put(1, 1);
  EXPECT_EQ(Drained(c, false), Bytes{});
  EXPECT_EQ(Drained(c, true), (Bytes{0x01}));
  // Zeros, in runs longer than a put takes.
  e57::BitStream z;
  z.put(1, 1), z.putZeros(100), z.put(1, 1);
  EXPECT_EQ(Drained(z, true), (Bytes{0x01, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x20}));
  // A word as it lies (doubles).
  e57::BitStream d;
  d.putWord(std::bit_cast<std::uint64_t>(1.0));
  EXPECT_EQ(Drained(d, false), (Bytes{0, 0, 0, 0, 0, 0, 0xF0, 0x3F}));
}

TEST(E57BitPacking, BitsAreTheFewestTheLimitsNeed) {
  const struct {
    std::int64_t minimum, maximum;
    unsigned bits;
  } cases[] = {{0, 0, 0}, {0, 1, 1}, {0, 2, 2}, {0, 3, 2}, {0, 4, 3}, {0, 4095, 12}, {0, 4096, 13},
               {-1, 0, 1}, {-1, 1, 2}, {-20000000, 20000000, 26}, {1, 4, 2}};
  for (const auto& c : cases) EXPECT_EQ(e57::BitsFor(c.minimum, c.maximum), c.bits) << c.minimum << ".." << c.maximum;
}

class E57Layout : public InTempDir {};

TEST_F(E57Layout, PagesEndInTheirBigEndianChecksumAndKeptPlacesArePatched) {
  EXPECT_EQ(e57::PhysicalOf(1019), 1019u);
  EXPECT_EQ(e57::PhysicalOf(1020), 1024u);
  EXPECT_EQ(e57::PhysicalOf(2041), 2049u);
  EXPECT_EQ(e57::LogicalOf(2049), 2041u);
  {
    cloud::OutputFile out(path("paged.bin"));
    e57::PagedWriter pages(out);
    pages.keep(0, 4);
    pages.write(Bytes(1021, 0x01));
    EXPECT_EQ(pages.physical(), 1025u);
    pages.keep(1019, 2);  // across the page boundary: kept from here, page 0 already gone
    pages.patch(1020, Of("B"));  // the current page
    pages.patch(0, Of("AAAA"));
    pages.align4();
    EXPECT_EQ(pages.logical(), 1024u);
    EXPECT_EQ(pages.finish(), 2048u);
    out.commit();
  }
  const Bytes file = ReadFileBytes(path("paged.bin"));
  ASSERT_EQ(file.size(), 2048u);
  Bytes first(1020, 0x01);
  std::memcpy(first.data(), "AAAA", 4);
  EXPECT_TRUE(std::equal(first.begin(), first.end(), file.begin()));
  const std::uint32_t crc = e57::Crc32c(first);
  EXPECT_EQ((Bytes(file.begin() + 1020, file.begin() + 1024)),
            (Bytes{std::uint8_t(crc >> 24), std::uint8_t(crc >> 16), std::uint8_t(crc >> 8), std::uint8_t(crc)}));
  Bytes second(1020, 0);
  second[0] = 'B';
  EXPECT_TRUE(std::equal(second.begin(), second.end(), file.begin() + 1024));
  EXPECT_EQ(e57::Crc32c({file.data() + 1024, 1020}), std::uint32_t(file[2044]) << 24 | file[2045] << 16 | file[2046] << 8 | file[2047]);
}

TEST_F(E57Layout, SectionHeaderPacketAndStreamsLieAsWorkedOut) {
  {
    cloud::OutputFile out(path("section.bin"));
    e57::PagedWriter pages(out);
    pages.zeros(4);
    e57::VectorSection section(pages, 2);
    section.streams()[0].put(3, 2), section.streams()[0].put(1, 2);  // 0b0111
    section.streams()[1].putWord(0x0807060504030201u);
    section.finish();
    EXPECT_EQ(section.offset(), 4u);
    pages.finish();
    out.commit();
  }
  const Bytes file = ReadFileBytes(path("section.bin"));
  // Section: id 1, 7 reserved, logical length 32 + 20, data at 36, no index.
  const Bytes section = {1, 0, 0, 0, 0, 0, 0, 0, 52, 0, 0, 0, 0, 0, 0, 0, 36, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(Bytes(file.begin() + 4, file.begin() + 36), section);
  // Packet: type 1, flags 0, length 20 - 1, 2 streams of 1 and 8 bytes, the bytes, 1 byte of padding.
  const Bytes packet = {1, 0, 19, 0, 2, 0, 1, 0, 8, 0, 0x07, 1, 2, 3, 4, 5, 6, 7, 8, 0};
  EXPECT_EQ(Bytes(file.begin() + 36, file.begin() + 56), packet);
}

TEST(E57Images, KindsSizesAndNetpbmAsPng) {
  EXPECT_STREQ(cloud::ImageKindOf(Bytes{0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'}), "png");
  EXPECT_STREQ(cloud::ImageKindOf(Bytes{0xFF, 0xD8, 0xFF, 0xE1}), "jpeg");
  EXPECT_STREQ(cloud::ImageKindOf(Of("P6\n1 1\n255\n")), "");
  EXPECT_STREQ(cloud::ImageKindOf(Bytes{0xFF, 0xD8}), "");
  // A 2 x 3 grey image with a comment: PNG of width 2, height 3, 8-bit grey (colour type 0).
  const auto grey = cloud::NetpbmAsPng(Of("P5\n# note\n2 3\n255\nabcdef"));
  ASSERT_TRUE(grey);
  EXPECT_STREQ(cloud::ImageKindOf(*grey), "png");
  EXPECT_EQ(Bytes(grey->begin() + 16, grey->begin() + 26), (Bytes{0, 0, 0, 2, 0, 0, 0, 3, 8, 0}));
  const auto colour = cloud::NetpbmAsPng(Of("P6 1 1 15 " + std::string("\x0F\x00\x07", 3)));
  ASSERT_TRUE(colour);
  EXPECT_EQ((*colour)[25], 2);  // RGB
  for (const std::string bad : {"P3\n1 1\n255\n1 2 3", "P5\n2 2\n255\nabc", "P5\n0 2\n255\n", "P5\n1 1\n65535\nab",
                                "P5\n1 1\n", "P7\n1 1\n255\na"}) {
    EXPECT_FALSE(cloud::NetpbmAsPng(Of(bad))) << bad;
  }
}

// One block at 1,025,000,000 ticks: ten shots, T0 at 100 counts, one return
// each at 1100 counts except shot 5, which has three (1100, 1500, 2100).
// Direction bits 0 0 | 1 1 1 | 0 0 0 | 1 1 make lines -1 -1 0 0 0 1 1 1 2 2.
struct ShotPlan {
  std::uint32_t pan, scan, direction;
};
constexpr ShotPlan kShots[] = {{0, 1100, 0},  {0, 1200, 0},  {10, 1000, 1}, {10, 1100, 1}, {10, 1200, 1},
                               {20, 1200, 0}, {20, 1100, 0}, {20, 1000, 0}, {30, 1000, 1}, {30, 1100, 1}};

class E57WriterTest : public InTempDir {
 protected:
  void WriteScan() {
    FifoBlockBuilder block;
    block.timeStamp(1025000000);
    for (std::uint32_t i = 0; i < 10; ++i) {
      const ShotPlan& s = kShots[i];
      const std::vector<std::uint32_t> returns =
          i == 5 ? std::vector<std::uint32_t>{ReturnWord(1100, 300), ReturnWord(1500, 4095), ReturnWord(2100, 7)}
                 : std::vector<std::uint32_t>{ReturnWord(1100, 50 * (i + 1))};
      block.shot(ShotWord({s.pan, s.scan, static_cast<std::uint32_t>(returns.size()), 100, 0, s.direction * 2}),
                 returns);
    }
    HeaderBlockFields fields;
    fields.calibrationText = "rangeOffset = 0.5\n";
    fields.idText1 = "model X";
    fields.idText2 = "S/N 1234";
    fields.idText3 = "firmware 9.8";
    WriteFile(path("scan.raw"), FifoFile({block.build()}, 0, BuildScanFile(fields)));
    TickFileBuilder ticks;
    ticks.everySecond(1000000000, Utc(2020, 1, 28, 14, 30, 7), 2, [](UtcTime t) { return ZdaSentence(t); });
    ticks.writeTo(path("Serial.dat"));
  }

  // The scan, timed or not, as the scans of one file.
  void Export(const std::vector<bool>& timed) {
    WriteScan();
    cloud::E57Writer writer(path("scan.e57"));
    for (const bool ticks : timed) {
      cloud::ScanOptions options;
      if (ticks) options.ticks = path("Serial.dat");
      const cloud::Scan scan(path("scan.raw"), options);
      writer.beginScan(cloud::E57ScanInfo::Of(scan));
      cloud::Selection selection;
      selection.columns = cloud::E57Writer::kColumns;
      cloud::PointReader reader(scan, selection);
      while (reader.next(batch_)) writer.write(batch_);
      writer.endScan();
    }
    writer.finish();
  }

  std::int64_t Field(const std::vector<std::vector<std::int64_t>>& values, const cloud::E57ScanSummary& scan,
                     std::string_view name, std::size_t point) {
    for (std::size_t f = 0; f < scan.fields.size(); ++f) {
      if (scan.fields[f].name == name) return values[f].at(point);
    }
    ADD_FAILURE() << "no field " << name;
    return 0;
  }

  cloud::PointBatch batch_;
};

TEST_F(E57WriterTest, PointsCarryPositionRowColumnReturnAndTime) {
  Export({true, false});
  const cloud::E57Summary file = cloud::ReadE57Summary(path("scan.e57"));
  ASSERT_EQ(file.scans.size(), 2u);
  EXPECT_NE(file.scans[0].guid, file.scans[1].guid);
  for (int timed = 0; timed < 2; ++timed) {
    const cloud::E57ScanSummary& scan = file.scans[1 - timed];
    SCOPED_TRACE(timed);
    EXPECT_EQ(scan.name, "scan.raw");
    EXPECT_EQ(scan.points, 12u);
    EXPECT_EQ(scan.groups, 4u);
    const auto values = cloud::ReadE57Fields(path("scan.e57"), scan);
    const std::int64_t rows[12] = {0, 1, 0, 1, 2, 0, 0, 0, 1, 2, 0, 1};
    const std::int64_t columns[12] = {-1, -1, 0, 0, 0, 1, 1, 1, 1, 1, 2, 2};
    for (std::size_t p = 0; p < 12; ++p) {
      EXPECT_EQ(Field(values, scan, "rowIndex", p), rows[p]) << p;
      EXPECT_EQ(Field(values, scan, "columnIndex", p), columns[p]) << p;
      EXPECT_EQ(Field(values, scan, "returnIndex", p), p >= 5 && p <= 7 ? std::int64_t(p - 5) : 0) << p;
      EXPECT_EQ(Field(values, scan, "returnCount", p), p >= 5 && p <= 7 ? 3 : 1) << p;
      EXPECT_EQ(Field(values, scan, "isTimeStampInvalid", p), timed ? 0 : 1) << p;
      EXPECT_EQ(Field(values, scan, "cartesianInvalidState", p), 0) << p;
    }
    // Point 6: 1400 counts after T0 (r 3.2316840503926887 m), pan 20 counts,
    // scan count 1200 (-44.5880126953125 degrees), intensity 4095.
    EXPECT_EQ(Field(values, scan, "cartesianX", 6), 23015);
    EXPECT_EQ(Field(values, scan, "cartesianY", 6), 5);
    EXPECT_EQ(Field(values, scan, "cartesianZ", 6), -22687);
    EXPECT_EQ(Field(values, scan, "sphericalRange", 6), 32317);
    EXPECT_EQ(Field(values, scan, "intensity", 6), 4095);
    EXPECT_NEAR(std::bit_cast<double>(Field(values, scan, "sphericalElevation", 6)), -44.5880126953125 * std::numbers::pi / 180, 1e-12);
    if (timed) {
      EXPECT_NEAR(std::bit_cast<double>(Field(values, scan, "timeStamp", 6)), 225007.500025, 1e-9);
    }
  }
  EXPECT_NE(file.xml.find("<sensorSerialNumber type=\"String\"><![CDATA[1234]]>"), std::string::npos);
  EXPECT_NE(file.xml.find("<sensorFirmwareVersion type=\"String\"><![CDATA[9.8]]>"), std::string::npos);
  // Lines of 2, 3, 3 and 2 shots: rows up to 2.
  EXPECT_NE(file.xml.find("<rowIndex type=\"Integer\" minimum=\"0\" maximum=\"2\"/>"), std::string::npos);
  EXPECT_NE(file.xml.find("<columnIndex type=\"Integer\" minimum=\"-1\" maximum=\"2\"/>"), std::string::npos);
  EXPECT_NE(file.xml.find("<intensity type=\"Integer\" minimum=\"0\" maximum=\"4095\"/>"), std::string::npos);
}

TEST_F(E57WriterTest, AnglesPastTheZenithOrNadirLookTheOtherWayRound) {
  // A full-circle scanner (90 degrees per 65536 scan counts); pan 0.0005625 degrees a count.
  const struct {
    std::uint32_t pan, scan;
    double elevation, azimuth;  // degrees
  } cases[] = {{0, 0, 0, 0},        {0, 49152, 67.5, 0},  {0, 81920, 67.5, 180}, {0, 131072, 0, 180},
               {0, 163840, -45, 180}, {0, 229376, -45, 0}, {480000, 0, 0, -90},   {160000, 98304, 45, -90}};
  FifoBlockBuilder block;
  for (const auto& c : cases) block.shot(ShotWord({c.pan, c.scan, 1, 100, 0, 0}), {ReturnWord(1100, 10)});
  HeaderBlockFields fields;
  fields.signature = "MX700DAT";
  fields.calibrationText = "rangeOffset = 0.5\n";  // without it the default offset makes the ranges negative
  WriteFile(path("scan.raw"), FifoFile({block.build()}, 0, BuildScanFile(fields)));
  const cloud::Scan scan(path("scan.raw"));
  {
    cloud::E57Writer writer(path("scan.e57"));
    writer.beginScan(cloud::E57ScanInfo::Of(scan));
    cloud::Selection selection;
    selection.columns = cloud::E57Writer::kColumns;
    cloud::PointReader reader(scan, selection);
    while (reader.next(batch_)) writer.write(batch_);
    writer.finish();
  }
  const cloud::E57Summary file = cloud::ReadE57Summary(path("scan.e57"));
  ASSERT_EQ(file.scans.size(), 1u);
  const auto values = cloud::ReadE57Fields(path("scan.e57"), file.scans[0]);
  constexpr double kDegree = std::numbers::pi / 180;
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    const double el = std::bit_cast<double>(Field(values, file.scans[0], "sphericalElevation", i));
    const double az = std::bit_cast<double>(Field(values, file.scans[0], "sphericalAzimuth", i));
    EXPECT_NEAR(el, cases[i].elevation * kDegree, 1e-12) << i;
    EXPECT_NEAR(az, cases[i].azimuth * kDegree, 1e-12) << i;
  }
}

TEST_F(E57WriterTest, PointsBeyondTheReachOrAnUnwritableOutputLeaveNoFile) {
  WriteScan();
  const cloud::Scan scan(path("scan.raw"));
  EXPECT_THROW(cloud::E57Writer(path("absent/scan.e57")), cloud::OutputError);
  EXPECT_FALSE(std::filesystem::exists(path("absent")));
  cloud::E57ScanInfo info = cloud::E57ScanInfo::Of(scan);
  info.reach = 3.0;  // point 7 lies 4.0 m away
  {
    cloud::E57Writer writer(path("scan.e57"));
    writer.beginScan(info);
    cloud::Selection selection;
    selection.columns = cloud::E57Writer::kColumns;
    cloud::PointReader reader(scan, selection);
    ASSERT_TRUE(reader.next(batch_));
    EXPECT_THROW(writer.write(batch_), cloud::OutputError);
    EXPECT_THROW(writer.addImage({"image", Bytes{0xFF, 0xD8, 0xFF}, {}}), cloud::OutputError);
  }
  EXPECT_FALSE(std::filesystem::exists(path("scan.e57")));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir()), std::filesystem::directory_iterator()), 2);
}

}  // namespace
}  // namespace kvr::test
