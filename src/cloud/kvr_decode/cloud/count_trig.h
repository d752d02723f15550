#pragma once

#include <array>
#include <cmath>
#include <cstdint>

namespace kvr::cloud {

// Sine and cosine of an angle that is linear in a whole-number count, for any
// count below 2^Bits: the count splits into a high and a low half, each with
// its own small table (they stay in the first-level cache), and the angle sum
// joins them. The tables hold the sines and cosines of the library's own
// angles, at the high half's counts and of the low half's steps, so the result
// differs from std::sin and std::cos of the library's angle only in the last
// bits of a double. Fixed sizes: an inner loop finds the tables without loads.
template <int Bits>
class CountTrig {
 public:
  // angle(count): the library's angle of an encoder count, in radians.
  template <typename Angle>
  explicit CountTrig(Angle angle) {
    const double zero = angle(0u);
    for (std::uint32_t i = 0; i < kLow; ++i) {
      const double step = angle(i) - zero;
      low_[i] = {std::cos(step), std::sin(step)};
    }
    for (std::uint32_t i = 0; i < kHigh; ++i) {
      const double a = angle(i << kLowBits);
      high_[i] = {std::cos(a), std::sin(a)};
    }
  }

  void operator()(std::uint32_t count, double& cosine, double& sine) const {
    const CosSin& h = high_[(count >> kLowBits) & (kHigh - 1)];
    const CosSin& l = low_[count & (kLow - 1)];
    cosine = h.cos * l.cos - h.sin * l.sin;
    sine = h.sin * l.cos + h.cos * l.sin;
  }

 private:
  static constexpr int kLowBits = Bits / 2;
  static constexpr std::uint32_t kLow = 1u << kLowBits, kHigh = 1u << (Bits - kLowBits);
  struct CosSin {
    double cos, sin;
  };
  std::array<CosSin, kLow> low_;
  std::array<CosSin, kHigh> high_;
};

}  // namespace kvr::cloud
