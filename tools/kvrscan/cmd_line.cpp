// line SCAN N: the shots of one scan line as the library fetches them through
// the map: time, pan and scan angle, and range and intensity per return.

#include <memory>

#include "commands.h"
#include "console.h"
#include "errors.h"
#include "fifo/block_format.h"
#include "json_writer.h"
#include "kvr_decode/conversions.h"
#include "kvr_decode/optical_model.h"
#include "map_source.h"
#include "tick_source.h"

namespace kvrscan {

namespace {

constexpr double kDegreesPerRadian = 57.29577951308232;

struct LineOptions {
  std::string scan;
  std::int64_t line = 0;
  std::optional<std::string> map, ticks;
  std::optional<std::int64_t> timeOffset;
  bool json = false;
};

int RunLine(const LineOptions& args, Context& context) {
  kvr::cloud::ScanOptions options;
  if (args.map) options.map = *args.map;
  ScanSource scan(args.scan, options);
  const auto lineIndex = static_cast<int>(args.line);
  const auto offset = static_cast<int>(args.timeOffset.value_or(0));
  std::unique_ptr<TicksManager> ticks;
  if (const auto& tickFile = args.ticks) ticks = std::make_unique<TicksManager>(*tickFile, offset);
  MapSource source(scan, context.showProgress);
  ScanFileMap& map = source.map();
  const int lines = map.numberOfScanLines < 0 ? 0 : map.numberOfScanLines;
  if (lineIndex >= lines) {
    throw FileError(scan.path(), "has no line " + std::to_string(lineIndex) + ": its map holds " +
                                     std::to_string(lines) + " lines" +
                                     (lines > 0 ? " (0 to " + std::to_string(lines - 1) + ")" : ""));
  }
  const ScanLineEntry entry = map.scanLines[lineIndex];
  std::vector<RawShot> shots;
  const int count = GetShotsFromScanLineIndex(lineIndex, scan.stream(), map, shots,
                                              ticks ? ticks->get() : nullptr);
  const std::uint64_t signature = ScanSignature(scan.header());
  const char* timeName = ticks ? "time of week" : "time";

  JsonWriter json;
  TextReport report;
  if (context.json) {
    json.beginObject().field("filename", scan.path()).field("line", lineIndex);
    json.field("blockNumber", entry.blockNumber).field("shotIndexInBlock", entry.shotIndexInBlock);
    json.field("lineFlag", entry.lineFlag).field("shotCount", entry.shotCount);
    json.field("num_shots", count).field("time_is_time_of_week", ticks != nullptr);
    json.key("shots").beginArray();
  } else {
    report.line(scan.path() + Format(": line %d of %d, starting at block %u shot %u, direction %d, %d shots",
                                     lineIndex, lines, entry.blockNumber, entry.shotIndexInBlock, entry.lineFlag,
                                     entry.shotCount));
    report.line(Format("%6s %16s %15s %11s %11s  %s", "shot", ticks ? "time of week [s]" : "time [s]",
                       "ticks", "pan [deg]", "scan [deg]", "returns: range [m] / intensity"));
  }
  for (std::size_t i = 0; i < shots.size(); ++i) {
    const RawShot& shot = shots[i];
    double pan = 0.0, scanAngle = 0.0, range = 0.0;
    GetPolarTriplet(shot, -1, pan, scanAngle, range);  // the angles alone
    // The scan angle as the file's scanner model defines it (GetPolarTriplet
    // knows only the 90-degree scanner's).
    scanAngle = CalculateScanAngle(shot.scanAngleCounts, signature);
    const bool nextLine = static_cast<int>(i) == entry.shotCount && entry.shotCount > 0;
    if (context.json) {
      json.beginObject().field("index", i).field("timeInCounts", shot.timeInCounts).field("time", shot.shotTow);
      json.field("pan", pan).field("scan", scanAngle).field("shotWord", shot.shotWord);
      json.field("first_of_next_line", nextLine);
      json.key("returns").beginArray();
      for (std::size_t k = 0; k < shot.returns.size(); ++k) {
        GetPolarTriplet(shot, static_cast<int>(k), pan, scanAngle, range);
        json.beginObject().field("range", range).field("intensity", kvr::fifo::RawIntensity(shot.returns[k])).endObject();
      }
      json.endArray().endObject();
    } else {
      std::string returns;
      for (std::size_t k = 0; k < shot.returns.size(); ++k) {
        double p = 0.0, s = 0.0;
        GetPolarTriplet(shot, static_cast<int>(k), p, s, range);
        returns += Format("  %.4f / %u", range, kvr::fifo::RawIntensity(shot.returns[k]));
      }
      const std::string time = shot.shotTow < 0.0 ? "unknown" : Format("%.7f", shot.shotTow);
      report.line(Format("%6zu %16s %15llu %11.6f %11.6f%s%s", i, time.c_str(),
                         static_cast<unsigned long long>(shot.timeInCounts), pan * kDegreesPerRadian,
                         scanAngle * kDegreesPerRadian, returns.c_str(), nextLine ? "  (first shot of the next line)" : ""));
    }
  }
  if (context.json) {
    json.endArray().endObject();
    Console::write(json.text());
  } else {
    report.line(Format("%d shots; %s in seconds", count, timeName) +
                (ticks ? "" : " since the scanner's tick counter started") + "; ranges without the range offset");
    Console::write(report.text());
  }
  return kExitOk;
}

constexpr CommandInfo kInfo{
    "line",
    "SCAN N [--map MAPFILE] [--ticks Serial.dat] [--json]",
    "the shots of scan line N: time, pan and scan angle, and range and intensity of each return",
    "The shots are the library's (GetShotsFromScanLineIndex): a line's own shots and, last, the first\n"
    "shot of the next line. Pan and range come from GetPolarTriplet, the scan angle from the\n"
    "file's scanner model. Angles are radians in the JSON, degrees in the report.",
};

}  // namespace

void AddLineCommand(CommandSet& commands) {
  auto options = std::make_shared<LineOptions>();
  CLI::App& command = commands.add(kInfo, options, RunLine);
  AddInput(command, "SCAN", options->scan);
  AddInput(command, "N", options->line)->check(kvr::cli::WholeNumber("N", 0, INT32_MAX));
  AddMapOption(command, options->map);
  AddTicksOption(command, options->ticks);
  AddTimeOffsetOption(command, options->timeOffset);
  AddJsonOption(command, options->json);
}

}  // namespace kvrscan
