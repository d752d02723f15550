#include "kvr_writers/fifo_block_writer.h"

#include <algorithm>

namespace kvr::writers {

void PutBlockHeader(std::span<std::uint8_t> block, const BlockHeaderFields& f) {
  using namespace fifo::layout;
  const std::uint32_t packed = static_cast<std::uint32_t>((f.timeStamp >> 32) & kTimeStampHighMask) |
                               ((f.castBlockNumber << kCastBlockNumberShift) & kCastBlockNumberMask) |
                               ((f.shotCount & kMaxShotCount) << kShotCountShift);
  le::StoreU32(block.data() + kSignatureOffset, f.signature);
  le::StoreU32(block.data() + kTimeStampLowOffset, static_cast<std::uint32_t>(f.timeStamp));
  le::StoreU32(block.data() + kPackedWordOffset, packed);
}

void FifoBlockWriter::clear() {
  std::fill(block_.begin(), block_.end(), std::uint8_t{0});
  offset_ = kBlockHeaderSize;
  shotsAdded_ = 0;
}

void FifoBlockWriter::putClipped(std::uint64_t word, std::span<const std::uint32_t> returns) {
  // The record's bytes, then as many of them as the block still has room for.
  le::ByteBuilder record;
  record.u64(word);
  for (const std::uint32_t value : returns) record.u32(value);
  if (offset_ < kFifoBlockSize) {
    const std::size_t room = std::min(record.size(), kFifoBlockSize - offset_);
    std::copy_n(record.bytes().begin(), room, block_.begin() + static_cast<std::ptrdiff_t>(offset_));
  }
}

std::span<const std::uint8_t> FifoBlockWriter::finish(BlockHeaderFields header, std::optional<std::uint32_t> shotCount) {
  header.shotCount = shotCount.value_or(shotsAdded_);
  PutBlockHeader(block_, header);
  return block_;
}

FifoBlockBuilder& FifoBlockBuilder::shot(std::uint64_t word, const std::vector<std::uint32_t>& returns) {
  writer_.addShot(word, returns);
  shots_.push_back({word, returns});
  return *this;
}

std::vector<std::uint8_t> FifoBlockBuilder::build() const {
  std::vector<std::uint8_t> block(writer_.bytes().begin(), writer_.bytes().end());
  BlockHeaderFields header = header_;
  header.shotCount = shotCount_.value_or(static_cast<std::uint32_t>(shots_.size()));
  PutBlockHeader(block, header);
  return block;
}

std::vector<std::uint8_t> FifoFile(const std::vector<std::vector<std::uint8_t>>& blocks, std::size_t tailBytes,
                                   const std::vector<std::uint8_t>& prefix) {
  std::vector<std::uint8_t> file = prefix;
  for (const auto& block : blocks) file.insert(file.end(), block.begin(), block.end());
  file.resize(file.size() + tailBytes, 0);
  return file;
}

}  // namespace kvr::writers
