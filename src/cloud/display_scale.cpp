#include "kvr_decode/cloud/display_scale.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace kvr::cloud {

DisplayScale::DisplayScale(double intensityAt95, double gamma)
    : at95_(std::isfinite(intensityAt95) && intensityAt95 > 0.0 ? intensityAt95 : 1.0),
      gamma_(std::isfinite(gamma) && gamma > 0.0 ? gamma : 1.0) {
  threshold_.front() = -std::numeric_limits<double>::infinity();
  threshold_.back() = std::numeric_limits<double>::infinity();
  // round(kTopLevel (v / at95)^gamma) reaches level k where (v / at95)^gamma = (k - 0.5) / kTopLevel.
  for (int k = 1; k <= kTopLevel; ++k) threshold_[k] = at95_ * std::pow((k - 0.5) / kTopLevel, 1.0 / gamma_);
  // A cell of relative width 2^-b spans at most kTopLevel gamma 2^-b levels.
  if (gamma_ >= 4.0) return;
  mantissaBits_ = gamma_ <= 1.0 ? 8 : 10;
  // Below 2^-e of intensityAt95 the level is kTopLevel 2^(-e gamma) < 0.5: 0.
  // The table starts there, and values below it are clamped to its first value;
  // where that reaches past the normal doubles, or the gamma is so small that it
  // would take more than 64 binades, the binary search does it all.
  const double binades = std::ceil(9.0 / gamma_) + 2.0;
  const auto topExponent = static_cast<std::int64_t>(std::bit_cast<std::uint64_t>(at95_) >> 52);
  if (binades > 64.0 || topExponent - static_cast<std::int64_t>(binades) < 1) return;
  lowestExponent_ = topExponent - static_cast<std::int64_t>(binades);
  firstCell_ = static_cast<std::uint64_t>(lowestExponent_) << mantissaBits_;
  lowest_ = std::bit_cast<double>(static_cast<std::uint64_t>(lowestExponent_) << 52);
  if (search(lowest_) != 0) return;
  cell_.resize(static_cast<std::size_t>(topExponent - lowestExponent_ + 1) << mantissaBits_);
  const std::uint64_t cellWidth = std::uint64_t{1} << (52 - mantissaBits_);
  for (std::size_t i = 0; i < cell_.size(); ++i) {
    const auto binade = static_cast<std::uint64_t>(lowestExponent_) + (i >> mantissaBits_);
    const std::uint64_t first = binade << 52 | (i & ((std::size_t{1} << mantissaBits_) - 1)) * cellWidth;
    const int level = search(std::bit_cast<double>(first));
    cell_[i] = {static_cast<std::uint8_t>(level), search(std::bit_cast<double>(first + cellWidth - 1)) != level};
  }
}

int DisplayScale::search(double v) const {
  if (!(v > 0.0)) return 0;
  if (v >= at95_) return kTopLevel;
  const auto above = std::upper_bound(threshold_.begin() + 1, threshold_.begin() + kTopLevel + 1, v);
  return static_cast<int>(above - threshold_.begin()) - 1;
}

}  // namespace kvr::cloud
