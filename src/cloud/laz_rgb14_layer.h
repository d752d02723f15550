#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "laz_arithmetic_encoder.h"
#include "laz_layer.h"

namespace kvr::cloud::laz {

// The colour of format 7 (red, green, blue, 16 bits each) in one layer: which
// bytes changed from the point before, then the low and high bytes' changes,
// green and blue predicted from red's change.
class Rgb14Layer {
 public:
  Rgb14Layer();
  // Codes the colours of a chunk's `count` records, `stride` bytes apart, the
  // first record's (stored raw, not coded here) at `first`.
  void encode(const std::uint8_t* first, std::size_t count, std::size_t stride);
  void appendSizes(std::vector<std::uint8_t>& out) const { AppendU32(out, layer_.size()); }
  void appendBytes(std::vector<std::uint8_t>& out) const { AppendLayer(out, layer_); }

 private:
  void write(const std::uint8_t* rgb);

  Layer layer_;
  SymbolModel byteUsed_;
  std::array<SymbolModel, 6> diff_;
  std::array<std::uint16_t, 3> last_{};
};

}  // namespace kvr::cloud::laz
