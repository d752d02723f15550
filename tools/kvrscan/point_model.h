#pragma once

#include <cstdint>

#include "kvr_decode/cloud/count_trig.h"

namespace kvrscan {

// Points in the scanner's own frame, shot by shot: x = r cos(scan) cos(pan),
// y = r cos(scan) sin(pan), z = r sin(scan), r = range + range offset; pan and
// scan are the library's angles of the shot's encoder counts (the scan angle as
// the file's scanner model defines it). The point layer's readers place points
// the same way, a block at a time.
class PointGeometry {
 public:
  PointGeometry(std::uint64_t signature, double rangeOffset);

  void aim(std::uint32_t panCount, std::uint32_t scanCount) {
    if (panCount != panCount_) {  // the head turns slower than the mirror
      pan_(panCount, cosPan_, sinPan_);
      panCount_ = panCount;
    }
    scan_(scanCount, cosScan_, sinScan_);
  }

  template <typename T>
  void place(double range, T& x, T& y, T& z) const {
    const double r = range + rangeOffset_;
    const double horizontal = r * cosScan_;
    x = static_cast<T>(horizontal * cosPan_);
    y = static_cast<T>(horizontal * sinPan_);
    z = static_cast<T>(r * sinScan_);
  }

 private:
  double rangeOffset_;
  kvr::cloud::CountTrig<20> pan_;   // pan encoder counts
  kvr::cloud::CountTrig<18> scan_;  // scan encoder counts
  std::uint32_t panCount_ = 0;
  double cosPan_ = 1.0, sinPan_ = 0.0, cosScan_ = 1.0, sinScan_ = 0.0;
};

}  // namespace kvrscan
