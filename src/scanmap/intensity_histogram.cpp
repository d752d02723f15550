#include "scanmap/intensity_histogram.h"

#include <cstring>

#include "scanmap/truncation.h"

namespace kvr::scanmap {

std::int32_t BinIndex(double value, double binWidth, std::int32_t numberOfBins) {
  const std::int32_t index = TruncateToInt32(value / binWidth);
  return index < 0 || index >= numberOfBins ? numberOfBins - 1 : index;
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
}

bool IntensityHistogram::Allocate(std::int32_t numberOfBins) {
  Release();
  if (numberOfBins <= 0) return false;
  const std::size_t pageCount = (static_cast<std::size_t>(numberOfBins) + kPageBins - 1) >> kPageShift;
  pages_ = static_cast<Page**>(std::calloc(pageCount, sizeof(Page*)));
  if (pages_ == nullptr) return false;
  pageCount_ = pageCount;
  numberOfBins_ = numberOfBins;
  return true;
}

bool IntensityHistogram::NewPage(Page*& page) {
  page = static_cast<Page*>(std::calloc(1, sizeof(Page)));
  if (page == nullptr) failed_ = true;
  return page != nullptr;
}

void IntensityHistogram::AddWide(Page& page, std::uint32_t slot) {
  if (page.wide == nullptr) {
    page.wide = static_cast<std::uint64_t*>(std::calloc(kPageBins, sizeof(std::uint64_t)));
    if (page.wide == nullptr) {
      failed_ = true;
      return;
    }
    for (std::size_t i = 0; i < kPageBins; ++i) page.wide[i] = page.narrow[i];
  }
  ++page.wide[slot];
}

std::int64_t IntensityHistogram::FirstBinReaching(double share, std::uint32_t validSampleCount) const {
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
  std::size_t bytes = pageCount_ * sizeof(Page*);
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
