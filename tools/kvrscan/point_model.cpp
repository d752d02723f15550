#include "point_model.h"

#include "kvr_decode/conversions.h"

namespace kvrscan {

PointGeometry::PointGeometry(std::uint64_t signature, double rangeOffset)
    : rangeOffset_(rangeOffset),
      pan_([](std::uint32_t count) { return CalculatePanAngle(count); }),
      scan_([signature](std::uint32_t count) { return CalculateScanAngle(count, signature); }) {
  pan_(panCount_, cosPan_, sinPan_);
}

}  // namespace kvrscan
