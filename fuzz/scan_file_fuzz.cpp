// ReadFileHeader on any scan file, with or without a side table beside it.
//
// Input: a 16-bit word (bit 15: a side table exists; bits 0-14: its length),
// the side table's text, then the scan file.

#include <cstring>

#include "fuzz_support.h"
#include "kvr_decode/file_header.h"
#include "platform/file_system.h"

namespace {

using kvr::fuzz::Bytes;
using kvr::fuzz::Finding;
using kvr::fuzz::ReadModel;

constexpr const char* kScanFile = "scan.raw";
constexpr const wchar_t* kScanFileWide = L"scan.raw";
constexpr const char* kSideTableFile = "scan.raw.tbl";

bool IsScanMagic(const std::uint8_t (&magic)[8]) {
  for (const char* known : {"MX700DAT", "#KVRSCAN", "#MX70DAT"}) {
    if (std::memcmp(magic, known, 8) == 0) return true;
  }
  return false;
}

// True when every text length the reader will meet stays within the claim limit.
bool ClaimsWithinLimit(Bytes scan) {
  ReadModel in(scan);
  std::uint8_t magic[8] = {};
  in.read(magic, sizeof magic);
  if (!IsScanMagic(magic)) return true;  // nothing more is read
  std::uint32_t layout = 0;
  in.readField(layout);
  in.skip(276 - 12);
  for (int text = 0; text < (layout == 0 ? 4 : 3); ++text) {
    std::uint32_t length = 0;
    in.readField(length);
    if (length > kvr::fuzz::kLargestClaim) return false;
    in.skip(length);
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  kvr::fuzz::TrimLog();
  if (size < 2) return 0;
  const unsigned control = data[0] | (data[1] << 8);
  const bool hasSideTable = (control & 0x8000u) != 0;
  std::size_t tableLength = control & 0x7FFFu;
  if (tableLength > size - 2) tableLength = size - 2;
  const Bytes table(data + 2, tableLength);
  const Bytes scan(data + 2 + tableLength, size - 2 - tableLength);
  if (!ClaimsWithinLimit(scan)) return 0;

  kvr::fuzz::WriteInputFile(kScanFile, scan);
  if (hasSideTable) {
    kvr::fuzz::WriteInputFile(kSideTableFile, table);
  } else {
    std::remove(kSideTableFile);
  }

  RawFileHeader header;
  kvr::fuzz::LeftOpenStreams leftOpen;
  try {
    std::FILE* stream = ReadFileHeader(kScanFileWide, header);
    if (stream != nullptr) {
      if (kvr::platform::Tell(stream) != header.dataOffset) Finding("stream not at dataOffset");
      std::fclose(stream);
    }
  } catch (const std::out_of_range& e) {
    kvr::fuzz::ExpectInvalidSubscript(e);
  }
  leftOpen.Close();  // a wrong magic or PRF leaves the stream open by design
  ReleaseFileHeader(header);
  return 0;
}
