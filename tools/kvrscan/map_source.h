#pragma once

#include "kvr_decode/scan_file_map.h"
#include "progress.h"
#include "scan_source.h"

namespace kvrscan {

// The scan file map of a scan, as its ScanSource was opened: built by the library
// from the scan (two passes), or loaded from the map file given and checked
// against the scan.
class MapSource {
 public:
  MapSource(ScanSource& scan, bool showProgress);

  ScanFileMap& map() { return *map_; }
  const ScanFileMap& map() const { return *map_; }
  bool loaded() const { return loaded_; }
  double seconds() const { return seconds_; }  // time the build or load took

 private:
  ScanFileMap* map_ = nullptr;
  bool loaded_ = false;
  double seconds_ = 0.0;
};

}  // namespace kvrscan
