// E57 export against LAS export of the same scan, in the same run: the 256 MiB
// synthetic scan (the export benchmarks' file, read whole before timing; its
// map built once, outside the timing) is read through a PointReader and
// written to /tmp (a disk) or /dev/shm (tmpfs), once as LAS (point format 6),
// once as E57. Each iteration times one LAS export, then one E57 export, each
// up to its file's rename; the files are removed between passes, outside the
// timing.
//
// Counters: ratio_wall = E57 / LAS in wall-clock time (the goal: at most 1.5),
// ratio_cpu the same in process CPU time, size_ratio = E57 bytes / LAS bytes;
// las_s, e57_s and their _cpu_s per pass; points_per_s of the E57 export.

#include <benchmark/benchmark.h>

#include "writer_pass.h"

#include <filesystem>
#include <string>

#include "kvr_decode/cloud/e57_writer.h"
#include "kvr_decode/cloud/las_writer.h"
#include "kvr_decode/cloud/point_reader.h"

namespace {

using kvr::bench::Cpu;
using kvr::bench::kScanPath;
using kvr::bench::Wall;
constexpr const char* kOutputDirectories[] = {"/tmp", "/dev/shm"};

using kvr::bench::Export;
using kvr::bench::Seconds;

void E57AgainstLas(benchmark::State& state) {
  kvr::bench::EnsureSyntheticScan();
  const std::string directory = kOutputDirectories[state.range(0)];
  const std::string lasPath = directory + "/kvr_e57_bench.las", e57Path = directory + "/kvr_e57_bench.e57";
  const kvr::cloud::Scan scan(kScanPath);
  const kvr::cloud::Colouring colouring{nullptr, scan.map().intensityAt95, scan.map().gamma};
  const kvr::cloud::LasOptions options = kvr::cloud::LasOptions::Of(scan, false);
  const kvr::cloud::E57ScanInfo info = kvr::cloud::E57ScanInfo::Of(scan);
  kvr::cloud::PointBatch batch;
  Seconds las, e57;
  std::uint64_t points = 0;
  double lasBytes = 0.0, e57Bytes = 0.0;
  for (auto _ : state) {
    Seconds start{Wall(), Cpu()};
    kvr::cloud::LasWriter lasWriter(lasPath, options, colouring);
    const Seconds lasPass = Export(scan, lasWriter, kvr::cloud::LasWriter::kColumns, batch, start);
    start = {Wall(), Cpu()};
    kvr::cloud::E57PointWriter e57Writer(e57Path, info);
    const Seconds e57Pass = Export(scan, e57Writer, kvr::cloud::E57Writer::kColumns, batch, start);
    las.wall += lasPass.wall, las.cpu += lasPass.cpu;
    e57.wall += e57Pass.wall, e57.cpu += e57Pass.cpu;
    points += e57Writer.count();
    state.SetIterationTime(e57Pass.wall);
    state.PauseTiming();
    lasBytes = static_cast<double>(std::filesystem::file_size(lasPath));
    e57Bytes = static_cast<double>(std::filesystem::file_size(e57Path));
    std::filesystem::remove(lasPath);
    std::filesystem::remove(e57Path);
    state.ResumeTiming();
  }
  const double passes = static_cast<double>(state.iterations());
  state.counters["ratio_wall"] = e57.wall / las.wall;
  state.counters["ratio_cpu"] = e57.cpu / las.cpu;
  state.counters["size_ratio"] = e57Bytes / lasBytes;
  state.counters["las_s"] = las.wall / passes;
  state.counters["e57_s"] = e57.wall / passes;
  state.counters["las_cpu_s"] = las.cpu / passes;
  state.counters["e57_cpu_s"] = e57.cpu / passes;
  state.counters["points_per_s"] = static_cast<double>(points) / e57.wall;
}
BENCHMARK(E57AgainstLas)->ArgNames({"tmpfs"})->Arg(0)->Arg(1)->UseManualTime()->Iterations(3)->Unit(benchmark::kSecond);

}  // namespace
