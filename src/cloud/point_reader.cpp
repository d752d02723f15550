#include "kvr_decode/cloud/point_reader.h"

#include <algorithm>
#include <span>
#include <vector>

#include "kvr_decode/cloud/count_trig.h"
#include "file_access.h"
#include "fifo/block_format.h"
#include "kvr_decode/cloud/error.h"
#include "kvr_decode/cloud/tick_file.h"
#include "kvr_decode/fifo_block.h"
#include "kvr_decode/file_header.h"
#include "optics/conversions.h"
#include "scanmap/line_starts.h"
#include "scanmap/sample_rule.h"

namespace kvr::cloud {

void PointBatch::reserve(std::size_t points) {
  if (points <= capacity_) return;
  for (auto* column : {&x_, &y_, &z_, &range_, &pan_, &scanAngle_, &normalized_, &time_}) column->resize(points);
  for (auto* column : {&returnNumber_, &returnCount_, &flags_}) column->resize(points);
  for (auto* column : {&panCounts_, &scanCounts_, &flightCounts_}) column->resize(points);
  intensity_.resize(points);
  line_.resize(points);
  shotIndex_.resize(points);
  capacity_ = points;
}

Selection Selection::SampleRule() {
  Selection selection;
  selection.nearLimit = scanmap::RangeWindow::kNearLimit;
  selection.farLimit = scanmap::RangeWindow::kFarLimit;
  selection.usesSampleRule = true;
  return selection;
}

struct PointReader::State {
  using PanTrig = CountTrig<20>;   // pan encoder counts
  using ScanTrig = CountTrig<18>;  // scan encoder counts

  State(const Scan& s, std::uint64_t first, std::uint64_t last, const Selection& chosen)
      : scan(s), selection(chosen), first(first), last(last), offset(s.rangeOffset()),
        pan([](std::uint32_t count) { return optics::PanAngle(count); }),
        scanTrig([signature = s.signature()](std::uint32_t count) { return optics::ScanAngle(count, signature); }) {}

  const Scan& scan;
  Selection selection;
  std::uint64_t first, last, next = 0;
  double offset;
  PanTrig pan;
  ScanTrig scanTrig;
  std::unique_ptr<scanmap::IntensityModel> model;
  scanmap::LineStarts lines;
  std::optional<scanmap::RangeWindow> window;
  FilePtr stream;
  std::unique_ptr<TicksManager> ticks;
  RawFileHeader header;  // the decoder reads only the PRF of it
  FifoBlock block;
  std::vector<std::int32_t> shotLines;
  ReadTally tally;

  void Make(PointBatch& batch, std::uint32_t number);
};

PointReader::PointReader(const Scan& scan, const Selection& selection)
    : PointReader(scan, 0, scan.blockCount(), selection) {}

PointReader::PointReader(const Scan& scan, std::uint64_t first, std::uint64_t last, const Selection& selection)
    : state_(std::make_unique<State>(scan, first, last, selection)) {
  State& s = *state_;
  const ScanFileMap& map = scan.map();
  s.model = std::make_unique<scanmap::IntensityModel>(map);
  s.lines = scanmap::LineStarts(map);
  if (selection.nearLimit || selection.farLimit) {
    const double offset = selection.usesSampleRule ? scan.sampleRangeOffset() : scan.rangeOffset();
    s.window.emplace(offset, selection.nearLimit.value_or(-std::numeric_limits<double>::infinity()),
                     selection.farLimit.value_or(std::numeric_limits<double>::infinity()));
  }
  s.stream.reset(OpenForReading(scan.path()));
  if (!s.stream) throw InputError(scan.path(), "cannot open");
  moveTo(first, last);
  if (scan.tickFile()) s.ticks = std::make_unique<TicksManager>(*scan.tickFile(), scan.timeOffset());
  s.header.prf = scan.header().prf;
  s.block.shots.reserve(8192);
}

void PointReader::moveTo(std::uint64_t first, std::uint64_t last) {
  State& s = *state_;
  const std::uint64_t blocks = s.scan.blockCount();
  s.first = std::min(first, blocks);
  s.last = std::min(last, blocks);
  // A line range reads only the blocks its lines lie in.
  const Selection& selection = s.selection;
  if (selection.firstLine && *selection.firstLine > 0) {
    const auto line = static_cast<std::size_t>(*selection.firstLine);
    s.first = std::max<std::uint64_t>(s.first, line < s.lines.size() ? s.lines[line].block : s.last);
  }
  if (selection.lastLine && *selection.lastLine >= 0 && static_cast<std::size_t>(*selection.lastLine) < s.lines.size()) {
    s.last = std::min<std::uint64_t>(s.last, std::uint64_t{s.lines[static_cast<std::size_t>(*selection.lastLine)].block} + 1);
  }
  if (s.first > s.last) s.first = s.last;
  if (!SeekTo(s.stream.get(), s.scan.header().dataOffset + s.first * BlockSize())) {
    throw InputError(s.scan.path(), "cannot seek to block " + std::to_string(s.first));
  }
  std::clearerr(s.stream.get());
  s.next = s.first;
}

PointReader::~PointReader() { ReleaseFileHeader(state_->header); }

std::uint64_t PointReader::firstBlock() const { return state_->first; }
std::uint64_t PointReader::lastBlock() const { return state_->last; }
const ReadTally& PointReader::tally() const { return state_->tally; }

bool PointReader::next(PointBatch& batch) {
  State& s = *state_;
  std::FILE* stream = s.stream.get();
  while (s.next < s.last) {
    const auto number = static_cast<std::uint32_t>(s.next);
    const int result = DecodeNextFifoBlock(&stream, s.header, static_cast<int>(number), s.block,
                                           s.ticks ? s.ticks->get() : nullptr);
    s.block.flaggedShots.clear();  // appended to from block to block; the flags come from the shot words
    if (result == -1) {
      s.tally.cutShort = true;
      s.last = s.next;
      break;
    }
    ++s.next;
    ++s.tally.blocks;
    if (result == -2) {
      if (s.tally.badBlocks++ == 0) s.tally.firstBadBlock = number;
      continue;
    }
    s.tally.shots += s.block.shots.size();
    s.Make(batch, number);
    return true;
  }
  batch.size_ = 0;
  return false;
}

// Shots without returns (the sky) come in runs and are passed over at once; the
// head turns slower than the mirror, so the pan's sine and cosine are kept from
// shot to shot.
void PointReader::State::Make(PointBatch& batch, std::uint32_t number) {
  const std::span<const RawShot> shots(block.shots);
  shotLines.resize(shots.size());
  lines.LinesOf(number, shotLines);
  batch.reserve(shots.size() * ReturnWords::kCapacity);
  batch.block_ = number;
  batch.timeOfWeek_ = ticks != nullptr;
  const std::uint64_t firstShot = scan.firstShotOfBlock(number);
  const std::int32_t lowLine = selection.firstLine.value_or(INT32_MIN);
  const std::int32_t highLine = selection.lastLine.value_or(INT32_MAX);
  const bool lineRange = selection.firstLine || selection.lastLine;
  std::uint32_t panCount = UINT32_MAX;
  double cosPan = 1.0, sinPan = 0.0, panAngle = 0.0;
  std::size_t n = 0;
  for (std::size_t i = 0; i < shots.size(); ++i) {
    const RawShot& shot = shots[i];
    const auto count = static_cast<std::uint32_t>(shot.returns.size());
    if (count == 0) continue;
    const std::int32_t line = shotLines[i];
    if (lineRange && (line < lowLine || line >= highLine)) continue;
    const std::uint32_t panCounts = fifo::PanCounts(shot.shotWord);
    if (panCounts != panCount) {
      pan(panCounts, cosPan, sinPan);
      panAngle = optics::PanAngle(panCounts);
      panCount = panCounts;
    }
    double cosScan, sinScan;
    scanTrig(shot.scanAngleCounts, cosScan, sinScan);
    const double scanAngle = optics::ScanAngle(shot.scanAngleCounts, scan.signature());
    const std::uint32_t start = fifo::StartCounts(shot.shotWord);
    const auto flags = static_cast<std::uint8_t>(fifo::ShotFlags(shot.shotWord));
    std::uint32_t k = selection.returns == Returns::kLast ? count - 1 : 0;
    const std::uint32_t end = selection.returns == Returns::kFirst ? 1 : count;
    for (; k < end; ++k) {
      const std::uint32_t stop = fifo::StopCounts(shot.returns[k]);
      if (stop < start) {
        ++tally.withoutRange;
        continue;
      }
      const auto flight = static_cast<std::int32_t>(stop - start);
      if (window && !window->InRange(flight)) continue;
      const double range = optics::Range(stop, start);
      const std::uint32_t intensity = fifo::RawIntensity(shot.returns[k]);
      const double r = range + offset;
      const double horizontal = r * cosScan;
      batch.x_[n] = horizontal * cosPan;
      batch.y_[n] = horizontal * sinPan;
      batch.z_[n] = r * sinScan;
      batch.range_[n] = r;
      batch.pan_[n] = panAngle;
      batch.scanAngle_[n] = scanAngle;
      batch.intensity_[n] = static_cast<std::uint16_t>(intensity);
      batch.normalized_[n] = range > 0.0 ? model->Normalized(range, model->Base(intensity)) : 0.0;
      batch.returnNumber_[n] = static_cast<std::uint8_t>(k + 1);
      batch.returnCount_[n] = static_cast<std::uint8_t>(count);
      batch.line_[n] = line;
      batch.shotIndex_[n] = firstShot + i;
      batch.time_[n] = shot.shotTow;
      batch.flags_[n] = flags;
      batch.panCounts_[n] = panCounts;
      batch.scanCounts_[n] = shot.scanAngleCounts;
      batch.flightCounts_[n] = static_cast<std::uint32_t>(flight);
      ++n;
    }
  }
  batch.size_ = n;
}

std::string DescribeScanDamage(const Scan& scan, const ReadTally& tally, bool decoderLogGrew) {
  std::vector<std::string> parts;
  if (tally.badBlocks > 0) {
    parts.push_back(std::to_string(tally.badBlocks) + (tally.badBlocks == 1 ? " block" : " blocks") +
                    " with a bad signature skipped (first: block " + std::to_string(tally.firstBadBlock) + ")");
  }
  if (scan.trailingBytes() > 0) {
    parts.push_back("the file ends inside block " + std::to_string(scan.blockCount()) + " (" +
                    std::to_string(scan.trailingBytes()) + " of " + std::to_string(BlockSize()) + " bytes; ignored)");
  }
  if (decoderLogGrew && tally.badBlocks == 0) parts.push_back("the library reported damaged blocks");
  std::string text;
  for (std::size_t i = 0; i < parts.size(); ++i) text += (i > 0 ? "; " : "") + parts[i];
  return text;
}

}  // namespace kvr::cloud
