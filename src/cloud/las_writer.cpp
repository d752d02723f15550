#include "kvr_decode/cloud/las_writer.h"

#include "las_records.h"

#include <algorithm>
#include <bit>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstring>
#include <string_view>

#include "file_access.h"
#include "kvr_decode/cloud/error.h"
#include "optics/conversions.h"

#ifndef KVR_CLOUD_VERSION
#define KVR_CLOUD_VERSION "unknown"
#endif

namespace kvr::cloud {

namespace {

static_assert(std::endian::native == std::endian::little, "records are assembled in the machine's byte order");

constexpr std::size_t kHeaderSize = LasRecords::kHeaderSize;
constexpr std::size_t kVlrHeaderSize = 54;
constexpr std::size_t kExtraBytesEntry = 192;
constexpr std::size_t kExtraCount = 6;
static_assert(LasRecords::kExtraBytesVlrSize == kVlrHeaderSize + kExtraCount * kExtraBytesEntry);
constexpr std::size_t kPointOffset = kHeaderSize + LasRecords::kExtraBytesVlrSize;
constexpr std::size_t kExtraBytes = LasRecords::kExtraBytes;
static_assert(kExtraBytes == 4 + 4 + 4 + 4 + 8 + 8);
constexpr std::size_t kBaseRecord6 = 30, kBaseRecord7 = 36;

constexpr double kScale = 0.0001;  // metres a stored coordinate step is worth
constexpr double kSteps = 10000.0;  // its inverse, exact: coordinates are multiplied, not divided
constexpr double kScanAngleUnitDegrees = 0.006;
constexpr std::uint16_t kWktBit = 1u << 4;  // bit 0 (GPS time type) stays clear: time of week

constexpr std::size_t kRun = 2048;  // points a claim covers

void Put(char* at, const auto& value) { std::memcpy(at, &value, sizeof value); }

void PutText(char* at, std::size_t room, std::string_view text) {
  std::memcpy(at, text.data(), std::min(room, text.size()));  // the rest stays zero, as the format asks
}

// Nearest integer, halves to even, for |v| < 2^51: adding and taking away 1.5 x 2^52
// leaves no fraction bits. Inline where std::nearbyint is a library call.
inline double RoundToNearest(double v) {
  constexpr double kMagic = 6755399441055744.0;
  return (v + kMagic) - kMagic;
}

// One Extra Bytes descriptor. Options: bit 3 scale, bit 4 offset.
struct Extra {
  std::uint8_t type;  // 5 uint32, 6 int32, 7 uint64, 10 double
  std::string_view name, description;
  std::optional<double> scale, offset;
};

void PutExtra(char* at, const Extra& extra) {
  at[2] = static_cast<char>(extra.type);
  at[3] = static_cast<char>((extra.scale ? 8 : 0) | (extra.offset ? 16 : 0));
  PutText(at + 4, 32, extra.name);
  if (extra.scale) Put(at + 112, *extra.scale);
  if (extra.offset) Put(at + 136, *extra.offset);
  PutText(at + 160, 32, extra.description);
}

std::array<std::uint16_t, 2> Today() {
  const auto today = std::chrono::floor<std::chrono::days>(std::chrono::system_clock::now());
  const std::chrono::year_month_day date(today);
  const auto first = std::chrono::sys_days(date.year() / std::chrono::January / 1);
  return {static_cast<std::uint16_t>((today - first).count() + 1), static_cast<std::uint16_t>(int(date.year()))};
}

[[noreturn]] void OutOfReach(const std::filesystem::path& path, double x, double y, double z) {
  throw OutputError(path, "a point at (" + std::to_string(x) + ", " + std::to_string(y) + ", " + std::to_string(z) +
                              ") m lies beyond the coordinates LAS can store");
}

}  // namespace

LasOptions LasOptions::Of(const Scan& scan, bool colour) {
  LasOptions options;
  options.colour = colour;
  options.sourceId = static_cast<std::uint16_t>(scan.header().idValue & 0xFFFFu);
  options.signature = scan.signature();
  options.rangeOffset = scan.rangeOffset();
  return options;
}

LasRecords::LasRecords(const LasOptions& options, const std::vector<Rgb>& colours, const DisplayScale& scale)
    : options_(options), scale_(scale), recordLength_((options.colour ? kBaseRecord7 : kBaseRecord6) + kExtraBytes) {
  if (options_.generatingSoftware.empty()) options_.generatingSoftware = "kvr_decode " KVR_CLOUD_VERSION;
  if (!options_.creationDay) options_.creationDay = Today();
  // 8-bit colours to the format's 16 bits, ready to copy.
  for (const Rgb& rgb : colours) {
    colours16_.push_back({static_cast<std::uint16_t>(rgb.r << 8), static_cast<std::uint16_t>(rgb.g << 8),
                          static_cast<std::uint16_t>(rgb.b << 8), 0});
  }
  low_.fill(INT32_MAX);
  high_.fill(INT32_MIN);
}

void LasRecords::putExtraBytesVlr(char* vlr) const {
  std::memset(vlr, 0, kExtraBytesVlrSize);
  PutText(vlr + 2, 16, "LASF_Spec");
  Put(vlr + 18, std::uint16_t{4});
  Put(vlr + 20, static_cast<std::uint16_t>(kExtraCount * kExtraBytesEntry));
  PutText(vlr + 22, 32, "Extra Bytes");
  const std::uint64_t signature = options_.signature;
  const Extra extras[kExtraCount] = {
      {5, "Range", "metres, range offset included", optics::kRangePerCount, options_.rangeOffset},
      {5, "Pan", "radians", optics::kPanRadiansPerCount, 0.0},
      {5, "ScanAngle", "radians", optics::ScanRadiansPerCount(signature), optics::ScanRadiansAtZero(signature)},
      {6, "Line", "scan line; -1 before the first", {}, {}},
      {7, "ShotIndex", "shot in the file, from 0", {}, {}},
      {10, "NormalizedIntensity", "the map's normalized intensity", {}, {}},
  };
  for (std::size_t i = 0; i < kExtraCount; ++i) PutExtra(vlr + kVlrHeaderSize + i * kExtraBytesEntry, extras[i]);
}

LasWriter::LasWriter(const std::filesystem::path& path, const LasOptions& options, const Colouring& colouring)
    : PointWriter(path, colouring), records_(std::make_unique<LasRecords>(options, colours_, scale_)) {
  // The header is written again, complete, by complete(); this copy holds the place.
  char* at = claim(kPointOffset);
  std::memset(at, 0, kHeaderSize);
  records_->putExtraBytesVlr(at + kHeaderSize);
}

LasWriter::~LasWriter() = default;

void LasWriter::encode(const PointBatch& batch) {
  const std::size_t length = records_->recordLength();
  for (std::size_t first = 0; first < batch.size(); first += kRun) {
    const std::size_t end = std::min(batch.size(), first + kRun);
    records_->encode(batch, first, end, claim((end - first) * length), path_);
  }
}

void LasRecords::encode(const PointBatch& batch, std::size_t first, std::size_t end, char* at,
                        const std::filesystem::path& path) {
  const bool colour = options_.colour;
  const bool table = scale_.hasTable();
  const DisplayScale::Levels levels = table ? scale_.levels() : DisplayScale::Levels{};
  const Rgb16* colours = colours16_.data();
  const std::uint64_t signature = options_.signature;
  const double *x = batch.x().data(), *y = batch.y().data(), *z = batch.z().data();
  const double* time = batch.time().data();
  const double* normalized = batch.normalizedIntensity().data();
  const std::uint16_t* intensity = batch.intensity().data();
  const std::uint8_t *number = batch.returnNumber().data(), *count = batch.numberOfReturns().data();
  const std::int32_t* line = batch.line().data();
  const std::uint64_t* shot = batch.shotIndex().data();
  const std::uint32_t *flight = batch.flightCounts().data(), *pan = batch.panCounts().data();
  const std::uint32_t* scan = batch.scanCounts().data();
  const bool timeOfWeek = batch.timeOfWeek();
  const std::size_t length = recordLength_;
  const std::size_t extras = options_.colour ? kBaseRecord7 : kBaseRecord6;
  const std::uint16_t source = options_.sourceId;
  std::int32_t lowX = low_[0], lowY = low_[1], lowZ = low_[2], highX = high_[0], highY = high_[1], highZ = high_[2];
  // Returns of a shot share its scan angle: the last one's units are kept.
  std::uint32_t angleCounts = 0;
  std::int16_t angleUnits = 0;
  bool haveAngle = false;
  constexpr double kReach = 2147483647.0;
  {
    for (std::size_t i = first; i < end; ++i, at += length) {
      const double sx = RoundToNearest(x[i] * kSteps), sy = RoundToNearest(y[i] * kSteps);
      const double sz = RoundToNearest(z[i] * kSteps);
      // Also false for NaN.
      if (!(std::fabs(sx) <= kReach && std::fabs(sy) <= kReach && std::fabs(sz) <= kReach)) {
        OutOfReach(path, x[i], y[i], z[i]);
      }
      const auto ix = static_cast<std::int32_t>(sx), iy = static_cast<std::int32_t>(sy);
      const auto iz = static_cast<std::int32_t>(sz);
      lowX = std::min(lowX, ix), highX = std::max(highX, ix);
      lowY = std::min(lowY, iy), highY = std::max(highY, iy);
      lowZ = std::min(lowZ, iz), highZ = std::max(highZ, iz);
      if (!haveAngle || scan[i] != angleCounts) {
        // The format's angle runs from -180 to +180 degrees; a full circle's upper
        // half is taken as negative.
        double degrees = optics::ScanAngle(scan[i], signature) / optics::kDegreesToRadians;
        if (degrees > 180.0) degrees -= 360.0;
        if (!(std::fabs(degrees) <= 180.0)) degrees = std::isfinite(degrees) ? std::remainder(degrees, 360.0) : 0.0;
        angleUnits = static_cast<std::int16_t>(RoundToNearest(degrees / kScanAngleUnitDegrees));
        angleCounts = scan[i];
        haveAngle = true;
      }
      const std::uint8_t returnNumber = number[i];
      if (returnNumber - 1u < 15u) ++byReturn_[returnNumber - 1u];
      Put(at, ix);
      Put(at + 4, iy);
      Put(at + 8, iz);
      Put(at + 12, static_cast<std::uint16_t>(intensity[i] << 4));  // 12 bits to the format's 16
      at[14] = static_cast<char>((returnNumber & 15) | ((count[i] & 15) << 4));
      at[15] = 0;  // classification flags, channel, scan direction, edge of line
      at[16] = 0;  // classification: never classified
      at[17] = 0;  // user data
      Put(at + 18, angleUnits);
      Put(at + 20, source);
      Put(at + 22, timeOfWeek ? time[i] : 0.0);
      if (colour) {
        const int level = table ? levels(normalized[i]) : scale_.level(normalized[i]);
        std::memcpy(at + 30, &colours[level], 6);
      }
      char* extra = at + extras;
      Put(extra, flight[i]);
      Put(extra + 4, pan[i]);
      Put(extra + 8, scan[i]);
      Put(extra + 12, line[i]);
      Put(extra + 16, shot[i]);
      Put(extra + 24, normalized[i]);
    }
  }
  low_ = {lowX, lowY, lowZ};
  high_ = {highX, highY, highZ};
}

void LasRecords::putHeader(char* header, std::uint64_t count, std::uint32_t pointOffset, std::uint32_t vlrCount,
                           std::uint8_t formatFlags) const {
  std::memset(header, 0, kHeaderSize);
  PutText(header, 4, "LASF");
  Put(header + 4, options_.sourceId);
  Put(header + 6, kWktBit);
  header[24] = 1;  // version 1.4
  header[25] = 4;
  PutText(header + 26, 32, options_.systemIdentifier);
  PutText(header + 58, 32, options_.generatingSoftware);
  Put(header + 90, (*options_.creationDay)[0]);
  Put(header + 92, (*options_.creationDay)[1]);
  Put(header + 94, static_cast<std::uint16_t>(kHeaderSize));
  Put(header + 96, pointOffset);
  Put(header + 100, vlrCount);
  header[104] = static_cast<char>(pointFormat() | formatFlags);
  Put(header + 105, static_cast<std::uint16_t>(recordLength_));
  // The legacy counts (107 to 130) stay zero, as formats 6 and up require.
  for (int axis = 0; axis < 3; ++axis) {
    Put(header + 131 + 8 * axis, kScale);
    Put(header + 155 + 8 * axis, 0.0);  // the scanner sits at the origin
    const bool any = count > 0;
    Put(header + 179 + 16 * axis, any ? high_[axis] * kScale : 0.0);
    Put(header + 187 + 16 * axis, any ? low_[axis] * kScale : 0.0);
  }
  // No waveform data, no extended records (227 to 246 stay zero).
  Put(header + 247, count);
  for (std::size_t i = 0; i < byReturn_.size(); ++i) Put(header + 255 + 8 * i, byReturn_[i]);
}

void LasWriter::complete() {
  char header[kHeaderSize];
  records_->putHeader(header, count_, static_cast<std::uint32_t>(kPointOffset), 1, 0);
  out_->overwrite(0, header, kHeaderSize, "cannot write the header's counts and bounds");
}

}  // namespace kvr::cloud
