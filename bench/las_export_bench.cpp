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
// most 1), ratio_cpu the same in process CPU time; ply_s, las_s and their
// _cpu_s per pass; points_per_s of the LAS export.

#include <benchmark/benchmark.h>

#include "writer_pass.h"

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

using kvr::bench::Cpu;
using kvr::bench::kBlocks;
using kvr::bench::kScanPath;
using kvr::bench::Wall;
// Where the files go: a disk (the page cache writes back behind the export) or tmpfs.
constexpr const char* kOutputDirectories[] = {"/tmp", "/dev/shm"};


using kvr::bench::Export;
using kvr::bench::Seconds;

void EnsureScan() { kvr::bench::EnsureSyntheticScan(); }

void LasAgainstPly(benchmark::State& state) {
  EnsureScan();
  const bool colour = state.range(0) != 0;
  const std::string directory = kOutputDirectories[state.range(1)];
  const std::string plyPath = directory + "/kvr_las_bench.ply", lasPath = directory + "/kvr_las_bench.las";
  const kvr::cloud::Scan scan(kScanPath);
  const kvr::cloud::Colouring colouring{nullptr, scan.map().intensityAt95, scan.map().gamma};
  const kvr::cloud::LasOptions options = kvr::cloud::LasOptions::Of(scan, colour);
  kvr::cloud::PointBatch batch;
  Seconds ply, las;
  std::uint64_t points = 0;
  for (auto _ : state) {
    Seconds start{Wall(), Cpu()};
    kvr::cloud::PlyWriter plyWriter(plyPath, {}, colouring);
    const Seconds plyPass = Export(scan, plyWriter, kvr::cloud::PointWriter::kColumns, batch, start);
    start = {Wall(), Cpu()};
    kvr::cloud::LasWriter lasWriter(lasPath, options, colouring);
    const Seconds lasPass = Export(scan, lasWriter, kvr::cloud::LasWriter::kColumns, batch, start);
    ply.wall += plyPass.wall, ply.cpu += plyPass.cpu;
    las.wall += lasPass.wall, las.cpu += lasPass.cpu;
    points += lasWriter.count();
    state.SetIterationTime(lasPass.wall);
    state.PauseTiming();
    std::filesystem::remove(plyPath);
    std::filesystem::remove(lasPath);
    state.ResumeTiming();
  }
  const double passes = static_cast<double>(state.iterations());
  state.counters["ratio_wall"] = las.wall / ply.wall;
  state.counters["ratio_cpu"] = las.cpu / ply.cpu;
  state.counters["ply_s"] = ply.wall / passes;
  state.counters["las_s"] = las.wall / passes;
  state.counters["ply_cpu_s"] = ply.cpu / passes;
  state.counters["las_cpu_s"] = las.cpu / passes;
  state.counters["points_per_s"] = static_cast<double>(points) / las.wall;
}
BENCHMARK(LasAgainstPly)
    ->ArgNames({"colour", "tmpfs"})
    ->ArgsProduct({{0, 1}, {0, 1}})
    ->UseManualTime()
    ->Iterations(3)
    ->Unit(benchmark::kSecond);

}  // namespace
