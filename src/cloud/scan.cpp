#include "kvr_decode/cloud/scan.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <limits>
#include <mutex>
#include <new>
#include <stdexcept>
#include <vector>

#include "file_access.h"
#include "fifo/block_format.h"
#include "kvr_decode/cloud/error.h"
#include "kvr_decode/cloud/map_file.h"
#include "kvr_decode/cloud/tick_file.h"
#include "kvr_decode/file_header.h"
#include "kvr_decode/optical_model.h"
#include "header/header_layout.h"
#include "platform/little_endian.h"

namespace kvr::cloud {

namespace {

namespace layout = kvr::header::layout;
constexpr std::uint64_t kFixedHeaderSize = layout::kFixedPartSize;  // up to the first text length
constexpr std::size_t kPrfOffset = layout::kPrf.offset;

using le::LoadU32;

bool IsDefinedPrf(std::uint32_t prf) { return prf == 50 || prf == 200 || prf == 500; }

std::vector<unsigned char> ReadPrefix(const std::filesystem::path& path, std::uint64_t count) {
  std::vector<unsigned char> bytes(count);
  const FilePtr in(OpenForReading(path));
  if (!in) return {};
  bytes.resize(std::fread(bytes.data(), 1, bytes.size(), in.get()));
  return bytes;
}

// The header block's size from the length words in `bytes` (the start of the
// file), or 0 when the file ends before the lengths say it should.
std::uint64_t HeaderBlockSizeIn(const std::vector<unsigned char>& bytes) {
  if (bytes.size() < kFixedHeaderSize) return 0;
  const int texts = layout::TextCount(LoadU32(bytes.data() + layout::kHeaderLayout.offset));
  std::uint64_t at = kFixedHeaderSize;
  for (int i = 0; i < texts; ++i) {
    if (at + layout::kTextLengthSize > bytes.size()) return 0;
    at += layout::kTextLengthSize + LoadU32(bytes.data() + at);
  }
  return at <= bytes.size() ? at : 0;
}

std::string_view MagicOf(const unsigned char* bytes) {
  return std::string_view(reinterpret_cast<const char*>(bytes + layout::kSignature.offset), layout::kSignature.size);
}

bool IsScanMagic(std::string_view magic) {
  return magic == layout::kMagicKvrScan || magic == layout::kMagicMx70Dat || magic == layout::kMagicMx700Dat;
}

}  // namespace

Error::Error(const std::filesystem::path& path, const std::string& reason)
    : std::runtime_error(path.string() + ": " + reason), path_(path), reason_(reason) {}

std::uint64_t BlockSize() { return fifo::SIZEOFFIFOBLOCK; }

// The block count a build of a scan with `blocks` whole blocks records: the
// builder raises it only past a block number, so a count of two or more is
// rounded down to an even number.
std::uint64_t BuiltBlockCount(std::uint64_t blocks) { return blocks < 2 ? 0 : blocks - blocks % 2; }

// A map file names no scan it can be checked against, so the header's
// identifying fields stand in for it (the scan words are left out: a caller may
// have rewritten them in the map's copy).
bool SameInstrumentAndScan(const RawFileHeader& a, const RawFileHeader& b) {
  return a.dataOffset == b.dataOffset && a.prf == b.prf && ScanSignature(a) == ScanSignature(b) &&
         a.idValue == b.idValue && std::memcmp(a.idText1, b.idText1, sizeof a.idText1) == 0 &&
         std::memcmp(a.idText2, b.idText2, sizeof a.idText2) == 0 &&
         std::memcmp(a.idText3, b.idText3, sizeof a.idText3) == 0 &&
         std::memcmp(a.idText4, b.idText4, sizeof a.idText4) == 0 &&
         std::memcmp(a.headerWords, b.headerWords, sizeof a.headerWords) == 0;
}

std::wstring WideName(const std::filesystem::path& path) {
#if defined(_WIN32)
  return path.wstring();
#else
  const std::string& text = path.native();
  std::wstring wide;
  for (std::size_t i = 0; i < text.size();) {
    const unsigned char lead = static_cast<unsigned char>(text[i]);
    std::size_t length = lead < 0x80 ? 1 : lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC2 ? 2 : 0;
    std::uint32_t cp = length == 1 ? lead : length == 2 ? lead & 0x1Fu : length == 3 ? lead & 0x0Fu : lead & 0x07u;
    if (length == 0 || lead > 0xF4 || i + length > text.size()) length = 0;
    for (std::size_t k = 1; k < length; ++k) {
      const unsigned char c = static_cast<unsigned char>(text[i + k]);
      if ((c & 0xC0) != 0x80) length = 0;
      cp = (cp << 6) | (c & 0x3Fu);
    }
    static constexpr std::uint32_t kMin[] = {0, 0, 0x80, 0x800, 0x10000};
    if (length == 0 || cp < kMin[length] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
      throw InputError(path, "the file name is not valid UTF-8");
    }
    wide.push_back(static_cast<wchar_t>(cp));
    i += length;
  }
  return wide;
#endif
}

std::uint64_t ReadableFileSize(const std::filesystem::path& path) {
  namespace fs = std::filesystem;
  std::error_code ec;
  const fs::file_status status = fs::status(path, ec);
  if (!fs::exists(status)) throw MissingFileError(path, "no such file");
  if (fs::is_directory(status)) throw InputError(path, "is a directory, not a file");
  const FilePtr in(OpenForReading(path));
  if (!in) throw InputError(path, std::string("cannot open (") + std::strerror(errno) + ")");
  const std::uintmax_t size = fs::file_size(path, ec);
  return ec ? 0 : size;
}

std::string PrintableBytes(std::string_view bytes) {
  std::string out;
  for (const char c : bytes) {
    const unsigned char u = static_cast<unsigned char>(c);
    if (u >= 0x20 && u < 0x7F && u != '\\') {
      out += c;
    } else {
      static constexpr char kHex[] = "0123456789ABCDEF";
      out += "\\x";
      out += kHex[u >> 4];
      out += kHex[u & 15];
    }
  }
  return out;
}

struct Scan::State {
  std::filesystem::path path;
  ScanOptions options;
  std::uint64_t fileSize = 0;
  RawFileHeader header;
  double rangeOffset = 0.0;

  mutable std::mutex mutex;  // the map and the shot table, made on first use
  mutable std::unique_ptr<ScanFileMap> map;
  mutable bool mapLoaded = false;
  mutable double mapSeconds = 0.0;
  mutable std::vector<std::uint64_t> firstShots;  // per block, and one past the last

  ~State() {
    ReleaseFileHeader(header);
    if (map) ReleaseScanFileMap(*map);
  }

  [[noreturn]] void ExplainRefusal();
  [[noreturn]] void ExplainMalformedTable(const std::exception& error);
  void FillMap() const;
  void FillShotTable() const;
  std::uint64_t WholeBlocks() const {
    return fileSize > header.dataOffset ? (fileSize - header.dataOffset) / BlockSize() : 0;
  }
};

Scan::Scan(const std::filesystem::path& path, const ScanOptions& options) : state_(std::make_unique<State>()) {
  State& s = *state_;
  s.path = path;
  s.options = options;
  s.fileSize = ReadableFileSize(path);
  const std::wstring wide = WideName(path);
  std::FILE* stream = nullptr;
  try {
    stream = ReadFileHeader(wide.c_str(), s.header);
  } catch (const std::bad_alloc&) {
    ReleaseFileHeader(s.header);
    throw InputError(path, "the header's text lengths ask for more memory than there is");
  } catch (const std::exception& error) {
    ReleaseFileHeader(s.header);
    s.ExplainMalformedTable(error);
  }
  if (stream == nullptr) s.ExplainRefusal();
  std::fclose(stream);
  if (headerBlockSize() > s.fileSize) {
    throw InputError(path, "header cut short: its texts need " + std::to_string(headerBlockSize()) +
                               " bytes, the file has " + std::to_string(s.fileSize));
  }
  s.rangeOffset = GetCalibrationParameters(s.header).rangeOffset;
  if (options.ticks) ReadTickFile(*options.ticks);  // refused now rather than by the first reader
}

Scan::~Scan() = default;

void Scan::State::ExplainRefusal() {
  ReleaseFileHeader(header);
  const std::vector<unsigned char> bytes = ReadPrefix(path, kPrfOffset + 4);
  if (bytes.size() < layout::kSignature.size) {
    throw InputError(path, "too short for a scan file header (" + std::to_string(fileSize) + " bytes)");
  }
  const std::string_view magic = MagicOf(bytes.data());
  if (!IsScanMagic(magic)) {
    throw InputError(path, "not a raw scan file: its magic is \"" + PrintableBytes(magic) +
                               "\", expected #KVRSCAN, #MX70DAT or MX700DAT");
  }
  if (bytes.size() < kPrfOffset + 4) {
    throw InputError(path, "header cut short: the file has " + std::to_string(fileSize) + " bytes");
  }
  const std::uint32_t prf = LoadU32(bytes.data() + kPrfOffset);
  if (!IsDefinedPrf(prf)) {
    throw InputError(path, "undefined PRF " + std::to_string(prf) + " in the header (expected 50, 200 or 500 kHz)");
  }
  throw InputError(path, "the library could not open it as a scan file");
}

void Scan::State::ExplainMalformedTable(const std::exception& error) {
  // Either the calibration text or the side table stopped the header reader. The
  // header decoder in memory parses the same calibration text without the side
  // table, which tells the two apart.
  std::vector<unsigned char> bytes = ReadPrefix(path, std::min<std::uint64_t>(fileSize, 64u << 20));
  const std::uint64_t size = HeaderBlockSizeIn(bytes);
  bool calibrationText = false;
  if (size > 0) {
    RawFileHeader probe;
    try {
      DecodeFileHeader(bytes.data(), static_cast<int>(std::min<std::uint64_t>(size, INT32_MAX)), probe);
    } catch (const std::exception&) {
      calibrationText = true;
    }
    ReleaseFileHeader(probe);
  }
  if (calibrationText) {
    throw InputError(path, std::string("malformed calibration text in the header (") + error.what() + ")");
  }
  std::filesystem::path table = path;
  table += ".tbl";
  throw InputError(table, std::string("malformed side table (") + error.what() + ")");
}

const std::filesystem::path& Scan::path() const { return state_->path; }
const RawFileHeader& Scan::header() const { return state_->header; }
std::uint64_t Scan::signature() const { return ScanSignature(state_->header); }
std::uint64_t Scan::fileSize() const { return state_->fileSize; }

std::uint64_t Scan::blockCount() const { return state_->WholeBlocks(); }

std::uint64_t Scan::trailingBytes() const {
  const std::uint64_t offset = state_->header.dataOffset;
  return state_->fileSize > offset ? (state_->fileSize - offset) % BlockSize() : 0;
}

std::uint64_t Scan::headerBlockSize() const {
  const RawFileHeader& h = state_->header;
  return layout::BlockSize(h.headerLayout, h.calibrationTextLength, h.parameterTextLength, h.thirdTextLength,
                           h.fourthTextLength);
}

double Scan::rangeOffset() const { return state_->rangeOffset; }

double Scan::sampleRangeOffset() const {
  const auto& values = state_->header.calibrationValues;
  const auto it = values.find("rangeOffset");
  return it == values.end() ? 0.0 : it->second;
}

const std::optional<std::filesystem::path>& Scan::tickFile() const { return state_->options.ticks; }
int Scan::timeOffset() const { return state_->options.timeOffset; }

const ScanFileMap& Scan::map() const {
  std::lock_guard lock(state_->mutex);
  if (!state_->map) state_->FillMap();
  return *state_->map;
}

bool Scan::mapLoaded() const {
  map();
  return state_->mapLoaded;
}

double Scan::mapSeconds() const {
  map();
  return state_->mapSeconds;
}

std::int32_t Scan::lineCount() const { return std::max(0, map().numberOfScanLines); }

void Scan::State::FillMap() const {
  const auto start = std::chrono::steady_clock::now();
  auto made = std::make_unique<ScanFileMap>();
  // The record owns its header copy's texts whatever happens next.
  struct Releaser {
    ScanFileMap* map;
    ~Releaser() {
      if (map != nullptr) ReleaseScanFileMap(*map);
    }
  } releaser{made.get()};
  if (options.map) {
    const std::filesystem::path& file = *options.map;
    CheckMapFile(file);  // the library would load a cut or foreign file as it is
    std::wstring wide = WideName(file);
    if (LoadScanFileMap(wide.data(), *made) != 0) throw InputError(file, "cannot open the map file");
    if (made->dataStartOffset != header.dataOffset || !SameInstrumentAndScan(made->fileHeader, header)) {
      throw InputError(file, "not the map of " + path.string() + " (its header or data offset differ)");
    }
    // Scans of one instrument share their headers; their lengths tell them apart.
    const std::uint64_t expected = BuiltBlockCount(WholeBlocks());
    if (made->blockCount < 0 || static_cast<std::uint64_t>(made->blockCount) != expected) {
      throw InputError(file, "not the map of " + path.string() + " (it covers " + std::to_string(made->blockCount) +
                                 " blocks, a map of the scan " + std::to_string(expected) + ")");
    }
    mapLoaded = true;
  } else {
    const std::wstring wide = WideName(path);
    int result = -1;
    try {
      result = GetScanFileMap(wide.c_str(), *made);
    } catch (const std::bad_alloc&) {
      throw InputError(path, "not enough memory to build the scan file map");
    }
    if (result != 0) throw InputError(path, "the library could not build the scan file map");
  }
  releaser.map = nullptr;
  map = std::move(made);
  mapSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void Scan::State::FillShotTable() const {
  const std::uint64_t size = BlockSize();
  const std::uint64_t blocks = fileSize > header.dataOffset ? (fileSize - header.dataOffset) / size : 0;
  firstShots.assign(blocks + 1, 0);
  const FilePtr in(OpenForReading(path));
  if (!in) throw InputError(path, std::string("cannot open (") + std::strerror(errno) + ")");
  // Only a block's header is read; the accessors take the block's whole span.
  std::vector<std::uint8_t> block(size, 0);
  const fifo::BlockBytes bytes(block.data(), fifo::SIZEOFFIFOBLOCK);
  std::uint64_t shots = 0;
  for (std::uint64_t b = 0; b < blocks; ++b) {
    firstShots[b] = shots;
    if (!SeekTo(in.get(), header.dataOffset + b * size) ||
        std::fread(block.data(), 1, fifo::kDmaBlockHeaderSize, in.get()) != fifo::kDmaBlockHeaderSize) {
      throw InputError(path, "cannot read the header of block " + std::to_string(b));
    }
    const fifo::DmaBlockHeader dma = fifo::ReadDmaBlockHeader(bytes);
    if (dma.signature == fifo::layout::kBlockSignature) shots += dma.shotCount;
  }
  firstShots[blocks] = shots;
}

std::uint64_t Scan::firstShotOfBlock(std::uint64_t block) const {
  std::lock_guard lock(state_->mutex);
  if (state_->firstShots.empty()) state_->FillShotTable();
  const std::vector<std::uint64_t>& table = state_->firstShots;
  return table[std::min<std::uint64_t>(block, table.size() - 1)];
}

}  // namespace kvr::cloud
