#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "laz_byte14_layers.h"
#include "laz_point14_layers.h"
#include "laz_rgb14_layer.h"

namespace kvr::cloud::laz {

// Compresses one chunk of LAS 1.4 records (format 6, or 7 with colour, each
// followed by its extra bytes) on its own: the first record as it is, then the
// number of points, every layer's size and every layer's bytes. Chunks share no
// state, so any number of encoders can work on a file's chunks at once.
class ChunkEncoder {
 public:
  ChunkEncoder(bool colour, std::size_t extraBytes);

  std::size_t recordLength() const { return recordLength_; }
  // Replaces `out` with the compressed chunk of `count` (>= 1) records.
  void encode(const std::uint8_t* records, std::size_t count, std::vector<std::uint8_t>& out);

 private:
  static constexpr std::size_t kPointBytes = 30, kRgbBytes = 6;

  std::size_t recordLength_;
  Point14Layers point_;
  std::optional<Rgb14Layer> rgb_;
  std::optional<Byte14Layers> extra_;
};

}  // namespace kvr::cloud::laz
