#pragma once

#include <cstdint>
#include <filesystem>

#include "kvr_decode/cloud/export.h"
#include "kvr_decode/scan_file_map.h"

// Map files written and read with checks the decoder's own functions leave out:
// SaveScanFileMap checks none of its writes and LoadScanFileMap loads a cut or
// foreign file without complaint, so a damaged map would pass for a good one.
namespace kvr::cloud {

// The length of the file SaveScanFileMap writes for `map` (which always carries
// the map signature and no histogram bins).
KVR_CLOUD_API std::uint64_t SavedMapSize(const ScanFileMap& map);

// Saves `map` as `target` through SaveScanFileMap, into a temporary file beside
// the target whose length must then be SavedMapSize, renamed over the target
// last. OutputError naming the target and the system's reason; the target is
// then as it was and no temporary file remains.
KVR_CLOUD_API void SaveMapFile(ScanFileMap& map, const std::filesystem::path& target);

// Refuses what is not a whole map file: no map signature, counts and lengths
// that need more bytes than the file has (the message names the part cut short),
// or bytes after the map's last field. InputError naming `path`.
KVR_CLOUD_API void CheckMapFile(const std::filesystem::path& path);

}  // namespace kvr::cloud
