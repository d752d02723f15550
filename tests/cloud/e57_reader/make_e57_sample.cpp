// Writes what the E57 reader test compares. Three synthetic scans: "lines.raw"
// (eight blocks, many lines, timed by Serial.dat), "plain.raw" (three blocks,
// untimed) and "short.raw" (one block); then single.e57 (lines.raw alone),
// short.e57 (short.raw alone) and set.e57 (all three, with a PNG made from a
// netpbm record and a JPEG after the first scan). Beside them, each scan's
// points as SCAN.txt: the layer's columns, one point a line, every number in
// its shortest exact form, and each file's scans and images as FILE.json.

#include <cstdio>
#include <filesystem>
#include <string>

#include "kvr_decode/cloud/e57_writer.h"
#include "kvr_decode/cloud/point_reader.h"
#include "support/sample_scans.h"

namespace {

using namespace kvr;

constexpr auto Field = [](std::string& line, auto value) { test::AppendNumber(line, value); };

void MakeScan(const std::filesystem::path& path, std::uint64_t seed, int blocks) {
  writers::HeaderBlockFields fields = test::SampleFields();
  fields.idText1 = "KVR laser scanner, simulated";
  fields.idText2 = "S/N 4711";
  fields.idText3 = "firmware 4.2.1";
  test::WriteSyntheticScan(path, fields, seed, 4, blocks);
}

// Writes the scan's points into every writer given and its columns into DIR/NAME.txt.
std::string WriteScan(const std::filesystem::path& dir, const cloud::Scan& scan, std::vector<cloud::E57Writer*> files) {
  const cloud::E57ScanInfo info = cloud::E57ScanInfo::Of(scan);
  for (cloud::E57Writer* file : files) file->beginScan(info);
  const std::string name = scan.path().stem().string();
  std::FILE* columns = std::fopen((dir / (name + ".txt")).string().c_str(), "w");
  if (columns == nullptr) throw std::runtime_error("cannot write " + name + ".txt");
  std::fputs("x y z range pan scanAngle intensity returnNumber numberOfReturns line shotIndex time\n", columns);
  cloud::Selection selection;
  selection.columns = cloud::E57Writer::kColumns;
  cloud::PointReader reader(scan, selection);
  cloud::PointBatch batch;
  std::string line;
  while (reader.next(batch)) {
    for (cloud::E57Writer* file : files) file->write(batch);
    for (std::size_t i = 0; i < batch.size(); ++i) {
      line.clear();
      Field(line, batch.x()[i]), Field(line, batch.y()[i]), Field(line, batch.z()[i]);
      Field(line, batch.range()[i]), Field(line, batch.pan()[i]), Field(line, batch.scanAngle()[i]);
      Field(line, unsigned{batch.intensity()[i]});
      Field(line, unsigned{batch.returnNumber()[i]}), Field(line, unsigned{batch.numberOfReturns()[i]});
      Field(line, batch.line()[i]), Field(line, batch.shotIndex()[i]), Field(line, batch.time()[i]);
      line.back() = '\n';
      std::fputs(line.c_str(), columns);
    }
  }
  for (cloud::E57Writer* file : files) file->endScan();
  if (std::fclose(columns) != 0) throw std::runtime_error("cannot write " + name + ".txt");
  return "{\"name\": \"" + info.name + "\", \"guid\": \"" + info.guid + "\", \"columns\": \"" + name +
         ".txt\", \"lines\": " + std::to_string(info.lineStarts.size()) + ", \"ticks\": " +
         (scan.tickFile() ? "true" : "false") + "}";
}

void WriteJson(const std::filesystem::path& path, const std::vector<std::string>& scans, const std::string& images) {
  std::string text = "{\"scans\": [";
  for (std::size_t i = 0; i < scans.size(); ++i) text += (i > 0 ? ", " : "") + scans[i];
  text += "], \"images\": [" + images + "]}\n";
  std::FILE* out = std::fopen(path.string().c_str(), "w");
  if (out == nullptr || std::fputs(text.c_str(), out) < 0 || std::fclose(out) != 0) {
    throw std::runtime_error("cannot write " + path.string());
  }
}

int Run(const std::filesystem::path& dir) {
  std::filesystem::create_directories(dir);
  MakeScan(dir / "lines.raw", 20251125, 8);
  MakeScan(dir / "plain.raw", 7, 3);
  MakeScan(dir / "short.raw", 99, 1);
  test::WriteSampleTicks(dir / "Serial.dat");

  cloud::ScanOptions timed;
  timed.ticks = dir / "Serial.dat";
  const cloud::Scan lines(dir / "lines.raw", timed), plain(dir / "plain.raw"), shortScan(dir / "short.raw");
  cloud::E57Writer single(dir / "single.e57"), set(dir / "set.e57"), alone(dir / "short.e57");

  std::vector<std::string> setScans;
  const std::string first = WriteScan(dir, lines, {&single, &set});
  setScans.push_back(first);
  // A 3 x 2 colour netpbm image (maxval 255) and a JPEG's first bytes with a
  // 640 x 480 frame header: the reader takes the blobs as they are.
  const std::string ppm = "P6\n# camera\n3 2\n255\n" + std::string(18, '\x40');
  const auto png = cloud::NetpbmAsPng({reinterpret_cast<const std::uint8_t*>(ppm.data()), ppm.size()});
  if (!png) throw std::runtime_error("the netpbm image was not encoded");
  set.addImage({"image_0001", *png, 1448000000.5});
  set.addImage({"image_0002",
                {0xFF, 0xD8, 0xFF, 0xE0, 0x00, 0x04, 0x00, 0x00, 0xFF, 0xC0, 0x00, 0x0B, 0x08, 0x01, 0xE0, 0x02,
                 0x80, 0x01, 0x01, 0x11, 0x00, 0xFF, 0xD9},
                {}});
  setScans.push_back(WriteScan(dir, plain, {&set}));
  const std::string shortOne = WriteScan(dir, shortScan, {&set, &alone});
  setScans.push_back(shortOne);
  single.finish();
  set.finish();
  alone.finish();
  const std::string guid = first.substr(first.find("\"guid\": \"") + 9, 38);
  WriteJson(dir / "single.json", {first}, "");
  WriteJson(dir / "short.json", {shortOne}, "");
  WriteJson(dir / "set.json", setScans,
            "{\"name\": \"image_0001\", \"kind\": \"png\", \"width\": 3, \"height\": 2, \"scan\": \"" + guid +
                "\"}, {\"name\": \"image_0002\", \"kind\": \"jpeg\", \"width\": 640, \"height\": 480, \"scan\": \"" +
                guid + "\"}");
  return 0;
}

}  // namespace

int main(int argc, char** argv) { return kvr::test::SampleMain(argc, argv, "make_e57_sample", Run); }
