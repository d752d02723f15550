#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kvr_decode/device_data.h"
#include "support/byte_writer.h"

namespace kvr::test {

// Builds device data files ("#KVRDEVC") in file order: signature and version,
// then whatever calibration blocks and records are added, in the order added.
// Files of version 93 and up carry two calibration blocks (inclinometer, then
// compass) before the records; leaving them out, or stating wrong sizes, makes
// damaged files.
class DeviceFileBuilder {
 public:
  explicit DeviceFileBuilder(std::int32_t version, std::string_view signature = "#KVRDEVC");

  // One calibration block: its byte count (the text's length unless stated), then the text.
  DeviceFileBuilder& calibrationBlock(std::string_view text);
  DeviceFileBuilder& calibrationBlock(std::string_view text, std::uint32_t statedByteCount);

  // One record: time, type, size (the payload's length unless stated), payload.
  DeviceFileBuilder& record(std::uint64_t time, std::uint32_t type, const std::vector<std::uint8_t>& payload);
  DeviceFileBuilder& record(std::uint64_t time, std::uint32_t type, const std::vector<std::uint8_t>& payload,
                            std::uint32_t statedSize);

  // Typed readings with their payloads in file order (DevicePayload below).
  DeviceFileBuilder& reading(const DeviceRecord1& r) { return record(r.time, 1, DevicePayload(r)); }
  DeviceFileBuilder& reading(const DeviceRecord2& r) { return record(r.time, 2, DevicePayload(r)); }
  DeviceFileBuilder& reading(const DeviceRecord3& r) { return record(r.time, 3, DevicePayload(r)); }
  DeviceFileBuilder& reading(const DeviceRecord4& r) { return record(r.time, 4, DevicePayload(r)); }
  // Types 5 and 6 share a layout.
  DeviceFileBuilder& reading(const DeviceRecord5& r, std::uint32_t type = 5) {
    return record(r.time, type, DevicePayload(r));
  }
  DeviceFileBuilder& reading(const DeviceRecord7& r) { return record(r.time, 7, DevicePayload(r)); }
  DeviceFileBuilder& reading(const DeviceRecord8& r) { return record(r.time, 8, DevicePayload(r)); }

  std::size_t size() const { return out_.size(); }
  const std::vector<std::uint8_t>& bytes() const { return out_.bytes(); }

  // The payload bytes of a reading, fields in file order: type 1 raw[0..5];
  // type 2 value, a, b, c; type 3 w0, w4, w1, w2, w3; type 7 e0, d, e1..e6;
  // the others in memory order. Computed fields (tilts, nearestType7) are not written.
  static std::vector<std::uint8_t> DevicePayload(const DeviceRecord1& r);
  static std::vector<std::uint8_t> DevicePayload(const DeviceRecord2& r);
  static std::vector<std::uint8_t> DevicePayload(const DeviceRecord3& r);
  static std::vector<std::uint8_t> DevicePayload(const DeviceRecord4& r);
  static std::vector<std::uint8_t> DevicePayload(const DeviceRecord5& r);
  static std::vector<std::uint8_t> DevicePayload(const DeviceRecord7& r);
  static std::vector<std::uint8_t> DevicePayload(const DeviceRecord8& r);

 private:
  ByteWriter out_;
};

// A calibration text of "key=value" lines, each ended by a line feed, then the
// terminating zero byte the reader expects.
std::string CalibrationText(std::initializer_list<std::pair<std::string_view, std::string_view>> pairs);

}  // namespace kvr::test
