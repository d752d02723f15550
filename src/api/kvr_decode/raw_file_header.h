#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "kvr_decode/export.h"

// The side table of a scan file, resampled to one column per whole key. Rows
// are taken as sampled every rowStep from rowOrigin whatever coordinates the
// file gives after its first row.
struct SideTableGrid {
  std::map<int, std::vector<double>> columns;  // key offset (0 = first key) -> one value per data line
  std::int32_t rowCount = 0;
  std::int32_t keyCount = 0;
  double rowOrigin = 0.0;
  double keyOrigin = 0.0;
  double rowEnd = 0.0;
  double keyEnd = 0.0;
  double keyStep = 1.0;
  double rowStep = 0.05;
  double keySpan = 0.0;
  double rowSpan = 0.0;
};

// The header block as it lies in the file, then the four owned texts. Packed on
// 4-byte boundaries, so the text pointers sit where the scanner's own tools
// expect them. The standard containers that follow are kept outside the packed
// part (in RawFileHeader below): a container on a 4-byte boundary would be a
// misaligned object.
#pragma pack(push, 4)
struct RawFileHeaderBlock {
  unsigned char signature[8] = {};  // magic as read; compare with ScanSignature()
  std::uint32_t headerLayout = 0;   // 0: a fourth text follows; 1: it does not
  std::uint32_t dataOffset = 0;     // file offset of the first FIFO block
  std::uint32_t headerWords[3] = {};
  char idText1[40] = {};
  std::uint32_t idValue = 0;
  char idText2[40] = {};
  char idText3[40] = {};
  char idText4[40] = {};

  // The 21 scan words, in file order.
  std::uint32_t scanWord0 = 0;
  float scanStartAngle = 0.0f;   // degrees
  float scanEndAngle = 0.0f;     // degrees
  float angularSpeed = 0.0f;     // degrees per second (offset 204)
  float sweepStartAngle = 0.0f;  // offset 208
  float sweepEndAngle = 0.0f;    // offset 212
  float lineRate = 0.0f;         // lines per second (offset 216)
  std::uint32_t prf = 0;         // pulse repetition frequency in kHz: 50, 200 or 500
  std::uint32_t scanTailWords[13] = {};

  // Owned heap copies of length + 1 bytes, zero-terminated, from the C
  // allocator (malloc family); ReleaseFileHeader frees them. A record decoded again gets fresh copies without the old ones
  // being freed.
  std::uint32_t calibrationTextLength = 0;
  char* calibrationText = nullptr;
  std::uint32_t parameterTextLength = 0;
  char* parameterText = nullptr;
  std::uint32_t thirdTextLength = 0;
  char* thirdText = nullptr;  // the optical model text
  std::uint32_t fourthTextLength = 0;
  char* fourthText = nullptr;
};
#pragma pack(pop)

struct RawFileHeader : RawFileHeaderBlock {
  std::map<std::int32_t, std::vector<std::pair<double, double>>> prfTables;
  std::map<std::string, double> calibrationValues;
  SideTableGrid* sideTableGrid = nullptr;  // owned; attached by ReadFileHeader, freed by ReleaseFileHeader
};

// The magic as the unsigned 64-bit number that the conversions compare.
inline std::uint64_t ScanSignature(const RawFileHeaderBlock& header) {
  std::uint64_t value = 0;
  for (int i = 7; i >= 0; --i) value = (value << 8) | header.signature[i];
  return value;
}
