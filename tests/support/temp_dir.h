#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace kvr::test {

// A fresh directory, removed with everything in it when the object goes.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path operator/(std::string_view name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

// Makes a directory the current one for the object's lifetime (the log goes to
// the current directory).
class ScopedCurrentDir {
 public:
  explicit ScopedCurrentDir(const std::filesystem::path& dir);
  ~ScopedCurrentDir();
  ScopedCurrentDir(const ScopedCurrentDir&) = delete;
  ScopedCurrentDir& operator=(const ScopedCurrentDir&) = delete;

 private:
  std::filesystem::path previous_;
};

void WriteFile(const std::filesystem::path& path, const std::vector<std::uint8_t>& bytes);
void WriteFile(const std::filesystem::path& path, std::string_view text);
std::string ReadFileText(const std::filesystem::path& path);
// The file as a reader of text sees it: Windows line ends read as "\n".
std::string ReadTextModeFile(const std::filesystem::path& path);
std::vector<std::uint8_t> ReadFileBytes(const std::filesystem::path& path);

// Whether the C library opens a directory as a file that then cannot be read:
// POSIX does, Windows refuses to open it.
#if defined(_WIN32)
inline constexpr bool kDirectoriesOpen = false;
#else
inline constexpr bool kDirectoriesOpen = true;
#endif

// The wide name the library's functions take.
std::wstring WideName(const std::filesystem::path& path);

}  // namespace kvr::test
