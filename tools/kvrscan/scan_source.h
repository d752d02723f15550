#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

#include "fifo/block_layout.h"
#include "kvr_decode/raw_file_header.h"

namespace kvrscan {

inline constexpr std::uint64_t kBlockSize = kvr::fifo::SIZEOFFIFOBLOCK;

// The wide name the library's functions take: the UTF-8 path decoded (the library
// encodes it back to UTF-8 to open the file). ToolError for a name that is not
// valid UTF-8.
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

// A raw scan file opened through ReadFileHeader: the decoded header and the
// stream at the first FIFO block. When the library refuses the file, the
// constructor reads what it needs of the header itself to say why (missing file,
// wrong magic, undefined PRF, header cut short, malformed calibration text or
// side table) and throws a ToolError with that reason.
class ScanSource {
 public:
  explicit ScanSource(std::string path);
  ~ScanSource();
  ScanSource(const ScanSource&) = delete;
  ScanSource& operator=(const ScanSource&) = delete;

  const std::string& path() const { return path_; }
  const std::wstring& widePath() const { return wide_; }
  RawFileHeader& header() { return header_; }
  const RawFileHeader& header() const { return header_; }
  // The library's block functions take the stream's address.
  std::FILE** stream() { return &stream_; }

  std::uint64_t fileSize() const { return fileSize_; }
  // Whole 65536-byte blocks after the data offset, and the bytes of a cut-off
  // block after them.
  std::uint64_t wholeBlocks() const;
  std::uint64_t trailingBytes() const;
  // The header block's length from its text lengths (288 + the texts, plus the
  // fourth text's length word and text when the layout has one).
  std::uint64_t headerBlockSize() const;

  // Seeks back to the first block for another pass; ToolError when it cannot.
  void rewindToData();
  // Seeks to the start of a block (0: the first); ToolError when it cannot.
  void seekToBlock(std::uint64_t block);

 private:
  [[noreturn]] void explainRefusal();
  [[noreturn]] void explainMalformedTable(const std::exception& error);

  std::string path_;
  std::wstring wide_;
  std::uint64_t fileSize_ = 0;
  RawFileHeader header_;
  std::FILE* stream_ = nullptr;
};

}  // namespace kvrscan
