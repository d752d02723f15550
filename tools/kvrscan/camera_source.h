#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "devices/camera_layout.h"

namespace kvrscan {

// One image record of a camera file as the library reads it.
struct CameraImage {
  std::uint64_t index = 0;
  std::uint64_t offset = 0;  // of the record in the file
  std::uint64_t timeStamp = 0;
  std::array<std::uint32_t, kvr::devices::camera_layout::kRecordValueCount> values{};
  std::uint32_t imageSize = 0;
  std::string_view type;    // file name extension from the image's first bytes
  std::string extractedTo;  // where the image was written, if it was
};

// What the camera command reports of a camera file.
struct CameraContents {
  std::uint32_t timeStampPresent = 0;
  std::uint32_t headerValue = 0;
  std::string text;
  std::vector<CameraImage> images;
  std::uint64_t imageBytes = 0;
  std::string damage;  // why reading stopped before the end of the file, if it did
};

// Reads a camera file through the library; with `extractTo`, writes each image
// there as image_NNNN.<type> (the directory is created). ToolError for a file
// the library refuses or whose header is cut short; damage found after the
// header ends the records early and is returned in `damage`.
// `onImage`, when given, sees each record's image bytes as it is read.
using CameraImageVisitor = std::function<void(const CameraImage&, std::span<const unsigned char> bytes)>;
CameraContents ReadCameraContents(const std::string& path, const std::optional<std::string>& extractTo,
                                  const CameraImageVisitor& onImage = {});

// The image format by its first bytes, as a file name extension ("bin" when unknown).
std::string_view ImageType(std::span<const unsigned char> image);

}  // namespace kvrscan
