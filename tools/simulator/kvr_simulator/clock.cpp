#include "kvr_simulator/clock.h"

#include <chrono>
#include <cmath>

#include "kvr_simulator/random.h"
#include "kvr_writers/tick_file_writer.h"

namespace kvr::sim {

std::uint64_t ClockTruth::PulseTicks(std::uint32_t k) const {
  return firstPulseTicks + static_cast<std::uint64_t>(std::llround(k * ticksPerSecond));
}

ClockTruth PlanClock(const ScanPlan& plan, std::uint64_t seed) {
  using namespace std::chrono;
  Draws draws(seed, kClockPurpose);
  ClockTruth clock;
  clock.firstShotTicks = plan.firstShotTicks;
  clock.shotPeriodTicks = plan.shotPeriodTicks;
  clock.lastShotTicks = plan.firstShotTicks + (plan.totalShots - 1) * plan.shotPeriodTicks;
  clock.ticksPerSecond = 50e6 * (1.0 + draws.uniform(-20e-6, 20e-6));
  // The first pulse comes 1 to 2 s before the first shot; the last one at least
  // a second after the last shot, so every block lies between two pulses.
  clock.firstPulseTicks =
      plan.firstShotTicks - static_cast<std::uint64_t>(std::llround(draws.uniform(1.0, 2.0) * clock.ticksPerSecond));
  const double span = static_cast<double>(clock.lastShotTicks - clock.firstPulseTicks) / clock.ticksPerSecond;
  clock.pulses = static_cast<std::uint32_t>(std::ceil(span)) + 2;

  // A whole UTC second in 2024 to 2026.
  const sys_days day = sys_days(2024y / January / 1) + days(draws.below(1000));
  const seconds timeOfDay(draws.below(86400));
  clock.firstPulseUnixSeconds = (day + timeOfDay).time_since_epoch().count();
  clock.firstPulseTimeOfWeek =
      static_cast<double>(weekday(day).c_encoding()) * 86400.0 + static_cast<double>(timeOfDay.count());
  return clock;
}

void WriteTickFile(const std::filesystem::path& path, const ClockTruth& clock, std::uint64_t seed) {
  using namespace std::chrono;
  writers::TickFileBuilder file(1);
  const writers::UtcTime first{seconds(clock.firstPulseUnixSeconds)};
  for (std::uint32_t k = 0; k < clock.pulses; ++k) {
    Draws draws(seed, kClockPurpose, 1 + k);
    const std::uint64_t pulse = clock.PulseTicks(k);
    const auto delay = static_cast<std::uint64_t>(std::llround(draws.uniform(0.05, 0.45) * clock.ticksPerSecond));
    file.pulse(pulse).sentence(pulse + delay, writers::ZdaSentence(first + seconds(k), "GN"));
  }
  file.writeTo(path);
}

}  // namespace kvr::sim
