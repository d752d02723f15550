#include "header/text_tokens.h"

#include <climits>
#include <cstdlib>
#include <stdexcept>

namespace kvr::header {

std::vector<std::string> SplitTokens(std::string_view line, std::string_view separators) {
  std::vector<std::string> tokens;
  std::size_t start = 0;
  while (start < line.size()) {
    const std::size_t end = line.find_first_of(separators, start);
    const std::size_t stop = end == std::string_view::npos ? line.size() : end;
    if (stop > start) tokens.emplace_back(line.substr(start, stop - start));
    start = stop + 1;
  }
  return tokens;
}

void ThrowInvalidSubscript() { throw std::out_of_range("invalid vector<T> subscript"); }

int ParseWhole(const std::string& token) {
  // strtoll saturates instead of overflowing; the clamp keeps atoi's int result defined.
  const long long value = std::strtoll(token.c_str(), nullptr, 10);
  if (value > INT_MAX) return INT_MAX;
  if (value < INT_MIN) return INT_MIN;
  return static_cast<int>(value);
}

double ParseDouble(const std::string& token) { return std::strtod(token.c_str(), nullptr); }

}  // namespace kvr::header
