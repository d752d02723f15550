#pragma once

// What every fuzz target needs around the reader it drives: writing the input to
// the file the reader opens, closing streams the library leaves open on purpose,
// keeping the diagnostic log from filling the disk, and telling the exceptions the
// library documents from findings.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>
#include <stdexcept>
#include <string_view>
#include <type_traits>

#include "platform/little_endian.h"
#include "support/left_open_streams.h"
#include "support/read_model.h"

namespace kvr::fuzz {

using Bytes = std::span<const std::uint8_t>;

// Writes the input to a file in the current directory; the readers take names.
// The old file is removed first: truncating and rewriting a file makes some file
// systems flush it to disk on close, which would slow the fuzzer to disk speed.
inline void WriteInputFile(const char* name, Bytes bytes) {
  std::remove(name);
  std::FILE* out = std::fopen(name, "wb");
  if (out == nullptr) {
    std::fprintf(stderr, "fuzz: cannot write %s\n", name);
    std::abort();
  }
  if (!bytes.empty() && std::fwrite(bytes.data(), 1, bytes.size(), out) != bytes.size()) std::abort();
  std::fclose(out);
}

using kvr::test::LeftOpenStreams;

// An input that carries a side file before the main one: a 16-bit word (bit 15:
// the side file exists; bits 0-14: its length, cut to what the input holds),
// the side file's bytes, then the main file's.
struct TwoFiles {
  bool sideExists = false;
  Bytes side;
  Bytes main;
};

inline TwoFiles SplitTwoFiles(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return {false, {}, Bytes(data, size)};
  const unsigned control = kvr::le::LoadU16(data);
  std::size_t sideLength = control & 0x7FFFu;
  if (sideLength > size - 2) sideLength = size - 2;
  return {(control & 0x8000u) != 0, Bytes(data + 2, sideLength), Bytes(data + 2 + sideLength, size - 2 - sideLength)};
}

// Writes the side file, or removes one an earlier input left.
inline void WriteSideFile(const char* name, const TwoFiles& files) {
  if (files.sideExists) {
    WriteInputFile(name, files.side);
  } else {
    std::remove(name);
  }
}

// The library appends to "KVR_Decode.log" in the current directory on every
// failure; a fuzzer fails millions of times. The log is removed now and then.
inline void TrimLog() {
  static unsigned calls = 0;
  if (++calls % 4096 == 0) std::remove("KVR_Decode.log");
}

// Lines some readers print on standard output (versions, end-of-file notes) go
// nowhere, so the fuzzer's own report stays readable.
inline void SilenceStandardOutput() {
  if (std::freopen("/dev/null", "w", stdout) == nullptr) std::abort();
}

[[noreturn]] inline void Finding(const char* what) {
  std::fprintf(stderr, "fuzz: finding: %s\n", what);
  std::abort();
}

// The text parsers end a malformed line or table with std::out_of_range carrying
// a fixed text: "invalid vector<T> subscript" for a missing token, and in the NMEA
// sentence parsers also "invalid string position" for a field too short to cut.
// Any other text is a finding.
inline constexpr std::string_view kInvalidSubscript = "invalid vector<T> subscript";
inline constexpr std::string_view kInvalidStringPosition = "invalid string position";

inline void ExpectInvalidSubscript(const std::out_of_range& e) {
  if (e.what() != kInvalidSubscript) Finding(e.what());
}

inline void ExpectSentenceOutOfRange(const std::out_of_range& e) {
  if (e.what() != kInvalidSubscript && e.what() != kInvalidStringPosition) Finding(e.what());
}

// Lengths that claim more than the file holds are fine: the readers hand out
// zero-filled buffers of the claimed size, which cost memory only where data is
// read into them. The fuzzer's allocation limit would still report a 4 GiB
// claim, so targets keep claims under this size; the damaged-file tests cover
// the largest values.
inline constexpr std::uint64_t kLargestClaim = std::uint64_t{1} << 20;

// True when every text length that ReadFileHeader meets in a scan file stays
// within the claim limit.
inline bool ScanHeaderClaimsWithinLimit(Bytes scan) { return kvr::test::LargestScanHeaderText(scan) <= kLargestClaim; }

}  // namespace kvr::fuzz
