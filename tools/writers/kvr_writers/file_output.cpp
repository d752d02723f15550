#include "kvr_writers/file_output.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <string>

namespace kvr::writers {

namespace {

[[noreturn]] void Fail(const char* what, const std::filesystem::path& path) {
  throw std::runtime_error(std::string(what) + " " + path.string());
}

}  // namespace

void WriteBinaryFile(const std::filesystem::path& path, std::span<const std::uint8_t> bytes) {
  StreamingFile file(path);
  file.write(bytes);
  file.close();
}

void WriteTextFile(const std::filesystem::path& path, std::string_view text) {
  WriteBinaryFile(path, {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
}

StreamingFile::StreamingFile(const std::filesystem::path& path) : path_(path), buffer_(1 << 20) {
#if defined(_WIN32)
  file_ = _wfopen(path.c_str(), L"wb");  // Windows names are wide
#else
  file_ = std::fopen(path.c_str(), "wb");
#endif
  if (file_ == nullptr) Fail("cannot create", path);
  std::setvbuf(file_, buffer_.data(), _IOFBF, buffer_.size());
}

StreamingFile::~StreamingFile() {
  if (file_ != nullptr) std::fclose(file_);
}

void StreamingFile::write(std::span<const std::uint8_t> bytes) {
  if (file_ == nullptr) Fail("write after close of", path_);
  if (!bytes.empty() && std::fwrite(bytes.data(), 1, bytes.size(), file_) != bytes.size()) Fail("cannot write", path_);
  size_ += bytes.size();
}

void StreamingFile::writeZeros(std::uint64_t count) {
  static constexpr std::array<std::uint8_t, 4096> kZeros{};
  while (count > 0) {
    const std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(count, kZeros.size()));
    write({kZeros.data(), n});
    count -= n;
  }
}

void StreamingFile::close() {
  if (file_ == nullptr) return;
  const bool flushed = std::fflush(file_) == 0 && std::ferror(file_) == 0;
  const bool closed = std::fclose(file_) == 0;
  file_ = nullptr;
  if (!flushed || !closed) Fail("cannot write", path_);
}

}  // namespace kvr::writers
