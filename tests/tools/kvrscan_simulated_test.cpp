// The tool on the simulator's scans: the exported points lie on the simulated
// room's surfaces, the panorama covers the room, and simulate's options.

#include <cmath>
#include <cstring>

#include "kvr_simulator/scan_set.h"
#include "tools/kvrscan_fixture.h"

namespace kvr::test {
namespace {

struct Vertex {
  float x, y, z;
  std::uint8_t numberOfReturns;
};

std::vector<Vertex> ReadVertices(const std::filesystem::path& path) {
  const std::vector<std::uint8_t> bytes = ReadFileBytes(path);
  const std::string text(bytes.begin(), bytes.end());
  const std::size_t body = text.find("end_header\n") + 11;
  const std::size_t count = std::stoul(text.substr(text.find("element vertex ") + 15));
  EXPECT_EQ(bytes.size() - body, count * 31);
  std::vector<Vertex> vertices(count);
  for (std::size_t i = 0; i < count; ++i) {
    const std::uint8_t* at = bytes.data() + body + i * 31;
    std::memcpy(&vertices[i].x, at, 4);
    std::memcpy(&vertices[i].y, at + 4, 4);
    std::memcpy(&vertices[i].z, at + 8, 4);
    vertices[i].numberOfReturns = at[15];
  }
  return vertices;
}

struct Kind {
  const char* name;
  sim::ScannerKind kind;
};

class KvrscanSimulated : public KvrscanTest, public ::testing::WithParamInterface<Kind> {};

// Each single-return point, taken back into the room by the simulator's own
// scanner pose, lies where a ray from the scanner along its direction meets
// the room: within two counts of range (3.9 mm).
TEST_P(KvrscanSimulated, ExportedPointsLieOnTheRoomsSurfaces) {
  sim::SimulationOptions options;
  options.kind = GetParam().kind;
  options.lines = 40;
  options.linesPerSecond = 200;  // 1000 shots a line
  options.threads = 2;
  const sim::ScanSetSummary truth = sim::WriteScanSet(path("room"), options);
  const ToolRun run = Run({"export", "room/scan.raw", "-o", "points.ply"});
  ASSERT_EQ(run.status, 0) << run.err;

  const std::vector<Vertex> vertices = ReadVertices(path("points.ply"));
  ASSERT_GT(vertices.size(), 30000u);
  const sim::RayCaster caster(truth.scene, truth.plan.beam);
  std::size_t checked = 0, onSurface = 0;
  for (std::size_t i = 0; i < vertices.size(); i += 7) {
    const Vertex& v = vertices[i];
    if (v.numberOfReturns != 1) continue;
    const sim::Vec3 inRoom = truth.plan.scannerToRoom(sim::Vec3{v.x, v.y, v.z}) + truth.plan.origin;
    const double distance = sim::Length(inRoom - truth.plan.origin);
    const auto hit = caster.Cast(truth.plan.origin, sim::Normalized(inRoom - truth.plan.origin));
    ++checked;
    if (hit && std::abs(hit->distance - distance) < 0.0039) ++onSurface;
  }
  EXPECT_GT(checked, 4000u);
  EXPECT_GE(static_cast<double>(onSurface), 0.995 * static_cast<double>(checked)) << onSurface << " of " << checked;
}

TEST_P(KvrscanSimulated, PanoramaCoversTheRoom) {
  const std::string kind = GetParam().kind == sim::ScannerKind::kThreeSixty ? "360" : "90";
  const Json simulated = RunJson({"simulate", "room", "--lines", "60", "--kind", kind});
  EXPECT_EQ(simulated.at("num_lines").get<std::int64_t>(), 60);
  const Json map = RunJson({"map", "room/scan.raw"});
  const Json render = RunJson({"render", "room/scan.raw", "-o", "pano.png"});
  EXPECT_EQ(render.at("width").get<std::int64_t>(), map.at("num_lines").get<std::int64_t>());
  // A closed room returns almost every shot: only the door and window let beams out.
  const double filled = render.at("pixels_filled").get<double>() /
                        (render.at("width").get<double>() * render.at("height").get<double>());
  EXPECT_GT(filled, 0.85);
}

INSTANTIATE_TEST_SUITE_P(Scanners, KvrscanSimulated,
                         ::testing::Values(Kind{"NinetyDegree", sim::ScannerKind::kNinetyDegree},
                                           Kind{"ThreeSixty", sim::ScannerKind::kThreeSixty}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(KvrscanTest, SimulateWritesTheScanSetItSays) {
  const Json set = RunJson({"simulate", "out", "--lines", "20", "--prf", "500", "--seed", "7"});
  EXPECT_EQ(set.at("prf").get<std::int64_t>(), 500);
  EXPECT_EQ(set.at("seed").get<std::int64_t>(), 7);
  EXPECT_EQ(set.at("signature").get<std::string>(), "#KVRSCAN");
  for (const char* file : {"out/scan.raw", "out/scan.raw.tbl", "out/Serial.dat", "out/Devices.dat", "out/Camera.dat"}) {
    EXPECT_TRUE(std::filesystem::exists(path(file))) << file;
  }
  const Json info = RunJson({"info", "out/scan.raw", "--stats"});
  EXPECT_EQ(info.at("metadata").at("header").at("prf").get<std::int64_t>(), 500);
  EXPECT_EQ(info.at("stats").at("num_shots").get<std::int64_t>(), set.at("num_shots").get<std::int64_t>());
  EXPECT_EQ(info.at("stats").at("num_returns").get<std::int64_t>(), set.at("num_returns").get<std::int64_t>());
  EXPECT_EQ(RunJson({"simulate", "wide", "--lines", "20", "--kind", "360"}).at("signature").get<std::string>(), "MX700DAT");
}

TEST_F(KvrscanTest, SimulateRefusesWhatCannotBeSimulated) {
  ExpectOneLineError(Run({"simulate", "out", "--kind", "45"}), 2, "kvrscan simulate: --kind is 90 or 360, not '45'", "");
  ExpectOneLineError(Run({"simulate", "out", "--prf", "100"}), 2, "kvrscan simulate: --prf is 50, 200 or 500", "");
  ExpectOneLineError(Run({"simulate", "out", "--lines", "0"}), 2, "kvrscan simulate: --lines must lie between 1", "");
  WriteFile(path("file"), std::string_view("x"));
  const ToolRun run = Run({"simulate", "file/room"});
  EXPECT_EQ(run.status, 1);
  EXPECT_TRUE(run.err.starts_with("kvrscan simulate: ")) << run.err;
  EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
}

}  // namespace
}  // namespace kvr::test
