#include "fifo/shot_decoder.h"

#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "diag/error_manager.h"
#include "optics/conversions.h"

namespace kvr::fifo {

namespace {

constexpr std::string_view kDecodeFifoBlockContext =
    "int DecodeFifoBlock(unsigned char *fifoBlockBuffer, RawFileHeader &fileHeader, int blockNumber, "
    "FifoBlock &fifoBlock, double cycleSyncTow)";
constexpr std::string_view kOffsetPastBlockMessage = "bufferOffset >= SIZEOFFIFOBLOCK";

constexpr std::size_t kBlockSize = SIZEOFFIFOBLOCK;
// The longest record: a shot word and four return words. A shot that starts at
// or before kBlockSize - kLongestShot lies wholly inside the block.
using layout::kReturnWordSize;
using layout::kShotWordSize;
constexpr std::size_t kLongestShot = kShotWordSize + kReturnWordSize * ReturnWords::kCapacity;
constexpr int kNoReturn = -1;

// Per-block timing: shot i is i periods after the block's time stamp. An unknown
// time of day is kept as a zero period from -1.0, which gives exactly -1.0.
class ShotClock {
 public:
  ShotClock(std::uint64_t blockTicks, std::uint32_t prf, double cycleSyncTow) : blockTicks_(blockTicks) {
    const double periodSeconds = 1.0 / (static_cast<double>(prf) * 1000.0);
    periodTicks_ = optics::TimeInCounts(periodSeconds);
    const bool towKnown = cycleSyncTow >= 0.0;
    towPeriod_ = towKnown ? periodSeconds : 0.0;
    towBase_ = towKnown ? cycleSyncTow : -1.0;
  }

  // Fills a fresh shot from its word; returns are left to the caller.
  void Start(RawShot& shot, int i, std::uint64_t shotWord) const {
    shot.timeInCounts = static_cast<std::uint64_t>(i) * periodTicks_ + blockTicks_;
    shot.scanAngleCounts = ScanAngleCounts(shotWord);
    shot.shotWord = shotWord;
    shot.shotTow = static_cast<double>(i) * towPeriod_ + towBase_;
  }

 private:
  std::uint64_t blockTicks_;
  std::uint64_t periodTicks_;
  double towPeriod_;
  double towBase_;
};

// The only shot word that can straddle the end is one due at 65532 (records are
// whole 32-bit words from offset 12): it passes the end test, but its upper half
// lies past the block and reads as zeros. The shot then has no returns, and the
// next one meets the end of the block.
std::uint64_t LoadShotWordNearEnd(const std::uint8_t* block, std::size_t offset) {
  std::uint8_t word[kShotWordSize] = {};
  const std::size_t inside = kBlockSize - offset;
  std::memcpy(word, block + offset, inside < sizeof word ? inside : sizeof word);
  return le::LoadU64(word);
}

int LogOffsetPastBlock(std::size_t offset, std::uint32_t shotsInBlock, int shotCount, int returnNumber) {
  std::vector<std::string> details = {Detail("bufferOffset = ", static_cast<long long>(offset)),
                                      Detail("shotsInBlock = ", shotsInBlock), Detail("shot Count = ", shotCount)};
  if (returnNumber != kNoReturn) details.push_back(Detail("return number = ", returnNumber));
  Log(kDecodeFifoBlockContext, std::string(kOffsetPastBlockMessage), std::move(details));
  return shotCount;
}

}  // namespace

int DecodeShots(BlockBytes block, std::uint32_t prf, double cycleSyncTow, FifoBlock& fifoBlock) {
  std::vector<RawShot>& shots = fifoBlock.shots;
  shots.clear();
  const std::uint32_t shotsInBlock = ShotCount(block);
  const ShotClock clock(fifoBlock.CycleSyncTimeStamp, prf, cycleSyncTow);
  if (shotsInBlock == 0) return 0;
  // At most 8191 shots (13 bits): a bounded, one-off reservation for a reused block.
  shots.reserve(shotsInBlock);

  const int n = static_cast<int>(shotsInBlock);
  const std::uint8_t* bytes = block.data();
  std::size_t offset = kDmaBlockHeaderSize;
  int i = 0;

  // Shots wholly inside the block: no bounds check, and no branch on the random
  // return count (all four return slots are read, the count picks what is kept).
  for (; i < n && offset <= kBlockSize - kLongestShot; ++i) {
    const std::uint64_t word = le::LoadU64(bytes + offset);
    const std::uint32_t stored = StoredReturnCount(word);
    const std::uint8_t* words = bytes + offset + kShotWordSize;
    const std::uint32_t returns[ReturnWords::kCapacity] = {
        le::LoadU32(words), le::LoadU32(words + kReturnWordSize), le::LoadU32(words + 2 * kReturnWordSize),
        le::LoadU32(words + 3 * kReturnWordSize)};
    if (word & kShotFlagBits) [[unlikely]] fifoBlock.flaggedShots.push_back(i);
    // Filled in place: a shot built aside and copied in costs more than decoding it.
    RawShot& shot = shots.emplace_back();
    clock.Start(shot, i, word);
    shot.returns.assign(returns, stored);
    offset += kShotWordSize + kReturnWordSize * stored;
  }

  // The last few shots of a block, and those a damaged count declares beyond it:
  // every word is checked against the end before it is read.
  for (; i < n; ++i) {
    if (offset >= kBlockSize) return LogOffsetPastBlock(offset, shotsInBlock, i, kNoReturn);
    const std::uint64_t word = LoadShotWordNearEnd(bytes, offset);
    offset += kShotWordSize;
    if (word & kShotFlagBits) fifoBlock.flaggedShots.push_back(i);
    RawShot shot;
    clock.Start(shot, i, word);
    const std::uint32_t stored = StoredReturnCount(word);
    for (std::uint32_t k = 0; k < stored; ++k) {
      // Counted, although it is not kept.
      if (offset >= kBlockSize) return LogOffsetPastBlock(offset, shotsInBlock, i + 1, static_cast<int>(k));
      shot.returns.push_back(le::LoadU32(bytes + offset));
      offset += kReturnWordSize;
    }
    shots.push_back(shot);
  }
  return n;
}

}  // namespace kvr::fifo
