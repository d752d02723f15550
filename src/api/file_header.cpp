#include "kvr_decode/file_header.h"

#include "header/header_block.h"
#include "header/scan_file.h"

int DecodeFileHeader(unsigned char* headerBuffer, int /*size*/, RawFileHeader& rawFileHeader) {
  return kvr::header::DecodeFileHeader(headerBuffer, rawFileHeader);
}

FILE* ReadFileHeader(const wchar_t* scanFileName, RawFileHeader& rawFileHeader) {
  return kvr::header::ReadFileHeader(scanFileName, rawFileHeader);
}

void ReleaseFileHeader(RawFileHeader& rawFileHeader) { kvr::header::ReleaseFileHeader(rawFileHeader); }
