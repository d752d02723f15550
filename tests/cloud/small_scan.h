#pragma once

#include <filesystem>
#include <vector>

#include "kvr_decode/cloud/point_batch.h"
#include "kvr_decode/cloud/point_reader.h"
#include "kvr_writers/byte_writer.h"
#include "kvr_writers/fifo_block_writer.h"
#include "kvr_writers/scan_file_writer.h"
#include "support/temp_dir.h"

// A small scan whose every point is worked out by hand in the tests: a
// 90-degree scanner, range offset 0.5 m, scan count 131072 (horizontal), start
// count T0 and stop counts such that 768 counts are 1.4985238219297035 m.
namespace kvr::test {

inline std::uint64_t CloudShot(std::uint32_t direction, std::uint32_t returns, std::uint32_t t0, std::uint32_t pan,
                               std::uint32_t flags = 0) {
  return writers::ShotWord({pan, 131072, returns, t0, flags, direction != 0 ? 2u : 0u});
}

// Block 0: shot 0 (t0 100): 768 counts / intensity 500, 1536 / 2000;
//          shot 1 (t0 100): a stop before T0 (no range), 768 / 12;
//          shot 2 (pan a quarter turn, direction flips, t0 0, flags 5): 768 / 300, 0 / 9 (range 0), 3000 / 4095;
//          shot 3: no returns.
// Block 1: shot 0 (direction flips back, t0 10): 768 / 100.
inline std::filesystem::path WriteSmallScan(const TempDir& dir) {
  using writers::ReturnWord;
  writers::HeaderBlockFields header;
  header.calibrationText = "rangeOffset = 0.5\n";
  writers::FifoBlockBuilder first, second;
  first.timeStamp(50000000)
      .shot(CloudShot(0, 2, 100, 0), {ReturnWord(868, 500), ReturnWord(1636, 2000)})
      .shot(CloudShot(0, 2, 100, 0), {ReturnWord(50, 7), ReturnWord(868, 12)})
      .shot(CloudShot(1, 3, 0, 160000, 5), {ReturnWord(768, 300), ReturnWord(0, 9), ReturnWord(3000, 4095)})
      .shot(CloudShot(1, 0, 0, 160000));
  second.timeStamp(100000000).shot(CloudShot(0, 1, 10, 0), {ReturnWord(778, 100)});
  writers::ByteWriter data;
  data.append(first.build());
  data.append(second.build());
  const std::filesystem::path path = dir / "small.raw";
  WriteFile(path, writers::BuildScanFile(header, data.bytes()));
  return path;
}

// Every batch a reader gives, in order.
inline std::vector<cloud::PointBatch> ReadAll(cloud::PointReader& reader) {
  std::vector<cloud::PointBatch> batches;
  cloud::PointBatch batch;
  while (reader.next(batch)) batches.push_back(batch);
  return batches;
}

}  // namespace kvr::test
