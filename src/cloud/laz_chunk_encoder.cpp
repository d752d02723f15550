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
  point_.start(records);
  if (rgb_) rgb_->start(records + kPointBytes);
  if (extra_) extra_->start(records + extraAt);
  for (std::size_t i = 1; i < count; ++i) {
    const std::uint8_t* record = records + i * length;
    point_.write(record);
    if (rgb_) rgb_->write(record + kPointBytes);
    if (extra_) extra_->write(record + extraAt);
  }
  point_.done();
  if (rgb_) rgb_->done();
  if (extra_) extra_->done();
  AppendU32(out, static_cast<std::uint32_t>(count));
  point_.appendSizes(out);
  if (rgb_) rgb_->appendSizes(out);
  if (extra_) extra_->appendSizes(out);
  point_.appendBytes(out);
  if (rgb_) rgb_->appendBytes(out);
  if (extra_) extra_->appendBytes(out);
}

}  // namespace kvr::cloud::laz
