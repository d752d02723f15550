#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <type_traits>

#include "devices/camera_layout.h"
#include "header/header_layout.h"
#include "nmea/tick_layout.h"

namespace kvr::test {

// A model of reading bytes as a file: reads that go past the end return what is
// there and set the end-of-file state, as fread does, and a field read short
// keeps the bytes it had beyond those that arrived, as the library's field reads
// do. Fuzz targets and damaged-file tests use it to see which lengths a reader
// will meet before handing it a file.
class ReadModel {
 public:
  explicit ReadModel(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}

  std::size_t read(void* out, std::size_t n) {
    if (n == 0) return 0;
    const std::size_t left = bytes_.size() - position_;
    const std::size_t got = n < left ? n : left;
    if (out != nullptr && got > 0) std::memcpy(out, bytes_.data() + position_, got);
    position_ += got;
    if (got < n) ended_ = true;
    return got;
  }
  void skip(std::uint64_t n) {
    const std::size_t left = bytes_.size() - position_;
    if (n > left) {
      position_ = bytes_.size();
      ended_ = true;
    } else {
      position_ += static_cast<std::size_t>(n);
    }
  }

  template <typename T>
    requires std::is_unsigned_v<T>
  void readField(T& field) {
    std::uint8_t arrived[sizeof(T)];
    const std::size_t got = read(arrived, sizeof(T));
    for (std::size_t i = 0; i < got; ++i) {
      field = static_cast<T>((field & ~(T{0xFF} << (8 * i))) | (T{arrived[i]} << (8 * i)));
    }
  }

  bool ended() const { return ended_; }
  std::size_t position() const { return position_; }

 private:
  std::span<const std::uint8_t> bytes_;
  std::size_t position_ = 0;
  bool ended_ = false;
};

// The largest text length ReadFileHeader meets in a scan file (0 when the magic
// is not a scan magic, as nothing more is read then).
inline std::uint64_t LargestScanHeaderText(std::span<const std::uint8_t> scan) {
  namespace layout = header::layout;
  ReadModel in(scan);
  std::uint8_t magic[layout::kSignature.size] = {};
  in.read(magic, sizeof magic);
  bool known = false;
  for (const char* m : {layout::kMagicMx700Dat, layout::kMagicKvrScan, layout::kMagicMx70Dat}) {
    known = known || std::memcmp(magic, m, sizeof magic) == 0;
  }
  if (!known) return 0;
  std::uint32_t headerLayout = 0;
  in.readField(headerLayout);
  in.skip(layout::kFixedPartSize - layout::kDataOffset.offset);
  std::uint64_t largest = 0;
  for (int text = 0; text < layout::TextCount(headerLayout); ++text) {
    std::uint32_t length = 0;
    in.readField(length);
    largest = length > largest ? length : largest;
    in.skip(length);
  }
  return largest;
}

// The largest text length or image size the camera reader meets in a camera
// file walked record by record to its end (0 when the magic is wrong).
inline std::uint64_t LargestCameraFileClaim(std::span<const std::uint8_t> file) {
  namespace layout = devices::camera_layout;
  ReadModel in(file);
  std::uint8_t signature[layout::kSignatureSize] = {};
  in.read(signature, sizeof signature);
  if (std::memcmp(signature, layout::kSignature, sizeof signature) != 0) return 0;
  std::uint32_t timeStamps = 0, textLength = 0, headerValue = 0;
  in.readField(timeStamps);
  in.readField(textLength);
  std::uint64_t largest = textLength;
  in.skip(textLength);
  in.readField(headerValue);
  std::uint32_t imageSize = 0;
  while (!in.ended()) {
    if (timeStamps != 0) in.skip(layout::kTimeStampSize);
    in.skip(layout::kRecordFixedSize - 4);
    in.readField(imageSize);
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
  ReadModel in(file);
  std::uint8_t signature[layout::kSignatureSize] = {};
  in.read(signature, sizeof signature);
  if (std::memcmp(signature, layout::kSignature, sizeof signature) != 0) return false;
  std::uint32_t version = 0, headerWord = 0;
  in.readField(version);
  if (version == 0) return false;
  in.readField(headerWord);
  if (in.ended()) return false;
  std::uint64_t ticks = 0;
  std::uint32_t type = 0, reserved = 0, length = 0;
  do {
    in.readField(ticks);
    in.readField(type);
    if (type == layout::kPulseRecordType) continue;
    in.readField(reserved);
    in.readField(reserved);
    in.readField(length);
    if (length >= layout::kSentenceBufferSize) return true;
    in.skip(length);
  } while (!in.ended());
  return false;
}

}  // namespace kvr::test
