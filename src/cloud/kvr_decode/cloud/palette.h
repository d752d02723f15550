#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string_view>

#include "kvr_decode/cloud/export.h"

namespace kvr::cloud {

struct Rgb {
  std::uint8_t r = 0;
  std::uint8_t g = 0;
  std::uint8_t b = 0;
  friend bool operator==(const Rgb&, const Rgb&) = default;
};

// Display levels run from 0 (darkest) to kTopLevel; a palette spreads its 256
// colours over them. Levels stop one short of 256 so that a colour-mapped image
// keeps index 0 for pixels without a measurement.
inline constexpr int kTopLevel = 254;

// A named colour ramp of 256 colours from low to high intensity.
class Palette {
 public:
  constexpr Palette(std::string_view name, std::string_view description, const std::array<Rgb, 256>& colours)
      : name_(name), description_(description), colours_(&colours) {}

  std::string_view name() const { return name_; }
  std::string_view description() const { return description_; }
  // The colour of a display level (0..kTopLevel): the ramp's first colour at 0,
  // its last at kTopLevel.
  Rgb colourOfLevel(int level) const { return (*colours_)[static_cast<std::size_t>((level * 255 + 127) / kTopLevel)]; }

 private:
  std::string_view name_;
  std::string_view description_;
  const std::array<Rgb, 256>* colours_;
};

// Every palette, the default ("grey") first.
KVR_CLOUD_API std::span<const Palette> Palettes();
// The palette of that name ("gray" is taken for "grey"); null when there is none.
KVR_CLOUD_API const Palette* FindPalette(std::string_view name);

}  // namespace kvr::cloud
