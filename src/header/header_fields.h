#pragma once

#include <cstdint>

#include "kvr_decode/raw_file_header.h"

// The header block's fixed fields, written out once for every reader and writer
// of them: the decoder (from memory and from a stream) and the map file (which
// carries the header whole).
namespace kvr::header {

// Hands every fixed field after the signature, in file order, to `field`: the
// numbers as std::uint32_t& or float&, the 40-byte texts as char (&)[40] (const
// when `header` is). Their offsets are those of header_layout.h.
template <typename Header, typename Field>
void ForEachFixedField(Header& header, Field&& field) {
  field(header.headerLayout);
  field(header.dataOffset);
  for (auto& word : header.headerWords) field(word);
  field(header.idText1);
  field(header.idValue);
  field(header.idText2);
  field(header.idText3);
  field(header.idText4);
  field(header.scanWord0);
  field(header.scanStartAngle);
  field(header.scanEndAngle);
  field(header.angularSpeed);
  field(header.sweepStartAngle);
  field(header.sweepEndAngle);
  field(header.lineRate);
  field(header.prf);
  for (auto& word : header.scanTailWords) field(word);
}

// The texts after the fixed part, as the scan file holds them: three, and a
// fourth when headerLayout is 0. Layout 1 clears the fourth; any other value
// leaves it as the record held it. `readText(length)` reads a length word into
// `length` and returns the text's new buffer.
template <typename ReadText>
void ReadTexts(RawFileHeaderBlock& header, ReadText&& readText) {
  header.calibrationText = readText(header.calibrationTextLength);
  header.parameterText = readText(header.parameterTextLength);
  header.thirdText = readText(header.thirdTextLength);
  if (header.headerLayout == 0) {
    header.fourthText = readText(header.fourthTextLength);
  } else if (header.headerLayout == 1) {
    header.fourthTextLength = 0;
    header.fourthText = nullptr;
  }
}

}  // namespace kvr::header
