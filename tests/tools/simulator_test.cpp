#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include "kvr_simulator/command_line.h"
#include "kvr_simulator/scan_set.h"
#include "kvr_simulator/scene.h"
#include "support/temp_dir.h"

namespace kvr::sim {
namespace {

// A 10 x 8 x 4 m room seen from (5, 4, 2): a box A at x 7..8, y 3..5 up to 3 m;
// a low box B at x 6..6.4, y 3.8..4.2, 0.3 m high; a window in the wall x = 10
// over y 0.5..1.5, z 1..2.
Scene TestRoom() {
  Scene scene;
  scene.room = {10.0, 8.0, 4.0};
  scene.scanner = {5.0, 4.0, 2.0};
  scene.boxes = {{{7.0, 3.0, 0.0}, {8.0, 5.0, 3.0}, 0.5}, {{6.0, 3.8, 0.0}, {6.4, 4.2, 0.3}, 0.6}};
  scene.openings = {{1, 0.5, 1.5, 1.0, 2.0}};
  return scene;
}

Vec3 Toward(double x, double y, double z) { return Normalized(Vec3{x - 5.0, y - 4.0, z - 2.0}); }

struct CastCase {
  const char* name;
  Vec3 direction;
  bool hit;
  double distance, cosIncidence, reflectance;
};

class CastInTestRoom : public testing::TestWithParam<CastCase> {};

TEST_P(CastInTestRoom, FindsTheNearestSurface) {
  const CastCase& c = GetParam();
  const RayCaster caster(TestRoom(), Beam{});
  const auto hit = caster.Cast({5.0, 4.0, 2.0}, c.direction);
  ASSERT_EQ(hit.has_value(), c.hit);
  if (!c.hit) return;
  EXPECT_NEAR(hit->distance, c.distance, 1e-12);
  EXPECT_NEAR(hit->cosIncidence, c.cosIncidence, 1e-12);
  EXPECT_EQ(hit->reflectance, c.reflectance);
}

INSTANTIATE_TEST_SUITE_P(Scene, CastInTestRoom,
                         testing::Values(CastCase{"Wall", {0, 1, 0}, true, 4.0, 1.0, 0.8},
                                         CastCase{"Floor", {0, 0, -1}, true, 2.0, 1.0, 0.35},
                                         CastCase{"Ceiling", {0, 0, 1}, true, 2.0, 1.0, 0.85},
                                         CastCase{"BoxInFront", {1, 0, 0}, true, 2.0, 1.0, 0.5},
                                         CastCase{"BackWall", {-1, 0, 0}, true, 5.0, 1.0, 0.8},
                                         CastCase{"ObliqueCeiling", Normalized({0, 1, 1}), true, 2.0 * std::sqrt(2.0),
                                                  std::sqrt(0.5), 0.85},
                                         CastCase{"ThroughTheWindow", Toward(10.0, 1.0, 1.5), false, 0, 0, 0}),
                         [](const auto& info) { return std::string(info.param.name); });

struct BeamCase {
  const char* name;
  Vec3 direction;
  std::vector<double> distances;  // of the returns, nearest first
  double tolerance;               // of the distances
  std::vector<double> shares;     // their parts of the beam, within 0.2
};

class BeamInTestRoom : public testing::TestWithParam<BeamCase> {};

TEST_P(BeamInTestRoom, EchoesFromEverySurfaceItsFootprintMeets) {
  const BeamCase& c = GetParam();
  const RayCaster caster(TestRoom(), Beam{});
  std::array<BeamReturn, kMaxReturns> echoes;
  const int n = caster.BeamReturns({5.0, 4.0, 2.0}, c.direction, echoes);
  ASSERT_EQ(static_cast<std::size_t>(n), c.distances.size());
  for (int i = 0; i < n; ++i) {
    EXPECT_NEAR(echoes[i].distance, c.distances[i], c.tolerance) << i;
    EXPECT_NEAR(echoes[i].share, c.shares[i], 0.2) << i;
  }
}

// Box A's edge at (7, 5, 2) lies sqrt(5) away, the wall behind it 2.5 sqrt(5).
// Box B's top edge at (6.4, 4, 0.3) lies 2.202 m away and the floor behind it
// 2.591 m: closer than the receiver can separate, so one echo between the two.
// Half the footprint at the window's top edge leaves the room.
INSTANTIATE_TEST_SUITE_P(
    Scene, BeamInTestRoom,
    testing::Values(BeamCase{"BoxFace", Toward(7.0, 4.0, 1.5), {2.0615528128}, 1e-9, {1.0}},
                    BeamCase{
                        "BoxEdgeWithTheWallBehind", Toward(7.0, 5.0, 2.0), {2.2360680, 5.5901699}, 0.01, {0.5, 0.5}},
                    BeamCase{"LowBoxEdgeWithTheFloorClose", Toward(6.4, 4.0, 0.3), {2.3966}, 0.195, {1.0}},
                    BeamCase{"WindowEdge", Toward(10.0, 1.0, 2.0), {5.8309519}, 0.01, {0.5}},
                    BeamCase{"ThroughTheWindow", Toward(10.0, 1.0, 1.5), {}, 0, {}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(FurnishedRoom, KeepsFurnitureInsideTheRoomAndClearOfTheScanner) {
  for (const RoomSize room : {RoomSize{8, 6, 3}, RoomSize{2, 2, 2}, RoomSize{3.5, 2.5, 2.2}, RoomSize{30, 12, 6}}) {
    for (const std::uint64_t seed : {1ull, 2ull, 99ull}) {
      const Scene s = FurnishedRoom(seed, room);
      const std::string where = std::to_string(room.length) + " m room, seed " + std::to_string(seed);
      EXPECT_GT(s.scanner.x, 0.3 * room.length) << where;
      EXPECT_LT(s.scanner.x, 0.7 * room.length) << where;
      EXPECT_GT(s.scanner.y, 0.3 * room.width) << where;
      EXPECT_LT(s.scanner.y, 0.7 * room.width) << where;
      EXPECT_LT(s.scanner.z, room.height) << where;
      EXPECT_GE(s.boxes.size(), 3u) << where;  // the tripod at least
      for (const Box& b : s.boxes) {
        EXPECT_TRUE(b.min.x >= 0 && b.min.y >= 0 && b.min.z >= 0 && b.max.x <= room.length && b.max.y <= room.width &&
                    b.max.z <= room.height)
            << where;
        const bool containsScanner = s.scanner.x >= b.min.x && s.scanner.x <= b.max.x && s.scanner.y >= b.min.y &&
                                     s.scanner.y <= b.max.y && s.scanner.z >= b.min.z && s.scanner.z <= b.max.z;
        EXPECT_FALSE(containsScanner) << where;
      }
      ASSERT_EQ(s.openings.size(), 2u) << where;
      for (const Opening& o : s.openings) {
        const double wall = o.wall < 2 ? room.width : room.length;
        EXPECT_TRUE(o.u0 >= 0 && o.u1 <= wall && o.u0 < o.u1 && o.z0 >= 0 && o.z1 <= room.height && o.z0 < o.z1)
            << where;
      }
    }
  }
}

TEST(Intensity, FallsWithRangeAndSaturates) {
  std::uint32_t previous = 4096;
  for (const double distance : {0.5, 1.0, 2.0, 4.0, 8.0, 16.0, 32.0}) {
    const std::uint32_t intensity = IntensityOf({distance, 1.0, 0.5, 1.0}, 0.0);
    EXPECT_LT(intensity, previous) << distance;
    previous = intensity;
  }
  EXPECT_EQ(IntensityOf({0.1, 1.0, 1.0, 1.0}, 1.0), 4095u);
  EXPECT_LT(IntensityOf({3.0, 1.0, 0.5, 0.5}, 0.0), IntensityOf({3.0, 1.0, 0.5, 1.0}, 0.0));
}

struct InvalidOptions {
  const char* name;
  void (*change)(SimulationOptions&);
  const char* message;
};

class RejectedOptions : public testing::TestWithParam<InvalidOptions> {};

TEST_P(RejectedOptions, NameTheOption) {
  SimulationOptions o;
  GetParam().change(o);
  try {
    ValidateOptions(o);
    ADD_FAILURE() << "accepted";
  } catch (const std::invalid_argument& e) {
    EXPECT_EQ(std::string(e.what()), GetParam().message);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Options, RejectedOptions,
    testing::Values(
        InvalidOptions{"Prf", [](SimulationOptions& o) { o.prf = 100; }, "prf must be 50, 200 or 500 (kHz), not 100"},
        InvalidOptions{"NinetyDegreeSignature", [](SimulationOptions& o) { o.signature = "MX700DAT"; },
                       "a 90-degree scanner writes \"#KVRSCAN\" or \"#MX70DAT\", not \"MX700DAT\""},
        InvalidOptions{"ThreeSixtySignature",
                       [](SimulationOptions& o) {
                         o.kind = ScannerKind::kThreeSixty;
                         o.signature = "#KVRSCAN";
                       },
                       "a 360-degree scanner writes \"MX700DAT\", not \"#KVRSCAN\""},
        InvalidOptions{"NoLines", [](SimulationOptions& o) { o.lines = 0; }, "lines must be at least 1"},
        InvalidOptions{"LineRateNaN",
                       [](SimulationOptions& o) { o.linesPerSecond = std::numeric_limits<double>::quiet_NaN(); },
                       "linesPerSecond must be positive"},
        InvalidOptions{"TooFewShotsPerLine",
                       [](SimulationOptions& o) {
                         o.prf = 50;
                         o.linesPerSecond = 10000;
                       },
                       "linesPerSecond gives 5.000000 shots per line; 16 to 1000000 can be simulated"},
        InvalidOptions{"ClockWraps", [](SimulationOptions& o) { o.lines = 4000000; },
                       "the scan is too long for the 40-bit clock"},
        InvalidOptions{"RoomTooSmall", [](SimulationOptions& o) { o.room.height = 1.9; },
                       "each room dimension must be at least 2 m"},
        InvalidOptions{"RoomTooLarge", [](SimulationOptions& o) { o.room.length = 1000.5; },
                       "each room dimension must be at most 1000 m"},
        InvalidOptions{"RoomInfinite",
                       [](SimulationOptions& o) { o.room.width = std::numeric_limits<double>::infinity(); },
                       "room dimensions must be finite"},
        InvalidOptions{"ScanFileInADirectory", [](SimulationOptions& o) { o.scanFileName = "sub/scan.raw"; },
                       "the scan file name must be a plain file name"},
        InvalidOptions{"ManyImages", [](SimulationOptions& o) { o.cameraImages = 65; }, "at most 64 camera images"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(SimulateArguments, SetEveryOption) {
  const SimulateCommand c = ParseSimulateArguments(
      {"out", "--seed", "7", "--kind", "360", "--prf", "500", "--lines", "12", "--lines-per-second", "100", "--room",
       "4x3.5x2.5", "--signature", "MX700DAT", "--camera-images", "2", "--threads", "1"});
  EXPECT_EQ(c.directory, "out");
  EXPECT_EQ(c.options.seed, 7u);
  EXPECT_EQ(c.options.kind, ScannerKind::kThreeSixty);
  EXPECT_EQ(c.options.prf, 500u);
  EXPECT_EQ(c.options.lines, 12u);
  EXPECT_EQ(c.options.linesPerSecond, 100.0);
  EXPECT_EQ(c.options.room.length, 4.0);
  EXPECT_EQ(c.options.room.width, 3.5);
  EXPECT_EQ(c.options.room.height, 2.5);
  EXPECT_EQ(c.options.signature, "MX700DAT");
  EXPECT_EQ(c.options.cameraImages, 2u);
  EXPECT_EQ(c.options.threads, 1u);
  EXPECT_FALSE(c.scanBytes);
  EXPECT_EQ(ParseSimulateArguments({"--size", "1G", "out"}).scanBytes, 1073741824u);
}

struct BadArguments {
  std::vector<std::string> arguments;
  const char* message;
};

class RejectedArguments : public testing::TestWithParam<BadArguments> {};

TEST_P(RejectedArguments, SayWhatIsWrong) {
  try {
    ParseSimulateArguments(GetParam().arguments);
    ADD_FAILURE() << "accepted";
  } catch (const std::invalid_argument& e) {
    EXPECT_EQ(std::string(e.what()), GetParam().message);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Options, RejectedArguments,
    testing::Values(BadArguments{{}, "the directory to write into is missing"},
                    BadArguments{{"a", "b"}, "unexpected argument 'b'"},
                    BadArguments{{"d", "--kind", "45"}, "--kind is 90 or 360, not \"45\""},
                    BadArguments{{"d", "--prf"}, "--prf needs a value (50|200|500)"},
                    BadArguments{{"d", "--seed", "12x"}, "--seed takes a number, not \"12x\""},
                    BadArguments{{"d", "--bogus", "1"}, "unknown option --bogus"},
                    BadArguments{{"d", "--lines", "3", "--size", "1M"}, "--lines and --size exclude each other"},
                    BadArguments{{"d", "--room", "4x3"}, "--room takes LxWxH in metres, not \"4x3\""},
                    BadArguments{{"d", "--prf", "100"}, "prf must be 50, 200 or 500 (kHz), not 100"},
                    BadArguments{{"d", "--size", "0"}, "--size must be a positive size, not \"0\""},
                    BadArguments{{"d", "--size", "G"}, "--size takes a number, not \"\""}));

TEST(SimulateArguments, ReadByteSizesWithUnits) {
  EXPECT_EQ(ParseByteSize("1G"), 1073741824u);
  EXPECT_EQ(ParseByteSize("512M"), 536870912u);
  EXPECT_EQ(ParseByteSize("64k"), 65536u);
  EXPECT_EQ(ParseByteSize("1.5K"), 1536u);
  EXPECT_EQ(ParseByteSize("1000"), 1000u);
  EXPECT_THROW(ParseByteSize("-1"), std::invalid_argument);
  EXPECT_THROW(ParseByteSize(""), std::invalid_argument);
}

SimulationOptions SmallScan(std::uint64_t seed, unsigned threads) {
  SimulationOptions o;
  o.seed = seed;
  o.prf = 50;
  o.linesPerSecond = 50;
  o.lines = 12;
  o.cameraImages = 2;
  o.threads = threads;
  return o;
}

TEST(ScanSet, IsTheSameForASeedWhateverTheThreadsOrObserver) {
  test::TempDir dir;
  ScanRecorder recorder;
  const ScanSetSummary one = WriteScanSet(dir / "one", SmallScan(5, 1));
  WriteScanSet(dir / "two", SmallScan(5, 2), &recorder);
  WriteScanSet(dir / "other", SmallScan(6, 2));
  for (const auto& name :
       {"scan.raw", "scan.raw.tbl", "scan.raw.NormalizationParams.txt", "Serial.dat", "Devices.dat", "Camera.dat"}) {
    EXPECT_EQ(test::ReadFileBytes(dir / "one" / name), test::ReadFileBytes(dir / "two" / name)) << name;
  }
  EXPECT_NE(test::ReadFileBytes(dir / "one" / "scan.raw"), test::ReadFileBytes(dir / "other" / "scan.raw"));
  EXPECT_EQ(recorder.shots.size(), one.counts.shots);
  EXPECT_EQ(recorder.blocks.size(), one.counts.blocks);
  EXPECT_EQ(recorder.lines.size(), 12u);
}

TEST(ScanSet, SizesTheScanFromATargetSize) {
  test::TempDir dir;
  SimulationOptions o = SmallScan(3, 0);
  const std::uint64_t target = 3 << 20;
  o.lines = LinesForScanBytes(o, target);
  const ScanSetSummary s = WriteScanSet(dir.path(), o);
  EXPECT_NEAR(static_cast<double>(s.scanFileBytes), static_cast<double>(target), 0.03 * target);
}

TEST(ScanSet, FailuresSayWhatCouldNotBeWritten) {
  test::TempDir dir;
  SimulationOptions bad = SmallScan(1, 1);
  bad.prf = 300;
  EXPECT_THROW(WriteScanSet(dir / "bad", bad), std::invalid_argument);
  EXPECT_FALSE(std::filesystem::exists(dir / "bad"));

  test::WriteFile(dir / "file", std::string("x"));
  EXPECT_THROW(WriteScanSet(dir / "file", SmallScan(1, 1)), std::runtime_error);

  std::filesystem::create_directories(dir / "taken" / "scan.raw");
  try {
    WriteScanSet(dir / "taken", SmallScan(1, 1));
    ADD_FAILURE() << "no exception";
  } catch (const std::runtime_error& e) {
    EXPECT_TRUE(std::string(e.what()).starts_with((dir / "taken" / "scan.raw").string() + ": cannot replace the file ("))
        << e.what();
  }
}

}  // namespace
}  // namespace kvr::sim
