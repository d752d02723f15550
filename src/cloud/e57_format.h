#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

// The binary layers of an E57 file, below its XML: pages with their checksums,
// bit-packed bytestreams and the packets and sections that hold them.
namespace kvr::cloud {

class OutputFile;

namespace e57 {

inline constexpr std::size_t kPageSize = 1024;
inline constexpr std::size_t kPagePayload = kPageSize - 4;  // the last four bytes: CRC-32C, big-endian
inline constexpr std::size_t kFileHeaderSize = 48;
inline constexpr std::size_t kSectionHeaderSize = 32;       // a compressed vector section's
inline constexpr std::size_t kBlobHeaderSize = 16;
inline constexpr std::size_t kPacketHeaderSize = 6;         // a data packet's, before its stream lengths
inline constexpr std::size_t kMaxPacket = 65536;

// CRC-32C (Castagnoli, reflected 0x82F63B78, initial and final XOR all ones).
std::uint32_t Crc32c(std::span<const std::uint8_t> bytes);

// The file offset of a logical byte (logical offsets skip the checksums).
constexpr std::uint64_t PhysicalOf(std::uint64_t logical) {
  return logical / kPagePayload * kPageSize + logical % kPagePayload;
}

constexpr std::uint64_t LogicalOf(std::uint64_t physical) {
  return physical / kPageSize * kPagePayload + physical % kPageSize;
}

// Writes the logical bytes of a file in pages, each closed by its checksum.
// Bytes already written can be changed with patch() when their place was kept
// with keep() beforehand: the pages holding them are copied as they leave and
// written again, checksum recomputed, by finish().
class PagedWriter {
 public:
  explicit PagedWriter(OutputFile& out) : out_(out) {}

  void write(std::span<const std::uint8_t> bytes);
  void write(const void* data, std::size_t size) { write({static_cast<const std::uint8_t*>(data), size}); }
  void zeros(std::size_t count);
  // Zero bytes up to the next multiple of four (logical).
  void align4() { zeros((4 - logical_ % 4) % 4); }

  std::uint64_t logical() const { return logical_; }
  std::uint64_t physical() const { return PhysicalOf(logical_); }

  // Keeps the pages of `size` logical bytes from `offset` on (not yet completed) for patch().
  void keep(std::uint64_t offset, std::size_t size);
  void patch(std::uint64_t offset, std::span<const std::uint8_t> bytes);

  // Writes out the last page (zero-filled) and then the patched pages.
  // Returns the physical length of the file.
  std::uint64_t finish();

 private:
  void completePage();

  OutputFile& out_;
  std::array<std::uint8_t, kPageSize> page_{};
  std::uint64_t logical_ = 0;
  std::map<std::uint64_t, std::array<std::uint8_t, kPageSize>> kept_;  // by page; empty until the page leaves
};

// One bytestream: values of a fixed width packed from the least significant
// bit of each byte on, as the format's bitpack codec lays them.
class BitStream {
 public:
  // Appends the low `width` bits of `value` (width < 64).
  void put(std::uint64_t value, unsigned width) {
    word_ |= value << bits_;
    if (bits_ + width >= 64) {
      store(word_);
      word_ = value >> (64 - bits_);  // bits_ > 0 here, as width < 64
      bits_ = bits_ + width - 64;
    } else {
      bits_ += width;
    }
  }
  // Appends `count` zero bits.
  void putZeros(std::uint64_t count) {
    for (; count >= 48; count -= 48) put(0, 48);
    if (count > 0) put(0, static_cast<unsigned>(count));
  }
  // Appends 8 bytes as they lie (doubles); the stream holds nothing else.
  void putWord(std::uint64_t word) { store(word); }

  // Moves the complete bytes (and with `all`, the last partial one) into `out`.
  void drain(std::vector<std::uint8_t>& out, bool all);

 private:
  void store(std::uint64_t word) {
    if (used_ + 8 > bytes_.size()) bytes_.resize(std::max<std::size_t>(256, 2 * bytes_.size()));
    std::memcpy(bytes_.data() + used_, &word, 8);
    used_ += 8;
  }
  std::vector<std::uint8_t> bytes_;  // complete words, used_ bytes of it
  std::size_t used_ = 0;
  std::uint64_t word_ = 0;
  unsigned bits_ = 0;
};

// The bits an integer between `minimum` and `maximum` takes: ceil(log2(maximum - minimum + 1)).
unsigned BitsFor(std::int64_t minimum, std::int64_t maximum);

// A compressed vector section being written: its header, then data packets, one
// bytestream a field each. flush() turns what the streams hold into a packet.
class VectorSection {
 public:
  VectorSection(PagedWriter& out, std::size_t fields);
  std::uint64_t offset() const { return offset_; }  // physical, of the section header

  std::vector<BitStream>& streams() { return streams_; }
  // Writes the streams' complete bytes as one packet (`last`: every byte). The
  // caller keeps a packet within kMaxPacket.
  void flush(bool last);
  // Writes the section's length into its header.
  void finish();

 private:
  PagedWriter& out_;
  std::uint64_t start_ = 0;  // logical
  std::uint64_t offset_ = 0;
  std::vector<BitStream> streams_;
  std::vector<std::vector<std::uint8_t>> pending_;
  std::vector<std::uint8_t> packet_;
};

// Text as XML character data inside CDATA (a "]]>" in it is split in two).
std::string CData(std::string_view text);

}  // namespace e57
}  // namespace kvr::cloud
