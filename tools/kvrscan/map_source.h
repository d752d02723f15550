#pragma once

#include <memory>
#include <optional>
#include <string>

#include "kvr_decode/scan_file_map.h"
#include "point_model.h"
#include "scan_source.h"

namespace kvrscan {

// The scan file map of a scan: built by the library from the scan (two passes,
// with a progress line), or loaded from a map file and checked against the scan.
// The record is released on destruction.
class MapSource {
 public:
  MapSource(ScanSource& scan, const std::optional<std::string>& mapFile, bool showProgress);
  ~MapSource();
  MapSource(const MapSource&) = delete;
  MapSource& operator=(const MapSource&) = delete;

  ScanFileMap& map() { return *map_; }
  const ScanFileMap& map() const { return *map_; }
  bool loaded() const { return loaded_; }
  double seconds() const { return seconds_; }  // time the build or load took

  // The lines' starts in order, for assigning shots to lines in a file walk.
  LineIndexer lineIndexer() const;
  // The map's intensity model and display values.
  IntensityModel intensityModel() const;

 private:
  void fill(ScanSource& scan, const std::optional<std::string>& mapFile, bool showProgress);

  std::unique_ptr<ScanFileMap> map_;
  bool loaded_ = false;
  double seconds_ = 0.0;
};

// The range offset the map's sample rule adds: the calibration value
// "rangeOffset" of the scan's header, 0 when it has none.
double SampleRangeOffset(const RawFileHeader& header);

}  // namespace kvrscan
