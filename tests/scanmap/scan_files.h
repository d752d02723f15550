#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

#include "kvr_decode/scan_file_map.h"
#include "kvr_writers/byte_writer.h"
#include "kvr_writers/fifo_block_writer.h"
#include "kvr_writers/synthetic_blocks.h"
#include "kvr_writers/scan_file_writer.h"
#include "support/temp_dir.h"

// Scan files for the map tests: a header from the header builder, blocks from
// the block builder.
namespace kvr::test {

// Released when the test ends, so LeakSanitizer sees every text freed.
struct OwnedMap {
  ScanFileMap map;
  ~OwnedMap() { ReleaseScanFileMap(map); }
};

// A shot word with the fields the map reads; bit 62 carries the direction.
inline std::uint64_t MapShot(std::uint32_t direction, std::uint32_t returnCount, std::uint32_t t0,
                             std::uint32_t flags = 0, std::uint32_t pan = 0, std::uint32_t scan = 0) {
  return writers::ShotWord({pan, scan, returnCount, t0, flags, direction != 0 ? 2u : 0u});
}

// Writes the scan file and returns its wide name. `tail` bytes of a last,
// partial block follow the whole blocks.
inline std::wstring WriteScan(const std::filesystem::path& path, const writers::HeaderBlockFields& header,
                              const std::vector<writers::FifoBlockBuilder>& blocks, std::size_t tail = 0) {
  writers::ByteWriter data;
  for (const writers::FifoBlockBuilder& block : blocks) data.append(block.build());
  data.zeros(tail);
  WriteFile(path, writers::BuildScanFile(header, data.bytes()));
  return WideName(path);
}

// A map's entries as rows {key, block, shot, line flag, shot count, status word offset, events}.
using EntryRow = std::tuple<std::int32_t, std::uint32_t, std::uint32_t, std::int32_t, std::int32_t, std::int32_t,
                            std::vector<std::uint32_t>>;
template <typename Map>
std::vector<EntryRow> EntryRows(const Map& map) {
  std::vector<EntryRow> rows;
  for (const auto& [key, e] : map.scanLines) {
    rows.emplace_back(key, e.blockNumber, e.shotIndexInBlock, e.lineFlag, e.shotCount, e.statusWordOffset,
                      e.eventShots);
  }
  return rows;
}

}  // namespace kvr::test
