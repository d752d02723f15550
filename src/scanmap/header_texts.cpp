#include "scanmap/header_texts.h"

#include <cstring>

namespace kvr::scanmap {

char* NewHeaderText(const char* bytes, std::size_t n) {
  char* text = new char[n + 1];
  if (n > 0) std::memcpy(text, bytes, n);
  text[n] = 0;
  return text;
}

void ReleaseHeaderText(char*& text) {
  delete[] text;
  text = nullptr;
}

}  // namespace kvr::scanmap
