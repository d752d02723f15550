#pragma once

#include <gtest/gtest.h>

#include <bit>
#include <stdexcept>
#include <string>
#include <vector>

#include "header/header_layout.h"
#include "kvr_decode/raw_file_header.h"
#include "kvr_writers/scan_file_writer.h"
#include "support/log_reader.h"

namespace kvr::test {

struct Model {
  const char* magic;
  std::uint32_t layout, prf, dataOffset;
  double rangeOffset, scanAngleLag;  // what the calibration text gives at this prf
};

inline void PrintTo(const Model& m, std::ostream* os) {
  *os << m.magic << " layout " << m.layout << " prf " << m.prf << " data at " << m.dataOffset;
}

// Every field holds its own value, so a field read from the wrong place shows.
inline writers::HeaderBlockFields DistinctFields(const Model& m) {
  writers::HeaderBlockFields f;
  f.signature = m.magic;
  f.headerLayout = m.layout;
  f.dataOffset = m.dataOffset;
  f.headerWords = {0x01020304, 7, 0xFFFFFFFF};
  f.idText1 = std::string(40, 'a');  // no room for a terminator
  f.idText2 = "second";
  f.idText3 = "third";
  f.idText4 = "fourth";
  f.idValue = 0xCAFEBABE;
  f.scanWord0 = 11;
  f.scanStartAngle = -45.5f;
  f.scanEndAngle = 135.25f;
  f.angularSpeed = 36.0f;
  f.sweepStartAngle = 1.5f;
  f.sweepEndAngle = 2.5f;
  f.lineRate = 98.75f;
  f.prf = m.prf;
  f.scanTailWords = {100, 101, 102, 103, 104, 105, 106, 107, 108, 109, 110, 111, 112};
  f.calibrationText = "gain = 2\n[PRF=50]\nrangeOffset = 0.5\n[PRF = 200]\nrangeOffset = 2.5\nlag 1 x 100\n"
                      "[PRF=500]\nrangeOffset = 5.5\n";
  f.parameterText = "[PRF = 50]\n1 a b 0.5 0.25\n[PRF = 200]\n1 a b 2 4\n2 a b 6 8\n";
  f.fourthText = "model fourth";  // the third text stays empty
  return f;
}

// The one entry a failure writes, then an empty log for the next check.
inline void ExpectOneLogEntry(const std::filesystem::path& dir, const std::string& context, const std::string& message,
                              const std::vector<std::string>& details) {
  const auto log = ReadLogEntries(dir);
  ClearLog(dir);
  ASSERT_EQ(log.size(), 1u);
  EXPECT_EQ(log[0].context, context);
  EXPECT_EQ(log[0].message, message);
  EXPECT_EQ(log[0].details, details);
}

// The error a malformed table or text ends with.
template <typename Call>
void ExpectInvalidSubscript(Call call) {
  try {
    call();
    ADD_FAILURE() << "no exception";
  } catch (const std::out_of_range& e) {
    EXPECT_STREQ(e.what(), "invalid vector<T> subscript");
  }
}

inline void ExpectText(std::uint32_t length, const char* text, const std::string& expected) {
  EXPECT_EQ(length, expected.size());
  ASSERT_NE(text, nullptr);
  EXPECT_EQ(std::string(text, length + 1), expected + '\0');
}

// The record as DistinctFields(m) must decode: fixed fields, texts and tables.
inline void ExpectDecoded(const RawFileHeader& h, const Model& m) {
  static_assert(std::endian::native == std::endian::little);
  const writers::HeaderBlockFields f = DistinctFields(m);
  // The record's fixed part mirrors the block byte for byte.
  const std::vector<std::uint8_t> block = writers::BuildHeaderBlock(f);
  const auto* fixed = reinterpret_cast<const std::uint8_t*>(&h);
  constexpr std::size_t kFixed = header::layout::kFixedPartSize;
  EXPECT_EQ(std::vector<std::uint8_t>(fixed, fixed + kFixed), std::vector<std::uint8_t>(block.begin(), block.begin() + kFixed));
  ExpectText(h.calibrationTextLength, h.calibrationText, f.calibrationText);
  ExpectText(h.parameterTextLength, h.parameterText, f.parameterText);
  ExpectText(h.thirdTextLength, h.thirdText, f.thirdText);
  if (m.layout == 0) ExpectText(h.fourthTextLength, h.fourthText, f.fourthText);
  EXPECT_EQ(h.prfTables, (decltype(h.prfTables){{50, {{0.5, 0.25}}}, {200, {{2.0, 4.0}, {6.0, 8.0}}}}));
  EXPECT_EQ(h.calibrationValues, (decltype(h.calibrationValues){
                                     {"gain", 2.0}, {"rangeOffset", m.rangeOffset}, {"scanAngleLag", m.scanAngleLag}}));
}

}  // namespace kvr::test
