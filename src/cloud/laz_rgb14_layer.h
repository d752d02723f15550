#pragma once

#include <array>
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
  void start(const std::uint8_t* rgb);
  void write(const std::uint8_t* rgb);
  void done() { layer_.encoder.done(); }
  void appendSizes(std::vector<std::uint8_t>& out) const { AppendU32(out, layer_.size()); }
  void appendBytes(std::vector<std::uint8_t>& out) const { AppendLayer(out, layer_); }

 private:
  Layer layer_;
  SymbolModel byteUsed_;
  std::array<SymbolModel, 6> diff_;
  std::array<std::uint16_t, 3> last_{};
};

}  // namespace kvr::cloud::laz
