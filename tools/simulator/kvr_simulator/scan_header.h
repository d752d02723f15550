#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "kvr_simulator/clock.h"
#include "kvr_simulator/scanner_model.h"
#include "kvr_writers/scan_file_writer.h"

// The header block of a simulated scan file and the calibration it carries.
namespace kvr::sim {

inline constexpr std::size_t kRangeTableRows = 4096;

struct CalibrationTruth {
  std::array<double, 3> rangeOffsets{};  // "rangeOffset" of the sections for kPrfs
  // The parameter text's table for each of kPrfs: 4096 rows of (range walk
  // correction in m by raw intensity, its standard deviation in m).
  std::array<std::vector<std::pair<double, double>>, 3> rangeTables;
  // The optical model's tagged values, version 2.
  std::vector<std::pair<std::string, double>> opticalModel;
  std::uint32_t serialNumber = 0;
};

CalibrationTruth PlanCalibration(const ScanPlan& plan, std::uint64_t seed);

// Signature, identity texts, scan angles and rates, the PRF and the three
// texts; the first block starts at the next multiple of 4096 after the header.
writers::HeaderBlockFields ScanHeaderFields(const ScanPlan& plan, const CalibrationTruth& calibration,
                                            const ClockTruth& clock, double linesPerSecond);

}  // namespace kvr::sim
