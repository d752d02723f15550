#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "laz_arithmetic_encoder.h"
#include "laz_layer.h"

namespace kvr::cloud::laz {

// Extra bytes, one layer a byte: each byte's change from the point before.
class Byte14Layers {
 public:
  explicit Byte14Layers(std::size_t count);
  // Codes the bytes of a chunk's `count` records, `stride` bytes apart, the
  // first record's bytes at `records` (stored raw, not coded here).
  void encode(const std::uint8_t* records, std::size_t count, std::size_t stride);
  void appendSizes(std::vector<std::uint8_t>& out) const;
  void appendBytes(std::vector<std::uint8_t>& out) const;

 private:
  void encodeColumn(std::size_t byte, const std::uint8_t* column, std::size_t from, std::size_t to,
                    std::size_t stride);

  std::vector<Layer> layers_;
  std::vector<SymbolModel> models_;
  std::vector<std::uint8_t> changes_;  // a byte's bits that differ from the first record's
};

}  // namespace kvr::cloud::laz
