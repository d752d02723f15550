// Device and camera file readers, each beside a plain fread of the same file.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <vector>

#include "devices/nearest_reading.h"
#include "kvr_decode/camera_file.h"
#include "kvr_decode/device_data.h"
#include "kvr_writers/camera_file_writer.h"
#include "kvr_writers/device_file_writer.h"
#include "support/temp_dir.h"

namespace {

using kvr::writers::CameraFileBuilder;
using kvr::writers::DeviceFileBuilder;

constexpr int kDeviceReadings = 400000;
constexpr int kCameraImages = 256;
constexpr std::size_t kImageBytes = 256 * 1024;

const kvr::test::TempDir& Dir() {
  static const kvr::test::TempDir dir;
  return dir;
}

// A scanner-like mix: mostly inclination readings, a type 2 and a type 7 every tenth.
const std::filesystem::path& DeviceFile() {
  static const std::filesystem::path path = [] {
    DeviceFileBuilder file(93);
    file.calibrationBlock("sxx=1\nsyy=1\nalpha=1\nbeta=1\nvref=2.5\npga=8\n").calibrationBlock("xsf=1\n");
    for (int i = 0; i < kDeviceReadings; ++i) {
      const std::uint64_t time = 1000000 + static_cast<std::uint64_t>(i) * 500000;
      if (i % 10 == 3) {
        file.reading(kvr::writers::DeviceReading2{.time = time, .value = 1});
      } else if (i % 10 == 7) {
        file.reading(kvr::writers::DeviceReading7{.time = time, .d = 2});
      } else {
        file.reading(kvr::writers::DeviceReading1{.time = time, .raw = {0, 1000, 990, 1, 1000, 0}});
      }
    }
    const auto p = Dir() / "device.dat";
    kvr::test::WriteFile(p, file.bytes());
    return p;
  }();
  return path;
}

const std::filesystem::path& CameraFile() {
  static const std::filesystem::path path = [] {
    CameraFileBuilder file({.timeStampFlag = 1, .text = "bench"});
    for (int i = 0; i < kCameraImages; ++i) {
      file.record({.timeStamp = static_cast<std::uint64_t>(i), .image = std::vector<std::uint8_t>(kImageBytes, 7)});
    }
    const auto p = Dir() / "camera.dat";
    kvr::test::WriteFile(p, file.bytes());
    return p;
  }();
  return path;
}

void FreadWhole(benchmark::State& state, const std::filesystem::path& path) {
  std::vector<char> buffer(1 << 16);
  for (auto _ : state) {
    std::FILE* in = std::fopen(path.c_str(), "rb");
    while (std::fread(buffer.data(), 1, buffer.size(), in) == buffer.size()) {
    }
    std::fclose(in);
    benchmark::DoNotOptimize(buffer.data());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(std::filesystem::file_size(path)));
}

void BM_FreadDeviceFile(benchmark::State& state) { FreadWhole(state, DeviceFile()); }

void BM_ReadDeviceDataInfo(benchmark::State& state) {
  const std::wstring name = DeviceFile().wstring();
  // The reader prints its version line on every call: keep it out of the report.
  std::fflush(stdout);
  const int saved = dup(STDOUT_FILENO);
  std::FILE* sink = std::fopen("/dev/null", "w");
  dup2(fileno(sink), STDOUT_FILENO);
  for (auto _ : state) {
    AncillaryDevicesData data;
    benchmark::DoNotOptimize(ReadDeviceDataInfo(name.c_str(), data));
  }
  std::fflush(stdout);
  dup2(saved, STDOUT_FILENO);
  close(saved);
  std::fclose(sink);
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(std::filesystem::file_size(DeviceFile())));
  state.counters["readings/s"] =
      benchmark::Counter(static_cast<double>(state.iterations()) * kDeviceReadings, benchmark::Counter::kIsRate);
}

// The nearest type 7 reading of every type 2 reading, on ascending times (as the
// scanner writes them) and on the same times out of order, where every type 2
// reading scans the whole type 7 list.
void BM_LinkNearestType7(benchmark::State& state) {
  const bool sorted = state.range(1) != 0;
  const std::size_t n = static_cast<std::size_t>(state.range(0));
  std::vector<DeviceRecord7> type7(n);
  std::vector<DeviceRecord2> type2(n);
  for (std::size_t i = 0; i < n; ++i) {
    type7[i].time = 1000 + i * 5000000;
    type2[i].time = 3000000 + i * 5000000;
  }
  if (!sorted) std::swap(type7.front().time, type7.back().time);
  for (auto _ : state) {
    kvr::devices::LinkNearestType7(type2, type7);
    benchmark::DoNotOptimize(type2.data());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(n));
}

void BM_FreadCameraFile(benchmark::State& state) { FreadWhole(state, CameraFile()); }

void BM_CameraFileRecords(benchmark::State& state) {
  const std::wstring name = CameraFile().wstring();
  for (auto _ : state) {
    CameraFileHeader header;
    std::FILE* in = ReadCameraFileHeader(name.c_str(), header);
    CameraFileRecord record;
    for (int i = 0; i < kCameraImages; ++i) {
      GetNextCameraFileRecord(&in, header, record);
      benchmark::DoNotOptimize(record.imageData);
      ReleaseCameraFileRecord(record);
    }
    ReleaseCameraFileHeader(header);
    std::fclose(in);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(std::filesystem::file_size(CameraFile())));
}

BENCHMARK(BM_FreadDeviceFile)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReadDeviceDataInfo)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LinkNearestType7)->Args({40000, 1})->Args({40000, 0})->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FreadCameraFile)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CameraFileRecords)->Unit(benchmark::kMillisecond);

}  // namespace
