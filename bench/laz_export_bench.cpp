// LAZ export against LAS export of the same scan, in the same run, both on two
// workers through the point layer's ExportPoints (the LAZ writer compresses its
// chunks on two threads of its own), into /dev/shm so that the disk does not
// blur the compression's cost. Scans: the 256 MiB synthetic scan (return counts
// drawn from 0-4, random ranges: the worst case for compression) and the
// simulated room as long (mostly one return a shot, ranges that follow walls).
// Maps are built once, outside the timing. Each iteration times one LAS export,
// then one LAZ export, each up to its file's rename.
//
// Counters: size_ratio = LAZ bytes / LAS bytes (the goal on the room: at most
// 0.25), ratio_wall = LAZ / LAS in wall-clock time (the goal: at most 3),
// ratio_cpu the same in process CPU time; las_s, laz_s per pass.
//
// LazChunkEncoder times the chunk compression alone, on one thread, over the
// first twenty chunks of the room's LAS records (read back from its LAS
// export): time_per_point is the encoder's cost, free of the export's reading.

#include <benchmark/benchmark.h>

#include "synthetic_scan_file.h"

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "kvr_decode/cloud/point_export.h"
#include "kvr_simulator/scan_set.h"
#include "laz_chunk_encoder.h"

namespace {

using kvr::bench::Cpu;
using kvr::bench::Wall;

// The kvrscan export benchmark's room, shared with it.
constexpr const char* kRoomDirectory = "/tmp/kvrscan_export_bench_room_v1";

std::string RoomScan() {
  const std::filesystem::path scan = std::filesystem::path(kRoomDirectory) / "scan.raw";
  std::error_code ec;
  if (!std::filesystem::exists(scan, ec)) {
    kvr::sim::SimulationOptions options;
    options.lines = kvr::sim::LinesForScanBytes(options, kvr::bench::kBlocks * 65536);
    kvr::sim::WriteScanSet(kRoomDirectory, options);
  }
  return scan.string();
}

struct Pass {
  double wall = 0.0, cpu = 0.0;
  std::uintmax_t bytes = 0;
};

Pass Export(const kvr::cloud::Scan& scan, const std::string& path, kvr::cloud::PointFormat format,
            const kvr::cloud::WriterSettings& settings) {
  const double wall = Wall(), cpu = Cpu();
  kvr::cloud::Selection selection;
  selection.columns = kvr::cloud::ColumnsOf(format);
  const auto writer = kvr::cloud::OpenPointWriter(path, format, settings);
  kvr::cloud::ExportPoints(scan, *writer, selection, 2);
  writer->finish();
  Pass pass{Wall() - wall, Cpu() - cpu, 0};
  pass.bytes = std::filesystem::file_size(path);
  std::filesystem::remove(path);
  return pass;
}

void LazAgainstLas(benchmark::State& state) {
  const bool room = state.range(0) != 0;
  std::string scanPath;
  if (room) {
    scanPath = RoomScan();
  } else {
    kvr::bench::EnsureSyntheticScan();
    scanPath = kvr::bench::kScanPath;
  }
  const kvr::cloud::Scan scan(scanPath);
  kvr::cloud::WriterSettings settings;
  settings.colouring = {nullptr, scan.map().intensityAt95, scan.map().gamma};
  settings.las = kvr::cloud::LasOptions::Of(scan, false);
  settings.laz.threads = 2;
  Pass las, laz;
  for (auto _ : state) {
    const Pass lasPass = Export(scan, "/dev/shm/kvr_laz_bench.las", kvr::cloud::PointFormat::kLas, settings);
    const Pass lazPass = Export(scan, "/dev/shm/kvr_laz_bench.laz", kvr::cloud::PointFormat::kLaz, settings);
    las.wall += lasPass.wall, las.cpu += lasPass.cpu, las.bytes = lasPass.bytes;
    laz.wall += lazPass.wall, laz.cpu += lazPass.cpu, laz.bytes = lazPass.bytes;
    state.SetIterationTime(lazPass.wall);
  }
  const double passes = static_cast<double>(state.iterations());
  state.counters["size_ratio"] = static_cast<double>(laz.bytes) / static_cast<double>(las.bytes);
  state.counters["ratio_wall"] = laz.wall / las.wall;
  state.counters["ratio_cpu"] = laz.cpu / las.cpu;
  state.counters["las_s"] = las.wall / passes;
  state.counters["laz_s"] = laz.wall / passes;
  state.counters["las_MiB"] = static_cast<double>(las.bytes) / 1048576.0;
  state.counters["laz_MiB"] = static_cast<double>(laz.bytes) / 1048576.0;
}
BENCHMARK(LazAgainstLas)->ArgName("room")->Arg(0)->Arg(1)->UseManualTime()->Iterations(2)->Unit(benchmark::kSecond);

}  // namespace

namespace {

void LazChunkEncoder(benchmark::State& state) {
  const kvr::cloud::Scan scan(RoomScan());
  kvr::cloud::WriterSettings settings;
  settings.colouring = {nullptr, scan.map().intensityAt95, scan.map().gamma};
  settings.las = kvr::cloud::LasOptions::Of(scan, false);
  const std::string path = "/dev/shm/kvr_laz_bench_records.las";
  {
    kvr::cloud::Selection selection;
    selection.columns = kvr::cloud::ColumnsOf(kvr::cloud::PointFormat::kLas);
    const auto writer = kvr::cloud::OpenPointWriter(path, kvr::cloud::PointFormat::kLas, settings);
    kvr::cloud::ExportPoints(scan, *writer, selection, 2);
    writer->finish();
  }
  constexpr std::size_t kChunk = 50000, kChunks = 20;
  kvr::cloud::laz::ChunkEncoder encoder(false, 32);
  const std::size_t length = encoder.recordLength();
  std::vector<std::uint8_t> records(kChunk * kChunks * length);
  {
    std::ifstream in(path, std::ios::binary);
    char header[100];
    in.read(header, sizeof header);
    std::uint32_t offset;
    std::memcpy(&offset, header + 96, 4);
    in.seekg(offset);
    in.read(reinterpret_cast<char*>(records.data()), static_cast<std::streamsize>(records.size()));
    if (!in) state.SkipWithError("the room has fewer points than the benchmark's chunks");
  }
  std::filesystem::remove(path);
  std::vector<std::uint8_t> packed;
  std::size_t bytes = 0;
  for (auto _ : state) {
    bytes = 0;
    for (std::size_t chunk = 0; chunk < kChunks; ++chunk) {
      encoder.encode(records.data() + chunk * kChunk * length, kChunk, packed);
      bytes += packed.size();
    }
  }
  const double points = static_cast<double>(state.iterations() * kChunk * kChunks);
  state.counters["time_per_point"] = benchmark::Counter(points, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
  state.counters["bytes_per_point"] = static_cast<double>(bytes) / static_cast<double>(kChunk * kChunks);
}
BENCHMARK(LazChunkEncoder)->Unit(benchmark::kMillisecond);

}  // namespace
