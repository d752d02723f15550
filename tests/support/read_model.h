#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

#include "devices/camera_layout.h"
#include "header/header_layout.h"
#include "nmea/tick_layout.h"
#include "platform/little_endian.h"

// What the readers will meet in a file before it is handed to them, worked out
// with the library's cursor, whose reads past the end behave as the stream
// reads do (a field cut short keeps its old high bytes). Fuzz targets and
// damaged-file tests use these to keep claims within their limits.
namespace kvr::test {

// The largest text length ReadFileHeader meets in a scan file (0 when the magic
// is not a scan magic, as nothing more is read then).
inline std::uint64_t LargestScanHeaderText(std::span<const std::uint8_t> scan) {
  namespace layout = header::layout;
  le::ByteCursor in(scan);
  std::uint8_t magic[layout::kSignature.size] = {};
  in.read(magic, sizeof magic);
  bool known = false;
  for (const char* m : {layout::kMagicMx700Dat, layout::kMagicKvrScan, layout::kMagicMx70Dat}) {
    known = known || std::memcmp(magic, m, sizeof magic) == 0;
  }
  if (!known) return 0;
  std::uint32_t headerLayout = 0;
  in.field(headerLayout);
  in.skip(layout::kFixedPartSize - layout::kDataOffset.offset);
  std::uint64_t largest = 0;
  for (int text = 0; text < layout::TextCount(headerLayout); ++text) {
    std::uint32_t length = 0;
    in.field(length);
    largest = length > largest ? length : largest;
    in.skip(length);
  }
  return largest;
}

// The largest text length or image size the camera reader meets in a camera
// file walked record by record to its end (0 when the magic is wrong).
inline std::uint64_t LargestCameraFileClaim(std::span<const std::uint8_t> file) {
  namespace layout = devices::camera_layout;
  le::ByteCursor in(file);
  std::uint8_t signature[layout::kSignatureSize] = {};
  in.read(signature, sizeof signature);
  if (std::memcmp(signature, layout::kSignature, sizeof signature) != 0) return 0;
  std::uint32_t timeStamps = 0, textLength = 0, headerValue = 0;
  in.field(timeStamps);
  in.field(textLength);
  std::uint64_t largest = textLength;
  in.skip(textLength);
  in.field(headerValue);
  std::uint32_t imageSize = 0;
  while (!in.overrun()) {
    if (timeStamps != 0) in.skip(layout::kTimeStampSize);
    in.skip(layout::kRecordFixedSize - 4);
    in.field(imageSize);
    largest = imageSize > largest ? imageSize : largest;
    in.skip(imageSize);
  }
  return largest;
}

// True when the tick file loader would meet a sentence record of 1024 bytes or
// more, which stops the process by design. Record fields carry over from record
// to record as the loader keeps them.
inline bool TickFileReachesOversizedSentence(std::span<const std::uint8_t> file) {
  namespace layout = nmea::layout;
  le::ByteCursor in(file);
  std::uint8_t signature[layout::kSignatureSize] = {};
  in.read(signature, sizeof signature);
  if (std::memcmp(signature, layout::kSignature, sizeof signature) != 0) return false;
  std::uint32_t version = 0, headerWord = 0;
  in.field(version);
  if (version == 0) return false;
  in.field(headerWord);
  if (in.overrun()) return false;
  std::uint64_t ticks = 0;
  std::uint32_t type = 0, reserved = 0, length = 0;
  do {
    in.field(ticks);
    in.field(type);
    if (type == layout::kPulseRecordType) continue;
    in.field(reserved);
    in.field(reserved);
    in.field(length);
    if (length >= layout::kSentenceBufferSize) return true;
    in.skip(length);
  } while (!in.overrun());
  return false;
}

}  // namespace kvr::test
