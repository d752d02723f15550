#include "devices/device_data_file.h"

#include <cerrno>
#include <cstring>
#include <iostream>
#include <string>
#include <string_view>

#include "devices/device_calibration.h"
#include "devices/device_layout.h"
#include "devices/device_records.h"
#include "devices/nearest_reading.h"
#include "devices/tilt.h"
#include "diag/error_manager.h"
#include "platform/file_system.h"
#include "platform/little_endian.h"
#include "platform/stream_reader.h"

namespace kvr::devices {

namespace {

constexpr std::string_view kReadDeviceDataInfoContext =
    "int ReadDeviceDataInfo(unsigned char *deviceDataFileName, DeviceDataInfo &deviceDataInfo)";
constexpr std::string_view kBadSignature = "Bad file signature";
constexpr std::string_view kNoData = "Error reading file. DeviceDataFile is valid but contains no data";
constexpr std::string_view kVersionLine = "Device version ";

bool Ended(std::FILE* in) { return std::feof(in) != 0 || std::ferror(in) != 0; }

// The calibration blocks, each a byte count and a text.
void ReadCalibrationBlocks(std::FILE* in, AncillaryDevicesData& data) {
  std::uint32_t byteCount = 0;
  stream::ReadLe(in, byteCount);
  if (byteCount > 0) DecodeInclinometerCalibration(in, data.inclinometerCalibration, byteCount);
  byteCount = 0;
  stream::ReadLe(in, byteCount);
  if (byteCount > 0) DecodeCompassCalibration(in, data.compassCalibration, byteCount);
}

// Records up to the end of the file. A record whose time, type or size is cut off
// is dropped; one whose payload is cut off is kept and ends the reading.
void ReadRecords(std::FILE* in, AncillaryDevicesData& data) {
  using device_layout::kTimeSize;
  std::uint8_t head[device_layout::kRecordHeadSize];
  if (stream::ReadBytes(in, head, kTimeSize) < kTimeSize) return;
  if (stream::ReadBytes(in, head + kTimeSize, kTimeSize) < kTimeSize) return;
  for (;;) {
    const std::uint64_t time = le::LoadU64(head);
    const std::uint32_t type = le::LoadU32(head + kTimeSize);
    const std::uint32_t size = le::LoadU32(head + kTimeSize + 4);
    if (!ReadDeviceRecord(in, time, type, size, data) || Ended(in)) return;
    if (stream::ReadBytes(in, head, sizeof head) < sizeof head) return;
  }
}

void LogOpenFailure(const wchar_t* name, int error) {
  // The message keeps the long-standing text: the wide name's storage read as a
  // narrow string (an ASCII name shows its first letter). The detail has it whole.
  Log(kReadDeviceDataInfoContext,
      "Error opening file " + platform::NarrowStorageBytes(name) + " (" + std::strerror(error) + ")",
      {platform::NarrowLowBytes(name)});
}

}  // namespace

int ReadDeviceDataInfo(const wchar_t* deviceDataFileName, AncillaryDevicesData& data) {
  errno = 0;
  std::FILE* in = platform::OpenFile(deviceDataFileName, "rb");
  if (in == nullptr) {
    LogOpenFailure(deviceDataFileName, errno != 0 ? errno : EINVAL);
    return -1;
  }

  char signature[sizeof device_layout::kSignature] = {};
  stream::ReadBytes(in, signature, sizeof device_layout::kSignature - 1);
  if (std::strcmp(signature, device_layout::kSignature) != 0) {
    // Deliberately not closed: -2 keeps its long-standing behaviour of leaving the stream open.
    Log(kReadDeviceDataInfoContext, std::string(kBadSignature), {std::string(signature)});
    return -2;
  }

  std::int32_t version = data.version;
  stream::ReadLe(in, version);
  data.version = version;
  std::cout << kVersionLine << version << std::endl;
  if (version > device_layout::kLastVersionWithoutCalibration) ReadCalibrationBlocks(in, data);
  if (Ended(in)) {
    Log(kReadDeviceDataInfoContext, std::string(kNoData), {platform::NarrowLowBytes(deviceDataFileName)});
    std::fclose(in);
    return -1;
  }

  ReadRecords(in, data);
  std::fclose(in);

  for (DeviceRecord1& reading : data.type1Records) ComputeTilt(reading, data.inclinometerCalibration);
  LinkNearestType7(data.type2Records, data.type7Records);
  return 0;
}

}  // namespace kvr::devices
