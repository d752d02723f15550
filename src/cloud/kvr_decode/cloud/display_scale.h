#pragma once

#include <array>
#include <bit>
#include <cstdint>
#include <span>
#include <vector>

#include "kvr_decode/cloud/export.h"
#include "kvr_decode/cloud/palette.h"

namespace kvr::cloud {

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
class KVR_CLOUD_API DisplayScale {
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

    // The lookup in two parts, for tables kept per level (a colour and the
    // next level's, say): v clamped as above, and the level at its cell's
    // start. v's level is that one, or the next where v >= thresholds()[level
    // + 1]: a cell the next level does not begin in lies below it anyway.
    std::uint8_t cellLevel(double& v) const {
      v = v > lowest_ ? v : lowest_;
      v = v < at95_ ? v : at95_;
      return cells_[(std::bit_cast<std::uint64_t>(v) >> shift_) - firstCell_].level;
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

}  // namespace kvr::cloud
