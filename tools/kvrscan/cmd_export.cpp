// export SCAN -o OUT.ply|OUT.csv|OUT.las: every return of the scan as a point,
// streamed block by block.

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <thread>

#include "commands.h"
#include "console.h"
#include "errors.h"
#include "json_writer.h"
#include "kvr_decode/cloud/palette.h"
#include "map_source.h"
#include "point_export.h"
#include "scan_source.h"

namespace kvrscan {

namespace {

struct ExportOptions {
  std::string scan;
  std::optional<std::string> output, map, ticks, palette, returns;
  std::optional<std::int64_t> timeOffset, threads;
  bool json = false;
};

const kvr::cloud::Palette& ChosenPalette(const ExportOptions& args) {
  const std::string name = args.palette.value_or("grey");
  const kvr::cloud::Palette* palette = kvr::cloud::FindPalette(name);
  if (palette == nullptr) throw UsageError("no palette named '" + name + "' (grey, viridis)");
  return *palette;
}

kvr::cloud::Returns ChosenReturns(const ExportOptions& args) {
  const std::string name = args.returns.value_or("all");
  if (name == "all") return kvr::cloud::Returns::kAll;
  if (name == "first") return kvr::cloud::Returns::kFirst;
  if (name == "last") return kvr::cloud::Returns::kLast;
  throw UsageError("--returns takes all, first or last, not '" + name + "'");
}

struct ExportRun {
  std::string output;
  PointFormat format = PointFormat::kPly;
  const kvr::cloud::Palette* palette = nullptr;
  double rangeOffset = 0.0;
  bool loadedMap = false;
  bool ticks = false;
  std::uint64_t bytes = 0;
  ExportSummary summary;
};

// Opens the scan, makes its map and writes its points.
ExportRun CollectExport(const ExportOptions& args, Context& context) {
  ExportRun run;
  run.output = *args.output;
  const std::optional<PointFormat> format = kvr::cloud::PointFormatOf(run.output);
  if (!format) throw UsageError("the output must end in .ply, .csv or .las, not '" + run.output + "'");
  run.format = *format;
  run.palette = &ChosenPalette(args);
  kvr::cloud::Selection selection;
  selection.returns = ChosenReturns(args);
  selection.columns = kvr::cloud::ColumnsOf(run.format);
  // Past a few workers the file's reading and writing set the pace, and each
  // worker holds a few blocks' points: the default stops at eight.
  const auto threads = static_cast<unsigned>(
      args.threads.value_or(std::clamp(std::thread::hardware_concurrency(), 1u, 8u)));
  kvr::cloud::ScanOptions options;
  if (args.map) options.map = *args.map;
  if (args.ticks) options.ticks = *args.ticks;
  options.timeOffset = static_cast<int>(args.timeOffset.value_or(0));
  run.ticks = options.ticks.has_value();
  ScanSource source(args.scan, options);
  const kvr::cloud::Scan& scan = source.scan();
  run.rangeOffset = scan.rangeOffset();
  const MapSource map(source, context.showProgress);
  run.loadedMap = map.loaded();

  const std::vector<std::string> comments = {
      "kvrscan export of " + std::filesystem::path(source.path()).filename().string(),
      "axes: scanner frame, metres: x = r cos(scan) cos(pan), y = r cos(scan) sin(pan), z = r sin(scan)",
      "r = range + rangeOffset " + FormatDouble(run.rangeOffset) +
          " m; pan and scan are the angles of the shot's encoder counts",
      std::string("time: seconds, ") + (run.ticks ? "GNSS time of week" : "since the scanner's tick counter started") +
          "; -1 when unknown",
      "line: scan line of the map (-1 before the first); intensity: raw 12-bit",
      "colour: palette " + std::string(run.palette->name()) + " over the normalized intensity (intensityAt95 " +
          FormatDouble(map.map().intensityAt95) + ", gamma " + FormatDouble(map.map().gamma) + ")",
  };
  Checked([&] {
    // LAS has colours (point format 7) only when a palette is asked for.
    const auto writer = kvr::cloud::OpenPointWriter(
        run.output, run.format,
        {comments, {run.palette, map.map().intensityAt95, map.map().gamma},
         kvr::cloud::LasOptions::Of(scan, args.palette.has_value())});
    Progress progress("export " + source.path(), context.showProgress);
    run.summary = ExportPoints(scan, threads, &context.log, *writer, &progress, selection);
    writer->finish();
  });
  std::error_code ec;
  const std::uintmax_t bytes = std::filesystem::file_size(run.output, ec);
  run.bytes = ec ? 0 : bytes;  // not a regular file (a device, a pipe): nothing to measure
  return run;
}

void PrintExportJson(const ExportRun& run, const std::string& scanPath) {
  JsonWriter json;
  json.beginObject().field("filename", scanPath).field("output", run.output);
  json.field("format", kvr::cloud::FormatName(run.format)).field("palette", run.palette->name());
  json.field("num_points", run.summary.points).field("returns_without_range", run.summary.withoutRange);
  json.field("num_shots", run.summary.shots).field("blocks_read", run.summary.blocks);
  json.field("range_offset", run.rangeOffset).field("output_bytes", run.bytes);
  json.field("map", run.loadedMap ? "loaded" : "built").field("seconds", run.summary.seconds);
  json.endObject();
  Console::write(json.text());
}

void PrintExportText(const ExportRun& run) {
  Console::write(run.output + ": " + GroupedCount(run.summary.points) + " points from " +
                 GroupedCount(run.summary.shots) + " shots (" + GroupedCount(run.summary.withoutRange) +
                 " returns without a range), " + ByteSize(run.bytes) + Format(", %.2f s\n", run.summary.seconds));
}

int RunExport(const ExportOptions& args, Context& context) {
  const ExportRun run = CollectExport(args, context);
  if (context.json) {
    PrintExportJson(run, args.scan);
  } else {
    PrintExportText(run);
  }
  // The points of every readable block are written; the damage still fails the run.
  if (!run.summary.damage.empty()) return context.damaged(args.scan + ": " + run.summary.damage);
  return kExitOk;
}

int RunExportChecked(const ExportOptions& args, Context& context) {
  if (!args.output) throw UsageError("missing -o OUT.ply, -o OUT.csv or -o OUT.las");
  return RunExport(args, context);
}

constexpr CommandInfo kInfo{
    "export",
    "SCAN -o OUT.ply|OUT.csv|OUT.las [--map MAPFILE] [--ticks Serial.dat] [--palette NAME] [--returns all|first|last]"
    " [--threads N] [--json]",
    "every return as a point: x, y, z, intensity, return number and count, line, time and colour",
    "Axes (the scanner's own frame, metres): x = r cos(scan) cos(pan), y = r cos(scan) sin(pan),\n"
    "z = r sin(scan), with r the return's range plus the calibration's rangeOffset, pan and scan\n"
    "the library's angles of the shot's encoder counts. Returns that end before their shot's T0\n"
    "count have no range and are left out. The colour is the palette's at the return's normalized\n"
    "intensity, scaled for display by the map's intensityAt95 and gamma; the map is built unless\n"
    "--map loads one. The points are written as they are decoded: memory does not grow with the scan.\n"
    "Workers decode blocks and make their points side by side; the points are written in file order,\n"
    "so the file is the same on any number of threads. LAS: version 1.4, point format 6, or 7 with\n"
    "colours when --palette is given; range, angles, line, shot and normalized intensity as extra bytes.",
};

}  // namespace

void AddExportCommand(CommandSet& commands) {
  auto options = std::make_shared<ExportOptions>();
  CLI::App& command = commands.add(kInfo, options, RunExportChecked);
  AddInput(command, "SCAN", options->scan);
  AddText(command, "-o,--output", "OUT", options->output,
          "the point file: OUT.ply (binary little-endian), OUT.csv or OUT.las (LAS 1.4)");
  AddMapOption(command, options->map);
  AddTicksOption(command, options->ticks);
  AddTimeOffsetOption(command, options->timeOffset);
  AddPaletteOption(command, options->palette);
  AddText(command, "--returns", "all|first|last", options->returns,
          "which returns of a shot become points (default: all)");
  AddInteger(command, "--threads", "N", options->threads, 1, 256,
             "threads decoding blocks and making points (default: one per processor, at most 8)");
  AddJsonOption(command, options->json);
}

}  // namespace kvrscan
