#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "kvr_decode/cloud/export.h"
#include "kvr_decode/cloud/point_batch.h"
#include "kvr_decode/cloud/scan.h"

namespace kvr::cloud {

// Which returns of a shot become points.
enum class Returns { kAll, kFirst, kLast };

// The points a reader makes. Returns whose stop count lies before their shot's
// start count have no range and are never points.
struct KVR_CLOUD_API Selection {
  Returns returns = Returns::kAll;
  // Only returns whose range (offset included) lies in (near, far] metres; a
  // return whose stop count equals its start count is then left out too. The
  // map's sample rule is Selection::SampleRule().
  std::optional<double> nearLimit;
  std::optional<double> farLimit;
  // Only shots of lines first .. last - 1 (shots before the first line have line -1).
  std::optional<std::int32_t> firstLine;
  std::optional<std::int32_t> lastLine;

  // The returns the map samples: (0.1 m, 2040 m] with the sample rule's offset.
  static Selection SampleRule();
  bool usesSampleRule = false;  // the window uses the map's offset, not the calibration's

  std::uint32_t columns = kAllColumns;
};

// What a reader met on its way.
struct ReadTally {
  std::uint64_t blocks = 0;        // read, bad ones too
  std::uint64_t shots = 0;         // of the good blocks
  std::uint64_t badBlocks = 0;     // with a bad signature, skipped (the decoder logged them)
  std::uint64_t firstBadBlock = 0;
  std::uint64_t withoutRange = 0;  // returns whose stop count lies before their start count
  bool cutShort = false;           // the file ended before the range did
};

// The points of the blocks [first, last) of a scan, one batch per block (or per
// run of a block's shots), in file order. A reader keeps no state from block to block beyond its stream:
// the points of any split of a scan into ranges, read in order and put end to
// end, are the points of the whole scan. Each reader has its own stream and tick
// manager, so readers of one Scan may run on different threads.
class KVR_CLOUD_API PointReader {
 public:
  // `last` is clamped to the scan's blocks. The line column, a line range and
  // normalized intensities need the map (built if the scan has none yet); a
  // selection without them leaves the map alone.
  PointReader(const Scan& scan, std::uint64_t first, std::uint64_t last, const Selection& selection = {});
  explicit PointReader(const Scan& scan, const Selection& selection = {});
  ~PointReader();
  PointReader(const PointReader&) = delete;
  PointReader& operator=(const PointReader&) = delete;

  // The points of the next good block, or of its next run of shots (see
  // setBatchShots), into `batch` (possibly none); false at the end of the range
  // or of the file.
  bool next(PointBatch& batch);

  // Batches of at most `shots` shots: a block's points then come in several
  // batches, each a run of its shots in order, small enough to stay in the
  // processor's cache while a writer encodes them. 0 (the default): one batch
  // a block. Takes effect from the next batch on.
  void setBatchShots(std::size_t shots);

  // Moves the reader to the blocks [first, last) (clamped as above; a line range
  // still narrows them), keeping its tables, stream and tally: cheaper than a
  // new reader for a thread that takes one run of blocks after another.
  void moveTo(std::uint64_t first, std::uint64_t last);

  std::uint64_t firstBlock() const;
  std::uint64_t lastBlock() const;  // one past the reader's last block
  const ReadTally& tally() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// What a walk found wrong with a scan, as one clause ("" when nothing): blocks
// with a bad signature, a cut-off last block, damaged blocks the decoder logged.
KVR_CLOUD_API std::string DescribeScanDamage(const Scan& scan, const ReadTally& tally, bool decoderLogGrew);

}  // namespace kvr::cloud
