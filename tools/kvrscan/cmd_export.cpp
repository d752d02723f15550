// export SCAN -o OUT.ply|OUT.csv: every return of the scan as a point, streamed
// block by block.

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <thread>

#include "commands.h"
#include "console.h"
#include "errors.h"
#include "json_writer.h"
#include "kvr_decode/conversions.h"
#include "kvr_decode/optical_model.h"
#include "map_source.h"
#include "point_export.h"
#include "point_writer.h"
#include "tick_source.h"

namespace kvrscan {

namespace {

struct ExportOptions {
  std::string scan;
  std::optional<std::string> output, map, ticks, palette;
  std::optional<std::int64_t> timeOffset, threads;
  bool json = false;
};

const Palette& ChosenPalette(const ExportOptions& args) {
  const std::string name = args.palette.value_or("grey");
  const Palette* palette = FindPalette(name);
  if (palette == nullptr) throw UsageError("no palette named '" + name + "' (grey, viridis)");
  return *palette;
}

int RunExport(const ExportOptions& args, Context& context) {
  const std::string output = *args.output;
  const std::optional<PointFormat> format = PointFormatOf(output);
  if (!format) throw UsageError("the output must end in .ply or .csv, not '" + output + "'");
  const Palette& palette = ChosenPalette(args);
  // Past a few workers the file's reading and writing set the pace, and each
  // worker holds a few blocks' points: the default stops at eight.
  const auto threads = static_cast<unsigned>(
      args.threads.value_or(std::clamp(std::thread::hardware_concurrency(), 1u, 8u)));
  ScanSource scan(args.scan);
  const auto offset = static_cast<int>(args.timeOffset.value_or(0));
  // One tick manager for each thread: a manager is not shared.
  std::vector<std::unique_ptr<TicksManager>> ticks;
  std::vector<NmeaTicksManager*> managers;
  if (const auto& tickFile = args.ticks) {
    for (unsigned i = 0; i < threads; ++i) {
      ticks.push_back(std::make_unique<TicksManager>(*tickFile, offset));
      managers.push_back(ticks.back()->get());
    }
  }
  const double rangeOffset = GetCalibrationParameters(scan.header()).rangeOffset;
  MapSource source(scan, args.map, context.showProgress);

  const std::vector<std::string> comments = {
      "kvrscan export of " + std::filesystem::path(scan.path()).filename().string(),
      "axes: scanner frame, metres: x = r cos(scan) cos(pan), y = r cos(scan) sin(pan), z = r sin(scan)",
      "r = range + rangeOffset " + FormatDouble(rangeOffset) +
          " m; pan and scan are the angles of the shot's encoder counts",
      std::string("time: seconds, ") + (!ticks.empty() ? "GNSS time of week" : "since the scanner's tick counter started") +
          "; -1 when unknown",
      "line: scan line of the map (-1 before the first); intensity: raw 12-bit",
      "colour: palette " + std::string(palette.name()) + " over the normalized intensity (intensityAt95 " +
          FormatDouble(source.map().intensityAt95) + ", gamma " + FormatDouble(source.map().gamma) + ")",
  };
  std::unique_ptr<PointWriter> writer = PointWriter::Open(output, *format, comments);
  Progress progress("export " + scan.path(), context.showProgress);
  const ExportSummary summary = ExportPoints(
      scan, source, {&palette, rangeOffset, managers, &context.log, threads}, *writer, &progress);
  writer->finish();
  std::error_code ec;
  std::uintmax_t bytes = std::filesystem::file_size(output, ec);
  if (ec) bytes = 0;  // not a regular file (a device, a pipe): nothing to measure

  if (context.json) {
    JsonWriter json;
    json.beginObject().field("filename", scan.path()).field("output", output);
    json.field("format", *format == PointFormat::kPly ? "ply" : "csv").field("palette", palette.name());
    json.field("num_points", summary.points).field("returns_without_range", summary.withoutRange);
    json.field("num_shots", summary.shots).field("blocks_read", summary.blocks);
    json.field("range_offset", rangeOffset).field("output_bytes", static_cast<std::uint64_t>(bytes));
    json.field("map", source.loaded() ? "loaded" : "built").field("seconds", summary.seconds);
    json.endObject();
    Console::write(json.text());
  } else {
    Console::write(output + ": " + GroupedCount(summary.points) + " points from " + GroupedCount(summary.shots) +
                   " shots (" + GroupedCount(summary.withoutRange) + " returns without a range), " +
                   ByteSize(bytes) + Format(", %.2f s\n", summary.seconds));
  }
  // The points of every readable block are written; the damage still fails the run.
  if (!summary.damage.empty()) return context.damaged(scan.path() + ": " + summary.damage);
  return kExitOk;
}

int RunExportChecked(const ExportOptions& args, Context& context) {
  if (!args.output) throw UsageError("missing -o OUT.ply or -o OUT.csv");
  return RunExport(args, context);
}

constexpr CommandInfo kInfo{
    "export",
    "SCAN -o OUT.ply|OUT.csv [--map MAPFILE] [--ticks Serial.dat] [--palette NAME] [--threads N] [--json]",
    "every return as a point: x, y, z, intensity, return number and count, line, time and colour",
    "Axes (the scanner's own frame, metres): x = r cos(scan) cos(pan), y = r cos(scan) sin(pan),\n"
    "z = r sin(scan), with r the return's range plus the calibration's rangeOffset, pan and scan\n"
    "the library's angles of the shot's encoder counts. Returns that end before their shot's T0\n"
    "count have no range and are left out. The colour is the palette's at the return's normalized\n"
    "intensity, scaled for display by the map's intensityAt95 and gamma; the map is built unless\n"
    "--map loads one. The points are written as they are decoded: memory does not grow with the scan.\n"
    "Workers decode blocks and make their points side by side; the points are written in file order,\n"
    "so the file is the same on any number of threads.",
};

}  // namespace

void AddExportCommand(CommandSet& commands) {
  auto options = std::make_shared<ExportOptions>();
  CLI::App& command = commands.add(kInfo, options, RunExportChecked);
  AddInput(command, "SCAN", options->scan);
  AddText(command, "-o,--output", "OUT", options->output, "the point file: OUT.ply (binary little-endian) or OUT.csv");
  AddMapOption(command, options->map);
  AddTicksOption(command, options->ticks);
  AddTimeOffsetOption(command, options->timeOffset);
  AddPaletteOption(command, options->palette);
  AddInteger(command, "--threads", "N", options->threads, 1, 256,
             "threads decoding blocks and making points (default: one per processor, at most 8)");
  AddJsonOption(command, options->json);
}

}  // namespace kvrscan
