// The point files' layouts, byte for byte, and what a failed write leaves: the
// old file whole, no temporary file, a message naming the file and the reason.

#include <gtest/gtest.h>

#include <sys/resource.h>

#include <csignal>
#include <cstring>

#include <png.h>

#include "cloud/small_scan.h"
#include "kvr_decode/cloud/error.h"
#include "kvr_decode/cloud/panorama.h"
#include "kvr_decode/cloud/point_writer.h"

namespace kvr::cloud {
namespace {

using test::ReadFileBytes;
using test::ReadFileText;
using test::TempDir;

const Colouring kGrey{FindPalette("grey"), 4000.0, 1.0};  // level = round(254 v / 4000)

class Writers : public ::testing::Test {
 protected:
  Writers() : scan_(test::WriteSmallScan(dir_)) {
    PointReader reader(scan_);
    batches_ = test::ReadAll(reader);
  }
  void writeAll(PointWriter& writer) {
    for (const PointBatch& batch : batches_) writer.write(batch);
  }
  std::vector<std::string> leftovers() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir_.path())) {
      if (entry.path().filename().string().find(".tmp") != std::string::npos) names.push_back(entry.path().string());
    }
    return names;
  }
  TempDir dir_;
  Scan scan_;
  std::vector<PointBatch> batches_;
};

TEST_F(Writers, PlyHeaderCountAndRecords) {
  PlyWriter writer(dir_ / "points.ply", {"hello"}, kGrey);
  writeAll(writer);
  writer.finish();
  EXPECT_EQ(writer.count(), 7u);
  const std::vector<std::uint8_t> bytes = ReadFileBytes(dir_ / "points.ply");
  const std::string header =
      "ply\nformat binary_little_endian 1.0\ncomment hello\nelement vertex 7\ncomment" + std::string(23, ' ') +
      "\nproperty float x\nproperty float y\nproperty float z\nproperty ushort intensity\n"
      "property uchar return_number\nproperty uchar number_of_returns\nproperty int line\nproperty double time\n"
      "property uchar red\nproperty uchar green\nproperty uchar blue\nend_header\n";
  ASSERT_EQ(std::string(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(header.size())), header);
  ASSERT_EQ(bytes.size(), header.size() + 7 * 31);
  // The first point's normalized intensity 3640: level 231, grey 232 (as in the CSV).
  const std::uint8_t* first = bytes.data() + header.size();
  EXPECT_EQ(std::vector<std::uint8_t>(first + 28, first + 31), (std::vector<std::uint8_t>{232, 232, 232}));
  // The second point: shot 0's second return, 3.497047643859407 m on the x axis,
  // intensity 2000, return 2 of 2, before the first line; its normalized
  // intensity 20141 is past 4000: the top level, white.
  const std::uint8_t* p = bytes.data() + header.size() + 31;
  const std::uint8_t expected[] = {
      0xa1, 0xcf, 0x5f, 0x40,  // 3.4970477f
      0, 0, 0, 0, 0, 0, 0, 0,  // y, z
      0xd0, 0x07, 2, 2,        // 2000, return 2 of 2
      0xff, 0xff, 0xff, 0xff,  // line -1
  };
  EXPECT_EQ(std::vector<std::uint8_t>(p, p + 20), std::vector<std::uint8_t>(std::begin(expected), std::end(expected)));
  EXPECT_EQ(std::vector<std::uint8_t>(p + 28, p + 31), (std::vector<std::uint8_t>{255, 255, 255}));
  // The fifth point: range 0, normalized 0: level 0, black; line 0.
  const std::uint8_t* fifth = bytes.data() + header.size() + 4 * 31;
  EXPECT_EQ(std::vector<std::uint8_t>(fifth + 12, fifth + 20), (std::vector<std::uint8_t>{9, 0, 2, 3, 0, 0, 0, 0}));
  EXPECT_EQ(std::vector<std::uint8_t>(fifth + 28, fifth + 31), (std::vector<std::uint8_t>{0, 0, 0}));
}

TEST_F(Writers, CsvRowsInShortestForm) {
  CsvWriter writer(dir_ / "points.csv", {"axes"}, kGrey);
  writeAll(writer);
  writer.finish();
  const std::string text = ReadFileText(dir_ / "points.csv");
  const std::string head = "# axes\nx,y,z,intensity,return_number,number_of_returns,line,time,red,green,blue\n";
  ASSERT_EQ(text.substr(0, head.size()), head);
  // First point: 1.9985238 m on x; 3640 of 4000 is level round(231.15) = 231,
  // grey (231 x 255 + 127) / 254 = 232.
  const std::string first = text.substr(head.size(), text.find('\n', head.size()) - head.size() + 1);
  EXPECT_EQ(first, "1.9985238,0,0,500,1,2,-1,1,232,232,232\n");
}

TEST_F(Writers, FailedWritesKeepTheOldFileAndLeaveNoTemporary) {
  const std::filesystem::path target = dir_ / "points.ply";
  test::WriteFile(target, std::string_view("old file"));
  // Given up before finish(): the old file stays, the temporary goes.
  {
    PlyWriter writer(target, {}, kGrey);
    writeAll(writer);
  }
  EXPECT_EQ(ReadFileText(target), "old file");
  EXPECT_EQ(leftovers(), std::vector<std::string>{});
  // Writes past a size limit fail with EFBIG (the signal ignored).
  {
    const auto previous = std::signal(SIGXFSZ, SIG_IGN);
    rlimit old{};
    getrlimit(RLIMIT_FSIZE, &old);
    rlimit small = old;
    small.rlim_cur = 500;
    setrlimit(RLIMIT_FSIZE, &small);
    std::string message;
    try {
      PlyWriter writer(target, {}, kGrey);
      for (int i = 0; i < 4; ++i) writeAll(writer);
      writer.finish();
    } catch (const OutputError& error) {
      message = error.what();
    }
    setrlimit(RLIMIT_FSIZE, &old);
    std::signal(SIGXFSZ, previous);
    EXPECT_EQ(message, target.string() + ": write failed (File too large)");
  }
  EXPECT_EQ(ReadFileText(target), "old file");
  EXPECT_EQ(leftovers(), std::vector<std::string>{});
  // Files that cannot be made, and a device that is full.
  test::WriteFile(dir_ / "plain", std::string_view("x"));
  const struct {
    std::filesystem::path path;
    std::string message;
  } cases[] = {
      {dir_ / "missing" / "p.ply", "cannot create (No such file or directory)"},
      {dir_ / "plain" / "p.ply", "cannot create (Not a directory)"},
      {"/dev/full", "write failed (No space left on device)"},
  };
  for (const auto& c : cases) {
    std::string message;
    try {
      PlyWriter writer(c.path, {}, kGrey);
      writeAll(writer);
      writer.finish();
    } catch (const OutputError& error) {
      message = error.what();
      EXPECT_EQ(error.path(), c.path);
    }
    EXPECT_EQ(message, c.path.string() + ": " + c.message);
  }
  EXPECT_EQ(leftovers(), std::vector<std::string>{});
}

TEST_F(Writers, PanoramaAveragesTheFirstReturnsOfEachLine) {
  ReadTally tally;
  const PanoramaAxis axis = MeasurePanorama(scan_, false, tally);
  // Every shot of the lines is horizontal: one row.
  EXPECT_EQ(axis.minCount, 131072u);
  EXPECT_EQ(axis.maxCount, 131072u);
  EXPECT_EQ(axis.rows, 1u);
  EXPECT_EQ(tally.blocks, 2u);
  PanoramaWriter writer(dir_ / "pano.png", 2, axis, *FindPalette("grey"), 4000.0, 1.0);
  Selection selection = Selection::SampleRule();
  selection.returns = Returns::kFirst;
  PointReader reader(scan_, selection);
  for (const PointBatch& batch : test::ReadAll(reader)) writer.write(batch);
  writer.finish();
  // Line 0: shot 2's first return, 2184.06 of 4000: level 139; line 1: block 1's,
  // 0.43 x 100 x 16.9307: 728.02, level 46. A pixel holds 1 + its level.
  EXPECT_EQ(writer.drawn(), 2u);
  EXPECT_EQ(writer.filled(), 2u);
  png_image image;
  std::memset(&image, 0, sizeof image);
  image.version = PNG_IMAGE_VERSION;
  ASSERT_NE(png_image_begin_read_from_file(&image, (dir_ / "pano.png").c_str()), 0);
  EXPECT_EQ(image.width, 2u);
  EXPECT_EQ(image.height, 1u);
  image.format = PNG_FORMAT_GRAY;
  std::vector<std::uint8_t> grey(PNG_IMAGE_SIZE(image));
  ASSERT_NE(png_image_finish_read(&image, nullptr, grey.data(), 0, nullptr), 0);
  // The grey ramp's colour of a level: (level x 255 + 127) / 254.
  EXPECT_EQ(grey, (std::vector<std::uint8_t>{140, 46}));
  EXPECT_EQ(leftovers(), std::vector<std::string>{});
}

}  // namespace
}  // namespace kvr::cloud
