#pragma once

#include <cstddef>
#include <cstdint>

// The tick file ("Serial.dat"): a 16-byte header, then records up to the end of
// the file. A pulse record is ticks (u64) and type 1 (u32); any other type is a
// sentence record that goes on with two ignored words, a text length (u32) and
// the text. Header-only and dependency-free: tools, writers and tests read it too.
namespace kvr::nmea::layout {

inline constexpr char kSignature[] = "#KVRSERL";
inline constexpr std::size_t kSignatureSize = 8;
inline constexpr std::size_t kVersionOffset = 8;     // u32; 0 is refused
inline constexpr std::size_t kHeaderWordOffset = 12;  // u32; ignored
inline constexpr std::size_t kHeaderSize = 16;

// Offsets inside a record.
inline constexpr std::size_t kTicksOffset = 0;
inline constexpr std::size_t kTypeOffset = 8;
inline constexpr std::size_t kReservedOffset = 12;  // two u32
inline constexpr std::size_t kLengthOffset = 20;
inline constexpr std::size_t kPulseRecordSize = 12;
inline constexpr std::size_t kSentenceRecordFixedSize = 24;  // the text follows

inline constexpr std::uint32_t kPulseRecordType = 1;
// A sentence is read into a buffer of this size and terminated after its text,
// so lengths must stay below it.
inline constexpr std::size_t kSentenceBufferSize = 1024;
inline constexpr std::uint32_t kLongestSentence = kSentenceBufferSize - 1;

}  // namespace kvr::nmea::layout
