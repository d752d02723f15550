#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "kvr_decode/raw_file_header.h"
#include "support/scan_file_builder.h"

namespace kvr::test {

// A block in which every field holds its own value, so a field read from the
// wrong place shows.
inline HeaderBlockFields DistinctFields(const std::string& magic, std::uint32_t layout, std::uint32_t prf) {
  HeaderBlockFields f;
  f.signature = magic;
  f.headerLayout = layout;
  f.dataOffset = 5000;
  f.headerWords = {0x01020304, 7, 0xFFFFFFFF};
  f.idText1 = std::string(40, 'a');  // fills the field: no terminator
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
  f.prf = prf;
  for (std::uint32_t i = 0; i < 13; ++i) f.scanTailWords[i] = 100 + i;
  f.calibrationText = "gain = 2\n[PRF=50]\nrangeOffset = 0.5\n[PRF = 200]\nrangeOffset = 2.5\nlag 1 x 100\n"
                      "[PRF=500]\nrangeOffset = 5.5\n";
  f.parameterText = "[PRF = 50]\n1 a b 0.5 0.25\n[PRF = 200]\n1 a b 2 4\n2 a b 6 8\n";
  f.thirdText = "";
  f.fourthText = "model fourth";
  return f;
}

inline void ExpectText(std::uint32_t length, const char* text, const std::string& expected) {
  EXPECT_EQ(length, expected.size());
  ASSERT_NE(text, nullptr);
  EXPECT_EQ(std::string(text, length + 1), expected + '\0');
}

// Every fixed field and the three texts that every layout carries.
inline void ExpectHeaderFields(const RawFileHeader& h, const HeaderBlockFields& f) {
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(h.signature), 8), f.signature);
  EXPECT_EQ(h.headerLayout, f.headerLayout);
  EXPECT_EQ(h.dataOffset, f.dataOffset);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(h.headerWords[i], f.headerWords[i]);
  EXPECT_EQ(std::string(h.idText1, 40), f.idText1);
  EXPECT_STREQ(h.idText2, f.idText2.c_str());
  EXPECT_STREQ(h.idText3, f.idText3.c_str());
  EXPECT_STREQ(h.idText4, f.idText4.c_str());
  EXPECT_EQ(h.idValue, f.idValue);
  EXPECT_EQ(h.scanWord0, f.scanWord0);
  EXPECT_EQ(h.scanStartAngle, f.scanStartAngle);
  EXPECT_EQ(h.scanEndAngle, f.scanEndAngle);
  EXPECT_EQ(h.angularSpeed, f.angularSpeed);
  EXPECT_EQ(h.sweepStartAngle, f.sweepStartAngle);
  EXPECT_EQ(h.sweepEndAngle, f.sweepEndAngle);
  EXPECT_EQ(h.lineRate, f.lineRate);
  EXPECT_EQ(h.prf, f.prf);
  for (int i = 0; i < 13; ++i) EXPECT_EQ(h.scanTailWords[i], f.scanTailWords[i]);
  ExpectText(h.calibrationTextLength, h.calibrationText, f.calibrationText);
  ExpectText(h.parameterTextLength, h.parameterText, f.parameterText);
  ExpectText(h.thirdTextLength, h.thirdText, f.thirdText);
}

}  // namespace kvr::test
