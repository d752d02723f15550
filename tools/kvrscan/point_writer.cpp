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

constexpr std::size_t kBufferSize = 1u << 22;
constexpr int kCountWidth = 20;  // digits of any 64-bit count

std::string Lowercase(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

template <typename T>
char* Put(char* at, T value) {
  std::memcpy(at, &value, sizeof value);  // the machine is little-endian, as the file
  return at + sizeof value;
}

class PlyWriter final : public PointWriter {
 public:
  static constexpr std::size_t kRecordSize = 31;

  PlyWriter(std::string path, std::FILE* out, const std::vector<std::string>& comments)
      : PointWriter(std::move(path), out) {
    std::string header = "ply\nformat binary_little_endian 1.0\n";
    for (const std::string& comment : comments) header += "comment " + comment + "\n";
    header += "element vertex ";
    countOffset_ = static_cast<long>(header.size());
    header += std::string(kCountWidth, ' ') + "\n";
    header +=
        "property float x\nproperty float y\nproperty float z\nproperty ushort intensity\n"
        "property uchar return_number\nproperty uchar number_of_returns\nproperty int line\n"
        "property double time\nproperty uchar red\nproperty uchar green\nproperty uchar blue\nend_header\n";
    buffer_.insert(buffer_.end(), header.begin(), header.end());
  }

 private:
  void encode(std::span<const PointRecord> points) override {
    const std::size_t start = buffer_.size();
    buffer_.resize(start + points.size() * kRecordSize);
    char* at = buffer_.data() + start;
    for (const PointRecord& p : points) {
      at = Put(at, static_cast<float>(p.x));
      at = Put(at, static_cast<float>(p.y));
      at = Put(at, static_cast<float>(p.z));
      at = Put(at, p.intensity);
      at = Put(at, p.returnNumber);
      at = Put(at, p.numberOfReturns);
      at = Put(at, p.line);
      at = Put(at, p.time);
      at = Put(at, p.colour.r);
      at = Put(at, p.colour.g);
      at = Put(at, p.colour.b);
    }
  }

  void complete() override {
    std::string count = std::to_string(count_);
    count.resize(kCountWidth, ' ');
    if (std::fseek(out_, countOffset_, SEEK_SET) != 0 || std::fwrite(count.data(), 1, count.size(), out_) != count.size()) {
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
    buffer_.insert(buffer_.end(), header.begin(), header.end());
  }

 private:
  static constexpr std::size_t kMaxRow = 160;

  void encode(std::span<const PointRecord> points) override {
    for (const PointRecord& p : points) {
      const std::size_t start = buffer_.size();
      buffer_.resize(start + kMaxRow);
      char* at = buffer_.data() + start;
      char* const end = at + kMaxRow;
      const auto number = [&](auto value, char separator) {
        at = std::to_chars(at, end, value).ptr;
        *at++ = separator;
      };
      number(static_cast<float>(p.x), ',');
      number(static_cast<float>(p.y), ',');
      number(static_cast<float>(p.z), ',');
      number(unsigned{p.intensity}, ',');
      number(unsigned{p.returnNumber}, ',');
      number(unsigned{p.numberOfReturns}, ',');
      number(p.line, ',');
      number(p.time, ',');
      number(unsigned{p.colour.r}, ',');
      number(unsigned{p.colour.g}, ',');
      number(unsigned{p.colour.b}, '\n');
      buffer_.resize(static_cast<std::size_t>(at - buffer_.data()));
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
  writer->buffer_.reserve(kBufferSize + 256 * 160);
  return writer;
}

PointWriter::~PointWriter() {
  if (out_ != nullptr) std::fclose(out_);
  if (!finished_) {
    std::error_code ec;
    std::filesystem::remove(path_, ec);
  }
}

void PointWriter::write(std::span<const PointRecord> points) {
  encode(points);
  count_ += points.size();
  if (buffer_.size() >= kBufferSize) flushBuffer();
}

void PointWriter::flushBuffer() {
  if (!buffer_.empty() && std::fwrite(buffer_.data(), 1, buffer_.size(), out_) != buffer_.size()) {
    fail("write failed");
  }
  buffer_.clear();
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
