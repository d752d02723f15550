#pragma once

#include <cstdint>
#include <initializer_list>

#include "kvr_decode/raw_shot.h"

namespace kvr::test {

// A decoded shot, as DecodeFifoBlock would leave it; scanAngleCounts is given
// apart from the shot word because lag correction lets the two differ. Shot and
// return words come from kvr_writers/fifo_block_writer.h.
inline RawShot MakeShot(std::uint64_t timeInCounts, std::uint64_t shotWord, std::uint32_t scanAngleCounts,
                        std::initializer_list<std::uint32_t> returns = {}, std::int32_t status = 0) {
  RawShot shot;
  shot.timeInCounts = timeInCounts;
  shot.shotWord = shotWord;
  shot.scanAngleCounts = scanAngleCounts;
  shot.status = status;
  for (std::uint32_t word : returns) shot.returns.push_back(word);
  return shot;
}

}  // namespace kvr::test
