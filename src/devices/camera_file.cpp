#include "devices/camera_file.h"

#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <string>
#include <string_view>

#include "devices/camera_layout.h"
#include "diag/error_manager.h"
#include "platform/file_system.h"
#include "platform/stream_reader.h"

namespace kvr::devices {

namespace {

constexpr std::string_view kReadCameraFileHeaderContext =
    "FILE *ReadCameraFileHeader(unsigned char *cameraFileName, CameraFileHeader &cameraFileHeader)";
constexpr std::string_view kOpenFailed = "Error opening file";
constexpr std::string_view kBadMagic = "Error reading Camera file Header Magic Number";
constexpr std::string_view kExpectedMagic = "Magic Number expected = #KVRCAMR";

constexpr std::string_view kGetNextCameraFileRecordContext =
    "int GetNextCameraFileRecord(FILE **fp, CameraFileRecord &cameraFileRecord, ErrorManager *errorManagerDcod)";

// A buffer of length + 1 bytes, the size taken in 64 bits so a length of
// 0xFFFFFFFF does not wrap to nothing. Zero-filled: a length far beyond the file
// then costs address space, and memory only for the bytes that are read into it.
void* AllocateLengthPlusOne(std::uint32_t length) {
  const std::uint64_t bytes = std::uint64_t{length} + 1;
  if (bytes > std::numeric_limits<std::size_t>::max()) return nullptr;
  return std::calloc(static_cast<std::size_t>(bytes), 1);
}

void SkipForward(std::FILE* in, std::uint64_t count) {
  const std::int64_t at = platform::Tell(in);
  if (at >= 0) platform::SeekAbsolute(in, static_cast<std::uint64_t>(at) + count);
}

}  // namespace

std::FILE* ReadCameraFileHeader(const wchar_t* cameraFileName, CameraFileHeader& header) {
  std::FILE* in = platform::OpenFile(cameraFileName, "rb");
  if (in == nullptr) {
    Log(kReadCameraFileHeaderContext, std::string(kOpenFailed), {platform::NarrowLowBytes(cameraFileName)});
    return nullptr;
  }
  stream::ReadBytes(in, header.signature, sizeof header.signature);
  if (std::memcmp(header.signature, camera_layout::kSignature, camera_layout::kSignatureSize) != 0) {
    Log(kReadCameraFileHeaderContext, std::string(kBadMagic),
        {platform::NarrowLowBytes(cameraFileName), std::string(kExpectedMagic)});
    std::fclose(in);
    return nullptr;
  }
  stream::ReadLe(in, header.timeStampPresent);
  stream::ReadLe(in, header.textLength);
  header.text = static_cast<char*>(AllocateLengthPlusOne(header.textLength));
  if (header.text == nullptr) {
    // Nothing to hand back that matches textLength: fail as any allocation does.
    std::fclose(in);
    throw std::bad_alloc();
  }
  stream::ReadBytes(in, header.text, header.textLength);
  stream::ReadLe(in, header.headerValue);
  return in;
}

int GetNextCameraFileRecord(std::FILE** fp, const CameraFileHeader& header, CameraFileRecord& record) {
  if (fp == nullptr || *fp == nullptr) return -1;
  std::FILE* in = *fp;
  if (header.timeStampPresent != 0) {
    stream::ReadLe(in, record.timeStamp);
  } else {
    record.timeStamp = 0;
  }
  for (std::uint32_t& value : record.recordValues) stream::ReadLe(in, value);
  stream::ReadLe(in, record.imageSize);

  record.imageData = static_cast<unsigned char*>(AllocateLengthPlusOne(record.imageSize));
  if (record.imageData == nullptr) {
    Log(kGetNextCameraFileRecordContext,
        "Error Allocating " + std::to_string(record.imageSize) + " bytes to store image data");
    SkipForward(in, record.imageSize);
    return -3;
  }
  stream::ReadBytes(in, record.imageData, record.imageSize);
  return 0;
}

void ReleaseCameraFileRecord(CameraFileRecord& record) {
  std::free(record.imageData);
  record.imageData = nullptr;
}

void ReleaseCameraFileHeader(CameraFileHeader& header) {
  std::free(header.text);
  header.text = nullptr;
}

}  // namespace kvr::devices
