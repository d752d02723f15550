#pragma once

#include <cstdint>
#include <cstdio>

#include "kvr_decode/camera_file.h"

// The camera file: a header, then image records up to the end of the file.
namespace kvr::devices {

// Opens the file, checks "#KVRCAMR" and reads the header (text of textLength + 1
// bytes). The stream is left at the first record; null on failure.
std::FILE* ReadCameraFileHeader(const wchar_t* cameraFileName, CameraFileHeader& header);

// Reads the next record into a new image buffer of imageSize + 1 bytes. Read
// results are not examined: past the end the record keeps what the short reads
// left and 0 is returned. -3 when the buffer cannot be allocated (the image is
// skipped); -1 when fp holds no stream.
int GetNextCameraFileRecord(std::FILE** fp, const CameraFileHeader& header, CameraFileRecord& record);

void ReleaseCameraFileRecord(CameraFileRecord& record);
void ReleaseCameraFileHeader(CameraFileHeader& header);

}  // namespace kvr::devices
