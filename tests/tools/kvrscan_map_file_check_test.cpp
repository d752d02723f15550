// A map file is checked whole before the library loads it: cut anywhere, or
// with bytes after its end, it is refused with the part that is missing.

#include "kvr_simulator/scan_set.h"
#include "platform/little_endian.h"
#include "tools/kvrscan_fixture.h"

namespace kvr::test {
namespace {

namespace fs = std::filesystem;

// Where a cut is measured from: the file's start, the end of the scan file name
// (after which come the line count and 24-byte line entries; in this map the
// first has no event shots, the second three), or its end (a
// version 2 map ends with 88 bytes of intensity model, the 4-byte version, 32
// bytes of return counts and the 8-byte bin width).
enum class From { kStart, kName, kEnd };

struct Cut {
  From from;
  std::int64_t at;      // bytes kept, from there
  std::string refusal;  // after "MAPFILE: "; empty: the map loads
};

class KvrscanCutMap : public KvrscanTest {
 protected:
  void SetUp() override {
    sim::SimulationOptions options;
    options.lines = 6;
    options.threads = 1;
    sim::WriteScanSet("room", options);
    const ToolRun saved = Run({"map", "room/scan.raw", "-o", "scan.map"});
    ASSERT_EQ(saved.status, 0) << saved.err;
    map_ = ReadFileBytes(path("scan.map"));
    nameEnd_ = 46 + le::LoadU32(map_.data() + 42);
  }

  // The saved map with its first `keep` bytes (more: zeros appended), as cut.map.
  void WriteCut(const Cut& cut) const {
    const std::int64_t base = cut.from == From::kStart ? 0 : cut.from == From::kName ? nameEnd_ : map_.size();
    std::vector<std::uint8_t> bytes = map_;
    bytes.resize(static_cast<std::size_t>(base + cut.at), 0);
    WriteFile(path("cut.map"), bytes);
  }

  std::vector<std::uint8_t> map_;
  std::int64_t nameEnd_ = 0;
};

TEST_F(KvrscanCutMap, IsRefusedNamingTheMissingPart) {
  const std::string size = std::to_string(map_.size());
  const std::string shorter = std::to_string(map_.size() - 1);
  const Cut cuts[] = {
      {From::kStart, 0, "not a map file: no \"#KVRMAPF\" at offset 26"},
      {From::kStart, 33, "not a map file: no \"#KVRMAPF\" at offset 26"},
      {From::kStart, 34, "map file cut short: it ends inside the fixed fields (the file has 34 bytes, that part "
                         "ends at byte 46)"},
      {From::kStart, 45, "map file cut short: it ends inside the fixed fields (the file has 45 bytes"},
      {From::kStart, 46, "map file cut short: it ends inside the scan file name"},
      {From::kName, 3, "map file cut short: it ends inside the scan line count"},
      {From::kName, 4 + 23, "map file cut short: it ends inside scan line entry 0 of "},
      {From::kName, 4 + 24, "map file cut short: it ends inside scan line entry 1 of 6 "},
      {From::kName, 4 + 48 + 11, "map file cut short: it ends inside the event shots of scan line entry 1 of 6 "},
      {From::kEnd, -133, "map file cut short: it ends inside the scan header's text 4"},
      {From::kEnd, -132, "map file cut short: it ends inside the intensity model"},
      {From::kEnd, -45, "map file cut short: it ends inside the intensity model"},
      {From::kEnd, -44, "map file cut short: it ends inside the map version"},
      {From::kEnd, -41, "map file cut short: it ends inside the map version"},
      {From::kEnd, -40, "map file cut short: it ends inside the return counts"},
      {From::kEnd, -9, "map file cut short: it ends inside the return counts"},
      {From::kEnd, -8, "map file cut short: it ends inside the bin width"},
      {From::kEnd, -1, "map file cut short: it ends inside the bin width (the file has " + shorter +
                           " bytes, that part ends at byte " + size + ")"},
      {From::kEnd, 1, "not a map file: 1 bytes follow the last field of a version 2 map"},
      {From::kEnd, 0, ""},
  };
  for (const Cut& cut : cuts) {
    WriteCut(cut);
    const ToolRun run = Run({"map", "room/scan.raw", "--load", "cut.map"});
    if (cut.refusal.empty()) {
      EXPECT_EQ(run.status, 0) << run.err;
    } else {
      ExpectOneLineError(run, 1, "kvrscan map: cut.map: " + cut.refusal, "");
    }
  }
}

// Older versions end earlier: version 1 has no bin width, version 0 no return
// counts either. Each is whole at its own length and cut one byte shorter.
TEST_F(KvrscanCutMap, OlderVersionsEndWhereTheirVersionSays) {
  const struct {
    std::uint8_t version;
    std::int64_t length;  // from the end of a version 2 map
    const char* lastPart;
  } versions[] = {{1, -8, "the return counts"}, {0, -40, "the map version"}};
  for (const auto& v : versions) {
    map_[map_.size() - 44] = v.version;
    WriteCut({From::kEnd, v.length, ""});
    EXPECT_EQ(Run({"map", "room/scan.raw", "--load", "cut.map"}).status, 0) << int{v.version};
    WriteCut({From::kEnd, v.length - 1, ""});
    ExpectOneLineError(Run({"map", "room/scan.raw", "--load", "cut.map"}), 1,
                       std::string("kvrscan map: cut.map: map file cut short: it ends inside ") + v.lastPart, "");
  }
}

// Every command that takes a map refuses a cut one the same way.
TEST_F(KvrscanCutMap, IsRefusedByEveryCommandThatTakesAMap) {
  WriteCut({From::kEnd, -1, ""});
  const std::vector<std::vector<std::string>> commands = {
      {"line", "room/scan.raw", "0", "--map", "cut.map"},
      {"export", "room/scan.raw", "-o", "points.ply", "--map", "cut.map"},
      {"render", "room/scan.raw", "-o", "pano.png", "--map", "cut.map"},
  };
  for (const auto& args : commands) {
    ExpectOneLineError(Run(args), 1, "kvrscan " + args[0] + ": cut.map: map file cut short: it ends inside the bin width",
                       "");
  }
  EXPECT_FALSE(fs::exists(path("points.ply")));
  EXPECT_FALSE(fs::exists(path("pano.png")));
}

}  // namespace
}  // namespace kvr::test
