// Raw scan files (header block and side table) cut short, with length fields
// overwritten, with other files' magics, and damaged at random.

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "kvr_decode/file_header.h"
#include "platform/file_system.h"
#include "robustness/damage.h"
#include "support/left_open_streams.h"
#include "support/read_model.h"
#include "kvr_writers/scan_file_writer.h"
#include "support/temp_dir_test_base.h"

namespace kvr {
namespace {

using test::FileBytes;
using Values = std::map<std::string, double>;
using Tables = decltype(RawFileHeader::prfTables);

constexpr const char* kContext = "FILE *ReadFileHeader(unsigned char *scanFileName, RawFileHeader &rawFileHeader)";
constexpr const char* kSignatureWrong = "The scan file exist but the signature is wrong ";
constexpr const char* kPrfUndefined = "The PRF is undefined. Processing can not continue, PRF read = ";
constexpr const char* kSideTableNotLoaded = "The side table is unreadable or too large and was not loaded";
constexpr double kLag200 = -0.000005;  // -1 / (200 x 1000)

// "#KVRSCAN", layout 0, PRF 200, blocks from 400. The length words stand at 276,
// 298, 324 and 338; the block ends at 346 and zeros pad it to 400.
writers::HeaderBlockFields ValidFields() {
  writers::HeaderBlockFields f;
  f.headerLayout = 0;
  f.dataOffset = 400;
  f.calibrationText = "rangeOffset = 2.5\n";       // 18 bytes
  f.parameterText = "[PRF = 200]\n1 a b 2 4\n";    // 22 bytes
  f.thirdText = "<a0>1</a0>";                      // 10 bytes
  f.fourthText = "four";
  return f;
}
const FileBytes kValid = writers::BuildScanFile(ValidFields());
const Values kAllValues{{"rangeOffset", 2.5}, {"scanAngleLag", kLag200}};
const Tables kAllTables{{200, {{2.0, 4.0}}}};

std::string Zeros(std::size_t n) { return std::string(n, '\0'); }

class DamagedScanFile : public test::InTempDir {
 protected:
  // Reads the file; returns the stream's position (-1 for none) and closes it.
  std::int64_t Read(const FileBytes& file) {
    test::WriteFile(path("scan.raw"), file);
    ReleaseFileHeader(header);
    header = RawFileHeader{};
    std::FILE* stream = ReadFileHeader(L"scan.raw", header);
    if (stream == nullptr) return -1;
    const std::int64_t at = platform::Tell(stream);
    std::fclose(stream);
    return at;
  }
  void TearDown() override { ReleaseFileHeader(header); }

  RawFileHeader header;
};

// What a read leaves when the file holds at least the PRF.
struct Texts {
  std::uint32_t lengths[4];
  std::string buffers[4];  // length + 1 bytes each
  Values values;
  Tables tables;
};

void ExpectTexts(const RawFileHeader& h, const Texts& e) {
  const std::uint32_t lengths[4] = {h.calibrationTextLength, h.parameterTextLength, h.thirdTextLength,
                                    h.fourthTextLength};
  const char* texts[4] = {h.calibrationText, h.parameterText, h.thirdText, h.fourthText};
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(lengths[i], e.lengths[i]) << "text " << i;
    EXPECT_EQ(test::Buffer(texts[i], lengths[i]), e.buffers[i]) << "text " << i;
  }
  EXPECT_EQ(h.calibrationValues, e.values);
  EXPECT_EQ(h.prfTables, e.tables);
}

TEST_F(DamagedScanFile, CutInsideTheFixedPartFailsOnTheMagicOrThePrf) {
  struct Case {
    std::size_t cut;
    std::string magicText;
  };
  for (const Case& c : {Case{0, ""}, Case{4, "#KVR"}, Case{7, "#KVRSCA"}}) {
    test::LeftOpenStreams leftOpen;
    EXPECT_EQ(Read(test::Cut(kValid, c.cut)), -1);
    EXPECT_EQ(leftOpen.Close(), 1) << c.cut;
    const auto log = logEntries();
    test::ClearLog(dir());
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].context, kContext);
    EXPECT_EQ(log[0].message, kSignatureWrong);
    EXPECT_EQ(log[0].details, (std::vector<std::string>{"s", c.magicText}));
  }
  // Every field boundary from the magic to the PRF: the PRF reads as 0.
  for (std::size_t cut : {8, 12, 16, 20, 24, 28, 68, 72, 112, 152, 192, 196, 200, 204, 208, 212, 216, 220}) {
    test::LeftOpenStreams leftOpen;
    EXPECT_EQ(Read(test::Cut(kValid, cut)), -1);
    EXPECT_EQ(leftOpen.Close(), 1) << cut;
    EXPECT_EQ(header.prf, 0u);
    const auto log = logEntries();
    test::ClearLog(dir());
    ASSERT_EQ(log.size(), 1u) << cut;
    EXPECT_EQ(log[0].message, std::string(kPrfUndefined) + "0");
    EXPECT_EQ(log[0].details, std::vector<std::string>{"scan.raw"});
  }
}

struct CutCase {
  std::size_t cut;
  Texts texts;
};

class CutAfterThePrf : public DamagedScanFile, public ::testing::WithParamInterface<CutCase> {};

TEST_P(CutAfterThePrf, ReturnsTheStreamAtDataOffsetWithTheTextsThatArrived) {
  test::LeftOpenStreams leftOpen;
  EXPECT_EQ(Read(test::Cut(kValid, GetParam().cut)), 400);
  EXPECT_EQ(leftOpen.Close(), 0);
  ExpectTexts(header, GetParam().texts);
  EXPECT_TRUE(logEntries().empty());
}

const std::string kEmpty = Zeros(1);
const Texts kNoText{{0, 0, 0, 0}, {kEmpty, kEmpty, kEmpty, kEmpty}, {}, {}};

INSTANTIATE_TEST_SUITE_P(
    FieldBoundaries, CutAfterThePrf,
    ::testing::Values(
        CutCase{224, kNoText}, CutCase{248, kNoText}, CutCase{272, kNoText}, CutCase{276, kNoText},
        // A length that arrived without its text: that many zero bytes.
        CutCase{280, {{18, 0, 0, 0}, {Zeros(19), kEmpty, kEmpty, kEmpty}, {{"scanAngleLag", kLag200}}, {}}},
        CutCase{298, {{18, 0, 0, 0}, {"rangeOffset = 2.5\n" + kEmpty, kEmpty, kEmpty, kEmpty}, kAllValues, {}}},
        CutCase{302, {{18, 22, 0, 0}, {"rangeOffset = 2.5\n" + kEmpty, Zeros(23), kEmpty, kEmpty}, kAllValues, {}}},
        CutCase{324,
                {{18, 22, 0, 0},
                 {"rangeOffset = 2.5\n" + kEmpty, "[PRF = 200]\n1 a b 2 4\n" + kEmpty, kEmpty, kEmpty},
                 kAllValues,
                 kAllTables}},
        CutCase{328,
                {{18, 22, 10, 0},
                 {"rangeOffset = 2.5\n" + kEmpty, "[PRF = 200]\n1 a b 2 4\n" + kEmpty, Zeros(11), kEmpty},
                 kAllValues,
                 kAllTables}},
        CutCase{342,
                {{18, 22, 10, 4},
                 {"rangeOffset = 2.5\n" + kEmpty, "[PRF = 200]\n1 a b 2 4\n" + kEmpty, "<a0>1</a0>" + kEmpty,
                  Zeros(5)},
                 kAllValues,
                 kAllTables}},
        CutCase{346,
                {{18, 22, 10, 4},
                 {"rangeOffset = 2.5\n" + kEmpty, "[PRF = 200]\n1 a b 2 4\n" + kEmpty, "<a0>1</a0>" + kEmpty,
                  "four" + kEmpty},
                 kAllValues,
                 kAllTables}}),
    [](const auto& info) { return "At" + std::to_string(info.param.cut); });

// A length word overwritten: the text takes what its length says, and the next
// length is read from wherever that leaves the stream.
struct LengthCase {
  const char* name;
  std::size_t at;
  std::uint32_t value;
  std::uint32_t lengths[4];
  // The start of each text buffer, and how many zero bytes end it (all that a
  // multi-gigabyte buffer is checked for).
  std::string starts[4];
  Values values;
  Tables tables;
};

class LengthField : public DamagedScanFile, public ::testing::WithParamInterface<LengthCase> {};

TEST_P(LengthField, TextTakesItsLengthAndTheNextLengthFollowsIt) {
  const LengthCase& c = GetParam();
  EXPECT_EQ(Read(test::WithU32(kValid, c.at, c.value)), 400);
  const std::uint32_t lengths[4] = {header.calibrationTextLength, header.parameterTextLength, header.thirdTextLength,
                                    header.fourthTextLength};
  const char* texts[4] = {header.calibrationText, header.parameterText, header.thirdText, header.fourthText};
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(lengths[i], c.lengths[i]) << "text " << i;
    ASSERT_NE(texts[i], nullptr);
    EXPECT_EQ(std::string(texts[i], c.starts[i].size()), c.starts[i]) << "text " << i;
    // The buffer's last bytes: zero, and the terminator.
    EXPECT_EQ(texts[i][lengths[i]], '\0');
    if (lengths[i] > c.starts[i].size()) {
      EXPECT_EQ(texts[i][lengths[i] - 1], '\0');
    }
  }
  EXPECT_EQ(header.calibrationValues, c.values);
  EXPECT_EQ(header.prfTables, c.tables);
  EXPECT_TRUE(logEntries().empty());
}

const std::string kRest1 = std::string("rangeOffset = 2.5\n\x16") + Zeros(3) + "[PRF = 200]";
const std::string kRest2 = std::string("[PRF = 200]\n1 a b 2 4\n\x0a") + Zeros(3) + "<a0>";
const std::string kRest3 = std::string("<a0>1</a0>\x04") + Zeros(3) + "four";
const Values kLagOnly{{"scanAngleLag", kLag200}};

INSTANTIATE_TEST_SUITE_P(
    ZeroOneMaximumAndPastTheEnd, LengthField,
    ::testing::Values(
        // L1 = 0: the next length is "rang", 0x676E6172, and takes the rest of the file.
        LengthCase{"CalibrationZero", 276, 0, {0, 0x676E6172, 0, 0},
                   {"", "eOffset = 2.5\n\x16", "", ""}, {}, {}},
        LengthCase{"CalibrationOne", 276, 1, {1, 0x65676E61, 0, 0}, {"r", "Offset = 2.5\n\x16", "", ""}, kLagOnly, {}},
        LengthCase{"CalibrationMaximum", 276, 0xFFFFFFFF, {0xFFFFFFFF, 0, 0, 0}, {kRest1, "", "", ""}, kAllValues, {}},
        LengthCase{"CalibrationPastTheEnd", 276, 121, {121, 0, 0, 0}, {kRest1, "", "", ""}, kAllValues, {}},
        // L2 = 0: the next length is "[PRF", 0x4652505B.
        LengthCase{"ParameterZero", 298, 0, {18, 0, 0x4652505B, 0},
                   {"rangeOffset = 2.5\n", "", " = 200]\n1 a b 2 4\n\x0a", ""}, kAllValues, {}},
        LengthCase{"ParameterOne", 298, 1, {18, 1, 0x20465250, 0},
                   {"rangeOffset = 2.5\n", "[", "= 200]\n1 a b 2 4\n\x0a", ""}, kAllValues, {}},
        LengthCase{"ParameterMaximum", 298, 0xFFFFFFFF, {18, 0xFFFFFFFF, 0, 0},
                   {"rangeOffset = 2.5\n", kRest2, "", ""}, kAllValues, kAllTables},
        LengthCase{"ParameterPastTheEnd", 298, 99, {18, 99, 0, 0}, {"rangeOffset = 2.5\n", kRest2, "", ""}, kAllValues,
                   kAllTables},
        // L3 = 0: the next length is "<a0>", 0x3E30613C.
        LengthCase{"OpticalModelZero", 324, 0, {18, 22, 0, 0x3E30613C},
                   {"rangeOffset = 2.5\n", "[PRF = 200]\n1 a b 2 4\n", "", "1</a0>\x04"}, kAllValues, kAllTables},
        LengthCase{"OpticalModelOne", 324, 1, {18, 22, 1, 0x313E3061},
                   {"rangeOffset = 2.5\n", "[PRF = 200]\n1 a b 2 4\n", "<", "</a0>\x04"}, kAllValues, kAllTables},
        LengthCase{"OpticalModelMaximum", 324, 0xFFFFFFFF, {18, 22, 0xFFFFFFFF, 0},
                   {"rangeOffset = 2.5\n", "[PRF = 200]\n1 a b 2 4\n", kRest3, ""}, kAllValues, kAllTables},
        LengthCase{"OpticalModelPastTheEnd", 324, 73, {18, 22, 73, 0},
                   {"rangeOffset = 2.5\n", "[PRF = 200]\n1 a b 2 4\n", kRest3, ""}, kAllValues, kAllTables},
        LengthCase{"FourthZero", 338, 0, {18, 22, 10, 0},
                   {"rangeOffset = 2.5\n", "[PRF = 200]\n1 a b 2 4\n", "<a0>1</a0>", ""}, kAllValues, kAllTables},
        LengthCase{"FourthOne", 338, 1, {18, 22, 10, 1},
                   {"rangeOffset = 2.5\n", "[PRF = 200]\n1 a b 2 4\n", "<a0>1</a0>", "f"}, kAllValues, kAllTables},
        LengthCase{"FourthMaximum", 338, 0xFFFFFFFF, {18, 22, 10, 0xFFFFFFFF},
                   {"rangeOffset = 2.5\n", "[PRF = 200]\n1 a b 2 4\n", "<a0>1</a0>", "four"}, kAllValues,
                   kAllTables},
        LengthCase{"FourthPastTheEnd", 338, 59, {18, 22, 10, 59},
                   {"rangeOffset = 2.5\n", "[PRF = 200]\n1 a b 2 4\n", "<a0>1</a0>", "four"}, kAllValues,
                   kAllTables}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(DamagedScanFile, DataOffsetAndLayoutTakeAnyValue) {
  struct Offset {
    std::uint32_t value;
    std::int64_t position;
  };
  for (const Offset& o : {Offset{0, 0}, Offset{1, 1}, Offset{0xFFFFFFFF, 0xFFFFFFFF}, Offset{401, 401}}) {
    EXPECT_EQ(Read(test::WithU32(kValid, 12, o.value)), o.position);
    ReleaseFileHeader(header);
  }
  // Layout 1 reads no fourth text; any other value but 0 leaves it as it was.
  for (std::uint32_t layout : {1u, 2u, 0xFFFFFFFFu}) {
    EXPECT_EQ(Read(test::WithU32(kValid, 8, layout)), 400);
    EXPECT_EQ(header.fourthTextLength, 0u);
    const char* fourth = header.fourthText;  // a packed field: copied, not bound
    EXPECT_EQ(fourth, nullptr);
    EXPECT_EQ(header.prfTables, kAllTables);
    ReleaseFileHeader(header);
  }
  EXPECT_TRUE(logEntries().empty());
}

TEST_F(DamagedScanFile, OtherMagicsAndPrfsFailWithTheirLogEntry) {
  for (const char* magic : {"#KVRSERL", "#KVRDEVC", "#KVRCAMR", "#KVRMAPF", "#kvrscan", "#KVRSCAM", "MX700DA"}) {
    test::LeftOpenStreams leftOpen;
    EXPECT_EQ(Read(test::WithText(kValid, 0, std::string(magic, 8))), -1);
    EXPECT_EQ(leftOpen.Close(), 1);
    const auto log = logEntries();
    test::ClearLog(dir());
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].message, kSignatureWrong);
    EXPECT_EQ(log[0].details, (std::vector<std::string>{"s", magic}));
  }
  for (std::uint32_t prf : {0u, 1u, 100u, 0xFFFFFFFFu}) {
    test::LeftOpenStreams leftOpen;
    EXPECT_EQ(Read(test::WithU32(kValid, 220, prf)), -1);
    EXPECT_EQ(leftOpen.Close(), 1);
    EXPECT_EQ(test::TakeLogMessages(dir()), std::vector<std::string>{kPrfUndefined + std::to_string(prf)});
    EXPECT_EQ(header.calibrationValues, Values{});
    ReleaseFileHeader(header);
  }
}

// The side table "row 10 12 / 5.0 1 3 / 5.05 2 4" cut at its line and token
// boundaries. Its last line is read twice when it ends in a line feed, so a key
// line alone makes a data row of itself (row 0, values 10 and 12); a table
// without a key line or a data row ends with the out-of-range error.
TEST_F(DamagedScanFile, SideTableCutAtEveryLineAndTokenBoundary) {
  const std::string table = "row 10 12\n5.0 1 3\n5.05 2 4\n";
  using Columns = decltype(SideTableGrid::columns);
  struct Case {
    std::size_t cut;
    bool throws;
    Columns columns;
    double rowOrigin;
  };
  for (const Case& c : {Case{0, true, {}, 0}, Case{3, true, {}, 0}, Case{6, true, {}, 0}, Case{9, true, {}, 0},
                        Case{10, false, {{0, {10}}, {1, {11}}, {2, {12}}}, 0.0}, Case{15, true, {}, 0},
                        Case{17, false, {{0, {1}}, {1, {2}}, {2, {3}}}, 5.0},
                        Case{18, false, {{0, {1, 1}}, {1, {2, 2}}, {2, {3, 3}}}, 5.0},
                        Case{26, false, {{0, {1, 2}}, {1, {2, 3}}, {2, {3, 4}}}, 5.0},
                        Case{27, false, {{0, {1, 2, 2}}, {1, {2, 3, 3}}, {2, {3, 4, 4}}}, 5.0}}) {
    test::WriteFile(path("scan.raw.tbl"), table.substr(0, c.cut));
    test::LeftOpenStreams leftOpen;
    if (c.throws) {
      EXPECT_THROW(Read(kValid), std::out_of_range) << c.cut;
      EXPECT_EQ(leftOpen.Close(), 0) << c.cut;
      continue;
    }
    EXPECT_EQ(Read(kValid), 400) << c.cut;
    ASSERT_NE(header.sideTableGrid, nullptr) << c.cut;
    EXPECT_EQ(header.sideTableGrid->columns, c.columns) << c.cut;
    EXPECT_EQ(header.sideTableGrid->rowOrigin, c.rowOrigin) << c.cut;
  }
  EXPECT_TRUE(logEntries().empty());
}

// Random damage to the scan file and its side table: a stream with no log entry,
// or null with one of the three entries, or the parsers' out-of-range error; no
// stream is left open except on the two paths that keep theirs. Damage that
// makes a text claim more than 16 MiB is left to the length cases above: such
// buffers cost nothing but time, and under the sanitizers a lot of it.
TEST_F(DamagedScanFile, RandomDamageEndsInADocumentedResult) {
  const std::string table = writers::BuildSideTable({10, 12, 15}, {{5.0, 1, 2, 3}, {5.05, 4, 5, 6}});
  const auto scans = test::Mutations(kValid, 20240601, 100);
  const auto tables = test::Mutations(FileBytes(table.begin(), table.end()), 20240602, 100);
  int streams = 0, failures = 0, errors = 0;
  for (std::size_t i = 0; i < scans.size(); ++i) {
    if (test::LargestScanHeaderText(scans[i]) > (1u << 24)) continue;
    test::WriteFile(path("scan.raw.tbl"), tables[i]);
    test::LeftOpenStreams leftOpen;
    try {
      const std::int64_t at = Read(scans[i]);
      const auto messages = test::TakeLogMessages(dir());
      if (at >= 0) {
        ++streams;
        EXPECT_EQ(at, header.dataOffset) << "mutation " << i;
        // A side table too damaged to use is noted; the scan is still read.
        EXPECT_TRUE(messages.empty() || messages == std::vector<std::string>{kSideTableNotLoaded})
            << "mutation " << i;
        EXPECT_EQ(leftOpen.Close(), 0) << "mutation " << i;
      } else {
        ++failures;
        ASSERT_EQ(messages.size(), 1u) << "mutation " << i;
        const bool known = messages[0] == kSignatureWrong || messages[0].rfind(kPrfUndefined, 0) == 0;
        EXPECT_TRUE(known) << messages[0];
        EXPECT_EQ(leftOpen.Close(), 1) << "mutation " << i;
      }
    } catch (const std::out_of_range& e) {
      ++errors;
      EXPECT_STREQ(e.what(), "invalid vector<T> subscript");
      EXPECT_EQ(leftOpen.Close(), 0) << "mutation " << i;
      test::ClearLog(dir());
    }
    ReleaseFileHeader(header);
  }
  // The damage reaches every outcome.
  EXPECT_GT(streams, 0);
  EXPECT_GT(failures, 0);
  EXPECT_GT(errors, 0);
}

}  // namespace
}  // namespace kvr
