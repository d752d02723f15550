#include "header/scan_file.h"

#include <string>
#include <string_view>

#include "diag/error_manager.h"
#include "header/header_block.h"
#include "header/header_fields.h"
#include "header/parameter_text.h"
#include "header/side_table.h"
#include "platform/file_system.h"
#include "platform/stream_reader.h"

namespace kvr::header {

namespace {

constexpr std::string_view kReadFileHeaderContext =
    "FILE *ReadFileHeader(unsigned char *scanFileName, RawFileHeader &rawFileHeader)";
constexpr std::string_view kErrorOpeningMessage = "Error opening file";
constexpr std::string_view kScanSignatureWrongMessage = "The scan file exist but the signature is wrong ";
constexpr std::string_view kSideTableNotLoadedMessage = "The side table is unreadable or too large and was not loaded";

// A length word, then the text, into a buffer of length + 1 zero-filled bytes.
// A length beyond the end of the file reads what is there; the rest stays zero
// and costs no memory until touched.
char* ReadText(std::FILE* in, std::uint32_t& length) {
  stream::ReadLe(in, length);
  char* text = AllocateText(length);
  stream::ReadBytes(in, text, length);
  return text;
}

// Fields are read one by one in file order; a file cut short leaves every field
// that was not reached (and the missing bytes of a field cut in two) as the
// record held it.
void ReadHeaderFields(std::FILE* in, RawFileHeader& h) {
  ForEachFixedField(h, [in](auto& field) { stream::ReadField(in, field); });
  ReadTexts(h, [in](std::uint32_t& length) { return ReadText(in, length); });
}

}  // namespace

std::FILE* ReadFileHeader(const wchar_t* scanFileName, RawFileHeader& rawFileHeader) {
  RawFileHeader& h = rawFileHeader;
  std::FILE* in = platform::OpenFile(scanFileName, "rb");
  if (in == nullptr) {
    Log(kReadFileHeaderContext, std::string(kErrorOpeningMessage), {platform::NarrowLowBytes(scanFileName)});
    return nullptr;
  }

  stream::ReadBytes(in, h.signature, sizeof h.signature);
  if (!IsScanSignature(h)) {
    Log(kReadFileHeaderContext, std::string(kScanSignatureWrongMessage),
        {platform::NarrowStorageBytes(scanFileName), SignatureText(h)});
    return nullptr;  // the stream stays open
  }

  try {
    ReadHeaderFields(in, h);
    if (!IsDefinedPrf(h.prf)) {
      Log(kReadFileHeaderContext, std::string(kPrfUndefinedMessage) + std::to_string(h.prf),
          {platform::NarrowLowBytes(scanFileName)});
      return nullptr;  // the stream stays open
    }
    platform::SeekAbsolute(in, h.dataOffset);
    BuildPrfTables(h.parameterText, h.parameterTextLength, h.prfTables);
    BuildCalibrationValues(h);
    // A scan without a side table is normal; one that is there but cannot be
    // used is worth a note, and the scan is still read.
    if (LoadSideTable(scanFileName, h) == kSideTableNotLoaded) {
      Log(kReadFileHeaderContext, std::string(kSideTableNotLoadedMessage),
          {platform::NarrowLowBytes(scanFileName) + ".tbl"});
    }
  } catch (...) {
    // The caller never receives the stream when a table is malformed.
    std::fclose(in);
    throw;
  }
  return in;
}

}  // namespace kvr::header
