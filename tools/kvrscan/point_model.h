#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <span>
#include <vector>

#include "palette.h"

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

// The library's CalculateRange (metres from a return's stop count and its
// shot's T0 count, -1 when the stop lies before the start), with its constants
// and multiplications in the same order, so the two agree to the bit (a test
// holds them to it). Inlined here because the export's inner loop calls it for
// every return.
// The factors a count difference is multiplied by, one after the other, in
// this order (code that computes several ranges at a time uses them too).
inline constexpr double kRangeFactors[4] = {13.020833333333334, 1e-12, 0.5, 299704764.3859407};

inline double RangeOf(std::uint32_t stop, std::uint32_t start) {
  const double counts = static_cast<double>(stop) - static_cast<double>(start);
  if (counts < 0.0) return -1.0;
  return counts * kRangeFactors[0] * kRangeFactors[1] * kRangeFactors[2] * kRangeFactors[3];
}

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
  // The parts of the formula, for code that computes it several values at a time.
  double base(std::uint32_t intensity) const { return base_[intensity & 0xFFF]; }
  double a3() const { return a3_; }
  double a4() const { return a4_; }
  double a5() const { return a5_; }

 private:
  double a3_, a4_, a5_;
  std::array<double, 4096> base_{};
};

// Display level of a normalized intensity v: round(kTopLevel (v / intensityAt95)^gamma),
// v clamped to [0, intensityAt95]. Defined by the levels' lower thresholds, so
// no pow is taken per value: a table over the leading bits of v (its exponent
// and the top mantissa bits) gives the level at each cell's start and whether
// the next level's threshold falls inside the cell. Cells are narrow enough to
// span less than one level (eight mantissa bits up to gamma 1, ten up to gamma
// 4), so one comparison settles those few cells; and the table reaches down only
// as far as levels above 0 do, so it stays small enough for the first-level
// cache; smaller values are level 0. Gammas of 4 and above or below about 0.15,
// and tables that would reach below the normal doubles, give way to a binary
// search. A
// non-positive or non-finite intensityAt95 or gamma (a damaged map) is taken as 1.
class DisplayScale {
 public:
  struct Cell {
    std::uint8_t level;  // at the cell's first value
    bool split;          // the next level begins inside the cell
  };

  explicit DisplayScale(double intensityAt95, double gamma);

  int level(double v) const { return cell_.empty() ? search(v) : levels()(v); }

  // The table lookup with the scale's constants held by value, for inner loops:
  // kept in a local, they are not reloaded after every store the loop makes.
  // Only for a scale with a table (hasTable()).
  class Levels {
   public:
    int operator()(double v) const {
      // Clamped into the table: everything below it has level 0 (NaN too),
      // everything from intensityAt95 up the top level. Clamping, and taking
      // the split cell's comparison always, spare branches data would mispredict.
      v = v > lowest_ ? v : lowest_;
      v = v < at95_ ? v : at95_;
      const Cell cell = cells_[(std::bit_cast<std::uint64_t>(v) >> shift_) - firstCell_];
      return cell.level + static_cast<int>(cell.split & (v >= thresholds_[cell.level + 1u]));
    }

    // The parts of the lookup, for tables built on the same cells.
    const double* thresholds() const { return thresholds_; }
    double lowest() const { return lowest_; }
    double at95() const { return at95_; }
    std::uint64_t firstCell() const { return firstCell_; }
    int shift() const { return shift_; }

   private:
    friend class DisplayScale;
    const Cell* cells_;
    const double* thresholds_;
    double lowest_, at95_;
    std::uint64_t firstCell_;
    int shift_;
  };

  bool hasTable() const { return !cell_.empty(); }
  std::span<const Cell> cells() const { return cell_; }
  Levels levels() const {
    Levels l;
    l.cells_ = cell_.data();
    l.thresholds_ = threshold_.data();
    l.lowest_ = lowest_, l.at95_ = at95_, l.firstCell_ = firstCell_, l.shift_ = 52 - mantissaBits_;
    return l;
  }

  double intensityAt95() const { return at95_; }
  double gamma() const { return gamma_; }

 private:
  int search(double v) const;

  double at95_, gamma_;
  int mantissaBits_ = 8;
  std::int64_t lowestExponent_ = 0;
  std::uint64_t firstCell_ = 0;  // the exponent and leading mantissa bits of lowest_
  double lowest_ = 0.0;          // the least value the table covers
  std::array<double, kTopLevel + 2> threshold_{};  // threshold_[k]: lowest v of level k; -inf, ..., +inf
  std::vector<Cell> cell_;
};

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

// Points in the scanner's own frame: x = r cos(scan) cos(pan),
// y = r cos(scan) sin(pan), z = r sin(scan), r = range + range offset; pan and
// scan are the library's angles of the shot's encoder counts (the scan angle as
// the file's scanner model defines it).
class PointGeometry {
 public:
  PointGeometry(std::uint64_t signature, double rangeOffset);

  void aim(std::uint32_t panCount, std::uint32_t scanCount) {
    if (panCount != panCount_) {  // the head turns slower than the mirror
      pan_(panCount, cosPan_, sinPan_);
      panCount_ = panCount;
    }
    scan_(scanCount, cosScan_, sinScan_);
  }

  template <typename T>
  void place(double range, T& x, T& y, T& z) const {
    const double r = range + rangeOffset_;
    const double horizontal = r * cosScan_;
    x = static_cast<T>(horizontal * cosPan_);
    y = static_cast<T>(horizontal * sinPan_);
    z = static_cast<T>(r * sinScan_);
  }

  // The aimed shot's direction: cosine and sine of the scan angle, then of the pan angle.
  struct Direction {
    double cosScan, sinScan, cosPan, sinPan;
  };
  Direction direction() const { return {cosScan_, sinScan_, cosPan_, sinPan_}; }

  double rangeOffset() const { return rangeOffset_; }

  using PanTrig = CountTrig<20>;   // pan encoder counts
  using ScanTrig = CountTrig<18>;  // scan encoder counts
  const PanTrig& panTrig() const { return pan_; }
  const ScanTrig& scanTrig() const { return scan_; }

 private:
  double rangeOffset_;
  PanTrig pan_;
  ScanTrig scan_;
  std::uint32_t panCount_ = 0;
  double cosPan_ = 1.0, sinPan_ = 0.0, cosScan_ = 1.0, sinScan_ = 0.0;
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
  // The lines of shots 0, 1, ... of the block, one per entry of `lines`, a
  // line's shots in one fill; what lineOf() gives them when the starts are in
  // file order (a map's are). Asks nothing of the order it is called in, so
  // blocks may be taken in any order, from several threads.
  void linesOf(std::uint32_t block, std::span<std::int32_t> lines) const {
    const auto before = [](const Start& a, const Start& b) { return a.block < b.block || (a.block == b.block && a.shot < b.shot); };
    // Starts up to (block, shot) have begun; the last of them is the shot's line.
    auto next = static_cast<std::size_t>(std::upper_bound(starts_.begin(), starts_.end(), Start{block, 0}, before) -
                                         starts_.begin());
    for (std::size_t shot = 0; shot < lines.size();) {
      std::size_t end = lines.size();
      if (next < starts_.size() && starts_[next].block == block) end = std::min<std::size_t>(end, starts_[next].shot);
      std::fill(lines.begin() + static_cast<std::ptrdiff_t>(shot), lines.begin() + static_cast<std::ptrdiff_t>(end),
                static_cast<std::int32_t>(next) - 1);
      shot = end;
      while (next < starts_.size() && starts_[next].block == block && starts_[next].shot <= shot) ++next;
    }
  }
  std::size_t lineCount() const { return starts_.size(); }

 private:
  std::vector<Start> starts_;
  std::size_t next_ = 0;
};

}  // namespace kvrscan
