#pragma once

#include <cstddef>
#include <cstdint>

#if defined(__linux__)
#include <sys/mman.h>
#include <unistd.h>
#endif

namespace kvr::platform {

// Asks the kernel for the pages of [begin, begin + bytes) now, in one call,
// instead of one fault per page as they are first written: whole pages only,
// a hint. False where the system has no such request (before Linux 5.14, or
// not Linux) or refused it; the pages then fault in as usual.
inline bool PopulatePages(void* begin, std::size_t bytes) {
#if defined(__linux__) && defined(MADV_POPULATE_WRITE)
  static const auto page = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
  const auto from = (reinterpret_cast<std::uintptr_t>(begin) + page - 1) & ~(page - 1);
  const auto to = (reinterpret_cast<std::uintptr_t>(begin) + bytes) & ~(page - 1);
  return to <= from || ::madvise(reinterpret_cast<void*>(from), to - from, MADV_POPULATE_WRITE) == 0;
#else
  (void)begin;
  (void)bytes;
  return false;
#endif
}

}  // namespace kvr::platform
