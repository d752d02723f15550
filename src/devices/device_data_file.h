#pragma once

#include "kvr_decode/device_data.h"

namespace kvr::devices {

// Reads a device data file into data (lists appended to), then derives the tilt
// of every type 1 reading and the nearest type 7 reading of every type 2 reading.
// 0 on success; -1 when the file cannot be opened or its header is cut short;
// -2 on a bad signature.
int ReadDeviceDataInfo(const wchar_t* deviceDataFileName, AncillaryDevicesData& data);

}  // namespace kvr::devices
