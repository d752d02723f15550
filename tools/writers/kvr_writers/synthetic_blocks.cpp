#include "kvr_writers/synthetic_blocks.h"

namespace kvr::writers {

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

}  // namespace kvr::writers
