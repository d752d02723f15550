#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "kvr_decode/cloud/export.h"
#include "kvr_decode/raw_file_header.h"
#include "kvr_decode/scan_file_map.h"

namespace kvr::cloud {

// The bytes of one FIFO block, as the scan file lays them out.
KVR_CLOUD_API std::uint64_t BlockSize();

// How a scan is opened: where its map comes from and which tick file times it.
struct ScanOptions {
  // A map file saved for this scan; without it the map is built from the scan
  // (two passes over the file) the first time it is needed.
  std::optional<std::filesystem::path> map;
  // A tick file ("Serial.dat"): points then carry GNSS times of week.
  std::optional<std::filesystem::path> ticks;
  int timeOffset = 0;  // seconds added to every time of week
};

// A raw scan file: its header (with the calibration values and the side table),
// its map, its tick file. Opening reads and checks the header and the tick file;
// the map comes when first asked for. A refused file throws an Error whose
// message says what is wrong with it. Readers of points (PointReader) open
// streams of their own, so one Scan serves readers on several threads.
class KVR_CLOUD_API Scan {
 public:
  explicit Scan(const std::filesystem::path& path, const ScanOptions& options = {});
  ~Scan();
  Scan(const Scan&) = delete;
  Scan& operator=(const Scan&) = delete;

  const std::filesystem::path& path() const;
  const RawFileHeader& header() const;
  std::uint64_t signature() const;  // the magic as the conversions take it
  std::uint64_t fileSize() const;

  // Whole blocks after the data offset, and the bytes of a cut-off block after them.
  std::uint64_t blockCount() const;
  std::uint64_t trailingBytes() const;
  // The header block's length from its text lengths.
  std::uint64_t headerBlockSize() const;

  // The calibration's range offset (GetCalibrationParameters), added to every
  // range to place a point; and the one the map's sample rule adds (the
  // calibration value "rangeOffset" as written, 0 without one).
  double rangeOffset() const;
  double sampleRangeOffset() const;

  // The map, built or loaded on first use; thread-safe. InputError when the map
  // file is not this scan's or cannot be read, when the scan cannot be mapped.
  const ScanFileMap& map() const;
  // The same for the decoder's functions that take the record to change it
  // (saving a map, fetching a line into its shot cache).
  ScanFileMap& map() { return const_cast<ScanFileMap&>(std::as_const(*this).map()); }
  bool mapLoaded() const;         // from a map file rather than built
  double mapSeconds() const;      // what building or loading took
  std::int32_t lineCount() const;  // the map's lines (0 when it has none)

  const std::optional<std::filesystem::path>& tickFile() const;
  int timeOffset() const;

  // The index in the file of the first shot of each block, for readers that
  // start anywhere: counted from the block headers (a block with a bad
  // signature holds none), read once, on first use.
  std::uint64_t firstShotOfBlock(std::uint64_t block) const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// The wide name the decoder's functions take for a path (UTF-8 on POSIX).
// InputError for a name that is not valid UTF-8.
KVR_CLOUD_API std::wstring WideName(const std::filesystem::path& path);

// The size of a regular file that can be read; otherwise MissingFileError or
// InputError naming the reason.
KVR_CLOUD_API std::uint64_t ReadableFileSize(const std::filesystem::path& path);

// Input bytes as printable text: printable ASCII as it is, the rest as \xNN.
KVR_CLOUD_API std::string PrintableBytes(std::string_view bytes);

}  // namespace kvr::cloud
