// ReadDeviceDataInfo on any device data file, into a fresh record and then once
// more into the same record (lists are appended to).

#include "devices/device_layout.h"
#include "fuzz_support.h"
#include "kvr_decode/device_data.h"

namespace {

using kvr::fuzz::Finding;

constexpr const char* kDeviceFile = "devices.dat";
constexpr const wchar_t* kDeviceFileWide = L"devices.dat";

std::size_t Readings(const AncillaryDevicesData& d) {
  return d.type1Records.size() + d.type2Records.size() + d.type3Records.size() + d.type4Records.size() +
         d.type5Records.size() + d.type6Records.size() + d.type7Records.size() + d.type8Records.size();
}

void CheckLinks(const AncillaryDevicesData& d) {
  for (const DeviceRecord2& reading : d.type2Records) {
    const std::int32_t link = reading.nearestType7;
    if (link < -1 || (link >= 0 && static_cast<std::size_t>(link) >= d.type7Records.size())) {
      Finding("nearestType7 outside the type 7 list");
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  kvr::fuzz::SilenceStandardOutput();  // "Device version" lines
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  kvr::fuzz::TrimLog();
  kvr::fuzz::WriteInputFile(kDeviceFile, kvr::fuzz::Bytes(data, size));
  kvr::fuzz::LeftOpenStreams leftOpen;

  AncillaryDevicesData devices;
  const int result = ReadDeviceDataInfo(kDeviceFileWide, devices);
  leftOpen.Close();  // a bad signature leaves the file open by design
  if (result != 0 && result != -1 && result != -2) Finding("ReadDeviceDataInfo result outside 0, -1, -2");
  if (result != 0) return 0;
  CheckLinks(devices);
  // A reading takes at least its record head in the file.
  if (Readings(devices) > size / kvr::devices::device_layout::kRecordHeadSize + 1) Finding("more readings than the file can hold");

  const std::size_t once = Readings(devices);
  if (ReadDeviceDataInfo(kDeviceFileWide, devices) != 0) Finding("a second read of the same file failed");
  if (Readings(devices) != 2 * once) Finding("a second read did not append the same readings");
  CheckLinks(devices);
  return 0;
}
