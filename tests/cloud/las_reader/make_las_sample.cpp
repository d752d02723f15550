// Writes what the LAS reader test compares: DIR/scan.raw (eight synthetic
// blocks, up to four returns a shot, timed by DIR/Serial.dat), its points as
// DIR/points.las (coloured) and DIR/points.csv (the layer's CSV, for the
// colours), and DIR/columns.txt: the layer's columns, one point a line, every
// number in its shortest exact form.

#include <cstdio>
#include <filesystem>
#include <string>

#include "kvr_decode/cloud/las_writer.h"
#include "kvr_decode/cloud/point_reader.h"
#include "support/sample_scans.h"

namespace {

using namespace kvr;

constexpr auto Field = [](std::string& line, auto value) { test::AppendNumber(line, value); };

int Run(const std::filesystem::path& dir) {
  std::filesystem::create_directories(dir);
  writers::HeaderBlockFields fields = test::SampleFields();
  fields.idValue = 0xABCD1234;
  test::WriteSyntheticScan(dir / "scan.raw", fields, 20251125, 4, 8);
  test::WriteSampleTicks(dir / "Serial.dat");

  cloud::ScanOptions options;
  options.ticks = dir / "Serial.dat";
  const cloud::Scan scan(dir / "scan.raw", options);
  const cloud::Colouring colouring{cloud::FindPalette("viridis"), scan.map().intensityAt95, scan.map().gamma};
  cloud::LasWriter las(dir / "points.las", cloud::LasOptions::Of(scan, true), colouring);
  cloud::CsvWriter csv(dir / "points.csv", {}, colouring);
  std::FILE* columns = std::fopen((dir / "columns.txt").string().c_str(), "w");
  if (columns == nullptr) return 1;
  std::fputs("x y z range pan scanAngle intensity normalized returnNumber numberOfReturns line shotIndex time\n",
             columns);
  cloud::PointReader reader(scan);
  cloud::PointBatch batch;
  std::string line;
  while (reader.next(batch)) {
    las.write(batch);
    csv.write(batch);
    for (std::size_t i = 0; i < batch.size(); ++i) {
      line.clear();
      Field(line, batch.x()[i]), Field(line, batch.y()[i]), Field(line, batch.z()[i]);
      Field(line, batch.range()[i]), Field(line, batch.pan()[i]), Field(line, batch.scanAngle()[i]);
      Field(line, unsigned{batch.intensity()[i]}), Field(line, batch.normalizedIntensity()[i]);
      Field(line, unsigned{batch.returnNumber()[i]}), Field(line, unsigned{batch.numberOfReturns()[i]});
      Field(line, batch.line()[i]), Field(line, batch.shotIndex()[i]), Field(line, batch.time()[i]);
      line.back() = '\n';
      std::fputs(line.c_str(), columns);
    }
  }
  las.finish();
  csv.finish();
  return std::fclose(columns) == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) { return kvr::test::SampleMain(argc, argv, "make_las_sample", Run); }
