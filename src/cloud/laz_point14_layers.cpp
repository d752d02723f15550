#include "laz_point14_layers.h"

#include <cmath>
#include <cstring>

namespace kvr::cloud::laz {

namespace {

// The X and Y context of a return r of n (classes of first, last, intermediate,
// single); rows n, columns r, both 0 to 15.
constexpr std::uint8_t kReturnMap6[16][16] = {
    {0, 1, 2, 3, 4, 5, 3, 4, 4, 5, 5, 5, 5, 5, 5, 5}, {1, 0, 1, 3, 3, 3, 3, 3, 3, 3, 3, 3, 3, 3, 3, 3},
    {2, 1, 2, 4, 4, 4, 4, 4, 4, 4, 4, 3, 3, 3, 3, 3}, {3, 3, 4, 5, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4},
    {4, 3, 4, 4, 5, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4}, {5, 3, 4, 4, 4, 5, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4},
    {3, 3, 4, 4, 4, 4, 5, 4, 4, 4, 4, 4, 4, 4, 4, 4}, {4, 3, 4, 4, 4, 4, 4, 5, 4, 4, 4, 4, 4, 4, 4, 4},
    {4, 3, 4, 4, 4, 4, 4, 4, 5, 4, 4, 4, 4, 4, 4, 4}, {5, 3, 4, 4, 4, 4, 4, 4, 4, 5, 4, 4, 4, 4, 4, 4},
    {5, 3, 4, 4, 4, 4, 4, 4, 4, 4, 5, 4, 4, 4, 4, 4}, {5, 3, 3, 4, 4, 4, 4, 4, 4, 4, 4, 5, 5, 4, 4, 4},
    {5, 3, 3, 4, 4, 4, 4, 4, 4, 4, 4, 5, 5, 5, 4, 4}, {5, 3, 3, 4, 4, 4, 4, 4, 4, 4, 4, 4, 5, 5, 5, 4},
    {5, 3, 3, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 5, 5, 5}, {5, 3, 3, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 5, 5},
};

// The Z context: how deep the return lies, |n - r| up to 7.
constexpr std::uint32_t ReturnLevel(std::uint32_t n, std::uint32_t r) { return std::min(n > r ? n - r : r - n, 7u); }

constexpr std::uint32_t kGpsMulti = 500;       // largest multiple of the last difference coded directly
constexpr std::int32_t kGpsMultiMinus = -10;  // and smallest negative one
constexpr std::uint32_t kGpsCodeFull = kGpsMulti - kGpsMultiMinus + 1;  // a time outside 32 bits of difference
constexpr std::uint32_t kGpsMultiSymbols = kGpsMulti - kGpsMultiMinus + 5;

std::int32_t Wrapped(std::uint32_t v) { return static_cast<std::int32_t>(v); }

}  // namespace

Point14Layers::Point14Layers()
    : returnsXY_(layers_[0]), z_(layers_[1]), classification_(layers_[2]), flags_(layers_[3]),
      intensity_(layers_[4]), scanAngle_(layers_[5]), userData_(layers_[6]), pointSource_(layers_[7]),
      gpsTime_(layers_[8]), changedValues_(8, SymbolModel(128)), numberOfReturns_(16, SymbolModel(16)),
      returnNumber_(16, SymbolModel(16)), returnNumberGpsSame_(13), dX_(returnsXY_.encoder, 32, 2),
      dY_(returnsXY_.encoder, 32, 22), zIc_(z_.encoder, 32, 20), classificationModels_(64, SymbolModel(256)),
      flagModels_(64, SymbolModel(64)), userDataModels_(64, SymbolModel(256)), intensityIc_(intensity_.encoder, 16, 4),
      scanAngleIc_(scanAngle_.encoder, 16, 2), pointSourceIc_(pointSource_.encoder, 16, 1),
      gpsMulti_(kGpsMultiSymbols), gpsZeroDiff_(5), gpsIc_(gpsTime_.encoder, 32, 9) {}

void Point14Layers::encode(const std::uint8_t* records, std::size_t count, std::size_t stride) {
  codeClassification_ = codeFlags_ = codeUserData_ = false;
  for (std::size_t i = 1; i < count; ++i) {
    const std::uint8_t* record = records + i * stride;
    codeFlags_ |= record[15] != records[15];
    codeClassification_ |= record[16] != records[16];
    codeUserData_ |= record[17] != records[17];
  }
  start(records);
  for (std::size_t i = 1; i < count; ++i) write(records + i * stride, records + (i - 1) * stride);
  done();
}

void Point14Layers::start(const std::uint8_t* record) {
  for (Layer& layer : layers_) layer.reset();
  // A model first used in this chunk starts as a reset one, as the decoder's
  // does. Those of a field not coded in this chunk are never used, so are left
  // as they are: about 300 KB of counts and tables, for our constant fields.
  for (auto* models : {&changedValues_, &numberOfReturns_, &returnNumber_}) {
    for (SymbolModel& model : *models) model.reset();
  }
  if (codeClassification_) {
    for (SymbolModel& model : classificationModels_) model.reset();
  }
  if (codeFlags_) {
    for (SymbolModel& model : flagModels_) model.reset();
  }
  if (codeUserData_) {
    for (SymbolModel& model : userDataModels_) model.reset();
  }
  returnNumberGpsSame_.reset();
  for (IntegerCompressor* ic : {&dX_, &dY_, &zIc_, &intensityIc_, &scanAngleIc_, &pointSourceIc_, &gpsIc_}) ic->reset();
  for (Median5& median : xMedian_) median.reset();
  for (Median5& median : yMedian_) median.reset();
  const Point14 first = Point14::Of(record);
  lastGpsChanged_ = false;
  lastZ_.fill(first.z);
  lastIntensity_.fill(first.intensity);
  gpsMulti_.reset();
  gpsZeroDiff_.reset();
  lastSeq_ = nextSeq_ = 0;
  lastGps_ = {first.gpsTime, 0, 0, 0};
  lastGpsDiff_.fill(0);
  multiExtreme_.fill(0);
}

void Point14Layers::write(const std::uint8_t* record, const std::uint8_t* previous) {
  const Point14 p = Point14::Of(record);
  const Point14 last = Point14::Of(previous);
  const std::uint32_t lastPosition =
      (last.returnNumber == 1 ? 1u : 0u) | (last.returnNumber >= last.numberOfReturns ? 2u : 0u) |
      (lastGpsChanged_ ? 4u : 0u);
  const bool sourceChange = p.pointSource != last.pointSource;
  // Compared by their bits, so that every time (-0, NaN) comes back as it was.
  const bool gpsChange = p.gpsTime != last.gpsTime;
  const bool angleChange = p.scanAngle != last.scanAngle;
  const std::uint32_t n = p.numberOfReturns, r = p.returnNumber;
  const std::uint32_t lastN = last.numberOfReturns, lastR = last.returnNumber;
  std::uint32_t changed = (sourceChange ? 32u : 0u) | (gpsChange ? 16u : 0u) | (angleChange ? 8u : 0u) |
                          (n != lastN ? 4u : 0u);
  if (r != lastR) changed |= r == ((lastR + 1) & 15) ? 1u : r == ((lastR + 15) & 15) ? 2u : 3u;
  ArithmeticEncoder& xy = returnsXY_.encoder;
  xy.encodeSymbol(changedValues_[lastPosition], changed);
  if (changed & 4) xy.encodeSymbol(numberOfReturns_[lastN], n);
  if ((changed & 3) == 3) {
    if (gpsChange) {
      xy.encodeSymbol(returnNumber_[lastR], r);
    } else {
      // A later return of the same shot: how many returns on, from 2.
      xy.encodeSymbol(returnNumberGpsSame_, (r - lastR + 14) & 15);
    }
  }

  const std::uint32_t m = kReturnMap6[n][r];
  const std::uint32_t level = ReturnLevel(n, r);
  const std::uint32_t firstLast = (r == 1 ? 2u : 0u) | (r >= n ? 1u : 0u);
  const std::uint32_t single = n == 1 ? 1u : 0u;
  const std::uint32_t medianAt = (m << 1) | (gpsChange ? 1u : 0u);

  const std::int32_t dx = Wrapped(static_cast<std::uint32_t>(p.x) - static_cast<std::uint32_t>(last.x));
  dX_.compress(xMedian_[medianAt].get(), dx, single);
  xMedian_[medianAt].add(dx);
  const std::uint32_t kx = dX_.k();
  const std::int32_t dy = Wrapped(static_cast<std::uint32_t>(p.y) - static_cast<std::uint32_t>(last.y));
  dY_.compress(yMedian_[medianAt].get(), dy, single + (kx < 20 ? kx & ~1u : 20u));
  yMedian_[medianAt].add(dy);
  const std::uint32_t kxy = (dX_.k() + dY_.k()) / 2;
  zIc_.compress(lastZ_[level], p.z, single + (kxy < 18 ? kxy & ~1u : 18u));
  lastZ_[level] = p.z;

  if (codeClassification_) {
    if (p.classification != last.classification) classification_.changed = true;
    const std::uint32_t classContext = ((last.classification & 0x1Fu) << 1) | (firstLast == 3 ? 1u : 0u);
    classification_.encoder.encodeSymbol(classificationModels_[classContext], p.classification);
  }

  if (codeFlags_) {
    if (p.flags != last.flags) flags_.changed = true;
    flags_.encoder.encodeSymbol(flagModels_[last.flags], p.flags);
  }

  if (p.intensity != last.intensity) intensity_.changed = true;
  const std::uint32_t intensityAt = (firstLast << 1) | (gpsChange ? 1u : 0u);
  intensityIc_.compress(lastIntensity_[intensityAt], p.intensity, firstLast);
  lastIntensity_[intensityAt] = p.intensity;

  if (angleChange) {
    scanAngle_.changed = true;
    scanAngleIc_.compress(last.scanAngle, p.scanAngle, gpsChange ? 1u : 0u);
  }

  if (codeUserData_) {
    if (p.userData != last.userData) userData_.changed = true;
    userData_.encoder.encodeSymbol(userDataModels_[last.userData / 4], p.userData);
  }

  if (sourceChange) {
    pointSource_.changed = true;
    pointSourceIc_.compress(last.pointSource, p.pointSource);
  }

  if (gpsChange) {
    gpsTime_.changed = true;
    writeGpsTime(p.gpsTime);
  }
  lastGpsChanged_ = gpsChange;
}

void Point14Layers::writeGpsTime(std::uint64_t bits) {
  ArithmeticEncoder& out = gpsTime_.encoder;
  for (;;) {
    const std::uint64_t wide = bits - lastGps_[lastSeq_];
    const auto diff = static_cast<std::int32_t>(static_cast<std::uint32_t>(wide));
    const bool fits = static_cast<std::int64_t>(wide) == diff;
    std::int32_t& lastDiff = lastGpsDiff_[lastSeq_];
    std::int32_t& extreme = multiExtreme_[lastSeq_];
    if (fits) {
      if (lastDiff == 0) {
        out.encodeSymbol(gpsZeroDiff_, 0);
        gpsIc_.compress(0, diff, 0);
        lastDiff = diff;
        extreme = 0;
      } else {
        // The difference as a multiple of the last one: rounded half away from
        // zero, kept within reach of the codes (any multiple decodes).
        const double ratio = static_cast<double>(static_cast<float>(diff) / static_cast<float>(lastDiff));
        const double bounded = std::fmin(std::fmax(ratio, -1e6), 1e6);
        const auto multi = static_cast<std::int32_t>(bounded >= 0 ? bounded + 0.5 : bounded - 0.5);
        auto times = [&](std::int32_t k) { return Wrapped(static_cast<std::uint32_t>(k) * static_cast<std::uint32_t>(lastDiff)); };
        bool farOff = false;
        if (multi == 1) {
          out.encodeSymbol(gpsMulti_, 1);
          gpsIc_.compress(lastDiff, diff, 1);
          extreme = 0;
        } else if (multi > 0 && multi < static_cast<std::int32_t>(kGpsMulti)) {
          out.encodeSymbol(gpsMulti_, static_cast<std::uint32_t>(multi));
          gpsIc_.compress(times(multi), diff, multi < 10 ? 2 : 3);
        } else if (multi > 0) {
          out.encodeSymbol(gpsMulti_, kGpsMulti);
          gpsIc_.compress(times(kGpsMulti), diff, 4);
          farOff = true;
        } else if (multi < 0 && multi > kGpsMultiMinus) {
          out.encodeSymbol(gpsMulti_, static_cast<std::uint32_t>(static_cast<std::int32_t>(kGpsMulti) - multi));
          gpsIc_.compress(times(multi), diff, 5);
        } else if (multi < 0) {
          out.encodeSymbol(gpsMulti_, kGpsMulti - kGpsMultiMinus);
          gpsIc_.compress(times(kGpsMultiMinus), diff, 6);
          farOff = true;
        } else {
          out.encodeSymbol(gpsMulti_, 0);
          gpsIc_.compress(0, diff, 7);
          farOff = true;
        }
        // After several differences far from the last one, it is taken as the new step.
        if (farOff && ++extreme > 3) {
          lastDiff = diff;
          extreme = 0;
        }
      }
      lastGps_[lastSeq_] = bits;
      return;
    }
    // Too far from this sequence: another one's, or a new sequence.
    std::uint32_t other = 1;
    for (; other < 4; ++other) {
      const std::uint64_t otherWide = bits - lastGps_[(lastSeq_ + other) & 3];
      if (static_cast<std::int64_t>(otherWide) == static_cast<std::int32_t>(static_cast<std::uint32_t>(otherWide))) break;
    }
    if (other < 4) {
      out.encodeSymbol(lastDiff == 0 ? gpsZeroDiff_ : gpsMulti_, lastDiff == 0 ? other + 1 : kGpsCodeFull + other);
      lastSeq_ = (lastSeq_ + other) & 3;
      continue;  // coded against that sequence
    }
    out.encodeSymbol(lastDiff == 0 ? gpsZeroDiff_ : gpsMulti_, lastDiff == 0 ? 1 : kGpsCodeFull);
    gpsIc_.compress(Wrapped(static_cast<std::uint32_t>(lastGps_[lastSeq_] >> 32)),
                    Wrapped(static_cast<std::uint32_t>(bits >> 32)), 8);
    out.writeInt(static_cast<std::uint32_t>(bits));
    nextSeq_ = (nextSeq_ + 1) & 3;
    lastSeq_ = nextSeq_;
    lastGpsDiff_[lastSeq_] = 0;
    multiExtreme_[lastSeq_] = 0;
    lastGps_[lastSeq_] = bits;
    return;
  }
}

void Point14Layers::done() {
  returnsXY_.changed = z_.changed = true;  // always stored
  for (Layer& layer : layers_) layer.encoder.done();
}

void Point14Layers::appendSizes(std::vector<std::uint8_t>& out) const {
  for (const Layer& layer : layers_) AppendU32(out, layer.size());
}

void Point14Layers::appendBytes(std::vector<std::uint8_t>& out) const {
  for (const Layer& layer : layers_) AppendLayer(out, layer);
}

}  // namespace kvr::cloud::laz
