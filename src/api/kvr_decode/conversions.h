#pragma once

#include <cstdint>

#include "kvr_decode/export.h"

// Range in metres from a return's time count (stop) and the shot's T0 count
// (start); -1.0 when stop < start.
KVR_API double CalculateRange(unsigned int stop, unsigned int start);
// Seconds to 20 ns ticks, truncated.
KVR_API unsigned long long CalculateTimeInCounts(double seconds);
// 20 ns ticks to seconds.
KVR_API double CalculateTimeInSecs(unsigned long long ticks);
// Pan encoder count (shot word bits 0-19) to radians.
KVR_API double CalculatePanAngle(std::uint32_t counts);
// Scan encoder count (shot word bits 20-37) to radians for the file's magic
// (ScanSignature of its header); 0.0 for an unknown magic.
KVR_API double CalculateScanAngle(std::uint32_t counts, unsigned long long signature);
// Optical scan arc in degrees to a span of scan encoder counts; 0 for an unknown magic.
KVR_API std::uint32_t OpticalScanArcToCounts(double arcDegrees, unsigned long long signature);
