#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "library_log.h"
#include "map_source.h"
#include "palette.h"
#include "point_writer.h"
#include "progress.h"
#include "scan_source.h"

class NmeaTicksManager;

namespace kvrscan {

struct ExportSettings {
  const Palette* palette = nullptr;
  double rangeOffset = 0.0;            // added to every range (the calibration's "rangeOffset")
  // Times of week when given: a tick manager for each thread (a manager keeps
  // the pulse pair it found last, so threads cannot share one); with fewer
  // managers than threads, only as many threads run.
  std::vector<NmeaTicksManager*> ticks;
  const LibraryLog* log = nullptr;    // growth means the library found damaged blocks
  // Threads decoding blocks and making their points; 1 (or 0): the calling
  // thread does it all. The file is the same whatever the number.
  unsigned threads = 1;
};

struct ExportSummary {
  std::uint64_t points = 0;
  std::uint64_t withoutRange = 0;  // returns whose stop count lies before their shot's T0
  std::uint64_t shots = 0;
  std::uint64_t blocks = 0;
  double seconds = 0.0;
  std::string damage;  // what the walk found wrong with the scan, "" when nothing
};

// Streams every return of the scan, from its first block on, into the writer:
// one walk, points made and written a block at a time, a few blocks in flight
// at most, so that memory stays the same whatever the scan's size. A return with a range becomes a
// point; lines come from the map's line starts, colours from the map's
// intensity model through the palette.
ExportSummary ExportPoints(ScanSource& scan, const MapSource& map, const ExportSettings& settings,
                           PointWriter& writer, Progress* progress);

}  // namespace kvrscan
