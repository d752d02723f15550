// What the third-party reader tests' sample makers share: synthetic scans, the
// tick file that times them, numbers as exact text, and the makers' main.
#pragma once

#include <charconv>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>

#include "kvr_writers/scan_file_writer.h"
#include "kvr_writers/synthetic_blocks.h"
#include "kvr_writers/tick_file_writer.h"

namespace kvr::test {

// Header fields of the sample scans: a range offset of half a metre.
inline writers::HeaderBlockFields SampleFields() {
  writers::HeaderBlockFields fields;
  fields.calibrationText = "rangeOffset = 0.5\n";
  return fields;
}

// `blocks` synthetic blocks at 200 kHz, up to `maxReturns` returns a shot.
inline void WriteSyntheticScan(const std::filesystem::path& path, const writers::HeaderBlockFields& fields,
                               std::uint64_t seed, std::uint32_t maxReturns, int blocks) {
  writers::ScanFileWriter file(path, fields);
  writers::SyntheticScan synthetic(seed, 200, maxReturns);
  for (int b = 0; b < blocks; ++b) file.writeBlock(synthetic.NextBlock().build());
  file.close();
}

// Synthetic blocks are stamped from 123,456,789 ticks on; pulses every second
// from 1 s (ZDA sentences from 2025-11-25 09:00:00) cover them.
inline void WriteSampleTicks(const std::filesystem::path& path) {
  writers::TickFileBuilder ticks;
  ticks.everySecond(50000000, writers::Utc(2025, 11, 25, 9, 0, 0), 6,
                    [](writers::UtcTime t) { return writers::ZdaSentence(t); });
  ticks.writeTo(path);
}

// `value` in its shortest exact form, then a space.
template <typename T>
void AppendNumber(std::string& line, T value) {
  char text[32];
  line.append(text, std::to_chars(text, text + sizeof text, value).ptr);
  line += ' ';
}

// main() of a sample maker NAME that takes one folder.
inline int SampleMain(int argc, char** argv, const char* name, int (*run)(const std::filesystem::path&)) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s DIR\n", name);
    return 2;
  }
  try {
    return run(argv[1]);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", name, error.what());
    return 1;
  }
}

}  // namespace kvr::test
