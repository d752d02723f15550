#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "platform/little_endian.h"
#include "support/log_reader.h"

// Damaging valid files the ways users' files get damaged: cut short, a field
// overwritten, bytes lost or duplicated in a copy.
namespace kvr::test {

using FileBytes = std::vector<std::uint8_t>;

inline FileBytes Cut(const FileBytes& file, std::size_t size) {
  return FileBytes(file.begin(), file.begin() + static_cast<std::ptrdiff_t>(size < file.size() ? size : file.size()));
}

inline FileBytes WithU32(FileBytes file, std::size_t at, std::uint32_t value) {
  le::StoreU32(&file.at(at + 3) - 3, value);
  return file;
}

inline FileBytes WithText(FileBytes file, std::size_t at, std::string_view text) {
  for (std::size_t i = 0; i < text.size(); ++i) file.at(at + i) = static_cast<std::uint8_t>(text[i]);
  return file;
}

// `count` damaged copies of a valid file, the same for the same seed. Each copy
// has one to four changes: a byte set to a random value, to 0x00 or to 0xFF, a
// byte's bit flipped, a run of up to 16 bytes dropped or repeated, or the file
// cut at a random length.
inline std::vector<FileBytes> Mutations(const FileBytes& valid, std::uint64_t seed, int count) {
  std::mt19937_64 random(seed);
  const auto below = [&](std::size_t n) { return n == 0 ? std::size_t{0} : static_cast<std::size_t>(random() % n); };
  std::vector<FileBytes> out;
  for (int m = 0; m < count; ++m) {
    FileBytes file = valid;
    const int changes = 1 + static_cast<int>(below(4));
    for (int c = 0; c < changes && !file.empty(); ++c) {
      const std::size_t at = below(file.size());
      const std::size_t run = 1 + below(16 < file.size() - at ? 16 : file.size() - at);
      switch (below(7)) {
        case 0: file[at] = static_cast<std::uint8_t>(random()); break;
        case 1: file[at] = 0x00; break;
        case 2: file[at] = 0xFF; break;
        case 3: file[at] ^= static_cast<std::uint8_t>(1u << below(8)); break;
        case 4: file.erase(file.begin() + static_cast<std::ptrdiff_t>(at), file.begin() + static_cast<std::ptrdiff_t>(at + run)); break;
        case 5: {
          const FileBytes copy(file.begin() + static_cast<std::ptrdiff_t>(at), file.begin() + static_cast<std::ptrdiff_t>(at + run));
          file.insert(file.begin() + static_cast<std::ptrdiff_t>(at), copy.begin(), copy.end());
          break;
        }
        default: file.resize(at); break;
      }
    }
    out.push_back(std::move(file));
  }
  return out;
}

// The messages of the log entries written since the last call, then an empty log.
inline std::vector<std::string> TakeLogMessages(const std::filesystem::path& dir) {
  std::vector<std::string> messages;
  for (const ParsedLogEntry& entry : ReadLogEntries(dir)) messages.push_back(entry.message);
  ClearLog(dir);
  return messages;
}

// The contexts likewise, for a test that checks both.
struct LogLine {
  std::string context;
  std::string message;
};
inline std::vector<LogLine> TakeLog(const std::filesystem::path& dir) {
  std::vector<LogLine> lines;
  for (const ParsedLogEntry& entry : ReadLogEntries(dir)) lines.push_back({entry.context, entry.message});
  ClearLog(dir);
  return lines;
}

// A text buffer of a record: `length` + 1 bytes.
inline std::string Buffer(const char* text, std::uint32_t length) {
  return text == nullptr ? std::string("(null)") : std::string(text, std::size_t{length} + 1);
}

}  // namespace kvr::test
