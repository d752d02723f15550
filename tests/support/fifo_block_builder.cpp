#include "support/fifo_block_builder.h"

namespace kvr::test {

std::uint64_t ShotWord(const ShotFields& f) {
  return (std::uint64_t{f.pan} & 0xFFFFF) | ((std::uint64_t{f.scan} & 0x3FFFF) << 20) |
         ((std::uint64_t{f.returnCount} & 7) << 38) | ((std::uint64_t{f.t0} & 0xFFFF) << 41) |
         ((std::uint64_t{f.flags} & 0xF) << 57) | ((std::uint64_t{f.topBits} & 7) << 61);
}

std::uint32_t ReturnWord(std::uint32_t timeCount, std::uint32_t intensity) {
  return (timeCount & 0xFFFFF) | ((intensity & 0xFFF) << 20);
}

void FifoBlockBuilder::put(std::uint64_t value, std::size_t width) {
  for (std::size_t i = 0; i < width; ++i, ++offset_) {
    if (offset_ < kFifoBlockSize) area_[offset_] = static_cast<std::uint8_t>(value >> (8 * i));
  }
}

FifoBlockBuilder& FifoBlockBuilder::shot(std::uint64_t word, const std::vector<std::uint32_t>& returns) {
  put(word, 8);
  for (std::uint32_t r : returns) put(r, 4);
  shots_.push_back({word, returns});
  return *this;
}

std::vector<std::uint8_t> FifoBlockBuilder::build() const {
  std::vector<std::uint8_t> block = area_;
  const std::uint32_t count = shotCount_ >= 0 ? static_cast<std::uint32_t>(shotCount_)
                                              : static_cast<std::uint32_t>(shots_.size());
  const std::uint32_t packed = static_cast<std::uint32_t>((timeStamp_ >> 32) & 0xFF) |
                               ((castBlockNumber_ & 0x7FF) << 8) | ((count & 0x1FFF) << 19);
  const std::uint32_t header[3] = {signature_, static_cast<std::uint32_t>(timeStamp_), packed};
  for (int w = 0; w < 3; ++w) {
    for (int b = 0; b < 4; ++b) block[4 * w + b] = static_cast<std::uint8_t>(header[w] >> (8 * b));
  }
  return block;
}

std::vector<std::uint8_t> FifoFile(const std::vector<std::vector<std::uint8_t>>& blocks, std::size_t tailBytes,
                                   const std::vector<std::uint8_t>& prefix) {
  std::vector<std::uint8_t> file = prefix;
  for (const auto& block : blocks) file.insert(file.end(), block.begin(), block.end());
  file.resize(file.size() + tailBytes, 0);
  return file;
}

SyntheticScan::SyntheticScan(std::uint64_t seed, std::uint32_t prf, std::uint32_t maxReturnCount)
    : random_(seed), periodTicks_(50000 / prf), maxReturnCount_(maxReturnCount) {}

ShotRecord SyntheticScan::NextShot() {
  constexpr std::uint32_t kScanStep = 97;  // about 2700 shots per line
  constexpr std::uint32_t kScanTop = 0x3FFFF;
  if (upward_ && scan_ + kScanStep > kScanTop) upward_ = false;
  if (!upward_ && scan_ < kScanStep) {
    upward_ = true;
    pan_ = (pan_ + 1) & 0xFFFFF;
  }
  scan_ = upward_ ? scan_ + kScanStep : scan_ - kScanStep;

  ShotRecord shot;
  const auto draw = [this](std::uint32_t bound) { return static_cast<std::uint32_t>(random_() % bound); };
  const std::uint32_t returnCount = draw(maxReturnCount_ + 1);
  const std::uint32_t t0 = draw(0x10000);
  const std::uint32_t flags = draw(500) == 0 ? 1 + draw(15) : 0;
  shot.word = ShotWord({pan_, scan_, returnCount, t0, flags, upward_ ? 2u : 0u});
  std::uint32_t range = 0;
  for (std::uint32_t k = 0; k < returnCount && k < 4; ++k) {
    range += 500 + draw(25000);
    shot.returns.push_back(ReturnWord(t0 + range, draw(4096)));
  }
  return shot;
}

FifoBlockBuilder SyntheticScan::NextBlock() {
  FifoBlockBuilder block;
  block.timeStamp(timeStamp_).castBlockNumber(castBlockNumber_++ & 0x7FF);
  for (ShotRecord shot = NextShot(); block.fits(shot.returns.size()); shot = NextShot()) {
    block.shot(shot.word, shot.returns);
  }
  timeStamp_ = (timeStamp_ + block.shots().size() * periodTicks_) & 0xFFFFFFFFFF;
  return block;
}

}  // namespace kvr::test
