#pragma once

#include <cstdint>
#include <filesystem>

#include "kvr_simulator/scanner_model.h"

// The scanner's tick counter against GNSS time: one pulse per second with a
// ZDA sentence shortly after each, recorded in the tick file ("Serial.dat").
namespace kvr::sim {

struct ClockTruth {
  std::uint64_t firstShotTicks = 0;
  std::uint64_t shotPeriodTicks = 0;
  std::uint64_t lastShotTicks = 0;
  // Pulse k arrives at firstPulseTicks + k x ticksPerSecond, rounded to a tick;
  // it marks the whole UTC second firstPulseUnixSeconds + k.
  std::uint64_t firstPulseTicks = 0;
  std::uint32_t pulses = 0;
  double ticksPerSecond = 50e6;  // the scanner's oscillator runs a little off 50 MHz
  std::int64_t firstPulseUnixSeconds = 0;
  double firstPulseTimeOfWeek = 0.0;  // seconds since Sunday 00:00 UTC

  // The time of week at a tick count; it runs on past the end of a week.
  double TimeOfWeek(std::uint64_t ticks) const {
    return firstPulseTimeOfWeek + (static_cast<double>(ticks) - static_cast<double>(firstPulseTicks)) / ticksPerSecond;
  }
  std::uint64_t PulseTicks(std::uint32_t k) const;
};

ClockTruth PlanClock(const ScanPlan& plan, std::uint64_t seed);

// Version 1, pulses and "$GNZDA" sentences, each sentence 0.05 to 0.45 s after its pulse.
void WriteTickFile(const std::filesystem::path& path, const ClockTruth& clock, std::uint64_t seed);

}  // namespace kvr::sim
