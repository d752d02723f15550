// camera FILE [-x DIR]: the header and image records of a camera file, and
// optionally the images themselves written out one file each.

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <new>

#include "commands.h"
#include "devices/camera_layout.h"
#include "console.h"
#include "errors.h"
#include "json_writer.h"
#include "kvr_decode/camera_file.h"
#include "scan_source.h"

namespace kvrscan {

namespace {

// The image format by its first bytes, as a file name extension.
std::string_view ImageType(const unsigned char* data, std::uint32_t size) {
  const auto starts = [&](std::string_view magic) {
    return size >= magic.size() && std::memcmp(data, magic.data(), magic.size()) == 0;
  };
  if (starts("\xFF\xD8\xFF")) return "jpg";
  if (starts("\x89PNG\r\n\x1A\n")) return "png";
  if (starts(std::string_view("II*\0", 4)) || starts(std::string_view("MM\0*", 4))) return "tif";
  if (starts("BM")) return "bmp";
  if (starts("P5") || starts("P2")) return "pgm";
  if (starts("P6") || starts("P3")) return "ppm";
  return "bin";
}

// Releases what the camera reader allocated, whatever way the command ends.
struct CameraFile {
  CameraFileHeader header;
  CameraFileRecord record;
  std::FILE* stream = nullptr;
  ~CameraFile() {
    ReleaseCameraFileRecord(record);
    ReleaseCameraFileHeader(header);
    if (stream != nullptr) std::fclose(stream);
  }
};

std::uint32_t U32At(std::FILE* in, std::uint64_t offset) {
  unsigned char b[4] = {};
  if (fseeko(in, static_cast<off_t>(offset), SEEK_SET) == 0 && std::fread(b, 1, 4, in) == 4) {
    return b[0] | b[1] << 8 | b[2] << 16 | static_cast<std::uint32_t>(b[3]) << 24;
  }
  return 0;
}

int RunCamera(const ParsedArgs& args, Context& context) {
  const std::string& path = args.positional()[0];
  const std::uint64_t size = ReadableFileSize(path);
  const std::wstring wide = WidePath(path);
  const std::optional<std::string> extractTo = args.value("extract");
  CameraFile file;
  try {
    file.stream = ReadCameraFileHeader(wide.c_str(), file.header);
  } catch (const std::bad_alloc&) {
    throw FileError(path, "the header's text length asks for more memory than there is");
  }
  if (file.stream == nullptr) {
    const std::string signature = PrintableBytes(std::string_view(file.header.signature, sizeof file.header.signature));
    throw FileError(path, "not a camera file: its signature is \"" + signature + "\", expected #KVRCAMR");
  }
  const std::uint64_t headerSize = kvr::devices::camera_layout::kHeaderSizeWithoutText + std::uint64_t{file.header.textLength};
  if (headerSize > size) {
    throw FileError(path, "header cut short: its text needs " + std::to_string(headerSize) + " bytes, the file has " +
                              std::to_string(size));
  }
  if (extractTo) {
    std::error_code ec;
    std::filesystem::create_directories(*extractTo, ec);
    if (ec) throw FileError(*extractTo, "cannot create the directory (" + ec.message() + ")");
  }

  // A second handle reads each record's image size before the library does, so a
  // size that runs past the end of the file is reported instead of allocated.
  std::FILE* peek = std::fopen(path.c_str(), "rb");
  if (peek == nullptr) throw FileError(path, "cannot open");
  const std::uint64_t fixed = kvr::devices::camera_layout::RecordHeadSize(file.header.timeStampPresent != 0);
  JsonWriter json;
  TextReport report;
  std::string damage;
  std::uint64_t index = 0, imageBytes = 0;
  if (context.json) {
    json.beginObject().field("filename", path);
    json.field("timeStampPresent", file.header.timeStampPresent).field("textLength", file.header.textLength);
    json.field("text", std::string_view(file.header.text, file.header.textLength));
    json.field("headerValue", file.header.headerValue);
    json.key("records").beginArray();
  } else {
    report.line(path + ": camera file, " + (file.header.timeStampPresent != 0 ? "with" : "without") +
                " time stamps, header value " + std::to_string(file.header.headerValue));
    report.heading("header text");
    std::string text = PrintableText(std::string_view(file.header.text, file.header.textLength));
    for (std::size_t start = 0; start < text.size();) {
      const std::size_t end = std::min(text.find('\n', start), text.size());
      report.line("  " + text.substr(start, end - start));
      start = end + 1;
    }
    report.heading(Format("%8s %12s %20s %-40s %10s  %s", "record", "offset", "time stamp", "values", "image",
                          "type"));
  }
  for (;;) {
    const std::uint64_t offset = static_cast<std::uint64_t>(ftello(file.stream));
    if (offset >= size) break;
    if (offset + fixed > size) {
      damage = "the file ends inside the header of record " + std::to_string(index);
      break;
    }
    const std::uint32_t imageSize = U32At(peek, offset + fixed - 4);
    if (offset + fixed + imageSize > size) {
      damage = "record " + std::to_string(index) + " declares an image of " + std::to_string(imageSize) +
               " bytes; the file ends " + std::to_string(size - offset - fixed) + " bytes after its header";
      break;
    }
    ReleaseCameraFileRecord(file.record);
    if (GetNextCameraFileRecord(&file.stream, file.header, file.record) == -3) {
      damage = "cannot allocate " + std::to_string(imageSize) + " bytes for the image of record " + std::to_string(index);
      break;
    }
    const CameraFileRecord& r = file.record;
    const std::string_view type = ImageType(r.imageData, r.imageSize);
    std::string written;
    if (extractTo) {
      written = (std::filesystem::path(*extractTo) / Format("image_%04llu.%s", static_cast<unsigned long long>(index),
                                                            std::string(type).c_str()))
                    .string();
      std::FILE* out = std::fopen(written.c_str(), "wb");
      if (out == nullptr) throw FileError(written, std::string("cannot create (") + std::strerror(errno) + ")");
      const bool ok = std::fwrite(r.imageData, 1, r.imageSize, out) == r.imageSize;
      if (std::fclose(out) != 0 || !ok) throw FileError(written, "write failed");
    }
    if (context.json) {
      json.beginObject().field("index", index).field("offset", offset).field("timeStamp", r.timeStamp);
      json.numbers("recordValues", r.recordValues).field("imageSize", r.imageSize).field("image_type", type);
      if (extractTo) json.field("extracted_to", written);
      json.endObject();
    } else {
      std::string values;
      for (const std::uint32_t v : r.recordValues) values += (values.empty() ? "" : " ") + std::to_string(v);
      report.line(Format("  %6llu %12llu %20llu %-40s %10u  %s%s", static_cast<unsigned long long>(index),
                         static_cast<unsigned long long>(offset), static_cast<unsigned long long>(r.timeStamp),
                         values.c_str(), r.imageSize, std::string(type).c_str(),
                         extractTo ? ("  -> " + written).c_str() : ""));
    }
    imageBytes += r.imageSize;
    ++index;
  }
  std::fclose(peek);
  if (context.json) {
    json.endArray().field("num_records", index).field("image_bytes", imageBytes).endObject();
    Console::write(json.text());
  } else {
    report.line(GroupedCount(index) + (index == 1 ? " record, " : " records, ") + ByteSize(imageBytes) + " of images" +
                (extractTo ? " written to " + *extractTo : ""));
    Console::write(report.text());
  }
  return damage.empty() ? kExitOk : context.damaged(path + ": " + damage);
}

constexpr std::string_view kPositional[] = {"FILE"};

constexpr OptionSpec kOptions[] = {
    {"extract", 'x', "DIR", "write every image to DIR as image_NNNN.<type> (type from its first bytes)"},
    kJsonOption,
};

}  // namespace

const Command kCameraCommand{
    "camera",
    "FILE [-x DIR] [--json]",
    "a camera file (#KVRCAMR): its header and image records; -x writes the images out",
    "",
    kOptions,
    kPositional,
    1,
    RunCamera,
};

}  // namespace kvrscan
