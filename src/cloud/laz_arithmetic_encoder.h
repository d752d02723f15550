#pragma once

#include <bit>
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

  // Where the symbol's share of an interval starts, in 15 bits; the table has
  // one entry more, never used, so that the top symbol's end can be read.
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

  void encodeBit(BitModel& model, std::uint32_t bit) {
    reserve(kMaxBytesPerStep);
    State state = this->state();
    bitStep(state, model, bit);
    store(state);
  }

  void encodeSymbol(SymbolModel& model, std::uint32_t symbol) {
    reserve(kMaxBytesPerStep);
    State state = this->state();
    symbolStep(state, model, symbol);
    store(state);
  }

  // Codes `count` symbols of one model, each from next(): the interval stays in
  // registers for the whole run.
  template <typename Next>
  void encodeSymbols(SymbolModel& model, std::size_t count, Next&& next) {
    reserve(count * kMaxBytesPerStep);
    State state = this->state();
    for (std::size_t i = 0; i < count; ++i) symbolStep<false>(state, model, next());
    store(state);
  }

  // Raw bits, equally likely: `bits` from 1 to 32.
  void writeBits(std::uint32_t bits, std::uint32_t value) {
    reserve(2 * kMaxBytesPerStep);
    State state = this->state();
    rawStep(state, bits, value);
    store(state);
  }
  void writeShort(std::uint16_t value) { writeBits(16, value); }
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

  // Room a step needs: it settles at most 3 bytes (a length is at least 1), and
  // the counted settle stores 4.
  static constexpr std::size_t kMaxBytesPerStep = 4;

  // The interval and where the next byte goes, as coding steps change them.
  // Steps work on this local copy: a byte stored to the output may alias any
  // member, which would otherwise send every step through memory.
  struct State {
    std::uint32_t base, length;
    std::uint8_t* out;
  };
  State state() { return {base_, length_, bytes_.data() + size_}; }
  void store(const State& state) {
    base_ = state.base;
    length_ = state.length;
    size_ = static_cast<std::size_t>(state.out - bytes_.data());
  }
  void reserve(std::size_t bytes) {
    if (size_ + bytes > bytes_.size()) grow(bytes);
  }

  // The integer compressor codes a value in a few steps on one State.
  friend class IntegerCompressor;

  template <bool kCounted = true>
  void bitStep(State& state, BitModel& model, std::uint32_t bit) {
    const std::uint32_t x = model.probability0() * (state.length >> kBitLengthShift);
    if (bit == 0) {
      state.length = x;
    } else {
      add(state, x);
      state.length -= x;
    }
    settle<kCounted>(state);
    model.add(bit);
  }
  // Two steps above 19 bits, the most the interval has precision for at a time.
  template <bool kCounted = true>
  void rawStep(State& state, std::uint32_t bits, std::uint32_t value) {
    if (bits > 19) {
      rawStep<kCounted>(state, 16, value & 0xFFFFu);
      value >>= 16;
      bits -= 16;
    }
    state.length >>= bits;
    add(state, value * state.length);
    settle<kCounted>(state);
  }
  template <bool kCounted = true>
  void symbolStep(State& state, SymbolModel& model, std::uint32_t symbol) {
    const std::uint32_t* start = model.distribution();
    const std::uint32_t unit = state.length >> kSymbolLengthShift;
    const std::uint32_t x = start[symbol] * unit;
    // The top symbol takes the rest of the interval. A selection, not a branch:
    // which symbol comes is data, and the table has an entry past the top.
    const std::uint32_t end = symbol + 1 == model.symbols() ? state.length : start[symbol + 1] * unit;
    state.length = end - x;
    add(state, x);
    settle<kCounted>(state);
    model.add(symbol);
  }
  // base + x, the carry (when the sum wraps) propagated into the bytes written.
  void add(State& state, std::uint32_t x) {
    state.base += x;
    if (state.base < x) propagateCarry(state.out);
  }
  // Writes out the top bytes the interval has settled: as many as the length
  // has zero bytes at its top. A run of one model's symbols settles about the
  // same number each step, and a loop predicts it; steps that alternate models
  // and widths (an integer's class, then its bits) count them instead, storing
  // the four top bytes each time into the room reserved, without a branch.
  template <bool kCounted>
  static void settle(State& state) {
    if constexpr (kCounted) {
      const int bytes = std::countl_zero(state.length | 1u) >> 3;  // a length is never 0
      state.out[0] = static_cast<std::uint8_t>(state.base >> 24);
      state.out[1] = static_cast<std::uint8_t>(state.base >> 16);
      state.out[2] = static_cast<std::uint8_t>(state.base >> 8);
      state.out[3] = static_cast<std::uint8_t>(state.base);
      state.out += bytes;
      state.base <<= 8 * bytes;
      state.length <<= 8 * bytes;
    } else {
      while (state.length < kMinLength) {
        *state.out++ = static_cast<std::uint8_t>(state.base >> 24);
        state.base <<= 8;
        state.length <<= 8;
      }
    }
  }
  // For the rarer steps: the members through a State.
  void addToBase(std::uint32_t x) {
    State state = this->state();
    add(state, x);
    store(state);
  }
  void renormalize() {
    reserve(kMaxBytesPerStep);
    State state = this->state();
    settle<false>(state);
    store(state);
  }
  void propagateCarry(std::uint8_t* end);
  void grow(std::size_t bytes);

  std::uint32_t base_ = 0, length_ = 0;
  std::vector<std::uint8_t> bytes_;  // the first size_ are written
  std::size_t size_ = 0;
};

}  // namespace kvr::cloud::laz
