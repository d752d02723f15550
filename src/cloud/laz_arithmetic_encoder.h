#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kvr::cloud::laz {

// An adaptive model of a bit: the probability of 0, refreshed after a growing
// number of bits (4 at first, at most 64), counts halved near the limit.
class BitModel {
 public:
  BitModel() { reset(); }
  void reset();

  // P(0) in 13 bits.
  std::uint32_t probability0() const { return bit0Probability_; }
  // Counts a coded bit.
  void add(std::uint32_t bit) {
    if (bit == 0) ++bit0Count_;
    if (--bitsUntilUpdate_ == 0) update();
  }

 private:
  void update();

  std::uint32_t updateCycle_, bitsUntilUpdate_;
  std::uint32_t bit0Probability_, bit0Count_, bitCount_;
};

// An adaptive model of symbols 0 to n - 1 (2 <= n <= 2048): every symbol
// counted once at first, the cumulative distribution refreshed after a growing
// number of symbols.
class SymbolModel {
 public:
  explicit SymbolModel(std::uint32_t symbols);
  void reset();
  std::uint32_t symbols() const { return symbols_; }

  // Where the symbol's share of an interval starts, in 15 bits.
  std::uint32_t start(std::uint32_t symbol) const { return distribution_[symbol]; }
  const std::uint32_t* distribution() const { return distribution_.data(); }
  // Counts a coded symbol.
  void add(std::uint32_t symbol) {
    ++count_[symbol];
    if (--symbolsUntilUpdate_ == 0) update();
  }

 private:
  void update();

  std::uint32_t symbols_;
  std::vector<std::uint32_t> distribution_, count_;
  std::uint32_t totalCount_ = 0, updateCycle_ = 0, symbolsUntilUpdate_ = 0;
};

// The range coder of the compressed point layers: a 32-bit interval, renormalized
// a byte at a time, a carry into bytes already written propagated back through
// them. Its bytes gather in memory; done() ends them so that a decoder reading
// ahead a few bytes finds zeros. The coding steps are inline: they are the
// compression's inner loop.
class ArithmeticEncoder {
 public:
  ArithmeticEncoder() { reset(); }
  // Empties the output and starts a new interval.
  void reset() {
    base_ = 0;
    length_ = kMaxLength;
    size_ = 0;
  }

  // The coding steps work on local copies of the interval: a byte stored to the
  // output may alias any member, which would otherwise send every step through memory.
  void encodeBit(BitModel& model, std::uint32_t bit) {
    std::uint32_t base = base_, length = length_;
    const std::uint32_t x = model.probability0() * (length >> kBitLengthShift);
    if (bit == 0) {
      length = x;
    } else {
      base = added(base, x);
      length -= x;
    }
    settle(base, length);
    model.add(bit);
  }

  void encodeSymbol(SymbolModel& model, std::uint32_t symbol) {
    const std::uint32_t* start = model.distribution();
    std::uint32_t base = base_, length = length_;
    std::uint32_t x;
    if (symbol + 1 == model.symbols()) {
      // The top symbol takes the rest of the interval: no second product.
      x = start[symbol] * (length >> kSymbolLengthShift);
      length -= x;
    } else {
      length >>= kSymbolLengthShift;
      x = start[symbol] * length;
      length = start[symbol + 1] * length - x;
    }
    settle(added(base, x), length);
    model.add(symbol);
  }

  // Raw bits, equally likely: `bits` from 1 to 32.
  void writeBits(std::uint32_t bits, std::uint32_t value);
  void writeShort(std::uint16_t value);
  void writeInt(std::uint32_t value);

  // Ends the interval: the last bytes that pin it down, then the zeros a decoder
  // reads ahead. No more symbols after this until reset().
  void done();

  const std::uint8_t* data() const { return bytes_.data(); }
  std::size_t size() const { return size_; }
  std::vector<std::uint8_t> bytes() const { return {bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(size_)}; }

 private:
  static constexpr std::uint32_t kMinLength = 0x01000000u;  // below this the top byte is settled
  static constexpr std::uint32_t kMaxLength = 0xFFFFFFFFu;
  static constexpr std::uint32_t kBitLengthShift = 13;     // length bits dropped before a bit's product
  static constexpr std::uint32_t kSymbolLengthShift = 15;  // and before a symbol's

  // base + x, the carry (when the sum wraps) propagated into the bytes written.
  std::uint32_t added(std::uint32_t base, std::uint32_t x) {
    base += x;
    if (base < x) propagateCarry();
    return base;
  }
  void addToBase(std::uint32_t x) { base_ = added(base_, x); }
  // Stores the interval, writing out the top bytes it has settled.
  void settle(std::uint32_t base, std::uint32_t length) {
    if (length < kMinLength) {
      // At most four bytes a call: room for them is made once.
      if (size_ + 4 > bytes_.size()) grow();
      std::uint8_t* out = bytes_.data() + size_;
      do {
        *out++ = static_cast<std::uint8_t>(base >> 24);
        base <<= 8;
      } while ((length <<= 8) < kMinLength);
      size_ = static_cast<std::size_t>(out - bytes_.data());
    }
    base_ = base;
    length_ = length;
  }
  void renormalize() { settle(base_, length_); }
  void propagateCarry();
  void grow();

  std::uint32_t base_ = 0, length_ = 0;
  std::vector<std::uint8_t> bytes_;  // the first size_ are written
  std::size_t size_ = 0;
};

}  // namespace kvr::cloud::laz
