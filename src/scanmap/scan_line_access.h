#pragma once

#include <cstdio>
#include <vector>

#include "kvr_decode/scan_file_map.h"

namespace kvr::scanmap {

// Decodes the blocks of one line into map.fifoBlock, from the block where the
// line begins until the cache holds its shots. 0, or the negative result of
// decoding the line's first block.
int FillScanLineCachedBlock(int scanLineIndex, std::FILE** fp, ScanFileMap& map, NmeaTicksManager* ticksManager);

int ShotsOfScanLine(int scanLineIndex, std::FILE** fp, ScanFileMap& map, std::vector<RawShot>& shots,
                    NmeaTicksManager* ticksManager);

int ScanLineAtRelativePosition(double position, const ScanFileMap& map);

int MeasureScanParameters(std::FILE* fp, ScanFileMap& map);

}  // namespace kvr::scanmap
