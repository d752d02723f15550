// The scanner simulator's speed. SimulateScan makes a scan of about 64 MiB into
// a sink that only counts (ray casting and packing alone), with one and with two
// workers; WriteScanSet writes the whole set to /tmp, in the same iteration as a
// plain fwrite of as many bytes, and reports ratio = set / fwrite in wall time.
//
// The 1 GiB figure is measured with the program:
//   /usr/bin/time -v build/tools/simulator/kvr_simulate /tmp/sim1g --size 1G
// (wall time, and "Maximum resident set size" for the peak memory, which does
// not grow with the scan: blocks are streamed out as they fill).

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <vector>

#include "kvr_simulator/scan_set.h"

namespace {

kvr::sim::SimulationOptions Options(unsigned threads) {
  kvr::sim::SimulationOptions o;
  o.seed = 20240601;
  o.prf = 200;
  o.lines = 1400;  // 4000 shots a line: about 5.6 million shots, 68 MB
  o.threads = threads;
  return o;
}

void BM_SimulateScan(benchmark::State& state) {
  const kvr::sim::SimulationOptions options = Options(static_cast<unsigned>(state.range(0)));
  const kvr::sim::Scene scene = kvr::sim::FurnishedRoom(options.seed, options.room);
  const kvr::sim::ScanPlan plan = kvr::sim::PlanScan(options, scene);
  const kvr::sim::RayCaster caster(scene, plan.beam);
  std::uint64_t bytes = 0, shots = 0;
  for (auto _ : state) {
    const auto counts = kvr::sim::GenerateScan(
        plan, caster, options.seed, [&bytes](std::span<const std::uint8_t> block) { bytes += block.size(); }, nullptr,
        options.threads);
    shots += counts.shots;
  }
  state.counters["bytes_per_s"] = benchmark::Counter(static_cast<double>(bytes), benchmark::Counter::kIsRate);
  state.counters["shots_per_s"] = benchmark::Counter(static_cast<double>(shots), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_SimulateScan)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);

double Seconds(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void BM_WriteScanSet(benchmark::State& state) {
  const std::filesystem::path dir = std::filesystem::temp_directory_path() / "kvr_simulator_bench";
  std::vector<char> zeros(1 << 20, 0);
  double setSeconds = 0.0, writeSeconds = 0.0;
  std::uint64_t bytes = 0;
  for (auto _ : state) {
    auto start = std::chrono::steady_clock::now();
    const kvr::sim::ScanSetSummary summary = kvr::sim::WriteScanSet(dir, Options(0));
    setSeconds += Seconds(start);
    bytes += summary.scanFileBytes;

    start = std::chrono::steady_clock::now();
    std::FILE* plain = std::fopen((dir / "plain.bin").c_str(), "wb");
    for (std::uint64_t left = summary.scanFileBytes; left > 0;) {
      const std::size_t n = left < zeros.size() ? static_cast<std::size_t>(left) : zeros.size();
      std::fwrite(zeros.data(), 1, n, plain);
      left -= n;
    }
    std::fclose(plain);
    writeSeconds += Seconds(start);
  }
  std::filesystem::remove_all(dir);
  state.counters["ratio"] = setSeconds / writeSeconds;
  state.counters["set_bytes_per_s"] = static_cast<double>(bytes) / setSeconds;
}
BENCHMARK(BM_WriteScanSet)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);

}  // namespace
