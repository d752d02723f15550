#pragma once

#include <array>
#include <cstdint>
#include <vector>

namespace kvrscan {

// The intensity model of a scan file map: the parameters its normalized
// intensity is computed with, and the two values a display scales it by.
struct IntensityModel {
  double a1 = 200.0;  // intensity scale of the high-intensity branch
  double a2 = 4.0;    // exponent of the high-intensity branch
  double a3 = 0.43;   // gain
  double a4 = 2.3;    // additive term of the range factor
  double a5 = 6.1;    // reference range, metres
  double intensityAt95 = 1.0;
  double gamma = 0.5;
};

// What the map's sample rule makes of one return.
enum class ReturnClass { kInvalid, kOutOfRange, kInRange };

// The map's sample rule: a return whose stop count equals the shot's T0 count, or
// lies before it, is invalid; one whose range plus the offset R0 lies at or below
// 0.1 m or beyond 2040 m is out of range. `range` is the library's range of the
// two counts.
ReturnClass ClassifyReturn(std::uint32_t stop, std::uint32_t t0, double range, double r0);

// The map's normalized intensity of a return: base B = I below 1000, else
// (I / a1)^a2; v = a3 ((r / a5 - a5 / r)^2 + a4) B with r the range without
// offset. The bases of all 4096 raw intensities are computed once, so pow is
// not called per return; the products are taken in the library's order, so v is
// the library's value to the last bit.
class IntensityNormalizer {
 public:
  explicit IntensityNormalizer(const IntensityModel& model);
  double operator()(double range, std::uint32_t intensity) const {
    const double q = range / a5_ - a5_ / range;
    return (q * q + a4_) * a3_ * base_[intensity & 0xFFF];
  }

 private:
  double a3_, a4_, a5_;
  std::array<double, 4096> base_{};
};

// Display level of a normalized intensity v: round(kTopLevel (v / intensityAt95)^gamma),
// v clamped to [0, intensityAt95]. Defined by the level's lower thresholds, so
// it needs no pow per value: a cell table over v / intensityAt95 gives the level
// at once almost everywhere, and the thresholds settle the few cells that hold
// a level boundary. A non-positive or non-finite intensityAt95 or gamma (a
// damaged map) is taken as 1.
class DisplayScale {
 public:
  explicit DisplayScale(double intensityAt95, double gamma);
  int level(double v) const;
  double intensityAt95() const { return at95_; }
  double gamma() const { return gamma_; }

 private:
  static constexpr int kCells = 4096;
  double at95_, gamma_, cellsPerUnit_;
  std::vector<double> threshold_;  // threshold_[k]: lowest v of level k (k >= 1)
  std::vector<std::uint8_t> cellLevel_;
};

// Points in the scanner's own frame: x = r cos(scan) cos(pan),
// y = r cos(scan) sin(pan), z = r sin(scan), r = range + range offset; pan and
// scan are the library's angles of the shot's encoder counts (the scan angle as
// the file's scanner model defines it). Sines and cosines of the 2^18 scan
// counts are tabled as they are first met; the pan's are kept for the last pan
// count, which stays the same along a scan line.
class PointGeometry {
 public:
  PointGeometry(std::uint64_t signature, double rangeOffset);

  void aim(std::uint32_t panCount, std::uint32_t scanCount) {
    if (panCount != panCount_) aimPan(panCount);
    const Direction& scan = scan_[scanCount & 0x3FFFF];
    if (scan.cos != scan.cos) fillScan(scanCount & 0x3FFFF);  // NaN: not computed yet
    cosScan_ = scan_[scanCount & 0x3FFFF].cos;
    sinScan_ = scan_[scanCount & 0x3FFFF].sin;
  }

  void place(double range, double& x, double& y, double& z) const {
    const double r = range + rangeOffset_;
    const double horizontal = r * cosScan_;
    x = horizontal * cosPan_;
    y = horizontal * sinPan_;
    z = r * sinScan_;
  }

  double rangeOffset() const { return rangeOffset_; }

 private:
  struct Direction {
    double cos;
    double sin;
  };
  void aimPan(std::uint32_t panCount);
  void fillScan(std::uint32_t scanCount);

  std::uint64_t signature_;
  double rangeOffset_;
  std::uint32_t panCount_ = ~0u;
  double cosPan_ = 1.0, sinPan_ = 0.0, cosScan_ = 1.0, sinScan_ = 0.0;
  std::vector<Direction> scan_;
};

// Line numbers of shots as a scan file map gives them: line L begins at the
// block and shot its entry names and runs to the next line's start; shots before
// line 0 belong to no line (-1). Ask in file order.
class LineIndexer {
 public:
  struct Start {
    std::uint32_t block;
    std::uint32_t shot;
  };
  explicit LineIndexer(std::vector<Start> starts) : starts_(std::move(starts)) {}

  std::int32_t lineOf(std::uint32_t block, std::uint32_t shot) {
    while (next_ < starts_.size() && (starts_[next_].block < block ||
                                      (starts_[next_].block == block && starts_[next_].shot <= shot))) {
      ++next_;
    }
    return static_cast<std::int32_t>(next_) - 1;
  }
  std::size_t lineCount() const { return starts_.size(); }

 private:
  std::vector<Start> starts_;
  std::size_t next_ = 0;
};

}  // namespace kvrscan
