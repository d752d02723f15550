#include "scanmap/map_builder.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <string_view>

#include "diag/error_manager.h"
#include "header/header_block.h"
#include "header/scan_file.h"
#include "fifo/block_layout.h"
#include "optics/constants.h"
#include "platform/file_system.h"
#include "platform/little_endian.h"
#include "platform/stream_reader.h"
#include "scanmap/intensity_histogram.h"
#include "scanmap/map_record.h"
#include "scanmap/normalization_params.h"
#include "scanmap/sample_rule.h"
#include "scanmap/truncation.h"

namespace kvr::scanmap {

namespace {

constexpr std::string_view kGetScanFileMapContext =
    "int GetScanFileMap(const char *input_data, ScanFileMap &scanFileMap)";
constexpr std::string_view kHeaderFailedMessage = "Error ReadFileHeader failed";
constexpr std::string_view kHistogramFailedMessage = "Memory allocation failed for Histogram ";

constexpr std::size_t kBlockSize = fifo::SIZEOFFIFOBLOCK;
constexpr std::size_t kBlockPadding = 16;
constexpr std::size_t kFirstShotOffset = 12;
constexpr std::uint32_t kDirectionBit = 1u << 30;
constexpr std::uint32_t kEventBits = 0xFu << 25;  // any of them marks the shot
constexpr std::int32_t kMaxComputedBins = 100000000;
constexpr double kShareAt95 = 0.95;

std::uint32_t ShotCount(const std::uint8_t* block) { return le::LoadU32(block + 8) >> 19; }
std::uint32_t ReturnCount(std::uint32_t status) { return (status >> 6) & 7; }
std::uint32_t StartCount(std::uint32_t status) { return (status >> 9) & 0xFFFF; }

// The byte just after a shot record at `offset`, or 0 when the record would run
// past the block: a damaged shot count then ends the walk of the block instead
// of reading beyond it.
std::size_t RecordEnd(const std::uint8_t* block, std::size_t offset) {
  if (offset + 8 > kBlockSize) return 0;
  const std::size_t end = offset + 8 + 4 * std::size_t{ReturnCount(le::LoadU32(block + offset + 4))};
  return end <= kBlockSize ? end : 0;
}

double RangeOffset(RawFileHeader& header) { return header.calibrationValues["rangeOffset"]; }

bool ReadBlock(std::FILE* stream, std::uint8_t* block) {
  return stream::ReadBytes(stream, block, kBlockSize) == kBlockSize;
}

// The first pass: line starts, event marks, maxima, return counts and the
// extremes of normalized intensity. The walk keeps the hot counters in members
// and stores them back into the record once per block.
class FirstPass {
 public:
  FirstPass(ScanFileMap& map, const IntensityModel& model, SampleBatch& batch)
      : map_(map),
        model_(model),
        batch_(batch),
        rewriteDirection_(ScanSignature(map.fileHeader) == optics::kSignatureMx700Dat) {}

  void WalkBlock(std::uint8_t* block, std::uint32_t blockNumber) {
    const double rangeOffset = RangeOffset(map_.fileHeader);
    if (std::memcmp(&rangeOffset, &windowOffset_, sizeof rangeOffset) != 0) {
      window_ = RangeWindow(rangeOffset);
      windowOffset_ = rangeOffset;
    }
    const std::uint32_t shotCount = ShotCount(block);
    if (shotCount != 0) {
      Load();
      batch_.count = 0;
      std::size_t offset = kFirstShotOffset;
      for (std::uint32_t i = 0; i < shotCount; ++i) {
        const std::size_t end = RecordEnd(block, offset);
        if (end == 0) break;
        WalkShot(block + offset, blockNumber, i, static_cast<std::int32_t>(offset + 4), window_);
        offset = end;
      }
      FoldBatch();
      tally_.AddTo(returnCounts_);
      Store();
      lineCounter_ += shotCount;
    }
    map_.maxShotsPerBlock = std::max(map_.maxShotsPerBlock, static_cast<std::int32_t>(shotCount));
    // Deliberately compared with the block number, not with its successor: for
    // two or more blocks this leaves the total rounded down to an even number.
    if (static_cast<std::int64_t>(map_.blockCount) < static_cast<std::int64_t>(blockNumber)) {
      map_.blockCount = static_cast<std::int32_t>(blockNumber + 1);
    }
  }

 private:
  void Load() {
    currentLineFlag_ = map_.currentLineFlag;
    numberOfScanLines_ = map_.numberOfScanLines;
    shotsInCurrentLine_ = map_.shotsInCurrentLine;
    maxShotsPerLine_ = map_.maxShotsPerLine;
    maxReturnsPerShot_ = map_.maxReturnsPerShot;
    minimum_ = map_.minNormalizedIntensity;
    maximum_ = map_.maxNormalizedIntensity;
    validSampleCount_ = map_.validSampleCount;
    lastEncoderValue_ = map_.lastEncoderValue;
    encoderWrapParity_ = map_.encoderWrapParity;
    std::copy_n(map_.returnCounts.begin(), 4, returnCounts_);
  }

  void Store() {
    map_.currentLineFlag = currentLineFlag_;
    map_.numberOfScanLines = numberOfScanLines_;
    map_.shotsInCurrentLine = shotsInCurrentLine_;
    map_.maxShotsPerLine = maxShotsPerLine_;
    map_.maxReturnsPerShot = maxReturnsPerShot_;
    map_.minNormalizedIntensity = minimum_;
    map_.maxNormalizedIntensity = maximum_;
    map_.validSampleCount = validSampleCount_;
    map_.lastEncoderValue = lastEncoderValue_;
    map_.encoderWrapParity = encoderWrapParity_;
    std::copy_n(returnCounts_, 4, map_.returnCounts.begin());
  }

  void WalkShot(std::uint8_t* shot, std::uint32_t blockNumber, std::uint32_t i, std::int32_t statusOffset,
                const RangeWindow& window) {
    const std::uint32_t first = le::LoadU32(shot);
    std::uint32_t status = le::LoadU32(shot + 4);

    if (rewriteDirection_) {
      // The 360-degree scanner does not record the direction: it follows the
      // parity of the scan encoder's wraps.
      const std::uint32_t encoder = (status & 63) * 4096 + (first >> 20);
      if (encoder < lastEncoderValue_) encoderWrapParity_ ^= 1;
      status = encoderWrapParity_ == 0 ? status | kDirectionBit : status & ~kDirectionBit;
      le::StoreU32(shot + 4, status);
      lastEncoderValue_ = encoder;
    }

    const std::int32_t direction = static_cast<std::int32_t>((status >> 30) & 1);
    if (direction != currentLineFlag_) {
      if (numberOfScanLines_ >= 0) StartLine(blockNumber, i, direction, statusOffset);
      currentLineFlag_ = direction;
      numberOfScanLines_ += 1;
      shotsInCurrentLine_ = 0;
    } else {
      shotsInCurrentLine_ += 1;
    }

    const std::uint32_t returns = ReturnCount(status);
    maxReturnsPerShot_ = std::max(maxReturnsPerShot_, static_cast<std::uint16_t>(returns));
    const std::uint32_t startCount = StartCount(status);

    if ((status & kEventBits) != 0 && numberOfScanLines_ >= 1) {
      if (eventLine_ == nullptr) eventLine_ = &map_.scanLines[numberOfScanLines_ - 1];
      eventLine_->eventShots.push_back(lineCounter_ + i);
    }

    // The shot's in-range returns join the block's batch; an invalid return
    // withdraws the whole shot from the extremes again.
    const std::size_t shotStart = batch_.count;
    const bool allValid =
        GatherReturns<true>(shot + 8, returns, startCount, window, batch_, &tally_);
    batch_.count = allValid ? batch_.count : shotStart;
  }

  // Folds the values of the block's fully valid shots, in shot order.
  void FoldBatch() {
    model_.Normalize(batch_);
    FoldExtremes(batch_, minimum_, maximum_);
    validSampleCount_ += static_cast<std::uint32_t>(batch_.count);
  }

  void StartLine(std::uint32_t blockNumber, std::uint32_t i, std::int32_t direction, std::int32_t statusOffset) {
    const std::int32_t line = numberOfScanLines_;
    auto& lines = map_.scanLines;
    ScanLineEntry& entry = lines.try_emplace(lines.end(), line)->second;
    entry.blockNumber = blockNumber;
    entry.shotIndexInBlock = i;
    entry.lineFlag = direction;
    entry.shotCount = 0;
    entry.statusWordOffset = statusOffset;
    entry.eventShots.clear();
    maxShotsPerLine_ = std::max(maxShotsPerLine_, shotsInCurrentLine_ + 1);
    // The line before the first start (key -1) gets its count like any other.
    lines.try_emplace(line - 1).first->second.shotCount = shotsInCurrentLine_ + 1;
    lineCounter_ = 0;
    eventLine_ = &entry;  // the line events now belong to, until the next start
  }

  ScanFileMap& map_;
  const IntensityModel& model_;
  SampleBatch& batch_;
  RangeWindow window_{0.0};
  PositionTally tally_;
  double windowOffset_ = 0.0;
  const bool rewriteDirection_;
  // Reset at each line start and grown by every block's whole shot count, so an
  // event position counts from the first shot of the block where its line began.
  std::uint32_t lineCounter_ = 0;
  ScanLineEntry* eventLine_ = nullptr;

  std::int32_t currentLineFlag_ = 0;
  std::int32_t numberOfScanLines_ = 0;
  std::int32_t shotsInCurrentLine_ = 0;
  std::int32_t maxShotsPerLine_ = 0;
  std::uint16_t maxReturnsPerShot_ = 0;
  double minimum_ = 0.0;
  double maximum_ = 0.0;
  std::uint32_t validSampleCount_ = 0;
  std::uint32_t lastEncoderValue_ = 0;
  std::uint32_t encoderWrapParity_ = 0;
  std::uint64_t returnCounts_[4] = {};
};

// The second pass: every in-range return, whatever the others of its shot, is
// binned from zero.
void BinBlock(const std::uint8_t* block, const RangeWindow& window, const IntensityModel& model, double binWidth,
              SampleBatch& batch, IntensityHistogram& histogram) {
  const std::uint32_t shotCount = ShotCount(block);
  batch.count = 0;
  std::size_t offset = kFirstShotOffset;
  for (std::uint32_t i = 0; i < shotCount; ++i) {
    const std::size_t end = RecordEnd(block, offset);
    if (end == 0) break;
    const std::uint32_t status = le::LoadU32(block + offset + 4);
    GatherReturns<false>(block + offset + 8, ReturnCount(status), StartCount(status), window, batch, nullptr);
    offset = end;
  }
  model.Normalize(batch);
  BinIndices(batch, binWidth, histogram.numberOfBins(), batch.bin.get());
  histogram.AddAll(batch.bin.get(), batch.count);
}

void LogHistogramFailure(std::int32_t numberOfBins) {
  Log(kGetScanFileMapContext, std::string(kHistogramFailedMessage), {Detail("numberOfBins : ", numberOfBins)});
}

// The name's storage copied byte by byte up to its first zero byte: for a path
// of plain ASCII characters in wide storage that is its first character only.
void CopyNameBytes(const wchar_t* name, char (&out)[1024]) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(name);
  std::size_t n = 0;
  while (n + 1 < sizeof out && bytes[n] != 0) {
    out[n] = static_cast<char>(bytes[n]);
    ++n;
  }
  out[n] = 0;
}

}  // namespace

float ShotsPerLineEstimate(const RawFileHeader& header) {
  const float k = 1.0f / (2.0f * header.lineRate);
  return (header.angularSpeed * k) /
         (std::fabs(header.sweepStartAngle - header.sweepEndAngle) /
          (static_cast<float>(header.prf * 1000) * k));
}

int IndexScanFile(std::FILE* stream, ScanFileMap& map, std::optional<std::int32_t> binCountOverride) {
  map.shotsPerLineEstimate = ShotsPerLineEstimate(map.fileHeader);
  map.dataStartOffset = static_cast<std::uint32_t>(platform::Tell(stream));

  const IntensityModel model(map);
  // Zero padding after the block: the return walk reads a shot's four return
  // slots whatever its count.
  const std::unique_ptr<std::uint8_t[]> block(new std::uint8_t[kBlockSize + kBlockPadding]());
  SampleBatch batch;
  FirstPass firstPass(map, model, batch);
  for (std::uint32_t b = 0; !std::feof(stream) && ReadBlock(stream, block.get()); ++b) {
    firstPass.WalkBlock(block.get(), b);
  }

  platform::SeekAbsolute(stream, map.fileHeader.dataOffset);
  const double range = map.maxNormalizedIntensity - map.minNormalizedIntensity;
  if (binCountOverride.has_value() && *binCountOverride > 0) {
    map.numberOfBins = *binCountOverride;
  } else {
    // A count of 0 or less from the parameter file has no histogram: the
    // computed count is used instead.
    map.numberOfBins = range > 100000000.0 ? kMaxComputedBins : TruncateToInt32(range) + 1;
  }
  IntensityHistogram histogram;
  if (!histogram.Allocate(map.numberOfBins)) {
    LogHistogramFailure(map.numberOfBins);
    return -1;
  }
  map.binWidth = range / map.numberOfBins;

  const auto offset = map.fileHeader.calibrationValues.find("rangeOffset");
  const RangeWindow window(offset == map.fileHeader.calibrationValues.end() ? 0.0 : offset->second);
  while (ReadBlock(stream, block.get())) BinBlock(block.get(), window, model, map.binWidth, batch, histogram);
  histogram.Finish();
  if (histogram.failed()) {
    LogHistogramFailure(map.numberOfBins);
    return -1;
  }

  const std::int64_t bin = histogram.FirstBinReaching(kShareAt95, map.validSampleCount);
  map.intensityAt95 = IntensityAt95(bin, map.numberOfBins, map.binWidth);
  constexpr auto kBlockBytes = static_cast<std::int64_t>(kBlockSize);
  map.dataSize = static_cast<std::uint64_t>(static_cast<std::int64_t>(map.blockCount) * kBlockBytes -
                                            static_cast<std::int64_t>(map.dataStartOffset));
  return 0;
}

int BuildScanFileMap(const wchar_t* scanFileName, ScanFileMap& map) {
  InitializeScanFileMap(map);
  if (scanFileName == nullptr) {
    Log(kGetScanFileMapContext, std::string(kHeaderFailedMessage), {std::string()});
    return -1;
  }
  const std::optional<std::int32_t> binCount = ApplyNormalizationParameters(scanFileName, map);

  // The record owns one header copy at a time.
  header::ReleaseFileHeader(map.fileHeader);
  std::FILE* stream = header::ReadFileHeader(scanFileName, map.fileHeader);
  if (stream == nullptr) {
    Log(kGetScanFileMapContext, std::string(kHeaderFailedMessage), {platform::NarrowStorageBytes(scanFileName)});
    return -1;
  }
  const int result = IndexScanFile(stream, map, binCount);
  if (result == 0) CopyNameBytes(scanFileName, map.scanFileName);
  // Also closed after a failed histogram: nothing else could reach the stream.
  std::fclose(stream);
  if (result != 0) return result;
  map.histogram = nullptr;
  map.mapVersion = 2;
  return 0;
}

}  // namespace kvr::scanmap
