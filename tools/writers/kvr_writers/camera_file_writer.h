#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "devices/camera_layout.h"
#include "kvr_writers/byte_writer.h"

// Camera files ("#KVRCAMR"): a short header, then image records.
namespace kvr::writers {

// The header of a camera file. A stated text length other than the text's own
// makes a damaged file.
struct CameraHeaderFields {
  std::string signature = devices::camera_layout::kSignature;
  std::uint32_t timeStampFlag = 1;
  std::string text{};
  std::optional<std::uint32_t> statedTextLength{};
  std::uint32_t headerValue = 0;
};

// One image record. The time stamp is written only when the header's flag is
// non-zero; a stated image size other than the image's own makes a damaged record.
struct CameraRecordFields {
  std::uint64_t timeStamp = 0;
  std::array<std::uint32_t, 6> values{};
  std::vector<std::uint8_t> image{};
  std::optional<std::uint32_t> statedImageSize{};
};

// Builds camera files ("#KVRCAMR"): the header, then records in the order added.
class CameraFileBuilder {
 public:
  explicit CameraFileBuilder(const CameraHeaderFields& header);

  CameraFileBuilder& record(const CameraRecordFields& record);

  std::size_t size() const { return out_.size(); }
  const std::vector<std::uint8_t>& bytes() const { return out_.bytes(); }

 private:
  bool timeStamps_;
  ByteWriter out_;
};

// The bytes of a text, as image data.
std::vector<std::uint8_t> ImageBytes(std::string_view text);

}  // namespace kvr::writers
