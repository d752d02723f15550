#include "kvr_simulator/options.h"

#include <cmath>
#include <stdexcept>

namespace kvr::sim {

namespace {

void Require(bool condition, const std::string& message) {
  if (!condition) throw std::invalid_argument(message);
}

}  // namespace

void ValidateOptions(const SimulationOptions& o) {
  Require(o.prf == 50 || o.prf == 200 || o.prf == 500,
          "prf must be 50, 200 or 500 (kHz), not " + std::to_string(o.prf));
  if (o.kind == ScannerKind::kNinetyDegree) {
    Require(o.signature.empty() || o.signature == "#KVRSCAN" || o.signature == "#MX70DAT",
            "a 90-degree scanner writes \"#KVRSCAN\" or \"#MX70DAT\", not \"" + o.signature + "\"");
  } else {
    Require(o.signature.empty() || o.signature == "MX700DAT",
            "a 360-degree scanner writes \"MX700DAT\", not \"" + o.signature + "\"");
  }
  Require(o.lines >= 1, "lines must be at least 1");
  Require(std::isfinite(o.linesPerSecond) && o.linesPerSecond > 0.0, "linesPerSecond must be positive");
  const double shotsPerLine = o.prf * 1000.0 / o.linesPerSecond;
  Require(shotsPerLine >= 16.0 && shotsPerLine <= 1e6,
          "linesPerSecond gives " + std::to_string(shotsPerLine) + " shots per line; 16 to 1000000 can be simulated");
  // The 40-bit block time stamps must not wrap within the scan.
  Require(std::round(shotsPerLine) * o.lines * (50000.0 / o.prf) < 1e12, "the scan is too long for the 40-bit clock");
  const RoomSize& r = o.room;
  Require(std::isfinite(r.length) && std::isfinite(r.width) && std::isfinite(r.height),
          "room dimensions must be finite");
  Require(r.length >= 2.0 && r.width >= 2.0 && r.height >= 2.0, "each room dimension must be at least 2 m");
  // Far walls must stay within the 20-bit time counts (about 2 km).
  Require(r.length <= 1000.0 && r.width <= 1000.0 && r.height <= 1000.0, "each room dimension must be at most 1000 m");
  Require(!o.scanFileName.empty() && o.scanFileName.find_first_of("/\\") == std::string::npos,
          "the scan file name must be a plain file name");
  Require(o.cameraImages <= 64, "at most 64 camera images");
}

}  // namespace kvr::sim
