#include "block_walk.h"

#include <vector>

#include "kvr_decode/fifo_block.h"

namespace kvrscan {

BlockWalk::BlockWalk(ScanSource& scan, NmeaTicksManager* ticks, Progress* progress)
    : scan_(scan), ticks_(ticks), progress_(progress) {
  block_.shots.reserve(8192);
}

bool BlockWalk::next(FifoBlock& block) {
  for (;;) {
    const auto number = static_cast<int>(blocksRead_);
    const int result = DecodeNextFifoBlock(scan_.stream(), scan_.header(), number, block, ticks_);
    if (result == -1) return false;
    ++blocksRead_;
    if (progress_ != nullptr) progress_->update(blocksRead_, scan_.wholeBlocks());
    // The library appends flagged shots from block to block; nothing here reads them.
    block.flaggedShots.clear();
    if (result == -2) {
      if (badBlocks_++ == 0) firstBadBlock_ = blocksRead_ - 1;
      continue;
    }
    blockNumber_ = static_cast<std::uint32_t>(blocksRead_ - 1);
    return true;
  }
}

std::string BlockWalk::damage(bool libraryLogGrew) const {
  return DescribeScanDamage(scan_, badBlocks_, firstBadBlock_, libraryLogGrew);
}

std::string DescribeScanDamage(const ScanSource& scan, std::uint64_t badBlocks, std::uint64_t firstBadBlock,
                               bool libraryLogGrew) {
  std::vector<std::string> parts;
  if (badBlocks > 0) {
    parts.push_back(std::to_string(badBlocks) + (badBlocks == 1 ? " block" : " blocks") +
                    " with a bad signature skipped (first: block " + std::to_string(firstBadBlock) + ")");
  }
  if (scan.trailingBytes() > 0) {
    parts.push_back("the file ends inside block " + std::to_string(scan.wholeBlocks()) + " (" +
                    std::to_string(scan.trailingBytes()) + " of 65536 bytes; ignored)");
  }
  if (libraryLogGrew && badBlocks == 0) parts.push_back("the library reported damaged blocks");
  std::string text;
  for (std::size_t i = 0; i < parts.size(); ++i) text += (i > 0 ? "; " : "") + parts[i];
  return text;
}

}  // namespace kvrscan
