#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "kvr_decode/cloud/export.h"

namespace kvr::cloud {

// The columns of a PointBatch a reader fills (bits); a writer that needs a few
// of them spares the reader the rest. Columns not asked for hold nothing of use.
enum Column : std::uint32_t {
  kPositionColumns = 1u << 0,   // x, y, z
  kRangeColumn = 1u << 1,
  kAngleColumns = 1u << 2,      // pan, scanAngle
  kIntensityColumn = 1u << 3,
  kNormalizedColumn = 1u << 4,
  kReturnColumns = 1u << 5,     // returnNumber, numberOfReturns
  kLineColumn = 1u << 6,
  kShotIndexColumn = 1u << 7,
  kTimeColumn = 1u << 8,
  kFlagColumn = 1u << 9,
  kCountColumns = 1u << 10,     // panCounts, scanCounts, flightCounts
  kAllColumns = (1u << 11) - 1,
};

// The points of one block (or of a run of its shots, see
// PointReader::setBatchShots), column by column: entry i of every column
// belongs to point i. A batch is reused from block to block; its columns only
// grow, so once it has held the fullest block nothing is allocated.
//
// Positions are in the scanner's own frame, metres: x = r cos(scan) cos(pan),
// y = r cos(scan) sin(pan), z = r sin(scan), with r = range (the decoder's range
// of the return plus the calibration's range offset) and pan, scan the
// decoder's angles of the shot's encoder counts. Sines and cosines come from
// tables of the decoder's angles and may differ from std::sin and std::cos in
// the last bits of a double.
class KVR_CLOUD_API PointBatch {
 public:
  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  std::uint32_t block() const { return block_; }  // the block the points come from
  // Time of week (a tick file was given) or seconds since the scanner's tick
  // counter started (none was).
  bool timeOfWeek() const { return timeOfWeek_; }

  std::span<const double> x() const { return {x_.data(), size_}; }
  std::span<const double> y() const { return {y_.data(), size_}; }
  std::span<const double> z() const { return {z_.data(), size_}; }
  std::span<const double> range() const { return {range_.data(), size_}; }        // metres, offset included
  std::span<const double> pan() const { return {pan_.data(), size_}; }            // radians
  std::span<const double> scanAngle() const { return {scanAngle_.data(), size_}; }  // radians
  std::span<const std::uint16_t> intensity() const { return {intensity_.data(), size_}; }  // raw, 12 bits
  // The map's normalized intensity of the return (0 for a zero range).
  std::span<const double> normalizedIntensity() const { return {normalized_.data(), size_}; }
  std::span<const std::uint8_t> returnNumber() const { return {returnNumber_.data(), size_}; }  // 1: first
  std::span<const std::uint8_t> numberOfReturns() const { return {returnCount_.data(), size_}; }
  // Scan line of the map; -1 for shots before the first line.
  std::span<const std::int32_t> line() const { return {line_.data(), size_}; }
  // The shot's index in the file: shots counted from the first block's first
  // by the blocks' headers (a block with a bad signature counts none).
  std::span<const std::uint64_t> shotIndex() const { return {shotIndex_.data(), size_}; }
  // Seconds (see timeOfWeek()); -1 when the tick file does not cover the block:
  // the time is unknown.
  std::span<const double> time() const { return {time_.data(), size_}; }
  // The shot word's four flag bits (bits 57-60 of the shot word, as bits 0-3).
  std::span<const std::uint8_t> flags() const { return {flags_.data(), size_}; }
  // The counts the angles and the range are made from: the shot's pan and scan
  // encoder counts, and the return's stop count less its shot's start count.
  std::span<const std::uint32_t> panCounts() const { return {panCounts_.data(), size_}; }
  std::span<const std::uint32_t> scanCounts() const { return {scanCounts_.data(), size_}; }
  std::span<const std::uint32_t> flightCounts() const { return {flightCounts_.data(), size_}; }

 private:
  friend class PointReader;
  void reserve(std::size_t points);

  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
  std::uint32_t block_ = 0;
  bool timeOfWeek_ = false;
  std::vector<double> x_, y_, z_, range_, pan_, scanAngle_, normalized_, time_;
  std::vector<std::uint16_t> intensity_;
  std::vector<std::uint8_t> returnNumber_, returnCount_, flags_;
  std::vector<std::int32_t> line_;
  std::vector<std::uint64_t> shotIndex_;
  std::vector<std::uint32_t> panCounts_, scanCounts_, flightCounts_;
};

}  // namespace kvr::cloud
