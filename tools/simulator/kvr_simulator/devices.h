#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <vector>

#include "kvr_simulator/clock.h"
#include "kvr_simulator/scanner_model.h"
#include "kvr_simulator/scene.h"

// The scanner's ancillary files: the device data file (inclinometer readings
// and two other kinds of reading) and the camera file.
namespace kvr::sim {

struct DeviceTruth {
  double tiltXDegrees = 0.0, tiltYDegrees = 0.0;  // what every inclinometer reading decodes to
  std::uint32_t inclinometerReadings = 0;         // type 1
  std::vector<std::uint64_t> type2Times, type7Times;
  std::vector<std::int32_t> nearestType7;  // for each type 2 reading: the nearest type 7 within 5 s, or -1
};

// Version 93 with both calibration texts; type 1 readings every second, type 7
// every 2 s and type 2 every 5 s, from before the first shot to after the last.
DeviceTruth WriteDeviceFile(const std::filesystem::path& path, const ScanPlan& plan, const ClockTruth& clock,
                            std::uint64_t seed);

struct CameraImage {
  std::uint64_t timeStamp = 0;            // scanner ticks
  std::array<std::uint32_t, 6> values{};  // index, width, height, pan count, exposure (us), gain
  std::vector<std::uint8_t> bytes;        // a binary PGM
};

inline constexpr std::uint32_t kImageWidth = 64, kImageHeight = 48;

// Small grey images of the room along the scan's pan direction, taken at even
// intervals over the scan.
std::vector<CameraImage> WriteCameraFile(const std::filesystem::path& path, const ScanPlan& plan,
                                         const RayCaster& caster, std::uint32_t count);

}  // namespace kvr::sim
