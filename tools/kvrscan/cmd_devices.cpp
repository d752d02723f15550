// devices FILE: a device data file: its calibration blocks and its readings,
// with the tilt angles and type 7 links the library derives.

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>

#include "commands.h"
#include "console.h"
#include "devices/device_layout.h"
#include "errors.h"
#include "files.h"
#include "json_writer.h"
#include "kvr_decode/conversions.h"
#include "kvr_decode/device_data.h"
#include "platform/little_endian.h"
#include "scan_source.h"

namespace kvrscan {

namespace {

namespace layout = kvr::devices::device_layout;

struct Framing {
  std::uint64_t unknownRecords = 0;  // types the library skips by their size
  std::string cutShort;              // where the file ends inside a record, if it does
};

// Follows the file's record framing as the library reads it, to tell a file cut
// inside a record (which the library reads as far as it goes, without a word).
Framing CheckFraming(const std::string& path, std::uint64_t size, std::int32_t version) {
  Framing framing;
  const FileHandle in = OpenForReading(path);
  if (!in) return framing;
  const auto u32At = [&](std::uint64_t offset, std::uint32_t& value) {
    unsigned char bytes[4];
    if (fseeko(in.get(), static_cast<off_t>(offset), SEEK_SET) != 0 || std::fread(bytes, 1, 4, in.get()) != 4) {
      return false;
    }
    value = kvr::le::LoadU32(bytes);
    return true;
  };
  std::uint64_t at = layout::kHeaderSizeWithoutCalibration;
  if (version > layout::kLastVersionWithoutCalibration) {
    for (int block = 0; block < 2; ++block) {
      std::uint32_t length = 0;
      if (!u32At(at, length)) break;
      at += 4 + length;
    }
  }
  constexpr std::uint64_t kHead = layout::kRecordHeadSize;
  std::uint64_t index = 0;
  while (at < size) {
    std::uint32_t type = 0, declared = 0;
    if (at + kHead > size || !u32At(at + layout::kTimeSize, type) || !u32At(at + layout::kTimeSize + 4, declared)) {
      framing.cutShort = "the file ends inside the header of reading " + std::to_string(index);
      break;
    }
    const bool known = type >= 1 && type <= layout::kLastTypeWithReader;
    const std::uint64_t payload = known ? layout::PayloadSize(type) : declared;
    if (!known) ++framing.unknownRecords;
    if (at + kHead + payload > size) {
      framing.cutShort = "the file ends inside reading " + std::to_string(index) + " (type " + std::to_string(type) + ")";
      break;
    }
    at += kHead + payload;
    ++index;
  }
  return framing;
}

template <typename Record>
std::string TickSpan(const std::vector<Record>& records) {
  if (records.empty()) return "";
  const std::uint64_t first = records.front().time, last = records.back().time;
  return Format(", ticks %llu .. %llu (%.3f s)", static_cast<unsigned long long>(first),
                static_cast<unsigned long long>(last), CalculateTimeInSecs(last - first));
}

void CalibrationJson(JsonWriter& json, const AncillaryDevicesData& d) {
  const InclinometerCalibration i = d.inclinometerCalibration;
  json.key("inclinometerCalibration").beginObject();
  json.field("sxx", i.sxx).field("syy", i.syy).field("sxy", i.sxy).field("syx", i.syx);
  json.field("offnomx", i.offnomx).field("offnomy", i.offnomy);
  json.field("bsroll", i.bsroll).field("bspitch", i.bspitch).field("bsheading", i.bsheading);
  json.field("alpha", i.alpha).field("beta", i.beta).field("vref", i.vref).field("pga", i.pga);
  json.endObject();
  const CompassCalibration c = d.compassCalibration;
  json.key("compassCalibration").beginObject();
  json.field("xsf", c.xsf).field("ysf", c.ysf).field("xoff", c.xoff).field("yoff", c.yoff);
  json.field("declination", c.declination);
  json.endObject();
}

void RecordsJson(JsonWriter& json, const AncillaryDevicesData& d) {
  json.key("type1Records").beginArray();
  for (const DeviceRecord1 r : d.type1Records) {
    json.beginObject().field("time", std::uint64_t{r.time}).field("tiltX", double{r.tiltX});
    json.field("tiltY", double{r.tiltY}).numbers("raw", r.raw).endObject();
  }
  json.endArray();
  json.key("type2Records").beginArray();
  for (const DeviceRecord2 r : d.type2Records) {
    json.beginObject().field("time", std::uint64_t{r.time}).field("a", std::uint64_t{r.a});
    json.field("b", std::uint64_t{r.b}).field("c", std::uint64_t{r.c}).field("value", r.value);
    json.field("nearestType7", r.nearestType7).endObject();
  }
  json.endArray();
  json.key("type3Records").beginArray();
  for (const DeviceRecord3 r : d.type3Records) json.beginObject().field("time", std::uint64_t{r.time}).numbers("w", std::array<std::uint32_t, 5>{r.w0, r.w1, r.w2, r.w3, r.w4}).endObject();
  json.endArray();
  json.key("type4Records").beginArray();
  for (const DeviceRecord4 r : d.type4Records) {
    json.beginObject().field("time", std::uint64_t{r.time}).numbers("values", r.values).endObject();
  }
  json.endArray();
  const auto sixValues = [&](std::string_view name, const std::vector<DeviceRecord5>& records) {
    json.key(name).beginArray();
    for (const DeviceRecord5 r : records) {
      json.beginObject().field("time", std::uint64_t{r.time}).numbers("values", r.values).endObject();
    }
    json.endArray();
  };
  sixValues("type5Records", d.type5Records);
  sixValues("type6Records", d.type6Records);
  json.key("type7Records").beginArray();
  for (const DeviceRecord7 r : d.type7Records) {
    json.beginObject().field("time", std::uint64_t{r.time}).field("d", std::uint64_t{r.d}).numbers("e", std::array<std::uint32_t, 7>{r.e0, r.e1, r.e2, r.e3, r.e4, r.e5, r.e6}).endObject();
  }
  json.endArray();
  json.key("type8Records").beginArray();
  for (const DeviceRecord8 r : d.type8Records) json.beginObject().field("time", std::uint64_t{r.time}).field("value", r.value).endObject();
  json.endArray();
}

std::string Floats(std::initializer_list<double> values) {
  std::string out;
  for (const double v : values) out += (out.empty() ? "" : " ") + FormatDouble(v);
  return out;
}

void ReportText(TextReport& report, const std::string& path, const AncillaryDevicesData& d, const Framing& framing,
                bool listRecords) {
  report.line(path + ": device data file version " + std::to_string(d.version));
  const InclinometerCalibration i = d.inclinometerCalibration;
  report.heading("inclinometer calibration");
  report.field("sxx syy sxy syx", Floats({i.sxx, i.syy, i.sxy, i.syx}));
  report.field("offnomx offnomy", Floats({i.offnomx, i.offnomy}));
  report.field("bsroll bspitch bsheading", Floats({i.bsroll, i.bspitch, i.bsheading}));
  report.field("alpha beta vref pga", Floats({double(i.alpha), i.beta, i.vref, double(i.pga)}));
  const CompassCalibration c = d.compassCalibration;
  report.heading("compass calibration");
  report.field("xsf ysf xoff yoff", Floats({c.xsf, c.ysf, c.xoff, c.yoff}));
  report.field("declination", Floats({c.declination}));

  report.heading("readings");
  std::string tilt;
  if (!d.type1Records.empty()) {
    double minX = INFINITY, maxX = -INFINITY, minY = INFINITY, maxY = -INFINITY;
    for (const DeviceRecord1 r : d.type1Records) {
      minX = std::min(minX, double{r.tiltX}), maxX = std::max(maxX, double{r.tiltX});
      minY = std::min(minY, double{r.tiltY}), maxY = std::max(maxY, double{r.tiltY});
    }
    tilt = Format("; tilt x %.4f .. %.4f, y %.4f .. %.4f deg", minX, maxX, minY, maxY);
  }
  report.field("type 1 (inclination)", GroupedCount(d.type1Records.size()) + TickSpan(d.type1Records) + tilt);
  const auto linked = std::count_if(d.type2Records.begin(), d.type2Records.end(),
                                    [](const DeviceRecord2& r) { return r.nearestType7 >= 0; });
  report.field("type 2", GroupedCount(d.type2Records.size()) + TickSpan(d.type2Records) + "; " +
                             GroupedCount(static_cast<unsigned long long>(linked)) + " with a type 7 reading within 5 s");
  report.field("type 3", GroupedCount(d.type3Records.size()) + TickSpan(d.type3Records));
  report.field("type 4", GroupedCount(d.type4Records.size()) + TickSpan(d.type4Records));
  report.field("type 5", GroupedCount(d.type5Records.size()) + TickSpan(d.type5Records));
  report.field("type 6", GroupedCount(d.type6Records.size()) + TickSpan(d.type6Records));
  report.field("type 7", GroupedCount(d.type7Records.size()) + TickSpan(d.type7Records));
  report.field("type 8", GroupedCount(d.type8Records.size()) + TickSpan(d.type8Records));
  if (framing.unknownRecords > 0) report.field("other types", GroupedCount(framing.unknownRecords) + " (skipped)");
  if (!listRecords) return;
  const auto words = [](std::span<const std::uint32_t> values) {
    std::string out;
    for (const std::uint32_t v : values) out += " " + std::to_string(v);
    return out;
  };
  report.heading("type 1: time, tilt x, tilt y [deg], raw");
  for (const DeviceRecord1 r : d.type1Records) {
    std::string raw;
    for (const std::int32_t v : r.raw) raw += " " + std::to_string(v);
    report.line(Format("  %llu %.6f %.6f", static_cast<unsigned long long>(r.time), double{r.tiltX}, double{r.tiltY}) + raw);
  }
  report.heading("type 2: time, value, a, b, c, nearest type 7");
  for (const DeviceRecord2 r : d.type2Records) {
    report.line(Format("  %llu %u %llu %llu %llu %d", static_cast<unsigned long long>(r.time), r.value,
                       static_cast<unsigned long long>(r.a), static_cast<unsigned long long>(r.b),
                       static_cast<unsigned long long>(r.c), r.nearestType7));
  }
  report.heading("type 3: time, w0 .. w4");
  for (const DeviceRecord3 r : d.type3Records) report.line("  " + std::to_string(std::uint64_t{r.time}) + words(std::array<std::uint32_t, 5>{r.w0, r.w1, r.w2, r.w3, r.w4}));
  report.heading("type 4: time, values");
  for (const DeviceRecord4 r : d.type4Records) report.line("  " + std::to_string(std::uint64_t{r.time}) + words(r.values));
  report.heading("type 5: time, values");
  for (const DeviceRecord5 r : d.type5Records) report.line("  " + std::to_string(std::uint64_t{r.time}) + words(r.values));
  report.heading("type 6: time, values");
  for (const DeviceRecord6 r : d.type6Records) report.line("  " + std::to_string(std::uint64_t{r.time}) + words(r.values));
  report.heading("type 7: time, d, e0 .. e6");
  for (const DeviceRecord7 r : d.type7Records) {
    report.line("  " + std::to_string(std::uint64_t{r.time}) + " " + std::to_string(std::uint64_t{r.d}) + words(std::array<std::uint32_t, 7>{r.e0, r.e1, r.e2, r.e3, r.e4, r.e5, r.e6}));
  }
  report.heading("type 8: time, value");
  for (const DeviceRecord8 r : d.type8Records) {
    report.line("  " + std::to_string(std::uint64_t{r.time}) + " " + std::to_string(r.value));
  }
}

struct DevicesOptions {
  std::string file;
  bool records = false;
  bool json = false;
};

// A device data file as the library reads it, and how its records are framed.
struct DeviceReport {
  AncillaryDevicesData data;
  Framing framing;
};

DeviceReport CollectDevices(const std::string& path) {
  const std::uint64_t size = ReadableFileSize(path);
  const std::wstring wide = WidePath(path);
  DeviceReport report;
  const int result = ReadDeviceDataInfo(wide.c_str(), report.data);
  if (result == -2) {
    if (const FileHandle in = OpenForReading(path)) {
      char signature[layout::kSignatureSize] = {};
      const std::size_t got = std::fread(signature, 1, sizeof signature, in.get());
      throw FileError(path, "not a device data file: its signature is \"" +
                                PrintableBytes(std::string_view(signature, got)) + "\", expected " + layout::kSignature);
    }
    throw FileError(path, "not a device data file");
  }
  if (result != 0) throw FileError(path, "header cut short: the file holds no readings");
  report.framing = CheckFraming(path, size, report.data.version);
  return report;
}

std::string DevicesJson(const std::string& path, const DeviceReport& report, bool listRecords) {
  const AncillaryDevicesData& data = report.data;
  JsonWriter json;
  json.beginObject();
  json.field("filename", path).field("version", data.version);
  CalibrationJson(json, data);
  json.key("counts").beginObject();
  json.field("type1", data.type1Records.size()).field("type2", data.type2Records.size());
  json.field("type3", data.type3Records.size()).field("type4", data.type4Records.size());
  json.field("type5", data.type5Records.size()).field("type6", data.type6Records.size());
  json.field("type7", data.type7Records.size()).field("type8", data.type8Records.size());
  json.field("other", report.framing.unknownRecords);
  json.endObject();
  if (listRecords) RecordsJson(json, data);
  json.endObject();
  return json.text();
}

int RunDevices(const DevicesOptions& args, Context& context) {
  const DeviceReport report = CollectDevices(args.file);
  if (context.json) {
    Console::write(DevicesJson(args.file, report, args.records));
  } else {
    TextReport text;
    ReportText(text, args.file, report.data, report.framing, args.records);
    Console::write(text.text());
  }
  if (!report.framing.cutShort.empty()) return context.damaged(args.file + ": " + report.framing.cutShort);
  return kExitOk;
}

constexpr CommandInfo kInfo{
    "devices",
    "FILE [--records] [--json]",
    "a device data file (#KVRDEVC): calibration blocks and readings by type",
    "Tilt angles of the type 1 readings and the type 7 reading nearest each type 2 reading are the\n"
    "library's. The JSON names the fields as the library's AncillaryDevicesData does.",
};

}  // namespace

void AddDevicesCommand(CommandSet& commands) {
  auto options = std::make_shared<DevicesOptions>();
  CLI::App& command = commands.add(kInfo, options, RunDevices);
  AddInput(command, "FILE", options->file);
  AddFlag(command, "--records", options->records, "list every reading (the JSON then holds them all)");
  AddJsonOption(command, options->json);
}

}  // namespace kvrscan
