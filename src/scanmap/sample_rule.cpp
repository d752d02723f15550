#include "scanmap/sample_rule.h"

#include <cstring>

namespace kvr::scanmap {

void IntensityModel::Normalize(SampleBatch& batch) const {
  const std::uint32_t* samples = batch.sample.get();
  double* v = batch.value.get();
  const std::size_t n = batch.count;
  std::size_t i = 0;
#if defined(__GNUC__)
  // Four samples at a time: the same operations in the same order on each
  // lane, so every value is bit for bit the scalar one; the divisions, which
  // dominate, overlap.
  using Lanes = double __attribute__((vector_size(32)));
  using Counts = std::int32_t __attribute__((vector_size(16)));
  const Lanes a3 = {a3_, a3_, a3_, a3_};
  const Lanes a4 = {a4_, a4_, a4_, a4_};
  const Lanes a5 = {a5_, a5_, a5_, a5_};
  constexpr double kTof = optics::kTofCountPicoseconds, kPico = optics::kPico, kLight = optics::kSpeedOfLightInAir;
  const Lanes tof = {kTof, kTof, kTof, kTof};
  const Lanes pico = {kPico, kPico, kPico, kPico};
  const Lanes half = {0.5, 0.5, 0.5, 0.5};
  const Lanes light = {kLight, kLight, kLight, kLight};
  for (; i + 4 <= n; i += 4) {
    const Counts words = {static_cast<std::int32_t>(samples[i]), static_cast<std::int32_t>(samples[i + 1]),
                          static_cast<std::int32_t>(samples[i + 2]), static_cast<std::int32_t>(samples[i + 3])};
    const Counts counts = words & 0xFFFFF;
    const Lanes range = __builtin_convertvector(counts, Lanes) * tof * pico * half * light;
    const Lanes base = {base_[samples[i] >> 20], base_[samples[i + 1] >> 20], base_[samples[i + 2] >> 20],
                        base_[samples[i + 3] >> 20]};
    const Lanes x = range / a5 - a5 / range;
    const Lanes value = a3 * (x * x + a4) * base;
    std::memcpy(v + i, &value, sizeof value);
  }
#endif
  for (; i < n; ++i) {
    v[i] = Normalized(RangeWindow::Range(static_cast<std::int32_t>(samples[i] & 0xFFFFF)), base_[samples[i] >> 20]);
  }
}

void FoldExtremes(const SampleBatch& batch, double& minimum, double& maximum) {
  const double* v = batch.value.get();
  double low = minimum;
  double high = maximum;
  for (std::size_t i = 0; i < batch.count; ++i) {
    low = v[i] < low ? v[i] : low;
    high = v[i] > high ? v[i] : high;
  }
  minimum = low;
  maximum = high;
}

}  // namespace kvr::scanmap
