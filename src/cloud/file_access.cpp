#include "file_access.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <system_error>

#include "kvr_decode/cloud/error.h"

#if !defined(_WIN32)
#include <sys/stat.h>
#include <unistd.h>
#endif

namespace kvr::cloud {

std::FILE* OpenForReading(const std::filesystem::path& path) {
#if defined(_WIN32)
  return _wfopen(path.c_str(), L"rb");
#else
  return std::fopen(path.c_str(), "rb");
#endif
}

bool SeekTo(std::FILE* file, std::uint64_t offset) {
#if defined(_WIN32)
  return offset <= static_cast<std::uint64_t>(INT64_MAX) && _fseeki64(file, static_cast<__int64>(offset), SEEK_SET) == 0;
#else
  return offset <= static_cast<std::uint64_t>(std::numeric_limits<off_t>::max()) &&
         fseeko(file, static_cast<off_t>(offset), SEEK_SET) == 0;
#endif
}

OutputFile::OutputFile(std::filesystem::path target) : target_(std::move(target)) {
  namespace fs = std::filesystem;
  std::error_code ec;
  const fs::file_status status = fs::status(target_, ec);
  if (fs::exists(status) && !fs::is_regular_file(status) && !fs::is_directory(status)) {
#if defined(_WIN32)
    file_ = _wfopen(target_.c_str(), L"wb");
#else
    file_ = std::fopen(target_.c_str(), "wb");
#endif
    if (file_ == nullptr) fail("cannot create", errno);
    return;
  }
#if defined(_WIN32)
  // Unique enough for one process: the target's name, the process and a counter.
  static std::atomic<unsigned> counter{0};
  temporary_ = target_;
  temporary_ += L".tmp" + std::to_wstring(_getpid()) + L"-" + std::to_wstring(counter++);
  file_ = _wfopen(temporary_.c_str(), L"wb");
  if (file_ == nullptr) fail("cannot create", errno);
#else
  std::string pattern = target_.string() + ".tmp-XXXXXX";
  const int fd = ::mkstemp(pattern.data());
  if (fd < 0) fail("cannot create", errno);
  temporary_ = pattern;
  // mkstemp makes the file readable by its owner only; an output gets the usual mode.
  const mode_t mask = ::umask(0);
  ::umask(mask);
  ::fchmod(fd, 0666 & ~mask);
  file_ = ::fdopen(fd, "wb");
  if (file_ == nullptr) {
    const int error = errno;
    ::close(fd);
    fail("cannot create", error);
  }
#endif
}

OutputFile::~OutputFile() {
  if (file_ != nullptr) std::fclose(file_);
  if (!temporary_.empty()) {
    std::error_code ec;
    std::filesystem::remove(temporary_, ec);
  }
}

void OutputFile::fail(const std::string& what, int error) {
  throw OutputError(target_, what + " (" + std::strerror(error) + ")");
}

void OutputFile::write(const void* data, std::size_t size) {
  if (size > 0 && std::fwrite(data, 1, size, file_) != size) fail("write failed", errno);
}

void OutputFile::overwrite(std::uint64_t offset, const void* data, std::size_t size, const char* what) {
  const int error = std::fflush(file_) != 0 ? errno : 0;
  if (error != 0) fail("write failed", error);
  if (!SeekTo(file_, offset) || std::fwrite(data, 1, size, file_) != size) {
    fail(what, errno);
  }
}

void OutputFile::commit() {
  std::FILE* file = file_;
  file_ = nullptr;
  const bool flushed = std::fflush(file) == 0;
  int error = flushed ? 0 : errno;
  if (std::fclose(file) != 0 && error == 0) error = errno;
  if (!flushed || error != 0) fail("write failed", error != 0 ? error : EIO);
  if (temporary_.empty()) return;
  std::error_code ec;
  std::filesystem::rename(temporary_, target_, ec);
  if (ec) fail("cannot replace the file", ec.value());
  temporary_.clear();
}

}  // namespace kvr::cloud
