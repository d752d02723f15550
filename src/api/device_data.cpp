#include "kvr_decode/device_data.h"

#include "devices/device_data_file.h"

int ReadDeviceDataInfo(const wchar_t* deviceDataFileName, AncillaryDevicesData& deviceDataInfo) {
  return kvr::devices::ReadDeviceDataInfo(deviceDataFileName, deviceDataInfo);
}
