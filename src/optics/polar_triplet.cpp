#include "optics/polar_triplet.h"

#include <cstdint>

#include "optics/conversions.h"

namespace kvr::optics {
namespace {

constexpr std::uint64_t kPanCountMask = 0xFFFFF;  // shot word bits 0-19
constexpr unsigned kT0Shift = 41;                   // shot word bits 41-56
constexpr std::uint64_t kT0Mask = 0xFFFF;
constexpr std::uint32_t kReturnTimeMask = 0xFFFFF;  // return word bits 0-19

}  // namespace

int PolarTriplet(const RawShot& shot, int returnIndex, double& pan, double& scan, double& range) {
  pan = PanAngle(static_cast<std::uint32_t>(shot.shotWord & kPanCountMask));
  // No signature reaches this function, so every file gets the 90-degree scanner's angles.
  scan = ScanAngle(shot.scanAngleCounts, kSignatureKvrScan);
  // Widened with its sign and compared unsigned: a negative index is out of range too.
  const auto index = static_cast<std::uint64_t>(static_cast<std::int64_t>(returnIndex));
  if (index >= shot.returns.size()) return -1;
  range = Range(shot.returns[index] & kReturnTimeMask,
                static_cast<unsigned int>((shot.shotWord >> kT0Shift) & kT0Mask));
  return range < 0.0 ? -1 : 0;
}

}  // namespace kvr::optics
