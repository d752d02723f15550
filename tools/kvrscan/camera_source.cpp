#include "camera_source.h"

#include <cstring>
#include <filesystem>
#include <new>

#include "console.h"
#include "errors.h"
#include "files.h"
#include "kvr_decode/camera_file.h"
#include "platform/little_endian.h"
#include "scan_source.h"

namespace kvrscan {

namespace {

namespace layout = kvr::devices::camera_layout;

// The reader's header and record, released whatever way reading ends.
struct CameraReader {
  CameraFileHeader header;
  CameraFileRecord record;
  FileHandle stream;
  ~CameraReader() {
    ReleaseCameraFileRecord(record);
    ReleaseCameraFileHeader(header);
  }
};

// The image size field of the record at `offset`, read ahead of the library;
// 0 when it cannot be read.
std::uint32_t ImageSizeAt(std::FILE* in, std::uint64_t recordOffset, std::uint64_t recordHead) {
  unsigned char size[4] = {};
  if (fseeko(in, static_cast<off_t>(recordOffset + recordHead - sizeof size), SEEK_SET) != 0 ||
      std::fread(size, 1, sizeof size, in) != sizeof size) {
    return 0;
  }
  return kvr::le::LoadU32(size);
}

std::string ExtractImage(const std::string& directory, std::uint64_t index, std::string_view type,
                         std::span<const unsigned char> image) {
  const std::string name =
      Format("image_%04llu.%s", static_cast<unsigned long long>(index), std::string(type).c_str());
  const std::string path = (std::filesystem::path(directory) / name).string();
  WriteWholeFile(path, image);
  return path;
}

}  // namespace

std::string_view ImageType(std::span<const unsigned char> image) {
  const auto starts = [&](std::string_view magic) {
    return image.size() >= magic.size() && std::memcmp(image.data(), magic.data(), magic.size()) == 0;
  };
  if (starts("\xFF\xD8\xFF")) return "jpg";
  if (starts("\x89PNG\r\n\x1A\n")) return "png";
  if (starts(std::string_view("II*\0", 4)) || starts(std::string_view("MM\0*", 4))) return "tif";
  if (starts("BM")) return "bmp";
  if (starts("P5") || starts("P2")) return "pgm";
  if (starts("P6") || starts("P3")) return "ppm";
  return "bin";
}

CameraContents ReadCameraContents(const std::string& path, const std::optional<std::string>& extractTo,
                                  const CameraImageVisitor& onImage) {
  const std::uint64_t size = ReadableFileSize(path);
  const std::wstring wide = WidePath(path);
  CameraReader file;
  try {
    file.stream.reset(ReadCameraFileHeader(wide.c_str(), file.header));
  } catch (const std::bad_alloc&) {
    throw FileError(path, "the header's text length asks for more memory than there is");
  }
  if (!file.stream) {
    const std::string signature = PrintableBytes(std::string_view(file.header.signature, sizeof file.header.signature));
    throw FileError(path, "not a camera file: its signature is \"" + signature + "\", expected " + layout::kSignature);
  }
  const std::uint64_t headerSize = layout::kHeaderSizeWithoutText + std::uint64_t{file.header.textLength};
  if (headerSize > size) {
    throw FileError(path, "header cut short: its text needs " + std::to_string(headerSize) + " bytes, the file has " +
                              std::to_string(size));
  }
  if (extractTo) {
    std::error_code ec;
    std::filesystem::create_directories(*extractTo, ec);
    if (ec) throw FileError(*extractTo, "cannot create the directory (" + ec.message() + ")");
  }

  CameraContents contents;
  contents.timeStampPresent = file.header.timeStampPresent;
  contents.headerValue = file.header.headerValue;
  contents.text.assign(file.header.text, file.header.textLength);
  // A second handle reads each record's image size before the library does, so a
  // size that runs past the end of the file is reported instead of allocated.
  const FileHandle peek = OpenForReading(path);
  if (!peek) throw FileError(path, "cannot open");
  const std::uint64_t head = layout::RecordHeadSize(file.header.timeStampPresent != 0);
  for (std::uint64_t index = 0;; ++index) {
    const auto offset = static_cast<std::uint64_t>(ftello(file.stream.get()));
    if (offset >= size) break;
    if (offset + head > size) {
      contents.damage = "the file ends inside the header of record " + std::to_string(index);
      break;
    }
    const std::uint32_t imageSize = ImageSizeAt(peek.get(), offset, head);
    if (offset + head + imageSize > size) {
      contents.damage = "record " + std::to_string(index) + " declares an image of " + std::to_string(imageSize) +
                        " bytes; the file ends " + std::to_string(size - offset - head) + " bytes after its header";
      break;
    }
    ReleaseCameraFileRecord(file.record);
    std::FILE* stream = file.stream.get();
    const int result = GetNextCameraFileRecord(&stream, file.header, file.record);
    if (result == -3) {
      contents.damage =
          "cannot allocate " + std::to_string(imageSize) + " bytes for the image of record " + std::to_string(index);
      break;
    }
    const CameraFileRecord& r = file.record;
    const std::span<const unsigned char> image(r.imageData, r.imageData != nullptr ? r.imageSize : 0);
    CameraImage& out = contents.images.emplace_back();
    out.index = index;
    out.offset = offset;
    out.timeStamp = r.timeStamp;
    std::copy(std::begin(r.recordValues), std::end(r.recordValues), out.values.begin());
    out.imageSize = r.imageSize;
    out.type = ImageType(image);
    if (extractTo) out.extractedTo = ExtractImage(*extractTo, index, out.type, image);
    if (onImage) onImage(out, image);
    contents.imageBytes += r.imageSize;
  }
  return contents;
}

}  // namespace kvrscan
