#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "kvr_simulator/geometry.h"
#include "kvr_simulator/options.h"
#include "kvr_simulator/scene.h"

// How the simulated scanner moves and measures: the plan of a scan (fixed by
// the options and the seed) and the pure function from a shot's index to its
// encoder readings, beam direction and echoes.
//
// Scanner frame: z along the pan axis, up; the pan (azimuth) turns counter-
// clockwise seen from above, from x at pan count 0; the elevation is measured
// from the horizontal. The 90-degree mirror's scan count 0 points 45 degrees
// down, 131072 horizontal, 262143 45 degrees up. The 360-degree mirror's count 0
// points horizontally along the pan, 65536 to the zenith, 131072 to the opposite
// horizon, 196608 to the nadir. The tilted tripod turns the scanner frame into
// the room's by Ry(-tiltX) Rx(tiltY).
namespace kvr::sim {

// Encoder and ranging constants of the scanner.
inline constexpr double kTicksPerSecond = 50e6;           // 20 ns scanner ticks
inline constexpr double kPanDegreesPerCount = 0.0005625;  // 640000 counts per turn
inline constexpr std::uint32_t kPanCountsPerTurn = 640000;
inline constexpr double kScanCountsPerSweep = 262144.0;  // the 18-bit scan encoder
inline constexpr double kScanDegreesPerCount90 = 0.00034332275390625;
inline constexpr double kScanDegreesPerCount360 = 0.001373291015625;
// One time-of-flight count in metres of range: 1000/76.8 ps, halved, at the
// speed of light in air.
inline constexpr double kMetresPerCount = 13.020833333333334 * 1e-12 * 0.5 * 299704764.3859407;
inline constexpr std::uint32_t kMaxTimeCount = 0xFFFFF;

inline constexpr std::array<std::uint32_t, 3> kPrfs = {50, 200, 500};

struct ScanPlan {
  ScannerKind kind = ScannerKind::kNinetyDegree;
  std::string signature;
  std::uint32_t prf = 200;
  std::uint32_t lines = 0;
  std::uint32_t shotsPerLine = 0;
  std::uint32_t startPhase = 0;  // shots of the first line that lie before the file starts
  std::uint64_t totalShots = 0;
  bool firstLineUp = true;    // 90-degree kind: the first sweep runs upward
  bool firstLineFlag = true;  // the direction bit of the first line
  double panStartDegrees = 0.0;
  double panDegreesPerShot = 0.0;
  std::uint64_t shotPeriodTicks = 0;
  std::uint64_t firstShotTicks = 0;
  double tiltXDegrees = 0.0, tiltYDegrees = 0.0;
  Rotation scannerToRoom;
  Vec3 origin;                           // the optical centre in room coordinates
  std::array<double, 3> rangeOffsets{};  // the calibration's "rangeOffset" for each of kPrfs
  double rangeOffset = 0.0;              // ... and for this scan's PRF
  Beam beam;
  // Cosine and sine of the beam elevation at each shot of an upward sweep (a
  // downward sweep mirrors it), and of the pan turned since the line began:
  // worked out once rather than per shot.
  std::vector<double> sweepCosine, sweepSine;
  std::vector<double> panStepCosine, panStepSine;
};

ScanPlan PlanScan(const SimulationOptions& options, const Scene& scene);

struct SimulatedReturn {
  double distance = 0.0;        // m from the optical centre to the surface
  std::uint32_t timeCount = 0;  // stop count written in the return word
  std::uint32_t intensity = 0;  // 12 bits
};

// One shot as the scanner saw it.
struct SimulatedShot {
  std::uint64_t index = 0;        // from the first shot of the file
  std::uint64_t ticks = 0;        // the shot's time on the scanner's tick counter
  std::uint32_t line = 0;         // from 0, the line the file starts in
  double panCounts = 0.0;         // encoder positions the counts were read from,
  double scanCounts = 0.0;        // continuous, in counts
  double panRadians = 0.0;        // beam azimuth in the scanner frame
  double elevationRadians = 0.0;  // beam elevation in the scanner frame
  std::uint32_t t0 = 0;           // start count
  std::uint32_t flags = 0;        // event bits 57-60
  bool direction = false;         // bit 62
  std::uint64_t shotWord = 0;
  std::uint32_t returnCount = 0;
  std::array<SimulatedReturn, kMaxReturns> returns{};
  std::array<std::uint32_t, kMaxReturns> returnWords{};
};

// Shot `index` of the plan: a pure function, so shots may be made in any order.
void SimulateShot(const ScanPlan& plan, const RayCaster& caster, std::uint64_t seed, std::uint64_t index,
                  SimulatedShot& shot);
// The shots from `first` on, one per element of `shots`; the same as one call
// of SimulateShot each, faster.
void SimulateShots(const ScanPlan& plan, const RayCaster& caster, std::uint64_t seed, std::uint64_t first,
                   std::span<SimulatedShot> shots);

// The return's stop count for a distance, and the intensity of an echo.
std::uint32_t TimeCountFor(double distance, double rangeOffset, std::uint32_t t0);
std::uint32_t IntensityOf(const BeamReturn& echo, double noise);

}  // namespace kvr::sim
