#pragma once

#include <cstring>

#include "fuzz_support.h"
#include "header/header_layout.h"
#include "kvr_decode/scan_file_map.h"

namespace kvr::fuzz {

inline bool SameBits(double a, double b) { return std::memcmp(&a, &b, sizeof a) == 0; }

inline bool SameText(std::uint32_t lengthA, const char* a, std::uint32_t lengthB, const char* b) {
  if (lengthA != lengthB) return false;
  if (lengthA == 0) return true;
  return a != nullptr && b != nullptr && std::memcmp(a, b, lengthA) == 0;
}

// Saves the map and loads it back: every stored field returns, the maximum comes
// back 0.0 (the file holds the minimum twice) and every statusWordOffset -1.
inline void CheckRoundTrip(ScanFileMap& map, wchar_t* mapFile) {
  if (SaveScanFileMap(mapFile, map) != 0) Finding("SaveScanFileMap failed");
  ScanFileMap loaded;
  if (LoadScanFileMap(mapFile, loaded) != 0) Finding("LoadScanFileMap failed on a saved map");
  if (loaded.currentLineFlag != map.currentLineFlag || loaded.maxShotsPerLine != map.maxShotsPerLine ||
      loaded.numberOfScanLines != map.numberOfScanLines || loaded.shotsInCurrentLine != map.shotsInCurrentLine ||
      loaded.maxReturnsPerShot != map.maxReturnsPerShot || loaded.dataStartOffset != map.dataStartOffset ||
      loaded.blockCount != map.blockCount || loaded.maxShotsPerBlock != map.maxShotsPerBlock ||
      std::strcmp(loaded.scanFileName, map.scanFileName) != 0 || loaded.mapVersion != map.mapVersion ||
      loaded.validSampleCount != map.validSampleCount || loaded.numberOfBins != 0 || map.numberOfBins != 0 ||
      !SameBits(loaded.binWidth, map.binWidth) ||
      !SameBits(loaded.minNormalizedIntensity, map.minNormalizedIntensity) ||
      !SameBits(loaded.intensityAt95, map.intensityAt95) || !SameBits(loaded.gamma, map.gamma) ||
      !SameBits(loaded.shotsPerLineEstimate, map.shotsPerLineEstimate) || loaded.maxNormalizedIntensity != 0.0) {
    Finding("a loaded map differs from the saved one");
  }
  if ((map.mapVersion == 1 || map.mapVersion == 2) && loaded.returnCounts != map.returnCounts) {
    Finding("loaded return counts differ from the saved ones");
  }
  if (loaded.scanLines.size() != map.scanLines.size()) Finding("a loaded map has other lines");
  for (const auto& [key, entry] : map.scanLines) {
    const auto found = loaded.scanLines.find(key);
    if (found == loaded.scanLines.end() || found->second.blockNumber != entry.blockNumber ||
        found->second.shotIndexInBlock != entry.shotIndexInBlock || found->second.shotCount != entry.shotCount ||
        found->second.lineFlag != entry.lineFlag || found->second.eventShots != entry.eventShots ||
        found->second.statusWordOffset != -1) {
      Finding("a loaded scan line differs from the saved one");
    }
  }
  const RawFileHeader& a = map.fileHeader;
  const RawFileHeader& b = loaded.fileHeader;
  const RawFileHeaderBlock& fixedA = a;
  const RawFileHeaderBlock& fixedB = b;
  if (std::memcmp(&fixedA, &fixedB, kvr::header::layout::kFixedPartSize) != 0 ||
      !SameText(a.calibrationTextLength, a.calibrationText, b.calibrationTextLength, b.calibrationText) ||
      !SameText(a.parameterTextLength, a.parameterText, b.parameterTextLength, b.parameterText) ||
      !SameText(a.thirdTextLength, a.thirdText, b.thirdTextLength, b.thirdText) ||
      !SameText(a.fourthTextLength, a.fourthText, b.fourthTextLength, b.fourthText)) {
    Finding("a loaded header differs from the saved one");
  }
  ReleaseScanFileMap(loaded);
}

}  // namespace kvr::fuzz
