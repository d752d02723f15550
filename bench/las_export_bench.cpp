// LAS export against PLY export of the same scan, in the same run: the 256 MiB
// synthetic scan (return counts drawn from 0-4) is read through a PointReader
// and written to a real file, once as PLY, once as LAS: in /tmp (a disk) or
// /dev/shm (tmpfs). The scan is
// made once (the export benchmark's file) and read whole before timing, so
// every pass reads from the page cache; its map is built once, outside the
// timing. Each iteration times one PLY export, then one LAS export, each up to
// its file's rename; the files are removed between passes, outside the timing.
//
// LasAgainstPly/colour:0 writes point format 6 (62 bytes a point against PLY's
// 31), colour:1 format 7 with the palette's colours as the PLY has them (68
// bytes). Counters: ratio_wall = LAS / PLY in wall-clock time (the goal: at
// most 1), ply_s and las_s per pass, points_per_s of the LAS export.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <ctime>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "kvr_decode/cloud/las_writer.h"
#include "kvr_decode/cloud/point_reader.h"
#include "kvr_writers/scan_file_writer.h"
#include "kvr_writers/synthetic_blocks.h"

namespace {

constexpr std::size_t kBlocks = 4096;  // 256 MiB
constexpr const char* kScanPath = "/tmp/kvrscan_export_bench_v1.raw";
// Where the files go: a disk (the page cache writes back behind the export) or tmpfs.
constexpr const char* kOutputDirectories[] = {"/tmp", "/dev/shm"};

double Wall() {
  timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

// The export benchmark's scan: the same header, seed and blocks.
void EnsureScan() {
  static const bool ready = [] {
    kvr::writers::HeaderBlockFields fields;
    fields.calibrationText = "rangeOffset = 0.5\n";
    const std::vector<std::uint8_t> header = kvr::writers::BuildScanFile(fields);
    std::error_code ec;
    if (std::filesystem::file_size(kScanPath, ec) != header.size() + kBlocks * 65536) {
      const std::string partial = std::string(kScanPath) + ".las.part";
      kvr::writers::ScanFileWriter out(partial, fields);
      kvr::writers::SyntheticScan scan(20240601, 200, 4);
      for (std::size_t b = 0; b < kBlocks; ++b) out.writeBlock(scan.NextBlock().build());
      out.close();
      std::filesystem::rename(partial, kScanPath);
    }
    std::vector<char> buffer(1 << 20);
    std::FILE* in = std::fopen(kScanPath, "rb");
    if (in == nullptr) throw std::runtime_error(std::string("cannot read ") + kScanPath);
    while (std::fread(buffer.data(), 1, buffer.size(), in) > 0) {
    }
    std::fclose(in);
    return true;
  }();
  benchmark::DoNotOptimize(ready);
}

// Every point of the scan through the writer; seconds to the file's rename.
double Export(const kvr::cloud::Scan& scan, kvr::cloud::PointWriter& writer, std::uint32_t columns,
              kvr::cloud::PointBatch& batch, double start) {
  kvr::cloud::Selection selection;
  selection.columns = columns;
  kvr::cloud::PointReader reader(scan, selection);
  while (reader.next(batch)) writer.write(batch);
  writer.finish();
  return Wall() - start;
}

void LasAgainstPly(benchmark::State& state) {
  EnsureScan();
  const bool colour = state.range(0) != 0;
  const std::string directory = kOutputDirectories[state.range(1)];
  const std::string plyPath = directory + "/kvr_las_bench.ply", lasPath = directory + "/kvr_las_bench.las";
  const kvr::cloud::Scan scan(kScanPath);
  const kvr::cloud::Colouring colouring{nullptr, scan.map().intensityAt95, scan.map().gamma};
  const kvr::cloud::LasOptions options = kvr::cloud::LasOptions::Of(scan, colour);
  kvr::cloud::PointBatch batch;
  double ply = 0.0, las = 0.0;
  std::uint64_t points = 0;
  for (auto _ : state) {
    double start = Wall();
    kvr::cloud::PlyWriter plyWriter(plyPath, {}, colouring);
    ply += Export(scan, plyWriter, kvr::cloud::PointWriter::kColumns, batch, start);
    start = Wall();
    kvr::cloud::LasWriter lasWriter(lasPath, options, colouring);
    const double seconds = Export(scan, lasWriter, kvr::cloud::LasWriter::kColumns, batch, start);
    las += seconds;
    points += lasWriter.count();
    state.SetIterationTime(seconds);
    state.PauseTiming();
    std::filesystem::remove(plyPath);
    std::filesystem::remove(lasPath);
    state.ResumeTiming();
  }
  const double passes = static_cast<double>(state.iterations());
  state.counters["ratio_wall"] = las / ply;
  state.counters["ply_s"] = ply / passes;
  state.counters["las_s"] = las / passes;
  state.counters["points_per_s"] = static_cast<double>(points) / las;
}
BENCHMARK(LasAgainstPly)
    ->ArgNames({"colour", "tmpfs"})
    ->ArgsProduct({{0, 1}, {0, 1}})
    ->UseManualTime()
    ->Iterations(3)
    ->Unit(benchmark::kSecond);

}  // namespace
