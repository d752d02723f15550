#include "laz_chunk_encoder.h"

namespace kvr::cloud::laz {

ChunkEncoder::ChunkEncoder(bool colour, std::size_t extraBytes)
    : recordLength_(kPointBytes + (colour ? kRgbBytes : 0) + extraBytes) {
  if (colour) rgb_.emplace();
  if (extraBytes > 0) extra_.emplace(extraBytes);
}

void ChunkEncoder::encode(const std::uint8_t* records, std::size_t count, std::vector<std::uint8_t>& out) {
  const std::size_t length = recordLength_;
  const std::size_t extraAt = kPointBytes + (rgb_ ? kRgbBytes : 0);
  out.assign(records, records + length);
  point_.encode(records, count, length);
  if (rgb_) rgb_->encode(records + kPointBytes, count, length);
  if (extra_) extra_->encode(records + extraAt, count, length);
  AppendU32(out, static_cast<std::uint32_t>(count));
  point_.appendSizes(out);
  if (rgb_) rgb_->appendSizes(out);
  if (extra_) extra_->appendSizes(out);
  point_.appendBytes(out);
  if (rgb_) rgb_->appendBytes(out);
  if (extra_) extra_->appendBytes(out);
}

}  // namespace kvr::cloud::laz
