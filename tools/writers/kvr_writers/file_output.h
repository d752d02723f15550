#pragma once

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <span>
#include <string_view>
#include <vector>

// Writing finished bytes to disk, each file under a temporary name beside it
// and renamed over it once whole, so a failure leaves the previous file (or
// none) and no part of the new one. Failures throw std::runtime_error: "FILE:
// what failed (the system's reason)"; the writers serve tools and tests, which
// stop on the first failure.
namespace kvr::writers {

void WriteBinaryFile(const std::filesystem::path& path, std::span<const std::uint8_t> bytes);
void WriteTextFile(const std::filesystem::path& path, std::string_view text);

// A file written front to back in pieces through a large buffer, for outputs
// too big to hold in memory.
class StreamingFile {
 public:
  explicit StreamingFile(const std::filesystem::path& path);
  ~StreamingFile();
  StreamingFile(const StreamingFile&) = delete;
  StreamingFile& operator=(const StreamingFile&) = delete;

  void write(std::span<const std::uint8_t> bytes);
  void writeZeros(std::uint64_t count);
  std::uint64_t size() const { return size_; }
  // Flushes, closes and renames over the target; throws when anything failed
  // to reach the file. Destroyed before close(), nothing of it is left.
  void close();

 private:
  std::filesystem::path path_;
  std::filesystem::path temporary_;  // empty when written in place
  std::FILE* file_ = nullptr;
  std::vector<char> buffer_;
  std::uint64_t size_ = 0;
};

}  // namespace kvr::writers
