#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "kvr_simulator/scanner_model.h"

// Turns a planned scan into FIFO blocks, in file order, streaming each block out
// as soon as it is full: memory does not grow with the scan.
namespace kvr::sim {

struct SimulatedBlock {
  std::uint32_t index = 0;
  std::uint64_t firstShot = 0;
  std::uint32_t shotCount = 0;
  std::uint64_t timeStamp = 0;  // the block's 40-bit stamp: the ticks of its first shot
};

struct SimulatedLine {
  std::uint32_t index = 0;  // 0 is the line the file starts in (it may start mid-line)
  std::uint64_t firstShot = 0;
  std::uint32_t shotCount = 0;
  std::uint32_t block = 0;  // where its first shot lies
  std::uint32_t shotInBlock = 0;
  std::uint32_t offsetInBlock = 0;        // byte offset of the first shot's record
  bool direction = false;                 // bit 62 of its shots
  std::vector<std::uint64_t> eventShots;  // shots carrying event flags
};

// Where a shot ended up in the file.
struct ShotPlacement {
  std::uint32_t block = 0;
  std::uint32_t shotInBlock = 0;
  std::uint32_t offsetInBlock = 0;
};

// Told about everything as it is written: shots in order, each block once it is
// full, each line once its last shot is placed. The default does nothing.
class ScanObserver {
 public:
  virtual ~ScanObserver() = default;
  virtual void OnShot(const SimulatedShot& shot, const ShotPlacement& placement);
  virtual void OnBlock(const SimulatedBlock& block);
  virtual void OnLine(const SimulatedLine& line);
};

// Keeps everything it is told, for small scans and tests.
class ScanRecorder : public ScanObserver {
 public:
  struct Shot {
    SimulatedShot shot;
    ShotPlacement placement;
  };
  void OnShot(const SimulatedShot& shot, const ShotPlacement& placement) override;
  void OnBlock(const SimulatedBlock& block) override;
  void OnLine(const SimulatedLine& line) override;

  std::vector<Shot> shots;
  std::vector<SimulatedBlock> blocks;
  std::vector<SimulatedLine> lines;
};

struct ScanCounts {
  std::uint64_t blocks = 0;
  std::uint64_t shots = 0;
  std::uint64_t returns = 0;
  std::uint64_t lines = 0;
  std::uint64_t flaggedShots = 0;
  std::uint64_t shotsWithoutReturn = 0;
  std::uint64_t shotsWithSeveralReturns = 0;
};

using BlockSink = std::function<void(std::span<const std::uint8_t> block)>;

// Simulates every shot of the plan, packs the shots into blocks and hands each
// finished block to `sink`. `threads` workers cast the rays (0: one per core);
// the output does not depend on their number.
ScanCounts GenerateScan(const ScanPlan& plan, const RayCaster& caster, std::uint64_t seed, const BlockSink& sink,
                        ScanObserver* observer = nullptr, unsigned threads = 1);

}  // namespace kvr::sim
