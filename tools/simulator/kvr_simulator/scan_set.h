#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "kvr_simulator/clock.h"
#include "kvr_simulator/devices.h"
#include "kvr_simulator/options.h"
#include "kvr_simulator/scan_generator.h"
#include "kvr_simulator/scan_header.h"
#include "kvr_writers/normalization_params_writer.h"

// A complete simulated scan set in one directory: the raw scan file with its
// side table and normalization parameters, the tick file, the device data file
// and the camera file.
namespace kvr::sim {

struct ScanSetFiles {
  std::filesystem::path directory;
  std::filesystem::path scan;                 // options.scanFileName
  std::filesystem::path sideTable;            // scan + ".tbl"
  std::filesystem::path normalizationParams;  // scan + ".NormalizationParams.txt"
  std::filesystem::path ticks;                // "Serial.dat"
  std::filesystem::path devices;              // "Devices.dat"
  std::filesystem::path camera;               // "Camera.dat"
};

ScanSetFiles ScanSetFilesIn(const std::filesystem::path& directory, const SimulationOptions& options);

struct SideTableTruth {
  std::vector<int> keys;                  // whole-number keys across
  double rowOrigin = 0.0;                 // rows are 0.05 apart
  std::vector<std::vector<double>> rows;  // row coordinate, then one value per key
};

// What was written, and the truth behind it.
struct ScanSetSummary {
  ScanSetFiles files;
  SimulationOptions options;
  std::string signature;
  std::uint32_t prf = 0;
  std::uint32_t shotsPerLine = 0;
  std::uint32_t dataOffset = 0;
  std::uint64_t scanFileBytes = 0;
  ScanCounts counts;
  double seconds = 0.0;      // from the first shot to the last
  double rangeOffset = 0.0;  // the calibration's "rangeOffset" at this PRF
  double tiltXDegrees = 0.0, tiltYDegrees = 0.0;
  Scene scene;
  ScanPlan plan;
  ClockTruth clock;
  CalibrationTruth calibration;
  DeviceTruth devices;
  std::vector<CameraImage> cameraImages;
  writers::NormalizationParams normalization;
  SideTableTruth sideTable;
};

// Writes the scan set into `directory` (created when missing), streaming the
// scan file block by block. `observer`, when given, hears of every shot, block
// and line. Throws std::invalid_argument for options that cannot be simulated
// and std::runtime_error (naming the file) when a file cannot be written.
ScanSetSummary WriteScanSet(const std::filesystem::path& directory, const SimulationOptions& options,
                            ScanObserver* observer = nullptr);

// How many lines make a scan file of about `bytes` with these options, from a
// sample of lines spread over the turn.
std::uint32_t LinesForScanBytes(const SimulationOptions& options, std::uint64_t bytes);

// A readable account of the set, one "name: value" line each.
std::string DescribeScanSet(const ScanSetSummary& summary);

}  // namespace kvr::sim
