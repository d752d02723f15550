#include "kvr_simulator/scan_generator.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>

#include "kvr_writers/fifo_block_writer.h"

namespace kvr::sim {

void ScanObserver::OnShot(const SimulatedShot&, const ShotPlacement&) {}
void ScanObserver::OnBlock(const SimulatedBlock&) {}
void ScanObserver::OnLine(const SimulatedLine&) {}

void ScanRecorder::OnShot(const SimulatedShot& shot, const ShotPlacement& placement) {
  shots.push_back({shot, placement});
}
void ScanRecorder::OnBlock(const SimulatedBlock& block) { blocks.push_back(block); }
void ScanRecorder::OnLine(const SimulatedLine& line) { lines.push_back(line); }

namespace {

// Packs shots into blocks in file order and reports what went where.
class BlockPacker {
 public:
  BlockPacker(const ScanPlan& plan, const BlockSink& sink, ScanObserver* observer)
      : plan_(plan), sink_(sink), observer_(observer) {}

  void Add(const SimulatedShot& shot) {
    if (!block_.fits(shot.returnCount) || block_.shotsAdded() == writers::kMaxShotsPerBlock) Flush();
    if (block_.shotsAdded() == 0) blockFirstShot_ = shot.index;
    const ShotPlacement placement{blockIndex_, block_.shotsAdded(), static_cast<std::uint32_t>(block_.offset())};
    if (!line_ || line_->index != shot.line) StartLine(shot, placement);
    ++line_->shotCount;
    if (shot.flags != 0) {
      ++counts_.flaggedShots;
      if (observer_ != nullptr) line_->eventShots.push_back(shot.index);
    }
    block_.addShot(shot.shotWord, std::span(shot.returnWords.data(), shot.returnCount));
    ++counts_.shots;
    counts_.returns += shot.returnCount;
    if (shot.returnCount == 0) ++counts_.shotsWithoutReturn;
    if (shot.returnCount > 1) ++counts_.shotsWithSeveralReturns;
    if (observer_ != nullptr) observer_->OnShot(shot, placement);
  }

  ScanCounts Finish() {
    Flush();
    if (line_ && observer_ != nullptr) observer_->OnLine(*line_);
    return counts_;
  }

 private:
  void StartLine(const SimulatedShot& shot, const ShotPlacement& placement) {
    if (line_ && observer_ != nullptr) observer_->OnLine(*line_);
    line_ = SimulatedLine{
        shot.line, shot.index, 0, placement.block, placement.shotInBlock, placement.offsetInBlock, shot.direction, {}};
    ++counts_.lines;
  }

  void Flush() {
    if (block_.shotsAdded() == 0) return;
    const SimulatedBlock done{blockIndex_, blockFirstShot_, block_.shotsAdded(),
                              (plan_.firstShotTicks + blockFirstShot_ * plan_.shotPeriodTicks) & 0xFFFFFFFFFFull};
    sink_(block_.finish({.timeStamp = done.timeStamp, .castBlockNumber = done.index & 0x7FF}));
    if (observer_ != nullptr) observer_->OnBlock(done);
    ++counts_.blocks;
    ++blockIndex_;
    block_.clear();
  }

  const ScanPlan& plan_;
  const BlockSink& sink_;
  ScanObserver* observer_;
  writers::FifoBlockWriter block_;
  std::uint32_t blockIndex_ = 0;
  std::uint64_t blockFirstShot_ = 0;
  std::optional<SimulatedLine> line_;
  ScanCounts counts_;
};

// Shots are simulated in chunks by workers and packed in order by the calling
// thread. Chunk k goes to worker k mod n and to slot k mod (2 n), so each
// worker can fill its next chunk while the packer empties the last one.
class ChunkPipeline {
 public:
  static constexpr std::uint64_t kChunkShots = 4096;

  ChunkPipeline(const ScanPlan& plan, const RayCaster& caster, std::uint64_t seed, unsigned workers)
      : plan_(plan),
        caster_(caster),
        seed_(seed),
        chunks_((plan.totalShots + kChunkShots - 1) / kChunkShots),
        slots_(2 * workers) {
    for (Slot& slot : slots_) slot.shots.resize(kChunkShots);
    for (unsigned w = 0; w < workers; ++w) threads_.emplace_back([this, w, workers] { Work(w, workers); });
  }

  ~ChunkPipeline() {
    {
      const std::lock_guard lock(mutex_);
      stopping_ = true;
    }
    changed_.notify_all();
    for (std::thread& t : threads_) t.join();
  }

  // Hands every shot to `take`, in order.
  template <class Take>
  void Drain(Take&& take) {
    for (std::uint64_t k = 0; k < chunks_; ++k) {
      Slot& slot = slots_[k % slots_.size()];
      std::unique_lock lock(mutex_);
      changed_.wait(lock, [&] { return slot.readyChunk == k; });
      lock.unlock();
      for (std::size_t i = 0; i < slot.count; ++i) take(slot.shots[i]);
      lock.lock();
      slot.readyChunk = kNone;
      slot.free = true;
      lock.unlock();
      changed_.notify_all();
    }
  }

 private:
  static constexpr std::uint64_t kNone = ~std::uint64_t{0};
  struct Slot {
    std::vector<SimulatedShot> shots;
    std::size_t count = 0;
    bool free = true;
    std::uint64_t readyChunk = kNone;
  };

  void Work(unsigned worker, unsigned workers) {
    for (std::uint64_t k = worker; k < chunks_; k += workers) {
      Slot& slot = slots_[k % slots_.size()];
      {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return slot.free || stopping_; });
        if (stopping_) return;
        slot.free = false;
      }
      const std::uint64_t first = k * kChunkShots;
      slot.count = static_cast<std::size_t>(std::min(kChunkShots, plan_.totalShots - first));
      SimulateShots(plan_, caster_, seed_, first, std::span(slot.shots.data(), slot.count));
      {
        const std::lock_guard lock(mutex_);
        slot.readyChunk = k;
      }
      changed_.notify_all();
    }
  }

  const ScanPlan& plan_;
  const RayCaster& caster_;
  std::uint64_t seed_;
  std::uint64_t chunks_;
  std::vector<Slot> slots_;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool stopping_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace

ScanCounts GenerateScan(const ScanPlan& plan, const RayCaster& caster, std::uint64_t seed, const BlockSink& sink,
                        ScanObserver* observer, unsigned threads) {
  BlockPacker packer(plan, sink, observer);
  if (threads == 0) threads = std::max(1u, std::thread::hardware_concurrency());
  if (threads == 1) {
    std::vector<SimulatedShot> chunk(ChunkPipeline::kChunkShots);
    for (std::uint64_t first = 0; first < plan.totalShots; first += chunk.size()) {
      const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(chunk.size(), plan.totalShots - first));
      SimulateShots(plan, caster, seed, first, std::span(chunk.data(), count));
      for (std::size_t i = 0; i < count; ++i) packer.Add(chunk[i]);
    }
  } else {
    ChunkPipeline pipeline(plan, caster, seed, threads);
    pipeline.Drain([&packer](const SimulatedShot& shot) { packer.Add(shot); });
  }
  return packer.Finish();
}

}  // namespace kvr::sim
