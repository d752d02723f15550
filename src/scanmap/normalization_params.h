#pragma once

#include <cstdint>
#include <optional>

#include "kvr_decode/scan_file_map.h"

namespace kvr::scanmap {

// Reads "<scan file path>.NormalizationParams.txt" and copies its recognised
// keys (a1 to a5, gamma) into the map. A missing file keeps the defaults.
// Returns the bin count the file gave, if it gave one; the caller decides
// whether to use it.
std::optional<std::int32_t> ApplyNormalizationParameters(const wchar_t* scanFileName, ScanFileMap& map);

}  // namespace kvr::scanmap
