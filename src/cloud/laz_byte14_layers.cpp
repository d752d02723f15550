#include "laz_byte14_layers.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace kvr::cloud::laz {

namespace {

// Points coded a layer at a time before moving to the next layer: one layer's
// coder and model stay hot, and the block's records stay in cache for the others.
constexpr std::size_t kBlockPoints = 512;
constexpr std::size_t kGroupBytes = 32;  // bytes compared at once for a change

}  // namespace

Byte14Layers::Byte14Layers(std::size_t count) : layers_(count), models_(count, SymbolModel(256)) {}

void Byte14Layers::encode(const std::uint8_t* records, std::size_t count, std::size_t stride) {
  for (Layer& layer : layers_) layer.reset();
  // Which bytes differ from the first record's anywhere in the chunk, in one
  // pass over the records: the others are never looked at again.
  // The bits gather in a local array, which the records cannot alias.
  changes_.resize(layers_.size());
  for (std::size_t group = 0; group < layers_.size(); group += kGroupBytes) {
    const std::size_t width = std::min(kGroupBytes, layers_.size() - group);
    std::array<std::uint8_t, kGroupBytes> first{}, changes{};
    std::memcpy(first.data(), records + group, width);
    for (std::size_t i = 1; i < count; ++i) {
      const std::uint8_t* bytes = records + i * stride + group;
      if (width == kGroupBytes) {
        for (std::size_t byte = 0; byte < kGroupBytes; ++byte) changes[byte] |= bytes[byte] ^ first[byte];
      } else {
        for (std::size_t byte = 0; byte < width; ++byte) changes[byte] |= bytes[byte] ^ first[byte];
      }
    }
    std::memcpy(changes_.data() + group, changes.data(), width);
  }
  for (std::size_t from = 1; from < count; from += kBlockPoints) {
    const std::size_t to = std::min(count, from + kBlockPoints);
    for (std::size_t byte = 0; byte < layers_.size(); ++byte) {
      if (changes_[byte] != 0) encodeColumn(byte, records + byte, from, to, stride);
    }
  }
  for (Layer& layer : layers_) layer.encoder.done();
}

void Byte14Layers::encodeColumn(std::size_t byte, const std::uint8_t* column, std::size_t from, std::size_t to,
                                std::size_t stride) {
  Layer& layer = layers_[byte];
  SymbolModel& model = models_[byte];
  std::size_t i = from;
  if (!layer.changed) {
    // A byte that has not changed yet codes nothing: its zeros are coded when
    // it first changes, and never if it does not (its layer is then dropped).
    while (i < to && column[i * stride] == column[0]) ++i;
    if (i == to) return;
    layer.changed = true;
    model.reset();
    layer.encoder.encodeSymbols(model, i - 1, [] { return 0u; });
  }
  const std::uint8_t* at = column + i * stride;
  layer.encoder.encodeSymbols(model, to - i, [&] {
    const std::uint32_t diff = static_cast<std::uint32_t>(at[0] - at[-static_cast<std::ptrdiff_t>(stride)]) & 0xFFu;
    at += stride;
    return diff;
  });
}

void Byte14Layers::appendSizes(std::vector<std::uint8_t>& out) const {
  for (const Layer& layer : layers_) AppendU32(out, layer.size());
}

void Byte14Layers::appendBytes(std::vector<std::uint8_t>& out) const {
  for (const Layer& layer : layers_) AppendLayer(out, layer);
}

}  // namespace kvr::cloud::laz
