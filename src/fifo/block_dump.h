#pragma once

#include <cstdio>

namespace kvr::fifo {

// Reads the next whole block and writes one line with its time stamp, signature,
// cast block number and shot count to out; a wrong signature is marked, not
// refused. Returns 0, or -1 on a short read, which is reported on standard
// output. A null input stream reads as empty.
int DumpBlock(std::FILE* in, std::FILE* out);

}  // namespace kvr::fifo
