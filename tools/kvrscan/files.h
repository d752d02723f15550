#pragma once

#include <cstdio>
#include <memory>
#include <span>
#include <string>

namespace kvrscan {

// A stream that closes itself, so an exception cannot leak it.
struct FileCloser {
  void operator()(std::FILE* stream) const { std::fclose(stream); }
};
using FileHandle = std::unique_ptr<std::FILE, FileCloser>;

inline FileHandle OpenForReading(const std::string& path) { return FileHandle(std::fopen(path.c_str(), "rb")); }

// Writes `bytes` as the whole of `path` through the point layer's OutputFile (a
// temporary file beside it, renamed over it), so a failed write leaves no half
// file and keeps an old one. ToolError naming `path` and the system's reason.
void WriteWholeFile(const std::string& path, std::span<const unsigned char> bytes);

}  // namespace kvrscan
