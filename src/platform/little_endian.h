#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

// Explicit little-endian loads: the file formats are little-endian whatever the host.
namespace kvr::le {

inline std::uint16_t LoadU16(const std::uint8_t* p) {
  return static_cast<std::uint16_t>(p[0] | (p[1] << 8));
}

inline std::uint32_t LoadU32(const std::uint8_t* p) {
  if constexpr (std::endian::native == std::endian::little) {
    std::uint32_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
  } else {
    return static_cast<std::uint32_t>(p[0]) | (static_cast<std::uint32_t>(p[1]) << 8) |
           (static_cast<std::uint32_t>(p[2]) << 16) | (static_cast<std::uint32_t>(p[3]) << 24);
  }
}

inline std::uint64_t LoadU64(const std::uint8_t* p) {
  if constexpr (std::endian::native == std::endian::little) {
    std::uint64_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
  } else {
    return static_cast<std::uint64_t>(LoadU32(p)) | (static_cast<std::uint64_t>(LoadU32(p + 4)) << 32);
  }
}

inline float LoadF32(const std::uint8_t* p) { return std::bit_cast<float>(LoadU32(p)); }
inline double LoadF64(const std::uint8_t* p) { return std::bit_cast<double>(LoadU64(p)); }

inline void StoreU32(std::uint8_t* p, std::uint32_t v) {
  p[0] = static_cast<std::uint8_t>(v);
  p[1] = static_cast<std::uint8_t>(v >> 8);
  p[2] = static_cast<std::uint8_t>(v >> 16);
  p[3] = static_cast<std::uint8_t>(v >> 24);
}

inline void StoreU64(std::uint8_t* p, std::uint64_t v) {
  StoreU32(p, static_cast<std::uint32_t>(v));
  StoreU32(p + 4, static_cast<std::uint32_t>(v >> 32));
}

// A checked little-endian cursor over bytes that knows where they end. Reads past
// the end yield zero bytes and set overrun(), so a damaged input never reads
// outside its buffer.
class ByteCursor {
 public:
  explicit ByteCursor(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}

  std::size_t offset() const { return offset_; }
  std::size_t remaining() const { return offset_ < bytes_.size() ? bytes_.size() - offset_ : 0; }
  bool overrun() const { return overrun_; }
  void skip(std::size_t n) { take(n); }

  std::uint8_t u8() { std::uint8_t b[1]{}; copy(b, 1); return b[0]; }
  std::uint32_t u32() { std::uint8_t b[4]{}; copy(b, 4); return LoadU32(b); }
  std::uint64_t u64() { std::uint8_t b[8]{}; copy(b, 8); return LoadU64(b); }
  float f32() { return std::bit_cast<float>(u32()); }
  double f64() { return std::bit_cast<double>(u64()); }

  // Copies n bytes into out (zero-filled past the end).
  void bytes(void* out, std::size_t n) { copy(static_cast<std::uint8_t*>(out), n); }

 private:
  void copy(std::uint8_t* out, std::size_t n) {
    const std::size_t avail = remaining();
    const std::size_t have = n < avail ? n : avail;
    if (have > 0) std::memcpy(out, bytes_.data() + offset_, have);
    if (have < n) {
      std::memset(out + have, 0, n - have);
      overrun_ = true;
    }
    take(n);
  }
  void take(std::size_t n) {
    if (n > remaining()) {
      offset_ = bytes_.size();
      overrun_ = true;
    } else {
      offset_ += n;
    }
  }

  std::span<const std::uint8_t> bytes_;
  std::size_t offset_ = 0;
  bool overrun_ = false;
};

}  // namespace kvr::le
