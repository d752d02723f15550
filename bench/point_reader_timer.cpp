// The C++ side of bench/python_read_points.py, and a reference for the Python
// package's tests:
//   time SCAN        the point layer's reader makes every point of SCAN with the
//                    columns the package's arrays hold; prints points and seconds
//   collect SCAN [THREADS]
//                    the same points kept as the records of one array, filled by
//                    the package's own code (what read_points does without Python)
//   dump SCAN FILE   the same points' x y z time (doubles) and intensity, line,
//                    shot index (64-bit integers), point by point
//   synthetic FILE   writes the 256 MiB synthetic scan (0-4 returns a shot)
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <string>

#include "kvr_decode/cloud/point_reader.h"
#include "kvr_decode/cloud/scan.h"
#include "kvr_writers/scan_file_writer.h"
#include "kvr_writers/synthetic_blocks.h"
#include "point_records.h"

namespace {

constexpr std::size_t kSyntheticBlocks = 4096;  // 256 MiB

int Fail(const std::string& what) {
  std::fprintf(stderr, "kvr_point_reader_timer: %s\n", what.c_str());
  return 1;
}

int WriteSynthetic(const std::string& path) {
  kvr::writers::HeaderBlockFields fields;
  fields.calibrationText = "rangeOffset = 0.5\n";
  const std::string partial = path + ".part";
  std::FILE* out = std::fopen(partial.c_str(), "wb");
  if (out == nullptr) return Fail("cannot create " + partial);
  const std::vector<std::uint8_t> header = kvr::writers::BuildScanFile(fields);
  bool written = std::fwrite(header.data(), 1, header.size(), out) == header.size();
  kvr::writers::SyntheticScan scan(20240601, 200, 4);
  for (std::size_t b = 0; written && b < kSyntheticBlocks; ++b) {
    const std::vector<std::uint8_t> block = scan.NextBlock().build();
    written = std::fwrite(block.data(), 1, block.size(), out) == block.size();
  }
  if (std::fclose(out) != 0 || !written) {
    std::remove(partial.c_str());
    return Fail("cannot write " + partial);
  }
  std::filesystem::rename(partial, path);
  return 0;
}

int Read(const char* scanPath, std::FILE* dump) {
  kvr::cloud::Scan scan(scanPath);
  scan.map();  // built before the clock starts, as the Python side does
  kvr::cloud::Selection selection;
  selection.columns = kvr::cloud::kAllColumns & ~kvr::cloud::kCountColumns;
  const auto start = std::chrono::steady_clock::now();
  kvr::cloud::PointReader reader(scan, selection);
  kvr::cloud::PointBatch batch;
  std::uint64_t points = 0;
  double sum = 0.0;  // printed, so that the columns are really made
  while (reader.next(batch)) {
    points += batch.size();
    if (!batch.empty()) sum += batch.x()[0] + batch.normalizedIntensity()[0];
    for (std::size_t i = 0; dump != nullptr && i < batch.size(); ++i) {
      const double v[4] = {batch.x()[i], batch.y()[i], batch.z()[i], batch.time()[i]};
      const std::int64_t w[3] = {batch.intensity()[i], batch.line()[i], static_cast<std::int64_t>(batch.shotIndex()[i])};
      if (std::fwrite(v, sizeof v, 1, dump) != 1 || std::fwrite(w, sizeof w, 1, dump) != 1) return Fail("write failed");
    }
  }
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::printf("%llu points %.6f seconds %g\n", static_cast<unsigned long long>(points), seconds, sum);
  return 0;
}

int Collect(const char* scanPath, unsigned threads) {
  kvr::cloud::Scan scan(scanPath);
  scan.map();
  kvr::cloud::Selection selection;
  selection.columns = kvr::python::kRecordColumns;
  const auto start = std::chrono::steady_clock::now();
  const auto [data, size] = kvr::python::ReadRecordsOnThreads(scan, 0, scan.blockCount(), selection, threads);
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::printf("%llu points %.6f seconds %g\n", static_cast<unsigned long long>(size), seconds, size > 0 ? data[0].X : 0.0);
  std::free(data);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string command = argc > 1 ? argv[1] : "";
  try {
    if (command == "synthetic" && argc == 3) return WriteSynthetic(argv[2]);
    if (command == "time" && argc == 3) return Read(argv[2], nullptr);
    if (command == "collect" && (argc == 3 || argc == 4)) {
      return Collect(argv[2], argc == 4 ? static_cast<unsigned>(std::stoul(argv[3])) : 1u);
    }
    if (command == "dump" && argc == 4) {
      std::FILE* dump = std::fopen(argv[3], "wb");
      if (dump == nullptr) return Fail(std::string("cannot create ") + argv[3]);
      const int result = Read(argv[2], dump);
      return std::fclose(dump) != 0 ? Fail(std::string("cannot write ") + argv[3]) : result;
    }
  } catch (const std::exception& error) {
    return Fail(error.what());
  }
  std::fprintf(stderr, "usage: kvr_point_reader_timer time SCAN | collect SCAN [THREADS] | dump SCAN FILE | synthetic FILE\n");
  return 2;
}
