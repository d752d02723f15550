#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "scanmap/sample_rule.h"
#include "scanmap/truncation.h"

namespace kvr::scanmap {

// Histogram bin of a normalized intensity: values are binned from zero, and an
// index outside the bins falls into the last one.
inline std::int32_t BinOfQuotient(double quotient, std::int32_t numberOfBins) {
  const std::int32_t index = TruncateToInt32(quotient);
  return index < 0 || index >= numberOfBins ? numberOfBins - 1 : index;
}
inline std::int32_t BinIndex(double value, double binWidth, std::int32_t numberOfBins) {
  return BinOfQuotient(value / binWidth, numberOfBins);
}

// The bins of every value of a batch.
void BinIndices(const SampleBatch& batch, double binWidth, std::int32_t numberOfBins, std::int32_t* bins);

// Counts per bin for up to 2^31 - 1 bins, the histogram of normalized
// intensity. Counts are exact integers, so the shares computed from them equal
// those of a table of doubles that received 1.0 per sample.
//
// A histogram that fits the caches is a flat table. A larger one lives in pages
// of 4096 bins created on first touch, so memory and the final walk follow the
// bins actually used and an untouched bin is an implicit zero; a page keeps
// one-byte counters until one of them fills, then widens to 64 bits. Its
// increments are not applied one by one at random over the whole table: they
// are collected per region of bins and applied a region at a time, while that
// region's pages are in the caches.
class IntensityHistogram {
 public:
  static constexpr int kPageShift = 12;
  static constexpr std::size_t kPageBins = std::size_t{1} << kPageShift;

  IntensityHistogram() = default;
  ~IntensityHistogram();
  IntensityHistogram(const IntensityHistogram&) = delete;
  IntensityHistogram& operator=(const IntensityHistogram&) = delete;

  // False when numberOfBins is not positive or the tables cannot be allocated.
  bool Allocate(std::int32_t numberOfBins);

  // Every bin must lie in 0 .. numberOfBins - 1.
  void AddAll(const std::int32_t* bins, std::size_t n);
  void Add(std::int32_t bin) { AddAll(&bin, 1); }

  // Applies what is pending; call after the last Add.
  void Finish();

  // True when a page could not be allocated during filling.
  bool failed() const { return failed_; }

  // The first bin at which the running sum of count / validSampleCount reaches
  // `share`, summed in bin order; numberOfBins when it never does.
  std::int64_t FirstBinReaching(double share, std::uint32_t validSampleCount);

  std::int32_t numberOfBins() const { return numberOfBins_; }

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
    } else if (Widen(*page)) {
      ++page->wide[slot];
    }
  }

  bool NewPage(Page*& page);
  bool Widen(Page& page);
  void ApplyRegion(std::size_t region);
  void FoldDense();
  void Release();

  std::int32_t numberOfBins_ = 0;
  bool failed_ = false;

  // The flat table, in four copies that take the samples in turn: runs of equal
  // bins, common in coherent data, then do not wait on each other's increments.
  static constexpr std::size_t kDenseLanes = 4;
  std::vector<std::uint64_t> dense_;

  Page** pages_ = nullptr;
  std::size_t pageCount_ = 0;

  // Pending increments per region, applied when a region's bucket is full.
  std::uint32_t* buckets_ = nullptr;
  std::vector<std::uint32_t> bucketFill_;
  int regionShift_ = 0;
};

// Upper edge of the bin at which 95% of the samples are reached.
double IntensityAt95(std::int64_t bin, std::int32_t numberOfBins, double binWidth);

}  // namespace kvr::scanmap
