// LoadScanFileMap on any map file, then what callers do with a loaded map:
// fetch its lines from a scan file (a fixed, valid one: the map says where to
// look, and a damaged map points anywhere), measure the scan parameters, save
// the map and load it back.

#include <cstdio>
#include <vector>

#include "fifo/block_layout.h"
#include "fuzz_support.h"
#include "kvr_decode/scan_file_map.h"
#include "map_round_trip.h"
#include "kvr_writers/byte_writer.h"

namespace {

using kvr::fuzz::Finding;

constexpr const char* kMapFile = "loaded.map";
wchar_t kMapFileWide[] = L"loaded.map";
wchar_t kSavedMapWide[] = L"saved.map";
constexpr const char* kScanFile = "lines.raw";
constexpr std::uint32_t kDataOffset = 512;

// A "#KVRSCAN" file at 200 kHz with three blocks of 40 shots each; the scan
// direction (bit 62) turns every 7 shots, and every shot has one return.
std::vector<std::uint8_t> ScanFile() {
  kvr::writers::ByteWriter out;
  out.text("#KVRSCAN").u32(1).u32(kDataOffset).zeros(12 + 40 + 4 + 120 + 4);
  // Scan angles, angular speed, sweep angles, line rate; PRF; the 13 tail words.
  out.f32(30.0f).f32(130.0f).f32(12.0f).f32(30.0f).f32(130.0f).f32(100.0f).u32(200).zeros(52);
  out.u32(0).u32(0).u32(0);  // three empty texts
  out.padTo(kDataOffset);
  constexpr std::uint32_t kShots = 40;
  for (std::uint32_t block = 0; block < 3; ++block) {
    const std::size_t start = out.size();
    out.u32(kvr::fifo::layout::kBlockSignature).u32(1000000 + block * 10000).u32(block << 8 | kShots << 19);
    for (std::uint32_t i = 0; i < kShots; ++i) {
      const std::uint32_t shot = block * kShots + i;
      const std::uint64_t direction = (shot / 7) % 2;
      out.u64(shot * 37 | std::uint64_t{shot % 4096} << 20 | std::uint64_t{1} << 38 | std::uint64_t{500} << 41 |
              direction << 62);
      out.u32(800 + shot | 1000u << 20);
    }
    out.padTo(start + kvr::fifo::SIZEOFFIFOBLOCK);
  }
  return out.bytes();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  kvr::fuzz::SilenceStandardOutput();  // "break from FillScanLineCachedBlock" lines
  kvr::fuzz::WriteInputFile(kScanFile, ScanFile());
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  kvr::fuzz::TrimLog();
  kvr::fuzz::WriteInputFile(kMapFile, kvr::fuzz::Bytes(data, size));
  ScanFileMap map;
  if (LoadScanFileMap(kMapFileWide, map) != 0) Finding("LoadScanFileMap failed on a file that exists");

  std::FILE* stream = std::fopen(kScanFile, "rb");
  if (stream == nullptr) Finding("the scan file does not open");
  std::vector<RawShot> shots;
  // The last line and one past it; a loaded count may be the most negative int.
  const std::int64_t n = map.numberOfScanLines;
  std::vector<int> lines = {-1, 0, static_cast<int>(n - 1), static_cast<int>(n)};
  for (const auto& [key, entry] : map.scanLines) {
    if (lines.size() == 12) break;
    lines.push_back(key);
  }
  for (int line : lines) {
    if (GetShotsFromScanLineIndex(line, &stream, map, shots, nullptr) != static_cast<int>(shots.size())) {
      Finding("GetShotsFromScanLineIndex result differs from the shots it gave");
    }
  }
  GetScanLineIndexFromRelativePosition(0.5, map);
  const int measured = UpdateScanParameters(stream, map);
  if (measured != 0 && measured != 1) Finding("UpdateScanParameters returned neither 0 nor 1");
  std::fclose(stream);

  kvr::fuzz::CheckRoundTrip(map, kSavedMapWide);
  ReleaseScanFileMap(map);
  return 0;
}
