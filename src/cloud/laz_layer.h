#pragma once

#include <cstdint>
#include <cstring>
#include <vector>

#include "laz_arithmetic_encoder.h"

namespace kvr::cloud::laz {

// One layer of a chunk: its own coder, and whether it holds anything a decoder
// needs. A layer whose field never changed in the chunk is stored empty, and
// the decoder repeats the chunk's first value.
struct Layer {
  ArithmeticEncoder encoder;
  bool changed = false;

  void reset() {
    encoder.reset();
    changed = false;
  }
  std::uint32_t size() const { return changed ? static_cast<std::uint32_t>(encoder.size()) : 0u; }
};

inline void AppendU32(std::vector<std::uint8_t>& out, std::uint32_t value) {
  for (int shift = 0; shift < 32; shift += 8) out.push_back(static_cast<std::uint8_t>(value >> shift));
}

inline void AppendLayer(std::vector<std::uint8_t>& out, const Layer& layer) {
  if (layer.changed) out.insert(out.end(), layer.encoder.data(), layer.encoder.data() + layer.encoder.size());
}

}  // namespace kvr::cloud::laz
