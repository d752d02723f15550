#include "kvr_writers/camera_file_writer.h"

#include "devices/camera_layout.h"

namespace kvr::writers {

CameraFileBuilder::CameraFileBuilder(const CameraHeaderFields& header) : timeStamps_(header.timeStampFlag != 0) {
  out_.fixed(header.signature, devices::camera_layout::kSignatureSize)
      .u32(header.timeStampFlag)
      .u32(header.statedTextLength.value_or(static_cast<std::uint32_t>(header.text.size())))
      .text(header.text)
      .u32(header.headerValue);
}

CameraFileBuilder& CameraFileBuilder::record(const CameraRecordFields& record) {
  if (timeStamps_) out_.u64(record.timeStamp);
  for (const std::uint32_t v : record.values) out_.u32(v);
  out_.u32(record.statedImageSize.value_or(static_cast<std::uint32_t>(record.image.size()))).append(record.image);
  return *this;
}

std::vector<std::uint8_t> ImageBytes(std::string_view text) { return {text.begin(), text.end()}; }

}  // namespace kvr::writers
