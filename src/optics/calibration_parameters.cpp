#include "optics/calibration_parameters.h"

#include <array>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string_view>

#include "platform/number_text.h"

namespace kvr::optics {
namespace {

constexpr std::size_t kRangeTableRows = 4096;
constexpr float kDefaultRangeOffset = -13.2f;

// The version attribute of the calibration_parameters element, once blanks are
// gone; older texts call it "model".
constexpr std::string_view kVersion2Attribute = R"(calibration_parametersversion="2")";
constexpr std::string_view kModel2Attribute = R"(calibration_parametersmodel="2")";

enum Tag : std::size_t {
  kA0, kA1, kA2, kA3, kA4, kA5, kA6,
  kSmKappa, kPanA, kPanB,
  kWobbleOmega, kWobbleOmegaA, kWobbleOmegaB,
  kWobblePhi, kWobblePhiA, kWobblePhiB, kWobblePhiS,
  kTagCount
};

constexpr std::array<std::string_view, kTagCount> kTagNames = {
    "a0", "a1", "a2", "a3", "a4", "a5", "a6",
    "sm-kappa", "pan-a", "pan-b",
    "wobble-omega", "wobble-omega-a", "wobble-omega-b",
    "wobble-phi", "wobble-phi-a", "wobble-phi-b", "wobble-phi-s"};

constexpr std::size_t LongestTagName() {
  std::size_t longest = 0;
  for (std::string_view name : kTagNames) longest = name.size() > longest ? name.size() : longest;
  return longest;
}

// The optical model text up to its stored length or its first zero byte,
// whichever comes first, with every whitespace character removed.
std::string StrippedText(const RawFileHeader& header) {
  std::string stripped;
  if (header.thirdText == nullptr) return stripped;
  const char* text = header.thirdText;
  const void* zero = std::memchr(text, '\0', header.thirdTextLength);
  const std::size_t length = zero ? static_cast<std::size_t>(static_cast<const char*>(zero) - text)
                                  : std::size_t{header.thirdTextLength};
  stripped.reserve(length);
  for (std::size_t i = 0; i < length; ++i) {
    if (!std::isspace(static_cast<unsigned char>(text[i]))) stripped.push_back(text[i]);
  }
  return stripped;
}

// Every tag's value, found in one pass over the stripped text. A key counts
// from the first "<key>" and the first "</key>" of the whole text; without
// either its value is 0.0.
class TagValues {
 public:
  explicit TagValues(const std::string& stripped) {
    open_.fill(std::string_view::npos);
    close_.fill(std::string_view::npos);
    const std::string_view text(stripped);
    // A tag name is at most this far from its '<': '/' + name + '>'. Looking no
    // further keeps a text full of unclosed '<' linear.
    constexpr std::size_t kWindow = LongestTagName() + 2;
    for (std::size_t at = text.find('<'); at != std::string_view::npos; at = text.find('<', at + 1)) {
      const std::string_view window = text.substr(at + 1, kWindow);
      const std::size_t end = window.find('>');
      if (end == std::string_view::npos) continue;
      std::string_view name = window.substr(0, end);
      const bool closing = !name.empty() && name.front() == '/';
      if (closing) name.remove_prefix(1);
      for (std::size_t tag = 0; tag < kTagCount; ++tag) {
        if (name != kTagNames[tag]) continue;
        auto& first = closing ? close_[tag] : open_[tag];
        if (first == std::string_view::npos) first = closing ? at : at + 1 + end + 1;
        break;
      }
    }
    for (std::size_t tag = 0; tag < kTagCount; ++tag) {
      if (open_[tag] == std::string_view::npos || close_[tag] == std::string_view::npos) continue;
      // atof stops at the closing tag's '<', so reading from the value's start
      // reads exactly the value; a closing tag placed before the opening one
      // leaves the rest of the text as the value.
      values_[tag] = platform::Atof(stripped.c_str() + open_[tag]);
    }
  }

  double operator[](Tag tag) const { return values_[tag]; }

 private:
  std::array<std::size_t, kTagCount> open_{};   // first character after "<key>"
  std::array<std::size_t, kTagCount> close_{};  // the '<' of "</key>"
  std::array<double, kTagCount> values_{};
};

}  // namespace

OpticalModel::CalibrationParameters ReadCalibrationParameters(RawFileHeader& header) {
  OpticalModel::CalibrationParameters parameters;

  const auto table = header.prfTables.find(static_cast<std::int32_t>(header.prf));
  if (table != header.prfTables.end() && table->second.size() == kRangeTableRows) {
    for (std::size_t i = 0; i < kRangeTableRows; ++i) {
      parameters.rangeTable[i] = static_cast<float>(table->second[i].first);
    }
    parameters.rangeTableValid = 1;
  }

  const auto offset = header.calibrationValues.find("rangeOffset");
  parameters.rangeOffset = offset != header.calibrationValues.end() ? static_cast<float>(offset->second)
                                                                    : kDefaultRangeOffset;

  if (header.thirdTextLength == 0) return parameters;

  const std::string stripped = StrippedText(header);
  const bool model2 = stripped.find(kVersion2Attribute) != std::string::npos ||
                      stripped.find(kModel2Attribute) != std::string::npos;
  parameters.opticalModelVersion = model2 ? 2 : 1;
  std::cout << "Optical model version " << parameters.opticalModelVersion << '\n';

  // A missing tag overrides the default with 0.0 (a1 included): the text, once
  // present, is the whole model.
  const TagValues tags(stripped);
  parameters.a0 = tags[kA0];
  parameters.a1 = tags[kA1];
  parameters.a2 = tags[kA2];
  parameters.a3 = tags[kA3];
  if (!model2) {
    parameters.wobblePhiModel1 = tags[kWobblePhi];
    return parameters;
  }
  parameters.a4 = tags[kA4];
  parameters.a5 = tags[kA5];
  parameters.a6 = tags[kA6];
  parameters.smKappa = tags[kSmKappa];
  parameters.panA = tags[kPanA];
  parameters.panB = tags[kPanB];
  parameters.wobbleOmega = tags[kWobbleOmega];
  parameters.wobbleOmegaA = tags[kWobbleOmegaA];
  parameters.wobbleOmegaB = tags[kWobbleOmegaB];
  parameters.wobblePhi = tags[kWobblePhi];
  parameters.wobblePhiA = tags[kWobblePhiA];
  parameters.wobblePhiB = tags[kWobblePhiB];
  parameters.wobblePhiS = tags[kWobblePhiS];
  return parameters;
}

double CalibrationValue(const std::string& key, RawFileHeader& header) { return header.calibrationValues[key]; }

}  // namespace kvr::optics
