#pragma once

#include <array>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "devices/device_layout.h"
#include "kvr_writers/byte_writer.h"

// Device data files ("#KVRDEVC"): signature and version, from version 93 on two
// calibration texts (inclinometer, then compass), then time-stamped readings of
// eight types. The types carry no names in the files; their payloads are
// written field by field in the order the files hold them.
namespace kvr::writers {

// Type 1: the inclinometer's six raw values.
struct DeviceReading1 {
  std::uint64_t time = 0;
  std::array<std::int32_t, 6> raw{};
};
struct DeviceReading2 {
  std::uint64_t time = 0;
  std::uint64_t a = 0, b = 0, c = 0;
  std::uint32_t value = 0;  // written first
};
struct DeviceReading3 {
  std::uint64_t time = 0;
  std::array<std::uint32_t, 5> w{};  // written w0, w4, w1, w2, w3
};
struct DeviceReading4 {
  std::uint64_t time = 0;
  std::array<std::uint32_t, 2> values{};
};
// Types 5 and 6 share a layout.
struct DeviceReading5 {
  std::uint64_t time = 0;
  std::array<std::uint32_t, 6> values{};
};
struct DeviceReading7 {
  std::uint64_t time = 0;
  std::uint64_t d = 0;
  std::array<std::uint32_t, 7> e{};  // written e0, d, e1 .. e6
};
struct DeviceReading8 {
  std::uint64_t time = 0;
  std::uint32_t value = 0;
};

// Builds a device data file in file order: whatever calibration blocks and
// records are added, in the order added. Leaving the calibration blocks out of a
// version 93 file, or stating wrong sizes, makes damaged files.
class DeviceFileBuilder {
 public:
  explicit DeviceFileBuilder(std::int32_t version, std::string_view signature = devices::device_layout::kSignature);

  // One calibration block: its byte count (the text's length unless stated), then the text.
  DeviceFileBuilder& calibrationBlock(std::string_view text);
  DeviceFileBuilder& calibrationBlock(std::string_view text, std::uint32_t statedByteCount);

  // One record: time, type, size (the payload's length unless stated), payload.
  DeviceFileBuilder& record(std::uint64_t time, std::uint32_t type, const std::vector<std::uint8_t>& payload);
  DeviceFileBuilder& record(std::uint64_t time, std::uint32_t type, const std::vector<std::uint8_t>& payload,
                            std::uint32_t statedSize);

  DeviceFileBuilder& reading(const DeviceReading1& r) { return record(r.time, 1, DevicePayload(r)); }
  DeviceFileBuilder& reading(const DeviceReading2& r) { return record(r.time, 2, DevicePayload(r)); }
  DeviceFileBuilder& reading(const DeviceReading3& r) { return record(r.time, 3, DevicePayload(r)); }
  DeviceFileBuilder& reading(const DeviceReading4& r) { return record(r.time, 4, DevicePayload(r)); }
  DeviceFileBuilder& reading(const DeviceReading5& r, std::uint32_t type = 5) {
    return record(r.time, type, DevicePayload(r));
  }
  DeviceFileBuilder& reading(const DeviceReading7& r) { return record(r.time, 7, DevicePayload(r)); }
  DeviceFileBuilder& reading(const DeviceReading8& r) { return record(r.time, 8, DevicePayload(r)); }

  std::size_t size() const { return out_.size(); }
  const std::vector<std::uint8_t>& bytes() const { return out_.bytes(); }

  // The payload bytes of a reading, in file order.
  static std::vector<std::uint8_t> DevicePayload(const DeviceReading1& r);
  static std::vector<std::uint8_t> DevicePayload(const DeviceReading2& r);
  static std::vector<std::uint8_t> DevicePayload(const DeviceReading3& r);
  static std::vector<std::uint8_t> DevicePayload(const DeviceReading4& r);
  static std::vector<std::uint8_t> DevicePayload(const DeviceReading5& r);
  static std::vector<std::uint8_t> DevicePayload(const DeviceReading7& r);
  static std::vector<std::uint8_t> DevicePayload(const DeviceReading8& r);

 private:
  ByteWriter out_;
};

// A device calibration text of "key=value" lines, each ended by a line feed,
// then the terminating zero byte the reader expects.
std::string DeviceCalibrationText(std::initializer_list<std::pair<std::string_view, std::string_view>> pairs);
std::string DeviceCalibrationText(const std::vector<std::pair<std::string, std::string>>& pairs);

}  // namespace kvr::writers
