#include "kvr_simulator/scanner_model.h"

#include <algorithm>
#include <cmath>

#include "kvr_simulator/random.h"
#include "kvr_writers/fifo_block_writer.h"

namespace kvr::sim {

namespace {

// The scanner frame tilted on the tripod: the x axis rises by tiltX, the y axis
// by tiltY (R = Ry(-tiltX) Rx(tiltY)).
Rotation TiltRotation(double tiltXDegrees, double tiltYDegrees) {
  const double cx = std::cos(Radians(tiltXDegrees)), sx = std::sin(Radians(tiltXDegrees));
  const double cy = std::cos(Radians(tiltYDegrees)), sy = std::sin(Radians(tiltYDegrees));
  // Ry(-tx) = [cx 0 -sx; 0 1 0; sx 0 cx], Rx(ty) = [1 0 0; 0 cy -sy; 0 sy cy].
  Rotation r;
  r.row[0] = {cx, -sx * sy, -sx * cy};
  r.row[1] = {0.0, cy, -sy};
  r.row[2] = {sx, cx * sy, cx * cy};
  return r;
}

// Scan encoder position of shot j of a line of n shots, in counts.
double SweepCounts(std::uint32_t j, std::uint32_t n, bool upward) {
  const double u = (j + 0.5) / n;
  return kScanCountsPerSweep * (upward ? u : 1.0 - u);
}

constexpr std::uint32_t kMinimumIntensity = 10;

}  // namespace

ScanPlan PlanScan(const SimulationOptions& options, const Scene& scene) {
  ValidateOptions(options);
  Draws draws(options.seed, kPlanPurpose);
  ScanPlan plan;
  plan.kind = options.kind;
  plan.signature = !options.signature.empty()                   ? options.signature
                   : options.kind == ScannerKind::kNinetyDegree ? "#KVRSCAN"
                                                                : "MX700DAT";
  plan.prf = options.prf;
  plan.lines = options.lines;
  plan.shotsPerLine = static_cast<std::uint32_t>(std::lround(options.prf * 1000.0 / options.linesPerSecond));
  plan.startPhase = static_cast<std::uint32_t>(draws.below(plan.shotsPerLine));
  plan.totalShots = std::uint64_t{plan.lines} * plan.shotsPerLine - plan.startPhase;
  plan.firstLineUp = draws.unit() < 0.5;
  plan.panStartDegrees = draws.uniform(0.0, 360.0);
  plan.panDegreesPerShot = 360.0 / static_cast<double>(plan.totalShots);
  plan.shotPeriodTicks = 50000 / plan.prf;
  plan.firstShotTicks = 2000000000 + draws.below(40000000000);
  plan.tiltXDegrees = draws.uniform(-0.6, 0.6);
  plan.tiltYDegrees = draws.uniform(-0.6, 0.6);
  plan.scannerToRoom = TiltRotation(plan.tiltXDegrees, plan.tiltYDegrees);
  plan.origin = scene.scanner;
  // Range offsets near the usual -13.2 m, on a 1/1024 m grid so that they are
  // exact in single precision as well.
  for (std::size_t i = 0; i < kPrfs.size(); ++i) {
    plan.rangeOffsets[i] = static_cast<double>(-13517 + static_cast<int>(draws.below(161)) - 80) / 1024.0;
    if (kPrfs[i] == plan.prf) plan.rangeOffset = plan.rangeOffsets[i];
  }
  if (plan.kind == ScannerKind::kNinetyDegree) {
    plan.firstLineFlag = plan.firstLineUp;
  } else {
    // A rotating mirror has no direction: the line bit flips at every wrap of the
    // encoder, and the first line counts as set unless its first reading lies in
    // the lower half of the turn.
    const double first = SweepCounts(plan.startPhase, plan.shotsPerLine, true);
    plan.firstLineFlag = std::floor(first) >= kScanCountsPerSweep / 2;
  }
  plan.sweepCosine.resize(plan.shotsPerLine);
  plan.sweepSine.resize(plan.shotsPerLine);
  plan.panStepCosine.resize(plan.shotsPerLine);
  plan.panStepSine.resize(plan.shotsPerLine);
  for (std::uint32_t j = 0; j < plan.shotsPerLine; ++j) {
    plan.panStepCosine[j] = std::cos(Radians(j * plan.panDegreesPerShot));
    plan.panStepSine[j] = std::sin(Radians(j * plan.panDegreesPerShot));
    const double counts = SweepCounts(j, plan.shotsPerLine, true);
    const double elevation = Radians(plan.kind == ScannerKind::kNinetyDegree ? counts * kScanDegreesPerCount90 - 45.0
                                                                             : counts * kScanDegreesPerCount360);
    plan.sweepCosine[j] = std::cos(elevation);
    plan.sweepSine[j] = std::sin(elevation);
  }
  return plan;
}

std::uint32_t TimeCountFor(double distance, double rangeOffset, std::uint32_t t0) {
  const double counts = std::round((distance - rangeOffset) / kMetresPerCount);
  return t0 + static_cast<std::uint32_t>(std::max(counts, 0.0));
}

std::uint32_t IntensityOf(const BeamReturn& echo, double noise) {
  // Diffuse reflection of the part of the beam that made the echo, falling with
  // range as the receiver's aperture subtends less of it.
  const double falloff = 1.0 + (echo.distance / 6.0) * (echo.distance / 6.0);
  const double value =
      4095.0 * echo.reflectance * echo.share * (0.3 + 0.7 * echo.cosIncidence) / falloff * (1.0 + 0.03 * noise);
  return static_cast<std::uint32_t>(std::clamp(std::lround(value), 0L, 4095L));
}

void SimulateShots(const ScanPlan& plan, const RayCaster& caster, std::uint64_t seed, std::uint64_t first,
                   std::span<SimulatedShot> shots) {
  if (shots.empty()) return;
  const std::uint64_t firstMirrorShot = first + plan.startPhase;
  std::uint64_t line = firstMirrorShot / plan.shotsPerLine;
  std::uint32_t inLine = static_cast<std::uint32_t>(firstMirrorShot % plan.shotsPerLine);
  // The beam's pan at shot j of a line is the line's start turned by j steps.
  double lineCos = 0.0, lineSin = 0.0;
  const auto startLine = [&] {
    const double lineStart = static_cast<double>(line * plan.shotsPerLine) - plan.startPhase;
    const double radians = Radians(plan.panStartDegrees + lineStart * plan.panDegreesPerShot);
    lineCos = std::cos(radians);
    lineSin = std::sin(radians);
  };
  startLine();

  for (std::size_t n = 0; n < shots.size(); ++n) {
    if (inLine == plan.shotsPerLine) {
      inLine = 0;
      ++line;
      startLine();
    }
    SimulatedShot& shot = shots[n];
    const std::uint64_t index = first + n;
    const bool odd = (line & 1) != 0;
    shot.index = index;
    shot.ticks = plan.firstShotTicks + index * plan.shotPeriodTicks;
    shot.line = static_cast<std::uint32_t>(line);
    double elevationDegrees;
    bool upward = true;
    if (plan.kind == ScannerKind::kNinetyDegree) {
      upward = plan.firstLineUp != odd;
      shot.scanCounts = SweepCounts(inLine, plan.shotsPerLine, upward);
      elevationDegrees = shot.scanCounts * kScanDegreesPerCount90 - 45.0;
      shot.direction = upward;
    } else {
      shot.scanCounts = SweepCounts(inLine, plan.shotsPerLine, true);
      elevationDegrees = shot.scanCounts * kScanDegreesPerCount360;
      shot.direction = plan.firstLineFlag != odd;
    }
    // The pan turns once over the scan from its start, so it wraps at most once.
    double panDegrees = plan.panStartDegrees + static_cast<double>(index) * plan.panDegreesPerShot;
    if (panDegrees >= 360.0) panDegrees -= 360.0;
    shot.panCounts = panDegrees / kPanDegreesPerCount;
    std::uint32_t panCount = static_cast<std::uint32_t>(shot.panCounts);
    if (panCount >= kPanCountsPerTurn) {
      panCount -= kPanCountsPerTurn;
      shot.panCounts -= kPanCountsPerTurn;
    }
    const std::uint32_t scanCount = std::min(static_cast<std::uint32_t>(shot.scanCounts), 0x3FFFFu);
    shot.panRadians = Radians(panDegrees);
    shot.elevationRadians = Radians(elevationDegrees);

    Draws draws(seed, kShotPurpose, index);
    shot.t0 = 1800 + static_cast<std::uint32_t>(draws.below(500));
    shot.flags = draws.below(2048) == 0 ? 1 + static_cast<std::uint32_t>(draws.below(15)) : 0;

    const double panCos = lineCos * plan.panStepCosine[inLine] - lineSin * plan.panStepSine[inLine];
    const double panSin = lineSin * plan.panStepCosine[inLine] + lineCos * plan.panStepSine[inLine];
    const double ce = plan.sweepCosine[inLine];
    const double se = upward ? plan.sweepSine[inLine] : -plan.sweepSine[inLine];
    std::array<BeamReturn, kMaxReturns> echoes;
    const int echoCount = caster.BeamReturns(plan.origin, plan.scannerToRoom({ce * panCos, ce * panSin, se}), echoes);
    shot.returnCount = 0;
    for (int e = 0; e < echoCount; ++e) {
      const BeamReturn& echo = echoes[static_cast<std::size_t>(e)];
      const std::uint32_t intensity = IntensityOf(echo, draws.uniform(-1.0, 1.0));
      const std::uint32_t timeCount = TimeCountFor(echo.distance, plan.rangeOffset, shot.t0);
      if (intensity < kMinimumIntensity || timeCount > kMaxTimeCount) continue;
      shot.returns[shot.returnCount] = {echo.distance, timeCount, intensity};
      shot.returnWords[shot.returnCount] = writers::ReturnWord(timeCount, intensity);
      ++shot.returnCount;
    }
    shot.shotWord = writers::ShotWord({.pan = panCount,
                                       .scan = scanCount,
                                       .returnCount = shot.returnCount,
                                       .t0 = shot.t0,
                                       .flags = shot.flags,
                                       .topBits = shot.direction ? 2u : 0u});
    ++inLine;
  }
}

void SimulateShot(const ScanPlan& plan, const RayCaster& caster, std::uint64_t seed, std::uint64_t index,
                  SimulatedShot& shot) {
  SimulateShots(plan, caster, seed, index, std::span(&shot, 1));
}

}  // namespace kvr::sim
