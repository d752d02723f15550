#pragma once

#include <cstddef>
#include <cstdint>

// The device data file: "#KVRDEVC", a signed version, from version 93 on two
// calibration blocks (a u32 byte count and that many bytes of text each), then
// records up to the end of the file: time (u64), type (u32), payload size (u32),
// payload. Header-only and dependency-free: tools, writers and tests read it too.
namespace kvr::devices::device_layout {

inline constexpr char kSignature[] = "#KVRDEVC";
inline constexpr std::size_t kSignatureSize = 8;
inline constexpr std::size_t kVersionOffset = 8;
inline constexpr std::size_t kHeaderSizeWithoutCalibration = 12;
// Versions after this one carry the two calibration blocks.
inline constexpr std::int32_t kLastVersionWithoutCalibration = 92;
// A calibration text is read into a buffer of this size.
inline constexpr std::size_t kCalibrationTextCapacity = 1024;

// A record's head: time, type, payload size.
inline constexpr std::size_t kRecordHeadSize = 16;
inline constexpr std::size_t kTimeSize = 8;

// Payload bytes of the types that have a reader (1 to 8); index 0 and any
// other type have none and are skipped by their stated size.
inline constexpr std::size_t kPayloadSizes[] = {0, 24, 28, 20, 8, 24, 24, 36, 4};
inline constexpr std::size_t kLargestPayload = 36;
inline constexpr std::uint32_t kLastTypeWithReader = 8;

constexpr std::size_t PayloadSize(std::uint32_t type) {
  return type <= kLastTypeWithReader ? kPayloadSizes[type] : 0;
}

}  // namespace kvr::devices::device_layout
