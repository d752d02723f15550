#include <cstdio>

#include <kvr_decode/kvr_decode.h>

// Exits 0 when the installed library answers with its load-time defaults.
int main() {
  const int value = QueryCheat(2);
  std::printf("QueryCheat(2) = %d\n", value);
  return value == 1 ? 0 : 1;
}
