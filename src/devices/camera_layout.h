#pragma once

#include <cstddef>
#include <cstdint>

// The camera file: "#KVRCAMR", a time-stamp flag, a text of stated length and a
// header value; then records, each an optional 8-byte time stamp, six u32
// values, an image size S and S image bytes. Header-only and dependency-free:
// tools, writers and tests read it too.
namespace kvr::devices::camera_layout {

inline constexpr char kSignature[] = "#KVRCAMR";
inline constexpr std::size_t kSignatureSize = 8;
inline constexpr std::size_t kTimeStampFlagOffset = 8;
inline constexpr std::size_t kTextLengthOffset = 12;
inline constexpr std::size_t kTextOffset = 16;
// The header without its text: signature, flag, length and the header value.
inline constexpr std::size_t kHeaderSizeWithoutText = 20;

inline constexpr std::size_t kTimeStampSize = 8;  // only when the flag is non-zero
inline constexpr std::size_t kRecordValueCount = 6;
// Six values and the image size, before the image.
inline constexpr std::size_t kRecordFixedSize = 28;

constexpr std::size_t RecordHeadSize(bool timeStamps) {
  return (timeStamps ? kTimeStampSize : 0) + kRecordFixedSize;
}

static_assert(kRecordFixedSize == kRecordValueCount * 4 + 4);

}  // namespace kvr::devices::camera_layout
