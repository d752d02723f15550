// Writes what the LAZ reader test compares: scans in DIR, and each case's points
// twice, as CASE.las by the LAS writer and as CASE.laz by the LAZ writer (same
// options and creation day), plus CASE.threads.laz written on several threads.
// DIR/cases.txt lists the cases.

#include <cstdio>
#include <filesystem>
#include <string>

#include "kvr_decode/cloud/las_writer.h"
#include "kvr_decode/cloud/laz_writer.h"
#include "kvr_decode/cloud/point_reader.h"
#include "kvr_writers/byte_writer.h"
#include "kvr_writers/fifo_block_writer.h"
#include "kvr_writers/scan_file_writer.h"
#include "kvr_writers/synthetic_blocks.h"
#include "kvr_writers/tick_file_writer.h"
#include "support/temp_dir.h"

namespace {

using namespace kvr;
namespace fs = std::filesystem;

// One shot with one return.
fs::path WriteOnePointScan(const fs::path& dir) {
  writers::HeaderBlockFields header;
  header.calibrationText = "rangeOffset = 0.5\n";
  writers::FifoBlockBuilder block;
  block.timeStamp(50000000).shot(writers::ShotWord({1234, 131072, 1, 100, 0, 0}), {writers::ReturnWord(868, 500)});
  writers::ByteWriter data;
  data.append(block.build());
  const fs::path path = dir / "one.raw";
  test::WriteFile(path, writers::BuildScanFile(header, data.bytes()));
  return path;
}

fs::path WriteSyntheticScan(const fs::path& dir, const std::string& name, std::uint32_t maxReturns, int blocks) {
  writers::HeaderBlockFields fields;
  fields.calibrationText = "rangeOffset = 0.5\n";
  fields.idValue = 0xABCD1234;
  const fs::path path = dir / (name + ".raw");
  writers::ScanFileWriter file(path, fields);
  writers::SyntheticScan synthetic(20251125 + maxReturns, 200, maxReturns);
  for (int b = 0; b < blocks; ++b) file.writeBlock(synthetic.NextBlock().build());
  file.close();
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

int Run(const fs::path& dir) {
  fs::create_directories(dir);
  // Synthetic blocks are stamped from 123,456,789 ticks on; pulses every second from 1 s cover them.
  writers::TickFileBuilder ticks;
  ticks.everySecond(50000000, writers::Utc(2025, 11, 25, 9, 0, 0), 6,
                    [](writers::UtcTime t) { return writers::ZdaSentence(t); });
  ticks.writeTo(dir / "Serial.dat");
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
  return std::fclose(list) == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: make_laz_sample DIR\n");
    return 2;
  }
  try {
    return Run(argv[1]);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "make_laz_sample: %s\n", error.what());
    return 1;
  }
}
