// Lag correction against a plain pass over the same shots, at growing list sizes
// (the ratio stays flat when the correction is linear), and the calibration
// parameters of a typical header and of an oversized optical model text.
#include <benchmark/benchmark.h>

#include <iostream>
#include <streambuf>
#include <vector>

#include "kvr_decode/optical_model.h"
#include "kvr_writers/fifo_block_writer.h"
#include "kvr_writers/header_texts.h"
#include "support/header_record.h"
#include "support/raw_shot_builder.h"

namespace {

constexpr double kPrf = 200000.0;  // 250 ticks per shot

std::vector<RawShot> EvenShots(std::size_t n) {
  std::vector<RawShot> shots;
  shots.reserve(n);
  for (std::size_t i = 0; i < n; ++i) {
    const auto scan = static_cast<std::uint32_t>((i * 37) & 0x3FFFF);
    const auto pan = static_cast<std::uint32_t>((i * 11) & 0xFFFFF);
    shots.push_back(kvr::test::MakeShot(1000 + 250 * i, kvr::writers::ShotWord({pan, scan, 1, 0x1234}), scan,
                                        {kvr::writers::ReturnWord(5000, 300)}));
  }
  return shots;
}

void BM_CopyScanCounts(benchmark::State& state) {
  std::vector<RawShot> shots = EvenShots(static_cast<std::size_t>(state.range(0)));
  std::vector<unsigned> corrected(shots.size());
  for (auto _ : state) {
    for (std::size_t i = 0; i < shots.size(); ++i) corrected[i] = shots[i].scanAngleCounts;
    for (std::size_t i = 0; i < shots.size(); ++i) shots[i].scanAngleCounts = corrected[i];
    benchmark::DoNotOptimize(corrected.data());
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_CopyScanCounts)->RangeMultiplier(16)->Range(1 << 10, 1 << 22);

void BM_ApplyLagCorrection(benchmark::State& state) {
  std::vector<RawShot> shots = EvenShots(static_cast<std::size_t>(state.range(0)));
  std::vector<unsigned> corrected(shots.size());
  const int mode = static_cast<int>(state.range(1));
  for (auto _ : state) {
    benchmark::DoNotOptimize(ApplyLagCorrection(shots, kPrf, 2.01e-6, mode, corrected));
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_ApplyLagCorrection)->ArgsProduct({benchmark::CreateRange(1 << 10, 1 << 22, 16), {0, 1}});

// Swallows the version line so the benchmark's own output stays readable.
class NullBuffer : public std::streambuf {
 protected:
  int overflow(int c) override { return c; }
};

void RunCalibrationParameters(benchmark::State& state, const std::string& text) {
  kvr::test::HeaderRecord record(200);
  record.setPrfTable(200, 4096);
  record.header.calibrationValues["rangeOffset"] = -12.5;
  record.setOpticalModelText(text);
  NullBuffer sink;
  std::streambuf* const saved = std::cout.rdbuf(&sink);
  for (auto _ : state) benchmark::DoNotOptimize(GetCalibrationParameters(record.header));
  std::cout.rdbuf(saved);
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}

const std::vector<std::pair<std::string, std::string>> kModel2Tags = {
    {"a0", "-0.0123"}, {"a1", "1.0004"}, {"a2", "2.1e-5"}, {"a3", "-3.2e-8"}, {"a4", "0"}, {"a5", "0"},
    {"a6", "0"}, {"sm-kappa", "0.0012"}, {"pan-a", "0.0001"}, {"pan-b", "-0.0002"}, {"wobble-omega", "0.003"},
    {"wobble-omega-a", "0.1"}, {"wobble-omega-b", "0.2"}, {"wobble-phi", "0.004"}, {"wobble-phi-a", "0.3"},
    {"wobble-phi-b", "0.4"}, {"wobble-phi-s", "0.5"}};

void BM_GetCalibrationParameters(benchmark::State& state) {
  RunCalibrationParameters(state, kvr::writers::OpticalModelText("version=\"2\"", kModel2Tags,
                                                              kvr::writers::TextLayout::kIndented));
}
BENCHMARK(BM_GetCalibrationParameters);

// A text padded with state.range(0) unknown elements and unclosed '<' before the tags.
void BM_GetCalibrationParametersPadded(benchmark::State& state) {
  std::string padding;
  for (std::int64_t i = 0; i < state.range(0); ++i) padding += "\t<note>pan-a wobble-phi << a0</note>\r\n";
  RunCalibrationParameters(state, padding + kvr::writers::OpticalModelText("version=\"2\"", kModel2Tags,
                                                                        kvr::writers::TextLayout::kIndented));
}
BENCHMARK(BM_GetCalibrationParametersPadded)->RangeMultiplier(16)->Range(16, 1 << 16);

}  // namespace
