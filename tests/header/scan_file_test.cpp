#include <gtest/gtest.h>

#include "header/header_expectations.h"
#include "kvr_decode/fifo_block.h"
#include "kvr_decode/file_header.h"
#include "kvr_writers/fifo_block_writer.h"
#include "platform/file_system.h"
#include "support/open_descriptors.h"
#include "support/temp_dir_test_base.h"

namespace kvr {
namespace {

using writers::HeaderBlockFields;
using test::Model;
using Values = decltype(RawFileHeader::calibrationValues);

constexpr const char* kPrfMessage = "The PRF is undefined. Processing can not continue, PRF read = ";
constexpr const char* kSignatureMessage = "The scan file exist but the signature is wrong ";

class ReadHeader : public test::InTempDir, public ::testing::WithParamInterface<Model> {
 protected:
  FILE* Read(const std::vector<std::uint8_t>& file) {
    test::WriteFile(path("scan.raw"), file);
    return ReadFileHeader(L"scan.raw", header);
  }
  void ExpectLog(const std::string& message, const std::vector<std::string>& details) {
    test::ExpectOneLogEntry(dir(), "FILE *ReadFileHeader(unsigned char *scanFileName, RawFileHeader &rawFileHeader)",
                            message, details);
  }
  void Reset() {
    ReleaseFileHeader(header);
    header = RawFileHeader{};
  }
  void TearDown() override { ReleaseFileHeader(header); }
  RawFileHeader header;
};

TEST_P(ReadHeader, FillsTheRecordAndStopsAtTheFirstBlock) {
  test::WriteFile(path("scan.raw.tbl"), writers::BuildSideTable({10, 12}, {{5.0, 1, 3}}));
  FILE* stream = Read(writers::BuildScanFile(test::DistinctFields(GetParam()), {'B', 'L', 'K'}));
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(platform::Tell(stream), GetParam().dataOffset);
  std::fclose(stream);
  test::ExpectDecoded(header, GetParam());
  ASSERT_NE(header.sideTableGrid, nullptr);
  EXPECT_EQ(header.sideTableGrid->columns, (decltype(SideTableGrid::columns){{0, {1, 1}}, {1, {2, 2}}, {2, {3, 3}}}));
  EXPECT_TRUE(logEntries().empty());
}

INSTANTIATE_TEST_SUITE_P(Models, ReadHeader,
                         ::testing::Values(Model{"#KVRSCAN", 1, 200, 5000, 2.5, -0.000005},
                                           Model{"#MX70DAT", 0, 50, 70000, 0.5, -0.00002},
                                           Model{"MX700DAT", 0, 500, 16, 5.5, -0.000002}));

// Callers name files in wide characters on every system: a name outside ASCII
// and outside the Basic Multilingual Plane (a surrogate pair in UTF-16) opens the
// scan, finds its side table under the same name and walks its blocks.
TEST_F(ReadHeader, WideNameOutsideTheBasicPlaneOpensTheScanAndItsBlocks) {
  const std::filesystem::path name(u8"sc\u00E4n \u20AC \U0001F63A.raw");
  const auto blocks = writers::FifoFile({writers::FifoBlockBuilder().shotCount(3).build(),
                                         writers::FifoBlockBuilder().shotCount(1).build()});
  const Model model{"#KVRSCAN", 1, 200, 5000, 2.5, -0.000005};
  test::WriteFile(dir() / name, writers::BuildScanFile(test::DistinctFields(model), blocks));
  test::WriteFile(dir() / (name.u8string() + u8".tbl"), writers::BuildSideTable({10, 12}, {{5.0, 1, 3}}));
  FILE* stream = ReadFileHeader(L"sc\u00E4n \u20AC \U0001F63A.raw", header);
  ASSERT_NE(stream, nullptr);
  EXPECT_NE(header.sideTableGrid, nullptr);
  FifoBlock block;
  EXPECT_EQ(DecodeNextFifoBlock(&stream, header, 0, block, nullptr), 3);
  EXPECT_EQ(DecodeNextFifoBlock(&stream, header, 1, block, nullptr), 1);
  EXPECT_EQ(DecodeNextFifoBlock(&stream, header, 2, block, nullptr), -1);
  std::fclose(stream);
  EXPECT_TRUE(logEntries().empty());
}

TEST_F(ReadHeader, FailuresLogOnceAndLeaveAnOpenedStreamOpen) {
  header.dataOffset = 77;
  EXPECT_EQ(ReadFileHeader(L"m\u0141ssing.raw", header), nullptr);
  ExpectLog("Error opening file", {"mAssing.raw"});  // each wide character cut to its low byte
  EXPECT_EQ(header.signature[0], 0);

  const long before = test::OpenDescriptorCount();
  EXPECT_EQ(Read(writers::BuildScanFile(test::DistinctFields({"#KVRSCAX", 0, 200, 5000, 0, 0}))), nullptr);
  ExpectLog(kSignatureMessage, {"s", "#KVRSCAX"});  // the name's storage read as narrow text
  EXPECT_EQ(header.signature[7], 'X');
  EXPECT_EQ(header.dataOffset, 77u);

  header.calibrationValues = {{"kept", 1.0}};
  EXPECT_EQ(Read(writers::BuildScanFile(test::DistinctFields({"#KVRSCAN", 1, 100, 5000, 0, 0}))), nullptr);
  ExpectLog(std::string(kPrfMessage) + "100", {"scan.raw"});
  EXPECT_EQ(header.dataOffset, 5000u);
  EXPECT_STREQ(header.idText2, "second");
  EXPECT_EQ(header.calibrationValues, (Values{{"kept", 1.0}}));
  EXPECT_EQ(test::OpenDescriptorCount(), before + 2);
}

TEST_F(ReadHeader, TruncatedFileKeepsWhatTheReadsLeft) {
  HeaderBlockFields fields = test::DistinctFields({"#KVRSCAN", 1, 200, 0x31388, 0, 0});
  const std::vector<std::uint8_t> block = writers::BuildHeaderBlock(fields);
  auto cut = [&](std::size_t size) { return std::vector<std::uint8_t>(block.begin(), block.begin() + size); };

  EXPECT_EQ(Read(cut(6)), nullptr);
  ExpectLog(kSignatureMessage, {"s", "#KVRSC"});
  EXPECT_EQ(Read(cut(14)), nullptr);  // half of dataOffset arrived; prf never did
  ExpectLog(std::string(kPrfMessage) + "0", {"scan.raw"});
  EXPECT_EQ(header.dataOffset, 0x1388u);
  Reset();
  FILE* stream = Read(cut(276 + 4 + 10));
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(platform::Tell(stream), 0x31388);
  std::fclose(stream);
  const std::uint32_t length = header.calibrationTextLength;
  EXPECT_EQ(length, fields.calibrationText.size());
  EXPECT_EQ(std::string(header.calibrationText, length + 1), "gain = 2\n[" + std::string(length - 9, '\0'));
  test::ExpectText(header.parameterTextLength, header.parameterText, "");
  EXPECT_EQ(header.calibrationValues, (Values{{"gain", 2.0}, {"scanAngleLag", -0.000005}}));
}

// Layout 1, which has no fourth text; the damaged-file tests hold layout 0's lengths.
TEST_F(ReadHeader, OversizedLengthReadsTheRestOfTheFileIntoAZeroFilledText) {
  HeaderBlockFields fields;
  fields.headerLayout = 1;
  fields.calibrationText = "k = 1";
  fields.calibrationTextLength = 0xFFFFFFFF;
  FILE* stream = Read(writers::BuildHeaderBlock(fields));
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(platform::Tell(stream), 1024);
  std::fclose(stream);
  EXPECT_STREQ(header.calibrationText, "k = 1");
  EXPECT_EQ(header.calibrationText[0xFFFFFFFEu], '\0');
  EXPECT_EQ(header.calibrationText[0xFFFFFFFFu], '\0');
  EXPECT_EQ(header.calibrationValues, (Values{{"k", 1.0}, {"scanAngleLag", -0.000005}}));
}

TEST_F(ReadHeader, SideTableThatCannotBeUsedIsLoggedAndTheScanStillRead) {
  // POSIX opens a directory as a file that cannot be read; Windows does not open
  // it, and a table that is not there is no error.
  std::filesystem::create_directory(path("scan.raw.tbl"));
  FILE* stream = Read(writers::BuildScanFile(HeaderBlockFields{}));
  ASSERT_NE(stream, nullptr);
  std::fclose(stream);
  if (test::kDirectoriesOpen) {
    ExpectLog("The side table is unreadable or too large and was not loaded", {"scan.raw.tbl"});
  } else {
    EXPECT_TRUE(logEntries().empty());
  }
  std::filesystem::remove(path("scan.raw.tbl"));
  Reset();
  test::WriteFile(path("scan.raw.tbl"), std::string("row 0 65535\n1 2 3\n"));  // 65536 columns of 2 rows: fine
  stream = Read(writers::BuildScanFile(HeaderBlockFields{}));
  ASSERT_NE(stream, nullptr);
  std::fclose(stream);
  EXPECT_NE(header.sideTableGrid, nullptr);
  EXPECT_TRUE(logEntries().empty());
  Reset();
  test::WriteFile(path("scan.raw.tbl"), std::string("row 0 65536\n1 2 3\n"));  // one column too many
  stream = Read(writers::BuildScanFile(HeaderBlockFields{}));
  ASSERT_NE(stream, nullptr);
  std::fclose(stream);
  EXPECT_EQ(header.sideTableGrid, nullptr);
  ExpectLog("The side table is unreadable or too large and was not loaded", {"scan.raw.tbl"});
}

TEST_F(ReadHeader, MalformedTableEndsWithOutOfRangeAndClosesTheStream) {
  const long before = test::OpenDescriptorCount();
  HeaderBlockFields fields;
  // a three-token row counts only in the file's own section
  fields.calibrationText = "a = 1\nx 1 2\n[PRF=50]\ny 1 2\n[PRF=200]\nz 1 2\nb = 2\n";
  test::ExpectInvalidSubscript([&] { Read(writers::BuildScanFile(fields)); });
  EXPECT_EQ(header.calibrationValues, (Values{{"a", 1.0}, {"x", 1.0}}));
  EXPECT_STREQ(header.calibrationText, fields.calibrationText.c_str());
  Reset();
  test::WriteFile(path("scan.raw.tbl"), std::string("no keys\n"));
  test::ExpectInvalidSubscript([&] { Read(writers::BuildScanFile(HeaderBlockFields{})); });
  EXPECT_EQ(header.sideTableGrid, nullptr);
  EXPECT_EQ(test::OpenDescriptorCount(), before);
}

}  // namespace
}  // namespace kvr
