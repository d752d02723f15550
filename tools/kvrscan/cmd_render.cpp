// render SCAN -o OUT.png: the intensity panorama of a scan, one column per scan
// line and one row per scan-angle step.

#include <algorithm>
#include <cmath>
#include <filesystem>

#include "commands.h"
#include "console.h"
#include "errors.h"
#include "json_writer.h"
#include "kvr_decode/conversions.h"
#include "kvr_decode/cloud/panorama.h"
#include "kvr_decode/cloud/point_reader.h"
#include "map_source.h"

namespace kvrscan {

namespace {

using kvr::cloud::Palette;
using kvr::cloud::PanoramaAxis;

constexpr double kDegreesPerRadian = 57.29577951308232;

struct RenderRun {
  std::string output;
  const Palette* palette = nullptr;
  std::int32_t width = 0;
  PanoramaAxis axis;
  bool shotRows = false;
  double top = 0.0, bottom = 0.0;  // scan angles of the top and bottom rows, degrees
  std::uint64_t drawn = 0, filled = 0, pixels = 0, bytes = 0;
  double intensityAt95 = 0.0, gamma = 0.0;
  std::string damage;
};

struct RenderOptions {
  std::string scan;
  std::optional<std::string> output, map, palette;
  bool shotRows = false;
  bool json = false;
};

// Measures the axis, draws every first return in range and writes the image.
RenderRun CollectRender(const RenderOptions& args, Context& context) {
  if (!args.output) throw UsageError("missing -o OUT.png");
  RenderRun run;
  run.output = *args.output;
  const std::string paletteName = args.palette.value_or("grey");
  run.palette = kvr::cloud::FindPalette(paletteName);
  if (run.palette == nullptr) throw UsageError("no palette named '" + paletteName + "' (grey, viridis)");
  run.shotRows = args.shotRows;

  kvr::cloud::ScanOptions options;
  if (args.map) options.map = *args.map;
  ScanSource source(args.scan, options);
  const kvr::cloud::Scan& scan = source.scan();
  const MapSource map(source, context.showProgress);
  run.width = map.map().numberOfScanLines;
  if (run.width <= 0) throw FileError(source.path(), "has no scan lines: nothing to draw");

  Progress progress("render " + source.path(), context.showProgress);
  const auto update = [&progress](std::uint64_t done, std::uint64_t total) { progress.update(done, total); };
  kvr::cloud::ReadTally measured;
  run.axis = Checked([&] { return kvr::cloud::MeasurePanorama(scan, run.shotRows, measured, update); });
  if (static_cast<std::uint64_t>(run.width) * run.axis.rows > kvr::cloud::kMaxPanoramaPixels) {
    throw FileError(source.path(), Format("the panorama would be %d x %u pixels, more than this tool draws%s",
                                          run.width, run.axis.rows, ""));
  }
  run.intensityAt95 = map.map().intensityAt95;
  run.gamma = map.map().gamma;
  Checked([&] {
    kvr::cloud::PanoramaWriter writer(run.output, run.width, run.axis, *run.palette, run.intensityAt95, run.gamma);
    kvr::cloud::Selection selection = kvr::cloud::Selection::SampleRule();
    selection.returns = kvr::cloud::Returns::kFirst;
    selection.firstLine = 0;
    selection.lastLine = run.width;
    selection.columns = kvr::cloud::PanoramaWriter::kColumns;
    kvr::cloud::PointReader reader(scan, 0, scan.blockCount(), selection);
    kvr::cloud::PointBatch batch;
    while (reader.next(batch)) {
      writer.write(batch);
      progress.update(reader.tally().blocks, scan.blockCount());
    }
    progress.finish();
    writer.finish();
    run.drawn = writer.drawn(), run.filled = writer.filled(), run.pixels = writer.pixels();
    run.intensityAt95 = writer.scale().intensityAt95(), run.gamma = writer.scale().gamma();
  });
  std::error_code ec;
  run.bytes = std::filesystem::file_size(run.output, ec);
  if (ec) run.bytes = 0;
  run.top = CalculateScanAngle(run.axis.maxCount, scan.signature()) * kDegreesPerRadian;
  run.bottom = CalculateScanAngle(run.axis.minCount, scan.signature()) * kDegreesPerRadian;
  // Both passes walk every block: the damage is the first pass's.
  run.damage = kvr::cloud::DescribeScanDamage(scan, measured, context.log.grew());
  return run;
}

void PrintRenderJson(const RenderRun& run, const std::string& scanPath) {
  JsonWriter json;
  json.beginObject().field("filename", scanPath).field("output", run.output).field("palette", run.palette->name());
  json.field("width", run.width).field("height", run.axis.rows).field("scan_count_min", run.axis.minCount);
  json.field("scan_count_max", run.axis.maxCount).field("scan_count_step", run.axis.step).field("shot_rows", run.shotRows);
  json.field("scan_angle_top", run.top).field("scan_angle_bottom", run.bottom);
  json.field("shots_drawn", run.drawn).field("pixels_filled", run.filled);
  json.field("intensityAt95", run.intensityAt95).field("gamma", run.gamma);
  json.field("output_bytes", run.bytes);
  json.endObject();
  Console::write(json.text());
}

void PrintRenderText(const RenderRun& run) {
  Console::write(run.output + Format(": %d x %u panorama (%s), scan angle %.3f deg at the top to %.3f at the bottom, ",
                                     run.width, run.axis.rows, std::string(run.palette->name()).c_str(), run.top,
                                     run.bottom) +
                 Format("%.1f%% of the pixels filled, ",
                        100.0 * static_cast<double>(run.filled) / static_cast<double>(run.pixels)) +
                 ByteSize(run.bytes) + "\n");
}

int RunRender(const RenderOptions& args, Context& context) {
  const RenderRun run = CollectRender(args, context);
  if (context.json) {
    PrintRenderJson(run, args.scan);
  } else {
    PrintRenderText(run);
  }
  return run.damage.empty() ? kExitOk : context.damaged(args.scan + ": " + run.damage);
}

constexpr CommandInfo kInfo{
    "render",
    "SCAN -o OUT.png [--palette NAME] [--shot-rows] [--map MAPFILE] [--json]",
    "the intensity panorama: one column per scan line, one row per scan-angle step",
    "Each pixel shows the normalized intensity of the first return of the shot that falls on it,\n"
    "scaled for display by the map's intensityAt95 and gamma: level = (v / intensityAt95)^gamma,\n"
    "clipped to 1, through the palette. The highest scan angle is at the top. Rows are one\n"
    "scan-angle step apart: the scan's angular resolution, the coarser of the mean step between\n"
    "neighbouring shots of a line and the mean pan step between lines, so that pixels are square\n"
    "and the image has the scene's proportions; a pixel averages the shots of its line that fall\n"
    "on it. --shot-rows takes the shot step alone. Pixels without a first return in range (0.1 m\n"
    "to 2040 m) stay black. The map is built unless --map loads one.",
};

}  // namespace

void AddRenderCommand(CommandSet& commands) {
  auto options = std::make_shared<RenderOptions>();
  CLI::App& command = commands.add(kInfo, options, RunRender);
  AddInput(command, "SCAN", options->scan);
  AddText(command, "-o,--output", "OUT.png", options->output, "the image to write");
  AddFlag(command, "--shot-rows", options->shotRows,
          "one row per shot step, however far apart the lines are (a taller image)");
  AddMapOption(command, options->map);
  AddPaletteOption(command, options->palette);
  AddJsonOption(command, options->json);
}

}  // namespace kvrscan
