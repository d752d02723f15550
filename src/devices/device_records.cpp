#include "devices/device_records.h"

#include "devices/device_layout.h"
#include "devices/discard_bytes.h"
#include "platform/little_endian.h"
#include "platform/stream_reader.h"

namespace kvr::devices {

// Callers lay these records out in memory themselves: keep the packed sizes.
static_assert(sizeof(DeviceRecord1) == 56 && sizeof(DeviceRecord2) == 40 && sizeof(DeviceRecord3) == 28);
static_assert(sizeof(DeviceRecord4) == 16 && sizeof(DeviceRecord5) == 32 && sizeof(DeviceRecord7) == 44);
static_assert(sizeof(DeviceRecord8) == 12 && sizeof(AncillaryDevicesDataBlock) == 76);

namespace {

std::uint32_t U32At(const std::uint8_t* p, int index) { return le::LoadU32(p + 4 * index); }

// Fields are taken at fixed offsets in file order, which for types 2, 3 and 7 is
// not memory order.
void AppendReading(const std::uint8_t* p, std::uint64_t time, std::uint32_t type, AncillaryDevicesData& data) {
  switch (type) {
    case 1: {
      DeviceRecord1 r;
      r.time = time;
      for (int i = 0; i < 6; ++i) r.raw[i] = static_cast<std::int32_t>(U32At(p, i));
      data.type1Records.push_back(r);
      break;
    }
    case 2: {
      DeviceRecord2 r;
      r.time = time;
      r.value = U32At(p, 0);
      r.a = le::LoadU64(p + 4);
      r.b = le::LoadU64(p + 12);
      r.c = le::LoadU64(p + 20);
      data.type2Records.push_back(r);
      break;
    }
    case 3: {
      DeviceRecord3 r;
      r.time = time;
      r.w0 = U32At(p, 0);
      r.w4 = U32At(p, 1);
      r.w1 = U32At(p, 2);
      r.w2 = U32At(p, 3);
      r.w3 = U32At(p, 4);
      data.type3Records.push_back(r);
      break;
    }
    case 4: {
      DeviceRecord4 r;
      r.time = time;
      for (int i = 0; i < 2; ++i) r.values[i] = U32At(p, i);
      data.type4Records.push_back(r);
      break;
    }
    case 5:
    case 6: {
      DeviceRecord5 r;
      r.time = time;
      for (int i = 0; i < 6; ++i) r.values[i] = U32At(p, i);
      (type == 5 ? data.type5Records : data.type6Records).push_back(r);
      break;
    }
    case 7: {
      DeviceRecord7 r;
      r.time = time;
      r.e0 = U32At(p, 0);
      r.d = le::LoadU64(p + 4);
      r.e1 = U32At(p, 3);
      r.e2 = U32At(p, 4);
      r.e3 = U32At(p, 5);
      r.e4 = U32At(p, 6);
      r.e5 = U32At(p, 7);
      r.e6 = U32At(p, 8);
      data.type7Records.push_back(r);
      break;
    }
    case 8: {
      DeviceRecord8 r;
      r.time = time;
      r.value = U32At(p, 0);
      data.type8Records.push_back(r);
      break;
    }
    default:
      break;
  }
}

}  // namespace

std::size_t PayloadSize(std::uint32_t type) { return device_layout::PayloadSize(type); }

bool ReadDeviceRecord(std::FILE* in, std::uint64_t time, std::uint32_t type, std::uint32_t size,
                      AncillaryDevicesData& data) {
  const std::size_t payloadSize = PayloadSize(type);
  if (payloadSize == 0) return DiscardBytes(in, size);
  // Zero-filled, so the bytes of a cut payload that never arrive read as zero.
  std::uint8_t payload[device_layout::kLargestPayload] = {};
  const bool complete = stream::ReadBytes(in, payload, payloadSize) == payloadSize;
  AppendReading(payload, time, type, data);
  return complete;
}

}  // namespace kvr::devices
