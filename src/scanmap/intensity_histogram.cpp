#include "scanmap/intensity_histogram.h"

#include <cstdlib>
#include <cstring>
#include <new>

namespace kvr::scanmap {

namespace {
// Counters up to this size stay in the caches: they are incremented directly.
constexpr std::size_t kDirectPages = 64;
constexpr std::size_t kStagedIndices = std::size_t{1} << 22;
constexpr int kRegions = 256;
}  // namespace

void IntensityModel::Normalize(SampleBatch& batch) const {
  const double* r = batch.range.get();
  const double* b = batch.base.get();
  double* v = batch.value.get();
  const std::size_t n = batch.count;
  std::size_t i = 0;
#if defined(__GNUC__)
  // Four samples at a time: the same operations in the same order on each
  // lane, so every value is bit for bit the scalar one; the divisions, which
  // dominate, overlap.
  using Lanes = double __attribute__((vector_size(32)));
  const Lanes a3 = {a3_, a3_, a3_, a3_};
  const Lanes a4 = {a4_, a4_, a4_, a4_};
  const Lanes a5 = {a5_, a5_, a5_, a5_};
  for (; i + 4 <= n; i += 4) {
    Lanes range;
    Lanes base;
    std::memcpy(&range, r + i, sizeof range);
    std::memcpy(&base, b + i, sizeof base);
    const Lanes x = range / a5 - a5 / range;
    const Lanes value = a3 * (x * x + a4) * base;
    std::memcpy(v + i, &value, sizeof value);
  }
#endif
  for (; i < n; ++i) v[i] = Normalized(r[i], b[i]);
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
  numberOfBins_ = 0;
  failed_ = false;
  staged_.clear();
  sorted_.clear();
  stagedCount_ = 0;
}

bool IntensityHistogram::Allocate(std::int32_t numberOfBins) {
  Release();
  if (numberOfBins <= 0) return false;
  const std::size_t pageCount = (static_cast<std::size_t>(numberOfBins) + kPageBins - 1) >> kPageShift;
  pages_ = static_cast<Page**>(std::calloc(pageCount, sizeof(Page*)));
  if (pages_ == nullptr) return false;
  pageCount_ = pageCount;
  numberOfBins_ = numberOfBins;
  if (pageCount > kDirectPages) {
    try {
      staged_.resize(kStagedIndices);
      sorted_.resize(kStagedIndices);
    } catch (const std::bad_alloc&) {
      Release();
      return false;
    }
    // Regions of whole pages, at most kRegions of them.
    regionShift_ = kPageShift;
    while ((pageCount_ << kPageShift >> regionShift_) > kRegions) ++regionShift_;
  }
  return true;
}

bool IntensityHistogram::NewPage(Page*& page) {
  page = static_cast<Page*>(std::calloc(1, sizeof(Page)));
  if (page == nullptr) failed_ = true;
  return page != nullptr;
}

void IntensityHistogram::Widen(Page& page, std::uint32_t slot) {
  page.wide = static_cast<std::uint64_t*>(std::calloc(kPageBins, sizeof(std::uint64_t)));
  if (page.wide == nullptr) {
    failed_ = true;
    return;
  }
  for (std::size_t i = 0; i < kPageBins; ++i) page.wide[i] = page.narrow[i];
  ++page.wide[slot];
}

void IntensityHistogram::ApplyStaged() {
  if (stagedCount_ == 0) return;
  // A counting sort by region; the order of increments does not change a count.
  std::size_t start[kRegions + 1] = {};
  for (std::size_t i = 0; i < stagedCount_; ++i) ++start[(staged_[i] >> regionShift_) + 1];
  for (int r = 0; r < kRegions; ++r) start[r + 1] += start[r];
  for (std::size_t i = 0; i < stagedCount_; ++i) sorted_[start[staged_[i] >> regionShift_]++] = staged_[i];
  // The counters of a region still miss the caches; asking for them a few
  // increments ahead keeps several misses in flight instead of one.
  constexpr std::size_t kAhead = 16;
  for (std::size_t i = 0; i < stagedCount_; ++i) {
#if defined(__GNUC__)
    if (i + kAhead < stagedCount_) {
      const std::uint32_t ahead = sorted_[i + kAhead];
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
    Increment(sorted_[i]);
  }
  stagedCount_ = 0;
}

std::int64_t IntensityHistogram::FirstBinReaching(double share, std::uint32_t validSampleCount) {
  ApplyStaged();
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

std::size_t IntensityHistogram::bytesInUse() const {
  std::size_t bytes = pageCount_ * sizeof(Page*) + (staged_.size() + sorted_.size()) * sizeof(std::uint32_t);
  for (std::size_t p = 0; p < pageCount_; ++p) {
    if (pages_[p] == nullptr) continue;
    bytes += sizeof(Page);
    if (pages_[p]->wide != nullptr) bytes += kPageBins * sizeof(std::uint64_t);
  }
  return bytes;
}

double IntensityAt95(std::int64_t bin, std::int32_t numberOfBins, double binWidth) {
  const std::int64_t edge = bin < numberOfBins - 1 ? bin + 1 : numberOfBins - 1;
  return static_cast<double>(edge) * binWidth;
}

}  // namespace kvr::scanmap
