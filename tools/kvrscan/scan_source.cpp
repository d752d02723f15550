#include "scan_source.h"

#include <filesystem>
#include <limits>

namespace kvrscan {

std::wstring WidePath(const std::string& path) {
  return Checked([&] { return kvr::cloud::WideName(path); });
}

std::uint64_t ReadableFileSize(const std::string& path) {
  return Checked([&] { return kvr::cloud::ReadableFileSize(path); });
}

std::string PrintableBytes(std::string_view bytes) { return kvr::cloud::PrintableBytes(bytes); }

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
  if (magic == "#KVRSCAN" || magic == "#MX70DAT") return ScannerKind::kNinetyDegree;
  if (magic == "MX700DAT") return ScannerKind::kThreeSixtyDegree;
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

ScanSource::ScanSource(std::string path, const kvr::cloud::ScanOptions& options) : path_(std::move(path)) {
  scan_ = Checked([&] { return std::make_unique<kvr::cloud::Scan>(path_, options); });
  stream_ = std::fopen(path_.c_str(), "rb");
  if (stream_ == nullptr) throw FileError(path_, "cannot open");
  rewindToData();
}

ScanSource::~ScanSource() {
  if (stream_ != nullptr) std::fclose(stream_);
}

void ScanSource::rewindToData() {
  if (fseeko(stream_, static_cast<off_t>(header().dataOffset), SEEK_SET) != 0) {
    throw FileError(path_, "cannot seek back to the first block");
  }
  std::clearerr(stream_);
}

void ScanSource::seekToBlock(std::uint64_t block) {
  const std::uint64_t offset = header().dataOffset + block * kBlockSize;
  if (offset > static_cast<std::uint64_t>(std::numeric_limits<off_t>::max()) ||
      fseeko(stream_, static_cast<off_t>(offset), SEEK_SET) != 0) {
    throw FileError(path_, "cannot seek to block " + std::to_string(block));
  }
  std::clearerr(stream_);
}

}  // namespace kvrscan
