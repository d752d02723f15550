#include "map_source.h"

namespace kvrscan {

MapSource::MapSource(ScanSource& scan, bool showProgress) {
  Progress progress("map " + scan.path(), showProgress);
  // The library builds the map in one call: the line says what is going on.
  progress.status("scan file map");
  kvr::cloud::Scan& cloud = scan.scan();
  map_ = &Checked([&]() -> ScanFileMap& { return cloud.map(); });
  progress.finish();
  loaded_ = cloud.mapLoaded();
  seconds_ = cloud.mapSeconds();
}

}  // namespace kvrscan
