#pragma once

#include <cstdint>
#include <vector>

#include "kvr_decode/export.h"

// The readings of the scanner's ancillary devices and the calibration of its
// inclination sensor and compass, as read from a device data file ("#KVRDEVC").
//
// Every record here is packed on 4-byte boundaries, so the 64-bit fields sit where
// the scanner's own tools expect them (a type 3 reading is 28 bytes, not 32).
// Read the 64-bit fields by value (copy them out); do not bind references to them.
#pragma pack(push, 4)

// Inclination sensor calibration, decoded from the file's first calibration text.
struct InclinometerCalibration {
  float sxx = 0.0f;  // scale and cross-axis terms
  float syy = 0.0f;
  float sxy = 0.0f;
  float syx = 0.0f;
  float offnomx = 0.0f;  // nominal offsets
  float offnomy = 0.0f;
  float bsroll = 0.0f;  // boresight angles: stored for the caller, not used here
  float bspitch = 0.0f;
  float bsheading = 0.0f;
  std::int32_t alpha = 0;  // rounded half up from its text value
  float beta = 0.0f;
  float vref = 0.0f;
  std::int32_t pga = 0;  // rounded half up from its text value

  friend bool operator==(const InclinometerCalibration&, const InclinometerCalibration&) = default;
};

// Compass calibration, decoded from the file's second calibration text; stored only.
struct CompassCalibration {
  float xsf = 0.0f;
  float ysf = 0.0f;
  float xoff = 0.0f;
  float yoff = 0.0f;
  float declination = 0.0f;

  friend bool operator==(const CompassCalibration&, const CompassCalibration&) = default;
};

// Every reading starts with its time in 20 ns scanner ticks. Apart from the tilt
// angles and nearestType7, the fields are stored as read, without interpretation.

// Type 1: an inclination reading with the tilt angles derived from it.
struct DeviceRecord1 {
  std::uint64_t time = 0;
  double tiltX = 0.0;      // degrees
  double tiltY = 0.0;      // degrees
  double notFilled = 0.0;  // never written by the reader
  std::int32_t raw[6] = {};

  friend bool operator==(const DeviceRecord1&, const DeviceRecord1&) = default;
};

// Type 2: a reading linked to the nearest type 7 reading in time.
struct DeviceRecord2 {
  std::uint64_t time = 0;
  std::uint64_t a = 0;
  std::uint64_t b = 0;
  std::uint64_t c = 0;
  std::uint32_t value = 0;
  std::int32_t nearestType7 = 0;  // index into type7Records, -1 when none lies within 5 s

  friend bool operator==(const DeviceRecord2&, const DeviceRecord2&) = default;
};

struct DeviceRecord3 {
  std::uint64_t time = 0;
  // The file holds them in the order w0, w4, w1, w2, w3.
  std::uint32_t w0 = 0;
  std::uint32_t w1 = 0;
  std::uint32_t w2 = 0;
  std::uint32_t w3 = 0;
  std::uint32_t w4 = 0;

  friend bool operator==(const DeviceRecord3&, const DeviceRecord3&) = default;
};

struct DeviceRecord4 {
  std::uint64_t time = 0;
  std::uint32_t values[2] = {};

  friend bool operator==(const DeviceRecord4&, const DeviceRecord4&) = default;
};

// Types 5 and 6 share this layout.
struct DeviceRecord5 {
  std::uint64_t time = 0;
  std::uint32_t values[6] = {};

  friend bool operator==(const DeviceRecord5&, const DeviceRecord5&) = default;
};
using DeviceRecord6 = DeviceRecord5;

struct DeviceRecord7 {
  std::uint64_t time = 0;
  std::uint64_t d = 0;
  // The file holds e0, then d, then e1 to e6.
  std::uint32_t e0 = 0;
  std::uint32_t e1 = 0;
  std::uint32_t e2 = 0;
  std::uint32_t e3 = 0;
  std::uint32_t e4 = 0;
  std::uint32_t e5 = 0;
  std::uint32_t e6 = 0;

  friend bool operator==(const DeviceRecord7&, const DeviceRecord7&) = default;
};

struct DeviceRecord8 {
  std::uint64_t time = 0;
  std::uint32_t value = 0;

  friend bool operator==(const DeviceRecord8&, const DeviceRecord8&) = default;
};

// The fixed part of the device data. The lists follow in AncillaryDevicesData:
// under 4-byte packing they would start at offset 76, and a std::vector on a
// 4-byte boundary is a misaligned object. Deriving keeps the fixed part packed, as
// callers lay it out, and the containers aligned (they start at offset 80).
struct AncillaryDevicesDataBlock {
  std::int32_t version = 0;
  InclinometerCalibration inclinometerCalibration;
  CompassCalibration compassCalibration;
};

#pragma pack(pop)

// Filled by ReadDeviceDataInfo; each list holds its type's readings in file order.
struct AncillaryDevicesData : AncillaryDevicesDataBlock {
  std::vector<DeviceRecord1> type1Records;
  std::vector<DeviceRecord2> type2Records;
  std::vector<DeviceRecord3> type3Records;
  std::vector<DeviceRecord4> type4Records;
  std::vector<DeviceRecord5> type5Records;
  std::vector<DeviceRecord6> type6Records;
  std::vector<DeviceRecord7> type7Records;
  std::vector<DeviceRecord8> type8Records;
};

// Reads a whole device data file into deviceDataInfo, appending to its lists, then
// derives the tilt angles of every type 1 reading and links every type 2 reading
// to its nearest type 7 reading. Prints "Device version N" to standard output.
// 0 on success; -1 when the file cannot be opened or its header is cut short;
// -2 on a bad signature (the stream is then left open).
KVR_API int ReadDeviceDataInfo(const wchar_t* deviceDataFileName, AncillaryDevicesData& deviceDataInfo);
