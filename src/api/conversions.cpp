#include "kvr_decode/conversions.h"

#include "optics/conversions.h"

double CalculateRange(unsigned int stop, unsigned int start) { return kvr::optics::Range(stop, start); }

unsigned long long CalculateTimeInCounts(double seconds) { return kvr::optics::TimeInCounts(seconds); }

double CalculateTimeInSecs(unsigned long long ticks) { return kvr::optics::TimeInSecs(ticks); }

double CalculatePanAngle(std::uint32_t counts) { return kvr::optics::PanAngle(counts); }

double CalculateScanAngle(std::uint32_t counts, unsigned long long signature) {
  return kvr::optics::ScanAngle(counts, signature);
}

std::uint32_t OpticalScanArcToCounts(double arcDegrees, unsigned long long signature) {
  return kvr::optics::ScanArcToCounts(arcDegrees, signature);
}
