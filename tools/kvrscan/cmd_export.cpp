// export SCAN -o OUT.ply|OUT.csv: every return of the scan as a point, streamed
// block by block.

#include <chrono>
#include <filesystem>

#include "block_walk.h"
#include "commands.h"
#include "console.h"
#include "errors.h"
#include "json_writer.h"
#include "kvr_decode/conversions.h"
#include "kvr_decode/optical_model.h"
#include "map_source.h"
#include "point_writer.h"
#include "tick_source.h"

namespace kvrscan {

namespace {

const Palette& ChosenPalette(const ParsedArgs& args) {
  const std::string name = args.value("palette").value_or("grey");
  const Palette* palette = FindPalette(name);
  if (palette == nullptr) throw UsageError("no palette named '" + name + "' (grey, viridis)");
  return *palette;
}

struct ExportSummary {
  std::uint64_t points = 0;
  std::uint64_t withoutRange = 0;
  std::uint64_t shots = 0;
  std::uint64_t blocks = 0;
  double walkSeconds = 0.0;
  std::string damage;  // what the walk found wrong with the scan, "" when nothing
};

// The walk: every return with a range becomes a point; a return whose stop
// count lies before its shot's T0 count has none and is counted apart.
ExportSummary WriteAllPoints(ScanSource& scan, MapSource& source, NmeaTicksManager* ticks, const Palette& palette,
                             double rangeOffset, PointWriter& writer, Progress& progress, const LibraryLog& log) {
  const auto start = std::chrono::steady_clock::now();
  ExportSummary summary;
  PointGeometry geometry(ScanSignature(scan.header()), rangeOffset);
  const IntensityModel model = source.intensityModel();
  const IntensityNormalizer normalize(model);
  const DisplayScale scale(model.intensityAt95, model.gamma);
  std::array<Rgb, kTopLevel + 1> colours;
  for (int level = 0; level <= kTopLevel; ++level) colours[level] = palette.colourOfLevel(level);
  LineIndexer lines = source.lineIndexer();
  // Points go out in small batches, so that they and the writer's buffer stay
  // in the processor's caches between being made and being copied out.
  constexpr std::size_t kBatch = 2048;
  std::vector<PointRecord> batch;
  batch.reserve(kBatch + 4);
  BlockWalk walk(scan, ticks, &progress);
  while (walk.next()) {
    const FifoBlock& block = walk.block();
    const std::uint32_t blockNumber = walk.blockNumber();
    for (std::size_t i = 0; i < block.shots.size(); ++i) {
      const RawShot& shot = block.shots[i];
      const std::int32_t line = lines.lineOf(blockNumber, static_cast<std::uint32_t>(i));
      const auto t0 = static_cast<std::uint32_t>(shot.shotWord >> 41 & 0xFFFF);
      geometry.aim(static_cast<std::uint32_t>(shot.shotWord & 0xFFFFF), shot.scanAngleCounts);
      const auto count = static_cast<std::uint8_t>(shot.returns.size());
      for (std::uint8_t k = 0; k < count; ++k) {
        const std::uint32_t word = shot.returns[k];
        const double range = RangeOf(word & 0xFFFFF, t0);
        if (range < 0.0) {
          ++summary.withoutRange;
          continue;
        }
        PointRecord& point = batch.emplace_back();
        float x, y, z;
        geometry.place(range, x, y, z);
        point.x = x, point.y = y, point.z = z;
        point.intensity = static_cast<std::uint16_t>(word >> 20);
        point.returnNumber = static_cast<std::uint8_t>(k + 1);
        point.numberOfReturns = count;
        point.line = line;
        point.time = shot.shotTow;
        point.colour = colours[range > 0.0 ? scale.level(normalize(range, word >> 20)) : 0];
      }
      if (batch.size() >= kBatch) {
        writer.write(batch);
        batch.clear();
      }
    }
    summary.shots += block.shots.size();
  }
  writer.write(batch);
  summary.points = writer.count();
  summary.blocks = walk.blocksRead();
  summary.walkSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  progress.finish();
  summary.damage = walk.damage(log.grew());
  return summary;
}

int RunExport(const ParsedArgs& args, Context& context) {
  const std::string output = *args.value("output");
  const std::optional<PointFormat> format = PointFormatOf(output);
  if (!format) throw UsageError("the output must end in .ply or .csv, not '" + output + "'");
  const Palette& palette = ChosenPalette(args);
  ScanSource scan(args.positional()[0]);
  const auto offset = static_cast<int>(args.integer("time-offset", INT32_MIN, INT32_MAX).value_or(0));
  std::unique_ptr<TicksManager> ticks;
  if (const auto tickFile = args.value("ticks")) ticks = std::make_unique<TicksManager>(*tickFile, offset);
  const double rangeOffset = GetCalibrationParameters(scan.header()).rangeOffset;
  MapSource source(scan, args.value("map"), context.showProgress);

  const std::vector<std::string> comments = {
      "kvrscan export of " + std::filesystem::path(scan.path()).filename().string(),
      "axes: scanner frame, metres: x = r cos(scan) cos(pan), y = r cos(scan) sin(pan), z = r sin(scan)",
      "r = range + rangeOffset " + FormatDouble(rangeOffset) +
          " m; pan and scan are the angles of the shot's encoder counts",
      std::string("time: seconds, ") + (ticks ? "GNSS time of week" : "since the scanner's tick counter started") +
          "; -1 when unknown",
      "line: scan line of the map (-1 before the first); intensity: raw 12-bit",
      "colour: palette " + std::string(palette.name()) + " over the normalized intensity (intensityAt95 " +
          FormatDouble(source.map().intensityAt95) + ", gamma " + FormatDouble(source.map().gamma) + ")",
  };
  std::unique_ptr<PointWriter> writer = PointWriter::Open(output, *format, comments);
  Progress progress("export " + scan.path(), context.showProgress);
  const ExportSummary summary =
      WriteAllPoints(scan, source, ticks ? ticks->get() : nullptr, palette, rangeOffset, *writer, progress,
                     context.log);
  writer->finish();
  std::error_code ec;
  const std::uintmax_t bytes = std::filesystem::file_size(output, ec);

  if (context.json) {
    JsonWriter json;
    json.beginObject().field("filename", scan.path()).field("output", output);
    json.field("format", *format == PointFormat::kPly ? "ply" : "csv").field("palette", palette.name());
    json.field("num_points", summary.points).field("returns_without_range", summary.withoutRange);
    json.field("num_shots", summary.shots).field("blocks_read", summary.blocks);
    json.field("range_offset", rangeOffset).field("output_bytes", static_cast<std::uint64_t>(bytes));
    json.field("map", source.loaded() ? "loaded" : "built").field("seconds", summary.walkSeconds);
    json.endObject();
    Console::write(json.text());
  } else {
    Console::write(output + ": " + GroupedCount(summary.points) + " points from " + GroupedCount(summary.shots) +
                   " shots (" + GroupedCount(summary.withoutRange) + " returns without a range), " +
                   ByteSize(bytes) + Format(", %.2f s\n", summary.walkSeconds));
  }
  // The points of every readable block are written; the damage still fails the run.
  if (!summary.damage.empty()) return context.damaged(scan.path() + ": " + summary.damage);
  return kExitOk;
}

constexpr std::string_view kPositional[] = {"SCAN"};

constexpr OptionSpec kOptions[] = {
    {"output", 'o', "OUT", "the point file: OUT.ply (binary little-endian) or OUT.csv"},
    kMapOption,
    kTicksOption,
    kTimeOffsetOption,
    kPaletteOption,
    kJsonOption,
};

int RunExportChecked(const ParsedArgs& args, Context& context) {
  if (!args.has("output")) throw UsageError("missing -o OUT.ply or -o OUT.csv");
  return RunExport(args, context);
}

}  // namespace

const Command kExportCommand{
    "export",
    "SCAN -o OUT.ply|OUT.csv [--map MAPFILE] [--ticks Serial.dat] [--palette NAME] [--json]",
    "every return as a point: x, y, z, intensity, return number and count, line, time and colour",
    "Axes (the scanner's own frame, metres): x = r cos(scan) cos(pan), y = r cos(scan) sin(pan),\n"
    "z = r sin(scan), with r the return's range plus the calibration's rangeOffset, pan and scan\n"
    "the library's angles of the shot's encoder counts. Returns that end before their shot's T0\n"
    "count have no range and are left out. The colour is the palette's at the return's normalized\n"
    "intensity, scaled for display by the map's intensityAt95 and gamma; the map is built unless\n"
    "--map loads one. The points are written as they are decoded: memory does not grow with the scan.",
    kOptions,
    kPositional,
    1,
    RunExportChecked,
};

}  // namespace kvrscan
