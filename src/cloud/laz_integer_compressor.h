#pragma once

#include <cstdint>
#include <vector>

#include "laz_arithmetic_encoder.h"

namespace kvr::cloud::laz {

// Codes an integer as its difference from a prediction. The difference, wrapped
// into the value's range, is sent as its magnitude class k (its bit length) in
// the context's model, then its place within the class: with the class's own
// model for small k, for larger k the top 8 bits modelled and the rest raw.
class IntegerCompressor {
 public:
  // Values of `bits` bits (32: any std::int32_t), `contexts` models of k.
  IntegerCompressor(ArithmeticEncoder& encoder, std::uint32_t bits = 16, std::uint32_t contexts = 1);

  // Back to the models' first state, for a new chunk.
  void reset();
  // Inline: called for four fields a point, and the wrap folds into the caller.
  void compress(std::int32_t predicted, std::int32_t real, std::uint32_t context = 0) {
    // Differences wrap as the decoder's additions do.
    auto c = static_cast<std::int32_t>(static_cast<std::uint32_t>(real) - static_cast<std::uint32_t>(predicted));
    if (correctorRange_ != 0) {
      if (c < correctorMin_) {
        c += static_cast<std::int32_t>(correctorRange_);
      } else if (c > correctorMax_) {
        c -= static_cast<std::int32_t>(correctorRange_);
      }
    }
    writeCorrector(c, kModels_[context]);
  }
  // The magnitude class of the last difference: the next field's context.
  std::uint32_t k() const { return k_; }

 private:
  void writeCorrector(std::int32_t c, SymbolModel& kModel);

  static constexpr std::uint32_t kBitsHigh = 8;

  ArithmeticEncoder& encoder_;
  std::uint32_t correctorBits_;
  std::uint32_t correctorRange_;  // 0: the whole 32-bit range
  std::int32_t correctorMin_, correctorMax_;
  std::uint32_t k_ = 0;
  std::vector<SymbolModel> kModels_;  // one a context
  BitModel zeroOrOne_;                // k = 0: the difference is 0 or 1
  std::vector<SymbolModel> classModels_;  // k = 1 .. correctorBits_, at [k - 1]
};

}  // namespace kvr::cloud::laz
