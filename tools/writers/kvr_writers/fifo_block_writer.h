#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "fifo/block_layout.h"
#include "platform/little_endian.h"

// FIFO blocks of a raw scan file: 65536 bytes each, a 12-byte DmaBlockHeader,
// then shot records packed back to back (a 64-bit shot word and one 32-bit word
// per return).
namespace kvr::writers {

inline constexpr std::size_t kFifoBlockSize = fifo::layout::kBlockSize;
inline constexpr std::size_t kBlockHeaderSize = fifo::layout::kDmaBlockHeaderSize;
inline constexpr std::uint32_t kGoodBlockSignature = fifo::layout::kBlockSignature;
inline constexpr std::uint32_t kMaxShotsPerBlock = fifo::layout::kMaxShotCount;  // the 13-bit count of the header

// The bit fields of a shot word; each is cut to its width.
struct ShotFields {
  std::uint32_t pan = 0;          // bits 0-19
  std::uint32_t scan = 0;         // bits 20-37
  std::uint32_t returnCount = 0;  // bits 38-40
  std::uint32_t t0 = 0;           // bits 41-56
  std::uint32_t flags = 0;        // bits 57-60
  std::uint32_t topBits = 0;      // bits 61-63 (bit 62, topBits 2: scan direction)
};

constexpr std::uint64_t ShotWord(const ShotFields& f) {
  return (std::uint64_t{f.pan} & 0xFFFFF) | ((std::uint64_t{f.scan} & 0x3FFFF) << 20) |
         ((std::uint64_t{f.returnCount} & 7) << 38) | ((std::uint64_t{f.t0} & 0xFFFF) << 41) |
         ((std::uint64_t{f.flags} & 0xF) << 57) | ((std::uint64_t{f.topBits} & 7) << 61);
}

inline constexpr std::uint64_t kDirectionBit = std::uint64_t{1} << 62;

// A return word: time count in bits 0-19, intensity in bits 20-31.
constexpr std::uint32_t ReturnWord(std::uint32_t timeCount, std::uint32_t intensity) {
  return (timeCount & 0xFFFFF) | ((intensity & 0xFFF) << 20);
}

struct BlockHeaderFields {
  std::uint32_t signature = kGoodBlockSignature;
  std::uint64_t timeStamp = 0;        // 40 bits of 20 ns ticks
  std::uint32_t castBlockNumber = 0;  // 11 bits
  std::uint32_t shotCount = 0;        // 13 bits
};

// Writes the 12 header bytes at the start of a block.
void PutBlockHeader(std::span<std::uint8_t> block, const BlockHeaderFields& fields);

// Packs shot records into one reusable 65536-byte block. Adding a shot neither
// allocates nor checks the declared return count against the words given.
class FifoBlockWriter {
 public:
  FifoBlockWriter() : block_(kFifoBlockSize, 0) {}

  // Back to an empty, zero-filled block.
  void clear();

  // Whether a record with this many return words still fits wholly.
  bool fits(std::size_t returnWords) const { return offset_ + kShotWord + kReturnWord * returnWords <= kFifoBlockSize; }

  // Lays down a shot word and the given return words. Bytes that would lie past
  // the block are dropped, so a writer can run a record off the end on purpose.
  void addShot(std::uint64_t word, std::span<const std::uint32_t> returns) {
    if (fits(returns.size())) {
      put(offset_, word, kShotWord);
      for (std::size_t k = 0; k < returns.size(); ++k) put(offset_ + kShotWord + kReturnWord * k, returns[k], kReturnWord);
    } else {
      putClipped(word, returns);
    }
    offset_ += kShotWord + kReturnWord * returns.size();
    ++shotsAdded_;
  }

  // Where the next record starts (may lie past the block).
  std::size_t offset() const { return offset_; }
  std::uint32_t shotsAdded() const { return shotsAdded_; }

  // Writes the header (the shot count defaults to the shots added) and returns the block.
  std::span<const std::uint8_t> finish(BlockHeaderFields header, std::optional<std::uint32_t> shotCount = {});
  std::span<const std::uint8_t> bytes() const { return block_; }

 private:
  static constexpr std::size_t kShotWord = fifo::layout::kShotWordSize;
  static constexpr std::size_t kReturnWord = fifo::layout::kReturnWordSize;
  void put(std::size_t at, std::uint64_t value, std::size_t width) { le::StoreLow(block_.data() + at, value, width); }
  void putClipped(std::uint64_t word, std::span<const std::uint32_t> returns);

  std::vector<std::uint8_t> block_;
  std::size_t offset_ = kBlockHeaderSize;
  std::uint32_t shotsAdded_ = 0;
};

// One shot record as laid into a block.
struct ShotRecord {
  std::uint64_t word = 0;
  std::vector<std::uint32_t> returns;
};

// A block built by hand, shot by shot, remembering what was laid down.
class FifoBlockBuilder {
 public:
  FifoBlockBuilder& signature(std::uint32_t value) { header_.signature = value; return *this; }
  FifoBlockBuilder& timeStamp(std::uint64_t ticks) { header_.timeStamp = ticks; return *this; }
  FifoBlockBuilder& castBlockNumber(std::uint32_t n) { header_.castBlockNumber = n; return *this; }
  // The declared shot count; without it, the number of shots added.
  FifoBlockBuilder& shotCount(std::uint32_t n) { shotCount_ = n; return *this; }

  // Exactly the given return words, whatever the word's return count says.
  FifoBlockBuilder& shot(std::uint64_t word, const std::vector<std::uint32_t>& returns = {});

  std::size_t offset() const { return writer_.offset(); }
  bool fits(std::size_t returnWords) const { return writer_.fits(returnWords); }
  const std::vector<ShotRecord>& shots() const { return shots_; }

  // The 65536 bytes of the block.
  std::vector<std::uint8_t> build() const;

 private:
  BlockHeaderFields header_;
  std::optional<std::uint32_t> shotCount_;
  FifoBlockWriter writer_;
  std::vector<ShotRecord> shots_;
};

// The bytes of a scan file: `prefix` (a header block padded to its data offset, or
// nothing), the blocks, then `tailBytes` zero bytes of a cut-off last block.
std::vector<std::uint8_t> FifoFile(const std::vector<std::vector<std::uint8_t>>& blocks, std::size_t tailBytes = 0,
                                   const std::vector<std::uint8_t>& prefix = {});

}  // namespace kvr::writers
