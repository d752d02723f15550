#include "laz_arithmetic_encoder.h"

#include <algorithm>

namespace kvr::cloud::laz {

namespace {

constexpr std::uint32_t kBitLengthShift = 13;  // length bits dropped before a bit's product
constexpr std::uint32_t kBitMaxCount = 1u << kBitLengthShift;
constexpr std::uint32_t kSymbolLengthShift = 15;  // and before a symbol's
constexpr std::uint32_t kSymbolMaxCount = 1u << kSymbolLengthShift;

}  // namespace

void BitModel::reset() {
  bit0Count_ = 1;
  bitCount_ = 2;
  bit0Probability_ = 1u << (kBitLengthShift - 1);
  updateCycle_ = bitsUntilUpdate_ = 4;
}

void BitModel::update() {
  if ((bitCount_ += updateCycle_) > kBitMaxCount) {
    bitCount_ = (bitCount_ + 1) >> 1;
    bit0Count_ = (bit0Count_ + 1) >> 1;
    if (bit0Count_ == bitCount_) ++bitCount_;
  }
  const std::uint32_t scale = 0x80000000u / bitCount_;
  bit0Probability_ = (bit0Count_ * scale) >> (31 - kBitLengthShift);
  updateCycle_ = (5 * updateCycle_) >> 2;
  if (updateCycle_ > 64) updateCycle_ = 64;
  bitsUntilUpdate_ = updateCycle_;
}

SymbolModel::SymbolModel(std::uint32_t symbols)
    : symbols_(symbols), distribution_(symbols + 1), count_(symbols) {
  reset();
}

void SymbolModel::reset() {
  totalCount_ = 0;
  updateCycle_ = symbols_;
  std::fill(count_.begin(), count_.end(), 1u);
  update();
  symbolsUntilUpdate_ = updateCycle_ = (symbols_ + 6) >> 1;
}

void SymbolModel::update() {
  if ((totalCount_ += updateCycle_) > kSymbolMaxCount) {
    totalCount_ = 0;
    for (std::uint32_t& count : count_) totalCount_ += (count = (count + 1) >> 1);
  }
  const std::uint32_t scale = 0x80000000u / totalCount_;
  std::uint32_t sum = 0;
  for (std::uint32_t k = 0; k < symbols_; ++k) {
    distribution_[k] = (scale * sum) >> (31 - kSymbolLengthShift);
    sum += count_[k];
  }
  updateCycle_ = (5 * updateCycle_) >> 2;
  const std::uint32_t maxCycle = (symbols_ + 6) << 3;
  if (updateCycle_ > maxCycle) updateCycle_ = maxCycle;
  symbolsUntilUpdate_ = updateCycle_;
}

void ArithmeticEncoder::writeInt(std::uint32_t value) {
  writeShort(static_cast<std::uint16_t>(value & 0xFFFFu));
  writeShort(static_cast<std::uint16_t>(value >> 16));
}

void ArithmeticEncoder::grow(std::size_t bytes) {
  bytes_.resize(std::max({std::size_t{4096}, 2 * bytes_.size(), size_ + bytes}));
}

void ArithmeticEncoder::done() {
  bool anotherByte = true;
  if (length_ > 2 * kMinLength) {
    addToBase(kMinLength);
    length_ = kMinLength >> 1;  // one more byte settles it
  } else {
    addToBase(kMinLength >> 1);
    length_ = kMinLength >> 9;  // two more bytes
    anotherByte = false;
  }
  renormalize();
  reserve(3);
  for (int i = anotherByte ? 3 : 2; i > 0; --i) bytes_[size_++] = 0;
}

void ArithmeticEncoder::propagateCarry(std::uint8_t* end) {
  // The interval starts at 0 and only a byte already written can overflow into.
  while (end != bytes_.data()) {
    if (*--end != 0xFF) {
      ++*end;
      return;
    }
    *end = 0;
  }
}

}  // namespace kvr::cloud::laz
