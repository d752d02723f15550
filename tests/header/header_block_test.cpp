#include <gtest/gtest.h>

#include <stdexcept>

#include "header/header_expectations.h"
#include "kvr_decode/file_header.h"
#include "support/temp_dir_test_base.h"

namespace kvr {
namespace {

using test::HeaderBlockFields;
using PrfTables = decltype(RawFileHeader::prfTables);
using Values = decltype(RawFileHeader::calibrationValues);

constexpr const char* kContext = "int DecodeFileHeader(unsigned char *headerBuffer, RawFileHeader &rawFileHeader)";
const PrfTables kPrfTables{{50, {{0.5, 0.25}}}, {200, {{2.0, 4.0}, {6.0, 8.0}}}};

class DecodeHeader : public test::InTempDir {
 protected:
  int Decode(const HeaderBlockFields& fields) {
    std::vector<std::uint8_t> block = test::BuildHeaderBlock(fields);
    return DecodeFileHeader(block.data(), 0, header);  // the size is ignored
  }
  void TearDown() override { ReleaseFileHeader(header); }
  RawFileHeader header;
};

struct Model {
  const char* magic;
  std::uint32_t layout;
  std::uint32_t prf;
  double rangeOffset;  // of the file's own PRF section
  double scanAngleLag;
};

class DecodeEveryModel : public DecodeHeader, public ::testing::WithParamInterface<Model> {};

TEST_P(DecodeEveryModel, CopiesEveryFieldAndBuildsTablesForItsPrf) {
  const Model m = GetParam();
  header.fourthTextLength = 9;  // what a layout other than 0 or 1 must leave alone
  const HeaderBlockFields fields = test::DistinctFields(m.magic, m.layout, m.prf);
  ASSERT_EQ(Decode(fields), 0);
  test::ExpectHeaderFields(header, fields);
  if (m.layout == 0) {
    test::ExpectText(header.fourthTextLength, header.fourthText, "model fourth");
  } else {
    EXPECT_EQ(header.fourthText, nullptr);
    EXPECT_EQ(header.fourthTextLength, m.layout == 1 ? 0u : 9u);
  }
  EXPECT_EQ(header.prfTables, kPrfTables);
  EXPECT_EQ(header.calibrationValues,
            (Values{{"gain", 2.0}, {"rangeOffset", m.rangeOffset}, {"scanAngleLag", m.scanAngleLag}}));
  EXPECT_EQ(header.sideTableGrid, nullptr);
  EXPECT_TRUE(logEntries().empty());
}

INSTANTIATE_TEST_SUITE_P(Models, DecodeEveryModel,
                         ::testing::Values(Model{"#KVRSCAN", 1, 200, 2.5, -0.000005},
                                           Model{"#MX70DAT", 0, 50, 0.5, -0.00002},
                                           Model{"MX700DAT", 0, 500, 5.5, -0.000002},
                                           Model{"#KVRSCAN", 7, 500, 5.5, -0.000002}));

TEST_F(DecodeHeader, WrongMagicLogsItsTextAndWritesOnlyTheSignature) {
  const struct {
    std::string magic;
    std::string detail;
  } cases[] = {{"#KVRSCAX", "#KVRSCAX"}, {"#kvrscan", "#kvrscan"}, {std::string(8, '\0'), ""},
               {std::string("MX\0" "00DAT", 8), "MX"}};
  for (const auto& c : cases) {
    test::ClearLog(dir());
    header.dataOffset = 77;
    HeaderBlockFields fields;
    fields.signature = c.magic;
    EXPECT_EQ(Decode(fields), -1);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(header.signature), 8), c.magic);
    EXPECT_EQ(header.dataOffset, 77u);
    EXPECT_EQ(header.calibrationText, nullptr);
    const auto log = logEntries();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].context, kContext);
    EXPECT_EQ(log[0].message, "buffer signature is wrong ");
    EXPECT_EQ(log[0].details, std::vector<std::string>{c.detail});
  }
}

TEST_F(DecodeHeader, UndefinedPrfLogsAndReturnsZeroWithoutBuildingTables) {
  for (std::uint32_t prf : {0u, 100u, 4294967295u}) {
    test::ClearLog(dir());
    ReleaseFileHeader(header);
    header.prfTables = {{7, {}}};
    header.calibrationValues = {{"kept", 1.0}};
    EXPECT_EQ(Decode(test::DistinctFields("#KVRSCAN", 1, prf)), 0);
    EXPECT_EQ(header.prf, prf);
    EXPECT_STREQ(header.parameterText, test::DistinctFields("#KVRSCAN", 1, prf).parameterText.c_str());
    EXPECT_EQ(header.prfTables, (PrfTables{{7, {}}}));
    EXPECT_EQ(header.calibrationValues, (Values{{"kept", 1.0}}));
    const auto log = logEntries();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].context, kContext);
    EXPECT_EQ(log[0].message, "The PRF is undefined. Processing can not continue, PRF read = " + std::to_string(prf));
    EXPECT_TRUE(log[0].details.empty());
  }
}

TEST_F(DecodeHeader, ThreeTokenRowInOwnSectionThrowsKeepingTextsAndEarlierValues) {
  HeaderBlockFields fields;
  fields.calibrationText = "gain = 2\n[PRF=200]\nrangeOffset 1 2\n";
  try {
    Decode(fields);
    FAIL() << "no exception";
  } catch (const std::out_of_range& e) {
    EXPECT_STREQ(e.what(), "invalid vector<T> subscript");
  }
  EXPECT_STREQ(header.calibrationText, fields.calibrationText.c_str());
  EXPECT_EQ(header.calibrationValues, (Values{{"gain", 2.0}}));
}

TEST_F(DecodeHeader, ReleaseFreesTextsAndGridAndClearsTheirFields) {
  Decode(test::DistinctFields("#KVRSCAN", 0, 200));
  header.sideTableGrid = new SideTableGrid;
  ReleaseFileHeader(header);
  EXPECT_EQ(header.calibrationText, nullptr);
  EXPECT_EQ(header.parameterText, nullptr);
  EXPECT_EQ(header.thirdText, nullptr);
  EXPECT_EQ(header.fourthText, nullptr);
  EXPECT_EQ(header.calibrationTextLength + header.parameterTextLength + header.thirdTextLength +
                header.fourthTextLength, 0u);
  EXPECT_EQ(header.sideTableGrid, nullptr);
  ReleaseFileHeader(header);  // a record that owns nothing
}

}  // namespace
}  // namespace kvr
