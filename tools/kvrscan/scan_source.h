#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

#include "errors.h"
#include "fifo/block_layout.h"
#include "kvr_decode/cloud/error.h"
#include "kvr_decode/cloud/scan.h"
#include "kvr_decode/raw_file_header.h"

namespace kvrscan {

inline constexpr std::uint64_t kBlockSize = kvr::fifo::SIZEOFFIFOBLOCK;

// The wide name the library's functions take: the UTF-8 path decoded. ToolError
// for a name that is not valid UTF-8.
std::wstring WidePath(const std::string& path);

// The size of a regular file that can be read; otherwise a ToolError naming the
// reason ("no such file", "is a directory", the system's text).
std::uint64_t ReadableFileSize(const std::string& path);

// An input bytes as printable text: printable ASCII as it is, the rest as \xNN.
std::string PrintableBytes(std::string_view bytes);
// The same for a multi-line text: line feeds and tabs are kept.
std::string PrintableText(std::string_view text);

// Which scanner wrote the file, from the header's magic.
enum class ScannerKind { kNinetyDegree, kThreeSixtyDegree, kUnknown };
ScannerKind KindOf(const RawFileHeaderBlock& header);
std::string_view KindName(ScannerKind kind);  // "90-degree", "360-degree", "unknown"
std::string SignatureString(const RawFileHeaderBlock& header);  // the 8 magic bytes, printable

// Runs f, turning the point layer's refusals into the tool's file errors (the
// same "FILE: what" message).
template <typename F>
decltype(auto) Checked(F&& f) {
  try {
    return f();
  } catch (const kvr::cloud::Error& error) {
    throw ToolError(error.what());
  }
}

// A raw scan file opened through the point layer (which explains a refusal),
// with a stream of its own at the first FIFO block for the library's block
// functions.
class ScanSource {
 public:
  explicit ScanSource(std::string path, const kvr::cloud::ScanOptions& options = {});
  ~ScanSource();
  ScanSource(const ScanSource&) = delete;
  ScanSource& operator=(const ScanSource&) = delete;

  const std::string& path() const { return path_; }
  kvr::cloud::Scan& scan() { return *scan_; }
  const kvr::cloud::Scan& scan() const { return *scan_; }
  // The library's functions take the header by reference; they only read it.
  RawFileHeader& header() { return const_cast<RawFileHeader&>(scan_->header()); }
  const RawFileHeader& header() const { return scan_->header(); }
  std::FILE** stream() { return &stream_; }

  std::uint64_t fileSize() const { return scan_->fileSize(); }
  std::uint64_t wholeBlocks() const { return scan_->blockCount(); }
  std::uint64_t trailingBytes() const { return scan_->trailingBytes(); }
  std::uint64_t headerBlockSize() const { return scan_->headerBlockSize(); }

  // Seeks back to the first block for another pass; ToolError when it cannot.
  void rewindToData();
  // Seeks to the start of a block (0: the first); ToolError when it cannot.
  void seekToBlock(std::uint64_t block);

 private:
  std::string path_;
  std::unique_ptr<kvr::cloud::Scan> scan_;
  std::FILE* stream_ = nullptr;
};

}  // namespace kvrscan
