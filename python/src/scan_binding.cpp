#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <type_traits>

#include "binding.h"
#include "point_records.h"
#include "kvr_decode/cloud/point_reader.h"
#include "kvr_decode/cloud/scan.h"
#include "kvr_decode/cloud/tick_file.h"
#include "kvr_decode/fifo_block.h"
#include "kvr_decode/file_header.h"
#include "kvr_decode/optical_model.h"

namespace kvr::python {

namespace {

const py::dtype& PointType() {
  // Made once and kept for the process: a static py::object would be released after the interpreter.
  static const py::dtype* type = new py::dtype(RecordType(
      {{"X", "<f8"}, {"Y", "<f8"}, {"Z", "<f8"}, {"GpsTime", "<f8"}, {"Range", "<f8"}, {"Pan", "<f8"},
       {"ScanAngle", "<f8"}, {"NormalizedIntensity", "<f8"}, {"ShotIndex", "<u8"}, {"Line", "<i4"},
       {"Block", "<u4"}, {"Intensity", "<u2"}, {"ReturnNumber", "u1"}, {"NumberOfReturns", "u1"},
       {"Flags", "u1"}},
      {offsetof(PointRecord, X), offsetof(PointRecord, Y), offsetof(PointRecord, Z), offsetof(PointRecord, GpsTime),
       offsetof(PointRecord, Range), offsetof(PointRecord, Pan), offsetof(PointRecord, ScanAngle),
       offsetof(PointRecord, NormalizedIntensity), offsetof(PointRecord, ShotIndex), offsetof(PointRecord, Line),
       offsetof(PointRecord, Block), offsetof(PointRecord, Intensity), offsetof(PointRecord, ReturnNumber),
       offsetof(PointRecord, NumberOfReturns), offsetof(PointRecord, Flags)},
      sizeof(PointRecord)));
  return *type;
}

// Records from the C allocator as an array that owns them.
py::array ArrayOf(std::pair<PointRecord*, std::size_t> records) {
  const auto [data, size] = records;
  if (data == nullptr) return ViewOf(PointType(), 0, nullptr, py::none());
  return ViewOf(PointType(), size, data, FreeingCapsule(data));
}


// [first, last) from None, a (first, last) pair or a range of step 1.
std::optional<std::pair<std::int64_t, std::int64_t>> Bounds(const py::object& given, const char* what) {
  if (given.is_none()) return std::nullopt;
  if (py::isinstance(given, py::module_::import("builtins").attr("range"))) {
    if (given.attr("step").cast<std::int64_t>() != 1) throw py::value_error(std::string(what) + ": a range of step 1");
    return std::pair{given.attr("start").cast<std::int64_t>(), given.attr("stop").cast<std::int64_t>()};
  }
  const auto pair = given.cast<std::pair<std::int64_t, std::int64_t>>();
  if (pair.first > pair.second) throw py::value_error(std::string(what) + ": first must not lie after last");
  return pair;
}

struct ReadRequest {
  cloud::Selection selection;
  std::uint64_t first = 0, last = 0;
};

class PyScan;

// The iterator of scan.points(): one array per batch_blocks blocks.
class PointIterator {
 public:
  PointIterator(std::shared_ptr<const cloud::Scan> scan, const ReadRequest& request, std::size_t batchBlocks)
      : scan_(std::move(scan)), batchBlocks_(batchBlocks) {
    py::gil_scoped_release release;
    Guarded(scan_->path(), [&] {
      reader_ = std::make_unique<cloud::PointReader>(*scan_, request.first, request.last, request.selection);
      reader_->setBatchShots(kRunShots);
    });
  }

  py::array next() {
    RecordBuffer buffer;
    buffer.reserve(lastSize_ + lastSize_ / 8);  // batches of as many blocks hold about as many points
    {
      py::gil_scoped_release release;
      std::lock_guard<std::mutex> lock(mutex_);  // one iterator may be shared between threads
      Guarded(scan_->path(), [&] {
        // The reader hands out runs of a block's shots: a batch of the next
        // block waits in batch_ for the next array once this one has its blocks.
        std::size_t blocks = 0;
        std::int64_t block = -1;
        while (!done_) {
          if (!held_ && !reader_->next(batch_)) {
            done_ = true;
            break;
          }
          held_ = true;
          if (batch_.block() != block) {
            if (blocks == batchBlocks_) {
              if (buffer.size() > 0) break;
              blocks = 0;  // blocks without points: an array holds points
            }
            ++blocks;
            block = batch_.block();
          }
          buffer.append(batch_);
          held_ = false;
        }
      });
    }
    if (buffer.size() == 0) throw py::stop_iteration();
    lastSize_ = buffer.size();
    return ArrayOf(buffer.take());
  }

 private:
  std::shared_ptr<const cloud::Scan> scan_;
  std::size_t batchBlocks_;
  std::unique_ptr<cloud::PointReader> reader_;
  cloud::PointBatch batch_;
  std::size_t lastSize_ = 0;  // points of the last array
  bool held_ = false;  // batch_ holds points not yet in an array
  bool done_ = false;
  std::mutex mutex_;
};

// The iterator of scan.point_columns(): one dict of column arrays per block, each
// a view of the batch the reader filled (the batch is handed over, a new one made).
class ColumnIterator {
 public:
  ColumnIterator(std::shared_ptr<const cloud::Scan> scan, const ReadRequest& request) : scan_(std::move(scan)) {
    py::gil_scoped_release release;
    Guarded(scan_->path(), [&] {
      reader_ = std::make_unique<cloud::PointReader>(*scan_, request.first, request.last, request.selection);
    });
  }

  py::dict next() {
    auto batch = std::make_unique<cloud::PointBatch>();
    bool more = false;
    {
      py::gil_scoped_release release;
      std::lock_guard<std::mutex> lock(mutex_);
      Guarded(scan_->path(), [&] { more = reader_->next(*batch); });
    }
    if (!more) throw py::stop_iteration();
    const cloud::PointBatch& b = *batch;
    const py::capsule owner = OwningCapsule(batch.release());
    py::dict columns;
    const auto put = [&](const char* name, auto span) {
      using T = typename decltype(span)::value_type;
      columns[name] = py::array_t<T>({static_cast<py::ssize_t>(span.size())}, {static_cast<py::ssize_t>(sizeof(T))},
                                     span.empty() ? nullptr : span.data(), owner);
    };
    put("X", b.x());
    put("Y", b.y());
    put("Z", b.z());
    put("GpsTime", b.time());
    put("Range", b.range());
    put("Pan", b.pan());
    put("ScanAngle", b.scanAngle());
    put("NormalizedIntensity", b.normalizedIntensity());
    put("ShotIndex", b.shotIndex());
    put("Line", b.line());
    put("Intensity", b.intensity());
    put("ReturnNumber", b.returnNumber());
    put("NumberOfReturns", b.numberOfReturns());
    put("Flags", b.flags());
    put("PanCounts", b.panCounts());
    put("ScanCounts", b.scanCounts());
    put("FlightCounts", b.flightCounts());
    columns["Block"] = b.block();
    return columns;
  }

 private:
  std::shared_ptr<const cloud::Scan> scan_;
  std::unique_ptr<cloud::PointReader> reader_;
  std::mutex mutex_;
};

const py::dtype& ShotType() {
  static const py::dtype* type = [] {
    RawShot probe;
    const auto wordsAt = static_cast<std::size_t>(reinterpret_cast<const char*>(&probe.returns[0]) -
                                                  reinterpret_cast<const char*>(&probe));
    return new py::dtype(RecordType({{"TimeInCounts", "<u8"},
                                     {"ScanAngleCounts", "<u4"},
                                     {"ShotWord", "<u8"},
                                     {"ShotTow", "<f8"},
                                     {"Status", "<i4"},
                                     {"Returns", "(4,)<u4"}},
                                    {offsetof(RawShot, timeInCounts), offsetof(RawShot, scanAngleCounts),
                                     offsetof(RawShot, shotWord), offsetof(RawShot, shotTow),
                                     offsetof(RawShot, status), wordsAt},
                                    sizeof(RawShot)));
  }();
  return *type;
}

// The iterator of scan.blocks(): each block's shots as the decoder returns them.
class BlockIterator {
 public:
  BlockIterator(std::shared_ptr<const cloud::Scan> scan, std::uint64_t first, std::uint64_t last)
      : scan_(std::move(scan)), number_(first), last_(last) {
    const std::filesystem::path& path = scan_->path();
    py::gil_scoped_release release;
    Guarded(path, [&] {
      LogWatch watch;
      const std::wstring wide = cloud::WideName(path);
      stream_ = ReadFileHeader(wide.c_str(), header_);
      if (stream_ == nullptr) Refuse(path, "can no longer be read as a scan file", watch);
      const std::uint64_t offset = scan_->header().dataOffset + first * cloud::BlockSize();
      if (::fseeko(stream_, static_cast<off_t>(offset), SEEK_SET) != 0) Refuse(path, "cannot seek to its blocks", watch);
      if (scan_->tickFile()) ticks_ = std::make_unique<cloud::TicksManager>(*scan_->tickFile(), scan_->timeOffset());
    });
  }
  ~BlockIterator() {
    if (stream_ != nullptr) std::fclose(stream_);
    ReleaseFileHeader(header_);
  }
  BlockIterator(const BlockIterator&) = delete;
  BlockIterator& operator=(const BlockIterator&) = delete;

  py::dict next() {
    auto block = std::make_unique<FifoBlock>();
    int shots = -1;
    {
      py::gil_scoped_release release;
      std::lock_guard<std::mutex> lock(mutex_);
      if (number_ < last_) {
        shots = Guarded(scan_->path(), [&] {
          return DecodeNextFifoBlock(&stream_, header_, static_cast<int>(number_), *block,
                                     ticks_ ? ticks_->get() : nullptr);
        });
      }
    }
    if (shots == -1) throw py::stop_iteration();
    py::dict result;
    result["block"] = number_++;
    result["time_stamp"] = block->CycleSyncTimeStamp;
    result["bad_signature"] = shots == -2;
    py::array_t<std::uint8_t> counts(static_cast<py::ssize_t>(block->shots.size()));
    auto c = counts.mutable_unchecked<1>();
    for (std::size_t i = 0; i < block->shots.size(); ++i) c(static_cast<py::ssize_t>(i)) = static_cast<std::uint8_t>(block->shots[i].returns.size());
    const std::size_t count = block->shots.size();
    const RawShot* data = block->shots.data();
    result["shots"] = ViewOf(ShotType(), count, data, OwningCapsule(block.release()));
    result["return_counts"] = counts;
    return result;
  }

 private:
  std::shared_ptr<const cloud::Scan> scan_;
  std::uint64_t number_, last_;
  std::FILE* stream_ = nullptr;
  RawFileHeader header_;
  std::unique_ptr<cloud::TicksManager> ticks_;
  std::mutex mutex_;
};

std::string Text(const char* text, std::size_t length) {
  return std::string(text == nullptr ? "" : text, text == nullptr ? 0 : length);
}

// A fixed-size text field: up to its first zero byte.
std::string FixedText(const char (&field)[40]) { return std::string(field, strnlen(field, sizeof field)); }

py::str Decoded(const std::string& bytes) {
  // Latin-1 maps every byte to a character, so no file text fails to decode.
  return py::reinterpret_steal<py::str>(PyUnicode_DecodeLatin1(bytes.data(), static_cast<py::ssize_t>(bytes.size()), nullptr));
}

template <typename T, std::size_t N>
py::tuple TupleOf(const T (&values)[N]) {
  py::tuple t(N);
  for (std::size_t i = 0; i < N; ++i) t[i] = values[i];
  return t;
}

class PyScan {
 public:
  PyScan(const py::object& path, const py::object& ticks, const py::object& map, int timeOffset) {
    const std::filesystem::path file = PathOf(path);
    cloud::ScanOptions options;
    if (!ticks.is_none()) options.ticks = PathOf(ticks);
    if (!map.is_none()) options.map = PathOf(map);
    options.timeOffset = timeOffset;
    py::gil_scoped_release release;
    scan_ = Guarded(file, [&] { return std::make_shared<const cloud::Scan>(file, options); });
  }

  const cloud::Scan& scan() const { return *scan_; }
  std::shared_ptr<const cloud::Scan> shared() const { return scan_; }

  const cloud::Scan& mapped() const {
    py::gil_scoped_release release;
    Guarded(scan_->path(), [&] { scan_->map(); });
    return *scan_;
  }

  py::dict header() const {
    const RawFileHeader& h = scan_->header();
    py::dict d;
    d["signature"] = py::bytes(reinterpret_cast<const char*>(h.signature), sizeof h.signature);
    d["headerLayout"] = h.headerLayout;
    d["dataOffset"] = h.dataOffset;
    d["headerWords"] = TupleOf(h.headerWords);
    d["idText1"] = Decoded(FixedText(h.idText1));
    d["idValue"] = h.idValue;
    d["idText2"] = Decoded(FixedText(h.idText2));
    d["idText3"] = Decoded(FixedText(h.idText3));
    d["idText4"] = Decoded(FixedText(h.idText4));
    d["scanWord0"] = h.scanWord0;
    d["scanStartAngle"] = h.scanStartAngle;
    d["scanEndAngle"] = h.scanEndAngle;
    d["angularSpeed"] = h.angularSpeed;
    d["sweepStartAngle"] = h.sweepStartAngle;
    d["sweepEndAngle"] = h.sweepEndAngle;
    d["lineRate"] = h.lineRate;
    d["prf"] = h.prf;
    d["scanTailWords"] = TupleOf(h.scanTailWords);
    d["calibrationText"] = Decoded(Text(h.calibrationText, h.calibrationTextLength));
    d["parameterText"] = Decoded(Text(h.parameterText, h.parameterTextLength));
    d["thirdText"] = Decoded(Text(h.thirdText, h.thirdTextLength));
    d["fourthText"] = Decoded(Text(h.fourthText, h.fourthTextLength));
    py::dict tables;
    for (const auto& [prf, rows] : h.prfTables) {
      py::array_t<double> table({static_cast<py::ssize_t>(rows.size()), py::ssize_t{2}});
      auto t = table.mutable_unchecked<2>();
      for (std::size_t i = 0; i < rows.size(); ++i) {
        t(static_cast<py::ssize_t>(i), 0) = rows[i].first;
        t(static_cast<py::ssize_t>(i), 1) = rows[i].second;
      }
      tables[py::int_(prf)] = table;
    }
    d["prfTables"] = tables;
    py::dict values;
    for (const auto& [key, value] : h.calibrationValues) values[py::str(key)] = value;
    d["calibrationValues"] = values;
    if (h.sideTableGrid != nullptr) {
      const SideTableGrid& g = *h.sideTableGrid;
      py::dict grid, columns;
      for (const auto& [key, column] : g.columns) columns[py::int_(key)] = py::array_t<double>(column.size(), column.data());
      grid["columns"] = columns;
      grid["rowCount"] = g.rowCount;
      grid["keyCount"] = g.keyCount;
      grid["rowOrigin"] = g.rowOrigin;
      grid["keyOrigin"] = g.keyOrigin;
      grid["rowEnd"] = g.rowEnd;
      grid["keyEnd"] = g.keyEnd;
      grid["keyStep"] = g.keyStep;
      grid["rowStep"] = g.rowStep;
      grid["keySpan"] = g.keySpan;
      grid["rowSpan"] = g.rowSpan;
      d["sideTable"] = grid;
    } else {
      d["sideTable"] = py::none();
    }
    return d;
  }

  py::dict calibration() const {
    // The decoder takes the header by reference but only reads it here.
    const OpticalModel::CalibrationParameters c = GetCalibrationParameters(const_cast<RawFileHeader&>(scan_->header()));
    py::dict d;
    d["rangeOffset"] = c.rangeOffset;
    d["a0"] = c.a0, d["a1"] = c.a1, d["a2"] = c.a2, d["a3"] = c.a3, d["a4"] = c.a4, d["a5"] = c.a5, d["a6"] = c.a6;
    d["wobblePhiModel1"] = c.wobblePhiModel1;
    d["smKappa"] = c.smKappa;
    d["panA"] = c.panA, d["panB"] = c.panB;
    d["wobbleOmega"] = c.wobbleOmega, d["wobbleOmegaA"] = c.wobbleOmegaA, d["wobbleOmegaB"] = c.wobbleOmegaB;
    d["wobblePhi"] = c.wobblePhi, d["wobblePhiA"] = c.wobblePhiA, d["wobblePhiB"] = c.wobblePhiB;
    d["wobblePhiS"] = c.wobblePhiS;
    d["rangeTable"] = c.rangeTableValid ? py::array_t<float>(std::size(c.rangeTable), c.rangeTable) : py::array_t<float>(0);
    d["opticalModelVersion"] = c.opticalModelVersion;
    return d;
  }

  py::dict mapStatistics() const {
    const ScanFileMap& m = mapped().map();
    py::dict d;
    d["loaded"] = scan_->mapLoaded();
    d["seconds"] = scan_->mapSeconds();
    d["numberOfScanLines"] = m.numberOfScanLines;
    d["maxShotsPerLine"] = m.maxShotsPerLine;
    d["maxShotsPerBlock"] = m.maxShotsPerBlock;
    d["maxReturnsPerShot"] = m.maxReturnsPerShot;
    d["blockCount"] = m.blockCount;
    d["shotsPerLineEstimate"] = m.shotsPerLineEstimate;
    d["binWidth"] = m.binWidth;
    d["numberOfBins"] = m.numberOfBins;
    d["minNormalizedIntensity"] = m.minNormalizedIntensity;
    d["maxNormalizedIntensity"] = m.maxNormalizedIntensity;
    d["intensityAt95"] = m.intensityAt95;
    d["gamma"] = m.gamma;
    d["validSampleCount"] = m.validSampleCount;
    d["a1"] = m.a1, d["a2"] = m.a2, d["a3"] = m.a3, d["a4"] = m.a4, d["a5"] = m.a5;
    d["returnCounts"] = py::array_t<std::uint64_t>(m.returnCounts.size(), m.returnCounts.data());
    return d;
  }

  py::array histogram() const { return MapHistogram(scan_); }

  py::array lineTable() const {
    const ScanFileMap& m = mapped().map();
    py::array_t<std::int64_t> table({static_cast<py::ssize_t>(m.scanLines.size()), py::ssize_t{5}});
    auto t = table.mutable_unchecked<2>();
    py::ssize_t row = 0;
    for (const auto& [line, entry] : m.scanLines) {
      t(row, 0) = line;
      t(row, 1) = entry.blockNumber;
      t(row, 2) = entry.shotIndexInBlock;
      t(row, 3) = entry.shotCount;
      t(row, 4) = entry.lineFlag;
      ++row;
    }
    return table;
  }

  std::int32_t lineCount() const { return mapped().lineCount(); }

  ReadRequest request(const std::string& returns, const py::object& blocks, const py::object& lines,
                      const py::object& nearLimit, const py::object& farLimit) const {
    ReadRequest r;
    if (returns == "all") {
      r.selection.returns = cloud::Returns::kAll;
    } else if (returns == "first") {
      r.selection.returns = cloud::Returns::kFirst;
    } else if (returns == "last") {
      r.selection.returns = cloud::Returns::kLast;
    } else {
      throw py::value_error("returns is \"all\", \"first\" or \"last\", not \"" + returns + "\"");
    }
    r.first = 0;
    r.last = scan_->blockCount();
    if (const auto b = Bounds(blocks, "blocks")) {
      if (b->first < 0) throw py::value_error("blocks: first must not be negative");
      r.first = static_cast<std::uint64_t>(b->first);
      r.last = static_cast<std::uint64_t>(std::max(b->second, b->first));
    }
    if (const auto l = Bounds(lines, "lines")) {
      r.selection.firstLine = static_cast<std::int32_t>(std::clamp<std::int64_t>(l->first, -1, INT32_MAX));
      r.selection.lastLine = static_cast<std::int32_t>(std::clamp<std::int64_t>(l->second, -1, INT32_MAX));
    }
    if (!nearLimit.is_none()) r.selection.nearLimit = nearLimit.cast<double>();
    if (!farLimit.is_none()) r.selection.farLimit = farLimit.cast<double>();
    r.selection.columns = kRecordColumns;
    return r;
  }

  py::array readPoints(const ReadRequest& r, unsigned threads) const {
    std::pair<PointRecord*, std::size_t> records{nullptr, 0};
    {
      py::gil_scoped_release release;
      Guarded(scan_->path(), [&] { records = ReadRecordsOnThreads(*scan_, r.first, r.last, r.selection, threads); });
    }
    return ArrayOf(records);
  }

 private:
  std::shared_ptr<const cloud::Scan> scan_;
};

}  // namespace

std::shared_ptr<const cloud::Scan> SharedScan(const py::handle& scan) { return scan.cast<const PyScan&>().shared(); }

void BindScan(py::module_& m) {
  py::class_<PointIterator>(m, "PointIterator", "Arrays of points, one per batch of blocks (see Scan.points).")
      .def("__iter__", [](py::object self) { return self; })
      .def("__next__", &PointIterator::next);
  py::class_<ColumnIterator>(m, "ColumnIterator", "Column views of the points, one dict per block (see Scan.point_columns).")
      .def("__iter__", [](py::object self) { return self; })
      .def("__next__", &ColumnIterator::next);
  py::class_<BlockIterator>(m, "BlockIterator", "The decoded shots, one dict per block (see Scan.blocks).")
      .def("__iter__", [](py::object self) { return self; })
      .def("__next__", &BlockIterator::next);

  m.attr("point_dtype") = PointType();
  m.attr("shot_dtype") = ShotType();

  const auto selection = [](const char* extra) {
    return std::string(
               "returns: \"all\" (every return is a point), \"first\" or \"last\".\n"
               "blocks: (first, last) or range(first, last): only the blocks first .. last - 1.\n"
               "lines: (first, last) or range(...): only shots of those scan lines (-1: before the first line).\n"
               "near, far: only returns whose range lies in (near, far] metres.\n") +
           extra;
  };

  py::class_<PyScan, std::shared_ptr<PyScan>>(m, "Scan", "An open raw scan file (see kvr_decode.open).")
      .def(py::init<const py::object&, const py::object&, const py::object&, int>(), py::arg("path"),
           py::arg("ticks") = py::none(), py::arg("map") = py::none(), py::arg("time_offset") = 0)
      .def_property_readonly("path", [](const PyScan& s) { return s.scan().path().string(); })
      .def_property_readonly("header", &PyScan::header, "Every header field, the texts, the PRF tables and calibration values.")
      .def_property_readonly("calibration", &PyScan::calibration, "The optical model the library reads from the header.")
      .def_property_readonly("block_count", [](const PyScan& s) { return s.scan().blockCount(); })
      .def_property_readonly("trailing_bytes", [](const PyScan& s) { return s.scan().trailingBytes(); })
      .def_property_readonly("file_size", [](const PyScan& s) { return s.scan().fileSize(); })
      .def_property_readonly("line_count", &PyScan::lineCount, "Scan lines of the map (builds the map on first use).")
      .def_property_readonly("map_statistics", &PyScan::mapStatistics, "The map's maxima, intensity model and counts.")
      .def_property_readonly("histogram", &PyScan::histogram,
                             "The normalized-intensity histogram of a built map: samples per bin (empty for a loaded one).")
      .def_property_readonly("line_table", &PyScan::lineTable,
                             "One row per map line: line, block, shot in block, shot count, direction bit.")
      .def(
          "points",
          [](const PyScan& s, const std::string& returns, const py::object& blocks, const py::object& lines,
             const py::object& nearLimit, const py::object& farLimit, std::size_t batchBlocks) {
            if (batchBlocks == 0) throw py::value_error("batch_blocks must be at least 1");
            return std::make_unique<PointIterator>(s.shared(), s.request(returns, blocks, lines, nearLimit, farLimit),
                                                   batchBlocks);
          },
          py::arg("returns") = "all", py::arg("blocks") = py::none(), py::arg("lines") = py::none(),
          py::arg("near") = py::none(), py::arg("far") = py::none(), py::arg("batch_blocks") = 16,
          (std::string("Iterates over the points as structured arrays, one per batch_blocks blocks.\n") +
           selection(""))
              .c_str())
      .def(
          "read_points",
          [](const PyScan& s, const std::string& returns, const py::object& blocks, const py::object& lines,
             const py::object& nearLimit, const py::object& farLimit, const py::object& threads) {
            return s.readPoints(s.request(returns, blocks, lines, nearLimit, farLimit), ThreadsOf(threads));
          },
          py::arg("returns") = "all", py::arg("blocks") = py::none(), py::arg("lines") = py::none(),
          py::arg("near") = py::none(), py::arg("far") = py::none(), py::arg("threads") = py::none(),
          (std::string("All selected points as one structured array.\n") + selection("") +
           "threads: threads making the points, each on its own part of the blocks (default: one per\n"
           "processor, at most 8); the array is the same on any number.\n")
              .c_str())
      .def(
          "point_columns",
          [](const PyScan& s, const std::string& returns, const py::object& blocks, const py::object& lines,
             const py::object& nearLimit, const py::object& farLimit) {
            return std::make_unique<ColumnIterator>(s.shared(), s.request(returns, blocks, lines, nearLimit, farLimit));
          },
          py::arg("returns") = "all", py::arg("blocks") = py::none(), py::arg("lines") = py::none(),
          py::arg("near") = py::none(), py::arg("far") = py::none(),
          (std::string("Iterates over the blocks' points as dicts of column arrays that are views of the\n"
                       "reader's own columns (no copy).\n") +
           selection(""))
              .c_str())
      .def(
          "line",
          [](const PyScan& s, std::int64_t n, const std::string& returns) {
            if (n < 0 || n >= s.lineCount()) throw py::index_error("line " + std::to_string(n) + " is not in the scan");
            return s.readPoints(s.request(returns, py::none(), py::make_tuple(n, n + 1), py::none(), py::none()), 1);
          },
          py::arg("n"), py::arg("returns") = "all", "The points of the shots of scan line n, one structured array.")
      .def(
          "blocks",
          [](const PyScan& s, std::uint64_t first, const py::object& last) {
            const std::uint64_t end = last.is_none() ? s.scan().blockCount()
                                                     : std::min(last.cast<std::uint64_t>(), s.scan().blockCount());
            return std::make_unique<BlockIterator>(s.shared(), first, std::max(first, end));
          },
          py::arg("first") = 0, py::arg("last") = py::none(),
          "Iterates over the decoded shots of blocks first .. last - 1: one dict per block.");
}

}  // namespace kvr::python
