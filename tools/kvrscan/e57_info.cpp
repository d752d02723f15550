#include "e57_info.h"

#include <cctype>
#include <filesystem>

#include "app.h"
#include "console.h"
#include "errors.h"
#include "json_writer.h"
#include "kvr_decode/cloud/e57_reader.h"
#include "scan_source.h"

namespace kvrscan {

bool IsE57Name(const std::string& path) {
  std::string extension = std::filesystem::path(path).extension().string();
  for (char& c : extension) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return extension == ".e57";
}

namespace {

std::string SummaryJson(const std::string& path, const kvr::cloud::E57Summary& file) {
  JsonWriter json;
  json.beginObject().field("filename", path).field("format", "e57").field("guid", file.guid);
  json.field("pages", file.pages);
  std::uint64_t points = 0;
  for (const auto& scan : file.scans) points += scan.points;
  json.field("num_points", points);
  json.key("scans").beginArray();
  for (const auto& scan : file.scans) {
    json.beginObject().field("name", scan.name).field("guid", scan.guid).field("num_points", scan.points);
    json.field("line_groups", scan.groups).endObject();
  }
  json.endArray().key("images").beginArray();
  for (const auto& image : file.images) {
    json.beginObject().field("name", image.name).field("type", image.kind).field("width", image.width);
    json.field("height", image.height).field("bytes", image.bytes).field("scan", image.scanGuid).endObject();
  }
  json.endArray().endObject();
  return json.text();
}

std::string SummaryText(const std::string& path, const kvr::cloud::E57Summary& file) {
  TextReport report;
  report.line(path + ": E57 file, " + std::to_string(file.scans.size()) + " scans, " +
              std::to_string(file.images.size()) + " images, " + GroupedCount(file.pages) + " pages (checksums good)");
  report.heading("scans");
  for (const auto& scan : file.scans) {
    report.field(scan.name, GroupedCount(scan.points) + " points in " + GroupedCount(scan.groups) + " lines, " + scan.guid);
  }
  if (!file.images.empty()) {
    report.heading("images");
    for (const auto& image : file.images) {
      report.field(image.name, image.kind + " " + std::to_string(image.width) + " x " + std::to_string(image.height) +
                                   ", " + ByteSize(image.bytes));
    }
  }
  return report.text();
}

}  // namespace

int RunE57Info(const std::string& path, Context& context) {
  kvr::cloud::E57Summary file;
  Checked([&] { file = kvr::cloud::ReadE57Summary(path); });
  Console::write(context.json ? SummaryJson(path, file) : SummaryText(path, file));
  return kExitOk;
}

}  // namespace kvrscan
