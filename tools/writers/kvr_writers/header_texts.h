#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// The texts a scan file's header block carries: the calibration text (key =
// value lines, optionally in sections per PRF), the parameter text (tables per
// PRF) and the optical model text (tagged values).
namespace kvr::writers {

using KeyValues = std::vector<std::pair<std::string, double>>;

// One "[PRF = n]" section of a calibration text: key = value lines, then lag
// rows written as "scanAngleLag = lag lineRate = rate" (four tokens: the
// reader keys a lag row by its fourth token).
struct CalibrationSection {
  std::int32_t prf = 200;
  KeyValues values;
  std::vector<std::pair<double, double>> lagRows;  // (line rate, lag in seconds)
};

// Lines of the values before any section, then the sections; numbers in their
// shortest exact form, lines ended by a line feed.
std::string ScanCalibrationText(const KeyValues& leading, const std::vector<CalibrationSection>& sections);

// One "[PRF = n]" table of a parameter text. Each row is written as
// "index 0 0 first second": the reader skips the first three columns.
struct PrfTable {
  std::int32_t prf = 200;
  std::vector<std::pair<double, double>> rows;
};
std::string ParameterText(const std::vector<PrfTable>& tables);

enum class TextLayout {
  kCompact,   // no whitespace at all
  kIndented,  // blanks, tabs, CR LF, vertical tabs and form feeds between and inside the elements
  kLines,     // one element a line, indented by two blanks, as a scanner writes it
};

// An optical model text: one calibration_parameters element with the given
// attributes (e.g. version="2"), holding one <key>value</key> element per entry.
std::string OpticalModelText(std::string_view attributes,
                             const std::vector<std::pair<std::string, std::string>>& values, TextLayout layout);

}  // namespace kvr::writers
