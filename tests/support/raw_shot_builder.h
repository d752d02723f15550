#pragma once

#include <cstdint>
#include <initializer_list>

#include "kvr_decode/raw_shot.h"

namespace kvr::test {

// A shot word from its fields: pan count (bits 0-19), scan count (20-37), return
// count (38-40), T0 count (41-56) and the flag and spare bits (57-63).
constexpr std::uint64_t ShotWord(std::uint32_t pan, std::uint32_t scan, std::uint32_t returnCount, std::uint32_t t0,
                                 std::uint32_t highBits = 0) {
  return (std::uint64_t{pan} & 0xFFFFF) | (std::uint64_t{scan} & 0x3FFFF) << 20 |
         (std::uint64_t{returnCount} & 0x7) << 38 | (std::uint64_t{t0} & 0xFFFF) << 41 |
         (std::uint64_t{highBits} & 0x7F) << 57;
}

// A return word: time count (bits 0-19) and 12-bit intensity (20-31).
constexpr std::uint32_t ReturnWord(std::uint32_t time, std::uint32_t intensity) {
  return (time & 0xFFFFF) | (intensity & 0xFFF) << 20;
}

// A decoded shot; scanAngleCounts is given apart from the shot word because lag
// correction lets the two differ.
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
