#pragma once

#include "kvr_decode/scan_file_map.h"

namespace kvr::scanmap {

// Resets the record for a build or a load. mapSignature, mapVersion,
// fileHeader and fifoBlock are left as they are, and returnCounts keeps the
// counters it holds (a record reused for a second build goes on counting).
void InitializeScanFileMap(ScanFileMap& map);

}  // namespace kvr::scanmap
