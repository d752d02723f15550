#include "scanmap/map_file.h"

#include <algorithm>
#include <cstring>
#include <string_view>
#include <vector>

#include "diag/error_manager.h"
#include "header/header_fields.h"
#include "platform/file_system.h"
#include "platform/little_endian.h"
#include "platform/stream_reader.h"
#include "platform/stream_writer.h"
#include "scanmap/header_texts.h"
#include "scanmap/map_layout.h"
#include "scanmap/map_record.h"

namespace kvr::scanmap {

namespace {

constexpr std::string_view kSaveContext = "int SaveScanFileMap(char *scanFileName, ScanFileMap &scanFileMap)";
constexpr std::string_view kLoadContext = "int LoadScanFileMap(wchar_t *filename, ScanFileMap &scanFileMap)";
constexpr std::string_view kOpenFailedMessage = "Error openning file";
constexpr std::size_t kNameField = map_layout::kNameFieldSize;
static_assert(sizeof(ScanFileMap::scanFileName) == kNameField);

bool HasMapSignature(const ScanFileMap& map) {
  return std::memcmp(map.mapSignature, map_layout::kSignature, map_layout::kSignatureSize) == 0;
}

using MapWriter = stream::BufferedWriter;

void WriteText(MapWriter& out, std::uint32_t length, const char* text) {
  out.u32(length);
  if (text != nullptr) {
    out.bytes(text, length);
  } else {
    out.zeros(length);  // keeps the layout of a record whose text was never read
  }
}

void WriteHeaderSection(MapWriter& out, const RawFileHeader& h) {
  out.bytes(h.signature, sizeof h.signature);
  header::ForEachFixedField(h, [&out](const auto& field) { out.field(field); });
  WriteText(out, h.calibrationTextLength, h.calibrationText);
  WriteText(out, h.parameterTextLength, h.parameterText);
  WriteText(out, h.thirdTextLength, h.thirdText);
  WriteText(out, h.fourthTextLength, h.fourthText);
}

// Consumes up to n bytes without keeping them; a length beyond the file ends at
// its end, so nothing is committed for bytes that are not there.
void Skip(std::FILE* in, std::uint64_t n) {
  std::uint8_t scratch[4096];
  while (n > 0) {
    const std::size_t want = static_cast<std::size_t>(std::min<std::uint64_t>(n, sizeof scratch));
    const std::size_t got = stream::ReadBytes(in, scratch, want);
    if (got < want) return;
    n -= got;
  }
}

// The values of one entry's eventShots. They are read in pieces and kept as
// they arrive, so a hostile count costs no more memory than the file holds. A
// value cut short by the end of the file keeps the bytes that arrived over the
// previous value, as every other field does.
void ReadEventShots(std::FILE* in, std::int32_t count, std::uint32_t& value, std::vector<std::uint32_t>& out) {
  out.clear();
  std::uint8_t piece[4096];
  std::uint64_t left = count > 0 ? static_cast<std::uint64_t>(count) : 0;
  while (left > 0) {
    const std::size_t want = static_cast<std::size_t>(std::min<std::uint64_t>(left, sizeof piece / 4)) * 4;
    const std::size_t got = stream::ReadBytes(in, piece, want);
    for (std::size_t at = 0; at + 4 <= got; at += 4) {
      value = le::LoadU32(piece + at);
      out.push_back(value);
    }
    if (got < want) {
      if (got % 4 != 0) {
        value = le::MergeArrived(value, piece + got - got % 4, got % 4);
        out.push_back(value);
      }
      return;
    }
    left -= want / 4;
  }
}

void ReadEntries(std::FILE* in, ScanFileMap& map) {
  std::int32_t entryCount = 0;
  stream::ReadLe(in, entryCount);
  // The fields of one record outlive it, as the reader's own variables would:
  // a record cut short keeps what the previous one left in them.
  std::int32_t key = 0;
  std::uint32_t blockNumber = 0;
  std::uint32_t shotIndexInBlock = 0;
  std::int32_t lineFlag = 0;
  std::int32_t shotCount = 0;
  std::int32_t eventCount = 0;
  std::uint32_t eventValue = 0;
  std::vector<std::uint32_t> events;
  for (std::int32_t e = 0; e < entryCount; ++e) {
    // A record of which not one byte is left ends the list.
    const int next = std::fgetc(in);
    if (next == EOF) break;
    std::ungetc(next, in);
    stream::ReadLe(in, key);
    stream::ReadLe(in, blockNumber);
    stream::ReadLe(in, shotIndexInBlock);
    stream::ReadLe(in, lineFlag);
    stream::ReadLe(in, shotCount);
    stream::ReadLe(in, eventCount);
    ReadEventShots(in, eventCount, eventValue, events);
    ScanLineEntry& entry = map.scanLines[key];
    entry.blockNumber = blockNumber;
    entry.shotIndexInBlock = shotIndexInBlock;
    entry.lineFlag = lineFlag;
    entry.shotCount = shotCount;
    entry.statusWordOffset = -1;
    entry.eventShots = events;
  }
}

// A header text: its length, then its bytes, into a fresh zero-terminated
// buffer that the record owns, returned in place of `previous`, which is
// released. The buffer holds what the file actually has, and the length says
// so. (The header's text pointers are packed fields: they are assigned, never
// bound to references.)
char* ReadText(std::FILE* in, std::uint32_t& length, char* previous) {
  stream::ReadLe(in, length);
  std::vector<char> bytes;
  std::size_t want = length;
  while (want > 0) {
    char piece[4096];
    const std::size_t n = std::min(want, sizeof piece);
    const std::size_t got = stream::ReadBytes(in, piece, n);
    bytes.insert(bytes.end(), piece, piece + got);
    if (got < n) break;
    want -= n;
  }
  ReleaseHeaderText(previous);
  length = static_cast<std::uint32_t>(bytes.size());
  return NewHeaderText(bytes.data(), bytes.size());
}

void ReadHeaderSection(std::FILE* in, RawFileHeader& h) {
  stream::ReadBytes(in, h.signature, sizeof h.signature);
  header::ForEachFixedField(h, [in](auto& field) { stream::ReadField(in, field); });
  h.calibrationText = ReadText(in, h.calibrationTextLength, h.calibrationText);
  h.parameterText = ReadText(in, h.parameterTextLength, h.parameterText);
  h.thirdText = ReadText(in, h.thirdTextLength, h.thirdText);
  h.fourthText = ReadText(in, h.fourthTextLength, h.fourthText);
}

// The stored name goes into the 1024-byte field as it is; a longer one keeps
// its first 1024 bytes and the rest is passed over, so the fields after it are
// read from where the file has them. The field always ends up terminated.
void ReadName(std::FILE* in, ScanFileMap& map) {
  std::int32_t length = 0;
  stream::ReadLe(in, length);
  // A negative length reads as a size no file reaches: the rest of the file.
  const std::uint64_t stored = length >= 0 ? static_cast<std::uint64_t>(length) : UINT64_MAX;
  const std::size_t inField = static_cast<std::size_t>(std::min<std::uint64_t>(stored, kNameField));
  const std::size_t got = stream::ReadBytes(in, map.scanFileName, inField);
  if (got == inField) Skip(in, stored - inField);
  if (std::memchr(map.scanFileName, 0, kNameField) == nullptr) map.scanFileName[kNameField - 1] = 0;
}

}  // namespace

int SaveMapFile(const wchar_t* fileName, ScanFileMap& map) {
  std::FILE* file = platform::OpenFile(fileName, "wb");
  if (file == nullptr) {
    Log(kSaveContext, std::string(kOpenFailedMessage), {platform::NarrowStorageBytes(fileName)});
    return -1;
  }
  {
    MapWriter out(file);
    out.i32(map.currentLineFlag);
    out.i32(map.maxShotsPerLine);
    out.i32(map.numberOfScanLines);
    out.i32(map.shotsInCurrentLine);
    out.u32(map.spareA);
    out.u16(map.maxReturnsPerShot);
    out.u32(map.dataStartOffset);
    std::memcpy(map.mapSignature, map_layout::kSignature, map_layout::kSignatureSize);
    out.bytes(map.mapSignature, sizeof map.mapSignature);
    out.i32(map.blockCount);
    out.i32(map.maxShotsPerBlock);
    const std::size_t nameLength = strnlen(map.scanFileName, kNameField - 1);
    out.i32(static_cast<std::int32_t>(nameLength + 1));
    out.bytes(map.scanFileName, nameLength);
    out.zeros(1);

    out.u32(static_cast<std::uint32_t>(map.scanLines.size()));
    for (const auto& [key, entry] : map.scanLines) {
      out.i32(key);
      out.u32(entry.blockNumber);
      out.u32(entry.shotIndexInBlock);
      out.i32(entry.lineFlag);
      out.i32(entry.shotCount);
      const auto eventCount = static_cast<std::int32_t>(entry.eventShots.size());
      out.i32(eventCount);
      for (std::int32_t k = 0; k < eventCount; ++k) out.u32(entry.eventShots[static_cast<std::size_t>(k)]);
    }
    out.u32(map.spareB);
    out.f32(map.shotsPerLineEstimate);
    WriteHeaderSection(out, map.fileHeader);

    out.f64(map.binWidth);
    // The slot of the maximum carries the minimum: that is the file format.
    out.f64(map.minNormalizedIntensity);
    out.f64(map.minNormalizedIntensity);
    for (double a : {map.a1, map.a2, map.a3, map.a4, map.a5}) out.f64(a);
    out.f64(map.intensityAt95);
    // The histogram does not outlive a build, so the file carries no bins.
    map.numberOfBins = 0;
    out.i32(map.numberOfBins);
    out.f64(map.gamma);
    out.u32(map.validSampleCount);

    if (HasMapSignature(map)) {
      out.u32(static_cast<std::uint32_t>(map.mapVersion));
      if (map.mapVersion == 1 || map.mapVersion == 2) {
        for (std::size_t i = 0; i < 4; ++i) out.u64(i < map.returnCounts.size() ? map.returnCounts[i] : 0);
      }
      if (map.mapVersion == 2) out.f64(map.binWidth);
    }
  }
  std::fflush(file);
  std::fclose(file);
  return 0;
}

int LoadMapFile(const wchar_t* fileName, ScanFileMap& map) {
  std::FILE* file = platform::OpenFile(fileName, "rb");
  if (file == nullptr) {
    Log(kLoadContext, std::string(kOpenFailedMessage), {platform::NarrowStorageBytes(fileName)});
    return -1;
  }
  InitializeScanFileMap(map);
  stream::ReadLe(file, map.currentLineFlag);
  stream::ReadLe(file, map.maxShotsPerLine);
  stream::ReadLe(file, map.numberOfScanLines);
  stream::ReadLe(file, map.shotsInCurrentLine);
  stream::ReadLe(file, map.spareA);
  stream::ReadLe(file, map.maxReturnsPerShot);
  stream::ReadLe(file, map.dataStartOffset);
  stream::ReadBytes(file, map.mapSignature, sizeof map.mapSignature);
  stream::ReadLe(file, map.blockCount);
  stream::ReadLe(file, map.maxShotsPerBlock);
  ReadName(file, map);
  ReadEntries(file, map);
  stream::ReadLe(file, map.spareB);
  stream::ReadLe(file, map.shotsPerLineEstimate);
  ReadHeaderSection(file, map.fileHeader);

  stream::ReadLe(file, map.binWidth);
  stream::ReadLe(file, map.minNormalizedIntensity);
  stream::ReadLe(file, map.minNormalizedIntensity);
  for (double* a : {&map.a1, &map.a2, &map.a3, &map.a4, &map.a5}) stream::ReadLe(file, *a);
  stream::ReadLe(file, map.intensityAt95);
  stream::ReadLe(file, map.numberOfBins);
  stream::ReadLe(file, map.gamma);
  stream::ReadLe(file, map.validSampleCount);
  // Two runs of numberOfBins doubles that the map does not keep.
  if (map.numberOfBins > 0) Skip(file, 2 * 8 * static_cast<std::uint64_t>(map.numberOfBins));

  if (HasMapSignature(map)) {
    stream::ReadLe(file, map.mapVersion);
    if (map.mapVersion == 1 || map.mapVersion == 2) {
      for (std::size_t i = 0; i < 4; ++i) stream::ReadLe(file, map.returnCounts[i]);
    }
    if (map.mapVersion == 2) stream::ReadLe(file, map.binWidth);
  }
  std::fclose(file);
  return 0;
}

}  // namespace kvr::scanmap
