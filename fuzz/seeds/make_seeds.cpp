// Writes the fuzz targets' seed inputs, made with the test builders, into
// <directory>/<target>/: a few valid files of every kind and a few damaged ones
// near the paths a fuzzer would otherwise take long to find.
//
//   kvr_fuzz_seeds fuzz/corpus        (make fuzz-seeds)

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "kvr_writers/byte_writer.h"
#include "kvr_writers/camera_file_writer.h"
#include "kvr_writers/device_file_writer.h"
#include "kvr_writers/fifo_block_writer.h"
#include "kvr_writers/synthetic_blocks.h"
#include "kvr_writers/map_file_writer.h"
#include "kvr_writers/header_texts.h"
#include "kvr_writers/scan_file_writer.h"
#include "support/temp_dir.h"
#include "kvr_writers/tick_file_writer.h"

namespace {

using namespace kvr::test;
using namespace kvr::writers;
using Bytes = std::vector<std::uint8_t>;

std::filesystem::path root;

void Seed(const char* target, const std::string& name, const Bytes& bytes) {
  const std::filesystem::path dir = root / target;
  std::filesystem::create_directories(dir);
  WriteFile(dir / name, bytes);
}

Bytes Concat(const Bytes& a, const Bytes& b) {
  Bytes out = a;
  out.insert(out.end(), b.begin(), b.end());
  return out;
}

Bytes TextBytes(const std::string& text) { return Bytes(text.begin(), text.end()); }

// Header blocks of the three models: sectioned texts, PRF tables, an optical model.
HeaderBlockFields Header(const char* magic, std::uint32_t layout, std::uint32_t prf) {
  HeaderBlockFields f;
  f.signature = magic;
  f.headerLayout = layout;
  f.prf = prf;
  f.dataOffset = 512;
  f.calibrationText = "gain = 2\n[PRF=50]\nrangeOffset = 0.5\n[PRF = 200]\nrangeOffset = 2.5\nlag 1 x 100\n"
                      "[PRF=500]\nrangeOffset = 5.5\nscanAngleLag = 3\n";
  f.parameterText = "[PRF = 50]\n1 a b 0.5 0.25\n[PRF = 200]\n1 a b 2 4\n2 a b 6 8\n[PRF = 500]\n1 a b 1 1\n";
  f.thirdText = OpticalModelText(R"(version="2")", {{"a0", "1.5"}, {"a1", "0.25"}, {"wobble-phi", "0.125"},
                                                    {"pan-a", "-3e-4"}, {"wobble-phi-s", "7"}},
                                 TextLayout::kIndented);
  if (layout == 0) f.fourthText = "fourth";
  return f;
}

void HeaderSeeds() {
  Seed("header_block_fuzz", "kvrscan_layout1", BuildHeaderBlock(Header("#KVRSCAN", 1, 200)));
  Seed("header_block_fuzz", "mx70dat_layout0", BuildHeaderBlock(Header("#MX70DAT", 0, 50)));
  HeaderBlockFields plain = Header("MX700DAT", 0, 500);
  plain.calibrationText = "rangeOffset = 1.5\nscanAngleLag = 1\n";
  plain.thirdText = OpticalModelText("", {{"a0", "2"}, {"wobble-phi", "0.5"}}, TextLayout::kCompact);
  Seed("header_block_fuzz", "mx700dat_unsectioned", BuildHeaderBlock(plain));
  Seed("header_block_fuzz", "undefined_prf", BuildHeaderBlock(Header("#KVRSCAN", 1, 100)));

  // Scan files: a 16-bit side table word (bit 15: present), the table, the file.
  const auto withTable = [](const std::string& table, const Bytes& scan) {
    ByteWriter out;
    out.u16(static_cast<std::uint16_t>(0x8000u | table.size())).text(table).append(scan);
    return out.take();
  };
  const auto withoutTable = [](const Bytes& scan) {
    ByteWriter out;
    out.u16(0).append(scan);
    return out.take();
  };
  Seed("scan_file_fuzz", "side_table",
       withTable(BuildSideTable({10, 12, 15}, {{5.0, 1, 2, 3}, {5.05, 4, 5, 6}}),
                 BuildScanFile(Header("#KVRSCAN", 1, 200))));
  Seed("scan_file_fuzz", "side_table_no_final_line_feed",
       withTable(BuildSideTable({-3}, {{0.5, 7}}, false), BuildScanFile(Header("MX700DAT", 0, 500))));
  Seed("scan_file_fuzz", "no_side_table", withoutTable(BuildScanFile(Header("#MX70DAT", 0, 50))));
}

Bytes SparseBlock(std::uint64_t timeStamp, std::uint32_t castNumber, std::uint32_t signature = kGoodBlockSignature) {
  FifoBlockBuilder block;
  block.signature(signature).timeStamp(timeStamp).castBlockNumber(castNumber);
  for (std::uint32_t i = 0; i < 24; ++i) {
    const std::uint32_t returns = i % 8;  // 5 to 7 declared, four stored
    std::vector<std::uint32_t> words;
    for (std::uint32_t k = 0; k < (returns < 4 ? returns : 4); ++k) words.push_back(ReturnWord(1000 + 37 * k, 900 + k));
    block.shot(ShotWord({.pan = 100 * i, .scan = 3000 + i, .returnCount = returns, .t0 = 500,
                         .flags = i % 5 == 0 ? 1u : 0u, .topBits = i < 12 ? 2u : 0u}),
               words);
  }
  return block.build();
}

void FifoSeeds() {
  // A full block of a synthetic scan: its last shots take the checked path.
  SyntheticScan scan(7, 500, 7);
  ByteWriter full;
  full.append(scan.NextBlock().build()).u32(500).f64(-1.0);
  Seed("fifo_block_fuzz", "full_block_500khz", full.take());

  // A shot count far beyond the shots present runs off the block.
  FifoBlockBuilder overstated;
  overstated.timeStamp(0xFF00000001).shotCount(8191);
  overstated.shot(ShotWord({.scan = 5, .returnCount = 2}), {ReturnWord(10, 4095), ReturnWord(20, 1)});
  ByteWriter runsOff;
  runsOff.append(overstated.build()).u32(200).f64(345600.25);
  Seed("fifo_block_fuzz", "overstated_shot_count", runsOff.take());
  Seed("fifo_block_fuzz", "sparse_block_no_trailer", SparseBlock(123456789, 3));

  // Walks: a control byte, then blocks (see fifo_walk_fuzz.cpp). The time stamps
  // lie among the walk's tick pairs.
  const Bytes blocks = FifoFile({SparseBlock(1000000000 + 25000000, 0), SparseBlock(1000000000 + 75000000, 1, 0x55555555),
                                 SparseBlock(1000000000 + 125000000, 2)},
                                100);
  Seed("fifo_walk_fuzz", "ten_pairs_200khz", Concat({0x01 | (1 << 2)}, blocks));
  Seed("fifo_walk_fuzz", "no_manager_dump_500khz", Concat({0x02 | 0x10}, blocks));
}

void TickSeeds() {
  const UtcTime start = Utc(2020, 1, 28, 14, 30, 7, 250);
  TickFileBuilder zda;
  zda.everySecond(50000000, start, 4, [](UtcTime t) { return ZdaSentence(t); });
  Seed("tick_file_fuzz", "zda", zda.bytes());

  // A week's end: Saturday 23:59:58 to Sunday 00:00:01.
  TickFileBuilder pps(7);
  pps.everySecond(10, Utc(2020, 2, 1, 23, 59, 58), 4, [](UtcTime t) { return PpsSentence(t, "GN"); });
  pps.sentence(999, "not a time line\r\n", 5);
  Seed("tick_file_fuzz", "pps_week_wrap", pps.bytes());

  TickFileBuilder utc(1, "#KVRSERL", 3600);  // the header word doubles as the target's time offset
  utc.everySecond(0, start, 3, [](UtcTime t) { return UtcLine(t); });
  utc.sentence(2, UtcLine(start, "?"));
  utc.pulse(1000);
  Seed("tick_file_fuzz", "utc_lines", utc.bytes());

  for (const auto& [name, text] : std::vector<std::pair<std::string, std::string>>{
           {"zda", ZdaSentence(start)},
           {"zda_other_talker", ZdaSentence(start, "IN")},
           {"zda_one_zone_field_missing", "$GPZDA,143007.25,28,01,2020,00*46\r\n"},
           {"pps", PpsSentence(start)},
           {"utc", UtcLine(start)},
           {"utc_no_fix", UtcLine(start, "?")},
       }) {
    Seed("nmea_sentence_fuzz", name, TextBytes(text));
  }
}

void DeviceSeeds() {
  DeviceFileBuilder v93(93);
  v93.calibrationBlock(DeviceCalibrationText({{"sxx", "1.01"}, {"syy", "0.99"}, {"sxy", "0.002"}, {"syx", "-0.001"},
                                        {"offnomx", "0.1"}, {"offnomy", "-0.2"}, {"alpha", "2.5"}, {"beta", "0.5"},
                                        {"vref", "2.5"}, {"pga", "4"}}))
      .calibrationBlock(DeviceCalibrationText({{"xsf", "1"}, {"ysf", "1"}, {"declination", "3.5"}}));
  v93.reading(DeviceReading1{.time = 100, .raw = {1, 2000, -2000, 300, 4, 5}})
      .reading(DeviceReading2{.time = 250000000, .a = 1, .b = 2, .c = 3, .value = 4})
      .reading(DeviceReading3{.time = 300, .w = {1, 2, 3, 4, 5}})
      .reading(DeviceReading4{.time = 400, .values = {6, 7}})
      .reading(DeviceReading5{.time = 500, .values = {1, 2, 3, 4, 5, 6}})
      .reading(DeviceReading5{.time = 600, .values = {6, 5, 4, 3, 2, 1}}, 6)
      .reading(DeviceReading7{.time = 100000000, .d = 9, .e = {1, 2, 3, 4, 5, 6, 7}})
      .reading(DeviceReading7{.time = 400000000, .d = 8, .e = {7, 6, 5, 4, 3, 2, 1}})
      .reading(DeviceReading8{.time = 800, .value = 8})
      .record(900, 12, {1, 2, 3});
  Seed("device_data_fuzz", "version93_every_type", v93.bytes());

  DeviceFileBuilder v92(92);
  v92.reading(DeviceReading2{.time = 5, .value = 1}).reading(DeviceReading7{.time = 7});
  Seed("device_data_fuzz", "version92", v92.bytes());
}

void CameraSeeds() {
  CameraFileBuilder stamped({.timeStampFlag = 1, .text = "camera 1"});
  stamped.record({.timeStamp = 1234, .values = {1, 2, 3, 4, 5, 6}, .image = ImageBytes("JFIF image")})
      .record({.timeStamp = 5678, .image = {}});
  Seed("camera_file_fuzz", "time_stamps", stamped.bytes());

  CameraFileBuilder plain({.timeStampFlag = 0, .text = "", .headerValue = 7});
  plain.record({.values = {9, 8, 7, 6, 5, 4}, .image = ImageBytes("raw")});
  Seed("camera_file_fuzz", "no_time_stamps", plain.bytes());
}

// A block of shots whose scan direction turns every `lineLength` shots, each
// with returns near and far (some out of the intensity model's range), and an
// event mark now and then.
FifoBlockBuilder LineBlock(std::uint64_t timeStamp, std::uint32_t firstShot, std::uint32_t lineLength) {
  FifoBlockBuilder block;
  block.timeStamp(timeStamp);
  for (std::uint32_t i = 0; i < 60; ++i) {
    const std::uint32_t shot = firstShot + i;
    const std::uint32_t returns = shot % 3;
    std::vector<std::uint32_t> words;
    for (std::uint32_t k = 0; k < returns; ++k) words.push_back(ReturnWord(1000 + 400 * (k + 1) + shot, 200 + 900 * k));
    block.shot(ShotWord({.pan = shot, .scan = (shot * 97) % 4096, .returnCount = returns, .t0 = 1000,
                         .flags = shot % 17 == 0 ? 2u : 0u, .topBits = (shot / lineLength) % 2 == 0 ? 2u : 0u}),
               words);
  }
  return block;
}

void MapSeeds() {
  // Maps of scans: a 16-bit word (bit 15: a parameter file exists), its text, the scan file.
  const auto withParameters = [](const std::string& text, const Bytes& scan) {
    ByteWriter out;
    out.u16(static_cast<std::uint16_t>(0x8000u | text.size())).text(text).append(scan);
    return out.take();
  };
  HeaderBlockFields kvrscan = Header("#KVRSCAN", 1, 200);
  const Bytes blocks = FifoFile({LineBlock(1000, 0, 7).build(), LineBlock(13000, 60, 7).build()}, 50);
  Seed("map_build_fuzz", "kvrscan_with_parameters",
       withParameters("a1 = 210\nnumberOfBins = 2048\ngamma\t0.7\na5=5.5\n", BuildScanFile(kvrscan, blocks)));
  HeaderBlockFields mx700 = Header("MX700DAT", 0, 500);
  ByteWriter noParameters;
  noParameters.u16(0).append(BuildScanFile(mx700, FifoFile({LineBlock(5, 0, 25).build()})));
  Seed("map_build_fuzz", "mx700dat_encoder_lines", noParameters.take());

  MapFileContents c;
  c.currentLineFlag = 1;
  c.maxShotsPerLine = 8;
  c.numberOfScanLines = 3;
  c.maxReturnsPerShot = 2;
  c.dataStartOffset = 512;
  c.blockCount = 2;
  c.maxShotsPerBlock = 60;
  c.scanFileName = "s";
  c.entries = {{-1, 0, 0, -1, 5, {}, {}}, {0, 0, 5, 0, 7, {3}, {}}, {1, 0, 12, 1, 7, {}, {}}, {2, 1, 19, 0, 0, {}, {}}};
  c.header.dataOffset = 512;
  c.header.texts[0].bytes = "rangeOffset = 1.5";
  c.header.texts[2].bytes = "<a0>1</a0>";
  c.binWidth = c.trailingBinWidth = 0.25;
  c.minimum = c.maximumSlot = 3.5;
  c.validSampleCount = 77;
  c.returnCounts = {40, 20, 0, 0};
  Seed("map_load_fuzz", "version2", BuildMapFile(c));
  c.signature = "#KVRMAPX";  // an old map: no version, counts or trailing bin width
  c.numberOfBins = 2;
  c.binValues = {0.5, 0.25, 0.125, 0.0625};
  Seed("map_load_fuzz", "no_signature_with_bins", BuildMapFile(c));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s <corpus directory>\n", argv[0]);
    return 2;
  }
  root = argv[1];
  HeaderSeeds();
  FifoSeeds();
  TickSeeds();
  DeviceSeeds();
  CameraSeeds();
  MapSeeds();
  return 0;
}
