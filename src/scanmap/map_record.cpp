#include "scanmap/map_record.h"

namespace kvr::scanmap {

void InitializeScanFileMap(ScanFileMap& map) {
  map.currentLineFlag = -1;
  map.maxShotsPerLine = 0;
  map.numberOfScanLines = -1;
  map.shotsInCurrentLine = 0;
  map.spareA = 0;
  map.maxReturnsPerShot = 0;
  map.dataStartOffset = 0;
  map.dataSize = 0;
  map.blockCount = 0;
  map.maxShotsPerBlock = 0;
  map.scanFileName[0] = 0;
  map.scanLines.clear();
  map.spareB = 0;
  map.shotsPerLineEstimate = 1.0f;
  map.histogram = nullptr;
  map.spareC = 0;
  map.binWidth = 0.0;
  map.minNormalizedIntensity = 1.7976931348623157e308;
  map.maxNormalizedIntensity = 0.0;
  map.a1 = 200.0;
  map.a2 = 4.0;
  map.a3 = 0.43;
  map.a4 = 2.3;
  map.a5 = 6.1;
  map.intensityAt95 = 1.0;
  map.numberOfBins = 4096;
  map.gamma = 0.5;
  map.validSampleCount = 0;
  map.returnCounts.resize(4);
  map.lastEncoderValue = 131072;
  map.encoderWrapParity = 0;
}

}  // namespace kvr::scanmap
