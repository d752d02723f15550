#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

// The only place that talks to the operating system about files and clocks.
namespace kvr::platform {

// Opens a file by its wide-character name. On POSIX the name is UTF-32 and is
// opened as UTF-8. Returns null on failure.
std::FILE* OpenFile(const wchar_t* name, const char* mode);

// Opens a file by a narrow (already native) path.
std::FILE* OpenFileNarrow(const char* path, const char* mode);

// Absolute 64-bit seek from the start of the file; true on success.
bool SeekAbsolute(std::FILE* stream, std::uint64_t offset);

// 64-bit position of the stream, -1 on failure.
std::int64_t Tell(std::FILE* stream);

struct LocalTime {
  int year = 0;
  int month = 0;
  int day = 0;
  int hour = 0;
  int minute = 0;
  int second = 0;
  int millisecond = 0;
};

LocalTime CurrentLocalTime();

// UTF-8 form of a wide name (UTF-32 on POSIX, UTF-16 on Windows).
std::string WideToUtf8(const wchar_t* name);

// Log text of a wide name: every wide character cut to its low byte.
std::string NarrowLowBytes(const wchar_t* name);

// Log text of a wide name: its storage read as a narrow zero-terminated string,
// so a plain ASCII name shows only its first character.
std::string NarrowStorageBytes(const wchar_t* name);

}  // namespace kvr::platform
