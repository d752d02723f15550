#pragma once

#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

#include "kvr_decode/scan_file_map.h"
#include "optics/conversions.h"
#include "platform/little_endian.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

// How the returns of a shot become samples of normalized intensity.
namespace kvr::scanmap {

// The in-range returns of one block, gathered so that their normalized
// intensities come out of one straight loop instead of one branchy shot walk.
// A block holds at most (65536 - 12 - 8) / 4 return words; four more slots take
// the unconditional stores of the last shot.
struct SampleBatch {
  static constexpr std::size_t kCapacity = 16384 + 4;
  std::size_t count = 0;
  // A return word with its stop count replaced by stop - start: an in-range
  // difference lies in 1 .. 2^20 - 1, so it keeps the word's 20 bits, and the
  // raw intensity its 12.
  std::unique_ptr<std::uint32_t[]> sample{new std::uint32_t[kCapacity]};
  std::unique_ptr<double[]> value{new double[kCapacity]};  // normalized intensity
  std::unique_ptr<std::int32_t[]> bin{new std::int32_t[kCapacity]};
};

// A sample as SampleBatch holds it: the return word with its 20-bit stop count
// replaced by the difference d (its low 20 bits), and that difference back.
inline std::uint32_t SampleOf(std::uint32_t returnWord, std::int32_t d) {
  return (returnWord & 0xFFF00000u) | (static_cast<std::uint32_t>(d) & 0xFFFFFu);
}
inline std::int32_t SampleDifference(std::uint32_t sample) { return static_cast<std::int32_t>(sample & 0xFFFFFu); }

// The five-parameter intensity model. The base intensity depends only on the
// 12-bit raw value and on a1, a2, which are fixed for one build, so it is
// tabulated once: the table holds exactly what pow would return per sample.
class IntensityModel {
 public:
  explicit IntensityModel(const ScanFileMap& map) : IntensityModel(map.a1, map.a2, map.a3, map.a4, map.a5) {}
  IntensityModel(double a1, double a2, double a3, double a4, double a5) : a3_(a3), a4_(a4), a5_(a5) {
    for (std::uint32_t i = 0; i < base_.size(); ++i) {
      // The two branches meet with a step (999 -> 999, 1000 -> 625 with the defaults); that is the model.
      base_[i] = i < 1000 ? static_cast<double>(i) : std::pow(static_cast<double>(i) / a1, a2);
    }
  }

  double Base(std::uint32_t rawIntensity) const { return base_[rawIntensity & 0xFFF]; }

  // Normalized intensity at range r (without the range offset).
  double Normalized(double r, double base) const {
    const double x = r / a5_ - a5_ / r;
    return a3_ * (x * x + a4_) * base;
  }

  // The same for every sample of a batch, its range computed from the count
  // difference by the chain of CalculateRange.
  void Normalize(SampleBatch& batch) const { NormalizeInto<false>(batch.sample.get(), batch.count, batch.value.get()); }
  // The same for n samples into `values`; with kZeroRangeGivesZero, a zero
  // difference (a return at its shot's start count: no range) gives 0.
  template <bool kZeroRangeGivesZero>
  void NormalizeInto(const std::uint32_t* samples, std::size_t n, double* values) const;

 private:
  std::array<double, 4096> base_{};
  double a3_;
  double a4_;
  double a5_;
};

enum class SampleKind { kInvalid, kOutOfRange, kInRange };

// Which count differences (stop - start) give a sample. A difference of 0 or
// less is an invalid return; the range grows with the difference, so the
// returns whose range plus the offset lies in (0.1, 2040.0] are one interval
// of differences, found once per offset. A return is then classified with two
// integer comparisons, and its range is computed by the same chain as
// CalculateRange.
class RangeWindow {
 public:
  // The sample rule's limits on range plus offset, metres: (kNearLimit, kFarLimit].
  static constexpr double kNearLimit = 0.1;
  static constexpr double kFarLimit = 2040.0;
  static constexpr std::int32_t kLargestDifference = 0xFFFFF;  // a stop count has 20 bits

  explicit RangeWindow(double rangeOffset) : RangeWindow(rangeOffset, kNearLimit, kFarLimit) {}
  // The differences whose range plus the offset lies in (nearLimit, farLimit].
  RangeWindow(double rangeOffset, double nearLimit, double farLimit) : rangeOffset_(rangeOffset) {
    // Written as the rule reads, so that a NaN offset keeps every return in range.
    auto nearEnough = [&](std::int32_t d) { return !(Range(d) + rangeOffset <= nearLimit); };
    auto farEnough = [&](std::int32_t d) { return !(Range(d) + rangeOffset > farLimit); };
    // The first difference past the near limit, and the last one within the far limit.
    std::int32_t low = 1, high = kLargestDifference + 1;
    while (low < high) {
      const std::int32_t mid = low + (high - low) / 2;
      if (nearEnough(mid)) {
        high = mid;
      } else {
        low = mid + 1;
      }
    }
    const std::int32_t first = low;
    low = 0;
    high = kLargestDifference;
    while (low < high) {
      const std::int32_t mid = low + (high - low + 1) / 2;
      if (farEnough(mid)) {
        low = mid;
      } else {
        high = mid - 1;
      }
    }
    const std::int32_t last = farEnough(low) && low >= 1 ? low : 0;
    if (first <= kLargestDifference && first <= last) {
      first_ = first;
      last_ = last;
    }
  }

  double rangeOffset() const { return rangeOffset_; }

  SampleKind Classify(std::uint32_t stop, std::uint32_t start) const {
    const std::int32_t d = Difference(stop, start);
    if (d <= 0) return SampleKind::kInvalid;
    return InRange(d) ? SampleKind::kInRange : SampleKind::kOutOfRange;
  }

  static std::int32_t Difference(std::uint32_t stop, std::uint32_t start) {
    return static_cast<std::int32_t>(stop & 0xFFFFF) - static_cast<std::int32_t>(start);
  }
  bool InRange(std::int32_t d) const { return (d >= first_) & (d <= last_); }
  std::int32_t first() const { return first_; }
  std::int32_t last() const { return last_; }
  static double Range(std::int32_t d) { return optics::Range(static_cast<std::uint32_t>(d), 0); }

 private:
  double rangeOffset_;
  // An empty window is first 1, last 0.
  std::int32_t first_ = 1;
  std::int32_t last_ = 0;
};

// Which of a shot's first four returns were in range, one bit per position,
// tallied per block so that the per-position counts cost one increment a shot.
struct PositionTally {
  std::uint64_t shotsWithMask[16] = {};

  // Adds the tallied positions to four counters and starts afresh.
  void AddTo(std::uint64_t* positions) {
    for (std::uint32_t mask = 1; mask < 16; ++mask) {
      for (std::uint32_t k = 0; k < 4; ++k) positions[k] += ((mask >> k) & 1) * shotsWithMask[mask];
      shotsWithMask[mask] = 0;
    }
    shotsWithMask[0] = 0;
  }
};

// Appends the in-range returns of one shot (return words at `words`, `count` of
// them) to the batch and, on the first pass, tallies their positions. Returns
// false when one of them is invalid. A shot of up to four returns is handled
// as one vector of four words without a branch per return: the return count
// changes from shot to shot, and a mispredicted loop costs more than the
// words. `words` must be followed by at least 16 readable bytes.
template <bool kTallyPositions>
inline bool GatherReturns(const std::uint8_t* words, std::uint32_t count, std::uint32_t start,
                          const RangeWindow& window, SampleBatch& batch, PositionTally* tally) {
  std::size_t n = batch.count;
  bool invalid = false;
  std::uint32_t mask = 0;
#if defined(__SSE2__)
  if (count <= 4) {
    const std::uint32_t active = (1u << count) - 1;
    const __m128i word = _mm_loadu_si128(reinterpret_cast<const __m128i*>(words));
    const __m128i d = _mm_sub_epi32(_mm_and_si128(word, _mm_set1_epi32(0xFFFFF)),
                                    _mm_set1_epi32(static_cast<std::int32_t>(start)));
    const __m128i outside = _mm_or_si128(_mm_cmplt_epi32(d, _mm_set1_epi32(window.first())),
                                         _mm_cmpgt_epi32(d, _mm_set1_epi32(window.last())));
    const __m128i notPositive = _mm_cmplt_epi32(d, _mm_set1_epi32(1));
    mask = ~static_cast<std::uint32_t>(_mm_movemask_ps(_mm_castsi128_ps(outside))) & active;
    invalid = (static_cast<std::uint32_t>(_mm_movemask_ps(_mm_castsi128_ps(notPositive))) & active) != 0;
    // Each word with its stop count replaced by the difference. When every
    // return is in range, one store covers the shot.
    const __m128i packed = _mm_or_si128(_mm_and_si128(word, _mm_set1_epi32(static_cast<std::int32_t>(0xFFF00000u))),
                                        _mm_and_si128(d, _mm_set1_epi32(0xFFFFF)));
    if (mask == active) {
      _mm_storeu_si128(reinterpret_cast<__m128i*>(batch.sample.get() + n), packed);
      n += count;
    } else {
      std::uint32_t lanes[4];
      _mm_storeu_si128(reinterpret_cast<__m128i*>(lanes), packed);
      for (std::uint32_t k = 0; k < count; ++k) {
        if ((mask >> k) & 1) batch.sample[n++] = lanes[k];
      }
    }
  } else
#endif
  {
    for (std::uint32_t k = 0; k < count; ++k) {
      const std::uint32_t word = le::LoadU32(words + 4 * k);
      const std::int32_t d = RangeWindow::Difference(word, start);
      if (d <= 0) {
        invalid = true;
      } else if (window.InRange(d)) {
        if (k < 4) mask |= 1u << k;  // positions beyond four have no counter
        batch.sample[n++] = (word & 0xFFF00000u) | static_cast<std::uint32_t>(d);
      }
    }
  }
  if constexpr (kTallyPositions) ++tally->shotsWithMask[mask];
  batch.count = n;
  return !invalid;
}

// Inline: the point layer normalizes every point of a block with it.
template <bool kZeroRangeGivesZero>
void IntensityModel::NormalizeInto(const std::uint32_t* samples, std::size_t n, double* v) const {
  std::size_t i = 0;
#if defined(__GNUC__)
  // Four samples at a time: the same operations in the same order on each
  // lane, so every value is bit for bit the scalar one; the divisions, which
  // dominate, overlap.
  using Lanes = double __attribute__((vector_size(32)));
  using Mask = std::int64_t __attribute__((vector_size(32)));
  using Counts = std::int32_t __attribute__((vector_size(16)));
  const Lanes a3 = {a3_, a3_, a3_, a3_};
  const Lanes a4 = {a4_, a4_, a4_, a4_};
  const Lanes a5 = {a5_, a5_, a5_, a5_};
  for (; i + 4 <= n; i += 4) {
    const Counts words = {static_cast<std::int32_t>(samples[i]), static_cast<std::int32_t>(samples[i + 1]),
                          static_cast<std::int32_t>(samples[i + 2]), static_cast<std::int32_t>(samples[i + 3])};
    const Counts counts = words & 0xFFFFF;
    Lanes range = __builtin_convertvector(counts, Lanes);
    optics::CountsToMetres(range);
    const Lanes base = {base_[samples[i] >> 20], base_[samples[i + 1] >> 20], base_[samples[i + 2] >> 20],
                        base_[samples[i + 3] >> 20]};
    const Lanes x = range / a5 - a5 / range;
    const Lanes value = a3 * (x * x + a4) * base;
    if constexpr (kZeroRangeGivesZero) {
      // All ones where the range is not 0; the value is a bit cast, as the compiler casts vectors.
      const Mask kept = (Mask)value & __builtin_convertvector(counts != 0, Mask);
      std::memcpy(v + i, &kept, sizeof kept);
    } else {
      std::memcpy(v + i, &value, sizeof value);
    }
  }
#endif
  for (; i < n; ++i) {
    const std::int32_t d = SampleDifference(samples[i]);
    v[i] = kZeroRangeGivesZero && d == 0 ? 0.0 : Normalized(RangeWindow::Range(d), base_[samples[i] >> 20]);
  }
}

// Folds the values of a batch, in order, into a running minimum and maximum.
void FoldExtremes(const SampleBatch& batch, double& minimum, double& maximum);

}  // namespace kvr::scanmap
