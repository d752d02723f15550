#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace kvr::test {

// One entry of the diagnostic log as read back from the file.
struct ParsedLogEntry {
  std::string timeStamp;  // the 26 characters before "  : "
  std::string context;
  std::string message;
  std::vector<std::string> details;
};

// Parses the entries (start markers excluded) of the log in the given
// directory; lines after the first of an entry must carry the 30-blank indent.
std::vector<ParsedLogEntry> ReadLogEntries(const std::filesystem::path& dir);

// The number of "API started" markers in the log of the given directory.
int CountStartMarkers(const std::filesystem::path& dir);

// The raw text of the log in the given directory ("" when there is none).
std::string ReadLogText(const std::filesystem::path& dir);

// Truncates the log in the given directory, so a test sees only its own entries.
void ClearLog(const std::filesystem::path& dir);

}  // namespace kvr::test
