#include "devices/nearest_reading.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <ostream>
#include <vector>

namespace kvr::devices {
namespace {

constexpr std::uint64_t kSecond = 50000000;  // ticks
constexpr std::uint64_t kTop = 0xFFFFFFFFFFFFFFF0u;

struct NearestCase {
  const char* name;
  std::vector<std::uint64_t> type7Times;
  std::vector<std::uint64_t> type2Times;
  std::vector<std::int32_t> nearest;

  friend void PrintTo(const NearestCase& c, std::ostream* os) { *os << c.name; }
};

class NearestType7 : public ::testing::TestWithParam<NearestCase> {};

TEST_P(NearestType7, LinksEachType2ReadingToTheFirstNearestWithinFiveSeconds) {
  const NearestCase& c = GetParam();
  std::vector<DeviceRecord7> type7;
  for (const std::uint64_t t : c.type7Times) type7.push_back(DeviceRecord7{.time = t});
  std::vector<DeviceRecord2> type2;
  for (const std::uint64_t t : c.type2Times) type2.push_back(DeviceRecord2{.time = t, .nearestType7 = 77});
  LinkNearestType7(type2, type7);
  std::vector<std::int32_t> nearest;
  for (const DeviceRecord2& e : type2) nearest.push_back(e.nearestType7);
  EXPECT_EQ(nearest, c.nearest);
}

INSTANTIATE_TEST_SUITE_P(
    Lists, NearestType7,
    ::testing::Values(NearestCase{"NoType7Readings", {}, {0, 5}, {-1, -1}},
                      // 249999999 ticks are 4.99999998 s; 250000000 ticks are 5 s exactly.
                      NearestCase{"FiveSecondsIsTooFar",
                                  {10 * kSecond},
                                  {10 * kSecond + 249999999, 10 * kSecond - 249999999, 15 * kSecond, 5 * kSecond},
                                  {0, 0, -1, -1}},
                      NearestCase{
                          "EqualDistanceKeepsTheEarlier", {100, 200, 300}, {150, 250, 300, 99999}, {0, 1, 2, 2}},
                      NearestCase{"EqualTimesKeepTheFirst", {100, 200, 200, 200, 400}, {210, 190, 450}, {1, 1, 4}},
                      NearestCase{"UnsortedList", {500, 100, 300, 100}, {90, 320, 450, 200}, {1, 2, 0, 1}},
                      // Equally near on both sides: the lower index, whichever side it is on.
                      NearestCase{"UnsortedEqualDistanceKeepsTheLowerIndex", {300, 100, 200, 300}, {250, 150}, {0, 1}},
                      NearestCase{"UnsortedWrapAroundZero", {40, kTop, 5 * kSecond}, {0, 8}, {1, 1}},
                      // Beyond 2^63 the signed difference wraps: 16 ticks back from 0 is near,
                      // but 2^63 ticks away counts as the smallest distance of all, and is far.
                      NearestCase{"DifferencesWrapAroundZero", {kTop, 40}, {0, 30}, {0, 1}},
                      NearestCase{"HalfwayAroundIsTheSmallestDistanceAndFar", {0x8000000000000000u, 5}, {0}, {-1}}),
    [](const auto& info) { return std::string(info.param.name); });

// A long recording whose first type 7 time stamp is damaged (it reads 0, after
// every other): each type 2 reading still finds its neighbour by a search, not
// by a walk over 200000 readings, which would take minutes.
TEST(NearestType7Performance, OneOutOfOrderTimeDoesNotMakeLinkingQuadratic) {
  constexpr std::size_t n = 200000;
  std::vector<DeviceRecord7> type7(n);
  for (std::size_t i = 0; i + 1 < n; ++i) type7[i].time = (i + 1) * 1000;
  type7[n - 1].time = 0;
  std::vector<DeviceRecord2> type2(n);
  for (std::size_t j = 0; j < n; ++j) type2[j].time = j * 1000 + 400;  // 400 ticks after time j x 1000

  const auto start = std::chrono::steady_clock::now();
  LinkNearestType7(type2, type7);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  EXPECT_EQ(type2[0].nearestType7, static_cast<std::int32_t>(n - 1));
  for (std::size_t j = 1; j < n; ++j) ASSERT_EQ(type2[j].nearestType7, static_cast<std::int32_t>(j - 1)) << j;
}

}  // namespace
}  // namespace kvr::devices
