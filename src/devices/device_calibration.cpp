#include "devices/device_calibration.h"

#include <algorithm>
#include <cstdlib>
#include <limits>

#include "devices/discard_bytes.h"
#include "platform/number_text.h"
#include "platform/stream_reader.h"

namespace kvr::devices {

namespace {

constexpr std::string_view kSeparators = "= \t";

using CalibrationTable = std::map<std::string, double>;

CalibrationTable ReadCalibrationTable(std::FILE* file, std::uint32_t byteCount) {
  char buffer[kCalibrationTextCapacity] = {};
  const std::size_t kept = std::min<std::size_t>(byteCount, sizeof buffer);
  stream::ReadBytes(file, buffer, kept);
  DiscardBytes(file, byteCount - kept);
  const std::size_t length = static_cast<std::size_t>(std::find(buffer, buffer + kept, '\0') - buffer);
  return ParseCalibrationText(std::string_view(buffer, length));
}

double ValueOf(const CalibrationTable& table, const char* key) {
  const auto found = table.find(key);
  return found == table.end() ? 0.0 : found->second;
}

float FloatOf(const CalibrationTable& table, const char* key) { return static_cast<float>(ValueOf(table, key)); }

}  // namespace

std::map<std::string, double> ParseCalibrationText(std::string_view text) {
  CalibrationTable table;
  std::size_t lineStart = 0;
  while (lineStart < text.size()) {
    const std::size_t lineEnd = std::min(text.find('\n', lineStart), text.size());
    const std::string_view line = text.substr(lineStart, lineEnd - lineStart);
    lineStart = lineEnd + 1;

    std::string_view tokens[2];
    int count = 0;
    std::size_t at = 0;
    while (count < 2) {
      at = line.find_first_not_of(kSeparators, at);
      if (at == std::string_view::npos) break;
      const std::size_t end = std::min(line.find_first_of(kSeparators, at), line.size());
      tokens[count++] = line.substr(at, end - at);
      at = end;
    }
    if (count == 2) table[std::string(tokens[0])] = platform::Atof(std::string(tokens[1]).c_str());
  }
  return table;
}

std::int32_t RoundHalfUp(double value) {
  const double shifted = value + 0.5;
  if (!(shifted > -2147483649.0 && shifted < 2147483648.0)) return std::numeric_limits<std::int32_t>::min();
  return static_cast<std::int32_t>(shifted);
}

int DecodeInclinometerCalibration(std::FILE* file, InclinometerCalibration& calibration, std::uint32_t byteCount) {
  const CalibrationTable table = ReadCalibrationTable(file, byteCount);
  calibration.sxx = FloatOf(table, "sxx");
  calibration.syy = FloatOf(table, "syy");
  calibration.sxy = FloatOf(table, "sxy");
  calibration.syx = FloatOf(table, "syx");
  calibration.offnomx = FloatOf(table, "offnomx");
  calibration.offnomy = FloatOf(table, "offnomy");
  calibration.bsroll = FloatOf(table, "bsroll");
  calibration.bspitch = FloatOf(table, "bspitch");
  calibration.bsheading = FloatOf(table, "bsheading");
  calibration.alpha = RoundHalfUp(ValueOf(table, "alpha"));
  calibration.beta = FloatOf(table, "beta");
  calibration.vref = FloatOf(table, "vref");
  calibration.pga = RoundHalfUp(ValueOf(table, "pga"));
  return 0;
}

int DecodeCompassCalibration(std::FILE* file, CompassCalibration& calibration, std::uint32_t byteCount) {
  const CalibrationTable table = ReadCalibrationTable(file, byteCount);
  calibration.xsf = FloatOf(table, "xsf");
  calibration.ysf = FloatOf(table, "ysf");
  calibration.xoff = FloatOf(table, "xoff");
  calibration.yoff = FloatOf(table, "yoff");
  calibration.declination = FloatOf(table, "declination");
  return 0;
}

}  // namespace kvr::devices
