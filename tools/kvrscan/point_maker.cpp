#include "point_maker.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstring>

#include "double_pair.h"

namespace kvrscan {

// One entry per return slot laid out, one per shot for what its returns share.
// Sized for a whole run, with a spare entry so that pairs may read one past the
// last point; zero-filled once, so a spare entry always holds a valid value.
struct PointMaker::Columns {
  // Per return: stop count less T0 count, the record's fourth word (raw
  // intensity, return number, number of returns), and its shot in the run.
  alignas(16) std::int32_t counts[kRunPoints + 2];
  std::uint32_t tags[kRunPoints + 2];
  std::uint16_t shots[kRunPoints + 2];
  // Made from them.
  alignas(16) float x[kRunPoints + 2];
  alignas(16) float y[kRunPoints + 2];
  alignas(16) float z[kRunPoints + 2];
  alignas(16) double normalized[kRunPoints + 2];
  // Per shot.
  PointGeometry::Direction directions[kRunShots];
  std::int32_t lines[kRunShots];
  double times[kRunShots];
};

PointMaker::PointMaker(std::uint64_t signature, double rangeOffset, const IntensityModel& model,
                       const Palette& palette)
    : geometry_(signature, rangeOffset), normalize_(model), scale_(model.intensityAt95, model.gamma),
      columns_(std::make_unique<Columns>()) {
  for (int level = 0; level <= kTopLevel; ++level) {
    const Rgb c = palette.colourOfLevel(level);
    colours_[static_cast<std::size_t>(level)] = c.r | c.g << 8 | c.b << 16;
  }
}

PointMaker::~PointMaker() = default;

std::size_t PointMaker::make(std::span<const RawShot> shots, const std::int32_t* lines, PointRecord* out) {
  const std::size_t points = layOut(shots.first(std::min(shots.size(), kRunShots)), lines);
  compute(points);
  assemble(points, out);
  return points;
}

std::size_t PointMaker::layOut(std::span<const RawShot> shots, const std::int32_t* lines) {
  Columns& c = *columns_;
  std::size_t points = 0;
  std::uint64_t withoutRange = 0;
  for (std::size_t s = 0; s < shots.size(); ++s) {
    const RawShot& shot = shots[s];
    geometry_.aim(static_cast<std::uint32_t>(shot.shotWord & 0xFFFFF), shot.scanAngleCounts);
    c.directions[s] = geometry_.direction();
    c.lines[s] = lines[s];
    c.times[s] = shot.shotTow;
    const auto t0 = static_cast<std::int32_t>(shot.shotWord >> 41 & 0xFFFF);
    const auto count = static_cast<std::uint32_t>(shot.returns.size());
    // Every slot is written, and the next slot's writes land on it unless it
    // is kept: a return with a stop count before T0 has no range.
    for (std::uint32_t k = 0; k < ReturnWords::kCapacity; ++k) {
      const std::uint32_t word = shot.returns[k];
      const std::int32_t counts = static_cast<std::int32_t>(word & 0xFFFFF) - t0;
      c.counts[points] = counts;
      c.tags[points] = word >> 20 | (k + 1) << 16 | count << 24;
      c.shots[points] = static_cast<std::uint16_t>(s);
      const std::uint32_t present = k < count;
      const std::uint32_t ranged = counts >= 0;
      points += present & ranged;
      withoutRange += present & (ranged ^ 1);
    }
  }
  withoutRange_ += withoutRange;
  return points;
}

void PointMaker::compute(std::size_t points) {
  Columns& c = *columns_;
  // The library's range, constants and products in its order.
  const DoublePair k1 = DoublePair::all(13.020833333333334), k2 = DoublePair::all(1e-12), k3 = DoublePair::all(0.5),
                   k4 = DoublePair::all(299704764.3859407);
  const DoublePair offset = DoublePair::all(geometry_.rangeOffset());
  const DoublePair a3 = DoublePair::all(normalize_.a3()), a4 = DoublePair::all(normalize_.a4()),
                   a5 = DoublePair::all(normalize_.a5());
  for (std::size_t p = 0; p < points; p += 2) {
    const DoublePair range = DoublePair::fromInts(&c.counts[p]) * k1 * k2 * k3 * k4;
    const DoublePair r = range + offset;
    const PointGeometry::Direction& first = c.directions[c.shots[p]];
    const PointGeometry::Direction& second = c.directions[c.shots[p + 1]];
    DoublePair cosScan, sinScan, cosPan, sinPan;
    DoublePair::transpose(DoublePair::load(&first.cosScan), DoublePair::load(&second.cosScan), cosScan, sinScan);
    DoublePair::transpose(DoublePair::load(&first.cosPan), DoublePair::load(&second.cosPan), cosPan, sinPan);
    const DoublePair horizontal = r * cosScan;
    (horizontal * cosPan).storeFloats(&c.x[p]);
    (horizontal * sinPan).storeFloats(&c.y[p]);
    (r * sinScan).storeFloats(&c.z[p]);
    const DoublePair base = DoublePair::of(normalize_.base(c.tags[p]), normalize_.base(c.tags[p + 1]));
    const DoublePair q = range / a5 - a5 / range;
    ((q * q + a4) * a3 * base).whereAboveZero(range).store(&c.normalized[p]);
  }
}

void PointMaker::assemble(std::size_t points, PointRecord* out) const {
  const Columns& c = *columns_;
  static_assert(sizeof(PointRecord) == 31 && offsetof(PointRecord, colour) == 28);
  // Four 8-byte stores a record: x y, z and the fourth word, line and the low half
  // of the time, its high half and the colour. The last store's eighth byte is
  // the next record's first, written again by it.
  auto* at = reinterpret_cast<unsigned char*>(out);
  for (std::size_t p = 0; p < points; ++p, at += sizeof(PointRecord)) {
    const std::size_t shot = c.shots[p];
    const auto time = std::bit_cast<std::uint64_t>(c.times[shot]);
    // One store each: gathered on the stack first, they would be copied out in
    // 16-byte loads that wait for the four narrower stores to retire.
    const std::uint64_t xy = std::bit_cast<std::uint32_t>(c.x[p]) | std::uint64_t{std::bit_cast<std::uint32_t>(c.y[p])} << 32;
    const std::uint64_t zTag = std::bit_cast<std::uint32_t>(c.z[p]) | std::uint64_t{c.tags[p]} << 32;
    const std::uint64_t lineTime = static_cast<std::uint32_t>(c.lines[shot]) | time << 32;
    const std::uint64_t timeColour =
        time >> 32 | std::uint64_t{colours_[static_cast<std::size_t>(scale_.level(c.normalized[p]))]} << 32;
    std::memcpy(at, &xy, 8);
    std::memcpy(at + 8, &zTag, 8);
    std::memcpy(at + 16, &lineTime, 8);
    std::memcpy(at + 24, &timeColour, 8);
  }
}

}  // namespace kvrscan
