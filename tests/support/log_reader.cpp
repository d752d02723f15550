#include "support/log_reader.h"

#include <sstream>

#include "support/temp_dir.h"

namespace kvr::test {

namespace {
constexpr const char* kLogName = "KVR_Decode.log";
const std::string kIndent(30, ' ');
}  // namespace

std::string ReadLogText(const std::filesystem::path& dir) {
  const auto path = dir / kLogName;
  if (!std::filesystem::exists(path)) return "";
  return ReadTextModeFile(path);
}

void ClearLog(const std::filesystem::path& dir) {
  std::error_code ec;
  std::filesystem::remove(dir / kLogName, ec);
}

std::vector<ParsedLogEntry> ReadLogEntries(const std::filesystem::path& dir) {
  std::vector<ParsedLogEntry> entries;
  std::istringstream in(ReadLogText(dir));
  std::string line;
  ParsedLogEntry* current = nullptr;
  bool expectMessage = false;
  while (std::getline(in, line)) {
    if (line.empty()) {
      current = nullptr;
      continue;
    }
    const auto sep = line.find("  : ");
    if (current == nullptr && sep == 26) {
      const std::string context = line.substr(30);
      if (context == "API started") continue;
      entries.push_back({line.substr(0, 26), context, "", {}});
      current = &entries.back();
      expectMessage = true;
      continue;
    }
    if (current == nullptr) continue;
    const std::string body = line.compare(0, 30, kIndent) == 0 ? line.substr(30) : "<unindented>" + line;
    if (expectMessage) {
      current->message = body;
      expectMessage = false;
    } else {
      current->details.push_back(body);
    }
  }
  return entries;
}

int CountStartMarkers(const std::filesystem::path& dir) {
  std::istringstream in(ReadLogText(dir));
  std::string line;
  int count = 0;
  while (std::getline(in, line)) {
    if (line.size() > 30 && line.compare(26, 4, "  : ") == 0 && line.substr(30) == "API started") ++count;
  }
  return count;
}

}  // namespace kvr::test
