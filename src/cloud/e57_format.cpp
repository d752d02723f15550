#include "e57_format.h"

#include <bit>

#include "file_access.h"

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#include <nmmintrin.h>
#define KVR_E57_CRC_INSTRUCTION 1
#endif

namespace kvr::cloud::e57 {

namespace {

static_assert(std::endian::native == std::endian::little, "words are stored in the machine's byte order");

constexpr std::uint32_t kCastagnoli = 0x82F63B78u;  // reflected polynomial

struct CrcTables {
  std::uint32_t t[8][256];
  constexpr CrcTables() : t{} {
    for (std::uint32_t i = 0; i < 256; ++i) {
      std::uint32_t c = i;
      for (int k = 0; k < 8; ++k) c = (c & 1) ? (c >> 1) ^ kCastagnoli : c >> 1;
      t[0][i] = c;
    }
    for (std::uint32_t i = 0; i < 256; ++i) {
      for (int s = 1; s < 8; ++s) t[s][i] = (t[s - 1][i] >> 8) ^ t[0][t[s - 1][i] & 0xFF];
    }
  }
};
constexpr CrcTables kTables;

// Eight bytes a step through the tables.
std::uint32_t CrcBySlices(std::uint32_t crc, const std::uint8_t* p, std::size_t n) {
  const auto& t = kTables.t;
  for (; n >= 8; n -= 8, p += 8) {
    std::uint64_t word;
    std::memcpy(&word, p, 8);
    word ^= crc;
    crc = t[7][word & 0xFF] ^ t[6][(word >> 8) & 0xFF] ^ t[5][(word >> 16) & 0xFF] ^ t[4][(word >> 24) & 0xFF] ^
          t[3][(word >> 32) & 0xFF] ^ t[2][(word >> 40) & 0xFF] ^ t[1][(word >> 48) & 0xFF] ^ t[0][word >> 56];
  }
  for (; n > 0; --n, ++p) crc = (crc >> 8) ^ t[0][(crc ^ *p) & 0xFF];
  return crc;
}

#ifdef KVR_E57_CRC_INSTRUCTION
// The processor's CRC-32C instruction computes the same polynomial, a word a step.
__attribute__((target("sse4.2"))) std::uint32_t CrcByInstruction(std::uint32_t crc, const std::uint8_t* p,
                                                                   std::size_t n) {
  std::uint64_t c = crc;
  for (; n >= 8; n -= 8, p += 8) {
    std::uint64_t word;
    std::memcpy(&word, p, 8);
    c = _mm_crc32_u64(c, word);
  }
  auto c32 = static_cast<std::uint32_t>(c);
  for (; n > 0; --n, ++p) c32 = _mm_crc32_u8(c32, *p);
  return c32;
}

const bool kHasCrcInstruction = __builtin_cpu_supports("sse4.2");
#endif

}  // namespace

std::uint32_t Crc32c(std::span<const std::uint8_t> bytes) {
#ifdef KVR_E57_CRC_INSTRUCTION
  if (kHasCrcInstruction) return ~CrcByInstruction(~0u, bytes.data(), bytes.size());
#endif
  return ~CrcBySlices(~0u, bytes.data(), bytes.size());
}

namespace {

void SealPage(std::array<std::uint8_t, kPageSize>& page) {
  const std::uint32_t crc = Crc32c({page.data(), kPagePayload});
  page[kPagePayload] = static_cast<std::uint8_t>(crc >> 24);
  page[kPagePayload + 1] = static_cast<std::uint8_t>(crc >> 16);
  page[kPagePayload + 2] = static_cast<std::uint8_t>(crc >> 8);
  page[kPagePayload + 3] = static_cast<std::uint8_t>(crc);
}

}  // namespace

void PagedWriter::write(std::span<const std::uint8_t> bytes) {
  while (!bytes.empty()) {
    const std::size_t at = logical_ % kPagePayload;
    const std::size_t n = std::min(bytes.size(), kPagePayload - at);
    std::memcpy(page_.data() + at, bytes.data(), n);
    logical_ += n;
    bytes = bytes.subspan(n);
    if (at + n == kPagePayload) completePage();
  }
}

void PagedWriter::zeros(std::size_t count) {
  static constexpr std::uint8_t kZeros[64] = {};
  while (count > 0) {
    const std::size_t n = std::min(count, sizeof kZeros);
    write(kZeros, n);
    count -= n;
  }
}

void PagedWriter::completePage() {
  const std::uint64_t page = (logical_ - 1) / kPagePayload;
  SealPage(page_);
  out_.write(page_.data(), kPageSize);
  if (const auto kept = kept_.find(page); kept != kept_.end()) kept->second = page_;
  page_.fill(0);
}

void PagedWriter::keep(std::uint64_t offset, std::size_t size) {
  if (size == 0) return;
  for (std::uint64_t page = offset / kPagePayload; page <= (offset + size - 1) / kPagePayload; ++page) {
    kept_.try_emplace(page);
  }
}

void PagedWriter::patch(std::uint64_t offset, std::span<const std::uint8_t> bytes) {
  const std::uint64_t current = logical_ / kPagePayload;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const std::uint64_t page = (offset + i) / kPagePayload;
    const std::size_t at = (offset + i) % kPagePayload;
    if (page == current) {
      page_[at] = bytes[i];
    } else {
      kept_.at(page)[at] = bytes[i];  // a page not kept is a fault of the caller: std::out_of_range
    }
  }
}

std::uint64_t PagedWriter::finish() {
  if (logical_ % kPagePayload != 0) {
    const std::uint64_t page = logical_ / kPagePayload;
    SealPage(page_);
    out_.write(page_.data(), kPageSize);
    kept_.erase(page);
  }
  const std::uint64_t pages = (logical_ + kPagePayload - 1) / kPagePayload;
  for (auto& [page, bytes] : kept_) {
    if (page >= pages) continue;
    SealPage(bytes);
    out_.overwrite(page * kPageSize, bytes.data(), kPageSize, "cannot write a page again with its final values");
  }
  kept_.clear();
  return pages * kPageSize;
}

void BitStream::drain(std::vector<std::uint8_t>& out, bool all) {
  out.insert(out.end(), bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(used_));
  used_ = 0;
  const unsigned whole = all ? (bits_ + 7) / 8 : bits_ / 8;
  for (unsigned i = 0; i < whole; ++i) out.push_back(static_cast<std::uint8_t>(word_ >> (8 * i)));
  if (all) {
    word_ = 0, bits_ = 0;
  } else if (whole > 0) {
    word_ = whole == 8 ? 0 : word_ >> (8 * whole);
    bits_ -= 8 * whole;
  }
}

unsigned BitsFor(std::int64_t minimum, std::int64_t maximum) {
  const std::uint64_t span = static_cast<std::uint64_t>(maximum) - static_cast<std::uint64_t>(minimum);
  return static_cast<unsigned>(std::bit_width(span));
}

namespace {

void PutLe(std::uint8_t* at, std::uint64_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) at[i] = static_cast<std::uint8_t>(value >> (8 * i));
}

}  // namespace

VectorSection::VectorSection(PagedWriter& out, std::size_t fields)
    : out_(out), streams_(fields), pending_(fields) {
  out_.align4();
  start_ = out_.logical();
  offset_ = out_.physical();
  out_.keep(start_, kSectionHeaderSize);
  out_.zeros(kSectionHeaderSize);
}

void VectorSection::flush(bool last) {
  std::size_t length = kPacketHeaderSize + 2 * streams_.size();
  bool any = false;
  for (std::size_t i = 0; i < streams_.size(); ++i) {
    pending_[i].clear();
    streams_[i].drain(pending_[i], last);
    length += pending_[i].size();
    any = any || !pending_[i].empty();
  }
  if (!any) return;
  length = (length + 3) / 4 * 4;
  packet_.assign(kPacketHeaderSize + 2 * streams_.size(), 0);
  packet_[0] = 1;  // data packet; flags 0
  PutLe(&packet_[2], length - 1, 2);
  PutLe(&packet_[4], streams_.size(), 2);
  for (std::size_t i = 0; i < streams_.size(); ++i) PutLe(&packet_[kPacketHeaderSize + 2 * i], pending_[i].size(), 2);
  out_.write(packet_);
  for (const auto& bytes : pending_) out_.write(bytes);
  out_.align4();
}

void VectorSection::finish() {
  flush(true);
  out_.align4();
  std::uint8_t header[kSectionHeaderSize] = {};
  header[0] = 1;  // compressed vector section
  PutLe(header + 8, out_.logical() - start_, 8);
  PutLe(header + 16, PhysicalOf(start_ + kSectionHeaderSize), 8);
  // No index packet: offset 0.
  out_.patch(start_, header);
}

std::string CData(std::string_view text) {
  std::string out = "<![CDATA[";
  for (std::size_t at = 0;;) {
    const std::size_t end = text.find("]]>", at);
    if (end == std::string_view::npos) {
      out.append(text.substr(at));
      break;
    }
    out.append(text.substr(at, end + 2 - at)).append("]]><![CDATA[");
    at = end + 2;
  }
  return out + "]]>";
}

}  // namespace kvr::cloud::e57
