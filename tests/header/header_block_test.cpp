#include <gtest/gtest.h>

#include "header/header_expectations.h"
#include "kvr_decode/file_header.h"
#include "support/temp_dir_test_base.h"

namespace kvr {
namespace {

using writers::HeaderBlockFields;
using test::Model;

constexpr const char* kContext = "int DecodeFileHeader(unsigned char *headerBuffer, RawFileHeader &rawFileHeader)";

class DecodeHeader : public test::InTempDir, public ::testing::WithParamInterface<Model> {
 protected:
  int Decode(const HeaderBlockFields& fields) {
    std::vector<std::uint8_t> block = writers::BuildHeaderBlock(fields);
    return DecodeFileHeader(block.data(), 1, header);  // the size is ignored
  }
  void ExpectLog(const std::string& message, const std::vector<std::string>& details) {
    test::ExpectOneLogEntry(dir(), kContext, message, details);
  }
  void TearDown() override { ReleaseFileHeader(header); }
  RawFileHeader header;
};

TEST_P(DecodeHeader, CopiesEveryFieldAndBuildsTablesForItsPrf) {
  header.fourthTextLength = 9;  // what a layout other than 0 or 1 leaves alone
  ASSERT_EQ(Decode(test::DistinctFields(GetParam())), 0);
  test::ExpectDecoded(header, GetParam());
  if (GetParam().layout != 0) {
    EXPECT_TRUE(header.fourthText == nullptr);
    EXPECT_EQ(header.fourthTextLength, GetParam().layout == 1 ? 0u : 9u);
  }
  EXPECT_TRUE(logEntries().empty());
}

INSTANTIATE_TEST_SUITE_P(Models, DecodeHeader,
                         ::testing::Values(Model{"#KVRSCAN", 1, 200, 5000, 2.5, -0.000005},
                                           Model{"#MX70DAT", 0, 50, 5000, 0.5, -0.00002},
                                           Model{"MX700DAT", 0, 500, 5000, 5.5, -0.000002},
                                           Model{"#KVRSCAN", 7, 500, 5000, 5.5, -0.000002}));

TEST_F(DecodeHeader, WrongMagicLogsItsTextAndWritesOnlyTheSignature) {
  header.dataOffset = 77;
  const std::string magics[] = {"#KVRSCAX", "#kvrscan", std::string("MX\0" "00DAT", 8), std::string(8, '\0')};
  for (const std::string& magic : magics) {
    HeaderBlockFields fields;
    fields.signature = magic;
    EXPECT_EQ(Decode(fields), -1);
    ExpectLog("buffer signature is wrong ", {magic.substr(0, magic.find('\0'))});
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(header.signature), 8), magic);
    EXPECT_EQ(header.dataOffset, 77u);
    EXPECT_TRUE(header.calibrationText == nullptr);
  }
}

TEST_F(DecodeHeader, UndefinedPrfLogsAndReturnsZeroWithoutBuildingTables) {
  for (std::uint32_t prf : {0u, 100u, 4294967295u}) {
    header.calibrationValues = {{"kept", 1.0}};
    EXPECT_EQ(Decode(test::DistinctFields({"#KVRSCAN", 1, prf, 5000, 0, 0})), 0);
    ExpectLog("The PRF is undefined. Processing can not continue, PRF read = " + std::to_string(prf), {});
    EXPECT_EQ(header.prf, prf);
    EXPECT_STREQ(header.parameterText, "[PRF = 50]\n1 a b 0.5 0.25\n[PRF = 200]\n1 a b 2 4\n2 a b 6 8\n");
    EXPECT_TRUE(header.prfTables.empty());
    EXPECT_EQ(header.calibrationValues, (decltype(header.calibrationValues){{"kept", 1.0}}));
    ReleaseFileHeader(header);
  }
}

TEST_F(DecodeHeader, ReleaseFreesTextsAndGridAndClearsTheirFields) {
  Decode(test::DistinctFields({"#KVRSCAN", 0, 200, 5000, 0, 0}));
  header.sideTableGrid = new SideTableGrid;
  ReleaseFileHeader(header);
  EXPECT_TRUE(!header.calibrationText && !header.parameterText && !header.thirdText && !header.fourthText);
  EXPECT_EQ(header.calibrationTextLength + header.parameterTextLength + header.thirdTextLength +
                header.fourthTextLength, 0u);
  EXPECT_EQ(header.sideTableGrid, nullptr);
  ReleaseFileHeader(header);  // a record that owns nothing
}

}  // namespace
}  // namespace kvr
