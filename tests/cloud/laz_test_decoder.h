#pragma once

// The decoding side of the LAZ range coder and integer compressor, for round
// trips in the tests: it reads what the encoder wrote with the encoder's own
// models, as a LAZ reader does.

#include <cstdint>
#include <utility>
#include <vector>

#include "laz_arithmetic_encoder.h"

namespace kvr::test {

class LazTestDecoder {
 public:
  explicit LazTestDecoder(std::vector<std::uint8_t> bytes) : bytes_(std::move(bytes)) {
    for (int i = 0; i < 4; ++i) value_ = (value_ << 8) | next();
  }

  std::uint32_t decodeBit(cloud::laz::BitModel& model) {
    const std::uint32_t x = model.probability0() * (length_ >> 13);
    const std::uint32_t bit = value_ >= x ? 1 : 0;
    if (bit == 0) {
      length_ = x;
    } else {
      value_ -= x;
      length_ -= x;
    }
    if (length_ < kMinLength) renormalize();
    model.add(bit);
    return bit;
  }

  std::uint32_t decodeSymbol(cloud::laz::SymbolModel& model) {
    std::uint32_t x = 0, symbol = 0, y = length_, n = model.symbols();
    length_ >>= 15;
    for (std::uint32_t k = n >> 1; k != symbol; k = (symbol + n) >> 1) {
      const std::uint32_t z = length_ * model.start(k);
      if (z > value_) {
        n = k, y = z;
      } else {
        symbol = k, x = z;
      }
    }
    value_ -= x;
    length_ = y - x;
    if (length_ < kMinLength) renormalize();
    model.add(symbol);
    return symbol;
  }

  std::uint32_t readBits(std::uint32_t bits) {
    if (bits > 19) {
      const std::uint32_t low = readBits(16);
      return (readBits(bits - 16) << 16) | low;
    }
    length_ >>= bits;
    const std::uint32_t v = value_ / length_;
    value_ -= length_ * v;
    if (length_ < kMinLength) renormalize();
    return v;
  }

  std::size_t position() const { return at_; }

 private:
  static constexpr std::uint32_t kMinLength = 0x01000000u;

  std::uint32_t next() { return at_ < bytes_.size() ? bytes_[at_++] : (++at_, 0u); }
  void renormalize() {
    do {
      value_ = (value_ << 8) | next();
    } while ((length_ <<= 8) < kMinLength);
  }

  std::vector<std::uint8_t> bytes_;
  std::size_t at_ = 0;
  std::uint32_t value_ = 0, length_ = 0xFFFFFFFFu;
};

// Reads what an IntegerCompressor of the same bits and contexts wrote; values
// of fewer than 32 bits come back in 0 .. 2^bits - 1.
class LazTestIntegerDecoder {
 public:
  LazTestIntegerDecoder(LazTestDecoder& decoder, std::uint32_t bits, std::uint32_t contexts)
      : decoder_(decoder), bits_(bits > 0 && bits < 32 ? bits : 32), kModels_(contexts, cloud::laz::SymbolModel(bits_ + 1)) {
    for (std::uint32_t k = 1; k <= bits_; ++k) classModels_.emplace_back(1u << (k < 8 ? k : 8));
  }

  std::int32_t decompress(std::int32_t predicted, std::uint32_t context) {
    const std::uint32_t k = decoder_.decodeSymbol(kModels_[context]);
    std::uint32_t c;
    if (k == 0) {
      c = decoder_.decodeBit(zeroOrOne_);
    } else if (k == 32) {
      c = 0x80000000u;
    } else {
      std::uint32_t place = decoder_.decodeSymbol(classModels_[k - 1]);
      if (k > 8) place = (place << (k - 8)) | decoder_.readBits(k - 8);
      c = place >= (1u << (k - 1)) ? place + 1 : place - ((1u << k) - 1);
    }
    std::uint32_t real = static_cast<std::uint32_t>(predicted) + c;
    if (bits_ < 32) real &= (1u << bits_) - 1;
    return static_cast<std::int32_t>(real);
  }

 private:
  LazTestDecoder& decoder_;
  std::uint32_t bits_;
  std::vector<cloud::laz::SymbolModel> kModels_;
  cloud::laz::BitModel zeroOrOne_;
  std::vector<cloud::laz::SymbolModel> classModels_;
};

}  // namespace kvr::test
