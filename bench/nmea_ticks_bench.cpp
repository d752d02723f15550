// Tick file loading and tick-to-time lookups at the sizes a long scan brings:
// five hours of 1 Hz pulses, each followed by a ZDA sentence, and one lookup per
// FIFO block of a 10 GiB scan.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <numeric>
#include <random>
#include <vector>

#include "kvr_decode/nmea_ticks_manager.h"
#include "kvr_writers/tick_file_writer.h"
#include "nmea/nmea_ticks_manager.h"
#include "support/temp_dir.h"

namespace {

using kvr::writers::kTicksPerSecond;

constexpr int kPulses = 18000;                                   // five hours at 1 Hz
constexpr std::uint64_t kFirstPulse = 1000000000;               // 20 s after the counter started
constexpr std::uint64_t kBlocks = (10ull << 30) / 65536;        // FIFO blocks in 10 GiB

struct TickFile {
  kvr::test::TempDir dir;
  std::wstring name;
  std::string path;
  std::size_t bytes = 0;

  TickFile() {
    const auto path = dir / "Serial.dat";
    kvr::writers::TickFileBuilder file;
    file.everySecond(kFirstPulse, kvr::writers::Utc(2020, 1, 28, 14, 30, 7), kPulses,
                     [](kvr::writers::UtcTime t) { return kvr::writers::ZdaSentence(t, "GN"); });
    file.writeTo(path);
    name = kvr::test::WideName(path);
    this->path = path.string();
    bytes = file.bytes().size();
  }
};

const TickFile& FiveHourFile() {
  static const TickFile file;
  return file;
}

// Block time stamps spread evenly over the pulses' span, in file order.
std::vector<std::uint64_t> BlockTicks() {
  std::vector<std::uint64_t> ticks(kBlocks);
  const std::uint64_t span = (kPulses - 1) * kTicksPerSecond;
  for (std::uint64_t i = 0; i < kBlocks; ++i) ticks[i] = kFirstPulse + i * span / kBlocks;
  return ticks;
}

void BM_FreadTickFile(benchmark::State& state) {
  const TickFile& file = FiveHourFile();
  std::vector<char> buffer(file.bytes);
  for (auto _ : state) {
    std::FILE* in = std::fopen(file.path.c_str(), "rb");
    benchmark::DoNotOptimize(std::fread(buffer.data(), 1, buffer.size(), in));
    std::fclose(in);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * file.bytes));
}
BENCHMARK(BM_FreadTickFile)->Unit(benchmark::kMillisecond);

void BM_LoadFiveHourTickFile(benchmark::State& state) {
  const TickFile& file = FiveHourFile();
  for (auto _ : state) {
    NmeaTicksManager* manager = CreateNmeaTicksManager(file.name.c_str(), 0);
    if (manager == nullptr || manager->tickTimes->size() != kPulses) state.SkipWithError("load failed");
    DeleteNmeaTicksManager(manager);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * file.bytes));
  state.SetItemsProcessed(state.iterations() * kPulses);
}
BENCHMARK(BM_LoadFiveHourTickFile)->Unit(benchmark::kMillisecond);

void RunLookups(benchmark::State& state, const std::vector<std::uint64_t>& ticks) {
  NmeaTicksManager* manager = CreateNmeaTicksManager(FiveHourFile().name.c_str(), 0);
  for (auto _ : state) {
    double sum = 0.0;
    for (std::uint64_t t : ticks) {
      if (manager->FindTickInterval(t) == 0) sum += manager->InterpolateTime(t);
    }
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * ticks.size()));
  DeleteNmeaTicksManager(manager);
}

// The block reader's pattern: every block in file order.
void BM_LookupEveryBlockInFileOrder(benchmark::State& state) { RunLookups(state, BlockTicks()); }
BENCHMARK(BM_LookupEveryBlockInFileOrder)->Unit(benchmark::kMillisecond);

// Every lookup a jump: the binary search's cost, for comparison.
void BM_LookupEveryBlockShuffled(benchmark::State& state) {
  std::vector<std::uint64_t> ticks = BlockTicks();
  std::shuffle(ticks.begin(), ticks.end(), std::mt19937_64(42));
  RunLookups(state, ticks);
}
BENCHMARK(BM_LookupEveryBlockShuffled)->Unit(benchmark::kMillisecond);

}  // namespace
