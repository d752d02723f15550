#include "laz_byte14_layers.h"

#include <cstring>

namespace kvr::cloud::laz {

Byte14Layers::Byte14Layers(std::size_t count) : layers_(count), models_(count, SymbolModel(256)), last_(count) {}

void Byte14Layers::start(const std::uint8_t* bytes) {
  for (Layer& layer : layers_) layer.reset();
  for (SymbolModel& model : models_) model.reset();
  std::memcpy(last_.data(), bytes, last_.size());
}

void Byte14Layers::write(const std::uint8_t* bytes) {
  for (std::size_t i = 0; i < last_.size(); ++i) {
    const int diff = int{bytes[i]} - int{last_[i]};
    layers_[i].encoder.encodeSymbol(models_[i], static_cast<std::uint32_t>(diff) & 0xFFu);
    if (diff != 0) {
      layers_[i].changed = true;
      last_[i] = bytes[i];
    }
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
