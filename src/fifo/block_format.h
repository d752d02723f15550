#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "fifo/block_layout.h"
#include "platform/little_endian.h"

// Field accessors over a FIFO block (layout in fifo/block_layout.h).
namespace kvr::fifo {

using BlockBytes = std::span<const std::uint8_t, SIZEOFFIFOBLOCK>;

using layout::kDmaBlockHeaderSize;

struct DmaBlockHeader {
  std::uint32_t signature = 0;           // layout::kBlockSignature in a good block
  std::uint64_t cycleSyncTimeStamp = 0;  // 40 bits, 20 ns ticks
  std::uint32_t castBlockNumber = 0;     // the acquisition hardware's 11-bit block counter
  std::uint32_t shotCount = 0;           // 13 bits: 0-8191
};

// Bytes 8-11 pack the time stamp's top byte, the cast block number and the shot count.
inline std::uint32_t ShotCount(BlockBytes block) {
  return le::LoadU32(block.data() + layout::kPackedWordOffset) >> layout::kShotCountShift;
}

inline DmaBlockHeader ReadDmaBlockHeader(BlockBytes block) {
  const std::uint32_t packed = le::LoadU32(block.data() + layout::kPackedWordOffset);
  return {le::LoadU32(block.data() + layout::kSignatureOffset),
          le::LoadU32(block.data() + layout::kTimeStampLowOffset) |
              (std::uint64_t{packed & layout::kTimeStampHighMask} << 32),
          (packed & layout::kCastBlockNumberMask) >> layout::kCastBlockNumberShift,
          packed >> layout::kShotCountShift};
}

// Shot word fields. Bits 61-63 are kept in the stored word, not decoded here.
inline constexpr std::uint64_t kShotFlagBits = std::uint64_t{0xF} << 57;
inline std::uint32_t PanCounts(std::uint64_t shotWord) { return static_cast<std::uint32_t>(shotWord) & 0xFFFFFu; }
// The start (T0) count the return words' stop counts are measured against.
inline std::uint32_t StartCounts(std::uint64_t shotWord) { return static_cast<std::uint32_t>(shotWord >> 41) & 0xFFFFu; }
inline std::uint32_t ShotFlags(std::uint64_t shotWord) { return static_cast<std::uint32_t>(shotWord >> 57) & 0xFu; }
inline std::uint32_t ScanAngleCounts(std::uint64_t shotWord) {
  return static_cast<std::uint32_t>(shotWord >> 20) & 0x3FFFFu;
}
// The 3-bit return count; a record stores at most four return words whatever it says.
inline std::uint32_t ReturnCount(std::uint64_t shotWord) { return static_cast<std::uint32_t>(shotWord >> 38) & 7u; }
inline std::uint32_t StoredReturnCount(std::uint64_t shotWord) {
  const std::uint32_t count = ReturnCount(shotWord);
  return count < 4 ? count : 4;
}

// Return word fields: the stop count (20 bits) and the raw intensity (12 bits).
inline std::uint32_t StopCounts(std::uint32_t returnWord) { return returnWord & 0xFFFFFu; }
inline std::uint32_t RawIntensity(std::uint32_t returnWord) { return returnWord >> 20; }

}  // namespace kvr::fifo
