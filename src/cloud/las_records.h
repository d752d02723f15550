#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <vector>

#include "kvr_decode/cloud/display_scale.h"
#include "kvr_decode/cloud/las_writer.h"
#include "kvr_decode/cloud/palette.h"
#include "kvr_decode/cloud/point_batch.h"

namespace kvr::cloud {

// The LAS 1.4 point records, header and Extra Bytes record of a scan's points:
// one copy, written into plain LAS by LasWriter and compressed by LazWriter.
// It keeps the counts by return and the bounds of the records it made.
class LasRecords {
 public:
  static constexpr std::size_t kHeaderSize = 375;
  static constexpr std::size_t kExtraBytesVlrSize = 54 + 6 * 192;
  static constexpr std::size_t kExtraBytes = 32;  // per point, after the format's fields

  LasRecords(const LasOptions& options, const std::vector<Rgb>& colours, const DisplayScale& scale);

  const LasOptions& options() const { return options_; }
  std::uint8_t pointFormat() const { return options_.colour ? 7 : 6; }
  std::size_t recordLength() const { return recordLength_; }
  // Where the extra bytes start in a record.
  std::size_t extraBytesAt() const { return recordLength_ - kExtraBytes; }

  // The Extra Bytes record, header included (kExtraBytesVlrSize bytes).
  void putExtraBytesVlr(char* at) const;
  // Records of the batch's points [first, end) at `at`; OutputError naming `path`
  // for a point beyond the coordinates LAS stores.
  void encode(const PointBatch& batch, std::size_t first, std::size_t end, char* at,
              const std::filesystem::path& path);
  // The file header (kHeaderSize bytes) for `count` points: format id with
  // `formatFlags` added (compressed files set bit 7).
  void putHeader(char* header, std::uint64_t count, std::uint32_t pointOffset, std::uint32_t vlrCount,
                 std::uint8_t formatFlags) const;

 private:
  using Rgb16 = std::array<std::uint16_t, 4>;  // red, green, blue, padding

  LasOptions options_;
  const DisplayScale& scale_;
  std::vector<Rgb16> colours16_;  // per display level
  std::size_t recordLength_;
  std::array<std::uint64_t, 15> byReturn_{};
  std::array<std::int32_t, 3> low_{}, high_{};
};

}  // namespace kvr::cloud
