// ReadFileHeader on any scan file, with or without a side table beside it.
//
// Input: a 16-bit word (bit 15: a side table exists; bits 0-14: its length),
// the side table's text, then the scan file.

#include "fuzz_support.h"
#include "kvr_decode/file_header.h"
#include "platform/file_system.h"

namespace {

using kvr::fuzz::Finding;

constexpr const char* kScanFile = "scan.raw";
constexpr const wchar_t* kScanFileWide = L"scan.raw";
constexpr const char* kSideTableFile = "scan.raw.tbl";

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  kvr::fuzz::TrimLog();
  const kvr::fuzz::TwoFiles files = kvr::fuzz::SplitTwoFiles(data, size);
  if (!kvr::fuzz::ScanHeaderClaimsWithinLimit(files.main)) return 0;
  kvr::fuzz::WriteInputFile(kScanFile, files.main);
  kvr::fuzz::WriteSideFile(kSideTableFile, files);

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
