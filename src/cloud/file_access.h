#pragma once

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <span>
#include <string>

#include "kvr_decode/cloud/export.h"

// The layer's own access to files: it links the decoder's shared library, whose
// platform functions stay hidden, so it opens, seeks and replaces files here.
// Tools of this tree (kvrscan, the batch runner) write their files through it too.
namespace kvr::cloud {

struct FileCloser {
  void operator()(std::FILE* file) const {
    if (file != nullptr) std::fclose(file);
  }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

KVR_CLOUD_API std::FILE* OpenForReading(const std::filesystem::path& path);
KVR_CLOUD_API bool SeekTo(std::FILE* file, std::uint64_t offset);

// An output written under a temporary name beside its target, then renamed over
// it: the target is either the old file or the complete new one. Every write is
// checked; OutputError names the target and the system's reason. Destroyed
// before commit(), the temporary file is removed and the target left alone.
// Temporary names are unique, so two processes writing one target each rename a
// whole file of their own: the last rename wins.
// A target that exists and is not a regular file (a device, a pipe) is written
// in place: there is nothing to rename over.
class KVR_CLOUD_API OutputFile {
 public:
  explicit OutputFile(std::filesystem::path target);
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  void write(const void* data, std::size_t size);
  // Overwrites bytes already written, at `offset` from the start.
  void overwrite(std::uint64_t offset, const void* data, std::size_t size, const char* what);
  // For a writer that opens the file by its name itself (the decoder's map
  // saver): closes this object's stream and returns the name to write to.
  // commit() then renames what was written there.
  std::filesystem::path handOver();
  // Flushes, closes and renames; OutputError on any failure (nothing is left behind).
  void commit();
  // OutputError naming the target: "what (the system's text for error)".
  [[noreturn]] void fail(const std::string& what, int error) const;

  const std::filesystem::path& target() const { return target_; }
  std::FILE* stream() const { return file_; }

 private:
  void forget();

  std::filesystem::path target_;
  std::filesystem::path temporary_;  // empty when written in place
  std::FILE* file_ = nullptr;
  int slot_ = -1;  // where a signal finds the temporary's name
};

// `bytes` as the whole of `path`, through an OutputFile.
KVR_CLOUD_API void WriteWholeFile(const std::filesystem::path& path, std::span<const unsigned char> bytes);

// From now on SIGINT, SIGTERM and SIGHUP remove the temporary file of every
// OutputFile not yet committed, then end the process as the signal would have
// (a shell sees 128 + its number). A signal the process ignores stays ignored.
// SIGXFSZ is ignored, so a write past the file size limit fails (EFBIG) and is
// reported like a full disk instead of killing the process. Does nothing on
// Windows, where an interrupted command may leave its temporary file.
KVR_CLOUD_API void RemoveUnfinishedOutputsOnSignal();

}  // namespace kvr::cloud
