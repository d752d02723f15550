#pragma once

#include <cstdint>
#include <cstdio>
#include <optional>

#include "kvr_decode/scan_file_map.h"

namespace kvr::scanmap {

// Shots per scan line expected from the header's angular speed, sweep limits,
// line rate and PRF, in single precision.
float ShotsPerLineEstimate(const RawFileHeader& header);

// Indexes an opened scan file: `stream` is positioned at the first FIFO block
// and map.fileHeader holds its header. Runs both passes and the histogram
// (binCountOverride > 0 replaces the computed bin count). 0, or -1 when the
// histogram cannot be allocated (logged).
int IndexScanFile(std::FILE* stream, ScanFileMap& map, std::optional<std::int32_t> binCountOverride);

// GetScanFileMap.
int BuildScanFileMap(const wchar_t* scanFileName, ScanFileMap& map);

}  // namespace kvr::scanmap
