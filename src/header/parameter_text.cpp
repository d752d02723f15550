#include "header/parameter_text.h"

#include <cstring>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "header/text_tokens.h"

namespace kvr::header {

namespace {

constexpr std::string_view kPrfTableSeparators = " \t";
constexpr std::string_view kCalibrationSeparators = "= ,\t\r";
constexpr std::string_view kSectionMarker = "[PRF";
constexpr const char* kScanAngleLagKey = "scanAngleLag";

// Calls visit(line) for every line-feed separated line of a zero-terminated text.
template <typename Visit>
void ForEachLine(const char* text, Visit visit) {
  const std::string_view all = text == nullptr ? std::string_view() : std::string_view(text);
  std::size_t start = 0;
  while (start < all.size()) {
    const std::size_t end = all.find('\n', start);
    const std::size_t stop = end == std::string_view::npos ? all.size() : end;
    visit(all.substr(start, stop - start));
    start = stop + 1;
  }
}

// Minus one pulse period in seconds, prf being in kHz.
double ScanAngleLag(std::uint32_t prf) { return -(1.0 / (static_cast<double>(prf) * 1000.0)); }

bool IsSectionHeader(const std::vector<std::string>& tokens) {
  return TokenAt(tokens, 0).find(kSectionMarker) != std::string::npos;
}

}  // namespace

void BuildPrfTables(const char* parameterText, std::uint32_t length, PrfTables& prfTables) {
  prfTables.clear();
  if (length == 0) return;
  int section = 0;
  ForEachLine(parameterText, [&](std::string_view line) {
    const std::vector<std::string> tokens = SplitTokens(line, kPrfTableSeparators);
    if (tokens.size() < 3) return;
    if (IsSectionHeader(tokens)) {
      // "[PRF = 200]": the third token without its closing bracket.
      const std::string& value = TokenAt(tokens, 2);
      section = ParseWhole(value.substr(0, value.size() - 1));
      prfTables[section] = {};  // a repeated section starts afresh
      return;
    }
    if (section == 0 || tokens.size() < 5) return;
    ParseWhole(TokenAt(tokens, 0));  // the row number; the writer numbers rows, nobody reads it
    prfTables[section].emplace_back(ParseDouble(TokenAt(tokens, 3)), ParseDouble(TokenAt(tokens, 4)));
  });
}

void BuildCalibrationValues(RawFileHeader& record) {
  if (record.calibrationTextLength == 0) return;
  auto& values = record.calibrationValues;
  values.clear();
  // Lag rows (lag by scan rate) of the file's own section. The lag they would
  // interpolate is always replaced by the pulse period below, so they are only
  // collected; reading their fourth column is what rejects a three-token row.
  std::map<double, double> lagRows;
  int section = 0;
  ForEachLine(record.calibrationText, [&](std::string_view line) {
    const std::vector<std::string> tokens = SplitTokens(line, kCalibrationSeparators);
    if (tokens.size() < 2) return;
    if (IsSectionHeader(tokens)) {
      // "[PRF=200]" and "[PRF = 200]" both leave "200]", whose digits stop at the bracket.
      section = ParseWhole(TokenAt(tokens, 1));
      return;
    }
    if (section == 0) {
      values[TokenAt(tokens, 0)] = ParseDouble(TokenAt(tokens, 1));
      return;
    }
    if (static_cast<std::uint32_t>(section) != record.prf) return;
    if (tokens.size() == 2) {
      values[TokenAt(tokens, 0)] = ParseDouble(TokenAt(tokens, 1));
    } else {
      lagRows[ParseDouble(TokenAt(tokens, 3))] = ParseDouble(TokenAt(tokens, 1));
    }
  });

  if (section == 0) {
    // No section header at all: a plain "key = value" file.
    values.clear();
    ForEachLine(record.calibrationText, [&](std::string_view line) {
      const std::vector<std::string> tokens = SplitTokens(line, kCalibrationSeparators);
      if (tokens.size() == 2) values[TokenAt(tokens, 0)] = ParseDouble(TokenAt(tokens, 1));
    });
  }

  // Deliberately last: the pulse period overrides a "scanAngleLag" line of the
  // text as well as anything the lag rows would give.
  values[kScanAngleLagKey] = ScanAngleLag(record.prf);
}

}  // namespace kvr::header
