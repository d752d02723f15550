#include "laz_integer_compressor.h"

#include <algorithm>
#include <bit>

namespace kvr::cloud::laz {

IntegerCompressor::IntegerCompressor(ArithmeticEncoder& encoder, std::uint32_t bits, std::uint32_t contexts)
    : encoder_(encoder) {
  if (bits > 0 && bits < 32) {
    correctorBits_ = bits;
    correctorRange_ = 1u << bits;
    correctorMin_ = -static_cast<std::int32_t>(correctorRange_ / 2);
    correctorMax_ = correctorMin_ + static_cast<std::int32_t>(correctorRange_ - 1);
  } else {
    correctorBits_ = 32;
    correctorRange_ = 0;
    correctorMin_ = INT32_MIN;
    correctorMax_ = INT32_MAX;
  }
  kModels_.assign(contexts, SymbolModel(correctorBits_ + 1));
  for (std::uint32_t k = 1; k <= correctorBits_; ++k) {
    classModels_.emplace_back(1u << std::min(k, kBitsHigh));
  }
}

void IntegerCompressor::reset() {
  for (SymbolModel& model : kModels_) model.reset();
  zeroOrOne_.reset();
  for (SymbolModel& model : classModels_) model.reset();
  k_ = 0;
}

void IntegerCompressor::writeCorrector(std::int32_t c, SymbolModel& kModel) {
  // k is the bit length of |c| for c <= 0 and of c - 1 above: class k holds
  // -(2^k - 1) .. -2^(k-1) and 2^(k-1) + 1 .. 2^k.
  const std::uint32_t c1 = c <= 0 ? 0u - static_cast<std::uint32_t>(c) : static_cast<std::uint32_t>(c) - 1u;
  const auto k = static_cast<std::uint32_t>(std::bit_width(c1));
  k_ = k;
  // At most a symbol, a symbol and two raw steps.
  encoder_.reserve(4 * ArithmeticEncoder::kMaxBytesPerStep);
  ArithmeticEncoder::State state = encoder_.state();
  encoder_.symbolStep(state, kModel, k);
  if (k == 0) {
    encoder_.bitStep(state, zeroOrOne_, static_cast<std::uint32_t>(c));
  } else if (k < 32) {  // k = 32 is only INT32_MIN: the class says it all
    // The place within the class, from 0.
    const std::uint32_t place =
        c < 0 ? static_cast<std::uint32_t>(c) + ((1u << k) - 1u) : static_cast<std::uint32_t>(c) - 1u;
    if (k <= kBitsHigh) {
      encoder_.symbolStep(state, classModels_[k - 1], place);
    } else {
      const std::uint32_t low = k - kBitsHigh;
      encoder_.symbolStep(state, classModels_[k - 1], place >> low);
      encoder_.rawStep(state, low, place & ((1u << low) - 1u));
    }
  }
  encoder_.store(state);
}

}  // namespace kvr::cloud::laz
