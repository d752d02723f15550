#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

// Explicit little-endian loads and stores: the file formats are little-endian
// whatever the host. Header-only and dependency-free, so the writers and tools
// that do not link the decoder use the same code.
namespace kvr::le {

// The numbers a file field can hold.
template <typename T>
concept Number = std::is_arithmetic_v<T> && (sizeof(T) == 1 || sizeof(T) == 2 || sizeof(T) == 4 || sizeof(T) == 8);

template <typename T>
using Bits = std::conditional_t<sizeof(T) == 1, std::uint8_t,
                                std::conditional_t<sizeof(T) == 2, std::uint16_t,
                                                   std::conditional_t<sizeof(T) == 4, std::uint32_t, std::uint64_t>>>;

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

// Any number field from its sizeof(T) bytes.
template <Number T>
T Load(const std::uint8_t* p) {
  if constexpr (sizeof(T) == 1) {
    return std::bit_cast<T>(p[0]);
  } else if constexpr (sizeof(T) == 2) {
    return std::bit_cast<T>(LoadU16(p));
  } else if constexpr (sizeof(T) == 4) {
    return std::bit_cast<T>(LoadU32(p));
  } else {
    return std::bit_cast<T>(LoadU64(p));
  }
}

// Stores the low n bytes of v, low byte first.
inline void StoreLow(std::uint8_t* p, std::uint64_t v, std::size_t n) {
  for (std::size_t i = 0; i < n; ++i) p[i] = static_cast<std::uint8_t>(v >> (8 * i));
}
inline void StoreU16(std::uint8_t* p, std::uint16_t v) { StoreLow(p, v, 2); }
inline void StoreU32(std::uint8_t* p, std::uint32_t v) { StoreLow(p, v, 4); }
inline void StoreU64(std::uint8_t* p, std::uint64_t v) { StoreLow(p, v, 8); }

template <Number T>
void Store(std::uint8_t* p, T v) {
  StoreLow(p, std::bit_cast<Bits<T>>(v), sizeof(T));
}

// A field read short: the `got` bytes that arrived replace the low bytes of the
// field's little-endian image, the rest keeps its value, as a raw read into a
// little-endian field would leave it.
template <Number T>
T MergeArrived(T field, const std::uint8_t* arrived, std::size_t got) {
  std::uint8_t image[sizeof(T)];
  Store(image, field);
  std::memcpy(image, arrived, got < sizeof(T) ? got : sizeof(T));
  return Load<T>(image);
}

// A checked little-endian cursor over bytes that knows where they end. It never
// reads outside its span: past the end, number reads yield zero bytes, raw reads
// stop short, and overrun() is set, as a stream's end-of-file state would be.
class ByteCursor {
 public:
  explicit ByteCursor(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}

  std::size_t offset() const { return offset_; }
  std::size_t remaining() const { return bytes_.size() - offset_; }
  bool overrun() const { return overrun_; }
  void skip(std::uint64_t n) {
    if (n > remaining()) {
      offset_ = bytes_.size();
      overrun_ = true;
    } else {
      offset_ += static_cast<std::size_t>(n);
    }
  }

  std::uint8_t u8() { return number<std::uint8_t>(); }
  std::uint16_t u16() { return number<std::uint16_t>(); }
  std::uint32_t u32() { return number<std::uint32_t>(); }
  std::uint64_t u64() { return number<std::uint64_t>(); }
  float f32() { return number<float>(); }
  double f64() { return number<double>(); }

  // Copies up to n bytes, as fread would; returns how many there were.
  std::size_t read(void* out, std::size_t n) {
    const std::size_t got = n < remaining() ? n : remaining();
    if (got > 0 && out != nullptr) std::memcpy(out, bytes_.data() + offset_, got);
    offset_ += got;
    if (got < n) overrun_ = true;
    return got;
  }

  // A field read like the stream reader's: a number cut short by the end keeps
  // its bytes beyond those that arrived (MergeArrived); a byte array gets what
  // there is. True when the whole field arrived.
  template <Number T>
  bool field(T& value) {
    std::uint8_t arrived[sizeof(T)];
    const std::size_t got = read(arrived, sizeof(T));
    value = MergeArrived(value, arrived, got);
    return got == sizeof(T);
  }
  template <std::size_t N>
  bool field(char (&text)[N]) {
    return read(text, N) == N;
  }

 private:
  template <Number T>
  T number() {
    std::uint8_t b[sizeof(T)] = {};
    read(b, sizeof(T));
    return Load<T>(b);
  }

  std::span<const std::uint8_t> bytes_;
  std::size_t offset_ = 0;
  bool overrun_ = false;
};

// Builds little-endian binary data field by field.
class ByteBuilder {
 public:
  ByteBuilder& u8(std::uint8_t v) { return number(v); }
  ByteBuilder& u16(std::uint16_t v) { return number(v); }
  ByteBuilder& u32(std::uint32_t v) { return number(v); }
  ByteBuilder& u64(std::uint64_t v) { return number(v); }
  ByteBuilder& i32(std::int32_t v) { return number(v); }
  ByteBuilder& f32(float v) { return number(v); }
  ByteBuilder& f64(double v) { return number(v); }
  template <Number T>
  ByteBuilder& field(const T& v) {
    return number(v);
  }
  template <std::size_t N>
  ByteBuilder& field(const char (&text)[N]) {
    return bytes(text, N);
  }
  ByteBuilder& bytes(const void* data, std::size_t n) {
    const auto* p = static_cast<const std::uint8_t*>(data);
    bytes_.insert(bytes_.end(), p, p + n);
    return *this;
  }
  // Raw characters, no terminator.
  ByteBuilder& text(std::string_view s) { return bytes(s.data(), s.size()); }
  // Exactly n bytes of s, zero-padded or cut.
  ByteBuilder& fixed(std::string_view s, std::size_t n) {
    text(s.substr(0, n));
    return zeros(n - (s.size() < n ? s.size() : n));
  }
  ByteBuilder& zeros(std::size_t n) {
    bytes_.insert(bytes_.end(), n, 0);
    return *this;
  }
  ByteBuilder& append(std::span<const std::uint8_t> more) { return bytes(more.data(), more.size()); }
  // Pads with zeros up to an absolute size.
  ByteBuilder& padTo(std::size_t size) {
    if (bytes_.size() < size) bytes_.resize(size, 0);
    return *this;
  }
  // Overwrites a u32 at an absolute offset (std::out_of_range past the end).
  ByteBuilder& putU32(std::size_t at, std::uint32_t v) {
    StoreU32(&bytes_.at(at + 3) - 3, v);
    return *this;
  }

  std::size_t size() const { return bytes_.size(); }
  const std::vector<std::uint8_t>& bytes() const { return bytes_; }
  std::vector<std::uint8_t>&& take() { return std::move(bytes_); }
  void clear() { bytes_.clear(); }
  void reserve(std::size_t n) { bytes_.reserve(n); }

 private:
  template <Number T>
  ByteBuilder& number(T v) {
    std::uint8_t b[sizeof(T)];
    Store(b, v);
    return bytes(b, sizeof(T));
  }
  std::vector<std::uint8_t> bytes_;
};

}  // namespace kvr::le
