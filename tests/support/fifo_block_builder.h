#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

// Builders of FIFO blocks: shot words from their fields, return words, whole
// 65536-byte blocks (including damaged ones) and synthetic scans of many blocks.
namespace kvr::test {

inline constexpr std::size_t kFifoBlockSize = 65536;
inline constexpr std::uint32_t kGoodBlockSignature = 0xAAAAAAAA;

// The bit fields of a shot word; each is cut to its width.
struct ShotFields {
  std::uint32_t pan = 0;          // bits 0-19
  std::uint32_t scan = 0;         // bits 20-37
  std::uint32_t returnCount = 0;  // bits 38-40
  std::uint32_t t0 = 0;           // bits 41-56
  std::uint32_t flags = 0;        // bits 57-60
  std::uint32_t topBits = 0;      // bits 61-63 (bit 62: scan direction)
};
std::uint64_t ShotWord(const ShotFields& fields);

// A return word: time count in bits 0-19, intensity in bits 20-31.
std::uint32_t ReturnWord(std::uint32_t timeCount, std::uint32_t intensity);

// One shot record as laid into a block.
struct ShotRecord {
  std::uint64_t word = 0;
  std::vector<std::uint32_t> returns;
};

class FifoBlockBuilder {
 public:
  FifoBlockBuilder& signature(std::uint32_t value) { signature_ = value; return *this; }
  FifoBlockBuilder& timeStamp(std::uint64_t ticks) { timeStamp_ = ticks; return *this; }         // 40 bits
  FifoBlockBuilder& castBlockNumber(std::uint32_t n) { castBlockNumber_ = n; return *this; }    // 11 bits
  // The declared shot count (13 bits); without it, the number of shots added.
  FifoBlockBuilder& shotCount(std::uint32_t n) { shotCount_ = n; return *this; }

  // Lays down a shot word and exactly the given return words, whatever the word's
  // return count says. Bytes that would lie past the block are dropped, so a
  // builder can run a record off the end.
  FifoBlockBuilder& shot(std::uint64_t word, const std::vector<std::uint32_t>& returns = {});

  // Where the next record starts (may lie past the block).
  std::size_t offset() const { return offset_; }
  bool fits(std::size_t returnWords) const { return offset_ + 8 + 4 * returnWords <= kFifoBlockSize; }
  const std::vector<ShotRecord>& shots() const { return shots_; }

  // The 65536 bytes of the block.
  std::vector<std::uint8_t> build() const;

 private:
  void put(std::uint64_t value, std::size_t width);

  std::uint32_t signature_ = kGoodBlockSignature;
  std::uint64_t timeStamp_ = 0;
  std::uint32_t castBlockNumber_ = 0;
  std::int64_t shotCount_ = -1;
  std::vector<std::uint8_t> area_ = std::vector<std::uint8_t>(kFifoBlockSize, 0);
  std::size_t offset_ = 12;
  std::vector<ShotRecord> shots_;
};

// The bytes of a scan file: `prefix` (a header block padded to its data offset, or
// nothing), the blocks, then `tailBytes` zero bytes of a cut-off last block.
std::vector<std::uint8_t> FifoFile(const std::vector<std::vector<std::uint8_t>>& blocks, std::size_t tailBytes = 0,
                                   const std::vector<std::uint8_t>& prefix = {});

// A deterministic synthetic scan: the mirror sweeps the 18-bit scan count up and
// down (bit 62 set on the way up), the pan count steps once per line, returns lie
// up to ~200 m behind T0 with random intensities, and about one shot in 500
// carries flags. Blocks are filled until the next shot would not fit, and their
// time stamps advance by one PRF period per shot.
class SyntheticScan {
 public:
  // Return counts are drawn uniformly from 0..maxReturnCount (at most 7; the
  // record stores at most four words).
  SyntheticScan(std::uint64_t seed, std::uint32_t prf, std::uint32_t maxReturnCount = 4);

  FifoBlockBuilder NextBlock();

 private:
  ShotRecord NextShot();

  std::mt19937_64 random_;
  std::uint64_t periodTicks_;
  std::uint32_t maxReturnCount_;
  std::uint64_t timeStamp_ = 123456789;
  std::uint32_t castBlockNumber_ = 0;
  std::uint32_t pan_ = 0;
  std::uint32_t scan_ = 0;
  bool upward_ = true;
};

}  // namespace kvr::test
