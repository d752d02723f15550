// export SCAN... -o OUT.ply|OUT.csv|OUT.las|OUT.laz|OUT.e57: every return of the
// scan as a point, streamed block by block; several scans of a set into one E57 file.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <thread>

#include "commands.h"
#include "console.h"
#include "errors.h"
#include "camera_source.h"
#include "json_writer.h"
#include "kvr_decode/cloud/e57_writer.h"
#include "kvr_decode/cloud/palette.h"
#include "map_source.h"
#include "point_export.h"
#include "scan_source.h"

namespace kvrscan {

namespace {

struct ExportOptions {
  std::vector<std::string> scans;
  std::vector<std::string> cameras;  // E57: the i-th goes with the i-th scan
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
  std::uint64_t images = 0;
  ExportSummary summary;
};

void Add(ExportSummary& sum, const ExportSummary& part, const std::string& scan) {
  sum.points += part.points, sum.withoutRange += part.withoutRange, sum.shots += part.shots;
  sum.blocks += part.blocks, sum.seconds += part.seconds;
  if (!part.damage.empty()) sum.damage += (sum.damage.empty() ? "" : "; ") + scan + ": " + part.damage;
}

// The camera file's images, after the scan they were taken with: JPEG and PNG
// as they are, netpbm encoded as PNG. Records holding none of these are
// skipped with one message. Returns the images added.
std::uint64_t AddCameraImages(kvr::cloud::E57Writer& file, const std::string& camera) {
  std::uint64_t added = 0, skipped = 0;
  ReadCameraContents(camera, std::nullopt, [&](const CameraImage& image, std::span<const unsigned char> bytes) {
    kvr::cloud::E57Image entry;
    entry.name = Format("image_%04llu", static_cast<unsigned long long>(image.index));
    if (*kvr::cloud::ImageKindOf(bytes) != '\0') {
      entry.bytes.assign(bytes.begin(), bytes.end());
    } else if (auto png = kvr::cloud::NetpbmAsPng(bytes)) {
      entry.bytes = std::move(*png);
    } else {
      ++skipped;
      return;
    }
    file.addImage(entry);
    ++added;
  });
  if (skipped > 0) {
    std::fprintf(stderr, "%s: %llu records hold no JPEG, PNG or netpbm image; skipped\n", camera.c_str(),
                 static_cast<unsigned long long>(skipped));
  }
  return added;
}

// Opens each scan, makes its map and writes its points (and, in an E57 file, its images).
ExportRun CollectExport(const ExportOptions& args, Context& context) {
  ExportRun run;
  run.output = *args.output;
  const std::optional<PointFormat> format = kvr::cloud::PointFormatOf(run.output);
  if (!format) throw UsageError("the output must end in .ply, .csv, .las, .laz or .e57, not '" + run.output + "'");
  run.format = *format;
  const bool e57 = run.format == PointFormat::kE57;
  if (!e57 && args.scans.size() > 1) throw UsageError("several scans go only into one E57 file (-o OUT.e57)");
  if (!e57 && !args.cameras.empty()) throw UsageError("--camera images go only into an E57 file (-o OUT.e57)");
  if (args.cameras.size() > args.scans.size()) throw UsageError("more --camera files than scans");
  if (args.map && args.scans.size() > 1) throw UsageError("--map belongs to one scan; several scans build their maps");
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

  std::unique_ptr<kvr::cloud::PointWriter> writer;
  Checked([&] {
    for (std::size_t i = 0; i < args.scans.size(); ++i) {
      ScanSource source(args.scans[i], options);
      const kvr::cloud::Scan& scan = source.scan();
      run.rangeOffset = scan.rangeOffset();
      const MapSource map(source, context.showProgress);
      run.loadedMap = map.loaded();
      if (!writer) {
        const std::vector<std::string> comments = {
            "kvrscan export of " + std::filesystem::path(source.path()).filename().string(),
            "axes: scanner frame, metres: x = r cos(scan) cos(pan), y = r cos(scan) sin(pan), z = r sin(scan)",
            "r = range + rangeOffset " + FormatDouble(run.rangeOffset) +
                " m; pan and scan are the angles of the shot's encoder counts",
            std::string("time: seconds, ") +
                (run.ticks ? "GNSS time of week" : "since the scanner's tick counter started") + "; -1 when unknown",
            "line: scan line of the map (-1 before the first); intensity: raw 12-bit",
            "colour: palette " + std::string(run.palette->name()) + " over the normalized intensity (intensityAt95 " +
                FormatDouble(map.map().intensityAt95) + ", gamma " + FormatDouble(map.map().gamma) + ")",
        };
        kvr::cloud::WriterSettings settings;
        settings.comments = comments;
        settings.colouring = {run.palette, map.map().intensityAt95, map.map().gamma};
        // LAS has colours (point format 7) only when a palette is asked for.
        settings.las = kvr::cloud::LasOptions::Of(scan, args.palette.has_value());
        if (e57) settings.e57 = kvr::cloud::E57ScanInfo::Of(scan);
        settings.laz.threads = threads;  // LAZ compresses its chunks on as many threads as decode the blocks
        writer = kvr::cloud::OpenPointWriter(run.output, run.format, settings);
      } else {
        static_cast<kvr::cloud::E57PointWriter&>(*writer).file().beginScan(kvr::cloud::E57ScanInfo::Of(scan));
      }
      Progress progress("export " + source.path(), context.showProgress);
      Add(run.summary, ExportPoints(scan, threads, &context.log, *writer, &progress, selection), source.path());
      if (e57) {
        kvr::cloud::E57Writer& file = static_cast<kvr::cloud::E57PointWriter&>(*writer).file();
        file.endScan();
        if (i < args.cameras.size()) run.images += AddCameraImages(file, args.cameras[i]);
      }
    }
    writer->finish();
  });
  std::error_code ec;
  const std::uintmax_t bytes = std::filesystem::file_size(run.output, ec);
  run.bytes = ec ? 0 : bytes;  // not a regular file (a device, a pipe): nothing to measure
  return run;
}

void PrintExportJson(const ExportRun& run, const std::vector<std::string>& scans) {
  JsonWriter json;
  json.beginObject().field("filename", scans.front()).field("output", run.output);
  if (scans.size() > 1) {
    json.key("filenames").beginArray();
    for (const std::string& scan : scans) json.value(scan);
    json.endArray();
  }
  json.field("format", kvr::cloud::FormatName(run.format)).field("palette", run.palette->name());
  json.field("num_points", run.summary.points).field("returns_without_range", run.summary.withoutRange);
  json.field("num_shots", run.summary.shots).field("blocks_read", run.summary.blocks);
  json.field("range_offset", run.rangeOffset).field("output_bytes", run.bytes);
  json.field("map", run.loadedMap ? "loaded" : "built").field("seconds", run.summary.seconds);
  if (run.format == PointFormat::kE57) json.field("num_scans", static_cast<std::uint64_t>(scans.size())).field("num_images", run.images);
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
    PrintExportJson(run, args.scans);
  } else {
    PrintExportText(run);
  }
  // The points of every readable block are written; the damage still fails the run.
  if (!run.summary.damage.empty()) return context.damaged(run.summary.damage);
  return kExitOk;
}

int RunExportChecked(const ExportOptions& args, Context& context) {
  if (!args.output) throw UsageError("missing -o OUT.ply, -o OUT.csv, -o OUT.las, -o OUT.laz or -o OUT.e57");
  return RunExport(args, context);
}

constexpr CommandInfo kInfo{
    "export",
    "SCAN... -o OUT.ply|OUT.csv|OUT.las|OUT.laz|OUT.e57 [--map MAPFILE] [--ticks Serial.dat] [--camera FILE]..."
    " [--palette NAME] [--returns all|first|last] [--threads N] [--json]",
    "every return as a point: x, y, z, intensity, return number and count, line, time and colour",
    "Axes (the scanner's own frame, metres): x = r cos(scan) cos(pan), y = r cos(scan) sin(pan),\n"
    "z = r sin(scan), with r the return's range plus the calibration's rangeOffset, pan and scan\n"
    "the library's angles of the shot's encoder counts. Returns that end before their shot's T0\n"
    "count have no range and are left out. The colour is the palette's at the return's normalized\n"
    "intensity, scaled for display by the map's intensityAt95 and gamma; the map is built unless\n"
    "--map loads one. The points are written as they are decoded: memory does not grow with the scan.\n"
    "Workers decode blocks and make their points side by side; the points are written in file order,\n"
    "so the file is the same on any number of threads. LAS: version 1.4, point format 6, or 7 with\n"
    "colours when --palette is given; range, angles, line, shot and normalized intensity as extra bytes.\n"
    "LAZ: the LAS file compressed (layered chunked LASzip, chunks of 50,000 points, compressed on the\n"
    "export's threads).\n"
    "E57: one scan each SCAN (several scans of a set in one file), its points with cartesian and\n"
    "spherical coordinates, intensity, row (shot in its line), column (line), return and time, grouped\n"
    "by line; each --camera file's JPEG, PNG and netpbm (as PNG) images go with the scan of its place.",
};

}  // namespace

void AddExportCommand(CommandSet& commands) {
  auto options = std::make_shared<ExportOptions>();
  CLI::App& command = commands.add(kInfo, options, RunExportChecked);
  AddInput(command, "SCAN", options->scans);
  AddText(command, "-o,--output", "OUT", options->output,
          "the point file: OUT.ply (binary little-endian), OUT.csv, OUT.las (LAS 1.4), OUT.laz (compressed LAS) or OUT.e57");
  AddMapOption(command, options->map);
  AddTicksOption(command, options->ticks);
  AddTimeOffsetOption(command, options->timeOffset);
  AddPaletteOption(command, options->palette);
  command.add_option("--camera", options->cameras, "E57: a camera file of the scan in the same place (repeatable)")
      ->type_name("FILE");
  AddText(command, "--returns", "all|first|last", options->returns,
          "which returns of a shot become points (default: all)");
  AddInteger(command, "--threads", "N", options->threads, 1, 256,
             "threads decoding blocks and making points (default: one per processor, at most 8)");
  AddJsonOption(command, options->json);
}

}  // namespace kvrscan
