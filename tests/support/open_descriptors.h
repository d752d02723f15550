#pragma once

#include <filesystem>
#include <iterator>

namespace kvr::test {

// The number of file descriptors the process holds: shows whether a reader left
// a stream open.
inline long OpenDescriptorCount() {
  const std::filesystem::directory_iterator entries("/proc/self/fd");
  return static_cast<long>(std::distance(begin(entries), end(entries)));
}

}  // namespace kvr::test
