#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kvr::test {

enum class TextLayout {
  kCompact,   // no whitespace at all
  kIndented,  // blanks, tabs and CR LF line ends between and inside the elements
};

// An optical model text as a header carries it: one calibration_parameters
// element with the given attributes (e.g. version="2"), holding one
// <key>value</key> element per entry.
std::string OpticalModelText(std::string_view attributes,
                             const std::vector<std::pair<std::string, std::string>>& values, TextLayout layout);

}  // namespace kvr::test
