#include "point_export.h"

#include <algorithm>
#include <chrono>
#include <span>
#include <vector>

#include "block_walk.h"
#include "point_maker.h"
#include "point_model.h"

namespace kvrscan {

ExportSummary ExportPoints(ScanSource& scan, const MapSource& map, const ExportSettings& settings,
                           PointWriter& writer, Progress* progress) {
  const auto start = std::chrono::steady_clock::now();
  ExportSummary summary;
  PointMaker maker(ScanSignature(scan.header()), settings.rangeOffset, map.intensityModel(), *settings.palette);
  LineIndexer lines = map.lineIndexer();
  // Points are made and written a run of shots at a time, so that they and the
  // writer's buffer stay in the processor's caches in between.
  std::vector<PointRecord> points(PointMaker::kRunPoints + 1);
  std::vector<std::int32_t> lineOfShot(PointMaker::kRunShots);
  BlockWalk walk(scan, settings.ticks, progress);
  while (walk.next()) {
    const std::span<const RawShot> shots(walk.block().shots);
    const std::uint32_t blockNumber = walk.blockNumber();
    for (std::size_t first = 0; first < shots.size(); first += PointMaker::kRunShots) {
      const std::span<const RawShot> run = shots.subspan(first, std::min(PointMaker::kRunShots, shots.size() - first));
      for (std::size_t i = 0; i < run.size(); ++i) {
        lineOfShot[i] = lines.lineOf(blockNumber, static_cast<std::uint32_t>(first + i));
      }
      const std::size_t made = maker.make(run, lineOfShot.data(), points.data());
      writer.write(std::span<const PointRecord>(points.data(), made));
    }
    summary.shots += shots.size();
  }
  summary.withoutRange = maker.withoutRange();
  if (progress != nullptr) progress->finish();
  summary.points = writer.count();
  summary.blocks = walk.blocksRead();
  summary.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  summary.damage = walk.damage(settings.log != nullptr && settings.log->grew());
  return summary;
}

}  // namespace kvrscan
