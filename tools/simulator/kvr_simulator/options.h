#pragma once

#include <cstdint>
#include <string>

#include "kvr_simulator/scene.h"

namespace kvr::sim {

enum class ScannerKind {
  kNinetyDegree,  // an oscillating mirror sweeping -45..+45 degrees; "#KVRSCAN" or "#MX70DAT"
  kThreeSixty,    // a rotating mirror whose encoder wraps once per line; "MX700DAT"
};

// What to simulate. Everything not set here (furniture, the scanner's place and
// tilt, calibration values, the clock, noise) follows from the seed.
struct SimulationOptions {
  std::uint64_t seed = 1;
  ScannerKind kind = ScannerKind::kNinetyDegree;
  // Empty: "#KVRSCAN" for the 90-degree kind, "MX700DAT" for the 360-degree kind.
  // "#MX70DAT" names the other 90-degree model.
  std::string signature;
  std::uint32_t prf = 200;       // kHz: 50, 200 or 500
  std::uint32_t lines = 500;     // scan lines; the first one starts mid-line
  double linesPerSecond = 50.0;  // shots per line = prf x 1000 / linesPerSecond
  RoomSize room;
  std::string scanFileName = "scan.raw";
  std::uint32_t cameraImages = 4;
  unsigned threads = 0;  // ray-casting workers; 0: one per core. The output does not depend on it.
};

// Throws std::invalid_argument naming the first option that cannot be simulated.
void ValidateOptions(const SimulationOptions& options);

}  // namespace kvr::sim
