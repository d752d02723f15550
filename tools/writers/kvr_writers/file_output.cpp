#include "kvr_writers/file_output.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <random>
#include <stdexcept>
#include <string>
#include <system_error>

namespace kvr::writers {

namespace {

[[noreturn]] void Fail(const std::filesystem::path& path, const char* what, int error) {
  throw std::runtime_error(path.string() + ": " + what + " (" + std::strerror(error) + ")");
}

// A name beside the target that no other writer, in this process or another,
// picks at the same time: the target's name and a random tag.
std::filesystem::path TemporaryBeside(const std::filesystem::path& path) {
  static std::atomic<std::uint64_t> counter{0};
  static const std::uint64_t start = (std::uint64_t{std::random_device{}()} << 32) ^ std::random_device{}();
  const std::uint64_t tag = start + 0x9E3779B97F4A7C15u * counter.fetch_add(1);
  static constexpr char kHex[] = "0123456789abcdef";
  std::string suffix = ".tmp-";
  for (int shift = 60; shift >= 0; shift -= 4) suffix += kHex[(tag >> shift) & 15];
  std::filesystem::path temporary = path;
  temporary += suffix;
  return temporary;
}

std::FILE* Create(const std::filesystem::path& path) {
#if defined(_WIN32)
  return _wfopen(path.c_str(), L"wb");  // Windows names are wide
#else
  return std::fopen(path.c_str(), "wb");
#endif
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
  namespace fs = std::filesystem;
  std::error_code ec;
  const fs::file_status status = fs::status(path, ec);
  // A device or a pipe is written in place: there is nothing to rename over.
  const bool inPlace = fs::exists(status) && !fs::is_regular_file(status) && !fs::is_directory(status);
  if (!inPlace) temporary_ = TemporaryBeside(path);
  file_ = Create(inPlace ? path : temporary_);
  if (file_ == nullptr) Fail(path, "cannot create", errno);
  std::setvbuf(file_, buffer_.data(), _IOFBF, buffer_.size());
}

StreamingFile::~StreamingFile() {
  if (file_ != nullptr) std::fclose(file_);
  if (!temporary_.empty()) {
    std::error_code ec;
    std::filesystem::remove(temporary_, ec);
  }
}

void StreamingFile::write(std::span<const std::uint8_t> bytes) {
  if (file_ == nullptr) throw std::runtime_error(path_.string() + ": write after close");
  if (!bytes.empty() && std::fwrite(bytes.data(), 1, bytes.size(), file_) != bytes.size()) {
    Fail(path_, "write failed", errno);
  }
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
  std::FILE* file = file_;
  file_ = nullptr;
  int error = std::fflush(file) != 0 ? errno : 0;
  if (std::fclose(file) != 0 && error == 0) error = errno;
  if (error != 0) Fail(path_, "write failed", error);
  if (temporary_.empty()) return;
  std::error_code ec;
  std::filesystem::rename(temporary_, path_, ec);
  if (ec) throw std::runtime_error(path_.string() + ": cannot replace the file (" + ec.message() + ")");
  temporary_.clear();
}

}  // namespace kvr::writers
