#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "header/header_layout.h"
#include "kvr_decode/raw_file_header.h"

// The header block at the start of every raw scan file, decoded from memory,
// and the rules that reading it from a stream shares.
namespace kvr::header {

inline constexpr std::string_view kPrfUndefinedMessage =
    "The PRF is undefined. Processing can not continue, PRF read = ";

// True for the three scanner models' magics.
bool IsScanSignature(const RawFileHeaderBlock& header);

// The pulse repetition frequencies the scanner runs at: 50, 200 and 500 kHz.
bool IsDefinedPrf(std::uint32_t prf);

// The magic as log text: its bytes up to the first zero byte.
std::string SignatureText(const RawFileHeaderBlock& header);

// A zero-filled, zero-terminated buffer of length + 1 bytes for a header text;
// std::bad_alloc when it cannot be had. Untouched pages cost nothing, so a
// length larger than the data behind it commits only what is copied in. Free
// with ReleaseFileHeader (texts come from the C allocator).
char* AllocateText(std::uint64_t length);

// Decodes a header block held in memory. The block's own lengths are trusted:
// the caller passes a whole block. -1 for a wrong magic (only signature is
// written then), else 0, also for an undefined PRF (tables not built then).
int DecodeFileHeader(const unsigned char* headerBuffer, RawFileHeader& rawFileHeader);

// Frees the four texts and the side table grid; pointers null, lengths 0.
void ReleaseFileHeader(RawFileHeader& rawFileHeader);

}  // namespace kvr::header
