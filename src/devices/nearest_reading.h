#pragma once

#include <span>

#include "kvr_decode/device_data.h"

namespace kvr::devices {

// Sets nearestType7 of every type 2 reading to the index of the first type 7
// reading nearest to it in time, or -1 when that one is 5 s or more away or there
// is none. Distances are signed 64-bit tick differences, taken absolute.
void LinkNearestType7(std::span<DeviceRecord2> type2, std::span<const DeviceRecord7> type7);

}  // namespace kvr::devices
