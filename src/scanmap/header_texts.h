#pragma once

#include <cstddef>

namespace kvr::scanmap {

// The texts of a map's header copy that the loader creates: a zero-terminated
// copy of n bytes, allocated the way the header reader allocates its own, so
// that one release serves both.
char* NewHeaderText(const char* bytes, std::size_t n);
void ReleaseHeaderText(char* text);

}  // namespace kvr::scanmap
