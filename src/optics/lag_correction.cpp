#include "optics/lag_correction.h"

#include <cmath>
#include <cstdint>
#include <limits>
#include <stdexcept>

#include "optics/conversions.h"

namespace kvr::optics {
namespace {

constexpr int kLagCorrectionFailed = -8;
constexpr std::uint64_t kPanCountMask = 0xFFFFF;  // shot word bits 0-19

std::uint32_t PanCounts(const RawShot& shot) { return static_cast<std::uint32_t>(shot.shotWord & kPanCountMask); }

// Truncation toward zero. NaN and values no 32-bit integer holds give INT32_MIN,
// as the processor's truncating conversion does, instead of undefined behaviour.
std::int32_t TruncateToInt32(double value) {
  if (value > -2147483649.0 && value < 2147483648.0) return static_cast<std::int32_t>(value);
  return std::numeric_limits<std::int32_t>::min();
}

unsigned int& Element(std::vector<unsigned int>& values, std::size_t i) {
  if (i >= values.size()) throw std::out_of_range("invalid vector<T> subscript");
  return values[i];
}

// The lag as a signed 32-bit tick offset: the tick count of its magnitude,
// negated for a negative lag, cut to its low 32 bits.
std::int32_t LagTicks(double lagSeconds) {
  auto ticks = static_cast<std::uint32_t>(TimeInCounts(std::fabs(lagSeconds)));
  if (lagSeconds < 0.0) ticks = 0u - ticks;
  return static_cast<std::int32_t>(ticks);
}

}  // namespace

int CorrectLag(std::vector<RawShot>& shots, double prf, double lagSeconds, int mode,
               std::vector<unsigned int>& corrected) {
  const std::size_t n = shots.size();
  if (n == 0) return kLagCorrectionFailed;

  const std::uint64_t period = TimeInCounts(1.0 / prf);
  const std::int32_t lag = LagTicks(lagSeconds);
  if (lag == 0) return 0;
  const auto offset = static_cast<std::uint64_t>(static_cast<std::int64_t>(lag));
  const std::uint64_t first = shots[0].timeInCounts;

  int result = 0;
  for (std::size_t i = 0; i < n; ++i) {
    RawShot& shot = shots[i];
    const std::uint64_t t = shot.timeInCounts + offset;
    // The shots are taken as evenly spaced, so the interval holding t follows
    // from the first shot's time alone. A zero period places nothing.
    const std::uint64_t k = t >= first && period != 0 ? (t - first) / period : n;
    if (k >= n - 1) {
      shot.status = kLagCorrectionFailed;
      Element(corrected, i) = shot.scanAngleCounts;
      result = kLagCorrectionFailed;
      continue;
    }
    if (mode != kCorrectScanCounts && mode != kCorrectPanCounts) continue;

    const RawShot& before = shots[k];
    const RawShot& after = shots[k + 1];
    const double f = (static_cast<double>(t) - static_cast<double>(before.timeInCounts)) /
                     (static_cast<double>(after.timeInCounts) - static_cast<double>(before.timeInCounts));
    const std::uint32_t from = mode == kCorrectScanCounts ? before.scanAngleCounts : PanCounts(before);
    const std::uint32_t to = mode == kCorrectScanCounts ? after.scanAngleCounts : PanCounts(after);
    const double step = (static_cast<double>(to) - static_cast<double>(from)) * f;
    Element(corrected, i) = static_cast<std::uint32_t>(TruncateToInt32(step)) + from;
  }

  // Applied only now, so every correction interpolates uncorrected readings.
  if (mode == kCorrectScanCounts) {
    for (std::size_t i = 0; i < n; ++i) shots[i].scanAngleCounts = corrected[i];
  } else if (mode == kCorrectPanCounts) {
    // A failed shot was given its scan count, whose low 20 bits now become its pan count.
    for (std::size_t i = 0; i < n; ++i) {
      shots[i].shotWord = (shots[i].shotWord & ~kPanCountMask) | (corrected[i] & kPanCountMask);
    }
  }
  return result;
}

}  // namespace kvr::optics
