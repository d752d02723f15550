#include "library_log.h"

#include <filesystem>
#include <fstream>
#include <string_view>

namespace kvrscan {

namespace {
constexpr const char* kLogName = "KVR_Decode.log";
constexpr std::string_view kStartMarker = ": API started";

std::uintmax_t CurrentSize() {
  std::error_code ec;
  const std::uintmax_t size = std::filesystem::file_size(kLogName, ec);
  return ec ? 0 : size;
}
}  // namespace

LibraryLog::LibraryLog() : initialSize_(CurrentSize()) {}

bool LibraryLog::grew() const {
  const std::uintmax_t size = CurrentSize();
  if (size <= initialSize_) return false;
  // Another process started in this directory appends its start marker too:
  // only an entry of another kind is a report of this run.
  constexpr std::uintmax_t kMostRead = 1 << 20;
  if (size - initialSize_ > kMostRead) return true;
  std::ifstream log(kLogName, std::ios::binary);
  log.seekg(static_cast<std::streamoff>(initialSize_));
  for (std::string line; std::getline(log, line);) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (!line.empty() && !line.ends_with(kStartMarker)) return true;
  }
  return false;
}

std::string LibraryLog::path() const {
  std::error_code ec;
  const auto absolute = std::filesystem::absolute(kLogName, ec);
  return ec ? std::string(kLogName) : absolute.string();
}

std::string LibraryLog::note() const { return grew() ? "; the library's log has details: " + path() : ""; }

}  // namespace kvrscan
