#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "kvr_decode/raw_shot.h"
#include "palette.h"
#include "point_model.h"
#include "point_writer.h"

namespace kvrscan {

// Makes the points of a run of shots. The return counts vary from shot to shot
// at random, so a loop over each shot's returns spends its time in mispredicted
// branches; every return slot is worked on instead, and only those with a range
// are kept. With AVX2, a shot's four slots are four lanes: the shot's direction
// is the same in each, and its records are written in place, every slot's, the
// next shot's landing on those not kept. Without it, the slots are laid out in
// columns and the points made two at a time. The normalized intensities, then
// the display colours, follow in loops of their own: their chains of divisions
// and lookups overlap better in short iterations. Shots without a return cost
// little, and so do runs of any length.
//
// A point is what the per-return formulas give: the range as the library
// computes it, x, y, z from PointGeometry, the colour of the display level of
// IntensityNormalizer's value (0 for a zero range) through the palette.
class PointMaker {
 public:
  static constexpr std::size_t kRunShots = 256;
  static constexpr std::size_t kRunPoints = kRunShots * ReturnWords::kCapacity;
  // Records past its points that make() may write (a shot's four slots are written whole).
  static constexpr std::size_t kSpareRecords = 5;

  // kFastest: a shot's four return slots side by side where the processor has
  // AVX2, else kPairs. kPairs: columns, two points at a time with SSE2.
  // kPortable: columns in plain C++ (what processors without SSE2 run). Tests
  // hold the three to the same bytes.
  enum class Path { kFastest, kPairs, kPortable };

  PointMaker(std::uint64_t signature, double rangeOffset, const IntensityModel& model, const Palette& palette,
             Path path = Path::kFastest);
  ~PointMaker();
  PointMaker(const PointMaker&) = delete;
  PointMaker& operator=(const PointMaker&) = delete;

  // The points of shots (at most kRunShots), lines[i] being the line of
  // shots[i], into out, which has room for the points and kSpareRecords more
  // (what lies there afterwards is of no use). Returns the number of points.
  std::size_t make(std::span<const RawShot> shots, const std::int32_t* lines, PointRecord* out);

  // Returns so far whose stop count lies before their shot's T0: no point.
  std::uint64_t withoutRange() const { return withoutRange_; }

 private:
  struct Columns;

  std::size_t layOut(std::span<const RawShot> shots, const std::int32_t* lines);
  template <bool kWide>
  std::size_t layOutAs(std::span<const RawShot> shots, const std::int32_t* lines);
  std::size_t layOutReturns(const RawShot& shot, std::size_t s, std::size_t points);
  std::size_t layOutReturnsWide(const RawShot& shot, std::size_t s, std::size_t points);
  std::size_t makeFour(std::span<const RawShot> shots, const std::int32_t* lines, unsigned char* records);
  void normalizeFour(std::size_t points);
  std::size_t makeShotWithoutRanges(const RawShot& shot, std::int32_t line, double cosScan, double sinScan,
                                    double cosPan, double sinPan, unsigned char* records, std::size_t points);
  void compute(std::size_t points, unsigned char* records);
  void shade(std::size_t points, unsigned char* records) const;

  PointGeometry geometry_;
  IntensityNormalizer normalize_;
  DisplayScale scale_;
  std::array<std::uint32_t, kTopLevel + 1> colours_{};  // red | green << 8 | blue << 16
  // Per display level, its colour and the next level's (high half); per cell
  // of the display scale's table, its level.
  std::array<std::uint64_t, kTopLevel + 1> colourPairs_{};
  std::vector<std::uint8_t> cellLevels_;
  std::unique_ptr<Columns> columns_;
  bool wide_;
  bool four_ = false;  // makeFour: the processor has AVX2
  std::uint32_t panCount_ = 0;  // of the last shot laid out, and its sine and cosine
  double cosPan_ = 1.0, sinPan_ = 0.0;
  std::uint64_t withoutRange_ = 0;
};

}  // namespace kvrscan
