#include "scanmap/intensity_histogram.h"

#include <cstdlib>
#include <cstring>
#include <new>

namespace kvr::scanmap {

namespace {
// Up to this many bins the counters are one flat table.
constexpr std::size_t kDenseBins = 16384;
// Regions of 2^18 bins (256 KiB of one-byte counters), at most 1024 of them.
constexpr int kRegionShift = 18;
constexpr std::size_t kMaxRegions = 1024;
constexpr std::size_t kBucketSize = 32768;
// How far ahead the counters of a region are asked for while one is incremented.
constexpr std::size_t kAhead = 16;
}  // namespace

void BinIndices(const SampleBatch& batch, double binWidth, std::int32_t numberOfBins, std::int32_t* bins) {
  const double* v = batch.value.get();
  const std::size_t n = batch.count;
  std::size_t i = 0;
#if defined(__GNUC__)
  using Lanes = double __attribute__((vector_size(32)));
  const Lanes width = {binWidth, binWidth, binWidth, binWidth};
  for (; i + 4 <= n; i += 4) {
    Lanes value;
    std::memcpy(&value, v + i, sizeof value);
    const Lanes q = value / width;
    for (int k = 0; k < 4; ++k) bins[i + k] = BinOfQuotient(q[k], numberOfBins);
  }
#endif
  for (; i < n; ++i) bins[i] = BinIndex(v[i], binWidth, numberOfBins);
}

IntensityHistogram::~IntensityHistogram() { Release(); }

void IntensityHistogram::Release() {
  for (std::size_t p = 0; p < pageCount_; ++p) {
    if (pages_[p] != nullptr) std::free(pages_[p]->wide);
    std::free(pages_[p]);
  }
  std::free(pages_);
  pages_ = nullptr;
  pageCount_ = 0;
  std::free(buckets_);
  buckets_ = nullptr;
  bucketFill_.clear();
  dense_.clear();
  numberOfBins_ = 0;
  failed_ = false;
}

bool IntensityHistogram::Allocate(std::int32_t numberOfBins) {
  Release();
  if (numberOfBins <= 0) return false;
  const std::size_t bins = static_cast<std::size_t>(numberOfBins);
  const std::size_t pageCount = (bins + kPageBins - 1) >> kPageShift;
  pages_ = static_cast<Page**>(std::calloc(pageCount, sizeof(Page*)));
  if (pages_ == nullptr) return false;
  pageCount_ = pageCount;
  numberOfBins_ = numberOfBins;
  try {
    if (bins <= kDenseBins) {
      dense_.assign(kDenseLanes * bins, 0);
    } else {
      regionShift_ = kRegionShift;
      while (((bins - 1) >> regionShift_) + 1 > kMaxRegions) ++regionShift_;
      const std::size_t regions = ((bins - 1) >> regionShift_) + 1;
      bucketFill_.assign(regions, 0);
      // Zero-filled: the bucket of a region that never receives a sample costs no memory.
      buckets_ = static_cast<std::uint32_t*>(std::calloc(regions * kBucketSize, sizeof(std::uint32_t)));
      if (buckets_ == nullptr) throw std::bad_alloc();
    }
  } catch (const std::bad_alloc&) {
    Release();
    return false;
  }
  return true;
}

void IntensityHistogram::AddAll(const std::int32_t* bins, std::size_t n) {
  if (!dense_.empty()) {
    std::uint64_t* table = dense_.data();
    const std::size_t stride = static_cast<std::size_t>(numberOfBins_);
    std::size_t i = 0;
    for (; i + kDenseLanes <= n; i += kDenseLanes) {
      for (std::size_t lane = 0; lane < kDenseLanes; ++lane) {
        ++table[lane * stride + static_cast<std::uint32_t>(bins[i + lane])];
      }
    }
    for (; i < n; ++i) ++table[static_cast<std::uint32_t>(bins[i])];
    return;
  }
  if (buckets_ == nullptr) {
    for (std::size_t i = 0; i < n; ++i) Increment(static_cast<std::uint32_t>(bins[i]));
    return;
  }
  for (std::size_t i = 0; i < n; ++i) {
    const std::uint32_t bin = static_cast<std::uint32_t>(bins[i]);
    const std::size_t region = bin >> regionShift_;
    std::uint32_t& fill = bucketFill_[region];
    buckets_[region * kBucketSize + fill] = bin;
    if (++fill == kBucketSize) ApplyRegion(region);
  }
}

void IntensityHistogram::ApplyRegion(std::size_t region) {
  const std::uint32_t* bucket = buckets_ + region * kBucketSize;
  const std::size_t n = bucketFill_[region];
  for (std::size_t i = 0; i < n; ++i) {
#if defined(__GNUC__)
    // A region's counters may still be out of the caches; asking for them a
    // few increments ahead keeps several misses in flight.
    if (i + kAhead < n) {
      const std::uint32_t ahead = bucket[i + kAhead];
      if (const Page* page = pages_[ahead >> kPageShift]; page != nullptr) {
        const std::uint32_t slot = ahead & (kPageBins - 1);
        if (page->wide != nullptr) {
          __builtin_prefetch(page->wide + slot, 1);
        } else {
          __builtin_prefetch(page->narrow + slot, 1);
        }
      }
    }
#endif
    Increment(bucket[i]);
  }
  bucketFill_[region] = 0;
}

void IntensityHistogram::Finish() {
  for (std::size_t region = 0; region < bucketFill_.size(); ++region) {
    if (bucketFill_[region] != 0) ApplyRegion(region);
  }
  FoldDense();
}

bool IntensityHistogram::NewPage(Page*& page) {
  page = static_cast<Page*>(std::calloc(1, sizeof(Page)));
  if (page == nullptr) failed_ = true;
  return page != nullptr;
}

bool IntensityHistogram::Widen(Page& page) {
  page.wide = static_cast<std::uint64_t*>(std::calloc(kPageBins, sizeof(std::uint64_t)));
  if (page.wide == nullptr) {
    failed_ = true;
    return false;
  }
  for (std::size_t i = 0; i < kPageBins; ++i) page.wide[i] = page.narrow[i];
  return true;
}

// Moves the flat table's counts into pages, where the walk reads them.
void IntensityHistogram::FoldDense() {
  if (dense_.empty()) return;
  const std::size_t stride = static_cast<std::size_t>(numberOfBins_);
  for (std::size_t bin = 0; bin < stride; ++bin) {
    std::uint64_t count = 0;
    for (std::size_t lane = 0; lane < kDenseLanes; ++lane) count += dense_[lane * stride + bin];
    if (count == 0) continue;
    Page*& page = pages_[bin >> kPageShift];
    if (page == nullptr && !NewPage(page)) return;
    if (page->wide == nullptr && !Widen(*page)) return;
    page->wide[bin & (kPageBins - 1)] = count;
  }
  dense_.clear();
}

std::int64_t IntensityHistogram::FirstBinReaching(double share, std::uint32_t validSampleCount) {
  Finish();
  const double samples = static_cast<double>(validSampleCount);
  // What an untouched bin adds: 0.0, which leaves the sum as it was (so a run
  // of them is checked once, at its first bin), or NaN when no sample was
  // counted, which keeps the sum from ever reaching the share.
  const double emptyShare = 0.0 / samples;
  double sum = 0.0;
  std::int64_t nextBin = 0;  // first bin not yet added
  std::int64_t reached = -1;
  auto addEmptyUpTo = [&](std::int64_t bin) {
    if (bin <= nextBin) return false;
    sum += emptyShare;
    if (sum >= share) reached = nextBin;
    nextBin = bin;
    return reached >= 0;
  };
  auto add = [&](std::int64_t bin, std::uint64_t count) {
    if (addEmptyUpTo(bin)) return true;
    sum += static_cast<double>(count) / samples;
    nextBin = bin + 1;
    if (sum >= share) reached = bin;
    return reached >= 0;
  };
  for (std::size_t p = 0; p < pageCount_; ++p) {
    const Page* page = pages_[p];
    if (page == nullptr) continue;
    const std::int64_t first = static_cast<std::int64_t>(p) << kPageShift;
    if (page->wide != nullptr) {
      for (std::size_t i = 0; i < kPageBins; ++i) {
        if (page->wide[i] != 0 && add(first + static_cast<std::int64_t>(i), page->wide[i])) return reached;
      }
      continue;
    }
    for (std::size_t word = 0; word < kPageBins; word += 8) {
      std::uint64_t eight;
      std::memcpy(&eight, page->narrow + word, sizeof eight);
      if (eight == 0) continue;  // most of a sparse page
      for (std::size_t i = word; i < word + 8; ++i) {
        if (page->narrow[i] != 0 && add(first + static_cast<std::int64_t>(i), page->narrow[i])) return reached;
      }
    }
  }
  if (addEmptyUpTo(numberOfBins_)) return reached;
  return numberOfBins_;
}

double IntensityAt95(std::int64_t bin, std::int32_t numberOfBins, double binWidth) {
  const std::int64_t edge = bin < numberOfBins - 1 ? bin + 1 : numberOfBins - 1;
  return static_cast<double>(edge) * binWidth;
}

}  // namespace kvr::scanmap
