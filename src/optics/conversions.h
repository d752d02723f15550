#pragma once

#include <cstdint>

#include "optics/constants.h"

// Counters to physical quantities and back. Inline: they sit in the decoders'
// inner loops.
namespace kvr::optics {

// Bounds of the 64-bit integer conversions, exact as doubles.
inline constexpr double kTwoPow63 = 9223372036854775808.0;
inline constexpr double kTwoPow64 = 18446744073709551616.0;

// Turns a count difference (stop - start) into metres, in place, for a double
// or a compiler vector of them: loops that make many ranges at once use the
// same chain. (In place: a wide vector passed by value would change the ABI.)
template <typename Counts>
inline void CountsToMetres(Counts& d) {
  d = d * kTofCountPicoseconds * kPico * 0.5 * kSpeedOfLightInAir;
}

inline double Range(unsigned int stop, unsigned int start) {
  double d = static_cast<double>(stop) - static_cast<double>(start);
  if (d < 0.0) return -1.0;
  CountsToMetres(d);
  return d;
}

inline std::uint64_t TimeInCounts(double seconds) {
  const double q = seconds / kTickSeconds;
  // Truncation toward zero; quotients from 2^63 up convert as unsigned. Values no
  // 64-bit integer can hold (and NaN) give 0 rather than undefined behaviour.
  if (q >= 0.0 && q < kTwoPow64) return static_cast<std::uint64_t>(q);
  if (q < 0.0 && q >= -kTwoPow63) return static_cast<std::uint64_t>(static_cast<std::int64_t>(q));
  return 0;
}

inline double TimeInSecs(std::uint64_t ticks) {
  return static_cast<double>(ticks) * kTickNanoseconds * kNano;
}

inline double PanAngle(std::uint32_t counts) {
  return static_cast<double>(counts) * kPanDegreesPerCount * kDegreesToRadians;
}

inline double ScanAngle(std::uint32_t counts, std::uint64_t signature) {
  if (signature == kSignatureKvrScan || signature == kSignatureMx70Dat) {
    return (static_cast<double>(counts) * kScanDegreesPerCount90 - kScanOffsetDegrees90) * kDegreesToRadians;
  }
  if (signature == kSignatureMx700Dat) {
    return static_cast<double>(counts) * kScanDegreesPerCount360 * kDegreesToRadians;
  }
  return 0.0;
}

inline std::uint32_t ScanArcToCounts(double arcDegrees, std::uint64_t signature) {
  const double half = arcDegrees * 0.5;
  double counts;
  if (signature == kSignatureKvrScan || signature == kSignatureMx70Dat) {
    counts = half / kScanDegreesPerCount90;
  } else if (signature == kSignatureMx700Dat) {
    counts = half / kScanDegreesPerCount360;
  } else {
    return 0;
  }
  // Truncate toward zero to a 64-bit integer, keep the low 32 bits. Out-of-range
  // and NaN arcs give 0 instead of undefined behaviour.
  if (!(counts >= -kTwoPow63 && counts < kTwoPow63)) return 0;
  return static_cast<std::uint32_t>(static_cast<std::uint64_t>(static_cast<std::int64_t>(counts)));
}

// The same conversions as value = counts x factor + offset, for formats that
// store the counts and let their readers scale them (a reader's product may
// differ from the functions above in the last bit).
inline constexpr double kRangePerCount = kTofCountPicoseconds * kPico * 0.5 * kSpeedOfLightInAir;  // metres
inline constexpr double kPanRadiansPerCount = kPanDegreesPerCount * kDegreesToRadians;

inline double ScanRadiansPerCount(std::uint64_t signature) {
  if (signature == kSignatureKvrScan || signature == kSignatureMx70Dat) return kScanDegreesPerCount90 * kDegreesToRadians;
  if (signature == kSignatureMx700Dat) return kScanDegreesPerCount360 * kDegreesToRadians;
  return 0.0;
}

inline double ScanRadiansAtZero(std::uint64_t signature) {
  if (signature == kSignatureKvrScan || signature == kSignatureMx70Dat) return -kScanOffsetDegrees90 * kDegreesToRadians;
  return 0.0;
}

}  // namespace kvr::optics
