#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <type_traits>

#include "platform/little_endian.h"

// Field reads from a stream. A short read overwrites only the bytes that arrived,
// low bytes first, exactly as a raw read into a little-endian field would; the
// rest of the field keeps its value. So "short reads are not detected" paths
// still leave deterministic values.
namespace kvr::stream {

// Reads up to n bytes; returns how many arrived.
inline std::size_t ReadBytes(std::FILE* in, void* out, std::size_t n) {
  return n == 0 ? 0 : std::fread(out, 1, n, in);
}

template <typename T>
  requires(std::is_integral_v<T> || std::is_floating_point_v<T>)
bool ReadLe(std::FILE* in, T& field) {
  std::uint8_t buf[sizeof(T)];
  const std::size_t got = ReadBytes(in, buf, sizeof(T));
  // Merge the arrived bytes over the field's current little-endian image.
  std::uint8_t image[sizeof(T)];
  if constexpr (sizeof(T) == 1) {
    image[0] = static_cast<std::uint8_t>(field);
  } else if constexpr (sizeof(T) == 2) {
    const auto v = std::bit_cast<std::uint16_t>(field);
    image[0] = static_cast<std::uint8_t>(v);
    image[1] = static_cast<std::uint8_t>(v >> 8);
  } else if constexpr (sizeof(T) == 4) {
    le::StoreU32(image, std::bit_cast<std::uint32_t>(field));
  } else {
    le::StoreU64(image, std::bit_cast<std::uint64_t>(field));
  }
  for (std::size_t i = 0; i < got; ++i) image[i] = buf[i];
  if constexpr (sizeof(T) == 1) {
    field = static_cast<T>(image[0]);
  } else if constexpr (sizeof(T) == 2) {
    field = std::bit_cast<T>(le::LoadU16(image));
  } else if constexpr (sizeof(T) == 4) {
    field = std::bit_cast<T>(le::LoadU32(image));
  } else {
    field = std::bit_cast<T>(le::LoadU64(image));
  }
  return got == sizeof(T);
}

}  // namespace kvr::stream
