#include "point_export.h"

namespace kvrscan {

kvr::cloud::Selection PointFileSelection() {
  kvr::cloud::Selection selection;
  selection.columns = kvr::cloud::PointWriter::kColumns;
  return selection;
}

ExportSummary ExportPoints(const kvr::cloud::Scan& scan, unsigned threads, const LibraryLog* log,
                           kvr::cloud::PointWriter& writer, Progress* progress, const kvr::cloud::Selection& selection) {
  kvr::cloud::ExportProgress report;
  if (progress != nullptr) report = [progress](std::uint64_t done, std::uint64_t total) { progress->update(done, total); };
  const kvr::cloud::ExportResult result = kvr::cloud::ExportPoints(scan, writer, selection, threads, report);
  if (progress != nullptr) progress->finish();
  ExportSummary summary;
  summary.points = result.points;
  summary.withoutRange = result.tally.withoutRange;
  summary.shots = result.tally.shots;
  summary.blocks = result.tally.blocks;
  summary.damage = kvr::cloud::DescribeScanDamage(scan, result.tally, log != nullptr && log->grew());
  summary.seconds = result.seconds;
  return summary;
}

}  // namespace kvrscan
