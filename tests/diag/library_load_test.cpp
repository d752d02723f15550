#include <gtest/gtest.h>

#include <cctype>
#include <filesystem>
#include <string>
#include <string_view>

#if defined(_WIN32)
#  include <windows.h>
#else
#  include <dlfcn.h>
#endif

#include "support/temp_dir_test_base.h"

namespace kvr {
namespace {

// The built shared library, loaded and unloaded as a host application would.
class LoadedLibrary {
 public:
  explicit LoadedLibrary(const std::filesystem::path& file) {
#if defined(_WIN32)
    handle_ = LoadLibraryW(file.c_str());
#else
    handle_ = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
#endif
  }
  ~LoadedLibrary() { Unload(); }
  LoadedLibrary(const LoadedLibrary&) = delete;
  LoadedLibrary& operator=(const LoadedLibrary&) = delete;

  bool loaded() const { return handle_ != nullptr; }

  void* Symbol(const char* name) const {
#if defined(_WIN32)
    return reinterpret_cast<void*>(GetProcAddress(handle_, name));
#else
    return dlsym(handle_, name);
#endif
  }

  void Unload() {
    if (handle_ == nullptr) return;
#if defined(_WIN32)
    FreeLibrary(handle_);
#else
    dlclose(handle_);
#endif
    handle_ = nullptr;
  }

 private:
#if defined(_WIN32)
  HMODULE handle_ = nullptr;
#else
  void* handle_ = nullptr;
#endif
};

// The number of start markers the log consists of, -1 when it holds anything
// else. (No std::regex here: see CMakeLists.txt.)
int StartMarkerCount(const std::string& log) {
  constexpr std::string_view kShape = "##:##:##.###   ####-##-##   : API started";
  std::size_t at = 0;
  int count = 0;
  while (at < log.size()) {
    if (log.compare(at, 2, "\n\n") != 0) return -1;
    at += 2;
    for (const char c : kShape) {
      if (at >= log.size()) return -1;
      const char got = log[at++];
      if (c == '#' ? std::isdigit(static_cast<unsigned char>(got)) == 0 : got != c) return -1;
    }
    if (log.compare(at, 2, "\n\n") != 0) return -1;
    at += 2;
    ++count;
  }
  return count;
}

class LibraryLoad : public test::InTempDir {
 protected:
  std::filesystem::path Copy(const std::string& name) {
    const auto copy = path(name);
    std::filesystem::copy_file(KVR_DECODE_LIBRARY_PATH, copy);
    return copy;
  }
};

TEST_F(LibraryLoad, EachLoadOfACopyAppendsOneStartMarker) {
  LoadedLibrary first(Copy("first.lib"));
  ASSERT_TRUE(first.loaded());
  const std::string once = test::ReadLogText(dir());
  EXPECT_EQ(StartMarkerCount(once), 1) << once;

  LoadedLibrary second(Copy("second.lib"));
  ASSERT_TRUE(second.loaded());
  const std::string twice = test::ReadLogText(dir());
  EXPECT_EQ(twice.substr(0, once.size()), once);
  EXPECT_EQ(StartMarkerCount(twice.substr(once.size())), 1) << twice;

  // Exported under the compiler's C++ name, the same on both systems.
  using Query = int (*)(int);
  auto query = reinterpret_cast<Query>(second.Symbol("_Z10QueryCheati"));
  ASSERT_NE(query, nullptr);
  EXPECT_EQ(query(2), 1);
}

// An unloaded library is gone: loading it again constructs the log once more.
TEST_F(LibraryLoad, LoadUnloadAndLoadAgainWritesTwoStartMarkers) {
  const auto file = Copy("decode.lib");
  LoadedLibrary library(file);
  ASSERT_TRUE(library.loaded());
  library.Unload();
  LoadedLibrary again(file);
  ASSERT_TRUE(again.loaded());
  const std::string log = test::ReadLogText(dir());
  EXPECT_EQ(StartMarkerCount(log), 2) << log;
}

}  // namespace
}  // namespace kvr
