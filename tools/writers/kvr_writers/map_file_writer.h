#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "scanmap/map_layout.h"

// Scan file map files: a flat run of little-endian fields, "#KVRMAPF" at offset
// 26, the scan file's header carried whole.
namespace kvr::writers {

// One scan line record of a map file.
struct MapFileEntry {
  std::int32_t key = 0;
  std::uint32_t blockNumber = 0;
  std::uint32_t shotIndexInBlock = 0;
  std::int32_t lineFlag = 0;
  std::int32_t shotCount = 0;
  std::vector<std::uint32_t> eventShots;
  std::optional<std::int32_t> eventCountField;  // written instead of eventShots.size()
};

// One variable-length text of the header section.
struct MapFileText {
  std::string bytes;
  std::optional<std::uint32_t> lengthField;  // written instead of bytes.size()
};

// The scan file header as the map file carries it, field by field.
struct MapFileHeaderSection {
  std::string signature = "#KVRSCAN";  // 8 bytes, zero-padded
  std::uint32_t headerLayout = 0;
  std::uint32_t dataOffset = 0;
  std::array<std::uint32_t, 3> headerWords{};
  std::string idText1, idText2, idText3, idText4;  // 40 bytes each, zero-padded
  std::uint32_t idValue = 0;
  std::uint32_t scanWord0 = 0;
  std::array<float, 6> scanFloats{};  // start angle, end angle, angular speed, sweep start, sweep end, line rate
  std::uint32_t prf = 200;
  std::array<std::uint32_t, 13> scanTailWords{};
  std::array<MapFileText, 4> texts;  // calibration, parameter, third, fourth
};

// Everything a map file holds, in file order, with the raw counts overridable
// so that damaged files can be written too.
struct MapFileContents {
  std::int32_t currentLineFlag = -1;
  std::int32_t maxShotsPerLine = 0;
  std::int32_t numberOfScanLines = -1;
  std::int32_t shotsInCurrentLine = 0;
  std::uint32_t spareA = 0;
  std::uint16_t maxReturnsPerShot = 0;
  std::uint32_t dataStartOffset = 0;
  std::string signature = scanmap::map_layout::kSignature;  // 8 bytes, zero-padded
  std::int32_t blockCount = 0;
  std::int32_t maxShotsPerBlock = 0;
  std::string scanFileName;                      // written with its terminator
  std::optional<std::int32_t> nameLengthField;   // written instead of size + 1
  std::vector<MapFileEntry> entries;
  std::optional<std::int32_t> entryCountField;   // written instead of entries.size()
  std::uint32_t spareB = 0;
  float shotsPerLineEstimate = 1.0f;
  MapFileHeaderSection header;
  double binWidth = 0.0;
  double minimum = 0.0;
  double maximumSlot = 0.0;  // the saver writes the minimum here
  std::array<double, 5> a{200.0, 4.0, 0.43, 2.3, 6.1};
  double intensityAt95 = 1.0;
  std::int32_t numberOfBins = 0;
  double gamma = 0.5;
  std::uint32_t validSampleCount = 0;
  std::vector<double> binValues;  // the 2 x numberOfBins doubles
  // The tail is written only when the signature is "#KVRMAPF".
  std::uint32_t mapVersion = 2;
  std::array<std::uint64_t, 4> returnCounts{};
  double trailingBinWidth = 0.0;
};

std::vector<std::uint8_t> BuildMapFile(const MapFileContents& contents);

}  // namespace kvr::writers
