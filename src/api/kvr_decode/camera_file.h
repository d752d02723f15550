#pragma once

#include <cstdint>
#include <cstdio>

#include "kvr_decode/export.h"

// The header of a camera file ("#KVRCAMR"). text is allocated by the reader with
// the C allocator and belongs to the caller (ReleaseCameraFileHeader or free).
struct CameraFileHeader {
  char signature[8] = {};
  std::uint32_t timeStampPresent = 0;  // non-zero: every record starts with an 8-byte time stamp
  std::uint32_t textLength = 0;
  char* text = nullptr;  // textLength + 1 bytes; the text is not zero-terminated by the file
  std::uint32_t headerValue = 0;
};

// One image record. imageData is allocated by the reader with the C allocator and
// belongs to the caller (ReleaseCameraFileRecord or free); the next read replaces
// the pointer without releasing the previous buffer.
struct CameraFileRecord {
  std::uint64_t timeStamp = 0;  // as stored; 0 when the file has no time stamps
  std::uint32_t recordValues[6] = {};
  std::uint32_t imageSize = 0;
  unsigned char* imageData = nullptr;  // imageSize + 1 bytes, the image first
};

// Opens a camera file, checks its signature and reads its header. Returns the
// stream at the first record (the caller closes it), or null on failure. The new
// text replaces cameraFileHeader.text without releasing a previous one; when no
// buffer of textLength + 1 bytes can be had, the stream is closed and
// std::bad_alloc thrown.
KVR_API std::FILE* ReadCameraFileHeader(const wchar_t* cameraFileName, CameraFileHeader& cameraFileHeader);

// Reads the next record. 0, also past the last record (the record then keeps what
// the short reads left; test the stream for end of file); -3 when the image buffer
// cannot be allocated (the image is skipped and imageData is null); -1 when fp
// holds no stream.
KVR_API int GetNextCameraFileRecord(std::FILE** fp, CameraFileHeader& cameraFileHeader,
                                    CameraFileRecord& cameraFileRecord);

// Release the reader's buffers and null their pointers; the sizes are kept.
KVR_API void ReleaseCameraFileRecord(CameraFileRecord& cameraFileRecord);
KVR_API void ReleaseCameraFileHeader(CameraFileHeader& cameraFileHeader);
