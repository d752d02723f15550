#include "kvr_decode/camera_file.h"

#include "devices/camera_file.h"

std::FILE* ReadCameraFileHeader(const wchar_t* cameraFileName, CameraFileHeader& cameraFileHeader) {
  return kvr::devices::ReadCameraFileHeader(cameraFileName, cameraFileHeader);
}

int GetNextCameraFileRecord(std::FILE** fp, CameraFileHeader& cameraFileHeader, CameraFileRecord& cameraFileRecord) {
  return kvr::devices::GetNextCameraFileRecord(fp, cameraFileHeader, cameraFileRecord);
}

void ReleaseCameraFileRecord(CameraFileRecord& cameraFileRecord) {
  kvr::devices::ReleaseCameraFileRecord(cameraFileRecord);
}

void ReleaseCameraFileHeader(CameraFileHeader& cameraFileHeader) {
  kvr::devices::ReleaseCameraFileHeader(cameraFileHeader);
}
