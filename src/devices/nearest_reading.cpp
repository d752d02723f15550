#include "devices/nearest_reading.h"

#include <algorithm>
#include <cstdint>
#include <limits>

#include "optics/conversions.h"

namespace kvr::devices {

namespace {

constexpr double kNearestWithinSeconds = 5.0;
constexpr std::uint64_t kSignedMax = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());

struct Nearest {
  std::size_t index = 0;
  std::int64_t distance = 0;
};

// |a - b| of the signed 64-bit difference. Like the signed absolute value it
// stands for, it wraps: the difference -2^63 stays -2^63.
std::int64_t Distance(std::uint64_t a, std::uint64_t b) {
  const std::uint64_t diff = a - b;
  return static_cast<std::int64_t>(static_cast<std::int64_t>(diff) < 0 ? 0 - diff : diff);
}

// Any order and any times: the first reading with the smallest distance.
Nearest ByScan(std::uint64_t time, std::span<const DeviceRecord7> type7) {
  Nearest best{0, Distance(time, type7[0].time)};
  for (std::size_t i = 1; i < type7.size(); ++i) {
    const std::int64_t d = Distance(time, type7[i].time);
    if (d < best.distance) best = {i, d};
  }
  return best;
}

bool EarlierTime(const DeviceRecord7& f, std::uint64_t time) { return f.time < time; }

// Times in ascending order below 2^63, where no difference wraps: the scan's
// answer by bisection. Of equal distances the earlier reading wins, and of equal
// times the first of them.
Nearest ByBisection(std::uint64_t time, std::span<const DeviceRecord7> type7) {
  const auto begin = type7.begin();
  const auto after = std::lower_bound(begin, type7.end(), time, EarlierTime);
  auto pick = after;
  if (after == type7.end() || (after != begin && time - (after - 1)->time <= after->time - time)) {
    const std::uint64_t before = (after - 1)->time;  // a copy: the packed field is not 8-byte aligned
    pick = std::lower_bound(begin, after, before, EarlierTime);
  }
  return {static_cast<std::size_t>(pick - begin), Distance(time, pick->time)};
}

bool AscendingBelowSignedMax(std::span<const DeviceRecord7> type7) {
  for (std::size_t i = 0; i < type7.size(); ++i) {
    if (type7[i].time > kSignedMax || (i > 0 && type7[i].time < type7[i - 1].time)) return false;
  }
  return true;
}

}  // namespace

void LinkNearestType7(std::span<DeviceRecord2> type2, std::span<const DeviceRecord7> type7) {
  if (type7.empty()) {
    for (DeviceRecord2& e : type2) e.nearestType7 = -1;
    return;
  }
  // The scan costs a pass over the type 7 list per type 2 reading; on sorted
  // times, which is what the scanner writes, bisection gives the same answer.
  const bool sorted = AscendingBelowSignedMax(type7);
  for (DeviceRecord2& e : type2) {
    const std::uint64_t time = e.time;
    const Nearest nearest = sorted && time <= kSignedMax ? ByBisection(time, type7) : ByScan(time, type7);
    const double seconds = optics::TimeInSecs(static_cast<std::uint64_t>(nearest.distance));
    e.nearestType7 = seconds < kNearestWithinSeconds ? static_cast<std::int32_t>(nearest.index) : -1;
  }
}

}  // namespace kvr::devices
