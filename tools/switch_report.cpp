#include <cstdio>

#include <kvr_decode/kvr_decode.h>

// Prints the state of the library's six run-time switches.
int main() {
  static const char* const kMeaning[] = {
      "reverse the byte order of the DMA block's 4-byte words", "reserved", "reserved", "reserved", "reserved",
      "reserved"};
  std::printf("kvr_decode run-time switches\n");
  for (int id = 0; id < 6; ++id) {
    std::printf("  switch %d: %-3s  %s\n", id, QueryCheat(id) ? "on" : "off", kMeaning[id]);
  }
  return 0;
}
