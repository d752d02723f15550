// Building a scan file map and fetching lines through it, against reading the
// same file with plain 64 KiB freads in the same run.
//
// The synthetic scan (257 MiB of blocks after a 1 KiB header) is generated once
// into /tmp and read whole before timing, so every pass reads from the page
// cache. It models a terrestrial scan: lines of 3000 shots sweeping a scene of
// surfaces between 1 and 300 m, one to four returns per shot (mostly one), and
// intensities from 0 to 4095 that stay coherent over patches of the scene with
// some noise, most of them moderate and a tail up to the sensor's maximum.
//
// Counters, over the same iterations (each times one fread pass, then the
// measured work): ratio = work / fread in thread CPU time (the kernel's copy
// from the page cache included), which holds on a machine shared with other
// work; ratio_wall, the same in wall-clock time; peak_MB, the process's peak
// resident memory during the work (Linux); lines_per_s for the fetches.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "kvr_decode/file_header.h"
#include "kvr_decode/scan_file_map.h"
#include "kvr_writers/fifo_block_writer.h"
#include "kvr_writers/synthetic_blocks.h"
#include "kvr_writers/scan_file_writer.h"

namespace {

constexpr std::size_t kBlockSize = kvr::fifo::SIZEOFFIFOBLOCK;
constexpr std::size_t kBlocks = 4112;  // 257 MiB
constexpr std::uint32_t kDataOffset = 1024;
constexpr std::uint32_t kShotsPerLine = 3000;
constexpr const char* kScanPath = "/tmp/kvr_scanmap_bench_v1.raw";
constexpr const wchar_t* kScanName = L"/tmp/kvr_scanmap_bench_v1.raw";
constexpr const char* kParameterPath = "/tmp/kvr_scanmap_bench_v1.raw.NormalizationParams.txt";
constexpr double kMetresPerCount = 0.0019512028931376346;

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

// The scene: range and reflectance as smooth functions of the position in the
// scan, so neighbouring shots look alike as they do on real surfaces.
class Scene {
 public:
  std::uint64_t Shot(std::mt19937_64& random, std::vector<std::uint32_t>& returns) {
    const double along = static_cast<double>(shotInLine_) / kShotsPerLine;
    const double line = static_cast<double>(line_);
    const double shape = 0.5 + 0.45 * std::sin(along * 18.85 + line * 0.01) * std::cos(along * 17.0 + line * 0.003);
    double range = 1.0 + 299.0 * shape + 0.02 * normal_(random);
    // Patches of about 150 shots by 40 lines share a reflectance.
    const std::uint32_t patch = (line_ / 40) * 131u + (shotInLine_ / 150) * 7919u;
    const double u = static_cast<double>((patch * 2654435761u) % 10000u) / 10000.0;
    const double reflectance = u < 0.85 ? 200.0 + 1400.0 * u : 1390.0 + 2705.0 * (u - 0.85) / 0.15;

    const double draw = uniform_(random);
    const std::uint32_t count = draw < 0.01 ? 0 : draw < 0.71 ? 1 : draw < 0.91 ? 2 : draw < 0.98 ? 3 : 4;
    const std::uint32_t t0 = static_cast<std::uint32_t>(random() & 0xFFFF);
    returns.clear();
    for (std::uint32_t k = 0; k < count; ++k) {
      const double intensity = std::clamp(reflectance - 250.0 * k + 60.0 * normal_(random), 0.0, 4095.0);
      const auto counts = static_cast<std::uint32_t>(std::max(range, 1.0) / kMetresPerCount);
      returns.push_back(kvr::writers::ReturnWord(t0 + counts, static_cast<std::uint32_t>(intensity)));
      range = std::min(range + 0.5 + 5.0 * uniform_(random), 300.0);
    }
    const std::uint32_t flags = random() % 4000 == 0 ? 1 : 0;
    const std::uint64_t word = kvr::writers::ShotWord(
        {line_ & 0xFFFFF, (shotInLine_ * 87) & 0x3FFFF, count, t0, flags, (line_ & 1) != 0 ? 2u : 0u});
    if (++shotInLine_ == kShotsPerLine) {
      shotInLine_ = 0;
      ++line_;
    }
    return word;
  }

 private:
  std::uint32_t shotInLine_ = 0;
  std::uint32_t line_ = 0;
  std::normal_distribution<double> normal_{0.0, 1.0};
  std::uniform_real_distribution<double> uniform_{0.0, 1.0};
};

void GenerateScan() {
  if (std::filesystem::exists(kScanPath) &&
      std::filesystem::file_size(kScanPath) == kDataOffset + kBlocks * kBlockSize) {
    return;
  }
  kvr::writers::HeaderBlockFields header;
  header.dataOffset = kDataOffset;
  header.prf = 500;
  std::ofstream out(kScanPath, std::ios::binary | std::ios::trunc);
  const std::vector<std::uint8_t> head = kvr::writers::BuildScanFile(header);
  out.write(reinterpret_cast<const char*>(head.data()), static_cast<std::streamsize>(head.size()));
  std::mt19937_64 random(20240611);
  Scene scene;
  std::vector<std::uint32_t> returns;
  std::uint64_t timeStamp = 1000;
  std::uint64_t pendingWord = scene.Shot(random, returns);
  std::vector<std::uint32_t> pendingReturns = returns;
  for (std::size_t b = 0; b < kBlocks; ++b) {
    kvr::writers::FifoBlockBuilder block;
    block.timeStamp(timeStamp).castBlockNumber(static_cast<std::uint32_t>(b & 0x7FF));
    while (block.fits(pendingReturns.size()) && block.shots().size() < 8191) {
      block.shot(pendingWord, pendingReturns);
      pendingWord = scene.Shot(random, returns);
      pendingReturns = returns;
    }
    timeStamp += block.shots().size() * 100;
    const std::vector<std::uint8_t> bytes = block.build();
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  }
  if (!out) throw std::runtime_error(std::string("cannot write ") + kScanPath);
}

double FreadPass() {
  static std::vector<unsigned char> buffer(kBlockSize);
  const Stopwatch watch;
  std::FILE* in = std::fopen(kScanPath, "rb");
  if (in == nullptr) throw std::runtime_error(std::string("cannot open ") + kScanPath);
  while (std::fread(buffer.data(), 1, buffer.size(), in) == buffer.size()) benchmark::DoNotOptimize(buffer.data());
  std::fclose(in);
  return watch.Cpu();
}

// Peak resident memory of the process in MB, after resetting it (Linux).
void ResetPeakMemory() { std::ofstream("/proc/self/clear_refs") << "5"; }
double PeakMemoryMB() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmHWM:", 0) == 0) return std::stod(line.substr(6)) / 1024.0;
  }
  return 0.0;
}

void SetParameterFile(const char* text) {
  if (text == nullptr) {
    std::filesystem::remove(kParameterPath);
  } else {
    std::ofstream(kParameterPath) << text;
  }
}

void MapBuild(benchmark::State& state, const char* parameterFile) {
  GenerateScan();
  SetParameterFile(parameterFile);
  FreadPass();  // into the page cache
  double freadCpu = 0.0, freadWall = 0.0, buildCpu = 0.0, buildWall = 0.0, peak = 0.0;
  for (auto _ : state) {
    const Stopwatch fread;
    freadCpu += FreadPass();
    freadWall += fread.Wall();
    ScanFileMap map;
    ResetPeakMemory();
    const Stopwatch build;
    if (GetScanFileMap(kScanName, map) != 0) state.SkipWithError("GetScanFileMap failed");
    buildCpu += build.Cpu();
    buildWall += build.Wall();
    peak = std::max(peak, PeakMemoryMB());
    state.SetIterationTime(build.Wall());
    benchmark::DoNotOptimize(map.intensityAt95);
    ReleaseScanFileMap(map);
  }
  SetParameterFile(nullptr);
  state.counters["ratio"] = buildCpu / freadCpu;
  state.counters["ratio_wall"] = buildWall / freadWall;
  state.counters["peak_MB"] = peak;
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kBlocks * kBlockSize));
}

void BM_MapBuildWith4096Bins(benchmark::State& state) { MapBuild(state, "numberOfBins = 4096\n"); }
void BM_MapBuildWithComputedBins(benchmark::State& state) { MapBuild(state, nullptr); }

void BM_RandomLineFetch(benchmark::State& state) {
  GenerateScan();
  SetParameterFile("numberOfBins = 4096\n");
  ScanFileMap map;
  if (GetScanFileMap(kScanName, map) != 0) {
    state.SkipWithError("GetScanFileMap failed");
    return;
  }
  SetParameterFile(nullptr);
  std::FILE* in = std::fopen(kScanPath, "rb");
  std::mt19937 random(7);
  std::vector<RawShot> shots;
  double cpu = 0.0;
  std::int64_t lines = 0;
  for (auto _ : state) {
    const Stopwatch watch;
    for (int i = 0; i < 1000; ++i) {
      const int line = static_cast<int>(random() % static_cast<unsigned>(map.numberOfScanLines));
      benchmark::DoNotOptimize(GetShotsFromScanLineIndex(line, &in, map, shots, nullptr));
    }
    cpu += watch.Cpu();
    state.SetIterationTime(watch.Wall());
    lines += 1000;
  }
  std::fclose(in);
  state.counters["lines_per_s"] = static_cast<double>(lines) / cpu;
  state.counters["lines"] = map.numberOfScanLines;
  ReleaseScanFileMap(map);
}

}  // namespace

BENCHMARK(BM_MapBuildWith4096Bins)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(3);
BENCHMARK(BM_MapBuildWithComputedBins)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(3);
BENCHMARK(BM_RandomLineFetch)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(3);
