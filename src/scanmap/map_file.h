#pragma once

#include "kvr_decode/scan_file_map.h"

namespace kvr::scanmap {

// SaveScanFileMap and LoadScanFileMap: the map file is a flat run of
// little-endian fields mirroring the record, with a copy of the scan file's
// header and no histogram bins.
int SaveMapFile(const wchar_t* fileName, ScanFileMap& map);
int LoadMapFile(const wchar_t* fileName, ScanFileMap& map);

}  // namespace kvr::scanmap
