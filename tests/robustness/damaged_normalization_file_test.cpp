// Building a scan file map from damaged input: normalization parameter files
// cut short, with odd bin counts and damaged at random, and scan files cut at
// their field and block boundaries, with shot counts overwritten, and damaged at
// random.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kvr_decode/scan_file_map.h"
#include "robustness/damage.h"
#include "kvr_writers/fifo_block_writer.h"
#include "kvr_writers/synthetic_blocks.h"
#include "support/left_open_streams.h"
#include "kvr_writers/scan_file_writer.h"
#include "support/temp_dir_test_base.h"

namespace kvr {
namespace {

using test::FileBytes;

constexpr const char* kMapContext = "int GetScanFileMap(const char *input_data, ScanFileMap &scanFileMap)";
constexpr const char* kHeaderFailed = "Error ReadFileHeader failed";
constexpr const char* kHistogramFailed = "Memory allocation failed for Histogram ";

// 20 shots of one return (400 counts, 0.78 m, behind T0), the scan direction
// turning every 5 shots: a block starts a line at shots 5, 10 and 15 (and
// block 1 a fourth at its first shot).
writers::FifoBlockBuilder LineBlock(std::uint64_t timeStamp) {
  writers::FifoBlockBuilder block;
  block.timeStamp(timeStamp);
  for (std::uint32_t i = 0; i < 20; ++i) {
    block.shot(writers::ShotWord({.pan = i, .returnCount = 1, .t0 = 1000, .topBits = (i / 5) % 2 == 0 ? 2u : 0u}),
               {writers::ReturnWord(1400, 500 + i)});
  }
  return block;
}

// The default header (blocks from 1024), two blocks and 100 bytes of a third.
const FileBytes kScan = writers::BuildScanFile(writers::HeaderBlockFields{},
                                            writers::FifoFile({LineBlock(100).build(), LineBlock(200).build()}, 100));
const std::string kParameters = "a1 = 210\nnumberOfBins = 2048\ngamma\t0.7\n";

class DamagedMapInput : public test::InTempDir {
 protected:
  // Builds the map of the scan file with the parameter file (or none).
  int Build(const FileBytes& scan, const std::string* parameters) {
    test::WriteFile(path("scan.raw"), scan);
    std::filesystem::remove(path("scan.raw.NormalizationParams.txt"));
    if (parameters != nullptr) {
      test::WriteFile(path("scan.raw.NormalizationParams.txt"), *parameters);
    }
    ReleaseScanFileMap(map);
    map = ScanFileMap{};
    return GetScanFileMap(L"scan.raw", map);
  }
  void TearDown() override { ReleaseScanFileMap(map); }

  ScanFileMap map;
};

TEST_F(DamagedMapInput, ParameterFileCutAtEveryLineAndTokenBoundary) {
  struct Case {
    std::size_t cut;
    double a1;
    std::int32_t numberOfBins;  // 0: computed from the data
    double gamma;
  };
  for (const Case& c : {Case{0, 200.0, 0, 0.5}, Case{2, 200.0, 0, 0.5}, Case{4, 200.0, 0, 0.5},
                        Case{8, 210.0, 0, 0.5}, Case{9, 210.0, 0, 0.5}, Case{21, 210.0, 0, 0.5},
                        Case{26, 210.0, 20, 0.5}, Case{29, 210.0, 2048, 0.5}, Case{34, 210.0, 2048, 0.5},
                        Case{38, 210.0, 2048, 0.7}, Case{39, 210.0, 2048, 0.7}}) {
    const std::string parameters = kParameters.substr(0, c.cut);
    ASSERT_EQ(Build(kScan, &parameters), 0) << c.cut;
    EXPECT_EQ(map.a1, c.a1) << c.cut;
    EXPECT_EQ(map.gamma, c.gamma) << c.cut;
    if (c.numberOfBins != 0) {
      EXPECT_EQ(map.numberOfBins, c.numberOfBins) << c.cut;
    }
    EXPECT_EQ(map.numberOfScanLines, 7) << c.cut;
  }
  EXPECT_TRUE(logEntries().empty());
}

// A bin count of 0 or less, or one no 32-bit integer holds, has no histogram:
// the count is worked out from the data instead, as when there is none. The
// largest count is used as given.
TEST_F(DamagedMapInput, BinCountsAtZeroOneMaximumAndBeyond) {
  const std::string none;
  ASSERT_EQ(Build(kScan, &none), 0);
  const std::int32_t computed = map.numberOfBins;
  struct Case {
    const char* value;
    std::int32_t numberOfBins;
  };
  for (const Case& c : {Case{"0", computed}, Case{"-5", computed}, Case{"1e10", computed}, Case{"x", computed},
                        Case{"1", 1}, Case{"2147483647", 2147483647}}) {
    const std::string parameters = std::string("numberOfBins = ") + c.value + "\n";
    ASSERT_EQ(Build(kScan, &parameters), 0) << c.value;
    EXPECT_EQ(map.numberOfBins, c.numberOfBins) << c.value;
  }
  EXPECT_TRUE(logEntries().empty());
}

TEST_F(DamagedMapInput, ScanFileCutAtEveryBoundary) {
  struct Case {
    std::size_t cut;
    const std::string* parameters;
    int result;
    std::vector<std::string> messages;
    std::int32_t numberOfScanLines, blockCount;
  };
  const std::string* none = nullptr;
  const std::vector<std::string> headerFailed{"The scan file exist but the signature is wrong ", kHeaderFailed};
  const std::vector<std::string> prfFailed{"The PRF is undefined. Processing can not continue, PRF read = 0",
                                           kHeaderFailed};
  const std::vector<std::string> noSamples{kHistogramFailed};
  for (const Case& c : {
           Case{0, none, -1, headerFailed, -1, 0}, Case{7, none, -1, headerFailed, -1, 0},
           Case{8, none, -1, prfFailed, -1, 0}, Case{220, none, -1, prfFailed, -1, 0},
           // No whole block: no sample, so no computed bin count can hold a histogram.
           Case{224, none, -1, noSamples, -1, 0}, Case{1024, none, -1, noSamples, -1, 0},
           Case{1024 + 12, none, -1, noSamples, -1, 0}, Case{1024 + 65535, none, -1, noSamples, -1, 0},
           Case{1024, &kParameters, 0, {}, -1, 0},
           // One block leaves blockCount at 0, two at 2.
           Case{1024 + 65536, none, 0, {}, 3, 0}, Case{1024 + 65536 + 12, none, 0, {}, 3, 0},
           Case{1024 + 2 * 65536, none, 0, {}, 7, 2}, Case{kScan.size(), none, 0, {}, 7, 2}}) {
    test::LeftOpenStreams leftOpen;
    EXPECT_EQ(Build(test::Cut(kScan, c.cut), c.parameters), c.result) << c.cut;
    // ReadFileHeader keeps its stream on a wrong magic or PRF; the map closes its own.
    EXPECT_EQ(leftOpen.Close(), c.messages.size() == 2 ? 1 : 0) << c.cut;
    const auto log = test::TakeLog(dir());
    ASSERT_EQ(log.size(), c.messages.size()) << c.cut;
    for (std::size_t i = 0; i < log.size(); ++i) EXPECT_EQ(log[i].message, c.messages[i]) << c.cut;
    if (!log.empty()) {
      EXPECT_EQ(log.back().context, kMapContext);
    }
    EXPECT_EQ(map.numberOfScanLines, c.numberOfScanLines) << c.cut;
    EXPECT_EQ(map.blockCount, c.blockCount) << c.cut;
  }
}

TEST_F(DamagedMapInput, ShotCountAtZeroOneMaximumAndPastTheShots) {
  // Block 0's shot count; its 20 shots end at 12 + 20 x 12 = 252, zeros follow.
  struct Case {
    std::uint32_t shots;
    std::int32_t numberOfScanLines, maxShotsPerBlock;
  };
  // 0 walks nothing of block 0: block 1 alone starts the lines (its first shot
  // is a change from -1, then 5, 10, 15); 1 walks only a first shot of the same
  // direction. 8191 walks block 0's shots and then zero words, shots without
  // returns and of direction 0, to the end of the block.
  for (const Case& c : {Case{0, 3, 20}, Case{1, 3, 20}, Case{20, 7, 20}, Case{21, 7, 21}, Case{8191, 7, 8191}}) {
    const FileBytes scan = test::WithU32(kScan, 1024 + 8, c.shots << 19);
    ASSERT_EQ(Build(scan, &kParameters), 0) << c.shots;
    EXPECT_EQ(map.numberOfScanLines, c.numberOfScanLines) << c.shots;
    EXPECT_EQ(map.maxShotsPerBlock, c.maxShotsPerBlock) << c.shots;
  }
  EXPECT_TRUE(logEntries().empty());
}

// Random damage to the parameter file and to the scan file's header and blocks:
// 0 with nothing logged, or -1 with the entries of a failed header or
// histogram, or the header texts' out-of-range error.
TEST_F(DamagedMapInput, RandomDamageEndsInADocumentedResult) {
  const auto parameterFiles = test::Mutations(FileBytes(kParameters.begin(), kParameters.end()), 3030, 50);
  const FileBytes head(kScan.begin(), kScan.begin() + 1024 + 96);
  const auto heads = test::Mutations(head, 3031, 50);
  int built = 0, failed = 0;
  for (std::size_t i = 0; i < heads.size(); ++i) {
    const std::string parameters(parameterFiles[i].begin(), parameterFiles[i].end());
    FileBytes scan = heads[i];
    scan.insert(scan.end(), kScan.begin() + static_cast<std::ptrdiff_t>(head.size()), kScan.end());
    test::LeftOpenStreams leftOpen;
    int result = 0;
    try {
      result = Build(scan, &parameters);
    } catch (const std::out_of_range& e) {
      EXPECT_STREQ(e.what(), "invalid vector<T> subscript");
      EXPECT_EQ(leftOpen.Close(), 0);
      test::ClearLog(dir());
      continue;
    }
    const auto log = test::TakeLog(dir());
    if (result == 0) {
      ++built;
      // A side table is never there; so nothing to note.
      EXPECT_TRUE(log.empty()) << "mutation " << i;
      EXPECT_EQ(leftOpen.Close(), 0);
      continue;
    }
    ++failed;
    ASSERT_EQ(result, -1);
    ASSERT_FALSE(log.empty());
    EXPECT_EQ(log.back().context, kMapContext);
    EXPECT_TRUE(log.back().message == kHeaderFailed || log.back().message == kHistogramFailed) << log.back().message;
    leftOpen.Close();
  }
  EXPECT_GT(built, 0);
  EXPECT_GT(failed, 0);
}

}  // namespace
}  // namespace kvr
