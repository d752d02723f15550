#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>
#include <vector>

namespace kvr::writers {

// Builds little-endian binary records field by field.
class ByteWriter {
 public:
  ByteWriter& u8(std::uint8_t v) { bytes_.push_back(v); return *this; }
  ByteWriter& u16(std::uint16_t v) { return le(v, 2); }
  ByteWriter& u32(std::uint32_t v) { return le(v, 4); }
  ByteWriter& u64(std::uint64_t v) { return le(v, 8); }
  ByteWriter& i32(std::int32_t v) { return le(static_cast<std::uint32_t>(v), 4); }
  ByteWriter& f32(float v) { return le(std::bit_cast<std::uint32_t>(v), 4); }
  ByteWriter& f64(double v) { return le(std::bit_cast<std::uint64_t>(v), 8); }
  // Raw characters, no terminator.
  ByteWriter& text(std::string_view s) {
    bytes_.insert(bytes_.end(), s.begin(), s.end());
    return *this;
  }
  // Exactly n bytes of s, zero-padded or cut.
  ByteWriter& fixed(std::string_view s, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i) bytes_.push_back(i < s.size() ? static_cast<std::uint8_t>(s[i]) : 0);
    return *this;
  }
  ByteWriter& zeros(std::size_t n) { bytes_.insert(bytes_.end(), n, 0); return *this; }
  ByteWriter& append(const std::vector<std::uint8_t>& more) {
    bytes_.insert(bytes_.end(), more.begin(), more.end());
    return *this;
  }
  // Pads with zeros up to an absolute size.
  ByteWriter& padTo(std::size_t size) {
    if (bytes_.size() < size) bytes_.resize(size, 0);
    return *this;
  }
  // Overwrites a u32 at an absolute offset.
  ByteWriter& putU32(std::size_t at, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) bytes_.at(at + i) = static_cast<std::uint8_t>(v >> (8 * i));
    return *this;
  }

  std::size_t size() const { return bytes_.size(); }
  const std::vector<std::uint8_t>& bytes() const { return bytes_; }
  std::vector<std::uint8_t>&& take() { return std::move(bytes_); }

 private:
  ByteWriter& le(std::uint64_t v, int n) {
    for (int i = 0; i < n; ++i) bytes_.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
    return *this;
  }
  std::vector<std::uint8_t> bytes_;
};

}  // namespace kvr::writers
