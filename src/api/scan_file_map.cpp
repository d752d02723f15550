#include "kvr_decode/scan_file_map.h"

#include "header/header_block.h"
#include "scanmap/map_builder.h"
#include "scanmap/map_file.h"
#include "scanmap/scan_line_access.h"

int GetScanFileMap(const wchar_t* input_data, ScanFileMap& scanFileMap) {
  return kvr::scanmap::BuildScanFileMap(input_data, scanFileMap);
}

int SaveScanFileMap(wchar_t* scanFileName, ScanFileMap& scanFileMap) {
  return kvr::scanmap::SaveMapFile(scanFileName, scanFileMap);
}

int LoadScanFileMap(wchar_t* filename, ScanFileMap& scanFileMap) {
  return kvr::scanmap::LoadMapFile(filename, scanFileMap);
}

void ReleaseScanFileMap(ScanFileMap& scanFileMap) { kvr::header::ReleaseFileHeader(scanFileMap.fileHeader); }

int GetShotsFromScanLineIndex(int scanLineIndex, FILE** fp, ScanFileMap& scanFileMap, std::vector<RawShot>& shots,
                              NmeaTicksManager* ticksManager) {
  return kvr::scanmap::ShotsOfScanLine(scanLineIndex, fp, scanFileMap, shots, ticksManager);
}

int GetScanLineIndexFromRelativePosition(double position, ScanFileMap& scanFileMap) {
  return kvr::scanmap::ScanLineAtRelativePosition(position, scanFileMap);
}

int UpdateScanParameters(FILE* fp, ScanFileMap& scanFileMap) {
  return kvr::scanmap::MeasureScanParameters(fp, scanFileMap);
}
