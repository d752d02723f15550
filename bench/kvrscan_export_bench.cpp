// kvrscan export against the plain decode walk, in the same run, on the same
// scan: a 256 MiB synthetic scan (return counts drawn from 0-4) with a header,
// generated once into /tmp and read whole before timing so that every pass reads
// from the page cache. The map is built once, outside the timing, as
// `export --map` loads it. Each iteration times one walk, then one export.
//
// ReadPoints: a PointReader making every point, against the walk.
// ExportPoints/threads:N exports to /dev/null, which pays for every point but
// not for a file's pages; ExportToTmpfs/threads:N writes a real PLY file into
// /dev/shm, which adds the kernel's copy of 31 bytes a point. Counters:
// ratio_wall = export / walk in wall-clock time (what a user waits; the speed
// goal is at most 2); ratio_cpu = the same in CPU time (all of the export's
// threads against the walk's one); points_per_s and bytes_per_s (of scan read)
// of the export in wall-clock time. ExportWithMap*: the same with the map built
// in the timing (an export without --map, end to end).

#include <benchmark/benchmark.h>

#include "synthetic_scan_file.h"

#include <algorithm>
#include <ctime>
#include <thread>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "kvr_decode/fifo_block.h"
#include "kvr_simulator/scan_set.h"
#include "kvr_decode/cloud/point_reader.h"
#include "point_export.h"
#include "scan_source.h"
#include "kvr_writers/fifo_block_writer.h"
#include "kvr_writers/synthetic_blocks.h"
#include "kvr_writers/scan_file_writer.h"
#include "support/temp_dir.h"

namespace {

using kvr::bench::Cpu;
using kvr::bench::kBlocks;
using kvr::bench::kScanPath;
using kvr::bench::Wall;



void EnsureScan() { kvr::bench::EnsureSyntheticScan(); }

// The plain walk: every block through DecodeNextFifoBlock. Returns the shots.
std::uint64_t WalkPass(kvrscan::ScanSource& scan, FifoBlock& block) {
  scan.rewindToData();
  std::uint64_t shots = 0;
  for (int n = 0;; ++n) {
    const int result = DecodeNextFifoBlock(scan.stream(), scan.header(), n, block, nullptr);
    if (result == -1) break;
    block.flaggedShots.clear();
    if (result > 0) shots += static_cast<std::uint64_t>(result);
    benchmark::DoNotOptimize(block.shots.data());
  }
  return shots;
}

// The simulated room as the demo scans it (mostly one return a shot, ranges
// that follow the walls), made as long as the synthetic scan: what real work
// looks like, beside the synthetic scan's worst case for the point making.
constexpr const char* kRoomDirectory = "/tmp/kvrscan_export_bench_room_v1";

std::string EnsureRoomScan() {
  static const std::string path = [] {
    const std::filesystem::path scan = std::filesystem::path(kRoomDirectory) / "scan.raw";
    std::error_code ec;
    if (!std::filesystem::exists(scan, ec)) {
      kvr::sim::SimulationOptions options;
      options.lines = kvr::sim::LinesForScanBytes(options, kBlocks * 65536);
      kvr::sim::WriteScanSet(kRoomDirectory, options);
    }
    std::vector<char> buffer(1 << 20);
    std::FILE* in = std::fopen(scan.c_str(), "rb");
    while (std::fread(buffer.data(), 1, buffer.size(), in) > 0) {
    }
    std::fclose(in);
    return scan.string();
  }();
  return path;
}

// The export as `kvrscan export` runs it. With withMap, the map is built in
// every iteration, as an export without --map does; otherwise it is built once,
// outside the timing, as `export --map` loads it.
void RunExportBenchmark(benchmark::State& state, const std::string& scanPath, const std::string& output,
                        bool withMap = false) {
  kvrscan::ScanSource scan(scanPath);
  scan.scan().map();
  const kvr::cloud::Colouring colouring{kvr::cloud::FindPalette("grey"), scan.scan().map().intensityAt95,
                                        scan.scan().map().gamma};
  const auto threads = static_cast<unsigned>(state.range(0));
  FifoBlock block;
  double walkCpu = 0.0, walkWall = 0.0, exportCpu = 0.0, exportWall = 0.0;
  std::uint64_t points = 0;
  for (auto _ : state) {
    const double walkCpuStart = Cpu(), walkWallStart = Wall();
    benchmark::DoNotOptimize(WalkPass(scan, block));
    walkCpu += Cpu() - walkCpuStart;
    walkWall += Wall() - walkWallStart;
    const double cpuStart = Cpu(), wallStart = Wall();
    std::unique_ptr<kvr::cloud::Scan> own;
    const kvr::cloud::Scan* source = &scan.scan();
    if (withMap) {
      own = std::make_unique<kvr::cloud::Scan>(scanPath);
      own->map();
      source = own.get();
    }
    kvr::cloud::WriterSettings settings;
    settings.colouring = colouring;
    auto writer = kvr::cloud::OpenPointWriter(output, kvr::cloud::PointFormat::kPly, settings);
    points += kvrscan::ExportPoints(*source, threads, nullptr, *writer, nullptr).points;
    writer->finish();
    exportCpu += Cpu() - cpuStart;
    const double wall = Wall() - wallStart;
    exportWall += wall;
    state.SetIterationTime(wall);
  }
  std::error_code ec;
  if (output != "/dev/null") std::filesystem::remove(output, ec);
  const double iterations = static_cast<double>(state.iterations());
  state.counters["ratio_wall"] = exportWall / walkWall;
  state.counters["ratio_cpu"] = exportCpu / walkCpu;
  state.counters["points_per_s"] = static_cast<double>(points) / exportWall;
  state.counters["bytes_per_s"] = iterations * static_cast<double>(scan.wholeBlocks()) * 65536.0 / exportWall;
}

void ExportPoints(benchmark::State& state) {
  EnsureScan();
  RunExportBenchmark(state, kScanPath, "/dev/null");
}
void ExportToTmpfs(benchmark::State& state) {
  EnsureScan();
  RunExportBenchmark(state, kScanPath, "/dev/shm/kvrscan_export_bench.ply");
}
void ExportRoom(benchmark::State& state) { RunExportBenchmark(state, EnsureRoomScan(), "/dev/null"); }
// End to end: the map built too, as `kvrscan export SCAN -o OUT` without --map.
void ExportWithMap(benchmark::State& state) {
  EnsureScan();
  RunExportBenchmark(state, kScanPath, "/dev/null", true);
}
void ExportWithMapToTmpfs(benchmark::State& state) {
  EnsureScan();
  RunExportBenchmark(state, kScanPath, "/dev/shm/kvrscan_export_bench.ply", true);
}

// PointReader making every point of the scan, one thread, against the walk in
// the same run: ratio = reader / walk (CPU time); ns_per_point of the reader.
void ReadPoints(benchmark::State& state) {
  EnsureScan();
  kvrscan::ScanSource scan(kScanPath);
  scan.scan().map();
  FifoBlock block;
  double walk = 0.0, read = 0.0;
  std::uint64_t points = 0;
  kvr::cloud::PointBatch batch;
  for (auto _ : state) {
    const double walkStart = Cpu();
    benchmark::DoNotOptimize(WalkPass(scan, block));
    walk += Cpu() - walkStart;
    const double start = Cpu();
    kvr::cloud::PointReader reader(scan.scan());
    while (reader.next(batch)) {
      points += batch.size();
      benchmark::DoNotOptimize(batch.x().data());
    }
    const double seconds = Cpu() - start;
    read += seconds;
    state.SetIterationTime(seconds);
  }
  state.counters["ratio"] = read / walk;
  state.counters["ns_per_point"] = read * 1e9 / static_cast<double>(points);
}
BENCHMARK(ReadPoints)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(3)->Repetitions(5)
    ->ReportAggregatesOnly(true);

// One thread, and the tool's default on this machine: one maker per processor.
void Threads(benchmark::internal::Benchmark* b) {
  b->Arg(1);
  const auto processors = static_cast<std::int64_t>(std::max(1u, std::thread::hardware_concurrency()));
  if (processors > 1) b->Arg(processors);
  b->ArgName("threads");
}

BENCHMARK(ExportPoints)->Apply(Threads)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(3)
    ->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(ExportRoom)->Apply(Threads)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(3)
    ->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(ExportToTmpfs)->Apply(Threads)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(2)
    ->Repetitions(3)->ReportAggregatesOnly(true);
BENCHMARK(ExportWithMap)->Apply(Threads)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(2)
    ->Repetitions(3)->ReportAggregatesOnly(true);
BENCHMARK(ExportWithMapToTmpfs)->Apply(Threads)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(2)
    ->Repetitions(3)->ReportAggregatesOnly(true);

}  // namespace
