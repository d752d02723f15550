#include "kvr_simulator/scan_set.h"

#include <algorithm>
#include <cmath>
#include <sstream>

#include "kvr_writers/file_output.h"
#include "kvr_writers/scan_file_writer.h"

namespace kvr::sim {

namespace {

// A range correction by temperature: keys are degrees Celsius, rows are ranges
// in metres at 0.05 m steps, values metres.
SideTableTruth SideTable() {
  SideTableTruth table;
  table.keys = {-10, 0, 10, 20, 30, 40};
  for (int i = 0; i <= 200; ++i) {
    const double range = i / 20.0;
    std::vector<double> row{range};
    for (const int key : table.keys) {
      const double value = 0.0008 * std::sin(0.7 * range) + 0.00002 * (key - 20) * (1.0 + 0.1 * range);
      row.push_back(std::round(value * 1e7) / 1e7);
    }
    table.rows.push_back(std::move(row));
  }
  return table;
}

writers::NormalizationParams Normalization() {
  return {.a1 = 200.0, .a2 = 4.0, .a3 = 0.43, .a4 = 2.3, .a5 = 5.0, .numberOfBins = 4096, .gamma = 0.6};
}

}  // namespace

ScanSetFiles ScanSetFilesIn(const std::filesystem::path& directory, const SimulationOptions& options) {
  ScanSetFiles files;
  files.directory = directory;
  files.scan = directory / options.scanFileName;
  files.sideTable = directory / (options.scanFileName + ".tbl");
  files.normalizationParams = directory / (options.scanFileName + writers::kNormalizationParamsSuffix);
  files.ticks = directory / "Serial.dat";
  files.devices = directory / "Devices.dat";
  files.camera = directory / "Camera.dat";
  return files;
}

ScanSetSummary WriteScanSet(const std::filesystem::path& directory, const SimulationOptions& options,
                            ScanObserver* observer) {
  ValidateOptions(options);
  ScanSetSummary s;
  s.options = options;
  s.files = ScanSetFilesIn(directory, options);
  s.scene = FurnishedRoom(options.seed, options.room);
  s.plan = PlanScan(options, s.scene);
  const ScanPlan& plan = s.plan;
  const RayCaster caster(s.scene, plan.beam);
  s.clock = PlanClock(plan, options.seed);
  s.calibration = PlanCalibration(plan, options.seed);
  std::filesystem::create_directories(directory);

  const writers::HeaderBlockFields header = ScanHeaderFields(plan, s.calibration, s.clock, options.linesPerSecond);
  writers::ScanFileWriter scan(s.files.scan, header);
  s.counts = GenerateScan(
      plan, caster, options.seed, [&scan](std::span<const std::uint8_t> block) { scan.writeBlock(block); }, observer,
      options.threads);
  s.scanFileBytes = scan.size();
  scan.close();

  s.sideTable = SideTable();
  std::vector<int> keys = s.sideTable.keys;
  writers::WriteTextFile(s.files.sideTable, writers::BuildSideTable(keys, s.sideTable.rows, true, "range"));
  s.normalization = Normalization();
  writers::WriteTextFile(s.files.normalizationParams, writers::NormalizationParamsText(s.normalization));
  WriteTickFile(s.files.ticks, s.clock, options.seed);
  s.devices = WriteDeviceFile(s.files.devices, plan, s.clock, options.seed);
  s.cameraImages = WriteCameraFile(s.files.camera, plan, caster, options.cameraImages);

  s.signature = plan.signature;
  s.prf = plan.prf;
  s.shotsPerLine = plan.shotsPerLine;
  s.dataOffset = header.dataOffset;
  s.seconds = static_cast<double>(plan.totalShots - 1) / (plan.prf * 1000.0);
  s.rangeOffset = plan.rangeOffset;
  s.tiltXDegrees = plan.tiltXDegrees;
  s.tiltYDegrees = plan.tiltYDegrees;
  return s;
}

std::uint32_t LinesForScanBytes(const SimulationOptions& options, std::uint64_t bytes) {
  // Sample whole lines at 16 pan angles round the turn: the bytes of a line
  // depend on what it sees, not on how many lines there are.
  SimulationOptions sample = options;
  sample.lines = 64;
  const Scene scene = FurnishedRoom(options.seed, options.room);
  const ScanPlan plan = PlanScan(sample, scene);
  const RayCaster caster(scene, plan.beam);
  std::uint64_t sampled = 0;
  SimulatedShot shot;
  for (std::uint64_t line = 2; line < 64; line += 4) {
    const std::uint64_t first = line * plan.shotsPerLine - plan.startPhase;
    for (std::uint64_t i = first; i < first + plan.shotsPerLine; ++i) {
      SimulateShot(plan, caster, options.seed, i, shot);
      sampled += 8 + 4 * shot.returnCount;
    }
  }
  const double perLine = static_cast<double>(sampled) / 16.0;
  const double perBlock = 65536.0 / (65536.0 - 12.0 - 12.0);  // header and the usual unfilled tail
  const CalibrationTruth calibration = PlanCalibration(plan, options.seed);
  const double header =
      ScanHeaderFields(plan, calibration, PlanClock(plan, options.seed), options.linesPerSecond).dataOffset;
  const double lines = std::ceil((static_cast<double>(bytes) - header) / (perLine * perBlock));
  return static_cast<std::uint32_t>(std::clamp(lines, 1.0, 4.0e9));
}

std::string DescribeScanSet(const ScanSetSummary& s) {
  std::ostringstream out;
  out.precision(10);
  out << "directory: " << s.files.directory.string() << "\n"
      << "scan file: " << s.files.scan.filename().string() << " (" << s.scanFileBytes << " bytes, data from "
      << s.dataOffset << ")\n"
      << "signature: " << s.signature << "\n"
      << "prf: " << s.prf << " kHz\n"
      << "blocks: " << s.counts.blocks << "\n"
      << "lines: " << s.counts.lines << " (" << s.shotsPerLine << " shots each, the first from shot "
      << s.plan.startPhase << ")\n"
      << "shots: " << s.counts.shots << " (" << s.counts.shotsWithoutReturn << " without a return, "
      << s.counts.shotsWithSeveralReturns << " with several, " << s.counts.flaggedShots << " flagged)\n"
      << "returns: " << s.counts.returns << "\n"
      << "seconds: " << s.seconds << "\n"
      << "rangeOffset: " << s.rangeOffset << " m\n"
      << "room: " << s.scene.room.length << " x " << s.scene.room.width << " x " << s.scene.room.height << " m, "
      << s.scene.boxes.size() << " boxes\n"
      << "scanner: " << s.scene.scanner.x << " " << s.scene.scanner.y << " " << s.scene.scanner.z << " m\n"
      << "tilt: " << s.tiltXDegrees << " " << s.tiltYDegrees << " degrees\n"
      << "first pulse: time of week " << s.clock.firstPulseTimeOfWeek << " s at tick " << s.clock.firstPulseTicks
      << ", " << s.clock.pulses << " pulses\n"
      << "device readings: " << s.devices.inclinometerReadings << " inclinometer, " << s.devices.type2Times.size()
      << " type 2, " << s.devices.type7Times.size() << " type 7\n"
      << "camera images: " << s.cameraImages.size() << "\n";
  return out.str();
}

}  // namespace kvr::sim
