#include "kvr_simulator/scan_header.h"

#include <chrono>
#include <cmath>
#include <cstdio>

#include "kvr_simulator/random.h"
#include "kvr_writers/header_texts.h"

namespace kvr::sim {

namespace {

// The optical model's coefficients: a range polynomial close to the identity,
// small mirror and pan axis errors.
const std::pair<const char*, double> kOpticalModelSpread[] = {
    {"a0", 2e-3},
    {"a1", 2e-5},
    {"a2", 1e-6},
    {"a3", 1e-8},
    {"a4", 1e-10},
    {"a5", 1e-12},
    {"a6", 1e-14},
    {"sm-kappa", 1e-4},
    {"pan-a", 1e-4},
    {"pan-b", 1e-4},
    {"wobble-omega", 5e-5},
    {"wobble-omega-a", 5e-5},
    {"wobble-omega-b", 5e-5},
    {"wobble-phi", 5e-5},
    {"wobble-phi-a", 5e-5},
    {"wobble-phi-b", 5e-5},
    {"wobble-phi-s", 5e-5},
};

}  // namespace

CalibrationTruth PlanCalibration(const ScanPlan& plan, std::uint64_t seed) {
  Draws draws(seed, kCalibrationPurpose);
  CalibrationTruth c;
  c.rangeOffsets = plan.rangeOffsets;
  c.serialNumber = 1000000 + static_cast<std::uint32_t>(draws.below(9000000));
  for (std::size_t p = 0; p < kPrfs.size(); ++p) {
    // Weak echoes are timed late: a correction that fades with intensity,
    // stronger at higher PRF.
    const double scale = 0.004 * (1.0 + 0.25 * static_cast<double>(p)) * draws.uniform(0.9, 1.1);
    auto& table = c.rangeTables[p];
    table.reserve(kRangeTableRows);
    for (std::size_t i = 0; i < kRangeTableRows; ++i) {
      const double fade = std::exp(-static_cast<double>(i) / 700.0);
      table.emplace_back(std::round(scale * fade * 1e7) / 1e7, std::round((0.0008 + 0.002 * fade) * 1e7) / 1e7);
    }
  }
  for (const auto& [tag, spread] : kOpticalModelSpread) {
    const double value = (tag == std::string("a1") ? 1.0 : 0.0) + draws.uniform(-spread, spread);
    c.opticalModel.emplace_back(tag, value);
  }
  return c;
}

writers::HeaderBlockFields ScanHeaderFields(const ScanPlan& plan, const CalibrationTruth& calibration,
                                            const ClockTruth& clock, double linesPerSecond) {
  using namespace std::chrono;
  writers::HeaderBlockFields f;
  f.signature = plan.signature;
  f.headerLayout = 1;
  f.idText1 = "KVR laser scanner, simulated";
  f.idText2 = "S/N " + std::to_string(calibration.serialNumber);
  f.idText3 = "firmware 4.2.1";
  const sys_seconds start{seconds(clock.firstPulseUnixSeconds)};
  const year_month_day date{floor<days>(start)};
  char stamp[40];
  std::snprintf(stamp, sizeof stamp, "%04d-%02u-%02u", static_cast<int>(date.year()), unsigned(date.month()),
                unsigned(date.day()));
  f.idText4 = stamp;
  f.idValue = calibration.serialNumber;

  const double seconds = static_cast<double>(plan.totalShots) / (plan.prf * 1000.0);
  const bool ninety = plan.kind == ScannerKind::kNinetyDegree;
  f.scanStartAngle = static_cast<float>(plan.panStartDegrees);
  f.scanEndAngle = static_cast<float>(plan.panStartDegrees + 360.0);
  f.angularSpeed = static_cast<float>(360.0 / seconds);
  f.sweepStartAngle = ninety ? -45.0f : 0.0f;
  f.sweepEndAngle = ninety ? 45.0f : 360.0f;
  // Mirror cycles per second, two lines each: the rate the library measures.
  f.lineRate = static_cast<float>(linesPerSecond / 2.0);
  f.prf = plan.prf;

  writers::KeyValues leading = {{"serialNumber", calibration.serialNumber},
                                {"rangeOffset", -13.2},
                                {"rangeScale", 1.0},
                                {"temperatureCoefficient", 1.5e-6}};
  std::vector<writers::CalibrationSection> sections;
  std::vector<writers::PrfTable> tables;
  for (std::size_t p = 0; p < kPrfs.size(); ++p) {
    // The encoder lags the laser by about a pulse period, more at faster lines;
    // whole nanoseconds.
    const auto lag = [&](double periods) { return std::round(periods * 1e6 / kPrfs[p]) / 1e9; };
    sections.push_back({static_cast<std::int32_t>(kPrfs[p]),
                        {{"rangeOffset", calibration.rangeOffsets[p]}, {"intensityGain", 1.0 + 0.05 * p}},
                        {{25.0, lag(0.6)}, {50.0, lag(0.8)}, {100.0, lag(1.1)}}});
    tables.push_back({static_cast<std::int32_t>(kPrfs[p]), calibration.rangeTables[p]});
  }
  f.calibrationText = writers::ScanCalibrationText(leading, sections);
  f.parameterText = writers::ParameterText(tables);
  std::vector<std::pair<std::string, std::string>> tags;
  for (const auto& [tag, value] : calibration.opticalModel) tags.emplace_back(tag, writers::ShortestDecimal(value));
  f.thirdText = writers::OpticalModelText("version=\"2\"", tags, writers::TextLayout::kLines);

  const std::size_t headerSize = 288 + f.calibrationText.size() + f.parameterText.size() + f.thirdText.size();
  f.dataOffset = static_cast<std::uint32_t>((headerSize + 4095) / 4096 * 4096);
  return f;
}

}  // namespace kvr::sim
