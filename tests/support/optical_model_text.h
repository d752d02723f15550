#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kvr::test {

enum class TextLayout {
  kCompact,   // no whitespace at all
  kIndented,  // blanks, tabs, CR LF, vertical tabs and form feeds between and inside the elements
};

// An optical model text as a header carries it: one calibration_parameters
// element with the given attributes (e.g. version="2"), holding one
// <key>value</key> element per entry.
inline std::string OpticalModelText(std::string_view attributes,
                                    const std::vector<std::pair<std::string, std::string>>& values,
                                    TextLayout layout) {
  const bool indented = layout == TextLayout::kIndented;
  std::string text = indented ? "<?xml version=\"1.0\"?>\r\n<calibration_parameters" : "<calibration_parameters";
  if (!attributes.empty()) text.append(indented ? "\n\t " : " ").append(attributes);
  text += indented ? ">\r\n" : ">";
  for (const auto& [key, value] : values) {
    text += indented ? "\t<" + key + ">\v " + value + "\f\t</" + key + ">\r\n" : "<" + key + ">" + value + "</" + key + ">";
  }
  return text + (indented ? "</calibration_parameters>\r\n" : "</calibration_parameters>");
}

}  // namespace kvr::test
