// ReadCameraFileHeader on any camera file, then GetNextCameraFileRecord until the
// stream reports the end of the file, as callers walk it.

#include <cstdlib>
#include <cstring>

#include "fuzz_support.h"
#include "kvr_decode/camera_file.h"

namespace {

using kvr::fuzz::Bytes;
using kvr::fuzz::Finding;
using kvr::fuzz::ReadModel;

constexpr const char* kCameraFile = "camera.dat";
constexpr const wchar_t* kCameraFileWide = L"camera.dat";

// Follows the reader through the file, the record's fields kept from call to
// call as it keeps them, and tells whether every text and image size it meets
// stays within the claim limit.
bool ClaimsWithinLimit(Bytes file) {
  ReadModel in(file);
  std::uint8_t signature[8] = {};
  in.read(signature, sizeof signature);
  if (std::memcmp(signature, "#KVRCAMR", 8) != 0) return true;
  std::uint32_t timeStamps = 0, textLength = 0, headerValue = 0;
  in.readField(timeStamps);
  in.readField(textLength);
  if (textLength > kvr::fuzz::kLargestClaim) return false;
  in.skip(textLength);
  in.readField(headerValue);
  std::uint32_t imageSize = 0;
  while (!in.ended()) {
    if (timeStamps != 0) in.skip(8);
    in.skip(24);
    in.readField(imageSize);
    if (imageSize > kvr::fuzz::kLargestClaim) return false;
    in.skip(imageSize);
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  kvr::fuzz::TrimLog();
  const Bytes file(data, size);
  if (!ClaimsWithinLimit(file)) return 0;
  kvr::fuzz::WriteInputFile(kCameraFile, file);

  CameraFileHeader header;
  std::FILE* stream = ReadCameraFileHeader(kCameraFileWide, header);
  if (stream == nullptr) {
    if (header.text != nullptr) Finding("a rejected file left a header text");
    return 0;
  }
  if (header.text == nullptr) Finding("no header text");

  CameraFileRecord record;
  // Every call reads at least the record's 28 fixed bytes, or meets the end.
  const std::size_t mostCalls = size / 28 + 1;
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
