#pragma once

#include <bit>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "palette.h"

namespace kvrscan {

// One exported return, laid out as a vertex of the PLY file (31 bytes, packed,
// in the machine's byte order, which is the file's): a batch of them goes out
// as it is.
#pragma pack(push, 1)
struct PointRecord {
  float x = 0.0f, y = 0.0f, z = 0.0f;  // metres, scanner frame
  std::uint16_t intensity = 0;         // raw 12-bit intensity
  std::uint8_t returnNumber = 0;       // 1 for the first return of its shot
  std::uint8_t numberOfReturns = 0;    // return words the shot carries
  std::int32_t line = -1;              // scan line of the map, -1 before the first
  double time = 0.0;                   // seconds; time of week with a tick file; -1 when unknown
  Rgb colour;
};
#pragma pack(pop)
static_assert(sizeof(PointRecord) == 31, "a PLY vertex is 31 bytes");
static_assert(std::endian::native == std::endian::little, "PLY vertices are written as they lie in memory");

enum class PointFormat { kPly, kCsv };

// The format an output name asks for by its extension (.ply, .csv; any case).
std::optional<PointFormat> PointFormatOf(std::string_view path);

// Writes points as they come; memory stays the same whatever their number.
// Comments go into the file's header: PLY "comment" lines, CSV "#" lines.
//
// PLY: binary little-endian; vertex properties float x, y, z, ushort intensity,
// uchar return_number, uchar number_of_returns, int line, double time, uchar red,
// green, blue (31 bytes a point). The number of vertices is known only at the
// end: the header reserves a fixed-width field for it, filled in by finish()
// (digits, then blanks up to the width).
// CSV: a header row, then one row per point; numbers in their shortest exact form.
class PointWriter {
 public:
  static std::unique_ptr<PointWriter> Open(const std::string& path, PointFormat format,
                                           const std::vector<std::string>& comments);
  virtual ~PointWriter();

  void write(std::span<const PointRecord> points);
  // Flushes, completes the header and closes; ToolError naming the file on any
  // write error. Without it (an error on the way), the file is removed.
  void finish();

  std::uint64_t count() const { return count_; }
  const std::string& path() const { return path_; }

 protected:
  PointWriter(std::string path, std::FILE* out) : path_(std::move(path)), out_(out) {}
  virtual void encode(std::span<const PointRecord> points) = 0;
  virtual void complete() {}
  void flushBuffer();
  [[noreturn]] void fail(const char* what);

  std::string path_;
  std::FILE* out_;
  // Bytes waiting to be written; reserved once and never zero-filled.
  char* claim(std::size_t bytes);
  std::unique_ptr<char[]> buffer_;
  std::size_t used_ = 0;
  std::uint64_t count_ = 0;
  bool finished_ = false;
};

}  // namespace kvrscan
