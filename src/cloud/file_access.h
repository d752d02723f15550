#pragma once

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <span>
#include <string>

// The layer's own access to files: it links the decoder's shared library, whose
// platform functions stay hidden, so it opens, seeks and replaces files here.
namespace kvr::cloud {

struct FileCloser {
  void operator()(std::FILE* file) const {
    if (file != nullptr) std::fclose(file);
  }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

std::FILE* OpenForReading(const std::filesystem::path& path);
bool SeekTo(std::FILE* file, std::uint64_t offset);

// An output written under a temporary name beside its target, then renamed over
// it: the target is either the old file or the complete new one. Every write is
// checked; OutputError names the target and the system's reason. Destroyed
// before commit(), the temporary file is removed and the target left alone.
// A target that exists and is not a regular file (a device, a pipe) is written
// in place: there is nothing to rename over.
class OutputFile {
 public:
  explicit OutputFile(std::filesystem::path target);
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  void write(const void* data, std::size_t size);
  // Overwrites bytes already written, at `offset` from the start.
  void overwrite(std::uint64_t offset, const void* data, std::size_t size, const char* what);
  // Flushes, closes and renames; OutputError on any failure (nothing is left behind).
  void commit();

  const std::filesystem::path& target() const { return target_; }
  std::FILE* stream() const { return file_; }

 private:
  [[noreturn]] void fail(const std::string& what, int error);

  std::filesystem::path target_;
  std::filesystem::path temporary_;  // empty when written in place
  std::FILE* file_ = nullptr;
};

}  // namespace kvr::cloud
