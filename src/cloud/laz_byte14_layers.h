#pragma once

#include <cstdint>
#include <vector>

#include "laz_arithmetic_encoder.h"
#include "laz_layer.h"

namespace kvr::cloud::laz {

// Extra bytes, one layer a byte: each byte's change from the point before.
class Byte14Layers {
 public:
  explicit Byte14Layers(std::size_t count);
  void start(const std::uint8_t* bytes);
  void write(const std::uint8_t* bytes);
  void done();
  void appendSizes(std::vector<std::uint8_t>& out) const;
  void appendBytes(std::vector<std::uint8_t>& out) const;

 private:
  std::vector<Layer> layers_;
  std::vector<SymbolModel> models_;
  std::vector<std::uint8_t> last_;
  std::vector<std::uint32_t> unchanged_;  // points since the chunk began, while a byte is unchanged
};

}  // namespace kvr::cloud::laz
