// Writes what the LAZ reader test compares: scans in DIR, and each case's points
// twice, as CASE.las by the LAS writer and as CASE.laz by the LAZ writer (same
// options and creation day), plus CASE.threads.laz written on several threads.
// One more case, "every_field", varies the fields our scans keep constant
// (classification, flags, user data, point source, odd return numbers, GPS time
// jumping between sequences, colours channel by channel): its records are the
// LAS export's with those fields changed, compressed by the writer's chunk
// encoder behind the writer's own header. DIR/cases.txt lists the cases.

#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "kvr_decode/cloud/las_writer.h"
#include "kvr_decode/cloud/laz_writer.h"
#include "kvr_decode/cloud/point_reader.h"
#include "support/sample_scans.h"
#include "kvr_writers/byte_writer.h"
#include "kvr_writers/fifo_block_writer.h"
#include "laz_chunk_encoder.h"
#include "laz_chunk_table.h"
#include "support/temp_dir.h"

namespace {

using namespace kvr;
namespace fs = std::filesystem;

// One shot with one return.
fs::path WriteOnePointScan(const fs::path& dir) {
  const writers::HeaderBlockFields header = test::SampleFields();
  writers::FifoBlockBuilder block;
  block.timeStamp(50000000).shot(writers::ShotWord({1234, 131072, 1, 100, 0, 0}), {writers::ReturnWord(868, 500)});
  writers::ByteWriter data;
  data.append(block.build());
  const fs::path path = dir / "one.raw";
  test::WriteFile(path, writers::BuildScanFile(header, data.bytes()));
  return path;
}

fs::path WriteSyntheticScan(const fs::path& dir, const std::string& name, std::uint32_t maxReturns, int blocks) {
  writers::HeaderBlockFields fields = test::SampleFields();
  fields.idValue = 0xABCD1234;
  const fs::path path = dir / (name + ".raw");
  test::WriteSyntheticScan(path, fields, 20251125 + maxReturns, maxReturns, blocks);
  return path;
}

std::uint64_t CountPoints(const cloud::Scan& scan) {
  cloud::PointReader reader(scan);
  cloud::PointBatch batch;
  std::uint64_t count = 0;
  while (reader.next(batch)) count += batch.size();
  return count;
}

struct Case {
  std::string name;
  fs::path scan;
  bool colour, time;
  std::uint32_t chunkSize;  // 0: as many points as the scan has
};

void WriteCase(const fs::path& dir, const Case& c, std::FILE* list) {
  cloud::ScanOptions options;
  if (c.time) options.ticks = dir / "Serial.dat";
  const cloud::Scan scan(c.scan, options);
  const cloud::Colouring colouring{cloud::FindPalette("viridis"), scan.map().intensityAt95, scan.map().gamma};
  cloud::LasOptions las = cloud::LasOptions::Of(scan, c.colour);
  las.creationDay = {{329, 2025}};
  cloud::LazOptions laz;
  laz.chunkSize = c.chunkSize != 0 ? c.chunkSize : static_cast<std::uint32_t>(CountPoints(scan));
  cloud::LazOptions threaded = laz;
  threaded.threads = 3;
  cloud::LasWriter lasWriter(dir / (c.name + ".las"), las, colouring);
  cloud::LazWriter lazWriter(dir / (c.name + ".laz"), las, colouring, laz);
  cloud::LazWriter threadedWriter(dir / (c.name + ".threads.laz"), las, colouring, threaded);
  cloud::PointReader reader(scan);
  cloud::PointBatch batch;
  while (reader.next(batch)) {
    lasWriter.write(batch);
    lazWriter.write(batch);
    threadedWriter.write(batch);
  }
  lasWriter.finish();
  lazWriter.finish();
  threadedWriter.finish();
  std::fprintf(list, "%s %u %d %d\n", c.name.c_str(), laz.chunkSize, c.colour ? 1 : 0, c.time ? 1 : 0);
}

// A GPS time for point i: mostly steps of one shot period, with repeats, steps
// of many periods, backward steps, two interleaved sequences far apart, huge
// jumps, and the odd -0 and NaN.
double TimeOf(std::size_t i, std::mt19937& random, double& t) {
  const std::uint32_t draw = random() % 100;
  if (draw < 60) {
    t += 0.0001;
  } else if (draw < 70) {
    // the same time again
  } else if (draw < 78) {
    t += 0.0001 * (2 + random() % 700);
  } else if (draw < 83) {
    t -= 0.0001 * (1 + random() % 20);
  } else if (draw < 93) {
    return 1.0e9 + static_cast<double>(i) * 0.001;  // another sequence
  } else if (draw < 97) {
    t = static_cast<double>(random() % 600000);
  } else if (draw < 98) {
    return -0.0;
  } else if (draw < 99) {
    return std::nan("");
  } else {
    t = 0.0;
  }
  return t;
}

// The LAS file's records with every field varied, as CASE.las, and compressed
// in chunks of chunkSize as CASE.laz (CASE.threads.laz the same).
void WriteEveryFieldCase(const fs::path& dir, const std::string& name, const fs::path& from, std::uint32_t chunkSize,
                         std::FILE* list) {
  std::vector<std::uint8_t> las = test::ReadFileBytes(dir / (from.string() + ".las"));
  const std::vector<std::uint8_t> lazSource = test::ReadFileBytes(dir / (from.string() + ".laz"));
  std::uint32_t lasOffset, lazOffset;
  std::memcpy(&lasOffset, &las[96], 4);
  std::memcpy(&lazOffset, &lazSource[96], 4);
  const std::size_t length = las[105] | (las[106] << 8);
  const bool colour = las[104] == 7;
  const std::size_t count = (las.size() - lasOffset) / length;
  std::mt19937 random(42);
  double t = 300000.0;
  for (std::size_t i = 0; i < count; ++i) {
    std::uint8_t* r = &las[lasOffset + i * length];
    if (random() % 4 == 0) r[14] = static_cast<std::uint8_t>(random());   // any return of any count, 0 too
    r[15] = static_cast<std::uint8_t>(random() % 8 == 0 ? random() & 0xCF : 0);  // scanner channel 0
    r[16] = static_cast<std::uint8_t>(random() % 10 == 0 ? random() : i / 500 % 7);
    r[17] = static_cast<std::uint8_t>(random() % 3 == 0 ? random() : 9);
    if (random() % 5 == 0) std::memcpy(r + 18, &i, 2);
    const std::uint16_t source = static_cast<std::uint16_t>(i / 1000 * 7919 + (random() % 50 == 0 ? 1 : 0));
    std::memcpy(r + 20, &source, 2);
    const double time = TimeOf(i, random, t);
    std::memcpy(r + 22, &time, 8);
    if (colour && random() % 3 == 0) r[30 + random() % 6] = static_cast<std::uint8_t>(random());
    if (random() % 7 == 0) r[length - 1 - random() % 32] ^= static_cast<std::uint8_t>(random());
  }
  test::WriteFile(dir / (name + ".las"), las);
  std::vector<std::uint8_t> out(lazSource.begin(), lazSource.begin() + lazOffset + 8);
  std::memcpy(&out[lasOffset + 54 + 12], &chunkSize, 4);  // the LASzip record follows the Extra Bytes one
  cloud::laz::ChunkEncoder encoder(colour, 32);
  std::vector<std::uint32_t> sizes;
  std::vector<std::uint8_t> chunk;
  for (std::size_t first = 0; first < count; first += chunkSize) {
    const std::size_t points = std::min<std::size_t>(chunkSize, count - first);
    encoder.encode(&las[lasOffset + first * length], points, chunk);
    out.insert(out.end(), chunk.begin(), chunk.end());
    sizes.push_back(static_cast<std::uint32_t>(chunk.size()));
  }
  const std::uint64_t tableAt = out.size();
  std::memcpy(&out[lazOffset], &tableAt, 8);
  const std::vector<std::uint8_t> table = cloud::laz::ChunkTable(sizes);
  out.insert(out.end(), table.begin(), table.end());
  test::WriteFile(dir / (name + ".laz"), out);
  test::WriteFile(dir / (name + ".threads.laz"), out);
  std::fprintf(list, "%s %u %d 1\n", name.c_str(), chunkSize, colour ? 1 : 0);
}

int Run(const fs::path& dir) {
  fs::create_directories(dir);
  test::WriteSampleTicks(dir / "Serial.dat");
  const fs::path one = WriteOnePointScan(dir);
  const fs::path single = WriteSyntheticScan(dir, "single", 1, 6);
  const fs::path multi = WriteSyntheticScan(dir, "multi", 4, 12);
  const Case cases[] = {
      {"one_point", one, false, false, 50000},
      {"one_point_colour_time", one, true, true, 50000},
      {"one_chunk_single_returns_colour_time", single, true, true, 0},
      {"many_chunks_multiple_returns_time", multi, false, true, 997},
      {"many_chunks_multiple_returns_colour", multi, true, false, 1500},
      {"chunks_of_one_point", single, true, true, 1},
      {"default_chunks_multiple_returns_colour_time", multi, true, true, 50000},
  };
  std::FILE* list = std::fopen((dir / "cases.txt").string().c_str(), "w");
  if (list == nullptr) return 1;
  for (const Case& c : cases) WriteCase(dir, c, list);
  WriteEveryFieldCase(dir, "every_field_colour", "many_chunks_multiple_returns_colour", 3000, list);
  WriteEveryFieldCase(dir, "every_field", "many_chunks_multiple_returns_time", 50000, list);
  return std::fclose(list) == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) { return kvr::test::SampleMain(argc, argv, "make_laz_sample", Run); }
