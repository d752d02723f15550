#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>

#include "kvr_decode/cloud/export.h"
#include "kvr_decode/cloud/las_writer.h"
#include "kvr_decode/cloud/point_writer.h"

namespace kvr::cloud {

class LasRecords;

// How a LAZ file is cut and compressed.
struct KVR_CLOUD_API LazOptions {
  std::uint32_t chunkSize = 50000;  // points a chunk holds (the last may hold fewer)
  unsigned threads = 1;             // chunks compressed at once; above 1 the writer runs a pool
};

// LAZ: the LAS writer's file (same header, records and extra bytes) with its
// points compressed, in chunks that a reader can seek to, by the layered
// compression of point formats 6 and 7 (LASzip compressor 3, item version 3).
// The file is the same whatever the number of threads; memory stays bounded
// (two chunks a thread in flight at most).
class KVR_CLOUD_API LazWriter final : public PointWriter {
 public:
  LazWriter(const std::filesystem::path& path, const LasOptions& options, const Colouring& colouring,
            const LazOptions& laz = {});
  ~LazWriter() override;

  static constexpr std::uint32_t kColumns = LasWriter::kColumns;

 private:
  class Pipeline;

  void encode(const PointBatch& batch) override;
  void complete() override;
  void writeChunk(const std::vector<std::uint8_t>& chunk);

  std::unique_ptr<LasRecords> records_;
  std::unique_ptr<Pipeline> pipeline_;
  std::uint32_t pointOffset_;
};

}  // namespace kvr::cloud
