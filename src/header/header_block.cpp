#include "header/header_block.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>

#include "diag/error_manager.h"
#include "header/header_fields.h"
#include "header/parameter_text.h"
#include "optics/constants.h"
#include "platform/little_endian.h"

namespace kvr::header {

namespace {

constexpr std::string_view kDecodeFileHeaderContext =
    "int DecodeFileHeader(unsigned char *headerBuffer, RawFileHeader &rawFileHeader)";
constexpr std::string_view kBufferSignatureWrongMessage = "buffer signature is wrong ";

// The record mirrors the block: its fixed fields lie at the block's offsets.
static_assert(offsetof(RawFileHeaderBlock, headerLayout) == layout::kHeaderLayout.offset);
static_assert(offsetof(RawFileHeaderBlock, dataOffset) == layout::kDataOffset.offset);
static_assert(offsetof(RawFileHeaderBlock, headerWords) == layout::kHeaderWords.offset);
static_assert(offsetof(RawFileHeaderBlock, idText1) == layout::kIdText1.offset);
static_assert(offsetof(RawFileHeaderBlock, idValue) == layout::kIdValue.offset);
static_assert(offsetof(RawFileHeaderBlock, idText2) == layout::kIdText2.offset);
static_assert(offsetof(RawFileHeaderBlock, idText3) == layout::kIdText3.offset);
static_assert(offsetof(RawFileHeaderBlock, idText4) == layout::kIdText4.offset);
static_assert(offsetof(RawFileHeaderBlock, scanWord0) == layout::kScanWords.offset);
static_assert(offsetof(RawFileHeaderBlock, scanStartAngle) == layout::kScanStartAngle.offset);
static_assert(offsetof(RawFileHeaderBlock, scanEndAngle) == layout::kScanEndAngle.offset);
static_assert(offsetof(RawFileHeaderBlock, angularSpeed) == layout::kAngularSpeed.offset);
static_assert(offsetof(RawFileHeaderBlock, sweepStartAngle) == layout::kSweepStartAngle.offset);
static_assert(offsetof(RawFileHeaderBlock, sweepEndAngle) == layout::kSweepEndAngle.offset);
static_assert(offsetof(RawFileHeaderBlock, lineRate) == layout::kLineRate.offset);
static_assert(offsetof(RawFileHeaderBlock, prf) == layout::kPrf.offset);
static_assert(offsetof(RawFileHeaderBlock, scanTailWords) == layout::kScanTailWords.offset);
static_assert(offsetof(RawFileHeaderBlock, calibrationTextLength) == layout::kFixedPartSize);
static_assert(offsetof(RawFileHeaderBlock, parameterText) == 292);  // 4-byte packed pointer
static_assert(sizeof(RawFileHeaderBlock) == 324);

// The size the block's own length words claim. They are trusted, as the caller
// passes a whole block; the decoder then reads inside that extent only.
std::size_t ClaimedBlockSize(const unsigned char* block) {
  const std::uint32_t headerLayout = le::LoadU32(block + layout::kHeaderLayout.offset);
  std::uint64_t at = layout::kFixedPartSize;
  for (int text = 0; text < layout::TextCount(headerLayout); ++text) {
    at += layout::kTextLengthSize + std::uint64_t{le::LoadU32(block + at)};
  }
  return static_cast<std::size_t>(std::min<std::uint64_t>(at, std::numeric_limits<std::size_t>::max()));
}

}  // namespace

bool IsScanSignature(const RawFileHeaderBlock& header) {
  const std::uint64_t magic = ScanSignature(header);
  return magic == optics::kSignatureMx700Dat || magic == optics::kSignatureKvrScan ||
         magic == optics::kSignatureMx70Dat;
}

bool IsDefinedPrf(std::uint32_t prf) { return prf == 50 || prf == 500 || prf == 200; }

std::string SignatureText(const RawFileHeaderBlock& header) {
  const char* text = reinterpret_cast<const char*>(header.signature);
  return std::string(text, strnlen(text, sizeof header.signature));
}

char* AllocateText(std::uint64_t length) {
  const std::uint64_t size = length + 1;  // 64-bit: a length of 0xFFFFFFFF does not wrap
  if (size > std::numeric_limits<std::size_t>::max()) throw std::bad_alloc();
  void* text = std::calloc(static_cast<std::size_t>(size), 1);
  if (text == nullptr) throw std::bad_alloc();
  return static_cast<char*>(text);
}

int DecodeFileHeader(const unsigned char* headerBuffer, RawFileHeader& rawFileHeader) {
  RawFileHeader& h = rawFileHeader;
  std::memcpy(h.signature, headerBuffer, sizeof h.signature);
  if (!IsScanSignature(h)) {
    Log(kDecodeFileHeaderContext, std::string(kBufferSignatureWrongMessage), {SignatureText(h)});
    return -1;
  }

  le::ByteCursor in({headerBuffer, ClaimedBlockSize(headerBuffer)});
  in.skip(sizeof h.signature);
  ForEachFixedField(h, [&in](auto& field) { in.field(field); });
  ReadTexts(h, [&in](std::uint32_t& length) {
    in.field(length);
    char* text = AllocateText(length);
    in.read(text, length);
    return text;
  });

  if (!IsDefinedPrf(h.prf)) {
    Log(kDecodeFileHeaderContext, std::string(kPrfUndefinedMessage) + std::to_string(h.prf));
    return 0;  // deliberately not a failure: callers check prf themselves
  }
  BuildPrfTables(h.parameterText, h.parameterTextLength, h.prfTables);
  BuildCalibrationValues(h);
  return 0;
}

void ReleaseFileHeader(RawFileHeader& rawFileHeader) {
  RawFileHeader& h = rawFileHeader;
  std::free(h.calibrationText);
  std::free(h.parameterText);
  std::free(h.thirdText);
  std::free(h.fourthText);
  h.calibrationText = h.parameterText = h.thirdText = h.fourthText = nullptr;
  h.calibrationTextLength = h.parameterTextLength = h.thirdTextLength = h.fourthTextLength = 0;
  delete h.sideTableGrid;
  h.sideTableGrid = nullptr;
}

}  // namespace kvr::header
