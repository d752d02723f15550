#include "scanmap/scan_line_access.h"

#include <cstdint>
#include <iostream>

#include "fifo/block_reader.h"
#include "fifo/block_layout.h"
#include "optics/conversions.h"
#include "platform/file_system.h"
#include "scanmap/truncation.h"

namespace kvr::scanmap {

namespace {

constexpr std::size_t kSpareShots = 8192;  // a whole block's worth, so appending never reallocates per shot
constexpr double kTwoPi = 6.283185307179586;
constexpr double kRadiansToDegrees = 57.29577951308232;
constexpr std::uint64_t kEncoderMask = 0xFFFFF;

// 32-bit signed arithmetic that wraps instead of overflowing: the line indices
// come from a map that may have been loaded from a damaged file.
std::int32_t Wrap(std::int64_t v) { return static_cast<std::int32_t>(static_cast<std::uint32_t>(v)); }

double ShotTime(const RawShot& shot) { return optics::TimeInSecs(shot.timeInCounts); }

double EncoderDegrees(const RawShot& shot) {
  return static_cast<double>(shot.shotWord & kEncoderMask) * optics::kPanDegreesPerCount;
}

}  // namespace

int FillScanLineCachedBlock(int scanLineIndex, std::FILE** fp, ScanFileMap& map, NmeaTicksManager* ticksManager) {
  const ScanLineEntry& entry = map.scanLines[scanLineIndex];
  const std::int32_t count = entry.shotCount;
  const std::uint32_t first = entry.shotIndexInBlock;
  const std::uint32_t block = entry.blockNumber;
  FifoBlock& cache = map.fifoBlock;
  cache.CycleSyncTimeStamp = 0;
  cache.blockNumber = 0;
  cache.shots.clear();
  if (fp == nullptr || *fp == nullptr) return -1;  // no stream: read as a file that ends at once

  platform::SeekAbsolute(*fp, std::uint64_t{block} * fifo::SIZEOFFIFOBLOCK + map.dataStartOffset);
  const int result = fifo::ReadNextBlock(*fp, map.fileHeader, static_cast<int>(block), cache, ticksManager);
  if (result < 0) return result;

  // The shots still missing after the first block; none when the line's first
  // shot lies beyond what the block holds.
  auto missing = [&] {
    const std::size_t cached = cache.shots.size();
    return cached >= first && static_cast<std::int64_t>(cached - first) < count;
  };
  if (!missing()) return 0;
  FifoBlock next;
  next.shots.reserve(kSpareShots);
  next.flaggedShots.reserve(kSpareShots);
  for (std::uint32_t b = block + 1; missing(); ++b) {
    next.flaggedShots.clear();  // each later block is decoded as into a fresh record
    if (fifo::ReadNextBlock(*fp, map.fileHeader, static_cast<int>(b), next, ticksManager) < 0) {
      std::cout << "break from FillScanLineCachedBlock \n" << std::flush;
      return 0;
    }
    cache.shots.insert(cache.shots.end(), next.shots.begin(), next.shots.end());
  }
  return 0;
}

int ShotsOfScanLine(int scanLineIndex, std::FILE** fp, ScanFileMap& map, std::vector<RawShot>& shots,
                    NmeaTicksManager* ticksManager) {
  if (scanLineIndex < 0) scanLineIndex = 0;
  // With no lines this gives -1, the shots before the first line.
  if (scanLineIndex >= map.numberOfScanLines) scanLineIndex = Wrap(std::int64_t{map.numberOfScanLines} - 1);
  const ScanLineEntry& entry = map.scanLines[scanLineIndex];
  FillScanLineCachedBlock(scanLineIndex, fp, map, ticksManager);

  const std::vector<RawShot>& cache = map.fifoBlock.shots;
  shots.reserve(cache.size() + 1);
  shots.clear();
  // A line yields its own shots and the first shot of the next line.
  const std::uint64_t first = entry.shotIndexInBlock;
  const std::int64_t count = entry.shotCount;
  const std::uint64_t cached = cache.size();
  for (std::uint64_t j = 0; first + j < cached; ++j) {
    shots.push_back(cache[first + j]);
    if (static_cast<std::int64_t>(j) >= count || j + 1 >= cached) break;
  }
  return static_cast<int>(shots.size());
}

int ScanLineAtRelativePosition(double position, const ScanFileMap& map) {
  if (map.numberOfScanLines == 0) return 0;
  return TruncateToInt32(static_cast<double>(Wrap(std::int64_t{map.numberOfScanLines} - 1)) * position);
}

int MeasureScanParameters(std::FILE* fp, ScanFileMap& map) {
  const std::int32_t n = map.numberOfScanLines;
  const std::int32_t quarter = n / 4;
  const std::int32_t threeQuarters = Wrap(3 * std::int64_t{n}) / 4;
  RawFileHeader& header = map.fileHeader;
  std::vector<RawShot> a;
  std::vector<RawShot> b;
  auto fetch = [&](std::int32_t line, std::vector<RawShot>& shots) {
    ShotsOfScanLine(line, &fp, map, shots, nullptr);
  };

  fetch(quarter, a);
  if (a.empty()) return 1;
  fetch(threeQuarters, b);
  if (b.empty()) return 1;
  const double dt = ShotTime(b.back()) - ShotTime(a.front());
  header.lineRate = static_cast<float>(Wrap(std::int64_t{threeQuarters} - quarter + 1) / (2 * dt));

  double a0 = EncoderDegrees(a.front()) * optics::kDegreesToRadians;
  double a1 = EncoderDegrees(b.back()) * optics::kDegreesToRadians;
  if (a0 > a1) {
    // The pan encoder wrapped between the two lines.
    a1 += kTwoPi - a0;
    a0 = 0.0;
  }
  if (a1 > kTwoPi) a1 -= kTwoPi;
  const double angularSpeed = (a1 - a0) * kRadiansToDegrees / dt;
  header.angularSpeed = static_cast<float>(angularSpeed);

  std::vector<RawShot>& p = a;
  std::vector<RawShot>& q = b;
  fetch(1, p);
  fetch(Wrap(std::int64_t{n} - 2), q);
  if (q.empty() || p.empty()) return 1;
  const double dt2 = ShotTime(q.back()) - ShotTime(p.front());
  header.scanStartAngle = static_cast<float>(EncoderDegrees(p.front()));
  header.scanEndAngle = static_cast<float>((dt2 - 1.0) * angularSpeed + static_cast<double>(header.scanStartAngle));

  // Fetched and timed like the others; the times are not used.
  fetch(Wrap(std::int64_t{n} - 20), p);
  fetch(Wrap(std::int64_t{n} - 2), q);
  if (p.empty() || q.empty()) return 1;
  return 0;
}

}  // namespace kvr::scanmap
