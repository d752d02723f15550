#include "devices/device_records.h"

#include <span>

#include "devices/discard_bytes.h"
#include "platform/little_endian.h"
#include "platform/stream_reader.h"

namespace kvr::devices {

// Callers lay these records out in memory themselves: keep the packed sizes.
static_assert(sizeof(DeviceRecord1) == 56 && sizeof(DeviceRecord2) == 40 && sizeof(DeviceRecord3) == 28);
static_assert(sizeof(DeviceRecord4) == 16 && sizeof(DeviceRecord5) == 32 && sizeof(DeviceRecord7) == 44);
static_assert(sizeof(DeviceRecord8) == 12 && sizeof(AncillaryDevicesDataBlock) == 76);

namespace {

constexpr std::size_t kPayloadSizes[] = {0, 24, 28, 20, 8, 24, 24, 36, 4};
constexpr std::size_t kLargestPayload = 36;

// Fields are taken in file order, which for types 2, 3 and 7 is not memory order.
void AppendReading(le::ByteCursor& in, std::uint64_t time, std::uint32_t type, AncillaryDevicesData& data) {
  switch (type) {
    case 1: {
      DeviceRecord1 r;
      r.time = time;
      for (std::int32_t& v : r.raw) v = static_cast<std::int32_t>(in.u32());
      data.type1Records.push_back(r);
      break;
    }
    case 2: {
      DeviceRecord2 r;
      r.time = time;
      r.value = in.u32();
      r.a = in.u64();
      r.b = in.u64();
      r.c = in.u64();
      data.type2Records.push_back(r);
      break;
    }
    case 3: {
      DeviceRecord3 r;
      r.time = time;
      for (const int i : {0, 4, 1, 2, 3}) r.w[i] = in.u32();
      data.type3Records.push_back(r);
      break;
    }
    case 4: {
      DeviceRecord4 r;
      r.time = time;
      for (std::uint32_t& v : r.values) v = in.u32();
      data.type4Records.push_back(r);
      break;
    }
    case 5:
    case 6: {
      DeviceRecord5 r;
      r.time = time;
      for (std::uint32_t& v : r.values) v = in.u32();
      (type == 5 ? data.type5Records : data.type6Records).push_back(r);
      break;
    }
    case 7: {
      DeviceRecord7 r;
      r.time = time;
      r.e[0] = in.u32();
      r.d = in.u64();
      for (int i = 1; i < 7; ++i) r.e[i] = in.u32();
      data.type7Records.push_back(r);
      break;
    }
    case 8: {
      DeviceRecord8 r;
      r.time = time;
      r.value = in.u32();
      data.type8Records.push_back(r);
      break;
    }
    default:
      break;
  }
}

}  // namespace

std::size_t PayloadSize(std::uint32_t type) { return type < std::size(kPayloadSizes) ? kPayloadSizes[type] : 0; }

bool ReadDeviceRecord(std::FILE* in, std::uint64_t time, std::uint32_t type, std::uint32_t size,
                      AncillaryDevicesData& data) {
  const std::size_t payloadSize = PayloadSize(type);
  if (payloadSize == 0) return DiscardBytes(in, size);
  std::uint8_t payload[kLargestPayload] = {};
  const bool complete = stream::ReadBytes(in, payload, payloadSize) == payloadSize;
  le::ByteCursor cursor(std::span<const std::uint8_t>(payload, payloadSize));
  AppendReading(cursor, time, type, data);
  return complete;
}

}  // namespace kvr::devices
