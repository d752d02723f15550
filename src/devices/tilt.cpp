#include "devices/tilt.h"

#include <cmath>

namespace kvr::devices {

namespace {
constexpr double kDegreesPerRadian = 57.29577951308232;
}  // namespace

int ComputeTilt(DeviceRecord1& record, const InclinometerCalibration& calibration) {
  // Everything in double, in this order: the angles are compared bit for bit.
  const double sxx = calibration.sxx;
  const double syy = calibration.syy;
  const double sxy = calibration.sxy;
  const double syx = calibration.syx;
  const double k = 2.0 * static_cast<double>(calibration.vref) / static_cast<double>(calibration.pga);
  const double base = static_cast<double>(record.raw[3]) / static_cast<double>(calibration.alpha);
  const double scale = static_cast<double>(record.raw[4]) * static_cast<double>(calibration.beta);
  const double x = (static_cast<double>(record.raw[1]) / scale - base) * k - static_cast<double>(calibration.offnomx);
  const double y = (static_cast<double>(record.raw[2]) / scale - base) * k - static_cast<double>(calibration.offnomy);
  const double det = syy * sxx - syx * sxy;
  record.tiltX = std::asin((x * syy - y * sxy) / det) * kDegreesPerRadian;
  record.tiltY = std::asin((y * sxx - x * syx) / det) * kDegreesPerRadian;
  return 0;
}

}  // namespace kvr::devices
