#pragma once

#include <cstdio>
#include <string>
#include <string_view>

namespace kvrscan {

// The tool's standard output. The library writes notes of its own to the
// process's standard output ("Optical model version 2", the end-of-file line of
// the block dump); mixed into a table or a JSON document they would spoil it. So
// the tool keeps a duplicate of the original descriptor for itself and points
// descriptor 1 at /dev/null: whatever the library prints goes nowhere.
class Console {
 public:
  // Takes over standard output as described; call once, before any library call.
  static void DivertLibraryOutput();

  // The stream the tool's reports go to.
  static std::FILE* out();

  static void write(std::string_view text);
  static bool stderrIsTerminal();
};

// Human-readable numbers: a count with thin grouping ("12 345 678"), a byte size
// ("1.5 MiB"), a duration in seconds ("1.25 s").
std::string GroupedCount(unsigned long long count);
std::string ByteSize(unsigned long long bytes);

// printf into a std::string.
std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace kvrscan
