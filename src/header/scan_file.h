#pragma once

#include <cstdio>

#include "kvr_decode/raw_file_header.h"

// Opening a raw scan file by name: header block, tables, side table, and the
// stream handed back at the first FIFO block.
namespace kvr::header {

// The open stream positioned at dataOffset, or null when the file cannot be
// opened, its magic is wrong or its PRF is undefined. The two latter paths
// deliberately leave the stream open, as this entry point has always done.
std::FILE* ReadFileHeader(const wchar_t* scanFileName, RawFileHeader& rawFileHeader);

}  // namespace kvr::header
