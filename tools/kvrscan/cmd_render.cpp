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
constexpr std::uint64_t kMaxPixels = std::uint64_t{1} << 25;  // 192 MiB of pixel sums and counts
constexpr std::uint32_t kPanCounts = 640000;                   // per revolution

// The scan-angle axis of the image: the scan counts the lines cover and the
// step of one row, in scan counts.
struct AngleAxis {
  std::uint32_t minCount = 0;
  std::uint32_t maxCount = 0;
  double shotStep = 1.0;  // mean scan-count step between neighbouring shots of a line
  double lineStep = 0.0;  // mean pan step between neighbouring lines, radians
  double step = 1.0;      // the rows' step
  std::uint32_t rows = 1;

  std::uint32_t rowOf(std::uint32_t count) const {
    // The highest scan angle on top.
    const auto row = static_cast<std::uint32_t>(std::lround((maxCount - count) / step));
    return std::min(row, rows - 1);
  }
};

// A first pass over the lines' shots: the scan counts they cover, the step
// between neighbouring shots of a line, and the pan step from line to line.
AngleAxis MeasureAngles(ScanSource& scan, LineIndexer lines, std::int32_t lineCount, Progress& progress) {
  AngleAxis axis{UINT32_MAX, 0};
  double stepSum = 0.0, panSum = 0.0;
  std::uint64_t steps = 0, panSteps = 0;
  std::int32_t lastLine = -1;
  std::uint32_t lastCount = 0, lastLinePan = 0;
  BlockWalk walk(scan, nullptr, &progress);
  while (walk.next()) {
    const FifoBlock& block = walk.block();
    for (std::size_t i = 0; i < block.shots.size(); ++i) {
      const std::int32_t line = lines.lineOf(walk.blockNumber(), static_cast<std::uint32_t>(i));
      if (line < 0 || line >= lineCount) continue;
      const std::uint32_t count = block.shots[i].scanAngleCounts;
      axis.minCount = std::min(axis.minCount, count);
      axis.maxCount = std::max(axis.maxCount, count);
      if (line == lastLine) {
        if (count != lastCount) {
          stepSum += std::abs(static_cast<double>(count) - static_cast<double>(lastCount));
          ++steps;
        }
      } else {
        const auto pan = static_cast<std::uint32_t>(block.shots[i].shotWord & 0xFFFFF);
        if (lastLine >= 0) {
          const std::uint32_t forward = (pan + kPanCounts - lastLinePan % kPanCounts) % kPanCounts;
          panSum += std::min(forward, kPanCounts - forward);
          ++panSteps;
        }
        lastLinePan = pan;
      }
      lastLine = line;
      lastCount = count;
    }
  }
  if (axis.minCount > axis.maxCount) axis.minCount = axis.maxCount = 0;
  axis.shotStep = steps > 0 ? std::max(1.0, stepSum / static_cast<double>(steps)) : 1.0;
  axis.lineStep = panSteps > 0 ? CalculatePanAngle(1) * panSum / static_cast<double>(panSteps) : 0.0;
  return axis;
}

// The row step: the scan's angular resolution, whichever is coarser of the step
// between the shots of a line and the pan step between lines, so that pixels
// are square and the image keeps the scene's proportions; or, asked for, the
// shot step alone.
void ChooseRows(AngleAxis& axis, std::uint64_t signature, bool shotRows) {
  axis.step = axis.shotStep;
  if (!shotRows && axis.lineStep > 0.0) {
    const double radiansPerCount = std::abs(CalculateScanAngle(1, signature) - CalculateScanAngle(0, signature));
    if (radiansPerCount > 0.0) axis.step = std::max(axis.shotStep, axis.lineStep / radiansPerCount);
  }
  axis.rows = static_cast<std::uint32_t>(std::floor((axis.maxCount - axis.minCount) / axis.step)) + 1;
}

struct RenderOptions {
  std::string scan;
  std::optional<std::string> output, map, palette;
  bool shotRows = false;
  bool json = false;
};

int RunRender(const RenderOptions& args, Context& context) {
  if (!args.output) throw UsageError("missing -o OUT.png");
  const std::string output = *args.output;
  const std::string paletteName = args.palette.value_or("grey");
  const Palette* palette = FindPalette(paletteName);
  if (palette == nullptr) throw UsageError("no palette named '" + paletteName + "' (grey, viridis)");

  ScanSource scan(args.scan);
  MapSource source(scan, args.map, context.showProgress);
  const std::int32_t width = source.map().numberOfScanLines;
  if (width <= 0) throw FileError(scan.path(), "has no scan lines: nothing to draw");

  Progress progress("render " + scan.path(), context.showProgress);
  const std::uint64_t signature = ScanSignature(scan.header());
  AngleAxis axis = MeasureAngles(scan, source.lineIndexer(), width, progress);
  ChooseRows(axis, signature, args.shotRows);
  if (static_cast<std::uint64_t>(width) * axis.rows > kMaxPixels) {
    throw FileError(scan.path(), Format("the panorama would be %d x %u pixels, more than this tool draws%s", width,
                                        axis.rows, ""));
  }

  // Each pixel averages the display levels of the shots that fall on it: the
  // shots of a line that share a row.
  const std::size_t pixelCount = static_cast<std::size_t>(width) * axis.rows;
  std::vector<std::uint32_t> levelSum(pixelCount, 0);
  std::vector<std::uint16_t> shotCount(pixelCount, 0);
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
      const std::size_t pixel = static_cast<std::size_t>(axis.rowOf(shot.scanAngleCounts)) * width + line;
      if (shotCount[pixel] == UINT16_MAX) continue;
      levelSum[pixel] += static_cast<std::uint32_t>(scale.level(normalize(range, shot.returns[0] >> 20)));
      ++shotCount[pixel];
      ++drawn;
    }
  }
  progress.finish();

  // Colour-map indices: 0 where no shot has a first return in range, else 1 + the level.
  std::vector<std::uint8_t> pixels(pixelCount, 0);
  std::uint64_t filled = 0;
  for (std::size_t p = 0; p < pixelCount; ++p) {
    if (shotCount[p] == 0) continue;
    pixels[p] = static_cast<std::uint8_t>(1 + (levelSum[p] + shotCount[p] / 2) / shotCount[p]);
    ++filled;
  }
  std::vector<Rgb> colourMap(kTopLevel + 2);
  colourMap[0] = Rgb{0, 0, 0};
  for (int level = 0; level <= kTopLevel; ++level) colourMap[1 + level] = palette->colourOfLevel(level);
  WriteIndexedPng(output, static_cast<std::uint32_t>(width), axis.rows, pixels, colourMap);
  std::error_code ec;
  const std::uintmax_t bytes = std::filesystem::file_size(output, ec);

  const double top = CalculateScanAngle(axis.maxCount, signature) * kDegreesPerRadian;
  const double bottom = CalculateScanAngle(axis.minCount, signature) * kDegreesPerRadian;
  if (context.json) {
    JsonWriter json;
    json.beginObject().field("filename", scan.path()).field("output", output).field("palette", palette->name());
    json.field("width", width).field("height", axis.rows).field("scan_count_min", axis.minCount);
    json.field("scan_count_max", axis.maxCount).field("scan_count_step", axis.step).field("shot_rows", args.shotRows);
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
