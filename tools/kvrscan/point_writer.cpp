#include "point_writer.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>

#include "console.h"
#include "errors.h"

namespace kvrscan {

namespace {

// Written out when this full: small enough to stay in the processor's cache.
constexpr std::size_t kBufferSize = std::size_t{1} << 18;
constexpr std::size_t kBufferRoom = std::size_t{1} << 21;  // what one write() may add at most
// The vertex count is known only at the end. The header keeps room for it: the
// element line, then a blank comment line whose length makes up for the
// digits, so that the element line itself is exact whatever the count.
constexpr std::size_t kCountRoom = 48;

std::string ElementLines(std::uint64_t count) {
  std::string lines = "element vertex " + std::to_string(count) + "\ncomment";
  lines.resize(kCountRoom - 1, ' ');
  return lines + "\n";
}

std::string Lowercase(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

class PlyWriter final : public PointWriter {
 public:
  PlyWriter(std::string path, std::FILE* out, const std::vector<std::string>& comments)
      : PointWriter(std::move(path), out) {
    std::string header = "ply\nformat binary_little_endian 1.0\n";
    for (const std::string& comment : comments) header += "comment " + comment + "\n";
    countOffset_ = static_cast<long>(header.size());
    header += ElementLines(0);
    header +=
        "property float x\nproperty float y\nproperty float z\nproperty ushort intensity\n"
        "property uchar return_number\nproperty uchar number_of_returns\nproperty int line\n"
        "property double time\nproperty uchar red\nproperty uchar green\nproperty uchar blue\nend_header\n";
    std::memcpy(claim(header.size()), header.data(), header.size());
  }

 private:
  // The records are the file's bytes: a large batch goes out as it lies.
  void encode(std::span<const PointRecord> points) override {
    if (points.size_bytes() < kBufferSize / 4) {
      std::memcpy(claim(points.size_bytes()), points.data(), points.size_bytes());
      return;
    }
    flushBuffer();
    if (std::fwrite(points.data(), 1, points.size_bytes(), out_) != points.size_bytes()) fail("write failed");
  }

  void complete() override {
    const std::string lines = ElementLines(count_);
    if (std::fseek(out_, countOffset_, SEEK_SET) != 0 || std::fwrite(lines.data(), 1, lines.size(), out_) != lines.size()) {
      fail("cannot write the vertex count into the header");
    }
  }

  long countOffset_ = 0;
};

class CsvWriter final : public PointWriter {
 public:
  CsvWriter(std::string path, std::FILE* out, const std::vector<std::string>& comments)
      : PointWriter(std::move(path), out) {
    std::string header;
    for (const std::string& comment : comments) header += "# " + comment + "\n";
    header += "x,y,z,intensity,return_number,number_of_returns,line,time,red,green,blue\n";
    std::memcpy(claim(header.size()), header.data(), header.size());
  }

 private:
  static constexpr std::size_t kMaxRow = 160;

  void encode(std::span<const PointRecord> points) override {
    for (const PointRecord& p : points) {
      char* const start = claim(kMaxRow);
      char* at = start;
      char* const end = at + kMaxRow;
      const auto number = [&](auto value, char separator) {
        at = std::to_chars(at, end, value).ptr;
        *at++ = separator;
      };
      number(float{p.x}, ',');
      number(float{p.y}, ',');
      number(float{p.z}, ',');
      number(unsigned{p.intensity}, ',');
      number(unsigned{p.returnNumber}, ',');
      number(unsigned{p.numberOfReturns}, ',');
      number(std::int32_t{p.line}, ',');
      number(double{p.time}, ',');
      number(unsigned{p.colour.r}, ',');
      number(unsigned{p.colour.g}, ',');
      number(unsigned{p.colour.b}, '\n');
      used_ -= static_cast<std::size_t>(end - at);  // give back what the row did not need
    }
  }
};

}  // namespace

std::optional<PointFormat> PointFormatOf(std::string_view path) {
  const std::string extension = Lowercase(std::filesystem::path(path).extension().string());
  if (extension == ".ply") return PointFormat::kPly;
  if (extension == ".csv") return PointFormat::kCsv;
  return std::nullopt;
}

std::unique_ptr<PointWriter> PointWriter::Open(const std::string& path, PointFormat format,
                                               const std::vector<std::string>& comments) {
  std::FILE* out = std::fopen(path.c_str(), "wb");
  if (out == nullptr) throw FileError(path, std::string("cannot create (") + std::strerror(errno) + ")");
  std::unique_ptr<PointWriter> writer;
  if (format == PointFormat::kPly) writer = std::make_unique<PlyWriter>(path, out, comments);
  else writer = std::make_unique<CsvWriter>(path, out, comments);
  return writer;
}

PointWriter::~PointWriter() {
  if (out_ != nullptr) std::fclose(out_);
  if (!finished_) {
    std::error_code ec;
    std::filesystem::remove(path_, ec);
  }
}

char* PointWriter::claim(std::size_t bytes) {
  if (!buffer_) buffer_ = std::make_unique_for_overwrite<char[]>(kBufferRoom);
  if (used_ + bytes > kBufferRoom) flushBuffer();
  if (bytes > kBufferRoom) throw FileError(path_, "too many points in one write");
  char* at = buffer_.get() + used_;
  used_ += bytes;
  return at;
}

void PointWriter::write(std::span<const PointRecord> points) {
  if (points.empty()) return;  // a block without points hands over no storage at all
  encode(points);
  count_ += points.size();
  if (used_ >= kBufferSize) flushBuffer();
}

void PointWriter::flushBuffer() {
  if (used_ > 0 && std::fwrite(buffer_.get(), 1, used_, out_) != used_) fail("write failed");
  used_ = 0;
}

void PointWriter::fail(const char* what) {
  throw FileError(path_, std::string(what) + " (" + std::strerror(errno) + ")");
}

void PointWriter::finish() {
  flushBuffer();
  complete();
  std::FILE* out = out_;
  out_ = nullptr;
  if (std::fclose(out) != 0) fail("write failed");
  finished_ = true;
}

}  // namespace kvrscan
