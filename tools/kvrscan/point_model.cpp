#include "point_model.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "kvr_decode/conversions.h"
#include "palette.h"

namespace kvrscan {

ReturnClass ClassifyReturn(std::uint32_t stop, std::uint32_t t0, double range, double r0) {
  if (stop == t0 || range < 0.0) return ReturnClass::kInvalid;
  const double withOffset = range + r0;
  if (withOffset <= 0.1 || withOffset > 2040.0) return ReturnClass::kOutOfRange;
  return ReturnClass::kInRange;
}

IntensityNormalizer::IntensityNormalizer(const IntensityModel& model) : a3_(model.a3), a4_(model.a4), a5_(model.a5) {
  for (std::uint32_t i = 0; i < base_.size(); ++i) {
    base_[i] = i < 1000 ? static_cast<double>(i) : std::pow(static_cast<double>(i) / model.a1, model.a2);
  }
}

DisplayScale::DisplayScale(double intensityAt95, double gamma)
    : at95_(std::isfinite(intensityAt95) && intensityAt95 > 0.0 ? intensityAt95 : 1.0),
      gamma_(std::isfinite(gamma) && gamma > 0.0 ? gamma : 1.0),
      cellsPerUnit_(kCells / at95_),
      threshold_(kTopLevel + 2, std::numeric_limits<double>::infinity()),
      cellLevel_(kCells + 1) {
  threshold_[0] = -std::numeric_limits<double>::infinity();
  // round(k (v / at95)^gamma) reaches level k where (v / at95)^gamma = (k - 0.5) / kTopLevel.
  for (int k = 1; k <= kTopLevel; ++k) {
    threshold_[k] = at95_ * std::pow((k - 0.5) / kTopLevel, 1.0 / gamma_);
  }
  for (int cell = 0; cell <= kCells; ++cell) {
    const double v = at95_ * cell / kCells;
    const auto above = std::upper_bound(threshold_.begin() + 1, threshold_.begin() + kTopLevel + 1, v);
    cellLevel_[cell] = static_cast<std::uint8_t>(above - threshold_.begin() - 1);
  }
}

int DisplayScale::level(double v) const {
  if (!(v > 0.0)) return 0;  // also NaN
  if (v >= at95_) return kTopLevel;
  int level = cellLevel_[std::min(static_cast<int>(v * cellsPerUnit_), kCells)];
  while (v >= threshold_[level + 1]) ++level;
  while (v < threshold_[level]) --level;
  return level;
}

PointGeometry::PointGeometry(std::uint64_t signature, double rangeOffset)
    : signature_(signature),
      rangeOffset_(rangeOffset),
      scan_(1u << 18, Direction{std::numeric_limits<double>::quiet_NaN(), 0.0}) {}

void PointGeometry::aimPan(std::uint32_t panCount) {
  const double pan = CalculatePanAngle(panCount);
  cosPan_ = std::cos(pan);
  sinPan_ = std::sin(pan);
  panCount_ = panCount;
}

void PointGeometry::fillScan(std::uint32_t scanCount) {
  const double scan = CalculateScanAngle(scanCount, signature_);
  scan_[scanCount] = {std::cos(scan), std::sin(scan)};
}

}  // namespace kvrscan
