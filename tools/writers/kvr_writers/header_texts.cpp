#include "kvr_writers/header_texts.h"

#include "kvr_writers/scan_file_writer.h"

namespace kvr::writers {

namespace {

std::string SectionLine(std::int32_t prf) { return "[PRF = " + std::to_string(prf) + "]\n"; }

void AppendValues(std::string& text, const KeyValues& values) {
  for (const auto& [key, value] : values) text += key + " = " + ShortestDecimal(value) + "\n";
}

}  // namespace

std::string ScanCalibrationText(const KeyValues& leading, const std::vector<CalibrationSection>& sections) {
  std::string text;
  AppendValues(text, leading);
  for (const CalibrationSection& section : sections) {
    text += SectionLine(section.prf);
    AppendValues(text, section.values);
    for (const auto& [lineRate, lag] : section.lagRows) {
      text += "scanAngleLag = " + ShortestDecimal(lag) + " lineRate = " + ShortestDecimal(lineRate) + "\n";
    }
  }
  return text;
}

std::string ParameterText(const std::vector<PrfTable>& tables) {
  std::string text;
  for (const PrfTable& table : tables) {
    text += SectionLine(table.prf);
    for (std::size_t i = 0; i < table.rows.size(); ++i) {
      text += std::to_string(i) + " 0 0 " + ShortestDecimal(table.rows[i].first) + " " +
              ShortestDecimal(table.rows[i].second) + "\n";
    }
  }
  return text;
}

std::string OpticalModelText(std::string_view attributes,
                             const std::vector<std::pair<std::string, std::string>>& values, TextLayout layout) {
  const std::string open = attributes.empty() ? "<calibration_parameters" : "<calibration_parameters ";
  std::string text;
  switch (layout) {
    case TextLayout::kCompact:
      text = open + std::string(attributes) + ">";
      for (const auto& [key, value] : values) text += "<" + key + ">" + value + "</" + key + ">";
      return text + "</calibration_parameters>";
    case TextLayout::kIndented:
      text = "<?xml version=\"1.0\"?>\r\n<calibration_parameters";
      if (!attributes.empty()) text.append("\n\t ").append(attributes);
      text += ">\r\n";
      for (const auto& [key, value] : values) text += "\t<" + key + ">\v " + value + "\f\t</" + key + ">\r\n";
      return text + "</calibration_parameters>\r\n";
    case TextLayout::kLines:
      text = "<?xml version=\"1.0\"?>\n" + open + std::string(attributes) + ">\n";
      for (const auto& [key, value] : values) text += "  <" + key + ">" + value + "</" + key + ">\n";
      return text + "</calibration_parameters>\n";
  }
  return text;
}

}  // namespace kvr::writers
