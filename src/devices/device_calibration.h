#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <string_view>

#include "devices/device_layout.h"
#include "kvr_decode/device_data.h"

// The two calibration texts of a device data file: lines of "key value" pairs.
namespace kvr::devices {

// The most of a calibration block that is kept; the rest of a longer block is
// read and dropped, so the stream still ends up after the block.
using device_layout::kCalibrationTextCapacity;

// Key to value table of a calibration text. Each line is split at '=', blanks
// and tabs; a line with at least two tokens maps its first token to atof of its
// second; later lines overwrite earlier ones. A last line without a line feed
// counts too.
std::map<std::string, double> ParseCalibrationText(std::string_view text);

// value + 0.5 truncated toward zero (round half up for positive values). Values no
// 32-bit integer can hold, and NaN, give INT32_MIN, the processor's "integer
// indefinite", instead of undefined behaviour.
std::int32_t RoundHalfUp(double value);

// Read a block of byteCount bytes, used up to its first zero byte, and fill every
// member from its key; a missing key gives 0. Return 0.
int DecodeInclinometerCalibration(std::FILE* file, InclinometerCalibration& calibration, std::uint32_t byteCount);
int DecodeCompassCalibration(std::FILE* file, CompassCalibration& calibration, std::uint32_t byteCount);

}  // namespace kvr::devices
