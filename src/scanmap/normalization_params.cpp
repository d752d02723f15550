#include "scanmap/normalization_params.h"

#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "platform/file_system.h"
#include "platform/number_text.h"
#include "scanmap/truncation.h"

namespace kvr::scanmap {

namespace {

constexpr wchar_t kSuffix[] = L".NormalizationParams.txt";
constexpr int kLineBufferSize = 511;  // a line of at most 510 characters and its terminator
constexpr char kSeparators[] = "= \t";

std::vector<std::string> Tokens(const char* line) {
  std::vector<std::string> tokens;
  const char* p = line;
  while (*p != 0) {
    p += std::strspn(p, kSeparators);
    const std::size_t n = std::strcspn(p, kSeparators);
    if (n > 0) tokens.emplace_back(p, n);
    p += n;
  }
  return tokens;
}

std::map<std::string, double> ReadKeyValues(std::FILE* in) {
  std::map<std::string, double> values;
  // The buffer outlives each read on purpose: a read that meets the end of the
  // file leaves the previous line in it, which is then stored again unchanged.
  char line[kLineBufferSize] = {};
  if (std::feof(in)) return values;
  do {
    if (std::fgets(line, kLineBufferSize, in) == nullptr && std::ferror(in)) break;  // e.g. a directory
    line[std::strcspn(line, "\r\n")] = 0;
    const std::vector<std::string> tokens = Tokens(line);
    if (tokens.size() >= 2) values[tokens[0]] = platform::Atof(tokens[1].c_str());
  } while (!std::feof(in));
  return values;
}

}  // namespace

std::optional<std::int32_t> ApplyNormalizationParameters(const wchar_t* scanFileName, ScanFileMap& map) {
  const std::wstring name = std::wstring(scanFileName) + kSuffix;
  std::FILE* in = platform::OpenFile(name.c_str(), "rt");
  if (in == nullptr) return std::nullopt;
  const std::map<std::string, double> values = ReadKeyValues(in);
  std::fclose(in);

  const struct {
    const char* key;
    double ScanFileMap::*field;
  } doubles[] = {{"a1", &ScanFileMap::a1}, {"a2", &ScanFileMap::a2},       {"a3", &ScanFileMap::a3},
                 {"a4", &ScanFileMap::a4}, {"a5", &ScanFileMap::a5}, {"gamma", &ScanFileMap::gamma}};
  for (const auto& d : doubles) {
    if (const auto it = values.find(d.key); it != values.end()) map.*d.field = it->second;
  }
  if (const auto it = values.find("numberOfBins"); it != values.end()) return TruncateToInt32(it->second);
  return std::nullopt;
}

}  // namespace kvr::scanmap
