#include "library_log.h"

#include <filesystem>

namespace kvrscan {

namespace {
constexpr const char* kLogName = "KVR_Decode.log";

std::uintmax_t CurrentSize() {
  std::error_code ec;
  const std::uintmax_t size = std::filesystem::file_size(kLogName, ec);
  return ec ? 0 : size;
}
}  // namespace

LibraryLog::LibraryLog() : initialSize_(CurrentSize()) {}

bool LibraryLog::grew() const { return CurrentSize() > initialSize_; }

std::string LibraryLog::path() const {
  std::error_code ec;
  const auto absolute = std::filesystem::absolute(kLogName, ec);
  return ec ? std::string(kLogName) : absolute.string();
}

std::string LibraryLog::note() const { return grew() ? "; the library's log has details: " + path() : ""; }

}  // namespace kvrscan
