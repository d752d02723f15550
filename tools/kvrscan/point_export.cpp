#include "point_export.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <memory>
#include <mutex>
#include <span>
#include <thread>
#include <vector>

#include "block_walk.h"
#include "point_maker.h"
#include "point_model.h"

namespace kvrscan {

namespace {

// One block on its way out: decoded, its shots' lines found, made into points.
struct BlockJob {
  FifoBlock block;
  std::vector<std::int32_t> lines;
  std::vector<PointRecord> points;
  std::size_t pointCount = 0;
  bool made = false;
};

// Decodes the walk's next block into the job and finds the lines of its shots
// (in file order, as the indexer asks). False at the end of the scan.
bool ReadBlock(BlockWalk& walk, LineIndexer& lines, BlockJob& job) {
  if (!walk.next(job.block)) return false;
  job.lines.resize(job.block.shots.size());
  lines.linesOf(walk.blockNumber(), job.lines);
  return true;
}

void MakeBlock(PointMaker& maker, BlockJob& job) {
  const std::span<const RawShot> shots(job.block.shots);
  // Sized once for the fullest block seen; the maker may write one record past its points.
  job.points.resize(std::max(job.points.size(), shots.size() * ReturnWords::kCapacity + 1));
  std::size_t points = 0;
  for (std::size_t first = 0; first < shots.size(); first += PointMaker::kRunShots) {
    const std::size_t count = std::min(PointMaker::kRunShots, shots.size() - first);
    points += maker.make(shots.subspan(first, count), job.lines.data() + first, job.points.data() + points);
  }
  job.pointCount = points;
}

// The reading thread decodes blocks into a ring of jobs; workers make their
// points, and whichever worker finds the oldest job made writes the jobs that
// are ready, in file order. The ring bounds the memory whatever the scan's size.
class ExportPipeline {
 public:
  ExportPipeline(std::size_t workers, PointWriter& writer) : writer_(writer), jobs_(4 * workers + 4) {}

  // Runs the workers while `read` fills jobs until it returns false; rethrows
  // the first error of any thread.
  template <typename Read, typename NewMaker>
  void run(std::size_t workers, Read read, NewMaker newMaker, std::uint64_t& withoutRange) {
    std::vector<std::unique_ptr<PointMaker>> makers;
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < workers; ++i) {
      makers.push_back(newMaker());
      threads.emplace_back([this, maker = makers.back().get()] { work(*maker); });
    }
    try {
      readAll(read);
    } catch (...) {
      fail(std::current_exception());
    }
    {
      std::lock_guard lock(mutex_);
      finished_ = true;
    }
    jobReady_.notify_all();
    for (std::thread& thread : threads) thread.join();
    for (const auto& maker : makers) withoutRange += maker->withoutRange();
    if (error_) std::rethrow_exception(error_);
  }

 private:
  template <typename Read>
  void readAll(Read& read) {
    for (;;) {
      BlockJob* job;
      {
        std::unique_lock lock(mutex_);
        // Waiting for a slot is rare with enough of them; waking costs system calls.
        if (!error_ && read_ - written_ == jobs_.size()) {
          readerWaits_ = true;
          slotFree_.wait(lock, [this] { return error_ || read_ - written_ < jobs_.size(); });
          readerWaits_ = false;
        }
        if (error_) return;
        job = &jobs_[read_ % jobs_.size()];
      }
      if (!read(*job)) return;
      bool wake;
      {
        std::lock_guard lock(mutex_);
        job->made = false;
        ++read_;
        wake = idleWorkers_ > 0;
      }
      if (wake) jobReady_.notify_one();
    }
  }

  void work(PointMaker& maker) {
    try {
      for (;;) {
        BlockJob* job;
        {
          std::unique_lock lock(mutex_);
          ++idleWorkers_;
          jobReady_.wait(lock, [this] { return error_ || taken_ < read_ || finished_; });
          --idleWorkers_;
          if (error_ || taken_ == read_) return;
          job = &jobs_[taken_++ % jobs_.size()];
        }
        MakeBlock(maker, *job);
        writeReady(*job);
      }
    } catch (...) {
      fail(std::current_exception());
    }
  }

  // Marks the job made and, unless another worker is writing (it will come to
  // this job), writes every made job from the oldest on.
  void writeReady(BlockJob& made) {
    std::unique_lock lock(mutex_);
    made.made = true;
    if (writing_) return;
    writing_ = true;
    while (written_ < read_ && jobs_[written_ % jobs_.size()].made) {
      BlockJob& job = jobs_[written_ % jobs_.size()];
      lock.unlock();
      try {
        writer_.write(std::span<const PointRecord>(job.points.data(), job.pointCount));
      } catch (...) {
        lock.lock();
        writing_ = false;
        throw;
      }
      lock.lock();
      ++written_;
      if (readerWaits_) slotFree_.notify_one();
    }
    writing_ = false;
  }

  void fail(std::exception_ptr error) {
    {
      std::lock_guard lock(mutex_);
      if (!error_) error_ = error;
    }
    jobReady_.notify_all();
    slotFree_.notify_all();
  }

  PointWriter& writer_;
  std::vector<BlockJob> jobs_;
  std::mutex mutex_;
  std::condition_variable jobReady_;  // workers wait for a decoded job
  std::condition_variable slotFree_;  // the reader waits for a written one
  std::size_t idleWorkers_ = 0;
  bool readerWaits_ = false;
  std::uint64_t read_ = 0;     // jobs decoded: sequence numbers below it
  std::uint64_t taken_ = 0;    // jobs a worker has taken
  std::uint64_t written_ = 0;  // jobs written; their slots may be decoded into again
  bool writing_ = false;
  bool finished_ = false;  // the reading is over
  std::exception_ptr error_;
};

}  // namespace

ExportSummary ExportPoints(ScanSource& scan, const MapSource& map, const ExportSettings& settings,
                           PointWriter& writer, Progress* progress) {
  const auto start = std::chrono::steady_clock::now();
  ExportSummary summary;
  const IntensityModel model = map.intensityModel();
  const std::uint64_t signature = ScanSignature(scan.header());
  const auto newMaker = [&] {
    return std::make_unique<PointMaker>(signature, settings.rangeOffset, model, *settings.palette);
  };
  LineIndexer lines = map.lineIndexer();
  BlockWalk walk(scan, settings.ticks, progress);
  const auto read = [&](BlockJob& job) {
    if (!ReadBlock(walk, lines, job)) return false;
    summary.shots += job.block.shots.size();
    return true;
  };
  if (settings.threads <= 1) {
    const std::unique_ptr<PointMaker> maker = newMaker();
    BlockJob job;
    while (read(job)) {
      MakeBlock(*maker, job);
      writer.write(std::span<const PointRecord>(job.points.data(), job.pointCount));
    }
    summary.withoutRange = maker->withoutRange();
  } else {
    ExportPipeline(settings.threads, writer).run(settings.threads, read, newMaker, summary.withoutRange);
  }
  if (progress != nullptr) progress->finish();
  summary.points = writer.count();
  summary.blocks = walk.blocksRead();
  summary.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  summary.damage = walk.damage(settings.log != nullptr && settings.log->grew());
  return summary;
}

}  // namespace kvrscan
