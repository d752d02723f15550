#pragma once

#include <cstddef>
#include <cstdint>

// The map file: a flat run of little-endian fields. The fixed fields up to the
// scan file name lie at the offsets below; after the name, positions follow
// from the counts. Header-only and dependency-free: tools, writers and tests
// read it too.
namespace kvr::scanmap::map_layout {

inline constexpr std::size_t kCurrentLineFlagOffset = 0;
inline constexpr std::size_t kMaxShotsPerLineOffset = 4;
inline constexpr std::size_t kNumberOfScanLinesOffset = 8;
inline constexpr std::size_t kShotsInCurrentLineOffset = 12;
inline constexpr std::size_t kSpareAOffset = 16;
inline constexpr std::size_t kMaxReturnsPerShotOffset = 20;  // u16
inline constexpr std::size_t kDataStartOffsetOffset = 22;
inline constexpr std::size_t kSignatureOffset = 26;
inline constexpr std::size_t kBlockCountOffset = 34;
inline constexpr std::size_t kMaxShotsPerBlockOffset = 38;
inline constexpr std::size_t kNameLengthOffset = 42;  // i32: the name's length + 1
inline constexpr std::size_t kNameOffset = 46;        // the name and its terminator

inline constexpr char kSignature[] = "#KVRMAPF";
inline constexpr std::size_t kSignatureSize = 8;
// Version 1 adds the return counts, version 2 the trailing bin width.
inline constexpr std::uint32_t kVersion = 2;
inline constexpr std::size_t kReturnCountCount = 4;
// The loaded name's field in the map record.
inline constexpr std::size_t kNameFieldSize = 1024;

// One scan line record: key, blockNumber, shotIndexInBlock, lineFlag,
// shotCount, K (4 bytes each), then K u32 event shots.
inline constexpr std::size_t kEntryFixedSize = 24;
inline constexpr std::size_t kEventShotSize = 4;

}  // namespace kvr::scanmap::map_layout
