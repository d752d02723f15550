#pragma once

#include <cstddef>
#include <cstdint>

// A FIFO block as it lies in a scan file: a 12-byte DMA block header, then shot
// records packed back to back (a 64-bit shot word, then one 32-bit word per
// return). Header-only and dependency-free: tools, writers and tests read it too.
namespace kvr::fifo {

inline constexpr std::size_t SIZEOFFIFOBLOCK = 65536;

namespace layout {

inline constexpr std::size_t kBlockSize = SIZEOFFIFOBLOCK;
inline constexpr std::uint32_t kBlockSignature = 0xAAAAAAAAu;

// DMA block header words.
inline constexpr std::size_t kSignatureOffset = 0;
inline constexpr std::size_t kTimeStampLowOffset = 4;  // bits 0-31 of the 40-bit time stamp
inline constexpr std::size_t kPackedWordOffset = 8;    // time stamp bits 32-39, cast block number, shot count
inline constexpr std::size_t kDmaBlockHeaderSize = 12;

// Fields of the packed word.
inline constexpr std::uint32_t kTimeStampHighMask = 0xFFu;
inline constexpr std::uint32_t kCastBlockNumberMask = 0x7FF00u;
inline constexpr int kCastBlockNumberShift = 8;
inline constexpr int kShotCountShift = 19;
inline constexpr std::uint32_t kMaxShotCount = 8191;

// Shot records.
inline constexpr std::size_t kShotWordSize = 8;
inline constexpr std::size_t kReturnWordSize = 4;
inline constexpr std::uint32_t kMaxStoredReturns = 4;
inline constexpr std::size_t kShotAreaSize = kBlockSize - kDmaBlockHeaderSize;

}  // namespace layout
}  // namespace kvr::fifo
