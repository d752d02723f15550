#include "support/optical_model_text.h"

namespace kvr::test {

std::string OpticalModelText(std::string_view attributes,
                             const std::vector<std::pair<std::string, std::string>>& values, TextLayout layout) {
  const bool indented = layout == TextLayout::kIndented;
  std::string text = indented ? "<?xml version=\"1.0\"?>\r\n<calibration_parameters" : "<calibration_parameters";
  if (!attributes.empty()) text.append(indented ? "\n\t " : " ").append(attributes);
  text += indented ? ">\r\n" : ">";
  for (const auto& [key, value] : values) {
    if (indented) {
      text += "\t<" + key + ">\v " + value + "\f\t</" + key + ">\r\n";
    } else {
      text += "<" + key + ">" + value + "</" + key + ">";
    }
  }
  text += indented ? "</calibration_parameters>\r\n" : "</calibration_parameters>";
  return text;
}

}  // namespace kvr::test
