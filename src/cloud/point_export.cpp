#include "kvr_decode/cloud/point_export.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <thread>

namespace kvr::cloud {

namespace {

// Shots a batch of the export on one thread: the writer takes a run's points
// while they are in the processor's cache.
constexpr std::size_t kRunShots = 256;

std::string Lowercase(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

void Add(ReadTally& sum, const ReadTally& part) {
  if (part.badBlocks > 0 && (sum.badBlocks == 0 || part.firstBadBlock < sum.firstBadBlock)) {
    sum.firstBadBlock = part.firstBadBlock;
  }
  sum.blocks += part.blocks, sum.shots += part.shots, sum.badBlocks += part.badBlocks;
  sum.withoutRange += part.withoutRange;
  sum.cutShort = sum.cutShort || part.cutShort;
}

// The export on several threads. Workers take runs of consecutive blocks in
// turn, read their points into a slot of a ring, and whichever worker finds the
// oldest slot ready writes the ready ones, in file order. A worker waits while
// the ring is full.
class ParallelExport {
 public:
  // One block a run: its points are still in the processor's cache when written.
  static constexpr std::uint64_t kRunBlocks = 1;

  ParallelExport(const Scan& scan, const Selection& selection, unsigned threads,
                 PointWriter& writer, const ExportProgress& progress)
      : scan_(scan), selection_(selection), threads_(threads), writer_(writer), progress_(progress),
        slots_(2 * threads + 1),
        runs_((scan.blockCount() + kRunBlocks - 1) / kRunBlocks) {}

  ReadTally run() {
    std::vector<std::thread> threads;
    std::vector<ReadTally> tallies(threads_);
    for (unsigned i = 0; i < threads_; ++i) threads.emplace_back([this, &tally = tallies[i]] { work(tally); });
    for (std::thread& thread : threads) thread.join();
    if (error_) std::rethrow_exception(error_);
    ReadTally sum;
    for (const ReadTally& tally : tallies) Add(sum, tally);
    sum.blocks = blocksWritten_;
    sum.shots = shotsWritten_;
    return sum;
  }

 private:
  struct Slot {
    PointBatch points;
    std::uint64_t shots = 0, blocks = 0;
    bool made = false;
  };

  void work(ReadTally& tally) {
    try {
      PointReader reader(scan_, 0, 0, selection_);
      ReadTally before;
      for (;;) {
        std::uint64_t run;
        {
          std::unique_lock lock(mutex_);
          slotFree_.wait(lock, [this] { return error_ || next_ >= runs_ || next_ - written_ < slots_.size(); });
          if (error_ || next_ >= runs_) break;
          run = next_++;
        }
        Slot& slot = slots_[run % slots_.size()];
        const std::uint64_t first = run * kRunBlocks;
        reader.moveTo(first, first + kRunBlocks);
        reader.next(slot.points);  // an empty batch when the block is bad or missing
        const ReadTally& now = reader.tally();
        slot.shots = now.shots - before.shots, slot.blocks = now.blocks - before.blocks;
        if (now.cutShort) endAt(run);
        before = now;
        writeReady(run);
      }
      tally = reader.tally();
    } catch (...) {
      fail(std::current_exception());
    }
  }

  // Marks the run made and, unless another worker is writing (it will come to
  // this run), writes every made run from the oldest on.
  void writeReady(std::uint64_t run) {
    std::unique_lock lock(mutex_);
    slots_[run % slots_.size()].made = true;
    if (writing_) return;
    writing_ = true;
    while (written_ < runs_ && slots_[written_ % slots_.size()].made) {
      Slot& slot = slots_[written_ % slots_.size()];
      lock.unlock();
      try {
        writer_.write(slot.points);
      } catch (...) {
        lock.lock();
        writing_ = false;
        throw;
      }
      lock.lock();
      shotsWritten_ += slot.shots;
      blocksWritten_ += slot.blocks;
      slot.made = false;
      ++written_;
      if (progress_) progress_(blocksWritten_, scan_.blockCount());
      slotFree_.notify_all();
    }
    writing_ = false;
  }

  // A short read in run r: no run after it is taken or written.
  void endAt(std::uint64_t run) {
    std::lock_guard lock(mutex_);
    runs_ = std::min(runs_, run + 1);
    slotFree_.notify_all();
  }

  void fail(std::exception_ptr error) {
    {
      std::lock_guard lock(mutex_);
      if (!error_) error_ = error;
    }
    slotFree_.notify_all();
  }

  const Scan& scan_;
  const Selection selection_;
  unsigned threads_;
  PointWriter& writer_;
  const ExportProgress& progress_;

  std::mutex mutex_;
  std::condition_variable slotFree_;  // a run was written, or the export failed
  std::vector<Slot> slots_;
  std::uint64_t runs_;
  std::uint64_t next_ = 0;     // the next run a worker takes
  std::uint64_t written_ = 0;  // runs written; their slots may be filled again
  bool writing_ = false;
  std::exception_ptr error_;
  std::uint64_t shotsWritten_ = 0, blocksWritten_ = 0;
};

}  // namespace

std::optional<PointFormat> PointFormatOf(const std::filesystem::path& path) {
  const std::string extension = Lowercase(path.extension().string());
  if (extension == ".ply") return PointFormat::kPly;
  if (extension == ".csv") return PointFormat::kCsv;
  if (extension == ".las") return PointFormat::kLas;
  if (extension == ".laz") return PointFormat::kLaz;
  if (extension == ".e57") return PointFormat::kE57;
  return std::nullopt;
}

const char* FormatName(PointFormat format) {
  switch (format) {
    case PointFormat::kPly: return "ply";
    case PointFormat::kCsv: return "csv";
    case PointFormat::kLas: return "las";
    case PointFormat::kLaz: return "laz";
    case PointFormat::kE57: return "e57";
  }
  return "?";
}

std::uint32_t ColumnsOf(PointFormat format) {
  if (format == PointFormat::kE57) return E57Writer::kColumns;
  return format == PointFormat::kLas || format == PointFormat::kLaz ? LasWriter::kColumns : PointWriter::kColumns;
}

std::unique_ptr<PointWriter> OpenPointWriter(const std::filesystem::path& path, PointFormat format,
                                             const WriterSettings& settings) {
  switch (format) {
    case PointFormat::kPly: return std::make_unique<PlyWriter>(path, settings.comments, settings.colouring);
    case PointFormat::kCsv: return std::make_unique<CsvWriter>(path, settings.comments, settings.colouring);
    case PointFormat::kLas: return std::make_unique<LasWriter>(path, settings.las, settings.colouring);
    case PointFormat::kLaz: return std::make_unique<LazWriter>(path, settings.las, settings.colouring, settings.laz);
    case PointFormat::kE57: return std::make_unique<E57PointWriter>(path, settings.e57);
  }
  return nullptr;
}

ExportResult ExportPoints(const Scan& scan, PointWriter& writer, const Selection& selection, unsigned threads,
                          const ExportProgress& progress) {
  const auto start = std::chrono::steady_clock::now();
  const std::uint64_t before = writer.count();
  ExportResult result;
  if (std::max(1u, threads) > 1) {
    ParallelExport parallel(scan, selection, threads, writer, progress);
    result.tally = parallel.run();
  } else {
    PointReader reader(scan, selection);
    reader.setBatchShots(kRunShots);
    PointBatch batch;
    std::uint64_t reported = 0;
    while (reader.next(batch)) {
      writer.write(batch);
      if (progress && reader.tally().blocks != reported) progress(reported = reader.tally().blocks, scan.blockCount());
    }
    result.tally = reader.tally();
  }
  result.points = writer.count() - before;
  result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return result;
}

}  // namespace kvr::cloud
