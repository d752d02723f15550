#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

// Bounds-checked access that fails with the exact out-of-range texts the
// library's callers see, whatever the standard library would have written.
namespace kvr::nmea {

inline constexpr const char* kInvalidSubscript = "invalid vector<T> subscript";
inline constexpr const char* kInvalidStringPosition = "invalid string position";

template <typename T>
const T& CheckedAt(const std::vector<T>& items, long long index) {
  if (index < 0 || static_cast<unsigned long long>(index) >= items.size()) throw std::out_of_range(kInvalidSubscript);
  return items[static_cast<std::size_t>(index)];
}

// Up to count characters from pos; pos may equal the size (an empty result).
inline std::string CheckedSubstr(std::string_view text, std::size_t pos, std::size_t count) {
  if (pos > text.size()) throw std::out_of_range(kInvalidStringPosition);
  return std::string(text.substr(pos, count));
}

}  // namespace kvr::nmea
