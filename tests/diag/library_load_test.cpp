#include <dlfcn.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>

#include "support/temp_dir_test_base.h"

namespace kvr {
namespace {

// Loads copies of the built shared library, as a host application would.
class LibraryLoad : public test::InTempDir {
 protected:
  void* LoadCopy(const std::string& name) {
    const auto copy = path(name);
    std::filesystem::copy_file(KVR_DECODE_LIBRARY_PATH, copy);
    void* handle = dlopen(copy.c_str(), RTLD_NOW | RTLD_LOCAL);
    EXPECT_NE(handle, nullptr) << dlerror();
    return handle;
  }
};

TEST_F(LibraryLoad, EachLoadAppendsOneStartMarker) {
  void* first = LoadCopy("first.so");
  ASSERT_NE(first, nullptr);
  const std::string once = test::ReadLogText(dir());
  const std::regex marker(R"(\n\n\d\d:\d\d:\d\d\.\d\d\d   \d{4}-\d\d-\d\d   : API started\n\n)");
  EXPECT_TRUE(std::regex_match(once, marker)) << once;

  void* second = LoadCopy("second.so");
  ASSERT_NE(second, nullptr);
  const std::string twice = test::ReadLogText(dir());
  EXPECT_EQ(twice.substr(0, once.size()), once);
  EXPECT_TRUE(std::regex_match(twice.substr(once.size()), marker)) << twice;

  using Query = int (*)(int);
  auto query = reinterpret_cast<Query>(dlsym(second, "_Z10QueryCheati"));
  ASSERT_NE(query, nullptr);
  EXPECT_EQ(query(2), 1);
  dlclose(second);
  dlclose(first);
}

}  // namespace
}  // namespace kvr
