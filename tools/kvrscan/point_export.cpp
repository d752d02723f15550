#include "point_export.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <limits>
#include <memory>
#include <mutex>
#include <span>
#include <thread>
#include <vector>

#include "block_walk.h"
#include "kvr_decode/fifo_block.h"
#include "point_maker.h"
#include "point_model.h"

namespace kvrscan {

namespace {

// Makes the points of a decoded block, appending them to `points` after its
// first `count` records; returns the new count. `lines` is scratch.
std::size_t MakeBlock(PointMaker& maker, const LineIndexer& indexer, std::uint32_t blockNumber, const FifoBlock& block,
                      std::vector<std::int32_t>& lines, std::vector<PointRecord>& points, std::size_t count) {
  const std::span<const RawShot> shots(block.shots);
  lines.resize(shots.size());
  indexer.linesOf(blockNumber, lines);
  // Grown to the fullest blocks seen, then reused; the maker may write a few records past its points.
  const std::size_t room = count + shots.size() * ReturnWords::kCapacity + PointMaker::kSpareRecords;
  if (points.size() < room) points.resize(room);
  for (std::size_t first = 0; first < shots.size(); first += PointMaker::kRunShots) {
    const std::size_t run = std::min(PointMaker::kRunShots, shots.size() - first);
    count += maker.make(shots.subspan(first, run), lines.data() + first, points.data() + count);
  }
  return count;
}

// The export on several threads. Each worker opens the scan for itself and
// takes runs of consecutive blocks in turn: it decodes them on its own stream
// (the library's calls on different streams are independent), makes their
// points and leaves them in a slot of a ring; whichever worker finds the oldest
// slot ready writes the ready ones, in file order. A worker waits while the
// ring is full, so memory stays the same whatever the scan's size.
class ParallelExport {
 public:
  // Blocks a worker takes at a time: one, so that its points (about 250 KiB) are
  // still in the processor's cache when they are written. The kernel's
  // read-ahead follows the workers' streams together (measured from a cold cache).
  static constexpr std::uint64_t kRunBlocks = 1;

  ParallelExport(ScanSource& scan, const MapSource& map, const ExportSettings& settings, unsigned threads,
                 PointWriter& writer, Progress* progress)
      : scan_(scan), settings_(settings), threads_(threads), writer_(writer), progress_(progress),
        lines_(map.lineIndexer()), model_(map.intensityModel()), slots_(2 * threads + 1),
        runs_((scan.wholeBlocks() + kRunBlocks - 1) / kRunBlocks) {}

  void run(ExportSummary& summary) {
    std::vector<std::thread> threads;
    std::vector<WorkerTally> tallies(threads_);
    for (unsigned i = 0; i < threads_; ++i) {
      NmeaTicksManager* ticks = settings_.ticks.empty() ? nullptr : settings_.ticks[i];
      threads.emplace_back([this, ticks, &tally = tallies[i]] { work(ticks, tally); });
    }
    for (std::thread& thread : threads) thread.join();
    if (error_) std::rethrow_exception(error_);
    std::uint64_t firstBad = std::numeric_limits<std::uint64_t>::max();
    for (const WorkerTally& tally : tallies) {
      summary.withoutRange += tally.withoutRange;
      badBlocks_ += tally.badBlocks;
      firstBad = std::min(firstBad, tally.firstBadBlock);
    }
    firstBadBlock_ = badBlocks_ > 0 ? firstBad : 0;
    summary.shots = shots_;
    summary.blocks = blocksRead_;
  }

  std::uint64_t badBlocks() const { return badBlocks_; }
  std::uint64_t firstBadBlock() const { return firstBadBlock_; }

 private:
  struct Slot {
    std::vector<PointRecord> points;
    std::size_t count = 0;
    std::uint64_t shots = 0;
    std::uint64_t blocks = 0;  // read, the bad ones too
    bool made = false;
  };

  struct WorkerTally {
    std::uint64_t withoutRange = 0;
    std::uint64_t badBlocks = 0;
    std::uint64_t firstBadBlock = std::numeric_limits<std::uint64_t>::max();
  };

  void work(NmeaTicksManager* ticks, WorkerTally& tally) {
    try {
      ScanSource scan(scan_.path());
      PointMaker maker(ScanSignature(scan.header()), settings_.rangeOffset, model_, *settings_.palette);
      FifoBlock block;
      block.shots.reserve(8192);
      std::vector<std::int32_t> lines;
      for (;;) {
        std::uint64_t run;
        {
          std::unique_lock lock(mutex_);
          slotFree_.wait(lock, [this] { return error_ || next_ >= runs_ || next_ - written_ < slots_.size(); });
          if (error_ || next_ >= runs_) break;
          run = next_++;
        }
        Slot& slot = slots_[run % slots_.size()];
        slot.count = 0, slot.shots = 0, slot.blocks = 0;
        const std::uint64_t first = run * kRunBlocks;
        const std::uint64_t last = std::min(first + kRunBlocks, scan_.wholeBlocks());
        scan.seekToBlock(first);
        for (std::uint64_t b = first; b < last; ++b) {
          const auto number = static_cast<std::uint32_t>(b);
          const int result = DecodeNextFifoBlock(scan.stream(), scan.header(), static_cast<int>(number), block, ticks);
          block.flaggedShots.clear();  // appended to from block to block; nothing here reads them
          if (result == -1) {
            endAt(b);  // the file is shorter than it was: the walk ends here
            break;
          }
          ++slot.blocks;
          if (result == -2) {
            ++tally.badBlocks;
            tally.firstBadBlock = std::min(tally.firstBadBlock, b);
            continue;
          }
          slot.shots += block.shots.size();
          slot.count = MakeBlock(maker, lines_, number, block, lines, slot.points, slot.count);
        }
        writeReady(run);
      }
      tally.withoutRange = maker.withoutRange();
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
        writer_.write(std::span<const PointRecord>(slot.points.data(), slot.count));
      } catch (...) {
        lock.lock();
        writing_ = false;
        throw;
      }
      lock.lock();
      shots_ += slot.shots;
      blocksRead_ += slot.blocks;
      slot.made = false;
      ++written_;
      if (progress_ != nullptr) progress_->update(blocksRead_, scan_.wholeBlocks());
      slotFree_.notify_all();
    }
    writing_ = false;
  }

  // A short read at block b: no run after it is taken or written.
  void endAt(std::uint64_t b) {
    std::lock_guard lock(mutex_);
    runs_ = std::min(runs_, b / kRunBlocks + 1);
    slotFree_.notify_all();
  }

  void fail(std::exception_ptr error) {
    {
      std::lock_guard lock(mutex_);
      if (!error_) error_ = error;
    }
    slotFree_.notify_all();
  }

  ScanSource& scan_;
  const ExportSettings& settings_;
  unsigned threads_;
  PointWriter& writer_;
  Progress* progress_;
  const LineIndexer lines_;
  const IntensityModel model_;

  std::mutex mutex_;
  std::condition_variable slotFree_;  // a run was written, or the export failed
  std::vector<Slot> slots_;
  std::uint64_t runs_;         // runs of blocks in the scan
  std::uint64_t next_ = 0;     // the next run a worker takes
  std::uint64_t written_ = 0;  // runs written; their slots may be filled again
  bool writing_ = false;
  std::exception_ptr error_;
  std::uint64_t shots_ = 0, blocksRead_ = 0;
  std::uint64_t badBlocks_ = 0, firstBadBlock_ = 0;
};

}  // namespace

ExportSummary ExportPoints(ScanSource& scan, const MapSource& map, const ExportSettings& settings,
                           PointWriter& writer, Progress* progress) {
  const auto start = std::chrono::steady_clock::now();
  ExportSummary summary;
  unsigned threads = std::max(1u, settings.threads);
  if (!settings.ticks.empty()) threads = std::min(threads, static_cast<unsigned>(settings.ticks.size()));
  if (threads > 1) {
    ParallelExport parallel(scan, map, settings, threads, writer, progress);
    parallel.run(summary);
    summary.damage = DescribeScanDamage(scan, parallel.badBlocks(), parallel.firstBadBlock(),
                                        settings.log != nullptr && settings.log->grew());
  } else {
    PointMaker maker(ScanSignature(scan.header()), settings.rangeOffset, map.intensityModel(), *settings.palette);
    const LineIndexer lines = map.lineIndexer();
    BlockWalk walk(scan, settings.ticks.empty() ? nullptr : settings.ticks.front(), progress);
    std::vector<std::int32_t> lineScratch;
    std::vector<PointRecord> points;
    while (walk.next()) {
      const std::size_t count = MakeBlock(maker, lines, walk.blockNumber(), walk.block(), lineScratch, points, 0);
      writer.write(std::span<const PointRecord>(points.data(), count));
      summary.shots += walk.block().shots.size();
    }
    summary.withoutRange = maker.withoutRange();
    summary.blocks = walk.blocksRead();
    summary.damage = walk.damage(settings.log != nullptr && settings.log->grew());
  }
  if (progress != nullptr) progress->finish();
  summary.points = writer.count();
  summary.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return summary;
}

}  // namespace kvrscan
