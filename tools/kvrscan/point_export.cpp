#include "point_export.h"

#include <array>
#include <chrono>
#include <vector>

#include "block_walk.h"
#include "point_model.h"

namespace kvrscan {

ExportSummary ExportPoints(ScanSource& scan, const MapSource& map, const ExportSettings& settings,
                           PointWriter& writer, Progress* progress) {
  const auto start = std::chrono::steady_clock::now();
  ExportSummary summary;
  PointGeometry geometry(ScanSignature(scan.header()), settings.rangeOffset);
  const IntensityModel model = map.intensityModel();
  const IntensityNormalizer normalize(model);
  const DisplayScale scale(model.intensityAt95, model.gamma);
  std::array<Rgb, kTopLevel + 1> colours;
  for (int level = 0; level <= kTopLevel; ++level) colours[level] = settings.palette->colourOfLevel(level);
  LineIndexer lines = map.lineIndexer();
  // Points go out in small batches, so that they and the writer's buffer stay
  // in the processor's caches between being made and being copied out.
  // A shot adds at most four points to a batch, which goes out once it holds kBatch.
  constexpr std::size_t kBatch = 2048;
  std::vector<PointRecord> batch(kBatch + ReturnWords::kCapacity);
  std::size_t points = 0;
  // The colours are looked up for the whole batch at once, from the normalized
  // intensities kept beside it: two short loops pipeline better than one long one.
  std::vector<double> intensities(kBatch + ReturnWords::kCapacity);
  const auto flush = [&] {
    for (std::size_t p = 0; p < points; ++p) batch[p].colour = colours[scale.level(intensities[p])];
    writer.write(std::span<const PointRecord>(batch.data(), points));
    points = 0;
  };
  BlockWalk walk(scan, settings.ticks, progress);
  while (walk.next()) {
    const FifoBlock& block = walk.block();
    const std::uint32_t blockNumber = walk.blockNumber();
    for (std::size_t i = 0; i < block.shots.size(); ++i) {
      const RawShot& shot = block.shots[i];
      const std::int32_t line = lines.lineOf(blockNumber, static_cast<std::uint32_t>(i));
      const auto t0 = static_cast<std::uint32_t>(shot.shotWord >> 41 & 0xFFFF);
      geometry.aim(static_cast<std::uint32_t>(shot.shotWord & 0xFFFFF), shot.scanAngleCounts);
      const auto count = static_cast<std::uint8_t>(shot.returns.size());
      for (std::uint8_t k = 0; k < count; ++k) {
        const std::uint32_t word = shot.returns[k];
        const double range = RangeOf(word & 0xFFFFF, t0);
        if (range < 0.0) {
          ++summary.withoutRange;
          continue;
        }
        PointRecord& point = batch[points];
        float x, y, z;
        geometry.place(range, x, y, z);
        point.x = x, point.y = y, point.z = z;
        point.intensity = static_cast<std::uint16_t>(word >> 20);
        point.returnNumber = static_cast<std::uint8_t>(k + 1);
        point.numberOfReturns = count;
        point.line = line;
        point.time = shot.shotTow;
        intensities[points++] = range > 0.0 ? normalize(range, word >> 20) : 0.0;
      }
      if (points >= kBatch) flush();
    }
    summary.shots += block.shots.size();
  }
  flush();
  if (progress != nullptr) progress->finish();
  summary.points = writer.count();
  summary.blocks = walk.blocksRead();
  summary.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  summary.damage = walk.damage(settings.log != nullptr && settings.log->grew());
  return summary;
}

}  // namespace kvrscan
