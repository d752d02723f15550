#include "png_image.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <vector>

#include <png.h>

#include "errors.h"

namespace kvrscan {

void WriteIndexedPng(const std::string& path, std::uint32_t width, std::uint32_t height,
                     std::span<const std::uint8_t> pixels, std::span<const Rgb> colourMap) {
  if (width == 0 || height == 0 || pixels.size() != std::size_t{width} * height || colourMap.empty() ||
      colourMap.size() > 256) {
    throw FileError(path, "nothing to draw: the image would be empty");
  }
  std::vector<png_byte> map;
  for (const Rgb& colour : colourMap) map.insert(map.end(), {colour.r, colour.g, colour.b});

  // libpng's simplified interface: no setjmp, errors come back in image.message.
  png_image image;
  std::memset(&image, 0, sizeof image);
  image.version = PNG_IMAGE_VERSION;
  image.width = width;
  image.height = height;
  image.format = PNG_FORMAT_RGB_COLORMAP;
  image.colormap_entries = static_cast<png_uint_32>(colourMap.size());
  errno = 0;
  if (png_image_write_to_file(&image, path.c_str(), 0, pixels.data(), 0, map.data()) == 0) {
    const std::string reason = errno != 0 ? std::strerror(errno) : image.message;
    png_image_free(&image);
    std::error_code ec;
    std::filesystem::remove(path, ec);
    throw FileError(path, "cannot write the image (" + reason + ")");
  }
}

}  // namespace kvrscan
