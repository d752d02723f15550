#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <vector>

#include "kvr_decode/cloud/display_scale.h"
#include "kvr_decode/cloud/export.h"
#include "kvr_decode/cloud/palette.h"
#include "kvr_decode/cloud/point_batch.h"
#include "kvr_decode/cloud/point_reader.h"
#include "kvr_decode/cloud/scan.h"

namespace kvr::cloud {

// Called with the blocks done and the blocks in all.
using ProgressCallback = std::function<void(std::uint64_t done, std::uint64_t total)>;

// The scan-angle axis of a panorama: the scan counts the lines cover and the
// step of one row, in scan counts.
struct KVR_CLOUD_API PanoramaAxis {
  std::uint32_t minCount = 0;
  std::uint32_t maxCount = 0;
  double shotStep = 1.0;  // mean scan-count step between neighbouring shots of a line
  double lineStep = 0.0;  // mean pan step between neighbouring lines, radians
  double step = 1.0;      // the rows' step
  std::uint32_t rows = 1;

  std::uint32_t rowOf(std::uint32_t count) const;  // the highest scan angle on top
};

// A pass over the shots of the map's lines: the scan counts they cover, the step
// between neighbouring shots of a line, and the pan step from line to line. The
// row step is the scan's angular resolution, whichever is coarser of the two
// steps, so that pixels are square; with shotRows, the shot step alone.
KVR_CLOUD_API PanoramaAxis MeasurePanorama(const Scan& scan, bool shotRows, ReadTally& tally,
                                           const ProgressCallback& progress = {});

// The intensity panorama of a scan as an 8-bit colour-mapped PNG: one column per
// scan line, one row per step of the axis. Each pixel averages the display
// levels of the first returns that fall on it (read them with
// Selection::SampleRule() and Returns::kFirst); pixels without one stay black.
// Written like every output: under a temporary name, then renamed.
class KVR_CLOUD_API PanoramaWriter {
 public:
  PanoramaWriter(const std::filesystem::path& path, std::int32_t lines, const PanoramaAxis& axis,
                 const Palette& palette, double intensityAt95, double gamma);
  ~PanoramaWriter();
  PanoramaWriter(const PanoramaWriter&) = delete;
  PanoramaWriter& operator=(const PanoramaWriter&) = delete;

  void write(const PointBatch& batch);
  void finish();

  // The columns of the batches it reads (see Column).
  static constexpr std::uint32_t kColumns = kNormalizedColumn | kReturnColumns | kLineColumn | kCountColumns;

  std::uint64_t drawn() const { return drawn_; }    // shots that fell on a pixel
  std::uint64_t filled() const { return filled_; }  // pixels with at least one
  std::uint64_t pixels() const { return levelSum_.size(); }
  const DisplayScale& scale() const { return scale_; }

 private:
  std::filesystem::path path_;
  std::int32_t width_;
  PanoramaAxis axis_;
  const Palette& palette_;
  DisplayScale scale_;
  std::vector<std::uint32_t> levelSum_;
  std::vector<std::uint16_t> shotCount_;
  std::uint64_t drawn_ = 0, filled_ = 0;
};

// Most pixels a panorama may have (their sums and counts take 6 bytes each).
inline constexpr std::uint64_t kMaxPanoramaPixels = std::uint64_t{1} << 25;

}  // namespace kvr::cloud
