#include "kvr_decode/cloud/map_file.h"

#include <cerrno>
#include <cstring>
#include <string>
#include <system_error>
#include <vector>

#include "file_access.h"
#include "header/header_layout.h"
#include "kvr_decode/cloud/error.h"
#include "kvr_decode/cloud/scan.h"
#include "platform/little_endian.h"
#include "scanmap/map_layout.h"

namespace kvr::cloud {

namespace {

namespace map_layout = kvr::scanmap::map_layout;
namespace header_layout = kvr::header::layout;

// After the scan file name: the line count, then the entries.
constexpr std::uint64_t kLineCountSize = 4;
// spareB and shotsPerLineEstimate.
constexpr std::uint64_t kEstimateSize = 8;
// binWidth, the minimum twice, a1 .. a5, intensityAt95 (doubles), numberOfBins
// (i32), gamma (double), validSampleCount (u32).
constexpr std::uint64_t kIntensityModelSize = 8 * 9 + 4 + 8 + 4;
constexpr std::uint64_t kBinsOffsetInModel = 8 * 9;
constexpr std::uint64_t kBinSize = 2 * 8;  // two runs of doubles, one value each per bin
constexpr std::uint64_t kVersionSize = 4;
constexpr std::uint64_t kReturnCountsSize = map_layout::kReturnCountCount * 8;
constexpr std::uint64_t kTrailingBinWidthSize = 8;
constexpr int kMapTextCount = 4;  // the map's header copy always holds four
constexpr std::uint64_t kEventCountOffset = 20;  // in a scan line entry, after five words

std::uint64_t VersionTailSize(std::uint32_t version) {
  return kVersionSize + (version == 1 || version == 2 ? kReturnCountsSize : 0) +
         (version == 2 ? kTrailingBinWidthSize : 0);
}

// Walks a map file by its own counts and lengths, reading only those.
class MapWalk {
 public:
  MapWalk(const std::filesystem::path& path, std::FILE* in, std::uint64_t size) : path_(path), in_(in), size_(size) {}

  // The next `bytes` bytes are `part`; refused when the file ends inside them.
  void need(const std::string& part, std::uint64_t bytes) {
    if (bytes > size_ - at_) {
      throw InputError(path_, "map file cut short: it ends inside " + part + " (the file has " +
                                  std::to_string(size_) + " bytes, that part ends at byte " +
                                  std::to_string(at_ + bytes) + ")");
    }
  }
  void skip(const std::string& part, std::uint64_t bytes) {
    need(part, bytes);
    at_ += bytes;
  }
  // A field of `part` at `offset` within the next `bytes` bytes, which are passed.
  std::uint32_t u32(const std::string& part, std::uint64_t bytes, std::uint64_t offset) {
    need(part, bytes);
    unsigned char word[4];
    if (!SeekTo(in_, at_ + offset) || std::fread(word, 1, sizeof word, in_) != sizeof word) {
      throw InputError(path_, std::string("cannot read the map file (") + std::strerror(errno) + ")");
    }
    at_ += bytes;
    return le::LoadU32(word);
  }
  void end(std::uint32_t version) const {
    if (at_ != size_) {
      throw InputError(path_, "not a map file: " + std::to_string(size_ - at_) +
                                  " bytes follow the last field of a version " + std::to_string(version) + " map");
    }
  }

 private:
  const std::filesystem::path& path_;
  std::FILE* in_;
  std::uint64_t size_;
  std::uint64_t at_ = 0;
};

}  // namespace

std::uint64_t SavedMapSize(const ScanFileMap& map) {
  std::uint64_t size = map_layout::kNameOffset + strnlen(map.scanFileName, map_layout::kNameFieldSize - 1) + 1;
  size += kLineCountSize;
  for (const auto& [key, entry] : map.scanLines) {
    size += map_layout::kEntryFixedSize + map_layout::kEventShotSize * entry.eventShots.size();
  }
  const RawFileHeader& h = map.fileHeader;
  size += kEstimateSize + header_layout::kFixedPartSize + kMapTextCount * header_layout::kTextLengthSize;
  size += std::uint64_t{h.calibrationTextLength} + h.parameterTextLength + h.thirdTextLength + h.fourthTextLength;
  return size + kIntensityModelSize + VersionTailSize(static_cast<std::uint32_t>(map.mapVersion));
}

void SaveMapFile(ScanFileMap& map, const std::filesystem::path& target) {
  OutputFile out(target);
  const std::filesystem::path name = out.handOver();
  std::wstring wide;
  try {
    wide = WideName(name);
  } catch (const Error& error) {
    throw OutputError(target, error.reason());
  }
  if (SaveScanFileMap(wide.data(), map) != 0) {
    throw OutputError(target, "the library could not create the file " + name.string());
  }
  std::error_code ec;
  if (std::filesystem::is_regular_file(name, ec)) {
    const std::uint64_t expected = SavedMapSize(map);
    const std::uintmax_t written = std::filesystem::file_size(name, ec);
    if (ec) throw OutputError(target, "cannot check the written length (" + ec.message() + ")");
    if (written != expected) {
      // The library's writes report nothing: writing the missing bytes again
      // here shows the system's reason (a full disk, the file size limit).
      int error = EIO;
      if (written < expected) {
#if defined(_WIN32)
        const FilePtr again(_wfopen(name.c_str(), L"ab"));
#else
        const FilePtr again(std::fopen(name.c_str(), "ab"));
#endif
        const std::vector<char> zeros(static_cast<std::size_t>(std::min<std::uint64_t>(expected - written, 1 << 16)));
        if (!again) {
          error = errno;
        } else if (std::fwrite(zeros.data(), 1, zeros.size(), again.get()) != zeros.size() ||
                   std::fflush(again.get()) != 0) {
          error = errno;
        }
      }
      out.fail("write failed: " + std::to_string(written) + " of the map's " + std::to_string(expected) +
                   " bytes were written",
               error);
    }
  }
  out.commit();
}

void CheckMapFile(const std::filesystem::path& path) {
  const std::uint64_t size = ReadableFileSize(path);
  const FilePtr in(OpenForReading(path));
  if (!in) throw InputError(path, std::string("cannot open (") + std::strerror(errno) + ")");
  char signature[map_layout::kSignatureSize] = {};
  if (size < map_layout::kSignatureOffset + sizeof signature || !SeekTo(in.get(), map_layout::kSignatureOffset) ||
      std::fread(signature, 1, sizeof signature, in.get()) != sizeof signature ||
      std::memcmp(signature, map_layout::kSignature, sizeof signature) != 0) {
    throw InputError(path, "not a map file: no \"#KVRMAPF\" at offset 26");
  }
  MapWalk walk(path, in.get(), size);
  const auto nameLength =
      static_cast<std::int32_t>(walk.u32("the fixed fields", map_layout::kNameOffset, map_layout::kNameLengthOffset));
  if (nameLength < 0) throw InputError(path, "not a map file: the scan file name's length is negative");
  walk.skip("the scan file name", static_cast<std::uint64_t>(nameLength));
  const auto lines = static_cast<std::int32_t>(walk.u32("the scan line count", kLineCountSize, 0));
  if (lines < 0) throw InputError(path, "not a map file: the scan line count is negative");
  for (std::int32_t e = 0; e < lines; ++e) {
    const std::string entry = "scan line entry " + std::to_string(e) + " of " + std::to_string(lines);
    const auto events = static_cast<std::int32_t>(walk.u32(entry, map_layout::kEntryFixedSize, kEventCountOffset));
    if (events < 0) throw InputError(path, "not a map file: " + entry + " has a negative event count");
    walk.skip("the event shots of " + entry, map_layout::kEventShotSize * static_cast<std::uint64_t>(events));
  }
  walk.skip("the line estimate", kEstimateSize);
  walk.skip("the scan header's fixed fields", header_layout::kFixedPartSize);
  for (int t = 1; t <= kMapTextCount; ++t) {
    const std::string text = "the scan header's text " + std::to_string(t);
    walk.skip(text, walk.u32(text, header_layout::kTextLengthSize, 0));
  }
  const auto bins =
      static_cast<std::int32_t>(walk.u32("the intensity model", kIntensityModelSize, kBinsOffsetInModel));
  if (bins > 0) walk.skip("the histogram bins", kBinSize * static_cast<std::uint64_t>(bins));
  const std::uint32_t version = walk.u32("the map version", kVersionSize, 0);
  if (version == 1 || version == 2) walk.skip("the return counts", kReturnCountsSize);
  if (version == 2) walk.skip("the bin width", kTrailingBinWidthSize);
  walk.end(version);
}

}  // namespace kvr::cloud
