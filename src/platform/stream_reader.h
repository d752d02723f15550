#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

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

// A number field; true when all of it arrived.
template <le::Number T>
bool ReadLe(std::FILE* in, T& field) {
  std::uint8_t arrived[sizeof(T)];
  const std::size_t got = ReadBytes(in, arrived, sizeof(T));
  field = le::MergeArrived(field, arrived, got);
  return got == sizeof(T);
}

// A number or a fixed-size character field, whichever `field` is.
template <le::Number T>
bool ReadField(std::FILE* in, T& field) {
  return ReadLe(in, field);
}
template <std::size_t N>
bool ReadField(std::FILE* in, char (&field)[N]) {
  return ReadBytes(in, field, N) == N;
}

}  // namespace kvr::stream
