#pragma once

// One pass of a scan's points through a point writer, timed; the export
// benchmarks compare writers with it in the same run.

#include <cstdint>

#include "synthetic_scan_file.h"

#include "kvr_decode/cloud/point_reader.h"
#include "kvr_decode/cloud/point_writer.h"

namespace kvr::bench {

struct Seconds {
  double wall = 0.0, cpu = 0.0;
};

// Every point of the scan through the writer; seconds from `start` to the file's rename.
inline Seconds Export(const kvr::cloud::Scan& scan, kvr::cloud::PointWriter& writer, std::uint32_t columns,
                      kvr::cloud::PointBatch& batch, Seconds start) {
  kvr::cloud::Selection selection;
  selection.columns = columns;
  kvr::cloud::PointReader reader(scan, selection);
  while (reader.next(batch)) writer.write(batch);
  writer.finish();
  return {Wall() - start.wall, Cpu() - start.cpu};
}

}  // namespace kvr::bench
