#pragma once

#include <cstddef>
#include <cstdint>

// The header block at the start of a raw scan file: an 8-byte magic, fixed
// fields, then three or four texts, each a u32 length and that many bytes.
// Header-only and dependency-free: tools, writers and tests read it too.
namespace kvr::header::layout {

struct Field {
  std::size_t offset;
  std::size_t size;
};

inline constexpr Field kSignature{0, 8};
inline constexpr Field kHeaderLayout{8, 4};  // 0: a fourth text follows the third; 1: none
inline constexpr Field kDataOffset{12, 4};   // where the first FIFO block starts
inline constexpr Field kHeaderWords{16, 12};
inline constexpr Field kIdText1{28, 40};
inline constexpr Field kIdValue{68, 4};
inline constexpr Field kIdText2{72, 40};
inline constexpr Field kIdText3{112, 40};
inline constexpr Field kIdText4{152, 40};
inline constexpr Field kScanWords{192, 84};  // 21 words; the rows below name some of them
inline constexpr Field kScanStartAngle{196, 4};
inline constexpr Field kScanEndAngle{200, 4};
inline constexpr Field kAngularSpeed{204, 4};
inline constexpr Field kSweepStartAngle{208, 4};
inline constexpr Field kSweepEndAngle{212, 4};
inline constexpr Field kLineRate{216, 4};
inline constexpr Field kPrf{220, 4};
inline constexpr Field kScanTailWords{224, 52};

inline constexpr std::size_t kHeaderWordCount = 3;
inline constexpr std::size_t kScanWordCount = 21;
inline constexpr std::size_t kScanTailWordCount = 13;
inline constexpr std::size_t kIdTextSize = 40;

// The fixed part ends where the first text length begins.
inline constexpr std::size_t kFixedPartSize = 276;
inline constexpr std::size_t kTextLengthSize = 4;
// The fixed part and the three length words that every block has.
inline constexpr std::size_t kSmallestBlockSize = kFixedPartSize + 3 * kTextLengthSize;

inline constexpr std::uint32_t kLayoutWithFourthText = 0;
inline constexpr std::uint32_t kLayoutWithoutFourthText = 1;

// How many texts follow the fixed part for a headerLayout value.
constexpr int TextCount(std::uint32_t headerLayout) { return headerLayout == kLayoutWithFourthText ? 4 : 3; }

// The whole block's size for its layout and text lengths (l4 counts only for layout 0).
constexpr std::uint64_t BlockSize(std::uint32_t headerLayout, std::uint64_t l1, std::uint64_t l2, std::uint64_t l3,
                                  std::uint64_t l4 = 0) {
  const std::uint64_t three = kSmallestBlockSize + l1 + l2 + l3;
  return headerLayout == kLayoutWithFourthText ? three + kTextLengthSize + l4 : three;
}

// The three scanner models' magics, as text.
inline constexpr char kMagicKvrScan[] = "#KVRSCAN";
inline constexpr char kMagicMx70Dat[] = "#MX70DAT";
inline constexpr char kMagicMx700Dat[] = "MX700DAT";

static_assert(kScanStartAngle.offset == kScanWords.offset + 4 && kPrf.offset == kScanWords.offset + 7 * 4);
static_assert(kScanTailWords.offset + kScanTailWords.size == kFixedPartSize);
static_assert(kScanWords.size == kScanWordCount * 4 && kHeaderWords.size == kHeaderWordCount * 4);

}  // namespace kvr::header::layout
