#include "kvr_decode/cloud/tick_file.h"

#include <cstdio>
#include <cstring>
#include <new>
#include <stdexcept>

#include "file_access.h"
#include "kvr_decode/cloud/error.h"
#include "platform/little_endian.h"
#include "kvr_decode/cloud/scan.h"
#include "kvr_decode/fifo_block.h"
#include "kvr_decode/nmea_ticks_manager.h"
#include "fifo/block_layout.h"
#include "nmea/tick_layout.h"

namespace kvr::cloud {

namespace {

namespace layout = kvr::nmea::layout;
constexpr std::uint32_t kSentenceLimit = layout::kSentenceBufferSize;  // the decoder's sentence buffer

class ByteReader {
 public:
  explicit ByteReader(std::FILE* in) : in_(in) {}
  // Reads `size` bytes; false when the file ends first (`got` says how many came).
  bool read(void* to, std::size_t size) {
    got_ = std::fread(to, 1, size, in_);
    offset_ += got_;
    return got_ == size;
  }
  template <typename T>
  bool le(T& value) {
    std::uint8_t bytes[sizeof(T)] = {};
    if (!read(bytes, sizeof bytes)) return false;
    value = le::Load<T>(bytes);
    return true;
  }
  std::uint64_t offset() const { return offset_; }
  std::size_t got() const { return got_; }

 private:
  std::FILE* in_;
  std::uint64_t offset_ = 0;
  std::size_t got_ = 0;
};

}  // namespace

TickFileContents ReadTickFile(const std::filesystem::path& path) {
  const std::uint64_t size = ReadableFileSize(path);
  std::FILE* in = OpenForReading(path);
  if (in == nullptr) throw InputError(path, "cannot open");
  TickFileContents contents;
  ByteReader reader(in);
  char signature[8] = {};
  const bool whole = reader.read(signature, sizeof signature);
  if (!whole || std::memcmp(signature, layout::kSignature, layout::kSignatureSize) != 0) {
    std::fclose(in);
    throw InputError(path, "not a tick file: its signature is \"" +
                              PrintableBytes(std::string_view(signature, reader.got())) + "\", expected #KVRSERL");
  }
  if (!reader.le(contents.version) || !reader.le(contents.headerWord)) {
    std::fclose(in);
    throw InputError(path, "header cut short (" + std::to_string(size) + " bytes)");
  }
  if (contents.version == 0) {
    std::fclose(in);
    throw InputError(path, "tick file version 0 is not supported");
  }
  // The library's reader keeps the last length it read, and a read cut short by
  // the end of the file replaces only the bytes that arrived: a file ending
  // inside a length word leaves a length made of old and new bytes.
  std::uint32_t libraryLength = 0;
  const auto refuseLength = [&](std::uint64_t offset, std::uint32_t length) {
    std::fclose(in);
    throw InputError(path, "the sentence record at offset " + std::to_string(offset) + " declares " +
                              std::to_string(length) + " bytes of text (at most " + std::to_string(layout::kLongestSentence) + ")");
  };
  while (reader.offset() < size) {
    TickRecord record;
    record.offset = reader.offset();
    std::uint32_t reserved[2] = {};
    std::uint32_t length = 0;
    if (!reader.le(record.ticks) || !reader.le(record.type)) break;
    if (record.type != layout::kPulseRecordType) {
      if (!reader.le(reserved[0]) || !reader.le(reserved[1])) break;
      std::uint8_t lengthBytes[4] = {};
      if (!reader.read(lengthBytes, sizeof lengthBytes)) {
        libraryLength = le::MergeArrived(libraryLength, lengthBytes, reader.got());
        if (libraryLength >= kSentenceLimit) refuseLength(record.offset, libraryLength);
        break;
      }
      length = le::LoadU32(lengthBytes);
      libraryLength = length;
      if (length >= kSentenceLimit) refuseLength(record.offset, length);
      record.text.resize(length);
      if (!reader.read(record.text.data(), length)) break;
    }
    contents.records.push_back(std::move(record));
  }
  if (!contents.records.empty() || reader.offset() > layout::kHeaderSize) {
    const TickRecord* last = contents.records.empty() ? nullptr : &contents.records.back();
    const std::uint64_t parsedEnd =
        last == nullptr                          ? layout::kHeaderSize
        : last->type == layout::kPulseRecordType ? last->offset + layout::kPulseRecordSize
                                                 : last->offset + layout::kSentenceRecordFixedSize + last->text.size();
    contents.cutShortBytes = size > parsedEnd ? size - parsedEnd : 0;
  }
  std::fclose(in);
  return contents;
}

TicksManager::TicksManager(const std::filesystem::path& path, int timeOffset) : contents_(ReadTickFile(path)) {
  const std::wstring wide = WideName(path);
  try {
    manager_ = CreateNmeaTicksManager(wide.c_str(), timeOffset);
  } catch (const std::out_of_range& error) {
    throw InputError(path, std::string("malformed time sentence (") + error.what() + ")");
  } catch (const std::bad_alloc&) {
    throw InputError(path, "too large to hold in memory");
  }
  if (manager_ == nullptr) throw InputError(path, "the library could not read it as a tick file");
}

TicksManager::~TicksManager() { DeleteNmeaTicksManager(manager_); }

double TicksManager::timeOfWeekAt(std::uint64_t ticks) {
  if (ticks >= (std::uint64_t{1} << 40)) return -1.0;  // beyond any block's 40-bit stamp
  if (probeBlock_.empty()) {
    probeBlock_.assign(BlockSize(), 0);
    const std::uint32_t signature = fifo::layout::kBlockSignature;
    const std::uint32_t packed = 1u << fifo::layout::kShotCountShift;  // one shot, with no returns
    std::memcpy(probeBlock_.data() + fifo::layout::kSignatureOffset, &signature, 4);
    std::memcpy(probeBlock_.data() + fifo::layout::kPackedWordOffset, &packed, 4);
  }
  const auto low = static_cast<std::uint32_t>(ticks);
  std::memcpy(probeBlock_.data() + fifo::layout::kTimeStampLowOffset, &low, 4);
  probeBlock_[fifo::layout::kPackedWordOffset] = static_cast<unsigned char>(ticks >> 32);

  std::FILE* in = ::fmemopen(probeBlock_.data(), probeBlock_.size(), "rb");
  if (in == nullptr) return -1.0;
  RawFileHeader header;
  header.prf = 200;
  FifoBlock block;
  const int shots = DecodeNextFifoBlock(&in, header, 0, block, manager_);
  std::fclose(in);
  return shots == 1 && block.shots.size() == 1 ? block.shots[0].shotTow : -1.0;
}

}  // namespace kvr::cloud
