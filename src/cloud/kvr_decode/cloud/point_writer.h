#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "kvr_decode/cloud/display_scale.h"
#include "kvr_decode/cloud/export.h"
#include "kvr_decode/cloud/palette.h"
#include "kvr_decode/cloud/point_batch.h"

namespace kvr::cloud {

class OutputFile;

// How points are coloured: the palette's colour at the display level of their
// normalized intensity (the map's intensityAt95 and gamma scale it).
struct Colouring {
  const Palette* palette = nullptr;  // null: the default palette
  double intensityAt95 = 1.0;
  double gamma = 0.5;
};

// Writes batches of points into one file as they come; memory stays the same
// whatever their number. The file is written under a temporary name beside its
// target and takes the target's name in finish(): until then (and for ever, if
// anything fails) a file that had the name keeps it, and a writer destroyed
// without finish() leaves nothing behind. OutputError names the file and the
// reason. Each format is one class that owns its layout.
class KVR_CLOUD_API PointWriter {
 public:
  virtual ~PointWriter();
  PointWriter(const PointWriter&) = delete;
  PointWriter& operator=(const PointWriter&) = delete;

  void write(const PointBatch& batch);
  void finish();

  std::uint64_t count() const { return count_; }
  const std::filesystem::path& path() const { return path_; }

  // The columns of the batches the PLY and CSV writers read (see Column).
  static constexpr std::uint32_t kColumns = kPositionColumns | kIntensityColumn | kNormalizedColumn |
                                            kReturnColumns | kLineColumn | kTimeColumn;

 protected:
  PointWriter(const std::filesystem::path& path, const Colouring& colouring);
  // Appends the batch's points to the buffer (through claim()).
  virtual void encode(const PointBatch& batch) = 0;
  // Completes the file once every point is written (the buffer is flushed).
  virtual void complete() {}

  char* claim(std::size_t bytes);
  void giveBack(std::size_t bytes) { used_ -= bytes; }
  void flushBuffer();

  std::filesystem::path path_;
  std::unique_ptr<OutputFile> out_;
  DisplayScale scale_;
  std::vector<Rgb> colours_;  // per display level
  std::uint64_t count_ = 0;

 private:
  std::unique_ptr<char[]> buffer_;
  std::size_t used_ = 0;
};

// Binary little-endian PLY; vertex properties float x, y, z, ushort intensity,
// uchar return_number, uchar number_of_returns, int line, double time, uchar
// red, green, blue (31 bytes a point). Comments go into the header. The vertex
// count is known only at the end: the header keeps a fixed-width room for it.
class KVR_CLOUD_API PlyWriter final : public PointWriter {
 public:
  PlyWriter(const std::filesystem::path& path, const std::vector<std::string>& comments, const Colouring& colouring);

 private:
  void encode(const PointBatch& batch) override;
  void complete() override;
  std::uint64_t countOffset_ = 0;
  std::vector<std::uint32_t> colourWords_;  // per display level: red, green, blue, 0
  // Per display level, for a scale with a table: the next level's threshold,
  // and the colour words of the level (low half) and of the next (high half).
  struct LevelShades {
    double next;
    std::uint64_t colours;
  };
  std::vector<LevelShades> levelShades_;
};

// CSV: "#" comment lines, a header row, one row per point (x, y, z, intensity,
// return_number, number_of_returns, line, time, red, green, blue); numbers in
// their shortest exact form, positions as floats.
class KVR_CLOUD_API CsvWriter final : public PointWriter {
 public:
  CsvWriter(const std::filesystem::path& path, const std::vector<std::string>& comments, const Colouring& colouring);

 private:
  void encode(const PointBatch& batch) override;
};

}  // namespace kvr::cloud
