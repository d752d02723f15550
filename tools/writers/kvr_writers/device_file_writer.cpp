#include "kvr_writers/device_file_writer.h"

namespace kvr::writers {

DeviceFileBuilder::DeviceFileBuilder(std::int32_t version, std::string_view signature) {
  out_.fixed(signature, devices::device_layout::kSignatureSize).i32(version);
}

DeviceFileBuilder& DeviceFileBuilder::calibrationBlock(std::string_view text) {
  return calibrationBlock(text, static_cast<std::uint32_t>(text.size()));
}

DeviceFileBuilder& DeviceFileBuilder::calibrationBlock(std::string_view text, std::uint32_t statedByteCount) {
  out_.u32(statedByteCount).text(text);
  return *this;
}

DeviceFileBuilder& DeviceFileBuilder::record(std::uint64_t time, std::uint32_t type,
                                             const std::vector<std::uint8_t>& payload) {
  return record(time, type, payload, static_cast<std::uint32_t>(payload.size()));
}

DeviceFileBuilder& DeviceFileBuilder::record(std::uint64_t time, std::uint32_t type,
                                             const std::vector<std::uint8_t>& payload, std::uint32_t statedSize) {
  out_.u64(time).u32(type).u32(statedSize).append(payload);
  return *this;
}

std::vector<std::uint8_t> DeviceFileBuilder::DevicePayload(const DeviceReading1& r) {
  ByteWriter w;
  for (const std::int32_t v : r.raw) w.i32(v);
  return w.take();
}

std::vector<std::uint8_t> DeviceFileBuilder::DevicePayload(const DeviceReading2& r) {
  return ByteWriter().u32(r.value).u64(r.a).u64(r.b).u64(r.c).take();
}

std::vector<std::uint8_t> DeviceFileBuilder::DevicePayload(const DeviceReading3& r) {
  return ByteWriter().u32(r.w[0]).u32(r.w[4]).u32(r.w[1]).u32(r.w[2]).u32(r.w[3]).take();
}

std::vector<std::uint8_t> DeviceFileBuilder::DevicePayload(const DeviceReading4& r) {
  return ByteWriter().u32(r.values[0]).u32(r.values[1]).take();
}

std::vector<std::uint8_t> DeviceFileBuilder::DevicePayload(const DeviceReading5& r) {
  ByteWriter w;
  for (const std::uint32_t v : r.values) w.u32(v);
  return w.take();
}

std::vector<std::uint8_t> DeviceFileBuilder::DevicePayload(const DeviceReading7& r) {
  ByteWriter w;
  w.u32(r.e[0]).u64(r.d);
  for (int i = 1; i < 7; ++i) w.u32(r.e[i]);
  return w.take();
}

std::vector<std::uint8_t> DeviceFileBuilder::DevicePayload(const DeviceReading8& r) {
  return ByteWriter().u32(r.value).take();
}

namespace {

template <class Pairs>
std::string KeyValueLines(const Pairs& pairs) {
  std::string text;
  for (const auto& [key, value] : pairs) {
    text.append(key).append("=").append(value).append("\n");
  }
  text.push_back('\0');
  return text;
}

}  // namespace

std::string DeviceCalibrationText(std::initializer_list<std::pair<std::string_view, std::string_view>> pairs) {
  return KeyValueLines(pairs);
}

std::string DeviceCalibrationText(const std::vector<std::pair<std::string, std::string>>& pairs) {
  return KeyValueLines(pairs);
}

}  // namespace kvr::writers
