#include "point_maker.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstring>

#include "double_pair.h"

// Four lanes where the processor has AVX2 (asked at run time): the same
// operations in the same order as the pairs, so the same bits.
#if KVRSCAN_PAIR_SSE2 && defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))
#define KVRSCAN_AVX 1
#include <immintrin.h>
#else
#define KVRSCAN_AVX 0
#endif

namespace kvrscan {

namespace {

// Room for a whole run, plus the entries past the points a group of four may read.
constexpr std::size_t kColumnRoom = PointMaker::kRunPoints + ReturnWords::kCapacity;

static_assert(sizeof(PointRecord) == 31 && offsetof(PointRecord, line) == 16 && offsetof(PointRecord, colour) == 28);

}  // namespace

// One entry per return slot laid out, one per shot for what its returns share.
// Zero-filled once, so that entries past the points always hold valid values.
struct PointMaker::Columns {
  // Per return: stop count less T0 count, the record's fourth word (raw
  // intensity, return number, number of returns), and its shot in the run.
  alignas(16) std::int32_t counts[kColumnRoom];
  alignas(16) std::uint32_t tags[kColumnRoom];
  alignas(16) std::uint16_t shots[kColumnRoom];
  alignas(32) double ranges[kColumnRoom];  // makeFour's, for normalizeFour
  alignas(32) double normalized[kColumnRoom];
  alignas(16) std::uint32_t cells[kColumnRoom];  // of the level table, for normalized (makeFour)
  // Per shot: its direction, and the record's bytes 16-27 (line, time) with four zero bytes.
  PointGeometry::Direction directions[kRunShots];
  alignas(16) unsigned char tails[kRunShots][16];
};

PointMaker::PointMaker(std::uint64_t signature, double rangeOffset, const IntensityModel& model,
                       const Palette& palette, Path path)
    : geometry_(signature, rangeOffset), normalize_(model), scale_(model.intensityAt95, model.gamma),
      columns_(std::make_unique<Columns>()), wide_(path != Path::kPortable && KVRSCAN_PAIR_SSE2) {
#if KVRSCAN_AVX
  four_ = wide_ && path == Path::kFastest && __builtin_cpu_supports("avx2");
#endif
  const PointGeometry::Direction aimed = geometry_.direction();
  cosPan_ = aimed.cosPan, sinPan_ = aimed.sinPan;
  for (int level = 0; level <= kTopLevel; ++level) {
    const Rgb c = palette.colourOfLevel(level);
    colours_[static_cast<std::size_t>(level)] = c.r | c.g << 8 | c.b << 16;
  }
  for (std::size_t level = 0; level <= kTopLevel; ++level) {
    colourPairs_[level] = colours_[level] | std::uint64_t{colours_[std::min<std::size_t>(level + 1, kTopLevel)]} << 32;
  }
  for (const DisplayScale::Cell cell : scale_.cells()) cellLevels_.push_back(cell.level);
}

PointMaker::~PointMaker() = default;

std::size_t PointMaker::make(std::span<const RawShot> shots, const std::int32_t* lines, PointRecord* out) {
  shots = shots.first(std::min(shots.size(), kRunShots));
  auto* records = reinterpret_cast<unsigned char*>(out);
  std::size_t points;
  if (four_) {
    points = makeFour(shots, lines, records);
  } else {
    points = layOut(shots, lines);
    compute(points, records);
  }
  shade(points, records);
  return points;
}

#if KVRSCAN_AVX
// A shot's four return slots are the four lanes: its direction is the same in
// each, so no point needs its shot looked up. Every slot is computed and its
// record written (tail, then head: the tail reaches one byte into the next
// record); the shot's returns are a prefix of the slots, so the next shot's
// records land on those that were not kept.
__attribute__((target("avx2"))) std::size_t PointMaker::makeFour(std::span<const RawShot> shots,
                                                                  const std::int32_t* lines, unsigned char* records) {
  Columns& c = *columns_;
  const PointGeometry::PanTrig& panTrig = geometry_.panTrig();
  const PointGeometry::ScanTrig& scanTrig = geometry_.scanTrig();
  const __m256d k1 = _mm256_set1_pd(kRangeFactors[0]), k2 = _mm256_set1_pd(kRangeFactors[1]),
                k3 = _mm256_set1_pd(kRangeFactors[2]), k4 = _mm256_set1_pd(kRangeFactors[3]);
  const __m256d offset = _mm256_set1_pd(geometry_.rangeOffset());
  const __m128i stopMask = _mm_set1_epi32(0xFFFFF);
  const __m128i slotNumbers = _mm_set_epi32(4 << 16, 3 << 16, 2 << 16, 1 << 16);
  std::uint32_t panCount = panCount_;
  double cosPan = cosPan_, sinPan = sinPan_;
  __m256d cosPans = _mm256_set1_pd(cosPan), sinPans = _mm256_set1_pd(sinPan);
  std::size_t points = 0;
  for (std::size_t s = 0; s < shots.size(); ++s) {
    const RawShot& shot = shots[s];
    // Shots without returns (the sky) come in runs; the branch costs less than their work.
    if (shot.returns.empty()) continue;
    const auto pan = static_cast<std::uint32_t>(shot.shotWord & 0xFFFFF);
    if (pan != panCount) {
      panTrig(pan, cosPan, sinPan);
      panCount = pan;
      cosPans = _mm256_set1_pd(cosPan), sinPans = _mm256_set1_pd(sinPan);
    }
    double cosScan, sinScan;
    scanTrig(shot.scanAngleCounts, cosScan, sinScan);
    const auto count = static_cast<std::uint32_t>(shot.returns.size());
    const __m128i words = _mm_loadu_si128(reinterpret_cast<const __m128i*>(shot.returns.begin()));
    const __m128i t0 = _mm_set1_epi32(static_cast<std::int32_t>(shot.shotWord >> 41 & 0xFFFF));
    const __m128i counts = _mm_sub_epi32(_mm_and_si128(words, stopMask), t0);
    unsigned char* at = records + points * sizeof(PointRecord);
    if ((_mm_movemask_ps(_mm_castsi128_ps(counts)) & ((1 << count) - 1)) != 0) [[unlikely]] {
      points = makeShotWithoutRanges(shot, lines[s], cosScan, sinScan, cosPan, sinPan, records, points);
      continue;
    }
    const __m256d range = _mm256_mul_pd(_mm256_mul_pd(_mm256_mul_pd(_mm256_mul_pd(_mm256_cvtepi32_pd(counts), k1), k2), k3), k4);
    const __m256d r = _mm256_add_pd(range, offset);
    const __m256d horizontal = _mm256_mul_pd(r, _mm256_set1_pd(cosScan));
    const __m128 x = _mm256_cvtpd_ps(_mm256_mul_pd(horizontal, cosPans));
    const __m128 y = _mm256_cvtpd_ps(_mm256_mul_pd(horizontal, sinPans));
    const __m128 z = _mm256_cvtpd_ps(_mm256_mul_pd(r, _mm256_set1_pd(sinScan)));
    const __m128i intensities = _mm_srli_epi32(words, 20);
    const __m128 tags = _mm_castsi128_ps(_mm_or_si128(
        intensities, _mm_or_si128(slotNumbers, _mm_set1_epi32(static_cast<std::int32_t>(count << 24)))));
    // line, time, four zero bytes
    std::uint64_t time;
    std::memcpy(&time, &shot.shotTow, 8);
    const __m128i tail = _mm_set_epi64x(static_cast<long long>(time >> 32),
                                        static_cast<long long>(static_cast<std::uint32_t>(lines[s]) | time << 32));
    const __m128 xy01 = _mm_unpacklo_ps(x, y), xy23 = _mm_unpackhi_ps(x, y);
    const __m128 zt01 = _mm_unpacklo_ps(z, tags), zt23 = _mm_unpackhi_ps(z, tags);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(at + 16), tail);
    _mm_storeu_ps(reinterpret_cast<float*>(at), _mm_movelh_ps(xy01, zt01));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(at + sizeof(PointRecord) + 16), tail);
    _mm_storeu_ps(reinterpret_cast<float*>(at + sizeof(PointRecord)), _mm_movehl_ps(zt01, xy01));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(at + 2 * sizeof(PointRecord) + 16), tail);
    _mm_storeu_ps(reinterpret_cast<float*>(at + 2 * sizeof(PointRecord)), _mm_movelh_ps(xy23, zt23));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(at + 3 * sizeof(PointRecord) + 16), tail);
    _mm_storeu_ps(reinterpret_cast<float*>(at + 3 * sizeof(PointRecord)), _mm_movehl_ps(zt23, xy23));
    _mm256_storeu_pd(&c.ranges[points], range);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(&c.tags[points]), _mm_castps_si128(tags));
    points += count;
  }
  panCount_ = panCount, cosPan_ = cosPan, sinPan_ = sinPan;
  normalizeFour(points);
  return points;
}

// The normalized intensities, four at a time, in a loop of their own: the
// divisions make a long chain, and short iterations let more of them overlap.
__attribute__((target("avx2"))) void PointMaker::normalizeFour(std::size_t points) {
  Columns& c = *columns_;
  const __m256d a3 = _mm256_set1_pd(normalize_.a3()), a4 = _mm256_set1_pd(normalize_.a4()),
                a5 = _mm256_set1_pd(normalize_.a5());
  // With a level table: the values clamped into it, and their cells (max and
  // min take their second operand for NaN, as the scalar clamps do).
  const bool table = scale_.hasTable();
  const DisplayScale::Levels levels = table ? scale_.levels() : DisplayScale::Levels{};
  const __m256d lowest = _mm256_set1_pd(table ? levels.lowest() : 0.0), at95 = _mm256_set1_pd(levels.at95());
  const __m256i firstCell = _mm256_set1_epi64x(static_cast<long long>(levels.firstCell()));
  const __m128i shift = _mm_cvtsi32_si128(levels.shift());
  const __m256i lowHalves = _mm256_setr_epi32(0, 2, 4, 6, 0, 2, 4, 6);
  for (std::size_t p = 0; p < points; p += 4) {
    const __m256d range = _mm256_load_pd(&c.ranges[p]);
    const __m256d base = _mm256_set_pd(normalize_.base(c.tags[p + 3]), normalize_.base(c.tags[p + 2]),
                                       normalize_.base(c.tags[p + 1]), normalize_.base(c.tags[p]));
    const __m256d q = _mm256_sub_pd(_mm256_div_pd(range, a5), _mm256_div_pd(a5, range));
    const __m256d v = _mm256_mul_pd(_mm256_mul_pd(_mm256_add_pd(_mm256_mul_pd(q, q), a4), a3), base);
    const __m256d ranged = _mm256_cmp_pd(range, _mm256_setzero_pd(), _CMP_GT_OQ);
    const __m256d value = _mm256_and_pd(ranged, v);
    if (!table) {
      _mm256_store_pd(&c.normalized[p], value);
      continue;
    }
    const __m256d clamped = _mm256_min_pd(_mm256_max_pd(value, lowest), at95);
    _mm256_store_pd(&c.normalized[p], clamped);
    const __m256i cell = _mm256_sub_epi64(_mm256_srl_epi64(_mm256_castpd_si256(clamped), shift), firstCell);
    _mm_store_si128(reinterpret_cast<__m128i*>(&c.cells[p]),
                    _mm256_castsi256_si128(_mm256_permutevar8x32_epi32(cell, lowHalves)));
  }
}
#else
std::size_t PointMaker::makeFour(std::span<const RawShot>, const std::int32_t*, unsigned char*) { return 0; }
void PointMaker::normalizeFour(std::size_t) {}
#endif

// A shot with a return whose stop count lies before T0 (rare): its returns one
// by one, the same operations as a lane of makeFour.
std::size_t PointMaker::makeShotWithoutRanges(const RawShot& shot, std::int32_t line, double cosScan, double sinScan,
                                              double cosPan, double sinPan, unsigned char* records,
                                              std::size_t points) {
  const auto t0 = static_cast<std::int32_t>(shot.shotWord >> 41 & 0xFFFF);
  const auto count = static_cast<std::uint32_t>(shot.returns.size());
  for (std::uint32_t k = 0; k < count; ++k) {
    const std::uint32_t word = shot.returns[k];
    const std::int32_t counts = static_cast<std::int32_t>(word & 0xFFFFF) - t0;
    if (counts < 0) {
      ++withoutRange_;
      continue;
    }
    const double range = RangeOf(word & 0xFFFFF, static_cast<std::uint32_t>(t0));
    const double r = range + geometry_.rangeOffset();
    const double horizontal = r * cosScan;
    const float head[3] = {static_cast<float>(horizontal * cosPan), static_cast<float>(horizontal * sinPan),
                           static_cast<float>(r * sinScan)};
    const std::uint32_t tag = word >> 20 | (k + 1) << 16 | count << 24;
    unsigned char* at = records + points * sizeof(PointRecord);
    std::memcpy(at, head, 12);
    std::memcpy(at + 12, &tag, 4);
    std::memcpy(at + 16, &line, 4);
    std::memcpy(at + 20, &shot.shotTow, 8);
    columns_->ranges[points] = range;
    columns_->tags[points] = tag;
    ++points;
  }
  return points;
}

std::size_t PointMaker::layOut(std::span<const RawShot> shots, const std::int32_t* lines) {
  return wide_ ? layOutAs<true>(shots, lines) : layOutAs<false>(shots, lines);
}

// The head turns slower than the mirror: the pan's sine and cosine are kept from
// shot to shot (in locals: the stores into the columns could otherwise be
// taken to change them).
template <bool kWide>
std::size_t PointMaker::layOutAs(std::span<const RawShot> shots, const std::int32_t* lines) {
  Columns& c = *columns_;
  const PointGeometry::PanTrig& panTrig = geometry_.panTrig();
  const PointGeometry::ScanTrig& scanTrig = geometry_.scanTrig();
  std::uint32_t panCount = panCount_;
  double cosPan = cosPan_, sinPan = sinPan_;
  std::size_t points = 0;
  for (std::size_t s = 0; s < shots.size(); ++s) {
    const RawShot& shot = shots[s];
    const auto pan = static_cast<std::uint32_t>(shot.shotWord & 0xFFFFF);
    if (pan != panCount) {
      panTrig(pan, cosPan, sinPan);
      panCount = pan;
    }
    double cosScan, sinScan;
    scanTrig(shot.scanAngleCounts, cosScan, sinScan);
    c.directions[s] = {cosScan, sinScan, cosPan, sinPan};
    std::memcpy(&c.tails[s][0], &lines[s], 4);
    std::memcpy(&c.tails[s][4], &shot.shotTow, 8);
    if constexpr (kWide) points = layOutReturnsWide(shot, s, points);
    else points = layOutReturns(shot, s, points);
  }
  panCount_ = panCount, cosPan_ = cosPan, sinPan_ = sinPan;
  return points;
}

// Every slot is written, and the next slot's writes land on it unless it is
// kept: a return with a stop count before T0 has no range.
std::size_t PointMaker::layOutReturns(const RawShot& shot, std::size_t s, std::size_t points) {
  Columns& c = *columns_;
  const auto t0 = static_cast<std::int32_t>(shot.shotWord >> 41 & 0xFFFF);
  const auto count = static_cast<std::uint32_t>(shot.returns.size());
  for (std::uint32_t k = 0; k < ReturnWords::kCapacity; ++k) {
    const std::uint32_t word = shot.returns[k];
    const std::int32_t counts = static_cast<std::int32_t>(word & 0xFFFFF) - t0;
    c.counts[points] = counts;
    c.tags[points] = word >> 20 | (k + 1) << 16 | count << 24;
    c.shots[points] = static_cast<std::uint16_t>(s);
    const std::uint32_t present = k < count;
    const std::uint32_t ranged = counts >= 0;
    points += present & ranged;
    withoutRange_ += present & (ranged ^ 1);
  }
  return points;
}

// The four slots in one store each column; the shot's returns are a prefix of
// them, so the points move on by the count. A return without a range (rare:
// its stop count lies before T0) sends the shot through the slot-by-slot way.
inline std::size_t PointMaker::layOutReturnsWide(const RawShot& shot, std::size_t s, std::size_t points) {
#if KVRSCAN_PAIR_SSE2
  Columns& c = *columns_;
  const auto count = static_cast<std::uint32_t>(shot.returns.size());
  const __m128i words = _mm_loadu_si128(reinterpret_cast<const __m128i*>(shot.returns.begin()));
  const __m128i t0 = _mm_set1_epi32(static_cast<std::int32_t>(shot.shotWord >> 41 & 0xFFFF));
  const __m128i counts = _mm_sub_epi32(_mm_and_si128(words, _mm_set1_epi32(0xFFFFF)), t0);
  const auto numbers = static_cast<std::int32_t>(count << 24);
  const __m128i tags = _mm_or_si128(_mm_srli_epi32(words, 20), _mm_set_epi32(numbers | 4 << 16, numbers | 3 << 16,
                                                                              numbers | 2 << 16, numbers | 1 << 16));
  if ((_mm_movemask_ps(_mm_castsi128_ps(counts)) & ((1 << count) - 1)) != 0) [[unlikely]] {
    return layOutReturns(shot, s, points);
  }
  _mm_storeu_si128(reinterpret_cast<__m128i*>(&c.counts[points]), counts);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(&c.tags[points]), tags);
  _mm_storel_epi64(reinterpret_cast<__m128i*>(&c.shots[points]), _mm_set1_epi16(static_cast<short>(s)));
  return points + count;
#else
  return layOutReturns(shot, s, points);
#endif
}

// Records are written in place, all but their colour: a record's tail (line,
// time and four zero bytes) reaches one byte into the next record, so a group's
// tails go first and its heads (x, y, z, the fourth word) after them.
void PointMaker::compute(std::size_t points, unsigned char* records) {
  Columns& c = *columns_;
  // The library's range, constants and products in its order.
  const DoublePair k1 = DoublePair::all(kRangeFactors[0]), k2 = DoublePair::all(kRangeFactors[1]),
                   k3 = DoublePair::all(kRangeFactors[2]), k4 = DoublePair::all(kRangeFactors[3]);
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
    unsigned char* at = records + p * sizeof(PointRecord);
    std::memcpy(at + 16, c.tails[c.shots[p]], 16);
    std::memcpy(at + sizeof(PointRecord) + 16, c.tails[c.shots[p + 1]], 16);
    DoublePair::storeRows(horizontal * cosPan, horizontal * sinPan, r * sinScan, &c.tags[p], at, at + sizeof(PointRecord));
    const DoublePair base = DoublePair::of(normalize_.base(c.tags[p]), normalize_.base(c.tags[p + 1]));
    const DoublePair q = range / a5 - a5 / range;
    ((q * q + a4) * a3 * base).whereAboveZero(range).store(&c.normalized[p]);
  }
}

// The colour's three bytes only: the fourth would land on the next record.
void PointMaker::shade(std::size_t points, unsigned char* records) const {
  const Columns& c = *columns_;
  const std::uint32_t* colours = colours_.data();
  const auto paint = [records](std::size_t p, std::uint32_t colour) {
    unsigned char* at = records + p * sizeof(PointRecord) + 28;
    std::memcpy(at, &colour, 2);
    at[2] = static_cast<unsigned char>(colour >> 16);
  };
  if (scale_.hasTable()) {
    // DisplayScale::Levels without its split flags: a value in a cell the next
    // level does not begin in lies below that level's threshold anyway. The
    // threshold and the pair of colours both follow from the cell's level, so
    // they are looked up side by side.
    const DisplayScale::Levels levels = scale_.levels();
    const std::uint8_t* cellLevels = cellLevels_.data();
    const std::uint64_t* pairs = colourPairs_.data();
    const double* next = levels.thresholds() + 1;
    const auto colourOf = [cellLevels, pairs, next](double v, std::size_t cell) {
      const std::uint8_t level = cellLevels[cell];
      const std::uint64_t pair = pairs[level];
      return static_cast<std::uint32_t>(v >= next[level] ? pair >> 32 : pair);
    };
    if (four_) {  // normalizeFour has clamped the values and found their cells
      for (std::size_t p = 0; p < points; ++p) paint(p, colourOf(c.normalized[p], c.cells[p]));
      return;
    }
    const double lowest = levels.lowest(), at95 = levels.at95();
    const std::uint64_t firstCell = levels.firstCell();
    const int shift = levels.shift();
    for (std::size_t p = 0; p < points; ++p) {
      double v = c.normalized[p];
      v = v > lowest ? v : lowest;
      v = v < at95 ? v : at95;
      paint(p, colourOf(v, (std::bit_cast<std::uint64_t>(v) >> shift) - firstCell));
    }
  } else {
    for (std::size_t p = 0; p < points; ++p) paint(p, colours[scale_.level(c.normalized[p])]);
  }
}

}  // namespace kvrscan
