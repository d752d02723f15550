// Every file the tool writes is complete or absent: under a file size limit cut
// anywhere, when the tool is interrupted, and when two runs write one target.

#include <chrono>
#include <csignal>
#include <random>
#include <set>
#include <thread>

#include <fcntl.h>
#include <sys/resource.h>

#include "kvr_simulator/scan_set.h"
#include "platform/little_endian.h"
#include "tools/kvrscan_fixture.h"

namespace kvr::test {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kPrevious = "the previous complete file\n";

// The names in a directory, to show that no temporary file was left.
std::set<std::string> Names(const fs::path& dir) {
  std::set<std::string> names;
  for (const auto& entry : fs::directory_iterator(dir)) names.insert(entry.path().filename().string());
  names.erase("KVR_Decode.log");
  return names;
}

// A simulated room scanned in `lines` lines of 1000 shots, into room/.
void SimulateRoom(std::uint32_t lines) {
  sim::SimulationOptions options;
  options.lines = lines;
  options.linesPerSecond = 200;
  options.cameraImages = 3;
  options.threads = 1;
  sim::WriteScanSet("room", options);
}

struct Output {
  const char* name;
  std::vector<std::string> args;  // writing `target`
  const char* target;
  bool sameBytes = true;  // false: each file has a GUID and time of its own, only the size repeats
};

class KvrscanWriteLimit : public KvrscanTest, public ::testing::WithParamInterface<Output> {};

// Cut everywhere from the first byte to the last: exit 1 naming the target and
// the system's error, the previous file whole, no temporary file.
TEST_P(KvrscanWriteLimit, FailsWholeAtEveryCut) {
  const Output& output = GetParam();
  SimulateRoom(20);
  fs::create_directory("ref");
  std::vector<std::string> args = output.args;
  args.push_back("ref/" + std::string(output.target));
  ASSERT_EQ(Child(args).wait().status, 0);
  const std::vector<std::uint8_t> reference = ReadFileBytes(path("ref") / output.target);
  const rlim_t size = reference.size();
  ASSERT_GT(size, 500u);

  fs::create_directory("out");
  args.back() = "out/" + std::string(output.target);
  const std::string command = output.args.front();
  for (const rlim_t cut : {rlim_t{0}, rlim_t{1}, rlim_t{100}, size / 7, size / 2, size - 8, size - 1}) {
    WriteFile(path("out") / output.target, kPrevious);
    const ToolRun run = Child(args, cut).wait();
    ExpectOneLineError(run, 1, "kvrscan " + command + ": " + args.back() + ": ", "(File too large)");
    EXPECT_EQ(ReadFileText(path("out") / output.target), kPrevious) << "cut at " << cut;
    EXPECT_EQ(Names(path("out")), std::set<std::string>{output.target}) << "cut at " << cut;
  }
  ASSERT_EQ(Child(args, size).wait().status, 0);
  if (output.sameBytes) {
    EXPECT_EQ(ReadFileBytes(path("out") / output.target), reference);
  } else {
    EXPECT_EQ(fs::file_size(path("out") / output.target), size);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Outputs, KvrscanWriteLimit,
    ::testing::Values(Output{"Ply", {"export", "room/scan.raw", "-o"}, "points.ply"},
                      Output{"Csv", {"export", "room/scan.raw", "-o"}, "points.csv"},
                      Output{"Las", {"export", "room/scan.raw", "--threads", "2", "-o"}, "points.las"},
                      Output{"Laz", {"export", "room/scan.raw", "--threads", "2", "-o"}, "points.laz"},
                      Output{"E57", {"export", "room/scan.raw", "-o"}, "points.e57", false},
                      Output{"Png", {"render", "room/scan.raw", "-o"}, "pano.png"},
                      Output{"Map", {"map", "room/scan.raw", "-o"}, "scan.map"}),
    [](const auto& info) { return std::string(info.param.name); });

// Extracted camera images: the images before the cut are whole, the one cut is
// its previous file, none after it is written, and no temporary file remains.
TEST_F(KvrscanTest, CameraExtractionUnderAWriteLimit) {
  SimulateRoom(4);
  ASSERT_EQ(Child({"camera", "room/Camera.dat", "-x", "ref"}).wait().status, 0);
  const std::set<std::string> images = Names(path("ref"));
  ASSERT_EQ(images.size(), 3u);
  const std::string first = *images.begin();
  const rlim_t size = fs::file_size(path("ref") / first);

  fs::create_directory("out");
  for (const rlim_t cut : {rlim_t{0}, size / 2, size - 1}) {
    WriteFile(path("out") / first, kPrevious);
    ExpectOneLineError(Child({"camera", "room/Camera.dat", "-x", "out"}, cut).wait(), 1,
                       "kvrscan camera: out/" + first + ": ", "(File too large)");
    EXPECT_EQ(ReadFileText(path("out") / first), kPrevious);
    EXPECT_EQ(Names(path("out")), std::set<std::string>{first});
  }
}

// SIGINT and SIGTERM at moments spread over an export: the tool ends as the
// signal ends a process, with the previous file in place and no temporary
// file; or it finished first and the file is complete. SIGKILL cannot be
// caught: the target is still whole, only a temporary file may remain.
TEST_F(KvrscanTest, ExportKilledAtRandomMomentsLeavesTheTargetWhole) {
  SimulateRoom(120);
  const std::vector<std::string> args{"export", "room/scan.raw", "--threads", "2", "-o", "out/points.ply"};
  fs::create_directory("out");
  const auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(Child(args).wait().status, 0);
  const auto whole = std::chrono::steady_clock::now() - start;
  const std::vector<std::uint8_t> complete = ReadFileBytes(path("out/points.ply"));

  std::mt19937 random(23);
  std::uniform_real_distribution<double> moment(0.0, 1.1);
  int interrupted = 0;
  for (const int signal : {SIGINT, SIGTERM, SIGINT, SIGTERM, SIGINT, SIGTERM, SIGINT, SIGTERM, SIGKILL, SIGKILL}) {
    WriteFile(path("out/points.ply"), kPrevious);
    Child child(args);
    std::this_thread::sleep_for(std::chrono::duration_cast<std::chrono::microseconds>(whole * moment(random)));
    child.kill(signal);
    const ToolRun run = child.wait();
    if (run.status == 0) {
      EXPECT_EQ(ReadFileBytes(path("out/points.ply")), complete);
      continue;
    }
    ++interrupted;
    EXPECT_EQ(run.status, 128 + signal) << run.err;
    // A signal after the rename finds the new file in place: whole as well.
    const std::vector<std::uint8_t> now = ReadFileBytes(path("out/points.ply"));
    EXPECT_TRUE(now == complete || ReadFileText(path("out/points.ply")) == kPrevious) << "signal " << signal;
    if (signal != SIGKILL) {
      EXPECT_EQ(Names(path("out")), std::set<std::string>{"points.ply"}) << "signal " << signal;
    }
  }
  EXPECT_GE(interrupted, 3);
}

// Two exports of different points to one target at once: both succeed and the
// target is one of the two files whole, never a mix.
TEST_F(KvrscanTest, ConcurrentExportsToOneTargetLeaveOneWholeFile) {
  SimulateRoom(40);
  const auto exportArgs = [](const std::string& returns, const std::string& target) {
    return std::vector<std::string>{"export", "room/scan.raw", "--returns", returns, "-o", target};
  };
  ASSERT_EQ(Child(exportArgs("first", "first.ply")).wait().status, 0);
  ASSERT_EQ(Child(exportArgs("last", "last.ply")).wait().status, 0);
  const std::vector<std::uint8_t> first = ReadFileBytes(path("first.ply")), last = ReadFileBytes(path("last.ply"));
  ASSERT_NE(first, last);
  fs::create_directory("out");
  for (int round = 0; round < 4; ++round) {
    Child a(exportArgs("first", "out/points.ply"));
    Child b(exportArgs("last", "out/points.ply"));
    for (Child* child : {&a, &b}) {
      const ToolRun run = child->wait();
      EXPECT_EQ(run.status, 0) << run.err;
    }
    const std::vector<std::uint8_t> result = ReadFileBytes(path("out/points.ply"));
    EXPECT_TRUE(result == first || result == last) << "round " << round;
    EXPECT_EQ(Names(path("out")), std::set<std::string>{"points.ply"});
  }
}

// A scan still being written ends inside a block: every command reads the whole
// blocks before it, as it reads a scan cut at that block's start, and says
// where the file ends.
TEST_F(KvrscanTest, GrowingScanIsReadUpToItsLastWholeBlock) {
  SimulateRoom(20);
  const std::uintmax_t size = fs::file_size(path("room/scan.raw"));
  const std::uintmax_t blockSize = 65536;
  fs::create_directories(path("growing"));
  fs::create_directories(path("whole"));
  fs::copy_file(path("room/scan.raw"), path("growing/scan.raw"));
  fs::copy_file(path("room/scan.raw"), path("whole/scan.raw"));
  const std::uintmax_t dataOffset = le::LoadU32(ReadFileBytes(path("room/scan.raw")).data() + 12);
  const std::uintmax_t wholeBlocks = (size - dataOffset) / blockSize - 1;
  fs::resize_file(path("growing/scan.raw"), dataOffset + wholeBlocks * blockSize + 1000);
  fs::resize_file(path("whole/scan.raw"), dataOffset + wholeBlocks * blockSize);
  const std::string ends = "growing/scan.raw: the file ends inside block " + std::to_string(wholeBlocks) + " (1000 of 65536 bytes";
  const struct {
    std::vector<std::string> args;  // SCAN and OUT stand for the scan and the output in its folder
    const char* output;
  } commands[] = {{{"export", "SCAN", "-o", "OUT"}, "points.ply"},
                  {{"export", "SCAN", "-o", "OUT", "--threads", "3"}, "points.las"},
                  {{"render", "SCAN", "-o", "OUT"}, "pano.png"},
                  {{"info", "SCAN"}, nullptr}};
  for (const auto& c : commands) {
    for (const std::string scan : {"growing", "whole"}) {
      std::vector<std::string> args = c.args;
      for (std::string& arg : args) {
        if (arg == "SCAN") arg = scan + "/scan.raw";
        if (arg == "OUT") arg = scan + "/" + c.output;
      }
      const ToolRun run = Child(args).wait();
      if (scan == "whole") {
        EXPECT_EQ(run.status, 0) << run.err;
      } else {
        ExpectOneLineError(run, 1, "kvrscan " + c.args[0] + ": " + ends, "");
      }
    }
    if (c.output != nullptr) {
      EXPECT_EQ(ReadFileBytes(path("growing") / c.output), ReadFileBytes(path("whole") / c.output)) << c.output;
    }
  }
}

}  // namespace
}  // namespace kvr::test
