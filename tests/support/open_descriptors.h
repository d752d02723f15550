#pragma once

#if defined(_WIN32)
#  include <io.h>
#  include <stdlib.h>
#else
#  include <filesystem>
#  include <iterator>
#endif

namespace kvr::test {

// The number of file descriptors the process holds: shows whether a reader left
// a stream open.
#if defined(_WIN32)
// The C run-time's descriptors are small numbers; probing one that is not open
// is no error for the system's C library (MSVC's would call its
// invalid-parameter handler, which is quietened here).
inline long OpenDescriptorCount() {
#  if defined(_MSC_VER)
  const auto previous = _set_thread_local_invalid_parameter_handler(
      [](const wchar_t*, const wchar_t*, const wchar_t*, unsigned, uintptr_t) {});
#  endif
  long count = 0;
  for (int fd = 0; fd < 2048; ++fd) {
    if (_get_osfhandle(fd) != -1) ++count;
  }
#  if defined(_MSC_VER)
  _set_thread_local_invalid_parameter_handler(previous);
#  endif
  return count;
}
#else
inline long OpenDescriptorCount() {
  const std::filesystem::directory_iterator entries("/proc/self/fd");
  return static_cast<long>(std::distance(begin(entries), end(entries)));
}
#endif

}  // namespace kvr::test
