#include "laz_arithmetic_encoder.h"

#include <algorithm>

namespace kvr::cloud::laz {

namespace {

constexpr std::uint32_t kMinLength = 0x01000000u;  // below this the top byte is settled
constexpr std::uint32_t kMaxLength = 0xFFFFFFFFu;
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
    : symbols_(symbols), distribution_(symbols), count_(symbols) {
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

void ArithmeticEncoder::reset() {
  base_ = 0;
  length_ = kMaxLength;
  bytes_.clear();
}

void ArithmeticEncoder::encodeBit(BitModel& model, std::uint32_t bit) {
  const std::uint32_t x = model.probability0() * (length_ >> kBitLengthShift);
  if (bit == 0) {
    length_ = x;
  } else {
    addToBase(x);
    length_ -= x;
  }
  if (length_ < kMinLength) renormalize();
  model.add(bit);
}

void ArithmeticEncoder::encodeSymbol(SymbolModel& model, std::uint32_t symbol) {
  std::uint32_t x;
  if (symbol + 1 == model.symbols()) {
    // The top symbol takes the rest of the interval: no second product.
    x = model.start(symbol) * (length_ >> kSymbolLengthShift);
    addToBase(x);
    length_ -= x;
  } else {
    length_ >>= kSymbolLengthShift;
    x = model.start(symbol) * length_;
    addToBase(x);
    length_ = model.start(symbol + 1) * length_ - x;
  }
  if (length_ < kMinLength) renormalize();
  model.add(symbol);
}

void ArithmeticEncoder::writeBits(std::uint32_t bits, std::uint32_t value) {
  if (bits > 19) {
    // The interval keeps enough precision for 19 bits at a time.
    writeShort(static_cast<std::uint16_t>(value & 0xFFFFu));
    value >>= 16;
    bits -= 16;
  }
  length_ >>= bits;
  addToBase(value * length_);
  if (length_ < kMinLength) renormalize();
}

void ArithmeticEncoder::writeShort(std::uint16_t value) {
  length_ >>= 16;
  addToBase(std::uint32_t{value} * length_);
  if (length_ < kMinLength) renormalize();
}

void ArithmeticEncoder::writeInt(std::uint32_t value) {
  writeShort(static_cast<std::uint16_t>(value & 0xFFFFu));
  writeShort(static_cast<std::uint16_t>(value >> 16));
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
  bytes_.push_back(0);
  bytes_.push_back(0);
  if (anotherByte) bytes_.push_back(0);
}

void ArithmeticEncoder::propagateCarry() {
  // The interval starts at 0 and only a byte already written can overflow into.
  for (auto at = bytes_.rbegin(); at != bytes_.rend(); ++at) {
    if (*at != 0xFF) {
      ++*at;
      return;
    }
    *at = 0;
  }
}

void ArithmeticEncoder::renormalize() {
  do {
    bytes_.push_back(static_cast<std::uint8_t>(base_ >> 24));
    base_ <<= 8;
  } while ((length_ <<= 8) < kMinLength);
}

}  // namespace kvr::cloud::laz
