#include "map_source.h"

#include <chrono>

#include "errors.h"
#include "progress.h"

namespace kvrscan {

MapSource::MapSource(ScanSource& scan, const std::optional<std::string>& mapFile, bool showProgress)
    : map_(std::make_unique<ScanFileMap>()) {
  try {
    fill(scan, mapFile, showProgress);
  } catch (...) {
    // No destructor runs for an object whose constructor throws.
    ReleaseScanFileMap(*map_);
    throw;
  }
}

void MapSource::fill(ScanSource& scan, const std::optional<std::string>& mapFile, bool showProgress) {
  const auto start = std::chrono::steady_clock::now();
  if (mapFile) {
    ReadableFileSize(*mapFile);
    std::wstring wide = WidePath(*mapFile);
    if (LoadScanFileMap(wide.data(), *map_) != 0) throw FileError(*mapFile, "cannot open the map file");
    loaded_ = true;
    const RawFileHeader& own = map_->fileHeader;
    const RawFileHeader& scanHeader = scan.header();
    if (std::string_view(map_->mapSignature, 8) != "#KVRMAPF") {
      throw FileError(*mapFile, "not a map file: no \"#KVRMAPF\" at offset 26");
    }
    if (map_->dataStartOffset != scanHeader.dataOffset || own.prf != scanHeader.prf ||
        ScanSignature(own) != ScanSignature(scanHeader)) {
      throw FileError(*mapFile, "not the map of " + scan.path() + " (its header or data offset differ)");
    }
  } else {
    ReadPositionWatcher watcher("map " + scan.path(), scan.path(), scan.fileSize(), 2, showProgress);
    const std::wstring& wide = scan.widePath();
    int result = -1;
    try {
      result = GetScanFileMap(wide.c_str(), *map_);
    } catch (const std::bad_alloc&) {
      throw FileError(scan.path(), "not enough memory to build the scan file map");
    }
    if (result != 0) throw FileError(scan.path(), "the library could not build the scan file map");
  }
  seconds_ = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

MapSource::~MapSource() { ReleaseScanFileMap(*map_); }

LineIndexer MapSource::lineIndexer() const {
  std::vector<LineIndexer::Start> starts;
  for (std::int32_t line = 0; line < map_->numberOfScanLines; ++line) {
    const auto it = map_->scanLines.find(line);
    if (it == map_->scanLines.end()) break;  // a map without this line holds no later ones either
    starts.push_back({it->second.blockNumber, it->second.shotIndexInBlock});
  }
  return LineIndexer(std::move(starts));
}

IntensityModel MapSource::intensityModel() const {
  IntensityModel model;
  model.a1 = map_->a1;
  model.a2 = map_->a2;
  model.a3 = map_->a3;
  model.a4 = map_->a4;
  model.a5 = map_->a5;
  model.intensityAt95 = map_->intensityAt95;
  model.gamma = map_->gamma;
  return model;
}

double SampleRangeOffset(const RawFileHeader& header) {
  const auto it = header.calibrationValues.find("rangeOffset");
  return it == header.calibrationValues.end() ? 0.0 : it->second;
}

}  // namespace kvrscan
