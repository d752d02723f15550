#include "header/scan_file.h"

#include <string>
#include <string_view>

#include "diag/error_manager.h"
#include "header/header_block.h"
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

// A text read from the stream into a buffer of length + 1 zero-filled bytes.
// A length beyond the end of the file reads what is there; the rest stays zero
// and costs no memory until touched.
char* ReadText(std::FILE* in, std::uint32_t length) {
  char* text = AllocateText(length);
  stream::ReadBytes(in, text, length);
  return text;
}

// Fields are read one by one in file order; a file cut short leaves every field
// that was not reached (and the missing bytes of a field cut in two) as the
// record held it.
void ReadHeaderFields(std::FILE* in, RawFileHeader& h) {
  stream::ReadLe(in, h.headerLayout);
  stream::ReadLe(in, h.dataOffset);
  for (std::uint32_t& word : h.headerWords) stream::ReadLe(in, word);
  stream::ReadBytes(in, h.idText1, sizeof h.idText1);
  stream::ReadLe(in, h.idValue);
  stream::ReadBytes(in, h.idText2, sizeof h.idText2);
  stream::ReadBytes(in, h.idText3, sizeof h.idText3);
  stream::ReadBytes(in, h.idText4, sizeof h.idText4);
  stream::ReadLe(in, h.scanWord0);
  stream::ReadLe(in, h.scanStartAngle);
  stream::ReadLe(in, h.scanEndAngle);
  stream::ReadLe(in, h.angularSpeed);
  stream::ReadLe(in, h.sweepStartAngle);
  stream::ReadLe(in, h.sweepEndAngle);
  stream::ReadLe(in, h.lineRate);
  stream::ReadLe(in, h.prf);
  for (std::uint32_t& word : h.scanTailWords) stream::ReadLe(in, word);

  stream::ReadLe(in, h.calibrationTextLength);
  h.calibrationText = ReadText(in, h.calibrationTextLength);
  stream::ReadLe(in, h.parameterTextLength);
  h.parameterText = ReadText(in, h.parameterTextLength);
  stream::ReadLe(in, h.thirdTextLength);
  h.thirdText = ReadText(in, h.thirdTextLength);
  if (h.headerLayout == 0) {
    stream::ReadLe(in, h.fourthTextLength);
    h.fourthText = ReadText(in, h.fourthTextLength);
  } else if (h.headerLayout == 1) {
    h.fourthTextLength = 0;
    h.fourthText = nullptr;
  }  // any other layout leaves the fourth text as the record held it
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
