#pragma once

#include <cstdint>
#include <cstdio>

#include "platform/stream_reader.h"

namespace kvr::devices {

// Reads and throws away n bytes; true when all of them arrived. Reading rather
// than seeking stops at the real end of the file and sets its end-of-file state,
// so a stated size far beyond the file ends the reader instead of moving it off
// into nothing.
inline bool DiscardBytes(std::FILE* in, std::uint64_t n) {
  unsigned char sink[4096];
  while (n > 0) {
    const std::size_t want = n < sizeof sink ? static_cast<std::size_t>(n) : sizeof sink;
    const std::size_t got = stream::ReadBytes(in, sink, want);
    n -= got;
    if (got < want) return false;
  }
  return true;
}

}  // namespace kvr::devices
