#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "platform/little_endian.h"

namespace kvr::stream {

// Little-endian fields gathered in a buffer and written to a stream in large
// pieces. Write results are collected, not acted on: ok() says whether every
// piece went out.
class BufferedWriter {
 public:
  explicit BufferedWriter(std::FILE* out) : out_(out) { buffer_.reserve(kChunk + 64); }
  ~BufferedWriter() { flush(); }
  BufferedWriter(const BufferedWriter&) = delete;
  BufferedWriter& operator=(const BufferedWriter&) = delete;

  BufferedWriter& u16(std::uint16_t v) { return field(v); }
  BufferedWriter& u32(std::uint32_t v) { return field(v); }
  BufferedWriter& i32(std::int32_t v) { return field(v); }
  BufferedWriter& u64(std::uint64_t v) { return field(v); }
  BufferedWriter& f32(float v) { return field(v); }
  BufferedWriter& f64(double v) { return field(v); }
  // A number, or a fixed-size character field.
  template <typename T>
  BufferedWriter& field(const T& v) {
    buffer_.field(v);
    return passOnFullChunk();
  }
  BufferedWriter& bytes(const void* data, std::size_t n) {
    buffer_.bytes(data, n);
    return passOnFullChunk();
  }
  BufferedWriter& zeros(std::size_t n) {
    buffer_.zeros(n);
    return passOnFullChunk();
  }

  void flush() {
    if (buffer_.size() > 0 && std::fwrite(buffer_.bytes().data(), 1, buffer_.size(), out_) != buffer_.size()) {
      ok_ = false;
    }
    buffer_.clear();
  }
  bool ok() const { return ok_; }

 private:
  static constexpr std::size_t kChunk = 64 * 1024;
  BufferedWriter& passOnFullChunk() {
    if (buffer_.size() >= kChunk) flush();
    return *this;
  }
  std::FILE* out_;
  le::ByteBuilder buffer_;
  bool ok_ = true;
};

}  // namespace kvr::stream
