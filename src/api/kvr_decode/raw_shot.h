#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <vector>

#include "kvr_decode/export.h"

// The return words of one shot, held inline: a shot keeps at most four, so
// decoding a shot never touches the heap.
class ReturnWords {
 public:
  static constexpr std::size_t kCapacity = 4;

  using value_type = std::uint32_t;
  using iterator = std::uint32_t*;
  using const_iterator = const std::uint32_t*;

  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  static constexpr std::size_t capacity() { return kCapacity; }
  void reserve(std::size_t) {}
  void clear() { size_ = 0; }

  // Words beyond the capacity are dropped: a shot never carries more than four.
  void push_back(std::uint32_t word) {
    if (size_ < kCapacity) words_[size_++] = word;
  }

  // Keeps the first `count` of four words (at most four), the rest zero. It takes
  // all four whatever the count and does not branch on it: the shot decoder's
  // return count is random from shot to shot.
  void assign(const std::uint32_t (&words)[kCapacity], std::size_t count) {
    count = count < kCapacity ? count : kCapacity;
    for (std::size_t i = 0; i < kCapacity; ++i) words_[i] = words[i] & kKeepMask[count][i];
    size_ = static_cast<std::uint32_t>(count);
  }

  std::uint32_t& operator[](std::size_t i) { return words_[i]; }
  const std::uint32_t& operator[](std::size_t i) const { return words_[i]; }
  const std::uint32_t& at(std::size_t i) const {
    if (i >= size_) throw std::out_of_range("invalid vector<T> subscript");
    return words_[i];
  }

  iterator begin() { return words_; }
  iterator end() { return words_ + size_; }
  const_iterator begin() const { return words_; }
  const_iterator end() const { return words_ + size_; }

  friend bool operator==(const ReturnWords& a, const ReturnWords& b) {
    if (a.size_ != b.size_) return false;
    for (std::size_t i = 0; i < a.size_; ++i) {
      if (a.words_[i] != b.words_[i]) return false;
    }
    return true;
  }

 private:
  static constexpr std::uint32_t kKeepMask[kCapacity + 1][kCapacity] = {
      {0, 0, 0, 0}, {~0u, 0, 0, 0}, {~0u, ~0u, 0, 0}, {~0u, ~0u, ~0u, 0}, {~0u, ~0u, ~0u, ~0u}};

  std::uint32_t words_[kCapacity] = {};
  std::uint32_t size_ = 0;
};

// One laser shot as decoded from a FIFO block.
class RawShot {
 public:
  std::uint64_t timeInCounts = 0;     // shot time in 20 ns ticks
  std::uint32_t scanAngleCounts = 0;  // shot word bits 20-37 (lag correction may replace it)
  std::uint64_t shotWord = 0;         // the shot word as read
  double shotTow = 0.0;               // seconds; -1.0 when unknown
  std::int32_t status = 0;            // -8 when lag correction could not place the shot
  ReturnWords returns;                // return words as read, first return first

  friend bool operator==(const RawShot&, const RawShot&) = default;
};

// One decoded FIFO block; reuse it from block to block so nothing reallocates.
struct FifoBlock {
  std::uint64_t CycleSyncTimeStamp = 0;  // 40-bit block time stamp in ticks
  std::int32_t blockNumber = 0;          // the caller's continuous block number
  std::vector<std::int32_t> flaggedShots;  // never cleared by the decoder
  std::vector<RawShot> shots;
};
