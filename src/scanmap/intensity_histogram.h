#pragma once

#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "kvr_decode/scan_file_map.h"
#include "optics/conversions.h"
#include "scanmap/truncation.h"

namespace kvr::scanmap {

// The in-range returns of one block, gathered so that their normalized
// intensities come out of one straight loop instead of one branchy shot walk.
// A block holds at most (65536 - 12 - 8) / 4 return words.
struct SampleBatch {
  static constexpr std::size_t kCapacity = 16384;
  std::size_t count = 0;
  std::unique_ptr<double[]> range{new double[kCapacity]};  // metres, without the range offset
  std::unique_ptr<double[]> base{new double[kCapacity]};   // base intensity of the raw value
  std::unique_ptr<double[]> value{new double[kCapacity]};  // normalized intensity
  std::unique_ptr<std::int32_t[]> bin{new std::int32_t[kCapacity]};
};

// The five-parameter intensity model. The base intensity depends only on the
// 12-bit raw value and on a1, a2, which are fixed for one build, so it is
// tabulated once: the table holds exactly what pow would return per sample.
class IntensityModel {
 public:
  explicit IntensityModel(const ScanFileMap& map) : a3_(map.a3), a4_(map.a4), a5_(map.a5) {
    for (std::uint32_t i = 0; i < base_.size(); ++i) {
      // The two branches meet with a step (999 -> 999, 1000 -> 625 with the defaults); that is the model.
      base_[i] = i < 1000 ? static_cast<double>(i) : std::pow(static_cast<double>(i) / map.a1, map.a2);
    }
  }

  double Base(std::uint32_t rawIntensity) const { return base_[rawIntensity]; }

  // Normalized intensity at range r (without the range offset).
  double Normalized(double r, double base) const {
    const double x = r / a5_ - a5_ / r;
    return a3_ * (x * x + a4_) * base;
  }

  // The same for every sample of a batch.
  void Normalize(SampleBatch& batch) const;

 private:
  std::array<double, 4096> base_{};
  double a3_;
  double a4_;
  double a5_;
};

// How one return word of a shot counts for the intensity statistics.
enum class SampleKind { kInvalid, kOutOfRange, kInRange };

struct Sample {
  SampleKind kind;
  double range;  // metres, without the range offset; valid when in range
};

inline Sample ClassifyReturn(std::uint32_t stop, std::uint32_t startCount, double rangeOffset) {
  if (stop == startCount) return {SampleKind::kInvalid, 0.0};
  const double r = optics::Range(stop, startCount);
  if (r < 0.0) return {SampleKind::kInvalid, r};
  const double withOffset = r + rangeOffset;
  if (withOffset <= 0.1 || withOffset > 2040.0) return {SampleKind::kOutOfRange, r};
  return {SampleKind::kInRange, r};
}

// Histogram bin of a normalized intensity: values are binned from zero, and an
// index outside the bins falls into the last one.
inline std::int32_t BinOfQuotient(double quotient, std::int32_t numberOfBins) {
  const std::int32_t index = TruncateToInt32(quotient);
  return index < 0 || index >= numberOfBins ? numberOfBins - 1 : index;
}
inline std::int32_t BinIndex(double value, double binWidth, std::int32_t numberOfBins) {
  return BinOfQuotient(value / binWidth, numberOfBins);
}

// Folds the values of a batch, in order, into a running minimum and maximum.
void FoldExtremes(const SampleBatch& batch, double& minimum, double& maximum);

// The bins of every value of a batch.
void BinIndices(const SampleBatch& batch, double binWidth, std::int32_t numberOfBins, std::int32_t* bins);

// Counts per bin for up to 2^31 - 1 bins. Bins live in pages of 4096 that are
// created on first touch, so memory and the final walk follow the bins actually
// used; an untouched bin is an implicit zero. A page keeps one-byte counters
// until one of them fills, then widens to 64 bits. Counts are exact integers,
// so the shares computed from them equal those of a table of doubles that
// received 1.0 per sample.
//
// A histogram larger than the processor's caches is not incremented sample by
// sample: indices are staged and applied in batches sorted by region, so each
// region's pages are hot while its increments land.
class IntensityHistogram {
 public:
  static constexpr int kPageShift = 12;
  static constexpr std::size_t kPageBins = std::size_t{1} << kPageShift;

  IntensityHistogram() = default;
  ~IntensityHistogram();
  IntensityHistogram(const IntensityHistogram&) = delete;
  IntensityHistogram& operator=(const IntensityHistogram&) = delete;

  // False when numberOfBins is not positive or the page table cannot be allocated.
  bool Allocate(std::int32_t numberOfBins);

  // bin must lie in 0 .. numberOfBins - 1.
  void Add(std::int32_t bin) {
    if (staged_.empty()) {
      Increment(static_cast<std::uint32_t>(bin));
      return;
    }
    staged_[stagedCount_++] = static_cast<std::uint32_t>(bin);
    if (stagedCount_ == staged_.size()) ApplyStaged();
  }

  // Applies what is staged; call once after the last Add.
  void Finish() { ApplyStaged(); }

  // True when a page could not be allocated during filling.
  bool failed() const { return failed_; }

  // The first bin at which the running sum of count / validSampleCount reaches
  // `share`, summed in bin order; numberOfBins when it never does.
  std::int64_t FirstBinReaching(double share, std::uint32_t validSampleCount);

  std::int32_t numberOfBins() const { return numberOfBins_; }

  // Bytes held by counters and staging, for the benchmark's memory report.
  std::size_t bytesInUse() const;

 private:
  struct Page {
    std::uint64_t* wide;  // null while all counts fit in narrow
    std::uint8_t narrow[kPageBins];
  };

  void Increment(std::uint32_t bin) {
    Page*& page = pages_[bin >> kPageShift];
    if (page == nullptr && !NewPage(page)) return;
    const std::uint32_t slot = bin & (kPageBins - 1);
    if (page->wide != nullptr) {
      ++page->wide[slot];
    } else if (page->narrow[slot] != 0xFF) {
      ++page->narrow[slot];
    } else {
      Widen(*page, slot);
    }
  }

  bool NewPage(Page*& page);
  void Widen(Page& page, std::uint32_t slot);
  void ApplyStaged();
  void Release();

  Page** pages_ = nullptr;
  std::size_t pageCount_ = 0;
  std::int32_t numberOfBins_ = 0;
  bool failed_ = false;
  // Staging, used only when the counters outgrow the caches.
  std::vector<std::uint32_t> staged_;
  std::vector<std::uint32_t> sorted_;
  std::size_t stagedCount_ = 0;
  int regionShift_ = 0;
};

// Upper edge of the bin at which 95% of the samples are reached.
double IntensityAt95(std::int64_t bin, std::int32_t numberOfBins, double binWidth);

}  // namespace kvr::scanmap
