#pragma once

// The export benchmarks' scan: a 256 MiB synthetic scan (return counts drawn
// from 0-4) with a header, made once into /tmp and read whole before timing,
// so that every pass reads from the page cache; and the clocks they time with.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <ctime>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "kvr_writers/scan_file_writer.h"
#include "kvr_writers/synthetic_blocks.h"

namespace kvr::bench {

inline constexpr std::size_t kBlocks = 4096;  // 256 MiB
inline constexpr const char* kScanPath = "/tmp/kvrscan_export_bench_v1.raw";

inline double Clock(clockid_t clock) {
  timespec t{};
  clock_gettime(clock, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}
inline double Wall() { return Clock(CLOCK_MONOTONIC); }
// Process CPU time (user and system: the kernel's copy into the page cache
// counts, and so do an export's worker threads); steadier than wall-clock time
// on a shared machine.
inline double Cpu() { return Clock(CLOCK_PROCESS_CPUTIME_ID); }

inline void EnsureSyntheticScan() {
  static const bool ready = [] {
    writers::HeaderBlockFields fields;
    fields.calibrationText = "rangeOffset = 0.5\n";
    const std::vector<std::uint8_t> header = writers::BuildScanFile(fields);
    std::error_code ec;
    if (std::filesystem::file_size(kScanPath, ec) != header.size() + kBlocks * 65536) {
      const std::string partial = std::string(kScanPath) + ".part";
      writers::ScanFileWriter out(partial, fields);
      writers::SyntheticScan scan(20240601, 200, 4);
      for (std::size_t b = 0; b < kBlocks; ++b) out.writeBlock(scan.NextBlock().build());
      out.close();
      std::filesystem::rename(partial, kScanPath);
    }
    std::vector<char> buffer(1 << 20);
    std::FILE* in = std::fopen(kScanPath, "rb");
    if (in == nullptr) throw std::runtime_error(std::string("cannot read ") + kScanPath);
    while (std::fread(buffer.data(), 1, buffer.size(), in) > 0) {
    }
    std::fclose(in);
    return true;
  }();
  benchmark::DoNotOptimize(ready);
}

}  // namespace kvr::bench
