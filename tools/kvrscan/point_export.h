#pragma once

#include <cstdint>
#include <string>

#include "kvr_decode/cloud/point_export.h"
#include "library_log.h"
#include "progress.h"

namespace kvrscan {

using kvr::cloud::PointFormat;

struct ExportSummary {
  std::uint64_t points = 0;
  std::uint64_t withoutRange = 0;  // returns whose stop count lies before their shot's T0
  std::uint64_t shots = 0;
  std::uint64_t blocks = 0;
  double seconds = 0.0;
  std::string damage;  // what the walk found wrong with the scan, "" when nothing
};

// Every point, with the columns the PLY and CSV writers read.
kvr::cloud::Selection PointFileSelection();

// The point layer's export with the tool's progress line and the damage the
// walk and the library's log show.
ExportSummary ExportPoints(const kvr::cloud::Scan& scan, unsigned threads, const LibraryLog* log,
                           kvr::cloud::PointWriter& writer, Progress* progress,
                           const kvr::cloud::Selection& selection = PointFileSelection());

}  // namespace kvrscan
