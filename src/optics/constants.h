#pragma once

#include <cstdint>

// Physical constants of the decoder. Every expression that uses them keeps the
// reference order of operations: results are compared bit for bit.
namespace kvr::optics {

inline constexpr double kTickSeconds = 2e-08;            // one 50 MHz tick
inline constexpr double kTickNanoseconds = 20.0;          // the same, as 20.0 x 1e-09
inline constexpr double kNano = 1e-09;
inline constexpr double kTofCountPicoseconds = 13.020833333333334;  // 1000 / 76.8 ps
inline constexpr double kPico = 1e-12;
inline constexpr double kSpeedOfLightInAir = 299704764.3859407;     // m/s
inline constexpr double kPanDegreesPerCount = 0.0005625;            // 640000 counts per turn
inline constexpr std::uint32_t kPanCountsPerTurn = 640000;
inline constexpr double kScanDegreesPerCount90 = 0.00034332275390625;  // 22.5 / 65536
inline constexpr double kScanOffsetDegrees90 = 45.0;
inline constexpr double kScanDegreesPerCount360 = 0.001373291015625;   // 90 / 65536
inline constexpr double kDegreesToRadians = 0.017453292519943295;

// The three scan file magics as little-endian 64-bit numbers.
constexpr std::uint64_t MagicValue(const char (&text)[9]) {
  std::uint64_t value = 0;
  for (int i = 7; i >= 0; --i) value = (value << 8) | static_cast<unsigned char>(text[i]);
  return value;
}
inline constexpr std::uint64_t kSignatureKvrScan = MagicValue("#KVRSCAN");
inline constexpr std::uint64_t kSignatureMx70Dat = MagicValue("#MX70DAT");
inline constexpr std::uint64_t kSignatureMx700Dat = MagicValue("MX700DAT");

}  // namespace kvr::optics
