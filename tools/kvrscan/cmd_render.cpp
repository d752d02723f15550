// render SCAN -o OUT.png: the intensity panorama of a scan, one column per scan
// line and one row per scan-angle step.

#include <algorithm>
#include <cmath>
#include <filesystem>

#include "block_walk.h"
#include "commands.h"
#include "console.h"
#include "errors.h"
#include "json_writer.h"
#include "kvr_decode/conversions.h"
#include "map_source.h"
#include "png_image.h"

namespace kvrscan {

namespace {

constexpr double kDegreesPerRadian = 57.29577951308232;
constexpr std::uint64_t kMaxPixels = std::uint64_t{1} << 28;  // 256 MiB of pixels, one byte each

// The scan-angle axis of the image: the scan counts the lines cover and the
// mean step between neighbouring shots of a line.
struct AngleAxis {
  std::uint32_t minCount = 0;
  std::uint32_t maxCount = 0;
  double step = 1.0;
  std::uint32_t rows = 1;

  std::uint32_t rowOf(std::uint32_t count) const {
    // The highest scan angle on top.
    const auto row = static_cast<std::uint32_t>(std::lround((maxCount - count) / step));
    return std::min(row, rows - 1);
  }
};

AngleAxis MeasureAngles(ScanSource& scan, LineIndexer lines, std::int32_t lineCount, Progress& progress) {
  AngleAxis axis{UINT32_MAX, 0, 1.0, 1};
  double stepSum = 0.0;
  std::uint64_t steps = 0;
  std::int32_t lastLine = -1;
  std::uint32_t lastCount = 0;
  BlockWalk walk(scan, nullptr, &progress);
  while (walk.next()) {
    const FifoBlock& block = walk.block();
    for (std::size_t i = 0; i < block.shots.size(); ++i) {
      const std::int32_t line = lines.lineOf(walk.blockNumber(), static_cast<std::uint32_t>(i));
      if (line < 0 || line >= lineCount) continue;
      const std::uint32_t count = block.shots[i].scanAngleCounts;
      axis.minCount = std::min(axis.minCount, count);
      axis.maxCount = std::max(axis.maxCount, count);
      if (line == lastLine && count != lastCount) {
        stepSum += std::abs(static_cast<double>(count) - static_cast<double>(lastCount));
        ++steps;
      }
      lastLine = line;
      lastCount = count;
    }
  }
  if (axis.minCount > axis.maxCount) axis.minCount = axis.maxCount = 0;
  axis.step = steps > 0 ? std::max(1.0, stepSum / static_cast<double>(steps)) : 1.0;
  axis.rows = static_cast<std::uint32_t>(std::floor((axis.maxCount - axis.minCount) / axis.step)) + 1;
  return axis;
}

int RunRender(const ParsedArgs& args, Context& context) {
  if (!args.has("output")) throw UsageError("missing -o OUT.png");
  const std::string output = *args.value("output");
  const std::string paletteName = args.value("palette").value_or("grey");
  const Palette* palette = FindPalette(paletteName);
  if (palette == nullptr) throw UsageError("no palette named '" + paletteName + "' (grey, viridis)");

  ScanSource scan(args.positional()[0]);
  MapSource source(scan, args.value("map"), context.showProgress);
  const std::int32_t width = source.map().numberOfScanLines;
  if (width <= 0) throw FileError(scan.path(), "has no scan lines: nothing to draw");

  Progress progress("render " + scan.path(), context.showProgress);
  const AngleAxis axis = MeasureAngles(scan, source.lineIndexer(), width, progress);
  if (static_cast<std::uint64_t>(width) * axis.rows > kMaxPixels) {
    throw FileError(scan.path(), Format("the panorama would be %d x %u pixels, more than this tool draws", width,
                                        axis.rows));
  }

  // Pixel values are colour-map indices: 0 where no line has a first return in
  // range, 1 + the display level elsewhere.
  std::vector<std::uint8_t> pixels(static_cast<std::size_t>(width) * axis.rows, 0);
  const IntensityModel model = source.intensityModel();
  const IntensityNormalizer normalize(model);
  const DisplayScale scale(model.intensityAt95, model.gamma);
  const double r0 = SampleRangeOffset(scan.header());
  LineIndexer lines = source.lineIndexer();
  scan.rewindToData();
  BlockWalk walk(scan, nullptr, &progress);
  std::uint64_t drawn = 0;
  while (walk.next()) {
    const FifoBlock& block = walk.block();
    for (std::size_t i = 0; i < block.shots.size(); ++i) {
      const RawShot& shot = block.shots[i];
      const std::int32_t line = lines.lineOf(walk.blockNumber(), static_cast<std::uint32_t>(i));
      if (line < 0 || line >= width || shot.returns.empty()) continue;
      const std::uint32_t stop = shot.returns[0] & 0xFFFFF;
      const auto t0 = static_cast<std::uint32_t>(shot.shotWord >> 41 & 0xFFFF);
      const double range = CalculateRange(stop, t0);
      if (ClassifyReturn(stop, t0, range, r0) != ReturnClass::kInRange) continue;
      const int level = scale.level(normalize(range, shot.returns[0] >> 20));
      pixels[static_cast<std::size_t>(axis.rowOf(shot.scanAngleCounts)) * width + line] =
          static_cast<std::uint8_t>(1 + level);
      ++drawn;
    }
  }
  progress.finish();

  std::vector<Rgb> colourMap(kTopLevel + 2);
  colourMap[0] = Rgb{0, 0, 0};
  for (int level = 0; level <= kTopLevel; ++level) colourMap[1 + level] = palette->colourOfLevel(level);
  WriteIndexedPng(output, static_cast<std::uint32_t>(width), axis.rows, pixels, colourMap);
  std::error_code ec;
  const std::uintmax_t bytes = std::filesystem::file_size(output, ec);

  const std::uint64_t signature = ScanSignature(scan.header());
  const double top = CalculateScanAngle(axis.maxCount, signature) * kDegreesPerRadian;
  const double bottom = CalculateScanAngle(axis.minCount, signature) * kDegreesPerRadian;
  const std::uint64_t filled =
      static_cast<std::uint64_t>(std::count_if(pixels.begin(), pixels.end(), [](std::uint8_t p) { return p != 0; }));
  if (context.json) {
    JsonWriter json;
    json.beginObject().field("filename", scan.path()).field("output", output).field("palette", palette->name());
    json.field("width", width).field("height", axis.rows).field("scan_count_min", axis.minCount);
    json.field("scan_count_max", axis.maxCount).field("scan_count_step", axis.step);
    json.field("scan_angle_top", top).field("scan_angle_bottom", bottom);
    json.field("shots_drawn", drawn).field("pixels_filled", filled);
    json.field("intensityAt95", scale.intensityAt95()).field("gamma", scale.gamma());
    json.field("output_bytes", static_cast<std::uint64_t>(bytes));
    json.endObject();
    Console::write(json.text());
  } else {
    Console::write(output + Format(": %d x %u panorama (%s), scan angle %.3f deg at the top to %.3f at the bottom, ",
                                   width, axis.rows, std::string(palette->name()).c_str(), top, bottom) +
                   Format("%.1f%% of the pixels filled, ", 100.0 * static_cast<double>(filled) /
                                                             static_cast<double>(pixels.size())) +
                   ByteSize(bytes) + "\n");
  }
  const std::string damage = walk.damage(context.log.grew());
  return damage.empty() ? kExitOk : context.damaged(scan.path() + ": " + damage);
}

constexpr std::string_view kPositional[] = {"SCAN"};

constexpr OptionSpec kOptions[] = {
    {"output", 'o', "OUT.png", "the image to write"},
    kMapOption,
    kPaletteOption,
    kJsonOption,
};

}  // namespace

const Command kRenderCommand{
    "render",
    "SCAN -o OUT.png [--palette NAME] [--map MAPFILE] [--json]",
    "the intensity panorama: one column per scan line, one row per scan-angle step",
    "Each pixel shows the normalized intensity of the first return of the shot that falls on it,\n"
    "scaled for display by the map's intensityAt95 and gamma: level = (v / intensityAt95)^gamma,\n"
    "clipped to 1, through the palette. The highest scan angle is at the top; the row step is the\n"
    "mean scan-count step between neighbouring shots of a line. Pixels without a first return in\n"
    "range (0.1 m to 2040 m) stay black. The map is built unless --map loads one.",
    kOptions,
    kPositional,
    1,
    RunRender,
};

}  // namespace kvrscan
