// DecodeFileHeader on a header block exactly as long as the lengths inside it
// claim (the decoder trusts them, so a shorter buffer would be the caller's
// fault), then what callers read out of the record: the optical model's
// calibration parameters and single calibration values.

#include <cstring>
#include <memory>
#include <string>

#include "fuzz_support.h"
#include "header/header_layout.h"
#include "kvr_decode/file_header.h"
#include "kvr_decode/optical_model.h"
#include "platform/little_endian.h"

namespace {

using kvr::fuzz::Bytes;
using kvr::fuzz::Finding;

namespace layout = kvr::header::layout;

struct ClaimedBlock {
  std::unique_ptr<std::uint8_t[]> bytes;
  std::uint64_t size = 0;
};

// The input cut or zero-padded to the size its lengths claim (layout::BlockSize). Bytes past the input read as zero.
bool MakeClaimedBlock(Bytes input, ClaimedBlock& block) {
  const auto u32At = [&](std::uint64_t at) {
    std::uint8_t word[4] = {};
    for (std::uint64_t i = 0; i < 4; ++i) {
      if (at + i < input.size()) word[i] = input[at + i];
    }
    return kvr::le::LoadU32(word);
  };
  const int texts = layout::TextCount(u32At(layout::kHeaderLayout.offset));
  std::uint64_t end = layout::kFixedPartSize;
  for (int i = 0; i < texts; ++i) {
    const std::uint32_t length = u32At(end);
    end += layout::kTextLengthSize + std::uint64_t{length};  // in 64 bits: a length of 0xFFFFFFFF must not wrap
    if (end > kvr::fuzz::kLargestClaim) return false;  // the whole block is copied and zero-filled per input
  }
  block.size = end;
  block.bytes.reset(new std::uint8_t[end]);  // exactly the claim: a read past it is caught
  const std::uint64_t copied = input.size() < end ? input.size() : end;
  if (copied > 0) std::memcpy(block.bytes.get(), input.data(), copied);
  std::memset(block.bytes.get() + copied, 0, end - copied);
  return true;
}

bool TextIsTerminated(const char* text, std::uint32_t length) { return text != nullptr && text[length] == '\0'; }

void CheckDecoded(const ClaimedBlock& block, const RawFileHeader& header) {
  // The fixed part is carried through byte for byte.
  const RawFileHeaderBlock& fixed = header;
  if (std::memcmp(&fixed, block.bytes.get(), kFixedPart) != 0) Finding("fixed part differs from the block");
  if (!TextIsTerminated(header.calibrationText, header.calibrationTextLength) ||
      !TextIsTerminated(header.parameterText, header.parameterTextLength) ||
      !TextIsTerminated(header.thirdText, header.thirdTextLength)) {
    Finding("a header text is not terminated after its length");
  }
  if (header.headerLayout == 0 && !TextIsTerminated(header.fourthText, header.fourthTextLength)) {
    Finding("the fourth text is not terminated after its length");
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  kvr::fuzz::SilenceStandardOutput();  // "Optical model version" lines
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  kvr::fuzz::TrimLog();
  ClaimedBlock block;
  if (!MakeClaimedBlock(Bytes(data, size), block)) return 0;

  RawFileHeader header;
  try {
    const int result = DecodeFileHeader(block.bytes.get(), static_cast<int>(size), header);
    if (result == -1) {
      if (header.calibrationText != nullptr || header.headerLayout != 0) Finding("a rejected block filled the record");
    } else if (result == 0) {
      CheckDecoded(block, header);
      GetCalibrationParameters(header);
      std::string key = "rangeOffset";
      GetCfValue(key, header);
      GetCalibrationParameters(header);  // now with the key GetCfValue inserted
    } else {
      Finding("DecodeFileHeader returned neither 0 nor -1");
    }
  } catch (const std::out_of_range& e) {
    kvr::fuzz::ExpectInvalidSubscript(e);
  }
  ReleaseFileHeader(header);
  return 0;
}
