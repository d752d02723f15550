#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kvr_decode/cloud/las_writer.h"
#include "kvr_decode/cloud/point_reader.h"
#include "kvr_decode/cloud/point_writer.h"
#include "kvr_decode/cloud/scan.h"
#include "library_log.h"
#include "progress.h"

namespace kvrscan {

enum class PointFormat { kPly, kCsv, kLas };

// The format an output name asks for by its extension (.ply, .csv, .las; any case).
std::optional<PointFormat> PointFormatOf(std::string_view path);

// The point layer's writer of that format (LAS takes `las`, PLY and CSV the comments).
std::unique_ptr<kvr::cloud::PointWriter> OpenPointWriter(const std::string& path, PointFormat format,
                                                         const std::vector<std::string>& comments,
                                                         const kvr::cloud::Colouring& colouring,
                                                         const kvr::cloud::LasOptions& las = {});

struct ExportSummary {
  std::uint64_t points = 0;
  std::uint64_t withoutRange = 0;  // returns whose stop count lies before their shot's T0
  std::uint64_t shots = 0;
  std::uint64_t blocks = 0;
  double seconds = 0.0;
  std::string damage;  // what the walk found wrong with the scan, "" when nothing
};

// Streams every point the selection takes into the writer, in file order. With several
// threads, each reads runs of blocks through a PointReader of its own and the
// batches are written in file order; a few batches are in flight at most, so
// memory stays the same whatever the scan's size. The file is the same on any
// number of threads.
// Every point, with the columns the PLY and CSV writers read.
kvr::cloud::Selection PointFileSelection();

ExportSummary ExportPoints(const kvr::cloud::Scan& scan, unsigned threads, const LibraryLog* log,
                           kvr::cloud::PointWriter& writer, Progress* progress,
                           const kvr::cloud::Selection& selection = PointFileSelection());

}  // namespace kvrscan
