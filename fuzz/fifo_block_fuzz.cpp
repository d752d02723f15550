// DecodeFifoBlock on any 65536 bytes, then what callers do with the shots:
// polar triplets of every return and lag correction of the block.
//
// Input: the block (zero-padded to 65536 bytes), then optionally the PRF (u32,
// kHz) and the block's time of day (f64); without them 200 kHz and unknown.

#include <cstring>
#include <vector>

#include "fifo/block_layout.h"
#include "fuzz_support.h"
#include "kvr_decode/fifo_block.h"
#include "kvr_decode/optical_model.h"
#include "platform/little_endian.h"

namespace {

using kvr::fuzz::Finding;

constexpr std::size_t kBlockSize = kvr::fifo::SIZEOFFIFOBLOCK;
constexpr std::size_t kTrailerSize = 12;

// What callers of the decoder rely on, whatever the block holds.
void CheckShots(int result, std::uint32_t declared, const FifoBlock& block) {
  if (result < 0 || static_cast<std::uint32_t>(result) > declared) Finding("result outside 0..shot count");
  const std::size_t kept = block.shots.size();
  // A shot cut off inside its returns is counted but not kept.
  if (kept != static_cast<std::size_t>(result) && kept + 1 != static_cast<std::size_t>(result)) {
    Finding("kept shots differ from the result by more than one");
  }
  for (const RawShot& shot : block.shots) {
    if (shot.returns.size() > 4) Finding("a shot holds more than four returns");
  }
  for (std::int32_t index : block.flaggedShots) {
    if (index < 0 || static_cast<std::uint32_t>(index) >= declared) Finding("flagged shot index outside the block");
  }
}

// What callers do with a block's shots: a polar triplet of every return (and of
// the returns just outside the list), then lag correction in place.
void UseShots(std::vector<RawShot>& shots, std::uint32_t prf, int mode) {
  for (const RawShot& shot : shots) {
    double pan = 0.0, scan = 0.0, range = 0.0;
    for (int r = -1; r <= static_cast<int>(shot.returns.size()); ++r) GetPolarTriplet(shot, r, pan, scan, range);
  }
  const double lag = -(1.0 / (static_cast<double>(prf) * 1000.0));
  std::vector<unsigned int> counts(shots.size());
  ApplyLagCorrection(shots, static_cast<double>(prf) * 1000.0, lag, mode, counts);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  kvr::fuzz::TrimLog();
  std::vector<std::uint8_t> block(kBlockSize, 0);
  std::memcpy(block.data(), data, size < kBlockSize ? size : kBlockSize);
  RawFileHeader header;
  header.prf = 200;
  double cycleSyncTow = -1.0;
  if (size >= kBlockSize + kTrailerSize) {
    header.prf = kvr::le::LoadU32(data + kBlockSize);
    cycleSyncTow = kvr::le::LoadF64(data + kBlockSize + 4);
  }

  FifoBlock fifoBlock;
  // As the block reader sets it: bytes 4-7 and the low byte of the packed word.
  fifoBlock.CycleSyncTimeStamp =
      kvr::le::LoadU32(block.data() + 4) | (std::uint64_t{block[8]} << 32);
  const std::uint32_t declared = kvr::le::LoadU32(block.data() + 8) >> 19;

  const int result = DecodeFifoBlock(block.data(), header, 0, fifoBlock, cycleSyncTow);
  CheckShots(result, declared, fifoBlock);
  // Scan counts or pan counts, as the time stamp's lowest bit says.
  UseShots(fifoBlock.shots, header.prf, static_cast<int>(fifoBlock.CycleSyncTimeStamp & 1));
  return 0;
}
