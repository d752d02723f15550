// simulate DIR: a simulated scan set of a furnished room, written by the scanner
// simulator: the raw scan with its side table and normalization parameters, the
// tick file, the device data file and the camera file.

#include <stdexcept>

#include "commands.h"
#include "console.h"
#include "errors.h"
#include "json_writer.h"
#include "kvr_simulator/scan_set.h"
#include "progress.h"

namespace kvrscan {

namespace {

// Shows the blocks as the simulator finishes them.
class BlockProgress : public kvr::sim::ScanObserver {
 public:
  BlockProgress(Progress& progress, std::uint64_t expectedLines) : progress_(progress), lines_(expectedLines) {}
  void OnLine(const kvr::sim::SimulatedLine& line) override { progress_.update(line.index + 1, lines_); }

 private:
  Progress& progress_;
  std::uint64_t lines_;
};

struct SimulateArguments {
  std::string directory;
  std::optional<std::uint64_t> seed;
  std::optional<std::string> kind;
  std::optional<std::int64_t> prf, lines;
  bool json = false;
};

std::string SimulateJson(const std::string& directory, const kvr::sim::SimulationOptions& options,
                         const kvr::sim::ScanSetSummary& summary) {
  JsonWriter json;
  json.beginObject().field("directory", directory);
  json.key("files").beginObject();
  json.field("scan", summary.files.scan.string()).field("side_table", summary.files.sideTable.string());
  json.field("normalization_params", summary.files.normalizationParams.string());
  json.field("ticks", summary.files.ticks.string()).field("devices", summary.files.devices.string());
  json.field("camera", summary.files.camera.string());
  json.endObject();
  json.field("seed", options.seed).field("kind", options.kind == kvr::sim::ScannerKind::kThreeSixty ? 360 : 90);
  json.field("signature", summary.signature).field("prf", summary.prf);
  json.field("num_blocks", summary.counts.blocks).field("num_lines", summary.counts.lines);
  json.field("num_shots", summary.counts.shots).field("num_returns", summary.counts.returns);
  json.field("shots_per_line", summary.shotsPerLine).field("scan_bytes", summary.scanFileBytes);
  json.field("seconds", summary.seconds).field("range_offset", summary.rangeOffset);
  json.key("room").beginObject();
  json.field("length", summary.scene.room.length).field("width", summary.scene.room.width);
  json.field("height", summary.scene.room.height);
  json.endObject();
  json.numbers("scanner_position", std::array{summary.scene.scanner.x, summary.scene.scanner.y, summary.scene.scanner.z});
  json.endObject();
  return json.text();
}

int RunSimulate(const SimulateArguments& args, Context& context) {
  kvr::sim::SimulationOptions options;
  options.seed = args.seed.value_or(options.seed);
  if (const auto& kind = args.kind) {
    if (*kind == "90") options.kind = kvr::sim::ScannerKind::kNinetyDegree;
    else if (*kind == "360") options.kind = kvr::sim::ScannerKind::kThreeSixty;
    else throw UsageError("--kind is 90 or 360, not '" + *kind + "'");
  }
  if (const auto& prf = args.prf) {
    if (*prf != 50 && *prf != 200 && *prf != 500) throw UsageError("--prf is 50, 200 or 500 (kHz), not " + std::to_string(*prf));
    options.prf = static_cast<std::uint32_t>(*prf);
  }
  options.lines = static_cast<std::uint32_t>(args.lines.value_or(options.lines));
  const std::string& directory = args.directory;

  kvr::sim::ScanSetSummary summary;
  {
    Progress progress("simulate " + directory, context.showProgress);
    BlockProgress observer(progress, options.lines);
    try {
      summary = kvr::sim::WriteScanSet(directory, options, &observer);
    } catch (const std::invalid_argument& error) {
      throw UsageError(error.what());
    } catch (const std::runtime_error& error) {
      throw ToolError(error.what());
    }
  }
  Console::write(context.json ? SimulateJson(directory, options, summary) : kvr::sim::DescribeScanSet(summary));
  return kExitOk;
}

constexpr CommandInfo kInfo{
    "simulate",
    "DIR [--seed N] [--kind 90|360] [--prf 50|200|500] [--lines N] [--json]",
    "write a simulated scan set of a furnished room into DIR (created when missing)",
    "DIR receives scan.raw with its side table (scan.raw.tbl) and normalization parameters\n"
    "(scan.raw.NormalizationParams.txt), the tick file Serial.dat, Devices.dat and Camera.dat.",
};

}  // namespace

void AddSimulateCommand(CommandSet& commands) {
  auto options = std::make_shared<SimulateArguments>();
  CLI::App& command = commands.add(kInfo, options, RunSimulate);
  AddInput(command, "DIR", options->directory);
  kvr::cli::AddOptional(command, "--seed", options->seed,
                        "the room's furniture, the scanner's place, calibration and noise follow from it (default 1)")
      ->type_name("N")
      ->check(kvr::cli::NaturalNumber("--seed"));
  AddText(command, "--kind", "90|360", options->kind,
          "scanner model: the 90-degree oscillating mirror (default) or the 360-degree one");
  AddInteger(command, "--prf", "50|200|500", options->prf, 0, INT32_MAX, "pulse repetition frequency in kHz (default 200)");
  AddInteger(command, "--lines", "N", options->lines, 1, UINT32_MAX, "scan lines (default 500)");
  AddJsonOption(command, options->json);
}

}  // namespace kvrscan
