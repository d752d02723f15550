// info SCAN: the header of a raw scan file with everything the library builds
// from it; with --stats, a walk over every block for counts, ranges and bounds.

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#include "block_walk.h"
#include "commands.h"
#include "console.h"
#include "e57_info.h"
#include "errors.h"
#include "fifo/block_format.h"
#include "header/header_layout.h"
#include "json_writer.h"
#include "kvr_decode/conversions.h"
#include "kvr_decode/optical_model.h"
#include "kvr_decode/cloud/point_reader.h"
#include "scan_source.h"

namespace kvrscan {

namespace {

std::string FixedText(const char (&field)[40]) {
  return PrintableBytes(std::string_view(field, strnlen(field, sizeof field)));
}

std::string_view StoredText(const char* text, std::uint32_t length) {
  return text == nullptr ? std::string_view() : std::string_view(text, length);
}

std::string Join(std::span<const std::uint32_t> words) {
  std::string out;
  for (const std::uint32_t word : words) out += (out.empty() ? "" : " ") + std::to_string(word);
  return out;
}

std::string Number(double value) { return FormatDouble(value); }

struct ScanStatistics {
  std::uint64_t shots = 0;
  std::uint64_t returnWords = 0;
  std::uint64_t points = 0;          // returns with a range: what export writes
  std::uint64_t invalidReturns = 0;  // stop count before the shot's T0 count
  std::uint64_t flaggedShots = 0;
  std::uint64_t shotsByReturns[5] = {};
  double minRange = std::numeric_limits<double>::infinity();
  double maxRange = -std::numeric_limits<double>::infinity();
  std::uint32_t minIntensity = 4095, maxIntensity = 0;
  double bounds[6] = {std::numeric_limits<double>::infinity(), std::numeric_limits<double>::infinity(),
                      std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity(),
                      -std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity()};
  std::uint64_t firstStamp = 0, lastStamp = 0;
  double firstTime = -1.0, lastTime = -1.0;
};

// Shot counts and times from a walk of every block; the points' ranges,
// intensities and bounds from the point layer, as export makes them.
ScanStatistics WalkScan(ScanSource& scan, BlockWalk& walk) {
  ScanStatistics stats;
  bool first = true;
  while (walk.next()) {
    const FifoBlock& block = walk.block();
    if (first) stats.firstStamp = block.CycleSyncTimeStamp;
    stats.lastStamp = block.CycleSyncTimeStamp;
    for (const RawShot& shot : block.shots) {
      if (first) stats.firstTime = shot.shotTow, first = false;
      stats.lastTime = shot.shotTow;
      ++stats.shots;
      ++stats.shotsByReturns[shot.returns.size()];
      if (kvr::fifo::ShotFlags(shot.shotWord) != 0) ++stats.flaggedShots;
      stats.returnWords += shot.returns.size();
    }
  }
  kvr::cloud::Selection selection;
  selection.columns = kvr::cloud::kPositionColumns | kvr::cloud::kIntensityColumn | kvr::cloud::kCountColumns;
  kvr::cloud::PointReader reader(scan.scan(), 0, walk.blocksRead(), selection);
  kvr::cloud::PointBatch batch;
  while (reader.next(batch)) {
    stats.points += batch.size();
    for (std::size_t i = 0; i < batch.size(); ++i) {
      const double range = CalculateRange(batch.flightCounts()[i], 0);
      stats.minRange = std::min(stats.minRange, range);
      stats.maxRange = std::max(stats.maxRange, range);
      stats.minIntensity = std::min<std::uint32_t>(stats.minIntensity, batch.intensity()[i]);
      stats.maxIntensity = std::max<std::uint32_t>(stats.maxIntensity, batch.intensity()[i]);
      const double p[3] = {batch.x()[i], batch.y()[i], batch.z()[i]};
      for (int k = 0; k < 3; ++k) {
        // Through float, as the exported points are stored.
        const double stored = static_cast<float>(p[k]);
        stats.bounds[k] = std::min(stats.bounds[k], stored);
        stats.bounds[k + 3] = std::max(stats.bounds[k + 3], stored);
      }
    }
  }
  stats.invalidReturns = reader.tally().withoutRange;
  return stats;
}

void HeaderJson(JsonWriter& json, const RawFileHeader& h) {
  json.key("header").beginObject();
  json.field("signature", SignatureString(h));
  json.field("headerLayout", h.headerLayout);
  json.field("dataOffset", h.dataOffset);
  json.numbers("headerWords", h.headerWords);
  json.field("idText1", FixedText(h.idText1));
  json.field("idValue", h.idValue);
  json.field("idText2", FixedText(h.idText2));
  json.field("idText3", FixedText(h.idText3));
  json.field("idText4", FixedText(h.idText4));
  json.field("scanWord0", h.scanWord0);
  json.field("scanStartAngle", h.scanStartAngle);
  json.field("scanEndAngle", h.scanEndAngle);
  json.field("angularSpeed", h.angularSpeed);
  json.field("sweepStartAngle", h.sweepStartAngle);
  json.field("sweepEndAngle", h.sweepEndAngle);
  json.field("lineRate", h.lineRate);
  json.field("prf", h.prf);
  json.numbers("scanTailWords", h.scanTailWords);
  json.field("calibrationTextLength", h.calibrationTextLength);
  json.field("parameterTextLength", h.parameterTextLength);
  json.field("thirdTextLength", h.thirdTextLength);
  json.field("fourthTextLength", h.fourthTextLength);
  json.endObject();

  json.key("texts").beginObject();
  json.field("calibrationText", StoredText(h.calibrationText, h.calibrationTextLength));
  json.field("parameterText", StoredText(h.parameterText, h.parameterTextLength));
  json.field("thirdText", StoredText(h.thirdText, h.thirdTextLength));
  json.key("fourthText");
  if (h.fourthText == nullptr) json.value(nullptr);
  else json.value(StoredText(h.fourthText, h.fourthTextLength));
  json.endObject();

  json.key("prfTables").beginObject();
  for (const auto& [prf, rows] : h.prfTables) {
    json.key(std::to_string(prf)).beginArray();
    for (const auto& [first, second] : rows) json.beginArray(true).value(first).value(second).endArray();
    json.endArray();
  }
  json.endObject();

  json.key("calibrationValues").beginObject();
  for (const auto& [key, value] : h.calibrationValues) json.field(key, value);
  json.endObject();

  json.key("sideTable");
  if (h.sideTableGrid == nullptr) {
    json.value(nullptr);
  } else {
    const SideTableGrid& g = *h.sideTableGrid;
    json.beginObject();
    json.field("columns", g.columns.size());
    json.field("rowCount", g.rowCount).field("keyCount", g.keyCount);
    json.field("rowOrigin", g.rowOrigin).field("keyOrigin", g.keyOrigin);
    json.field("rowEnd", g.rowEnd).field("keyEnd", g.keyEnd);
    json.field("keyStep", g.keyStep).field("rowStep", g.rowStep);
    json.field("keySpan", g.keySpan).field("rowSpan", g.rowSpan);
    json.endObject();
  }
}

void CalibrationJson(JsonWriter& json, const OpticalModel::CalibrationParameters& c) {
  json.key("calibrationParameters").beginObject();
  json.field("rangeOffset", c.rangeOffset);
  json.field("a0", c.a0).field("a1", c.a1).field("a2", c.a2).field("a3", c.a3);
  json.field("a4", c.a4).field("a5", c.a5).field("a6", c.a6);
  json.field("wobblePhiModel1", c.wobblePhiModel1);
  json.field("smKappa", c.smKappa).field("panA", c.panA).field("panB", c.panB);
  json.field("wobbleOmega", c.wobbleOmega).field("wobbleOmegaA", c.wobbleOmegaA).field("wobbleOmegaB", c.wobbleOmegaB);
  json.field("reserved", c.reserved);
  json.field("wobblePhi", c.wobblePhi).field("wobblePhiA", c.wobblePhiA);
  json.field("wobblePhiB", c.wobblePhiB).field("wobblePhiS", c.wobblePhiS);
  json.field("rangeTableValid", c.rangeTableValid);
  json.field("opticalModelVersion", c.opticalModelVersion);
  json.numbers("rangeTable", c.rangeTable);
  json.endObject();
}

void StatisticsJson(JsonWriter& json, const ScanStatistics& s, const BlockWalk& walk) {
  json.field("num_points", s.points);
  json.key("bounds").beginObject();
  if (s.points > 0) {
    json.field("minx", s.bounds[0]).field("miny", s.bounds[1]).field("minz", s.bounds[2]);
    json.field("maxx", s.bounds[3]).field("maxy", s.bounds[4]).field("maxz", s.bounds[5]);
  }
  json.endObject();
  json.key("stats").beginObject();
  json.field("blocks_read", walk.blocksRead()).field("bad_blocks", walk.badBlocks());
  json.field("num_shots", s.shots).field("num_returns", s.returnWords);
  json.field("invalid_returns", s.invalidReturns).field("flagged_shots", s.flaggedShots);
  json.numbers("shots_by_return_count", s.shotsByReturns);
  if (s.points > 0) {
    json.key("range").beginObject().field("min", s.minRange).field("max", s.maxRange).endObject();
    json.key("intensity").beginObject().field("min", s.minIntensity).field("max", s.maxIntensity).endObject();
  }
  if (s.shots > 0) {
    json.key("time_stamps").beginObject().field("first", s.firstStamp).field("last", s.lastStamp).endObject();
    json.key("shot_times").beginObject().field("first", s.firstTime).field("last", s.lastTime).endObject();
  }
  json.endObject();
}

void HeaderText(TextReport& report, const ScanSource& scan) {
  const RawFileHeader& h = scan.header();
  report.heading("header");
  report.field("PRF", std::to_string(h.prf) + " kHz");
  report.field("data offset", std::to_string(h.dataOffset));
  std::string blocks = GroupedCount(scan.wholeBlocks()) + " of " + std::to_string(kBlockSize) + " bytes";
  if (scan.trailingBytes() > 0) blocks += " + " + std::to_string(scan.trailingBytes()) + " bytes of a cut-off block";
  report.field("blocks", blocks);
  report.field("header layout", std::to_string(h.headerLayout) +
                                    (h.headerLayout == kvr::header::layout::kLayoutWithFourthText      ? " (four texts)"
                                     : h.headerLayout == kvr::header::layout::kLayoutWithoutFourthText ? " (three texts)"
                                                                                                      : ""));
  report.field("header words", Join(h.headerWords));
  report.field("id texts", "\"" + FixedText(h.idText1) + "\" \"" + FixedText(h.idText2) + "\" \"" +
                               FixedText(h.idText3) + "\" \"" + FixedText(h.idText4) + "\"");
  report.field("id value", std::to_string(h.idValue));
  report.field("scan start, end", Number(h.scanStartAngle) + " .. " + Number(h.scanEndAngle) + " deg");
  report.field("angular speed", Number(h.angularSpeed) + " deg/s");
  report.field("sweep start, end", Number(h.sweepStartAngle) + " .. " + Number(h.sweepEndAngle) + " deg");
  report.field("line rate", Number(h.lineRate) + " lines/s");
  report.field("scan word 0", std::to_string(h.scanWord0));
  report.field("tail words", Join(h.scanTailWords));

  report.heading("texts");
  const auto textSize = [](std::uint32_t length) { return std::to_string(length) + " bytes"; };
  report.field("calibration text", textSize(h.calibrationTextLength));
  report.field("parameter text", textSize(h.parameterTextLength));
  report.field("optical model text", textSize(h.thirdTextLength));
  report.field("fourth text", h.fourthText == nullptr ? "none" : textSize(h.fourthTextLength));

  report.heading("calibration values");
  if (h.calibrationValues.empty()) report.line("  none");
  for (const auto& [key, value] : h.calibrationValues) report.field(key, Number(value));

  report.heading("PRF tables");
  if (h.prfTables.empty()) report.line("  none");
  for (const auto& [prf, rows] : h.prfTables) {
    std::string summary = GroupedCount(rows.size()) + " rows";
    if (!rows.empty()) {
      summary += ", first (" + Number(rows.front().first) + ", " + Number(rows.front().second) + "), last (" +
                 Number(rows.back().first) + ", " + Number(rows.back().second) + ")";
    }
    report.field("PRF " + std::to_string(prf), summary);
  }

  report.heading("side table");
  if (h.sideTableGrid == nullptr) {
    report.line("  none");
  } else {
    const SideTableGrid& g = *h.sideTableGrid;
    report.field("file", scan.path() + ".tbl");
    report.field("keys", std::to_string(g.keyCount) + " from " + Number(g.keyOrigin) + " to " + Number(g.keyEnd) +
                             " (step " + Number(g.keyStep) + ")");
    report.field("rows", std::to_string(g.rowCount) + " from " + Number(g.rowOrigin) + " to " + Number(g.rowEnd) +
                             " (step " + Number(g.rowStep) + ")");
  }
}

void CalibrationText(TextReport& report, const OpticalModel::CalibrationParameters& c, std::uint32_t prf) {
  report.heading("calibration parameters");
  report.field("optical model version", std::to_string(c.opticalModelVersion));
  report.field("rangeOffset", Number(c.rangeOffset) + " m");
  report.field("a0 .. a6", Number(c.a0) + " " + Number(c.a1) + " " + Number(c.a2) + " " + Number(c.a3) + " " +
                               Number(c.a4) + " " + Number(c.a5) + " " + Number(c.a6));
  report.field("wobble-phi (model 1)", Number(c.wobblePhiModel1));
  report.field("sm-kappa", Number(c.smKappa));
  report.field("pan-a, pan-b", Number(c.panA) + " " + Number(c.panB));
  report.field("wobble-omega, -a, -b", Number(c.wobbleOmega) + " " + Number(c.wobbleOmegaA) + " " +
                                           Number(c.wobbleOmegaB));
  report.field("wobble-phi, -a, -b, -s", Number(c.wobblePhi) + " " + Number(c.wobblePhiA) + " " +
                                             Number(c.wobblePhiB) + " " + Number(c.wobblePhiS));
  report.field("range table", c.rangeTableValid != 0
                                  ? "4096 entries for PRF " + std::to_string(prf) + ", " + Number(c.rangeTable[0]) +
                                        " .. " + Number(c.rangeTable[4095])
                                  : "none for PRF " + std::to_string(prf));
}

void StatisticsText(TextReport& report, const ScanStatistics& s, const BlockWalk& walk) {
  report.heading("statistics");
  report.field("blocks read", GroupedCount(walk.blocksRead()) + " (" + GroupedCount(walk.badBlocks()) +
                                  " with a bad signature)");
  report.field("shots", GroupedCount(s.shots) + " (" + GroupedCount(s.flaggedShots) + " flagged)");
  std::string byCount;
  for (int k = 0; k <= 4; ++k) byCount += (k > 0 ? ", " : "") + std::to_string(k) + ": " + GroupedCount(s.shotsByReturns[k]);
  report.field("shots by return count", byCount);
  report.field("returns", GroupedCount(s.returnWords) + " (" + GroupedCount(s.invalidReturns) + " without a range)");
  report.field("points", GroupedCount(s.points));
  if (s.points > 0) {
    report.field("range", Format("%.4f .. %.4f m (without offset)", s.minRange, s.maxRange));
    report.field("intensity", std::to_string(s.minIntensity) + " .. " + std::to_string(s.maxIntensity));
    report.field("bounds x", Format("%.4f .. %.4f m", s.bounds[0], s.bounds[3]));
    report.field("bounds y", Format("%.4f .. %.4f m", s.bounds[1], s.bounds[4]));
    report.field("bounds z", Format("%.4f .. %.4f m", s.bounds[2], s.bounds[5]));
  }
  if (s.shots > 0) {
    report.field("block time stamps", std::to_string(s.firstStamp) + " .. " + std::to_string(s.lastStamp) + " ticks");
    report.field("shot times", Format("%.6f .. %.6f s", s.firstTime, s.lastTime));
  }
}

struct InfoOptions {
  std::string scan;
  bool stats = false;
  bool texts = false;
  bool json = false;
};

// What info reports: the header as read, and with --stats a walk of every block.
struct InfoReport {
  OpticalModel::CalibrationParameters calibration;
  std::unique_ptr<BlockWalk> walk;  // with --stats only
  ScanStatistics stats;
};

InfoReport CollectInfo(ScanSource& scan, bool withStats, bool showProgress) {
  InfoReport report;
  report.calibration = GetCalibrationParameters(scan.header());
  if (withStats) {
    Progress progress("info " + scan.path(), showProgress);
    report.walk = std::make_unique<BlockWalk>(scan, nullptr, &progress);
    report.stats = WalkScan(scan, *report.walk);
  }
  return report;
}

std::string InfoJson(const ScanSource& scan, const InfoReport& info) {
  const RawFileHeader& h = scan.header();
  JsonWriter json;
  json.beginObject();
  json.field("filename", scan.path());
  json.field("file_size", scan.fileSize());
  json.field("scanner", KindName(KindOf(h)));
  json.field("num_blocks", scan.wholeBlocks());
  json.field("trailing_bytes", scan.trailingBytes());
  if (info.walk) StatisticsJson(json, info.stats, *info.walk);
  json.key("metadata").beginObject();
  HeaderJson(json, h);
  CalibrationJson(json, info.calibration);
  json.endObject();
  json.endObject();
  return json.text();
}

std::string InfoText(const ScanSource& scan, const InfoReport& info, bool withTexts) {
  const RawFileHeader& h = scan.header();
  TextReport report;
  report.line(scan.path() + ": raw scan file of a " + std::string(KindName(KindOf(h))) + " scanner (" +
              SignatureString(h) + "), " + GroupedCount(scan.fileSize()) + " bytes");
  HeaderText(report, scan);
  CalibrationText(report, info.calibration, h.prf);
  if (info.walk) StatisticsText(report, info.stats, *info.walk);
  if (withTexts) {
    const auto text = [&](std::string_view title, const char* body, std::uint32_t length) {
      report.heading(title);
      report.line(PrintableText(StoredText(body, length)));
    };
    text("calibration text", h.calibrationText, h.calibrationTextLength);
    text("parameter text", h.parameterText, h.parameterTextLength);
    text("optical model text", h.thirdText, h.thirdTextLength);
    if (h.fourthText != nullptr) text("fourth text", h.fourthText, h.fourthTextLength);
  }
  return report.text();
}

int RunInfo(const InfoOptions& args, Context& context) {
  if (IsE57Name(args.scan)) return RunE57Info(args.scan, context);
  ScanSource scan(args.scan);
  const InfoReport info = CollectInfo(scan, args.stats, context.showProgress);
  Console::write(context.json ? InfoJson(scan, info) : InfoText(scan, info, args.texts));
  if (info.walk) {
    const std::string damage = info.walk->damage(context.log.grew());
    if (!damage.empty()) return context.damaged(scan.path() + ": " + damage);
  } else if (scan.trailingBytes() > 0) {
    return context.damaged(scan.path() + ": the file ends inside block " + std::to_string(scan.wholeBlocks()) + " (" +
                           std::to_string(scan.trailingBytes()) + " of " + std::to_string(kBlockSize) + " bytes)");
  }
  return kExitOk;
}

constexpr CommandInfo kInfo{
    "info",
    "SCAN|FILE.e57 [--stats] [--texts] [--json]",
    "the header of a raw scan file: texts, PRF tables, calibration values and parameters, side table",
    "Reads only the header unless --stats is given. The JSON names every header field as the\n"
    "library's RawFileHeader does, under metadata; num_points and bounds (x, y, z as export writes\n"
    "them) come with --stats. An .e57 file (as export writes them) lists its scans, point counts\n"
    "and images, every page's checksum checked.",
};

}  // namespace

void AddInfoCommand(CommandSet& commands) {
  auto options = std::make_shared<InfoOptions>();
  CLI::App& command = commands.add(kInfo, options, RunInfo);
  AddInput(command, "SCAN", options->scan);
  AddFlag(command, "--stats", options->stats, "walk every block: shots, returns, points, ranges, bounds");
  AddFlag(command, "--texts", options->texts, "print the header's four texts in full (the JSON always has them)");
  AddJsonOption(command, options->json);
}

}  // namespace kvrscan
