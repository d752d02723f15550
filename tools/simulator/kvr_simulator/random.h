#pragma once

#include <cstdint>

// Counter-based randomness: every draw is a pure function of the seed and what
// it is drawn for (a shot index, a reading, a piece of furniture), so a scan set
// comes out the same whatever order or chunks it is produced in.
namespace kvr::sim {

// The splitmix64 finaliser: a bijective mix of 64 bits.
constexpr std::uint64_t Mix(std::uint64_t x) {
  x += 0x9E3779B97F4A7C15ull;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
  return x ^ (x >> 31);
}

// Streams of draws named by a purpose and an index under one seed.
class Draws {
 public:
  constexpr Draws(std::uint64_t seed, std::uint64_t purpose, std::uint64_t index = 0)
      : state_(Mix(Mix(seed ^ Mix(purpose)) + index)) {}

  constexpr std::uint64_t bits() { return state_ = Mix(state_); }
  // Uniform in [0, 1).
  constexpr double unit() { return static_cast<double>(bits() >> 11) * 0x1.0p-53; }
  constexpr double uniform(double low, double high) { return low + (high - low) * unit(); }
  // Uniform in [0, bound).
  constexpr std::uint64_t below(std::uint64_t bound) { return bits() % bound; }

 private:
  std::uint64_t state_;
};

// Purposes, so that adding a draw for one thing never shifts another's.
enum Purpose : std::uint64_t {
  kScenePurpose = 1,
  kPlanPurpose,
  kShotPurpose,
  kClockPurpose,
  kCalibrationPurpose,
  kDevicePurpose,
  kCameraPurpose,
};

}  // namespace kvr::sim
