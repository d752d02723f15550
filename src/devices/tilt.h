#pragma once

#include "kvr_decode/device_data.h"

namespace kvr::devices {

// Tilt angles in degrees of a type 1 reading from raw values 1 to 4 and the
// inclinometer calibration. Unguarded: a zero pga, alpha, scale or determinant,
// or an asin argument beyond 1, gives an infinite or NaN angle. Returns 0.
int ComputeTilt(DeviceRecord1& record, const InclinometerCalibration& calibration);

}  // namespace kvr::devices
