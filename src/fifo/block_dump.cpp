#include "fifo/block_dump.h"

#include <array>
#include <cstdint>

#include "fifo/block_format.h"
#include "platform/stream_reader.h"

namespace kvr::fifo {

namespace {
constexpr const char* kEndOfFileFormat = "EOF detected : BytesRead = %zu\n";
constexpr const char* kGoodBlockFormat = "%lld %lld %lld %lld \n";
constexpr const char* kBadBlockFormat = "!!!!!!!!!!!!!!!! %lld %lld %lld %lld \n";
}  // namespace

int DumpBlock(std::FILE* in, std::FILE* out) {
  std::array<std::uint8_t, SIZEOFFIFOBLOCK> block;  // filled whole, or not used
  const std::size_t bytesRead = in == nullptr ? 0 : stream::ReadBytes(in, block.data(), block.size());
  if (bytesRead < block.size()) {
    // The end of a dump is news for the person at the console, not for the log.
    std::printf(kEndOfFileFormat, bytesRead);
    return -1;
  }
  const DmaBlockHeader header = ReadDmaBlockHeader(block);
  const char* format = header.signature == layout::kBlockSignature ? kGoodBlockFormat : kBadBlockFormat;
  // At most 53 characters: a 13-digit time stamp, a 10-digit signature, 4 digits each for the rest.
  char line[96];
  std::snprintf(line, sizeof line, format, static_cast<long long>(header.cycleSyncTimeStamp),
                static_cast<long long>(header.signature), static_cast<long long>(header.castBlockNumber),
                static_cast<long long>(header.shotCount));
  if (out != nullptr) std::fputs(line, out);
  return 0;
}

}  // namespace kvr::fifo
