#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kvr_decode/cloud/export.h"
#include "kvr_decode/cloud/point_writer.h"
#include "kvr_decode/cloud/scan.h"

namespace kvr::cloud {

class LasRecords;

// What a LAS file says about the scan beside its points.
struct KVR_CLOUD_API LasOptions {
  bool colour = false;          // point format 7 with the palette's colours; else 6
  std::uint16_t sourceId = 0;   // file and point source ID
  std::uint64_t signature = 0;  // the scan's magic: which scan angle conversion the counts take
  double rangeOffset = 0.0;     // metres added to every range
  std::string systemIdentifier = "EXTRACTION";
  std::string generatingSoftware;  // empty: this library and its version
  // File creation day of year (1 = January 1st) and year; unset: today, UTC.
  std::optional<std::array<std::uint16_t, 2>> creationDay;

  // The options for a scan's points: its id value's low 16 bits as source ID,
  // its magic and its calibration's range offset.
  static LasOptions Of(const Scan& scan, bool colour);
};

// LAS 1.4, point format 6 (7 with colour), uncompressed. Positions are in the
// scanner frame (PointBatch), stored to 0.1 mm with the scanner at the origin;
// the counts by return and the bounds (of the stored positions, so every point
// read back lies inside them) are written into the header at the end. Each
// point carries 32 extra bytes, described by an Extra Bytes record: Range, Pan
// and ScanAngle as the recorded counts with their conversion as scale and
// offset, Line, ShotIndex and NormalizedIntensity as they are. GpsTime holds
// the time of week when the batches carry one, else 0.
class KVR_CLOUD_API LasWriter final : public PointWriter {
 public:
  LasWriter(const std::filesystem::path& path, const LasOptions& options, const Colouring& colouring);
  ~LasWriter() override;

  // The columns of the batches it reads (see Column).
  static constexpr std::uint32_t kColumns = kPositionColumns | kIntensityColumn | kNormalizedColumn |
                                            kReturnColumns | kLineColumn | kShotIndexColumn | kTimeColumn |
                                            kCountColumns;

 private:
  void encode(const PointBatch& batch) override;
  void complete() override;

  std::unique_ptr<LasRecords> records_;
};

}  // namespace kvr::cloud
