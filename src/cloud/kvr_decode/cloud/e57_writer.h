#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "kvr_decode/cloud/export.h"
#include "kvr_decode/cloud/point_batch.h"
#include "kvr_decode/cloud/point_writer.h"
#include "kvr_decode/cloud/scan.h"

namespace kvr::cloud {

// What an E57 file says about one scan beside its points.
struct KVR_CLOUD_API E57ScanInfo {
  std::string name;         // the scan file's name
  std::string description;
  std::string guid;         // empty: a new random one
  std::string sensorModel, sensorSerialNumber, sensorFirmwareVersion;  // empty: left out
  // Pose in the file's frame: rotation quaternion w, x, y, z, then translation x, y, z (metres).
  std::array<double, 7> pose = {1.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0};
  // The largest range (and coordinate) a point may have, metres: the stored
  // limits, so the bits each value takes. Points beyond it fail the write.
  double reach = 1000.0;
  std::uint32_t maxReturns = 4;  // returns a shot may have
  // The file's shot index of each line's first shot (index: the line); shots
  // before the first line count from shot 0.
  std::vector<std::uint64_t> lineStarts;
  std::uint32_t maxShotsPerLine = 1;  // including the shots before the first line
  // GPS week of the times of week, for the acquisition start and end; without
  // it they are left out.
  std::optional<std::uint32_t> gpsWeek;

  // A new GUID, and the scan's name, sensor texts, lines, returns and reach from its header and map.
  static E57ScanInfo Of(const Scan& scan);
};

// An image taken with a scan: PNG or JPEG bytes.
struct KVR_CLOUD_API E57Image {
  std::string name;
  std::vector<std::uint8_t> bytes;
  std::optional<double> gpsTime;  // acquisition time, GPS seconds since 1980-01-06
};

// The image kind of some bytes by their signature: "png", "jpeg", or "" for neither.
KVR_CLOUD_API const char* ImageKindOf(std::span<const std::uint8_t> bytes);
// A netpbm image (binary P5 grey or P6 colour, maxval up to 255) encoded as
// PNG; nothing for anything else.
KVR_CLOUD_API std::optional<std::vector<std::uint8_t>> NetpbmAsPng(std::span<const std::uint8_t> bytes);

// An E57 file of one or several scans, streamed: each scan's points go into a
// compressed vector as they come (data packets of at most 64 KiB, one
// bit-packed bytestream a field), images into blobs as they are added; the
// XML section is written at the end and the file header patched. Only the
// scans' and images' descriptions and one group a line wait in memory. Written
// under a temporary name beside the target like every output of the layer
// (see OutputFile): OutputError names the file and the reason.
//
// Each point holds cartesianX/Y/Z (0.1 mm, the scanner frame of PointBatch),
// cartesianInvalidState, sphericalRange (0.1 mm), sphericalAzimuth and
// sphericalElevation (radians, the format's ranges), intensity (raw, 12 bits),
// rowIndex (the shot within its line), columnIndex (the line; -1 before the
// first), returnIndex (0: first), returnCount, timeStamp (the batch's time) and
// isTimeStampInvalid (set unless the time is a known time of week).
class KVR_CLOUD_API E57Writer {
 public:
  explicit E57Writer(const std::filesystem::path& path);
  ~E57Writer();
  E57Writer(const E57Writer&) = delete;
  E57Writer& operator=(const E57Writer&) = delete;

  // The columns of the batches it reads (see Column).
  static constexpr std::uint32_t kColumns = kPositionColumns | kRangeColumn | kAngleColumns | kIntensityColumn |
                                            kReturnColumns | kLineColumn | kShotIndexColumn | kTimeColumn;

  void beginScan(const E57ScanInfo& info);
  void write(const PointBatch& batch);  // the points of the scan begun, in file order
  void endScan();
  // An image of the scan last ended, added before the next is begun. Its
  // bytes are written at once.
  void addImage(const E57Image& image);
  // Ends a scan still open, writes the XML and the header, renames the file.
  void finish();

  std::uint64_t count() const;  // points of the scan begun
  std::uint64_t totalCount() const;
  const std::filesystem::path& path() const;

 private:
  friend class E57PointWriter;
  // Writes into `out`, which the caller commits.
  E57Writer(const std::filesystem::path& path, OutputFile& out);

  struct State;
  std::unique_ptr<State> state_;
};

// An E57Writer as a PointWriter, for the exports that stream into one: the
// scan given is begun at once; more scans and images go through file()
// between the runs of points.
class KVR_CLOUD_API E57PointWriter final : public PointWriter {
 public:
  E57PointWriter(const std::filesystem::path& path, const E57ScanInfo& info);
  ~E57PointWriter() override;

  E57Writer& file() { return *writer_; }

 private:
  void encode(const PointBatch& batch) override;
  void complete() override;
  std::unique_ptr<E57Writer> writer_;
};

}  // namespace kvr::cloud
