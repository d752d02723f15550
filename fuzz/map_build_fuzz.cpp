// GetScanFileMap on any scan file, with or without a normalization parameter
// file beside it, then what callers do with a map: fetch lines from the scan
// file, measure the scan parameters, save the map and load it back.
//
// Input: a 16-bit word (bit 15: a parameter file exists; bits 0-14: its
// length), the parameter file's text, then the scan file.

#include <vector>

#include "fuzz_support.h"
#include "kvr_decode/file_header.h"
#include "kvr_decode/scan_file_map.h"
#include "map_round_trip.h"

namespace {

using kvr::fuzz::Finding;

constexpr const char* kScanFile = "scan.raw";
constexpr const wchar_t* kScanFileWide = L"scan.raw";
constexpr const char* kParameterFile = "scan.raw.NormalizationParams.txt";
wchar_t kMapFileWide[] = L"scan.map";

void CheckBuilt(const ScanFileMap& map) {
  if (map.mapVersion != 2 || map.histogram != nullptr) Finding("a built map without version 2 or with a histogram");
  for (const auto& [key, entry] : map.scanLines) {
    if (key < -1 || key >= map.numberOfScanLines) Finding("a scan line entry outside the lines counted");
  }
}

// What callers do with a built map and the open scan file.
void UseMap(ScanFileMap& map) {
  RawFileHeader header;
  std::FILE* stream = ReadFileHeader(kScanFileWide, header);
  ReleaseFileHeader(header);
  if (stream == nullptr) Finding("a mapped scan file does not open again");
  const int n = map.numberOfScanLines;
  std::vector<RawShot> shots;
  for (int line : {-1, 0, 1, n / 2, n - 1, n}) {
    if (GetShotsFromScanLineIndex(line, &stream, map, shots, nullptr) != static_cast<int>(shots.size())) {
      Finding("GetShotsFromScanLineIndex result differs from the shots it gave");
    }
  }
  GetScanLineIndexFromRelativePosition(0.5, map);
  const int measured = UpdateScanParameters(stream, map);
  if (measured != 0 && measured != 1) Finding("UpdateScanParameters returned neither 0 nor 1");
  std::fclose(stream);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  kvr::fuzz::SilenceStandardOutput();  // "break from FillScanLineCachedBlock" lines
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  kvr::fuzz::TrimLog();
  const kvr::fuzz::TwoFiles files = kvr::fuzz::SplitTwoFiles(data, size);
  if (!kvr::fuzz::ScanHeaderClaimsWithinLimit(files.main)) return 0;
  kvr::fuzz::WriteInputFile(kScanFile, files.main);
  kvr::fuzz::WriteSideFile(kParameterFile, files);

  ScanFileMap map;
  kvr::fuzz::LeftOpenStreams leftOpen;
  int result = -1;
  try {
    result = GetScanFileMap(kScanFileWide, map);
  } catch (const std::out_of_range& e) {
    kvr::fuzz::ExpectInvalidSubscript(e);  // a malformed header text or side table
  }
  // A wrong magic or PRF leaves ReadFileHeader's stream open by design; a built
  // map leaves none.
  if (leftOpen.Close() != 0 && result == 0) Finding("a built map left a stream open");
  if (result == 0) {
    CheckBuilt(map);
    UseMap(map);
    kvr::fuzz::CheckRoundTrip(map, kMapFileWide);
  } else if (result != -1) {
    Finding("GetScanFileMap returned neither 0 nor -1");
  }
  ReleaseScanFileMap(map);
  return 0;
}
