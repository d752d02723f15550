#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "kvr_decode/cloud/export.h"

namespace kvr::cloud {

// One field of a scan's point records.
struct KVR_CLOUD_API E57Field {
  std::string name;
  std::string type;  // Integer, ScaledInteger or Float
  std::int64_t minimum = 0, maximum = 0;
  double scale = 1.0, offset = 0.0;
};

struct KVR_CLOUD_API E57ScanSummary {
  std::string name, guid;
  std::uint64_t points = 0;
  std::uint64_t pointsOffset = 0;  // physical, of the points' section
  std::vector<E57Field> fields;
  std::uint64_t groups = 0;  // line groups
};

struct KVR_CLOUD_API E57ImageSummary {
  std::string name, kind, scanGuid;  // kind: png or jpeg
  std::uint64_t width = 0, height = 0, bytes = 0;
};

struct KVR_CLOUD_API E57Summary {
  std::string guid;
  std::uint64_t pages = 0;  // every one checked
  std::string xml;
  std::vector<E57ScanSummary> scans;
  std::vector<E57ImageSummary> images;
};

// Reads back an E57 file as the layer writes them: checks the header and every
// page's checksum, and lists the XML's scans and images. Not a general E57
// reader: InputError for anything it does not understand.
KVR_CLOUD_API E57Summary ReadE57Summary(const std::filesystem::path& path);

// The values of every field of a scan's points, field by field (integers
// unscaled; Float fields' doubles as their bits), for checking files.
KVR_CLOUD_API std::vector<std::vector<std::int64_t>> ReadE57Fields(const std::filesystem::path& path,
                                                                   const E57ScanSummary& scan);

}  // namespace kvr::cloud
