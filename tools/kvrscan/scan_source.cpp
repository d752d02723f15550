#include "scan_source.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <limits>
#include <new>
#include <stdexcept>
#include <vector>

#include "errors.h"
#include "header/header_layout.h"
#include "kvr_decode/file_header.h"

namespace kvrscan {

namespace {

namespace layout = kvr::header::layout;
constexpr std::uint64_t kFixedHeaderSize = layout::kFixedPartSize;  // up to the first text length
constexpr std::size_t kPrfOffset = layout::kPrf.offset;

std::uint32_t LoadU32(const unsigned char* p) {
  return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
         static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}

bool IsDefinedPrf(std::uint32_t prf) { return prf == 50 || prf == 200 || prf == 500; }

std::vector<unsigned char> ReadPrefix(const std::string& path, std::uint64_t count) {
  std::vector<unsigned char> bytes(count);
  std::FILE* in = std::fopen(path.c_str(), "rb");
  if (in == nullptr) return {};
  bytes.resize(std::fread(bytes.data(), 1, bytes.size(), in));
  std::fclose(in);
  return bytes;
}

// The header block's size from the length words in `bytes` (the start of the
// file), or 0 when the file ends before the lengths say it should.
std::uint64_t HeaderBlockSizeIn(const std::vector<unsigned char>& bytes) {
  if (bytes.size() < kFixedHeaderSize) return 0;
  const int texts = layout::TextCount(LoadU32(bytes.data() + layout::kHeaderLayout.offset));
  std::uint64_t at = kFixedHeaderSize;
  for (int i = 0; i < texts; ++i) {
    if (at + layout::kTextLengthSize > bytes.size()) return 0;
    at += layout::kTextLengthSize + LoadU32(bytes.data() + at);
  }
  return at <= bytes.size() ? at : 0;
}

}  // namespace

std::wstring WidePath(const std::string& path) {
  std::wstring wide;
  for (std::size_t i = 0; i < path.size();) {
    const unsigned char lead = static_cast<unsigned char>(path[i]);
    std::size_t length = lead < 0x80 ? 1 : lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC2 ? 2 : 0;
    std::uint32_t cp = length == 1 ? lead : length == 2 ? lead & 0x1Fu : length == 3 ? lead & 0x0Fu : lead & 0x07u;
    if (length == 0 || lead > 0xF4 || i + length > path.size()) length = 0;
    for (std::size_t k = 1; k < length; ++k) {
      const unsigned char c = static_cast<unsigned char>(path[i + k]);
      if ((c & 0xC0) != 0x80) length = 0;
      cp = (cp << 6) | (c & 0x3Fu);
    }
    static constexpr std::uint32_t kMin[] = {0, 0, 0x80, 0x800, 0x10000};
    if (length == 0 || cp < kMin[length] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
      throw FileError(path, "the file name is not valid UTF-8");
    }
    wide.push_back(static_cast<wchar_t>(cp));
    i += length;
  }
  return wide;
}

std::uint64_t ReadableFileSize(const std::string& path) {
  namespace fs = std::filesystem;
  std::error_code ec;
  const fs::file_status status = fs::status(path, ec);
  if (!fs::exists(status)) throw FileError(path, "no such file");
  if (fs::is_directory(status)) throw FileError(path, "is a directory, not a file");
  std::FILE* in = std::fopen(path.c_str(), "rb");
  if (in == nullptr) throw FileError(path, std::string("cannot open (") + std::strerror(errno) + ")");
  std::fclose(in);
  const std::uintmax_t size = fs::file_size(path, ec);
  return ec ? 0 : size;
}

std::string PrintableBytes(std::string_view bytes) {
  std::string out;
  for (const char c : bytes) {
    const unsigned char u = static_cast<unsigned char>(c);
    if (u >= 0x20 && u < 0x7F && u != '\\') {
      out += c;
    } else {
      static constexpr char kHex[] = "0123456789ABCDEF";
      out += "\\x";
      out += kHex[u >> 4];
      out += kHex[u & 15];
    }
  }
  return out;
}

std::string PrintableText(std::string_view text) {
  std::string out;
  std::size_t start = 0;
  for (std::size_t i = 0; i <= text.size(); ++i) {
    if (i == text.size() || text[i] == '\n' || text[i] == '\t') {
      out += PrintableBytes(text.substr(start, i - start));
      if (i < text.size()) out += text[i];
      start = i + 1;
    }
  }
  return out;
}

ScannerKind KindOf(const RawFileHeaderBlock& header) {
  const std::string_view magic(reinterpret_cast<const char*>(header.signature), sizeof header.signature);
  if (magic == layout::kMagicKvrScan || magic == layout::kMagicMx70Dat) return ScannerKind::kNinetyDegree;
  if (magic == layout::kMagicMx700Dat) return ScannerKind::kThreeSixtyDegree;
  return ScannerKind::kUnknown;
}

std::string_view KindName(ScannerKind kind) {
  switch (kind) {
    case ScannerKind::kNinetyDegree: return "90-degree";
    case ScannerKind::kThreeSixtyDegree: return "360-degree";
    case ScannerKind::kUnknown: break;
  }
  return "unknown";
}

std::string SignatureString(const RawFileHeaderBlock& header) {
  return PrintableBytes(std::string_view(reinterpret_cast<const char*>(header.signature), sizeof header.signature));
}

ScanSource::ScanSource(std::string path) : path_(std::move(path)), wide_(WidePath(path_)) {
  fileSize_ = ReadableFileSize(path_);
  try {
    stream_ = ReadFileHeader(wide_.c_str(), header_);
  } catch (const std::bad_alloc&) {
    ReleaseFileHeader(header_);
    throw FileError(path_, "the header's text lengths ask for more memory than there is");
  } catch (const std::exception& error) {
    ReleaseFileHeader(header_);
    explainMalformedTable(error);
  }
  if (stream_ == nullptr) explainRefusal();
  if (headerBlockSize() > fileSize_) {
    const std::string what = "header cut short: its texts need " + std::to_string(headerBlockSize()) +
                             " bytes, the file has " + std::to_string(fileSize_);
    std::fclose(stream_);
    stream_ = nullptr;
    ReleaseFileHeader(header_);
    throw FileError(path_, what);
  }
}

ScanSource::~ScanSource() {
  if (stream_ != nullptr) std::fclose(stream_);
  ReleaseFileHeader(header_);
}

std::uint64_t ScanSource::wholeBlocks() const {
  return fileSize_ > header_.dataOffset ? (fileSize_ - header_.dataOffset) / kBlockSize : 0;
}

std::uint64_t ScanSource::trailingBytes() const {
  return fileSize_ > header_.dataOffset ? (fileSize_ - header_.dataOffset) % kBlockSize : 0;
}

std::uint64_t ScanSource::headerBlockSize() const {
  return layout::BlockSize(header_.headerLayout, header_.calibrationTextLength, header_.parameterTextLength,
                           header_.thirdTextLength, header_.fourthTextLength);
}

void ScanSource::rewindToData() {
  if (std::fseek(stream_, 0, SEEK_SET) != 0 || fseeko(stream_, static_cast<off_t>(header_.dataOffset), SEEK_SET) != 0) {
    throw FileError(path_, "cannot seek back to the first block");
  }
  std::clearerr(stream_);
}

void ScanSource::seekToBlock(std::uint64_t block) {
  const std::uint64_t offset = header_.dataOffset + block * kBlockSize;
  if (offset > static_cast<std::uint64_t>(std::numeric_limits<off_t>::max()) ||
      fseeko(stream_, static_cast<off_t>(offset), SEEK_SET) != 0) {
    throw FileError(path_, "cannot seek to block " + std::to_string(block));
  }
  std::clearerr(stream_);
}

void ScanSource::explainRefusal() {
  ReleaseFileHeader(header_);
  const std::vector<unsigned char> bytes = ReadPrefix(path_, kPrfOffset + 4);
  if (bytes.size() < layout::kSignature.size) {
    throw FileError(path_, "too short for a scan file header (" + std::to_string(fileSize_) + " bytes)");
  }
  const std::string_view magic(reinterpret_cast<const char*>(bytes.data()), layout::kSignature.size);
  if (magic != layout::kMagicKvrScan && magic != layout::kMagicMx70Dat && magic != layout::kMagicMx700Dat) {
    throw FileError(path_, "not a raw scan file: its magic is \"" + PrintableBytes(magic) +
                               "\", expected #KVRSCAN, #MX70DAT or MX700DAT");
  }
  if (bytes.size() < kPrfOffset + 4) {
    throw FileError(path_, "header cut short: the file has " + std::to_string(fileSize_) + " bytes");
  }
  const std::uint32_t prf = LoadU32(bytes.data() + kPrfOffset);
  if (!IsDefinedPrf(prf)) {
    throw FileError(path_, "undefined PRF " + std::to_string(prf) + " in the header (expected 50, 200 or 500 kHz)");
  }
  throw FileError(path_, "the library could not open it as a scan file");
}

void ScanSource::explainMalformedTable(const std::exception& error) {
  // Either the calibration text or the side table stopped the header reader. The
  // header decoder in memory parses the same calibration text without the side
  // table, which tells the two apart.
  std::vector<unsigned char> bytes = ReadPrefix(path_, std::min<std::uint64_t>(fileSize_, 64u << 20));
  const std::uint64_t size = HeaderBlockSizeIn(bytes);
  bool calibrationText = false;
  if (size > 0) {
    RawFileHeader probe;
    try {
      DecodeFileHeader(bytes.data(), static_cast<int>(std::min<std::uint64_t>(size, INT32_MAX)), probe);
    } catch (const std::exception&) {
      calibrationText = true;
    }
    ReleaseFileHeader(probe);
  }
  if (calibrationText) {
    throw FileError(path_, std::string("malformed calibration text in the header (") + error.what() + ")");
  }
  throw FileError(path_ + ".tbl", std::string("malformed side table (") + error.what() + ")");
}

}  // namespace kvrscan
