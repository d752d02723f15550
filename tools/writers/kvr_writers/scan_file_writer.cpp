#include "kvr_writers/scan_file_writer.h"

#include <charconv>

#include "header/header_layout.h"
#include "kvr_writers/byte_writer.h"

namespace kvr::writers {

namespace {

void WriteText(ByteWriter& out, const std::string& text, const std::optional<std::uint32_t>& length) {
  out.u32(length.value_or(static_cast<std::uint32_t>(text.size()))).text(text);
}

}  // namespace

std::string ShortestDecimal(double value) {
  char text[32];
  const auto result = std::to_chars(text, text + sizeof text, value);
  return std::string(text, result.ptr);
}

std::vector<std::uint8_t> BuildHeaderBlock(const HeaderBlockFields& f) {
  using namespace header::layout;
  ByteWriter out;
  out.fixed(f.signature, kSignature.size).u32(f.headerLayout).u32(f.dataOffset);
  for (std::uint32_t word : f.headerWords) out.u32(word);
  out.fixed(f.idText1, kIdTextSize).u32(f.idValue);
  out.fixed(f.idText2, kIdTextSize).fixed(f.idText3, kIdTextSize).fixed(f.idText4, kIdTextSize);
  out.u32(f.scanWord0)
      .f32(f.scanStartAngle)
      .f32(f.scanEndAngle)
      .f32(f.angularSpeed)
      .f32(f.sweepStartAngle)
      .f32(f.sweepEndAngle)
      .f32(f.lineRate)
      .u32(f.prf);
  for (std::uint32_t word : f.scanTailWords) out.u32(word);
  WriteText(out, f.calibrationText, f.calibrationTextLength);
  WriteText(out, f.parameterText, f.parameterTextLength);
  WriteText(out, f.thirdText, f.thirdTextLength);
  if (f.headerLayout == kLayoutWithFourthText) WriteText(out, f.fourthText, f.fourthTextLength);
  return out.take();
}

std::vector<std::uint8_t> BuildScanFile(const HeaderBlockFields& fields, const std::vector<std::uint8_t>& data) {
  ByteWriter out;
  out.append(BuildHeaderBlock(fields)).padTo(fields.dataOffset).append(data);
  return out.take();
}

ScanFileWriter::ScanFileWriter(const std::filesystem::path& path, const HeaderBlockFields& fields) : file_(path) {
  const std::vector<std::uint8_t> header = BuildHeaderBlock(fields);
  file_.write(header);
  if (fields.dataOffset > header.size()) file_.writeZeros(fields.dataOffset - header.size());
}

std::string BuildSideTable(const std::vector<int>& keys, const std::vector<std::vector<double>>& rows,
                           bool finalLineFeed, std::string_view label) {
  std::string text(label);
  for (int key : keys) text += " " + std::to_string(key);
  for (const auto& row : rows) {
    text += "\n";
    for (std::size_t i = 0; i < row.size(); ++i) text += (i == 0 ? "" : " ") + ShortestDecimal(row[i]);
  }
  if (finalLineFeed) text += "\n";
  return text;
}

}  // namespace kvr::writers
