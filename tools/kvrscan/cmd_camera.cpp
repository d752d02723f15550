// camera FILE [-x DIR]: the header and image records of a camera file, and
// optionally the images themselves written out one file each.

#include "camera_source.h"
#include "commands.h"
#include "console.h"
#include "errors.h"
#include "json_writer.h"
#include "scan_source.h"

namespace kvrscan {

namespace {

struct CameraOptions {
  std::string file;
  std::optional<std::string> extract;
  bool json = false;
};

std::string CameraJson(const std::string& path, const CameraContents& c) {
  JsonWriter json;
  json.beginObject().field("filename", path);
  json.field("timeStampPresent", c.timeStampPresent).field("textLength", c.text.size());
  json.field("text", c.text).field("headerValue", c.headerValue);
  json.key("records").beginArray();
  for (const CameraImage& image : c.images) {
    json.beginObject().field("index", image.index).field("offset", image.offset).field("timeStamp", image.timeStamp);
    json.numbers("recordValues", image.values).field("imageSize", image.imageSize).field("image_type", image.type);
    if (!image.extractedTo.empty()) json.field("extracted_to", image.extractedTo);
    json.endObject();
  }
  json.endArray().field("num_records", c.images.size()).field("image_bytes", c.imageBytes).endObject();
  return json.text();
}

std::string CameraText(const std::string& path, const CameraContents& c, const std::optional<std::string>& extractTo) {
  TextReport report;
  report.line(path + ": camera file, " + (c.timeStampPresent != 0 ? "with" : "without") + " time stamps, header value " +
              std::to_string(c.headerValue));
  report.heading("header text");
  const std::string text = PrintableText(c.text);
  for (std::size_t start = 0; start < text.size();) {
    const std::size_t end = std::min(text.find('\n', start), text.size());
    report.line("  " + text.substr(start, end - start));
    start = end + 1;
  }
  report.heading(Format("%8s %12s %20s %-40s %10s  %s", "record", "offset", "time stamp", "values", "image", "type"));
  for (const CameraImage& image : c.images) {
    std::string values;
    for (const std::uint32_t v : image.values) values += (values.empty() ? "" : " ") + std::to_string(v);
    const std::string written = image.extractedTo.empty() ? "" : "  -> " + image.extractedTo;
    report.line(Format("  %6llu %12llu %20llu %-40s %10u  %s%s", static_cast<unsigned long long>(image.index),
                       static_cast<unsigned long long>(image.offset), static_cast<unsigned long long>(image.timeStamp),
                       values.c_str(), image.imageSize, std::string(image.type).c_str(), written.c_str()));
  }
  const std::uint64_t count = c.images.size();
  report.line(GroupedCount(count) + (count == 1 ? " record, " : " records, ") + ByteSize(c.imageBytes) + " of images" +
              (extractTo ? " written to " + *extractTo : ""));
  return report.text();
}

int RunCamera(const CameraOptions& args, Context& context) {
  const CameraContents contents = ReadCameraContents(args.file, args.extract);
  Console::write(context.json ? CameraJson(args.file, contents) : CameraText(args.file, contents, args.extract));
  return contents.damage.empty() ? kExitOk : context.damaged(args.file + ": " + contents.damage);
}

constexpr CommandInfo kInfo{
    "camera",
    "FILE [-x DIR] [--json]",
    "a camera file (#KVRCAMR): its header and image records; -x writes the images out",
    "",
};

}  // namespace

void AddCameraCommand(CommandSet& commands) {
  auto options = std::make_shared<CameraOptions>();
  CLI::App& command = commands.add(kInfo, options, RunCamera);
  AddInput(command, "FILE", options->file);
  AddText(command, "-x,--extract", "DIR", options->extract,
          "write every image to DIR as image_NNNN.<type> (type from its first bytes)");
  AddJsonOption(command, options->json);
}

}  // namespace kvrscan
