// ReadCameraFileHeader on any camera file, then GetNextCameraFileRecord until the
// stream reports the end of the file, as callers walk it.

#include <cstdlib>
#include <cstring>

#include "devices/camera_layout.h"
#include "fuzz_support.h"
#include "kvr_decode/camera_file.h"

namespace {

using kvr::fuzz::Bytes;
using kvr::fuzz::Finding;

constexpr const char* kCameraFile = "camera.dat";
constexpr const wchar_t* kCameraFileWide = L"camera.dat";

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  kvr::fuzz::TrimLog();
  const Bytes file(data, size);
  if (kvr::test::LargestCameraFileClaim(file) > kvr::fuzz::kLargestClaim) return 0;
  kvr::fuzz::WriteInputFile(kCameraFile, file);

  CameraFileHeader header;
  std::FILE* stream = ReadCameraFileHeader(kCameraFileWide, header);
  if (stream == nullptr) {
    if (header.text != nullptr) Finding("a rejected file left a header text");
    return 0;
  }
  if (header.text == nullptr) Finding("no header text");

  CameraFileRecord record;
  // Every call reads at least the record's fixed bytes, or meets the end.
  const std::size_t mostCalls = size / kvr::devices::camera_layout::kRecordFixedSize + 1;
  std::size_t calls = 0;
  while (std::feof(stream) == 0 && std::ferror(stream) == 0) {
    if (++calls > mostCalls) Finding("the records do not end with the file");
    if (GetNextCameraFileRecord(&stream, header, record) != 0) Finding("a record read failed");
    if (record.imageData == nullptr) Finding("no image buffer");
    ReleaseCameraFileRecord(record);
  }
  ReleaseCameraFileHeader(header);
  std::fclose(stream);
  return 0;
}
