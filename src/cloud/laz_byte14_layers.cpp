#include "laz_byte14_layers.h"

#include <algorithm>
#include <cstring>

namespace kvr::cloud::laz {

Byte14Layers::Byte14Layers(std::size_t count)
    : layers_(count), models_(count, SymbolModel(256)), last_(count), unchanged_(count) {}

void Byte14Layers::start(const std::uint8_t* bytes) {
  for (Layer& layer : layers_) layer.reset();
  for (SymbolModel& model : models_) model.reset();
  std::fill(unchanged_.begin(), unchanged_.end(), 0u);
  std::memcpy(last_.data(), bytes, last_.size());
}

void Byte14Layers::write(const std::uint8_t* bytes) {
  for (std::size_t i = 0; i < last_.size(); ++i) {
    const int diff = int{bytes[i]} - int{last_[i]};
    Layer& layer = layers_[i];
    if (!layer.changed) {
      // A byte that has not changed yet codes nothing: its zeros are coded when
      // it first changes, and never if it does not (its layer is then dropped).
      if (diff == 0) {
        ++unchanged_[i];
        continue;
      }
      for (; unchanged_[i] > 0; --unchanged_[i]) layer.encoder.encodeSymbol(models_[i], 0);
      layer.changed = true;
    }
    layer.encoder.encodeSymbol(models_[i], static_cast<std::uint32_t>(diff) & 0xFFu);
    last_[i] = bytes[i];
  }
}

void Byte14Layers::done() {
  for (Layer& layer : layers_) layer.encoder.done();
}

void Byte14Layers::appendSizes(std::vector<std::uint8_t>& out) const {
  for (const Layer& layer : layers_) AppendU32(out, layer.size());
}

void Byte14Layers::appendBytes(std::vector<std::uint8_t>& out) const {
  for (const Layer& layer : layers_) AppendLayer(out, layer);
}

}  // namespace kvr::cloud::laz
