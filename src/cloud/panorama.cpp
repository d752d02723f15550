#include "kvr_decode/cloud/panorama.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>

#include <png.h>

#include "file_access.h"
#include "fifo/block_format.h"
#include "kvr_decode/cloud/error.h"
#include "kvr_decode/fifo_block.h"
#include "kvr_decode/file_header.h"
#include "optics/conversions.h"
#include "scanmap/line_starts.h"

namespace kvr::cloud {

namespace {

constexpr std::uint32_t kPanCounts = optics::kPanCountsPerTurn;

}  // namespace

std::uint32_t PanoramaAxis::rowOf(std::uint32_t count) const {
  const auto row = static_cast<std::uint32_t>(std::lround((maxCount - count) / step));
  return std::min(row, rows - 1);
}

PanoramaAxis MeasurePanorama(const Scan& scan, bool shotRows, ReadTally& tally, const ProgressCallback& progress) {
  const scanmap::LineStarts lines(scan.map());
  const std::int32_t lineCount = scan.lineCount();
  PanoramaAxis axis{UINT32_MAX, 0};
  double stepSum = 0.0, panSum = 0.0;
  std::uint64_t steps = 0, panSteps = 0;
  std::int32_t lastLine = -1;
  std::uint32_t lastCount = 0, lastLinePan = 0;

  const FilePtr in(OpenForReading(scan.path()));
  if (!in || !SeekTo(in.get(), scan.header().dataOffset)) throw InputError(scan.path(), "cannot open");
  std::FILE* stream = in.get();
  RawFileHeader header;
  header.prf = scan.header().prf;
  FifoBlock block;
  block.shots.reserve(8192);
  std::vector<std::int32_t> shotLines;
  const std::uint64_t blocks = scan.blockCount();
  for (std::uint64_t b = 0; b < blocks; ++b) {
    const int result = DecodeNextFifoBlock(&stream, header, static_cast<int>(b), block, nullptr);
    block.flaggedShots.clear();
    if (result == -1) {
      tally.cutShort = true;
      break;
    }
    ++tally.blocks;
    if (progress) progress(b + 1, blocks);
    if (result == -2) {
      if (tally.badBlocks++ == 0) tally.firstBadBlock = b;
      continue;
    }
    tally.shots += block.shots.size();
    shotLines.resize(block.shots.size());
    lines.LinesOf(static_cast<std::uint32_t>(b), shotLines);
    for (std::size_t i = 0; i < block.shots.size(); ++i) {
      const std::int32_t line = shotLines[i];
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
        const std::uint32_t pan = fifo::PanCounts(block.shots[i].shotWord);
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
  ReleaseFileHeader(header);
  if (axis.minCount > axis.maxCount) axis.minCount = axis.maxCount = 0;
  axis.shotStep = steps > 0 ? std::max(1.0, stepSum / static_cast<double>(steps)) : 1.0;
  axis.lineStep = panSteps > 0 ? optics::PanAngle(1) * panSum / static_cast<double>(panSteps) : 0.0;

  axis.step = axis.shotStep;
  if (!shotRows && axis.lineStep > 0.0) {
    const std::uint64_t signature = scan.signature();
    const double radiansPerCount = std::abs(optics::ScanAngle(1, signature) - optics::ScanAngle(0, signature));
    if (radiansPerCount > 0.0) axis.step = std::max(axis.shotStep, axis.lineStep / radiansPerCount);
  }
  axis.rows = static_cast<std::uint32_t>(std::floor((axis.maxCount - axis.minCount) / axis.step)) + 1;
  return axis;
}

PanoramaWriter::PanoramaWriter(const std::filesystem::path& path, std::int32_t lines, const PanoramaAxis& axis,
                               const Palette& palette, double intensityAt95, double gamma)
    : path_(path), width_(std::max(lines, 0)), axis_(axis), palette_(palette), scale_(intensityAt95, gamma) {
  const std::uint64_t pixels = static_cast<std::uint64_t>(width_) * axis.rows;
  if (pixels > kMaxPanoramaPixels) {
    throw OutputError(path, "the panorama would be " + std::to_string(width_) + " x " + std::to_string(axis.rows) +
                                " pixels, more than this layer draws");
  }
  levelSum_.assign(pixels, 0);
  shotCount_.assign(pixels, 0);
}

PanoramaWriter::~PanoramaWriter() = default;

void PanoramaWriter::write(const PointBatch& batch) {
  const auto lines = batch.line();
  const auto counts = batch.scanCounts();
  const auto values = batch.normalizedIntensity();
  const auto numbers = batch.returnNumber();
  for (std::size_t i = 0; i < batch.size(); ++i) {
    if (numbers[i] != 1 || lines[i] < 0 || lines[i] >= width_) continue;
    const std::size_t pixel = static_cast<std::size_t>(axis_.rowOf(counts[i])) * static_cast<std::size_t>(width_) +
                              static_cast<std::size_t>(lines[i]);
    if (shotCount_[pixel] == UINT16_MAX) continue;
    levelSum_[pixel] += static_cast<std::uint32_t>(scale_.level(values[i]));
    ++shotCount_[pixel];
    ++drawn_;
  }
}

void PanoramaWriter::finish() {
  if (levelSum_.empty()) throw OutputError(path_, "nothing to draw: the image would be empty");
  // Colour-map indices: 0 where no shot has a first return in range, else 1 + the level.
  std::vector<std::uint8_t> pixels(levelSum_.size(), 0);
  filled_ = 0;
  for (std::size_t p = 0; p < pixels.size(); ++p) {
    if (shotCount_[p] == 0) continue;
    pixels[p] = static_cast<std::uint8_t>(1 + (levelSum_[p] + shotCount_[p] / 2) / shotCount_[p]);
    ++filled_;
  }
  std::vector<png_byte> map = {0, 0, 0};
  for (int level = 0; level <= kTopLevel; ++level) {
    const Rgb c = palette_.colourOfLevel(level);
    map.insert(map.end(), {c.r, c.g, c.b});
  }
  std::unique_ptr<OutputFile> made;
  try {
    made = std::make_unique<OutputFile>(path_);
  } catch (const OutputError& error) {
    // "cannot create (reason)": said as every failure of the image is.
    const std::string& reason = error.reason();
    throw OutputError(path_, "cannot write the image " + reason.substr(std::min(reason.find('('), reason.size())));
  }
  OutputFile& out = *made;
  // libpng's simplified interface: no setjmp, errors come back in image.message.
  png_image image;
  std::memset(&image, 0, sizeof image);
  image.version = PNG_IMAGE_VERSION;
  image.width = static_cast<png_uint_32>(width_);
  image.height = axis_.rows;
  image.format = PNG_FORMAT_RGB_COLORMAP;
  image.colormap_entries = static_cast<png_uint_32>(map.size() / 3);
  errno = 0;
  if (png_image_write_to_stdio(&image, out.stream(), 0, pixels.data(), 0, map.data()) == 0) {
    const std::string reason = errno != 0 ? std::strerror(errno) : image.message;
    png_image_free(&image);
    throw OutputError(path_, "cannot write the image (" + reason + ")");
  }
  out.commit();
}

}  // namespace kvr::cloud
