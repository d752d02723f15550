#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <vector>

#include "laz_arithmetic_encoder.h"
#include "laz_integer_compressor.h"
#include "laz_layer.h"

namespace kvr::cloud::laz {

// The median of the last five values added, kept sorted; starts at five zeros.
class Median5 {
 public:
  void reset() {
    values_.fill(0);
    high_ = true;
  }
  void add(std::int32_t v);
  std::int32_t get() const { return values_[2]; }

 private:
  std::array<std::int32_t, 5> values_{};
  bool high_ = true;
};

inline void Median5::add(std::int32_t v) {
  auto& s = values_;
  if (high_) {
    if (v < s[2]) {
      s[4] = s[3];
      s[3] = s[2];
      if (v < s[0]) {
        s[2] = s[1], s[1] = s[0], s[0] = v;
      } else if (v < s[1]) {
        s[2] = s[1], s[1] = v;
      } else {
        s[2] = v;
      }
    } else {
      if (v < s[3]) {
        s[4] = s[3], s[3] = v;
      } else {
        s[4] = v;
      }
      high_ = false;
    }
  } else {
    if (s[2] < v) {
      s[0] = s[1];
      s[1] = s[2];
      if (s[4] < v) {
        s[2] = s[3], s[3] = s[4], s[4] = v;
      } else if (s[3] < v) {
        s[2] = s[3], s[3] = v;
      } else {
        s[2] = v;
      }
    } else {
      if (s[1] < v) {
        s[0] = s[1], s[1] = v;
      } else {
        s[0] = v;
      }
      high_ = true;
    }
  }
}

// The 30 bytes of a point format 6 record (the first 30 of 7's), as the layers
// see them.
struct Point14 {
  std::int32_t x, y, z;
  std::uint16_t intensity;
  std::uint8_t returnNumber, numberOfReturns;
  std::uint8_t flags;  // edge of flight line << 5 | scan direction << 4 | classification flags
  std::uint8_t classification, userData;
  std::int16_t scanAngle;
  std::uint16_t pointSource;
  std::uint64_t gpsTime;  // the double's bits

  static Point14 Of(const std::uint8_t* record) {
    Point14 p;
    std::memcpy(&p.x, record, 4);
    std::memcpy(&p.y, record + 4, 4);
    std::memcpy(&p.z, record + 8, 4);
    std::memcpy(&p.intensity, record + 12, 2);
    p.returnNumber = record[14] & 15;
    p.numberOfReturns = record[14] >> 4;
    const std::uint8_t bits = record[15];  // classification flags, channel, scan direction, edge
    p.flags = static_cast<std::uint8_t>(((bits >> 7) << 5) | (((bits >> 6) & 1) << 4) | (bits & 15));
    p.classification = record[16];
    p.userData = record[17];
    std::memcpy(&p.scanAngle, record + 18, 2);
    std::memcpy(&p.pointSource, record + 20, 2);
    std::memcpy(&p.gpsTime, record + 22, 8);
    return p;
  }
};

// The point fields of format 6 in nine layers: returns and X and Y, Z,
// classification, flags, intensity, scan angle, user data, point source and GPS
// time, each with the models of its field. Every point is written with scanner
// channel 0 (the records this layer is given never carry another), so one set
// of contexts serves the chunk.
class Point14Layers {
 public:
  static constexpr std::size_t kLayers = 9;

  Point14Layers();
  Point14Layers(const Point14Layers&) = delete;  // its layer names refer into itself
  Point14Layers& operator=(const Point14Layers&) = delete;
  // Codes a chunk's `count` records, `stride` bytes apart; the first is stored
  // raw, not coded here. The layers' sizes, then their bytes, go after the
  // chunk's count.
  void encode(const std::uint8_t* records, std::size_t count, std::size_t stride);
  void appendSizes(std::vector<std::uint8_t>& out) const;
  void appendBytes(std::vector<std::uint8_t>& out) const;

 private:
  void start(const std::uint8_t* record);
  void write(const std::uint8_t* record, const std::uint8_t* previous);
  void done();
  void writeGpsTime(std::uint64_t bits);

  std::array<Layer, kLayers> layers_;
  Layer &returnsXY_, &z_, &classification_, &flags_, &intensity_, &scanAngle_, &userData_, &pointSource_, &gpsTime_;

  // The point before is read again from its record rather than copied: a copy
  // of a record built field by field stalls on its wide reload every point.
  bool lastGpsChanged_ = false;
  // Whether the classification, flags and user data bytes differ anywhere in
  // the chunk: a layer whose field never changes is dropped, so it is not coded.
  bool codeClassification_ = true, codeFlags_ = true, codeUserData_ = true;
  std::vector<SymbolModel> changedValues_, numberOfReturns_, returnNumber_;
  SymbolModel returnNumberGpsSame_;
  IntegerCompressor dX_, dY_, zIc_;
  std::vector<SymbolModel> classificationModels_, flagModels_, userDataModels_;
  IntegerCompressor intensityIc_, scanAngleIc_, pointSourceIc_;
  std::array<Median5, 12> xMedian_, yMedian_;
  std::array<std::int32_t, 8> lastZ_{};
  std::array<std::uint16_t, 8> lastIntensity_{};

  // GPS time: up to four sequences of times, each with its last time and the
  // last difference within it.
  SymbolModel gpsMulti_, gpsZeroDiff_;
  IntegerCompressor gpsIc_;
  std::uint32_t lastSeq_ = 0, nextSeq_ = 0;
  std::array<std::uint64_t, 4> lastGps_{};
  std::array<std::int32_t, 4> lastGpsDiff_{};
  std::array<std::int32_t, 4> multiExtreme_{};
};

}  // namespace kvr::cloud::laz
