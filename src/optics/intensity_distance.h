#pragma once

#include <cmath>

namespace kvr::optics {

// The range normalisation of a return's intensity. Inline: the scan file map's
// histogram evaluates it for every return. Intensities from 1000 up are
// rescaled by the power law; lower ones are used as they are.
inline double IntensityDistance(double intensityScale, double intensityExponent, double gain, double offset,
                                double referenceRange, double range, unsigned short intensity) {
  const double g = intensity < 1000 ? static_cast<double>(intensity)
                                    : std::pow(intensity / intensityScale, intensityExponent);
  const double q = range / referenceRange - referenceRange / range;
  return (q * q + offset) * gain * g;
}

}  // namespace kvr::optics
