#include "kvr_decode/cloud/point_writer.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cstring>

#include "file_access.h"
#include "kvr_decode/cloud/error.h"

namespace kvr::cloud {

namespace {

// Written out when this full: small enough to stay in the processor's cache.
constexpr std::size_t kBufferSize = std::size_t{1} << 18;
constexpr std::size_t kBufferRoom = std::size_t{1} << 21;  // what one claim may reach at most

static_assert(std::endian::native == std::endian::little, "records are assembled in the machine's byte order");

// The display level of a value: the scale's table lookup held by value where
// it has a table (its constants stay in registers), its search otherwise.
class LevelOf {
 public:
  explicit LevelOf(const DisplayScale& scale)
      : scale_(scale), table_(scale.hasTable()), levels_(table_ ? scale.levels() : DisplayScale::Levels{}) {}
  int operator()(double v) const { return table_ ? levels_(v) : scale_.level(v); }

 private:
  const DisplayScale& scale_;
  bool table_;
  DisplayScale::Levels levels_;
};

}  // namespace

PointWriter::PointWriter(const std::filesystem::path& path, const Colouring& colouring)
    : path_(path), out_(std::make_unique<OutputFile>(path)), scale_(colouring.intensityAt95, colouring.gamma),
      buffer_(std::make_unique_for_overwrite<char[]>(kBufferRoom)) {
  const Palette& palette = colouring.palette != nullptr ? *colouring.palette : Palettes().front();
  for (int level = 0; level <= kTopLevel; ++level) colours_.push_back(palette.colourOfLevel(level));
}

PointWriter::~PointWriter() = default;

char* PointWriter::claim(std::size_t bytes) {
  if (used_ + bytes > kBufferRoom) flushBuffer();
  char* at = buffer_.get() + used_;
  used_ += bytes;
  return at;
}

void PointWriter::flushBuffer() {
  out_->write(buffer_.get(), used_);
  used_ = 0;
}


void PointWriter::write(const PointBatch& batch) {
  if (batch.empty()) return;
  encode(batch);
  count_ += batch.size();
  if (used_ >= kBufferSize) flushBuffer();
}

void PointWriter::finish() {
  flushBuffer();
  complete();
  out_->commit();
}

namespace {

// The vertex count is known only at the end. The header keeps room for it: the
// element line, then a blank comment line whose length makes up for the
// digits, so that the element line itself is exact whatever the count.
constexpr std::size_t kCountRoom = 48;

std::string ElementLines(std::uint64_t count) {
  std::string lines = "element vertex " + std::to_string(count) + "\ncomment";
  lines.resize(kCountRoom - 1, ' ');
  return lines + "\n";
}

constexpr std::size_t kPlyRecord = 31;
constexpr std::size_t kPlyRun = 4096;  // points a claim covers

}  // namespace

PlyWriter::PlyWriter(const std::filesystem::path& path, const std::vector<std::string>& comments,
                     const Colouring& colouring)
    : PointWriter(path, colouring) {
  std::string header = "ply\nformat binary_little_endian 1.0\n";
  for (const std::string& comment : comments) header += "comment " + comment + "\n";
  countOffset_ = header.size();
  header += ElementLines(0);
  header +=
      "property float x\nproperty float y\nproperty float z\nproperty ushort intensity\n"
      "property uchar return_number\nproperty uchar number_of_returns\nproperty int line\n"
      "property double time\nproperty uchar red\nproperty uchar green\nproperty uchar blue\nend_header\n";
  std::memcpy(claim(header.size()), header.data(), header.size());
  for (const Rgb& c : colours_) colourWords_.push_back(std::uint32_t{c.r} | std::uint32_t{c.g} << 8 | std::uint32_t{c.b} << 16);
  if (scale_.hasTable()) {
    const double* thresholds = scale_.levels().thresholds();
    for (std::size_t level = 0; level < colourWords_.size(); ++level) {
      const std::uint32_t next = colourWords_[std::min(level + 1, colourWords_.size() - 1)];
      levelShades_.push_back({thresholds[level + 1], colourWords_[level] | std::uint64_t{next} << 32});
    }
  }
}

void PlyWriter::encode(const PointBatch& batch) {
  const double* normalized = batch.normalizedIntensity().data();
  const double *x = batch.x().data(), *y = batch.y().data(), *z = batch.z().data(), *time = batch.time().data();
  const std::uint16_t* intensity = batch.intensity().data();
  const std::uint8_t *number = batch.returnNumber().data(), *count = batch.numberOfReturns().data();
  const std::int32_t* line = batch.line().data();
  const std::uint32_t* colours = colourWords_.data();
  const bool table = scale_.hasTable();
  const DisplayScale::Levels levels = table ? scale_.levels() : DisplayScale::Levels{};
  const LevelShades* levelShades = levelShades_.data();
  std::uint32_t shades[kPlyRun];
  for (std::size_t first = 0; first < batch.size(); first += kPlyRun) {
    const std::size_t points = std::min(batch.size() - first, kPlyRun);
    // The colours first, in a loop of their own: the lookups of many points
    // overlap, and the record loop below keeps few values live. With a table,
    // a level's threshold and colours come in one lookup.
    if (table) {
      for (std::size_t i = 0; i < points; ++i) {
        double v = normalized[first + i];
        const LevelShades& level = levelShades[levels.cellLevel(v)];
        shades[i] = static_cast<std::uint32_t>(v >= level.next ? level.colours >> 32 : level.colours);
      }
    } else {
      for (std::size_t i = 0; i < points; ++i) shades[i] = colours[scale_.level(normalized[first + i])];
    }
    // One byte more: a record's colour is stored as a word whose fourth byte
    // lands on the next record's first, which that record's position overwrites.
    char* at = claim(points * kPlyRecord + 1);
    for (std::size_t k = 0; k < points; ++k, at += kPlyRecord) {
      const std::size_t i = first + k;
      // x, y, z and the fourth word (intensity, return number and count) in one store.
      const std::uint32_t head[4] = {std::bit_cast<std::uint32_t>(static_cast<float>(x[i])),
                                     std::bit_cast<std::uint32_t>(static_cast<float>(y[i])),
                                     std::bit_cast<std::uint32_t>(static_cast<float>(z[i])),
                                     std::uint32_t{intensity[i]} | std::uint32_t{number[i]} << 16 |
                                         std::uint32_t{count[i]} << 24};
      std::memcpy(at, head, 16);
      std::memcpy(at + 16, &line[i], 4);
      std::memcpy(at + 20, &time[i], 8);
      std::memcpy(at + 28, &shades[k], 4);
    }
    giveBack(1);
  }
}

void PlyWriter::complete() {
  const std::string lines = ElementLines(count_);
  out_->overwrite(countOffset_, lines.data(), lines.size(), "cannot write the vertex count into the header");
}

CsvWriter::CsvWriter(const std::filesystem::path& path, const std::vector<std::string>& comments,
                     const Colouring& colouring)
    : PointWriter(path, colouring) {
  std::string header;
  for (const std::string& comment : comments) header += "# " + comment + "\n";
  header += "x,y,z,intensity,return_number,number_of_returns,line,time,red,green,blue\n";
  std::memcpy(claim(header.size()), header.data(), header.size());
}

void CsvWriter::encode(const PointBatch& batch) {
  constexpr std::size_t kMaxRow = 160;
  const LevelOf levels(scale_);
  for (std::size_t i = 0; i < batch.size(); ++i) {
    char* const start = claim(kMaxRow);
    char* at = start;
    char* const end = at + kMaxRow;
    const auto number = [&](auto value, char separator) {
      at = std::to_chars(at, end, value).ptr;
      *at++ = separator;
    };
    number(static_cast<float>(batch.x()[i]), ',');
    number(static_cast<float>(batch.y()[i]), ',');
    number(static_cast<float>(batch.z()[i]), ',');
    number(unsigned{batch.intensity()[i]}, ',');
    number(unsigned{batch.returnNumber()[i]}, ',');
    number(unsigned{batch.numberOfReturns()[i]}, ',');
    number(batch.line()[i], ',');
    number(batch.time()[i], ',');
    const Rgb colour = colours_[static_cast<std::size_t>(levels(batch.normalizedIntensity()[i]))];
    number(unsigned{colour.r}, ',');
    number(unsigned{colour.g}, ',');
    number(unsigned{colour.b}, '\n');
    giveBack(static_cast<std::size_t>(end - at));  // what the row did not need
  }
}

}  // namespace kvr::cloud
