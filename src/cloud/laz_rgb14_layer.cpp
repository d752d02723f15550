#include "laz_rgb14_layer.h"

#include <cstring>

namespace kvr::cloud::laz {

namespace {

// A byte difference into 0..255, as the decoder's byte addition wraps.
std::uint32_t Folded(int diff) { return static_cast<std::uint32_t>(diff) & 0xFFu; }

int Clamped(int v) { return v <= 0 ? 0 : v >= 255 ? 255 : v; }

std::array<std::uint16_t, 3> LoadRgb(const std::uint8_t* at) {
  std::array<std::uint16_t, 3> rgb;
  std::memcpy(rgb.data(), at, 6);
  return rgb;
}

}  // namespace

Rgb14Layer::Rgb14Layer()
    : byteUsed_(128), diff_{SymbolModel(256), SymbolModel(256), SymbolModel(256), SymbolModel(256),
                            SymbolModel(256), SymbolModel(256)} {}

void Rgb14Layer::encode(const std::uint8_t* first, std::size_t count, std::size_t stride) {
  layer_.reset();
  byteUsed_.reset();
  for (SymbolModel& model : diff_) model.reset();
  last_ = LoadRgb(first);
  for (std::size_t i = 1; i < count; ++i) write(first + i * stride);
  layer_.encoder.done();
}

void Rgb14Layer::write(const std::uint8_t* rgb) {
  const std::array<std::uint16_t, 3> c = LoadRgb(rgb);
  auto lo = [](std::uint16_t v) { return int{v & 0xFF}; };
  auto hi = [](std::uint16_t v) { return int{v >> 8}; };
  std::uint32_t sym = 0;
  for (int i = 0; i < 3; ++i) {
    sym |= (lo(c[i]) != lo(last_[i]) ? 1u : 0u) << (2 * i);
    sym |= (hi(c[i]) != hi(last_[i]) ? 1u : 0u) << (2 * i + 1);
  }
  // Bit 6: green or blue differ from red (else they are red's copy).
  const bool grey = lo(c[0]) == lo(c[1]) && lo(c[0]) == lo(c[2]) && hi(c[0]) == hi(c[1]) && hi(c[0]) == hi(c[2]);
  if (!grey) sym |= 64;
  ArithmeticEncoder& out = layer_.encoder;
  out.encodeSymbol(byteUsed_, sym);
  int diffLow = 0, diffHigh = 0;
  if (sym & 1) {
    diffLow = lo(c[0]) - lo(last_[0]);
    out.encodeSymbol(diff_[0], Folded(diffLow));
  }
  if (sym & 2) {
    diffHigh = hi(c[0]) - hi(last_[0]);
    out.encodeSymbol(diff_[1], Folded(diffHigh));
  }
  if (sym & 64) {
    if (sym & 4) out.encodeSymbol(diff_[2], Folded(lo(c[1]) - Clamped(diffLow + lo(last_[1]))));
    if (sym & 16) {
      diffLow = (diffLow + lo(c[1]) - lo(last_[1])) / 2;
      out.encodeSymbol(diff_[4], Folded(lo(c[2]) - Clamped(diffLow + lo(last_[2]))));
    }
    if (sym & 8) out.encodeSymbol(diff_[3], Folded(hi(c[1]) - Clamped(diffHigh + hi(last_[1]))));
    if (sym & 32) {
      diffHigh = (diffHigh + hi(c[1]) - hi(last_[1])) / 2;
      out.encodeSymbol(diff_[5], Folded(hi(c[2]) - Clamped(diffHigh + hi(last_[2]))));
    }
  }
  if (sym != 0) layer_.changed = true;
  last_ = c;
}

}  // namespace kvr::cloud::laz
