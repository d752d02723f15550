#include "kvr_decode/cloud/e57_writer.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <chrono>
#include <cmath>
#include <numbers>
#include <random>

#include "e57_format.h"
#include "file_access.h"
#include "kvr_decode/cloud/error.h"
#include "optics/conversions.h"

#ifndef KVR_CLOUD_VERSION
#define KVR_CLOUD_VERSION "unknown"
#endif

namespace kvr::cloud {

namespace {

using e57::BitStream;
using e57::BitsFor;
using e57::CData;

constexpr double kSteps = 10000.0;  // stored coordinate steps a metre: 0.1 mm
constexpr std::string_view kScale = "0.0001";
constexpr std::int64_t kMaxIntensity = 4095;
// GPS time started 1980-01-06, 315,964,800 s after the Unix epoch; 18 leap seconds since.
constexpr double kGpsEpochUnix = 315964800.0;
constexpr double kLeapSeconds = 18.0;

// Nearest integer, halves to even, for |v| < 2^51 (see the LAS writer).
inline double RoundToNearest(double v) {
  constexpr double kMagic = 6755399441055744.0;
  return (v + kMagic) - kMagic;
}

std::string Number(double value) {
  char text[32];
  return std::string(text, std::to_chars(text, text + sizeof text, value).ptr);
}

std::string Number(std::int64_t value) { return std::to_string(value); }

std::string NewGuid() {
  static thread_local std::mt19937_64 random{std::random_device{}() ^
                                             static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count())};
  const std::uint64_t a = random(), b = random();
  char text[40];
  std::snprintf(text, sizeof text, "{%08x-%04x-4%03x-%04x-%012llx}", static_cast<unsigned>(a >> 32),
                static_cast<unsigned>((a >> 16) & 0xFFFF), static_cast<unsigned>(a & 0xFFF),
                static_cast<unsigned>(0x8000 | ((b >> 48) & 0x3FFF)),
                static_cast<unsigned long long>(b & 0xFFFFFFFFFFFFull));
  return text;
}

std::string Element(std::string_view name, std::string_view type, const std::string& value) {
  return "<" + std::string(name) + " type=\"" + std::string(type) + "\">" + value + "</" + std::string(name) + ">\n";
}
std::string Text(std::string_view name, std::string_view text) { return Element(name, "String", CData(text)); }
std::string Float(std::string_view name, double value) { return Element(name, "Float", Number(value)); }
std::string Integer(std::string_view name, std::int64_t value) { return Element(name, "Integer", Number(value)); }
std::string DateTime(std::string_view name, double gpsSeconds) {
  return "<" + std::string(name) + " type=\"Structure\">\n" + Float("dateTimeValue", gpsSeconds) +
         Integer("isAtomicClockReferenced", 0) + "</" + std::string(name) + ">\n";
}

// A field of the points' prototype: its XML and how many bits it packs to.
struct Field {
  std::string_view name;
  std::int64_t minimum = 0, maximum = 0;
  bool scaled = false;  // ScaledInteger at 0.1 mm; else Integer
  bool real = false;    // Float, double precision
  unsigned bits() const { return real ? 64 : BitsFor(minimum, maximum); }
  std::string xml() const {
    std::string text = "<" + std::string(name);
    if (real) return text + " type=\"Float\" precision=\"double\"/>\n";
    text += scaled ? " type=\"ScaledInteger\"" : " type=\"Integer\"";
    text += " minimum=\"" + Number(minimum) + "\" maximum=\"" + Number(maximum) + "\"";
    if (scaled) text += " scale=\"" + std::string(kScale) + "\" offset=\"0\"";
    return text + "/>\n";
  }
};

enum FieldIndex : std::size_t {
  kX, kY, kZ, kCartesianInvalid, kRange, kAzimuth, kElevation, kIntensity, kRow, kColumn, kReturnIndex,
  kReturnCount, kTime, kTimeInvalid, kFieldCount
};

std::string CompressedVectorXml(std::string_view name, std::uint64_t offset, std::uint64_t records,
                                std::span<const Field> fields) {
  std::string text = "<" + std::string(name) + " type=\"CompressedVector\" fileOffset=\"" + std::to_string(offset) +
                     "\" recordCount=\"" + std::to_string(records) + "\">\n<prototype type=\"Structure\">\n";
  for (const Field& field : fields) text += field.xml();
  return text + "</prototype>\n<codecs type=\"Vector\" allowHeterogeneousChildren=\"1\"></codecs>\n</" +
         std::string(name) + ">\n";
}

[[noreturn]] void Beyond(const std::filesystem::path& path, std::string_view what, double value, std::string_view limit) {
  throw OutputError(path, "a point's " + std::string(what) + " " + Number(value) + " lies beyond " + std::string(limit));
}

struct Group {
  std::int32_t line;
  std::uint64_t start, count;
};

// The extremes of values seen.
template <typename T>
struct Extent {
  T low = std::numeric_limits<T>::max(), high = std::numeric_limits<T>::lowest();
  void add(T v) { low = std::min(low, v), high = std::max(high, v); }
  void add(const Extent& e) { low = std::min(low, e.low), high = std::max(high, e.high); }
};

}  // namespace

struct E57Writer::State {
  std::filesystem::path path;
  std::unique_ptr<OutputFile> owned;
  OutputFile* out = nullptr;
  std::unique_ptr<e57::PagedWriter> pages;
  std::string guid = NewGuid();
  std::string scansXml, imagesXml;
  std::uint64_t total = 0;
  bool finished = false;

  // The scan being written.
  bool open = false;
  E57ScanInfo info;
  std::array<Field, kFieldCount> fields;
  std::array<unsigned, kFieldCount> bits{};
  std::unique_ptr<e57::VectorSection> section;
  std::size_t perPacket = 0, inPacket = 0;
  std::uint64_t count = 0;
  std::int64_t reachSteps = 0;
  std::vector<Group> groups;
  std::array<Extent<std::int64_t>, 3> xyz;
  Extent<std::int64_t> range, row, column, returns;
  Extent<double> azimuth, elevation, time;

  void begin(const E57ScanInfo& scanInfo);
  void encode(const PointBatch& batch, std::size_t first, std::size_t end);
  void end();
  void writeHeader(std::uint64_t length, std::uint64_t xmlOffset, std::uint64_t xmlLength);
};

namespace {

void PutLe(std::uint8_t* at, std::uint64_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) at[i] = static_cast<std::uint8_t>(value >> (8 * i));
}

}  // namespace

void E57Writer::State::writeHeader(std::uint64_t length, std::uint64_t xmlOffset, std::uint64_t xmlLength) {
  std::uint8_t header[e57::kFileHeaderSize] = {'A', 'S', 'T', 'M', '-', 'E', '5', '7'};
  PutLe(header + 8, 1, 4);  // version 1.0
  PutLe(header + 12, 0, 4);
  PutLe(header + 16, length, 8);
  PutLe(header + 24, xmlOffset, 8);
  PutLe(header + 32, xmlLength, 8);
  PutLe(header + 40, e57::kPageSize, 8);
  pages->patch(0, header);
}

E57Writer::E57Writer(const std::filesystem::path& path) : state_(std::make_unique<State>()) {
  state_->path = path;
  state_->owned = std::make_unique<OutputFile>(path);
  state_->out = state_->owned.get();
  state_->pages = std::make_unique<e57::PagedWriter>(*state_->out);
  state_->pages->keep(0, e57::kFileHeaderSize);
  state_->pages->zeros(e57::kFileHeaderSize);
}

E57Writer::E57Writer(const std::filesystem::path& path, OutputFile& out) : state_(std::make_unique<State>()) {
  state_->path = path;
  state_->out = &out;
  state_->pages = std::make_unique<e57::PagedWriter>(out);
  state_->pages->keep(0, e57::kFileHeaderSize);
  state_->pages->zeros(e57::kFileHeaderSize);
}

E57Writer::~E57Writer() = default;

std::uint64_t E57Writer::count() const { return state_->count; }
std::uint64_t E57Writer::totalCount() const { return state_->total; }
const std::filesystem::path& E57Writer::path() const { return state_->path; }

void E57Writer::beginScan(const E57ScanInfo& info) {
  if (state_->open) endScan();
  state_->begin(info);
}

void E57Writer::State::begin(const E57ScanInfo& scanInfo) {
  info = scanInfo;
  if (info.guid.empty()) info.guid = NewGuid();
  const double reach = std::isfinite(info.reach) && info.reach > 0.0 ? std::min(info.reach, 1.0e9) : 1000.0;
  reachSteps = static_cast<std::int64_t>(std::ceil(reach * kSteps));
  const std::uint32_t returnsMax = std::max<std::uint32_t>(info.maxReturns, 2);
  const auto lines = static_cast<std::int64_t>(info.lineStarts.size());
  fields = {{
      {"cartesianX", -reachSteps, reachSteps, true},
      {"cartesianY", -reachSteps, reachSteps, true},
      {"cartesianZ", -reachSteps, reachSteps, true},
      {"cartesianInvalidState", 0, 2},
      {"sphericalRange", 0, reachSteps, true},
      {"sphericalAzimuth", 0, 0, false, true},
      {"sphericalElevation", 0, 0, false, true},
      {"intensity", 0, kMaxIntensity},
      {"rowIndex", 0, std::max<std::int64_t>(info.maxShotsPerLine, 2) - 1},
      {"columnIndex", -1, std::max<std::int64_t>(lines - 1, 0)},
      {"returnIndex", 0, returnsMax - 1},
      {"returnCount", 1, returnsMax},
      {"timeStamp", 0, 0, false, true},
      {"isTimeStampInvalid", 0, 1},
  }};
  unsigned recordBits = 0;
  for (std::size_t f = 0; f < kFieldCount; ++f) recordBits += bits[f] = fields[f].bits();
  // Each stream may carry one partial byte more than its records' bits; the
  // packet pads to four bytes.
  perPacket = (e57::kMaxPacket - e57::kPacketHeaderSize - 3 * kFieldCount - 3) * 8 / recordBits;
  section = std::make_unique<e57::VectorSection>(*pages, kFieldCount);
  inPacket = 0;
  count = 0;
  groups.clear();
  xyz = {};
  range = row = column = returns = {};
  azimuth = elevation = time = {};
  open = true;
}

void E57Writer::write(const PointBatch& batch) {
  State& s = *state_;
  if (!s.open) throw OutputError(s.path, "points written before a scan was begun");
  for (std::size_t first = 0; first < batch.size();) {
    const std::size_t end = std::min(batch.size(), first + (s.perPacket - s.inPacket));
    s.encode(batch, first, end);
    s.inPacket += end - first;
    if (s.inPacket == s.perPacket) {
      s.section->flush(false);
      s.inPacket = 0;
    }
    first = end;
  }
  s.count += batch.size();
  s.total += batch.size();
}

// Field by field over the batch's columns: each loop feeds one stream.
void E57Writer::State::encode(const PointBatch& batch, std::size_t first, std::size_t end) {
  std::vector<BitStream>& streams = section->streams();
  const std::int64_t reach = reachSteps;
  const std::span<const double> axes[3] = {batch.x(), batch.y(), batch.z()};
  for (int a = 0; a < 3; ++a) {
    BitStream& stream = streams[kX + a];
    const unsigned width = bits[kX + a];
    const double* v = axes[a].data();
    Extent<std::int64_t> seen = xyz[a];
    for (std::size_t i = first; i < end; ++i) {
      const double steps = RoundToNearest(v[i] * kSteps);
      // Also false for NaN.
      if (!(std::fabs(steps) <= static_cast<double>(reach))) Beyond(path, "coordinate", v[i], "the scan's reach");
      const auto q = static_cast<std::int64_t>(steps);
      seen.add(q);
      stream.put(static_cast<std::uint64_t>(q + reach), width);
    }
    xyz[a] = seen;
  }
  // Every point has a range: state 0 throughout.
  streams[kCartesianInvalid].putZeros(std::uint64_t{bits[kCartesianInvalid]} * (end - first));

  // The format's spherical coordinates: range >= 0, azimuth in (-pi, pi],
  // elevation in [-pi/2, pi/2]. A scan angle past the zenith or nadir looks
  // the other way round: elevation pi - scan, azimuth pan + pi.
  const double *r = batch.range().data(), *pan = batch.pan().data(), *scan = batch.scanAngle().data();
  constexpr double kPi = std::numbers::pi, kHalfPi = std::numbers::pi / 2;
  for (std::size_t i = first; i < end; ++i) {
    double rho = r[i], az = pan[i], el = scan[i];
    if (rho < 0.0) rho = -rho, az += kPi, el = -el;
    // Angles are mostly within a turn already: the library call only for the rest.
    if (!(el >= -kPi && el <= kPi)) el = std::remainder(el, 2 * kPi);
    if (el > kHalfPi) {
      el = kPi - el, az += kPi;
    } else if (el < -kHalfPi) {
      el = -kPi - el, az += kPi;
    }
    if (az > kPi && az <= 3 * kPi) {
      az -= 2 * kPi;  // exact (Sterbenz): az lies within a factor 2 of 2 pi
    } else if (!(az > -kPi && az <= kPi)) {
      az = std::remainder(az, 2 * kPi);
      if (az <= -kPi) az += 2 * kPi;
    }
    const double steps = RoundToNearest(rho * kSteps);
    if (!(steps <= static_cast<double>(reach))) Beyond(path, "range", r[i], "the scan's reach");
    const auto q = static_cast<std::int64_t>(steps);
    range.add(q);
    azimuth.add(az);
    elevation.add(el);
    streams[kRange].put(static_cast<std::uint64_t>(q), bits[kRange]);
    streams[kAzimuth].putWord(std::bit_cast<std::uint64_t>(az));
    streams[kElevation].putWord(std::bit_cast<std::uint64_t>(el));
  }

  const std::uint16_t* intensity = batch.intensity().data();
  for (std::size_t i = first; i < end; ++i) {
    if (intensity[i] > kMaxIntensity) Beyond(path, "intensity", intensity[i], "12 bits");
    streams[kIntensity].put(intensity[i], bits[kIntensity]);
  }

  const std::int32_t* line = batch.line().data();
  const std::uint64_t* shot = batch.shotIndex().data();
  const std::vector<std::uint64_t>& starts = info.lineStarts;
  const auto lines = static_cast<std::int64_t>(starts.size());
  const std::int64_t rowMax = fields[kRow].maximum;
  for (std::size_t i = first; i < end; ++i) {
    const std::int64_t l = line[i];
    if (l < -1 || l >= lines) Beyond(path, "line", static_cast<double>(l), "the scan's lines");
    const std::uint64_t start = l < 0 ? 0 : starts[static_cast<std::size_t>(l)];
    const std::uint64_t rowIndex = shot[i] - start;  // wraps to a huge value before the line's start
    if (rowIndex > static_cast<std::uint64_t>(rowMax)) Beyond(path, "shot in its line", static_cast<double>(rowIndex), "the longest line");
    row.add(static_cast<std::int64_t>(rowIndex));
    column.add(l);
    streams[kRow].put(rowIndex, bits[kRow]);
    streams[kColumn].put(static_cast<std::uint64_t>(l + 1), bits[kColumn]);
    const std::uint64_t index = count + i;
    if (groups.empty() || groups.back().line != l) {
      groups.push_back({static_cast<std::int32_t>(l), index, 0});
    }
    ++groups.back().count;
  }

  const std::uint8_t *number = batch.returnNumber().data(), *returnCount = batch.numberOfReturns().data();
  const std::int64_t returnsMax = fields[kReturnCount].maximum;
  for (std::size_t i = first; i < end; ++i) {
    if (number[i] < 1 || number[i] > returnCount[i] || returnCount[i] > returnsMax) {
      Beyond(path, "return number", number[i], "its shot's returns");
    }
    returns.add(number[i] - 1);
    streams[kReturnIndex].put(number[i] - 1u, bits[kReturnIndex]);
    streams[kReturnCount].put(returnCount[i] - 1u, bits[kReturnCount]);
  }

  const double* t = batch.time().data();
  const bool timeOfWeek = batch.timeOfWeek();
  for (std::size_t i = first; i < end; ++i) {
    const bool known = timeOfWeek && t[i] >= 0.0;
    if (known) time.add(t[i]);
    streams[kTime].putWord(std::bit_cast<std::uint64_t>(t[i]));
    streams[kTimeInvalid].put(known ? 0 : 1, bits[kTimeInvalid]);
  }
}

void E57Writer::State::end() {
  section->finish();
  const std::uint64_t pointsOffset = section->offset();
  section.reset();

  // The groups: one record a line, in a compressed vector of their own.
  const std::int64_t lineMax = fields[kColumn].maximum;
  const auto points = static_cast<std::int64_t>(std::max<std::uint64_t>(count, 1));
  std::uint64_t longest = 0;
  for (const Group& group : groups) longest = std::max(longest, group.count);
  const std::array<Field, 3> groupFields = {{
      {"idElementValue", -1, lineMax},
      {"startPointIndex", 0, points},
      {"pointCount", 0, points},
  }};
  e57::VectorSection groupSection(*pages, groupFields.size());
  {
    std::vector<BitStream>& streams = groupSection.streams();
    const unsigned idBits = groupFields[0].bits(), indexBits = groupFields[1].bits();
    const std::size_t perPacket =
        (e57::kMaxPacket - e57::kPacketHeaderSize - 3 * groupFields.size() - 3) * 8 / (idBits + 2 * indexBits);
    for (std::size_t g = 0; g < groups.size(); ++g) {
      streams[0].put(static_cast<std::uint64_t>(groups[g].line + 1), idBits);
      streams[1].put(groups[g].start, indexBits);
      streams[2].put(groups[g].count, indexBits);
      if ((g + 1) % perPacket == 0) groupSection.flush(false);
    }
  }
  groupSection.finish();

  const auto steps = [](std::int64_t q) { return static_cast<double>(q) / kSteps; };
  std::string& x = scansXml;
  x += "<vectorChild type=\"Structure\">\n";
  x += Text("guid", info.guid);
  x += Text("name", info.name);
  if (!info.description.empty()) x += Text("description", info.description);
  if (!info.sensorModel.empty()) x += Text("sensorModel", info.sensorModel);
  if (!info.sensorSerialNumber.empty()) x += Text("sensorSerialNumber", info.sensorSerialNumber);
  if (!info.sensorFirmwareVersion.empty()) x += Text("sensorFirmwareVersion", info.sensorFirmwareVersion);
  const auto& p = info.pose;
  x += "<pose type=\"Structure\">\n<rotation type=\"Structure\">\n" + Float("w", p[0]) + Float("x", p[1]) +
       Float("y", p[2]) + Float("z", p[3]) + "</rotation>\n<translation type=\"Structure\">\n" + Float("x", p[4]) +
       Float("y", p[5]) + Float("z", p[6]) + "</translation>\n</pose>\n";
  if (info.gpsWeek && time.low <= time.high) {
    const double week = *info.gpsWeek * 604800.0;
    x += DateTime("acquisitionStart", week + time.low) + DateTime("acquisitionEnd", week + time.high);
  }
  if (count > 0) {
    x += "<cartesianBounds type=\"Structure\">\n";
    const char* axis[3] = {"x", "y", "z"};
    for (int a = 0; a < 3; ++a) {
      x += Float(std::string(axis[a]) + "Minimum", steps(xyz[a].low)) +
           Float(std::string(axis[a]) + "Maximum", steps(xyz[a].high));
    }
    x += "</cartesianBounds>\n<sphericalBounds type=\"Structure\">\n";
    x += Float("rangeMinimum", steps(range.low)) + Float("rangeMaximum", steps(range.high));
    x += Float("elevationMinimum", elevation.low) + Float("elevationMaximum", elevation.high);
    x += Float("azimuthStart", azimuth.low) + Float("azimuthEnd", azimuth.high);
    x += "</sphericalBounds>\n<indexBounds type=\"Structure\">\n";
    x += Integer("rowMinimum", row.low) + Integer("rowMaximum", row.high);
    x += Integer("columnMinimum", column.low) + Integer("columnMaximum", column.high);
    x += Integer("returnMinimum", returns.low) + Integer("returnMaximum", returns.high);
    x += "</indexBounds>\n";
  }
  x += "<intensityLimits type=\"Structure\">\n" + Integer("intensityMinimum", 0) +
       Integer("intensityMaximum", kMaxIntensity) + "</intensityLimits>\n";
  x += CompressedVectorXml("points", pointsOffset, count, fields);
  x += "<pointGroupingSchemes type=\"Structure\">\n<groupingByLine type=\"Structure\">\n";
  x += Text("idElementName", "columnIndex");
  x += Integer("groupsSize", static_cast<std::int64_t>(groups.size()));
  x += Integer("pointCountSize", static_cast<std::int64_t>(longest));
  x += CompressedVectorXml("groups", groupSection.offset(), groups.size(), groupFields);
  x += "</groupingByLine>\n</pointGroupingSchemes>\n</vectorChild>\n";
  groups = {};
  open = false;
}

void E57Writer::endScan() {
  if (state_->open) state_->end();
}

const char* ImageKindOf(std::span<const std::uint8_t> bytes) {
  static constexpr std::uint8_t kPng[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
  if (bytes.size() >= 8 && std::equal(kPng, kPng + 8, bytes.begin())) return "png";
  if (bytes.size() >= 3 && bytes[0] == 0xFF && bytes[1] == 0xD8 && bytes[2] == 0xFF) return "jpeg";
  return "";
}

namespace {

std::uint32_t Be(std::span<const std::uint8_t> b, std::size_t at, int n) {
  std::uint32_t v = 0;
  for (int i = 0; i < n; ++i) v = (v << 8) | b[at + i];
  return v;
}

// Width and height from the PNG header or the JPEG frame header; 0, 0 when not found.
std::array<std::uint32_t, 2> ImageSize(std::span<const std::uint8_t> b, std::string_view kind) {
  if (kind == "png") return b.size() >= 24 ? std::array{Be(b, 16, 4), Be(b, 20, 4)} : std::array<std::uint32_t, 2>{};
  // JPEG: walk the markers to a start of frame (C0-CF but C4, C8, CC).
  for (std::size_t at = 2; at + 4 <= b.size();) {
    if (b[at] != 0xFF) break;
    const std::uint8_t marker = b[at + 1];
    if (marker == 0xFF) {
      ++at;
      continue;
    }
    const std::uint32_t length = Be(b, at + 2, 2);
    if (marker >= 0xC0 && marker <= 0xCF && marker != 0xC4 && marker != 0xC8 && marker != 0xCC) {
      if (at + 9 > b.size()) break;
      return {Be(b, at + 7, 2), Be(b, at + 5, 2)};
    }
    at += 2 + length;
  }
  return {0, 0};
}

}  // namespace

void E57Writer::addImage(const E57Image& image) {
  State& s = *state_;
  if (s.open) throw OutputError(s.path, "an image added while the points of a scan are being written");
  const std::string_view kind = ImageKindOf(image.bytes);
  if (kind.empty()) throw OutputError(s.path, "image " + image.name + " is neither PNG nor JPEG");
  const auto [width, height] = ImageSize(image.bytes, kind);
  s.pages->align4();
  const std::uint64_t offset = s.pages->physical();
  std::uint8_t header[e57::kBlobHeaderSize] = {};  // section id 0: blob
  PutLe(header + 8, e57::kBlobHeaderSize + image.bytes.size(), 8);
  s.pages->write(header, sizeof header);
  s.pages->write(image.bytes);
  std::string& x = s.imagesXml;
  x += "<vectorChild type=\"Structure\">\n" + Text("guid", NewGuid()) + Text("name", image.name);
  if (!s.info.guid.empty()) x += Text("associatedData3DGuid", s.info.guid);
  if (image.gpsTime) x += DateTime("acquisitionDateTime", *image.gpsTime);
  // No camera model comes with the images: they are visual references.
  x += "<visualReferenceRepresentation type=\"Structure\">\n<" + std::string(kind) +
       "Image type=\"Blob\" fileOffset=\"" + std::to_string(offset) + "\" length=\"" +
       std::to_string(image.bytes.size()) + "\"/>\n" + Integer("imageWidth", width) +
       Integer("imageHeight", height) + "</visualReferenceRepresentation>\n</vectorChild>\n";
}

void E57Writer::finish() {
  State& s = *state_;
  if (s.finished) return;
  endScan();
  const double unix = std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
  std::string xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
  xml += "<e57Root type=\"Structure\" xmlns=\"http://www.astm.org/COMMIT/E57/2010-e57-v1.0\">\n";
  xml += Text("formatName", "ASTM E57 3D Imaging Data File") + Text("guid", s.guid);
  xml += Integer("versionMajor", 1) + Integer("versionMinor", 0);
  xml += Text("e57LibraryVersion", "kvr_decode " KVR_CLOUD_VERSION);
  xml += DateTime("creationDateTime", unix - kGpsEpochUnix + kLeapSeconds);
  // The points are in each scanner's own frame; no geographic system is known.
  xml += Text("coordinateMetadata", "");
  xml += "<data3D type=\"Vector\" allowHeterogeneousChildren=\"1\">\n" + s.scansXml + "</data3D>\n";
  xml += "<images2D type=\"Vector\" allowHeterogeneousChildren=\"1\">\n" + s.imagesXml + "</images2D>\n";
  xml += "</e57Root>\n";
  s.pages->align4();
  const std::uint64_t xmlOffset = s.pages->physical();
  s.pages->write(xml.data(), xml.size());
  const std::uint64_t length = (s.pages->logical() + e57::kPagePayload - 1) / e57::kPagePayload * e57::kPageSize;
  s.writeHeader(length, xmlOffset, xml.size());
  s.pages->finish();
  s.finished = true;
  if (s.owned) s.owned->commit();
}

E57ScanInfo E57ScanInfo::Of(const Scan& scan) {
  E57ScanInfo info;
  info.guid = NewGuid();
  info.name = scan.path().filename().string();
  info.description = "kvr_decode export of " + info.name;
  const RawFileHeader& h = scan.header();
  const auto text = [](const char (&field)[40], std::string_view prefix) {
    std::string value(field, std::find(field, field + 40, '\0'));
    value = PrintableBytes(value);
    if (value.starts_with(prefix)) value.erase(0, prefix.size());
    return value;
  };
  info.sensorModel = text(h.idText1, "");
  info.sensorSerialNumber = text(h.idText2, "S/N ");
  info.sensorFirmwareVersion = text(h.idText3, "firmware ");
  const ScanFileMap& map = scan.map();
  info.maxReturns = std::max<std::uint32_t>(map.maxReturnsPerShot, 1);
  std::int64_t longest = map.maxShotsPerLine;
  for (const auto& [line, entry] : map.scanLines) {
    longest = std::max<std::int64_t>(longest, entry.shotCount);
    if (line < 0) continue;
    if (static_cast<std::size_t>(line) >= info.lineStarts.size()) info.lineStarts.resize(line + 1);
    info.lineStarts[line] = scan.firstShotOfBlock(entry.blockNumber) + entry.shotIndexInBlock;
  }
  info.maxShotsPerLine = static_cast<std::uint32_t>(std::max<std::int64_t>(longest, 1));
  // The farthest a return can lie: the largest flight count, plus the offset.
  constexpr double kMaxFlight = 1048576.0;  // stop counts have 20 bits
  info.reach = kMaxFlight * optics::kRangePerCount + std::fabs(scan.rangeOffset());
  return info;
}

E57PointWriter::E57PointWriter(const std::filesystem::path& path, const E57ScanInfo& info)
    : PointWriter(path, Colouring{}), writer_(new E57Writer(path, *out_)) {
  writer_->beginScan(info);
}

E57PointWriter::~E57PointWriter() = default;

void E57PointWriter::encode(const PointBatch& batch) { writer_->write(batch); }

void E57PointWriter::complete() { writer_->finish(); }

}  // namespace kvr::cloud
