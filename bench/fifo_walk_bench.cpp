// Walking a scan with DecodeNextFifoBlock against reading the same file with
// plain 64 KiB freads, in the same run. The synthetic scan (256 MiB, return
// counts drawn uniformly from 0-4) is generated once into /tmp and read whole
// before timing, so both walks read from the page cache.
//
// Counters of FifoWalk, over the same iterations (each times one fread pass, then
// one walk): ratio = walk / fread in thread CPU time (user and system: reading
// from the page cache is the kernel's copy), which holds on a machine shared with
// other work; ratio_wall, the same in wall-clock time; shots_per_s and
// bytes_per_s of the walk in CPU time.

#include <benchmark/benchmark.h>

#include <ctime>
#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "kvr_decode/fifo_block.h"
#include "kvr_writers/fifo_block_writer.h"
#include "kvr_writers/synthetic_blocks.h"

namespace {

constexpr std::size_t kBlockSize = kvr::fifo::SIZEOFFIFOBLOCK;
constexpr std::size_t kBlocks = 4096;  // 256 MiB
constexpr std::uint32_t kPrf = 200;
constexpr const char* kScanPath = "/tmp/kvr_fifo_walk_bench_v1.bin";

struct Stopwatch {
  static double Now(clockid_t clock) {
    timespec t{};
    clock_gettime(clock, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
  }
  double cpuStart = Now(CLOCK_THREAD_CPUTIME_ID);
  double wallStart = Now(CLOCK_MONOTONIC);
  double Cpu() const { return Now(CLOCK_THREAD_CPUTIME_ID) - cpuStart; }
  double Wall() const { return Now(CLOCK_MONOTONIC) - wallStart; }
};

std::FILE* OpenScan() {
  std::FILE* in = std::fopen(kScanPath, "rb");
  if (in == nullptr) throw std::runtime_error(std::string("cannot open ") + kScanPath);
  return in;
}

// Plain reading: 64 KiB freads until the end. Returns the bytes read.
std::size_t FreadPass() {
  static std::vector<unsigned char> buffer(kBlockSize);
  std::FILE* in = OpenScan();
  std::size_t total = 0;
  for (std::size_t got; (got = std::fread(buffer.data(), 1, buffer.size(), in)) > 0;) {
    benchmark::DoNotOptimize(buffer.data());
    total += got;
  }
  std::fclose(in);
  return total;
}

// The decode walk over every block. Returns the shots decoded.
std::size_t WalkPass(FifoBlock& block) {
  RawFileHeader header;
  header.prf = kPrf;
  std::FILE* in = OpenScan();
  std::size_t shots = 0;
  int blockNumber = 0;
  for (int n; (n = DecodeNextFifoBlock(&in, header, blockNumber, block, nullptr)) != -1; ++blockNumber) {
    if (n > 0) shots += static_cast<std::size_t>(n);
    benchmark::DoNotOptimize(block.shots.data());
  }
  block.flaggedShots.clear();  // a walker keeps per-block lists; this one drops them
  std::fclose(in);
  return shots;
}

void EnsureScanInPageCache() {
  static const bool ready = [] {
    std::error_code ec;
    if (std::filesystem::file_size(kScanPath, ec) != kBlocks * kBlockSize) {
      const std::string partial = std::string(kScanPath) + ".part";
      std::FILE* out = std::fopen(partial.c_str(), "wb");
      if (out == nullptr) throw std::runtime_error("cannot write " + partial);
      kvr::writers::SyntheticScan scan(20240601, kPrf, 4);
      for (std::size_t b = 0; b < kBlocks; ++b) {
        const std::vector<std::uint8_t> block = scan.NextBlock().build();
        std::fwrite(block.data(), 1, block.size(), out);
      }
      std::fclose(out);
      std::filesystem::rename(partial, kScanPath);
    }
    return FreadPass() == kBlocks * kBlockSize;
  }();
  if (!ready) throw std::runtime_error(std::string("short scan file ") + kScanPath);
}

void PlainFread(benchmark::State& state) {
  EnsureScanInPageCache();
  for (auto _ : state) benchmark::DoNotOptimize(FreadPass());
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kBlocks * kBlockSize));
}

void FifoWalk(benchmark::State& state) {
  EnsureScanInPageCache();
  FifoBlock block;
  double freadCpu = 0.0, freadWall = 0.0, walkCpu = 0.0, walkWall = 0.0;
  std::size_t shots = 0;
  for (auto _ : state) {
    const Stopwatch freadWatch;
    benchmark::DoNotOptimize(FreadPass());
    freadCpu += freadWatch.Cpu();
    freadWall += freadWatch.Wall();
    const Stopwatch walkWatch;
    shots += WalkPass(block);
    const double cpu = walkWatch.Cpu();
    walkCpu += cpu;
    walkWall += walkWatch.Wall();
    state.SetIterationTime(cpu);
  }
  const double blocks = static_cast<double>(state.iterations()) * kBlocks;
  state.counters["ratio"] = walkCpu / freadCpu;
  state.counters["ratio_wall"] = walkWall / freadWall;
  state.counters["shots_per_s"] = static_cast<double>(shots) / walkCpu;
  state.counters["bytes_per_s"] = blocks * kBlockSize / walkCpu;
  state.counters["shots_per_block"] = static_cast<double>(shots) / blocks;
}

BENCHMARK(PlainFread)->Unit(benchmark::kMillisecond)->Iterations(5)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(FifoWalk)
    ->Unit(benchmark::kMillisecond)
    ->UseManualTime()
    ->Iterations(5)
    ->Repetitions(7)
    ->ReportAggregatesOnly(true);

}  // namespace
