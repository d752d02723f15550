#pragma once

#include <cstdint>
#include <string>

#include "kvr_decode/raw_shot.h"
#include "progress.h"
#include "scan_source.h"

class NmeaTicksManager;

namespace kvrscan {

// Walks the blocks of a scan from the first on, through the library's block
// reader, into one reused FifoBlock. Blocks with a bad signature are counted and
// passed over (the library has logged them); the walk ends at the first short read.
class BlockWalk {
 public:
  BlockWalk(ScanSource& scan, NmeaTicksManager* ticks, Progress* progress = nullptr);

  // Decodes the next good block; false at the end of the file.
  bool next() { return next(block_); }
  // The same into the caller's block (one of several in flight).
  bool next(FifoBlock& block);

  const FifoBlock& block() const { return block_; }
  std::uint32_t blockNumber() const { return blockNumber_; }  // of the block last decoded
  std::uint64_t blocksRead() const { return blocksRead_; }
  std::uint64_t badBlocks() const { return badBlocks_; }

  // What the walk found wrong with the file, as one clause ("" when nothing):
  // blocks with a bad signature, a cut-off last block, shots the library could
  // not finish (it logged them).
  std::string damage(bool libraryLogGrew) const;

 private:
  ScanSource& scan_;
  NmeaTicksManager* ticks_;
  Progress* progress_;
  FifoBlock block_;
  std::uint32_t blockNumber_ = 0;
  std::uint64_t blocksRead_ = 0;
  std::uint64_t badBlocks_ = 0;
  std::uint64_t firstBadBlock_ = 0;
};

// The clause damage() gives, for a walk that skipped `badBlocks` blocks with a
// bad signature, the first of them `firstBadBlock`.
std::string DescribeScanDamage(const ScanSource& scan, std::uint64_t badBlocks, std::uint64_t firstBadBlock,
                               bool libraryLogGrew);

}  // namespace kvrscan
