#include "scanmap/header_texts.h"

#include <cstdlib>
#include <cstring>
#include <new>

namespace kvr::scanmap {

// The header reader allocates its texts with the C allocator and
// ReleaseFileHeader frees them with free.
char* NewHeaderText(const char* bytes, std::size_t n) {
  char* text = static_cast<char*>(std::calloc(n + 1, 1));
  if (text == nullptr) throw std::bad_alloc();
  if (n > 0) std::memcpy(text, bytes, n);
  return text;
}

void ReleaseHeaderText(char* text) {
  std::free(text);
}

}  // namespace kvr::scanmap
