// Scan.write, Scan.write_las and Scan.save_map: point files through the point
// layer's writers (the format chosen by the extension, as kvrscan export does),
// and the map file a later open can load instead of building the map again.

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <limits>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "binding.h"
#include "kvr_decode/cloud/map_file.h"
#include "kvr_decode/cloud/palette.h"
#include "kvr_decode/cloud/point_export.h"
#include "kvr_decode/cloud/point_reader.h"
#include "kvr_decode/cloud/scan.h"
#include "kvr_decode/scan_file_map.h"
#include "scanmap/intensity_histogram.h"

namespace kvr::python {

namespace {

cloud::PointFormat FormatFor(const std::filesystem::path& path, const py::object& format) {
  // A format named outright is looked up as the extension it goes by, so every
  // format the layer's dispatch knows is known here too.
  const std::filesystem::path probe =
      format.is_none() ? path : std::filesystem::path("points." + format.cast<std::string>());
  const std::optional<cloud::PointFormat> found = cloud::PointFormatOf(probe);
  if (found) return *found;
  if (format.is_none()) {
    throw py::value_error(path.string() + ": no point format goes by the extension '" + path.extension().string() +
                          "' (name one with format=)");
  }
  throw py::value_error("no point format named '" + format.cast<std::string>() + "'");
}

cloud::Returns ReturnsOf(const std::string& name) {
  if (name == "all") return cloud::Returns::kAll;
  if (name == "first") return cloud::Returns::kFirst;
  if (name == "last") return cloud::Returns::kLast;
  throw py::value_error("returns is \"all\", \"first\" or \"last\", not \"" + name + "\"");
}

const cloud::Palette* PaletteOf(const py::object& name) {
  if (name.is_none()) return nullptr;
  const std::string text = name.cast<std::string>();
  const cloud::Palette* palette = cloud::FindPalette(text);
  if (palette != nullptr) return palette;
  std::string known;
  for (const cloud::Palette& p : cloud::Palettes()) known += (known.empty() ? "" : ", ") + std::string(p.name());
  throw py::value_error("no palette named '" + text + "' (" + known + ")");
}

// What a written file holds: the counts of the walk and, when one thread made
// every point, the box and time span of the points.
struct WriteReport {
  std::uint64_t points = 0;
  cloud::ReadTally tally;
  double seconds = 0.0;
  std::string damage;
  bool measured = false;
  double low[3] = {0.0, 0.0, 0.0}, high[3] = {0.0, 0.0, 0.0};
  double firstTime = 0.0, lastTime = 0.0;
};

void Measure(const cloud::PointBatch& batch, WriteReport& report) {
  const double* axes[3] = {batch.x().data(), batch.y().data(), batch.z().data()};
  const double* time = batch.time().data();
  for (std::size_t i = 0; i < batch.size(); ++i) {
    if (!report.measured) {
      for (int a = 0; a < 3; ++a) report.low[a] = report.high[a] = axes[a][i];
      report.firstTime = report.lastTime = time[i];
      report.measured = true;
      continue;
    }
    for (int a = 0; a < 3; ++a) {
      report.low[a] = std::min(report.low[a], axes[a][i]);
      report.high[a] = std::max(report.high[a], axes[a][i]);
    }
    report.firstTime = std::min(report.firstTime, time[i]);
    report.lastTime = std::max(report.lastTime, time[i]);
  }
}

struct WriteRequest {
  std::filesystem::path path;
  cloud::PointFormat format = cloud::PointFormat::kPly;
  cloud::Selection selection;
  const cloud::Palette* palette = nullptr;
  std::optional<std::pair<std::uint64_t, std::uint64_t>> blocks;
  unsigned threads = 1;
};

std::vector<std::string> Comments(const cloud::Scan& scan, const cloud::Palette& palette, const ScanFileMap& map) {
  return {
      "kvr_decode export of " + scan.path().filename().string(),
      "axes: scanner frame, metres: x = r cos(scan) cos(pan), y = r cos(scan) sin(pan), z = r sin(scan)",
      std::string("time: seconds, ") + (scan.tickFile() ? "GNSS time of week" : "since the scanner's tick counter started") +
          "; -1 when unknown",
      "line: scan line of the map (-1 before the first); intensity: raw 12-bit",
      "colour: palette " + std::string(palette.name()) + " over the normalized intensity (intensityAt95 " +
          std::to_string(map.intensityAt95) + ", gamma " + std::to_string(map.gamma) + ")",
  };
}

// Runs with the GIL released. A block range is read on this thread alone (a
// part of a scan is one worker's task); the whole scan goes through the
// layer's parallel export.
WriteReport Write(const cloud::Scan& scan, const WriteRequest& request) {
  const ScanFileMap& map = scan.map();
  const cloud::Palette& palette = request.palette != nullptr ? *request.palette : cloud::Palettes().front();
  cloud::WriterSettings settings;
  settings.comments = Comments(scan, palette, map);
  settings.colouring = {&palette, map.intensityAt95, map.gamma};
  // LAS carries colours (point format 7) only when a palette is asked for.
  settings.las = cloud::LasOptions::Of(scan, request.palette != nullptr);
  if (request.format == cloud::PointFormat::kE57) settings.e57 = cloud::E57ScanInfo::Of(scan);
  const auto writer = cloud::OpenPointWriter(request.path, request.format, settings);
  WriteReport report;
  const LogWatch watch;
  if (request.blocks || request.threads <= 1) {
    const auto start = std::chrono::steady_clock::now();
    const auto [first, last] = request.blocks.value_or(std::pair<std::uint64_t, std::uint64_t>{0, scan.blockCount()});
    cloud::PointReader reader(scan, first, last, request.selection);
    cloud::PointBatch batch;
    while (reader.next(batch)) {
      writer->write(batch);
      Measure(batch, report);
    }
    report.tally = reader.tally();
    report.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  } else {
    const cloud::ExportResult result = cloud::ExportPoints(scan, *writer, request.selection, request.threads);
    report.tally = result.tally;
    report.seconds = result.seconds;
  }
  writer->finish();
  report.points = writer->count();
  report.damage = cloud::DescribeScanDamage(scan, report.tally, !watch.added().empty());
  return report;
}

py::dict ReportDict(const WriteRequest& request, const WriteReport& report) {
  py::dict d;
  d["path"] = py::module_::import("os").attr("fsdecode")(py::bytes(request.path.string()));
  d["format"] = cloud::FormatName(request.format);
  d["points"] = report.points;
  d["blocks"] = report.tally.blocks;
  d["shots"] = report.tally.shots;
  d["bad_blocks"] = report.tally.badBlocks;
  d["returns_without_range"] = report.tally.withoutRange;
  d["damage"] = report.damage;
  d["seconds"] = report.seconds;
  std::error_code ec;
  const std::uintmax_t bytes = std::filesystem::file_size(request.path, ec);
  d["bytes"] = ec ? py::object(py::none()) : py::object(py::int_(bytes));
  if (report.measured) {
    d["bounds"] = py::make_tuple(py::make_tuple(report.low[0], report.low[1], report.low[2]),
                                 py::make_tuple(report.high[0], report.high[1], report.high[2]));
    d["time_span"] = py::make_tuple(report.firstTime, report.lastTime);
  } else {
    d["bounds"] = py::none();
    d["time_span"] = py::none();
  }
  return d;
}

py::dict WriteMethod(const py::object& self, const py::object& path, const py::object& format,
                     const std::string& returns, const py::object& palette, const py::object& blocks,
                     const py::object& threads) {
  const std::shared_ptr<const cloud::Scan> scan = SharedScan(self);
  WriteRequest request;
  request.path = PathOf(path);
  request.format = FormatFor(request.path, format);
  request.selection.returns = ReturnsOf(returns);
  request.selection.columns = cloud::ColumnsOf(request.format);
  request.palette = PaletteOf(palette);
  if (!blocks.is_none()) {
    const auto [first, last] = blocks.cast<std::pair<std::int64_t, std::int64_t>>();
    if (first < 0 || last < first) throw py::value_error("blocks: (first, last) with 0 <= first <= last");
    request.blocks = std::pair{static_cast<std::uint64_t>(first), static_cast<std::uint64_t>(last)};
  }
  request.threads = ThreadsOf(threads);
  WriteReport report;
  {
    py::gil_scoped_release release;
    report = Guarded(scan->path(), [&] { return Write(*scan, request); });
  }
  return ReportDict(request, report);
}

void SaveMap(const py::object& self, const py::object& path) {
  const std::shared_ptr<const cloud::Scan> scan = SharedScan(self);
  const std::filesystem::path target = PathOf(path);
  py::gil_scoped_release release;
  Guarded(scan->path(), [&] {
    // The map lives in the scan's own heap state; only saving writes to it.
    auto& map = const_cast<ScanFileMap&>(scan->map());
    // Saving clears the record's bin count; the scan keeps its histogram.
    const std::int32_t bins = map.numberOfBins;
    struct Restore {
      ScanFileMap& map;
      std::int32_t bins;
      ~Restore() { map.numberOfBins = bins; }
    } restore{map, bins};
    // A temporary name beside the target, the written length checked, then renamed.
    cloud::SaveMapFile(map, target);
  });
}

}  // namespace

py::array MapHistogram(const std::shared_ptr<const cloud::Scan>& scan) {
  std::vector<double> counts;
  {
    py::gil_scoped_release release;
    Guarded(scan->path(), [&] {
      const ScanFileMap& map = scan->map();
      // A loaded map has no bins; a built one binned the samples in a pass of its own.
      if (scan->mapLoaded() || map.numberOfBins <= 0) return;
      const std::int32_t bins = map.numberOfBins;
      counts.assign(static_cast<std::size_t>(bins), 0.0);
      cloud::Selection selection = cloud::Selection::SampleRule();
      selection.columns = cloud::kNormalizedColumn;
      cloud::PointReader reader(*scan, selection);
      cloud::PointBatch batch;
      while (reader.next(batch)) {
        for (const double value : batch.normalizedIntensity()) {
          counts[static_cast<std::size_t>(scanmap::BinIndex(value, map.binWidth, bins))] += 1.0;
        }
      }
    });
  }
  return py::array_t<double>(static_cast<py::ssize_t>(counts.size()), counts.data());
}

void BindWriters(py::module_& m) {
  m.def(
      "point_format",
      [](const std::string& name) -> py::object {
        // "las" or a file name such as "points.LAS".
        const std::filesystem::path probe = name.find('.') == std::string::npos ? "points." + name : name;
        const std::optional<cloud::PointFormat> format = cloud::PointFormatOf(probe);
        return format ? py::object(py::str(cloud::FormatName(*format))) : py::object(py::none());
      },
      py::arg("name"),
      "The point format Scan.write writes for a format name (\"las\") or a file name (\"a.LAS\"), as its\n"
      "name; None when this build writes no such format.");
  py::object scan = m.attr("Scan");
  const auto method = [&scan](const char* name, auto function, const char* doc, auto... args) {
    py::cpp_function bound(function, py::name(name), py::is_method(scan), py::sibling(py::getattr(scan, name, py::none())),
                           doc, args...);
    scan.attr(name) = bound;
  };
  method("write", &WriteMethod,
         "Writes the points into a file; the format goes by the extension (.ply, .csv, .las, ...) unless\n"
         "format names one. The file appears complete under its name or not at all.\n"
         "returns: \"all\", \"first\" or \"last\". palette: the colour ramp (LAS: colours only when given).\n"
         "blocks: (first, last): only blocks first .. last - 1, read on one thread.\n"
         "threads: threads making points for the whole scan (default: one per processor, at most 8).\n"
         "Returns a dict: path, format, points, blocks, shots, bad_blocks, returns_without_range, damage\n"
         "(what was wrong with the scan, \"\" when nothing), seconds, bytes, and bounds ((x, y, z) low and\n"
         "high) and time_span (first, last GpsTime) when one thread made the points (else None).\n"
         "A file that cannot be written raises kvr_decode.Error naming it.",
         py::arg("path"), py::arg("format") = py::none(), py::arg("returns") = "all", py::arg("palette") = py::none(),
         py::arg("blocks") = py::none(), py::arg("threads") = py::none());
  method(
      "write_las",
      [](const py::object& self, const py::object& path, const std::string& returns, const py::object& palette,
         const py::object& threads) {
        return WriteMethod(self, path, py::str("las"), returns, palette, py::none(), threads);
      },
      "Writes the points as LAS 1.4 (point format 6, or 7 with the palette's colours); see write.",
      py::arg("path"), py::arg("returns") = "all", py::arg("palette") = py::none(), py::arg("threads") = py::none());
  method("save_map", &SaveMap,
         "Saves the scan's map (building it if needed) as a map file that open(..., map=) loads.",
         py::arg("path"));
}

}  // namespace kvr::python
