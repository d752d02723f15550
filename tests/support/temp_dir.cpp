#include "support/temp_dir.h"

#include <atomic>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>

#if defined(_WIN32)
#  include <process.h>
#  define KVR_PROCESS_ID _getpid
#else
#  include <unistd.h>
#  define KVR_PROCESS_ID getpid
#endif

namespace kvr::test {

TempDir::TempDir() {
  static std::atomic<unsigned> counter{0};
  std::random_device rd;
  const auto base = std::filesystem::temp_directory_path();
  for (int attempt = 0; attempt < 100; ++attempt) {
    auto candidate = base / ("kvr_test_" + std::to_string(KVR_PROCESS_ID()) + "_" + std::to_string(counter++) + "_" +
                             std::to_string(rd() % 1000000));
    if (std::filesystem::create_directory(candidate)) {
      path_ = candidate;
      return;
    }
  }
  throw std::runtime_error("cannot create a temporary directory");
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::permissions(path_, std::filesystem::perms::owner_all, std::filesystem::perm_options::add, ec);
  std::filesystem::remove_all(path_, ec);
}

ScopedCurrentDir::ScopedCurrentDir(const std::filesystem::path& dir) : previous_(std::filesystem::current_path()) {
  std::filesystem::current_path(dir);
}

ScopedCurrentDir::~ScopedCurrentDir() {
  std::error_code ec;
  std::filesystem::current_path(previous_, ec);
}

void WriteFile(const std::filesystem::path& path, const std::vector<std::uint8_t>& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  if (!out) throw std::runtime_error("cannot write " + path.string());
}

void WriteFile(const std::filesystem::path& path, std::string_view text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(text.data(), static_cast<std::streamsize>(text.size()));
  if (!out) throw std::runtime_error("cannot write " + path.string());
}

std::string ReadFileText(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string ReadTextModeFile(const std::filesystem::path& path) {
  std::ifstream in(path);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::vector<std::uint8_t> ReadFileBytes(const std::filesystem::path& path) {
  const std::string text = ReadFileText(path);
  return std::vector<std::uint8_t>(text.begin(), text.end());
}

std::wstring WideName(const std::filesystem::path& path) { return path.wstring(); }

}  // namespace kvr::test
