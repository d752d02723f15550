#pragma once

#include <cstdint>
#include <random>

#include "kvr_writers/fifo_block_writer.h"

namespace kvr::writers {

// Random FIFO blocks without a scene behind them, for exercising block and shot
// decoding: the mirror sweeps the 18-bit scan count up and down (bit 62 set on
// the way up), the pan count steps once per line, returns lie up to ~200 m behind
// T0 with random intensities, and about one shot in 500 carries flags. Blocks are
// filled until the next shot would not fit, and their time stamps advance by one
// PRF period per shot.
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

}  // namespace kvr::writers
