#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "kvr_decode/device_data.h"

// The typed readings of a device data file.
namespace kvr::devices {

// Payload bytes of a reading of the given type; 0 for a type without a reader.
std::size_t PayloadSize(std::uint32_t type);

// Reads one record's payload and appends the reading, stamped with time, to its
// type's list. Types 1 to 8 read their fixed payload whatever size says; any other
// type is skipped by reading size bytes. A payload cut short by the end of the file
// is still appended, the missing bytes left zero. Returns false when the file
// ended inside the payload.
bool ReadDeviceRecord(std::FILE* in, std::uint64_t time, std::uint32_t type, std::uint32_t size,
                      AncillaryDevicesData& data);

}  // namespace kvr::devices
