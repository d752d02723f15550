#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "palette.h"

namespace kvrscan {

// Writes an 8-bit colour-mapped PNG: one colour-map index per pixel, rows from
// top to bottom, `colourMap` holding up to 256 colours. ToolError naming the file
// when it cannot be written.
void WriteIndexedPng(const std::string& path, std::uint32_t width, std::uint32_t height,
                     std::span<const std::uint8_t> pixels, std::span<const Rgb> colourMap);

}  // namespace kvrscan
