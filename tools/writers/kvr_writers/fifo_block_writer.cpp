#include "kvr_writers/fifo_block_writer.h"

#include <algorithm>

namespace kvr::writers {

void PutBlockHeader(std::span<std::uint8_t> block, const BlockHeaderFields& f) {
  using namespace fifo::layout;
  const std::uint32_t packed = static_cast<std::uint32_t>((f.timeStamp >> 32) & kTimeStampHighMask) |
                               ((f.castBlockNumber << kCastBlockNumberShift) & kCastBlockNumberMask) |
                               ((f.shotCount & kMaxShotCount) << kShotCountShift);
  const std::uint32_t words[3] = {f.signature, static_cast<std::uint32_t>(f.timeStamp), packed};
  for (int w = 0; w < 3; ++w) {
    for (int b = 0; b < 4; ++b) block[4 * w + b] = static_cast<std::uint8_t>(words[w] >> (8 * b));
  }
}

void FifoBlockWriter::clear() {
  std::fill(block_.begin(), block_.end(), std::uint8_t{0});
  offset_ = kBlockHeaderSize;
  shotsAdded_ = 0;
}

void FifoBlockWriter::putClipped(std::uint64_t word, std::span<const std::uint32_t> returns) {
  const auto putByte = [this](std::size_t at, std::uint8_t value) {
    if (at < kFifoBlockSize) block_[at] = value;
  };
  for (std::size_t i = 0; i < kShotWord; ++i) putByte(offset_ + i, static_cast<std::uint8_t>(word >> (8 * i)));
  for (std::size_t k = 0; k < returns.size(); ++k) {
    const std::size_t at = offset_ + kShotWord + kReturnWord * k;
    for (std::size_t i = 0; i < kReturnWord; ++i) putByte(at + i, static_cast<std::uint8_t>(returns[k] >> (8 * i)));
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
