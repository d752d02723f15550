// Camera images for E57 files: netpbm records become PNG.

#include <png.h>

#include <cstring>

#include "kvr_decode/cloud/e57_writer.h"

namespace kvr::cloud {

namespace {

// Reads the netpbm header's numbers: whitespace and "#" comments between them.
class NetpbmHeader {
 public:
  explicit NetpbmHeader(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}

  std::optional<std::uint64_t> number() {
    for (;;) {
      if (at_ >= bytes_.size()) return std::nullopt;
      const std::uint8_t c = bytes_[at_];
      if (c == '#') {
        while (at_ < bytes_.size() && bytes_[at_] != '\n') ++at_;
      } else if (c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f') {
        ++at_;
      } else {
        break;
      }
    }
    std::uint64_t value = 0;
    std::size_t digits = 0;
    for (; at_ < bytes_.size() && bytes_[at_] >= '0' && bytes_[at_] <= '9' && digits < 10; ++at_, ++digits) {
      value = value * 10 + (bytes_[at_] - '0');
    }
    if (digits == 0) return std::nullopt;
    return value;
  }
  // The raster starts after one whitespace byte past the last number.
  std::size_t rasterStart() const { return at_ + 1; }
  void skip(std::size_t n) { at_ += n; }

 private:
  std::span<const std::uint8_t> bytes_;
  std::size_t at_ = 0;
};

}  // namespace

std::optional<std::vector<std::uint8_t>> NetpbmAsPng(std::span<const std::uint8_t> bytes) {
  if (bytes.size() < 3 || bytes[0] != 'P' || (bytes[1] != '5' && bytes[1] != '6')) return std::nullopt;
  const std::uint64_t channels = bytes[1] == '5' ? 1 : 3;
  NetpbmHeader header(bytes);
  header.skip(2);
  const auto width = header.number(), height = header.number(), maxval = header.number();
  if (!width || !height || !maxval || *width == 0 || *height == 0 || *maxval == 0 || *maxval > 255) {
    return std::nullopt;
  }
  const std::size_t start = header.rasterStart();
  // Both sides are below 2^34 (ten digits): the product cannot overflow.
  const std::uint64_t size = *width * *height * channels;
  if (start > bytes.size() || bytes.size() - start < size || *width > 0x7FFFFFFF || *height > 0x7FFFFFFF) {
    return std::nullopt;
  }
  std::vector<std::uint8_t> pixels(bytes.begin() + static_cast<std::ptrdiff_t>(start),
                                   bytes.begin() + static_cast<std::ptrdiff_t>(start + size));
  if (*maxval != 255) {
    for (std::uint8_t& v : pixels) v = static_cast<std::uint8_t>(std::min<std::uint64_t>(v, *maxval) * 255 / *maxval);
  }
  // libpng's simplified interface: no setjmp, errors come back in image.message.
  png_image image;
  std::memset(&image, 0, sizeof image);
  image.version = PNG_IMAGE_VERSION;
  image.width = static_cast<png_uint_32>(*width);
  image.height = static_cast<png_uint_32>(*height);
  image.format = channels == 1 ? PNG_FORMAT_GRAY : PNG_FORMAT_RGB;
  png_alloc_size_t length = 0;
  if (png_image_write_to_memory(&image, nullptr, &length, 0, pixels.data(), 0, nullptr) == 0) {
    png_image_free(&image);
    return std::nullopt;
  }
  std::vector<std::uint8_t> png(length);
  if (png_image_write_to_memory(&image, png.data(), &length, 0, pixels.data(), 0, nullptr) == 0) {
    png_image_free(&image);
    return std::nullopt;
  }
  png.resize(length);
  return png;
}

}  // namespace kvr::cloud
