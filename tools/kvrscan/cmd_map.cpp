// map SCAN: the scan file map of a scan, built by the library (and saved with
// -o) or loaded from a map file (--load): its lines, maxima, return counts and
// intensity statistics.

#include <cstring>

#include "commands.h"
#include "console.h"
#include "errors.h"
#include "json_writer.h"
#include "kvr_decode/cloud/map_file.h"
#include "map_source.h"

namespace kvrscan {

namespace {

std::string Number(double value) { return FormatDouble(value); }

void MapJson(JsonWriter& json, const ScanFileMap& m) {
  json.key("metadata").beginObject();
  json.field("mapSignature", PrintableBytes(std::string_view(m.mapSignature, strnlen(m.mapSignature, 8))));
  json.field("mapVersion", m.mapVersion);
  json.field("currentLineFlag", m.currentLineFlag).field("maxShotsPerLine", m.maxShotsPerLine);
  json.field("numberOfScanLines", m.numberOfScanLines).field("shotsInCurrentLine", m.shotsInCurrentLine);
  json.field("spareA", m.spareA).field("maxReturnsPerShot", m.maxReturnsPerShot);
  json.field("dataStartOffset", m.dataStartOffset).field("dataSize", m.dataSize);
  json.field("blockCount", m.blockCount).field("maxShotsPerBlock", m.maxShotsPerBlock);
  json.field("scanFileName", PrintableBytes(std::string_view(m.scanFileName, strnlen(m.scanFileName, 1024))));
  json.field("spareB", m.spareB).field("shotsPerLineEstimate", m.shotsPerLineEstimate);
  json.field("binWidth", m.binWidth);
  json.field("minNormalizedIntensity", m.minNormalizedIntensity);
  json.field("maxNormalizedIntensity", m.maxNormalizedIntensity);
  json.field("a1", m.a1).field("a2", m.a2).field("a3", m.a3).field("a4", m.a4).field("a5", m.a5);
  json.field("intensityAt95", m.intensityAt95).field("numberOfBins", m.numberOfBins).field("gamma", m.gamma);
  json.field("validSampleCount", m.validSampleCount);
  json.numbers("returnCounts", m.returnCounts);
  json.field("lastEncoderValue", m.lastEncoderValue).field("encoderWrapParity", m.encoderWrapParity);
  json.endObject();
  json.key("scanLines").beginArray();
  for (const auto& [index, entry] : m.scanLines) {
    json.beginObject().field("index", index).field("blockNumber", entry.blockNumber);
    json.field("shotIndexInBlock", entry.shotIndexInBlock).field("lineFlag", entry.lineFlag);
    json.field("shotCount", entry.shotCount).field("statusWordOffset", entry.statusWordOffset);
    json.numbers("eventShots", entry.eventShots).endObject();
  }
  json.endArray();
}

void MapText(TextReport& report, const ScanFileMap& m, bool listLines) {
  report.heading("scan lines");
  report.field("lines", GroupedCount(m.numberOfScanLines < 0 ? 0 : m.numberOfScanLines) + " (entries " +
                            GroupedCount(m.scanLines.size()) + ", with -1: the shots before the first line)");
  report.field("shots per line", "max " + GroupedCount(m.maxShotsPerLine) + ", estimate " +
                                     Number(m.shotsPerLineEstimate));
  report.field("shots per block", "max " + GroupedCount(m.maxShotsPerBlock));
  report.field("returns per shot", "max " + std::to_string(m.maxReturnsPerShot));
  report.field("block count", std::to_string(m.blockCount) + " (as the map counts them)");
  report.field("data", "from offset " + std::to_string(m.dataStartOffset) + ", " + GroupedCount(m.dataSize) +
                           " bytes");
  report.heading("returns in range (0.1 m < r <= 2040 m)");
  static const char* const kOrdinal[] = {"first", "second", "third", "fourth"};
  for (std::size_t k = 0; k < m.returnCounts.size() && k < 4; ++k) report.field(kOrdinal[k], GroupedCount(m.returnCounts[k]));
  report.heading("normalized intensity");
  report.field("model a1 .. a5", Number(m.a1) + " " + Number(m.a2) + " " + Number(m.a3) + " " + Number(m.a4) + " " +
                                     Number(m.a5));
  report.field("minimum", Number(m.minNormalizedIntensity));
  report.field("maximum", Number(m.maxNormalizedIntensity));
  report.field("samples", GroupedCount(m.validSampleCount));
  report.field("histogram", std::to_string(m.numberOfBins) + " bins of " + Number(m.binWidth));
  report.field("95% below", Number(m.intensityAt95));
  report.field("display gamma", Number(m.gamma));
  if (!listLines) return;
  report.heading(Format("%8s %8s %8s %5s %8s  %s", "line", "block", "shot", "flag", "shots", "event shots"));
  for (const auto& [index, entry] : m.scanLines) {
    std::string events;
    for (const std::uint32_t shot : entry.eventShots) events += (events.empty() ? "" : " ") + std::to_string(shot);
    report.line(Format("  %8d %8u %8u %5d %8d  %s", index, entry.blockNumber, entry.shotIndexInBlock, entry.lineFlag,
                       entry.shotCount, events.c_str()));
  }
}

struct MapOptions {
  std::string scan;
  std::optional<std::string> output, load;
  bool lines = false;
  bool json = false;
};

int RunMap(const MapOptions& args, Context& context) {
  const std::optional<std::string>& save = args.output;
  const std::optional<std::string>& load = args.load;
  if (save && load) throw UsageError("-o and --load exclude each other");
  kvr::cloud::ScanOptions options;
  if (load) options.map = *load;
  ScanSource scan(args.scan, options);
  MapSource source(scan, context.showProgress);
  ScanFileMap& map = source.map();

  // The report shows the map as built or loaded: saving clears numberOfBins in the record.
  std::string text;
  if (context.json) {
    JsonWriter json;
    json.beginObject().field("filename", scan.path());
    json.key("map_file");
    if (save || load) json.value(save ? *save : *load);
    else json.value(nullptr);
    json.field("source", source.loaded() ? "loaded" : "built");
    json.field("num_lines", map.numberOfScanLines < 0 ? 0 : map.numberOfScanLines);
    MapJson(json, map);
    json.endObject();
    text = json.text();
  } else {
    TextReport report;
    report.line(scan.path() + ": scan file map " +
                (source.loaded() ? "loaded from " + *load : Format("built in %.2f s", source.seconds())) +
                (save ? ", saved to " + *save : ""));
    MapText(report, map, args.lines);
    text = report.text();
  }
  if (save) Checked([&] { kvr::cloud::SaveMapFile(map, *save); });
  Console::write(text);
  return kExitOk;
}

constexpr CommandInfo kInfo{
    "map",
    "SCAN [-o MAPFILE | --load MAPFILE] [--lines] [--json]",
    "the scan file map: scan lines, maxima, return counts and intensity statistics",
    "Building reads the whole scan twice. The JSON names every field as the library's ScanFileMap\n"
    "does (metadata) and lists every line entry (scanLines). A loaded map carries the minimum\n"
    "normalized intensity in place of the maximum and no histogram, as the map file does.",
};

}  // namespace

void AddMapCommand(CommandSet& commands) {
  auto options = std::make_shared<MapOptions>();
  CLI::App& command = commands.add(kInfo, options, RunMap);
  AddInput(command, "SCAN", options->scan);
  AddText(command, "-o,--output", "MAPFILE", options->output, "save the map built from the scan to MAPFILE");
  AddText(command, "--load", "MAPFILE", options->load,
          "load the map from MAPFILE (made from this scan) instead of building it");
  AddFlag(command, "--lines", options->lines,
          "list every line: first block and shot, direction flag, shots, event shots");
  AddJsonOption(command, options->json);
}

}  // namespace kvrscan
