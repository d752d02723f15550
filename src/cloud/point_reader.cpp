#include "kvr_decode/cloud/point_reader.h"

#include <algorithm>
#include <cstring>
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
        panTrig([](std::uint32_t count) { return optics::PanAngle(count); }),
        scanTrig([signature = s.signature()](std::uint32_t count) { return optics::ScanAngle(count, signature); }) {}

  const Scan& scan;
  Selection selection;
  std::uint64_t first, last, next = 0;
  double offset;
  PanTrig panTrig;
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
  std::size_t batchShots = 0;  // 0: a whole block a batch
  std::uint32_t current = 0;   // the block decoded last
  std::size_t nextShot = 0;    // its first shot not yet made
  bool midBlock = false;       // shots of it are still to be made

  void Make(PointBatch& batch);
  template <bool kWindow>
  std::size_t MakeShots(PointBatch& batch, std::span<const RawShot> shots, std::size_t begin, std::size_t end);
  // What a shot's points share, in its four slots.
  static void FillShot(std::uint8_t* counts, std::int32_t* lines, double* time, std::size_t n, std::uint32_t count,
                       std::int32_t line, double tow) {
    // Whole slots in one store each (a loop's byte stores would make the
    // compiler reload the other pointers).
    const std::uint32_t counts4 = count * 0x01010101u;
    const std::int32_t lines4[ReturnWords::kCapacity] = {line, line, line, line};
    const double times4[ReturnWords::kCapacity] = {tow, tow, tow, tow};
    std::memcpy(counts + n, &counts4, sizeof counts4);
    std::memcpy(lines + n, lines4, sizeof lines4);
    std::memcpy(time + n, times4, sizeof times4);
  }
  void Place(PointBatch& batch, std::span<const RawShot> shots, std::size_t placed) const;
  void MakeColumns(PointBatch& batch, std::span<const RawShot> shots);

  // Per point: its return word with the stop count replaced by the flight
  // count (the form the intensity model takes), and its shot in the block.
  scanmap::SampleBatch samples;
  std::unique_ptr<std::uint16_t[]> pointShots{new std::uint16_t[scanmap::SampleBatch::kCapacity]};
  // Per shot that made points, in order: its index in the block and its first point.
  struct Placed {
    std::uint32_t shot, point;
  };
  std::vector<Placed> placed;
  std::uint64_t signature;
};

PointReader::PointReader(const Scan& scan, const Selection& selection)
    : PointReader(scan, 0, scan.blockCount(), selection) {}

PointReader::PointReader(const Scan& scan, std::uint64_t first, std::uint64_t last, const Selection& selection)
    : state_(std::make_unique<State>(scan, first, last, selection)) {
  State& s = *state_;
  // The map costs several walks of the file to build: asked for only when the
  // points need its lines or its intensity model. Without it every shot lies
  // before the first line.
  if ((selection.columns & (kLineColumn | kNormalizedColumn)) != 0 || selection.firstLine || selection.lastLine) {
    const ScanFileMap& map = scan.map();
    s.model = std::make_unique<scanmap::IntensityModel>(map);
    s.lines = scanmap::LineStarts(map);
  }
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
  s.signature = scan.signature();
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
    // The first line past the range begins in this block: its earlier shots are still in range.
    const scanmap::LineStarts::Start end = s.lines[static_cast<std::size_t>(*selection.lastLine)];
    s.last = std::min<std::uint64_t>(s.last, std::uint64_t{end.block} + (end.shot > 0 ? 1 : 0));
  }
  if (s.first > s.last) s.first = s.last;
  if (!SeekTo(s.stream.get(), s.scan.header().dataOffset + s.first * BlockSize())) {
    throw InputError(s.scan.path(), "cannot seek to block " + std::to_string(s.first));
  }
  std::clearerr(s.stream.get());
  s.next = s.first;
  s.midBlock = false;
}

void PointReader::setBatchShots(std::size_t shots) { state_->batchShots = shots; }

PointReader::~PointReader() { ReleaseFileHeader(state_->header); }

std::uint64_t PointReader::firstBlock() const { return state_->first; }
std::uint64_t PointReader::lastBlock() const { return state_->last; }
const ReadTally& PointReader::tally() const { return state_->tally; }

bool PointReader::next(PointBatch& batch) {
  State& s = *state_;
  if (s.midBlock) {
    s.Make(batch);
    return true;
  }
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
    s.current = number;
    s.nextShot = 0;
    s.shotLines.resize(s.block.shots.size());
    s.lines.LinesOf(number, s.shotLines);
    s.Make(batch);
    return true;
  }
  batch.size_ = 0;
  return false;
}

// Two passes. The first walks the shots and makes the columns that follow from
// a shot and its return word. Return counts vary from shot to shot at random,
// so a loop over a shot's returns would spend its time in mispredicted
// branches: all four return slots are made, and the next shot's land on those
// not kept. The second pass makes the normalized intensities (their divisions
// overlap in a loop of their own) and the columns few callers ask for. With
// batches of a run of shots, both passes take the run's shots only.
void PointReader::State::Make(PointBatch& batch) {
  const std::span<const RawShot> shots(block.shots);
  const std::size_t begin = nextShot;
  const std::size_t end = batchShots == 0 ? shots.size() : std::min(shots.size(), begin + batchShots);
  nextShot = end;
  midBlock = end < shots.size();
  batch.reserve((end - begin) * ReturnWords::kCapacity);
  batch.block_ = current;
  batch.timeOfWeek_ = ticks != nullptr;
  if (placed.size() < end - begin) placed.resize(end - begin);
  batch.size_ = window ? MakeShots<true>(batch, shots, begin, end) : MakeShots<false>(batch, shots, begin, end);
  samples.count = batch.size_;
  MakeColumns(batch, shots);
}

template <bool kWindow>
std::size_t PointReader::State::MakeShots(PointBatch& batch, std::span<const RawShot> shots, std::size_t begin,
                                          std::size_t end) {
  const std::int32_t lowLine = selection.firstLine.value_or(INT32_MIN);
  const std::int32_t highLine = selection.lastLine.value_or(INT32_MAX);
  const bool lineRange = selection.firstLine || selection.lastLine;
  const bool first = selection.returns == Returns::kFirst, last = selection.returns == Returns::kLast;
  const bool positions = (selection.columns & (kPositionColumns | kRangeColumn)) != 0;
  const bool perShot = (selection.columns & (kReturnColumns | kLineColumn | kTimeColumn)) != 0;
  std::uint32_t* const sample = samples.sample.get();
  std::uint16_t* const shotOf = pointShots.get();
  std::uint8_t* const numbers = batch.returnNumber_.data();
  std::uint8_t* const counts = batch.returnCount_.data();
  std::int32_t* const lineOf = batch.line_.data();
  double* const time = batch.time_.data();
  Placed* const shotsPlaced = placed.data();
  std::size_t shotsMade = 0;  // shots that made points
  std::size_t n = 0;
  for (std::size_t i = begin; i < end; ++i) {
    const RawShot& shot = shots[i];
    const auto count = static_cast<std::uint32_t>(shot.returns.size());
    if (count == 0) continue;  // the sky: shots without returns come in runs
    const std::int32_t line = shotLines[i];
    if (lineRange && (line < lowLine || line >= highLine)) continue;
    const std::uint32_t start = fifo::StartCounts(shot.shotWord);
    const std::uint32_t k0 = last ? count - 1 : 0;
    const std::uint32_t kept = first || last ? 1 : count;
    std::int32_t flights[ReturnWords::kCapacity];
    bool plain = true;  // every kept return has a range (and lies in the window)
#if defined(__GNUC__)
    // The four slots as one vector (integer operations: the same values as the loop below).
    using Lanes = std::int32_t __attribute__((vector_size(16)));
    const auto broadcast = [](std::int32_t v) { return Lanes{v, v, v, v}; };
    Lanes words;
    if (last) {
      const ReturnWords& r = shot.returns;
      words = Lanes{static_cast<std::int32_t>(r[k0]), static_cast<std::int32_t>(r[(k0 + 1) & 3]),
                    static_cast<std::int32_t>(r[(k0 + 2) & 3]), static_cast<std::int32_t>(r[(k0 + 3) & 3])};
    } else {
      std::memcpy(&words, shot.returns.begin(), sizeof words);
    }
    const Lanes flight = (words & broadcast(0xFFFFF)) - broadcast(static_cast<std::int32_t>(start));
    const Lanes slotSamples = (words & broadcast(static_cast<std::int32_t>(0xFFF00000u))) | (flight & broadcast(0xFFFFF));
    std::memcpy(sample + n, &slotSamples, sizeof slotSamples);
    std::memcpy(flights, &flight, sizeof flights);
    const std::uint64_t shotOfSlots = std::uint64_t{static_cast<std::uint16_t>(i)} * 0x0001000100010001u;
    std::memcpy(shotOf + n, &shotOfSlots, sizeof shotOfSlots);
    const std::uint32_t slotNumbers = (k0 + 1) * 0x01010101u + 0x03020100u;  // k0 + 1 .. k0 + 4
    std::memcpy(numbers + n, &slotNumbers, sizeof slotNumbers);
    Lanes ok;
    if constexpr (kWindow) {
      ok = (flight >= broadcast(window->first())) & (flight <= broadcast(window->last()));
    } else {
      ok = flight >= broadcast(0);
    }
    ok |= Lanes{0, 1, 2, 3} >= broadcast(static_cast<std::int32_t>(kept));
    std::uint64_t halves[2];
    std::memcpy(halves, &ok, sizeof halves);
    plain = (halves[0] & halves[1]) == ~std::uint64_t{0};
#else
    for (std::uint32_t k = 0; k < ReturnWords::kCapacity; ++k) {
      const std::uint32_t word = shot.returns[(k0 + k) & (ReturnWords::kCapacity - 1)];
      flights[k] = static_cast<std::int32_t>(fifo::StopCounts(word)) - static_cast<std::int32_t>(start);
      sample[n + k] = scanmap::SampleOf(word, flights[k]);
      shotOf[n + k] = static_cast<std::uint16_t>(i);
      numbers[n + k] = static_cast<std::uint8_t>(k0 + k + 1);
      if constexpr (kWindow) {
        plain &= k >= kept || window->InRange(flights[k]);
      } else {
        plain &= k >= kept || flights[k] >= 0;
      }
    }
#endif
    if (!plain) [[unlikely]] {
      // A return without a range, or outside the window: the shot's returns one by one.
      std::uint32_t made = 0;
      for (std::uint32_t k = 0; k < kept; ++k) {
        if (flights[k] < 0) {
          ++tally.withoutRange;
          continue;
        }
        if (kWindow && !window->InRange(flights[k])) continue;
        sample[n + made] = sample[n + k];
        numbers[n + made] = numbers[n + k];
        flights[made++] = flights[k];
      }
      if (made == 0) continue;
      if (perShot) FillShot(counts, lineOf, time, n, count, line, shot.shotTow);
      shotsPlaced[shotsMade++] = {static_cast<std::uint32_t>(i), static_cast<std::uint32_t>(n)};
      n += made;
      continue;
    }
    if (perShot) FillShot(counts, lineOf, time, n, count, line, shot.shotTow);
    shotsPlaced[shotsMade++] = {static_cast<std::uint32_t>(i), static_cast<std::uint32_t>(n)};
    n += kept;
  }
  if (positions) Place(batch, shots, shotsMade);
  return n;
}

// The positions, in a loop of their own over the shots that made points: its
// iterations are short, so the chains of table lookups and products of several
// shots overlap. A shot's direction is the same in its four slots, so the four
// are one vector (the compiler's generic vectors: the same operations in the
// same order as the scalar formulas, so the same bits); the ranges come back
// from the samples, whose low 20 bits are the flight counts. Slots past a
// shot's points are written and then overwritten by the next shot's. The head
// turns slower than the mirror, so the pan's sine and cosine are kept from shot
// to shot.
void PointReader::State::Place(PointBatch& batch, std::span<const RawShot> shots, std::size_t placedShots) const {
  const std::uint32_t* const sample = samples.sample.get();
  double *const x = batch.x_.data(), *const y = batch.y_.data(), *const z = batch.z_.data();
  // The range column only when asked for: the point files do without it.
  double* const range = (selection.columns & kRangeColumn) != 0 ? batch.range_.data() : nullptr;
  const double rangeOffset = offset;
  std::uint32_t panCount = UINT32_MAX;
  double cosPan = 1.0, sinPan = 0.0;
  for (std::size_t j = 0; j < placedShots; ++j) {
    const RawShot& shot = shots[placed[j].shot];
    const std::size_t n = placed[j].point;
    const std::uint32_t pan = fifo::PanCounts(shot.shotWord);
    if (pan != panCount) {
      panTrig(pan, cosPan, sinPan);
      panCount = pan;
    }
    double cosScan, sinScan;
    scanTrig(shot.scanAngleCounts, cosScan, sinScan);
#if defined(__GNUC__)
    using Lanes = double __attribute__((vector_size(32)));
    using Counts = std::int32_t __attribute__((vector_size(16)));
    Counts counts;
    std::memcpy(&counts, sample + n, sizeof counts);
    Lanes r = __builtin_convertvector(counts & 0xFFFFF, Lanes);
    optics::CountsToMetres(r);
    r += rangeOffset;
    const Lanes horizontal = r * cosScan;
    const Lanes xs = horizontal * cosPan, ys = horizontal * sinPan, zs = r * sinScan;
    std::memcpy(x + n, &xs, sizeof xs);
    std::memcpy(y + n, &ys, sizeof ys);
    std::memcpy(z + n, &zs, sizeof zs);
    if (range != nullptr) std::memcpy(range + n, &r, sizeof r);
#else
    for (std::uint32_t k = 0; k < ReturnWords::kCapacity; ++k) {
      const double r = scanmap::RangeWindow::Range(scanmap::SampleDifference(sample[n + k])) + rangeOffset;
      const double horizontal = r * cosScan;
      if (range != nullptr) range[n + k] = r;
      x[n + k] = horizontal * cosPan;
      y[n + k] = horizontal * sinPan;
      z[n + k] = r * sinScan;
    }
#endif
  }
}

void PointReader::State::MakeColumns(PointBatch& batch, std::span<const RawShot> shots) {
  const std::size_t n = batch.size_;
  const std::uint32_t* const sample = samples.sample.get();
  const std::uint16_t* const shotOf = pointShots.get();
  const std::uint32_t columns = selection.columns;
  if (columns & kNormalizedColumn) {
    // A zero range has no normalized intensity: 0.
    model->NormalizeInto<true>(sample, n, batch.normalized_.data());
  }
  if (columns & kIntensityColumn) {
    for (std::size_t p = 0; p < n; ++p) batch.intensity_[p] = static_cast<std::uint16_t>(fifo::RawIntensity(sample[p]));
  }
  if (columns & kShotIndexColumn) {
    const std::uint64_t firstShot = scan.firstShotOfBlock(batch.block_);
    for (std::size_t p = 0; p < n; ++p) batch.shotIndex_[p] = firstShot + shotOf[p];
  }
  if (columns & kFlagColumn) {
    for (std::size_t p = 0; p < n; ++p) {
      batch.flags_[p] = static_cast<std::uint8_t>(fifo::ShotFlags(shots[shotOf[p]].shotWord));
    }
  }
  if (columns & kAngleColumns) {
    for (std::size_t p = 0; p < n; ++p) {
      const RawShot& shot = shots[shotOf[p]];
      batch.pan_[p] = optics::PanAngle(fifo::PanCounts(shot.shotWord));
      batch.scanAngle_[p] = optics::ScanAngle(shot.scanAngleCounts, signature);
    }
  }
  if (columns & kCountColumns) {
    for (std::size_t p = 0; p < n; ++p) {
      const RawShot& shot = shots[shotOf[p]];
      batch.panCounts_[p] = fifo::PanCounts(shot.shotWord);
      batch.scanCounts_[p] = shot.scanAngleCounts;
      batch.flightCounts_[p] = static_cast<std::uint32_t>(scanmap::SampleDifference(sample[p]));
    }
  }
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
