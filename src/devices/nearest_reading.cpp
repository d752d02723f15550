#include "devices/nearest_reading.h"

#include <algorithm>
#include <cstdint>
#include <vector>

#include "optics/conversions.h"

namespace kvr::devices {

namespace {

constexpr double kNearestWithinSeconds = 5.0;
constexpr std::uint64_t kHalfwayAround = std::uint64_t{1} << 63;

// |a - b| of the signed 64-bit difference. Like the signed absolute value it
// stands for, it wraps: the difference -2^63 stays -2^63.
std::int64_t Distance(std::uint64_t a, std::uint64_t b) {
  const std::uint64_t diff = a - b;
  return static_cast<std::int64_t>(static_cast<std::int64_t>(diff) < 0 ? 0 - diff : diff);
}

// Every distinct time of the type 7 list with the first index that carries it,
// in ascending time.
struct FirstAtTime {
  std::uint64_t time;
  std::size_t index;
};

std::vector<FirstAtTime> FirstIndexByTime(std::span<const DeviceRecord7> type7) {
  std::vector<FirstAtTime> times;
  times.reserve(type7.size());
  for (std::size_t i = 0; i < type7.size(); ++i) times.push_back({type7[i].time, i});  // copies the packed field
  std::sort(times.begin(), times.end(), [](const FirstAtTime& a, const FirstAtTime& b) {
    return a.time < b.time || (a.time == b.time && a.index < b.index);
  });
  const auto sameTime = [](const FirstAtTime& a, const FirstAtTime& b) { return a.time == b.time; };
  times.erase(std::unique(times.begin(), times.end(), sameTime), times.end());
  return times;
}

struct Nearest {
  std::size_t index;
  std::int64_t distance;
};

// The first reading of the smallest distance, found without walking the list: on
// the circle of 2^64 tick counts that the wrapping difference describes, the
// nearest time lies just below or just above (wrapping at the ends), except that
// a time exactly halfway around counts -2^63 and beats every other. Of equal
// distances the lower index wins, as a walk from the start would keep it.
Nearest NearestOf(std::uint64_t time, const std::vector<FirstAtTime>& times) {
  const auto earlier = [](const FirstAtTime& f, std::uint64_t t) { return f.time < t; };
  const auto halfway = std::lower_bound(times.begin(), times.end(), time + kHalfwayAround, earlier);
  if (halfway != times.end() && halfway->time == time + kHalfwayAround) {
    return {halfway->index, Distance(time, halfway->time)};
  }
  const auto above = std::lower_bound(times.begin(), times.end(), time, earlier);
  const FirstAtTime& next = above == times.end() ? times.front() : *above;
  const FirstAtTime& previous = above == times.begin() ? times.back() : *(above - 1);
  const Nearest a{next.index, Distance(time, next.time)};
  const Nearest b{previous.index, Distance(time, previous.time)};
  if (a.distance != b.distance) return a.distance < b.distance ? a : b;
  return a.index < b.index ? a : b;
}

}  // namespace

void LinkNearestType7(std::span<DeviceRecord2> type2, std::span<const DeviceRecord7> type7) {
  if (type7.empty()) {
    for (DeviceRecord2& e : type2) e.nearestType7 = -1;
    return;
  }
  // Sorted once, so a file of any order costs a search per type 2 reading rather
  // than a pass over every type 7 reading: one damaged time stamp must not turn a
  // long recording quadratic.
  const std::vector<FirstAtTime> times = FirstIndexByTime(type7);
  for (DeviceRecord2& e : type2) {
    const Nearest nearest = NearestOf(e.time, times);
    const double seconds = optics::TimeInSecs(static_cast<std::uint64_t>(nearest.distance));
    e.nearestType7 = seconds < kNearestWithinSeconds ? static_cast<std::int32_t>(nearest.index) : -1;
  }
}

}  // namespace kvr::devices
