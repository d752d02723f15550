#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "kvr_writers/file_output.h"

// Raw scan files: the header block, then FIFO blocks from dataOffset on; and the
// side table that goes with a scan file.
namespace kvr::writers {

// The fields of a raw scan file's header block. The defaults make a valid
// "#KVRSCAN" block at 200 kHz without a fourth text, whose first FIFO block
// starts at 1024; change what matters and leave the rest.
struct HeaderBlockFields {
  std::string signature = "#KVRSCAN";  // written as exactly 8 bytes, zero-padded or cut
  std::uint32_t headerLayout = 1;      // 0: a fourth text follows the third
  std::uint32_t dataOffset = 1024;
  std::array<std::uint32_t, 3> headerWords{};
  std::string idText1, idText2, idText3, idText4;  // 40 bytes each, zero-padded or cut
  std::uint32_t idValue = 0;

  std::uint32_t scanWord0 = 0;
  float scanStartAngle = 30.0f;
  float scanEndAngle = 130.0f;
  float angularSpeed = 12.0f;
  float sweepStartAngle = 30.0f;
  float sweepEndAngle = 130.0f;
  float lineRate = 100.0f;
  std::uint32_t prf = 200;
  std::array<std::uint32_t, 13> scanTailWords{};

  std::string calibrationText;
  std::string parameterText;
  std::string thirdText;
  std::string fourthText;  // written only when headerLayout is 0

  // Length words written instead of the texts' sizes, for damaged blocks.
  std::optional<std::uint32_t> calibrationTextLength;
  std::optional<std::uint32_t> parameterTextLength;
  std::optional<std::uint32_t> thirdTextLength;
  std::optional<std::uint32_t> fourthTextLength;
};

// The header block: 276 fixed bytes, then the length-prefixed texts.
std::vector<std::uint8_t> BuildHeaderBlock(const HeaderBlockFields& fields);

// A whole scan file: the header block, zeros up to dataOffset, then data (the
// FIFO blocks). A dataOffset inside the header block adds no gap.
std::vector<std::uint8_t> BuildScanFile(const HeaderBlockFields& fields, const std::vector<std::uint8_t>& data = {});

// A scan file written while its blocks are produced: the header block and its
// padding up front, then each block as it comes.
class ScanFileWriter {
 public:
  ScanFileWriter(const std::filesystem::path& path, const HeaderBlockFields& fields);

  void writeBlock(std::span<const std::uint8_t> block) { file_.write(block); }
  std::uint64_t size() const { return file_.size(); }
  void close() { file_.close(); }

 private:
  StreamingFile file_;
};

// A side table text: a key line (label, then the keys), then one line per row
// (row coordinate, then its values), blank-separated, numbers written in their
// shortest exact form.
std::string BuildSideTable(const std::vector<int>& keys, const std::vector<std::vector<double>>& rows,
                           bool finalLineFeed = true, std::string_view label = "row");

// The shortest decimal text that reads back as exactly this double.
std::string ShortestDecimal(double value);

}  // namespace kvr::writers
