#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kvr_decode/cloud/e57_writer.h"
#include "kvr_decode/cloud/export.h"
#include "kvr_decode/cloud/las_writer.h"
#include "kvr_decode/cloud/laz_writer.h"
#include "kvr_decode/cloud/point_reader.h"
#include "kvr_decode/cloud/point_writer.h"
#include "kvr_decode/cloud/scan.h"

namespace kvr::cloud {

// The point file formats, chosen by the output's extension. A new format is
// one more value here and one more writer class.
enum class PointFormat { kPly, kCsv, kLas, kLaz, kE57 };

// The format an output name asks for by its extension (.ply, .csv, .las, .laz,
// .e57; any case), or nothing.
KVR_CLOUD_API std::optional<PointFormat> PointFormatOf(const std::filesystem::path& path);

// "ply", "csv", "las", "laz", "e57": the format's name in reports.
KVR_CLOUD_API const char* FormatName(PointFormat format);

// The batch columns (see Column) the format's writer reads.
KVR_CLOUD_API std::uint32_t ColumnsOf(PointFormat format);

// What the writers take beside the points; each reads the members it needs.
struct KVR_CLOUD_API WriterSettings {
  std::vector<std::string> comments;  // PLY and CSV header comments
  Colouring colouring;
  LasOptions las;  // LAS and LAZ
  LazOptions laz;
  E57ScanInfo e57;  // the first scan; an E57PointWriter's file() takes more
};

// The point layer's writer of that format for `path`.
KVR_CLOUD_API std::unique_ptr<PointWriter> OpenPointWriter(const std::filesystem::path& path, PointFormat format,
                                                           const WriterSettings& settings);

// Called after each block written: blocks done of the scan's block count.
using ExportProgress = std::function<void(std::uint64_t blocksDone, std::uint64_t blockCount)>;

struct ExportResult {
  std::uint64_t points = 0;  // written by this export
  ReadTally tally;           // of the blocks written, in file order
  double seconds = 0.0;
};

// Streams every point the selection takes into the writer, in file order. With
// several threads, each reads runs of blocks through a PointReader of its own
// and the batches are written in file order; a few batches are in flight at
// most, so memory stays the same whatever the scan's size, and the file is the
// same on any number of threads. The writer is not finished: the caller does.
KVR_CLOUD_API ExportResult ExportPoints(const Scan& scan, PointWriter& writer, const Selection& selection,
                                        unsigned threads, const ExportProgress& progress = {});

}  // namespace kvr::cloud
