#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

// The small text toolkit of the scanner's line-oriented parameter files: cut a
// line into tokens, reach a token with a checked index, and convert numbers the
// lenient way the scanner's own writers expect (leading digits count, junk
// converts to 0).
namespace kvr::header {

// Tokens of a line cut at every character of separators; empty tokens dropped.
std::vector<std::string> SplitTokens(std::string_view line, std::string_view separators);

// Element i, or std::out_of_range("invalid vector<T> subscript"): a malformed
// line or table ends the parse with that error rather than a read out of bounds.
[[noreturn]] void ThrowInvalidSubscript();

template <typename T>
const T& CheckedAt(const std::vector<T>& items, std::size_t i) {
  if (i >= items.size()) ThrowInvalidSubscript();
  return items[i];
}

inline const std::string& TokenAt(const std::vector<std::string>& tokens, std::size_t i) {
  return CheckedAt(tokens, i);
}

// Leading blanks, optional sign, decimal digits up to the first other character;
// 0 when there are none. Values beyond the int range clamp to its ends.
int ParseWhole(const std::string& token);

// Decimal string-to-double with the same stopping rule; 0.0 when nothing converts.
double ParseDouble(const std::string& token);

}  // namespace kvr::header
