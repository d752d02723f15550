#pragma once

#include <cstdio>

#include "kvr_decode/export.h"
#include "kvr_decode/raw_file_header.h"

// Decodes a header block already held in memory. The lengths inside the block
// are trusted and size is ignored: pass the whole block. Returns -1 when the
// magic is wrong (only signature is written then) and 0 otherwise, also when the
// PRF is undefined: check prf before using the tables. Each call allocates fresh
// texts; release the previous ones with ReleaseFileHeader first.
KVR_API int DecodeFileHeader(unsigned char* headerBuffer, int size, RawFileHeader& rawFileHeader);

// Opens a raw scan file, fills the record (texts, tables, side table grid) and
// returns the stream positioned at the first FIFO block; the caller closes it.
// Null when the file cannot be opened, its magic is wrong or its PRF is
// undefined; the failure is written to the diagnostic log.
KVR_API FILE* ReadFileHeader(const wchar_t* scanFileName, RawFileHeader& rawFileHeader);

// Frees what a decoded header owns (its four texts and its side table grid):
// pointers become null and text lengths 0. Safe on a record that owns nothing.
KVR_API void ReleaseFileHeader(RawFileHeader& rawFileHeader);
